// Broken and hostile answers from a raw TCP peer end in a clean WinINet error, never a crash or
// a hang; lengths that agree however they are written are taken. Null, bogus, closed and foreign
// handles fail cleanly with the thread's last error set.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include "tests/platform/wininet_test_util.h"
#include "tests/support/servers/gate.h"
#include "tests/support/servers/raw_responder.h"

namespace {

using namespace tq::test;

// Answers the request's head with `bytes`, then stalls, resets or closes.
RawResponder::Script Answer(std::string bytes, void (*after)(RawConnection&) = nullptr) {
  return [bytes, after](RawConnection& c) {
    c.ReadRequestHead();
    c.Send(bytes);
    if (after != nullptr) after(c);
  };
}
void Stall(RawConnection& c) { c.Stall(); }
void Reset(RawConnection& c) { c.Reset(); }
// A header line every 50 ms: each is progress, the block as a whole never arrives in time.
void Drip(RawConnection& c) {
  Gate never;
  for (int i = 0; i < 40 && !never.Wait(std::chrono::milliseconds(50)); ++i) {
    if (!c.Send("X-Drip-" + std::to_string(i) + ": x\r\n")) return;
  }
  c.Send("Content-Length: 2\r\n\r\nok");
}

TEST(BadAnswersTest, EachEndsInAWinInetErrorAfterWhatArrived) {
  const std::string ok = "HTTP/1.1 200 OK\r\n";
  const auto lengths = [&ok](const char* headers) {  // 400 bytes, "hello" first
    return Answer(ok + headers + "\r\nhello" + std::string(395, 'x'));
  };
  const DWORD invalid = ERROR_HTTP_INVALID_SERVER_RESPONSE;
  const struct {
    const char* what;
    RawResponder::Script script;
    DWORD send_error;  // 0: the send succeeds and the read ends with read_error (0: no error)
    DWORD read_error;
    std::string arrived;  // the body read before the failure
    bool exact;           // false: what was read may be a prefix of `arrived`
  } cases[] = {
      {"malformed status line", Answer("HTTP/1.1 abc OK\r\nContent-Length: 0\r\n\r\n"),
       ERROR_HTTP_INVALID_SERVER_RESPONSE, 0, "", true},
      {"status line without a reason", Answer("HTTP/1.1 200\r\nContent-Length: 5\r\n\r\nhello"), 0,
       0, "hello", true},
      {"101 nobody asked for",
       Answer("HTTP/1.1 101 Switching Protocols\r\nUpgrade: x\r\n\r\nnot http"),
       ERROR_HTTP_INVALID_SERVER_RESPONSE, 0, "", true},
      {"interim 103 first", Answer("HTTP/1.1 103 Early Hints\r\nLink: </a>\r\n\r\n" + ok +
                                   "Content-Length: 5\r\n\r\nhello"),
       0, 0, "hello", true},
      // Where one reader ends a line another may not: "X-A: a\rContent-Length: 9" is one
      // header to libcurl, two to a reader that ends lines at a CR.
      {"bare CR inside a header",
       Answer(ok + "X-A: a\rContent-Length: 9\r\nContent-Length: 5\r\n\r\nhello"),
       ERROR_HTTP_INVALID_SERVER_RESPONSE, 0, "", true},
      {"fold before any header", Answer(ok + " X-A: a\r\nContent-Length: 5\r\n\r\nhello"),
       ERROR_HTTP_INVALID_SERVER_RESPONSE, 0, "", true},
      {"trailer without a colon",
       Answer(ok + "Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\nno colon\r\n\r\n"), 0,
       ERROR_HTTP_INVALID_SERVER_RESPONSE, "hello", true},
      // No transfer coding but chunked is removed (none was asked for): a body still coded
      // would come as if it were the bytes sent.
      {"gzip transfer coding",
       Answer(ok + "Transfer-Encoding: gzip, chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n"), invalid,
       0, "", true},
      {"100 KiB header", Answer(ok + "X-Big: " + std::string(100 * 1024, 'a') + "\r\n\r\n"),
       ERROR_HTTP_INVALID_SERVER_RESPONSE, 0, "", true},
      {"stall before the headers", Answer("", Stall), ERROR_INTERNET_TIMEOUT, 0, "", true},
      {"header lines dripped", Answer(ok, Drip), ERROR_INTERNET_TIMEOUT, 0, "", true},
      {"invalid chunk size",
       Answer(ok + "Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\nzz\r\nbroken\r\n0\r\n\r\n"), 0,
       ERROR_HTTP_INVALID_SERVER_RESPONSE, "hello", false},
      {"trailers past the header block's bound",
       Answer(ok + "Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n" + [] {
         std::string lines;
         while (lines.size() <= 300 * 1024) lines += "X-Trailer: " + std::string(89, 't') + "\r\n";
         return lines;
       }() + "\r\n"),
       0, ERROR_HTTP_INVALID_SERVER_RESPONSE, "hello", true},
      {"reset mid-body",
       Answer(ok + "Content-Length: 100000\r\n\r\n" + std::string(1000, 'x'), Reset), 0,
       ERROR_INTERNET_CONNECTION_RESET, std::string(1000, 'x'), false},
      {"shorter than Content-Length", Answer(ok + "Content-Length: 100\r\n\r\n0123456789"), 0,
       ERROR_INTERNET_CONNECTION_ABORTED, "0123456789", true},
      {"stall mid-body", Answer(ok + "Content-Length: 100\r\n\r\nfirst", Stall), 0,
       ERROR_INTERNET_TIMEOUT, "first", true},
      // Content-Length values that disagree, or are no single decimal number, fail the send.
      {"5 then 400", lengths("Content-Length: 5\r\nContent-Length: 400\r\n"), invalid, 0, "", true},
      {"list 5, 400", lengths("Content-Length: 5, 400\r\n"), invalid, 0, "", true},
      {"list 5,", lengths("Content-Length: 5,\r\n"), invalid, 0, "", true},
      {"negative", lengths("Content-Length: -5\r\n"), invalid, 0, "", true},
      {"past 64 bits", lengths("Content-Length: 99999999999999999999\r\n"), invalid, 0, "", true},
      {"2^63", lengths("Content-Length: 9223372036854775808\r\n"), invalid, 0, "", true},
      {"2^64 - 1", lengths("Content-Length: 18446744073709551615\r\n"), invalid, 0, "", true},
      {"5 twice", lengths("Content-Length: 5\r\ncontent-length: 5\r\n"), 0, 0, "hello", true},
      {"spaced 5", lengths("Content-Length:  5 \r\n"), 0, 0, "hello", true},
      {"list 5, 5", lengths("Content-Length: 5, 5\r\n"), 0, 0, "hello", true},
      {"folded 5, 5", lengths("Content-Length: 5,\r\n 5\r\n"), 0, 0, "hello", true},
      {"folded 5 6", lengths("Content-Length: 5\r\n 6\r\n"), invalid, 0, "", true},
      // libcurl frames the body by a Transfer-Encoding line alone, without what a fold adds to
      // it: the chunks' framing would come as the body, and the close would end it as whole.
      {"chunked folded in",
       Answer(ok + "Transfer-Encoding: gzip,\r\n chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n"),
       invalid, 0, "", true},
      {"chunked folded alone",
       Answer(ok + "Transfer-Encoding:\r\n\tchunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n"), invalid,
       0, "", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    RawResponder responder(c.script);
    ASSERT_TRUE(responder.ok());
    Handle session = OpenSession();
    Handle connection = Connect(session, responder.port());
    ASSERT_TRUE(SetDword(connection.get(), INTERNET_OPTION_RECEIVE_TIMEOUT, 300));
    Handle request = OpenRequest(connection, L"/");
    SetLastError(0);
    const DWORD send_error = Send(request) ? 0 : GetLastError();
    EXPECT_EQ(send_error, c.send_error);
    if (send_error != 0) continue;
    std::string body;
    EXPECT_EQ(ReadAll(request, &body) ? DWORD{0} : GetLastError(), c.read_error);
    EXPECT_EQ(c.exact ? c.arrived : c.arrived.substr(0, body.size()), body);
    if (c.read_error == 0) continue;
    // The failure sticks.
    char byte;
    DWORD got = 1;
    EXPECT_FALSE(InternetReadFile(request.get(), &byte, 1, &got));
    EXPECT_EQ(GetLastError(), c.read_error);
  }
}

TEST(HandlesTest, NullBogusClosedAndForeignHandlesAreRefused) {
  Handle session = OpenSession();
  Handle connection = Connect(session, 1);  // nothing listens on port 1; nothing is sent
  ASSERT_TRUE(connection);
  HINTERNET closed = InternetConnectW(session.get(), L"127.0.0.1", 1, nullptr, nullptr,
                                      INTERNET_SERVICE_HTTP, 0, 0);
  ASSERT_TRUE(InternetCloseHandle(closed));
  // Closing a session closes its connections and their requests with it.
  Handle parent = OpenSession();
  Handle child = Connect(parent, 1);
  HINTERNET grandchild = OpenRequest(child, L"/").release();
  ASSERT_NE(grandchild, nullptr);
  ASSERT_TRUE(InternetCloseHandle(parent.release()));
  HINTERNET orphan = child.release();
  int not_a_handle = 0;
  char buffer[8];
  DWORD got = 0, length = sizeof buffer;
  for (HINTERNET bad : {static_cast<HINTERNET>(nullptr), static_cast<HINTERNET>(&not_a_handle),
                        reinterpret_cast<HINTERNET>(std::uintptr_t{0xdeadbeef}), closed,
                        orphan, grandchild}) {
    SCOPED_TRACE(bad);
    EXPECT_EQ(ErrorOf([&] { return InternetCloseHandle(bad); }), ERROR_INVALID_HANDLE);
    EXPECT_EQ(ErrorOf([&] { return HttpSendRequestW(bad, nullptr, 0, nullptr, 0); }),
              ERROR_INVALID_HANDLE);
    got = 7;  // zeroed before any check, as callers may read it after a failure
    EXPECT_EQ(ErrorOf([&] { return InternetReadFile(bad, buffer, sizeof buffer, &got); }),
              ERROR_INVALID_HANDLE);
    EXPECT_EQ(got, 0u);
    EXPECT_EQ(ErrorOf([&] {
                return HttpQueryInfoW(bad, HTTP_QUERY_STATUS_CODE, buffer, &length, nullptr);
              }),
              ERROR_INVALID_HANDLE);
  }
  EXPECT_EQ(ErrorOf([&] {
              return HttpOpenRequestW(session.get(), L"GET", L"/", nullptr, nullptr, nullptr, 0, 0);
            }),
            ERROR_INTERNET_INCORRECT_HANDLE_TYPE);
  EXPECT_EQ(ErrorOf([&] { return InternetReadFile(connection.get(), buffer, 1, &got); }),
            ERROR_INTERNET_INCORRECT_HANDLE_TYPE);
  // A number option one byte short is never read past its end; no buffer, no option. The
  // connection bound takes exactly one DWORD, and not 0.
  DWORD values[2] = {4, 0};
  DWORD& value = values[0];
  const auto set = [&](DWORD option, void* to, DWORD bytes) {
    return ErrorOf([&] { return InternetSetOptionW(connection.get(), option, to, bytes); });
  };
  EXPECT_EQ(set(INTERNET_OPTION_MAX_CONNS_PER_SERVER, &value, sizeof value - 1),
            ERROR_INTERNET_BAD_OPTION_LENGTH);
  EXPECT_EQ(set(INTERNET_OPTION_MAX_CONNS_PER_SERVER, values, sizeof value + 1),
            ERROR_INTERNET_BAD_OPTION_LENGTH);
  EXPECT_EQ(set(INTERNET_OPTION_MAX_CONNS_PER_SERVER, &values[1], sizeof value),
            ERROR_BAD_ARGUMENTS);
  EXPECT_EQ(set(INTERNET_OPTION_RECEIVE_TIMEOUT, nullptr, sizeof value), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(set(9999, &value, sizeof value), ERROR_INTERNET_INVALID_OPTION);
  // Credentials belong to a connection or a request: without a handle they would be answered
  // to every server's challenge in the process.
  wchar_t secret[] = L"secret";
  for (const DWORD option : {INTERNET_OPTION_USERNAME, INTERNET_OPTION_PASSWORD,
                             INTERNET_OPTION_PROXY_USERNAME, INTERNET_OPTION_PROXY_PASSWORD}) {
    EXPECT_EQ(ErrorOf([&] { return InternetSetOptionW(nullptr, option, secret, 6); }),
              ERROR_INTERNET_INCORRECT_HANDLE_TYPE)
        << option;
    EXPECT_EQ(set(option, secret, 6), 0u) << option;
  }

  // A server name that no URL can hold (an IPv6 address without its closing bracket) is taken
  // by the connect and refused by the send, before anything goes out.
  Handle unclosed(InternetConnectW(session.get(), L"[::1", 80, nullptr, nullptr,
                                   INTERNET_SERVICE_HTTP, 0, 0));
  ASSERT_TRUE(unclosed);
  Handle request = OpenRequest(unclosed, L"/");
  EXPECT_EQ(ErrorOf([&] { return Send(request); }), ERROR_INTERNET_INVALID_URL);
  // Out-parameters that are not there, and bytes to read into no buffer.
  EXPECT_EQ(ErrorOf([&] { return InternetReadFile(request.get(), buffer, 1, nullptr); }),
            ERROR_INVALID_PARAMETER);
  got = 7;
  EXPECT_EQ(ErrorOf([&] { return InternetReadFile(request.get(), nullptr, 1, &got); }),
            ERROR_INVALID_PARAMETER);
  EXPECT_EQ(got, 0u);
  EXPECT_EQ(ErrorOf([&] {
              return HttpQueryInfoW(request.get(), HTTP_QUERY_STATUS_CODE, buffer, nullptr,
                                    nullptr);
            }),
            ERROR_INVALID_PARAMETER);
}

// A reset ends the first request on a connection handle; the next one's broken chunk is no reset
// (libcurl keeps a failed call's system error on the handle the requests share), nor is that of
// a request sent again on a new connection after its kept one was reset under it.
TEST(BadAnswersTest, AResetOnTheConnectionBeforeDoesNotNameTheNextFailure) {
  std::atomic<int> served{0};
  RawResponder responder([&served](RawConnection& c) {
    c.ReadRequestHead();
    if (served++ == 0) {
      c.Send("HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n" + std::string(1000, 'x'));
      c.Reset();
    } else {
      c.Send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\nzz\r\n");
    }
  });
  ASSERT_TRUE(responder.ok());
  Handle session = OpenSession();
  Handle connection = Connect(session, responder.port());
  EXPECT_EQ(Fetch(connection, L"/"), "error " + std::to_string(ERROR_INTERNET_CONNECTION_RESET));
  EXPECT_EQ(Fetch(connection, L"/"),
            "error " + std::to_string(ERROR_HTTP_INVALID_SERVER_RESPONSE));

  RawResponder resetting([](RawConnection& c) {
    if (c.ReadRequestHead().starts_with("GET /kept ")) {
      c.Send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
      c.ReadRequestHead();
      c.Reset();
    } else {
      c.Send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\nzz\r\n");
    }
  });
  ASSERT_TRUE(resetting.ok());
  Handle again = Connect(session, resetting.port());
  EXPECT_EQ(Fetch(again, L"/kept"), "ok");
  EXPECT_EQ(Fetch(again, L"/"), "error " + std::to_string(ERROR_HTTP_INVALID_SERVER_RESPONSE));
  EXPECT_EQ(resetting.connection_count(), 2u);
}

}  // namespace
