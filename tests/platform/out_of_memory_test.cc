// An allocation that fails inside a WinINet or URL Moniker call: the call fails with
// ERROR_NOT_ENOUGH_MEMORY (E_OUTOFMEMORY) as Windows' do, never lets std::bad_alloc out into a
// caller that expects only FALSE or NULL (nor through libcurl's C frames, from inside its
// callbacks), and what it was given works once memory is back.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/platform/bind_callback.h"
#include "tests/platform/wininet_test_util.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/servers/scripted_server.h"
#include "tests/support/servers/temp_dir.h"

namespace tq::test {
namespace {

constexpr std::size_t kBodySize = 100000;

// Calls `attempt` with the n-th allocation of this thread failing, then `judge` with memory back
// and whether it came to that, for n = 0, 1, ... until it no longer does. Returns how many
// attempts had an allocation fail.
template <typename Attempt, typename Judge>
long FailEachAllocation(Attempt attempt, Judge judge) {
  for (long n = 0;; ++n) {
    SCOPED_TRACE("allocation " + std::to_string(n) + " failing");
    bool threw = false;
    bool failed = false;
    {
      const FailingAllocation failing(n);
      try {
        attempt();
      } catch (...) {
        threw = true;
      }
      failed = FailingAllocation::Failed();
    }
    EXPECT_FALSE(threw) << "an exception got out of the calls";
    judge(failed);
    if (!failed || threw) return n;
  }
}

// Reads the rest of the body into `body` without allocating beyond its capacity.
bool ReadRest(HINTERNET request, std::string& body) {
  char buffer[4096];
  for (DWORD got = 1; got != 0; body.append(buffer, got)) {
    if (!InternetReadFile(request, buffer, sizeof buffer, &got)) return false;
  }
  return true;
}

// Counts what a download tells it, allocating nothing: a binding it is given is held, as a
// callback is entitled to, until it is told the download stopped.
class CountingCallback final : public BindCallback {
 public:
  HRESULT STDMETHODCALLTYPE OnStartBinding(DWORD, IBinding* binding) override {
    ++starts;
    binding->AddRef();
    held = binding;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE OnStopBinding(HRESULT result, LPCWSTR) override {
    ++stops;
    stopped_with = result;
    LetGo();
    return S_OK;
  }

  void LetGo() {
    if (held != nullptr) held->Release();
    held = nullptr;
  }

  int starts = 0;
  int stops = 0;
  HRESULT stopped_with = S_OK;
  IBinding* held = nullptr;
};

TEST(OutOfMemory, EachCallFailsWithNotEnoughMemoryAndTheNextFetchWorks) {
  ScriptedServer server;
  ASSERT_TRUE(server.ok());
  const std::string body(kBodySize, 'b');
  server.Route("/a", ScriptedResponse(200, body).Header("X-Reply", "yes"));
  server.Route("/r", ScriptedResponse(302).Header("Location", "/a"));

  // A session and a connection with a string option set, a request for a redirect, its status,
  // a header by name and its body, then the same request sent and read again: each call in turn
  // until one fails.
  DWORD error = 0;  // the failed call's; 0: none failed
  std::string got;
  got.reserve(2 * kBodySize);  // the test's own allocations are made before any fails
  Handle session, connection, request;
  const auto ok = [&error](bool succeeded) {
    if (!succeeded) error = GetLastError();
    return succeeded;
  };
  const auto attempt = [&] {
    wchar_t agent[] = L"agent";
    session = OpenSession();
    if (!ok(session != nullptr)) return;
    connection = Connect(session, server.port());
    if (!ok(connection != nullptr) ||
        !ok(InternetSetOptionW(connection.get(), INTERNET_OPTION_USER_AGENT, agent, 5))) {
      return;
    }
    request = OpenRequest(connection, L"/r");
    for (int send = 0; send < 2 && ok(request != nullptr); ++send) {
      DWORD status = 0, status_length = sizeof status;
      wchar_t value[64] = L"X-Reply";
      DWORD value_length = sizeof value;
      if (!ok(HttpSendRequestW(request.get(), L"X-Probe: 1", DWORD(-1), nullptr, 0)) ||
          !ok(HttpQueryInfoW(request.get(), HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER,
                             &status, &status_length, nullptr)) ||
          !ok(HttpQueryInfoW(request.get(), HTTP_QUERY_CUSTOM, value, &value_length, nullptr)) ||
          !ok(ReadRest(request.get(), got))) {
        return;
      }
    }
  };
  const auto judge = [&](bool failed) {
    if (error != 0) {
      EXPECT_TRUE(failed);
      EXPECT_EQ(error, DWORD{ERROR_NOT_ENOUGH_MEMORY});
    } else {
      EXPECT_TRUE(got == body + body);  // a failure a call absorbed cost no byte
    }
    std::string again;
    EXPECT_TRUE(!request || (HttpSendRequestW(request.get(), nullptr, 0, nullptr, 0) &&
                             ReadRest(request.get(), again) && again == body))
        << "the request does not work once memory is back";
    request.reset();
    connection.reset();
    session.reset();
    error = 0;
    got.clear();
  };
  EXPECT_GT(FailEachAllocation(attempt, judge), 0);

  // A download: the whole file, or E_OUTOFMEMORY and nothing left behind; a callback told the
  // download started is told it stopped, once, with its result.
  TempDir dir;
  const std::wstring url = L"http://127.0.0.1:" + std::to_wstring(server.port()) + L"/a";
  const std::wstring target = (dir.path() / "file").wstring();
  HRESULT result = E_FAIL;
  CountingCallback callback;
  const long failures = FailEachAllocation(
      [&] { result = URLDownloadToFileW(nullptr, url.c_str(), target.c_str(), 0, &callback); },
      [&](bool failed) {
        EXPECT_EQ(callback.stops, callback.starts);
        if (callback.stops != 0) {
          EXPECT_EQ(callback.stopped_with, result);
        }
        callback.LetGo();
        callback = CountingCallback();
        if (failed && result != S_OK) {
          EXPECT_EQ(result, E_OUTOFMEMORY);
          EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
          return;
        }
        EXPECT_EQ(result, S_OK);
        std::ifstream in(dir.path() / "file", std::ios::binary);
        EXPECT_TRUE(std::string(std::istreambuf_iterator<char>(in), {}) == body);
        in.close();
        std::filesystem::remove(target);
      });
  EXPECT_GT(failures, 0);
}

// A closed request's transfer goes back to its connection, which then looks at its settings again
// when one changed anywhere meanwhile. An allocation that fails there must not end the process
// (no exception leaves a destructor): the handle is closed all the same, and the connection
// serves the next request.
TEST(OutOfMemory, ClosingARequestClosesItAndTheConnectionServesTheNext) {
  ScriptedServer server;
  ASSERT_TRUE(server.ok());
  server.Route("/a", ScriptedResponse(200, "body"));
  // An agent too long to be kept inside a string object: copying settings allocates.
  Handle session(InternetOpenW(L"an agent of some length", INTERNET_OPEN_TYPE_DIRECT, nullptr,
                               nullptr, 0));
  Handle connection = Connect(session, server.port());
  ASSERT_TRUE(connection);
  for (long n = 0;; ++n) {
    SCOPED_TRACE("allocation " + std::to_string(n) + " failing");
    Handle request = OpenRequest(connection, L"/a");
    std::string got;
    ASSERT_TRUE(Send(request) && ReadAll(request, &got) && got == "body") << GetLastError();
    ASSERT_TRUE(SetDword(connection.get(), INTERNET_OPTION_RECEIVE_TIMEOUT, 60'000));
    HINTERNET closed = request.release();
    bool failed = false;
    {
      const FailingAllocation failing(n);
      EXPECT_TRUE(InternetCloseHandle(closed));
      failed = FailingAllocation::Failed();
    }
    EXPECT_EQ(ErrorOf([&] { return InternetCloseHandle(closed); }), ERROR_INVALID_HANDLE);
    EXPECT_EQ(Fetch(connection, L"/a"), "body");
    if (!failed) break;
  }
}

}  // namespace
}  // namespace tq::test
