// What an answer must hold before its body is believed: a Content-Range that parses as one
// byte range, and a single body length.
#include <cstdint>
#include <optional>
#include <string_view>

#include "net/fileprotocol/protocol_internal.h"
#include "net/http/header_number.h"

namespace qv::net::detail {
namespace {

// More copies than this are refused outright, so a header block of thousands of copies costs
// no more than this many look-ups.
constexpr DWORD kMaxContentLengthCopies = 16;

// Decimal digits at the front of `text` as a number; false for no digit or a value past 64 bits.
bool TakeNumber(std::wstring_view& text, std::uint64_t* value) {
  const std::optional<std::uint64_t> number = qv::TakeDecimal(text);
  if (number) *value = *number;
  return number.has_value();
}

bool TakeChar(std::wstring_view& text, wchar_t c) {
  if (text.empty() || text.front() != c) return false;
  text.remove_prefix(1);
  return true;
}

// Copy `index` of Content-Length. Read as text: not every WinINet honours the index for the
// number form of this header (Wine's does not), and a second, different copy would go unseen.
// A copy that is not a decimal number fails with ERROR_HTTP_INVALID_HEADER.
bool QueryContentLength(HINTERNET request, DWORD index, std::uint64_t* value) {
  // As long as the text the size itself is read from: a copy padded with leading zeros or
  // blanks would otherwise not fit, and two equal copies would count as different.
  wchar_t text[kHeaderChars];
  DWORD size = sizeof(text);
  if (!HttpQueryInfoW(request, HTTP_QUERY_CONTENT_LENGTH, text, &size, &index)) return false;
  const std::optional<std::uint64_t> number =
      detail::ParseHeaderNumber(std::wstring_view(text, size / sizeof(wchar_t)));
  if (!number) {
    SetLastError(ERROR_HTTP_INVALID_HEADER);
    return false;
  }
  *value = *number;
  return true;
}

}  // namespace

bool ParseContentRange(std::wstring_view text, ContentRange* range) {
  constexpr std::wstring_view kUnit = L"bytes ";
  if (text.substr(0, kUnit.size()) != kUnit) return false;
  text.remove_prefix(kUnit.size());
  ContentRange parsed;
  if (!TakeNumber(text, &parsed.first) || !TakeChar(text, L'-') ||
      !TakeNumber(text, &parsed.last) || !TakeChar(text, L'/') || parsed.first > parsed.last) {
    return false;
  }
  if (!TakeChar(text, L'*')) {
    if (!TakeNumber(text, &parsed.length) || parsed.last >= parsed.length) return false;
    parsed.has_length = true;
  }
  if (!text.empty()) return false;
  *range = parsed;
  return true;
}

bool ParseContentRangeLength(const TqUWideString& text, std::uint64_t* length) {
  ContentRange range;
  if (!ParseContentRange(text.View(), &range) || !range.has_length) return false;
  *length = range.length;
  return true;
}

bool HasConflictingContentLength(HINTERNET request) {
  std::uint64_t first = 0;
  bool first_read = false;
  for (DWORD index = 1;; ++index) {
    std::uint64_t other = 0;
    if (!QueryContentLength(request, index, &other)) {
      // No further copy ends the check; a copy that is not a number is not the same number.
      return GetLastError() != ERROR_HTTP_HEADER_NOT_FOUND;
    }
    if (index == kMaxContentLengthCopies) return true;
    if (!first_read) {
      if (!QueryContentLength(request, 0, &first)) return true;
      first_read = true;
    }
    if (other != first) return true;
  }
}

}  // namespace qv::net::detail
