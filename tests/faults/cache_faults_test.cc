// OpenFileOrUrl with the disk cache installed, over the real transport, while the server turns
// hostile after it has served a good copy, and while the disk fills up in the middle of a store.
// Whatever happens, the cache never holds a torn or wrong body and no ".tmp" file is left.
#include "net/stream/open_file_or_url.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "net/cache/cache_init.h"
#include "net/cache/disk_cache.h"
#include "net/cache/url_cache.h"
#include "tests/cache/cache_test_support.h"
#include "tests/faults/fault_fixture.h"
#include "tests/faults/fault_responder.h"
#include "tests/faults/file_size_limit.h"
#include "tests/support/servers/scripted_server.h"
#include "tests/support/servers/temp_dir.h"

namespace tq::test {
namespace {

namespace fs = std::filesystem;

std::wstring W(const std::string& text) { return qv::Utf8ToWide(text); }

// Bodies are compared through a short summary, so a failure prints sizes and digests instead of
// hundreds of kilobytes.
std::string Summary(const std::optional<std::string>& body) {
  if (!body) return "<none>";
  std::uint64_t hash = 14695981039346656037ull;  // FNV-1a
  for (const unsigned char c : *body) hash = (hash ^ c) * 1099511628211ull;
  return std::to_string(body->size()) + " bytes #" + std::to_string(hash);
}

class CacheFaultTest : public FaultTest {
 protected:
  void SetUp() override {
    FaultTest::SetUp();
    qv::net::InitialiseCache(W(dir_.path().string()).c_str());
    ASSERT_NE(dynamic_cast<qv::net::DiskCache*>(qv::net::CacheSystem()), nullptr);
  }
  void TearDown() override {
    qv::net::TerminateCache();
    FaultTest::TearDown();
  }

  fs::path CacheDirectory() const { return dir_.path() / "v1"; }
  fs::path EntryPath(const std::string& url) const {
    return qv::net::DiskCache::ComputeCacheLocation(W(url), CacheDirectory());
  }

  // The body held by the entry file of `url`, read by the documented layout; nullopt when
  // there is no such file.
  std::optional<std::string> StoredBody(const std::string& url) const {
    const fs::path path = EntryPath(url);
    if (!fs::exists(path)) return std::nullopt;
    const std::string bytes = ReadFileBytes(path);
    if (bytes.size() < 2) return bytes;  // not an entry: compares unequal to any body below
    const std::size_t header_size =
        std::size_t{static_cast<unsigned char>(bytes[0])} |
        std::size_t{static_cast<unsigned char>(bytes[1])} << 8;
    return bytes.substr(std::min(bytes.size(), header_size + 2));
  }

  // After any failure no temporary file may be left beside the entries.
  void ExpectNoStrayFiles() const {
    for (const auto& e : fs::directory_iterator(CacheDirectory())) {
      EXPECT_EQ(e.path().extension(), "") << "stray file in the cache: " << e.path();
    }
  }

  // Opens through the cache and reads the stream whole; nullopt for a null stream.
  std::optional<std::string> Open(const std::string& url) {
    return Bounded([&]() -> std::optional<std::string> {
      auto stream = qv::net::OpenFileOrUrl(W(url), 0, {});
      if (!stream) return std::nullopt;
      return ReadAll(*stream, 65536);
    });
  }

