#include "net/cache/url_cache.h"

#include <utility>

namespace qv::net {
namespace {

// Plain pointer, owning: installed and cleared while no other thread uses the cache.
IUrlCache* g_cache_system = nullptr;

// Built at load time by the reference below; through the function, callers from other static
// constructors still find it built.
const std::wstring& PrefixStorage() {
  static const std::wstring prefix(L"qvcache://");
  return prefix;
}
[[maybe_unused]] const std::wstring& g_prefix_at_load = PrefixStorage();

}  // namespace

IUrlCache::~IUrlCache() = default;

const std::wstring& CachePrefix() { return PrefixStorage(); }

IUrlCache* CacheSystem() { return g_cache_system; }

void TerminateCache() {
  IUrlCache* cache = std::exchange(g_cache_system, nullptr);
  delete cache;
}

namespace detail {
IUrlCache* ExchangeCacheSystem(IUrlCache* cache) { return std::exchange(g_cache_system, cache); }
}  // namespace detail

}  // namespace qv::net
