// Conversions between the wide text of the Win32 interface and the bytes libcurl takes.
// wchar_t is UTF-16 on Windows and UTF-32 on Linux; these work with either. The UTF-8 codec is
// tqutil's header-only one (tqutil/utf8.h), included without linking tqutil.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tqplatform {

// Length of a NUL-terminated wide text, or 0 for null.
std::size_t WideLength(const wchar_t* text);

// UTF-8 form of wide text. Unpaired surrogates and invalid code points become U+FFFD.
std::string WideToUtf8(std::wstring_view text);
// Wide text of UTF-8 that must be well-formed: empty, and `*ok` false, at the first overlong
// form, surrogate, value above U+10FFFF, stray or missing continuation byte.
std::wstring Utf8ToWideStrict(std::string_view text, bool* ok);

// HTTP header bytes are treated as ISO 8859-1: every byte is one character, so any byte
// sequence survives the round trip. Fails for characters above U+00FF.
bool WideToLatin1(std::wstring_view text, std::string* out);
std::wstring Latin1ToWide(std::string_view bytes);

// ASCII case-insensitive equality, as header names are compared.
bool EqualsIgnoreCase(std::string_view a, std::string_view b);
// Without the spaces and tabs at either end, as header values are read. Inline: every header
// line of every response is trimmed.
inline std::string_view TrimSpace(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

// Calls `item(text)` for each comma-separated item of a header value, trimmed, in order, until
// one returns false; true when none did.
template <class Item>
bool EveryListItem(std::string_view list, Item&& item) {
  for (;;) {
    const auto comma = list.find(',');
    if (!item(TrimSpace(list.substr(0, comma)))) return false;
    if (comma == std::string_view::npos) return true;
    list.remove_prefix(comma + 1);
  }
}

// The name of a "Name: value" header line (all of it when it has no colon), and its value
// without the spaces around it (empty when it has no colon).
std::string_view LineName(std::string_view line);
std::string_view LineValue(std::string_view line);
// The characters of an HTTP token (a method, a header name), as a table: every header name of
// every response and of every caller's line is checked.
inline constexpr std::array<bool, 256> kTokenChars = [] {
  std::array<bool, 256> table{};
  for (int c = 0x21; c < 0x7F; ++c) table[c] = true;
  for (const char* s = "()<>@,;:\\\"/[]?={}"; *s != '\0'; ++s) {
    table[static_cast<unsigned char>(*s)] = false;
  }
  return table;
}();
inline bool IsTokenChar(char c) { return kTokenChars[static_cast<unsigned char>(c)]; }
// Whether one of `lines` is named `name` (a header name, so without a colon; case ignored).
bool HasHeaderLine(const std::vector<std::string>& lines, std::string_view name);

}  // namespace tqplatform
