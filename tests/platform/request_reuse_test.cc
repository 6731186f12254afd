// Sequential requests on one connection handle reuse its transfer slot and its libcurl handle,
// which keeps its options from one request to the next: nothing a request asked for or left
// behind (its method, path, body, range, own header lines, credentials, the room kept for body
// bytes) may reach the request after it, in any order of requests.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>

#include <atomic>
#include <cwchar>
#include <future>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "tests/platform/wininet_test_util.h"
#include "tests/support/servers/gate.h"
#include "tests/support/servers/nginx_harness.h"
#include "tests/support/servers/raw_responder.h"
#include "tests/support/servers/scripted_server.h"

namespace {

using namespace tq::test;

std::string Pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 131 + i / 251) % 256);
  return bytes;
}

// Every value of a header the request carried, names compared without case.
std::vector<std::string> Values(const RecordedRequest& request, const std::string& name) {
  std::vector<std::string> values;
  for (const auto& [n, value] : request.headers) {
    if (n.size() == name.size() && strncasecmp(n.c_str(), name.c_str(), n.size()) == 0) {
      values.push_back(value);
    }
  }
  return values;
}

// The descriptors of this process connected to `port` on this machine.
std::vector<int> SocketsTo(int port) {
  std::vector<int> sockets;
  for (int fd = 0; fd < 1024; ++fd) {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) == 0 &&
        peer.sin_family == AF_INET && ntohs(peer.sin_port) == port) {
      sockets.push_back(fd);
    }
  }
  return sockets;
}

// How many of `fds` are still sockets whose connection the peer ended (closed or reset).
int EndedSockets(const std::vector<int>& fds) {
  int count = 0;
  for (const int fd : fds) {
    tcp_info info{};
    socklen_t length = sizeof info;
    if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 &&
        (info.tcpi_state == TCP_CLOSE || info.tcpi_state == TCP_CLOSE_WAIT)) {
      ++count;
    }
  }
  return count;
}

int UnixSockets() {
  int count = 0;
  for (int fd = 0; fd < 1024; ++fd) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
        address.ss_family == AF_UNIX) {
      ++count;
    }
  }
  return count;
}

class RequestReuseTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(connection); }

  ScriptedServer server;
  const Handle session = OpenSession();  // direct, agent "tqnetwork-test"
  const Handle connection = Connect(session, server.port());
};

TEST_F(RequestReuseTest, BodiesAroundWhatIsKeptUnreadArriveWholeAtEveryReadSizeOrAreDropped) {
  constexpr std::size_t kKept = 256 * 1024;  // what a transfer keeps while nobody reads
  const std::size_t sizes[] = {0,     1,         64 * 1024 + 3, kKept - 1,
                               kKept, kKept + 1, 2 * kKept + 5, 1024 * 1024 + 7};
  for (const std::size_t size : sizes) {
    const std::string expected = Pattern(size);
    const std::string path = "/body" + std::to_string(size);
    server.Route(path, ScriptedResponse(200, expected));
    // The same bodies chunked, whose pieces libcurl hands over one by one.
    server.Route(path + "c", ScriptedResponse(200, expected).Chunked(40 * 1024));
    for (const std::string& route : {path, path + "c"}) {
      for (const DWORD read : {1, 7, 4096, 300 * 1024}) {
        if (read == 1 && size > 64 * 1024 + 3) continue;  // a million calls prove nothing more
        const Handle request = OpenRequest(connection, std::wstring(route.begin(), route.end()));
        std::string body;
        ASSERT_TRUE(Send(request) && ReadAll(request, &body, read)) << GetLastError();
        EXPECT_TRUE(body == expected) << route << " in reads of " << read << ": got "
                                      << body.size() << " bytes, want " << size;
      }
    }
  }
  // Every body was read to its end, so every request reused the one connection.
  EXPECT_EQ(server.connection_count(), 1u);

  // A body left unread is dropped, and the next request is served.
  server.Route("/big", ScriptedResponse(200, Pattern(3 * 1024 * 1024)));
  server.Route("/small", ScriptedResponse(200, "next"));
  for (int round = 0; round < 3; ++round) {
    {
      const Handle big = OpenRequest(connection, L"/big");
      ASSERT_TRUE(Send(big)) << GetLastError();
      char first[10];
      DWORD got = 0;
      ASSERT_TRUE(InternetReadFile(big.get(), first, sizeof first, &got));
      EXPECT_EQ(std::string(first, got), Pattern(10));
    }
    EXPECT_EQ(Fetch(connection, L"/small"), "next");
  }
}

