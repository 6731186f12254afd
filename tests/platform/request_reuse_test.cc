// Sequential requests on one connection handle reuse its transfer slot: what a slot remembers
// from the last request (the room kept for body bytes, headers, a body) must never leak into the
// next one. The URL as sent: the hostile dot-segment case.
#include <gtest/gtest.h>

#include <strings.h>

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

TEST_F(RequestReuseTest, TheAgentLineGoesOutOnceAndAPostBodyWithoutAskingToContinue) {
  server.Route("/", ScriptedResponse(200, "ok"));
  const std::string big_body(1536 * 1024, 'p');  // past the size libcurl asks to continue for
  const struct {
    const wchar_t* verb;
    std::wstring headers;
    std::string body;
    const char* agent;  // the one User-Agent the server must see
  } cases[] = {
      {L"GET", L"", "", "tqnetwork-test"},
      {L"GET", L"user-agent: mine\r\n", "", "mine"},
      {L"POST", L"Content-Type: application/octet-stream\r\n", big_body, "tqnetwork-test"},
      {L"PUT", L"User-Agent: put-agent\r\n", "small", "put-agent"},
  };
  for (const auto& c : cases) EXPECT_EQ(Get(L"/", c.verb, c.headers, c.body), "ok");
  const std::vector<RecordedRequest> seen = server.requests();
  ASSERT_EQ(seen.size(), std::size(cases));
  for (std::size_t i = 0; i < seen.size(); ++i) {
    SCOPED_TRACE(i);
    std::vector<std::string> agents;
    for (const auto& [name, value] : seen[i].headers) {
      if (name.size() == 10 && strncasecmp(name.c_str(), "User-Agent", 10) == 0) {
        agents.push_back(value);
      }
    }
    EXPECT_EQ(agents, std::vector<std::string>{cases[i].agent});
    EXPECT_EQ(seen[i].Header("Expect"), std::nullopt);
    EXPECT_TRUE(seen[i].body == cases[i].body) << seen[i].body.size() << " bytes arrived";
  }
}

}  // namespace
