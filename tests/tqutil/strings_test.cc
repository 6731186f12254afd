#include "tqutil/strings.h"

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

namespace {

using qv::Utf8ToWide;
using qv::WideToUtf8;

// Wide text of one code point, as the platform's wchar_t encodes it.
std::wstring Wide(char32_t c) {
  if (sizeof(wchar_t) == 4 || c < 0x10000) return std::wstring(1, static_cast<wchar_t>(c));
  return {static_cast<wchar_t>(0xD800 + ((c - 0x10000) >> 10)),
          static_cast<wchar_t>(0xDC00 + ((c - 0x10000) & 0x3FF))};
}

TEST(Utf8Test, RoundTripsEveryKindOfCodePoint) {
  // Each length's first and last code point, the surrogate gap's edges and non-BMP text.
  const std::pair<char32_t, const char*> cases[] = {
      {0x41, "A"}, {0x7F, "\x7F"}, {0x80, "\xC2\x80"}, {0xE9, "\xC3\xA9"}, {0x7FF, "\xDF\xBF"},
      {0x800, "\xE0\xA0\x80"}, {0x20AC, "\xE2\x82\xAC"}, {0xD7FF, "\xED\x9F\xBF"},
      {0xE000, "\xEE\x80\x80"}, {0xFFFD, "\xEF\xBF\xBD"}, {0xFFFF, "\xEF\xBF\xBF"},
      {0x10000, "\xF0\x90\x80\x80"}, {0x1F600, "\xF0\x9F\x98\x80"},
      {0x10FFFF, "\xF4\x8F\xBF\xBF"}};
  for (const auto& [code, utf8] : cases) {
    SCOPED_TRACE(static_cast<std::uint32_t>(code));
    EXPECT_EQ(WideToUtf8(Wide(code)), utf8);
    EXPECT_EQ(Utf8ToWide(utf8), Wide(code));
  }
  // An embedded NUL (a transport's header text ends with one) converts like any code point.
  const std::wstring with_nul(L"ab\0", 3);
  EXPECT_EQ(WideToUtf8(with_nul), std::string("ab\0", 3));
  EXPECT_EQ(Utf8ToWide(std::string("ab\0", 3)), with_nul);

  // Every code point survives the round trip.
  std::wstring all;
  for (char32_t c = 1; c <= 0x10FFFF; c += (c < 0x3000 ? 1 : 97)) {
    if (c >= 0xD800 && c <= 0xDFFF) continue;
    all += Wide(c);
  }
  EXPECT_EQ(Utf8ToWide(WideToUtf8(all)), all);
}

TEST(Utf8Test, IllFormedInputBecomesReplacementCharacters) {
  const std::wstring r(1, static_cast<wchar_t>(0xFFFD));
  // One replacement per maximal ill-formed subpart; what follows is decoded normally.
  EXPECT_EQ(Utf8ToWide("\xC0\xAF"), r + r);                       // overlong "/"
  EXPECT_EQ(Utf8ToWide("\xE0\x80\xAF"), r + r + r);               // overlong, 3 bytes
  EXPECT_EQ(Utf8ToWide("\xF0\x80\x80\xAF"), r + r + r + r);       // overlong, 4 bytes
  EXPECT_EQ(Utf8ToWide("\xED\xA0\x80"), r + r + r);               // encoded surrogate
  EXPECT_EQ(Utf8ToWide("\xF4\x90\x80\x80"), r + r + r + r);       // above U+10FFFF
  EXPECT_EQ(Utf8ToWide("a\xE2\x82"), L"a" + r);                   // truncated at the end
  EXPECT_EQ(Utf8ToWide("\xE2\x82z"), r + L"z");                   // truncated in the middle
  EXPECT_EQ(Utf8ToWide("\x80x\xBF"), r + L"x" + r);               // lone continuation bytes
  EXPECT_EQ(Utf8ToWide("\xFE\xFF"), r + r);                       // never valid bytes
  EXPECT_EQ(Utf8ToWide("\xF0\x9F\x98"), r);                       // truncated non-BMP

  // Unpaired surrogates and out-of-range values in wide text.
  const std::string rep = "\xEF\xBF\xBD";
  EXPECT_EQ(WideToUtf8(std::wstring(1, static_cast<wchar_t>(0xD800)) + L"x"), rep + "x");
  EXPECT_EQ(WideToUtf8(std::wstring(1, static_cast<wchar_t>(0xDC00))), rep);
  if constexpr (sizeof(wchar_t) == 4) {
    EXPECT_EQ(WideToUtf8(std::wstring(1, static_cast<wchar_t>(0x110000))), rep);
  }

  // Every two-byte input decodes without crashing, to valid text.
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
  ASSERT_TRUE(b.Format(L"%hs|%ls|%S|%ws", "n\xC3\xA9", L"w", "N", L"W"));
  EXPECT_EQ(b.View(), L"n\u00E9|w|N|W");

  ASSERT_TRUE(b.Format(L"%llu %lld %u %x %X %o %%", 18446744073709551615ULL, -5LL, 4000000000u,
                       255u, 255u, 8u));
  EXPECT_EQ(b.View(), L"18446744073709551615 -5 4000000000 ff FF 10 %");

  ASSERT_TRUE(b.Format(L"[%5d][%-5d][%05d][%+d][%.3f][%8.2f][%e]", 42, 42, 42, 7, 3.14159, 2.5,
                       1e10));
  EXPECT_EQ(b.View(), L"[   42][42   ][00042][+7][3.142][    2.50][1.000000e+10]");

  ASSERT_TRUE(b.Format(L"[%6s][%-6s][%.2s][%*d][%I64u][%zu]", L"ab", L"ab", L"abcdef", 4, 9,
                       std::uint64_t{1} << 40, std::size_t{7}));
  EXPECT_EQ(b.View(), L"[    ab][ab    ][ab][   9][1099511627776][7]");

  ASSERT_TRUE(b.Format(L"%c%hc%s", L'\u00E9', 'x', static_cast<const wchar_t*>(nullptr)));
  EXPECT_EQ(b.View(), L"\u00E9x(null)");

  // Longer than any first guess at a buffer size.
  const std::wstring big(5000, L'z');
  ASSERT_TRUE(b.Format(L"<%s>", big.c_str()));
  EXPECT_EQ(b.View(), L"<" + big + L">");
  ASSERT_TRUE(b.Format(L"%300d", 1));
  EXPECT_EQ(b.GetLength(), 300u);

  // Bad formats leave the buffer empty and report false.
  b.SetString(L"old");
  EXPECT_FALSE(b.Format(L"trailing %"));
  EXPECT_TRUE(b.IsEmpty());
  EXPECT_FALSE(b.Format(L"%q", 1));
  int n = 0;
  EXPECT_FALSE(b.Format(L"%n", &n));
  EXPECT_EQ(n, 0);
  EXPECT_FALSE(b.Format(nullptr));
}

TEST(WideStringBufferTest, Utf8TrimPrefixAndSubstrings) {
  TqUWideStringBuffer b;
  b.SetUTF8String("caf\xC3\xA9 \xF0\x9F\x98\x80");  // the conversions are Utf8Test's
  TqUStringBuffer narrow("stale");
  b.ExtractUTF8String(&narrow);
  EXPECT_EQ(narrow.View(), "caf\xC3\xA9 \xF0\x9F\x98\x80");

  b.SetString(L" \t\r\n\v\fmid dle \n");
  b.Trim();
  EXPECT_EQ(b.View(), L"mid dle");
  b.SetString(L" \t ");
  b.Trim();
  EXPECT_TRUE(b.IsEmpty());

  b.SetString(L"http://x");
  EXPECT_TRUE(b.HasPrefix(L"http:"));
  EXPECT_TRUE(b.HasPrefix(L""));
  EXPECT_FALSE(b.HasPrefix(L"https:"));
  EXPECT_FALSE(b.HasPrefix(L"http://x/longer"));

  EXPECT_EQ(b.ExtractSubString(7).View(), L"x");
  EXPECT_EQ(b.ExtractSubString(0, 4).View(), L"http");
  EXPECT_EQ(b.ExtractSubString(5, 100).View(), L"//x");
  EXPECT_TRUE(b.ExtractSubString(8).IsEmpty());
  EXPECT_TRUE(b.ExtractSubString(1000, 2).IsEmpty());
}

TEST(WideStringTest, NullTextsAndEquality) {
  EXPECT_STREQ(TqUWideString(static_cast<const wchar_t*>(nullptr)).GetString(), L"");
  TqUWideString s(L"abc");
  s.SetString(nullptr);
  EXPECT_TRUE(s.IsEmpty());
  EXPECT_TRUE(TqUWideString::Equal(nullptr, L""));
  EXPECT_TRUE(TqUWideString::Equal(L"a", L"a"));
  EXPECT_FALSE(TqUWideString::Equal(L"a", L"A"));
  EXPECT_FALSE(TqUWideString::Equal(nullptr, L"a"));
  EXPECT_EQ(TqUSysString::WideStrlen(nullptr), 0u);
  EXPECT_EQ(TqUSysString::WideStrlen(L"abc"), 3u);
}

TEST(TokeniserTest, SplitsAtAnyDelimiterKeepingEmptyTokens) {
  const auto tokens = [](std::wstring_view text, std::wstring_view delims) {
    TqUWideStringTokeniser t(text, delims);
    std::vector<std::wstring> out;
    TqUWideStringBuffer token;
    while (t.GetNextToken(&token)) out.emplace_back(token.View());
    EXPECT_FALSE(t.GetNextToken(&token));  // stays finished
    return out;
  };
  using V = std::vector<std::wstring>;
  EXPECT_EQ(tokens(L"a,b;c", L",;"), (V{L"a", L"b", L"c"}));
  EXPECT_EQ(tokens(L"a,,b", L","), (V{L"a", L"", L"b"}));
  EXPECT_EQ(tokens(L",a,", L","), (V{L"", L"a", L""}));
  EXPECT_EQ(tokens(L"abc", L","), (V{L"abc"}));
  EXPECT_EQ(tokens(L"abc", L""), (V{L"abc"}));
  EXPECT_EQ(tokens(L",", L","), (V{L"", L""}));
  EXPECT_EQ(tokens(L"", L","), V{});
}

}  // namespace
