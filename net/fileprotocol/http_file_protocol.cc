#include "net/fileprotocol/http_file_protocol.h"

#include <cstring>
#include <cwchar>
#include <memory>
#include <vector>

#include "net/fileprotocol/file_handles.h"
#include "net/fileprotocol/protocol_internal.h"

namespace qv::net {
namespace {

constexpr const wchar_t* kDefaultUserAgent = qv::kUserAgentWide;

// WinINet counts the length in bytes, sizeof(wchar_t) of them a character, so the count in
// characters is the same on every system.
constexpr DWORD kBytesPerChar = sizeof(wchar_t);

// Releases a handle this protocol handed out. Null is nothing to release; a handle released
// already, or any pointer this protocol did not hand out, is refused rather than deleted.
template <typename Record, typename Handle>
bool ReleaseRecord(Handle* handle, const wchar_t* operation) {
  if (handle == nullptr) return true;
  if (!Record::Release(handle)) {
    detail::RefuseHandle(operation);
    return false;
  }
  return true;
}

}  // namespace

namespace detail {

void RefuseHandle(const wchar_t* operation) {
  // Set after the post: writing the log may touch the thread's last error on Windows.
  TqUError::Post(1, &FileProtocolComponent(), L"HttpFileProtocol::%s invalid handle", operation);
  SetLastError(ERROR_INVALID_HANDLE);
}

TqUComponent& FileProtocolComponent() {
  static TqUComponent component;
  return component;
}

const wchar_t* VerbOf(HttpMethod method) {
  switch (method) {
    case HttpMethod::Head:
      return L"HEAD";
    case HttpMethod::Get:
      return L"GET";
    default:
      return L"";
  }
}

HINTERNET OpenProtocolRequest(HINTERNET connection, HttpMethod method, const wchar_t* resource,
                              bool secure) {
  const wchar_t* accept_types[] = {L"*/*", nullptr};
  DWORD flags = INTERNET_FLAG_RELOAD | INTERNET_FLAG_NO_CACHE_WRITE | INTERNET_FLAG_KEEP_CONNECTION;
  if (secure) flags |= INTERNET_FLAG_SECURE;
  return HttpOpenRequestW(connection, VerbOf(method), resource, nullptr, nullptr, accept_types,
                          flags, 0);
}

bool SendProtocolRequest(HINTERNET request, const std::wstring& headers) {
  return HttpSendRequestW(request, headers.c_str(), static_cast<DWORD>(headers.size()), nullptr,
                          0) != FALSE;
}

bool QueryStatusCode(HINTERNET request, DWORD* status) {
  DWORD length = sizeof(*status);
  return HttpQueryInfoW(request, HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, status, &length,
                        nullptr) != FALSE;
}

}  // namespace detail

bool QueryHeaderText(HINTERNET request, DWORD info_level, TqUWideString* out) {
  // Not cleared: the query writes the text and its terminator, and the length says where it ends.
  wchar_t buffer[kHeaderChars];
  DWORD length = static_cast<DWORD>((kHeaderChars - 1) * kBytesPerChar);
  if (!HttpQueryInfoW(request, info_level, buffer, &length, nullptr)) return false;
  const std::size_t chars = length / kBytesPerChar;
  buffer[chars < kHeaderChars ? chars : kHeaderChars - 1] = L'\0';
  out->SetString(buffer);
  return true;
}

HttpFileProtocol::HttpFileProtocol() = default;

HttpFileProtocol::~HttpFileProtocol() { CloseInetHandle(); }

bool HttpFileProtocol::SupportsDirectOpen() { return true; }
bool HttpFileProtocol::SupportsGetPut() { return true; }
bool HttpFileProtocol::SupportsOwnCache() { return true; }
bool HttpFileProtocol::IsRemote() { return true; }
bool HttpFileProtocol::SupportsReadFileToSize() { return true; }

bool HttpFileProtocol::PutFile(const wchar_t*, const wchar_t*, TqUProgress*) { return false; }

bool HttpFileProtocol::WriteFile(TqUFileHandle*, std::uint64_t, std::uint64_t, unsigned char*) {
  return false;
}

void HttpFileProtocol::Initialise() {
  if (!detail::FileProtocolComponent().Initialise(L"HttpFileProtocol")) return;
  TqUFileProtocolRegistry::Initialise();
  auto* protocol = new HttpFileProtocol();
  TqUFileProtocolRegistry::Get()->Register(L"http", protocol);
  TqUFileProtocolRegistry::Get()->Register(L"https", protocol);
  m_pre_http_authentication_func = &DefaultPreHTTPAuthentication;
}

void HttpFileProtocol::Terminate() {
  if (!detail::FileProtocolComponent().Terminate()) return;
  // Registered twice, deleted once: through the second registration.
  TqUFileProtocolRegistry* registry = TqUFileProtocolRegistry::Get();
  if (registry != nullptr) {
    registry->Unregister(L"http");
    delete registry->Unregister(L"https");
  }
  TqUFileProtocolRegistry::Terminate();
}

bool HttpFileProtocol::IsInitialised() { return detail::FileProtocolComponent().IsInitialised(); }

void HttpFileProtocol::SetUserAgentW(const wchar_t* agent) {
  TqUWideStringBuffer text;
  text.SetString(agent);
  TqUStringBuffer utf8;
  text.ExtractUTF8String(&utf8);
  SetUserAgentU(utf8.GetString());
}

void HttpFileProtocol::SetUserAgentU(const char* agent) {
  // The agent is sent as a header line: a line break in it would add headers of the host's text
  // to every request (or, where the transport refuses such an agent, open no file at all).
  if (agent != nullptr && std::strpbrk(agent, "\r\n") != nullptr) return;
  std::lock_guard lock(m_internet_mutex);
  m_user_agent.SetString(agent);
}

std::wstring HttpFileProtocol::UserAgentForOpen() const {
  if (m_user_agent.IsEmpty()) return kDefaultUserAgent;
  return qv::Utf8ToWide(m_user_agent.View());
}

bool HttpFileProtocol::OpenInetHandle() {
  if (m_internet.load(std::memory_order_acquire) != nullptr) return true;
  // Two threads opening their first file at once must not open two handles (one would leak).
  std::lock_guard lock(m_internet_mutex);
  if (m_internet.load(std::memory_order_relaxed) != nullptr) return true;
  const std::wstring agent = UserAgentForOpen();
  HINTERNET internet =
      InternetOpenW(agent.c_str(), INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0);
  if (internet == nullptr) {
    TqUError::Post(1, &detail::FileProtocolComponent(),
                   L"HttpFileProtocol::OpenInetHandle InternetOpen failed: %d",
                   static_cast<int>(GetLastError()));
    return false;
  }
  m_internet.store(internet, std::memory_order_release);
  return true;
}

void HttpFileProtocol::CloseInetHandle() {
  std::lock_guard lock(m_internet_mutex);
  HINTERNET internet = m_internet.exchange(nullptr);
  if (internet != nullptr) InternetCloseHandle(internet);
}

bool HttpFileProtocol::SetupOpenFile(const wchar_t* url, TqUWideStringBuffer* resolved, OpenMode) {
  resolved->SetString(url);
  return true;
}

TqUFileHandle* HttpFileProtocol::OpenFile(const wchar_t* url, OpenMode mode) {
  if (url == nullptr) return nullptr;
  const TqUURL parsed(url, false);
  if (!parsed.IsValid()) return nullptr;
  if (!OpenInetHandle()) return nullptr;
  TqUWideStringBuffer resolved;
  if (SetupOpenFile(url, &resolved, mode)) {
    const TqUURL resolved_url(resolved.GetString(), false);
    if (!resolved_url.IsValid()) return nullptr;
    return HttpFileHandle::Adopt(std::make_unique<HttpFileHandle>(url, resolved_url));
  }
  return HttpFileHandle::Adopt(std::make_unique<HttpFileHandle>(url, parsed));
}

bool HttpFileProtocol::CloseFile(TqUFileHandle* file) {
  return ReleaseRecord<HttpFileHandle>(file, L"CloseFile");
}

TqUThreadHandle* HttpFileProtocol::CreateThreadHandle(TqUFileHandle* file) {
  if (file == nullptr) return nullptr;
  const std::shared_ptr<HttpFileHandle> record = HttpFileHandle::From(file);
  if (record == nullptr) {
    detail::RefuseHandle(L"CreateThreadHandle");
    return nullptr;
  }
  const TqUURL& url = record->ParsedUrl();
  const bool secure = TqUWideString::Equal(url.GetScheme(), L"https");
  HINTERNET connection =
      InternetConnectW(m_internet.load(std::memory_order_acquire), url.GetHostName(),
                       url.GetPort(), url.GetUserNameW(), url.GetPassword(),
                       INTERNET_SERVICE_HTTP, 0, 0);
  if (connection == nullptr) {
    TqUError::Post(1, &detail::FileProtocolComponent(),
                   L"HttpFileProtocol::CreateThreadHandle InternetConnect for %s failed: %d",
                   record->UrlText().GetString(), static_cast<int>(GetLastError()));
    return nullptr;
  }
  std::unique_ptr<HttpFileThreadHandle> thread;
  try {
    thread = std::make_unique<HttpFileThreadHandle>(secure, connection);
  } catch (...) {
    // No record to own the connection (out of memory): it must not stay open unowned.
    InternetCloseHandle(connection);
    throw;
  }
  thread->TieToFile(record);
  return HttpFileThreadHandle::Adopt(std::move(thread));
}

bool HttpFileProtocol::ReleaseThreadHandle(TqUThreadHandle* thread) {
  return ReleaseRecord<HttpFileThreadHandle>(thread, L"ReleaseThreadHandle");
}

TqUFileRequestHandle* HttpFileProtocol::SetupReadFile(TqUFileHandle* file, std::uint64_t,
                                                      std::uint64_t) {
  if (file == nullptr) return nullptr;
  const std::shared_ptr<HttpFileHandle> record = HttpFileHandle::From(file);
  if (record == nullptr) {
    detail::RefuseHandle(L"SetupReadFile");
    return nullptr;
  }
  auto request = std::make_unique<HttpFileRequestHandle>(record->ParsedUrl().GetResource());
  request->TieToFile(record);
  return HttpFileRequestHandle::Adopt(std::move(request));
}

bool HttpFileProtocol::ReleaseRequestHandle(TqUFileRequestHandle* request) {
  return ReleaseRecord<HttpFileRequestHandle>(request, L"ReleaseRequestHandle");
}

bool HttpFileProtocol::ResolveAbsolute(const wchar_t* path, const wchar_t* base,
                                       const wchar_t* directory, TqUWideStringBuffer* result) {
  return TqUFileProtocol::ResolveAbsoluteFileOrURL(path, base, directory, result);
}

bool HttpFileProtocol::ResolveRelative(const wchar_t* base, const wchar_t* relative,
                                       TqUWideStringBuffer* result) {
  if (result == nullptr) return false;
  const TqUURL base_url(base != nullptr ? base : L"", true);
  const TqUURL relative_url(relative != nullptr ? relative : L"", true);
  TqUURL resolved;
  TqUURL::ResolveRelative(base_url, relative_url, resolved);
  // A copy: a callback may add or remove callbacks (itself too) while the list runs.
  const std::vector<PostUrlResolutionFunc> callbacks = m_post_url_resolution_funcs;
  for (PostUrlResolutionFunc callback : callbacks) {
    if (callback != nullptr) callback(base_url, relative_url, resolved);
  }
  result->SetString(resolved.GetString());
  return true;
}

}  // namespace qv::net
