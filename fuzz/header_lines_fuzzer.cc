// A response head fed to the header block line by line, as libcurl hands it over (each line
// ending at LF; libcurl refuses a response with a NUL in its head before any line is handed over). Beyond not crashing: every header the block accepted reads back from the raw
// headers' texts as one whole line (no CR, LF or NUL inside a name or a value, so that no reader
// of those texts sees a line the server did not send as one), Find gives each value, the
// status line's code is three digits, and ContentLengthAgrees agrees with a plain reading.
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

void Check(bool condition) {
  if (!condition) std::abort();
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 64 * 1024) return 0;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  if (bytes.find('\0') != std::string_view::npos) return 0;
  HeaderBlock block;
  std::vector<std::string_view> accepted;
  std::size_t start = 0;
  while (start < bytes.size()) {
    std::size_t end = bytes.find('\n', start);
    end = end == std::string_view::npos ? bytes.size() : end + 1;
    const std::string_view line = bytes.substr(start, end - start);
    start = end;
    if (block.AddLine(line) != HeaderBlock::LineResult::kAccepted) break;
    accepted.push_back(line);
  }
  if (block.empty()) return 0;
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
  return 0;
}
