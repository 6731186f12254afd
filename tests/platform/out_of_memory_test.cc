// An allocation that fails inside a WinINet call: the call fails with ERROR_NOT_ENOUGH_MEMORY as
// WinINet's do, and never lets std::bad_alloc out into a caller that expects only FALSE or NULL
// (nor through libcurl's C frames, from inside its callbacks).
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/urlmon.h"
#include "tests/support/allocation_failure.h"
#include "tests/platform/wininet_test_util.h"
#include "tests/support/servers/scripted_server.h"
#include "tests/support/servers/temp_dir.h"

namespace tq::test {
namespace {

constexpr std::size_t kBodySize = 100000;

// What one run of the calls saw, up to the first call that failed.
struct Outcome {
  const char* failed_call = "";  // empty: every call succeeded
  DWORD error = 0;
  bool threw = false;
  std::string body;
  bool made = false;  // the request was made
  std::string again;  // the request sent once more with memory back, when it was made
};

// Reads the rest of the body into `body`; false when a read fails.
bool ReadRest(HINTERNET request, std::string& body) {
  char buffer[4096];
  for (DWORD got = 1; got != 0; body.append(buffer, got)) {
    if (!InternetReadFile(request, buffer, sizeof buffer, &got)) return false;
  }
  return true;
}

// A session and a connection with a string option set, a request for a redirect, its status,
// a header by name and its body, then the same request sent again and read: with the n-th
// allocation of this thread failing. Then, with memory back, the request (if it was made) is
// sent and read once more.
Outcome FetchFailingAt(long n, int port) {
  Outcome run;
  run.body.reserve(2 * kBodySize);  // the test's own allocations are made before any fails
  run.again.reserve(kBodySize);
  Handle session, connection, request;
  {
    const FailingAllocation failing(n);
    // Each call in turn, until one fails.
    const auto step = [&run](const char* call, bool ok) {
      if (*run.failed_call != '\0') return false;
      if (!ok) {
        run.failed_call = call;
        run.error = GetLastError();
      }
      return ok;
    };
    try {
      session.reset(
          InternetOpenW(L"tqnetwork-test", INTERNET_OPEN_TYPE_DIRECT, nullptr, nullptr, 0));
      if (!step("InternetOpenW", session != nullptr)) return run;
      connection = Connect(session, port);
      if (!step("InternetConnectW", connection != nullptr)) return run;
      wchar_t agent[] = L"agent";
      step("InternetSetOptionW", InternetSetOptionW(connection.get(), INTERNET_OPTION_USER_AGENT,
                                                    agent, 5) != FALSE);
      request = OpenRequest(connection, L"/r");
      step("HttpOpenRequestW", request != nullptr);
      for (int send = 0; send < 2; ++send) {
        step("HttpSendRequestW",
             HttpSendRequestW(request.get(), L"X-Probe: 1", DWORD(-1), nullptr, 0) != FALSE);
        DWORD status = 0;
        DWORD length = sizeof status;
        step("HttpQueryInfoW", HttpQueryInfoW(request.get(),
                                              HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER,
                                              &status, &length, nullptr) != FALSE);
        wchar_t value[64] = L"X-Reply";
        length = sizeof value;
        step("HttpQueryInfoW",
             HttpQueryInfoW(request.get(), HTTP_QUERY_CUSTOM, value, &length, nullptr) != FALSE);
        if (*run.failed_call == '\0') step("InternetReadFile", ReadRest(request.get(), run.body));
      }
    } catch (...) {
      run.threw = true;
    }
  }
  run.made = request != nullptr;
  if (run.made && HttpSendRequestW(request.get(), nullptr, 0, nullptr, 0)) {
    ReadRest(request.get(), run.again);
  }
  return run;
}

TEST(OutOfMemory, EachCallFailsWithNotEnoughMemoryAndTheNextFetchWorks) {
  ScriptedServer server;
  ASSERT_TRUE(server.ok());
  const std::string body(kBodySize, 'b');
  server.Route("/a", ScriptedResponse(200, body).Header("X-Reply", "yes"));
  server.Route("/r", ScriptedResponse(302).Header("Location", "/a"));
  long failures = 0;
  for (long n = 0;; ++n) {
    const Outcome run = FetchFailingAt(n, server.port());
    SCOPED_TRACE("allocation " + std::to_string(n) + " failing, in " +
                 std::string(run.failed_call));
    ASSERT_FALSE(run.threw);
    if (!FailingAllocation::Failed()) {
      EXPECT_STREQ(run.failed_call, "") << run.error;
      EXPECT_TRUE(run.body == body + body);
      break;
    }
    ++failures;
    if (run.made) {
      EXPECT_TRUE(run.again == body) << "the request does not work once memory is back";
    }
    // A failure the call could absorb must not have cost a byte.
    if (*run.failed_call == '\0') {
      EXPECT_TRUE(run.body == body + body);
    } else {
      EXPECT_EQ(run.error, DWORD{ERROR_NOT_ENOUGH_MEMORY});
    }
  }
  EXPECT_GT(failures, 0);

  // A download: the whole file or E_OUTOFMEMORY and nothing left behind.
  TempDir dir;
  const std::wstring url = L"http://127.0.0.1:" + std::to_wstring(server.port()) + L"/a";
  const std::wstring target = (dir.path() / "file").wstring();
  failures = 0;
  for (long n = 0;; ++n) {
    SCOPED_TRACE("download, allocation " + std::to_string(n) + " failing");
    HRESULT result = E_FAIL;
    bool threw = false;
    bool failed = false;
    {
      const FailingAllocation failing(n);
      try {
        result = URLDownloadToFileW(nullptr, url.c_str(), target.c_str(), 0, nullptr);
      } catch (...) {
        threw = true;
      }
      failed = FailingAllocation::Failed();
    }
    ASSERT_FALSE(threw);
    if (!failed) {
      EXPECT_EQ(result, S_OK);
      std::ifstream in(dir.path() / "file", std::ios::binary);
      EXPECT_TRUE(std::string(std::istreambuf_iterator<char>(in), {}) == body);
      break;
    }
    ++failures;
    if (result != S_OK) {
      EXPECT_EQ(result, E_OUTOFMEMORY);
      EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
    }
    std::filesystem::remove(target);
  }
  EXPECT_GT(failures, 0);
}

}  // namespace
}  // namespace tq::test
