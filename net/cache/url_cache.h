// The process-wide URL cache interface, its open flags, and the prefix of stored-body names.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "net/export.h"
#include "net/host/tqutil.h"

namespace qv::net {

/// Every operation may be called from several threads at once.
class TQNET_EXPORT IUrlCache {
 public:
  /// Open flag: the entry stored or revalidated by this call never expires.
  TQNET_EXPORT_CONSTANT static constexpr int NeverExpire = 1;
  /// Open flag: when a stale entry cannot be revalidated because the server cannot be reached,
  /// answers 500, 502, 503 or 504, or sends a new body that cannot be stored whole, the stored
  /// body is served and kept (one log line says so). Only entries stored or revalidated by an
  /// open with this flag qualify, and only when that response did not say "must-revalidate" or
  /// "no-cache"; opens without it store entries exactly as before.
  TQNET_EXPORT_CONSTANT static constexpr int ServeStaleOnError = 2;

  virtual ~IUrlCache();
  /// Reserved: every cache of the library answers false and nothing calls it.
  virtual bool QueryFlag() = 0;
  /// The URL's body from its first byte; null when nothing could be had.
  virtual std::unique_ptr<qv::io::IDataSeekableReadStream> OpenUrl(std::wstring_view url,
                                                                   int flags,
                                                                   qv::stop_token stop) = 0;
  /// Removes every entry, so that each URL is downloaded afresh.
  virtual void Clear() = 0;
  /// Brings the cache under its size limit now; true.
  virtual bool CleanUp() = 0;
  /// A body of the caller's own kept under "qvcache://" + name; null when it cannot be kept.
  virtual std::unique_ptr<qv::io::IDataSeekableWriteStream> OpenWriteStream(
      std::wstring_view name) = 0;
  /// The body kept under "qvcache://" + name; null when there is none. Never touches the
  /// network and ignores expiry.
  virtual std::unique_ptr<qv::io::IDataSeekableReadStream> OpenReadStream(
      std::wstring_view name) = 0;
};

/// The prefix of stored-body names: "qvcache://".
TQNET_EXPORT const std::wstring& CachePrefix();

/// The installed cache (not owned by the caller); null before InitialiseCache and after
/// TerminateCache.
TQNET_EXPORT IUrlCache* CacheSystem();
/// Destroys the installed cache; nothing without one.
TQNET_EXPORT void TerminateCache();

namespace detail {
/// Installs `cache` (owned from then on) and returns the one it replaces, which the caller owns.
IUrlCache* ExchangeCacheSystem(IUrlCache* cache);
}  // namespace detail

}  // namespace qv::net
