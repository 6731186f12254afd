// Why a request of the library failed, in plain words, for tqfetch's error messages. The words
// come from what the failed exchange itself gave, as the library reported it: asking the server
// once more could change something there, and could be answered otherwise.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "net/http/http_api.h"

namespace tqfetch {

// What a failed exchange gave: a WinINet error, or 0 and the response's status.
struct Outcome {
  std::uint32_t error = 0;
  int status = 0;
};

// "connection refused", "host not found", "HTTP 404 Not Found"...; empty when `outcome` is no
// failure.
std::string Reason(const Outcome& outcome);

// The outcome that a message of the file protocol (component "HttpFileProtocol") reports: its
// "... failed: <error>" and "... Unhandled Status Code for <url>: <status>" end in the number.
// Empty for its other messages and for other components.
std::optional<Outcome> OutcomeFromMessage(std::string_view component, std::string_view text);

// A transport that passes every call on to the one it wraps (and owns), and tells `record` what
// each failed exchange gave: the error of a connection, a send or a body read that failed, or a
// status of 400 or more. `record` may be called from several threads at once.
class RecordingHttpApi : public qv::net::IHttpApi {
 public:
  RecordingHttpApi(std::unique_ptr<qv::net::IHttpApi> inner,
                   std::function<void(const Outcome&)> record);

  void* OpenInternet(const wchar_t* user_agent) override;
  void* Connect(void* internet, const TqUURL& url) override;
  void* SendRequest(void* connection, const qv::net::HttpRequest& request,
                    const wchar_t** accept_types, bool& sent) override;
  std::uint32_t QueryStatusCode(void* request) override;
  std::optional<std::wstring> QueryHeader(void* request, const qv::net::HttpHeaderSelector& header,
                                          std::uint32_t* index) override;
  std::optional<std::uint32_t> QueryHeaderNumeric(void* request,
                                                  const qv::net::HttpHeaderSelector& header,
                                                  std::uint32_t* index) override;
  std::optional<std::int64_t> QueryHeaderDateTime(void* request,
                                                  const qv::net::HttpHeaderSelector& header,
                                                  std::uint32_t* index) override;
  bool Read(void* request, void* buffer, std::uint32_t size, std::uint32_t& bytes_read) override;
  bool CloseHandle(void* handle) override;

 private:
  std::unique_ptr<qv::net::IHttpApi> m_inner;
  std::function<void(const Outcome&)> m_record;
};

}  // namespace tqfetch
