// libcurl results as WinINet error codes.
#pragma once

#include <curl/curl.h>

#include "platform/wininet.h"

namespace tqplatform {

// `easy` may be null; when given, its OS errno and certificate verification result refine the
// code (a reset connection, an expired certificate, a wrong host name ...). With
// `stale_system_error` its OS errno is known to be of an earlier failure, and is not looked at.
DWORD WinInetErrorFromCurl(CURLcode code, CURL* easy, bool stale_system_error = false);

}  // namespace tqplatform
