// Set-up shared by the fault suite: the library started as a host starts it (InitialiseHttp),
// short process-wide time-outs so that a stalling server fails a call in a fraction of a second,
// retry waits recorded instead of slept, the error log captured, and a clock to prove that no
// call hangs past its configured time-outs.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "net/http/connection_pool.h"
#include "net/http/http_init.h"
#include "net/host/platform.h"
#include "net/stream/read_stream.h"
#include "platform/fault_injection.h"
#include "platform/urlmon_internal.h"
#include "platform/wininet_session.h"
#include "tests/support/log_capture.h"

namespace tq::test {

class FaultTest : public ::testing::Test {
 protected:
  // What a stalling server costs a call: one receive time-out per send, at most three sends
  // (the file protocol's time-out resends), plus slack for a loaded machine. The library's
  // default time-outs (30-60 s) are far above it, so a path that ignores the configured
  // time-out fails the bound instead of passing slowly.
  static constexpr DWORD kReceiveTimeoutMs = 250;
  static constexpr std::chrono::milliseconds kCallBound{3 * kReceiveTimeoutMs + 5000};

  void SetUp() override {
    // Process-wide (null handle): every session, connection and request made by any layer
    // inherits these, also those made inside the library.
    SetTimeout(INTERNET_OPTION_RECEIVE_TIMEOUT, kReceiveTimeoutMs);
    SetTimeout(INTERNET_OPTION_SEND_TIMEOUT, kReceiveTimeoutMs);
    SetTimeout(INTERNET_OPTION_CONNECT_TIMEOUT, 2000);
    previous_limits_ = tqplatform::SetUrlDownloadLimitsForTesting({2000, kReceiveTimeoutMs});
    previous_sleep_ = qv::net::detail::SetRetrySleepForTesting(
        [this](std::chrono::milliseconds wait) {
          std::lock_guard lock(mutex_);
          sleeps_.push_back(wait);
        });
    qv::net::InitialiseHttp();
  }

  void TearDown() override {
    qv::net::HttpConnectionPool::Terminate();
    qv::net::TerminateHttp();
    TqPlatformClearFaults();
    qv::net::detail::SetRetrySleepForTesting(std::move(previous_sleep_));
    tqplatform::SetUrlDownloadLimitsForTesting(previous_limits_);
    SetTimeout(INTERNET_OPTION_RECEIVE_TIMEOUT, tqplatform::kDefaultReceiveTimeoutMs);
    SetTimeout(INTERNET_OPTION_SEND_TIMEOUT, tqplatform::kDefaultSendTimeoutMs);
    SetTimeout(INTERNET_OPTION_CONNECT_TIMEOUT, tqplatform::kDefaultConnectTimeoutMs);
  }

  std::vector<std::chrono::milliseconds> TakeSleeps() {
    std::lock_guard lock(mutex_);
    return std::exchange(sleeps_, {});
  }

  // Runs `call` and fails the test when it took longer than kCallBound.
  template <class F>
  auto Bounded(F&& call) {
    const auto start = std::chrono::steady_clock::now();
    struct Check {
      std::chrono::steady_clock::time_point start;
      ~Check() {
        const auto took = std::chrono::steady_clock::now() - start;
        EXPECT_LT(took, kCallBound)
            << "took " << std::chrono::duration_cast<std::chrono::milliseconds>(took).count()
            << " ms";
      }
    } check{start};
    return call();
  }

  LogCapture log_;

 private:
  static void SetTimeout(DWORD option, DWORD ms) {
    ASSERT_TRUE(InternetSetOptionW(nullptr, option, &ms, sizeof ms)) << option;
  }

  std::mutex mutex_;
  std::vector<std::chrono::milliseconds> sleeps_;
  qv::net::detail::RetrySleepFunction previous_sleep_;
  tqplatform::UrlDownloadLimits previous_limits_;
};

}  // namespace tq::test
