// A test fixture for the stream layer over the scripted fake transport: installs the fake and a
// recording retry sleep, captures the error log, and at the end checks that the script was
// consumed and every handle closed.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "net/http/connection_pool.h"
#include "net/http/request_handler.h"
#include "net/stream/read_stream.h"
#include "tests/support/fake_http_api.h"
#include "tests/support/log_capture.h"

namespace tq::test {

class FakeTransportTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_previous_api = qv::net::SetHttpApi(&m_api);
    m_previous_sleep = qv::net::detail::SetRetrySleepForTesting([this](auto wait) {
      std::lock_guard lock(m_sleep_mutex);
      m_sleeps.push_back(wait);
    });
  }
  void TearDown() override {
    qv::net::HttpConnectionPool::Terminate();  // closes through the transport that opened them
    EXPECT_TRUE(m_api.ScriptConsumed()) << "scripted responses left over";
    EXPECT_EQ(m_api.OpenHandles(), 0u) << "handles left open";
    qv::net::SetHttpApi(m_previous_api);
    qv::net::detail::SetRetrySleepForTesting(std::move(m_previous_sleep));
  }

  std::vector<std::chrono::milliseconds> Sleeps() const {
    std::lock_guard lock(m_sleep_mutex);
    return m_sleeps;
  }
  FakeHttpApi m_api;
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
    ++m_count;
    if (!m_header.empty()) request.AddHeader(m_header.c_str(), L"1");
  }
  int Count() const { return m_count; }
  void AddHeaderOnEachCall(std::wstring name) { m_header = std::move(name); }

 private:
  std::atomic<int> m_count = 0;
  std::wstring m_header;
};

// Registers a handler for one scope.
struct ScopedHandler {
  explicit ScopedHandler(qv::net::HttpRequestHandler* handler) : m_handler(handler) {
    qv::net::HttpRequestHandlerManager::RegisterHandler(handler);
  }
  ~ScopedHandler() { qv::net::HttpRequestHandlerManager::UnregisterHandler(m_handler); }
  ScopedHandler(const ScopedHandler&) = delete;
  qv::net::HttpRequestHandler* const m_handler;
};

}  // namespace tq::test
