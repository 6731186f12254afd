// The fault suite's set-up: the library started as a host starts it, short process-wide
// time-outs so that a stalling server fails a call quickly, retry waits recorded instead of
// slept, the log captured; a hostile server that answers every request with one chosen fault;
// and a disk that fills up.
#pragma once

#include <gtest/gtest.h>
#if !defined(_WIN32)
#include <signal.h>
#include <sys/resource.h>
#endif

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "net/http/connection_pool.h"
#include "net/http/http_init.h"
#include "net/host/platform.h"
#include "net/stream/read_stream.h"
#if !defined(_WIN32)
#include "platform/urlmon_internal.h"
#include "platform/wininet_session.h"
#endif
#include "tests/support/fault_injection.h"
#include "tests/support/log_capture.h"
#include "tests/support/servers/raw_responder.h"

namespace tq::test {

class FaultTest : public ::testing::Test {
 protected:
  // At most three sends (the file protocol resends on a time-out) plus slack; far below the
  // library's default time-outs, so a path that ignores the configured one fails the bound.
  static constexpr DWORD kReceiveTimeoutMs = 250;
  static constexpr std::chrono::milliseconds kCallBound{3 * kReceiveTimeoutMs + 5000};

  void SetUp() override {
    // Process-wide (null handle): inherited by every handle any layer makes.
#if defined(_WIN32)
    // WinINet's process-wide values, put back afterwards. Wine cannot query them without a
    // handle; then the documented defaults are put back.
    for (const DWORD option : kTimeoutOptions) {
      DWORD ms = 0, length = sizeof ms;
      if (!InternetQueryOptionW(nullptr, option, &ms, &length)) {
        ms = option == INTERNET_OPTION_SEND_TIMEOUT ? 30'000 : 60'000;
      }
      previous_timeouts_.push_back(ms);
    }
#endif
    SetTimeout(INTERNET_OPTION_RECEIVE_TIMEOUT, kReceiveTimeoutMs);
    SetTimeout(INTERNET_OPTION_SEND_TIMEOUT, kReceiveTimeoutMs);
    SetTimeout(INTERNET_OPTION_CONNECT_TIMEOUT, 2000);
#if !defined(_WIN32)
    previous_limits_ = tqplatform::SetUrlDownloadLimitsForTesting({2000, kReceiveTimeoutMs});
#endif
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
#if defined(_WIN32)
    for (std::size_t i = 0; i < previous_timeouts_.size(); ++i) {
      SetTimeout(kTimeoutOptions[i], previous_timeouts_[i]);
    }
#else
    tqplatform::SetUrlDownloadLimitsForTesting(previous_limits_);
    SetTimeout(INTERNET_OPTION_RECEIVE_TIMEOUT, tqplatform::kDefaultReceiveTimeoutMs);
    SetTimeout(INTERNET_OPTION_SEND_TIMEOUT, tqplatform::kDefaultSendTimeoutMs);
    SetTimeout(INTERNET_OPTION_CONNECT_TIMEOUT, tqplatform::kDefaultConnectTimeoutMs);
#endif
  }

  std::vector<std::chrono::milliseconds> TakeSleeps() {
    std::lock_guard lock(mutex_);
    return std::exchange(sleeps_, {});
  }

  // Runs `call` and fails the test when it took longer than kCallBound.
  template <class F>
  auto Bounded(F&& call) {
    struct Check {
      std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
      ~Check() { EXPECT_LT(std::chrono::steady_clock::now() - start, kCallBound); }
    } check;
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
#if defined(_WIN32)
  static constexpr DWORD kTimeoutOptions[] = {INTERNET_OPTION_RECEIVE_TIMEOUT,
                                              INTERNET_OPTION_SEND_TIMEOUT,
                                              INTERNET_OPTION_CONNECT_TIMEOUT};
  std::vector<DWORD> previous_timeouts_;
#else
  tqplatform::UrlDownloadLimits previous_limits_;
#endif
};

enum class Fault {
  kResetBeforeHead,  // the request is read, then the connection is reset (RST)
  kShortBody,        // head and half the announced body, then an orderly close
  kStallBeforeHead,  // the request is read and nothing ever comes back
  kStallMidBody,     // head and half the body, then silence
  kMalformedHeader,  // a header line without a colon
  kTooManyRequests,  // 429 without Retry-After, to every request
  kBadGateway,       // 502, to every request
};
inline constexpr Fault kAllFaults[] = {
    Fault::kResetBeforeHead, Fault::kShortBody,       Fault::kStallBeforeHead, Fault::kStallMidBody,
    Fault::kMalformedHeader, Fault::kTooManyRequests, Fault::kBadGateway};

inline const char* FaultName(Fault fault) {
  static const char* const kNames[] = {"reset before head", "body cut short", "stall before head",
                                       "stall mid-body", "malformed header", "429 storm",
                                       "502 storm"};
  return kNames[static_cast<int>(fault)];
}
// Faults that leave no usable answer head, and faults that cut a 200 answer's body.
inline bool IsHeadFault(Fault fault) {
  return fault == Fault::kResetBeforeHead || fault == Fault::kStallBeforeHead ||
         fault == Fault::kMalformedHeader;
}
inline bool IsBodyFault(Fault fault) {
  return fault == Fault::kShortBody || fault == Fault::kStallMidBody;
}
// The faults without the retry storms, which the stream layer's own fault test drives.
inline constexpr Fault kTransportFaults[] = {Fault::kResetBeforeHead, Fault::kShortBody,
                                             Fault::kStallBeforeHead, Fault::kStallMidBody,
                                             Fault::kMalformedHeader};

// Deterministic body bytes, so a torn or shifted copy never compares equal by accident.
inline std::string FaultBody(std::size_t size, unsigned seed = 0) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 131 + i / 257 + seed) & 0xFF);
  return bytes;
}

