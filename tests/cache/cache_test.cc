// The cache, from its entry files to threads and processes sharing them, and nginx end to end.
#include "net/cache/disk_cache.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <functional>
#include <future>
#include <limits>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <gsl/narrow>

#include "net/cache/cache_init.h"
#include "net/cache/in_memory_cache.h"
#include "net/http/connection_pool.h"
#include "net/http/wininet_api.h"
#include "net/stream/open_file_or_url.h"
#include "tests/cache/cache_test_support.h"
#include "tests/cache/worker_process.h"
#include "tests/support/fake_transport_fixture.h"
#include "tests/support/log_capture.h"
#include "tests/support/servers/nginx_harness.h"
#include "tests/support/servers/temp_dir.h"
#include "tests/support/wine.h"

namespace tq::test {
namespace {

namespace fs = std::filesystem;
using qv::net::CacheEntry;
using qv::net::DiskCache;
using qv::net::InMemoryCache;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Names = std::set<std::string>;

constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kDate = 1'700'000'000;  // the server's clock
constexpr const wchar_t* kUrl = L"http://example.test/data.bin";
const std::string kKey = "http://example.test/data.bin";
constexpr auto kTarget = static_cast<std::uint64_t>(0.8 * 1048576);  // a 1 MiB clean-up ends below

FakeResponse Ok(const std::string& body, std::optional<std::wstring> cache_control,
                std::optional<std::wstring> etag, std::optional<std::int64_t> date = kDate) {
  FakeResponse r;
  if (date) r.dates[L"Date"] = *date;
  if (cache_control) r.Header(L"cache-control", *cache_control);
  if (etag) r.Header(L"ETag", *etag);
  r.Header(L"Content-Length", std::to_wstring(body.size()));
  if (!body.empty()) r.Body(body);
  return r;
}

class CacheTest : public FakeTransportTest {
 protected:
  ~CacheTest() override { TqUOption::Unset("general.localcache.max_size"); }

  std::string Open(const wchar_t* url = kUrl, int flags = 0) {
    auto stream = m_cache.OpenUrl(url, flags, {});
    return stream ? ReadAll(*stream) : "<null>";
  }
  fs::path EntryPath(const wchar_t* url = kUrl) const {
    return DiskCache::ComputeCacheLocation(url, m_cache.Directory());
  }
  // An entry file of exactly `size` bytes.
  void Entry(const std::string& name, std::int64_t last_used, std::int64_t expiry,
             std::size_t size) {
    const std::string header = EntryBytes(last_used, expiry, "", "http://example.test/" + name, "");
    WriteFileBytes(m_cache.Directory() / name, header + std::string(size - header.size(), 'b'));
  }
  Names Remaining(const std::string& extension = "") const {
    Names names;
    for (const auto& item : fs::directory_iterator(m_cache.Directory())) {
      if (extension.empty() || item.path().extension() == extension) {
        names.insert(item.path().filename().string());
      }
    }
    return names;
  }
  void Limit(std::int32_t mib) { TqUOption::SetInt32("general.localcache.max_size", mib); }

