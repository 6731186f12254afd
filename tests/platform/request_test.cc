// Requests through the real layer against the in-process scripted server: bounded connections,
// redirects, HTTPS certificates and proxies.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <mutex>
#include <thread>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/fault_injection.h"
#include "tests/platform/wininet_test_util.h"
#include "tests/support/servers/gate.h"
#include "tests/support/servers/raw_responder.h"
#include "tests/support/servers/scripted_server.h"
#include "tests/support/servers/sockets.h"
#include "tests/support/servers/temp_dir.h"
#include "tests/support/servers/tls_files.h"

namespace {

using namespace tq::test;

class RequestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server_.ok());
    connection_ = Connect(session_, server_.port());
    ASSERT_TRUE(connection_);
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
    results.push_back(std::async(std::launch::async, [&] { return Fetch(connection_, L"/held"); }));
  }
  ASSERT_TRUE(gate.WaitForWaiters(4));
  EXPECT_EQ(server_.request_count(), 4u);  // the rest wait for a slot, not at the server
  gate.Open();
  for (auto& result : results) EXPECT_EQ(result.get(), "done");
  EXPECT_EQ(server_.request_count(), 8u);
  EXPECT_LE(server_.connection_count(), 4u);
  EXPECT_EQ(server_.max_concurrent_requests(), 4u);

  // A bound raised while requests wait for a slot lets them go at once: the connection's, its
  // session's or the process's.
  for (int target = 0; target < 3; ++target) {
    SCOPED_TRACE(target);
    Handle session = OpenSession();
    Handle own = Connect(session, server_.port());
    const Handle& connection = target == 0 ? connection_ : own;
    HINTERNET bounded = target == 0 ? connection_.get() : target == 1 ? session.get() : nullptr;
    ASSERT_TRUE(SetDword(bounded, INTERNET_OPTION_MAX_CONNS_PER_SERVER, 1));
    Gate raised;
    server_.Route("/raised", ScriptedResponse(200, "done").Hold(&raised));
    results.clear();
    for (int i = 0; i < 3; ++i) {
      results.push_back(
          std::async(std::launch::async, [&] { return Fetch(connection, L"/raised"); }));
    }
    ASSERT_TRUE(raised.WaitForWaiters(1));
    ASSERT_TRUE(SetDword(bounded, INTERNET_OPTION_MAX_CONNS_PER_SERVER, 3));
    EXPECT_TRUE(raised.WaitForWaiters(3));
    raised.Open();
    for (auto& result : results) EXPECT_EQ(result.get(), "done");
  }
  ASSERT_TRUE(SetDword(nullptr, INTERNET_OPTION_MAX_CONNS_PER_SERVER, 2));  // the default again
}

