// A test fixture for the stream layer over the scripted fake transport: installs the fake and a
// recording retry sleep, captures the error log, and at the end checks that the script was
// consumed and every handle closed.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "net/http/connection_pool.h"
#include "net/http/http_api.h"
#include "net/http/request_handler.h"
#include "net/stream/read_stream.h"
#include "tests/support/fake_http_api.h"
#include "tests/support/log_capture.h"

namespace tq::test {

// The fake with two more hooks, run when the status or a body chunk is read: e.g. to request a
// stop after the retry loop has looked at the token for the last time, or in mid-copy.
class HookedFakeHttpApi : public FakeHttpApi {
 public:
  std::function<void()> on_status;
  std::function<void()> on_read;

  std::uint32_t QueryStatusCode(void* request) override {
    if (on_status) on_status();
    return FakeHttpApi::QueryStatusCode(request);
  }
  bool Read(void* request, void* buffer, std::uint32_t size, std::uint32_t& bytes_read) override {
    if (on_read) on_read();
    return FakeHttpApi::Read(request, buffer, size, bytes_read);
  }
};

class FakeTransportTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_previous_api = qv::net::SetHttpApi(&m_api);
    m_previous_sleep =
        qv::net::detail::SetRetrySleepForTesting([this](std::chrono::milliseconds wait) {
          std::lock_guard lock(m_sleep_mutex);
          m_sleeps.push_back(wait);
        });
  }

  void TearDown() override {
    // The pool closes its handles through the transport that opened them.
    qv::net::HttpConnectionPool::Terminate();
    EXPECT_TRUE(m_api.ScriptConsumed()) << "scripted responses left over";
    EXPECT_EQ(m_api.OpenHandles(), 0u) << "handles left open";
    qv::net::SetHttpApi(m_previous_api);
    qv::net::detail::SetRetrySleepForTesting(std::move(m_previous_sleep));
  }

  std::vector<std::chrono::milliseconds> Sleeps() const {
    std::lock_guard lock(m_sleep_mutex);
    return m_sleeps;
  }

  // The transport calls without the connection pool's own (OpenInternet, Connect).
  std::vector<std::string> StreamCalls() const {
    std::vector<std::string> calls;
    for (const std::string& call : m_api.Calls()) {
      if (call == "OpenInternet" || call.rfind("Connect ", 0) == 0) continue;
      calls.push_back(call);
    }
    return calls;
  }

  HookedFakeHttpApi m_api;
  LogCapture m_log;

 private:
  qv::net::IHttpApi* m_previous_api = nullptr;
  qv::net::detail::RetrySleepFunction m_previous_sleep;
  mutable std::mutex m_sleep_mutex;
  std::vector<std::chrono::milliseconds> m_sleeps;
};

// Counts how often it runs and can amend the request, as a host's handler would.
class CountingHandler : public qv::net::HttpRequestHandler {
 public:
  void HandlePreRequest(qv::net::HttpRequest& request) override {
    std::lock_guard lock(m_mutex);
    ++m_count;
    if (!m_header.empty()) request.AddHeader(m_header.c_str(), L"1");
  }
  int Count() const {
    std::lock_guard lock(m_mutex);
    return m_count;
  }
  void AddHeaderOnEachCall(std::wstring name) { m_header = std::move(name); }

 private:
  mutable std::mutex m_mutex;
  int m_count = 0;
  std::wstring m_header;
};

// Registers a handler for one scope.
class ScopedHandler {
 public:
  explicit ScopedHandler(qv::net::HttpRequestHandler* handler) : m_handler(handler) {
    qv::net::HttpRequestHandlerManager::RegisterHandler(handler);
  }
  ~ScopedHandler() { qv::net::HttpRequestHandlerManager::UnregisterHandler(m_handler); }
  ScopedHandler(const ScopedHandler&) = delete;
  ScopedHandler& operator=(const ScopedHandler&) = delete;

 private:
  qv::net::HttpRequestHandler* m_handler;
};

}  // namespace tq::test
