// "cache-control" values from any server, against any "Date": parsing must never crash or
// overflow, and the expiry it yields must be one the directives allow: one second before the
// date (no-cache) or the date plus a non-negative lifetime, held at the largest time.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

#include "net/cache/freshness.h"
#include "tqutil/strings.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < sizeof(std::int64_t) || size > 16 * 1024) return 0;
  std::int64_t date = 0;
  std::memcpy(&date, data, sizeof date);
  const std::string text(reinterpret_cast<const char*>(data) + sizeof date, size - sizeof date);
  const std::wstring value = qv::Utf8ToWide(text);

  const qv::net::detail::CacheControl parsed = qv::net::detail::ParseCacheControl(value, date);
  if (parsed.expiry) {
    const std::int64_t expiry = *parsed.expiry;
    const bool no_cache = date == std::numeric_limits<std::int64_t>::min() ? expiry == date
                                                                           : expiry == date - 1;
    if (!no_cache && expiry < date) std::abort();
    // Only a directive sets an expiry.
    if (value.find(L"no-cache") == std::wstring::npos && value.find(L"max-age") == std::wstring::npos) {
      std::abort();
    }
  }
  if (parsed.no_store && value.find(L"no-store") == std::wstring::npos) std::abort();

  // Parsing the same text up to an embedded NUL is as safe.
  const qv::net::detail::CacheControl terminated =
      qv::net::detail::ParseCacheControl(value.c_str(), date);
  (void)terminated;
  return 0;
}
