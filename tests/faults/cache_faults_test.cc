// OpenFileOrUrl with the disk cache installed, over the real transport, while the server turns
// hostile after it has served a good copy, and while the disk fills up in the middle of a store.
// Whatever happens, the cache never holds a torn or wrong body: after a failure the entry file
// is absent or holds the old complete body, and no ".tmp" file is left behind.
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
using namespace std::chrono_literals;

std::wstring W(const std::string& text) { return qv::Utf8ToWide(text); }

bool IsHeadFault(Fault fault) {
  return fault == Fault::kResetBeforeHead || fault == Fault::kStallBeforeHead ||
         fault == Fault::kMalformedHeader || fault == Fault::kOversizedHeader;
}
bool IsBodyFault(Fault fault) {
  return fault == Fault::kResetMidBody || fault == Fault::kShortBody ||
         fault == Fault::kStallMidBody;
}

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
    const std::size_t header_size = static_cast<unsigned char>(bytes[0]) |
                                    static_cast<std::size_t>(static_cast<unsigned char>(bytes[1])) << 8;
    return bytes.substr(std::min(bytes.size(), header_size + 2));
  }

  // Every file name in the cache directory.
  std::vector<std::string> CacheFiles() const {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(CacheDirectory())) {
      names.push_back(e.path().filename().string());
    }
    return names;
  }

  // The entry is absent or holds exactly `old_body`, and nothing else lies in the directory.
  void ExpectNoTornEntry(const std::string& url, const std::string& old_body) {
    const std::optional<std::string> stored = StoredBody(url);
    if (stored) {
      EXPECT_EQ(Summary(stored), Summary(old_body)) << "torn or wrong body";
    }
    for (const std::string& name : CacheFiles()) {
      EXPECT_EQ(fs::path(name).extension(), "") << "stray file in the cache: " << name;
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
    ExpectNoTornEntry(url, old_body);
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

TEST_F(CacheFaultTest, AFirstFetchCutShortLeavesNoEntryAndNoTemporaryFile) {
  const std::string body = FaultBody(200 * 1024, 3);
  for (const Fault fault : {Fault::kResetMidBody, Fault::kShortBody, Fault::kStallMidBody}) {
    SCOPED_TRACE(FaultName(fault));
    FaultResponder server(fault, body, "ETag: \"first\"\r\n");
    ASSERT_TRUE(server.ok());
    const std::string url = server.Url("/first");
    log_.Clear();
    EXPECT_EQ(Summary(Open(url)), Summary(std::nullopt));
    EXPECT_EQ(Summary(StoredBody(url)), Summary(std::nullopt));
    EXPECT_TRUE(CacheFiles().empty());
    EXPECT_EQ(log_.Text(),
              "Failed to read or write stream in CopyStream: Unable to read HTTP data\n\n");
  }
}

TEST_F(CacheFaultTest, AnUnchangedTagServesTheOldBodyWholeWhateverTheBodyThatFollows) {
  // The answer's tag equals the stored one, so its body is never read: the cut-off body of the
  // answer cannot reach the caller, who gets the stored copy complete.
  const std::string old_body = FaultBody(40 * 1024, 4);
  for (const Fault fault : {Fault::kResetMidBody, Fault::kShortBody, Fault::kStallMidBody}) {
    SCOPED_TRACE(FaultName(fault));
    FaultResponder server(fault, FaultBody(96 * 1024, 5), "ETag: \"old\"\r\n",
                          OldCopy(old_body));
    ASSERT_TRUE(server.ok());
    const std::string url = server.Url("/same");
    ASSERT_EQ(Summary(Open(url)), Summary(old_body));
    log_.Clear();
    EXPECT_EQ(Summary(Open(url)), Summary(old_body));
    EXPECT_EQ(Summary(StoredBody(url)), Summary(old_body));
    ExpectNoTornEntry(url, old_body);
    EXPECT_EQ(log_.Text(), "");
    EXPECT_EQ(server.request_count(), 2u);
    qv::net::CacheSystem()->Clear();
    qv::net::HttpConnectionPool::Terminate();
  }
}

TEST_F(CacheFaultTest, ANoStoreAnswerCutShortServesNothingAndKeepsTheOldEntry) {
  const std::string old_body = FaultBody(40 * 1024, 6);
  for (const Fault fault : {Fault::kResetMidBody, Fault::kShortBody, Fault::kStallMidBody}) {
    SCOPED_TRACE(FaultName(fault));
    FaultResponder server(fault, FaultBody(96 * 1024, 7),
                          "ETag: \"new\"\r\nDate: Sun, 06 Nov 1994 08:49:37 GMT\r\n"
                          "Cache-Control: no-store\r\n",
                          OldCopy(old_body));
    ASSERT_TRUE(server.ok());
    const std::string url = server.Url("/nostore");
    ASSERT_EQ(Summary(Open(url)), Summary(old_body));
    log_.Clear();
    EXPECT_EQ(Summary(Open(url)), Summary(std::nullopt));
    EXPECT_EQ(Summary(StoredBody(url)), Summary(old_body)) << "nothing served, nothing dropped";
    ExpectNoTornEntry(url, old_body);
    EXPECT_EQ(log_.Text(),
              "Failed to read or write stream in CopyStream: Unable to read HTTP data\n\n"
              "Failed to read HTTP data into cache system: " + url + "\n");
    qv::net::CacheSystem()->Clear();
    qv::net::HttpConnectionPool::Terminate();
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
  // No "Date": stale at once, so every open fetches and stores again.
  server.Route("/big", ScriptedResponse(200, body).Header("ETag", "\"v1\""));
  const std::string url = server.Url("/big");

  // A good copy first; then each store fails at another byte: before the header fits, inside
  // the header, at the first body bytes, in the middle, one byte short of the end.
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
    ExpectNoTornEntry(url, previous);
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
  ExpectNoTornEntry(url, body);
  EXPECT_EQ(log_.Text(), "");
  qv::net::HttpConnectionPool::Terminate();
}

}  // namespace
}  // namespace tq::test
