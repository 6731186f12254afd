// Concurrent opens of one URL through the disk cache in one process: one request to the server,
// every open served the whole body; a stopped waiter leaves alone; a failed download fails every
// open with the line it would have logged by itself.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "net/cache/cache_init.h"
#include "net/cache/disk_cache.h"
#include "net/cache/downloads_in_flight.h"
#include "net/cache/url_cache.h"
#include "net/http/connection_pool.h"
#include "net/http/http_init.h"
#include "net/stream/open_file_or_url.h"
#include "net/stream/read_stream.h"
#include "tests/cache/cache_test_support.h"
#include "tests/support/log_capture.h"
#include "tests/support/servers/scripted_server.h"
#include "tests/support/servers/temp_dir.h"
#include "tests/support/wine.h"

namespace tq::test {
namespace {

using namespace std::chrono_literals;
using qv::net::detail::DownloadOutcome;
using qv::net::detail::DownloadsInFlight;
using ::testing::IsEmpty;

constexpr int kOpens = 8;

std::string Body(std::size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 131 + i / 251 + seed));
  return bytes;
}

std::optional<std::string> OpenAndRead(const std::string& url, int flags, qv::stop_token stop) {
  auto stream = qv::net::OpenFileOrUrl(qv::Utf8ToWide(url), flags, std::move(stop));
  if (!stream) return std::nullopt;
  return ReadAll(*stream, 65536);
}

class SharedDownloadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    previous_sleep_ = qv::net::detail::SetRetrySleepForTesting([](std::chrono::milliseconds) {});
    qv::net::InitialiseHttp();
    qv::net::InitialiseCache(qv::Utf8ToWide(dir_.path().string()).c_str());
    ASSERT_NE(dynamic_cast<qv::net::DiskCache*>(qv::net::CacheSystem()), nullptr);
    qv::net::detail::SetDownloadWaitHookForTesting([this] { Arrive(); });
  }

  void TearDown() override {
    qv::net::detail::SetDownloadWaitHookForTesting({});
    qv::net::TerminateCache();
    qv::net::HttpConnectionPool::Terminate();
    qv::net::TerminateHttp();
    qv::net::detail::SetRetrySleepForTesting(std::move(previous_sleep_));
  }

  // An open that got as far as the server, or as far as waiting for another open's download.
  void Arrive() {
    {
      std::lock_guard lock(mutex_);
      ++arrivals_;
    }
    arrived_.notify_all();
  }

  // Blocks until `count` opens have arrived. The bound only keeps a regression (more requests
  // than the server has threads) from hanging the test; the counts asserted afterwards fail it.
  void WaitForArrivals(int count) {
    std::unique_lock lock(mutex_);
    arrived_.wait_for(lock, 30s, [&] { return arrivals_ >= count; });
  }

  // A route whose answers are held at the gate until the test opens it.
  void HeldRoute(const std::string& path, std::function<ScriptedResponse()> answer) {
    server_.Route(path, [this, answer](const RecordedRequest&) {
      Arrive();
      gate_.Wait();
      return answer();
    });
  }

  // `count` opens of `url` on threads of their own; their results once all have ended.
  std::vector<std::optional<std::string>> OpenConcurrently(const std::string& url, int count,
                                                           int flags = 0) {
    std::vector<std::optional<std::string>> results(count);
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
      threads.emplace_back([&, i] { results[i] = OpenAndRead(url, flags, {}); });
    }
    WaitForArrivals(count);
    gate_.Open();
    for (auto& thread : threads) thread.join();
    return results;
  }

  TempDir dir_;
  ScriptedServer server_;
  Gate gate_;
  LogCapture log_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  int arrivals_ = 0;

 private:
  qv::net::detail::RetrySleepFunction previous_sleep_;
};

