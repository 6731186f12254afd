// File information: size, modification time and revision of a remote file from a HEAD request
// (a GET of two bytes when HEAD is refused), remembered per URL text.
#include <optional>

#include "net/fileprotocol/auth_hooks.h"
#include "net/fileprotocol/http_file_protocol.h"
#include "net/fileprotocol/protocol_internal.h"
#include "net/http/header_number.h"
#include "net/http/request_handler.h"

namespace qv::net {
namespace {

constexpr int kMaxBadGateways = 3;  // resent after each; the next one ends the call

// Where one call stands after an answer.
enum class Attempt {
  Done = 0,           // information found
  CredentialsSet = 1, // credentials applied: send again; another 401/407 ends the call
  SendAgain = 2,      // after a 502
  Stop = 3,           // nothing (more) to try; also the state before the first answer
};

void Post(int severity, const wchar_t* format, const wchar_t* url, int value) {
  TqUError::Post(severity, &detail::FileProtocolComponent(), format, url, value);
}

// Fills `info` from a 200 or 206 answer; Done when any of size, revision or time was found.
// An answer with two different lengths tells nothing reliable: Stop, and nothing is kept.
Attempt GatherInfo(HINTERNET request, DWORD status, const wchar_t* url, TqUFileInfo* info) {
  if (detail::HasConflictingContentLength(request)) {
    TqUError::Post(1, &detail::FileProtocolComponent(),
                   L"HttpFileProtocol::GetFileInfo HttpQueryInfo Conflicting Content-Length for %s",
                   url);
    return Attempt::Stop;
  }
  Attempt state = Attempt::Stop;
  TqUWideString text;
  if (status == 206) {
    std::uint64_t length = 0;
    if (QueryHeaderText(request, HTTP_QUERY_CONTENT_RANGE, &text) &&
        detail::ParseContentRangeLength(text, &length)) {
      info->SetFileSize(length);
      state = Attempt::Done;
    }
  } else if (QueryHeaderText(request, HTTP_QUERY_CONTENT_LENGTH, &text)) {
    // Anything but digits (a sign, junk, a value past 64 bits) is no size.
    if (const std::optional<std::uint64_t> size = detail::ParseHeaderNumber(text.View())) {
      info->SetFileSize(*size);
      state = Attempt::Done;
    }
  }
  if (QueryHeaderText(request, HTTP_QUERY_ETAG, &text)) {
    info->SetFileRevisionId(text.GetString());
    state = Attempt::Done;
  }
  SYSTEMTIME modified = {};
  DWORD length = sizeof(modified);
  FILETIME file_time = {};
  if (HttpQueryInfoW(request, HTTP_QUERY_LAST_MODIFIED | HTTP_QUERY_FLAG_SYSTEMTIME, &modified,
                     &length, nullptr) &&
      SystemTimeToFileTime(&modified, &file_time)) {
    const std::uint64_t ticks =
        (static_cast<std::uint64_t>(file_time.dwHighDateTime) << 32) | file_time.dwLowDateTime;
    info->SetFileModificationTime(TqUSysTime::FromFileTime(ticks));
    state = Attempt::Done;
  }
  return state;
}

// One GetFileInfo call across the requests it opens and the answers it gets.
class InfoCall {
 public:
  InfoCall(const wchar_t* url, TqUFileInfo* info, HttpRequest& request, HINTERNET connection)
      : m_url(url), m_info(info), m_request(request), m_connection(connection) {}

  // Sends on `request` until the information is found or this request has nothing more to try.
  void Exchange(HINTERNET request) {
    int bad_gateways = 0;
    m_open_again = false;
    for (;;) {
      if (!detail::SendProtocolRequest(request, m_request.FormatHeaders())) {
        Post(1, L"HttpFileProtocol::GetFileInfo HttpSendRequest for %s failed: %d", m_url,
             static_cast<int>(GetLastError()));
        return;
      }
      DWORD status = 0;
      if (!detail::QueryStatusCode(request, &status)) {
        Post(1, L"HttpFileProtocol::GetFileInfo HttpQueryInfo Status Code for %s failed: %d",
             m_url, static_cast<int>(GetLastError()));
        m_state = Attempt::Stop;
      } else {
        m_state = Judge(request, status, bad_gateways);
      }
      if (m_state == Attempt::Done || m_state == Attempt::Stop) return;
    }
  }

