// Broken and hostile answers from a raw TCP peer: each must end in a clean failure with a
// WinINet error code, never a crash or a hang.
#include <gtest/gtest.h>

#include <string>

#include "tests/platform/wininet_test_util.h"
#include "tests/support/servers/raw_responder.h"

namespace {

using namespace tq::test;

constexpr DWORD kShortTimeoutMs = 300;

class BadAnswersTest : public ::testing::Test {
 protected:
  // Sends one GET to a responder running `script`; returns the request (sent or not) and
  // leaves the send's result in *sent and its error in *error.
  Handle Exchange(RawResponder& responder, bool* sent, DWORD* error) {
    EXPECT_TRUE(responder.ok());
    session_ = OpenSession();
    connection_ = Connect(session_, responder.port());
    EXPECT_TRUE(SetDword(connection_.get(), INTERNET_OPTION_RECEIVE_TIMEOUT, kShortTimeoutMs));
    Handle request = OpenRequest(connection_, L"/");
    SetLastError(0);
    *sent = Send(request);
    *error = *sent ? 0 : GetLastError();
    return request;
  }

  DWORD SendError(RawResponder::Script script) {
    RawResponder responder(std::move(script));
    bool sent = false;
    DWORD error = 0;
    Handle request = Exchange(responder, &sent, &error);
    EXPECT_FALSE(sent);
    return error;
  }

  // The send succeeds; returns the error of the read that fails, with the bytes read before it.
  DWORD ReadError(RawResponder::Script script, std::string* body) {
    RawResponder responder(std::move(script));
    bool sent = false;
    DWORD error = 0;
    Handle request = Exchange(responder, &sent, &error);
    EXPECT_TRUE(sent) << error;
    if (!sent) return 0;
    if (ReadAll(request, body)) return 0;
    const DWORD read_error = GetLastError();
    // The failure sticks: a further read fails the same way.
    char c;
    DWORD got = 1;
    EXPECT_FALSE(InternetReadFile(request.get(), &c, 1, &got));
    EXPECT_EQ(GetLastError(), read_error);
    EXPECT_EQ(got, 0u);
    return read_error;
  }