// The caller's Host, Authorization and Cookie lines are meant for the origin asked: a redirect
// elsewhere (another port is another origin) goes without them, as libcurl's own following does.
TEST_F(RequestTest, ARedirectToAnotherOriginLeavesTheCallersCredentialLinesBehind) {
  ScriptedServer other;
  ASSERT_TRUE(other.ok());
  const auto echo = [](const RecordedRequest& r) {
    std::string seen;
    for (const char* name : {"Host", "Authorization", "Cookie", "X-Other"}) {
      seen += std::string(name) + "=" + r.Header(name).value_or("<none>") + ";";
    }
    return ScriptedResponse(200, seen);
  };
  server_.Route("/seen", echo);
  other.Route("/seen", echo);
  server_.Route("/here", ScriptedResponse(302).Header("Location", "/seen"));
  server_.Route("/away", ScriptedResponse(302).Header("Location", other.Url("/seen")));
  server_.Route("/away-and-back", ScriptedResponse(302).Header("Location", other.Url("/back")));
  other.Route("/back", ScriptedResponse(302).Header("Location", server_.Url("/seen")));
  const std::string other_host = "127.0.0.1:" + std::to_string(other.port());
  server_.Route("/away-with-userinfo",
                ScriptedResponse(302).Header("Location", "http://u:p@" + other_host + "/seen"));
  const std::wstring lines =
      L"Host: named\r\nAuthorization: Bearer t\r\nCookie: c=1\r\nX-Other: o\r\n";
  const auto get = [&](const wchar_t* path) {
    Handle request = OpenRequest(connection_, path);
    std::string got;
    if (!Send(request, lines) || !ReadAll(request, &got)) {
      return "error " + std::to_string(GetLastError());
    }
    // The request-headers query reports what went out.
    const std::string reported =
        QueryText(request, HTTP_QUERY_CUSTOM | HTTP_QUERY_FLAG_REQUEST_HEADERS, L"Cookie");
    EXPECT_EQ(reported, got.find("Cookie=<none>") == std::string::npos ? "c=1" : "<absent>");
    const std::string host =
        QueryText(request, HTTP_QUERY_CUSTOM | HTTP_QUERY_FLAG_REQUEST_HEADERS, L"Host");
    EXPECT_NE(got.find("Host=" + host + ";"), std::string::npos) << host;
    return got;
  };
  EXPECT_EQ(get(L"/here"), "Host=named;Authorization=Bearer t;Cookie=c=1;X-Other=o;");
  {  // A fragment is never sent, and is not reported as sent.
    server_.Route("/fragment", ScriptedResponse(302).Header("Location", "/seen#part"));
    Handle request = OpenRequest(connection_, L"/fragment");
    ASSERT_TRUE(Send(request));
    const std::string head =
        QueryText(request, HTTP_QUERY_RAW_HEADERS_CRLF | HTTP_QUERY_FLAG_REQUEST_HEADERS);
    EXPECT_EQ(head.substr(0, head.find("\r\n")), "GET /seen HTTP/1.1");
    EXPECT_EQ(server_.requests().back().path, "/seen");
  }
  EXPECT_EQ(get(L"/away"),
            "Host=" + other_host + ";Authorization=<none>;Cookie=<none>;X-Other=o;");
  EXPECT_EQ(get(L"/away-with-userinfo"),
            "Host=" + other_host + ";Authorization=Basic dTpw;Cookie=<none>;X-Other=o;");
  // Once the chain has left the origin, coming back does not make the lines safe again.
  const std::string host = "127.0.0.1:" + std::to_string(server_.port());
  EXPECT_EQ(get(L"/away-and-back"),
            "Host=" + host + ";Authorization=<none>;Cookie=<none>;X-Other=o;");
  connection_.reset();  // its kept-alive connections go before `other` stops
}

// The length on the wire is the body's: a caller's Content-Length line goes out when it is
// that length, and is replaced when not; the bytes past a smaller number would reach the server
// as a request of their own, and a body a redirect drops leaves no length behind. Redirects are
// followed as WinInet does: a 303 as a GET, a 307 with the method and body, a loop not for ever.
TEST_F(RequestTest, TheLengthSentIsTheBodysAlsoAfterARedirect) {
  server_.Route("/echo", [](const RecordedRequest& r) {
    const std::string length = r.Header("Content-Length").value_or("none");
    return ScriptedResponse(200, r.method + ":" + r.body + ":" + length)
        .Header("X-Length", length);
  });
  for (const char* status : {"303", "307"}) {
    server_.Route(std::string("/") + status,
                  ScriptedResponse(std::stoi(status)).Header("Location", server_.Url("/echo")));
  }
  server_.Route("/loop", ScriptedResponse(302).Header("Location", "/loop"));
  // Too long a body to drain: the redirect's connection is dropped, the next hop goes all the same.
  server_.Route("/big302",
                ScriptedResponse(302, std::string(1 << 20, 'r')).Header("Location", "/echo"));
  const std::string body = "12345GET /smuggled HTTP/1.1\r\nHost: x\r\n\r\n";  // 40 bytes
  const struct {
    const wchar_t* verb;
    const wchar_t* path;
    const wchar_t* lines;
    std::string body, answer;
  } cases[] = {
      {L"POST", L"/echo", L"Content-Length: 5\r\n", body, "POST:" + body + ":40"},
      {L"POST", L"/echo", L"content-length:99999\r\n", body, "POST:" + body + ":40"},
      {L"POST", L"/echo", L"Content-Length:  40 \r\n", body, "POST:" + body + ":40"},
      {L"POST", L"/303", L"Content-Length: 40\r\n", body, "GET::none"},
      {L"POST", L"/307", L"Content-Length: 4\r\n", body, "POST:" + body + ":40"},
      {L"PUT", L"/echo", L"Content-Length: 0\r\n", "", "PUT::0"},
      {L"GET", L"/echo", L"Content-Length: 7\r\n", "", "GET::none"},
      {L"GET", L"/big302", L"", "", "GET::none"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(c.path) + L" " + c.lines));
    EXPECT_EQ(Fetch(connection_, c.path, c.verb, c.lines, c.body), c.answer);
  }
  EXPECT_EQ(server_.request_count(), std::size(cases) + 3);  // and each redirect's second one
  {  // A HEAD goes without a body: a length given for one would announce bytes never sent.
    Handle request = OpenRequest(connection_, L"/echo", L"HEAD");
    ASSERT_TRUE(Send(request, L"Content-Length: 5\r\n", "hello"));
    EXPECT_EQ(QueryText(request, HTTP_QUERY_CUSTOM, L"X-Length"), "none");
  }
  EXPECT_EQ(Fetch(connection_, L"/loop"), "error " + std::to_string(ERROR_HTTP_REDIRECT_FAILED));
}