const wchar_t* kAll[] = {L"*/*", nullptr};
const wchar_t* kText[] = {L"text/html", nullptr};
const wchar_t* kTwo[] = {L"text/html", L"*/*", nullptr};

// Each step's request as the server saw it: the agent and Accept lines once, as asked (the
// nearest handle's agent unless a line of the caller's own replaces it; the accept types, a line
// of the caller's own, both, or none); dot segments gone from the path; a body sent without
// asking to continue first, labelled with the caller's Content-Type or none; "Pragma: no-cache"
// when the flag asks for it and the caller gave no Pragma line; and nothing else of
// the steps before it.
struct Step {
  const wchar_t* verb = L"GET";
  const wchar_t* path = L"/r";
  const wchar_t** types = kAll;
  std::wstring headers{};
  std::string body{};
  DWORD flags = 0;
  bool credentials = false;
  HINTERNET set_agent_on = nullptr;  // before this step
  const wchar_t* new_agent = nullptr;
  std::string agent = "tqnetwork-test";
  std::vector<std::string> accept = {"*/*"};
};

TEST_F(RequestReuseTest, NothingOfARequestReachesTheNextOnTheSameConnection) {
  static constexpr char kBody[] = "0123456789";
  // Asks for credentials when the request says so; any Range gets a part.
  const auto answer = [](const RecordedRequest& request) {
    if (request.Header("X-Want-Auth") && !request.Header("Authorization")) {
      return ScriptedResponse(401, "who?").Header("WWW-Authenticate", "Basic realm=\"t\"");
    }
    if (request.Header("Range")) return ScriptedResponse(206, "part");
    return ScriptedResponse(200, kBody);
  };
  server.Route("/r", answer);
  server.Route("*", answer);  // "OPTIONS *" asks the server itself
  const std::string big_body(1536 * 1024, 'p');  // past the size libcurl asks to continue for
  const Step steps[] = {
      {.verb = L"HEAD", .body = "abc"},
      {.headers = L"Range: bytes=2-4\r\nX-Extra: 1\r\n"},
      {.path = L"/x/../r"},
      {.verb = L"POST", .body = "abc"},
      {.headers = L"user-agent: mine\r\n", .agent = "mine"},
      {.verb = L"POST", .headers = L"Content-Type: application/octet-stream\r\n", .body = big_body},
      {.verb = L"PUT", .headers = L"User-Agent: put\r\n", .body = "xyz", .agent = "put"},
      {.verb = L"OPTIONS", .path = L"*"},
      {.verb = L"DELETE"},
      {.verb = L"POST"},
      {.verb = L"POST", .body = "form?"},
      {.headers = L"X-Want-Auth: 1\r\n", .credentials = true},
      {.types = nullptr, .accept = {}},
      {.path = L"/a/./b/../../r?q=/../", .types = kText, .accept = {"text/html"}},
      {},
      {.types = kTwo, .accept = {"text/html, */*"}},
      {.path = L"/x/y/../../r", .types = nullptr, .headers = L"Accept: */*\r\n"},
      {.headers = L"accept: image/png\r\n", .accept = {"*/*", "image/png"}},
      {.verb = L"HEAD", .types = nullptr, .headers = L"Range: bytes=0-0\r\n", .accept = {}},
      {.verb = L"POST", .body = "q"},
      {.set_agent_on = session.get(), .new_agent = L"session-2", .agent = "session-2"},
      {.set_agent_on = connection.get(), .new_agent = L"connection-3", .agent = "connection-3"},
      {.set_agent_on = session.get(), .new_agent = L"session-4", .agent = "connection-3"},
      {.verb = L"HEAD", .agent = "connection-3"},
      {.flags = INTERNET_FLAG_PRAGMA_NOCACHE, .agent = "connection-3"},
      {.headers = L"Pragma: x\r\n", .flags = INTERNET_FLAG_PRAGMA_NOCACHE, .agent = "connection-3"},
      {.agent = "connection-3"},
  };
  for (std::size_t i = 0; i < std::size(steps); ++i) {
    const Step& step = steps[i];
    SCOPED_TRACE(i);
    if (step.set_agent_on != nullptr) {
      ASSERT_TRUE(InternetSetOptionW(step.set_agent_on, INTERNET_OPTION_USER_AGENT,
                                     const_cast<wchar_t*>(step.new_agent),
                                     static_cast<DWORD>(std::wcslen(step.new_agent))));
    }
    const Handle request(HttpOpenRequestW(connection.get(), step.verb, step.path, nullptr, nullptr,
                                          step.types, step.flags, 0));
    if (step.credentials) {
      wchar_t user[] = L"user", password[] = L"secret";
      ASSERT_TRUE(InternetSetOptionW(request.get(), INTERNET_OPTION_USERNAME, user, 4));
      ASSERT_TRUE(InternetSetOptionW(request.get(), INTERNET_OPTION_PASSWORD, password, 6));
    }
    // Before its send a request has nothing to report, whatever the one before it sent.
    EXPECT_EQ(QueryText(request, HTTP_QUERY_RAW_HEADERS_CRLF | HTTP_QUERY_FLAG_REQUEST_HEADERS),
              "<absent>");
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INTERNET_INCORRECT_HANDLE_STATE));
    const std::size_t before = server.requests().size();
    std::string read;
    ASSERT_TRUE(Send(request, step.headers, step.body)) << GetLastError();
    ASSERT_TRUE(ReadAll(request, &read)) << GetLastError();
    const std::wstring verb = step.verb, headers = step.headers, path = step.path;
    const auto sent = [&](const wchar_t* name) { return headers.find(name) != headers.npos; };
    EXPECT_EQ(read, verb == L"HEAD" ? "" : sent(L"Range:") ? "part" : kBody);
    // A challenge answered leaves nothing of its own in the answer after it.
    EXPECT_EQ(QueryText(request, HTTP_QUERY_CUSTOM, L"WWW-Authenticate"), "<absent>");

    // The request as the server saw it last (a challenge answered makes two).
    const std::vector<RecordedRequest> requests = server.requests();
    ASSERT_GT(requests.size(), before);
    const RecordedRequest& got = requests.back();
    const std::string query(path.begin() + std::min(path.find(L'?'), path.size()), path.end());
    const std::string target = path == L"*" ? "*" : "/r" + query;
    const std::string line = std::string(verb.begin(), verb.end()) + " " + target + " HTTP/1.1";
    EXPECT_EQ(got.method + " " + got.path + (got.query.empty() ? "" : "?" + got.query) +
                  " HTTP/1.1",
              line);
    // The request-headers query reports what went out.
    const std::string reported =
        QueryText(request, HTTP_QUERY_RAW_HEADERS_CRLF | HTTP_QUERY_FLAG_REQUEST_HEADERS);
    EXPECT_EQ(reported.substr(0, reported.find("\r\n")), line);
    EXPECT_EQ(QueryText(request, HTTP_QUERY_USER_AGENT | HTTP_QUERY_FLAG_REQUEST_HEADERS),
              step.agent);
    const std::string body = verb == L"HEAD" ? "" : step.body;  // a HEAD goes without its body
    EXPECT_TRUE(got.body == body) << got.body.size() << " bytes arrived";
    EXPECT_EQ(got.Header("Range").has_value(), sent(L"Range:"));
    EXPECT_EQ(got.Header("X-Extra").has_value(), sent(L"X-Extra:"));
    // A proxy's copy is not wanted: asked for with the flag, unless the caller said otherwise.
    const bool no_cache = (step.flags & INTERNET_FLAG_PRAGMA_NOCACHE) != 0;
    EXPECT_EQ(Values(got, "Pragma"), sent(L"Pragma:") ? std::vector<std::string>{"x"}
                                     : no_cache       ? std::vector<std::string>{"no-cache"}
                                                      : std::vector<std::string>{});
    EXPECT_EQ(got.Header("Authorization").has_value(), step.credentials);
    EXPECT_EQ(got.Header("Content-Length").has_value(), !body.empty() || verb == L"POST");
    EXPECT_EQ(QueryText(request, HTTP_QUERY_CONTENT_LENGTH | HTTP_QUERY_FLAG_REQUEST_HEADERS),
              got.Header("Content-Length").value_or("<absent>"));
    EXPECT_EQ(got.Header("Expect"), std::nullopt);
    EXPECT_EQ(Values(got, "User-Agent"), std::vector<std::string>{step.agent});
    EXPECT_EQ(Values(got, "Accept"), step.accept);
    EXPECT_EQ(Values(got, "Content-Type"),
              sent(L"Content-Type:") ? std::vector<std::string>{"application/octet-stream"}
                                     : std::vector<std::string>{});
  }
  // Every answer was read to its end: one connection served them all.
  EXPECT_EQ(server.connection_count(), 1u);
}

