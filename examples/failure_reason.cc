#include "failure_reason.h"

#include <cstdint>
#include <memory>
#include <type_traits>

#include "net/http/http_error_text.h"
#include "platform/wininet.h"
#include "tqutil/strings.h"
#include "tqutil/url.h"

namespace tqfetch {
namespace {

struct HandleCloser {
  void operator()(void* handle) const { InternetCloseHandle(static_cast<HINTERNET>(handle)); }
};
using Handle = std::unique_ptr<std::remove_pointer_t<HINTERNET>, HandleCloser>;

// What the exchange gave: a WinINet error, or 0 and the response's status.
struct Outcome {
  DWORD error = 0;
  int status = 0;
};

Outcome Failed() { return Outcome{GetLastError(), 0}; }

Outcome Ask(const TqUURL& url) {
  // The library's handles run with WinINet's default time-outs; so does this one, so that a
  // time-out here means what it meant there.
  const Handle internet(
      InternetOpenW(L"tqfetch", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0));
  if (!internet) return Failed();
  const Handle connection(InternetConnectW(internet.get(), url.GetHostName(), url.GetPort(),
                                           url.GetUserNameW(), url.GetPassword(),
                                           INTERNET_SERVICE_HTTP, 0, 0));
  if (!connection) return Failed();
  DWORD flags = INTERNET_FLAG_RELOAD | INTERNET_FLAG_NO_CACHE_WRITE | INTERNET_FLAG_NO_UI;
  if (TqUSysURL::IsSecureProtocol(url.GetScheme())) flags |= INTERNET_FLAG_SECURE;
  const Handle request(HttpOpenRequestW(connection.get(), L"GET", url.GetResource(), nullptr,
                                        nullptr, nullptr, flags, 0));
  if (!request) return Failed();
  if (!HttpSendRequestW(request.get(), nullptr, 0, nullptr, 0)) return Failed();
  DWORD status = 0;
  DWORD length = sizeof status;
  if (!HttpQueryInfoW(request.get(), HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, &status,
                      &length, nullptr)) {
    return Failed();
  }
  return Outcome{0, static_cast<int>(status)};
}

}  // namespace

std::string FailureReason(const std::string& url_text) {
  const TqUURL url(qv::Utf8ToWide(url_text).c_str(), true);
  const std::wstring scheme = url.IsValid() ? url.GetScheme() : L"";
  if (scheme != L"http" && scheme != L"https") return {};
  const Outcome outcome = Ask(url);
  if (outcome.error == 0 && outcome.status >= 200 && outcome.status < 400) return {};
  return qv::net::HttpErrorText(outcome.error, outcome.status);
}

}  // namespace tqfetch
