// tqfetch's progress line for a download: what it shows (bytes so far and in all, rate, time
// left, as curl's bar does) and when it is drawn again; and the text of a file's time. All are
// pure, so that they are tested with any numbers and any time, without a terminal or a clock.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace tqfetch {

struct ProgressSample {
  double fraction = 0;                  // 0.0 to 1.0, as the library reports it
  std::optional<std::uint64_t> total;   // the file's size, when the server gave one
  std::chrono::duration<double> elapsed{};  // since the download started
};

// "  45% [#########           ]  12.3 MiB / 27.0 MiB  2.1 MiB/s  0:07 left". Without a size
// only the percentage and the bar; the rate and the time left appear once time has passed.
std::string FormatProgressLine(const ProgressSample& sample);

// "512 B", "12.3 KiB", "4.0 MiB", "1.2 GiB".
std::string FormatBytes(double bytes);

// A file's modification time (TqUSysTime seconds, from the server) as "2026-11-02 10:00:00 UTC".
std::string FormatTime(std::int64_t seconds);

// Decides when the line is drawn again: only when its text changed, and at most once per
// interval, except for the last line, which is drawn at once when it differs from the one shown,
// so that the bar ends at 100%. Nothing is drawn after the last line.
class ProgressThrottle {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds kInterval{100};

  // True when `text` should be drawn at `now`; it then counts as shown.
  bool ShouldDraw(const std::string& text, Clock::time_point now, bool last);

 private:
  std::string m_shown;
  std::optional<Clock::time_point> m_drawn_at;
  bool m_finished = false;
};

}  // namespace tqfetch
