#include "net/cache/disk_cache.h"

#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "net/cache/cache_entry.h"
#include "net/cache/cache_entry_format.h"
#include "net/cache/cache_refresh.h"
#include "net/cache/downloads_in_flight.h"
#include "net/cache/fresh_hit.h"
#include "net/cache/freshness.h"
#include "net/stream/url_reading.h"

namespace qv::net {
namespace {

namespace fs = std::filesystem;
using detail::CacheLookup;
using detail::RefreshCode;
using detail::RefreshResult;

// One line of the error log: the message's text, or "Unknown exception" when it has none.
void LogExceptionText(const std::exception& e) {
  const char* text = e.what();
  TqUSysError::LogUTF8String(text != nullptr && *text != '\0' ? text : "Unknown exception");
}

// The entry file of a key (see ComputeCacheLocation).
fs::path LocationOfKey(const std::string& key, const fs::path& directory) {
  std::unique_ptr<TqUSysCryptHash> hash = TqUSysCryptHash::Create(0);
  if (!hash) throw std::runtime_error("Cache key digest is not available");
  // A digest of less than the whole key would name another key's file.
  if (!hash->AddData(key.data(), key.size())) throw std::runtime_error("Cache key digest failed");
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
      IsHttpUrl(lookup.m_url) ? detail::RefreshFromHttp(lookup, stop)
                               : detail::RefreshFromSource(lookup, stop);
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
      // Whatever exists at the name is taken as it stands, a plain file too: the cache is then
      // made, and its file operations give null, rather than refused in favour of memory.
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
