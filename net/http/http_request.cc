#include "net/http/http_request.h"

#include <algorithm>
#include <string_view>
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

namespace {

// CR or LF would end the header line early; NUL ends the text where the transport reads it.
bool BreaksHeaderLine(std::wstring_view text) {
  return text.find_first_of(std::wstring_view(L"\r\n\0", 3)) != std::wstring_view::npos;
}

}  // namespace

void HttpRequest::AddHeader(const wchar_t* name, const wchar_t* value) {
  TqUWideString stored_name(name);
  TqUWideString stored_value(value);
  if (BreaksHeaderLine(stored_name.View()) || BreaksHeaderLine(stored_value.View())) {
    // The text itself is not logged: it is what could not be trusted in a header line.
    TqUSysError::LogUTF8String("Request header dropped: its name or value holds CR, LF or NUL\n");
    return;
  }
  m_impl->m_headers.emplace_back(std::move(stored_name), std::move(stored_value));
}

void HttpRequest::RemoveHeader(const wchar_t* name) {
  if (name == nullptr) return;  // no stored header has a null name
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
