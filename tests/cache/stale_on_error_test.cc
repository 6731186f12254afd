// ServeStaleOnError: a stale entry is served, and kept, when its revalidation cannot reach the
// server or the server fails (500, 502, 503, 504); not when the resource is gone, not when the
// stored response forbade it, and never without the flag. The rule rides in the entry file
// without changing entries that do not carry it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
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

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using qv::net::IUrlCache;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int kStale = IUrlCache::ServeStaleOnError;
constexpr const char* kDate = "Sun, 09 Sep 2001 01:46:40 GMT";

std::optional<std::string> OpenAndRead(const std::string& url, int flags) {
  auto stream = qv::net::OpenFileOrUrl(qv::Utf8ToWide(url), flags, {});
  if (!stream) return std::nullopt;
  return ReadAll(*stream, 65536);
}

class StaleOnErrorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    previous_sleep_ = qv::net::detail::SetRetrySleepForTesting(
        [this](std::chrono::milliseconds wait) {
          std::lock_guard lock(mutex_);
          sleeps_.push_back(wait);
        });
    qv::net::InitialiseHttp();
    qv::net::InitialiseCache(qv::Utf8ToWide(dir_.path().string()).c_str());
    cache_ = dynamic_cast<qv::net::DiskCache*>(qv::net::CacheSystem());
    ASSERT_NE(cache_, nullptr);
  }

  void TearDown() override {
    qv::net::TerminateCache();
    qv::net::HttpConnectionPool::Terminate();
    qv::net::TerminateHttp();
    qv::net::detail::SetRetrySleepForTesting(std::move(previous_sleep_));
  }

  std::size_t Sleeps() {
    std::lock_guard lock(mutex_);
    return sleeps_.size();
  }

  fs::path EntryPath(const std::string& url) const {
    return qv::net::DiskCache::ComputeCacheLocation(qv::Utf8ToWide(url), dir_.path() / "v1");
  }

  TempDir dir_;
  qv::net::DiskCache* cache_ = nullptr;
  LogCapture log_;
  ScopedClock clock_{1'000'000'000};
  std::mutex mutex_;
  std::vector<std::chrono::milliseconds> sleeps_;

 private:
  qv::net::detail::RetrySleepFunction previous_sleep_;
};

// An entry file with the header extension that marks it as allowed to be served stale.
std::string MarkedEntryBytes(std::int64_t last_used, std::int64_t expiry, const std::string& tag,
                             const std::string& key, const std::string& body) {
  return Le(24 + tag.size() + key.size() + 3, 2) + "\x01\x01" + Le(last_used, 8) +
         Le(expiry, 8) + Le(tag.size(), 2) + tag + Le(key.size(), 2) + key + "\x02\x02" +
         std::string("\x03\x03\x01", 3) + body;
}

enum class Failure { kServerGone, k503, k502, k404 };