// A host that starts another program must not hand it the server connection: the child would
// keep it open after the host closed it.
TEST_F(RequestReuseTest, TheKeptConnectionIsNotInheritedByProgramsTheHostStarts) {
  server.Route("/r", [](const RecordedRequest&) { return ScriptedResponse(200, "kept"); });
  EXPECT_EQ(Fetch(connection, L"/r"), "kept");
  const std::vector<int> connected = SocketsTo(server.port());
  for (const int fd : connected) {
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << "descriptor " << fd;
  }
  EXPECT_EQ(connected.size(), 1u);
}

// A host keeps its connection handles, one per server, for as long as it runs. What they keep
// alive between requests (a socket and a wake-up pair each, and the room of the requests' bodies)
// is bounded across them all, or a host that meets a few hundred servers runs out of descriptors
// and memory; the handle used last stays warm.
TEST(KeptConnectionTest, WhatIdleConnectionHandlesKeepIsBoundedAcrossThemAll) {
  const std::string body(200'000, 'b');  // held whole as it arrives
  std::atomic<int> accepted{0};
  RawResponder server([&](RawConnection& c) {
    ++accepted;
    while (!c.ReadRequestHead().empty()) {
      c.Send("HTTP/1.1 200 OK\r\nContent-Length: 200000\r\n\r\n" + body);
    }
  });
  ASSERT_TRUE(server.ok());
  Handle session = OpenSession();
  const int pairs_before = UnixSockets();
  const auto heap = [] { return static_cast<long long>(mallinfo2().uordblks); };
  const long long heap_before = heap();
  std::vector<Handle> connections;
  for (int i = 0; i < 200; ++i) {
    connections.push_back(Connect(session, server.port()));
    ASSERT_TRUE(Fetch(connections.back(), L"/") == body);
  }
  const std::size_t kept = SocketsTo(server.port()).size();
  EXPECT_GE(kept, 1u);
  EXPECT_LE(kept, 32u);
  EXPECT_LE(UnixSockets() - pairs_before, 2 * 32);
  // The 32 with a socket keep a body's room or two each; the others keep none.
  EXPECT_LT(heap() - heap_before, 80LL * static_cast<long long>(body.size()));
  EXPECT_TRUE(Fetch(connections.back(), L"/") == body);
  EXPECT_EQ(accepted, 200);
}

// Connections opened for requests sent in parallel, which the server then closes or resets while
// they lie idle (its keep-alive time-out), go at the next request to it: they are not kept,
// ended at the other end, for as long as the connection handle lives.
TEST(KeptConnectionTest, ConnectionsTheServerClosedWhileIdleGoAtTheNextRequest) {
  constexpr int kParallel = 4;
  Gate all_asked, close_idle;
  std::atomic<int> accepted{0};
  RawResponder server([&](RawConnection& c) {
    const int index = accepted++;
    const bool parallel = index < kParallel;
    for (std::string head; !(head = c.ReadRequestHead()).empty();) {
      if (parallel && !all_asked.Wait()) return;
      c.Send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
      if (parallel && close_idle.Wait()) {
        if (index % 2 == 1) c.Reset();
        return;
      }
    }
  });
  ASSERT_TRUE(server.ok());
  Handle session = OpenSession();
  Handle connection = Connect(session, server.port());
  ASSERT_TRUE(SetDword(connection.get(), INTERNET_OPTION_MAX_CONNS_PER_SERVER, kParallel));
  std::vector<std::future<std::string>> results;
  for (int i = 0; i < kParallel; ++i) {
    results.push_back(std::async(std::launch::async, [&] { return Fetch(connection, L"/"); }));
  }
  ASSERT_TRUE(all_asked.WaitForWaiters(kParallel));
  all_asked.Open();
  for (auto& result : results) EXPECT_EQ(result.get(), "ok");
  const std::vector<int> idle = SocketsTo(server.port());
  ASSERT_EQ(idle.size(), std::size_t{kParallel});
  close_idle.Open();
  for (const int fd : idle) {  // each sees the server's close or reset
    pollfd closed{fd, POLLIN, 0};
    ASSERT_EQ(poll(&closed, 1, 10'000), 1);
  }
  EXPECT_EQ(Fetch(connection, L"/"), "ok");
  EXPECT_EQ(EndedSockets(idle), 0);
  EXPECT_EQ(SocketsTo(server.port()).size(), 1u);
  EXPECT_EQ(Fetch(connection, L"/"), "ok");
  EXPECT_EQ(accepted, kParallel + 1);
}

// An answer that ends its connection (HTTP/1.0 without keep-alive, a body that ends at the close,
// "Connection: close") is read whole, and the next request goes on a new connection, also when
// the server keeps the old one open; an HTTP/1.0 answer that keeps it alive has it reused.
TEST(KeptConnectionTest, AnswersThatEndTheirConnectionAreWholeAndTheNextGoesOnANewOne) {
  const struct {
    const char* head;  // of an answer whose body is "first" or "second"
    bool length;       // a Content-Length goes with it
    bool server_closes;
    std::size_t connections;
  } cases[] = {
      {"HTTP/1.0 200 OK\r\n", true, false, 2},
      {"HTTP/1.0 200 OK\r\n", false, true, 2},
      {"HTTP/1.1 200 OK\r\n", false, true, 2},
      {"HTTP/1.1 200 OK\r\nConnection: close\r\n", true, false, 2},
      {"HTTP/1.1 200 OK\r\nConnection: close\r\nTransfer-Encoding: chunked\r\n", false, false, 2},
      {"HTTP/1.0 200 OK\r\nConnection: keep-alive\r\n", true, false, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.head);
    std::atomic<int> answered{0};
    RawResponder server([&](RawConnection& connection) {
      for (std::string head; !(head = connection.ReadRequestHead()).empty();) {
        const std::string body = answered++ == 0 ? "first" : "second";
        const std::string size = std::to_string(body.size());  // the same in hexadecimal
        const bool chunked = std::string_view(c.head).find("chunked") != std::string_view::npos;
        connection.Send(c.head + (c.length ? "Content-Length: " + size + "\r\n" : "") + "\r\n" +
                        (chunked ? size + "\r\n" + body + "\r\n0\r\n\r\n" : body));
        if (c.server_closes) return;
      }
    });
    ASSERT_TRUE(server.ok());
    Handle session = OpenSession();
    Handle connection = Connect(session, server.port());
    EXPECT_EQ(Fetch(connection, L"/"), "first");
    EXPECT_EQ(Fetch(connection, L"/"), "second");
    EXPECT_LE(SocketsTo(server.port()).size(), 1u);
    EXPECT_EQ(server.connection_count(), c.connections);
  }
}

// nginx ends connections its own ways: the last answer that keepalive_requests allows says
// "Connection: close", and a connection idle past keepalive_timeout is closed. Every answer
// arrives whole, the request after either goes on a new connection, and none that nginx closed
// is kept.
TEST(KeptConnectionTest, ConnectionsNginxEndsAreLeftAndEveryAnswerArrivesWhole) {
  NginxHarness nginx(
      "keepalive_requests 3; add_header X-Connection $connection always;\n"
      "    location /brief/ { keepalive_timeout 1ms; }");
  ASSERT_TRUE(nginx.ok()) << nginx.error();
  const std::string file = Pattern(100 * 1024 + 3);
  nginx.WriteFile("f.bin", file);
  nginx.WriteFile("brief/f.bin", file);
  Handle session = OpenSession();
  Handle connection = Connect(session, nginx.port());
  std::vector<std::string> served_on;  // nginx's number of the connection of each answer
  const auto fetch = [&](const wchar_t* verb, const std::wstring& path) {
    Handle request = OpenRequest(connection, path, verb);
    std::string body;
    ASSERT_TRUE(Send(request) && ReadAll(request, &body)) << GetLastError();
    EXPECT_TRUE(body == (std::wstring(verb) == L"HEAD" ? "" : file)) << body.size() << " bytes";
    served_on.push_back(QueryText(request, HTTP_QUERY_CUSTOM, L"X-Connection"));
    EXPECT_LE(SocketsTo(nginx.port()).size(), 1u);
  };
  for (int i = 0; i < 7; ++i) fetch(i % 2 == 0 ? L"GET" : L"HEAD", L"/f.bin");
  ASSERT_EQ(served_on.size(), 7u);
  for (int i = 0; i < 7; ++i) EXPECT_EQ(served_on[i], served_on[i / 3 * 3]) << i;
  EXPECT_NE(served_on[0], served_on[3]);
  EXPECT_NE(served_on[3], served_on[6]);

  fetch(L"GET", L"/brief/f.bin");
  const std::vector<int> kept = SocketsTo(nginx.port());
  ASSERT_EQ(kept.size(), 1u);
  pollfd closed{kept[0], POLLIN, 0};  // nginx's close, 1 ms on
  ASSERT_EQ(poll(&closed, 1, 10'000), 1);
  fetch(L"GET", L"/f.bin");
  ASSERT_EQ(served_on.size(), 9u);
  EXPECT_NE(served_on[8], served_on[7]);
}

// A kept connection that the server closes (or resets) once it has read a request, without a
// byte of answer: a GET may go again on a new connection, a POST (whose effect the server may
// have carried out) is not sent twice behind the caller's back, also when it went out answering
// a challenge.
TEST(KeptConnectionTest, ARequestThatIsNotIdempotentIsNotSentAgainAfterItsConnectionDied) {
  const std::tuple<const wchar_t*, bool, bool> cases[] = {
      {L"GET", false, false}, {L"POST", false, false}, {L"PATCH", false, false},
      {L"POST", true, false}, {L"GET", false, true},   {L"POST", false, true}};
  for (const auto& [verb, challenged, reset] : cases) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(verb)) + (challenged ? " challenged" : "") +
                 (reset ? " reset" : ""));
    std::atomic<int> seen{0};  // of the second request, not counting those challenged
    RawResponder server([&seen, challenged, reset](RawConnection& c) {
      for (std::string head; !(head = c.ReadRequestHead()).empty();) {
        if (challenged && head.find("\r\nAuthorization: ") == std::string::npos) {
          c.Send("HTTP/1.1 401 Who\r\nWWW-Authenticate: Basic realm=\"r\"\r\n"
                 "Content-Length: 0\r\n\r\n");
        } else if (head.starts_with("GET /first ") || ++seen > 1) {
          c.Send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
        } else {
          if (reset) c.Reset();
          return;
        }
      }
    });
    ASSERT_TRUE(server.ok());
    Handle session = OpenSession();
    Handle connection = Connect(session, server.port());
    wchar_t user[] = L"bob", password[] = L"pw";
    ASSERT_TRUE(InternetSetOptionW(connection.get(), INTERNET_OPTION_USERNAME, user, 3));
    ASSERT_TRUE(InternetSetOptionW(connection.get(), INTERNET_OPTION_PASSWORD, password, 2));
    ASSERT_EQ(Fetch(connection, L"/first"), "ok");
    const bool again = std::wstring(verb) == L"GET";
    EXPECT_EQ(Fetch(connection, L"/second", verb, L"", "pay"),
              again ? "ok" : "error " + std::to_string(ERROR_INTERNET_CONNECTION_RESET));
    EXPECT_EQ(seen, again ? 2 : 1);
  }
}

}  // namespace