  Handle session_;
  Handle connection_;
};

TEST_F(BadAnswersTest, MalformedStatusLines) {
  EXPECT_EQ(SendError(RawResponder::Reply("HTTP/1.1 abc OK\r\nContent-Length: 0\r\n\r\n")),
            ERROR_HTTP_INVALID_SERVER_RESPONSE);
  EXPECT_EQ(SendError(RawResponder::Reply("HTTP/1.1 20 OK\r\nContent-Length: 0\r\n\r\n")),
            ERROR_HTTP_INVALID_SERVER_RESPONSE);
  // No status line at all (what HTTP/0.9 would send).
  EXPECT_EQ(SendError(RawResponder::Reply("<html>hello</html>\r\n\r\n")),
            ERROR_HTTP_INVALID_SERVER_RESPONSE);
}

TEST_F(BadAnswersTest, HeaderLineWithoutColon) {
  EXPECT_EQ(SendError(RawResponder::Reply(
                "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nthis is no header\r\n\r\nok")),
            ERROR_HTTP_INVALID_SERVER_RESPONSE);
}

TEST_F(BadAnswersTest, HugeHeaderIsRefused) {
  const std::string big(100 * 1024, 'a');
  EXPECT_EQ(SendError(RawResponder::Reply("HTTP/1.1 200 OK\r\nX-Big: " + big +
                                          "\r\nContent-Length: 0\r\n\r\n")),
            ERROR_HTTP_INVALID_SERVER_RESPONSE);
  // Many headers that are each fine but add up to too much.
  std::string many = "HTTP/1.1 200 OK\r\n";
  for (int i = 0; i < 5000; ++i) many += "X-H" + std::to_string(i) + ": " + std::string(60, 'v') + "\r\n";
  EXPECT_EQ(SendError(RawResponder::Reply(many + "Content-Length: 0\r\n\r\n")),
            ERROR_HTTP_INVALID_SERVER_RESPONSE);
}

TEST_F(BadAnswersTest, ClosedWithoutAnswer) {
  EXPECT_EQ(SendError([](RawConnection& c) { c.ReadRequestHead(); }),
            ERROR_HTTP_INVALID_SERVER_RESPONSE);
}

TEST_F(BadAnswersTest, ResetBeforeAnswer) {
  EXPECT_EQ(SendError([](RawConnection& c) {
              c.ReadRequestHead();
              c.Reset();
            }),
            ERROR_INTERNET_CONNECTION_RESET);
}

TEST_F(BadAnswersTest, InvalidChunkedBody) {
  std::string body;
  EXPECT_EQ(ReadError(RawResponder::Reply("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                                          "5\r\nhello\r\nzz\r\nbroken\r\n0\r\n\r\n"),
                      &body),
            ERROR_HTTP_INVALID_SERVER_RESPONSE);
  // The valid chunk before the broken one may or may not have been handed over.
  EXPECT_EQ(std::string("hello").substr(0, body.size()), body);
}

TEST_F(BadAnswersTest, ResetInTheMiddleOfTheBody) {
  std::string body;
  const DWORD error = ReadError(
      [](RawConnection& c) {
        c.ReadRequestHead();
        c.Send("HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n" + std::string(1000, 'x'));
        c.Reset();
      },
      &body);
  EXPECT_EQ(error, ERROR_INTERNET_CONNECTION_RESET);
  EXPECT_LE(body.size(), 1000u);
}

TEST_F(BadAnswersTest, BodyShorterThanItsContentLength) {
  std::string body;
  EXPECT_EQ(ReadError(
                [](RawConnection& c) {
                  c.ReadRequestHead();
                  c.Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n0123456789");
                },
                &body),
            ERROR_INTERNET_CONNECTION_ABORTED);
  EXPECT_EQ(body, "0123456789");  // what did arrive is handed over before the failure
}

TEST_F(BadAnswersTest, ServerStallingBeforeHeadersTimesOut) {
  EXPECT_EQ(SendError([](RawConnection& c) {
              c.ReadRequestHead();
              c.Stall();
            }),
            ERROR_INTERNET_TIMEOUT);
}

TEST_F(BadAnswersTest, ServerStallingInTheMiddleOfTheBodyTimesOut) {
  std::string body;
  EXPECT_EQ(ReadError(
                [](RawConnection& c) {
                  c.ReadRequestHead();
                  c.Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nfirst");
                  c.Stall();
                },
                &body),
            ERROR_INTERNET_TIMEOUT);
  EXPECT_EQ(body, "first");
}

TEST_F(BadAnswersTest, StallWhileTheCallerIsNotReadingDoesNotCount) {
  // Time between reads is the caller's, not the server's: only a read that waits in vain
  // times out. The second part arrives only after the first read returned.
  RawResponder responder([](RawConnection& c) {
    c.ReadRequestHead();
    c.Send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nfirst");
    if (c.Stall()) c.Send("rest!");
  });
  bool sent = false;
  DWORD error = 0;
  Handle request = Exchange(responder, &sent, &error);
  ASSERT_TRUE(sent) << error;
  char buffer[16];
  DWORD got = 0;
  ASSERT_TRUE(InternetReadFile(request.get(), buffer, sizeof buffer, &got));
  EXPECT_EQ(std::string(buffer, got), "first");
  responder.Release();
  ASSERT_TRUE(InternetReadFile(request.get(), buffer, sizeof buffer, &got));
  EXPECT_EQ(std::string(buffer, got), "rest!");
}

TEST_F(BadAnswersTest, InterimResponsesAreSkipped) {
  RawResponder responder(RawResponder::Reply(
      "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"));
  bool sent = false;
  DWORD error = 0;
  Handle request = Exchange(responder, &sent, &error);
  ASSERT_TRUE(sent) << error;
  EXPECT_EQ(StatusCode(request), 200u);
  std::string body;
  ASSERT_TRUE(ReadAll(request, &body));
  EXPECT_EQ(body, "ok");
}

TEST_F(BadAnswersTest, ConnectionKeptAfterAnExactAnswer) {
  RawResponder responder(
      RawResponder::Reply("HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nabc", /*keep_open=*/true));
  bool sent = false;
  DWORD error = 0;
  for (int i = 0; i < 3; ++i) {
    Handle request = i == 0 ? Exchange(responder, &sent, &error) : OpenRequest(connection_, L"/");
    if (i > 0) sent = Send(request);
    ASSERT_TRUE(sent);
    std::string body;
    ASSERT_TRUE(ReadAll(request, &body));
    EXPECT_EQ(body, "abc");
  }
  EXPECT_EQ(responder.connection_count(), 1u);
}

}  // namespace
