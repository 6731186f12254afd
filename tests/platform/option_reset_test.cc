// A connection's requests take turns on one libcurl handle, which keeps its options from one
// request to the next: nothing a request asked for (its method, body, range, own header lines,
// credentials) may reach the request after it, in any order of requests.
#include <gtest/gtest.h>

#include <strings.h>

#include <cwchar>
#include <string>
#include <vector>

#include "tests/platform/wininet_test_util.h"
#include "tests/support/servers/scripted_server.h"

namespace {

using namespace tq::test;

constexpr char kBody[] = "0123456789";

bool SetText(const Handle& request, DWORD option, const wchar_t* text) {
  return InternetSetOptionW(request.get(), option, const_cast<wchar_t*>(text),
                            static_cast<DWORD>(std::wcslen(text))) != FALSE;
}

TEST(OptionResetTest, NothingOfARequestReachesTheNextOnTheSameConnection) {
  ScriptedServer server;
  // Asks for credentials when the request says so; any Range gets a part.
  server.Route("/r", [](const RecordedRequest& request) {
    if (request.Header("X-Want-Auth") && !request.Header("Authorization")) {
      return ScriptedResponse(401, "who?").Header("WWW-Authenticate", "Basic realm=\"t\"");
    }
    if (request.Header("Range")) return ScriptedResponse(206, "part");
    return ScriptedResponse(200, kBody);
  });
  const Handle session = OpenSession();
  const Handle connection = Connect(session, server.port());
  ASSERT_TRUE(connection);

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
  std::size_t seen = 0;
  for (std::size_t i = 0; i < std::size(steps); ++i) {
    const Step& step = steps[i];
    SCOPED_TRACE(i);
    const Handle request = OpenRequest(connection, L"/r", step.verb);
    if (step.credentials) {
      ASSERT_TRUE(SetText(request, INTERNET_OPTION_USERNAME, L"user"));
      ASSERT_TRUE(SetText(request, INTERNET_OPTION_PASSWORD, L"secret"));
    }
    std::string read;
    ASSERT_TRUE(Send(request, step.headers, step.body)) << GetLastError();
    ASSERT_TRUE(ReadAll(request, &read)) << GetLastError();
    EXPECT_EQ(read, step.read);

    // The request as the server saw it last (a challenge answered makes two).
    const std::vector<RecordedRequest> requests = server.requests();
    ASSERT_GT(requests.size(), seen);
    seen = requests.size();
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
TEST(OptionResetTest, ASettingChangedBetweenRequestsAppliesToTheNextOne) {
  ScriptedServer server;
  server.Route("/r", ScriptedResponse(200, kBody));
  const Handle session = OpenSession();
  const Handle connection = Connect(session, server.port());
  ASSERT_TRUE(connection);
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
      ASSERT_TRUE(InternetSetOptionW(steps[i].handle, INTERNET_OPTION_USER_AGENT,
                                     const_cast<wchar_t*>(steps[i].agent),
                                     static_cast<DWORD>(std::wcslen(steps[i].agent))));
    }
    const Handle request = OpenRequest(connection, L"/r");
    std::string read;
    ASSERT_TRUE(Send(request)) << GetLastError();
    ASSERT_TRUE(ReadAll(request, &read)) << GetLastError();
    EXPECT_EQ(server.requests().back().Header("User-Agent"), steps[i].seen);
  }
}

// The Accept line as the caller asked for it, once: from the accept types, from a line of the
// caller's own (which replaces them), or none at all.
TEST(OptionResetTest, TheAcceptLineGoesOutOnceAsAskedForInAnyOrderOfRequests) {
  ScriptedServer server;
  server.Route("/r", ScriptedResponse(200, kBody));
  const Handle session = OpenSession();
  const Handle connection = Connect(session, server.port());
  ASSERT_TRUE(connection);
  const wchar_t* all[] = {L"*/*", nullptr};
  const wchar_t* text[] = {L"text/html", nullptr};
  const wchar_t* two[] = {L"text/html", L"*/*", nullptr};
  const struct {
    const wchar_t** types;
    const wchar_t* headers;
    std::vector<std::string> accept;  // every Accept value the server sees
  } cases[] = {
      {all, L"", {"*/*"}},
      {nullptr, L"", {}},
      {text, L"", {"text/html"}},
      {all, L"", {"*/*"}},
      {two, L"", {"text/html, */*"}},
      {nullptr, L"Accept: */*\r\n", {"*/*"}},
      {all, L"accept: image/png\r\n", {"*/*", "image/png"}},
      {nullptr, L"", {}},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(i);
    const Handle request(HttpOpenRequestW(connection.get(), L"GET", L"/r", nullptr, nullptr,
                                          cases[i].types, 0, 0));
    std::string read;
    ASSERT_TRUE(Send(request, cases[i].headers)) << GetLastError();
    ASSERT_TRUE(ReadAll(request, &read)) << GetLastError();
    const std::vector<RecordedRequest> requests = server.requests();
    std::vector<std::string> accept;
    for (const auto& [name, value] : requests.back().headers) {
      if (name.size() == 6 && strncasecmp(name.c_str(), "Accept", 6) == 0) accept.push_back(value);
    }
    EXPECT_EQ(accept, cases[i].accept);
  }
}

}  // namespace
