#include "net/stream/open_file_or_url.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cwchar>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "net/cache/url_cache.h"
#include "net/stream/thread_pool.h"
#include "tests/support/fake_transport_fixture.h"

namespace {

using qv::net::OpenFileOrUrl;
using qv::net::OpenFileOrUrlAsync;
using qv::net::thread_pool;
using tq::test::FakeResponse;
using ::testing::ElementsAre;

constexpr const wchar_t* kUrl = L"http://example.test/remote.bin";

std::string ReadAll(qv::io::IDataReadStream& stream) {
  std::string text;
  char buffer[32];
  while (const std::uint64_t n = stream.Read(buffer, sizeof buffer)) text.append(buffer, n);
  return text;
}

FakeResponse Ok(std::string body) {
  FakeResponse response;
  response.Header(L"Content-Length", std::to_wstring(body.size())).Body(std::move(body));
  return response;
}

// Records what it is asked and answers "cached:<url>" (or throws).
class RecordingCache : public qv::net::IUrlCache {
 public:
  std::unique_ptr<qv::io::IDataSeekableReadStream> OpenUrl(std::wstring_view url, int flags,
                                                           qv::stop_token stop) override {
    std::lock_guard lock(m_mutex);
    m_urls.emplace_back(url);
    m_flags.push_back(flags);
    m_stop_possible = stop.stop_possible();
    if (m_throw) throw std::runtime_error("cache broke");
    auto memory = std::make_unique<qv::io::MemoryStream>();
    const std::string text = "cached:" + qv::WideToUtf8(url);
    memory->Write(text.data(), text.size());
    memory->RSeek(0, qv::io::StreamPosition::Begin);
    return memory;
  }
  bool QueryFlag() override { return false; }
  void Clear() override {}
  bool CleanUp() override { return true; }
  std::unique_ptr<qv::io::IDataSeekableWriteStream> OpenWriteStream(std::wstring_view) override {
    return nullptr;
  }
  std::unique_ptr<qv::io::IDataSeekableReadStream> OpenReadStream(std::wstring_view) override {
    return nullptr;
  }

  std::mutex m_mutex;
  std::vector<std::wstring> m_urls;
  std::vector<int> m_flags;
  bool m_stop_possible = false;
  bool m_throw = false;
};

// A local file, and a cache and a worker pool installed on demand and removed after the test.
class OpenFileOrUrlTest : public tq::test::FakeTransportTest {
 protected:
  void SetUp() override {
    FakeTransportTest::SetUp();
    m_file = std::filesystem::temp_directory_path() /
             (std::string("tq_open_file_or_url_") +
              ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".txt");
    std::ofstream(m_file, std::ios::binary) << "local file body";
  }
  void TearDown() override {
    // The pool first: no task may outlive the transport and cache it uses.
    qv::net::ExchangeWorkerThreadPool(nullptr).reset();
    delete qv::net::detail::ExchangeCacheSystem(nullptr);
    std::filesystem::remove(m_file);
    FakeTransportTest::TearDown();
  }

  RecordingCache* InstallCache() {
    auto* cache = new RecordingCache();
    EXPECT_EQ(qv::net::detail::ExchangeCacheSystem(cache), nullptr);
    return cache;
  }
  thread_pool* InstallPool(std::uint32_t threads) {
    qv::net::ExchangeWorkerThreadPool(std::make_unique<thread_pool>(threads));
    return qv::net::WorkerThreadPool();
  }

