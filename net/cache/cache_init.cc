#include "net/cache/cache_init.h"

#include <filesystem>
#include <memory>

#include "net/cache/disk_cache.h"
#include "net/cache/in_memory_cache.h"
#include "net/cache/url_cache.h"

namespace qv::net {

void InitialiseCache(const wchar_t* directory) {
  std::unique_ptr<IUrlCache> cache;
  try {
    cache = std::make_unique<DiskCache>(directory);
  } catch (const std::filesystem::filesystem_error&) {
    // URL caching still works, in memory, when the directory is unusable.
    if (CacheSystem() == nullptr) detail::ExchangeCacheSystem(new InMemoryCache());
    return;
  }
  // A second call must not leak the first cache: nothing else uses it at start-up, so it is
  // destroyed here rather than left behind.
  delete detail::ExchangeCacheSystem(cache.release());
}

}  // namespace qv::net