  bool Found() const { return m_state == Attempt::Done; }
  // A HEAD was refused: the call goes on with a GET of two bytes on a new request.
  bool OpenAgain() const { return m_open_again; }

 private:
  Attempt Judge(HINTERNET request, DWORD status, int& bad_gateways) {
    switch (status) {
      case 200:
      case 206:
        return GatherInfo(request, status, m_url, m_info);
      case 405:
        if (m_request.GetMethod() == HttpMethod::Head) {
          m_request.SetMethod(HttpMethod::Get);
          m_request.AddHeader(L"Range", L"bytes=0-1");
          m_open_again = true;
        }
        return Attempt::Stop;
      case 401:
      case 407:
        return Authenticate(status);
      case 502:
        return ++bad_gateways <= kMaxBadGateways ? Attempt::SendAgain : Attempt::Stop;
      default:
        Post(5, L"HttpFileProtocol::GetFileInfo HttpQueryInfo Unhandled Status Code for %s: %d",
             m_url, static_cast<int>(status));
        return Attempt::Stop;
    }
  }

  // Credentials are asked for once; a second 401/407 after them ends the call.
  Attempt Authenticate(DWORD status) {
    if (m_state == Attempt::CredentialsSet) return Attempt::Stop;
    HttpCredentials credentials;
    // NoCredentials, and any value outside the enumeration: give up rather than resend without
    // bound.
    if (HttpFileProtocol::PreHTTPAuthentication(m_url, &credentials) !=
        HttpFileProtocol::CredentialsSupplied) {
      return Attempt::Stop;
    }
    detail::ApplyCredentials(m_connection, status, credentials);
    return Attempt::CredentialsSet;
  }

  const wchar_t* m_url;
  TqUFileInfo* m_info;
  HttpRequest& m_request;
  HINTERNET m_connection;
  Attempt m_state = Attempt::Stop;
  bool m_open_again = false;
};

}  // namespace

bool HttpFileProtocol::GetFileInfo(const wchar_t* url, TqUFileInfo* info) {
  if (url == nullptr || info == nullptr) return false;
  if (m_file_info_cache.Lookup(url, info)) return true;
  TqUURL parsed(url, false);
  if (!parsed.IsValid()) return false;
  parsed.Normalize();
  if (!OpenInetHandle()) return false;

  HttpRequest request(url, HttpMethod::Head);
  HttpRequestHandlerManager::HandlePreRequest(request);
  const bool secure = TqUWideString::Equal(parsed.GetScheme(), L"https");

  detail::InternetHandle connection;
  int connect_timeouts = 0;
  const auto connect = [&] {
    connection.Reset(InternetConnectW(m_internet.load(std::memory_order_acquire),
                                      parsed.GetHostName(), parsed.GetPort(),
                                      parsed.GetUserNameW(), parsed.GetPassword(),
                                      INTERNET_SERVICE_HTTP, 0, 0));
    return static_cast<bool>(connection);
  };
  if (!detail::CallWithTimeouts(connect, connect_timeouts,
                                L"HttpFileProtocol::GetFileInfo InternetConnect for %s failed: %d",
                                url)) {
    return false;
  }

  // Gathered afresh: what the caller's object held before (another file's tag, say) must
  // neither come back as this file's nor be kept for it.
  TqUFileInfo found;
  InfoCall call(url, &found, request, connection.Get());
  int open_timeouts = 0;
  do {
    detail::InternetHandle handle;
    const auto open = [&] {
      handle.Reset(detail::OpenProtocolRequest(connection.Get(), request.GetMethod(),
                                               parsed.GetResource(), secure));
      return static_cast<bool>(handle);
    };
    if (!detail::CallWithTimeouts(open, open_timeouts,
                                  L"HttpFileProtocol::GetFileInfo InternetOpen for %s failed: %d",
                                  url)) {
      return false;
    }
    call.Exchange(handle.Get());
  } while (call.OpenAgain());

  if (!call.Found()) return false;
  m_file_info_cache.Add(url, found);
  *info = found;
  return true;
}

}  // namespace qv::net
