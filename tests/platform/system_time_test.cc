#include <gtest/gtest.h>

#include <cstdint>
#include <thread>
#include <tuple>

#include "platform/http_date.h"
#include "platform/windows_types.h"

namespace {

std::uint64_t Ticks(SYSTEMTIME st) {
  FILETIME ft{};
  EXPECT_TRUE(SystemTimeToFileTime(&st, &ft));
  return (static_cast<std::uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
}

std::uint64_t Ticks(WORD year, WORD month, WORD day, WORD hour = 0, WORD minute = 0,
                    WORD second = 0, WORD ms = 0) {
  return Ticks(SYSTEMTIME{year, month, 0, day, hour, minute, second, ms});
}

TEST(SystemTimeToFileTimeTest, KnownInstantsLeapYearsAndTheDayOfWeekIgnored) {
  EXPECT_EQ(Ticks(1601, 1, 1), 0u);
  EXPECT_EQ(Ticks(1601, 1, 1, 0, 0, 0, 1), 10000u);
  EXPECT_EQ(Ticks(1970, 1, 1), 116444736000000000u);                      // the Unix epoch
  EXPECT_EQ(Ticks(2000, 3, 1) - Ticks(2000, 2, 28), 2u * 864000000000u);  // 2000 is leap
  EXPECT_EQ(Ticks(1900, 3, 1) - Ticks(1900, 2, 28), 1u * 864000000000u);  // 1900 is not
  EXPECT_EQ(Ticks(1994, 11, 6, 8, 49, 37), 116444736000000000u + 784111777ull * 10000000u);
  EXPECT_EQ(Ticks(30827, 12, 31, 23, 59, 59, 999) / 10000000u, 922314988799ull);
  EXPECT_EQ(Ticks({2024, 5, 0, 17, 1, 2, 3, 4}), Ticks({2024, 5, 6, 17, 1, 2, 3, 4}));
}

TEST(SystemTimeToFileTimeTest, RefusesFieldsOutOfRange) {
  const SYSTEMTIME bad[] = {
      {1600, 12, 0, 31, 0, 0, 0, 0}, {30828, 1, 0, 1, 0, 0, 0, 0},   {2001, 0, 0, 1, 0, 0, 0, 0},
      {2001, 13, 0, 1, 0, 0, 0, 0},  {2001, 2, 0, 29, 0, 0, 0, 0},   {2001, 4, 0, 31, 0, 0, 0, 0},
      {2001, 1, 0, 0, 0, 0, 0, 0},   {2001, 1, 0, 1, 24, 0, 0, 0},   {2001, 1, 0, 1, 0, 60, 0, 0},
      {2001, 1, 0, 1, 0, 0, 60, 0},  {2001, 1, 0, 1, 0, 0, 0, 1000},
  };
  for (const auto& st : bad) {
    FILETIME ft{123, 456};
    SetLastError(0);
    EXPECT_FALSE(SystemTimeToFileTime(&st, &ft)) << st.wYear << "-" << st.wMonth << "-" << st.wDay;
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  }
  FILETIME ft{};
  EXPECT_FALSE(SystemTimeToFileTime(nullptr, &ft));
}

TEST(LastErrorTest, IsPerThread) {
  SetLastError(1234);
  DWORD seen_by_other = 99;
  std::thread other([&] {
    seen_by_other = GetLastError();
    SetLastError(5678);
  });
  other.join();
  EXPECT_EQ(seen_by_other, 0u);
  EXPECT_EQ(GetLastError(), 1234u);
}

TEST(HttpDateTest, ThreeFormsOfHttpAndTheDayOfWeekFromTheDate) {
  const struct {
    const char* text;
    SYSTEMTIME expected;  // year, month, day of week, day, hour, minute, second, ms
  } cases[] = {
      {"Sun, 06 Nov 1994 08:49:37 GMT", {1994, 11, 0, 6, 8, 49, 37, 0}},
      {"Sunday, 06-Nov-94 08:49:37 GMT", {1994, 11, 0, 6, 8, 49, 37, 0}},
      {"Sun Nov  6 08:49:37 1994", {1994, 11, 0, 6, 8, 49, 37, 0}},
      {"Thu, 29 Feb 2024 23:59:59 GMT", {2024, 2, 4, 29, 23, 59, 59, 0}},
      {"Monday, 01-Jan-24 00:00:00 GMT", {2024, 1, 1, 1, 0, 0, 0, 0}},
      {"Mon, 06 Nov 1994 08:49:37 GMT", {1994, 11, 0, 6, 8, 49, 37, 0}},  // wrong name in the text
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    SYSTEMTIME st{};
    ASSERT_TRUE(tqplatform::ParseHttpDate(c.text, &st));
    const SYSTEMTIME& e = c.expected;
    EXPECT_EQ(std::tie(st.wYear, st.wMonth, st.wDay, st.wDayOfWeek, st.wHour, st.wMinute,
                       st.wSecond, st.wMilliseconds),
              std::tie(e.wYear, e.wMonth, e.wDay, e.wDayOfWeek, e.wHour, e.wMinute, e.wSecond,
                       e.wMilliseconds));
  }
  SYSTEMTIME st{};
  for (const char* text :
       {"", "yesterday", "Sun, 31 Feb 2024 00:00:00 GMT", "Sun, 06 Nov 1994 25:00:00 GMT",
        "Sun, 06 Foo 1994 08:49:37 GMT", "Sun, 06 Nov 1994 08:49:37 +0200", "Sun, 06 Nov 1994 GMT",
        "0", "Sun, 06 Nov 1994 08:49:37 GMT extra"}) {
    EXPECT_FALSE(tqplatform::ParseHttpDate(text, &st)) << text;
  }
}

}  // namespace
