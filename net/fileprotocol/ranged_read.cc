// Ranged reads: one GET with a "Range" header per read, on the reading thread's connection,
// its body read straight into the caller's buffer.
#include <algorithm>
#include <cwchar>
#include <optional>
#include <string>
#include <memory>
#include <vector>

#include "net/fileprotocol/file_handles.h"
#include "net/fileprotocol/http_file_protocol.h"
#include "net/fileprotocol/protocol_internal.h"
#include "net/http/header_number.h"
#include "net/http/request_handler.h"

namespace qv::net {
namespace {

// Each InternetReadFile asks for at most this much, so that a read of 4 GiB or more is split
// rather than cut to the low 32 bits of its size.
constexpr std::uint64_t kMaxReadChunk = 0x80000000u;
// Bytes before the offset that a server sends anyway (a 200 to a ranged GET) are read and
// dropped through a buffer of at most this size, whatever the offset.
constexpr std::uint64_t kSkipChunk = 64 * 1024;

void PostReadError(const wchar_t* format, const TqUWideString& url, int value) {
  TqUError::Post(1, &detail::FileProtocolComponent(), format, url.GetString(), value);
}

// The answer's "Content-Range", asked for once however many checks read it; null when absent.
class ContentRangeHeader {
 public:
  explicit ContentRangeHeader(HINTERNET request) : m_request(request) {}
  const TqUWideString* Get() {
    if (!m_asked) {
      m_present = QueryHeaderText(m_request, HTTP_QUERY_CONTENT_RANGE, &m_text);
      m_asked = true;
    }
    return m_present ? &m_text : nullptr;
  }

