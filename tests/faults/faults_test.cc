// The cross-layer fault suite: the read stream, the disk cache and the file protocol over the
// real transport against a server that resets, stalls, cuts or garbles its answer. Each call
// ends within its time-out in the state named by its test, and nothing torn or partial is kept.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "net/cache/cache_init.h"
#include "net/cache/disk_cache.h"
#include "net/fileprotocol/http_file_protocol.h"
#include "net/http/http_status.h"
#include "net/stream/open_file_or_url.h"
#include "net/stream/read_stream.h"
#include "net/stream/stream_copy.h"
#include "tests/cache/cache_test_support.h"
#include "tests/faults/fault_fixture.h"
#include "tests/fileprotocol/protocol_fixture.h"
#include "tests/support/servers/scripted_server.h"
#include "tests/support/servers/temp_dir.h"
#include "tests/support/wine.h"

namespace tq::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using qv::net::HttpReadStream;
using qv::net::HttpStatus;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

const std::string kReadFailed = "Unable to read HTTP data\n";
const std::string kCutLine =
    "Failed to read or write stream in CopyStream: Unable to read HTTP data\n\n";

// Reads until the end or the first failure; the failure's text goes to *error.
std::string ReadUntilFailure(qv::io::IDataReadStream& stream, std::string* error) {
  std::string bytes;
  std::vector<char> buffer(16 * 1024);
  try {
    while (const std::uint64_t n = stream.Read(buffer.data(), buffer.size())) {
      bytes.append(buffer.data(), n);
    }
  } catch (const qv::net::http_exception& e) {
    *error = e.what();
  }
  return bytes;
}

using ReadStreamFaultTest = FaultTest;

// Head faults: open, not succeeded, silent, not retried. Body faults: the prefix, then "Unable to
// read HTTP data" on every read. 429/502: five retries on their schedules, then the status and
// its log line. Into memory: null with the copy's line for a cut body, else never partial.
TEST_F(ReadStreamFaultTest, HeadFaultsFailBodyFaultsThrowAfterThePrefixBusyAnswersRetryFiveTimes) {
  const std::string body = FaultBody(64 * 1024);
  for (const Fault fault : kAllFaults) {
    SCOPED_TRACE(FaultName(fault));
    FaultResponder server(fault, body);
    ASSERT_TRUE(server.ok());
    const std::string url = server.Url("/stream");
    log_.Clear();

    std::unique_ptr<HttpReadStream> stream;
    std::string error;
    const std::string got = Bounded([&] {
      stream = HttpReadStream::Open(qv::Utf8ToWide(url), 0, {});
      return ReadUntilFailure(*stream, &error);
    });
    const auto sleeps = TakeSleeps();
    EXPECT_TRUE(stream->IsOpen());
    if (IsHeadFault(fault)) {
      EXPECT_FALSE(stream->Succeeded());
      EXPECT_EQ(stream->QueryStatusCode(), HttpStatus::Unknown);
      EXPECT_EQ(got + error + log_.Text(), "");
      EXPECT_THAT(sleeps, IsEmpty());
      EXPECT_EQ(server.request_count(), 1u);
    } else if (IsBodyFault(fault)) {
      EXPECT_TRUE(stream->Succeeded());
      EXPECT_EQ(error, kReadFailed);
      EXPECT_TRUE(got == body.substr(0, body.size() / 2)) << "what arrived is handed over";
      std::string again;
      ReadUntilFailure(*stream, &again);
      EXPECT_EQ(again, kReadFailed) << "the failure sticks";
      EXPECT_EQ(log_.Text(), "");
      EXPECT_EQ(server.request_count(), 1u);
    } else {
      const bool busy = fault == Fault::kTooManyRequests;
      EXPECT_EQ(stream->QueryStatusCode(),
                busy ? HttpStatus::TooManyRequests : HttpStatus::BadGateway);
      EXPECT_EQ(got, "");
      if (busy) {
        EXPECT_THAT(sleeps, ElementsAre(2s, 4s, 6s, 8s, 10s));
      } else {
        EXPECT_THAT(sleeps, ElementsAre(50ms, 100ms, 150ms, 200ms, 250ms));
      }
      EXPECT_EQ(server.request_count(), 6u);
      EXPECT_EQ(log_.Text(), std::string("Error: HTTP Response ") + (busy ? "429" : "502") +
                                 " for GET " + url + "\n");
    }
    stream.reset();

    // Into memory: never a partial body (null, with the copy's line); no 200 answer is empty.
    log_.Clear();
    auto memory = Bounded([&] { return qv::net::ReadUrlIntoMemory(qv::Utf8ToWide(url), {}); });
    TakeSleeps();
    if (IsBodyFault(fault)) {
      EXPECT_EQ(memory, nullptr);
      EXPECT_EQ(log_.Text(), kCutLine);
    } else {
      ASSERT_NE(memory, nullptr);
      EXPECT_EQ(memory->Size(), 0u);
    }
  }
}