TEST_F(SharedDownloadTest, EightOpensOfAnUncachedUrlSendOneRequestAndAllGetTheWholeBody) {
  ASSERT_TRUE(server_.ok());
  const std::string body = Body(3 << 20, 1);
  HeldRoute("/doc", [&] { return ScriptedResponse(200, body).Header("ETag", "\"v1\""); });
  const std::string url = server_.Url("/doc");

  const auto results = OpenConcurrently(url, kOpens);
  EXPECT_EQ(server_.request_count(), 1u);
  for (int i = 0; i < kOpens; ++i) {
    ASSERT_TRUE(results[i].has_value()) << "open " << i;
    EXPECT_TRUE(*results[i] == body) << "open " << i << " got " << results[i]->size() << " bytes";
  }
  EXPECT_THAT(LinesBeyondWine(log_), IsEmpty());
  auto* cache = dynamic_cast<qv::net::DiskCache*>(qv::net::CacheSystem());
  EXPECT_TRUE(cache->Contains(qv::Utf8ToWide(url)));
}

TEST_F(SharedDownloadTest, EightOpensOfAStaleEntrySendOneRevalidation) {
  ASSERT_TRUE(server_.ok());
  ScopedClock clock(1'000'000'000);
  const std::string body = Body(1 << 20, 2);
  const std::string url = server_.Url("/stale");
  server_.Route("/stale", ScriptedResponse(200, body)
                              .Header("ETag", "\"v1\"")
                              .Header("Date", "Sun, 09 Sep 2001 01:46:40 GMT")
                              .Header("Cache-Control", "max-age=60"));
  ASSERT_EQ(OpenAndRead(url, 0, {}), body);
  auto* cache = dynamic_cast<qv::net::DiskCache*>(qv::net::CacheSystem());
  const std::int64_t expiry = cache->ExpiryTime(qv::Utf8ToWide(url));
  ASSERT_GT(expiry, 0);
  clock.Set(expiry + 1);  // stale from now on

  HeldRoute("/stale", [] {
    return ScriptedResponse(304)
        .Header("ETag", "\"v1\"")
        .Header("Date", "Sun, 09 Sep 2001 01:50:00 GMT")
        .Header("Cache-Control", "max-age=60");
  });
  const auto results = OpenConcurrently(url, kOpens);
  ASSERT_EQ(server_.request_count(), 2u) << "one store, then one revalidation";
  EXPECT_EQ(server_.requests().back().Header("If-None-Match"), "\"v1\"");
  for (int i = 0; i < kOpens; ++i) {
    ASSERT_TRUE(results[i].has_value()) << "open " << i;
    EXPECT_TRUE(*results[i] == body) << "open " << i;
  }
  EXPECT_THAT(LinesBeyondWine(log_), IsEmpty());
  EXPECT_GT(cache->ExpiryTime(qv::Utf8ToWide(url)), expiry) << "the 304 renewed the entry";
}

TEST_F(SharedDownloadTest, ABodyThatMustNotBeStoredIsSharedFromMemory) {
  ASSERT_TRUE(server_.ok());
  const std::string body = Body(512 << 10, 5);
  HeldRoute("/private", [&] {
    return ScriptedResponse(200, body)
        .Header("Date", "Sun, 09 Sep 2001 01:46:40 GMT")
        .Header("Cache-Control", "no-store");
  });
  const std::string url = server_.Url("/private");

  const auto results = OpenConcurrently(url, 4);
  EXPECT_EQ(server_.request_count(), 1u);
  for (const auto& result : results) EXPECT_EQ(result, body);
  auto* cache = dynamic_cast<qv::net::DiskCache*>(qv::net::CacheSystem());
  EXPECT_FALSE(cache->Contains(qv::Utf8ToWide(url)));
  EXPECT_THAT(LinesBeyondWine(log_), IsEmpty());
}

TEST_F(SharedDownloadTest, AStoppedWaiterLeavesWhileTheDownloadGoesOnForTheOthers) {
  ASSERT_TRUE(server_.ok());
  const std::string body = Body(256 << 10, 3);
  HeldRoute("/doc", [&] { return ScriptedResponse(200, body).Header("ETag", "\"v\""); });
  const std::string url = server_.Url("/doc");

  auto first = std::async(std::launch::async, [&] { return OpenAndRead(url, 0, {}); });
  WaitForArrivals(1);  // the download, held at the server
  qv::stop_source stop;
  auto stopped =
      std::async(std::launch::async, [&] { return OpenAndRead(url, 0, stop.get_token()); });
  auto other = std::async(std::launch::async, [&] { return OpenAndRead(url, 0, {}); });
  WaitForArrivals(3);
  stop.request_stop();
  // The stopped open returns while the answer is still held.
  const bool left = stopped.wait_for(30s) == std::future_status::ready;
  EXPECT_FALSE(gate_.is_open());
  gate_.Open();
  EXPECT_TRUE(left);
  EXPECT_EQ(stopped.get(), std::nullopt);
  EXPECT_EQ(first.get(), body);
  EXPECT_EQ(other.get(), body);
  EXPECT_EQ(server_.request_count(), 1u);
  EXPECT_THAT(LinesBeyondWine(log_), IsEmpty());
}

TEST_F(SharedDownloadTest, AFailedDownloadFailsEveryOpenWithItsOwnLogLine) {
  ASSERT_TRUE(server_.ok());
  HeldRoute("/missing", [] { return ScriptedResponse(404, "not here"); });
  const std::string url = server_.Url("/missing");

  const auto results = OpenConcurrently(url, kOpens);
  EXPECT_EQ(server_.request_count(), 1u);
  for (int i = 0; i < kOpens; ++i) EXPECT_EQ(results[i], std::nullopt) << "open " << i;
  const std::vector<std::string> expected(kOpens, "Error: HTTP Response 404 for GET " + url + "\n");
  EXPECT_EQ(LinesBeyondWine(log_), expected);
}

TEST_F(SharedDownloadTest, ADownloadStoppedByItsOwnCallerIsTakenOverByAWaiter) {
  ASSERT_TRUE(server_.ok());
  const std::string body = Body(128 << 10, 4);
  HeldRoute("/doc", [&] { return ScriptedResponse(200, body).Header("ETag", "\"v\""); });
  const std::string url = server_.Url("/doc");

  qv::stop_source stop;
  auto first =
      std::async(std::launch::async, [&] { return OpenAndRead(url, 0, stop.get_token()); });
  WaitForArrivals(1);
  auto waiter = std::async(std::launch::async, [&] { return OpenAndRead(url, 0, {}); });
  WaitForArrivals(2);
  stop.request_stop();
  gate_.Open();
  EXPECT_EQ(first.get(), std::nullopt);
  EXPECT_EQ(waiter.get(), body) << "another caller's stop is no failure of this one";
  EXPECT_EQ(server_.request_count(), 2u);
}

// The table on its own: a download whose thread leaves without an outcome (an exception)
// still ends every wait, and a waiter that is stopped leaves while the download goes on.
TEST(DownloadsInFlightTest, WaitersNeverOutliveTheDownloadNorTheirOwnStop) {
  DownloadsInFlight table;
  std::shared_ptr<const DownloadOutcome> seen;
  {
    std::optional<DownloadsInFlight::Ticket> download(table.Join("key"));
    ASSERT_TRUE(download->IsDownload());
    DownloadsInFlight::Ticket waiter = table.Join("key");
    ASSERT_FALSE(waiter.IsDownload());
    auto waited = std::async(std::launch::async, [&] { return waiter.Wait({}); });
    try {
      // The downloading thread throws: its ticket goes with the stack.
      [&] {
        auto gone = std::move(download);
        throw std::runtime_error("thrown mid-body");
      }();
    } catch (const std::runtime_error&) {
    }
    seen = waited.get();
  }
  ASSERT_NE(seen, nullptr);
  EXPECT_EQ(seen->kind, DownloadOutcome::Kind::kAbandoned);

  DownloadsInFlight::Ticket download = table.Join("key");
  ASSERT_TRUE(download.IsDownload()) << "an ended download leaves the table";
  DownloadsInFlight::Ticket stopped = table.Join("key");
  DownloadsInFlight::Ticket staying = table.Join("key");
  qv::stop_source stop;
  stop.request_stop();
  EXPECT_EQ(stopped.Wait(stop.get_token()), nullptr);
  DownloadOutcome outcome;
  outcome.kind = DownloadOutcome::Kind::kFailed;
  outcome.url = L"u";
  download.Finish(std::move(outcome));
  const auto got = staying.Wait({});
  ASSERT_NE(got, nullptr);
  EXPECT_EQ(got->kind, DownloadOutcome::Kind::kFailed);
  EXPECT_EQ(got->url, L"u");
}

}  // namespace
}  // namespace tq::test
