#include "net/http/http_error_text.h"

#include <array>
#include <cstdio>
#include <string_view>

#include "net/http/status_names.h"

namespace qv::net {
namespace {

struct Words {
  std::uint32_t code;
  std::string_view text;
};

// WinINet's error codes (wininet.h) and the URL Moniker's results (urlmon.h), by number: the
// SDKs this builds with do not all name every one of them. A time-out has no entry: its text
// carries the time-out.
constexpr std::array kErrorWords{
    Words{8, "out of memory"},                  // ERROR_NOT_ENOUGH_MEMORY
    Words{87, "invalid parameter"},             // ERROR_INVALID_PARAMETER
    Words{12001, "too many connections open"},  // ERROR_INTERNET_OUT_OF_HANDLES
    Words{12004, "internal error in the network layer"},
    Words{12005, "not a valid URL"},
    Words{12006, "unsupported URL scheme"},
    Words{12007, "host not found"},  // ERROR_INTERNET_NAME_NOT_RESOLVED
    Words{12012, "network layer shutting down"},
    Words{12013, "login failed"},
    Words{12014, "login failed"},
    Words{12015, "login failed"},
    Words{12017, "cancelled"},
    Words{12029, "connection refused"},  // ERROR_INTERNET_CANNOT_CONNECT
    Words{12030, "connection aborted"},
    Words{12031, "connection reset by the server"},
    Words{12037, "certificate expired or not yet valid"},
    Words{12038, "certificate does not match the host name"},
    Words{12044, "server asks for a client certificate"},
    Words{12045, "certificate not trusted"},  // ERROR_INTERNET_INVALID_CA
    Words{12055, "certificate not trusted"},  // ERROR_INTERNET_SEC_CERT_ERRORS
    Words{12057, "certificate revocation not checked"},
    Words{12150, "header not found"},
    Words{12152, "invalid response from the server"},
    Words{12156, "redirect failed"},
    Words{12157, "secure connection failed"},  // ERROR_INTERNET_SECURITY_CHANNEL_ERROR
    Words{12163, "no network connection"},
    Words{12164, "server unreachable"},
    Words{12165, "proxy server unreachable"},
    Words{12169, "certificate not trusted"},  // ERROR_INTERNET_SEC_INVALID_CERT
    Words{12170, "certificate revoked"},
    Words{12172, "network layer not initialised"},
    Words{12175, "response could not be decoded"},
    Words{0x80070005u, "access denied"},    // E_ACCESSDENIED
    Words{0x8007000Eu, "out of memory"},    // E_OUTOFMEMORY
    Words{0x800401E4u, "not a valid URL"},  // MK_E_SYNTAX
    Words{0x800C0002u, "not a valid URL"},  // INET_E_INVALID_URL
    Words{0x800C0003u, "no internet session"},
    Words{0x800C0004u, "connection refused"},       // INET_E_CANNOT_CONNECT
    Words{0x800C0005u, "host not found"},           // INET_E_RESOURCE_NOT_FOUND
    Words{0x800C0006u, "not found on the server"},  // INET_E_OBJECT_NOT_FOUND
    Words{0x800C0007u, "no data available"},
    Words{0x800C0008u, "download failed"},
    Words{0x800C0009u, "authentication required"},
    Words{0x800C000Au, "no valid media"},
    Words{0x800C000Cu, "invalid request"},
    Words{0x800C000Du, "unsupported URL scheme"},    // INET_E_UNKNOWN_PROTOCOL
    Words{0x800C000Eu, "secure connection failed"},  // INET_E_SECURITY_PROBLEM
    Words{0x800C000Fu, "cannot load data"},
    Words{0x800C0014u, "redirect failed"},
    Words{0x800C0019u, "certificate not trusted"},  // INET_E_INVALID_CERTIFICATE
};

constexpr std::uint32_t kInternetTimeout = 12002;          // ERROR_INTERNET_TIMEOUT
constexpr std::uint32_t kConnectionTimeout = 0x800C000Bu;  // INET_E_CONNECTION_TIMEOUT

std::string StatusText(int status) {
  if (status >= 200 && status < 400) return "no error";
  if (status <= 0) return "no response from the server";
  std::string text = "HTTP " + std::to_string(status);
  if (const detail::StatusNames* listed = detail::FindStatus(status)) {
    text.append(" ").append(listed->phrase);
  }
  return text;
}

}  // namespace

std::string HttpErrorText(std::uint32_t error, int status, std::uint32_t timeout_seconds) {
  if (error == 0) return StatusText(status);
  if (error == kInternetTimeout || error == kConnectionTimeout) {
    return "timed out after " + std::to_string(timeout_seconds) + " s";
  }
  for (const Words& words : kErrorWords) {
    if (words.code == error) return std::string(words.text);
  }
  char text[40];
  // Results (HRESULTs) read best in hexadecimal, WinINet and Win32 codes in decimal.
  if (error >= 0x80000000u) {
    std::snprintf(text, sizeof text, "network error 0x%08x", static_cast<unsigned>(error));
  } else {
    std::snprintf(text, sizeof text, "network error %u", static_cast<unsigned>(error));
  }
  return text;
}

}  // namespace qv::net
