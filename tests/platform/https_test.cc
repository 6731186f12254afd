// HTTPS: certificates are verified, and a trusted server works with keep-alive.
#include <gtest/gtest.h>

#include "platform/fault_injection.h"
#include "tests/platform/wininet_test_util.h"
#include "tests/support/servers/scripted_server.h"
#include "tests/support/servers/temp_dir.h"
#include "tests/support/servers/tls_files.h"

namespace {

using namespace tq::test;

TEST(HttpsTest, SelfSignedServerIsRefusedUntilTrusted) {
  TempDir dir;
  TlsFiles tls;
  ASSERT_TRUE(MakeSelfSignedCert(dir.path(), "127.0.0.1", &tls));
  ScriptedServer server({.cert_file = tls.cert.string(), .key_file = tls.key.string()});
  ASSERT_TRUE(server.ok());
  server.Route("/secret", ScriptedResponse(200, "classified"));
  Handle session = OpenSession();
  Handle connection = Connect(session, server.port());
  const auto get = [&](std::string* body) -> DWORD {
    Handle request = OpenRequest(connection, L"/secret", L"GET", INTERNET_FLAG_SECURE);
    return Send(request) && ReadAll(request, body) ? 0 : GetLastError();
  };
  std::string body;
  EXPECT_EQ(get(&body), static_cast<DWORD>(ERROR_INTERNET_INVALID_CA));
  EXPECT_EQ(server.request_count(), 0u);

  ASSERT_TRUE(TqPlatformSetCaFile(tls.cert.c_str()));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(get(&body), 0u);
    EXPECT_EQ(body, "classified");
  }
  TqPlatformSetCaFile(nullptr);
  EXPECT_EQ(server.connection_count(), 2u);  // the refused one, and one for all three
  connection.reset();
}

}  // namespace
