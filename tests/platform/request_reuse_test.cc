// Sequential requests on one connection handle reuse its transfer slot and its libcurl handle,
// which keeps its options from one request to the next: nothing a request asked for or left
// behind (its method, body, range, own header lines, credentials, the room kept for body bytes)
// may reach the request after it, in any order of requests.
#include <gtest/gtest.h>

#include <strings.h>

#include <cwchar>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/platform/wininet_test_util.h"
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

bool SetText(HINTERNET handle, DWORD option, const wchar_t* text) {
  return InternetSetOptionW(handle, option, const_cast<wchar_t*>(text),
                            static_cast<DWORD>(std::wcslen(text))) != FALSE;
}

class RequestReuseTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(connection); }

  // Sends on the shared connection and reads the whole body; "error N" on a failure.
  std::string Get(const std::wstring& path, const wchar_t* verb = L"GET",
                  const std::wstring& headers = L"", std::string_view body = {}, DWORD read = 4096) {
    const Handle request = OpenRequest(connection, path, verb);
    std::string got;
    if (!Send(request, headers, body) || !ReadAll(request, &got, read)) {
      return "error " + std::to_string(GetLastError());
    }
    return got;
  }

  ScriptedServer server;
  const Handle session = OpenSession();  // direct, agent "tqnetwork-test"
  const Handle connection = Connect(session, server.port());
};

TEST_F(RequestReuseTest, BodiesAroundWhatIsKeptUnreadArriveWholeAtEveryReadSize) {
  constexpr std::size_t kKept = 256 * 1024;  // what a transfer keeps while nobody reads
  const std::size_t sizes[] = {0,         1,         64 * 1024 + 3, kKept - 1,
                               kKept,     kKept + 1, 2 * kKept + 5, 1024 * 1024 + 7};
  const DWORD reads[] = {1, 7, 4096, 300 * 1024};
  for (const std::size_t size : sizes) {
    const std::string expected = Pattern(size);
    const std::string path = "/body" + std::to_string(size);
    server.Route(path, ScriptedResponse(200, expected));
    // The same bodies chunked, whose pieces libcurl hands over one by one.
    server.Route(path + "c", ScriptedResponse(200, expected).Chunked(40 * 1024));
    for (const std::string& route : {path, path + "c"}) {
      for (const DWORD read : reads) {
        if (read == 1 && size > 64 * 1024 + 3) continue;  // a million calls prove nothing more
        const std::string body = Get(std::wstring(route.begin(), route.end()), L"GET", L"", {},
                                     read);
        EXPECT_TRUE(body == expected) << route << " in reads of " << read << ": got "
                                      << body.size() << " bytes, want " << size;
      }
    }
  }
  // Every body was read to its end, so every request reused the one connection.
  EXPECT_EQ(server.connection_count(), 1u);
}

TEST_F(RequestReuseTest, ABodyLeftUnreadIsDroppedAndTheNextRequestIsServed) {
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
    EXPECT_EQ(Get(L"/small"), "next");
  }
}

// The agent and Accept lines go out once, as asked: the session's agent unless a line of the
// caller's own replaces it; the accept types, a line of the caller's own, both, or none. A body
// goes without asking to continue first, labelled with the caller's Content-Type or none.
TEST_F(RequestReuseTest, AgentAndAcceptLinesGoOutOnceAsAskedAndABodyWithoutAskingToContinue) {
  server.Route("/", ScriptedResponse(200, "ok"));
  const std::string big_body(1536 * 1024, 'p');  // past the size libcurl asks to continue for
  const wchar_t* all[] = {L"*/*", nullptr};
  const wchar_t* text[] = {L"text/html", nullptr};
  const wchar_t* two[] = {L"text/html", L"*/*", nullptr};
  using Lines = std::vector<std::string>;
  const Lines ours{"tqnetwork-test"};
  const struct {
    const wchar_t* verb;
    const wchar_t** types;
    std::wstring headers;
    std::string body;
    Lines agent, accept, type;  // every value of each that the server must see
  } cases[] = {
      {L"GET", all, L"", "", ours, {"*/*"}, {}},
      {L"GET", all, L"user-agent: mine\r\n", "", {"mine"}, {"*/*"}, {}},
      {L"POST", all, L"Content-Type: application/octet-stream\r\n", big_body, ours, {"*/*"},
       {"application/octet-stream"}},
      {L"PUT", all, L"User-Agent: put-agent\r\n", "small", {"put-agent"}, {"*/*"}, {}},
      {L"POST", all, L"", "", ours, {"*/*"}, {}},
      {L"POST", all, L"", "form?", ours, {"*/*"}, {}},
      {L"GET", nullptr, L"", "", ours, {}, {}},
      {L"GET", text, L"", "", ours, {"text/html"}, {}},
      {L"GET", all, L"", "", ours, {"*/*"}, {}},
      {L"GET", two, L"", "", ours, {"text/html, */*"}, {}},
      {L"GET", nullptr, L"Accept: */*\r\n", "", ours, {"*/*"}, {}},
      {L"GET", all, L"accept: image/png\r\n", "", ours, {"*/*", "image/png"}, {}},
      {L"GET", nullptr, L"", "", ours, {}, {}},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(i);
    const Handle request(HttpOpenRequestW(connection.get(), cases[i].verb, L"/", nullptr, nullptr,
                                          cases[i].types, 0, 0));
    std::string read;
    ASSERT_TRUE(Send(request, cases[i].headers, cases[i].body)) << GetLastError();
    ASSERT_TRUE(ReadAll(request, &read)) << GetLastError();
    EXPECT_EQ(read, "ok");
    const RecordedRequest seen = server.requests().back();
    EXPECT_EQ(Values(seen, "User-Agent"), cases[i].agent);
    EXPECT_EQ(Values(seen, "Accept"), cases[i].accept);
    EXPECT_EQ(Values(seen, "Content-Type"), cases[i].type);
    EXPECT_EQ(seen.Header("Expect"), std::nullopt);
    EXPECT_TRUE(seen.body == cases[i].body) << seen.body.size() << " bytes arrived";
  }
}