  TempDir dir_;
};

// The good copy every case starts from: no "Date", so it is stale at once and the next open
// asks the server, which has turned bad by then.
HealthyAnswers OldCopy(const std::string& body) {
  return {1, body, "ETag: \"old\"\r\n"};
}

TEST_F(CacheFaultTest, ARevalidationThatFailsDropsTheEntryAndNeverStoresAPartialBody) {
  const std::string old_body = FaultBody(40 * 1024, 1);
  const std::string new_body = FaultBody(96 * 1024, 2);
  for (const Fault fault : kAllFaults) {
    SCOPED_TRACE(FaultName(fault));
    FaultResponder server(fault, new_body, "ETag: \"new\"\r\n", OldCopy(old_body));
    ASSERT_TRUE(server.ok());
    const std::string url = server.Url("/entry");
    ASSERT_EQ(Summary(Open(url)), Summary(old_body));
    ASSERT_EQ(Summary(StoredBody(url)), Summary(old_body));
    log_.Clear();

    EXPECT_EQ(Summary(Open(url)), Summary(std::nullopt));
    const auto sleeps = TakeSleeps();
    // Any answer but 200 or 304 (a failed send included) and any failed store delete the entry.
    EXPECT_EQ(Summary(StoredBody(url)), Summary(std::nullopt));
    ExpectNoStrayFiles();
    if (IsHeadFault(fault)) {
      EXPECT_EQ(log_.Text(), "");
      // A reset on a kept-alive connection before any answer is sent once more on a fresh
      // connection by the transport, as browsers do; the fresh one is reset too.
      EXPECT_EQ(server.request_count(), fault == Fault::kResetBeforeHead ? 3u : 2u);
    } else if (IsBodyFault(fault)) {
      EXPECT_EQ(log_.Text(),
                "Failed to read or write stream in CopyStream: Unable to read HTTP data\n\n");
      EXPECT_EQ(server.request_count(), 2u);
      // The stale copy's tag was offered.
      EXPECT_THAT(server.heads().back(), ::testing::HasSubstr("If-None-Match: \"old\""));
    } else {
      const char* status = fault == Fault::kTooManyRequests ? "429" : "502";
      EXPECT_EQ(log_.Text(), std::string("Error: HTTP Response ") + status + " for GET " + url + "\n");
      EXPECT_EQ(server.request_count(), 1u + 6u);
      EXPECT_EQ(sleeps.size(), 5u);
    }
    qv::net::CacheSystem()->Clear();
    qv::net::HttpConnectionPool::Terminate();
  }
}

// A body cut short after a stale copy was revalidated. With the stored tag the answer's body is
// never read, so the caller gets the stored copy whole; a no-store answer serves nothing and
// leaves the entry as it was. (A first fetch cut short is the revalidation case above: no entry,
// no temporary file.)
TEST_F(CacheFaultTest, ACutBodyAfterAnUnchangedTagOrANoStoreNeverReachesTheCallerOrTheEntry) {
  const std::string old_body = FaultBody(40 * 1024, 4);
  const std::string kCutLine =
      "Failed to read or write stream in CopyStream: Unable to read HTTP data\n\n";
  struct Case {
    const char* headers;
    bool served;  // the old body, or nothing
    const char* log;
  };
  const Case cases[] = {
      {"ETag: \"old\"\r\n", true, ""},
      {"ETag: \"new\"\r\nDate: Sun, 06 Nov 1994 08:49:37 GMT\r\nCache-Control: no-store\r\n",
       false, "Failed to read HTTP data into cache system: "},
  };
  for (const Case& c : cases) {
    for (const Fault fault : kBodyFaults) {
      SCOPED_TRACE(std::string(FaultName(fault)) + " after " + c.headers);
      FaultResponder server(fault, FaultBody(96 * 1024, 5), c.headers, OldCopy(old_body));
      ASSERT_TRUE(server.ok());
      const std::string url = server.Url("/cut");
      ASSERT_EQ(Summary(Open(url)), Summary(old_body));
      log_.Clear();
      EXPECT_EQ(Summary(Open(url)), c.served ? Summary(old_body) : Summary(std::nullopt));
      EXPECT_EQ(Summary(StoredBody(url)), Summary(old_body));
      ExpectNoStrayFiles();
      EXPECT_EQ(log_.Text(), c.served ? "" : kCutLine + c.log + url + "\n");
      EXPECT_EQ(server.request_count(), 2u);
      qv::net::CacheSystem()->Clear();
      qv::net::HttpConnectionPool::Terminate();
    }
  }
}

TEST_F(CacheFaultTest, ALoneNoStoreOrNoCacheIsHonouredThoughTheTransportKeepsTheTerminator) {
  // Regression: the header text of the real transport ends with its NUL, which made the last
  // directive "no-store\0" and so never matched; a no-store answer was stored on disk.
  ScriptedServer server;
  ASSERT_TRUE(server.ok());
  constexpr std::int64_t kDate = 784111777;  // Sun, 06 Nov 1994 08:49:37 GMT
  server.Route("/private", ScriptedResponse(200, "private body")
                               .Header("Date", "Sun, 06 Nov 1994 08:49:37 GMT")
                               .Header("ETag", "\"p\"")
                               .Header("Cache-Control", "no-store"));
  server.Route("/revalidate", ScriptedResponse(200, "revalidated body")
                                  .Header("Date", "Sun, 06 Nov 1994 08:49:37 GMT")
                                  .Header("ETag", "\"r\"")
                                  .Header("Cache-Control", "no-cache"));
  EXPECT_EQ(Summary(Open(server.Url("/private"))), Summary(std::string("private body")));
  EXPECT_EQ(Summary(StoredBody(server.Url("/private"))), Summary(std::nullopt));

  EXPECT_EQ(Summary(Open(server.Url("/revalidate"))), Summary(std::string("revalidated body")));
  auto* cache = dynamic_cast<qv::net::DiskCache*>(qv::net::CacheSystem());
  ASSERT_NE(cache, nullptr);
  EXPECT_EQ(cache->ExpiryTime(W(server.Url("/revalidate"))), kDate - 1);
  EXPECT_EQ(log_.Text(), "");
  qv::net::HttpConnectionPool::Terminate();
}

TEST_F(CacheFaultTest, ADiskThatFillsUpAtAnyPointOfAStoreLeavesNoTornEntry) {
  ScriptedServer server;
  ASSERT_TRUE(server.ok());
  const std::string body = FaultBody(256 * 1024, 8);
  const std::string url = server.Url("/big");
  // A good copy first (no "Date": stale at once, so every open fetches and stores again); then
  // each store fails at another byte: before the header fits, inside the header, at the first
  // body bytes, in the middle, one byte short of the end.
  const std::string previous = "an older body that must never be mixed with the new one";
  server.Route("/big", ScriptedResponse(200, previous).Header("ETag", "\"v0\""));
  ASSERT_EQ(Summary(Open(url)), Summary(previous));
  server.Route("/big", ScriptedResponse(200, body).Header("ETag", "\"v1\""));

  for (const std::uint64_t limit : {std::uint64_t{0}, std::uint64_t{16}, std::uint64_t{4096},
                                    std::uint64_t{100000}, std::uint64_t{256 * 1024 + 20}}) {
    SCOPED_TRACE("file size limit " + std::to_string(limit));
    log_.Clear();
    std::optional<std::string> served;
    {
      FileSizeLimit full(limit);
      ASSERT_TRUE(full.ok());
      served = Open(url);
    }
    EXPECT_EQ(Summary(served), Summary(std::nullopt));
    EXPECT_EQ(Summary(StoredBody(url)), Summary(std::nullopt)) << "a failed store drops the entry";
    ExpectNoStrayFiles();
    if (limit < 26) {
      // Not even the header fits: the store is refused before any body is copied.
      EXPECT_EQ(log_.Text(), "");
    } else {
      EXPECT_EQ(log_.Text(), "Failed to read or write stream in CopyStream: "
                             "FileWriteStream: cannot write the file\n");
    }
  }
  // Room again: the same answer is stored whole, and served from the file afterwards.
  log_.Clear();
  EXPECT_EQ(Summary(Open(url)), Summary(body));
  EXPECT_EQ(Summary(StoredBody(url)), Summary(body));
  ExpectNoStrayFiles();
  EXPECT_EQ(log_.Text(), "");
  qv::net::HttpConnectionPool::Terminate();
}

}  // namespace
}  // namespace tq::test
