// Requests through the real layer against the in-process scripted server.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <random>
#include <vector>

#include "tests/platform/wininet_test_util.h"
#include "tests/support/servers/scripted_server.h"

namespace {

using namespace tq::test;

std::string RandomBytes(std::size_t size, unsigned seed) {
  std::mt19937 rng(seed);
  std::string out(size, '\0');
  for (auto& c : out) c = static_cast<char>(rng());
  return out;
}

class RequestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server_.ok());
    session_ = OpenSession();
    connection_ = Connect(session_, server_.port());
    ASSERT_TRUE(connection_);
  }

  Handle Get(const std::wstring& path, const std::wstring& headers = L"") {
    Handle request = OpenRequest(connection_, path);
    EXPECT_TRUE(Send(request, headers)) << "error " << GetLastError();
    return request;
  }

  // Declared first: destroyed after the handles, so clients close their connections first.
  ScriptedServer server_;
  Handle session_;
  Handle connection_;
};

TEST_F(RequestTest, SequentialRequestsReuseOneConnection) {
  server_.Route("/item", ScriptedResponse(200, "payload"));
  for (int i = 0; i < 100; ++i) {
    Handle request = Get(L"/item");
    std::string body;
    if (i % 2 == 0) {
      ASSERT_TRUE(ReadAll(request, &body));
    } else {  // read to the end without the final empty read: the connection is still free
      body.resize(7);
      DWORD got = 0;
      ASSERT_TRUE(InternetReadFile(request.get(), body.data(), 7, &got));
      ASSERT_EQ(got, 7u);
    }
    ASSERT_EQ(body, "payload");
  }
  EXPECT_EQ(server_.request_count(), 100u);
  EXPECT_EQ(server_.connection_count(), 1u);
}

TEST_F(RequestTest, ConcurrentRequestsWaitForABoundedNumberOfConnections) {
  const struct {
    DWORD option;  // 0: the default bound
    int requests;
    std::size_t bound;
  } cases[] = {{4, 8, 4}, {0, 3, 2}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.bound);
    ScriptedServer server;
    Handle session = OpenSession();
    Handle connection = Connect(session, server.port());
    if (c.option != 0) {
      ASSERT_TRUE(SetDword(connection.get(), INTERNET_OPTION_MAX_CONNS_PER_SERVER, c.option));
    }
    Gate gate;
    server.Route("/held", ScriptedResponse(200, "done").Hold(&gate));
    std::vector<std::future<std::string>> results;
    for (int i = 0; i < c.requests; ++i) {
      results.push_back(std::async(std::launch::async, [&] {
        Handle request = OpenRequest(connection, L"/held");
        if (!Send(request)) return "send error " + std::to_string(GetLastError());
        std::string body;
        if (!ReadAll(request, &body)) return "read error " + std::to_string(GetLastError());
        return body;
      }));
    }
    ASSERT_TRUE(gate.WaitForWaiters(static_cast<int>(c.bound)));
    // The bound's worth are held at the server; the rest wait for a slot, not at the server.
    EXPECT_EQ(server.request_count(), c.bound);
    gate.Open();
    for (auto& result : results) EXPECT_EQ(result.get(), "done");
    EXPECT_EQ(server.request_count(), static_cast<std::size_t>(c.requests));
    EXPECT_LE(server.connection_count(), c.bound);
    EXPECT_EQ(server.max_concurrent_requests(), c.bound);
  }
}

TEST_F(RequestTest, SameRequestHandleCanBeSentAgain) {
  std::atomic<int> calls{0};
  server_.Route("/flaky", [&](const RecordedRequest&) {
    if (calls++ == 0) return ScriptedResponse(502, std::string(1000, 'e'));
    return ScriptedResponse(200, "good").Header("ETag", "\"v2\"");
  });
  Handle request = Get(L"/flaky");
  EXPECT_EQ(StatusCode(request), 502u);
  // Resent without reading the first body: the small rest is drained, the connection kept.
  ASSERT_TRUE(Send(request));
  EXPECT_EQ(StatusCode(request), 200u);
  EXPECT_EQ(QueryText(request, HTTP_QUERY_ETAG), "\"v2\"");
  std::string body;
  ASSERT_TRUE(ReadAll(request, &body));
  EXPECT_EQ(body, "good");
  // And once more after the body was read to its end.
  ASSERT_TRUE(Send(request));
  ASSERT_TRUE(ReadAll(request, &body));
  EXPECT_EQ(body, "good");
  EXPECT_EQ(server_.request_count(), 3u);
  EXPECT_EQ(server_.connection_count(), 1u);
}

