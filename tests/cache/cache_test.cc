// The cache, from its entry files to threads and processes sharing them, and nginx end to end.
#include "net/cache/disk_cache.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <ctime>
#include <filesystem>
#include <functional>
#include <future>
#include <limits>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

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
#include "tqutil/sys_file.h"

namespace tq::test {
namespace {

namespace fs = std::filesystem;
using qv::io::StreamPosition;
using qv::net::CacheEntry;
using qv::net::DiskCache;
using qv::net::InMemoryCache;
using ::testing::IsEmpty;
using ::testing::StartsWith;
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

// A body whose every byte tells its position, so a read from a wrong offset shows.
std::string Pattern(std::size_t size) {
  std::string body(size, '\0');
  for (std::size_t i = 0; i < size; ++i) body[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
  return body;
}

class CacheTest : public FakeTransportTest {
 protected:
  ~CacheTest() override { TqUOption::Unset("general.localcache.max_size"); }

  std::string Open(const wchar_t* url = kUrl, int flags = 0, qv::stop_token stop = {}) {
    auto stream = m_cache.OpenUrl(url, flags, std::move(stop));
    return stream ? ReadAll(*stream, 777) : "<null>";
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

// Opening one URL again and again: the cache remembers which file it maps to.
using RepeatedOpenTest = CacheTest;

// Starts from an entry file built by hand, so both reading and writing follow the layout; the
// remembered name says where to look, never what is there.
TEST_F(RepeatedOpenTest, EntriesFollowTheLayoutAndWhatTheFileHoldsAtEachOpenDecidesWhatIsServed) {
  // Entry files name the URLs the user opened. On Windows the directory is private by the ACL it
  // inherits under %LOCALAPPDATA%; permission bits there only say whether a file is read-only.
#if !defined(_WIN32)
  EXPECT_EQ(fs::status(m_cache.Directory()).permissions() & fs::perms::all, fs::perms::owner_all);
#endif
  WriteFileBytes(EntryPath(), EntryBytes(700, kDate + 60, "\"v1\"", kKey, "first body"));
  m_clock.Set(kDate + 60);  // expiry not passed yet: fresh, and only the use is recorded
  EXPECT_EQ(Open(), "first body");
  EXPECT_EQ(ReadFileBytes(EntryPath()),
            EntryBytes(kDate + 60, kDate + 60, "\"v1\"", kKey, "first body"));
  WriteFileBytes(EntryPath(), EntryBytes(kDate + 60, kDate + 60, "\"v1\"", kKey, "second, longer"));
  EXPECT_EQ(Open(), "second, longer");
  EXPECT_TRUE(m_api.Sent().empty());

  // Stale: revalidated with the stored tag; the 304 counts its max-age from its own date.
  m_clock.Set(kDate + 61);
  FakeResponse not_modified = Ok("", L"max-age=60", std::nullopt, kDate + 100);
  not_modified.status = 304;
  m_api.Queue(not_modified);
  EXPECT_EQ(Open(), "second, longer");
  ASSERT_EQ(m_api.Sent().size(), 1u);
  EXPECT_EQ(m_api.Sent()[0].headers, L"If-None-Match: \"v1\"");
  EXPECT_EQ(m_cache.ExpiryTime(kUrl), kDate + 160);

  // A tag of another length: the header grows, and the store still succeeds.
  m_clock.Set(kDate + 161);
  m_api.Queue(Ok("replaced body", L"max-age=60", L"\"a-much-longer-tag\""));
  EXPECT_EQ(Open(), "replaced body");
  EXPECT_EQ(ReadFileBytes(EntryPath()),
            EntryBytes(kDate + 161, kDate + 60, "\"a-much-longer-tag\"", kKey, "replaced body"));

  // Another URL's entry at the name: fetched, and the file left alone.
  const std::string foreign = EntryBytes(1, kNever, "", "http://other.test/collides", "theirs");
  WriteFileBytes(EntryPath(), foreign);
  m_api.Queue(Ok("ours", L"max-age=60", L"\"a\""));
  EXPECT_EQ(Open(), "ours");
  EXPECT_EQ(ReadFileBytes(EntryPath()), foreign);

  // Gone: fetched, stored anew and then served fresh.
  fs::remove(EntryPath());
  m_api.Queue(Ok("stored", L"max-age=60", L"\"s\"", kDate + 161));
  EXPECT_EQ(Open(), "stored");
  EXPECT_EQ(Open(), "stored");
  EXPECT_EQ(m_api.Sent().size(), 4u);
  EXPECT_EQ(m_log.Text(), "");
}

// Bodies that end before, at and after the end of the bytes read with the header, read in odd
// chunks, sized and sought, on the first open (the name not yet known) and on a later one.
TEST_F(RepeatedOpenTest, BodiesOfEverySizeAreServedWholeSizedAndSoughtOnEveryOpen) {
  const std::size_t header = EntryBytes(0, 0, "\"t\"", kKey, "").size();
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, 16384 - header - 1,
                                 16384 - header, 16384 - header + 1, std::size_t{100000}}) {
    SCOPED_TRACE(size);
    const std::string body = Pattern(size);
    const std::string on_disk = EntryBytes(kDate + 5, kNever, "\"t\"", kKey, body);
    WriteFileBytes(EntryPath(), on_disk);
    for (int open = 0; open < 2; ++open) {
      auto stream = m_cache.OpenUrl(kUrl, 0, {});
      ASSERT_NE(stream, nullptr);
      EXPECT_EQ(stream->MetaData().size, size);
      EXPECT_EQ(ReadAll(*stream, 777), body);
      if (size >= 10) {
        EXPECT_EQ(stream->RSeek(-5, StreamPosition::End), size - 5);
        EXPECT_EQ(ReadAll(*stream), body.substr(size - 5));
        EXPECT_EQ(stream->RSeek(3, StreamPosition::Begin), 3u);
        EXPECT_EQ(stream->RSeek(2, StreamPosition::Current), 5u);
        EXPECT_EQ(ReadAll(*stream), body.substr(5));
      }
      EXPECT_EQ(stream->RSeek(static_cast<std::int64_t>(size) + 10, StreamPosition::Begin),
                size + 10);
      char past_end[8];
      EXPECT_EQ(stream->Read(past_end, sizeof past_end), 0u);
      EXPECT_THROW(stream->RSeek(-1, StreamPosition::Begin), std::runtime_error);
    }
    EXPECT_EQ(ReadFileBytes(EntryPath()), on_disk) << "an open rewrote a recorded entry";
  }
  EXPECT_TRUE(m_api.Sent().empty());
}

// A served body holds its file as a reader: writers of the entry are refused until it closes,
// and a store renamed over the name meanwhile leaves the open body as it was.
TEST_F(RepeatedOpenTest, AnOpenBodyKeepsWritersOutAndReadsOnAcrossARename) {
  const std::string old_body = Pattern(50000);
  WriteFileBytes(EntryPath(), EntryBytes(kDate + 5, kNever, "\"t\"", kKey, old_body));
  auto stream = m_cache.OpenUrl(kUrl, 0, {});
  ASSERT_NE(stream, nullptr);
  std::string first(1000, '\0');
  ASSERT_EQ(stream->Read(first.data(), first.size()), first.size());
  const auto open_writer = [&] {
    return TqUSysFile::OpenFile(EntryPath(), TqUSysFile::kAccessWrite, TqUSysFile::kShareNone,
                                TqUSysFile::kOpenExistingWrite, 0, 0);
  };
  TqUSysFile::Handle writer = open_writer();
  EXPECT_EQ(writer, TqUSysFile::kInvalid) << "a writer got in while a body was being read";
  if (writer != TqUSysFile::kInvalid) TqUSysFile::CloseFile(writer);

#if defined(_WIN32)
  // Windows lets no file be renamed over one that is open: the store waits for the reader.
  const std::string stored_body = old_body;
#else
  const std::string stored_body = "new body";
  const fs::path temporary = fs::path(EntryPath()) += ".new";
  WriteFileBytes(temporary, EntryBytes(kDate + 5, kNever, "\"t\"", kKey, stored_body));
  fs::rename(temporary, EntryPath());
#endif
  EXPECT_EQ(first + ReadAll(*stream), old_body);
  stream.reset();
  writer = open_writer();
  EXPECT_NE(writer, TqUSysFile::kInvalid);
  // While a writer holds the entry, an open does not read it: the body comes from the server.
  m_api.Queue(Ok("while written", L"max-age=60", L"\"t\""));
  EXPECT_EQ(Open(), "while written");
  if (writer != TqUSysFile::kInvalid) TqUSysFile::CloseFile(writer);
  EXPECT_EQ(Open(), stored_body);
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

// A download that cannot be finished serves nothing, leaves no file, and logs its line; a body
// that must not be stored is served and takes the old entry with it. (A store failing at each
// file operation: tests/faults.)
TEST_F(CacheTest, FailedDownloadsServeNothingLeaveNoFileAndLogTheirLine) {
  const std::wstring long_url = L"http://example.test/" + std::wstring(70000, L'k');
  FakeResponse short_body = Ok("12345", L"no-store", std::nullopt);
  short_body.headers.back().second = L"10";  // "Content-Length"
  FakeResponse broken = Ok("", L"no-store", std::nullopt);
  broken.Body("part").Body("rest");
  broken.read_fails_after = 1;
  FakeResponse two_chunks = Ok("", L"max-age=60", std::wstring(L"\"a\""));
  two_chunks.Body("part").Body("rest");
  qv::stop_source stop;
  const auto on_second_read = [](std::function<void()> action) {
    return [calls = std::make_shared<int>(0), action] {
      if (++*calls == 2) action();
    };
  };
  const std::string opening = "Failed to read resource into cache: ";
  struct Case {
    const char* name;
    std::wstring url;
    std::optional<FakeResponse> response;  // none: the connection fails
    std::function<void()> on_read;
    std::string served;
    ::testing::Matcher<std::string> log;
    bool old_entry = false;  // a stale entry of the URL is there first
  } const cases[] = {
      {"no-store", kUrl, Ok("private", L"no-store", L"\"b\""), {}, "private", "", true},
      {"short", kUrl, short_body, {}, "<null>",
       "Failed to read expected number of bytes from HTTP stream into cache system. "
       "Expected 10 but read 5\n"},
      // The stream's message ends in its own line feed, so the copy's line comes as two records.
      {"read fails", kUrl, broken, {}, "<null>",
       "Failed to read or write stream in CopyStream: Unable to read HTTP data\n\n"
       "Failed to read HTTP data into cache system: " + kKey + "\n"},
      {"no connection", kUrl, std::nullopt, {}, "<null>",
       opening + kKey + ": Unable to create HTTP connection\n\n"},
      {"read throws", kUrl, two_chunks,
       on_second_read([] { throw std::logic_error("not a runtime error"); }), "<null>",
       opening + kKey + ": not a runtime error\n"},
      {"stopped", kUrl, two_chunks, on_second_read([&] { stop.request_stop(); }), "<null>", "",
       true},
      // A tag that fits its own field but makes the header one byte over 64 KiB.
      {"header too long", kUrl,
       Ok("x", L"max-age=60", std::wstring(65535 - 24 - kKey.size() + 1, L't')), {}, "<null>",
       StartsWith(opening + kKey + ": ")},
      {"key too long", long_url, Ok("x", L"max-age=60", std::wstring(L"\"a\"")), {}, "<null>",
       StartsWith(opening)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    for (const std::string& name : Remaining()) fs::remove(m_cache.Directory() / name);
    if (c.old_entry) WriteFileBytes(EntryPath(), EntryBytes(1, 2, "\"old\"", kKey, "old"));
    stop = qv::stop_source();
    m_log.Clear();
    qv::net::HttpConnectionPool::Terminate();  // the next request connects anew
    if (c.response) m_api.Queue(*c.response);
    else m_api.FailNextConnects(1);
    m_api.on_read = c.on_read;
    EXPECT_EQ(Open(c.url.c_str(), 0, stop.get_token()), c.served);
    m_api.on_read = {};
    EXPECT_THAT(Remaining(), IsEmpty());
    EXPECT_THAT(m_log.Text(), c.log);
  }
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
      {"\"a\"\rX-Injected: 1", L""},
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
  std::vector<std::future<int>> runs;
  std::vector<int> served(4);
  for (int t = 0; t < 4; ++t) {
    runs.push_back(std::async(std::launch::async, [this, t, &served] {
      return TornBodies(m_cache, 150, 10 + t, &served[t]);
    }));
  }
  for (int t = 0; t < 4; ++t) {
    EXPECT_EQ(runs[t].get(), 0);
    EXPECT_GT(served[t], 0);
  }
  for (WorkerProcess* child : {&first, &second}) {
    EXPECT_THAT(child->ReadLine(), StartsWith("served "));
    EXPECT_EQ(child->Finish(), 0);
  }
  EXPECT_THAT(Remaining(".tmp"), IsEmpty());
}

TEST_F(CacheTest, AProcessKilledInTheMiddleOfAStoreLeavesTheOldEntryReadable) {
  const fs::path entry_path = EntryPath(kChurnUrl);
  const std::string old_bytes = EntryBytes(1, 2, "\"old\"", "http://churn.test/resource", "old");
  WriteFileBytes(entry_path, old_bytes);

  WorkerProcess child({"kill-mid-store", m_dir.path().string()});
  ASSERT_TRUE(child.ok());
  ASSERT_EQ(child.ReadLine(), "storing");
  child.Kill();
  EXPECT_EQ(child.Finish(), WorkerProcess::kKilled);

  // The half-written body is in the temporary file, never under the entry's name.
  EXPECT_EQ(Remaining(".tmp").size(), 1u);
  EXPECT_EQ(ReadFileBytes(entry_path), old_bytes);

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

// The real transport, keeping each request's headers and the last status.
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
  EXPECT_THAT(api.headers[1], StartsWith(L"If-None-Match: \""));
  EXPECT_EQ(api.last_status, 304u);

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
