#include "net/cache/in_memory_cache.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <thread>
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
  std::string Open(const wchar_t* url) {
    auto stream = m_cache.OpenUrl(url, qv::net::IUrlCache::NeverExpire, {});
    return stream ? ReadAll(*stream) : "<null>";
  }
  int Sends(const std::string& url) const { return m_api.CountCalls("Send GET " + url); }

  InMemoryCache m_cache;
};

TEST_F(InMemoryCacheTest, AUrlTextIsDownloadedOnceAndServedFromMemoryAfterwards) {
  m_api.Queue(Body(200, "bytes of a"));
  auto first = m_cache.OpenUrl(L"http://example.test/a", 0, {});
  ASSERT_NE(first, nullptr);
  auto second = m_cache.OpenUrl(L"http://example.test/a", 0, {});
  ASSERT_NE(second, nullptr);
  // Each stream has its own position over the same bytes.
  EXPECT_EQ(ReadAll(*first), "bytes of a");
  EXPECT_EQ(second->RTell(), 0u);
  EXPECT_EQ(ReadAll(*second), "bytes of a");
  EXPECT_EQ(Sends("http://example.test/a"), 1);

  // Another text of the same resource is another entry.
  m_api.Queue(Body(200, "bytes of A"));
  EXPECT_EQ(Open(L"http://EXAMPLE.test/a"), "bytes of A");
  EXPECT_EQ(Open(L"http://EXAMPLE.test/a"), "bytes of A");
  EXPECT_EQ(m_api.Sent().size(), 2u);
}

TEST_F(InMemoryCacheTest, FailuresAreTriedAgainButErrorAnswersAreKeptAsEmptyBodies) {
  m_api.FailNextConnects(1);
  EXPECT_EQ(Open(L"http://example.test/down"), "<null>");
  m_api.Queue(Body(200, "up again"));
  EXPECT_EQ(Open(L"http://example.test/down"), "up again");

  m_api.Queue(Body(404, ""));
  EXPECT_EQ(Open(L"http://example.test/missing"), "");
  EXPECT_EQ(Open(L"http://example.test/missing"), "");
  EXPECT_EQ(Sends("http://example.test/missing"), 1);
}

TEST_F(InMemoryCacheTest, ClearForgetsTheBodiesButStreamsHandedOutKeepTheirs) {
  m_api.Queue(Body(200, "old"));
  auto kept = m_cache.OpenUrl(L"http://example.test/c", 0, {});
  ASSERT_NE(kept, nullptr);
  EXPECT_TRUE(m_cache.CleanUp());  // changes nothing
  EXPECT_EQ(Open(L"http://example.test/c"), "old");
  m_cache.Clear();
  m_api.Queue(Body(200, "new"));
  EXPECT_EQ(Open(L"http://example.test/c"), "new");
  EXPECT_EQ(ReadAll(*kept), "old");
  EXPECT_FALSE(m_cache.QueryFlag());
  EXPECT_EQ(m_cache.OpenWriteStream(L"n"), nullptr);
  EXPECT_EQ(m_cache.OpenReadStream(L"n"), nullptr);
}

TEST_F(InMemoryCacheTest, ConcurrentOpensOfOneUrlShareOneDownloadWhileOtherUrlsProceed) {
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

  auto first = std::async(std::launch::async, [&] { return Open(held.c_str()); });
  held_sent.get_future().wait();
  // The held download does not block other URLs.
  EXPECT_EQ(Open(L"http://example.test/other"), "body of http://example.test/other");

  std::vector<std::future<std::string>> waiters;
  for (int i = 0; i < 3; ++i) {
    waiters.push_back(std::async(std::launch::async, [&] { return Open(held.c_str()); }));
  }
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(cv.wait_for(lock, std::chrono::seconds(30), [&] { return waits >= 3; }));
  }
  release.set_value();
  EXPECT_EQ(first.get(), "body of http://example.test/held");
  for (auto& waiter : waiters) EXPECT_EQ(waiter.get(), "body of http://example.test/held");
  EXPECT_EQ(Sends("http://example.test/held"), 1);
  qv::net::detail::SetInMemoryCacheWaitHookForTesting({});
}

TEST_F(InMemoryCacheTest, AWaiterWhoseStopIsRequestedGivesUp) {
  const std::wstring held = L"http://example.test/slow";
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  std::promise<void> held_sent;
  m_api.OnSend([&](const tq::test::SentRequest&) {
    held_sent.set_value();
    released.wait();
  });
  m_api.Queue(Body(200, "slow body"));
  auto first = std::async(std::launch::async, [&] { return Open(held.c_str()); });
  held_sent.get_future().wait();

  qv::stop_source stop;
  std::promise<void> waiting;
  bool signalled = false;
  qv::net::detail::SetInMemoryCacheWaitHookForTesting([&] {
    if (!signalled) {
      signalled = true;
      waiting.set_value();
    }
  });
  auto waiter = std::async(std::launch::async, [&] {
    return m_cache.OpenUrl(held, 0, stop.get_token()) == nullptr;
  });
  waiting.get_future().wait();
  stop.request_stop();
  EXPECT_TRUE(waiter.get());
  release.set_value();
  EXPECT_EQ(first.get(), "slow body");
  qv::net::detail::SetInMemoryCacheWaitHookForTesting({});
}

class InitialiseCacheTest : public ::testing::Test {
 protected:
  ~InitialiseCacheTest() override { qv::net::TerminateCache(); }
  tq::test::TempDir m_dir;
};

TEST_F(InitialiseCacheTest, AnUnusableDirectoryFallsBackToMemoryUnlessACacheIsInstalled) {
  EXPECT_EQ(qv::net::CacheSystem(), nullptr);
  m_dir.WriteFile("plain", "x");
  const std::wstring unusable = qv::Utf8ToWide((m_dir.path() / "plain" / "below").string());
  qv::net::InitialiseCache(unusable.c_str());
  auto* memory = dynamic_cast<InMemoryCache*>(qv::net::CacheSystem());
  ASSERT_NE(memory, nullptr);
  EXPECT_EQ(memory->OpenWriteStream(L"name"), nullptr);

  // A usable directory replaces it with a disk cache.
  const std::wstring usable = qv::Utf8ToWide(m_dir.path().string());
  qv::net::InitialiseCache(usable.c_str());
  auto* disk = dynamic_cast<qv::net::DiskCache*>(qv::net::CacheSystem());
  ASSERT_NE(disk, nullptr);
  {
    auto out = disk->OpenWriteStream(L"name");
    ASSERT_NE(out, nullptr);
    out->Write("kept", 4);
  }
  auto in = disk->OpenReadStream(L"name");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(ReadAll(*in), "kept");

  // An unusable directory now leaves the installed cache in place.
  qv::net::InitialiseCache(unusable.c_str());
  EXPECT_EQ(qv::net::CacheSystem(), disk);

  qv::net::TerminateCache();
  EXPECT_EQ(qv::net::CacheSystem(), nullptr);
  qv::net::TerminateCache();
}

}  // namespace
