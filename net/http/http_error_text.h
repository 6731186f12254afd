// Plain words for why a request failed, for messages that people read (a host's dialog, a
// command-line tool). The library's own log lines keep their fixed texts; this is for callers
// that turn a failure into a sentence.
#pragma once

#include <cstdint>
#include <string>

#include "net/export.h"

namespace qv::net {

/// The time-out, in seconds, that the Linux WinINet layer gives a request when nobody sets one
/// (connect and receive). The library sets none itself: on Windows a request runs with the
/// system's own defaults, which a caller that knows them passes as `timeout_seconds`.
inline constexpr std::uint32_t kDefaultHttpTimeoutSeconds = 60;

/// Says in a few plain words why a request failed: "connection refused", "host not found",
/// "timed out after 60 s", "certificate not trusted", "HTTP 404 Not Found".
///
/// @param error a WinINet error code (GetLastError() after a failed WinINet call) or a URL
///        Moniker result (an INET_E_ HRESULT, as a download returns it); 0 when the exchange
///        took place and only `status` went wrong.
/// @param status the response's HTTP status when a response came, else 0. Consulted only when
///        `error` is 0; a 2xx or 3xx status with no error gives "no error".
/// @param timeout_seconds the time-out the request ran with, named by a time-out's text.
/// @return ASCII text without a final full stop; for a code it does not know, "network error
///         12345" (a result in hexadecimal, "network error 0x800c0099"), so nothing is hidden.
TQNET_EXPORT std::string HttpErrorText(std::uint32_t error, int status = 0,
                                       std::uint32_t timeout_seconds = kDefaultHttpTimeoutSeconds);

}  // namespace qv::net