// Answers every request with `fault` (a 200 one announcing `body`, with `extra` header lines),
// except the first `healthy_count`, which get `healthy` whole with `healthy_headers`.
class FaultResponder {
 public:
  FaultResponder(Fault fault, std::string body, std::string extra = {},
                 std::size_t healthy_count = 0, std::string healthy = {},
                 std::string healthy_headers = {})
      : state_(std::make_shared<State>()),
        responder_([=, state = state_](RawConnection& c) {
          const std::string length = "Content-Length: " + std::to_string(body.size()) + "\r\n";
          const std::string ok_head = "HTTP/1.1 200 OK\r\n" + length + extra + "\r\n";
          for (;;) {
            std::string head = c.ReadRequestHead();
            if (head.empty()) return;
            std::size_t seen = 0;
            {
              std::lock_guard lock(state->mutex);
              state->heads.push_back(head);
              seen = state->heads.size();
            }
            if (seen <= healthy_count) {
              if (!c.Send("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(healthy.size()) +
                          "\r\n" + healthy_headers + "\r\n" + healthy)) return;
              continue;
            }
            const std::string half = ok_head + body.substr(0, body.size() / 2);
            switch (fault) {
              case Fault::kResetBeforeHead: return c.Reset();
              case Fault::kShortBody: c.Send(half); return c.Close();
              case Fault::kStallBeforeHead: c.Stall(); return;
              case Fault::kStallMidBody: c.Send(half); c.Stall(); return;
              case Fault::kMalformedHeader:
                c.Send("HTTP/1.1 200 OK\r\n" + length + extra + "no colon here\r\n\r\n" + body);
                return;
              case Fault::kTooManyRequests:  // keep-alive: every request gets the same
                if (!c.Send("HTTP/1.1 429 Too Many Requests\r\nContent-Length: 4\r\n" + extra +
                            "\r\nbusy")) return;
                break;
              case Fault::kBadGateway:
                if (!c.Send("HTTP/1.1 502 Bad Gateway\r\nContent-Length: 3\r\n" + extra +
                            "\r\nbad")) return;
                break;
            }
          }
        }) {}

  bool ok() const { return responder_.ok(); }
  std::string Url(const std::string& path) const { return responder_.Url(path); }
  std::vector<std::string> heads() const {
    std::lock_guard lock(state_->mutex);
    return state_->heads;
  }
  std::size_t request_count() const { return heads().size(); }

 private:
  struct State {
    mutable std::mutex mutex;
    std::vector<std::string> heads;
  };
  std::shared_ptr<State> state_;
  RawResponder responder_;  // last: its threads stop before the state goes
};

// A disk that fills up, for one scope, held only around one call while no other thread of the
// test writes files (it is process-wide). POSIX only: on Windows the URL Moniker writes the
// downloads, out of a test's reach.
#if !defined(_WIN32)
// Past the process's file-size limit (RLIMIT_FSIZE) write(2) writes what fits and then fails as
// on a full disk, without root or a mount; SIGXFSZ is ignored so the write fails instead of the
// signal ending the process.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(std::uint64_t bytes) {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    have_action_ = sigaction(SIGXFSZ, &ignore, &previous_action_) == 0;
    have_limit_ = getrlimit(RLIMIT_FSIZE, &previous_limit_) == 0;
    rlimit limit = previous_limit_;
    const rlim_t wanted = static_cast<rlim_t>(bytes);
    limit.rlim_cur = limit.rlim_max == RLIM_INFINITY ? wanted : std::min(wanted, limit.rlim_max);
    ok_ = have_action_ && have_limit_ && setrlimit(RLIMIT_FSIZE, &limit) == 0;
  }
  ~FileSizeLimit() {
    if (have_limit_) setrlimit(RLIMIT_FSIZE, &previous_limit_);
    if (have_action_) sigaction(SIGXFSZ, &previous_action_, nullptr);
  }
  bool ok() const { return ok_; }

 private:
  bool ok_ = false, have_action_ = false, have_limit_ = false;
  struct sigaction previous_action_ {};
  rlimit previous_limit_{};
};
#endif

}  // namespace tq::test
