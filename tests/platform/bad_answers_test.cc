// Broken and hostile answers from a raw TCP peer: each must end in a clean failure with a
// WinINet error code, never a crash or a hang.
#include <gtest/gtest.h>

#include <string>

#include "tests/platform/wininet_test_util.h"
#include "tests/support/servers/raw_responder.h"

namespace {

using namespace tq::test;
using Script = RawResponder::Script;

class BadAnswersTest : public ::testing::Test {
 protected:
  // Sends one GET with a short receive time-out; *error is 0 when the send succeeded.
  Handle Exchange(RawResponder& responder, DWORD* error) {
    EXPECT_TRUE(responder.ok());
    session_ = OpenSession();
    connection_ = Connect(session_, responder.port());
    EXPECT_TRUE(SetDword(connection_.get(), INTERNET_OPTION_RECEIVE_TIMEOUT, 300));
    Handle request = OpenRequest(connection_, L"/");
    SetLastError(0);
    *error = Send(request) ? 0 : GetLastError();
    return request;
  }

  Handle session_;
  Handle connection_;
};

// Answers given to a request's head, then `after` (stall, reset, or an orderly close).
Script Answer(std::string bytes, void (*after)(RawConnection&) = nullptr) {
  return [bytes, after](RawConnection& c) {
    c.ReadRequestHead();
    if (!bytes.empty()) c.Send(bytes);
    if (after != nullptr) after(c);
  };
}
void Stall(RawConnection& c) { c.Stall(); }
void Reset(RawConnection& c) { c.Reset(); }

TEST_F(BadAnswersTest, BrokenHeadsFailTheSend) {
  std::string many = "HTTP/1.1 200 OK\r\n";  // headers each fine, too much together
  for (int i = 0; i < 5000; ++i)
    many += "X-H" + std::to_string(i) + ": " + std::string(60, 'v') + "\r\n";
  const struct {
    const char* what;
    Script script;
    DWORD error;
  } cases[] = {
      {"status code not a number",
       RawResponder::Reply("HTTP/1.1 abc OK\r\nContent-Length: 0\r\n\r\n"),
       ERROR_HTTP_INVALID_SERVER_RESPONSE},
      {"two-digit status", RawResponder::Reply("HTTP/1.1 20 OK\r\nContent-Length: 0\r\n\r\n"),
       ERROR_HTTP_INVALID_SERVER_RESPONSE},
      {"no status line", RawResponder::Reply("<html>hello</html>\r\n\r\n"),
       ERROR_HTTP_INVALID_SERVER_RESPONSE},
      {"header line without colon",
       RawResponder::Reply("HTTP/1.1 200 OK\r\nContent-Length: 2\r\nthis is no header\r\n\r\nok"),
       ERROR_HTTP_INVALID_SERVER_RESPONSE},
      {"100 KiB header",
       RawResponder::Reply("HTTP/1.1 200 OK\r\nX-Big: " + std::string(100 * 1024, 'a') +
                           "\r\nContent-Length: 0\r\n\r\n"),
       ERROR_HTTP_INVALID_SERVER_RESPONSE},
      {"too many headers", RawResponder::Reply(many + "Content-Length: 0\r\n\r\n"),
       ERROR_HTTP_INVALID_SERVER_RESPONSE},
      {"closed without answer", Answer(""), ERROR_HTTP_INVALID_SERVER_RESPONSE},
      {"reset before answer", Answer("", Reset), ERROR_INTERNET_CONNECTION_RESET},
      {"stall before the headers", Answer("", Stall), ERROR_INTERNET_TIMEOUT},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    RawResponder responder(c.script);
    DWORD error = 0;
    Handle request = Exchange(responder, &error);
    EXPECT_EQ(error, c.error);
  }
}

TEST_F(BadAnswersTest, BrokenBodiesFailTheReadAfterWhatArrived) {
  const struct {
    const char* what;
    Script script;
    DWORD error;
    std::string arrived;  // the body read before the failure is this or, when !exact, a prefix
    bool exact;
  } cases[] = {
      {"invalid chunk size",
       Answer("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
              "5\r\nhello\r\nzz\r\nbroken\r\n0\r\n\r\n"),
       ERROR_HTTP_INVALID_SERVER_RESPONSE, "hello", false},
      {"reset mid-body",
       Answer("HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n" + std::string(1000, 'x'), Reset),
       ERROR_INTERNET_CONNECTION_RESET, std::string(1000, 'x'), false},
      {"shorter than Content-Length",
       Answer("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n0123456789"),
       ERROR_INTERNET_CONNECTION_ABORTED, "0123456789", true},
      {"stall mid-body", Answer("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nfirst", Stall),
       ERROR_INTERNET_TIMEOUT, "first", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    RawResponder responder(c.script);
    DWORD error = 0;
    Handle request = Exchange(responder, &error);
    ASSERT_EQ(error, 0u);
    std::string body;
    EXPECT_FALSE(ReadAll(request, &body));
    EXPECT_EQ(GetLastError(), c.error);
    if (c.exact) {
      EXPECT_EQ(body, c.arrived);
    } else {
      EXPECT_EQ(c.arrived.substr(0, body.size()), body);
    }
    // The failure sticks: a further read fails the same way.
    char byte;
    DWORD got = 1;
    EXPECT_FALSE(InternetReadFile(request.get(), &byte, 1, &got));
    EXPECT_EQ(GetLastError(), c.error);
    EXPECT_EQ(got, 0u);
  }
}

TEST_F(BadAnswersTest, StallWhileTheCallerIsNotReadingDoesNotCount) {
  // Only a read that waits in vain times out; the rest arrives after the first read returned.
  RawResponder responder([](RawConnection& c) {
    c.ReadRequestHead();
    c.Send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nfirst");
    if (c.Stall()) c.Send("rest!");
  });
  DWORD error = 0;
  Handle request = Exchange(responder, &error);
  ASSERT_EQ(error, 0u);
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
  DWORD error = 0;
  Handle request = Exchange(responder, &error);
  ASSERT_EQ(error, 0u);
  EXPECT_EQ(StatusCode(request), 200u);
  std::string body;
  ASSERT_TRUE(ReadAll(request, &body));
  EXPECT_EQ(body, "ok");
}

}  // namespace
