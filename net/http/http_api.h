// The replaceable transport: every HTTP exchange of the library (apart from the file protocol)
// goes through the one installed IHttpApi, which deals only in opaque handles.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "net/export.h"
#include "net/http/http_request.h"

namespace qv::net {

/// Handles are opaque pointers (internet, connection, request); null means failure. Operations
/// report failure only through their results and throw nothing of their own. They are called
/// from several threads at once, on different handles.
class TQNET_EXPORT IHttpApi {
 public:
  virtual ~IHttpApi();

  /// An internet handle whose requests send `user_agent`; null on failure.
  virtual void* OpenInternet(const wchar_t* user_agent) = 0;
  /// A connection handle for the URL's host, port, user name and password; null on failure.
  virtual void* Connect(void* internet, const TqUURL& url) = 0;
  /// Opens a request on `connection` and sends it with the request's formatted headers and no
  /// body. Null (sent false) when no request could be opened, or when a stop cancelled the send
  /// and the transport closed the handle itself; otherwise the request handle, with `sent`
  /// telling whether sending succeeded. The caller closes a non-null result.
  virtual void* SendRequest(void* connection, const HttpRequest& request,
                            const wchar_t** accept_types, bool& sent) = 0;
  /// The response's status code; 0 when it cannot be read.
  virtual std::uint32_t QueryStatusCode(void* request) = 0;
  /// The header's text; empty when absent or unreadable. The text is the value alone: no
  /// terminator at its end. `index` selects among repeated
  /// headers (null: the first).
  virtual std::optional<std::wstring> QueryHeader(void* request, const HttpHeaderSelector& header,
                                                  std::uint32_t* index) = 0;
  /// The header as a decimal number; empty when absent or not a number.
  virtual std::optional<std::uint32_t> QueryHeaderNumeric(void* request,
                                                          const HttpHeaderSelector& header,
                                                          std::uint32_t* index) = 0;
  /// The header as an HTTP date, in TqUSysTime seconds; empty when absent or not a date.
  virtual std::optional<std::int64_t> QueryHeaderDateTime(void* request,
                                                          const HttpHeaderSelector& header,
                                                          std::uint32_t* index) = 0;
  /// Up to `size` body bytes; false on failure, true with 0 bytes at the end of the body.
  virtual bool Read(void* request, void* buffer, std::uint32_t size,
                    std::uint32_t& bytes_read) = 0;
  /// Closes any handle this transport gave out; false when it cannot.
  virtual bool CloseHandle(void* handle) = 0;
};

/// The installed transport; null before one is installed and after TerminateHttp.
TQNET_EXPORT IHttpApi* HttpApi();
/// Installs `api` (null allowed) and returns the previous one, which the caller now owns.
/// Call while no request is in flight.
///
/// Who deletes a transport: TerminateHttp deletes the transport installed when it runs, whoever
/// installed it (InitialiseHttp's WinInet backend or the host's own). Until then SetHttpApi
/// hands each replaced transport back to its caller, who deletes it or keeps it; so a host that
/// installs a transport it must keep (one not made with new, or still needed afterwards) takes
/// it back with SetHttpApi(nullptr) before calling TerminateHttp.
TQNET_EXPORT IHttpApi* SetHttpApi(IHttpApi* api);
/// Simultaneous connections per server: 4.
TQNET_EXPORT std::uint32_t MaxNumConnectionsPerServer();

}  // namespace qv::net