// Bodies compared as size and digest, so a failure does not print hundreds of kilobytes.
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
    qv::net::InitialiseCache(qv::Utf8ToWide(dir_.path().string()).c_str());
    ASSERT_NE(dynamic_cast<qv::net::DiskCache*>(qv::net::CacheSystem()), nullptr);
  }
  void TearDown() override {
    qv::net::TerminateCache();
    FaultTest::TearDown();
  }

  // The body held by the entry file of `url`, after its header; nullopt when there is none.
  std::optional<std::string> StoredBody(const std::string& url) const {
    const fs::path path =
        qv::net::DiskCache::ComputeCacheLocation(qv::Utf8ToWide(url), dir_.path() / "v1");
    if (!fs::exists(path)) return std::nullopt;
    const std::string bytes = ReadFileBytes(path);
    if (bytes.size() < 2) return bytes;
    const std::size_t header_size = std::size_t{static_cast<unsigned char>(bytes[0])} |
                                    std::size_t{static_cast<unsigned char>(bytes[1])} << 8;
    return bytes.substr(std::min(bytes.size(), header_size + 2));
  }

  void ExpectNoStrayFiles() const {
    for (const auto& e : fs::directory_iterator(dir_.path() / "v1")) {
      EXPECT_EQ(e.path().extension(), "") << "stray file in the cache: " << e.path();
    }
  }

  std::optional<std::string> Open(const std::string& url) {
    return Bounded([&]() -> std::optional<std::string> {
      auto stream = qv::net::OpenFileOrUrl(qv::Utf8ToWide(url), 0, {});
      if (!stream) return std::nullopt;
      return ReadAll(*stream, 65536);
    });
  }

  TempDir dir_;
};

TEST_F(CacheFaultTest, ARevalidationThatFailsDropsTheEntryAndNeverStoresAPartialBody) {
  const std::string old_body = FaultBody(40 * 1024, 1);
  for (const Fault fault : kTransportFaults) {
    SCOPED_TRACE(FaultName(fault));
    // The good copy has no "Date": stale at once, so the next open asks the server again.
    FaultResponder server(fault, FaultBody(96 * 1024, 2), "ETag: \"new\"\r\n", 1, old_body,
                          "ETag: \"old\"\r\n");
    ASSERT_TRUE(server.ok());
    const std::string url = server.Url("/entry");
    ASSERT_EQ(Summary(Open(url)), Summary(old_body));
    ASSERT_EQ(Summary(StoredBody(url)), Summary(old_body));
    log_.Clear();

    EXPECT_EQ(Summary(Open(url)), Summary(std::nullopt));
    EXPECT_EQ(Summary(StoredBody(url)), Summary(std::nullopt));
    ExpectNoStrayFiles();
    if (IsHeadFault(fault)) {
      EXPECT_EQ(log_.Text(), "");
      // The transport resends once on a fresh connection after a reset on a kept-alive one.
      EXPECT_EQ(server.request_count(), fault == Fault::kResetBeforeHead ? 3u : 2u);
    } else {
      EXPECT_EQ(log_.Text(), kCutLine);
      EXPECT_EQ(server.request_count(), 2u);
      EXPECT_THAT(server.heads().back(), ::testing::HasSubstr("If-None-Match: \"old\""));
    }
    qv::net::CacheSystem()->Clear();
    qv::net::HttpConnectionPool::Terminate();
  }
}

// Regression: the real transport's header text ended with its NUL, which made the last
// directive "no-store\0", never matched, so a no-store answer was stored. (A store that fails
// at any file operation: fault_loops_test.cc.)
TEST_F(CacheFaultTest, ANoStoreAnswerOverTheRealTransportIsServedAndNeverStored) {
  ScriptedServer server;
  ASSERT_TRUE(server.ok());
  server.Route("/private", ScriptedResponse(200, "private body")
                               .Header("Date", "Sun, 06 Nov 1994 08:49:37 GMT")
                               .Header("ETag", "\"p\"")
                               .Header("Cache-Control", "no-store"));
  EXPECT_EQ(Summary(Open(server.Url("/private"))), Summary(std::string("private body")));
  EXPECT_EQ(Summary(StoredBody(server.Url("/private"))), Summary(std::nullopt));
  ExpectNoStrayFiles();
  EXPECT_EQ(TextBeyondWine(log_), "");
  qv::net::HttpConnectionPool::Terminate();
}

class FileProtocolFaultTest : public FaultTest {
 protected:
  void SetUp() override {
    FaultTest::SetUp();
    protocol_ = static_cast<qv::net::HttpFileProtocol*>(
        TqUFileProtocolRegistry::Get()->Lookup(L"http"));
    ASSERT_NE(protocol_, nullptr);
  }

  std::vector<Posted> TakeLog() { return TakeProtocolLog(log_); }

  qv::net::HttpFileProtocol* protocol_ = nullptr;
};