TEST_F(RequestReuseTest, NothingOfARequestReachesTheNextOnTheSameConnection) {
  static constexpr char kBody[] = "0123456789";
  // Asks for credentials when the request says so; any Range gets a part.
  server.Route("/r", [](const RecordedRequest& request) {
    if (request.Header("X-Want-Auth") && !request.Header("Authorization")) {
      return ScriptedResponse(401, "who?").Header("WWW-Authenticate", "Basic realm=\"t\"");
    }
    if (request.Header("Range")) return ScriptedResponse(206, "part");
    return ScriptedResponse(200, kBody);
  });
  const struct Step {
    const wchar_t* verb;
    const wchar_t* headers;
    std::string body;
    bool credentials;
    std::string read;  // the body the caller reads
  } steps[] = {
      {L"HEAD", L"", "", false, ""},
      {L"GET", L"Range: bytes=2-4\r\nX-Extra: 1\r\n", "", false, "part"},
      {L"GET", L"", "", false, kBody},
      {L"POST", L"", "abc", false, kBody},
      {L"GET", L"", "", false, kBody},
      {L"PUT", L"", "xyz", false, kBody},
      {L"DELETE", L"", "", false, kBody},
      {L"GET", L"X-Want-Auth: 1\r\n", "", true, kBody},
      {L"GET", L"", "", false, kBody},
      {L"HEAD", L"Range: bytes=0-0\r\n", "", false, ""},
      {L"POST", L"", "q", false, kBody},
      {L"HEAD", L"", "", false, ""},
      {L"GET", L"", "", false, kBody},
  };
  for (std::size_t i = 0; i < std::size(steps); ++i) {
    const Step& step = steps[i];
    SCOPED_TRACE(i);
    const Handle request = OpenRequest(connection, L"/r", step.verb);
    if (step.credentials) {
      ASSERT_TRUE(SetText(request.get(), INTERNET_OPTION_USERNAME, L"user"));
      ASSERT_TRUE(SetText(request.get(), INTERNET_OPTION_PASSWORD, L"secret"));
    }
    const std::size_t before = server.requests().size();
    std::string read;
    ASSERT_TRUE(Send(request, step.headers, step.body)) << GetLastError();
    ASSERT_TRUE(ReadAll(request, &read)) << GetLastError();
    EXPECT_EQ(read, step.read);

    // The request as the server saw it last (a challenge answered makes two).
    const std::vector<RecordedRequest> requests = server.requests();
    ASSERT_GT(requests.size(), before);
    const RecordedRequest& got = requests.back();
    const std::wstring verb = step.verb;
    EXPECT_EQ(got.method, std::string(verb.begin(), verb.end()));
    EXPECT_EQ(got.body, step.body);
    const std::wstring headers = step.headers;
    const auto sent = [&](const wchar_t* name) { return headers.find(name) != headers.npos; };
    EXPECT_EQ(got.Header("Range").has_value(), sent(L"Range:"));
    EXPECT_EQ(got.Header("X-Extra").has_value(), sent(L"X-Extra:"));
    EXPECT_EQ(got.Header("Authorization").has_value(), step.credentials);
    EXPECT_EQ(got.Header("Content-Length").has_value(), !step.body.empty());
    EXPECT_EQ(got.Header("User-Agent"), "tqnetwork-test");
  }
  // Every answer was read to its end: one connection served them all.
  EXPECT_EQ(server.connection_count(), 1u);
}

// A setting changed on the session or the connection after requests were sent applies to the
// next one, the nearest handle's value first.
TEST_F(RequestReuseTest, ASettingChangedBetweenRequestsAppliesToTheNextOne) {
  server.Route("/r", ScriptedResponse(200, "ok"));
  const struct {
    HINTERNET handle;  // null: no change before this request
    const wchar_t* agent;
    std::string seen;
  } steps[] = {
      {nullptr, nullptr, "tqnetwork-test"},
      {session.get(), L"session-2", "session-2"},
      {connection.get(), L"connection-3", "connection-3"},
      {session.get(), L"session-4", "connection-3"},
  };
  for (std::size_t i = 0; i < std::size(steps); ++i) {
    SCOPED_TRACE(i);
    if (steps[i].handle != nullptr) {
      ASSERT_TRUE(SetText(steps[i].handle, INTERNET_OPTION_USER_AGENT, steps[i].agent));
    }
    EXPECT_EQ(Get(L"/r"), "ok");
    EXPECT_EQ(server.requests().back().Header("User-Agent"), steps[i].seen);
  }
}

}  // namespace
