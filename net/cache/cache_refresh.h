// Asking a URL's source about its cache entry: the request (with the entry's tag as a
// validator), and what the answer does to the entry (a new body stored, a lifetime renewed, the
// entry dropped, or a stale body served when the server fails). The disk cache decides when to
// ask and serves what this leaves; internal to it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "net/cache/cache_entry.h"
#include "net/host/tqutil.h"

namespace qv::net::detail {

// What the disk cache's operations build per call and drop before returning.
struct CacheLookup {
  std::wstring m_url;
  int m_flags = 0;
  // The time the whole operation judges freshness by and records as the entry's use, read once
  // (OpenUrl and OpenReadStream).
  std::int64_t m_now = 0;
  std::optional<CacheEntry> m_entry;
  // The entry file as the load left it, open for reading (OpenUrl only): a fresh entry whose
  // use is already recorded is served from it without opening the file again.
  EntryFile m_loaded_file;
  // The length of the body the loaded file holds, when known (OpenUrl only).
  std::optional<std::uint64_t> m_stored_body_length;
};

enum class RefreshCode { UseEntry, DropEntry, Nothing };

struct RefreshResult {
  std::unique_ptr<qv::io::IDataSeekableReadStream> stream;
  RefreshCode code = RefreshCode::Nothing;
};

// Refreshes `lookup`'s entry from its HTTP server (a conditional GET when it has a tag); throws
// the transport's http_exception unless a stale body may stand in for the answer.
RefreshResult RefreshFromHttp(CacheLookup& lookup, const qv::stop_token& stop);
// Refreshes `lookup`'s entry from a source that is not HTTP (a file URL), by its tag.
RefreshResult RefreshFromSource(CacheLookup& lookup, const qv::stop_token& stop);

}  // namespace qv::net::detail
