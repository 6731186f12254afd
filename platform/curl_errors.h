// libcurl results as WinINet error codes.
#pragma once

#include <curl/curl.h>

#include "platform/wininet.h"

namespace tqplatform {

// `easy` may be null; when given, its OS errno and certificate verification result refine the
// code (a reset connection, an expired certificate, a wrong host name ...).
DWORD WinInetErrorFromCurl(CURLcode code, CURL* easy);

}  // namespace tqplatform
