// Why a request to a URL fails, in plain words, for tqfetch's error messages.
#pragma once

#include <string>

namespace tqfetch {

// Asks the server once more with a GET of its own (the body is not read) and says what went
// wrong: "connection refused", "host not found", "HTTP 404 Not Found"... Empty when the URL is
// not http or https, or when this time nothing went wrong (the failure was elsewhere, or has
// passed): the caller then reports what the library logged.
std::string FailureReason(const std::string& url);

}  // namespace tqfetch