// Proxies named in InternetOpenW or taken from the environment, with proxy credentials.
TEST(ProxyTest, NamedOrEnvironmentProxyAsksForAndTakesItsCredentials) {
  ScriptedServer proxy;  // a request through a proxy names the whole URL
  proxy.Route("http://origin.invalid/x", [](const RecordedRequest& r) {
    if (r.Header("Proxy-Authorization") != "Basic Ym9iOnB3") {  // "bob:pw"
      return ScriptedResponse(407, "who").Header("Proxy-Authenticate", "Basic realm=\"p\"");
    }
    return ScriptedResponse(200, "via proxy").Header("X-Host", r.Header("Host").value_or(""));
  });
  const auto connect = [](const Handle& session, bool credentials) {
    Handle connection(InternetConnectW(session.get(), L"origin.invalid", 80, nullptr, nullptr,
                                       INTERNET_SERVICE_HTTP, 0, 0));
    wchar_t user[] = L"bob", password[] = L"pw";
    if (credentials) {  // lengths that count the terminator
      InternetSetOptionW(connection.get(), INTERNET_OPTION_PROXY_USERNAME, user, 4);
      InternetSetOptionW(connection.get(), INTERNET_OPTION_PROXY_PASSWORD, password, 3);
    }
    return connection;
  };
  // The body, "who" from the 407 the proxy answers without credentials, or "error N".
  const auto get = [&](const Handle& session, bool credentials) {
    return Fetch(connect(session, credentials), L"/x");
  };
  const std::wstring name = L"http=127.0.0.1:" + std::to_wstring(proxy.port());
  Handle named(InternetOpenW(L"t", INTERNET_OPEN_TYPE_PROXY, name.c_str(), nullptr, 0));
  EXPECT_EQ(get(named, false), "who");
  EXPECT_EQ(get(named, true), "via proxy");
  {  // the Host line reported is the one the proxy got: the scheme's own port is left out
    const Handle connection = connect(named, true);
    Handle request = OpenRequest(connection, L"/x");
    ASSERT_TRUE(Send(request));
    EXPECT_EQ(QueryText(request, HTTP_QUERY_CUSTOM, L"X-Host"), "origin.invalid");
    EXPECT_EQ(QueryText(request, HTTP_QUERY_HOST | HTTP_QUERY_FLAG_REQUEST_HEADERS),
              "origin.invalid");
  }

  // A bypass list's entries match the whole host name, with "*" for any text and "<local>" for
  // a name without a dot; a named proxy ignores the environment's bypass list.
  const std::string direct_error = "error " + std::to_string(ERROR_INTERNET_NAME_NOT_RESOLVED);
  ASSERT_EQ(setenv("no_proxy", "origin.invalid", 1), 0);
  for (const auto& [bypass, answer] : std::initializer_list<std::pair<const wchar_t*, std::string>>{
           {nullptr, "via proxy"},
           {L"", "via proxy"},
           {L"origin.invalid", direct_error},
           {L"ORIGIN.Invalid", direct_error},
           {L"*", direct_error},
           {L"other.invalid; *.invalid", direct_error},
           {L"origin.*", direct_error},
           {L"or*in.inv*", direct_error},
           {L"invalid", "via proxy"},
           {L"rigin.invalid", "via proxy"},
           {L"origin.*.invalid", "via proxy"},
           {L"<local>", "via proxy"}}) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(bypass != nullptr ? bypass : L"(null)")));
    Handle session(InternetOpenW(L"t", INTERNET_OPEN_TYPE_PROXY, name.c_str(), bypass, 0));
    EXPECT_EQ(get(session, true), answer);
  }
  unsetenv("no_proxy");

  ASSERT_EQ(setenv("http_proxy", proxy.Url("").c_str(), 1), 0);
  Handle preconfigured(InternetOpenW(L"t", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0));
  const std::string via_environment = get(preconfigured, true);
  Handle no_autoproxy(InternetOpenW(L"t", INTERNET_OPEN_TYPE_PRECONFIG_WITH_NO_AUTOPROXY,
                                    nullptr, nullptr, 0));
  const std::string via_environment_too = get(no_autoproxy, true);
  const std::string direct = get(OpenSession(), true);  // a direct session ignores it
  unsetenv("http_proxy");
  EXPECT_EQ(via_environment, "via proxy");
  EXPECT_EQ(via_environment_too, "via proxy");
  EXPECT_EQ(direct, "error " + std::to_string(ERROR_INTERNET_NAME_NOT_RESOLVED));
}