  TempDir m_dir;
  ScopedClock m_clock{kDate + 5};
  DiskCache m_cache{m_dir.path().wstring().c_str()};
};

// Starts from an entry file built by hand, so both reading and writing follow the layout.
TEST_F(CacheTest, FreshEntriesAreServedAsIsStaleOnesRevalidatedAndNewTagsStored) {
  WriteFileBytes(EntryPath(), EntryBytes(700, kDate + 60, "\"v1\"", kKey, "first body"));
  m_clock.Set(kDate + 60);  // expiry not passed yet: fresh, and only the use is recorded
  EXPECT_EQ(Open(), "first body");
  EXPECT_TRUE(m_api.Sent().empty());
  EXPECT_EQ(ReadFileBytes(EntryPath()),
            EntryBytes(kDate + 60, kDate + 60, "\"v1\"", kKey, "first body"));

  m_clock.Set(kDate + 61);
  FakeResponse not_modified = Ok("", L"max-age=60", std::nullopt, kDate + 100);
  not_modified.status = 304;
  m_api.Queue(not_modified);
  EXPECT_EQ(Open(), "first body");
  ASSERT_EQ(m_api.Sent().size(), 1u);
  EXPECT_EQ(m_api.Sent()[0].headers, L"If-None-Match: \"v1\"");
  EXPECT_EQ(m_cache.ExpiryTime(kUrl), kDate + 160);

  // A tag of another length: the header grows, and the store still succeeds.
  m_clock.Set(kDate + 161);
  m_api.Queue(Ok("replaced body", L"max-age=60", L"\"a-much-longer-tag\""));
  EXPECT_EQ(Open(), "replaced body");
  EXPECT_EQ(ReadFileBytes(EntryPath()),
            EntryBytes(kDate + 161, kDate + 60, "\"a-much-longer-tag\"", kKey, "replaced body"));
  EXPECT_EQ(m_log.Text(), "");
}

TEST_F(CacheTest, ExpiryFollowsDateAndCacheControl) {
  struct Case {
    std::optional<std::wstring> cache_control;
    std::optional<std::int64_t> date;
    int flags;
    std::int64_t expiry;
  } const cases[] = {
      {L" public , max-age=  90 ", kDate, 0, kDate + 90},
      {L"max-age=60, no-cache", kDate, 0, kDate - 1},
      {std::nullopt, kDate, 0, kDate + 5 + 2592000},  // 30 days from now
      {L"max-age=60", std::nullopt, 0, 0},             // no "Date": revalidated at once
      {L"max-age=99999999999999999999999", kDate, 0, kNever},  // not wrapped into the past
      {L"max-age=60", kDate, qv::net::IUrlCache::NeverExpire, kNever},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const std::wstring url = L"http://example.test/" + std::to_wstring(i);
    SCOPED_TRACE(qv::WideToUtf8(url));
    m_api.Queue(Ok("b", cases[i].cache_control, std::nullopt, cases[i].date));
    EXPECT_EQ(Open(url.c_str(), cases[i].flags), "b");
    EXPECT_EQ(m_cache.ExpiryTime(url), cases[i].expiry);
  }
}

TEST_F(CacheTest, NoStoreAndErrorsDropTheEntryAndNoShortBodyIsServed) {
  m_api.Queue(Ok("stored", L"max-age=0", L"\"a\""));
  ASSERT_EQ(Open(), "stored");
  m_clock.Advance(1);
  m_api.Queue(Ok("private", L"no-store", L"\"b\""));
  EXPECT_EQ(Open(), "private");
  EXPECT_FALSE(fs::exists(EntryPath()));
  EXPECT_EQ(m_log.Text(), "");

  FakeResponse short_body = Ok("12345", L"no-store", std::nullopt);
  short_body.headers.back().second = L"10";  // "Content-Length"
  m_api.Queue(short_body);
  EXPECT_EQ(Open(), "<null>");
  EXPECT_THAT(m_log.Lines(), ElementsAre("Failed to read expected number of bytes from HTTP stream "
                                         "into cache system. Expected 10 but read 5\n"));
  m_log.Clear();
  FakeResponse broken = Ok("", L"no-store", std::nullopt);
  broken.Body("part").Body("rest");
  broken.read_fails_after = 1;
  m_api.Queue(broken);
  EXPECT_EQ(Open(), "<null>");
  // The stream's message ends in its own line feed, so the copy's line comes as two records.
  EXPECT_EQ(m_log.Text(),
            "Failed to read or write stream in CopyStream: Unable to read HTTP data\n\n"
            "Failed to read HTTP data into cache system: http://example.test/data.bin\n");

  m_log.Clear();
  m_api.Queue(Ok("stored", L"max-age=0", L"\"a\""));
  ASSERT_EQ(Open(), "stored");
  m_clock.Advance(1);
  FakeResponse missing;
  missing.status = 404;
  m_api.Queue(missing);
  EXPECT_EQ(Open(), "<null>");
  EXPECT_FALSE(fs::exists(EntryPath()));
  EXPECT_THAT(m_log.Lines(), ElementsAre("Error: HTTP Response 404 for GET " + kKey + "\n"));

  m_log.Clear();
  qv::net::HttpConnectionPool::Terminate();  // the next request must connect anew
  m_api.FailNextConnects(1);
  EXPECT_EQ(Open(), "<null>");
  EXPECT_EQ(m_log.Text(),
            "Failed to read resource into cache: http://example.test/data.bin: "
            "Unable to create HTTP connection\n\n");
}

TEST_F(CacheTest, ItsDirectoryIsOwnerOnlyAndAnotherUrlsFileOfTheSameNameIsLeftAlone) {
  // Entry files name the URLs the user opened. On Windows the directory is private by the ACL it
  // inherits under %LOCALAPPDATA%; permission bits there only say whether a file is read-only.
#if !defined(_WIN32)
  EXPECT_EQ(fs::status(m_cache.Directory()).permissions() & fs::perms::all, fs::perms::owner_all);
#endif
  const std::string foreign = EntryBytes(1, kNever, "", "http://other.test/collides", "theirs");
  WriteFileBytes(EntryPath(), foreign);
  m_api.Queue(Ok("ours", L"max-age=60", L"\"a\""));
  EXPECT_EQ(Open(), "ours");
  m_api.Queue(Ok("ours again", L"max-age=60", L"\"a\""));
  EXPECT_EQ(Open(), "ours again");
  EXPECT_EQ(ReadFileBytes(EntryPath()), foreign);
  // Entry files are the owner's alone as the file layer creates them (tests/tqutil).
}

TEST_F(CacheTest, FilesThatAreNotEntriesAreDeletedWhenLookedAt) {
  const std::string good = EntryBytes(1, 2, "\"t\"", kKey, "");
  // Random bytes, a length far beyond the file (refused without reading or allocating it), and
  // every truncation of a good entry.
  std::vector<std::string> cases = {"\x7f\x45\x4c\x46\x02\x01\x01\x00\x00\x00\x00\x00",
                                    good.substr(0, 20) + Le(0xFFFF, 2) + "tiny"};
  for (std::size_t n = 0; n < good.size(); ++n) cases.push_back(good.substr(0, n));
  for (const std::string& bytes : cases) {
    SCOPED_TRACE(::testing::PrintToString(bytes));
    WriteFileBytes(EntryPath(), bytes);
    EXPECT_FALSE(m_cache.Contains(kUrl));
    EXPECT_FALSE(fs::exists(EntryPath()));
  }
}

TEST_F(CacheTest, AHeaderOverSixtyFourKiBOrAStoppedStoreLeavesTheOldEntryAndNoTemporaryFile) {
  const std::string old_bytes = EntryBytes(1, 2, "\"old\"", kKey, "old body");
  WriteFileBytes(EntryPath(), old_bytes);
  CacheEntry entry = CacheEntry::Load(EntryPath());
  entry.UpdateETag(std::string(65535 - 24 - kKey.size() + 1, 't'));  // fits its own field
  BytesSource source("new body");
  EXPECT_THROW(entry.Store(source, {}, 3), gsl::narrowing_error);

  entry.UpdateETag(std::string("\"new\""));
  qv::stop_source stop;
  BytesSource stopped(std::string(100, 'n'), 10);
  stopped.on_read = [&] { stop.request_stop(); };
  EXPECT_FALSE(entry.Store(stopped, stop.get_token(), 3));
  EXPECT_EQ(ReadFileBytes(EntryPath()), old_bytes);
  EXPECT_FALSE(fs::exists(fs::path(EntryPath()) += ".tmp"));
}

// The request names what the entry is kept under: a dotted or differently cased spelling is
// sent normalised (query kept), so its answer is the answer for the key it is stored under.
TEST_F(CacheTest, TheRequestIsBuiltFromTheNormalisedUrlTheEntryIsKeyedOn) {
  m_api.Queue(Ok("b", L"max-age=60", std::nullopt));
  EXPECT_EQ(Open(L"http://Example.TEST/x/./y/../../data.bin?q=%7e1"), "b");
  ASSERT_EQ(m_api.Sent().size(), 1u);
  EXPECT_EQ(m_api.Sent()[0].resource, L"/data.bin?q=~1");
  EXPECT_EQ(Open(kUrl), "b") << "the same entry, fresh";
  EXPECT_EQ(m_api.Sent().size(), 1u);
}

// A tag holding CR, LF or NUL would split or end the "If-None-Match" line: such a stored tag is
// no validator (the URL is fetched whole), and such a tag from a server is not kept as one. The
// terminator a transport leaves at the end of its text is not part of the tag sent back.
TEST_F(CacheTest, ATagWithLineBreaksOrNulIsNoValidatorAndIsNotStoredAsOne) {
  struct Case {
    std::string stored;
    std::wstring sent;  // the request's header block
  } const cases[] = {
      {"\"a\"\nX-Injected: 1", L""},
      {std::string("\"a\0b\"", 5), L""},
      {std::string("\"ok\"\0", 5), L"If-None-Match: \"ok\""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.stored));
    WriteFileBytes(EntryPath(), EntryBytes(1, 2, c.stored, kKey, "old"));
    m_api.Queue(Ok("new", L"max-age=0", std::wstring(L"\"n\"")));
    EXPECT_EQ(Open(), "new");
    ASSERT_FALSE(m_api.Sent().empty());
    EXPECT_EQ(m_api.Sent().back().headers, c.sent);
    EXPECT_EQ(CacheEntry::Load(EntryPath()).ETag(), "\"n\"");
  }
  // From the server: the body is stored, without a tag, and the next revalidation sends none.
  m_api.Queue(Ok("tagged", L"max-age=0", std::wstring(L"\"t\"\rX-Injected: 1")));
  EXPECT_EQ(Open(), "tagged");
  EXPECT_EQ(CacheEntry::Load(EntryPath()).ETag(), "");
  m_clock.Advance(1);
  m_api.Queue(Ok("tagged again", L"max-age=0", std::wstring(L"\"t\"\rX-Injected: 1")));
  EXPECT_EQ(Open(), "tagged again") << "stored anew, as a response without a tag is";
  EXPECT_EQ(m_api.Sent().back().headers, L"");
  EXPECT_EQ(m_log.Text(), "");
}

// Nothing of a response is stored when a read throws something other than a stream error (a
// read that fails: tests/faults), and nothing is left of the attempt; a key or tag too long for
// the entry's header is refused before any file is made.
TEST_F(CacheTest, AThrowingReadAndAnOverlongTagOrKeyLeaveNoEntryAndNoTemporaryFile) {
  const std::wstring long_url = L"http://example.test/" + std::wstring(70000, L'k');
  struct Case {
    const char* name;
    std::wstring url;
    FakeResponse response;
    std::function<void()> on_read;
    std::string log_start;
  };
  FakeResponse two_chunks = Ok("", L"max-age=60", std::wstring(L"\"a\""));
  two_chunks.Body("part").Body("rest");
  const Case cases[] = {
      {"read throws", kUrl, two_chunks,
       [calls = std::make_shared<int>(0)] {
         if (++*calls == 2) throw std::logic_error("not a runtime error");
       },
       "Failed to read resource into cache: " + kKey + ": not a runtime error\n"},
      {"tag too long", kUrl, Ok("x", L"max-age=60", std::wstring(70000, L't')), {},
       "Failed to read resource into cache: " + kKey + ": "},
      {"key too long", long_url, Ok("x", L"max-age=60", std::wstring(L"\"a\"")), {},
       "Failed to read resource into cache: "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    for (const std::string& name : Remaining()) fs::remove(m_cache.Directory() / name);
    m_log.Clear();
    m_api.Queue(c.response);
    m_api.on_read = c.on_read;
    EXPECT_EQ(Open(c.url.c_str()), "<null>");
    m_api.on_read = {};
    EXPECT_THAT(Remaining(), IsEmpty());
    EXPECT_THAT(m_log.Text(), ::testing::StartsWith(c.log_start));
  }
}

// A link planted in the directory is not a file of the cache: its target's size is not counted
// and a clean-up never reads or deletes through it.
TEST_F(CacheTest, CleanUpNeitherCountsNorFollowsALinkInTheDirectory) {
  Limit(1);
  TempDir outside;
  const fs::path big = outside.WriteFile("big", std::string(2 * 1048576, 'x'));
  if (!PlantLink(big, m_cache.Directory() / "planted")) {
    GTEST_SKIP() << "no symbolic link can be planted here" << (IsWine() ? " (Wine)" : "");
  }
  Entry("entry", kDate, kNever, 1000);
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_EQ(Remaining(), (Names{"entry", "planted"}));
  EXPECT_EQ(fs::file_size(big), 2u * 1048576);
}

TEST_F(CacheTest, CleanUpTakesExpiredEntriesFirstWithinAnHourSpanAndOlderSpansFirst) {
  Limit(1);
  // 1,050,000 bytes: deleting the 250,000-byte entry is enough.
  Entry("oldest_fresh", kDate - 7200, kNever, 300000);
  Entry("half_hour_later_expired", kDate - 7200 + 1800, kDate - 1, 250000);
  Entry("recent_expired", kDate - 10, kDate - 1, 500000);
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_EQ(Remaining(), (Names{"oldest_fresh", "recent_expired"}));

  // Two deletions needed: the whole first span goes before the expired entry of the next one.
  for (const std::string& name : Remaining()) fs::remove(m_cache.Directory() / name);
  Entry("a_oldest", kDate - 10000, kNever, 450000);
  Entry("b_same_span", kDate - 10000 + 3599, kNever, 450000);
  Entry("c_next_span_expired", kDate - 10000 + 3600, 0, 450000);
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_EQ(Remaining(), (Names{"c_next_span_expired"}));
}

// Removals run side by side. A removal that fails (refused through the removal seam) leaves its
// bytes in the total, so the run goes on to the next-oldest until it is below the target.
TEST_F(CacheTest, ConcurrentRemovalsTakeTheOldestAndFailuresLeadToFurtherVictims) {
  constexpr int kEntries = 2000;
  constexpr std::size_t kSize = 1024;
  auto name = [](int i) { return "e" + std::to_string(10000 + i); };
  auto refused = [](const std::string& file) { return std::stoi(file.substr(1)) % 10 == 3; };
  for (int i = 0; i < kEntries; ++i) Entry(name(i), kDate - 2 * kEntries + i, kNever, kSize);

  Names expected;  // one by one, oldest first: the refused stay, the others go until below target
  std::uint64_t total = kEntries * kSize;
  for (int i = 0; i < kEntries; ++i) {
    if (total < kTarget || refused(name(i))) expected.insert(name(i));
    else total -= kSize;
  }

  // The first removal waits for a second one: the run only ends if removals overlap.
  std::mutex mutex;
  std::condition_variable second_arrived;
  int arrived = 0;
  TqUSysDirectory::SetRemoveFaultForTesting([&](const TqUSysDirectory::Char* file) {
    {
      std::unique_lock lock(mutex);
      if (++arrived == 2) second_arrived.notify_all();
      second_arrived.wait(lock, [&] { return arrived >= 2; });
    }
    return refused(fs::path(file).string());
  });
  Limit(1);
  EXPECT_TRUE(m_cache.CleanUp());
  TqUSysDirectory::SetRemoveFaultForTesting({});
  EXPECT_EQ(Remaining(), expected);
}

TEST_F(CacheTest, TwoProcessesAndThreadsOnOneDirectoryNeverSeeATornBody) {
  m_api.SetResponder(ChurnResponder(7));
  Limit(0);  // each clean-up deletes what it can
  const std::vector<std::string> arguments = {"churn", m_dir.path().string(), "150"};
  WorkerProcess first(arguments);
  WorkerProcess second(arguments);
  ASSERT_TRUE(first.ok() && second.ok());
  std::vector<std::future<ChurnResult>> runs;
  for (int t = 0; t < 4; ++t) {
    runs.push_back(std::async(std::launch::async,
                              [this, t] { return RunChurn(m_cache, 150, 10 + t); }));
  }
  for (auto& run : runs) {
    const ChurnResult r = run.get();
    EXPECT_EQ(r.torn, 0);
    EXPECT_GT(r.served, 0);
  }
  for (WorkerProcess* child : {&first, &second}) {
    EXPECT_THAT(child->ReadLine(), ::testing::StartsWith("served "));
    const WorkerProcess::End end = child->Finish();
    EXPECT_TRUE(end.exited && end.status == 0) << "status " << end.status;
  }
  EXPECT_THAT(Remaining(".tmp"), IsEmpty());
}

TEST_F(CacheTest, AProcessKilledInTheMiddleOfAStoreLeavesTheOldEntryReadable) {
  const fs::path entry_path = EntryPath(kChurnUrl);
  const std::string old_bytes = EntryBytes(1, 2, "\"old\"", "http://churn.test/resource", "old");
  WriteFileBytes(entry_path, old_bytes);

  WorkerProcess child({"kill-mid-store", m_dir.path().string()});
  ASSERT_TRUE(child.ok());
  int pid = 0;
  ASSERT_EQ(std::sscanf(child.ReadLine().c_str(), "storing %d", &pid), 1);
  child.SetReportedPid(pid);
  child.Kill();
  EXPECT_TRUE(child.Finish().killed);

  // The half-written body is in the temporary file, never under the entry's name.
  EXPECT_EQ(Remaining(".tmp").size(), 1u);
  EXPECT_EQ(ReadFileBytes(entry_path), old_bytes);
  EXPECT_EQ(CacheEntry::Load(entry_path).ETag(), "\"old\"");

  // The dead writer's lock went with it: the next store takes the temporary file over.
  m_api.Queue(Ok("new", std::nullopt, std::nullopt));
  EXPECT_EQ(Open(kChurnUrl), "new");
  EXPECT_THAT(Remaining(".tmp"), IsEmpty());
}

TEST_F(CacheTest, InMemoryConcurrentOpensOfOneUrlShareOneDownloadAndClearForgetsBodies) {
  InMemoryCache memory;
  const std::wstring url = L"http://example.test/held";
  auto open = [&] {
    auto stream = memory.OpenUrl(url, 0, {});
    return stream ? ReadAll(*stream) : "<null>";
  };
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  m_api.OnSend([&](const SentRequest&) { released.wait(); });
  m_api.Queue(Ok("the body", std::nullopt, std::nullopt));
  std::mutex mutex;
  std::condition_variable cv;
  int waits = 0;
  qv::net::detail::SetInMemoryCacheWaitHookForTesting([&] {
    std::lock_guard lock(mutex);
    ++waits;
    cv.notify_all();
  });

  // One of the four downloads and is held there; the three others wait for its body.
  std::vector<std::future<std::string>> opens;
  for (int i = 0; i < 4; ++i) opens.push_back(std::async(std::launch::async, open));
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(cv.wait_for(lock, std::chrono::seconds(30), [&] { return waits >= 3; }));
  }
  release.set_value();
  for (auto& result : opens) EXPECT_EQ(result.get(), "the body");
  EXPECT_EQ(m_api.Sent().size(), 1u);
  qv::net::detail::SetInMemoryCacheWaitHookForTesting({});

  // Clear forgets every body, so the next open downloads again; streams handed out keep theirs.
  m_api.OnSend({});
  auto kept = memory.OpenUrl(url, 0, {});
  memory.Clear();
  m_api.Queue(Ok("the new body", std::nullopt, std::nullopt));
  EXPECT_EQ(open(), "the new body");
  EXPECT_EQ(ReadAll(*kept), "the body");
}

TEST(InitialiseCacheTest, AnUnusableDirectoryFallsBackToMemoryAndAUsableOneGetsTheDiskCache) {
  TempDir dir;
  dir.WriteFile("plain", "x");
  qv::net::InitialiseCache(qv::Utf8ToWide((dir.path() / "plain" / "below").string()).c_str());
  EXPECT_NE(dynamic_cast<InMemoryCache*>(qv::net::CacheSystem()), nullptr);
  qv::net::TerminateCache();
  qv::net::InitialiseCache(qv::Utf8ToWide(dir.path().string()).c_str());
  EXPECT_NE(dynamic_cast<qv::net::DiskCache*>(qv::net::CacheSystem()), nullptr);
  qv::net::TerminateCache();
  EXPECT_EQ(qv::net::CacheSystem(), nullptr);
}

// The real transport, counting requests and keeping each one's headers and the last status.
class RecordingApi : public qv::net::WinInet {
 public:
  void* SendRequest(void* connection, const qv::net::HttpRequest& request,
                    const wchar_t** accept_types, bool& sent) override {
    headers.push_back(request.FormatHeaders());
    return WinInet::SendRequest(connection, request, accept_types, sent);
  }
  std::uint32_t QueryStatusCode(void* request) override {
    return last_status = WinInet::QueryStatusCode(request);
  }
  std::vector<std::wstring> headers;
  std::uint32_t last_status = 0;
};

TEST(CacheNginxTest, StoredServedFreshWithoutRequestRevalidatedWith304AndReplacedWhenChanged) {
  if (!NginxHarness::Installed()) GTEST_SKIP() << "nginx is not installed";
  NginxHarness nginx;
  ASSERT_TRUE(nginx.ok()) << nginx.error();
  TempDir dir;
  LogCapture log;
  RecordingApi api;
  struct Restore {
    qv::net::IHttpApi* previous;
    ~Restore() {
      qv::net::TerminateCache();
      qv::net::HttpConnectionPool::Terminate();
      qv::net::SetHttpApi(previous);
    }
  } restore{qv::net::SetHttpApi(&api)};
  qv::net::InitialiseCache(qv::Utf8ToWide(dir.path().string()).c_str());
  auto open = [](const std::wstring& url) {
    auto stream = qv::net::OpenFileOrUrl(url, 0, {});
    return stream ? ReadAll(*stream, 65536) : "<null>";
  };

  const std::string v1(300000, '1');
  nginx.WriteFile("doc.bin", v1);
  const std::wstring url = qv::Utf8ToWide(nginx.Url("/doc.bin"));
  ScopedClock clock(std::time(nullptr));

  EXPECT_EQ(open(url), v1);
  const fs::path entry_path = DiskCache::ComputeCacheLocation(url, dir.path() / "v1");
  const CacheEntry stored = CacheEntry::Load(entry_path);
  EXPECT_FALSE(stored.ETag().empty());
  EXPECT_EQ(stored.Expiry(), clock.Now() + 2592000);  // no cache-control: fresh for 30 days

  EXPECT_EQ(open(url), v1);  // fresh: no request at all
  ASSERT_EQ(api.headers.size(), 1u);

  clock.Advance(31 * 86400);  // stale: revalidated with the stored tag, 304 keeps the body
  EXPECT_EQ(open(url), v1);
  ASSERT_EQ(api.headers.size(), 2u);
  EXPECT_THAT(api.headers[1], ::testing::StartsWith(L"If-None-Match: \""));
  EXPECT_EQ(api.last_status, 304u);
  EXPECT_EQ(CacheEntry::Load(entry_path).Expiry(), clock.Now() + 2592000);

  // Changed on the server: the new body is stored and served, then served fresh.
  const std::string v2(123457, '2');
  nginx.WriteFile("doc.bin", v2);
  clock.Advance(31 * 86400);
  EXPECT_EQ(open(url), v2);
  EXPECT_EQ(api.last_status, 200u);
  EXPECT_NE(CacheEntry::Load(entry_path).ETag(), stored.ETag());
  EXPECT_EQ(open(url), v2);
  EXPECT_EQ(api.headers.size(), 3u);
  EXPECT_FALSE(fs::exists(fs::path(entry_path) += ".tmp"));
  EXPECT_EQ(TextBeyondWine(log), "");
}

}  // namespace
}  // namespace tq::test
