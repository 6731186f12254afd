#include "net/cache/cache_refresh.h"

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <gsl/narrow>

#include "net/cache/freshness.h"
#include "net/cache/stale_serving.h"
#include "net/cache/url_cache.h"
#include "net/http/http_request.h"
#include "net/http/http_status.h"
#include "net/stream/read_stream.h"
#include "net/stream/stream_copy.h"

namespace qv::net::detail {
namespace {

// The freshness a response's own headers give it at `now`.
Freshness FreshnessOf(const HttpReadStream& response, std::int64_t now) {
  const std::optional<std::int64_t> date = response.QueryHeaderDateTime(std::wstring(L"Date"));
  const std::optional<std::wstring> value = response.QueryHeader(std::wstring(L"cache-control"));
  std::optional<std::wstring_view> cache_control;
  if (value) cache_control = *value;
  return qv::net::FreshnessOf(date, cache_control, now);
}

// A stored or received entity tag as the value of "If-None-Match"; none when the tag is empty or
// holds CR, LF or NUL, which would end the header line or split the request's header block (a
// server could otherwise inject headers into later requests). Such an entry is fetched whole.
// Entry files written while the transport's texts still ended in their terminator hold it at
// the end of their tag: it is not part of the tag sent back.
std::optional<std::string_view> Validator(std::string_view tag) {
  while (!tag.empty() && tag.back() == '\0') tag.remove_suffix(1);
  if (tag.empty() || tag.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos) {
    return std::nullopt;
  }
  return tag;
}

// Whether the entry may be served stale later: recorded only by an open that asks for it, from
// a response that does not forbid it, so that opens without ServeStaleOnError write entries
// exactly as they always have (a new body drops the mark, a kept body keeps its header).
// True when the mark changed for a body already on disk.
bool SetStaleServingRule(CacheEntry& entry, const HttpReadStream& response, int flags,
                         bool new_body) {
  if ((flags & IUrlCache::ServeStaleOnError) == 0) {
    if (new_body) entry.SetStaleAllowed(false);
    return false;
  }
  const std::optional<std::wstring> value = response.QueryHeader(std::wstring(L"cache-control"));
  // Where the tag and the key leave the header no room for the mark, the entry is kept without
  // it (never served stale) rather than not stored at all.
  const bool allowed = !(value && ForbidsStaleServing(value->c_str())) && entry.MarkFits();
  const bool changed = !new_body && entry.HeaderSize() != 0 && entry.StaleAllowed() != allowed;
  entry.SetStaleAllowed(allowed);
  return changed;
}

// The rule lives in the whole header, which only a store writes: the entry is stored anew from
// its own body. When that fails the entry keeps the rule it had, so that its new expiry still
// reaches the file.
void RewriteHeader(CacheEntry& entry, const qv::stop_token& stop, std::int64_t now) {
  bool stored = false;
  try {
    EntryFile file;
    const CacheEntry on_disk = CacheEntry::Load(entry.Path(), &file);
    if (on_disk.Key() == entry.Key() && on_disk.ETag() == entry.ETag()) {
      if (auto body = on_disk.OpenLoadedBody(std::move(file))) {
        ClosingAtEndStream source(std::move(body));
        stored = entry.Store(source, stop, now);
      }
    }
  } catch (const std::runtime_error&) {
    stored = false;
  } catch (const gsl::narrowing_error&) {
    stored = false;  // the header with the mark would not fit in its size field
  }
  if (!stored) entry.SetStaleAllowed(!entry.StaleAllowed());
}

// A body the server forbids storing: read into memory and served from there, the entry
// dropped; nothing when it cannot be read whole.
RefreshResult ReadUnstoredBody(HttpReadStream& response, const std::wstring& url,
                               const qv::stop_token& stop) {
  auto memory = std::make_unique<qv::io::MemoryStream>();
  const CopyStreamResult copy = CopyStream(response, *memory, stop);
  if (!copy.completed) {
    TqUSysError::LogUTF8String("Failed to read HTTP data into cache system: ");
    TqUError::LogWideString(url.c_str());
    TqUSysError::LogUTF8String("\n");
    return {nullptr, RefreshCode::Nothing};
  }
  const std::optional<std::uint64_t> expected = response.ContentSize();
  if (expected && *expected != copy.bytes_copied) {
    LogUnexpectedBodyLength(*expected, copy.bytes_copied);
    return {nullptr, RefreshCode::Nothing};
  }
  memory->RSeek(0, qv::io::StreamPosition::Begin);
  return {std::move(memory), RefreshCode::DropEntry};
}

// With ServeStaleOnError, a stored body that the server cannot confirm or replace right now is
// served as it is, and kept as it was, when it was marked as allowed to be.
class StaleFallback {
 public:
  StaleFallback(CacheLookup& lookup, const qv::stop_token& stop) : m_lookup(lookup), m_stop(stop) {
    const CacheEntry& entry = *lookup.m_entry;
    if ((lookup.m_flags & IUrlCache::ServeStaleOnError) != 0 && entry.StaleAllowed() &&
        entry.IsValid()) {
      m_kept = entry;
    }
  }