  std::filesystem::path m_file;
};

TEST_F(OpenFileOrUrlTest, LocalPathsOpenTheFileAndUrlsAreReadIntoMemoryWithoutCache) {
  auto local = OpenFileOrUrl(m_file.wstring(), 0, {});
  ASSERT_NE(local, nullptr);
  EXPECT_EQ(ReadAll(*local), "local file body");
  EXPECT_EQ(local->RSeek(6, qv::io::StreamPosition::Begin), 6u);
  EXPECT_EQ(ReadAll(*local), "file body");
  EXPECT_EQ(OpenFileOrUrl((m_file.wstring() + L".missing"), 0, {}), nullptr);

  m_api.Queue(Ok("remote body"));
  auto remote = OpenFileOrUrl(kUrl, 1, {});
  ASSERT_NE(remote, nullptr);
  EXPECT_EQ(ReadAll(*remote), "remote body");
  EXPECT_EQ(remote->RSeek(0, qv::io::StreamPosition::Begin), 0u);
  EXPECT_EQ(ReadAll(*remote), "remote body");

  // A view that does not end at a NUL: only its characters are the name.
  const std::wstring longer = std::wstring(kUrl) + L"#ignored-tail";
  m_api.Queue(Ok("x"));
  ASSERT_NE(OpenFileOrUrl(std::wstring_view(longer).substr(0, std::wcslen(kUrl)), 0, {}),
            nullptr);
  EXPECT_EQ(m_api.Sent().back().url, kUrl);
  EXPECT_EQ(m_log.Text(), "");
}

TEST_F(OpenFileOrUrlTest, UrlsGoThroughTheInstalledCacheUnlessAStopWasRequested) {
  RecordingCache* cache = InstallCache();
  qv::stop_source stopped;
  stopped.request_stop();
  EXPECT_EQ(OpenFileOrUrl(m_file.wstring(), 0, stopped.get_token()), nullptr);
  EXPECT_EQ(OpenFileOrUrl(kUrl, 0, stopped.get_token()), nullptr);
  EXPECT_EQ(OpenFileOrUrlAsync(m_file.wstring(), 0, stopped.get_token()).get(), nullptr);
  EXPECT_TRUE(cache->m_urls.empty());

  qv::stop_source stop;
  auto stream = OpenFileOrUrl(kUrl, qv::net::IUrlCache::NeverExpire, stop.get_token());
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(ReadAll(*stream), "cached:http://example.test/remote.bin");
  EXPECT_THAT(cache->m_urls, ElementsAre(kUrl));
  EXPECT_THAT(cache->m_flags, ElementsAre(1));
  EXPECT_TRUE(cache->m_stop_possible) << "the caller's token is passed on";
  EXPECT_TRUE(m_api.Calls().empty()) << "the cache, not this call, reaches the network";

  // Local paths never go to the cache; a cache's exception reaches the caller.
  EXPECT_NE(OpenFileOrUrl(m_file.wstring(), 0, {}), nullptr);
  EXPECT_EQ(cache->m_urls.size(), 1u);
  cache->m_throw = true;
  EXPECT_THROW(OpenFileOrUrl(kUrl, 0, {}), std::runtime_error);
}

TEST_F(OpenFileOrUrlTest, AsyncLocalPathsAreReadyAtOnceAndUrlsWithoutAPoolAreABrokenPromise) {
  auto no_pool = OpenFileOrUrlAsync(kUrl, 0, {});
  ASSERT_EQ(no_pool.wait_for(std::chrono::seconds(0)), std::future_status::ready);
  try {
    no_pool.get();
    ADD_FAILURE() << "a URL was opened without a pool";
  } catch (const std::future_error& e) {
    EXPECT_EQ(e.code(), std::make_error_code(std::future_errc::broken_promise));
  }
  EXPECT_TRUE(m_api.Calls().empty());

  // A local file never waits behind network work, even with the only worker busy.
  thread_pool* pool = InstallPool(1);
  std::promise<void> release;
  auto busy = pool->submit([gate = release.get_future().share()] { gate.wait(); });
  auto future = OpenFileOrUrlAsync(m_file.wstring(), 0, {});
  ASSERT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::ready);
  auto stream = future.get();
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(ReadAll(*stream), "local file body");
  EXPECT_EQ(OpenFileOrUrlAsync(m_file.wstring() + L".missing", 0, {}).get(), nullptr);
  release.set_value();
  busy.get();
}

TEST_F(OpenFileOrUrlTest, AsyncUrlsRunOnTheWorkersAndSeeAStopMadeWhileQueued) {
  thread_pool* pool = InstallPool(4);
  m_api.SetResponder([](const tq::test::SentRequest& sent) {
    return Ok("body of " + qv::WideToUtf8(sent.resource));
  });
  std::vector<std::future<std::unique_ptr<qv::io::IDataSeekableReadStream>>> futures;
  for (int i = 0; i < 32; ++i) {
    futures.push_back(OpenFileOrUrlAsync(L"http://example.test/f" + std::to_wstring(i), 0, {}));
  }
  for (int i = 0; i < 32; ++i) {
    auto stream = futures[i].get();
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(ReadAll(*stream), "body of /f" + std::to_string(i));
  }
  EXPECT_EQ(m_api.CountCalls("Connect"), 1) << "one pooled connection for the server";

  // Every worker is held; the stop comes before one picks the task up.
  std::promise<void> release;
  std::shared_future<void> gate = release.get_future().share();
  std::vector<std::future<void>> busy;
  for (int i = 0; i < 4; ++i) busy.push_back(pool->submit([gate] { gate.wait(); }));
  qv::stop_source stop;
  auto stopped = OpenFileOrUrlAsync(kUrl, 0, stop.get_token());
  stop.request_stop();
  release.set_value();
  for (auto& task : busy) task.get();
  EXPECT_EQ(stopped.get(), nullptr);
  EXPECT_EQ(m_api.CountCalls("Send"), 32) << "the stopped task sent nothing";

  // An exception on the worker arrives through the future.
  InstallCache()->m_throw = true;
  EXPECT_THROW(OpenFileOrUrlAsync(kUrl, 0, {}).get(), std::runtime_error);
}

}  // namespace
