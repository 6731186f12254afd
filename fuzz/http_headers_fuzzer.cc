// A server's response head, byte for byte as it comes off the wire, fed line by line to the
// header block the transport keeps, then queried through HttpQueryInfoW's rules at every level
// with every modifier and awkward buffer sizes. Parsing must never crash, and every answer must
// keep the buffer rules: a success fits the buffer it was given and is terminated, a refusal for
// want of room names a length that then succeeds, fixed-size answers have their size, and the
// index of a repeated header only moves forward on success. The raw headers' texts read back
// as the lines accepted, and a status line's code is three digits.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/http_headers.h"
#include "platform/wide_text.h"

namespace {

using tqplatform::HeaderBlock;
using tqplatform::QueryHeaderBlock;

void Check(bool condition) {
  if (!condition) std::abort();
}

// Bytes of a fixed-size answer for a modifier; 0 for text.
DWORD FixedSize(DWORD modifiers) {
  if (modifiers & HTTP_QUERY_FLAG_NUMBER) return sizeof(DWORD);
  if (modifiers & HTTP_QUERY_FLAG_NUMBER64) return sizeof(std::uint64_t);
  if (modifiers & HTTP_QUERY_FLAG_SYSTEMTIME) return sizeof(SYSTEMTIME);
  return 0;
}

constexpr DWORD kCharBytes = sizeof(wchar_t);

// A buffer of `length` bytes as the caller promises it (rounded up to whole characters), filled
// with a marker so that a terminator written by the query is seen.
std::vector<wchar_t> BufferFor(DWORD length) {
  const std::size_t units = (static_cast<std::size_t>(length) + kCharBytes - 1) / kCharBytes;
  return std::vector<wchar_t>(std::max<std::size_t>(units, 1), L'\x7f');
}

// One query with the name (for HTTP_QUERY_CUSTOM) in the buffer; checks the rules for the
// length given and, after a refusal for room, for the length asked for.
void Query(const HeaderBlock& block, DWORD level, const std::wstring& name, DWORD length,
           DWORD index_in) {
  const DWORD modifiers = level & HTTP_QUERY_MODIFIER_FLAGS_MASK;
  const bool custom = (level & HTTP_QUERY_HEADER_MASK) == HTTP_QUERY_CUSTOM;
  if (custom) length = std::max<DWORD>(length, static_cast<DWORD>((name.size() + 1) * kCharBytes));
  std::vector<wchar_t> buffer = BufferFor(length);
  if (custom) {
    std::copy(name.begin(), name.end(), buffer.begin());
    buffer[name.size()] = L'\0';
  }
  DWORD given = length;
  DWORD index = index_in;
  const DWORD error = QueryHeaderBlock(block, "GET", level, buffer.data(), &given, &index);
  const DWORD fixed = FixedSize(modifiers);
  if (error == ERROR_SUCCESS) {
    Check(index == index_in || index == index_in + 1);
    if (fixed != 0) {
      Check(given == fixed);
      Check(length >= fixed);
    } else {
      // Without the terminator, which is there and fits.
      Check(given % kCharBytes == 0);
      Check(static_cast<std::uint64_t>(given) + kCharBytes <= length);
      Check(buffer[given / kCharBytes] == L'\0');
    }
  } else if (error == ERROR_INSUFFICIENT_BUFFER) {
    Check(index == index_in);
    Check(given > length);
    if (fixed != 0) Check(given == fixed);
    // The length asked for is enough, and exactly what the text needs.
    std::vector<wchar_t> room = BufferFor(given);
    if (custom) {
      std::copy(name.begin(), name.end(), room.begin());
      room[name.size()] = L'\0';
    }
    DWORD again = given;
    DWORD index2 = index_in;
    Check(QueryHeaderBlock(block, "GET", level, room.data(), &again, &index2) == ERROR_SUCCESS);
    if (fixed == 0) Check(static_cast<std::uint64_t>(again) + kCharBytes == given);
  } else {
    Check(index == index_in);
  }
}

bool Clean(std::string_view text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

// Content-Length read plainly: every comma-separated item of every such header is one decimal
// number below 2^63, and they are all equal.
bool LengthsAgree(const HeaderBlock& block) {
  std::optional<std::uint64_t> length;
  for (std::size_t i = 0;; ++i) {
    const std::optional<std::string_view> value = block.Find("Content-Length", i);
    if (!value) return true;
    std::string_view rest = *value;
    for (;;) {
      const std::size_t comma = rest.find(',');
      const std::string_view item = tqplatform::TrimSpace(rest.substr(0, comma));
      if (item.empty()) return false;
      constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
      std::uint64_t n = 0;
      for (const char c : item) {
        if (c < '0' || c > '9') return false;
        const unsigned digit = static_cast<unsigned>(c - '0');
        if (n > (kMax - digit) / 10) return false;
        n = n * 10 + digit;
      }
      if (length && *length != n) return false;
      length = n;
      if (comma == std::string_view::npos) break;
      rest.remove_prefix(comma + 1);
    }
  }
}

// The texts of the raw headers hold each accepted line whole (no CR, LF or NUL inside a name or
// a value, so that no reader of them sees a line the server did not send as one), Find gives
// each value, and ContentLengthAgrees agrees with a plain reading. libcurl refuses a head with a
// NUL in it before handing over any line, so such inputs are not checked.
void CheckTexts(const HeaderBlock& block, const std::vector<std::string_view>& accepted) {
  Check(block.status_code() >= 0 && block.status_code() <= 999);
  Check(block.version().starts_with("HTTP/") && Clean(block.version()) &&
        Clean(block.status_text()));

  // The NUL-separated text has one entry per line accepted, folds being part of their header's.
  const std::string nul = block.RawNul();
  std::vector<std::string_view> entries;
  for (std::size_t at = 0; at < nul.size();) {
    const std::size_t end = nul.find('\0', at);
    Check(end != std::string::npos);
    entries.push_back(std::string_view(nul).substr(at, end - at));
    at = end + 1;
  }
  std::size_t folds = 0;
  for (std::size_t i = 1; i < accepted.size(); ++i) {
    folds += accepted[i].front() == ' ' || accepted[i].front() == '\t';
  }
  Check(entries.size() + folds == accepted.size());
  // The CR LF text is the same lines, each ended by CR LF, with no other CR or LF.
  const std::string crlf = block.RawCrlf();
  Check(crlf.ends_with("\r\n\r\n") || crlf == "\r\n");
  std::size_t lines = 0;
  for (std::size_t at = 0; at + 2 < crlf.size();) {
    const std::size_t end = crlf.find("\r\n", at);
    Check(end != std::string::npos && Clean(std::string_view(crlf).substr(at, end - at)));
    ++lines;
    at = end + 2;
  }
  Check(lines == accepted.size());

  for (std::size_t i = 1; i < entries.size(); ++i) {
    const std::string_view name = tqplatform::LineName(entries[i]);
    Check(!name.empty() && Clean(name));
    const std::optional<std::string_view> value = block.Find(name);
    Check(value.has_value() && Clean(*value));
  }
  Check(block.ContentLengthAgrees() == LengthsAgree(block));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 64 * 1024) return 0;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);