 private:
  HINTERNET m_request;
  bool m_asked = false;
  bool m_present = false;
  TqUWideString m_text;
};

// The full size of the remote file from the answer's headers; false (message posted) when
// neither a usable "Content-Range" nor a "Content-Length" is there.
bool QueryTotalSize(HINTERNET request, ContentRangeHeader& content_range,
                    const TqUWideString& url, std::uint64_t* total_size) {
  TqUWideString text;
  std::uint64_t length = 0;
  if (const TqUWideString* range = content_range.Get();
      range != nullptr && detail::ParseContentRangeLength(*range, &length)) {
    *total_size = length;
    return true;
  }
  if (QueryHeaderText(request, HTTP_QUERY_CONTENT_LENGTH, &text)) {
    // Anything but digits (a sign, junk, a value past 64 bits) is no size.
    if (const std::optional<std::uint64_t> size = detail::ParseHeaderNumber(text.View())) {
      *total_size = *size;
      return true;
    }
  }
  TqUError::Post(1, &detail::FileProtocolComponent(),
                 L"HttpFileProtocol::ReadFile HttpQueryInfo Can't find size in headers for %s",
                 url.GetString());
  return false;
}

// Reads the body into `buffer` until `size` bytes, the end of the body or a failed read.
std::uint64_t ReadBody(HINTERNET request, std::uint64_t size, unsigned char* buffer) {
  std::uint64_t done = 0;
  std::uint64_t remaining = size;
  while (remaining > 0) {
    const DWORD ask = static_cast<DWORD>(remaining < kMaxReadChunk ? remaining : kMaxReadChunk);
    DWORD got = 0;
    if (!InternetReadFile(request, buffer + done, ask, &got) || got == 0) break;
    done += got;
    remaining -= got;
  }
  return done;
}

// Reads and drops the first `count` bytes of the body; false when it ends or fails before them.
bool SkipBody(HINTERNET request, std::uint64_t count) {
  std::vector<unsigned char> scratch(static_cast<std::size_t>(std::min(count, kSkipChunk)));
  while (count > 0) {
    const DWORD ask = static_cast<DWORD>(std::min<std::uint64_t>(count, scratch.size()));
    DWORD got = 0;
    if (!InternetReadFile(request, scratch.data(), ask, &got) || got == 0) return false;
    count -= got;
  }
  return true;
}

// A 206 must carry the range asked for, from `offset` on: bytes from elsewhere in the file
// would land at the caller's offset as if they belonged there. Its last byte may come before
// `last` (the file is shorter than the range), never after it. The bytes it carries, or 0.
std::uint64_t CheckedRangeSize(ContentRangeHeader& content_range, std::uint64_t offset,
                               std::uint64_t last) {
  const TqUWideString* text = content_range.Get();
  detail::ContentRange range;
  if (text == nullptr || !detail::ParseContentRange(text->View(), &range) ||
      range.first != offset || range.last > last) {
    return 0;
  }
  return range.last - range.first + 1;
}

// The GET for the file. It carries the URL as the caller gave it; the file's parsed URL is that
// URL unless it was resolved to another: copied, it spares parsing the text again for every read.
HttpRequest FileRequest(const HttpFileHandle& file) {
  const TqUWideString& url = file.UrlText();
  const TqUURL& parsed = file.ParsedUrl();
  return std::wcscmp(parsed.GetString(), url.GetString()) == 0
             ? HttpRequest(parsed, HttpMethod::Get)
             : HttpRequest(url.GetString(), HttpMethod::Get);
}

// Runs the pre-request handlers on the request, then asks it for bytes `first` to `last`.
void PrepareRangeRequest(HttpRequest& request, std::uint64_t first, std::uint64_t last) {
  HttpRequestHandlerManager::HandlePreRequest(request);
  std::wstring range = L"bytes=";
  qv::AppendDecimal(first, &range);
  range.push_back(L'-');
  qv::AppendDecimal(last, &range);
  request.AddHeader(L"Range", range.c_str());
}

// Reads the answer to a ranged GET that was sent: its status, then the bytes at `offset` into
// `buffer`. The bytes read, 0 when none of them exist, or -1 with the failure posted.
std::int64_t ReadAnswer(HINTERNET handle, ContentRangeHeader& content_range,
                        const TqUWideString& url, std::uint64_t offset, std::uint64_t size,
                        unsigned char* buffer) {
  DWORD status = 0;
  if (!detail::QueryStatusCode(handle, &status)) {
    PostReadError(L"HttpFileProtocol::ReadFile HttpQueryInfo Status Code for %s failed: %d", url,
                  static_cast<int>(GetLastError()));
    return -1;
  }
  if (status != 200 && status != 206) {
    PostReadError(L"HttpFileProtocol::ReadFile HttpQueryInfo Unhandled Status Code for %s: %d",
                  url, static_cast<int>(status));
    return -1;
  }
  // The caller asked for the bytes at `offset` and must never get other bytes in their place.
  // So, unlike a plain ranged read that takes whatever body comes, a 206 for another range is
  // a failure, and a 200 (the range ignored, the whole file sent) is read from `offset` on.
  std::uint64_t wanted = size;
  if (status == 206) {
    wanted = CheckedRangeSize(content_range, offset, offset + size - 1);
    if (wanted == 0) {
      TqUError::Post(1, &detail::FileProtocolComponent(),
                     L"HttpFileProtocol::ReadFile HttpQueryInfo Content-Range for %s does not "
                     L"match bytes=%llu-%llu",
                     url.GetString(), static_cast<unsigned long long>(offset),
                     static_cast<unsigned long long>(offset + size - 1));
      return -1;
    }
  } else if (offset > 0 && !SkipBody(handle, offset)) {
    return 0;  // the body ends before the offset: none of the bytes asked for exist
  }
  return static_cast<std::int64_t>(ReadBody(handle, wanted, buffer));
}

}  // namespace

std::int64_t HttpFileProtocol::ReadFileToSize(TqUFileHandle* file, TqUThreadHandle* thread,
                                              TqUFileRequestHandle* request,
                                              std::uint64_t offset, std::uint64_t size,
                                              unsigned char* buffer, std::uint64_t* total_size) {
  if (size == 0) return total_size != nullptr ? -1 : 0;
  // Held for the whole read: a handle released by another thread meanwhile dies afterwards.
  const std::shared_ptr<HttpFileHandle> file_record = HttpFileHandle::From(file);
  const std::shared_ptr<HttpFileThreadHandle> thread_record = HttpFileThreadHandle::From(thread);
  const std::shared_ptr<HttpFileRequestHandle> request_record =
      HttpFileRequestHandle::From(request);
  // A thread or request handle of another file would fetch that file's bytes (its server, its
  // resource) into this file's read.
  if (file_record == nullptr || thread_record == nullptr || request_record == nullptr ||
      !thread_record->Serves(file_record) || !request_record->Serves(file_record)) {
    detail::RefuseHandle(L"ReadFile");
    return -1;
  }
  // The range's last byte must be representable, and the bytes must have somewhere to go.
  if (buffer == nullptr || size - 1 > UINT64_MAX - offset ||
      size > static_cast<std::uint64_t>(INT64_MAX)) {
    TqUError::Post(1, &detail::FileProtocolComponent(),
                   L"HttpFileProtocol::ReadFile invalid buffer or range for %s",
                   file_record->UrlText().GetString());
    SetLastError(ERROR_INVALID_PARAMETER);  // after the post, as for a refused handle
    return -1;
  }
  const TqUWideString& url = file_record->UrlText();
  HttpRequest http_request = FileRequest(*file_record);
  PrepareRangeRequest(http_request, offset, offset + size - 1);
  detail::InternetHandle handle(detail::OpenProtocolRequest(
      thread_record->Connection(), http_request.GetMethod(), request_record->Resource().GetString(),
      thread_record->IsSecure()));
  if (!handle) {
    PostReadError(L"HttpFileProtocol::ReadFile HttpOpenRequest for %s failed: %d", url,
                  static_cast<int>(GetLastError()));
    return 0;
  }

  const std::wstring headers = http_request.FormatHeaders();
  int send_timeouts = 0;
  const auto send = [&] { return detail::SendProtocolRequest(handle.Get(), headers); };
  if (!detail::CallWithTimeouts(send, send_timeouts,
                                L"HttpFileProtocol::ReadFile HttpSendRequest for %s failed: %d",
                                url.GetString())) {
    return -1;
  }
  if (detail::HasConflictingContentLength(handle.Get())) {
    TqUError::Post(1, &detail::FileProtocolComponent(),
                   L"HttpFileProtocol::ReadFile HttpQueryInfo Conflicting Content-Length for %s",
                   url.GetString());
    return -1;
  }
  ContentRangeHeader content_range(handle.Get());
  if (total_size != nullptr && !QueryTotalSize(handle.Get(), content_range, url, total_size)) {
    return -1;
  }
  return ReadAnswer(handle.Get(), content_range, url, offset, size, buffer);
}

bool HttpFileProtocol::ReadFile(TqUFileHandle* file, TqUThreadHandle* thread,
                                TqUFileRequestHandle* request, std::uint64_t offset,
                                std::uint64_t size, unsigned char* buffer) {
  const std::int64_t read = ReadFileToSize(file, thread, request, offset, size, buffer, nullptr);
  if (read < 0) return false;
  if (static_cast<std::uint64_t>(read) == size) return true;
  const std::shared_ptr<HttpFileHandle> record = HttpFileHandle::From(file);
  TqUError::Post(1, &detail::FileProtocolComponent(),
                 L"HttpFileProtocol::ReadFile InternetReadFile partial data for %s: %d",
                 record != nullptr ? record->UrlText().GetString() : L"",
                 static_cast<int>(GetLastError()));
  return false;
}

}  // namespace qv::net
