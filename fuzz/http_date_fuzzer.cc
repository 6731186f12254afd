// An HTTP date header's value, as HttpQueryInfoW's SYSTEMTIME modifier reads it. Beyond not
// crashing: an accepted date is a real calendar date and time in range, its day of the week is
// the one of the date, and its RFC 1123 form reads back as the same time.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "platform/http_date.h"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

bool Leap(unsigned y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

// Day of the week by Zeller's congruence, independent of the parser's own count (0 = Sunday).
unsigned Weekday(unsigned y, unsigned m, unsigned d) {
  if (m < 3) {
    m += 12;
    y -= 1;
  }
  const unsigned k = y % 100, j = y / 100;
  const unsigned h = (d + 13 * (m + 1) / 5 + k + k / 4 + j / 4 + 5 * j) % 7;  // 0 = Saturday
  return (h + 6) % 7;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 1024) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  SYSTEMTIME st{};
  if (!tqplatform::ParseHttpDate(text, &st)) return 0;
  static constexpr unsigned kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  Check(st.wYear >= 1601 && st.wYear <= 30827);
  Check(st.wMonth >= 1 && st.wMonth <= 12);
  Check(st.wDay >= 1 && st.wDay <= kDays[st.wMonth - 1] + (st.wMonth == 2 && Leap(st.wYear)));
  Check(st.wHour <= 23 && st.wMinute <= 59 && st.wSecond <= 59 && st.wMilliseconds == 0);
  Check(st.wDayOfWeek == Weekday(st.wYear, st.wMonth, st.wDay));

  static constexpr const char* kWeek[7] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr const char* kMonth[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  char formatted[64];
  const int n = std::snprintf(formatted, sizeof formatted, "%s, %02u %s %04u %02u:%02u:%02u GMT",
                              kWeek[st.wDayOfWeek], unsigned{st.wDay}, kMonth[st.wMonth - 1],
                              unsigned{st.wYear}, unsigned{st.wHour}, unsigned{st.wMinute},
                              unsigned{st.wSecond});
  SYSTEMTIME back{};
  if (st.wYear <= 9999) {
    Check(tqplatform::ParseHttpDate(std::string_view(formatted, n), &back));
    Check(back.wYear == st.wYear && back.wMonth == st.wMonth && back.wDay == st.wDay &&
          back.wHour == st.wHour && back.wMinute == st.wMinute && back.wSecond == st.wSecond &&
          back.wDayOfWeek == st.wDayOfWeek);
  }
  return 0;
}
