#include "tqutil/strings.h"

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

namespace {

using qv::Utf8ToWide;
using qv::WideToUtf8;

// One code point as the platform's wchar_t encodes it.
std::wstring Wide(char32_t c) {
  if (sizeof(wchar_t) == 4 || c < 0x10000) return std::wstring(1, static_cast<wchar_t>(c));
  return {static_cast<wchar_t>(0xD800 + ((c - 0x10000) >> 10)),
          static_cast<wchar_t>(0xDC00 + ((c - 0x10000) & 0x3FF))};
}

TEST(Utf8Test, RoundTripsIncludingNonBmp) {
  const std::pair<char32_t, const char*> cases[] = {
      {0x7F, "\x7F"}, {0x80, "\xC2\x80"}, {0xFFFF, "\xEF\xBF\xBF"},
      {0x1F600, "\xF0\x9F\x98\x80"}, {0x10FFFF, "\xF4\x8F\xBF\xBF"}};
  for (const auto& [code, utf8] : cases) {
    EXPECT_EQ(WideToUtf8(Wide(code)), utf8) << static_cast<std::uint32_t>(code);
    EXPECT_EQ(Utf8ToWide(utf8), Wide(code)) << static_cast<std::uint32_t>(code);
  }
  std::wstring all;
  for (char32_t c = 1; c <= 0x10FFFF; c += (c < 0x3000 ? 1 : 97)) {
    if (c < 0xD800 || c > 0xDFFF) all += Wide(c);
  }
  EXPECT_EQ(Utf8ToWide(WideToUtf8(all)), all);
}

TEST(Utf8Test, IllFormedInputBecomesReplacementCharacters) {
  const std::wstring r(1, static_cast<wchar_t>(0xFFFD));
  EXPECT_EQ(Utf8ToWide("\xC0\xAF"), r + r);                  // overlong
  EXPECT_EQ(Utf8ToWide("\xED\xA0\x80"), r + r + r);          // encoded surrogate
  EXPECT_EQ(Utf8ToWide("\xE2\x82z"), r + L"z");              // truncated in the middle
  EXPECT_EQ(Utf8ToWide("\xF0\x9F\x98"), r);                  // truncated non-BMP
  EXPECT_EQ(WideToUtf8(std::wstring(1, static_cast<wchar_t>(0xD800)) + L"x"), "\xEF\xBF\xBDx");

  for (int a = 0; a < 256; ++a) {
    for (int b = 0; b < 256; ++b) {
      const char bytes[2] = {static_cast<char>(a), static_cast<char>(b)};
      const std::wstring w = Utf8ToWide(std::string_view(bytes, 2));
      ASSERT_FALSE(w.empty());
      EXPECT_EQ(Utf8ToWide(WideToUtf8(w)), w);
    }
  }
}

TEST(WideStringBufferTest, FormatFollowsTheWindowsWideConvention) {
  TqUWideStringBuffer b;
  ASSERT_TRUE(b.Format(L"%hs|%ls|%S|%ws|%c%hc", "n\xC3\xA9", L"w", "N", L"W", L'\u00E9', 'x'));
  EXPECT_EQ(b.View(), L"n\u00E9|w|N|W|\u00E9x");
  ASSERT_TRUE(b.Format(L"%llu [%-5d][%05d][%.3f][%*d][%I64u][%zu] %%", 18446744073709551615ULL,
                       42, 42, 3.14159, 4, 9, std::uint64_t{1} << 40, std::size_t{7}));
  EXPECT_EQ(b.View(), L"18446744073709551615 [42   ][00042][3.142][   9][1099511627776][7] %");
  const std::wstring big(5000, L'z');
  ASSERT_TRUE(b.Format(L"<%s>", big.c_str()));
  EXPECT_EQ(b.View(), L"<" + big + L">");

  b.SetString(L"old");
  EXPECT_FALSE(b.Format(L"trailing %"));
  EXPECT_TRUE(b.IsEmpty());
  int n = 0;
  EXPECT_FALSE(b.Format(L"%n", &n));
  EXPECT_EQ(n, 0);
}

}  // namespace
