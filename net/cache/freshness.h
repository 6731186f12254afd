// How long a response may be served from the cache without asking its server again, from its
// "Date" and "cache-control" headers. Nothing here reads the clock: the caller reads it once
// per operation and passes it in, so one operation judges every entry against the same time.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace qv::net {

// What a response allows: the expiry to record (none: stale at once) and whether its body may
// be kept at all.
struct Freshness {
  std::optional<std::int64_t> expiry;
  bool no_store = false;
};

// The freshness of a response received at `now` with the "Date" `date` and the "cache-control"
// value `cache_control` (none when the header is absent). Without a date nothing is known and
// nothing is set; with a date but no "cache-control" the response stays fresh for 30 days from
// `now`; otherwise its directives decide (detail::ParseCacheControl).
Freshness FreshnessOf(std::optional<std::int64_t> date,
                      std::optional<std::wstring_view> cache_control, std::int64_t now);

// The expiry recorded for an entry opened with `flags` (IUrlCache's flags): never with
// IUrlCache::NeverExpire, else what `freshness` set, else 0 (stale at once).
std::int64_t ExpiryFor(int flags, const Freshness& freshness);

// An entry recorded with `expiry` is served at `now` without asking the server.
inline bool IsFresh(std::int64_t expiry, std::int64_t now) { return expiry >= now; }

namespace detail {
// What a "cache-control" value says about a response dated `date`: "no-store", and the expiry
// its "no-cache" (date - 1) and "max-age=n" (date + n, held at the largest time) directives
// set, the last of them winning. Directives are split at "," and trimmed; others are ignored.
struct CacheControl {
  std::optional<std::int64_t> expiry;
  bool no_store = false;
};
CacheControl ParseCacheControl(std::wstring_view value, std::int64_t date);
}  // namespace detail

}  // namespace qv::net
