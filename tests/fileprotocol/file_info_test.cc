#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "net/fileprotocol/http_file_protocol.h"
#include "tests/fileprotocol/protocol_fixture.h"
#include "tests/support/servers/scripted_server.h"

namespace tq::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using qv::net::HttpCredentials;
using qv::net::HttpFileProtocol;

// One answer per request in order; the last one repeats.
ScriptedHandler Sequence(std::vector<ScriptedResponse> answers) {
  auto next = std::make_shared<std::atomic<std::size_t>>(0);
  return [answers, next](const RecordedRequest&) {
    const std::size_t i = next->fetch_add(1);
    return answers[i < answers.size() ? i : answers.size() - 1];
  };
}

ScriptedResponse Status(int status) { return ScriptedResponse(status); }

ScriptedResponse FullAnswer() {
  return ScriptedResponse(200, std::string(900, 'x'))
      .Header("ETag", "\"abc-123\"")
      .Header("Last-Modified", "Sun, 06 Nov 1994 08:49:37 GMT");
}

ScriptedResponse Challenge() {
  return Status(401).Header("WWW-Authenticate", "Basic realm=\"files\"");
}

// 401 unless the request carries alice's credentials (Basic "alice:s3cret").
ScriptedResponse RequireAlice(const RecordedRequest& r) {
  return r.Header("Authorization") == "Basic YWxpY2U6czNjcmV0" ? FullAnswer() : Challenge();
}

HttpFileProtocol::PreHTTPAuthenticationResult SupplyAlice(const wchar_t*, HttpCredentials* c) {
  c->SetUsername(L"alice");
  c->SetPassword(L"s3cret");
  return HttpFileProtocol::CredentialsSupplied;
}

std::atomic<int> g_hook_calls{0};
HttpFileProtocol::PreHTTPAuthenticationResult OutOfRangeAnswer(const wchar_t*, HttpCredentials*) {
  ++g_hook_calls;
  return static_cast<HttpFileProtocol::PreHTTPAuthenticationResult>(7);
}

class FileInfoTest : public ProtocolTest {
 protected:
  void SetUp() override {
    ProtocolTest::SetUp();
    ASSERT_TRUE(server_.ok());
  }
  bool Info(const std::string& path, TqUFileInfo* info) {
    url_ = W(server_.Url(path));
    return protocol_->GetFileInfo(url_.c_str(), info);
  }
  std::vector<std::string> Methods() const {
    std::vector<std::string> out;
    for (const auto& r : server_.requests()) out.push_back(r.method);
    return out;
  }
  // The platform may first probe without credentials to learn the scheme, so the requests on
  // the wire can outnumber the protocol's sends: count only those that carried credentials.
  std::size_t WithCredentials() const {
    std::size_t n = 0;
    for (const auto& r : server_.requests()) n += r.Header("Authorization").has_value() ? 1 : 0;
    return n;
  }

  ScriptedServer server_;
  std::wstring url_;
};

