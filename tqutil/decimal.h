// The one decimal number parser of the tree (digits only, checked) and its formatter. Header-only and standing on
// the standard library alone, so that platform/'s Linux implementation includes it as well as
// tqutil and net/ do, without linking tqutil (see tqutil/utf8.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

namespace qv {

inline constexpr std::uint64_t kMaxDecimal = std::numeric_limits<std::uint64_t>::max();

namespace decimal_detail {
template <class Char>
constexpr std::size_t CountDigits(std::basic_string_view<Char> text) {
  std::size_t n = 0;
  while (n < text.size() && text[n] >= Char('0') && text[n] <= Char('9')) ++n;
  return n;
}

template <class Char>
constexpr std::optional<std::uint64_t> Parse(std::basic_string_view<Char> text, std::uint64_t max) {
  if (text.empty() || CountDigits(text) != text.size()) return std::nullopt;
  std::uint64_t value = 0;
  for (const Char c : text) {
    const auto digit = static_cast<std::uint64_t>(c - Char('0'));
    if (digit > max || value > (max - digit) / 10) return std::nullopt;
    value = value * 10 + digit;
  }
  return value;
}

template <class Char>
constexpr std::optional<std::uint64_t> Take(std::basic_string_view<Char>& text, std::uint64_t max) {
  const std::size_t digits = CountDigits(text);
  const std::optional<std::uint64_t> value = Parse(text.substr(0, digits), max);
  if (value) text.remove_prefix(digits);
  return value;
}
}  // namespace decimal_detail

// The count of decimal digits ('0' to '9') at the front of `text`.
constexpr std::size_t CountDecimalDigits(std::string_view text) {
  return decimal_detail::CountDigits(text);
}
constexpr std::size_t CountDecimalDigits(std::wstring_view text) {
  return decimal_detail::CountDigits(text);
}

// All of `text` as a decimal number no larger than `max`. Refused (nullopt): empty text, a
// sign, white space or any other character than a digit anywhere, and a value above `max`.
// Leading zeros are allowed.
constexpr std::optional<std::uint64_t> ParseDecimal(std::string_view text,
                                                    std::uint64_t max = kMaxDecimal) {
  return decimal_detail::Parse(text, max);
}
constexpr std::optional<std::uint64_t> ParseDecimal(std::wstring_view text,
                                                    std::uint64_t max = kMaxDecimal) {
  return decimal_detail::Parse(text, max);
}

// The decimal number at the front of `text`, no larger than `max`, taken off `text`; nullopt,
// and `text` left as it was, when it does not start with a digit or the number is too large.
constexpr std::optional<std::uint64_t> TakeDecimal(std::string_view& text,
                                                   std::uint64_t max = kMaxDecimal) {
  return decimal_detail::Take(text, max);
}
constexpr std::optional<std::uint64_t> TakeDecimal(std::wstring_view& text,
                                                   std::uint64_t max = kMaxDecimal) {
  return decimal_detail::Take(text, max);
}

// Appends `value` in decimal digits: for wide text on hot paths, where the standard library's
// wide formatting goes through a printf-style call.
inline void AppendDecimal(std::uint64_t value, std::wstring* out) {
  wchar_t digits[20];
  std::size_t n = 0;
  do {
    digits[n++] = static_cast<wchar_t>(L'0' + value % 10);
    value /= 10;
  } while (value != 0);
  while (n > 0) out->push_back(digits[--n]);
}

}  // namespace qv
