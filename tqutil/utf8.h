// The one UTF-8 codec of the tree, header-only on purpose: it stands on the standard library
// alone, so platform/'s Linux implementation includes it as well as tqutil does, without linking
// tqutil (the two libraries stay siblings). Headers of tqutil that platform/ may include are the
// header-only ones (this one, decimal.h, user_agent.h, sharded_map.h), never one that needs
// tqutil's library.
//
// Wide text is wchar_t: UTF-16 on Windows, UTF-32 on Linux.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace qv::utf8 {

inline constexpr char32_t kReplacement = 0xFFFD;

inline bool IsSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDFFF; }

// Appends the UTF-8 form of `c`; surrogates and values above U+10FFFF become U+FFFD.
inline void Append(std::string& out, char32_t c) {
  if (c > 0x10FFFF || IsSurrogate(c)) c = kReplacement;
  if (c < 0x80) {
    out.push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (c >> 6)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (c >> 12)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (c >> 18)));
    out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  }
}

// Appends `c` as wide text: a surrogate pair where wchar_t has 16 bits.
inline void AppendWide(std::wstring& out, char32_t c) {
  if constexpr (sizeof(wchar_t) == 2) {
    if (c >= 0x10000) {
      c -= 0x10000;
      out.push_back(static_cast<wchar_t>(0xD800 + (c >> 10)));
      out.push_back(static_cast<wchar_t>(0xDC00 + (c & 0x3FF)));
      return;
    }
  }
  out.push_back(static_cast<wchar_t>(c));
}

// Decodes one code point at `i` (which must be inside `s`), advancing `i`. Ill-formed input
// yields U+FFFD for each maximal subpart (the Unicode recommendation), so the number of
// replacements does not depend on how the decoder happens to be written; `*valid` (when given)
// is cleared then, and left alone otherwise.
inline char32_t Decode(std::string_view s, std::size_t& i, bool* valid = nullptr) {
  const auto b0 = static_cast<unsigned char>(s[i++]);
  if (b0 < 0x80) return b0;
  int extra = 0;
  unsigned char lo = 0x80;
  unsigned char hi = 0xBF;
  char32_t c = 0;
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    extra = 1;
    c = b0 & 0x1F;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    extra = 2;
    c = b0 & 0x0F;
    if (b0 == 0xE0) lo = 0xA0;  // overlong
    if (b0 == 0xED) hi = 0x9F;  // surrogates
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    extra = 3;
    c = b0 & 0x07;
    if (b0 == 0xF0) lo = 0x90;  // overlong
    if (b0 == 0xF4) hi = 0x8F;  // above U+10FFFF
  } else {
    if (valid != nullptr) *valid = false;
    return kReplacement;  // continuation byte or invalid lead
  }
  for (int k = 0; k < extra; ++k) {
    const auto b = i < s.size() ? static_cast<unsigned char>(s[i]) : 0;
    if (i >= s.size() || b < lo || b > hi) {  // the offending byte starts the next sequence
      if (valid != nullptr) *valid = false;
      return kReplacement;
    }
    lo = 0x80;
    hi = 0xBF;
    c = (c << 6) | (b & 0x3F);
    ++i;
  }
  return c;
}

// UTF-8 of wide text. Unpaired surrogates and values above U+10FFFF become U+FFFD, and
// `*valid` (when given) tells whether there were none.
inline std::string FromWide(std::wstring_view text, bool* valid = nullptr) {
  if (valid != nullptr) *valid = true;
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    auto c = static_cast<char32_t>(text[i]);
    if constexpr (sizeof(wchar_t) == 2) {
      c &= 0xFFFF;
      if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size()) {
        const auto d = static_cast<char32_t>(text[i + 1]) & 0xFFFF;
        if (d >= 0xDC00 && d <= 0xDFFF) {
          c = 0x10000 + ((c - 0xD800) << 10) + (d - 0xDC00);
          ++i;
        }
      }
    }
    if (valid != nullptr && (c > 0x10FFFF || IsSurrogate(c))) *valid = false;
    Append(out, c);
  }
  return out;
}

// Wide text of UTF-8; ill-formed sequences become U+FFFD (see Decode), and `*valid` (when
// given) tells whether there were none.
inline std::wstring ToWide(std::string_view text, bool* valid = nullptr) {
  if (valid != nullptr) *valid = true;
  std::wstring out;
  out.reserve(text.size());
  std::size_t i = 0;
  while (i < text.size()) AppendWide(out, Decode(text, i, valid));
  return out;
}

}  // namespace qv::utf8
