#include "progress_line.h"

#include <algorithm>
#include <cmath>
#include <chrono>
#include <cstdio>

namespace tqfetch {
namespace {

constexpr int kBarWidth = 24;

std::string TwoDigits(std::uint64_t value) {
  return (value < 10 ? "0" : "") + std::to_string(value);
}

// Past this a time left is no estimate worth showing, and past 2^64 s no whole count at all.
constexpr double kLongestClockSeconds = 9999.0 * 3600;

// "0:07", "12:30", "27:30:00"; "--:--:--" for a time too long (or not a number).
std::string Clock(double seconds) {
  if (!(seconds <= kLongestClockSeconds)) return "--:--:--";
  const auto total = static_cast<std::uint64_t>(std::ceil(seconds));
  if (total >= 3600) {
    return std::to_string(total / 3600) + ":" + TwoDigits(total / 60 % 60) + ":" +
           TwoDigits(total % 60);
  }
  return std::to_string(total / 60) + ":" + TwoDigits(total % 60);
}

}  // namespace

std::string FormatBytes(double bytes) {
  static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
  char text[32];
  if (bytes < 1024) {
    std::snprintf(text, sizeof text, "%.0f B", bytes);
    return text;
  }
  int unit = -1;
  while (bytes >= 1024 && unit < 3) {
    bytes /= 1024;
    ++unit;
  }
  std::snprintf(text, sizeof text, "%.1f %s", bytes, kUnits[unit]);
  return text;
}

std::string FormatTime(std::int64_t seconds) {
  // Counted here rather than by gmtime, which may give up (and give null): Windows' before 1970
  // and after 3000, every system's once the year no longer fits its int.
  constexpr std::int64_t kFirst = -62135596800;  // 0001-01-01 00:00:00
  constexpr std::int64_t kLast = 253402300799;   // 9999-12-31 23:59:59
  if (seconds < kFirst || seconds > kLast) return std::to_string(seconds) + " s after 1970";
  using namespace std::chrono;
  const sys_seconds time{std::chrono::seconds(seconds)};
  const sys_days day = floor<days>(time);
  const year_month_day date(day);
  const hh_mm_ss<std::chrono::seconds> clock(time - day);
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02u-%02u %02d:%02d:%02d UTC", int(date.year()),
                unsigned(date.month()), unsigned(date.day()), int(clock.hours().count()),
                int(clock.minutes().count()), int(clock.seconds().count()));
  return text;
}

std::string FormatProgressLine(const ProgressSample& sample) {
  // A fraction from outside (NaN, below 0, above 1) is clamped rather than drawn as garbage.
  const double fraction = std::isnan(sample.fraction) ? 0.0 : std::clamp(sample.fraction, 0.0, 1.0);
  const int filled = static_cast<int>(fraction * kBarWidth);
  char head[64];
  std::snprintf(head, sizeof head, "%3d%% [%s%s]", static_cast<int>(fraction * 100),
                std::string(filled, '#').c_str(), std::string(kBarWidth - filled, ' ').c_str());
  std::string line = head;
  if (!sample.total) return line;

  const double total = static_cast<double>(*sample.total);
  const double done = fraction * total;
  line += "  " + FormatBytes(done) + " / " + FormatBytes(total);
  const double seconds = sample.elapsed.count();
  if (seconds <= 0 || done <= 0) return line;
  const double rate = done / seconds;
  line += "  " + FormatBytes(rate) + "/s";
  if (fraction < 1.0) line += "  " + Clock((total - done) / rate) + " left";
  return line;
}

bool ProgressThrottle::ShouldDraw(const std::string& text, Clock::time_point now, bool last) {
  if (m_finished || (m_drawn_at && text == m_shown)) return false;
  if (m_drawn_at && !last && now - *m_drawn_at < kInterval) return false;
  m_shown = text;
  m_drawn_at = now;
  m_finished = last;
  return true;
}

}  // namespace tqfetch
