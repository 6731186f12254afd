// The URL cache kept on disk: one entry file per URL in a cache directory, served while fresh,
// revalidated with the server (entity tag, "If-None-Match", 304) when stale, and trimmed to the
// configured size when the host asks (CleanUp).
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "net/cache/cache_entry.h"
#include "net/cache/url_cache.h"
#include "net/export.h"

namespace qv::net {

namespace detail {
class EntryNameIndex;
}  // namespace detail

/// Holds nothing but its directory: every operation builds what it needs from the entry files
/// and lets it go before returning, so the cache is the directory's contents and survives the
/// process. (It remembers which entry file each URL it opened maps to, which follows from the
/// URL alone; the file is still read and checked on every open.) Operations may run on several
/// threads and in several processes at once and rely on the entry files' sharing rules
/// (cache_entry.h). Besides the short lock of that name index, the one lock is that of the
/// downloads in flight (downloads_in_flight.h): opens of one entry in one process that must ask
/// the server share one request, instead of each sending its own and all but one losing their
/// store.
class DiskCache : public IUrlCache {
 public:
  /// Entries live in `directory`/v1 (null: the application's cache directory/DiskCache/v1),
  /// created with missing parents and, on POSIX, readable by the owner only. Throws
  /// std::filesystem::filesystem_error when it cannot be tested or created, when `directory`
  /// does not convert to a path whole, or (null) when the system names no per-user cache
  /// directory: the cache is then nowhere rather than in some other directory.
  explicit DiskCache(const wchar_t* directory);
  ~DiskCache() override;
  DiskCache(const DiskCache&) = delete;
  DiskCache& operator=(const DiskCache&) = delete;

  bool QueryFlag() override;
  std::unique_ptr<qv::io::IDataSeekableReadStream> OpenUrl(std::wstring_view url, int flags,
                                                           qv::stop_token stop) override;
  /// Removes every entry; throws filesystem_error when the directory cannot be made again.
  void Clear() override;
  /// Trims the directory below the limit on a thread of its own (the caller's when none can be
  /// started) and waits for it; true, whatever the trimming met.
  bool CleanUp() override;
  /// Null when the entry file cannot be made; throws gsl::narrowing_error for a name whose
  /// key is too long for an entry's header.
  std::unique_ptr<qv::io::IDataSeekableWriteStream> OpenWriteStream(
      std::wstring_view name) override;
  std::unique_ptr<qv::io::IDataSeekableReadStream> OpenReadStream(
      std::wstring_view name) override;

  /// A valid entry exists for `url` (taken as it is: no name prefix).
  virtual bool Contains(std::wstring_view url);
  /// The expiry recorded for `url`: 0 when never cached, -1 when the entry cannot be read or
  /// its file holds another URL's entry.
  virtual std::int64_t ExpiryTime(std::wstring_view url);

  /// The cache key: the URL normalised, without its query and its fragment, in UTF-8. A URL
  /// that starts with the stored-body prefix ("qvcache://") is its key as written.
  TQNET_EXPORT static std::string UrlToCache(std::wstring_view url);
  /// The entry file: `directory` joined with 10 hex digits of the key's digest.
  TQNET_EXPORT static std::filesystem::path ComputeCacheLocation(
      std::wstring_view url, const std::filesystem::path& directory);

  /// The directory the entry files live in (the given one's "v1").
  const std::filesystem::path& Directory() const { return m_directory; }

 private:
  /// Measures the directory and, when it is over the limit, deletes entries until it is below
  /// the target; the listing, reading and deleting are in cache_cleanup.cc.
  void EnforceSizeLimit();

  std::filesystem::path m_directory;
  std::unique_ptr<detail::EntryNameIndex> m_names;
};

namespace detail {
/// Creates `directory` and its missing parents (owner-only on POSIX); throws filesystem_error
/// named "exists" or "create_directories".
void EnsureCacheDirectory(const std::filesystem::path& directory);
}  // namespace detail

}  // namespace qv::net
