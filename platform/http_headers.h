// A header block of one HTTP message and WinINet's HttpQueryInfoW rules over it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/wininet.h"

namespace tqplatform {

class HeaderBlock {
 public:
  enum class LineResult { kAccepted, kEndOfBlock, kInvalid };

  // Largest header block accepted; a server that sends more is broken or hostile.
  static constexpr std::size_t kMaxBytes = 256 * 1024;

  void Clear();

  // Feeds one line as it came from the wire (a trailing CR LF or LF is ignored). The first line
  // is the start line. Refuses a start line that is not an HTTP status line (when `response`),
  // a header line without a colon or whose name is empty or not all token characters, a
  // continuation with no header before it, a line with a CR inside, and a response block
  // larger than kMaxBytes.
  LineResult AddLine(std::string_view line, bool response = true);

  // Sets the start line and headers of a request, as sent (for HTTP_QUERY_FLAG_REQUEST_HEADERS).
  void SetRequest(std::string_view start_line, const std::vector<std::string>& header_lines);

  bool empty() const { return start_end_ == 0; }
  // The room the block holds, in bytes; Clear keeps it for the next block.
  std::size_t capacity() const {
    return raw_.capacity() + folded_.capacity() + headers_.capacity() * sizeof(Header);
  }
  int status_code() const { return status_code_; }
  const std::string& version() const { return version_; }
  const std::string& status_text() const { return status_text_; }

  // The value of the index-th (0-based) header with this name (ASCII case-insensitive); valid
  // until the block changes.
  std::optional<std::string_view> Find(std::string_view name, std::size_t index = 0) const;

  // False when Content-Length occurs with values that differ (a repeated or comma-listed equal
  // value is one value) or with one that is not a decimal number below 2^63: such a body has no
  // length one can trust, and two readers could split the stream in different places.
  bool ContentLengthAgrees() const;

  // True when a header of this name was continued on a folded line that added to its value.
  bool Folded(std::string_view name) const;

  // Start line and header lines as received, each followed by CR LF, then a final CR LF.
  std::string RawCrlf() const;
  // The same lines each followed by a NUL (the list's final NUL is the caller's terminator).
  std::string RawNul() const;

 private:
  static constexpr std::size_t kUsualLines = 16;
  static constexpr std::size_t kUsualBytes = 1024;
  // A header's name and value as places in raw_ (the value in folded_, trimmed, when it was
  // folded; else untrimmed), and where its line ends in raw_, its folds included, so that a
  // block costs a few allocations rather than some per line.
  struct Header {
    std::uint32_t name;
    std::uint32_t name_size;
    std::uint32_t value;
    std::uint32_t value_size;
    std::uint32_t end;
    bool folded;
  };
  std::string_view Text(std::uint32_t offset, std::uint32_t size, bool folded) const;
  // The header's value, trimmed.
  std::string_view Value(const Header& header) const;
  // Adds a line as received (`raw`) without its line end (`line`), followed by CR LF; returns
  // where it ends in raw_.
  std::uint32_t AppendEntry(std::string_view raw, std::string_view line);
  // AddLine's parts for the start line and for a folded continuation line.
  LineResult AddStartLine(std::string_view raw, std::string_view line, bool response);
  LineResult AddFold(std::string_view line);

  std::string raw_;              // the lines as received, each followed by CR LF
  std::uint32_t start_end_ = 0;  // where the start line ends in raw_; 0: no line yet
  std::string folded_;           // the joined values of folded headers
  std::string version_;
  int status_code_ = 0;
  std::string status_text_;
  std::vector<Header> headers_;
  std::size_t bytes_ = 0;
};

// The header name WinINet's level stands for, or null for levels with no header of their own
// (status, version, raw headers, custom ...) and for unknown levels.
const char* HeaderNameForLevel(DWORD level);

// HttpQueryInfoW over a header block. Returns ERROR_SUCCESS or the error code; `verb` answers
// HTTP_QUERY_REQUEST_METHOD. Implements WinINet's buffer rules: lengths in bytes in and out, a
// character counting sizeof(wchar_t) bytes (4 on Linux); ERROR_INSUFFICIENT_BUFFER with
// the length needed (text: including the terminator); on success the length without the
// terminator; HTTP_QUERY_CUSTOM reads the header name from the buffer; the index selects the
// occurrence of a repeated header and is advanced on success.
DWORD QueryHeaderBlock(const HeaderBlock& block, std::string_view verb, DWORD info_level,
                       void* buffer, DWORD* buffer_length, DWORD* index);

}  // namespace tqplatform
