// Requests through the real layer against the in-process scripted server.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <random>
#include <thread>
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
    ASSERT_TRUE(session_);
    connection_ = Connect(session_, server_.port());
    ASSERT_TRUE(connection_);
  }

  // Opens, sends and checks a GET; returns the request.
  Handle Get(const std::wstring& path, const std::wstring& headers = L"") {
    Handle request = OpenRequest(connection_, path);
    EXPECT_TRUE(request);
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
    ASSERT_TRUE(ReadAll(request, &body));
    ASSERT_EQ(body, "payload");
  }
  EXPECT_EQ(server_.request_count(), 100u);
  EXPECT_EQ(server_.connection_count(), 1u);
}

TEST_F(RequestTest, ConnectionsPerServerAreBoundedAndExtraRequestsWait) {
  ASSERT_TRUE(SetDword(connection_.get(), INTERNET_OPTION_MAX_CONNS_PER_SERVER, 4));
  Gate gate;
  server_.Route("/held", ScriptedResponse(200, "done").Hold(&gate));
  std::vector<std::future<std::string>> results;
  for (int i = 0; i < 8; ++i) {
    results.push_back(std::async(std::launch::async, [&] {
      Handle request = OpenRequest(connection_, L"/held");
      if (!Send(request)) return "send error " + std::to_string(GetLastError());
      std::string body;
      if (!ReadAll(request, &body)) return "read error " + std::to_string(GetLastError());
      return body;
    }));
  }
  ASSERT_TRUE(gate.WaitForWaiters(4));
  // Four are held at the server; the other four must be waiting for a slot, not at the server.
  EXPECT_EQ(server_.request_count(), 4u);
  gate.Open();
  for (auto& result : results) EXPECT_EQ(result.get(), "done");
  EXPECT_EQ(server_.request_count(), 8u);
  EXPECT_LE(server_.connection_count(), 4u);
  EXPECT_EQ(server_.max_concurrent_requests(), 4u);
}

TEST_F(RequestTest, DefaultBoundIsTwoConnections) {
  Gate gate;
  server_.Route("/held", ScriptedResponse(200, "x").Hold(&gate));
  std::vector<std::future<bool>> results;
  for (int i = 0; i < 3; ++i) {
    results.push_back(std::async(std::launch::async, [&] {
      Handle request = OpenRequest(connection_, L"/held");
      std::string body;
      return Send(request) && ReadAll(request, &body) && body == "x";
    }));
  }
  ASSERT_TRUE(gate.WaitForWaiters(2));
  EXPECT_EQ(server_.request_count(), 2u);
  gate.Open();
  for (auto& result : results) EXPECT_TRUE(result.get());
  EXPECT_LE(server_.connection_count(), 2u);
}

