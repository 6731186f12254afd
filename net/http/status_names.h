// Every status code that HttpStatus lists, with its enumerator's name and its reason phrase:
// the one list behind the "http" category's messages and the error texts.
#pragma once

#include <string_view>

namespace qv::net::detail {

struct StatusNames {
  int code;
  std::string_view name;    // the HttpStatus enumerator's
  std::string_view phrase;  // RFC 9110's and the IANA registry's
};

/// The listed code's names; null for 0 and codes that are not listed.
const StatusNames* FindStatus(int code);

}  // namespace qv::net::detail
