// The armed faults behind the test seam that makes chosen WinINet calls fail, on both systems:
// the platform layer consults it on Linux, and on Windows the test shim that stands in for the
// library's imports of wininet.dll does. Header-only, so that the shim needs nothing else of
// platform/.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>

// Passed as a fail count: the call keeps failing until the fault is cleared.
inline constexpr unsigned kTqPlatformFaultForever = 0xFFFFFFFFu;

namespace tqplatform {

class FaultTable {
 public:
  /// The functions that can be made to fail.
  static constexpr std::array<const char*, 8> kFunctions = {
      "InternetOpenW",    "InternetConnectW", "InternetSetOptionW", "HttpOpenRequestW",
      "HttpSendRequestW", "HttpQueryInfoW",   "InternetReadFile",   "InternetCloseHandle"};

  /// The error a call of `function` is to fail with, or 0 for a call that runs normally; counts
  /// the call against the function's fault.
  std::uint32_t Take(const char* function) {
    if (!m_armed.load(std::memory_order_acquire)) return 0;  // the common case takes no lock
    const int index = IndexOf(function);
    if (index < 0) return 0;
    std::lock_guard lock(m_mutex);
    Fault& fault = m_faults[static_cast<std::size_t>(index)];
    if (fault.error == 0 || fault.fail == 0) return 0;
    if (fault.skip > 0) {
      --fault.skip;
      return 0;
    }
    if (fault.fail != kTqPlatformFaultForever) --fault.fail;
    ++fault.failures;
    return fault.error;
  }

  /// The next `skip` calls of `function` run normally, then `fail` calls fail with `error`;
  /// replaces the function's fault. False for an unknown or null name or an error of 0.
  bool Arm(const char* function, std::uint32_t error, unsigned fail, unsigned skip) {
    const int index = IndexOf(function);
    if (index < 0 || error == 0) return false;
    std::lock_guard lock(m_mutex);
    Fault& fault = m_faults[static_cast<std::size_t>(index)];
    fault = Fault{error, skip, fail, fault.failures};
    m_armed.store(true, std::memory_order_release);
    return true;
  }

  /// Disarms every fault and forgets the failures counted.
  void Clear() {
    std::lock_guard lock(m_mutex);
    m_faults.fill(Fault{});
    m_armed.store(false, std::memory_order_release);
  }

  /// How many calls of `function` have failed since the last Clear.
  unsigned Failures(const char* function) {
    const int index = IndexOf(function);
    if (index < 0) return 0;
    std::lock_guard lock(m_mutex);
    return m_faults[static_cast<std::size_t>(index)].failures;
  }

 private:
  struct Fault {
    std::uint32_t error = 0;
    unsigned skip = 0;
    unsigned fail = 0;
    unsigned failures = 0;
  };

  static int IndexOf(const char* function) {
    if (function == nullptr) return -1;
    for (std::size_t i = 0; i < kFunctions.size(); ++i) {
      if (std::strcmp(kFunctions[i], function) == 0) return static_cast<int>(i);
    }
    return -1;
  }

  std::mutex m_mutex;
  std::array<Fault, kFunctions.size()> m_faults{};
  std::atomic<bool> m_armed{false};
};

}  // namespace tqplatform
