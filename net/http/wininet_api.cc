#include "net/http/wininet_api.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <optional>
#include <vector>

#include "net/host/platform.h"
#include "net/http/header_number.h"
#include "net/http/send_watch.h"

namespace qv::net {
namespace detail {
namespace {

// WinINet measures buffers in bytes, a character counting sizeof(wchar_t) of them (2 on
// Windows, 4 on Linux). Sizes here are in characters and become bytes only at the call, so
// both systems accept the same text.
constexpr DWORD kFirstBufferChars = 8;

DWORD BytesOf(std::size_t chars) { return static_cast<DWORD>(chars * sizeof(wchar_t)); }

std::vector<wchar_t> MakeBuffer(DWORD length_in_bytes) {
  // Rounded up, and never smaller than a SYSTEMTIME, whatever length the call is given: a
  // WinINet that writes a binary result (a DWORD, a SYSTEMTIME) without checking the length
  // against it then still writes inside the buffer, and the result is read from inside it.
  const std::size_t bytes = std::max<std::size_t>(length_in_bytes, sizeof(SYSTEMTIME));
  return std::vector<wchar_t>((bytes + sizeof(wchar_t) - 1) / sizeof(wchar_t), L'\0');
}

void CopyName(std::vector<wchar_t>& buffer, const std::wstring& name) {
  // A buffer too short for the name stays zeroed: nothing is written past its end.
  if (buffer.size() >= name.size() + 1) {
    std::copy(name.begin(), name.end(), buffer.begin());
    buffer[name.size()] = L'\0';
  }
}

}  // namespace

std::uint32_t HeaderLevel(const HttpHeaderSelector& header) {
  if (header.index() != 0) {
    (void)std::get<1>(header);  // throws bad_variant_access for a valueless selector
    return 0;
  }
  switch (std::get<0>(header)) {
    case HttpHeader::ContentLength: return HTTP_QUERY_CONTENT_LENGTH;
    case HttpHeader::ETag: return HTTP_QUERY_ETAG;
    case HttpHeader::RawHeaders: return HTTP_QUERY_RAW_HEADERS_CRLF;
    case HttpHeader::RetryAfter: return HTTP_QUERY_RETRY_AFTER;
  }
  return 0;  // WinINet reads level 0 as its MIME-Version header
}

bool QueryInfo(void* request, std::uint32_t level, const std::wstring* name,
               QueryInfoResult& result, std::uint32_t* index_in_out) {
  // DWORD and std::uint32_t are distinct types on Windows: go through a DWORD.
  DWORD index_value = index_in_out != nullptr ? *index_in_out : 0;
  DWORD* index = index_in_out != nullptr ? &index_value : nullptr;
  struct WriteBack {
    std::uint32_t* out;
    DWORD* value;
    ~WriteBack() {
      if (out != nullptr) *out = *value;
    }
  } write_back{index_in_out, &index_value};

  if (name == nullptr && (level & HTTP_QUERY_FLAG_NUMBER) != 0) {
    DWORD value = 0;
    DWORD length = sizeof(value);
    if (!HttpQueryInfoW(request, level, &value, &length, index)) return false;
    result = static_cast<std::uint32_t>(value);
    return true;
  }

  DWORD length = BytesOf(kFirstBufferChars);
  if (name != nullptr) {
    level |= HTTP_QUERY_CUSTOM;
    length = BytesOf(name->size() + 1);
  }
  std::vector<wchar_t> buffer = MakeBuffer(length);
  if (name != nullptr) CopyName(buffer, *name);

  for (DWORD asked = length; !HttpQueryInfoW(request, level, buffer.data(), &length, index);
       asked = length) {
    if (GetLastError() != ERROR_INSUFFICIENT_BUFFER) return false;  // absent, or another error
    // Asked again only with more room than the last call had: a length that does not grow
    // would be asked for ever.
    if (length <= asked) return false;
    buffer = MakeBuffer(length);
    if (name != nullptr) CopyName(buffer, *name);
  }

  if ((level & HTTP_QUERY_FLAG_NUMBER) != 0) {
    std::uint32_t value = 0;
    std::memcpy(&value, buffer.data(), sizeof(value));
    result = value;
  } else if ((level & HTTP_QUERY_FLAG_SYSTEMTIME) != 0) {
    SYSTEMTIME system_time{};
    std::memcpy(&system_time, buffer.data(), sizeof(system_time));
    FILETIME file_time{};
    if (!SystemTimeToFileTime(&system_time, &file_time)) return false;  // no value for a bad date
    const std::uint64_t ticks =
        (static_cast<std::uint64_t>(file_time.dwHighDateTime) << 32) | file_time.dwLowDateTime;
    result = TqUSysTime::FromFileTime(ticks);
  } else {
    // The reported length leaves out the terminator, and so does the text: a terminator kept in
    // it would travel as part of the value, and an entity tag would reach callers and the cache
    // with a NUL the server never sent.
    const std::size_t units = std::min<std::size_t>(length / sizeof(wchar_t), buffer.size());
    result = std::wstring(buffer.data(), units);
  }
  return true;
}

}  // namespace detail

WinInet::~WinInet() = default;

void* WinInet::OpenInternet(const wchar_t* user_agent) {
  return InternetOpenW(user_agent, INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0);
}

void* WinInet::Connect(void* internet, const TqUURL& url) {
  HINTERNET connection =
      InternetConnectW(internet, url.GetHostName(), url.GetPort(), url.GetUserNameW(),
                       url.GetPassword(), INTERNET_SERVICE_HTTP, 0, 0);
  if (connection == nullptr) {
    const DWORD error = GetLastError();
    TqUError::LogWideString(L"WinInet: InternetConnect(");
    TqUError::LogWideString(url.GetHostName());
    TqUError::LogWideString(L") failed with code ");
    TqUError::LogNat64(error);
    TqUError::LogWideString(L"\n");
    return nullptr;
  }
  DWORD max_connections = MaxNumConnectionsPerServer();
  if (!InternetSetOptionW(connection, INTERNET_OPTION_MAX_CONNS_PER_SERVER, &max_connections,
                          sizeof(max_connections))) {
    const DWORD error = GetLastError();
    TqUSysError::LogUTF8String("WinInet: InternetSetOption(INTERNET_OPTION_MAX_CONNS_PER_SERVER, ");
    TqUError::LogNat64(max_connections);
    TqUSysError::LogUTF8String(") failed with code ");
    TqUError::LogNat64(error);
    TqUSysError::LogUTF8String("\n");
  }
  return connection;
}

void* WinInet::SendRequest(void* connection, const HttpRequest& request,
                           const wchar_t** accept_types, bool& sent) {
  sent = false;
  const TqUURL& url = request.GetUrl();
  DWORD flags = INTERNET_FLAG_KEEP_CONNECTION | INTERNET_FLAG_NO_CACHE_WRITE;
  if (TqUSysURL::IsSecureProtocol(url.GetScheme())) flags |= INTERNET_FLAG_SECURE;
  // Formatted first: nothing may throw between opening the handle and handing it back.
  const std::wstring headers = request.FormatHeaders();
  HINTERNET handle = HttpOpenRequestW(connection, request.GetMethodStr(), url.GetResource(),
                                      nullptr, nullptr, accept_types, flags, 0);
  if (handle == nullptr) return nullptr;
  // The send blocks until the response headers are in. A stop requested meanwhile closes the
  // handle from the watcher thread, which is how WinINet cancels a blocked call.
  detail::SendWatch watch(handle, [](void* request_handle) { InternetCloseHandle(request_handle); });
  const bool ok = HttpSendRequestW(handle, headers.c_str(), static_cast<DWORD>(headers.size()),
                                   nullptr, 0) != FALSE;
  // Cancelled, possibly just as the send succeeded: the handle is closed already, and a request
  // that was stopped hands back no request.
  if (watch.Cancelled()) return nullptr;
  sent = ok;
  try {
    std::lock_guard lock(m_bodies_mutex);
    m_bodies[handle] = Body{request.GetMethod() != HttpMethod::Head, 0};
  } catch (const std::bad_alloc&) {
    // Not counted: the end of this body is taken as WinINet reports it.
  }
  return handle;
}

std::uint32_t WinInet::QueryStatusCode(void* request) {
  detail::QueryInfoResult result;
  if (detail::QueryInfo(request, HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, nullptr, result,
                        nullptr) &&
      result.index() == 1) {
    return std::get<1>(result);
  }
  return 0;
}

namespace {

// Runs the shared query for a selector with `modifier` added, and picks the wanted alternative.
template <std::size_t Alternative>
auto QuerySelector(void* request, const HttpHeaderSelector& header, std::uint32_t modifier,
                   std::uint32_t* index)
    -> std::optional<std::variant_alternative_t<Alternative, detail::QueryInfoResult>> {
  const std::uint32_t level = detail::HeaderLevel(header) | modifier;
  const std::wstring* name = header.index() == 1 ? &std::get<1>(header) : nullptr;
  detail::QueryInfoResult result;
  if (detail::QueryInfo(request, level, name, result, index) && result.index() == Alternative) {
    return std::get<Alternative>(std::move(result));
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::wstring> WinInet::QueryHeader(void* request, const HttpHeaderSelector& header,
                                                 std::uint32_t* index) {
  return QuerySelector<0>(request, header, 0, index);
}

std::optional<std::uint32_t> WinInet::QueryHeaderNumeric(void* request,
                                                         const HttpHeaderSelector& header,
                                                         std::uint32_t* index) {
  return QuerySelector<1>(request, header, HTTP_QUERY_FLAG_NUMBER, index);
}

std::optional<std::int64_t> WinInet::QueryHeaderDateTime(void* request,
                                                         const HttpHeaderSelector& header,
                                                         std::uint32_t* index) {
  return QuerySelector<2>(request, header, HTTP_QUERY_FLAG_SYSTEMTIME, index);
}

namespace {

// True when the answer on `request` names a length that `received` bytes fall short of. Not for
// an answer that has no body (1xx, 204, 304), nor one framed by a transfer coding, whose length
// is not its body's. A content coding changes nothing: decoding is never turned on, so the bytes
// read are the bytes the length counts.
bool FallsShortOfLength(HINTERNET request, std::uint64_t received) {
  detail::QueryInfoResult result;
  if (!detail::QueryInfo(request, HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, nullptr, result,
                         nullptr)) {
    return false;
  }
  const std::uint32_t status = std::get<1>(result);
  if (status < 200 || status == 204 || status == 304) return false;
  if (detail::QueryInfo(request, HTTP_QUERY_TRANSFER_ENCODING, nullptr, result, nullptr) ||
      !detail::QueryInfo(request, HTTP_QUERY_CONTENT_LENGTH, nullptr, result, nullptr)) {
    return false;
  }
  const std::optional<std::uint64_t> announced = detail::ParseHeaderNumber(std::get<0>(result));
  return announced && received < *announced;
}

}  // namespace

bool WinInet::Read(void* request, void* buffer, std::uint32_t size, std::uint32_t& bytes_read) {
  DWORD read = 0;
  const bool ok = InternetReadFile(request, buffer, size, &read) != FALSE;
  bytes_read = read;
  if (!ok || size == 0) return ok;
  std::optional<Body> body;
  {
    std::lock_guard lock(m_bodies_mutex);
    if (auto it = m_bodies.find(request); it != m_bodies.end()) {
      it->second.received += read;
      body = it->second;
    }
  }
  // WinINet may end a body the server cut short as it ends a whole one (TRUE, no bytes): that
  // must not pass for the end, or half a body is served and cached as the whole.
  if (read == 0 && body && body->expected && FallsShortOfLength(request, body->received)) {
    SetLastError(ERROR_INTERNET_CONNECTION_ABORTED);
    return false;
  }
  return true;
}

bool WinInet::CloseHandle(void* handle) {
  {
    std::lock_guard lock(m_bodies_mutex);
    m_bodies.erase(handle);
  }
  return InternetCloseHandle(handle) != FALSE;
}

}  // namespace qv::net
