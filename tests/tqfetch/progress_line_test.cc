#include "progress_line.h"

#include <gtest/gtest.h>

namespace tqfetch {
namespace {

using namespace std::chrono_literals;
using Clock = ProgressThrottle::Clock;

TEST(ProgressLineTest, ShowsBytesRateAndTimeLeft) {
  const std::uint64_t mib = 1 << 20;
  const struct {
    ProgressSample sample;
    const char* line;
  } cases[] = {
      {{0.0, 300 * mib, 0s}, "  0% [                        ]  0 B / 300.0 MiB"},
      {{0.25, 300 * mib, 15s}, " 25% [######                  ]  75.0 MiB / 300.0 MiB  5.0 MiB/s  0:45 left"},
      {{0.01, 100 * mib, 1000s}, "  1% [                        ]  1.0 MiB / 100.0 MiB  1.0 KiB/s  27:30:00 left"},
      {{1.0, 300 * mib, 60s}, "100% [########################]  300.0 MiB / 300.0 MiB  5.0 MiB/s"},
      {{0.5, 1000, 1s}, " 50% [############            ]  500 B / 1000 B  500 B/s  0:01 left"},
      // Without a size: the fraction alone.
      {{0.5, std::nullopt, 3s}, " 50% [############            ]"},
      // A fraction out of range is clamped, not drawn past the bar.
      {{1.5, 1000, 1s}, "100% [########################]  1000 B / 1000 B  1000 B/s"},
      {{-0.5, 1000, 1s}, "  0% [                        ]  0 B / 1000 B"},
      // A time left too long to count in whole seconds (a stalled download) is not guessed at.
      {{1e-12, 1000, 1e9s}, "  0% [                        ]  0 B / 1000 B  0 B/s  --:--:-- left"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(FormatProgressLine(c.sample), c.line) << c.sample.fraction;
  }
}

// Any time a server's Last-Modified gives, and any other, has its text: the C library's gmtime
// gives up on some (on Windows before 1970 and after 3000).
TEST(ProgressLineTest, FormatTimeNamesEveryTime) {
  const struct {
    std::int64_t seconds;
    const char* text;
  } cases[] = {
      {0, "1970-01-01 00:00:00 UTC"},
      {1793613600, "2026-11-02 10:00:00 UTC"},
      {-315619200, "1960-01-01 00:00:00 UTC"},
      {-11644473600, "1601-01-01 00:00:00 UTC"},
      {253402300799, "9999-12-31 23:59:59 UTC"},
      {253402300800, "253402300800 s after 1970"},
      {INT64_MAX, "9223372036854775807 s after 1970"},
      {INT64_MIN, "-9223372036854775808 s after 1970"},
  };
  for (const auto& c : cases) EXPECT_EQ(FormatTime(c.seconds), c.text) << c.seconds;
}

// A download of 300 MB calls back thousands of times with the same text: only changed text is
// drawn, and no more than ten times a second except for the final line.
TEST(ProgressLineTest, RedrawsOnlyChangedTextAtMostTenTimesASecond) {
  ProgressThrottle throttle;
  const Clock::time_point t0{};
  EXPECT_TRUE(throttle.ShouldDraw("a", t0, false));  // the first line
  EXPECT_FALSE(throttle.ShouldDraw("a", t0 + 1s, false));   // unchanged, however late
  EXPECT_FALSE(throttle.ShouldDraw("b", t0 + 99ms, false));  // changed, but too soon
  EXPECT_TRUE(throttle.ShouldDraw("b", t0 + 1s, false));
  EXPECT_TRUE(throttle.ShouldDraw("c", t0 + 1s + 1ms, true));  // the last line, at once
  EXPECT_FALSE(throttle.ShouldDraw("c", t0 + 2s, true));       // but not twice
  EXPECT_FALSE(throttle.ShouldDraw("d", t0 + 3s, true));       // nor anything after it

  // 10 000 changing calls spread over 2 s draw about 20 lines, not 10 000.
  ProgressThrottle busy;
  int drawn = 0;
  for (int i = 0; i < 10000; ++i) {
    drawn += busy.ShouldDraw(std::to_string(i), t0 + i * 200us, false);
  }
  EXPECT_GE(drawn, 19);
  EXPECT_LE(drawn, 21);
}

}  // namespace
}  // namespace tqfetch