TEST_F(StaleOnErrorTest, AStaleEntryIsServedOnlyWhenTheServerFailsAndTheFlagAndEntryAllowIt) {
  struct Case {
    const char* name;
    const char* stored_cache_control;
    Failure failure;
    int flags;
    bool served;
    int store_flags = -1;  // the first open's flags; -1: the same as the second's
  };
  const Case cases[] = {
      {"gone, flag", "max-age=60", Failure::kServerGone, kStale, true},
      {"503, flag", "max-age=60", Failure::k503, kStale, true},
      {"502 after the retries, flag", "max-age=60", Failure::k502, kStale, true},
      {"404, flag", "max-age=60", Failure::k404, kStale, false},
      {"gone, no flag", "max-age=60", Failure::kServerGone, 0, false},
      {"503, no flag", "max-age=60", Failure::k503, 0, false},
      {"503, must-revalidate stored", "max-age=60, must-revalidate", Failure::k503, kStale, false},
      {"gone, no-cache stored", "no-cache", Failure::kServerGone, kStale, false},
      {"gone, stored by an open without the flag", "max-age=60", Failure::kServerGone, kStale,
       false, 0},
      {"gone, never expiring and the flag", "max-age=60", Failure::kServerGone,
       kStale | IUrlCache::NeverExpire, true},
  };
  const std::string body(100000, 'b');
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    cache_->Clear();
    clock_.Set(1'000'000'000);
    auto server = std::make_unique<ScriptedServer>();
    ASSERT_TRUE(server->ok());
    const std::string url = server->Url("/doc");
    server->Route("/doc", ScriptedResponse(200, body)
                              .Header("ETag", "\"v1\"")
                              .Header("Date", kDate)
                              .Header("Cache-Control", c.stored_cache_control));
    ASSERT_EQ(OpenAndRead(url, c.store_flags < 0 ? c.flags : c.store_flags), body);
    const std::int64_t expiry = cache_->ExpiryTime(qv::Utf8ToWide(url));
    if (c.flags & IUrlCache::NeverExpire) {
      // Stale only by a time past every other: make it so by hand, as marked by the open.
      WriteFileBytes(EntryPath(url), MarkedEntryBytes(1, 5, "\"v1\"",
                                                      qv::net::DiskCache::UrlToCache(
                                                          qv::Utf8ToWide(url)),
                                                      body));
    } else {
      clock_.Set(expiry + 1);
    }
    const std::int64_t stale_expiry = cache_->ExpiryTime(qv::Utf8ToWide(url));

    switch (c.failure) {
      case Failure::kServerGone:
        qv::net::HttpConnectionPool::Terminate();
        server.reset();
        break;
      case Failure::k503:
        server->Route("/doc", ScriptedResponse(503, "busy"));
        break;
      case Failure::k502:
        server->Route("/doc", ScriptedResponse(502, "bad gateway"));
        break;
      case Failure::k404:
        server->Route("/doc", ScriptedResponse(404, "gone"));
        break;
    }
    log_.Clear();
    const std::size_t sleeps_before = Sleeps();
    const std::optional<std::string> got = OpenAndRead(url, c.flags);

    std::vector<std::string> expected_log;
    if (c.failure != Failure::kServerGone) {
      const char* status = c.failure == Failure::k503   ? "503"
                           : c.failure == Failure::k502 ? "502"
                                                        : "404";
      expected_log.push_back(std::string("Error: HTTP Response ") + status + " for GET " + url +
                             "\n");
    }
    if (c.served) {
      EXPECT_EQ(got, body);
      EXPECT_TRUE(cache_->Contains(qv::Utf8ToWide(url))) << "the entry is kept";
      EXPECT_EQ(cache_->ExpiryTime(qv::Utf8ToWide(url)), stale_expiry) << "and stays stale";
      const std::string reason = c.failure == Failure::kServerGone ? "no answer from the server"
                                 : c.failure == Failure::k503       ? "the server answered 503"
                                                                    : "the server answered 502";
      expected_log.push_back("Serving stale entry for " + url + ": " + reason + "\n");
    } else {
      EXPECT_EQ(got, std::nullopt);
      EXPECT_FALSE(cache_->Contains(qv::Utf8ToWide(url))) << "the entry is dropped";
    }
    EXPECT_EQ(LinesBeyondWine(log_), expected_log);
    if (c.failure == Failure::k502) {
      EXPECT_EQ(Sleeps() - sleeps_before, 5u) << "served stale only after the retries";
      EXPECT_EQ(server->request_count(), 1u + 6u);
    }
    qv::net::HttpConnectionPool::Terminate();
  }
}

