// HTTPS: certificates are verified, and a trusted server works with keep-alive.
#include <gtest/gtest.h>

#include <memory>

#include "platform/fault_injection.h"
#include "tests/platform/wininet_test_util.h"
#include "tests/support/servers/scripted_server.h"
#include "tests/support/servers/temp_dir.h"
#include "tests/support/servers/tls_files.h"

namespace {

using namespace tq::test;

class HttpsTest : public ::testing::Test {
 protected:
  void Start(const std::string& cert_host) {
    ASSERT_TRUE(MakeSelfSignedCert(dir_.path(), cert_host, &tls_));
    server_ = std::make_unique<ScriptedServer>(
        ScriptedServer::Options{.cert_file = tls_.cert.string(), .key_file = tls_.key.string()});
    ASSERT_TRUE(server_->ok());
    server_->Route("/secret", ScriptedResponse(200, "classified"));
    session_ = OpenSession();
    connection_ = Connect(session_, server_->port());
  }
  void TearDown() override {
    TqPlatformSetCaFile(nullptr);
    connection_.Reset();
    session_.Reset();
  }

  // Sends a secure GET; returns 0 on success or the error.
  DWORD SecureGet(DWORD extra_flags = 0, std::string* body = nullptr) {
    Handle request = OpenRequest(connection_, L"/secret", L"GET", INTERNET_FLAG_SECURE | extra_flags);
    if (!Send(request)) return GetLastError();
    std::string text;
    if (!ReadAll(request, &text)) return GetLastError();
    if (body != nullptr) *body = text;
    return 0;
  }

  TempDir dir_;
  TlsFiles tls_;
  std::unique_ptr<ScriptedServer> server_;
  Handle session_;
  Handle connection_;
};

TEST_F(HttpsTest, SelfSignedServerIsRefused) {
  Start("127.0.0.1");
  EXPECT_EQ(SecureGet(), ERROR_INTERNET_INVALID_CA);
  EXPECT_EQ(server_->request_count(), 0u);
}

TEST_F(HttpsTest, TrustedServerServesOverOneConnection) {
  Start("127.0.0.1");
  ASSERT_TRUE(TqPlatformSetCaFile(tls_.cert.c_str()));
  for (int i = 0; i < 3; ++i) {
    std::string body;
    ASSERT_EQ(SecureGet(0, &body), 0u);
    EXPECT_EQ(body, "classified");
  }
  EXPECT_EQ(server_->connection_count(), 1u);
}

TEST_F(HttpsTest, NameMismatchIsRefusedUnlessIgnored) {
  Start("localhost");  // the certificate names localhost; the request goes to 127.0.0.1
  ASSERT_TRUE(TqPlatformSetCaFile(tls_.cert.c_str()));
  EXPECT_EQ(SecureGet(), ERROR_INTERNET_SEC_CERT_CN_INVALID);
  EXPECT_EQ(SecureGet(INTERNET_FLAG_IGNORE_CERT_CN_INVALID), 0u);
}

TEST_F(HttpsTest, RedirectFromHttpsToHttpIsRefused) {
  Start("127.0.0.1");
  ASSERT_TRUE(TqPlatformSetCaFile(tls_.cert.c_str()));
  ScriptedServer plain;
  plain.Route("/x", ScriptedResponse(200, "plain"));
  server_->Route("/down", ScriptedResponse(302).Header("Location", plain.Url("/x")));
  Handle request = OpenRequest(connection_, L"/down", L"GET", INTERNET_FLAG_SECURE);
  EXPECT_FALSE(Send(request));
  EXPECT_EQ(GetLastError(), ERROR_INTERNET_HTTPS_TO_HTTP_ON_REDIR);
  EXPECT_EQ(plain.request_count(), 0u);

  Handle allowed = OpenRequest(connection_, L"/down", L"GET",
                               INTERNET_FLAG_SECURE | INTERNET_FLAG_IGNORE_REDIRECT_TO_HTTP);
  ASSERT_TRUE(Send(allowed));
  std::string body;
  ASSERT_TRUE(ReadAll(allowed, &body));
  EXPECT_EQ(body, "plain");
  allowed.Reset();
  connection_.Reset();  // closes the kept connection to `plain` before it stops
}

}  // namespace
