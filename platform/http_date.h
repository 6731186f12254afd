// Dates of HTTP headers (Date, Last-Modified, Expires ...) as a SYSTEMTIME in UTC.
#pragma once

#include <string_view>

#include "platform/windows_types.h"

namespace tqplatform {

// Accepts the three forms HTTP/1.1 allows: RFC 1123 ("Sun, 06 Nov 1994 08:49:37 GMT"),
// RFC 850 ("Sunday, 06-Nov-94 08:49:37 GMT") and asctime ("Sun Nov  6 08:49:37 1994").
// The day of the week is computed from the date, not taken from the text. Only GMT/UTC
// (or no zone, as asctime has none) is accepted: a wrong zone silently applied would be worse
// than a refusal.
bool ParseHttpDate(std::string_view text, SYSTEMTIME* out);

}  // namespace tqplatform