// An https proxy: answers one CONNECT at a time with 200 (and a header of its own), then relays
// bytes both ways between the client and the port on 127.0.0.1 that the CONNECT names; it serves
// a SOCKS 4 request alike, and counts those. Once
// `cut` is open, the client's next bytes end their tunnel unanswered, as a server that closes a
// kept-alive connection when a request comes.
class TunnelProxy {
 public:
  Gate cut;

  TunnelProxy() : listener_(sockets::ListenOnLoopback(4, &port_)) {
    if (ok()) thread_ = std::thread([this] { Serve(); });
  }
  ~TunnelProxy() {
    stopping_ = true;
    if (thread_.joinable()) thread_.join();
    if (ok()) sockets::Close(listener_);
  }
  bool ok() const { return listener_ != sockets::kNone; }
  int port() const { return port_; }
  int socks_tunnels() const { return socks_tunnels_; }

 private:
  void Serve() {
    while (sockets::WaitReadable(listener_, stopping_)) {
      const sockets::Handle client = sockets::Accept(listener_);
      std::string head;  // "CONNECT 127.0.0.1:port HTTP/1.1 ..."
      // Or version 4, "connect", port, address and a user id up to its NUL.
      const auto socks = [&] { return head.size() >= 9 && head[0] == 4 && head.back() == '\0'; };
      char buffer[16 * 1024];
      long n = 0;
      while (head.find("\r\n\r\n") == std::string::npos && !socks() &&
             client != sockets::kNone && sockets::WaitReadable(client, stopping_) &&
             (n = sockets::Receive(client, buffer, sizeof buffer)) > 0) {
        head.append(buffer, static_cast<std::size_t>(n));
      }
      const auto colon = head.rfind(':', head.find(' ', 8));
      int asked = 0;
      if (socks()) {
        asked = static_cast<unsigned char>(head[2]) << 8 | static_cast<unsigned char>(head[3]);
        ++socks_tunnels_;
      } else if (head.starts_with("CONNECT ") && colon != std::string::npos) {
        asked = std::atoi(&head[colon + 1]);
      }
      const sockets::Handle origin =
          asked != 0 ? sockets::ConnectToLoopback(asked) : sockets::kNone;
      static constexpr char kUp[] = "HTTP/1.1 200 Connection established\r\nX-Proxy: 1\r\n\r\n";
      static constexpr char kGranted[] = {0, 0x5A, 0, 0, 0, 0, 0, 0};
      if (origin != sockets::kNone &&
          (socks() ? sockets::SendAll(client, kGranted, sizeof kGranted)
                   : sockets::SendAll(client, kUp, sizeof kUp - 1))) {
        std::thread up([&] { Relay(client, origin, true); });
        Relay(origin, client, false);
        up.join();
      }
      if (origin != sockets::kNone) sockets::Close(origin);
      if (client != sockets::kNone) sockets::Close(client);
    }
  }
  // Once `cut` is open, the first bytes that would go up end the tunnel unanswered instead.
  void Relay(sockets::Handle from, sockets::Handle to, bool up) {
    char buffer[16 * 1024];
    for (long n; sockets::WaitReadable(from, stopping_) &&
                 (n = sockets::Receive(from, buffer, sizeof buffer)) > 0;) {
      if (up && cut.is_open() && !cut_done_.exchange(true)) {
        sockets::Shutdown(from);  // the client meets the end of the connection
        break;
      }
      if (!sockets::SendAll(to, buffer, static_cast<std::size_t>(n))) break;
    }
    sockets::Shutdown(to);
  }

