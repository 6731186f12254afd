// The URL cache used when the disk cache cannot be set up: the whole body of every URL opened
// through it stays in memory for the cache's life, downloaded once and then served from there.
#pragma once

#include <functional>
#include <memory>
#include <string_view>

#include "net/cache/url_cache.h"
#include "net/export.h"

namespace qv::net {

/// No size limit, no expiry, no revalidation, no stored bodies. Safe to call from several
/// threads at once; a URL is downloaded by one caller at a time while others wait for it.
class TQNET_EXPORT InMemoryCache : public IUrlCache {
 public:
  InMemoryCache();
  ~InMemoryCache() override;
  InMemoryCache(const InMemoryCache&) = delete;
  InMemoryCache& operator=(const InMemoryCache&) = delete;

  bool QueryFlag() override;
  std::unique_ptr<qv::io::IDataSeekableReadStream> OpenUrl(std::wstring_view url, int flags,
                                                           qv::stop_token stop) override;
  /// Forgets every body; streams handed out earlier keep theirs.
  void Clear() override;
  bool CleanUp() override;
  /// Stored bodies are not supported: null.
  std::unique_ptr<qv::io::IDataSeekableWriteStream> OpenWriteStream(
      std::wstring_view name) override;
  std::unique_ptr<qv::io::IDataSeekableReadStream> OpenReadStream(
      std::wstring_view name) override;

  class Impl;

 private:
  std::unique_ptr<Impl> m_impl;
};

namespace detail {
/// Called before each wait of an OpenUrl for another caller's download of the same URL (again
/// after every poll of a stop token that can stop), so tests can tell that callers are waiting
/// without sleeping. Set while no cache is in use.
void SetInMemoryCacheWaitHookForTesting(std::function<void()> hook);
}  // namespace detail

}  // namespace qv::net