TEST_F(RequestTest, BodyIsExactWhateverTheReadSize) {
  const std::string data = RandomBytes(3 * 1024 * 1024 + 17, 7);
  server_.Route("/big", ScriptedResponse(200, data));
  server_.Route("/chunked", ScriptedResponse(200, data).Chunked(100000));
  for (const wchar_t* path : {L"/big", L"/chunked"}) {
    for (DWORD chunk : {1u, 1000u, 65536u, 8u * 1024 * 1024}) {
      SCOPED_TRACE(chunk);
      Handle request = Get(path);
      std::string body;
      if (chunk == 1) {
        // One-byte reads of the first 300 KiB exercise the rest kept between reads.
        for (int i = 0; i < 300 * 1024; ++i) {
          char c;
          DWORD got = 0;
          ASSERT_TRUE(InternetReadFile(request.get(), &c, 1, &got));
          ASSERT_EQ(got, 1u);
          body.push_back(c);
        }
        std::string rest;
        ASSERT_TRUE(ReadAll(request, &rest, 77777));
        body += rest;
      } else {
        ASSERT_TRUE(ReadAll(request, &body, chunk));
      }
      ASSERT_EQ(body.size(), data.size());
      EXPECT_TRUE(body == data);
      // At the end: more reads keep giving 0 bytes and success.
      char c;
      DWORD got = 9;
      EXPECT_TRUE(InternetReadFile(request.get(), &c, 1, &got));
      EXPECT_EQ(got, 0u);
    }
  }
  EXPECT_EQ(server_.connection_count(), 1u);
}

TEST_F(RequestTest, RequestClosedMidBodyDropsItsConnectionOnly) {
  server_.Route("/big", ScriptedResponse(200, RandomBytes(8 * 1024 * 1024, 3)));
  server_.Route("/small", ScriptedResponse(200, "s"));
  {
    Handle request = Get(L"/big");
    char buffer[1000];
    DWORD got = 0;
    ASSERT_TRUE(InternetReadFile(request.get(), buffer, sizeof buffer, &got));
    ASSERT_GT(got, 0u);
  }
  for (int i = 0; i < 3; ++i) {
    Handle request = Get(L"/small");
    std::string body;
    ASSERT_TRUE(ReadAll(request, &body));
    EXPECT_EQ(body, "s");
  }
  // The abandoned transfer's connection was closed; the later requests share one new one.
  EXPECT_EQ(server_.connection_count(), 2u);
}

