// Requests through the real layer against the in-process scripted server.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <vector>

#include "tests/platform/wininet_test_util.h"
#include "tests/support/servers/scripted_server.h"

namespace {

using namespace tq::test;

class RequestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server_.ok());
    connection_ = Connect(session_, server_.port());
    ASSERT_TRUE(connection_);
  }

  static std::string Body(const Handle& request) {
    std::string body;
    return ReadAll(request, &body) ? body : "error " + std::to_string(GetLastError());
  }

  ScriptedServer server_;  // destroyed last: clients close their connections first
  Handle session_ = OpenSession();
  Handle connection_;
};

TEST_F(RequestTest, ConcurrentRequestsWaitForABoundedNumberOfConnections) {
  ASSERT_TRUE(SetDword(connection_.get(), INTERNET_OPTION_MAX_CONNS_PER_SERVER, 4));
  Gate gate;
  server_.Route("/held", ScriptedResponse(200, "done").Hold(&gate));
  std::vector<std::future<std::string>> results;
  for (int i = 0; i < 8; ++i) {
    results.push_back(std::async(std::launch::async, [this] {
      Handle request = OpenRequest(connection_, L"/held");
      return Send(request) ? Body(request) : "error " + std::to_string(GetLastError());
    }));
  }
  ASSERT_TRUE(gate.WaitForWaiters(4));
  EXPECT_EQ(server_.request_count(), 4u);  // the rest wait for a slot, not at the server
  gate.Open();
  for (auto& result : results) EXPECT_EQ(result.get(), "done");
  EXPECT_EQ(server_.request_count(), 8u);
  EXPECT_LE(server_.connection_count(), 4u);
  EXPECT_EQ(server_.max_concurrent_requests(), 4u);
}

TEST_F(RequestTest, SameRequestHandleCanBeSentAgain) {
  std::atomic<int> calls{0};
  server_.Route("/flaky", [&](const RecordedRequest&) {
    if (calls++ == 0) return ScriptedResponse(502, std::string(1000, 'e'));
    return ScriptedResponse(200, "good");
  });
  Handle request = OpenRequest(connection_, L"/flaky");
  ASSERT_TRUE(Send(request));
  EXPECT_EQ(StatusCode(request), 502u);
  // Resent without reading the first body: the small rest is drained, the connection kept.
  ASSERT_TRUE(Send(request));
  EXPECT_EQ(StatusCode(request), 200u);
  EXPECT_EQ(Body(request), "good");
  EXPECT_EQ(server_.connection_count(), 1u);
}

TEST_F(RequestTest, RedirectsAreFollowedAsWinInetDoes) {
  server_.Route("/final", [](const RecordedRequest& r) {
    return ScriptedResponse(200, r.method + ":" + r.body);
  });
  for (const char* status : {"302", "303", "307"}) {
    server_.Route(std::string("/") + status,
                  ScriptedResponse(std::stoi(status)).Header("Location", server_.Url("/final")));
  }
  server_.Route("/chain", ScriptedResponse(301).Header("Location", "/302"));
  server_.Route("/loop", ScriptedResponse(302).Header("Location", "/loop"));
  const struct {
    const wchar_t* path;
    const wchar_t* verb;
    const char* expected;
  } cases[] = {{L"/chain", L"GET", "GET:"},
               {L"/303", L"POST", "GET:"},
               {L"/307", L"POST", "POST:data"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.verb << " " << c.path);
    Handle request = OpenRequest(connection_, c.path, c.verb);
    ASSERT_TRUE(Send(request, L"", c.verb == std::wstring(L"POST") ? "data" : ""));
    EXPECT_EQ(StatusCode(request), 200u);
    EXPECT_EQ(Body(request), c.expected);
  }
  Handle loop = OpenRequest(connection_, L"/loop");
  EXPECT_FALSE(Send(loop));
  EXPECT_EQ(GetLastError(), ERROR_HTTP_REDIRECT_FAILED);
}

}  // namespace