  HeaderBlock block;
  std::vector<std::wstring> names;
  std::vector<std::string_view> accepted;
  std::size_t start = 0;
  while (start < bytes.size()) {
    std::size_t end = bytes.find('\n', start);
    end = end == std::string_view::npos ? bytes.size() : end + 1;
    const std::string_view line = bytes.substr(start, end - start);
    start = end;
    const HeaderBlock::LineResult result = block.AddLine(line);
    if (result != HeaderBlock::LineResult::kAccepted) break;
    accepted.push_back(line);
    const std::size_t colon = line.find(':');
    if (colon != std::string_view::npos && colon > 0 && names.size() < 8) {
      std::wstring name;
      for (const char c : line.substr(0, colon)) name += static_cast<wchar_t>(static_cast<unsigned char>(c));
      names.push_back(name);
    }
  }
  names.push_back(L"content-range");
  if (!block.empty() && bytes.find('\0') == std::string_view::npos) CheckTexts(block, accepted);

  static constexpr DWORD kModifiers[] = {0, HTTP_QUERY_FLAG_NUMBER, HTTP_QUERY_FLAG_NUMBER64,
                                         HTTP_QUERY_FLAG_SYSTEMTIME,
                                         HTTP_QUERY_FLAG_NUMBER | HTTP_QUERY_FLAG_SYSTEMTIME};
  static constexpr DWORD kLengths[] = {0, 1, 2, 3, 4, 7, 8, 15, 16, 17, 64, 4096};
  const DWORD odd = size > 0 ? data[size - 1] : 5;
  for (const DWORD modifier : kModifiers) {
    for (DWORD level = 0; level <= HTTP_QUERY_MAX + 1; ++level) {
      // Most levels name no header of this block: a few sizes keep the run fast.
      for (const DWORD length : {DWORD{0}, DWORD{3}, DWORD{16}, odd}) {
        Query(block, level | modifier, L"", length, 0);
      }
    }
    for (const std::wstring& name : names) {
      for (const DWORD length : kLengths) {
        // Every occurrence of a repeated header, then one past the last.
        for (DWORD index = 0; index < 4; ++index) {
          Query(block, HTTP_QUERY_CUSTOM | modifier, name, length, index);
        }
      }
    }
  }
  return 0;
}