TEST_F(RequestTest, WhatIsSentArrives) {
  server_.Route("/echo", ScriptedResponse(201, "ok"));
  Handle session(InternetOpenW(L"Agent/1.0", INTERNET_OPEN_TYPE_DIRECT, nullptr, nullptr, 0));
  Handle connection = Connect(session, server_.port());
  const wchar_t* accept[] = {L"text/plain", L"application/json", nullptr};
  Handle request(HttpOpenRequestW(connection.get(), L"POST", L"/echo?x=1 2", nullptr,
                                  L"http://referrer/", accept, 0, 0));
  ASSERT_TRUE(Send(request, L"X-One: 1\r\nRange: bytes=0-9\r\n", "body bytes"));
  EXPECT_EQ(StatusCode(request), 201u);
  const RecordedRequest seen = server_.requests().at(0);
  EXPECT_EQ(seen.method, "POST");
  EXPECT_EQ(seen.path, "/echo");
  EXPECT_EQ(seen.query, "x=1%202");
  EXPECT_EQ(seen.body, "body bytes");
  EXPECT_EQ(seen.Header("X-One"), "1");
  EXPECT_EQ(seen.Header("Range"), "bytes=0-9");
  EXPECT_EQ(seen.Header("User-Agent"), "Agent/1.0");
  EXPECT_EQ(seen.Header("Accept"), "text/plain, application/json");
  EXPECT_EQ(seen.Header("Referer"), "http://referrer/");
  EXPECT_EQ(seen.Header("Expect"), std::nullopt);
  // What was sent can be queried too.
  EXPECT_EQ(QueryText(request, HTTP_QUERY_FLAG_REQUEST_HEADERS | HTTP_QUERY_RANGE), "bytes=0-9");
  EXPECT_EQ(QueryText(request, HTTP_QUERY_REQUEST_METHOD), "POST");

  // A header length of -1 means the text is terminated.
  Handle terminated = OpenRequest(connection_, L"/echo");
  ASSERT_TRUE(
      HttpSendRequestW(terminated.get(), L"X-Terminated: yes\r\n", 0xFFFFFFFFu, nullptr, 0));
  EXPECT_EQ(server_.requests().at(1).Header("X-Terminated"), "yes");
}

TEST_F(RequestTest, RedirectsAreFollowedAsWinInetDoes) {
  server_.Route("/final", [](const RecordedRequest& r) {
    return ScriptedResponse(200, r.method + ":" + r.body);
  });
  const std::pair<const char*, std::string> redirects[] = {
      {"/301", "/final"}, {"/302", server_.Url("/final")},
      {"/303", "final"},  {"/307", "/final"},
      {"/308", "/final"}, {"/chain", "/302"},
      {"/loop", "/loop"}, {"/ftp", "ftp://127.0.0.1/file"}};
  for (const auto& [path, location] : redirects) {
    const int status = path[1] == '3' ? std::stoi(path + 1) : 302;
    server_.Route(
        path, ScriptedResponse(status, status == 301 ? "moved" : "").Header("Location", location));
  }
  server_.Route("/304", ScriptedResponse(304));

  const struct {
    const wchar_t* path;
    const wchar_t* verb;
    const char* expected;
  } cases[] = {
      {L"/301", L"GET", "GET:"},       {L"/302", L"GET", "GET:"},   {L"/303", L"POST", "GET:"},
      {L"/301", L"POST", "GET:"},      {L"/302", L"POST", "GET:"},  {L"/307", L"POST", "POST:data"},
      {L"/308", L"POST", "POST:data"}, {L"/chain", L"GET", "GET:"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.verb << " " << c.path);
    Handle request = OpenRequest(connection_, c.path, c.verb);
    ASSERT_TRUE(Send(request, L"", c.verb == std::wstring(L"POST") ? "data" : ""))
        << GetLastError();
    EXPECT_EQ(StatusCode(request), 200u);
    std::string body;
    ASSERT_TRUE(ReadAll(request, &body));
    EXPECT_EQ(body, c.expected);
  }

  Handle manual = OpenRequest(connection_, L"/302", L"GET", INTERNET_FLAG_NO_AUTO_REDIRECT);
  ASSERT_TRUE(Send(manual));
  EXPECT_EQ(StatusCode(manual), 302u);
  EXPECT_EQ(QueryText(manual, HTTP_QUERY_LOCATION), server_.Url("/final"));
  EXPECT_EQ(StatusCode(Get(L"/304")), 304u);
  Handle loop = OpenRequest(connection_, L"/loop");
  EXPECT_FALSE(Send(loop));
  EXPECT_EQ(GetLastError(), ERROR_HTTP_REDIRECT_FAILED);
  // Redirect bodies are small: every hop went over the one connection.
  EXPECT_EQ(server_.connection_count(), 1u);
  Handle other_scheme = OpenRequest(connection_, L"/ftp");
  EXPECT_FALSE(Send(other_scheme));
  EXPECT_EQ(GetLastError(), ERROR_HTTP_REDIRECT_FAILED);
}

