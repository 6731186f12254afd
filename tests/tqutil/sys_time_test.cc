#include "tqutil/sys_time.h"

#include <chrono>
#include <cstdlib>

#include <gtest/gtest.h>

namespace {

TEST(SysTimeTest, FromFileTimeIsExactAndRoundsDown) {
  constexpr std::uint64_t kEpoch = 116444736000000000ULL;  // 1970-01-01 in file time
  EXPECT_EQ(TqUSysTime::FromFileTime(kEpoch), 0);
  EXPECT_EQ(TqUSysTime::FromFileTime(kEpoch + 9999999), 0);
  EXPECT_EQ(TqUSysTime::FromFileTime(kEpoch + 10000000), 1);
  EXPECT_EQ(TqUSysTime::FromFileTime(kEpoch - 1), -1) << "before 1970 rounds down";
  EXPECT_EQ(TqUSysTime::FromFileTime(0), -11644473600);
  // 2015-10-21 07:28:00 UTC
  EXPECT_EQ(TqUSysTime::FromFileTime(130898860800000000ULL), 1445412480);
  EXPECT_EQ(TqUSysTime::FromFileTime(UINT64_MAX), 1844674407370 - 11644473600);
}

TEST(SysTimeTest, ClockCanBeReplacedForTests) {
  const auto system = std::chrono::duration_cast<std::chrono::seconds>(
                          std::chrono::system_clock::now().time_since_epoch())
                          .count();
  EXPECT_LE(std::abs(TqUSysTime::GetTimeNow() - system), 5);
  std::int64_t fake = 1000;
  TqUSysTime::SetClockForTesting([&] { return fake; });
  EXPECT_EQ(TqUSysTime::GetTimeNow(), 1000);
  fake = 2000;
  EXPECT_EQ(TqUSysTime::GetTimeNow(), 2000);
  TqUSysTime::SetClockForTesting({});
  EXPECT_GE(TqUSysTime::GetTimeNow(), system);
}

}  // namespace