TEST_F(FileInfoTest, HeadGivesSizeRevisionAndTimeAndIsRemembered) {
  server_.Route("/f", FullAnswer());
  TqUFileInfo info;
  ASSERT_TRUE(Info("/f", &info));
  EXPECT_EQ(info.GetFileSize(), 900u);
  EXPECT_EQ(info.GetFileRevisionId(), L"\"abc-123\"");  // quotes kept
  EXPECT_EQ(info.GetFileModificationTime(), 784111777);
  EXPECT_THAT(Methods(), ElementsAre("HEAD"));
  TqUFileInfo again;
  ASSERT_TRUE(Info("/f", &again));
  EXPECT_EQ(again.GetFileSize(), 900u);
  EXPECT_EQ(server_.request_count(), 1u);

  // An answer with no information at all fails and is not remembered.
  server_.Route("/none", ScriptedResponse(200).Chunked(4));
  EXPECT_FALSE(Info("/none", &info));
  EXPECT_FALSE(Info("/none", &info));
  EXPECT_EQ(server_.request_count(), 3u);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(FileInfoTest, RefusedHeadFallsBackToOneTwoByteGet) {
  server_.Route("/f", [](const RecordedRequest& r) {
    if (r.method == "HEAD") return Status(405);
    return ScriptedResponse(206, "ab").Header("Content-Range", "bytes 0-1/900");
  });
  TqUFileInfo info;
  ASSERT_TRUE(Info("/f", &info));
  EXPECT_EQ(info.GetFileSize(), 900u);
  ASSERT_THAT(Methods(), ElementsAre("HEAD", "GET"));
  EXPECT_EQ(server_.requests()[0].Header("Range"), std::nullopt);
  EXPECT_EQ(server_.requests()[1].Header("Range"), "bytes=0-1");

  server_.Route("/g", Status(405));
  EXPECT_FALSE(Info("/g", &info));
  EXPECT_THAT(Methods(), ElementsAre("HEAD", "GET", "HEAD", "GET"));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(FileInfoTest, BadGatewayIsResentThreeTimes) {
  // Given up after the fourth 502: tests/faults (502 storm).
  server_.Route("/f", Sequence({Status(502), Status(502), Status(502), FullAnswer()}));
  TqUFileInfo info;
  EXPECT_TRUE(Info("/f", &info));
  EXPECT_EQ(info.GetFileSize(), 900u);
  EXPECT_EQ(server_.request_count(), 4u);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(FileInfoTest, ChallengeIsAnsweredOnlyByTheHook) {
  server_.Route("/f", RequireAlice);
  HttpFileProtocol::SetPreHTTPAuthenticationFunc(&SupplyAlice);
  TqUFileInfo info;
  ASSERT_TRUE(Info("/f", &info));
  EXPECT_EQ(info.GetFileSize(), 900u);
  EXPECT_FALSE(server_.requests().front().Header("Authorization").has_value());
  EXPECT_EQ(server_.requests().back().Header("Authorization"), "Basic YWxpY2U6czNjcmV0");
  EXPECT_EQ(WithCredentials(), 1u);

  // Credentials that the server refuses: one resend, then give up.
  server_.Route("/g", Challenge());
  EXPECT_FALSE(Info("/g", &info));
  EXPECT_EQ(WithCredentials(), 2u);
  const std::size_t before = server_.request_count();

  // The default hook, and a URL without user name or password: no resend.
  HttpFileProtocol::SetPreHTTPAuthenticationFunc(&HttpFileProtocol::DefaultPreHTTPAuthentication);
  EXPECT_FALSE(Info("/g?plain", &info));
  EXPECT_EQ(server_.request_count(), before + 1);

  // A hook answer outside the enumeration ends the call, even after a bad gateway.
  server_.Route("/h", Sequence({Status(502), Status(401)}));
  HttpFileProtocol::SetPreHTTPAuthenticationFunc(&OutOfRangeAnswer);
  g_hook_calls = 0;
  EXPECT_FALSE(Info("/h", &info));
  EXPECT_EQ(server_.request_count(), before + 3);
  EXPECT_EQ(g_hook_calls.load(), 1);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(FileInfoTest, ConnectAndOpenTimeOutsAreBounded) {
  // Each call asks with a new URL text (the query differs), so the cache never answers.
  server_.Route("/f", FullAnswer());
  TqUFileInfo info;
  ASSERT_TRUE(TqPlatformInjectFault("InternetConnectW", ERROR_INTERNET_TIMEOUT, 2, 0));
  EXPECT_TRUE(Info("/f?1", &info));
  EXPECT_EQ(TqPlatformInjectedFailures("InternetConnectW"), 2u);
  EXPECT_EQ(server_.request_count(), 1u);
  ASSERT_TRUE(TqPlatformInjectFault("InternetConnectW", ERROR_INTERNET_TIMEOUT, 3, 0));
  EXPECT_FALSE(Info("/f?2", &info));
  EXPECT_EQ(server_.request_count(), 1u);

  TqPlatformClearFaults();
  ASSERT_TRUE(TqPlatformInjectFault("HttpOpenRequestW", ERROR_INTERNET_TIMEOUT, 2, 0));
  EXPECT_TRUE(Info("/f?3", &info));
  EXPECT_EQ(server_.request_count(), 2u);

  // The open time-outs count over the whole call: one before the HEAD and two before the GET
  // that follows its 405 make three, and the GET is never sent.
  TqPlatformClearFaults();
  server_.Route("/g", [](const RecordedRequest& r) {
    if (r.method != "HEAD") return FullAnswer();
    TqPlatformInjectFault("HttpOpenRequestW", ERROR_INTERNET_TIMEOUT, 2, 0);
    return Status(405);
  });
  ASSERT_TRUE(TqPlatformInjectFault("HttpOpenRequestW", ERROR_INTERNET_TIMEOUT, 1, 0));
  EXPECT_FALSE(Info("/g", &info));
  EXPECT_THAT(Methods(), ElementsAre("HEAD", "HEAD", "HEAD"));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(FileInfoTest, FailedConnectOpenAndStatusQueryArePosted) {
  // A failed send is posted likewise: tests/faults (reset and stall before the head).
  server_.Route("/f", FullAnswer());
  TqUFileInfo info;
  ASSERT_TRUE(TqPlatformInjectFault("InternetConnectW", ERROR_INTERNET_NAME_NOT_RESOLVED, 1, 0));
  EXPECT_FALSE(Info("/f", &info));
  ASSERT_TRUE(TqPlatformInjectFault("HttpOpenRequestW", ERROR_INTERNET_OUT_OF_HANDLES, 1, 0));
  EXPECT_FALSE(Info("/f", &info));
  ASSERT_TRUE(TqPlatformInjectFault("HttpQueryInfoW", ERROR_HTTP_INVALID_QUERY_REQUEST, 1, 0));
  EXPECT_FALSE(Info("/f", &info));
  const std::string u = qv::WideToUtf8(url_);
  EXPECT_THAT(Log(), ElementsAre(Posted{1, "HttpFileProtocol::GetFileInfo InternetConnect for " +
                                               u + " failed: 12007"},
                                 Posted{1, "HttpFileProtocol::GetFileInfo InternetOpen for " + u +
                                               " failed: 12001"},
                                 Posted{1, "HttpFileProtocol::GetFileInfo HttpQueryInfo Status "
                                           "Code for " + u + " failed: 12154"}));
  EXPECT_EQ(server_.request_count(), 1u);  // only the last call's request got through
}

}  // namespace
}  // namespace tq::test
