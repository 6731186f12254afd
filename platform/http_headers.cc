#include "platform/http_headers.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <utility>

#include "platform/http_date.h"
#include "platform/wide_text.h"
#include "tqutil/decimal.h"

namespace tqplatform {
namespace {

std::string_view TrimLineEnd(std::string_view line) {
  if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return line;
}

// HTTP-version SP 3DIGIT [SP reason-phrase]
bool ParseStatusLine(std::string_view line, std::string* version, int* code, std::string* text) {
  if (line.substr(0, 5) != "HTTP/") return false;
  const auto space = line.find(' ');
  if (space == std::string_view::npos) return false;
  std::string_view rest = line.substr(space + 1);
  while (!rest.empty() && rest.front() == ' ') rest.remove_prefix(1);
  if (rest.size() < 3) return false;
  const std::optional<std::uint64_t> value = qv::ParseDecimal(rest.substr(0, 3));
  if (!value) return false;
  if (rest.size() > 3 && rest[3] != ' ') return false;
  *version = std::string(line.substr(0, space));
  *code = static_cast<int>(*value);
  *text = std::string(TrimSpace(rest.substr(3)));
  return true;
}

// Header names of the levels, indexed by level; null where the level is not a plain header.
constexpr const char* kLevelNames[] = {
    "MIME-Version",          // 0
    "Content-Type",          // 1
    "Content-Transfer-Encoding",
    "Content-ID",
    "Content-Description",
    "Content-Length",        // 5
    "Content-Language",
    "Allow",
    "Public",
    "Date",
    "Expires",               // 10
    "Last-Modified",
    "Message-ID",
    "URI",
    "Derived-From",
    "Cost",                  // 15
    "Link",
    "Pragma",
    nullptr,                 // 18 VERSION
    nullptr,                 // 19 STATUS_CODE
    nullptr,                 // 20 STATUS_TEXT
    nullptr,                 // 21 RAW_HEADERS
    nullptr,                 // 22 RAW_HEADERS_CRLF
    "Connection",
    "Accept",
    "Accept-Charset",        // 25
    "Accept-Encoding",
    "Accept-Language",
    "Authorization",
    "Content-Encoding",
    "Forwarded",             // 30
    "From",
    "If-Modified-Since",
    "Location",
    "Orig-URI",
    "Referer",               // 35
    "Retry-After",
    "Server",
    "Title",
    "User-Agent",
    "WWW-Authenticate",      // 40
    "Proxy-Authenticate",
    "Accept-Ranges",
    "Set-Cookie",
    "Cookie",
    nullptr,                 // 45 REQUEST_METHOD
    "Refresh",
    "Content-Disposition",
    "Age",
    "Cache-Control",
    "Content-Base",          // 50
    "Content-Location",
    "Content-MD5",
    "Content-Range",
    "ETag",
    "Host",                  // 55
    "If-Match",
    "If-None-Match",
    "If-Range",
    "If-Unmodified-Since",
    "Max-Forwards",          // 60
    "Proxy-Authorization",
    "Range",
    "Transfer-Encoding",
    "Upgrade",
    "Vary",                  // 65
    "Via",
    "Warning",
    "Expect",
    "Proxy-Connection",
    "Unless-Modified-Since",  // 70
    nullptr,                  // 71 ECHO_REQUEST
    nullptr,                  // 72 ECHO_REPLY
    nullptr,                  // 73 ECHO_HEADERS
    nullptr,                  // 74 ECHO_HEADERS_CRLF
    "Proxy-Support",          // 75
    "Authentication-Info",
    nullptr,                  // 77 PASSPORT_URLS
    nullptr,                  // 78 PASSPORT_CONFIG
};
static_assert(std::size(kLevelNames) == HTTP_QUERY_MAX + 1);

// Text out in WinINet's units: lengths are bytes, characters x sizeof(wchar_t), in and out, so
// that a caller who allocates the length a size query reported always has room. The buffer may
// be unaligned: it is written byte-wise.
DWORD WriteText(std::string_view bytes, void* buffer, DWORD* buffer_length) {
  // Latin-1: each byte is one character, widened in place, with no text made in between.
  const std::uint64_t needed = (static_cast<std::uint64_t>(bytes.size()) + 1) * sizeof(wchar_t);
  if (needed > std::numeric_limits<DWORD>::max()) return ERROR_NOT_ENOUGH_MEMORY;
  if (buffer == nullptr || *buffer_length < needed) {
    *buffer_length = static_cast<DWORD>(needed);
    return ERROR_INSUFFICIENT_BUFFER;
  }
  auto* out = static_cast<char*>(buffer);
  for (const char c : bytes) {
    const auto wide = static_cast<wchar_t>(static_cast<unsigned char>(c));
    std::memcpy(out, &wide, sizeof wide);
    out += sizeof wide;
  }
  constexpr wchar_t kNul = L'\0';
  std::memcpy(out, &kNul, sizeof kNul);
  *buffer_length = static_cast<DWORD>(bytes.size() * sizeof(wchar_t));
  return ERROR_SUCCESS;
}

// The header name HTTP_QUERY_CUSTOM takes from the caller's buffer: up to its NUL, at most the
// whole characters that *buffer_length bytes hold. False for an empty name or one that is not
// Latin-1.
bool ReadCustomName(const void* buffer, DWORD buffer_length, std::string* name) {
  const auto* bytes = static_cast<const char*>(buffer);
  const std::size_t capacity = buffer_length / sizeof(wchar_t);
  std::wstring text;
  for (std::size_t i = 0; i < capacity; ++i) {
    wchar_t c;
    std::memcpy(&c, bytes + i * sizeof(wchar_t), sizeof c);
    if (c == L'\0') break;
    text.push_back(c);
  }
  return !text.empty() && WideToLatin1(text, name);
}

// A decimal number no larger than `max` between optional white space; refuses no digits,
// anything else than digits (a sign, junk after the number) and overflow.
bool ParseUnsigned(std::string_view text, std::uint64_t max, std::uint64_t* out) {
  const std::optional<std::uint64_t> value = qv::ParseDecimal(TrimSpace(text), max);
  if (value) *out = *value;
  return value.has_value();
}

template <class T>
DWORD WriteFixed(const T& value, void* buffer, DWORD* buffer_length) {
  if (buffer == nullptr || *buffer_length < sizeof(T)) {
    *buffer_length = sizeof(T);
    return ERROR_INSUFFICIENT_BUFFER;
  }
  std::memcpy(buffer, &value, sizeof(T));
  *buffer_length = sizeof(T);
  return ERROR_SUCCESS;
}

}  // namespace

void HeaderBlock::Clear() {
  // Keeps the room of the text and the lists for the next block.
  raw_.clear();
  start_end_ = 0;
  folded_.clear();
  version_.clear();
  status_code_ = 0;
  status_text_.clear();
  headers_.clear();
  bytes_ = 0;
}

std::string_view HeaderBlock::Text(std::uint32_t offset, std::uint32_t size, bool folded) const {
  return std::string_view(folded ? folded_ : raw_).substr(offset, size);
}

std::string_view HeaderBlock::Value(const Header& header) const {
  // A folded value was trimmed as it was joined; another is trimmed when it is read.
  const std::string_view value = Text(header.value, header.value_size, header.folded);
  return header.folded ? value : TrimSpace(value);
}

inline std::uint32_t HeaderBlock::AppendEntry(std::string_view raw, std::string_view line) {
  // Lines mostly come with their CR LF: kept as they are, in one piece.
  if (raw.size() == line.size() + 2) {
    raw_.append(raw);
  } else {
    raw_.append(line).append("\r\n");
  }
  return static_cast<std::uint32_t>(raw_.size());
}

HeaderBlock::LineResult HeaderBlock::AddLine(std::string_view raw, bool response) {
  bytes_ += raw.size();
  // The bound is for what a server sends; the lines of a request went out whole.
  if (response && bytes_ > kMaxBytes) return LineResult::kInvalid;
  const std::string_view line = TrimLineEnd(raw);
  // libcurl ends lines at LF only: a CR inside a line would end it for other readers, and the
  // raw headers' text would carry a line that libcurl never saw.
  if (line.find('\r') != std::string_view::npos) return LineResult::kInvalid;
  if (start_end_ == 0) return AddStartLine(raw, line, response);
  if (line.empty()) return LineResult::kEndOfBlock;
  if (line.front() == ' ' || line.front() == '\t') return AddFold(line);
  // The name is token characters up to the first colon: one pass finds the colon and checks
  // the name.
  std::size_t colon = 0;
  while (colon < line.size() && IsTokenChar(line[colon])) ++colon;
  if (colon == 0 || colon == line.size() || line[colon] != ':') return LineResult::kInvalid;
  // The value is kept with the spaces around it, trimmed when read: most are never read.
  const auto at = static_cast<std::uint32_t>(raw_.size());
  const std::uint32_t end = AppendEntry(raw, line);
  headers_.push_back({at, static_cast<std::uint32_t>(colon),
                      at + static_cast<std::uint32_t>(colon + 1),
                      static_cast<std::uint32_t>(line.size() - colon - 1), end, false});
  return LineResult::kAccepted;
}

// Once per block: kept out of AddLine, which every header line goes through.
[[gnu::noinline]] HeaderBlock::LineResult HeaderBlock::AddStartLine(std::string_view raw,
                                                                    std::string_view line,
                                                                    bool response) {
  if (line.empty()) return LineResult::kInvalid;
  if (response && !ParseStatusLine(line, &version_, &status_code_, &status_text_)) {
    return LineResult::kInvalid;
  }
  // Room for a usual block, so that the text and the lists do not grow line by line.
  raw_.reserve(kUsualBytes);
  headers_.reserve(kUsualLines);
  start_end_ = AppendEntry(raw, line);
  return LineResult::kAccepted;
}

// Rare, and so kept out of AddLine too.
[[gnu::noinline]] HeaderBlock::LineResult HeaderBlock::AddFold(std::string_view line) {
  // An obsolete folded continuation: part of the header before it, and of its raw line.
  if (headers_.empty()) return LineResult::kInvalid;
  Header& header = headers_.back();
  const std::string_view more = TrimSpace(line);
  if (!more.empty()) {
    if (!header.folded) {
      // Folds are rare: the joined value gets storage of its own, at the end of folded_,
      // where later folds of the same (last) header extend it.
      const std::string_view value = Value(header);
      header.value = static_cast<std::uint32_t>(folded_.size());
      header.value_size = static_cast<std::uint32_t>(value.size());
      folded_.append(value);
      header.folded = true;
    }
    if (header.value_size != 0) folded_.push_back(' ');
    folded_.append(more);
    header.value_size = static_cast<std::uint32_t>(folded_.size() - header.value);
  }
  raw_.append(line).append("\r\n");
  header.end = static_cast<std::uint32_t>(raw_.size());
  return LineResult::kAccepted;
}

void HeaderBlock::SetRequest(std::string_view start_line,
                             const std::vector<std::string>& header_lines) {
  Clear();
  AddLine(start_line, false);
  for (const auto& line : header_lines) AddLine(line, false);
}

std::optional<std::string_view> HeaderBlock::Find(std::string_view name,
                                                  std::size_t index) const {
  for (const auto& header : headers_) {
    // The sizes first, here: most names differ in size, and need no call to find that out.
    if (header.name_size == name.size() &&
        EqualsIgnoreCase(Text(header.name, header.name_size, false), name)) {
      if (index == 0) return Value(header);
      --index;
    }
  }
  return std::nullopt;
}

bool HeaderBlock::ContentLengthAgrees() const {
  std::optional<std::uint64_t> length;
  // One pass over the headers: every response is checked. Names are token characters, among
  // which only a letter's two cases agree with a lower-case letter once bit 5 is set.
  constexpr std::string_view kName = "content-length";
  auto is_content_length = [&](const Header& header) {
    if (header.name_size != kName.size()) return false;
    const char* name = raw_.data() + header.name;
    for (std::size_t i = 0; i < kName.size(); ++i) {
      if ((name[i] | 0x20) != kName[i]) return false;
    }
    return true;
  };
  for (const auto& header : headers_) {
    if (!is_content_length(header)) continue;
    const bool agrees = EveryListItem(
        Value(header), [&](std::string_view item) {
          // libcurl takes a length past 63 bits for none and reads to the close: a body cut
          // short would pass for a whole one.
          const std::optional<std::uint64_t> value =
              qv::ParseDecimal(item, std::numeric_limits<std::int64_t>::max());
          if (!value || (length.has_value() && *length != *value)) return false;
          length = value;
          return true;
        });
    if (!agrees) return false;
  }
  return true;
}

bool HeaderBlock::Folded(std::string_view name) const {
  for (const auto& header : headers_) {
    if (header.folded && header.name_size == name.size() &&
        EqualsIgnoreCase(Text(header.name, header.name_size, false), name)) {
      return true;
    }
  }
  return false;
}

std::string HeaderBlock::RawCrlf() const { return raw_ + "\r\n"; }

std::string HeaderBlock::RawNul() const {
  std::string out;
  out.reserve(raw_.size());
  if (empty()) return out;
  // Each entry without its CR LF.
  out.append(raw_, 0, start_end_ - 2).push_back('\0');
  std::uint32_t start = start_end_;
  for (const Header& header : headers_) {
    out.append(raw_, start, header.end - start - 2).push_back('\0');
    start = header.end;
  }
  return out;
}

const char* HeaderNameForLevel(DWORD level) {
  return level <= HTTP_QUERY_MAX ? kLevelNames[level] : nullptr;
}

namespace {

// The name a level asks for: known levels by their header, HTTP_QUERY_CUSTOM from the caller's
// buffer (read before anything is written there).
DWORD NameOfLevel(DWORD level, const void* buffer, DWORD buffer_length, std::string* name) {
  if (level == HTTP_QUERY_CUSTOM) {
    if (buffer == nullptr) return ERROR_INVALID_PARAMETER;
    if (!ReadCustomName(buffer, buffer_length, name)) return ERROR_HTTP_HEADER_NOT_FOUND;
    return ERROR_SUCCESS;
  }
  if (const char* known = HeaderNameForLevel(level)) {
    *name = known;
    return ERROR_SUCCESS;
  }
  return level > HTTP_QUERY_MAX ? ERROR_HTTP_INVALID_QUERY_REQUEST : ERROR_HTTP_HEADER_NOT_FOUND;
}

// The value a level asks for, as bytes; `*indexed` when the index selects among repeated headers.
DWORD SelectValue(const HeaderBlock& block, std::string_view verb, DWORD level, bool formatted,
                  DWORD wanted, const void* buffer, DWORD buffer_length, std::string* value,
                  bool* indexed) {
  *indexed = false;
  switch (level) {
    case HTTP_QUERY_RAW_HEADERS:
    case HTTP_QUERY_RAW_HEADERS_CRLF:
      if (formatted) return ERROR_HTTP_INVALID_QUERY_REQUEST;
      *value = level == HTTP_QUERY_RAW_HEADERS ? block.RawNul() : block.RawCrlf();
      return ERROR_SUCCESS;
    case HTTP_QUERY_STATUS_CODE:
      if (block.status_code() == 0 || wanted != 0) return ERROR_HTTP_HEADER_NOT_FOUND;
      *value = std::to_string(block.status_code());
      return ERROR_SUCCESS;
    case HTTP_QUERY_STATUS_TEXT:
      if (block.status_code() == 0 || wanted != 0) return ERROR_HTTP_HEADER_NOT_FOUND;
      *value = block.status_text();
      return ERROR_SUCCESS;
    case HTTP_QUERY_VERSION:
      if (block.version().empty() || wanted != 0) return ERROR_HTTP_HEADER_NOT_FOUND;
      *value = block.version();
      return ERROR_SUCCESS;
    case HTTP_QUERY_REQUEST_METHOD:
      if (verb.empty() || wanted != 0) return ERROR_HTTP_HEADER_NOT_FOUND;
      *value = std::string(verb);
      return ERROR_SUCCESS;
    default: {
      std::string name;
      if (DWORD error = NameOfLevel(level, buffer, buffer_length, &name)) return error;
      const std::optional<std::string_view> found = block.Find(name, wanted);
      if (!found) return ERROR_HTTP_HEADER_NOT_FOUND;
      value->assign(*found);
      *indexed = true;
      return ERROR_SUCCESS;
    }
  }
}

// Writes the value in the form the modifiers ask for.
DWORD WriteValue(DWORD modifiers, const std::string& value, void* buffer, DWORD* buffer_length) {
  std::uint64_t number = 0;
  if ((modifiers & HTTP_QUERY_FLAG_NUMBER) != 0) {
    if (!ParseUnsigned(value, std::numeric_limits<DWORD>::max(), &number)) {
      return ERROR_HTTP_INVALID_HEADER;
    }
    return WriteFixed(static_cast<DWORD>(number), buffer, buffer_length);
  }
  if ((modifiers & HTTP_QUERY_FLAG_NUMBER64) != 0) {
    if (!ParseUnsigned(value, std::numeric_limits<std::uint64_t>::max(), &number)) {
      return ERROR_HTTP_INVALID_HEADER;
    }
    return WriteFixed(number, buffer, buffer_length);
  }
  if ((modifiers & HTTP_QUERY_FLAG_SYSTEMTIME) != 0) {
    SYSTEMTIME time{};
    if (!ParseHttpDate(value, &time)) return ERROR_HTTP_INVALID_HEADER;
    return WriteFixed(time, buffer, buffer_length);
  }
  return WriteText(value, buffer, buffer_length);
}

}  // namespace

DWORD QueryHeaderBlock(const HeaderBlock& block, std::string_view verb, DWORD info_level,
                       void* buffer, DWORD* buffer_length, DWORD* index) {
  if (buffer_length == nullptr) return ERROR_INVALID_PARAMETER;
  const DWORD level = info_level & HTTP_QUERY_HEADER_MASK;
  const DWORD modifiers = info_level & HTTP_QUERY_MODIFIER_FLAGS_MASK;
  const int formats = ((modifiers & HTTP_QUERY_FLAG_NUMBER) != 0) +
                      ((modifiers & HTTP_QUERY_FLAG_NUMBER64) != 0) +
                      ((modifiers & HTTP_QUERY_FLAG_SYSTEMTIME) != 0);
  if (formats > 1) return ERROR_HTTP_INVALID_QUERY_REQUEST;
  std::string value;
  bool indexed = false;
  const DWORD wanted = index != nullptr ? *index : 0;
  if (DWORD error = SelectValue(block, verb, level, formats != 0, wanted, buffer, *buffer_length,
                                &value, &indexed)) {
    return error;
  }
  const DWORD result = WriteValue(modifiers, value, buffer, buffer_length);
  if (result == ERROR_SUCCESS && indexed && index != nullptr) *index = wanted + 1;
  return result;
}

}  // namespace tqplatform
