#include "net/cache/disk_cache.h"

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include <gsl/narrow>

#include "net/cache/cache_entry.h"
#include "net/cache/cache_entry_format.h"
#include "net/cache/downloads_in_flight.h"
#include "net/cache/fresh_hit.h"
#include "net/cache/freshness.h"
#include "net/cache/stale_serving.h"
#include "net/http/http_request.h"
#include "net/http/http_status.h"
#include "net/stream/read_stream.h"
#include "net/stream/stream_copy.h"
#include "net/stream/url_reading.h"

namespace qv::net {
namespace {

namespace fs = std::filesystem;

// What the operations build per call and drop before returning.
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

// One line of the error log: the message's text, or "Unknown exception" when it has none.
void LogExceptionText(const std::exception& e) {
  const char* text = e.what();
  TqUSysError::LogUTF8String(text != nullptr && *text != '\0' ? text : "Unknown exception");
}

// The entry file of a key (see ComputeCacheLocation).
fs::path LocationOfKey(const std::string& key, const fs::path& directory) {
  std::unique_ptr<TqUSysCryptHash> hash = TqUSysCryptHash::Create(0);
  if (!hash) throw std::runtime_error("Cache key digest is not available");
  hash->AddData(key.data(), key.size());
  const std::size_t size = hash->GetHashSizeInBytes();
  std::string digest(size, '\0');
  if (!hash->GenerateAndDestroy(digest.data(), size)) {
    throw std::runtime_error("Cache key digest failed");
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string name;
  for (std::size_t i = 0; i < size && i < 5; ++i) {
    const auto byte = static_cast<unsigned char>(digest[i]);
    name += kHex[byte >> 4];
    name += kHex[byte & 0x0F];
  }
  return directory / name;
}

// The lookup of `url`, whose entry file is `path` holding `key`. Throws filesystem_error (a
// file-system failure of the existence test); the callers catch it.
CacheLookup MakeLookupOf(std::wstring_view url, int flags, fs::path path, std::string key,
                         bool keep_file_open) {
  CacheLookup lookup;
  lookup.m_url = std::wstring(url);
  lookup.m_flags = flags;
  // The load comes first and the existence test only when it fails, which gives the same
  // answers with one look at the file fewer on the common path.
  try {
    CacheEntry loaded = CacheEntry::Load(path, keep_file_open ? &lookup.m_loaded_file : nullptr);
    // A file of another URL whose name collides is neither used nor overwritten.
    if (loaded.Key() == key) {
      lookup.m_entry = std::move(loaded);
    } else {
      lookup.m_loaded_file.reset();
    }
  } catch (const invalid_cache_header&) {
    lookup.m_entry.emplace(std::move(path), std::move(key));
  } catch (const std::runtime_error&) {
    // No file, or something that is no entry of ours (a link or FIFO planted at the name, which
    // the load refused without following or waiting on it): a new entry, which a store puts in
    // its place by rename. In use by a writer, bad and undeletable, or a directory (which no
    // store could replace, so every open would fetch and then drop its body): none for this
    // call, and the URL is read into memory.
    const detail::EntryFileKind kind = detail::KindOfEntryFile(path);
    if (kind != detail::EntryFileKind::kRegular && kind != detail::EntryFileKind::kDirectory) {
      lookup.m_entry.emplace(std::move(path), std::move(key));
    }
  }
  return lookup;
}

// Throws filesystem_error (a file-system failure of the existence test) and the runtime errors
// of key and path; the callers catch them.
CacheLookup MakeLookup(std::wstring_view url, int flags, const fs::path& directory,
                       bool keep_file_open = false) {
  std::string key = DiskCache::UrlToCache(url);
  fs::path path = LocationOfKey(key, directory);
  return MakeLookupOf(url, flags, std::move(path), std::move(key), keep_file_open);
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
  const bool allowed = !(value && detail::ForbidsStaleServing(value->c_str())) && entry.MarkFits();
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
        detail::ClosingAtEndStream source(std::move(body));
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
    detail::LogUnexpectedBodyLength(*expected, copy.bytes_copied);
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
    detail::LogServingStale(m_lookup.m_url, reason);
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
    if (stale.Usable() && detail::IsServerFailure(status)) {
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

// The body of the entry `key` at `path` as the file holds it now, its use not recorded: for an
// open that found the file held by a writer for a moment just after its lookup (another open
// recording its use, which then needs no second record). Null when it cannot be had.
std::unique_ptr<qv::io::IDataSeekableReadStream> ServeAsItIs(const std::wstring& url, int flags,
                                                             const fs::path& path,
                                                             const std::string& key) {
  CacheLookup again = MakeLookupOf(url, flags, path, key, true);
  if (!again.m_entry || !again.m_loaded_file || again.m_entry->HeaderSize() == 0) return nullptr;
  return again.m_entry->OpenLoadedBody(std::move(again.m_loaded_file));
}

// The entry's body, its use recorded; when the file was held for a moment, as it is. Opens of
// one URL at once each hold its file alone for a moment as they record their use (on Windows
// the sharing then refuses every other open), so one look may find it held again: a few looks
// are made, and null is the answer only to a file held through all of them.
std::unique_ptr<qv::io::IDataSeekableReadStream> ServeEntry(CacheLookup& lookup) {
  CacheEntry& entry = *lookup.m_entry;
  if (auto stream = entry.OpenReadStream(lookup.m_now)) return stream;
  constexpr int kLooks = 4;
  for (int look = 1;; ++look) {
    if (auto stream = ServeAsItIs(lookup.m_url, lookup.m_flags, entry.Path(), entry.Key())) {
      return stream;
    }
    if (look == kLooks) return nullptr;
    std::this_thread::yield();  // the holder has a few writes left to make
  }
}

std::unique_ptr<qv::io::IDataSeekableReadStream> Refresh(CacheLookup& lookup,
                                                         const qv::stop_token& stop,
                                                         RefreshCode* code = nullptr) {
  RefreshResult result =
      IsHttpUrl(lookup.m_url) ? RefreshFromHttp(lookup, stop) : RefreshFromSource(lookup, stop);
  if (code != nullptr) *code = result.code;
  switch (result.code) {
    case RefreshCode::UseEntry:
      return ServeEntry(lookup);
    case RefreshCode::DropEntry:
      if (lookup.m_entry) {
        lookup.m_entry->Remove();
        lookup.m_entry.reset();
      }
      return std::move(result.stream);
    case RefreshCode::Nothing:
      break;
  }
  return nullptr;
}

void LogOpenFailure(const std::wstring& url, const std::exception& e) {
  TqUSysError::LogUTF8String("Failed to read resource into cache: ");
  TqUError::LogWideString(url.c_str());
  TqUSysError::LogUTF8String(": ");
  LogExceptionText(e);
  TqUSysError::LogUTF8String("\n");
}

std::unique_ptr<qv::io::IDataSeekableReadStream> OpenAfresh(std::wstring_view url, int flags,
                                                            const qv::stop_token& stop,
                                                            const fs::path& directory);

// The download of an entry that other opens may be waiting for: refreshes it, then leaves the
// outcome for them (after our own stream is open, so that they only read the file).
std::unique_ptr<qv::io::IDataSeekableReadStream> Download(
    CacheLookup& lookup, const qv::stop_token& stop, detail::DownloadsInFlight::Ticket& ticket) {
  using Kind = detail::DownloadOutcome::Kind;
  detail::DownloadOutcome outcome;
  outcome.url = lookup.m_url;
  outcome.flags = lookup.m_flags;
  std::unique_ptr<qv::io::IDataSeekableReadStream> stream;
  RefreshCode code = RefreshCode::Nothing;
  {
    TqULogRecorder recorder;
    try {
      stream = Refresh(lookup, stop, &code);
    } catch (const std::exception& e) {
      LogOpenFailure(lookup.m_url, e);
      stream.reset();
      code = RefreshCode::Nothing;
    }
    outcome.log = recorder.TakeRecords();
  }
  if (code == RefreshCode::UseEntry) {
    outcome.kind = Kind::kEntry;
  } else if (stream) {
    auto* memory = dynamic_cast<qv::io::MemoryStream*>(stream.get());
    if (memory != nullptr) {
      outcome.kind = Kind::kMemory;
      outcome.body = memory->Sink();
    }
  } else if (!stop.stop_requested()) {
    // Our own stop is no failure of theirs: they start over instead.
    outcome.kind = Kind::kFailed;
  }
  ticket.Finish(std::move(outcome));
  return stream;
}

// The entry a download left, served as it is (fresh or not: it is the answer the download
// got). Its use was recorded by the download a moment ago, so it is only read. Null when it is
// gone or not ours any more.
std::unique_ptr<qv::io::IDataSeekableReadStream> OpenLeftEntry(const CacheLookup& lookup,
                                                               const fs::path& directory) {
  try {
    CacheLookup left = MakeLookup(lookup.m_url, lookup.m_flags, directory, true);
    if (!left.m_entry || !left.m_loaded_file || left.m_entry->HeaderSize() == 0) return nullptr;
    return left.m_entry->OpenLoadedBody(std::move(left.m_loaded_file));
  } catch (const std::runtime_error&) {
    return nullptr;
  }
}

// Refreshes the entry, sharing the request with every other open of the same entry in this
// process: one of them asks the server, the others take its outcome as their own (its log
// lines too). An open whose URL text or flags differ from the download's, or whose download
// was abandoned, starts over once the download has ended, so two stores never race.
std::unique_ptr<qv::io::IDataSeekableReadStream> RefreshShared(CacheLookup& lookup,
                                                               const qv::stop_token& stop,
                                                               const fs::path& directory) {
  using Kind = detail::DownloadOutcome::Kind;
  const std::u8string path = lookup.m_entry->Path().u8string();
  const std::string id = std::string(path.begin(), path.end()) + '\n' + lookup.m_entry->Key();
  detail::DownloadsInFlight::Ticket ticket = detail::DownloadsInFlight::Process().Join(id);
  if (ticket.IsDownload()) return Download(lookup, stop, ticket);
  const std::shared_ptr<const detail::DownloadOutcome> outcome = ticket.Wait(stop);
  if (!outcome) return nullptr;
  if (outcome->kind != Kind::kAbandoned && outcome->url == lookup.m_url &&
      outcome->flags == lookup.m_flags) {
    switch (outcome->kind) {
      case Kind::kEntry:
        if (auto stream = OpenLeftEntry(lookup, directory)) {
          for (const TqULogRecord& record : outcome->log) TqUError::Write(record);
          return stream;
        }
        break;
      case Kind::kMemory:
        for (const TqULogRecord& record : outcome->log) TqUError::Write(record);
        return std::make_unique<qv::io::MemoryStream>(outcome->body);
      case Kind::kFailed:
        for (const TqULogRecord& record : outcome->log) TqUError::Write(record);
        return nullptr;
      case Kind::kAbandoned:
        break;
    }
  }
  return OpenAfresh(lookup.m_url, lookup.m_flags, stop, directory);
}

// The cache directory, made again should it be gone; false when it cannot be.
bool RemadeDirectory(const fs::path& directory) {
  try {
    detail::EnsureCacheDirectory(directory);
    return true;
  } catch (const fs::filesystem_error&) {
    return false;
  }
}

std::unique_ptr<qv::io::IDataSeekableReadStream> OpenLookup(CacheLookup& lookup,
                                                            const qv::stop_token& stop,
                                                            const fs::path& directory) {
  try {
    if (!lookup.m_entry) return ReadUrlIntoMemory(lookup.m_url, stop);
    CacheEntry& entry = *lookup.m_entry;
    const std::int64_t now = lookup.m_now;
    // Fresh, and its use already recorded this very second: recording it again would write
    // the bytes the file holds, so the file the load opened serves the body.
    if (lookup.m_loaded_file && entry.HeaderSize() != 0 && IsFresh(entry.Expiry(), now) &&
        entry.LastUsed() == now) {
      if (auto stream = entry.OpenLoadedBody(std::move(lookup.m_loaded_file))) return stream;
    }
    // Asked only of a stale entry (see TakeBody): a fresh hit pays no extra call.
    if (lookup.m_loaded_file && entry.HeaderSize() != 0 && !IsFresh(entry.Expiry(), now)) {
      const std::int64_t size = TqUSysFile::GetFileSize(lookup.m_loaded_file.get());
      const std::uint64_t body = entry_format::BodyOffset(entry.HeaderSize());
      if (size >= 0 && static_cast<std::uint64_t>(size) >= body) {
        lookup.m_stored_body_length = static_cast<std::uint64_t>(size) - body;
      }
    }
    lookup.m_loaded_file.reset();
    if (entry.IsValid() && IsFresh(entry.Expiry(), now)) return ServeEntry(lookup);
    // A directory at the temporary file's name (planted: no store of ours makes one, and none
    // replaces it) would fail every store, so that every open would fetch, drop the entry and
    // serve nothing: as with a directory at the entry's name, the URL is read into memory and
    // the entry left as it is.
    fs::path temporary = entry.Path();
    temporary += ".tmp";
    if (detail::KindOfEntryFile(temporary) == detail::EntryFileKind::kDirectory) {
      return ReadUrlIntoMemory(lookup.m_url, stop);
    }
    // A miss may find the directory itself gone (a user's clean-up tool removed it while the
    // host ran): made again, or every store would fail until the host restarts. Where it
    // cannot be, the URL is read into memory, as for a directory unusable from the start.
    if (!entry.IsValid() && !RemadeDirectory(directory)) {
      return ReadUrlIntoMemory(lookup.m_url, stop);
    }
    return RefreshShared(lookup, stop, directory);
  } catch (const std::exception& e) {
    LogOpenFailure(lookup.m_url, e);
    return nullptr;
  }
}

std::unique_ptr<qv::io::IDataSeekableReadStream> OpenAfresh(std::wstring_view url, int flags,
                                                            const qv::stop_token& stop,
                                                            const fs::path& directory) {
  try {
    // The one reading of the clock for this open: freshness, expiry and use are judged and
    // recorded against it. An open that starts over after another's download reads it anew.
    const std::int64_t now = TqUSysTime::GetTimeNow();
    CacheLookup lookup = MakeLookup(url, flags, directory, true);
    lookup.m_now = now;
    return OpenLookup(lookup, stop, directory);
  } catch (const std::runtime_error&) {
    return nullptr;
  }
}

std::wstring StoredBodyUrl(std::wstring_view name) {
  std::wstring url = CachePrefix();
  url.append(name);
  return url;
}

}  // namespace

namespace detail {
void EnsureCacheDirectory(const fs::path& directory) {
  switch (KindOfEntryFile(directory)) {
    case EntryFileKind::kNone:
      break;
    case EntryFileKind::kOther: {
      // A link is what it leads to, as every use of the directory will find it: a cache moved
      // elsewhere, or one that leads nowhere (a disk not mounted now), where no directory can
      // be made either. Taken for a directory, that one would fail every store and serve no
      // URL at all; refused, it leaves the caller to keep the cache in memory.
      std::error_code ec;
      const fs::file_status target = fs::status(directory, ec);
      if (!fs::status_known(target)) throw fs::filesystem_error("exists", directory, ec);
      if (fs::exists(target)) return;
      throw fs::filesystem_error("create_directories", directory,
                                 std::make_error_code(std::errc::file_exists));
    }
    default:
      return;
  }
  // The missing directories, made from the top down through the system file layer (at any
  // path length), each private to the user: entry files name the URLs the user has opened.
  // Those already there are left as they are.
  std::vector<fs::path> missing;
  std::error_code ec;
  for (fs::path p = directory; !p.empty(); p = p.parent_path()) {
    if (TqUSysFile::KindOfName(p, ec) != TqUSysFile::NameKind::kNone || ec) break;
    missing.push_back(p);
    if (p == p.parent_path()) break;
  }
  for (auto p = missing.rbegin(); p != missing.rend(); ++p) {
    if (!TqUSysDirectory::Create(*p, ec)) {
      throw fs::filesystem_error("create_directories", directory, ec);
    }
  }
}
}  // namespace detail

DiskCache::DiskCache(const wchar_t* directory) {
  // A name that does not convert whole, or no application directory at all, would put the
  // cache somewhere else (another directory, the working directory): no directory is used, the
  // error on which the host falls back to a cache in memory.
  bool whole = true;
  if (directory != nullptr) {
    m_directory = qv::PathOfWide(directory, &whole);
  } else {
    TqUWideStringBuffer app_dir;
    const bool known = TqUAppInfo::GetAppDir(0, &app_dir);
    m_directory = qv::PathOfWide(app_dir.View(), &whole) / "DiskCache";
    whole = whole && known;
  }
  m_directory /= "v1";
  if (!whole) {
    throw fs::filesystem_error("cache directory", m_directory,
                               std::make_error_code(std::errc::no_such_file_or_directory));
  }
  detail::EnsureCacheDirectory(m_directory);
  m_names = std::make_unique<detail::EntryNameIndex>();
}

DiskCache::~DiskCache() = default;

bool DiskCache::QueryFlag() { return false; }

std::string DiskCache::UrlToCache(std::wstring_view url) {
  // A stored-body name is the caller's own text, kept as written: read as a URL, "Thumb" and
  // "thumb", "a#1" and "a#2" or "a?x" and "a?y" would be one key, and a body stored under one
  // name would be served for the other.
  if (url.starts_with(CachePrefix())) return qv::WideToUtf8(url);
  TqUURL parsed(std::wstring(url).c_str(), true);
  parsed.SetQuery(L"");
  TqUWideStringBuffer full;
  parsed.GetFullURL(&full);
  return qv::WideToUtf8(full.View());
}

fs::path DiskCache::ComputeCacheLocation(std::wstring_view url, const fs::path& directory) {
  return LocationOfKey(UrlToCache(url), directory);
}

std::unique_ptr<qv::io::IDataSeekableReadStream> DiskCache::OpenUrl(std::wstring_view url,
                                                                    int flags,
                                                                    qv::stop_token stop) {
  // Read up to a NUL, such a URL would be keyed and fetched as the shorter one before it.
  if (url.find(L'\0') != std::wstring_view::npos) return nullptr;
  try {
    // The one reading of the clock for this open (see OpenAfresh).
    const std::int64_t now = TqUSysTime::GetTimeNow();
    // A URL opened before: its entry file's name is known, and a fresh entry whose use is
    // recorded already is served by one open and one read.
    std::shared_ptr<const detail::EntryName> name = m_names->Find(url);
    if (name) {
      if (auto stream = detail::OpenFreshEntryBody(*name, now)) {
        return stream;
      }
    } else {
      std::string key = UrlToCache(url);
      fs::path path = LocationOfKey(key, m_directory);
      name = std::make_shared<const detail::EntryName>(
          detail::EntryName{std::move(path), std::move(key)});
      m_names->Remember(url, name);
    }
    CacheLookup lookup = MakeLookupOf(url, flags, name->path, name->key, true);
    lookup.m_now = now;
    return OpenLookup(lookup, stop, m_directory);
  } catch (const std::runtime_error&) {
    return nullptr;
  }
}

void DiskCache::Clear() {
  std::error_code ec;
  // Links planted in the directory go as themselves; what they lead to is not the cache's.
  TqUSysDirectory::RemoveTree(m_directory, ec);
  detail::EnsureCacheDirectory(m_directory);
}

std::unique_ptr<qv::io::IDataSeekableWriteStream> DiskCache::OpenWriteStream(
    std::wstring_view name) {
  try {
    CacheLookup lookup = MakeLookup(StoredBodyUrl(name), 0, m_directory);
    if (!lookup.m_entry || !RemadeDirectory(m_directory)) return nullptr;
    return lookup.m_entry->OpenWriteStream(TqUSysTime::GetTimeNow());
  } catch (const std::runtime_error&) {
    return nullptr;
  }
}

std::unique_ptr<qv::io::IDataSeekableReadStream> DiskCache::OpenReadStream(
    std::wstring_view name) {
  try {
    CacheLookup lookup = MakeLookup(StoredBodyUrl(name), 0, m_directory);
    if (!lookup.m_entry || !lookup.m_entry->IsValid()) return nullptr;
    lookup.m_now = TqUSysTime::GetTimeNow();
    return ServeEntry(lookup);
  } catch (const std::runtime_error&) {
    return nullptr;
  }
}

bool DiskCache::Contains(std::wstring_view url) {
  try {
    CacheLookup lookup = MakeLookup(url, 0, m_directory);
    return lookup.m_entry && lookup.m_entry->IsValid();
  } catch (const std::runtime_error&) {
    return false;
  }
}

std::int64_t DiskCache::ExpiryTime(std::wstring_view url) {
  try {
    CacheLookup lookup = MakeLookup(url, 0, m_directory);
    return lookup.m_entry ? lookup.m_entry->Expiry() : -1;
  } catch (const std::runtime_error&) {
    return -1;
  }
}

}  // namespace qv::net
