// SystemTimeToFileTime: exact integer arithmetic, no time zone and no C library calendar.
#include "platform/windows_types.h"

#include <cstdint>

namespace {

bool IsLeapYear(unsigned year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

unsigned DaysInMonth(unsigned year, unsigned month) {
  static constexpr unsigned kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && IsLeapYear(year) ? 29 : kDays[month - 1];
}

// Days from 1601-01-01 to the given date (proleptic Gregorian calendar).
std::int64_t DaysSince1601(unsigned year, unsigned month, unsigned day) {
  const std::int64_t y = static_cast<std::int64_t>(year) - 1601;
  std::int64_t days = y * 365 + y / 4 - y / 100 + y / 400;
  for (unsigned m = 1; m < month; ++m) days += DaysInMonth(year, m);
  return days + day - 1;
}

}  // namespace

extern "C" BOOL SystemTimeToFileTime(const SYSTEMTIME* st, LPFILETIME ft) {
  if (st == nullptr || ft == nullptr || st->wYear < 1601 || st->wYear > 30827 || st->wMonth < 1 ||
      st->wMonth > 12 || st->wDay < 1 || st->wDay > DaysInMonth(st->wYear, st->wMonth) ||
      st->wHour > 23 || st->wMinute > 59 || st->wSecond > 59 || st->wMilliseconds > 999) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  const std::int64_t seconds = DaysSince1601(st->wYear, st->wMonth, st->wDay) * 86400 +
                               st->wHour * 3600 + st->wMinute * 60 + st->wSecond;
  const std::uint64_t ticks = static_cast<std::uint64_t>(seconds) * 10000000u +
                              static_cast<std::uint64_t>(st->wMilliseconds) * 10000u;
  ft->dwLowDateTime = static_cast<DWORD>(ticks & 0xFFFFFFFFu);
  ft->dwHighDateTime = static_cast<DWORD>(ticks >> 32);
  return TRUE;
}
