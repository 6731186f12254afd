// The transfer engine's own rules: its clock, its redirect policy and its proxy list.
#include "platform/transfer.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/wininet_session.h"

namespace tqplatform {
namespace {

using S = TransferState;
using namespace std::chrono_literals;

// The header block has one deadline from the request's sending; each body byte restarts the
// idle limit; while a body is sent the longer of the send and idle limits holds, none if either
// is none.
TEST(TransferClockTest, DeadlinesOfEachState) {
  const auto t0 = TransferClock::Clock::time_point{} + 1h;
  const auto none = TransferClock::Clock::time_point::max();
  TransferClock clock;
  clock.Start({2000ms, 300ms, 0ms}, false, t0);
  EXPECT_EQ(clock.Deadline(S::kConnecting), t0 + 2000ms + TransferClock::kConnectGrace);
  clock.RequestSent(t0 + 100ms);
  clock.Progress(t0 + 350ms);  // a header line dripping in does not move the block's deadline
  EXPECT_EQ(clock.Deadline(S::kAwaitingHeaders), t0 + 400ms);
  EXPECT_EQ(clock.Deadline(S::kReceiving), t0 + 650ms);
  clock.DrainUntil(t0 + 500ms);
  EXPECT_EQ(clock.Deadline(S::kDraining), t0 + 500ms);
  EXPECT_EQ(clock.Deadline(S::kPaused), none);
  const struct {
    TransferLimits limits;
    bool sends_body;
    TransferClock::Clock::time_point headers_deadline;
  } cases[] = {
      {{0ms, 0ms, 1000ms}, false, none},          {{0ms, 300ms, 1000ms}, true, t0 + 1000ms},
      {{0ms, 300ms, 100ms}, true, t0 + 300ms},    {{0ms, 300ms, 0ms}, true, none},
  };
  for (const auto& c : cases) {
    clock = TransferClock();
    clock.Start(c.limits, c.sends_body, t0);
    EXPECT_EQ(clock.connect_limit(), TransferClock::kDefaultConnect);
    EXPECT_EQ(clock.Deadline(S::kAwaitingHeaders), c.headers_deadline);
  }
}

HeaderBlock Response(const std::string& status, const std::string& location) {
  HeaderBlock block;
  block.AddLine("HTTP/1.1 " + status + "\r\n");
  if (!location.empty()) block.AddLine("Location: " + location + "\r\n");
  block.AddLine("\r\n");
  return block;
}

// (A POST's 303 and 307 are followed end to end by the request test, which checks what is sent.)
TEST(RedirectPolicyTest, WhereEachAnswerLeads) {
  constexpr int kMax = RedirectRules::kMaxHops;
  constexpr DWORD kFailed = ERROR_HTTP_REDIRECT_FAILED;
  const struct {
    const char* from;
    const char* method;
    const char* status;
    const char* location;
    bool allow_https_to_http;
    int hop;
    DWORD error;
    std::string next;  // "METHOD url[ cross-origin][ no body]"; empty: not followed
  } cases[] = {
      {"http://a.test/x/y", "GET", "302 Found", "../z", false, 0, 0, "GET http://a.test/z"},
      // A relative reference is merged with the path it came from before dot segments go.
      {"http://a.test/x/y", "GET", "302 Found", "./?q", false, 0, 0, "GET http://a.test/x/?q"},
      {"http://a.test/x/y/z", "GET", "302 Found", "../?q", false, 0, 0, "GET http://a.test/x/?q"},
      {"http://a.test/x/y?q", "GET", "302 Found", "#f", false, 0, 0, "GET http://a.test/x/y?q#f"},
      // A space is "%20" in the query as in the path: "+" is a plus sign to many servers.
      {"http://a.test/", "GET", "302 Found", "/r a?b c", false, 0, 0,
       "GET http://a.test/r%20a?b%20c"},
      {"http://a.test/", "POST", "301 Moved", "/r", false, 0, 0, "GET http://a.test/r no body"},
      {"http://a.test/", "POST", "308 Perm", "/r", false, 0, 0, "POST http://a.test/r"},
      {"http://a.test/", "HEAD", "303 See", "/r", false, 0, 0, "HEAD http://a.test/r"},
      {"http://a.test/", "GET", "302 Found", "http://b.test/", false, 0, 0,
       "GET http://b.test/ cross-origin"},
      {"https://a.test/", "GET", "302 Found", "http://a.test/", false, 0,
       ERROR_INTERNET_HTTPS_TO_HTTP_ON_REDIR, ""},
      {"https://a.test/", "GET", "302 Found", "http://a.test/", true, 0, 0,
       "GET http://a.test/ cross-origin"},
      {"http://a.test/", "GET", "302 Found", "ftp://a.test/f", false, 0, kFailed, ""},
      // A host that decodes to a control character names no host a request can go to.
      {"http://a.test/", "GET", "302 Found", "http://b%7ft/", false, 0, kFailed, ""},
      {"http://a.test/", "GET", "302 Found", "/r", false, kMax, kFailed, ""},
      {"http://a.test/", "GET", "302 Found", "", false, 0, 0, ""},
      {"http://a.test/", "GET", "200 OK", "/r", false, 0, 0, ""},
      {"http://a.test/", "GET", "304 Not Modified", "/r", false, 0, 0, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.method) + " " + c.from + " " + c.status + " -> " + c.location);
    RedirectRules rules;
    rules.allow_https_to_http = c.allow_https_to_http;
    Hop hop{c.from, c.method, true};
    bool follow = true;
    EXPECT_EQ(NextHop(rules, Response(c.status, c.location), c.hop, &hop, &follow), c.error);
    const std::string next = hop.method + " " + hop.url + (hop.same_origin ? "" : " cross-origin") +
                             (hop.drop_body ? " no body" : "");
    EXPECT_EQ(follow ? next : "", c.next);
  }
}

// A proxy named without a port is reached on WinINet's port for it, 80 (libcurl's own default is
// SOCKS's 1080), and a SOCKS one on 1080.
TEST(ProxyListTest, AProxyWithoutAPortIsReachedOnWinInetsPortForIt) {
  const struct {
    const char* list;
    const char* scheme;
    const char* proxy;
  } cases[] = {
      {"p", "http", "p:80"},
      {"http=p.test https=[::1]", "https", "[::1]:80"},
      {"https=http://p.test/", "https", "http://p.test:80/"},
      {"http=p:8080", "http", "p:8080"},
      {"http=[::1]:3128", "http", "[::1]:3128"},
      {"socks=s", "http", "socks4://s:1080"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.list) + " " + c.scheme);
    EXPECT_EQ(Session("", ProxyMode::kNamed, c.list, {}).ProxyFor(c.scheme), c.proxy);
  }
}

}  // namespace
}  // namespace tqplatform
