// The disk cache over a loopback server: concurrent opens of one URL share one download and each
// get what it would have got alone; a stale entry is served, and kept, when its revalidation
// cannot reach the server or the server fails, where the open's flag and the stored response
// allow it (the entry's header then carries a mark).
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <limits>
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
using qv::net::IUrlCache;
using qv::net::detail::DownloadOutcome;
using qv::net::detail::DownloadsInFlight;
using Lines = std::vector<std::string>;

constexpr int kStale = IUrlCache::ServeStaleOnError;
constexpr std::int64_t kTime = 1'000'000'000;
constexpr const char* kDate = "Sun, 09 Sep 2001 01:46:40 GMT";  // kTime
const std::string kMark("\x03\x03\x01", 3);  // the header extension: may be served stale

std::optional<std::string> OpenAndRead(const std::string& url, int flags,
                                       qv::stop_token stop = {}) {
  auto stream = qv::net::OpenFileOrUrl(qv::Utf8ToWide(url), flags, std::move(stop));
  if (!stream) return std::nullopt;
  return ReadAll(*stream, 65536);
}

ScriptedResponse Answer(int status, const std::string& body, const char* date,
                        const char* cache_control) {
  return ScriptedResponse(status, body)
      .Header("ETag", "\"v1\"")
      .Header("Date", date)
      .Header("Cache-Control", cache_control);
}

class LoopbackCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    previous_sleep_ = qv::net::detail::SetRetrySleepForTesting([this](std::chrono::milliseconds) {
      std::lock_guard lock(mutex_);
      ++sleeps_;
    });
    qv::net::InitialiseHttp();
    qv::net::InitialiseCache(qv::Utf8ToWide(dir_.path().string()).c_str());
    cache_ = dynamic_cast<qv::net::DiskCache*>(qv::net::CacheSystem());
    ASSERT_NE(cache_, nullptr);
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
  // A route whose answer is held at `gate` until the test opens it.
  void HeldRoute(const std::string& path, Gate& gate, ScriptedResponse answer) {
    server_.Route(path, [this, &gate, answer](const RecordedRequest&) {
      Arrive();
      gate.Wait();
      return answer;
    });
  }
  std::wstring Wide(const std::string& url) const { return qv::Utf8ToWide(url); }
  std::filesystem::path EntryPath(const std::string& url) const {
    return qv::net::DiskCache::ComputeCacheLocation(Wide(url), dir_.path() / "v1");
  }
  // The entry file as the layout says it must be, with the tag as it was stored.
  std::string ExpectedEntry(const std::string& url, std::int64_t expiry, const std::string& body,
                            bool marked) const {
    return EntryBytes(clock_.Now(), expiry, qv::net::CacheEntry::Load(EntryPath(url)).ETag(),
                      qv::net::DiskCache::UrlToCache(Wide(url)), body, marked ? kMark : "");
  }
  std::size_t Sleeps() {
    std::lock_guard lock(mutex_);
    return sleeps_;
  }

  TempDir dir_;
  qv::net::DiskCache* cache_ = nullptr;
  ScriptedServer server_;
  LogCapture log_;
  ScopedClock clock_{kTime};
  std::mutex mutex_;
  std::condition_variable arrived_;
  int arrivals_ = 0;
  std::size_t sleeps_ = 0;

 private:
  qv::net::detail::RetrySleepFunction previous_sleep_;
};

using SharedDownloadTest = LoopbackCacheTest;
using StaleOnErrorTest = LoopbackCacheTest;

