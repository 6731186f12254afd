#include "net/cache/freshness.h"

#include <limits>

#include "net/cache/cache_entry_format.h"
#include "net/cache/url_cache.h"
#include "net/host/tqutil.h"

namespace qv::net {
namespace {

// A response without "cache-control" but with a "Date" stays fresh this long: 30 days.
constexpr std::uint64_t kDefaultLifetime = 2592000;

// `time` + `seconds`, held at the largest time instead of overflowing: a lifetime too long to
// count (a server's "max-age" of 20 digits) means never expiring, not a time in the past.
std::int64_t AddSeconds(std::int64_t time, std::uint64_t seconds) {
  constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
  const std::uint64_t room =
      static_cast<std::uint64_t>(kMax) - static_cast<std::uint64_t>(time);  // exact, mod 2^64
  if (seconds > room) return kMax;
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(time) + seconds);
}

std::int64_t OneSecondBefore(std::int64_t time) {
  return time == std::numeric_limits<std::int64_t>::min() ? time : time - 1;
}

// The seconds of a "max-age" token, read from its 9th character: white space skipped, then
// decimal digits up to the first other character; nothing readable is 0. A sign is not a
// digit, so "max-age=-1" is 0 (stale) instead of wrapping to a lifetime of centuries. Too many
// digits saturate.
std::uint64_t MaxAgeSeconds(std::wstring_view token) {
  std::size_t i = 8;
  while (i < token.size() && (token[i] == L' ' || (token[i] >= L'\t' && token[i] <= L'\r'))) ++i;
  if (i >= token.size()) return 0;
  const std::wstring_view rest = token.substr(i);
  const std::size_t digits = qv::CountDecimalDigits(rest);
  if (digits == 0) return 0;
  return qv::ParseDecimal(rest.substr(0, digits)).value_or(qv::kMaxDecimal);
}

}  // namespace

Freshness FreshnessOf(std::optional<std::int64_t> date,
                      std::optional<std::wstring_view> cache_control, std::int64_t now) {
  Freshness freshness;
  if (!date) return freshness;
  if (!cache_control) {
    freshness.expiry = AddSeconds(now, kDefaultLifetime);
    return freshness;
  }
  const detail::CacheControl parsed = detail::ParseCacheControl(*cache_control, *date);
  freshness.expiry = parsed.expiry;
  freshness.no_store = parsed.no_store;
  return freshness;
}

std::int64_t ExpiryFor(int flags, const Freshness& freshness) {
  if (flags & IUrlCache::NeverExpire) return entry_format::kNeverExpires;
  return freshness.expiry.value_or(0);
}

namespace detail {
CacheControl ParseCacheControl(std::wstring_view value, std::int64_t date) {
  CacheControl result;
  TqUWideStringTokeniser tokens(value, L",");
  TqUWideStringBuffer token;
  while (tokens.GetNextToken(&token)) {
    token.Trim();
    if (token.View() == L"no-store") {
      result.no_store = true;
    } else if (token.View() == L"no-cache") {
      result.expiry = OneSecondBefore(date);
    } else if (token.HasPrefix(L"max-age")) {
      result.expiry = AddSeconds(date, MaxAgeSeconds(token.View()));
    }
  }
  return result;
}
}  // namespace detail

}  // namespace qv::net
