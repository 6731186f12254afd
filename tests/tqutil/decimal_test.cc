// The checked decimal parser every reader of numbers in headers and URLs goes through.
#include "tqutil/decimal.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>

namespace {

using qv::ParseDecimal;
using qv::TakeDecimal;

constexpr std::uint64_t kMax = 18446744073709551615u;

TEST(DecimalTest, OnlyDigitsWithinTheLimitAreANumberAndReadBackAsWritten) {
  struct Case {
    std::string_view text;
    std::uint64_t max;
    std::optional<std::uint64_t> expected;
  };
  const Case cases[] = {
      {"007", kMax, 7},
      {"18446744073709551615", kMax, kMax},             // the largest
      {"18446744073709551616", kMax, std::nullopt},     // one past it
      {"99999999999999999999", kMax, std::nullopt},     // past it with a larger digit
      {"184467440737095516150", kMax, std::nullopt},    // ten times it
      {"4294967295", 4294967295u, 4294967295u},         // a smaller limit, reached
      {"4294967296", 4294967295u, std::nullopt},        // and passed
      {"9", 5, std::nullopt},                           // a single digit over the limit
      {"", kMax, std::nullopt},                         // empty
      {"-1", kMax, std::nullopt},                       // a sign
      {" 12", kMax, std::nullopt},                      // white space
      {"12abc", kMax, std::nullopt},                    // trailing junk
      {std::string_view("12\0", 3), kMax, std::nullopt},  // a terminator counted in
      {"\xD9\xA1", kMax, std::nullopt},                 // a digit of another script
  };
  for (const Case& c : cases) {
    EXPECT_EQ(ParseDecimal(c.text, c.max), c.expected) << '"' << std::string(c.text) << '"';
    // Wide text gives the same answers.
    const std::wstring wide(c.text.begin(), c.text.end());
    EXPECT_EQ(ParseDecimal(std::wstring_view(wide), c.max), c.expected)
        << '"' << std::string(c.text) << "\" (wide)";
  }
  EXPECT_EQ(ParseDecimal(std::wstring_view(L"\x0661")), std::nullopt);  // ARABIC-INDIC ONE
  EXPECT_EQ(ParseDecimal(std::wstring_view(L"\xFF11")), std::nullopt);  // FULLWIDTH ONE
  // What the formatter appends reads back as the same number.
  for (const std::uint64_t value : {std::uint64_t{0}, std::uint64_t{10}, kMax}) {
    std::wstring text = L"=";
    qv::AppendDecimal(value, &text);
    EXPECT_EQ(text, L"=" + std::to_wstring(value));
  }
  // Taking a number off the front leaves the rest, or everything on a refusal.
  const std::tuple<std::string_view, std::optional<std::uint64_t>, std::string_view> taken[] = {
      {"0-99/100", 0, "-99/100"},
      {"-1", std::nullopt, "-1"},
      {"", std::nullopt, ""},
      {"18446744073709551616-1", std::nullopt, "18446744073709551616-1"},  // too large
  };
  for (const auto& [text, expected, rest] : taken) {
    std::string_view left = text;
    EXPECT_EQ(TakeDecimal(left), expected) << std::string(text);
    EXPECT_EQ(left, rest) << std::string(text);
  }
}

}  // namespace