  // Whether the stored body may stand in for an answer now; never once a stop was asked for.
  bool Usable() const { return m_kept && !m_stop.stop_requested(); }

  // The entry as it was before the exchange, served for `reason`.
  RefreshResult Serve(std::string_view reason) {
    *m_lookup.m_entry = *m_kept;
    LogServingStale(m_lookup.m_url, reason);
    return {nullptr, RefreshCode::UseEntry};
  }

 private:
  CacheLookup& m_lookup;
  const qv::stop_token& m_stop;
  std::optional<CacheEntry> m_kept;
};

// Asks for the body only when it differs from the stored one, when the entry has a tag to send.
void AskForChangedBodyOnly(HttpRequest& request, const CacheEntry& entry) {
  if (const std::optional<std::string_view> validator = Validator(entry.ETag())) {
    request.AddHeader(L"If-None-Match", qv::Utf8ToWide(*validator).c_str());
  }
}

// Takes the tag of an answer with a body; true when the body is to be stored anew.
bool TakeTag(CacheEntry& entry, const std::optional<std::string>& tag) {
  // A tag that could never be sent back is no validator, and a body without a tag is not the
  // one the old tag names: kept beside that tag, the new body would later be confirmed by the
  // server's answers for the old one and served in its place. The entry keeps no tag.
  if (!tag || !Validator(*tag)) {
    entry.UpdateETag(std::string());
    return true;
  }
  return entry.UpdateETag(tag);
}

// An answer with a body: the entry takes its lifetime and tag, and its body when that changed.
RefreshResult TakeBody(CacheLookup& lookup, HttpReadStream& response, StaleFallback& stale,
                       const qv::stop_token& stop) {
  CacheEntry& entry = *lookup.m_entry;
  const Freshness freshness = FreshnessOf(response, lookup.m_now);
  entry.SetExpiry(ExpiryFor(lookup.m_flags, freshness));
  bool changed = TakeTag(entry, response.ETag());
  // A tag that does not follow every change (one made of the modification time alone) may come
  // with another body: one of another length than the stored body is not that body. Served in
  // its place, the stored body would be confirmed under that tag by every 304 to come.
  const std::optional<std::uint64_t> length = response.ContentSize();
  const std::optional<std::uint64_t>& stored = lookup.m_stored_body_length;
  if (!changed && length && stored && *length != *stored) changed = true;
  const bool stale_serving_changed = SetStaleServingRule(entry, response, lookup.m_flags, changed);
  if (freshness.no_store) return ReadUnstoredBody(response, lookup.m_url, stop);
  if (changed) {
    // A body shorter than announced, ended as if whole, must not be kept as the whole body.
    bool stored = false;
    try {
      stored = entry.Store(response, stop, lookup.m_now, response.ContentSize());
    } catch (const gsl::narrowing_error&) {
      // A tag that leaves the header no room: this body cannot be stored either.
      if (!stale.Usable()) throw;
    }
    if (stored) return {nullptr, RefreshCode::UseEntry};
    if (stale.Usable()) return stale.Serve("the new body could not be stored");
    return {nullptr, RefreshCode::DropEntry};
  }
  // Same tag as stored: the body is not read and the stored one is served.
  if (stale_serving_changed) RewriteHeader(entry, stop, lookup.m_now);
  return {nullptr, RefreshCode::UseEntry};
}

// An answer without a body: a confirmation of the stored one (304) renews its lifetime; any
// other drops the entry, or serves it stale when the server failed.
RefreshResult TakeNoBody(CacheLookup& lookup, const HttpReadStream& response, StaleFallback& stale,
                         const qv::stop_token& stop) {
  const auto status = static_cast<int>(response.QueryStatusCode());
  if (status != static_cast<int>(HttpStatus::NotModified)) {
    if (stale.Usable() && IsServerFailure(status)) {
      return stale.Serve(status == 0 ? std::string("no answer from the server")
                                     : "the server answered " + std::to_string(status));
    }
    return {nullptr, RefreshCode::DropEntry};
  }
  CacheEntry& entry = *lookup.m_entry;
  entry.SetExpiry(ExpiryFor(lookup.m_flags, FreshnessOf(response, lookup.m_now)));
  if (SetStaleServingRule(entry, response, lookup.m_flags, false)) {
    RewriteHeader(entry, stop, lookup.m_now);
  }
  return {nullptr, RefreshCode::UseEntry};
}

}  // namespace

RefreshResult RefreshFromHttp(CacheLookup& lookup, const qv::stop_token& stop) {
  // The request names exactly what the entry is kept under: the key is the normalised URL
  // (case of scheme and host, percent-encodings, dot segments), so the request is built from
  // that same normalisation, keeping the query the key leaves out. An answer for one spelling
  // of a path is then never stored under another spelling's key, whatever the transport would
  // have made of the spelling as written.
  HttpRequest request(TqUURL(lookup.m_url.c_str(), true), HttpMethod::Get);
  AskForChangedBodyOnly(request, *lookup.m_entry);
  StaleFallback stale(lookup, stop);
  std::unique_ptr<HttpReadStream> response;
  try {
    response = HttpReadStream::Open(request, stop);
  } catch (const http_exception& e) {
    if (!stale.Usable()) throw;
    std::string_view text = e.what();
    while (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    return stale.Serve(text);
  }
  if (!response->IsOpen()) {
    if (stale.Usable()) return stale.Serve("no request could be made");
    return {nullptr, lookup.m_entry->IsValid() ? RefreshCode::UseEntry : RefreshCode::Nothing};
  }
  if (response->Succeeded()) return TakeBody(lookup, *response, stale, stop);
  return TakeNoBody(lookup, *response, stale, stop);
}

RefreshResult RefreshFromSource(CacheLookup& lookup, const qv::stop_token& stop) {
  CacheEntry& entry = *lookup.m_entry;
  std::unique_ptr<qv::io::IDataReadStream> source =
      TqUFileURL::OpenURLReadStream(lookup.m_url.c_str(), stop);
  if (!source) return {nullptr, RefreshCode::Nothing};
  const bool changed = entry.UpdateETag(source->MetaData().etag);
  // Other sources say nothing about lifetimes: stale at once, asked again on every open.
  entry.SetExpiry(ExpiryFor(lookup.m_flags, Freshness{}));
  if (changed && !entry.Store(*source, stop, lookup.m_now)) {
    return {nullptr, RefreshCode::DropEntry};
  }
  return {nullptr, RefreshCode::UseEntry};
}

}  // namespace qv::net::detail
