// What the URL Moniker functions keep outside the SDK interface: their time-out limits (which
// tests shorten) and the place of the download cache.
#pragma once

#ifndef _WIN32

#include <string>

#include "platform/windows_types.h"

namespace tqplatform {

// A connection must be made within `connect_ms`; once made, a transfer that receives nothing
// for `stall_ms` (waiting for the answer included) fails with INET_E_CONNECTION_TIMEOUT. A
// header block counts as received only when complete: its lines must all come within
// `stall_ms`. There is no limit on a body that keeps arriving.
struct UrlDownloadLimits {
  long connect_ms = 30'000;
  long stall_ms = 60'000;
};

// Replaces the limits of later downloads and returns the previous ones. For tests only.
TQPLATFORM_API UrlDownloadLimits SetUrlDownloadLimitsForTesting(UrlDownloadLimits limits);

// The download cache directory as a UTF-8 path: $XDG_CACHE_HOME (when absolute), else
// $HOME/.cache, then "tqnetwork/downloads". Empty when neither variable is usable.
TQPLATFORM_API std::string UrlDownloadCacheDirectory();

// The cache file's name (no directory) for a URL given as UTF-8: 16 hexadecimal digits of a
// hash of the URL, "-", then the last path segment with characters outside [A-Za-z0-9._-]
// replaced by "_" (at most 64 of them; "download" when there is none, or it is "." or "..").
// So the same URL always lands on the same file, and the cache holds one copy per URL.
TQPLATFORM_API std::string UrlDownloadCacheFileName(const std::string& url);

}  // namespace tqplatform

#endif  // _WIN32
