// Helpers for tests that drive the WinINet layer: handles closed by scope, and short forms of
// the calls tests repeat.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/wininet.h"

namespace tq::test {

struct CloseInternetHandle {
  void operator()(HINTERNET handle) const { InternetCloseHandle(handle); }
};

// An HINTERNET closed when it goes out of scope.
class Handle : public std::unique_ptr<std::remove_pointer_t<HINTERNET>, CloseInternetHandle> {
 public:
  using unique_ptr::unique_ptr;
  void Reset() { reset(); }
  HINTERNET Release() { return release(); }
};

inline Handle OpenSession() {
  return Handle(InternetOpenW(L"tqnetwork-test", INTERNET_OPEN_TYPE_DIRECT, nullptr, nullptr, 0));
}

inline Handle Connect(const Handle& session, int port, const wchar_t* host = L"127.0.0.1") {
  return Handle(InternetConnectW(session.get(), host, static_cast<INTERNET_PORT>(port), nullptr,
                                 nullptr, INTERNET_SERVICE_HTTP, 0, 0));
}

inline bool SetDword(HINTERNET handle, DWORD option, DWORD value) {
  return InternetSetOptionW(handle, option, &value, sizeof value) != FALSE;
}

inline std::wstring Wide(std::string_view text) { return std::wstring(text.begin(), text.end()); }

inline Handle OpenRequest(const Handle& connection, const std::wstring& path,
                          const wchar_t* verb = L"GET", DWORD flags = 0) {
  const wchar_t* accept[] = {L"*/*", nullptr};
  return Handle(
      HttpOpenRequestW(connection.get(), verb, path.c_str(), nullptr, nullptr, accept, flags, 0));
}

inline bool Send(const Handle& request, const std::wstring& headers = L"",
                 std::string_view body = {}) {
  return HttpSendRequestW(request.get(), headers.empty() ? nullptr : headers.c_str(),
                          static_cast<DWORD>(headers.size()),
                          body.empty() ? nullptr : const_cast<char*>(body.data()),
                          static_cast<DWORD>(body.size())) != FALSE;
}

// Reads the body to its end with reads of `chunk` bytes. On failure returns false with the
// bytes read so far in *body and GetLastError() from the failing read.
inline bool ReadAll(const Handle& request, std::string* body, DWORD chunk = 4096) {
  body->clear();
  std::string buffer(chunk, '\0');
  for (;;) {
    DWORD got = 0;
    if (!InternetReadFile(request.get(), buffer.data(), chunk, &got)) return false;
    if (got == 0) return true;
    body->append(buffer.data(), got);
  }
}

inline DWORD StatusCode(const Handle& request) {
  DWORD status = 0;
  DWORD length = sizeof status;
  if (!HttpQueryInfoW(request.get(), HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, &status,
                      &length, nullptr)) {
    return 0;
  }
  return status;
}

// The header's text as a narrow string (ASCII tests), or "<absent>" / "<error N>". `name` is
// the header's name for HTTP_QUERY_CUSTOM.
inline std::string QueryText(const Handle& request, DWORD level, DWORD* index = nullptr,
                             const std::wstring& name = L"") {
  wchar_t buffer[4096] = {};
  name.copy(buffer, name.size());
  DWORD length = sizeof buffer / sizeof buffer[0] * 2;
  if (!HttpQueryInfoW(request.get(), level, buffer, &length, index)) {
    const DWORD error = GetLastError();
    return error == ERROR_HTTP_HEADER_NOT_FOUND ? "<absent>"
                                                : "<error " + std::to_string(error) + ">";
  }
  std::string out;
  for (DWORD i = 0; i < length / 2; ++i) out.push_back(static_cast<char>(buffer[i]));
  return out;
}

inline std::string CustomHeader(const Handle& request, const std::wstring& name) {
  return QueryText(request, HTTP_QUERY_CUSTOM, nullptr, name);
}

}  // namespace tq::test
