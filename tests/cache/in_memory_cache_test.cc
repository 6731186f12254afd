#include "net/cache/in_memory_cache.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "net/cache/cache_init.h"
#include "net/cache/disk_cache.h"
#include "tests/cache/cache_test_support.h"
#include "tests/support/fake_transport_fixture.h"
#include "tests/support/servers/temp_dir.h"

namespace {

using qv::net::InMemoryCache;
using tq::test::FakeResponse;
using tq::test::ReadAll;

FakeResponse Body(int status, const std::string& body) {
  FakeResponse r;
  r.status = static_cast<std::uint32_t>(status);
  if (!body.empty()) r.Body(body);
  return r;
}

class InMemoryCacheTest : public tq::test::FakeTransportTest {
 protected:
  std::string Open(const std::wstring& url, qv::stop_token stop = {}) {
    auto stream = m_cache.OpenUrl(url, 0, std::move(stop));
    return stream ? ReadAll(*stream) : "<null>";
  }
  int Sends(const std::string& url) const { return m_api.CountCalls("Send GET " + url); }

  InMemoryCache m_cache;
};

TEST_F(InMemoryCacheTest, EachUrlTextIsDownloadedOnceFailuresAgainAndClearForgetsAll) {
  m_api.FailNextConnects(1);
  EXPECT_EQ(Open(L"http://example.test/down"), "<null>");
  m_api.Queue(Body(200, "up again"));
  EXPECT_EQ(Open(L"http://example.test/down"), "up again");
  m_api.Queue(Body(200, "bytes of a"));
  auto first = m_cache.OpenUrl(L"http://example.test/a", 0, {});
  auto second = m_cache.OpenUrl(L"http://example.test/a", 0, {});
  ASSERT_TRUE(first && second);
  // Each stream has its own position over the same bytes.
  EXPECT_EQ(ReadAll(*first), "bytes of a");
  EXPECT_EQ(second->RTell(), 0u);
  EXPECT_EQ(ReadAll(*second), "bytes of a");
  m_api.Queue(Body(200, "bytes of A"));  // another text of the same resource: another entry
  EXPECT_EQ(Open(L"http://EXAMPLE.test/a"), "bytes of A");
  EXPECT_EQ(Open(L"http://EXAMPLE.test/a"), "bytes of A");
  EXPECT_EQ(m_api.Sent().size(), 3u);

  m_api.Queue(Body(404, ""));  // an error answer is kept as an empty body
  EXPECT_EQ(Open(L"http://example.test/missing"), "");
  EXPECT_EQ(Open(L"http://example.test/missing"), "");
  EXPECT_EQ(Sends("http://example.test/missing"), 1);

  // Clear forgets every body; streams handed out keep theirs. CleanUp changes nothing.
  auto kept = m_cache.OpenUrl(L"http://example.test/a", 0, {});
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_EQ(Open(L"http://example.test/a"), "bytes of a");
  m_cache.Clear();
  m_api.Queue(Body(200, "new"));
  EXPECT_EQ(Open(L"http://example.test/a"), "new");
  EXPECT_EQ(ReadAll(*kept), "bytes of a");
  EXPECT_EQ(m_cache.OpenWriteStream(L"n"), nullptr);
  EXPECT_EQ(m_cache.OpenReadStream(L"n"), nullptr);
}

TEST_F(InMemoryCacheTest, ConcurrentOpensOfOneUrlShareOneDownloadAndAStoppedWaiterGivesUp) {
  const std::wstring held = L"http://example.test/held";
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  std::promise<void> held_sent;
  m_api.OnSend([&](const tq::test::SentRequest& request) {
    if (request.url == held) {
      held_sent.set_value();
      released.wait();
    }
  });
  m_api.SetResponder([](const tq::test::SentRequest& request) {
    return Body(200, "body of " + qv::WideToUtf8(request.url));
  });
  std::mutex mutex;
  std::condition_variable cv;
  int waits = 0;
  qv::net::detail::SetInMemoryCacheWaitHookForTesting([&] {
    std::lock_guard lock(mutex);
    ++waits;
    cv.notify_all();
  });
  auto wait_for_waits = [&](int n) {
    std::unique_lock lock(mutex);
    return cv.wait_for(lock, std::chrono::seconds(30), [&] { return waits >= n; });
  };

  auto first = std::async(std::launch::async, [&] { return Open(held); });
  held_sent.get_future().wait();
  // The held download does not block other URLs.
  EXPECT_EQ(Open(L"http://example.test/other"), "body of http://example.test/other");

  qv::stop_source stop;
  auto stopped = std::async(std::launch::async, [&] { return Open(held, stop.get_token()); });
  ASSERT_TRUE(wait_for_waits(1));
  stop.request_stop();
  EXPECT_EQ(stopped.get(), "<null>");
  const int stopped_waits = [&] {
    std::lock_guard lock(mutex);
    return waits;
  }();

  std::vector<std::future<std::string>> waiters;
  for (int i = 0; i < 3; ++i) {
    waiters.push_back(std::async(std::launch::async, [&] { return Open(held); }));
  }
  ASSERT_TRUE(wait_for_waits(stopped_waits + 3));
  release.set_value();
  EXPECT_EQ(first.get(), "body of http://example.test/held");
  for (auto& waiter : waiters) EXPECT_EQ(waiter.get(), "body of http://example.test/held");
  EXPECT_EQ(Sends("http://example.test/held"), 1);
  qv::net::detail::SetInMemoryCacheWaitHookForTesting({});
}

// Counts its destruction, so the test sees who destroys it and how often.
struct CountedCache : InMemoryCache {
  explicit CountedCache(int& destroyed) : destroyed(destroyed) {}
  ~CountedCache() override { ++destroyed; }
  int& destroyed;
};

TEST(InitialiseCacheTest, AnUnusableDirectoryFallsBackToMemoryUnlessACacheIsInstalled) {
  tq::test::TempDir dir;
  EXPECT_EQ(qv::net::CacheSystem(), nullptr);
  qv::net::TerminateCache();  // nothing installed: nothing happens
  dir.WriteFile("plain", "x");
  const std::wstring unusable = qv::Utf8ToWide((dir.path() / "plain" / "below").string());
  qv::net::InitialiseCache(unusable.c_str());
  ASSERT_NE(dynamic_cast<InMemoryCache*>(qv::net::CacheSystem()), nullptr);

  // A usable directory replaces the installed cache and destroys it.
  int destroyed = 0;
  delete qv::net::detail::ExchangeCacheSystem(new CountedCache(destroyed));
  qv::net::InitialiseCache(qv::Utf8ToWide(dir.path().string()).c_str());
  auto* disk = dynamic_cast<qv::net::DiskCache*>(qv::net::CacheSystem());
  ASSERT_NE(disk, nullptr);
  EXPECT_EQ(destroyed, 1);

  // An unusable directory now leaves the installed cache in place.
  qv::net::InitialiseCache(unusable.c_str());
  EXPECT_EQ(qv::net::CacheSystem(), disk);

  // Exchanging hands the previous cache back undestroyed; terminating destroys it once.
  EXPECT_EQ(qv::net::detail::ExchangeCacheSystem(new CountedCache(destroyed)), disk);
  delete disk;
  qv::net::TerminateCache();
  EXPECT_EQ(destroyed, 2);
  EXPECT_EQ(qv::net::CacheSystem(), nullptr);
  qv::net::TerminateCache();
  EXPECT_EQ(destroyed, 2);
}

}  // namespace
