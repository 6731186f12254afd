#include "net/http/http_request.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace qv::net {

const wchar_t* HttpMethodText(HttpMethod method) {
  switch (method) {
    case HttpMethod::Head: return L"HEAD";
    case HttpMethod::Get: return L"GET";
    case HttpMethod::Put: return L"PUT";
    case HttpMethod::Post: return L"POST";
  }
  return L"";
}

struct HttpRequest::Impl {
  HttpMethod m_method;
  TqUURL m_url;
  std::vector<std::pair<TqUWideString, TqUWideString>> m_headers;
};

HttpRequest::HttpRequest(const wchar_t* url, HttpMethod method)
    : m_impl(new Impl{method, TqUURL(url, false), {}}) {}

HttpRequest::HttpRequest(const TqUURL& url, HttpMethod method)
    : m_impl(new Impl{method, url, {}}) {}

HttpRequest::~HttpRequest() { delete m_impl; }

const TqUURL& HttpRequest::GetUrl() const { return m_impl->m_url; }
const wchar_t* HttpRequest::GetRawUrl() const { return m_impl->m_url.GetString(); }
HttpMethod HttpRequest::GetMethod() const { return m_impl->m_method; }
const wchar_t* HttpRequest::GetMethodStr() const { return HttpMethodText(m_impl->m_method); }
void HttpRequest::SetMethod(HttpMethod method) { m_impl->m_method = method; }

void HttpRequest::AddHeader(const wchar_t* name, const wchar_t* value) {
  m_impl->m_headers.emplace_back(TqUWideString(name), TqUWideString(value));
}

void HttpRequest::RemoveHeader(const wchar_t* name) {
  const std::wstring_view wanted(name);
  auto& headers = m_impl->m_headers;
  headers.erase(std::remove_if(headers.begin(), headers.end(),
                               [&](const auto& header) { return header.first.View() == wanted; }),
                headers.end());
}

std::wstring HttpRequest::FormatHeaders() const {
  std::wstring text;
  const auto& headers = m_impl->m_headers;
  for (std::size_t i = 0; i < headers.size(); ++i) {
    if (i != 0) text += L"\r\n";
    text += headers[i].first.View();
    text += L": ";
    text += headers[i].second.View();
  }
  return text;
}

bool HttpRequest::IsSecure() const {
  return TqUSysURL::IsSecureProtocol(m_impl->m_url.GetScheme());
}

HttpCredentials::HttpCredentials() : m_username(L""), m_password(L"") {}

HttpCredentials::HttpCredentials(const wchar_t* username, const wchar_t* password)
    : m_username(username), m_password(password) {}

}  // namespace qv::net