TEST_F(RequestTest, SameRequestHandleCanBeSentAgain) {
  std::atomic<int> calls{0};
  server_.Route("/flaky", [&](const RecordedRequest&) {
    ScriptedResponse response;
    if (calls++ == 0) {
      response.status = 502;
      response.body = std::string(1000, 'e');
    } else {
      response.body = "good";
      response.headers = {{"ETag", "\"v2\""}};
    }
    return response;
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
      ASSERT_EQ(body.size(), data.size()) << chunk;
      EXPECT_TRUE(body == data) << chunk;
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
  const std::string data = RandomBytes(8 * 1024 * 1024, 3);
  server_.Route("/big", ScriptedResponse(200, data));
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

TEST_F(RequestTest, BodyReadToItsEndWithoutTheFinalEmptyReadKeepsTheConnection) {
  server_.Route("/ten", ScriptedResponse(200, "0123456789"));
  for (int i = 0; i < 5; ++i) {
    Handle request = Get(L"/ten");
    char buffer[10];
    DWORD got = 0;
    ASSERT_TRUE(InternetReadFile(request.get(), buffer, sizeof buffer, &got));
    ASSERT_EQ(got, 10u);
  }
  EXPECT_EQ(server_.connection_count(), 1u);
}

TEST_F(RequestTest, HeadHasHeadersAndNoBody) {
  server_.Route("/file", ScriptedResponse(200, std::string(5000, 'x')));
  Handle request = OpenRequest(connection_, L"/file", L"HEAD");
  ASSERT_TRUE(Send(request));
  EXPECT_EQ(StatusCode(request), 200u);
  EXPECT_EQ(QueryText(request, HTTP_QUERY_CONTENT_LENGTH), "5000");
  std::string body;
  ASSERT_TRUE(ReadAll(request, &body));
  EXPECT_EQ(body, "");
  EXPECT_EQ(server_.requests().at(0).method, "HEAD");
}

TEST_F(RequestTest, WhatIsSentArrives) {
  server_.Route("/echo", ScriptedResponse(201, "ok"));
  Handle session(InternetOpenW(L"Agent/1.0", INTERNET_OPEN_TYPE_DIRECT, nullptr, nullptr, 0));
  Handle connection = Connect(session, server_.port());
  const wchar_t* accept[] = {L"text/plain", L"application/json", nullptr};
  Handle request(HttpOpenRequestW(connection.get(), L"POST", L"/echo?x=1 2", nullptr,
                                  L"http://referrer/", accept, 0, 0));
  ASSERT_TRUE(request);
  ASSERT_TRUE(Send(request, L"X-One: 1\r\nRange: bytes=0-9\r\n", "body bytes"));
  EXPECT_EQ(StatusCode(request), 201u);
  const auto requests = server_.requests();
  ASSERT_EQ(requests.size(), 1u);
  const RecordedRequest& seen = requests[0];
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
}

TEST_F(RequestTest, HeaderTextLengthMinusOneMeansTerminated) {
  server_.Route("/h", ScriptedResponse(200));
  Handle request = OpenRequest(connection_, L"/h");
  const wchar_t* headers = L"X-Terminated: yes\r\n";
  ASSERT_TRUE(HttpSendRequestW(request.get(), headers, 0xFFFFFFFFu, nullptr, 0));
  EXPECT_EQ(server_.requests().at(0).Header("X-Terminated"), "yes");
}

TEST_F(RequestTest, HeaderQueriesFollowWinInetRules) {
  server_.Route("/h", ScriptedResponse(200, "12345")
            .Header("ETag", "\"0123456789abcdef\"")
            .Header("X-Multi", "first")
            .Header("X-Multi", "second")
            .Header("Last-Modified", "Tue, 15 Nov 1994 12:45:26 GMT")
            .Header("Retry-After", "120"));
  Handle request = Get(L"/h");

  // The backend's first try: 16 bytes, too small for the ETag.
  wchar_t small[8] = {};
  DWORD length = 16;
  EXPECT_FALSE(HttpQueryInfoW(request.get(), HTTP_QUERY_ETAG, small, &length, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, 38u);
  std::vector<wchar_t> exact(length / 2);
  ASSERT_TRUE(HttpQueryInfoW(request.get(), HTTP_QUERY_ETAG, exact.data(), &length, nullptr));
  EXPECT_EQ(length, 36u);
  EXPECT_EQ(std::wstring(exact.data()), L"\"0123456789abcdef\"");

  DWORD number = 0;
  length = sizeof number;
  ASSERT_TRUE(HttpQueryInfoW(request.get(), HTTP_QUERY_CONTENT_LENGTH | HTTP_QUERY_FLAG_NUMBER,
                             &number, &length, nullptr));
  EXPECT_EQ(number, 5u);
  length = sizeof number;
  ASSERT_TRUE(HttpQueryInfoW(request.get(), HTTP_QUERY_RETRY_AFTER | HTTP_QUERY_FLAG_NUMBER,
                             &number, &length, nullptr));
  EXPECT_EQ(number, 120u);

  SYSTEMTIME time{};
  length = sizeof time;
  ASSERT_TRUE(HttpQueryInfoW(request.get(), HTTP_QUERY_LAST_MODIFIED | HTTP_QUERY_FLAG_SYSTEMTIME,
                             &time, &length, nullptr));
  EXPECT_EQ(time.wYear, 1994);
  EXPECT_EQ(time.wDay, 15);
  EXPECT_EQ(time.wMinute, 45);

  DWORD index = 0;
  EXPECT_EQ(CustomHeader(request, L"x-MULTI", &index), "first");
  EXPECT_EQ(index, 1u);
  EXPECT_EQ(CustomHeader(request, L"X-Multi", &index), "second");
  EXPECT_EQ(index, 2u);
  EXPECT_EQ(CustomHeader(request, L"X-Multi", &index), "<absent>");
  EXPECT_EQ(CustomHeader(request, L"X-None"), "<absent>");
  EXPECT_EQ(QueryText(request, HTTP_QUERY_LOCATION), "<absent>");
  EXPECT_EQ(QueryText(request, HTTP_QUERY_STATUS_TEXT), "OK");
  const std::string raw = QueryText(request, HTTP_QUERY_RAW_HEADERS_CRLF);
  EXPECT_EQ(raw.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << raw;
  EXPECT_NE(raw.find("\r\nX-Multi: second\r\n"), std::string::npos) << raw;
  EXPECT_EQ(raw.substr(raw.size() - 4), "\r\n\r\n");
}

TEST_F(RequestTest, RedirectsAreFollowedAsWinInetDoes) {
  server_.Route("/final", [](const RecordedRequest& r) {
    return ScriptedResponse(200, r.method + ":" + r.body);
  });
  server_.Route("/301", ScriptedResponse(301, "moved")
            .Header("Location", "/final"));
  server_.Route("/302", ScriptedResponse(302)
            .Header("Location", server_.Url("/final")));
  server_.Route("/303", ScriptedResponse(303)
            .Header("Location", "final"));
  server_.Route("/307", ScriptedResponse(307)
            .Header("Location", "/final"));
  server_.Route("/308", ScriptedResponse(308)
            .Header("Location", "/final"));
  server_.Route("/chain", ScriptedResponse(302)
            .Header("Location", "/302"));
  server_.Route("/loop", ScriptedResponse(302)
            .Header("Location", "/loop"));
  server_.Route("/304", ScriptedResponse(304));

  struct Case {
    const wchar_t* path;
    const wchar_t* verb;
    const char* expected;
  } cases[] = {
      {L"/301", L"GET", "GET:"},         {L"/302", L"GET", "GET:"},
      {L"/303", L"POST", "GET:"},        {L"/301", L"POST", "GET:"},
      {L"/302", L"POST", "GET:"},        {L"/307", L"POST", "POST:data"},
      {L"/308", L"POST", "POST:data"},   {L"/chain", L"GET", "GET:"},
  };
  for (const Case& c : cases) {
    Handle request = OpenRequest(connection_, c.path, c.verb);
    ASSERT_TRUE(Send(request, L"", c.verb == std::wstring(L"POST") ? "data" : ""))
        << GetLastError();
    EXPECT_EQ(StatusCode(request), 200u);
    std::string body;
    ASSERT_TRUE(ReadAll(request, &body));
    EXPECT_EQ(body, c.expected) << Wide(c.expected).c_str();
  }

  Handle manual = OpenRequest(connection_, L"/302", L"GET", INTERNET_FLAG_NO_AUTO_REDIRECT);
  ASSERT_TRUE(Send(manual));
  EXPECT_EQ(StatusCode(manual), 302u);
  EXPECT_EQ(QueryText(manual, HTTP_QUERY_LOCATION), server_.Url("/final"));

  Handle not_modified = Get(L"/304");
  EXPECT_EQ(StatusCode(not_modified), 304u);

  Handle loop = OpenRequest(connection_, L"/loop");
  EXPECT_FALSE(Send(loop));
  EXPECT_EQ(GetLastError(), ERROR_HTTP_REDIRECT_FAILED);
  // Redirect bodies are small: every hop went over the one connection.
  EXPECT_EQ(server_.connection_count(), 1u);
}

TEST_F(RequestTest, RedirectToAnotherSchemeIsRefused) {
  server_.Route("/ftp", ScriptedResponse(302)
            .Header("Location", "ftp://127.0.0.1/file"));
  Handle request = OpenRequest(connection_, L"/ftp");
  EXPECT_FALSE(Send(request));
  EXPECT_EQ(GetLastError(), ERROR_HTTP_REDIRECT_FAILED);
}

TEST_F(RequestTest, CredentialsAnswerChallengesOnlyWhenSet) {
  server_.Route("/private", [](const RecordedRequest& r) {
    // "alice:secret"
    if (r.Header("Authorization") == "Basic YWxpY2U6c2VjcmV0") {
      return ScriptedResponse(200, "welcome");
    }
    return ScriptedResponse(401, "denied")
            .Header("WWW-Authenticate", "Basic realm=\"test\"");
  });
  Handle request = Get(L"/private");
  EXPECT_EQ(StatusCode(request), 401u);
  EXPECT_EQ(QueryText(request, HTTP_QUERY_WWW_AUTHENTICATE), "Basic realm=\"test\"");

  // As the file protocol does: credentials on the connection, then the same request again,
  // each text with its terminator and a length in characters.
  wchar_t user[] = L"alice";
  wchar_t password[] = L"secret";
  ASSERT_TRUE(InternetSetOptionW(connection_.get(), INTERNET_OPTION_USERNAME, user, 6));
  ASSERT_TRUE(InternetSetOptionW(connection_.get(), INTERNET_OPTION_PASSWORD, password, 7));
  ASSERT_TRUE(Send(request));
  EXPECT_EQ(StatusCode(request), 200u);
  std::string body;
  ASSERT_TRUE(ReadAll(request, &body));
  EXPECT_EQ(body, "welcome");

  // Wrong credentials: the 401 comes back as the answer.
  wchar_t wrong[] = L"guess";
  ASSERT_TRUE(InternetSetOptionW(request.get(), INTERNET_OPTION_PASSWORD, wrong, 6));
  ASSERT_TRUE(Send(request));
  EXPECT_EQ(StatusCode(request), 401u);
  ASSERT_TRUE(ReadAll(request, &body));
  EXPECT_EQ(body, "denied");

  // Credentials given to InternetConnectW.
  Handle connection(InternetConnectW(session_.get(), L"127.0.0.1",
                                     static_cast<INTERNET_PORT>(server_.port()), L"alice",
                                     L"secret", INTERNET_SERVICE_HTTP, 0, 0));
  Handle again = OpenRequest(connection, L"/private");
  ASSERT_TRUE(Send(again));
  EXPECT_EQ(StatusCode(again), 200u);
}

TEST_F(RequestTest, StalledServerEndsInTimeout) {
  Gate gate;
  server_.Route("/stall", ScriptedResponse(200, "late").Hold(&gate));
  ASSERT_TRUE(SetDword(connection_.get(), INTERNET_OPTION_RECEIVE_TIMEOUT, 300));
  Handle request = OpenRequest(connection_, L"/stall");
  EXPECT_FALSE(Send(request));
  EXPECT_EQ(GetLastError(), ERROR_INTERNET_TIMEOUT);
  // The held answer must be waiting before the gate opens and goes out of scope: on a loaded
  // machine the server may take the request up only after the client gave up on it.
  ASSERT_TRUE(gate.WaitForWaiters(1));
  gate.Open();
}

TEST_F(RequestTest, CloseFromAnotherThreadEndsABlockedSend) {
  Gate gate;
  server_.Route("/stall", ScriptedResponse(200).Hold(&gate));
  Handle request = OpenRequest(connection_, L"/stall");
  HINTERNET raw = request.Release();
  auto sent = std::async(std::launch::async, [raw] {
    const BOOL ok = HttpSendRequestW(raw, nullptr, 0, nullptr, 0);
    return ok ? 0u : GetLastError();
  });
  ASSERT_TRUE(gate.WaitForWaiters(1));
  ASSERT_TRUE(InternetCloseHandle(raw));
  EXPECT_EQ(sent.get(), ERROR_INTERNET_OPERATION_CANCELLED);
  gate.Open();
}

TEST_F(RequestTest, ClosingTheSessionWithRequestsOpenIsSafe) {
  server_.Route("/x", ScriptedResponse(200, std::string(100000, 'x')));
  Handle request = Get(L"/x");
  char buffer[10];
  DWORD got = 0;
  ASSERT_TRUE(InternetReadFile(request.get(), buffer, sizeof buffer, &got));
  session_.Reset();
  EXPECT_FALSE(InternetReadFile(request.get(), buffer, sizeof buffer, &got));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
  EXPECT_FALSE(InternetCloseHandle(request.Release()));
  EXPECT_FALSE(InternetCloseHandle(connection_.Release()));
}

TEST_F(RequestTest, RequestsOfManyThreadsOnOneSession) {
  server_.Route("/t", [](const RecordedRequest& r) {
    return ScriptedResponse(200, r.query);
  });
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

TEST(RequestErrorsTest, NothingListeningAndUnknownNames) {
  Handle session = OpenSession();
  // A port that was just free: nothing listens there.
  int port;
  {
    ScriptedServer gone;
    port = gone.port();
  }
  Handle connection = Connect(session, port);
  Handle request = OpenRequest(connection, L"/");
  EXPECT_FALSE(Send(request));
  EXPECT_EQ(GetLastError(), ERROR_INTERNET_CANNOT_CONNECT);

  Handle nowhere(InternetConnectW(session.get(), L"no-such-host.invalid", 80, nullptr, nullptr,
                                  INTERNET_SERVICE_HTTP, 0, 0));
  Handle lost = OpenRequest(nowhere, L"/");
  EXPECT_FALSE(Send(lost));
  EXPECT_EQ(GetLastError(), ERROR_INTERNET_NAME_NOT_RESOLVED);
}

}  // namespace
