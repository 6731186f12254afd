// Host options by key. Values set by the host win; unset keys give their documented default:
//   "general.localcache.max_size"  1024 (MiB)
// and 0 for any other key.
#pragma once

#include <cstdint>

#include "tqutil/export.h"

class TQUTIL_API TqUOption {
 public:
  static std::int32_t GetInt32(const char* key);
  static void SetInt32(const char* key, std::int32_t value);
  // Forgets a value set by the host, so the default applies again.
  static void Unset(const char* key);
};
