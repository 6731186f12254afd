// InternetSetOptionW: the settings a process, a session, a connection or a request holds.
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/fault_injection.h"
#include "platform/wide_text.h"
#include "platform/wininet_request.h"
#include "platform/wininet_session.h"

namespace tqplatform {

namespace {

std::string ReadWideOption(const void* buffer, DWORD length_in_chars) {
  const auto* text = static_cast<const wchar_t*>(buffer);
  std::size_t n = 0;
  while (n < length_in_chars && text[n] != L'\0') ++n;
  return WideToUtf8(std::wstring_view(text, n));
}

SettingsHolder& SettingsOf(InternetObject& object) {
  if (object.kind() == HandleKind::kSession) return static_cast<Session&>(object).settings();
  if (object.kind() == HandleKind::kConnection) {
    return static_cast<Connection&>(object).settings();
  }
  return static_cast<Request&>(object).settings();
}

bool IsStringOption(DWORD option) {
  switch (option) {
    case INTERNET_OPTION_USERNAME:
    case INTERNET_OPTION_PASSWORD:
    case INTERNET_OPTION_PROXY_USERNAME:
    case INTERNET_OPTION_PROXY_PASSWORD:
    case INTERNET_OPTION_USER_AGENT:
      return true;
    default:
      return false;
  }
}

// Credentials are a connection's or a request's: set without a handle, they would be answered to
// every server's challenge in the process.
bool IsCredentialOption(DWORD option) {
  return option == INTERNET_OPTION_USERNAME || option == INTERNET_OPTION_PASSWORD ||
         option == INTERNET_OPTION_PROXY_USERNAME || option == INTERNET_OPTION_PROXY_PASSWORD;
}

// String options: the length counts characters, as InternetSetOptionW documents.
DWORD SetStringOption(SettingsHolder* target, DWORD option, const void* buffer,
                      DWORD buffer_length) {
  std::string text = ReadWideOption(buffer, buffer_length);
  if ((option == INTERNET_OPTION_USER_AGENT || option == INTERNET_OPTION_USERNAME ||
       option == INTERNET_OPTION_PROXY_USERNAME) &&
      !FitsOneLine(text)) {
    return ERROR_INVALID_PARAMETER;
  }
  target->Update([&](Settings& s) {
    switch (option) {
      case INTERNET_OPTION_USERNAME: s.user = std::move(text); break;
      case INTERNET_OPTION_PASSWORD: s.password = std::move(text); break;
      case INTERNET_OPTION_PROXY_USERNAME: s.proxy_user = std::move(text); break;
      case INTERNET_OPTION_PROXY_PASSWORD: s.proxy_password = std::move(text); break;
      default: s.agent = std::move(text); break;
    }
  });
  return ERROR_SUCCESS;
}

// The option's field in the settings; null for options that are not numbers.
std::optional<DWORD> Settings::*DwordField(DWORD option) {
  switch (option) {
    case INTERNET_OPTION_MAX_CONNS_PER_SERVER: return &Settings::max_conns;
    case INTERNET_OPTION_CONNECT_TIMEOUT: return &Settings::connect_timeout;
    case INTERNET_OPTION_SEND_TIMEOUT:
    case INTERNET_OPTION_DATA_SEND_TIMEOUT: return &Settings::send_timeout;
    case INTERNET_OPTION_RECEIVE_TIMEOUT:
    case INTERNET_OPTION_DATA_RECEIVE_TIMEOUT: return &Settings::receive_timeout;
    case INTERNET_OPTION_CONNECT_RETRIES: return &Settings::connect_retries;
    default: return nullptr;
  }
}

// Wakes the requests waiting for a slot on the connections under `object` (null: the process).
void WakeSlotWaiters(InternetObject* object) {
  if (object == nullptr) {
    for (const auto& session : LiveSessions()) WakeSlotWaiters(session.get());
  } else if (object->kind() == HandleKind::kConnection) {
    static_cast<Connection*>(object)->WakeWaiters();
  } else if (object->kind() == HandleKind::kSession) {
    for (const auto& child : object->Children()) WakeSlotWaiters(child.get());
  }
}

DWORD SetDwordOption(SettingsHolder* target, InternetObject* object, DWORD option,
                     const void* buffer, DWORD buffer_length) {
  const auto field = DwordField(option);
  if (field == nullptr) return ERROR_INTERNET_INVALID_OPTION;
  const bool max_conns = option == INTERNET_OPTION_MAX_CONNS_PER_SERVER;
  if (max_conns && object != nullptr && object->kind() == HandleKind::kRequest) {
    return ERROR_INTERNET_INCORRECT_HANDLE_TYPE;
  }
  // The connection bound takes exactly one DWORD, and refuses 0 as a bad argument, as WinINet
  // does; the time-outs read the first DWORD of a longer buffer.
  if (buffer_length < sizeof(DWORD) || (max_conns && buffer_length != sizeof(DWORD))) {
    return ERROR_INTERNET_BAD_OPTION_LENGTH;
  }
  DWORD value = 0;
  std::memcpy(&value, buffer, sizeof(DWORD));
  if (max_conns && value == 0) return ERROR_BAD_ARGUMENTS;
  target->Update([&](Settings& s) { s.*field = value; });
  // Requests waiting for a slot see a raised bound at once, wherever it was set: on their
  // connection, its session, or the process.
  if (max_conns) WakeSlotWaiters(object);
  return ERROR_SUCCESS;
}

}  // namespace

}  // namespace tqplatform

using namespace tqplatform;

extern "C" {

BOOL InternetSetOptionW(HINTERNET internet, DWORD option, LPVOID buffer, DWORD buffer_length) {
  return Guarded(FALSE, [&]() -> BOOL {
    if (DWORD fault = TakeInjectedFault("InternetSetOptionW")) return Fail(fault);
    SettingsHolder* target = &ProcessSettings();
    std::shared_ptr<InternetObject> object;
    if (internet != nullptr) {
      object = LookupAnyHandle(internet);
      if (object == nullptr) return Fail(ERROR_INVALID_HANDLE);
      target = &SettingsOf(*object);
    } else if (IsCredentialOption(option)) {
      return Fail(ERROR_INTERNET_INCORRECT_HANDLE_TYPE);
    }
    if (buffer == nullptr) return Fail(ERROR_INVALID_PARAMETER);
    const DWORD error = IsStringOption(option)
                            ? SetStringOption(target, option, buffer, buffer_length)
                            : SetDwordOption(target, object.get(), option, buffer, buffer_length);
    return error == ERROR_SUCCESS ? TRUE : Fail(error);
  });
}

}  // extern "C"
