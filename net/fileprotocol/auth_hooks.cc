#include "net/fileprotocol/auth_hooks.h"

#include <algorithm>

#include "net/fileprotocol/http_file_protocol.h"

namespace qv::net {

HttpFileProtocol::PreHTTPAuthenticationFunc HttpFileProtocol::m_pre_http_authentication_func =
    nullptr;
std::vector<HttpFileProtocol::PostUrlResolutionFunc> HttpFileProtocol::m_post_url_resolution_funcs;

void HttpFileProtocol::SetPreHTTPAuthenticationFunc(PreHTTPAuthenticationFunc hook) {
  m_pre_http_authentication_func = hook;
}

HttpFileProtocol::PreHTTPAuthenticationResult HttpFileProtocol::PreHTTPAuthentication(
    const wchar_t* url, HttpCredentials* credentials) {
  if (m_pre_http_authentication_func == nullptr) return CredentialsSupplied;
  return m_pre_http_authentication_func(url, credentials);
}

HttpFileProtocol::PreHTTPAuthenticationResult HttpFileProtocol::DefaultPreHTTPAuthentication(
    const wchar_t* url, HttpCredentials* credentials) {
  const TqUURL parsed(url, false);
  const wchar_t* user = parsed.GetUserNameW();
  const wchar_t* password = parsed.GetPassword();
  if (!parsed.IsValid() || TqUSysString::WideStrlen(user) == 0 ||
      TqUSysString::WideStrlen(password) == 0 || credentials == nullptr) {
    return NoCredentials;
  }
  credentials->SetUsername(user);
  credentials->SetPassword(password);
  return CredentialsSupplied;
}

void HttpFileProtocol::AddPostUrlResolutionCallback(PostUrlResolutionFunc callback) {
  m_post_url_resolution_funcs.push_back(callback);
}

void HttpFileProtocol::RemovePostUrlResolutionCallback(PostUrlResolutionFunc callback) {
  auto& funcs = m_post_url_resolution_funcs;
  funcs.erase(std::remove(funcs.begin(), funcs.end(), callback), funcs.end());
}

namespace detail {

void ApplyCredentials(HINTERNET connection, DWORD status, const HttpCredentials& credentials) {
  const bool proxy = status == 407;
  // WinINet takes string options with their terminator, the length counted in characters.
  auto set = [connection](DWORD option, const wchar_t* text) {
    const DWORD length = static_cast<DWORD>(TqUSysString::WideStrlen(text) + 1);
    InternetSetOptionW(connection, option, const_cast<wchar_t*>(text), length);
  };
  set(proxy ? INTERNET_OPTION_PROXY_USERNAME : INTERNET_OPTION_USERNAME, credentials.GetUsername());
  set(proxy ? INTERNET_OPTION_PROXY_PASSWORD : INTERNET_OPTION_PASSWORD, credentials.GetPassword());
}

}  // namespace detail
}  // namespace qv::net
