// A header's value read as a number: the one rule for every reader of a Content-Length above
// the transport (the read stream, the transport's own length check, the file protocol).
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "net/host/tqutil.h"

namespace qv::net::detail {

// Digits only, once the blanks around the value are gone: spaces and tabs there are not part of
// a header's value, and not every WinINet takes them off (Wine's keeps a tab).
constexpr std::optional<std::uint64_t> ParseHeaderNumber(std::wstring_view text) {
  const auto blank = [](wchar_t c) { return c == L' ' || c == L'\t'; };
  while (!text.empty() && blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && blank(text.back())) text.remove_suffix(1);
  return qv::ParseDecimal(text);
}

}  // namespace qv::net::detail
