// Time values of the host: signed 64-bit seconds since 1970-01-01 UTC.
#pragma once

#include <cstdint>
#include <functional>

#include "tqutil/export.h"

/// The clock of the library, in seconds since 1970 (UTC).
class TQUTIL_API TqUSysTime {
 public:
  /// The current time in seconds (the clock set for testing, if any).
  static std::int64_t GetTimeNow();
  /// A Windows file time (100-ns ticks since 1601-01-01 UTC) in seconds since 1970, rounded down.
  static std::int64_t FromFileTime(std::uint64_t file_time);
  /// Replaces the clock (an empty function restores the system clock). For tests only.
  static void SetClockForTesting(std::function<std::int64_t()> clock);
};
