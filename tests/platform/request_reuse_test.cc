// Sequential requests on one connection handle reuse its transfer slot: what a slot remembers
// from the last request (the URL as sent, the room kept for body bytes) must never leak into
// the next one.
#include <gtest/gtest.h>

#include <cctype>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/http_headers.h"
#include "tests/platform/wininet_test_util.h"
#include "tests/support/servers/scripted_server.h"

namespace {

using namespace tq::test;

std::string Pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 131 + i / 251) % 256);
  return bytes;
}

bool EqualsIgnoreCaseAscii(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

std::string StartLineSent(const Handle& request) {
  const std::string head =
      QueryText(request, HTTP_QUERY_FLAG_REQUEST_HEADERS | HTTP_QUERY_RAW_HEADERS_CRLF);
  return head.substr(0, head.find("\r\n"));
}

TEST(RequestReuseTest, AlternatingResourcesOnOneConnectionEachGoOutNormalised) {
  ScriptedServer server;
  ASSERT_TRUE(server.ok());
  server.Route("/b", ScriptedResponse(200, "at b"));
  server.Route("/c", ScriptedResponse(200, "at c"));
  server.Route("/c/d", ScriptedResponse(200, "at c/d"));
  const Handle session = OpenSession();
  const Handle connection = Connect(session, server.port());
  ASSERT_TRUE(connection);

  const struct {
    const wchar_t* resource;
    const char* sent;
    const char* body;
  } steps[] = {
      {L"/a/../b", "/b", "at b"},   {L"/c", "/c", "at c"},         {L"/a/../b", "/b", "at b"},
      {L"/a/../b", "/b", "at b"},   {L"/c/./d", "/c/d", "at c/d"}, {L"/c", "/c", "at c"},
      {L"/x/y/../../b", "/b", "at b"},
  };
  std::vector<std::string> expected_paths;
  for (const auto& step : steps) {
    SCOPED_TRACE(step.sent);
    const Handle request = OpenRequest(connection, step.resource);
    ASSERT_TRUE(Send(request)) << GetLastError();
    std::string body;
    ASSERT_TRUE(ReadAll(request, &body)) << GetLastError();
    EXPECT_EQ(body, step.body);
    EXPECT_EQ(StartLineSent(request), std::string("GET ") + step.sent + " HTTP/1.1");
    expected_paths.push_back(step.sent);
  }
  std::vector<std::string> paths;
  for (const auto& recorded : server.requests()) paths.push_back(recorded.path);
  EXPECT_EQ(paths, expected_paths);
  EXPECT_EQ(server.connection_count(), 1u);
}

TEST(RequestReuseTest, BodiesAroundWhatIsKeptUnreadArriveWholeAtEveryReadSize) {
  ScriptedServer server;
  ASSERT_TRUE(server.ok());
  const Handle session = OpenSession();
  const Handle connection = Connect(session, server.port());
  ASSERT_TRUE(connection);

  constexpr std::size_t kKept = 256 * 1024;  // what a transfer keeps while nobody reads
  const std::size_t sizes[] = {0,         1,     16 * 1024,     64 * 1024 + 3,
                               kKept - 1, kKept, kKept + 1,     2 * kKept + 5,
                               1024 * 1024 + 7};
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
        SCOPED_TRACE(route + " in reads of " + std::to_string(read));
        const Handle request = OpenRequest(connection, std::wstring(route.begin(), route.end()));
        ASSERT_TRUE(Send(request)) << GetLastError();
        std::string body;
        ASSERT_TRUE(ReadAll(request, &body, read)) << GetLastError();
        EXPECT_TRUE(body == expected) << "got " << body.size() << " bytes, want " << size;
      }
    }
  }
  // Every body was read to its end, so every request reused the one connection.
  EXPECT_EQ(server.connection_count(), 1u);
}

TEST(RequestReuseTest, ABodyLeftUnreadIsDroppedAndTheNextRequestIsServed) {
  ScriptedServer server;
  ASSERT_TRUE(server.ok());
  server.Route("/big", ScriptedResponse(200, Pattern(3 * 1024 * 1024)));
  server.Route("/small", ScriptedResponse(200, "next"));
  const Handle session = OpenSession();
  const Handle connection = Connect(session, server.port());
  ASSERT_TRUE(connection);
  for (int round = 0; round < 3; ++round) {
    {
      const Handle big = OpenRequest(connection, L"/big");
      ASSERT_TRUE(Send(big)) << GetLastError();
      char first[10];
      DWORD got = 0;
      ASSERT_TRUE(InternetReadFile(big.get(), first, sizeof first, &got));
      EXPECT_EQ(std::string(first, got), Pattern(10));
    }
    const Handle small = OpenRequest(connection, L"/small");
    ASSERT_TRUE(Send(small)) << GetLastError();
    std::string body;
    ASSERT_TRUE(ReadAll(small, &body)) << GetLastError();
    EXPECT_EQ(body, "next");
  }
}

TEST(RequestReuseTest, TheAgentLineGoesOutOnceAndAPostBodyWithoutAskingToContinue) {
  ScriptedServer server;
  ASSERT_TRUE(server.ok());
  server.Route("/", ScriptedResponse(200, "ok"));
  const Handle session = OpenSession();  // direct, agent "tqnetwork-test"
  const Handle connection = Connect(session, server.port());
  ASSERT_TRUE(connection);
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
  for (const auto& c : cases) {
    const Handle request = OpenRequest(connection, L"/", c.verb);
    ASSERT_TRUE(Send(request, c.headers, c.body)) << GetLastError();
    std::string body;
    ASSERT_TRUE(ReadAll(request, &body)) << GetLastError();
    EXPECT_EQ(body, "ok") << "status " << StatusCode(request) << " for a body of " << c.body.size();
  }
  const std::vector<RecordedRequest> seen = server.requests();
  ASSERT_EQ(seen.size(), std::size(cases));
  for (std::size_t i = 0; i < seen.size(); ++i) {
    SCOPED_TRACE(i);
    std::vector<std::string> agents;
    for (const auto& [name, value] : seen[i].headers) {
      if (EqualsIgnoreCaseAscii(name, "User-Agent")) agents.push_back(value);
    }
    EXPECT_EQ(agents, std::vector<std::string>{cases[i].agent});
    EXPECT_EQ(seen[i].Header("Expect"), std::nullopt);
    EXPECT_TRUE(seen[i].body == cases[i].body) << seen[i].body.size() << " bytes arrived";
  }
}

// Header names are tokens: every other byte in a name refuses the line.
TEST(HeaderNameTest, EveryByteOutsideTheTokenCharactersRefusesTheLine) {
  constexpr std::string_view kSeparators = "()<>@,;\\\"/[]?={}";
  for (int c = 0; c < 256; ++c) {
    if (c == ':') continue;  // ends the name
    const bool token = c > 0x20 && c < 0x7F && kSeparators.find(static_cast<char>(c)) ==
                                                    std::string_view::npos;
    tqplatform::HeaderBlock block;
    ASSERT_EQ(block.AddLine("HTTP/1.1 200 OK\r\n"), tqplatform::HeaderBlock::LineResult::kAccepted);
    const std::string line = std::string("X") + static_cast<char>(c) + "Y: v\r\n";
    EXPECT_EQ(block.AddLine(line), token ? tqplatform::HeaderBlock::LineResult::kAccepted
                                         : tqplatform::HeaderBlock::LineResult::kInvalid)
        << "byte " << c;
  }
}

}  // namespace
