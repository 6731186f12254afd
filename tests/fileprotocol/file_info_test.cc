#include "net/fileprotocol/http_file_protocol.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "tests/fileprotocol/protocol_fixture.h"
#include "tests/support/servers/scripted_server.h"

namespace tq::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using qv::net::HttpCredentials;
using qv::net::HttpFileProtocol;

// Answers from a script, one per request in order; the last one repeats.
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

// Requests that carried credentials. The platform may first probe without them to learn the
// server's scheme, so the requests on the wire can outnumber the protocol's sends.
std::size_t WithCredentials(const ScriptedServer& server) {
  std::size_t n = 0;
  for (const auto& r : server.requests()) n += r.Header("Authorization").has_value() ? 1 : 0;
  return n;
}

std::vector<std::string> Methods(const ScriptedServer& server) {
  std::vector<std::string> out;
  for (const auto& r : server.requests()) out.push_back(r.method);
  return out;
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
  std::string url() const { return qv::WideToUtf8(url_); }

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
  EXPECT_THAT(Methods(server_), ElementsAre("HEAD"));

  // Asked again with the same text: no request.
  TqUFileInfo again;
  ASSERT_TRUE(Info("/f", &again));
  EXPECT_EQ(again.GetFileSize(), 900u);
  EXPECT_EQ(server_.request_count(), 1u);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(FileInfoTest, AnswerWithoutAnyInformationFailsAndIsNotRemembered) {
  server_.Route("/f", ScriptedResponse(200).Chunked(4));
  TqUFileInfo info;
  EXPECT_FALSE(Info("/f", &info));
  EXPECT_FALSE(Info("/f", &info));
  EXPECT_EQ(server_.request_count(), 2u);
}

TEST_F(FileInfoTest, RefusedHeadFallsBackToATwoByteGet) {
  server_.Route("/f", [](const RecordedRequest& r) {
    if (r.method == "HEAD") return Status(405);
    ScriptedResponse answer = Status(206);
    answer.headers = {{"Content-Range", "bytes 0-1/900"}};
    answer.body = "ab";
    return answer;
  });
  TqUFileInfo info;
  ASSERT_TRUE(Info("/f", &info));
  EXPECT_EQ(info.GetFileSize(), 900u);
  ASSERT_THAT(Methods(server_), ElementsAre("HEAD", "GET"));
  EXPECT_EQ(server_.requests()[1].Header("Range"), "bytes=0-1");
  EXPECT_EQ(server_.requests()[0].Header("Range"), std::nullopt);
}

TEST_F(FileInfoTest, GetRefusedAgainGivesUpAfterTwoRequests) {
  server_.Route("/f", Status(405));
  TqUFileInfo info;
  EXPECT_FALSE(Info("/f", &info));
  EXPECT_THAT(Methods(server_), ElementsAre("HEAD", "GET"));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(FileInfoTest, BadGatewayIsResentThreeTimes) {
  server_.Route("/ok", Sequence({Status(502), Status(502), Status(502), FullAnswer()}));
  TqUFileInfo info;
  EXPECT_TRUE(Info("/ok", &info));
  EXPECT_EQ(server_.request_count(), 4u);

  server_.Route("/bad", Status(502));
  EXPECT_FALSE(Info("/bad", &info));
  EXPECT_EQ(server_.request_count(), 8u);
  EXPECT_THAT(Log(), IsEmpty());
}

HttpFileProtocol::PreHTTPAuthenticationResult SupplyAliceCredentials(const wchar_t*,
                                                                     HttpCredentials* c) {
  c->SetUsername(L"alice");
  c->SetPassword(L"s3cret");
  return HttpFileProtocol::CredentialsSupplied;
}

std::atomic<int> g_hook_calls{0};
HttpFileProtocol::PreHTTPAuthenticationResult CountingOutOfRangeAnswer(const wchar_t*,
                                                                       HttpCredentials*) {
  ++g_hook_calls;
  return static_cast<HttpFileProtocol::PreHTTPAuthenticationResult>(7);
}

// 401 unless the request carries alice's credentials (Basic "alice:s3cret").
ScriptedResponse RequireAlice(const RecordedRequest& r) {
  if (r.Header("Authorization") == "Basic YWxpY2U6czNjcmV0") return FullAnswer();
  ScriptedResponse answer = Status(401);
  answer.headers = {{"WWW-Authenticate", "Basic realm=\"files\""}};
  return answer;
}

TEST_F(FileInfoTest, ChallengeIsAnsweredWithTheHooksCredentials) {
  server_.Route("/f", RequireAlice);
  HttpFileProtocol::SetPreHTTPAuthenticationFunc(&SupplyAliceCredentials);
  TqUFileInfo info;
  ASSERT_TRUE(Info("/f", &info));
  EXPECT_EQ(info.GetFileSize(), 900u);
  EXPECT_FALSE(server_.requests().front().Header("Authorization").has_value());
  EXPECT_EQ(server_.requests().back().Header("Authorization"), "Basic YWxpY2U6czNjcmV0");
  EXPECT_EQ(WithCredentials(server_), 1u);
}

TEST_F(FileInfoTest, ChallengeEndsTheCallWhenCredentialsFailOrAreMissing) {
  server_.Route("/f", [](const RecordedRequest&) {
    ScriptedResponse answer = Status(401);
    answer.headers = {{"WWW-Authenticate", "Basic realm=\"files\""}};
    return answer;
  });
  TqUFileInfo info;
  // Credentials that the server refuses: one resend, then give up.
  HttpFileProtocol::SetPreHTTPAuthenticationFunc(&SupplyAliceCredentials);
  EXPECT_FALSE(Info("/f", &info));
  EXPECT_EQ(WithCredentials(server_), 1u);
  const std::size_t before = server_.request_count();

  // The default hook, and a URL without user name or password: no resend.
  HttpFileProtocol::SetPreHTTPAuthenticationFunc(&HttpFileProtocol::DefaultPreHTTPAuthentication);
  EXPECT_FALSE(Info("/f?plain", &info));
  EXPECT_EQ(server_.request_count(), before + 1);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(FileInfoTest, HookAnswerOutsideTheEnumerationEndsTheCallEvenAfterABadGateway) {
  server_.Route("/f", Sequence({Status(502), Status(401)}));
  HttpFileProtocol::SetPreHTTPAuthenticationFunc(&CountingOutOfRangeAnswer);
  g_hook_calls = 0;
  TqUFileInfo info;
  EXPECT_FALSE(Info("/f", &info));
  EXPECT_EQ(server_.request_count(), 2u);
  EXPECT_EQ(g_hook_calls.load(), 1);
}

TEST_F(FileInfoTest, UnhandledStatusIsPostedAtSeverityFive) {
  server_.Route("/f", Status(500));
  TqUFileInfo info;
  EXPECT_FALSE(Info("/f", &info));
  EXPECT_THAT(Log(), ElementsAre(Posted{5, "HttpFileProtocol::GetFileInfo HttpQueryInfo Unhandled "
                                           "Status Code for " + url() + ": 500"}));
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
  EXPECT_THAT(Methods(server_), ElementsAre("HEAD", "HEAD", "HEAD"));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(FileInfoTest, OtherFailuresArePosted) {
  server_.Route("/f", FullAnswer());
  TqUFileInfo info;
  ASSERT_TRUE(TqPlatformInjectFault("InternetConnectW", ERROR_INTERNET_NAME_NOT_RESOLVED, 1, 0));
  EXPECT_FALSE(Info("/f", &info));
  ASSERT_TRUE(TqPlatformInjectFault("HttpOpenRequestW", ERROR_INTERNET_OUT_OF_HANDLES, 1, 0));
  EXPECT_FALSE(Info("/f", &info));
  ASSERT_TRUE(TqPlatformInjectFault("HttpSendRequestW", ERROR_INTERNET_TIMEOUT, 1, 0));
  EXPECT_FALSE(Info("/f", &info));
  ASSERT_TRUE(TqPlatformInjectFault("HttpQueryInfoW", ERROR_HTTP_INVALID_QUERY_REQUEST, 1, 0));
  EXPECT_FALSE(Info("/f", &info));
  const std::string u = url();
  EXPECT_THAT(
      Log(),
      ElementsAre(
          Posted{1, "HttpFileProtocol::GetFileInfo InternetConnect for " + u + " failed: 12007"},
          Posted{1, "HttpFileProtocol::GetFileInfo InternetOpen for " + u + " failed: 12001"},
          Posted{1, "HttpFileProtocol::GetFileInfo HttpSendRequest for " + u + " failed: 12002"},
          Posted{1, "HttpFileProtocol::GetFileInfo HttpQueryInfo Status Code for " + u +
                        " failed: 12154"}));
  EXPECT_EQ(server_.request_count(), 1u);  // only the last call's request got through
}

TEST_F(FileInfoTest, InvalidUrlsMakeNoRequest) {
  TqUFileInfo info;
  EXPECT_FALSE(protocol_->GetFileInfo(L"not a url", &info));
  EXPECT_FALSE(protocol_->GetFileInfo(L"http://", &info));
  EXPECT_FALSE(protocol_->GetFileInfo(nullptr, &info));
  EXPECT_FALSE(protocol_->GetFileInfo(L"http://127.0.0.1:1/", nullptr));
  EXPECT_EQ(server_.request_count(), 0u);
  EXPECT_THAT(Log(), IsEmpty());
}

}  // namespace
}  // namespace tq::test
