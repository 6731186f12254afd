// Text as a file-system path that names the same file whatever the process's locale is (the C
// locale's conversion would refuse non-ASCII characters on POSIX). Header-only, over
// tqutil/utf8.h.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "tqutil/utf8.h"

namespace qv {

// UTF-8 text as a path.
inline std::filesystem::path PathOfUtf8(std::string_view text) {
  return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

// Wide text as a path: as it is where paths are wide (Windows), through UTF-8 elsewhere. Text
// that no UTF-8 holds (a lone surrogate, a value past U+10FFFF) gets U+FFFD in the path, which
// names another file: `*whole` (when given) is false then.
inline std::filesystem::path PathOfWide(std::wstring_view text, bool* whole = nullptr) {
  if constexpr (sizeof(std::filesystem::path::value_type) == sizeof(wchar_t)) {
    if (whole != nullptr) *whole = true;
    return std::filesystem::path(std::wstring(text));
  } else {
    return PathOfUtf8(utf8::FromWide(text, whole));
  }
}

}  // namespace qv