TEST_F(FileProtocolFaultTest, RangedReadsEndInMinusOneOrAShortCountWithTheirMessage) {
  const std::string body = FaultBody(48 * 1024, 11);
  for (const Fault fault : kTransportFaults) {
    SCOPED_TRACE(FaultName(fault));
    FaultResponder server(fault, body);
    ASSERT_TRUE(server.ok());
    OpenedFile f(protocol_, server.Url("/ranged"));
    ASSERT_TRUE(f.ok());
    const std::string url = f.url_utf8();
    std::vector<unsigned char> buffer(body.size(), 0);

    const std::int64_t got = Bounded([&] { return f.Read(0, body.size(), buffer.data()); });
    const std::vector<Posted> posted = TakeLog();
    if (IsBodyFault(fault)) {
      // What arrived is in the buffer, exactly; nothing past it was touched.
      ASSERT_EQ(got, static_cast<std::int64_t>(body.size() / 2));
      EXPECT_TRUE(std::string(buffer.begin(), buffer.begin() + got) == body.substr(0, got));
      EXPECT_TRUE(std::all_of(buffer.begin() + got, buffer.end(), [](unsigned char c) { return c == 0; }));
      EXPECT_THAT(posted, IsEmpty());
      EXPECT_FALSE(Bounded([&] { return f.ReadExact(0, body.size(), buffer.data()); }));
      const std::vector<Posted> partial = TakeLog();
      ASSERT_EQ(partial.size(), 1u);
      EXPECT_EQ(partial[0].severity, 1);
      EXPECT_THAT(partial[0].text,
                  MatchesRegex("HttpFileProtocol::ReadFile InternetReadFile partial data for " +
                               std::string("http://127\\.0\\.0\\.1:[0-9]+/ranged: [0-9]+")));
      continue;
    }
    EXPECT_EQ(got, -1);
    if (fault == Fault::kStallBeforeHead) {
      // Three sends, each timed out; the last ends the read without a message.
      EXPECT_THAT(posted, IsEmpty());
      EXPECT_EQ(server.request_count(), 3u);
    } else {
      const int error = fault == Fault::kResetBeforeHead ? ERROR_INTERNET_CONNECTION_RESET
                                                         : ERROR_HTTP_INVALID_SERVER_RESPONSE;
      EXPECT_THAT(posted, ElementsAre(Posted{1, "HttpFileProtocol::ReadFile HttpSendRequest for " +
                                                url + " failed: " + std::to_string(error)}));
    }
  }
}

std::vector<std::string> Names(const fs::path& directory) {
  std::vector<std::string> names;
  for (const auto& e : fs::directory_iterator(directory)) names.push_back(e.path().filename().string());
  return names;
}

TEST_F(FileProtocolFaultTest, AFailedDownloadOrAFullDiskKeepsTheOldFileAndLeavesNothingElse) {
  TempDir dir;
  const fs::path target = dir.path() / "keep.bin";
  const std::wstring wide_target = W(target.string());
  const std::string old_contents = "the old contents, never to be mixed with a new body";
  dir.WriteFile("keep.bin", old_contents);
  const std::string body = FaultBody(512 * 1024, 12);
  for (const Fault fault : kAllFaults) {
    SCOPED_TRACE(FaultName(fault));
    FaultResponder server(fault, body);
    ASSERT_TRUE(server.ok());
    EXPECT_FALSE(Bounded(
        [&] { return protocol_->GetFile(W(server.Url("/file")).c_str(), wide_target.c_str(), nullptr); }));
    EXPECT_TRUE(ReadFileBytes(target) == old_contents);
    EXPECT_THAT(Names(dir.path()), ElementsAre("keep.bin"));
    EXPECT_THAT(TakeLog(), IsEmpty());
  }

  ScriptedServer server;
  ASSERT_TRUE(server.ok());
  server.Route("/big", ScriptedResponse(200, body));
  const std::wstring url = W(server.Url("/big"));
#if !defined(_WIN32)  // on Windows the URL Moniker writes the file, out of the shim's reach
  for (const std::uint64_t limit : {std::uint64_t{0}, std::uint64_t{64 * 1024},
                                    std::uint64_t{512 * 1024 - 1}}) {
    SCOPED_TRACE("file size limit " + std::to_string(limit));
    bool done = true;
    {
      FileSizeLimit full(limit);
      ASSERT_TRUE(full.ok());
      done = Bounded([&] { return protocol_->GetFile(url.c_str(), wide_target.c_str(), nullptr); });
    }
    EXPECT_FALSE(done);
    EXPECT_TRUE(ReadFileBytes(target) == old_contents);
    EXPECT_THAT(Names(dir.path()), ElementsAre("keep.bin"));
  }
#endif
  EXPECT_TRUE(protocol_->GetFile(url.c_str(), wide_target.c_str(), nullptr));
  EXPECT_TRUE(ReadFileBytes(target) == body) << "with room the download replaces the file whole";
  EXPECT_THAT(Names(dir.path()), ElementsAre("keep.bin"));
  EXPECT_THAT(TakeLog(), IsEmpty());
}

}  // namespace
}  // namespace tq::test
