// File information: size, modification time and revision of a remote file from a HEAD request
// (a GET of two bytes when HEAD is refused), remembered per URL text.
#include <optional>

#include "net/fileprotocol/auth_hooks.h"
#include "net/fileprotocol/http_file_protocol.h"
#include "net/fileprotocol/protocol_internal.h"
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
    if (const std::optional<std::uint64_t> size = qv::ParseDecimal(text.View())) {
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

  Attempt state = Attempt::Stop;
  int open_timeouts = 0;
  bool open_again = false;
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
    int bad_gateways = 0;
    open_again = false;

    for (;;) {
      if (!detail::SendProtocolRequest(handle.Get(), request.FormatHeaders())) {
        Post(1, L"HttpFileProtocol::GetFileInfo HttpSendRequest for %s failed: %d", url,
             static_cast<int>(GetLastError()));
        break;
      }
      DWORD status = 0;
      if (!detail::QueryStatusCode(handle.Get(), &status)) {
        Post(1, L"HttpFileProtocol::GetFileInfo HttpQueryInfo Status Code for %s failed: %d", url,
             static_cast<int>(GetLastError()));
        state = Attempt::Stop;
      } else if (status == 200 || status == 206) {
        state = GatherInfo(handle.Get(), status, url, info);
      } else if (status == 405) {
        // HEAD refused: ask for the first two bytes instead, on a new request.
        if (request.GetMethod() == HttpMethod::Head) {
          request.SetMethod(HttpMethod::Get);
          request.AddHeader(L"Range", L"bytes=0-1");
          open_again = true;
        }
        state = Attempt::Stop;
      } else if (status == 401 || status == 407) {
        if (state == Attempt::CredentialsSet) {
          state = Attempt::Stop;
        } else {
          HttpCredentials credentials;
          const PreHTTPAuthenticationResult answer = PreHTTPAuthentication(url, &credentials);
          if (answer == CredentialsSupplied) {
            detail::ApplyCredentials(connection.Get(), status, credentials);
            state = Attempt::CredentialsSet;
          } else {
            // NoCredentials, and any value outside the enumeration: give up rather than resend
            // without bound.
            state = Attempt::Stop;
          }
        }
      } else if (status == 502) {
        state = ++bad_gateways <= kMaxBadGateways ? Attempt::SendAgain : Attempt::Stop;
      } else {
        Post(5, L"HttpFileProtocol::GetFileInfo HttpQueryInfo Unhandled Status Code for %s: %d",
             url, static_cast<int>(status));
        state = Attempt::Stop;
      }
      if (state == Attempt::Done || state == Attempt::Stop) break;
    }
  } while (open_again);

  if (state != Attempt::Done) return false;
  m_file_info_cache.Add(url, *info);
  return true;
}

}  // namespace qv::net
