// Host options by key. Values set by the host win; unset keys give their documented default:
//   "general.localcache.max_size"  1024 (MiB)
// and 0 for any other key.
#pragma once

#include <cstdint>

#include "tqutil/export.h"

/// The host's configuration values by key, e.g. "general.localcache.max_size". Thread-safe.
class TQUTIL_API TqUOption {
 public:
  /// The value the host set, else the key's default (0 for an unknown key or null).
  static std::int32_t GetInt32(const char* key);
  /// Sets the value for `key`, replacing the default.
  static void SetInt32(const char* key, std::int32_t value);
  /// Forgets a value set by the host, so the default applies again.
  static void Unset(const char* key);
};