  int port_ = 0;
  const sockets::Handle listener_;
  std::atomic<bool> stopping_{false};
  std::atomic<bool> cut_done_{false};
  std::atomic<int> socks_tunnels_{0};
  std::thread thread_;
};

// A list whose only proxy is a SOCKS one sends every request through it, and so does one with a
// proxy for other schemes only.
TEST(ProxyTest, ASocksEntryServesTheSchemesWithoutAProxyOfTheirOwn) {
  ScriptedServer origin;
  TunnelProxy socks;
  ASSERT_TRUE(origin.ok() && socks.ok());
  origin.Route("/x", ScriptedResponse(200, "from the origin"));
  const std::wstring entry = L"socks=127.0.0.1:" + std::to_wstring(socks.port());
  for (const std::wstring& list : {entry, L"https=127.0.0.1:1 " + entry}) {
    SCOPED_TRACE(testing::PrintToString(list));
    Handle session(InternetOpenW(L"t", INTERNET_OPEN_TYPE_PROXY, list.c_str(), nullptr, 0));
    EXPECT_EQ(Fetch(Connect(session, origin.port()), L"/x"), "from the origin");
  }
  EXPECT_EQ(socks.socks_tunnels(), 2);
}

// Certificates are verified: a self-signed server is refused until trusted, then its connection
// is kept alive. Through a proxy an https request goes in a tunnel: the proxy's answer to the
// CONNECT is not the origin's response, also when a request is sent again through a new tunnel
// after the kept-alive one died under it. A caller's proxy credentials go to the proxy, never to
// the origin. A tunnel refused is answered with the proxy's own response, also when it refuses
// the credentials given for it, and a tunnel to something that is no TLS server fails the send.
TEST(HttpsTest, ASelfSignedServerIsRefusedUntilTrustedAndATunnelGivesTheOriginsAnswer) {
  TempDir dir;
  TlsFiles tls;
  ASSERT_TRUE(MakeSelfSignedCert(dir.path(), "127.0.0.1", &tls));
  ScriptedServer origin({.cert_file = tls.cert.string(), .key_file = tls.key.string()});
  ASSERT_TRUE(origin.ok());
  origin.Route("/gone", ScriptedResponse(404, "not here").Header("ETag", "\"e1\""));
  TunnelProxy tunnel;
  ASSERT_TRUE(tunnel.ok());
  {
    Handle session = OpenSession();
    Handle connection = Connect(session, origin.port());
    for (int i = 0; i < 4; ++i) {
      if (i == 1) {
        ASSERT_TRUE(TqPlatformSetCaFile(tls.cert.c_str()));
      }
      EXPECT_EQ(Fetch(connection, L"/gone", L"GET", L"", {}, INTERNET_FLAG_SECURE),
                i == 0 ? "error " + std::to_string(ERROR_INTERNET_INVALID_CA) : "not here");
      EXPECT_EQ(origin.request_count(), static_cast<std::size_t>(i));
    }
    connection.reset();
    EXPECT_EQ(origin.connection_count(), 2u);  // the refused one, and one for all three
  }
  const auto open = [](int proxy_port, int origin_port) {
    const std::wstring proxy = L"https=127.0.0.1:" + std::to_wstring(proxy_port);
    Handle session(InternetOpenW(L"t", INTERNET_OPEN_TYPE_PROXY, proxy.c_str(), nullptr, 0));
    Handle connection(InternetConnectW(session.get(), L"127.0.0.1",
                                       static_cast<INTERNET_PORT>(origin_port), nullptr, nullptr,
                                       INTERNET_SERVICE_HTTP, 0, 0));
    return std::pair(std::move(session), std::move(connection));
  };
  {
    const auto [session, connection] = open(tunnel.port(), origin.port());
    // The second goes through the tunnel the first made; the third too, but that tunnel ends
    // when it goes out, and it is sent again through a new one.
    for (int i = 0; i < 3; ++i) {
      SCOPED_TRACE(i);
      if (i == 2) tunnel.cut.Open();
      Handle request = OpenRequest(connection, L"/gone", L"GET", INTERNET_FLAG_SECURE);
      std::string body;
      ASSERT_TRUE(Send(request) && ReadAll(request, &body)) << GetLastError();
      EXPECT_EQ(StatusCode(request), 404u);
      EXPECT_EQ(QueryText(request, HTTP_QUERY_ETAG), "\"e1\"");
      EXPECT_EQ(QueryText(request, HTTP_QUERY_CUSTOM, L"X-Proxy"), "<absent>");
      EXPECT_EQ(body, "not here");
    }
  }
  {
    // A caller's Proxy-Authorization line is for a proxy: it goes in the tunnel's CONNECT, never
    // inside the tunnel, and nowhere on a direct connection; the origin never sees it.
    origin.Route("/seen", [](const RecordedRequest& r) {
      return ScriptedResponse(200, r.Header("Proxy-Authorization").value_or("<none>"));
    });
    std::mutex mutex;
    std::string connect_head;  // noted before the answer goes out
    RawResponder refusing([&](RawConnection& c) {
      for (std::string head; !(head = c.ReadRequestHead()).empty();) {
        {
          const std::lock_guard lock(mutex);
          connect_head = head;
        }
        c.Send("HTTP/1.1 403 No\r\nContent-Length: 0\r\n\r\n");
      }
    });
    ASSERT_TRUE(refusing.ok());
    for (const int proxy_port : {0, tunnel.port(), refusing.port()}) {
      Handle direct = OpenSession();
      const Handle direct_connection = Connect(direct, origin.port());
      const auto [session, connection] = open(proxy_port, origin.port());
      Handle request = OpenRequest(proxy_port == 0 ? direct_connection : connection, L"/seen",
                                   L"GET", INTERNET_FLAG_SECURE);
      std::string body;
      ASSERT_TRUE(Send(request, L"Proxy-Authorization: Basic c2VjcmV0\r\n")) << GetLastError();
      if (proxy_port == refusing.port()) {
        EXPECT_EQ(StatusCode(request), 403u);
      } else {
        EXPECT_TRUE(ReadAll(request, &body) && body == "<none>") << body;
      }
    }
    const std::lock_guard lock(mutex);
    EXPECT_NE(connect_head.find("\r\nProxy-Authorization: Basic c2VjcmV0\r\n"), std::string::npos)
        << connect_head;
  }
  {
    // A trusted certificate for another name is refused for the name, unless the request
    // ignores names.
    TempDir other_dir;
    TlsFiles other;
    ASSERT_TRUE(MakeSelfSignedCert(other_dir.path(), "localhost", &other));
    ScriptedServer misnamed({.cert_file = other.cert.string(), .key_file = other.key.string()});
    ASSERT_TRUE(misnamed.ok());
    misnamed.Route("/gone", ScriptedResponse(404, "not here"));
    ASSERT_TRUE(TqPlatformSetCaFile(other.cert.c_str()));
    Handle session = OpenSession();
    Handle connection = Connect(session, misnamed.port());
    EXPECT_EQ(Fetch(connection, L"/gone", L"GET", L"", {}, INTERNET_FLAG_SECURE),
              "error " + std::to_string(ERROR_INTERNET_SEC_CERT_CN_INVALID));
    EXPECT_EQ(Fetch(connection, L"/gone", L"GET", L"", {},
                    INTERNET_FLAG_SECURE | INTERNET_FLAG_IGNORE_CERT_CN_INVALID),
              "not here");
  }
  TqPlatformSetCaFile(nullptr);

  const struct {
    const char* answer;
    bool credentials;
    DWORD status;  // 0: the send fails with `error`
    DWORD error;
  } refusals[] = {
      {"HTTP/1.1 407 Who\r\nProxy-Authenticate: Basic realm=\"p\"\r\nContent-Length: 0\r\n\r\n",
       false, 407, 0},
      {"HTTP/1.1 407 Who\r\nProxy-Authenticate: Basic realm=\"p\"\r\nContent-Length: 0\r\n\r\n",
       true, 407, 0},
      // Trailers of the challenge's body come before libcurl answers it.
      {"HTTP/1.1 407 Who\r\nProxy-Authenticate: Basic realm=\"p\"\r\n"
       "Transfer-Encoding: chunked\r\n\r\n4\r\nwho?\r\n0\r\nX-T: 1\r\n\r\n",
       true, 407, 0},
      {"HTTP/1.1 403 No\r\nContent-Length: 0\r\n\r\n", false, 403, 0},
      // The proxy's, not the origin's: followed, it would choose where the answer comes from.
      {"HTTP/1.1 302 Go\r\nLocation: https://127.0.0.1:1/\r\nContent-Length: 0\r\n\r\n", false,
       302, 0},
      {"HTTP/1.1 200 Connection established\r\n\r\nno TLS here\r\n\r\n", false, 0,
       ERROR_INTERNET_SECURITY_CHANNEL_ERROR},
  };
  for (const auto& refusal : refusals) {
    SCOPED_TRACE(refusal.answer + std::string(refusal.credentials ? " (credentials)" : ""));
    const std::string answer = refusal.answer;
    RawResponder proxy([answer](RawConnection& c) {
      while (!c.ReadRequestHead().empty()) c.Send(answer);  // until the client ends it
    });
    ASSERT_TRUE(proxy.ok());
    const auto [session, connection] = open(proxy.port(), 443);
    wchar_t user[] = L"bob", password[] = L"pw";
    if (refusal.credentials) {
      ASSERT_TRUE(InternetSetOptionW(connection.get(), INTERNET_OPTION_PROXY_USERNAME, user, 4));
      ASSERT_TRUE(
          InternetSetOptionW(connection.get(), INTERNET_OPTION_PROXY_PASSWORD, password, 3));
    }
    Handle request = OpenRequest(connection, L"/gone", L"GET", INTERNET_FLAG_SECURE);
    EXPECT_EQ(ErrorOf([&] { return Send(request); }), refusal.error);
    EXPECT_EQ(refusal.error == 0 ? StatusCode(request) : 0u, refusal.status);
    // An empty body reads as one; libcurl keeps any other to itself, which is then no body.
    std::string body;
    EXPECT_EQ(refusal.error == 0 && ReadAll(request, &body) ? "read " + body : "unread",
              answer.find("Content-Length: 0") != std::string::npos ? "read " : "unread");
  }
}

}  // namespace
