#include "net/cache/url_cache.h"

#include <gtest/gtest.h>

namespace {

// Counts its own destruction, so the test sees who destroys it and how often.
class CountedCache : public qv::net::IUrlCache {
 public:
  explicit CountedCache(int& destroyed) : m_destroyed(destroyed) {}
  ~CountedCache() override { ++m_destroyed; }
  bool QueryFlag() override { return false; }
  std::unique_ptr<qv::io::IDataSeekableReadStream> OpenUrl(std::wstring_view, int,
                                                           qv::stop_token) override {
    return nullptr;
  }
  void Clear() override {}
  bool CleanUp() override { return true; }
  std::unique_ptr<qv::io::IDataSeekableWriteStream> OpenWriteStream(std::wstring_view) override {
    return nullptr;
  }
  std::unique_ptr<qv::io::IDataSeekableReadStream> OpenReadStream(std::wstring_view) override {
    return nullptr;
  }

 private:
  int& m_destroyed;
};

TEST(UrlCacheSystemTest, TerminateDestroysTheInstalledCacheOnceAndLeavesNone) {
  EXPECT_EQ(qv::net::CacheSystem(), nullptr);
  qv::net::TerminateCache();  // nothing installed: nothing happens

  int destroyed = 0;
  auto* cache = new CountedCache(destroyed);
  EXPECT_EQ(qv::net::detail::ExchangeCacheSystem(cache), nullptr);
  EXPECT_EQ(qv::net::CacheSystem(), cache);
  qv::net::TerminateCache();
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(qv::net::CacheSystem(), nullptr);
  qv::net::TerminateCache();
  EXPECT_EQ(destroyed, 1);

  // Exchanging hands the previous cache back to the caller, undestroyed.
  int first_destroyed = 0;
  int second_destroyed = 0;
  auto* first = new CountedCache(first_destroyed);
  qv::net::detail::ExchangeCacheSystem(first);
  qv::net::IUrlCache* previous =
      qv::net::detail::ExchangeCacheSystem(new CountedCache(second_destroyed));
  EXPECT_EQ(previous, first);
  EXPECT_EQ(first_destroyed, 0);
  delete previous;
  qv::net::TerminateCache();
  EXPECT_EQ(second_destroyed, 1);
}

TEST(UrlCacheSystemTest, ThePrefixIsOneConstantTenCharactersLong) {
  const std::wstring& prefix = qv::net::CachePrefix();
  EXPECT_EQ(prefix, L"qvcache://");
  EXPECT_EQ(prefix.size(), 10u);
  EXPECT_EQ(&qv::net::CachePrefix(), &prefix) << "built once, not per call";
  EXPECT_EQ(qv::net::IUrlCache::NeverExpire, 1);
}

}  // namespace
