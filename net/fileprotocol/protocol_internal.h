// Pieces shared by the file protocol's sources: its log component, the WinINet calls that
// ranged reads and file information make alike, and an owner for WinINet handles.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "net/host/platform.h"
#include "net/host/tqutil.h"
#include "net/http/http_request.h"

namespace qv::net {

// The buffer a header's text is read into, in characters: the query is given all but one of
// them, and the terminator takes one of those.
inline constexpr std::size_t kHeaderChars = 4096;

// Reads a response header as text into `out` (at most 4,094 characters, the terminator taking
// the 4,095th: a longer one counts as absent). False, with `out` unchanged, when the header is
// not there.
bool QueryHeaderText(HINTERNET request, DWORD info_level, TqUWideString* out);

namespace detail {

// The component every message of the protocol is posted with ("HttpFileProtocol").
TqUComponent& FileProtocolComponent();

// Refuses a handle that this protocol did not make: ERROR_INVALID_HANDLE and one message
// "HttpFileProtocol::<operation> invalid handle".
void RefuseHandle(const wchar_t* operation);

// Sole owner of one WinINet handle; closes it on every path.
class InternetHandle {
 public:
  InternetHandle() = default;
  explicit InternetHandle(HINTERNET handle) : m_handle(handle) {}
  InternetHandle(const InternetHandle&) = delete;
  InternetHandle& operator=(const InternetHandle&) = delete;
  ~InternetHandle() { Reset(nullptr); }

  HINTERNET Get() const { return m_handle; }
  explicit operator bool() const { return m_handle != nullptr; }
  void Reset(HINTERNET handle) {
    if (m_handle != nullptr) InternetCloseHandle(m_handle);
    m_handle = handle;
  }

 private:
  HINTERNET m_handle = nullptr;
};

// "HEAD" for Head, "GET" for Get, "" for any other method.
const wchar_t* VerbOf(HttpMethod method);

// HttpOpenRequestW on `connection` for `resource`, accepting "*/*", bypassing WinINet's cache
// and keeping the connection alive; secure adds INTERNET_FLAG_SECURE.
HINTERNET OpenProtocolRequest(HINTERNET connection, HttpMethod method, const wchar_t* resource,
                              bool secure);

// Sends `headers` (no body) on `request`.
bool SendProtocolRequest(HINTERNET request, const std::wstring& headers);

// The response's status as a number.
bool QueryStatusCode(HINTERNET request, DWORD* status);

// How many time-outs the file protocol takes from one kind of call before it gives up.
constexpr int kMaxTimeouts = 3;
// The file protocol's one retry rule for a WinINet call: runs `call` (true on success) until it
// succeeds or fails with another error than ERROR_INTERNET_TIMEOUT, counting its time-outs in
// `timeouts` and giving up silently when they reach kMaxTimeouts. Another error is posted as
// `format` with `url` and the error code. The count starts where the caller left it, so calls
// that share a budget share one counter. True when the call succeeded.
template <class Call>
bool CallWithTimeouts(Call&& call, int& timeouts, const wchar_t* format, const wchar_t* url) {
  for (;;) {
    if (call()) return true;
    const DWORD error = GetLastError();
    if (error != ERROR_INTERNET_TIMEOUT) {
      TqUError::Post(1, &FileProtocolComponent(), format, url, static_cast<int>(error));
      return false;
    }
    if (++timeouts >= kMaxTimeouts) return false;
  }
}

// The bytes a 206 answer says it carries, from its "Content-Range".
struct ContentRange {
  std::uint64_t first = 0;
  std::uint64_t last = 0;     // inclusive
  bool has_length = false;    // false for "bytes first-last/*"
  std::uint64_t length = 0;   // the full size of the file when has_length
};

// "bytes first-last/length" or "bytes first-last/*": decimal digits only (no sign, no space, no
// value past 64 bits), first <= last, and last < length when the length is given. Anything else
// is refused and leaves `range` unchanged.
bool ParseContentRange(std::wstring_view text, ContentRange* range);

// The full length from a "Content-Range" of the form "bytes first-last/length"; false for any
// other form ("bytes first-last/*" included), with `length` unchanged.
bool ParseContentRangeLength(const TqUWideString& text, std::uint64_t* length);

// True when "Content-Length" comes more than once with values that are not all the same number,
// or more than 16 times at all. The transport may pass such an answer on; its body length is then
// anybody's guess.
bool HasConflictingContentLength(HINTERNET request);

}  // namespace detail
}  // namespace qv::net
