// The WinINet layer against a server that misbehaves on purpose: answers that drip, lie about
// their length or differ by path spelling, header text that would smuggle a line, and a request
// closed from another thread while a call waits on it.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/fault_injection.h"
#include "platform/urlmon.h"
#include "platform/urlmon_internal.h"
#include "platform/wide_text.h"
#include "tests/platform/wininet_test_util.h"
#include "tests/support/servers/raw_responder.h"
#include "tests/support/servers/temp_dir.h"

namespace {

using namespace tq::test;
using namespace std::chrono_literals;
using tqplatform::Latin1ToWide;

// Server-side pacing: a script waits here between the lines it drips, until the interval passes
// or the test ends (then it stops at once).
class Pacer {
 public:
  ~Pacer() { End(); }
  // False when the test has ended.
  bool Wait(std::chrono::milliseconds interval) {
    std::unique_lock lock(mutex_);
    return !cv_.wait_for(lock, interval, [this] { return ended_; });
  }
  void End() {
    {
      std::lock_guard lock(mutex_);
      ended_ = true;
    }
    cv_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool ended_ = false;
};

// A one-shot signal from a server thread (or a hook) to the test.
class Latch {
 public:
  void Set() {
    {
      std::lock_guard lock(mutex_);
      set_ = true;
    }
    cv_.notify_all();
  }
  bool Wait(std::chrono::milliseconds bound = 10s) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, bound, [this] { return set_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool set_ = false;
};

std::string RequestLine(const std::string& head) { return head.substr(0, head.find("\r\n")); }

TEST(HostilePlatform, DotSegmentsAreRemovedBeforeTheRequestIsSent) {
  std::mutex mutex;
  std::vector<std::string> seen;
  RawResponder server([&](RawConnection& c) {
    for (std::string head; !(head = c.ReadRequestHead()).empty();) {
      {
        std::lock_guard lock(mutex);
        seen.push_back(RequestLine(head));
      }
      c.Send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
    }
  });
  ASSERT_TRUE(server.ok());
  Handle session = OpenSession();
  Handle connection = Connect(session, server.port());
  const struct {
    const wchar_t* path;
    const char* sent;
  } cases[] = {
      {L"/x/../b", "GET /b HTTP/1.1"},
      {L"/a/./b/../../c?q=/../", "GET /c?q=/../ HTTP/1.1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.path);
    Handle request = OpenRequest(connection, c.path);
    ASSERT_TRUE(Send(request));
    {
      std::lock_guard lock(mutex);
      ASSERT_FALSE(seen.empty());
      EXPECT_EQ(seen.back(), c.sent);
    }
    // What the request-headers query reports is what went out.
    const std::string reported =
        QueryText(request, HTTP_QUERY_RAW_HEADERS_CRLF | HTTP_QUERY_FLAG_REQUEST_HEADERS);
    EXPECT_EQ(RequestLine(reported), c.sent);
  }
}

TEST(HostilePlatform, HeaderTextWithABareCrOrANulIsRefusedAndNothingIsSent) {
  std::mutex mutex;
  std::string last_head;
  RawResponder server([&](RawConnection& c) {
    const std::string head = c.ReadRequestHead();
    {
      std::lock_guard lock(mutex);
      last_head = head;
    }
    c.Send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
  });
  ASSERT_TRUE(server.ok());
  Handle session = OpenSession();
  Handle connection = Connect(session, server.port());
  const std::wstring refused[] = {
      L"X-Tag: \"a\"\rX-Injected: 1\r\n",
      L"X-Tag: \"a\"\r",
      L"X-Tag: \"a\"\r\r\nX-Injected: 1\r\n",
      std::wstring(L"X-Tag: \"a\"\0X-Injected: 1\r\n", 26),
      std::wstring(L"X-Tag: \"a\r\n\0\0X-Injected: 1", 26),
  };
  for (const std::wstring& headers : refused) {
    SCOPED_TRACE(testing::Message() << "case " << (&headers - refused));
    Handle request = OpenRequest(connection, L"/");
    SetLastError(0);
    EXPECT_FALSE(HttpSendRequestW(request.get(), headers.c_str(),
                                  static_cast<DWORD>(headers.size()), nullptr, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  }
  EXPECT_EQ(server.connection_count(), 0u);

  // Lines ending in CR LF or LF go out, each as its own header; a length that counts the
  // terminator is no NUL inside the text.
  const std::wstring fine(L"X-One: 1\r\nX-Two: 2\nX-Three: 3\0", 30);
  Handle request = OpenRequest(connection, L"/");
  ASSERT_TRUE(HttpSendRequestW(request.get(), fine.c_str(), static_cast<DWORD>(fine.size()),
                               nullptr, 0));
  std::lock_guard lock(mutex);
  EXPECT_NE(last_head.find("\r\nX-One: 1\r\nX-Two: 2\r\nX-Three: 3\r\n"), std::string::npos)
      << last_head;
}

}  // namespace