TEST_F(SharedDownloadTest, ConcurrentOpensSendOneRequestAndEachGetsWhatItWouldHaveGotAlone) {
  ASSERT_TRUE(server_.ok());
  constexpr int kOpens = 8;
  std::string body(1 << 20, '\0');
  for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i * 131 + i / 251);
  const ScriptedResponse fresh = Answer(200, body, kDate, "max-age=60");
  struct Case {
    const char* path;
    std::optional<ScriptedResponse> stored;  // stored first, then made stale
    int flags;
    ScriptedResponse held;  // the answer to the concurrent opens
    bool served;            // each open got the body
    bool kept;              // the URL is in the cache afterwards
    Lines lines;            // each open's log lines, the URL in place of "%"
  } const cases[] = {
      {"/uncached", std::nullopt, 0, fresh, true, true, {}},
      {"/revalidated", fresh, 0, Answer(304, "", "Sun, 09 Sep 2001 01:50:00 GMT", "max-age=60"),
       true, true, {}},
      {"/private", std::nullopt, 0, Answer(200, body, kDate, "no-store"), true, false, {}},
      {"/missing", std::nullopt, 0, ScriptedResponse(404, "not here"), false, false,
       {"Error: HTTP Response 404 for GET %"}},
      {"/stale", fresh, kStale, ScriptedResponse(503), true, true,
       {"Error: HTTP Response 503 for GET %", "Serving stale entry for %: the server answered 503"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    const std::string url = server_.Url(c.path);
    clock_.Set(kTime);
    if (c.stored) {
      server_.Route(c.path, *c.stored);
      ASSERT_EQ(OpenAndRead(url, c.flags), body);
      clock_.Set(cache_->ExpiryTime(Wide(url)) + 1);
    }
    const std::int64_t stale_expiry = cache_->ExpiryTime(Wide(url));
    const std::size_t requests = server_.request_count();
    Gate gate;
    HeldRoute(c.path, gate, c.held);
    log_.Clear();
    arrivals_ = 0;
    std::vector<std::optional<std::string>> results(kOpens);
    std::vector<std::thread> threads;
    for (auto& result : results) threads.emplace_back([&] { result = OpenAndRead(url, c.flags); });
    WaitForArrivals(kOpens);
    gate.Open();
    for (auto& thread : threads) thread.join();

    EXPECT_EQ(server_.request_count(), requests + 1);
    for (const auto& result : results) {
      EXPECT_TRUE(c.served ? result == body : !result) << (result ? result->size() : 0) << " bytes";
    }
    EXPECT_EQ(cache_->Contains(Wide(url)), c.kept);
    if (c.stored && c.held.status == 304) {
      EXPECT_EQ(server_.requests().back().Header("If-None-Match"), "\"v1\"");
      EXPECT_GT(cache_->ExpiryTime(Wide(url)), stale_expiry) << "the 304 renewed the entry";
    }
    Lines expected;
    for (std::string line : c.lines) {
      expected.insert(expected.end(), kOpens, line.replace(line.find('%'), 1, url) + "\n");
    }
    Lines lines = LinesBeyondWine(log_);
    std::sort(lines.begin(), lines.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(lines, expected);
    qv::net::HttpConnectionPool::Terminate();
  }
}

// A stopped waiter leaves while the download is still held; a stopped download is no failure of
// the opens waiting for it: one of them downloads anew.
TEST_F(SharedDownloadTest, AStoppedWaiterLeavesAndAStoppedDownloadIsTakenOverByAWaiter) {
  ASSERT_TRUE(server_.ok());
  const std::string body(256 << 10, 'w');
  Gate gate;
  HeldRoute("/doc", gate, ScriptedResponse(200, body).Header("ETag", "\"v\""));
  const std::string url = server_.Url("/doc");
  qv::stop_source stop_download;
  qv::stop_source stop_waiter;
  auto download = std::async(std::launch::async,
                             [&] { return OpenAndRead(url, 0, stop_download.get_token()); });
  WaitForArrivals(1);  // the download, held at the server
  auto stopped = std::async(std::launch::async,
                            [&] { return OpenAndRead(url, 0, stop_waiter.get_token()); });
  auto waiter = std::async(std::launch::async, [&] { return OpenAndRead(url, 0); });
  WaitForArrivals(3);
  stop_waiter.request_stop();
  const bool left = stopped.wait_for(30s) == std::future_status::ready;
  EXPECT_TRUE(left && !gate.is_open()) << "the stopped waiter returns while the answer is held";
  stop_download.request_stop();
  gate.Open();
  EXPECT_EQ(stopped.get(), std::nullopt);
  EXPECT_EQ(download.get(), std::nullopt);
  EXPECT_EQ(waiter.get(), body);
  EXPECT_EQ(server_.request_count(), 2u);
  EXPECT_EQ(LinesBeyondWine(log_), Lines{});
}

// A download whose thread leaves without an outcome (an exception) still ends every wait.
TEST(DownloadsInFlightTest, ADownloadThatThrowsEndsEveryWaitAndLeavesTheTable) {
  DownloadsInFlight table;
  std::optional<DownloadsInFlight::Ticket> download(table.Join("key"));
  ASSERT_TRUE(download->IsDownload());
  DownloadsInFlight::Ticket waiter = table.Join("key");
  ASSERT_FALSE(waiter.IsDownload());
  auto waited = std::async(std::launch::async, [&] { return waiter.Wait({}); });
  try {
    [&] {
      auto gone = std::move(download);
      throw std::runtime_error("thrown mid-body");
    }();
  } catch (const std::runtime_error&) {
  }
  const std::shared_ptr<const DownloadOutcome> seen = waited.get();
  ASSERT_NE(seen, nullptr);
  EXPECT_EQ(seen->kind, DownloadOutcome::Kind::kAbandoned);
  EXPECT_TRUE(table.Join("key").IsDownload());
}

TEST_F(StaleOnErrorTest, AStaleEntryIsServedOnlyWhenTheServerFailsAndTheFlagAndEntryAllowIt) {
  struct Case {
    const char* name;
    const char* stored_cache_control;
    int failure;  // the answer to the revalidation; 0: the server is gone
    int flags;
    bool served;
    int store_flags = -1;  // the first open's flags; -1: the same as the second's
  } const cases[] = {
      {"gone", "max-age=60", 0, kStale, true},
      {"500", "max-age=60", 500, kStale, true},
      {"502 after the retries", "max-age=60", 502, kStale, true},
      {"503", "max-age=60", 503, kStale, true},
      {"504", "max-age=60", 504, kStale, true},
      {"404", "max-age=60", 404, kStale, false},
      {"410", "max-age=60", 410, kStale, false},
      {"gone, no flag", "max-age=60", 0, 0, false},
      {"503, no flag", "max-age=60", 503, 0, false},
      {"503, must-revalidate stored", "max-age=60, must-revalidate", 503, kStale, false},
      {"gone, no-cache stored", "no-cache", 0, kStale, false},
      {"gone, stored by an open without the flag", "max-age=60", 0, kStale, false, 0},
      {"gone, never expiring", "max-age=60", 0, kStale | IUrlCache::NeverExpire, true},
  };
  const std::string body(100000, 'b');
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    clock_.Set(kTime);
    auto server = std::make_unique<ScriptedServer>();
    ASSERT_TRUE(server->ok());
    const std::string url = server->Url("/doc");
    server->Route("/doc", Answer(200, body, kDate, c.stored_cache_control));
    const int store_flags = c.store_flags < 0 ? c.flags : c.store_flags;
    ASSERT_EQ(OpenAndRead(url, store_flags), body);
    // Marked only where the open asked for it and the response did not forbid it.
    const bool marked = (store_flags & kStale) && c.stored_cache_control == std::string("max-age=60");
    const std::int64_t expiry = cache_->ExpiryTime(Wide(url));
    EXPECT_EQ(ReadFileBytes(EntryPath(url)), ExpectedEntry(url, expiry, body, marked));
    if (c.flags & IUrlCache::NeverExpire) {
      // Stale only by a time past every other: make it so by hand, marked as the open left it.
      EXPECT_EQ(expiry, std::numeric_limits<std::int64_t>::max());
      WriteFileBytes(EntryPath(url), ExpectedEntry(url, 5, body, true));
    } else {
      clock_.Set(expiry + 1);
    }
    const std::int64_t stale_expiry = cache_->ExpiryTime(Wide(url));

    if (c.failure == 0) {
      qv::net::HttpConnectionPool::Terminate();
      server.reset();
    } else {
      server->Route("/doc", ScriptedResponse(c.failure, "failed"));
    }
    log_.Clear();
    const std::size_t sleeps_before = Sleeps();
    const std::optional<std::string> got = OpenAndRead(url, c.flags);

    Lines expected;
    const std::string status = std::to_string(c.failure);
    if (c.failure != 0) expected.push_back("Error: HTTP Response " + status + " for GET " + url + "\n");
    if (c.served) {
      EXPECT_EQ(got, body);
      EXPECT_EQ(cache_->ExpiryTime(Wide(url)), stale_expiry) << "kept, and still stale";
      expected.push_back("Serving stale entry for " + url + ": " +
                         (c.failure ? "the server answered " + status : "no answer from the server") +
                         "\n");
    } else {
      EXPECT_EQ(got, std::nullopt);
      EXPECT_FALSE(cache_->Contains(Wide(url))) << "the entry is dropped";
    }
    EXPECT_EQ(LinesBeyondWine(log_), expected);
    if (server) {
      const bool retried = c.failure == 502;
      EXPECT_EQ(Sleeps() - sleeps_before, retried ? 5u : 0u);
      EXPECT_EQ(server->request_count(), retried ? 7u : 2u) << "served stale only after retries";
    }
    qv::net::HttpConnectionPool::Terminate();
  }
}

// An entry file as written before the mark existed loads and is revalidated as ever; a 304 to an
// open with the flag marks it (the header written anew, the body kept), and from then on it may
// be served stale; a 304 that says "must-revalidate" takes the mark away again.
TEST_F(StaleOnErrorTest, A304MarksAnUnmarkedEntryAndAMustRevalidate304UnmarksIt) {
  ASSERT_TRUE(server_.ok());
  const std::string body = "the body itself";
  const std::string url = server_.Url("/doc");
  WriteFileBytes(EntryPath(url),
                 EntryBytes(1, 5, "\"v1\"", qv::net::DiskCache::UrlToCache(Wide(url)), body));
  server_.Route("/doc", Answer(304, "", "Sun, 09 Sep 2001 02:46:40 GMT", "max-age=600"));
  ASSERT_EQ(OpenAndRead(url, kStale), body);
  EXPECT_EQ(ReadFileBytes(EntryPath(url)), ExpectedEntry(url, kTime + 3600 + 600, body, true));
  clock_.Set(kTime + 3600 + 601);
  server_.Route("/doc", ScriptedResponse(503));
  log_.Clear();
  EXPECT_EQ(OpenAndRead(url, kStale), body);
  EXPECT_EQ(LinesBeyondWine(log_),
            (Lines{"Error: HTTP Response 503 for GET " + url + "\n",
                   "Serving stale entry for " + url + ": the server answered 503\n"}));

  server_.Route("/doc",
                Answer(304, "", "Sun, 09 Sep 2001 03:46:40 GMT", "max-age=600, must-revalidate"));
  ASSERT_EQ(OpenAndRead(url, kStale), body);
  EXPECT_EQ(ReadFileBytes(EntryPath(url)), ExpectedEntry(url, kTime + 7200 + 600, body, false));
  clock_.Set(kTime + 7200 + 601);
  server_.Route("/doc", ScriptedResponse(503));
  EXPECT_EQ(OpenAndRead(url, kStale), std::nullopt);
  EXPECT_FALSE(cache_->Contains(Wide(url)));
  qv::net::HttpConnectionPool::Terminate();
}

}  // namespace
}  // namespace tq::test
