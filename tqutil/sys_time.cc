#include "tqutil/sys_time.h"

#include <atomic>
#include <chrono>
#include <mutex>

namespace {

struct Clock {
  std::mutex mutex;
  std::function<std::int64_t()> clock;
  std::atomic<bool> replaced{false};
};

Clock& TheClock() {
  static Clock* const clock = new Clock();
  return *clock;
}

// Seconds between 1601-01-01 and 1970-01-01.
constexpr std::uint64_t kEpochDifference = 11644473600ULL;
constexpr std::uint64_t kTicksPerSecond = 10000000ULL;

}  // namespace

std::int64_t TqUSysTime::GetTimeNow() {
  Clock& c = TheClock();
  if (c.replaced.load(std::memory_order_acquire)) {
    std::lock_guard lock(c.mutex);
    if (c.clock) return c.clock();
  }
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::int64_t TqUSysTime::FromFileTime(std::uint64_t file_time) {
  // Whole seconds since 1601 first (exact floor for an unsigned value); the epoch difference is
  // a whole number of seconds, so the result is still rounded down, before 1970 too.
  return static_cast<std::int64_t>(file_time / kTicksPerSecond) -
         static_cast<std::int64_t>(kEpochDifference);
}

void TqUSysTime::SetClockForTesting(std::function<std::int64_t()> clock) {
  Clock& c = TheClock();
  std::lock_guard lock(c.mutex);
  c.replaced.store(static_cast<bool>(clock), std::memory_order_release);
  c.clock = std::move(clock);
}
