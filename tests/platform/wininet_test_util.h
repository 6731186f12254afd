// Short forms of the WinINet calls the platform tests repeat; handles close with their scope.
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
using Handle = std::unique_ptr<std::remove_pointer_t<HINTERNET>, CloseInternetHandle>;

inline Handle OpenSession() {
  return Handle(InternetOpenW(L"tqnetwork-test", INTERNET_OPEN_TYPE_DIRECT, nullptr, nullptr, 0));
}

inline Handle Connect(const Handle& session, int port) {
  return Handle(InternetConnectW(session.get(), L"127.0.0.1", static_cast<INTERNET_PORT>(port),
                                 nullptr, nullptr, INTERNET_SERVICE_HTTP, 0, 0));
}

inline bool SetDword(HINTERNET handle, DWORD option, DWORD value) {
  return InternetSetOptionW(handle, option, &value, sizeof value) != FALSE;
}

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

// On failure *body holds what arrived and GetLastError() is the failing read's.
inline bool ReadAll(const Handle& request, std::string* body, DWORD chunk = 4096) {
  body->clear();
  std::string buffer(chunk, '\0');
  for (DWORD got = 1; got != 0; body->append(buffer.data(), got)) {
    if (!InternetReadFile(request.get(), buffer.data(), chunk, &got)) return false;
  }
  return true;
}

// The whole body of a request sent on `connection`, or "error N" with the failing call's error.
inline std::string Fetch(const Handle& connection, const std::wstring& path,
                         const wchar_t* verb = L"GET", const std::wstring& lines = L"",
                         std::string_view body = {}, DWORD flags = 0) {
  Handle request = OpenRequest(connection, path, verb, flags);
  std::string got;
  if (!Send(request, lines, body) || !ReadAll(request, &got)) {
    return "error " + std::to_string(GetLastError());
  }
  return got;
}

// 0 when `call` succeeds, else the error it set.
template <typename Call>
DWORD ErrorOf(Call call) {
  SetLastError(0);
  return call() ? DWORD{0} : GetLastError();
}

// ASCII header text; `name` for HTTP_QUERY_CUSTOM.
inline std::string QueryText(const Handle& request, DWORD level, const std::wstring& name = L"") {
  wchar_t buffer[4096] = {};
  name.copy(buffer, name.size());
  DWORD length = sizeof buffer;
  if (!HttpQueryInfoW(request.get(), level, buffer, &length, nullptr)) return "<absent>";
  return std::string(buffer, buffer + length / sizeof(wchar_t));
}

inline DWORD StatusCode(const Handle& request) {
  return static_cast<DWORD>(std::stoul("0" + QueryText(request, HTTP_QUERY_STATUS_CODE)));
}

}  // namespace tq::test
