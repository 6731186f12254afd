#include "platform/http_date.h"

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "platform/wide_text.h"
#include "tqutil/decimal.h"

namespace tqplatform {
namespace {

int MonthFromName(std::string_view s) {
  static constexpr const char* kMonths[12] = {"jan", "feb", "mar", "apr", "may", "jun",
                                              "jul", "aug", "sep", "oct", "nov", "dec"};
  if (s.size() < 3) return 0;
  for (int i = 0; i < 12; ++i) {
    if (EqualsIgnoreCase(s.substr(0, 3), kMonths[i])) {
      // Full names ("November") are allowed, other words are not.
      static constexpr const char* kFull[12] = {"january", "february", "march",     "april",
                                                "may",     "june",     "july",      "august",
                                                "september", "october", "november", "december"};
      if (s.size() == 3 || EqualsIgnoreCase(s, kFull[i])) return i + 1;
    }
  }
  return 0;
}

bool IsWeekday(std::string_view s) {
  static constexpr const char* kDays[7] = {"sun", "mon", "tue", "wed", "thu", "fri", "sat"};
  static constexpr const char* kFull[7] = {"sunday",   "monday", "tuesday", "wednesday",
                                           "thursday", "friday", "saturday"};
  for (int i = 0; i < 7; ++i) {
    if (EqualsIgnoreCase(s, kDays[i]) || EqualsIgnoreCase(s, kFull[i])) return true;
  }
  return false;
}

bool ParseClock(std::string_view s, unsigned* h, unsigned* m, unsigned* sec) {
  const auto c1 = s.find(':');
  if (c1 == std::string_view::npos) return false;
  const auto c2 = s.find(':', c1 + 1);
  if (c2 == std::string_view::npos) return false;
  const auto hs = s.substr(0, c1);
  const auto ms = s.substr(c1 + 1, c2 - c1 - 1);
  const auto ss = s.substr(c2 + 1);
  if (hs.size() > 2 || ms.size() != 2 || ss.size() != 2) return false;
  const std::optional<std::uint64_t> hours = qv::ParseDecimal(hs);
  const std::optional<std::uint64_t> minutes = qv::ParseDecimal(ms);
  const std::optional<std::uint64_t> seconds = qv::ParseDecimal(ss);
  if (!hours || !minutes || !seconds) return false;
  *h = static_cast<unsigned>(*hours);
  *m = static_cast<unsigned>(*minutes);
  *sec = static_cast<unsigned>(*seconds);
  return true;
}

// The words of a date: what lies between spaces, tabs, commas and dashes.
std::vector<std::string_view> DateTokens(std::string_view text) {
  std::vector<std::string_view> tokens;
  std::size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && std::strchr(" \t,-", text[i]) != nullptr) ++i;
    const std::size_t start = i;
    while (i < text.size() && std::strchr(" \t,-", text[i]) == nullptr) ++i;
    if (i > start) tokens.push_back(text.substr(start, i - start));
  }
  return tokens;
}

}  // namespace

bool ParseHttpDate(std::string_view text, SYSTEMTIME* out) {
  int month = 0;
  bool have_clock = false;
  unsigned hour = 0, minute = 0, second = 0;
  std::vector<std::string_view> numbers;
  bool zone_seen = false;
  for (std::string_view t : DateTokens(text)) {
    if (int m = MonthFromName(t); m != 0 && month == 0) {
      month = m;
    } else if (t.find(':') != std::string_view::npos) {
      if (have_clock || !ParseClock(t, &hour, &minute, &second)) return false;
      have_clock = true;
    } else if (qv::CountDecimalDigits(t) == t.size()) {  // tokens are never empty
      numbers.push_back(t);
    } else if (EqualsIgnoreCase(t, "GMT") || EqualsIgnoreCase(t, "UTC") ||
               EqualsIgnoreCase(t, "UT") || t == "Z" || t == "+0000") {
      if (zone_seen) return false;
      zone_seen = true;
    } else if (!IsWeekday(t)) {
      return false;
    }
  }
  if (month == 0 || !have_clock || numbers.size() != 2) return false;

  // The year is the four-digit number; with two two-digit numbers (RFC 850) the day comes first.
  std::string_view day_text = numbers[0];
  std::string_view year_text = numbers[1];
  if (numbers[0].size() == 4 && numbers[1].size() <= 2) std::swap(day_text, year_text);
  if (day_text.size() > 2 || (year_text.size() != 2 && year_text.size() != 4)) return false;
  // One to four digits each: the parses cannot fail.
  auto year = static_cast<unsigned>(qv::ParseDecimal(year_text).value_or(0));
  if (year_text.size() == 2) year += year < 70 ? 2000 : 1900;
  if (second == 60) second = 59;  // a leap second is not representable

  SYSTEMTIME st{};
  st.wYear = static_cast<WORD>(year);
  st.wMonth = static_cast<WORD>(month);
  st.wDay = static_cast<WORD>(qv::ParseDecimal(day_text).value_or(0));
  st.wHour = static_cast<WORD>(hour);
  st.wMinute = static_cast<WORD>(minute);
  st.wSecond = static_cast<WORD>(second);
  FILETIME ft;
  const DWORD saved_error = GetLastError();
  const bool valid = SystemTimeToFileTime(&st, &ft) != FALSE;
  SetLastError(saved_error);
  if (!valid) return false;
  const std::uint64_t ticks = (static_cast<std::uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
  const std::uint64_t days = ticks / 864000000000ull;
  st.wDayOfWeek = static_cast<WORD>((days + 1) % 7);  // 1601-01-01 was a Monday
  *out = st;
  return true;
}

}  // namespace tqplatform
