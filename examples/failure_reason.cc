#include "failure_reason.h"

#include <charconv>
#include <utility>

#include "net/http/http_error_text.h"
#include "platform/wininet.h"

namespace tqfetch {

std::string Reason(const Outcome& outcome) {
  if (outcome.error == 0 && outcome.status >= 200 && outcome.status < 400) return {};
  return qv::net::HttpErrorText(outcome.error, outcome.status);
}

std::optional<Outcome> OutcomeFromMessage(std::string_view component, std::string_view text) {
  if (component != "HttpFileProtocol") return std::nullopt;
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
  const std::size_t last = text.rfind(": ");
  if (last == std::string_view::npos) return std::nullopt;
  const std::string_view number = text.substr(last + 2);
  // The error is a DWORD printed with %d, so a large one reads as negative.
  long long value = 0;
  const auto [end, errc] = std::from_chars(number.data(), number.data() + number.size(), value);
  if (errc != std::errc() || end != number.data() + number.size() || number.empty()) {
    return std::nullopt;
  }
  const std::string_view head = text.substr(0, last);
  if (head.find(" Unhandled Status Code for ") != std::string_view::npos) {
    return Outcome{0, static_cast<int>(value)};
  }
  if (head.ends_with(" failed")) return Outcome{static_cast<std::uint32_t>(value), 0};
  return std::nullopt;
}

RecordingHttpApi::RecordingHttpApi(std::unique_ptr<qv::net::IHttpApi> inner,
                                   std::function<void(const Outcome&)> record)
    : m_inner(std::move(inner)), m_record(std::move(record)) {}

void* RecordingHttpApi::OpenInternet(const wchar_t* user_agent) {
  void* internet = m_inner->OpenInternet(user_agent);
  if (internet == nullptr) m_record(Outcome{GetLastError(), 0});
  return internet;
}

void* RecordingHttpApi::Connect(void* internet, const TqUURL& url) {
  void* connection = m_inner->Connect(internet, url);
  if (connection == nullptr) m_record(Outcome{GetLastError(), 0});
  return connection;
}

void* RecordingHttpApi::SendRequest(void* connection, const qv::net::HttpRequest& request,
                                    const wchar_t** accept_types, bool& sent) {
  void* handle = m_inner->SendRequest(connection, request, accept_types, sent);
  // Read at once: the error of the failed WinINet call is the thread's until its next failure.
  if (handle == nullptr || !sent) m_record(Outcome{GetLastError(), 0});
  return handle;
}

std::uint32_t RecordingHttpApi::QueryStatusCode(void* request) {
  const std::uint32_t status = m_inner->QueryStatusCode(request);
  if (status >= 400) m_record(Outcome{0, static_cast<int>(status)});
  return status;
}

std::optional<std::wstring> RecordingHttpApi::QueryHeader(
    void* request, const qv::net::HttpHeaderSelector& header, std::uint32_t* index) {
  return m_inner->QueryHeader(request, header, index);
}

std::optional<std::uint32_t> RecordingHttpApi::QueryHeaderNumeric(
    void* request, const qv::net::HttpHeaderSelector& header, std::uint32_t* index) {
  return m_inner->QueryHeaderNumeric(request, header, index);
}

std::optional<std::int64_t> RecordingHttpApi::QueryHeaderDateTime(
    void* request, const qv::net::HttpHeaderSelector& header, std::uint32_t* index) {
  return m_inner->QueryHeaderDateTime(request, header, index);
}

bool RecordingHttpApi::Read(void* request, void* buffer, std::uint32_t size,
                            std::uint32_t& bytes_read) {
  if (m_inner->Read(request, buffer, size, bytes_read)) return true;
  // A body that ends before its length, or a connection lost while it comes.
  if (const std::uint32_t error = GetLastError(); error != 0) m_record(Outcome{error, 0});
  return false;
}

bool RecordingHttpApi::CloseHandle(void* handle) { return m_inner->CloseHandle(handle); }

}  // namespace tqfetch