// Credentials set on the connection handle are FileInfoTest's; these come with
// InternetConnectW (as the backend passes a URL's user) or on the request handle.
TEST_F(RequestTest, CredentialsAnswerChallengesOnlyWhenSet) {
  server_.Route("/private", [](const RecordedRequest& r) {
    if (r.Header("Authorization") == "Basic YWxpY2U6c2VjcmV0") {  // alice:secret
      return ScriptedResponse(200, "welcome");
    }
    return ScriptedResponse(401, "denied").Header("WWW-Authenticate", "Basic realm=\"test\"");
  });
  Handle request = Get(L"/private");
  EXPECT_EQ(StatusCode(request), 401u);
  EXPECT_EQ(QueryText(request, HTTP_QUERY_WWW_AUTHENTICATE), "Basic realm=\"test\"");

  Handle connection(InternetConnectW(session_.get(), L"127.0.0.1",
                                     static_cast<INTERNET_PORT>(server_.port()), L"alice",
                                     L"secret", INTERNET_SERVICE_HTTP, 0, 0));
  Handle again = OpenRequest(connection, L"/private");
  std::string body;
  ASSERT_TRUE(Send(again));
  EXPECT_EQ(StatusCode(again), 200u);
  ASSERT_TRUE(ReadAll(again, &body));
  EXPECT_EQ(body, "welcome");

  // A wrong password on the request, each text with its terminator, length in characters:
  // the 401 comes back as the answer.
  wchar_t wrong[] = L"guess";
  ASSERT_TRUE(InternetSetOptionW(again.get(), INTERNET_OPTION_PASSWORD, wrong, 6));
  ASSERT_TRUE(Send(again));
  EXPECT_EQ(StatusCode(again), 401u);
  ASSERT_TRUE(ReadAll(again, &body));
  EXPECT_EQ(body, "denied");
}

TEST_F(RequestTest, CloseFromAnotherThreadEndsABlockedSend) {
  Gate gate;
  server_.Route("/stall", ScriptedResponse(200).Hold(&gate));
  HINTERNET raw = OpenRequest(connection_, L"/stall").Release();
  auto sent = std::async(std::launch::async, [raw] {
    return HttpSendRequestW(raw, nullptr, 0, nullptr, 0) ? 0u : GetLastError();
  });
  ASSERT_TRUE(gate.WaitForWaiters(1));
  ASSERT_TRUE(InternetCloseHandle(raw));
  EXPECT_EQ(sent.get(), ERROR_INTERNET_OPERATION_CANCELLED);
  gate.Open();
}

TEST_F(RequestTest, ClosingTheSessionClosesItsChildrenEvenMidBody) {
  server_.Route("/x", ScriptedResponse(200, std::string(100000, 'x')));
  Handle request = Get(L"/x");
  char buffer[10];
  DWORD got = 0;
  ASSERT_TRUE(InternetReadFile(request.get(), buffer, sizeof buffer, &got));
  session_.Reset();
  EXPECT_FALSE(InternetReadFile(request.get(), buffer, sizeof buffer, &got));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
  EXPECT_FALSE(InternetCloseHandle(request.Release()));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
  EXPECT_FALSE(InternetCloseHandle(connection_.Release()));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST_F(RequestTest, RequestsOfManyThreadsOnOneSession) {
  server_.Route("/t", [](const RecordedRequest& r) { return ScriptedResponse(200, r.query); });
  ASSERT_TRUE(SetDword(connection_.get(), INTERNET_OPTION_MAX_CONNS_PER_SERVER, 4));
  std::vector<std::future<int>> workers;
  for (int t = 0; t < 6; ++t) {
    workers.push_back(std::async(std::launch::async, [this, t] {
      int good = 0;
      for (int i = 0; i < 20; ++i) {
        const std::string query = std::to_string(t) + "-" + std::to_string(i);
        Handle request = OpenRequest(connection_, L"/t?" + Wide(query));
        std::string body;
        if (Send(request) && ReadAll(request, &body) && body == query) ++good;
      }
      return good;
    }));
  }
  for (auto& worker : workers) EXPECT_EQ(worker.get(), 20);
  EXPECT_LE(server_.connection_count(), 4u);
}

}  // namespace