// Entries stored without the flag, or from a response that forbids serving them stale, are laid
// out exactly as before; one marked as allowed carries the extension after its end marker,
// inside its header size, so any reader finds the body at the same place.
TEST_F(StaleOnErrorTest, TheMarkRidesInTheHeaderAndEntriesWithoutItKeepTheirLayout) {
  ScriptedServer server;
  ASSERT_TRUE(server.ok());
  const std::string body = "the body itself";
  const std::string url = server.Url("/doc");
  const std::string key = qv::net::DiskCache::UrlToCache(qv::Utf8ToWide(url));
  auto field = [](const std::string& bytes, std::size_t at) {
    return static_cast<std::size_t>(static_cast<unsigned char>(bytes[at]) |
                                    (static_cast<unsigned char>(bytes[at + 1]) << 8));
  };
  // What follows the end marker (the extension, if any, then the body); checks the header size.
  auto after_end_marker = [&](const std::string& bytes) -> std::string {
    if (bytes.size() < 22) return "<short>";
    const std::size_t t = field(bytes, 20);  // the tag as stored (it may keep a terminator)
    if (bytes.size() < 26 + t + key.size()) return "<short>";
    EXPECT_EQ(bytes.substr(24 + t + key.size(), 2), "\x02\x02");
    const std::string rest = bytes.substr(26 + t + key.size());
    EXPECT_EQ(field(bytes, 0), 24 + t + key.size() + (rest.size() - body.size()));
    EXPECT_EQ(bytes.substr(field(bytes, 0) + 2), body);
    return rest;
  };
  const std::string mark("\x03\x03\x01", 3);
  struct Case {
    int flags;
    const char* cache_control;
    std::string extension;
  };
  const Case cases[] = {{0, "max-age=60", ""},
                        {0, "max-age=60, must-revalidate", ""},
                        {kStale, "max-age=60", mark},
                        {kStale, "max-age=60, must-revalidate", ""},
                        {kStale, "no-cache", ""}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.cache_control) + (c.flags ? ", flag" : ", no flag"));
    cache_->Clear();
    server.Route("/doc", ScriptedResponse(200, body)
                             .Header("ETag", "\"v1\"")
                             .Header("Date", kDate)
                             .Header("Cache-Control", c.cache_control));
    ASSERT_EQ(OpenAndRead(url, c.flags), body);
    EXPECT_EQ(after_end_marker(ReadFileBytes(EntryPath(url))), c.extension + body);
  }

  // An entry file as written before the mark existed loads and is revalidated as ever; a 304
  // to an open with the flag marks it (the header is written anew, the body kept), and from
  // then on it may be served stale.
  WriteFileBytes(EntryPath(url), EntryBytes(1, 5, "\"v1\"", key, body));
  server.Route("/doc", ScriptedResponse(304)
                           .Header("ETag", "\"v1\"")
                           .Header("Date", "Sun, 09 Sep 2001 02:46:40 GMT")
                           .Header("Cache-Control", "max-age=600"));
  ASSERT_EQ(OpenAndRead(url, kStale), body);
  EXPECT_EQ(after_end_marker(ReadFileBytes(EntryPath(url))), mark + body);
  const std::int64_t renewed = cache_->ExpiryTime(qv::Utf8ToWide(url));
  EXPECT_GT(renewed, 5);
  clock_.Set(renewed + 1);
  server.Route("/doc", ScriptedResponse(503));
  log_.Clear();
  EXPECT_EQ(OpenAndRead(url, kStale), body);
  EXPECT_THAT(LinesBeyondWine(log_),
              ElementsAre("Error: HTTP Response 503 for GET " + url + "\n",
                          "Serving stale entry for " + url + ": the server answered 503\n"));

  // A 304 that now says "must-revalidate" takes the mark away again: not served stale.
  server.Route("/doc", ScriptedResponse(304)
                           .Header("ETag", "\"v1\"")
                           .Header("Date", "Sun, 09 Sep 2001 03:46:40 GMT")
                           .Header("Cache-Control", "max-age=600, must-revalidate"));
  ASSERT_EQ(OpenAndRead(url, kStale), body);
  EXPECT_EQ(after_end_marker(ReadFileBytes(EntryPath(url))), body);
  clock_.Set(cache_->ExpiryTime(qv::Utf8ToWide(url)) + 1);
  server.Route("/doc", ScriptedResponse(503));
  EXPECT_EQ(OpenAndRead(url, kStale), std::nullopt);
  EXPECT_FALSE(cache_->Contains(qv::Utf8ToWide(url)));
  qv::net::HttpConnectionPool::Terminate();
}

// Concurrent opens with the flag share the failed revalidation and each serve the stale copy
// with the lines it would have logged alone.
TEST_F(StaleOnErrorTest, ConcurrentOpensShareTheFailedRevalidationAndEachServeTheStaleCopy) {
  ScriptedServer server;
  ASSERT_TRUE(server.ok());
  const std::string url = server.Url("/doc");
  const std::string body(300000, 's');
  server.Route("/doc", ScriptedResponse(200, body).Header("ETag", "\"v1\"").Header("Date", kDate));
  ASSERT_EQ(OpenAndRead(url, kStale), body);
  clock_.Set(cache_->ExpiryTime(qv::Utf8ToWide(url)) + 1);

  constexpr int kOpens = 4;
  std::mutex mutex;
  std::condition_variable arrived;
  int arrivals = 0;
  auto arrive = [&] {
    {
      std::lock_guard lock(mutex);
      ++arrivals;
    }
    arrived.notify_all();
  };
  Gate gate;
  server.Route("/doc", [&](const RecordedRequest&) {
    arrive();
    gate.Wait();
    return ScriptedResponse(503);
  });
  qv::net::detail::SetDownloadWaitHookForTesting(arrive);
  log_.Clear();
  std::vector<std::optional<std::string>> results(kOpens);
  std::vector<std::thread> threads;
  for (auto& result : results) threads.emplace_back([&] { result = OpenAndRead(url, kStale); });
  {
    std::unique_lock lock(mutex);
    arrived.wait_for(lock, 30s, [&] { return arrivals >= kOpens; });
  }
  gate.Open();
  for (auto& thread : threads) thread.join();
  qv::net::detail::SetDownloadWaitHookForTesting({});

  EXPECT_EQ(server.request_count(), 2u) << "one store, one revalidation";
  for (const auto& result : results) EXPECT_EQ(result, body);
  const std::vector<std::string> lines = LinesBeyondWine(log_);
  const std::string error = "Error: HTTP Response 503 for GET " + url + "\n";
  const std::string stale = "Serving stale entry for " + url + ": the server answered 503\n";
  EXPECT_EQ(lines.size(), 2u * kOpens);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), error), kOpens);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), stale), kOpens);
  EXPECT_TRUE(cache_->Contains(qv::Utf8ToWide(url)));
  qv::net::HttpConnectionPool::Terminate();
}

}  // namespace
}  // namespace tq::test
