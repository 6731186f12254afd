// The cache, from its entry files and freshness rules to threads and processes sharing them,
// and files planted by another local user.
#include "net/cache/disk_cache.h"

#include <gmock/gmock.h>
#include <gsl/narrow>
#include <gtest/gtest.h>

#if defined(_WIN32)
#include <windows.h>
#else
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <future>
#include <limits>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "net/cache/cache_init.h"
#include "net/cache/downloads_in_flight.h"
#include "net/cache/freshness.h"
#include "net/cache/in_memory_cache.h"
#include "net/http/connection_pool.h"
#include "net/http/wininet_api.h"
#include "net/stream/read_stream.h"
#include "tests/cache/cache_test_support.h"
#include "tests/support/fake_transport_fixture.h"
#include "tests/support/servers/nginx_harness.h"
#include "tests/support/servers/temp_dir.h"
#include "tests/support/wine.h"
#include "tests/tqutil/test_files.h"
#include "tqutil/sys_file.h"
#include "tqutil/sys_file_faults.h"
#if defined(_WIN32)
#include "tqutil/sys_path.h"
#endif

namespace tq::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using qv::io::StreamPosition;
using qv::net::CacheEntry;
using qv::net::DiskCache;
using qv::net::IUrlCache;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using Lines = std::vector<std::string>;
using Names = std::set<std::string>;

constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kDate = 1'700'000'000;  // the server's clock
constexpr int kStale = IUrlCache::ServeStaleOnError;
constexpr const wchar_t* kUrl = L"http://example.test/data.bin";
const std::string kKey = "http://example.test/data.bin";
const std::string kMark("\x03\x03\x01", 3);  // the header extension: may be served stale

FakeResponse Ok(const std::string& body, std::optional<std::wstring> cache_control,
                std::optional<std::wstring> etag, std::optional<std::int64_t> date = kDate,
                std::uint32_t status = 200) {
  FakeResponse r;
  r.status = status;
  if (date) r.dates[L"Date"] = *date;
  if (cache_control) r.Header(L"cache-control", *cache_control);
  if (etag) r.Header(L"ETag", *etag);
  r.Header(L"Content-Length", std::to_wstring(body.size()));
  if (!body.empty()) r.Body(body);
  return r;
}

FakeResponse Status(std::uint32_t status) { return Ok("", std::nullopt, std::nullopt, {}, status); }

// A body whose every byte tells its position, so a read from a wrong offset shows.
std::string Pattern(std::size_t size) {
  std::string body(size, '\0');
  for (std::size_t i = 0; i < size; ++i) body[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
  return body;
}

class CacheTest : public FakeTransportTest {
 protected:
  ~CacheTest() override {
    TqUOption::Unset("general.localcache.max_size");
    qv::net::detail::SetDownloadWaitHookForTesting({});
    TqUSysFileFaults::LimitReads(0);
  }

  std::string Open(const std::wstring& url = kUrl, int flags = 0, qv::stop_token stop = {}) {
    auto stream = m_cache.OpenUrl(url, flags, std::move(stop));
    return stream ? ReadAll(*stream, 777) : "<null>";
  }
  fs::path EntryPath(const std::wstring& url = kUrl) const {
    return DiskCache::ComputeCacheLocation(url, m_cache.Directory());
  }
  // An entry file of exactly `size` bytes, its key padded to `key_length` characters.
  void Entry(const std::string& name, std::int64_t last_used, std::int64_t expiry,
             std::size_t size, std::size_t key_length = 0) {
    std::string key = "http://example.test/" + name + "/";
    key.append(std::max(key_length, key.size()) - key.size(), 'k');
    const std::string header = EntryBytes(last_used, expiry, "", key, "");
    WriteFileBytes(m_cache.Directory() / name, header + std::string(size - header.size(), 'b'));
  }
  Names Remaining(const std::string& extension = "") const {
    return FileNames(m_cache.Directory(), extension);
  }
  void RemoveAll() {
    for (const std::string& name : Remaining()) fs::remove(m_cache.Directory() / name);
  }
  void Limit(std::int32_t mib) { TqUOption::SetInt32("general.localcache.max_size", mib); }
  // The file held as another process's writer holds it; kInvalid when it cannot be.
  static TqUSysFile::Handle OpenWriter(const fs::path& path) {
    return TqUSysFile::OpenFile(path, TqUSysFile::kAccessWrite, TqUSysFile::kShareNone,
                                TqUSysFile::kOpenExistingWrite, 0, 0);
  }
  void WriteNamed(const std::wstring& name, const std::string& body) {
    auto stream = m_cache.OpenWriteStream(name);
    ASSERT_NE(stream, nullptr);
    stream->Write(body.data(), body.size());
  }
  std::string ReadNamed(const std::wstring& name) {
    auto stream = m_cache.OpenReadStream(name);
    return stream ? ReadAll(*stream) : "<null>";
  }

  // Sends are held until Release(). A send, or an open that waits for another's download, is
  // an arrival.
  void HoldSends() {
    m_arrivals = 0;
    m_release = {};
    m_released = m_release.get_future().share();
    m_api.OnSend([this](const SentRequest&) { Arrive(), m_released.wait(); });
    qv::net::detail::SetDownloadWaitHookForTesting([this] { Arrive(); });
  }
  void Arrive() {
    std::lock_guard lock(m_mutex);
    ++m_arrivals;
    m_arrived.notify_all();
  }
  // The bound only keeps a regression from hanging the test; the counts asserted after fail it.
  void WaitForArrivals(int count) {
    std::unique_lock lock(m_mutex);
    m_arrived.wait_for(lock, 30s, [&] { return m_arrivals >= count; });
  }
  void Release() { m_release.set_value(); }

  TempDir m_dir;
  ScopedClock m_clock{kDate + 5};
  DiskCache m_cache{m_dir.path().wstring().c_str()};
  std::mutex m_mutex;
  std::condition_variable m_arrived;
  int m_arrivals = 0;
  std::promise<void> m_release;
  std::shared_future<void> m_released;
};

// The names the thread-sanitizer run selects: opening one URL again and again, several opens
// of one URL at once, and serving stale entries.
using RepeatedOpenTest = CacheTest;
using SharedDownloadTest = CacheTest;
using StaleOnErrorTest = CacheTest;

// The freshness rules with the time given, not read: what a response's "Date" and
// "cache-control" allow at `now`.
TEST(FreshnessTest, DirectivesCountFromTheDateAndTheDefaultLifetimeFromNow) {
  constexpr std::int64_t kNow = kDate + 1'000;  // ours, ahead of the server's
  struct Case {
    std::optional<std::int64_t> date;
    std::optional<std::wstring> cache_control;
    std::int64_t now;
    std::optional<std::int64_t> expiry;
    bool no_store;
  } const cases[] = {
      {std::nullopt, L"max-age=60", kNow, std::nullopt, false},  // no date: stale at once
      {kDate, std::nullopt, kNow, kNow + 2'592'000, false},       // 30 days from now
      {kDate, std::nullopt, kNever - 5, kNever, false},           // not wrapped into the past
      {kDate, L" public , max-age=  90 ", kNow, kDate + 90, false},
      {kDate, L"max-age=60, no-cache", kNow, kDate - 1, false},
      {kDate, L"no-cache, max-age=5", kNow, kDate + 5, false},  // the last directive wins
      {kDate, L" private , no-store ", kNow, std::nullopt, true},
      {kDate, L"max-age=-1", kNow, kDate, false},
      {kDate, L"max-age=99999999999999999999999", kNow, kNever, false},
      {kDate, L"", kNow, std::nullopt, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.cache_control));
    std::optional<std::wstring_view> value;
    if (c.cache_control) value = *c.cache_control;
    const qv::net::Freshness got = qv::net::FreshnessOf(c.date, value, c.now);
    EXPECT_EQ(got.expiry, c.expiry);
    EXPECT_EQ(got.no_store, c.no_store);
  }
  EXPECT_EQ(qv::net::ExpiryFor(0, qv::net::Freshness{}), 0);
}

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

  // Stale, and answered with a tag of another length: the header grows, the store succeeds.
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

  // A tag and key that fit their fields one by one but not the header size field together: the
  // body starts where that field says, and the use, which would not fit, is not recorded.
  const std::string wrapped = EntryBytes(1, kNever, std::string(65535, 't'), kKey, "body");
  WriteFileBytes(EntryPath(), wrapped);
  const std::string served = Open();
  EXPECT_TRUE(served == wrapped.substr((24 + 65535 + kKey.size()) % 65536 + 2))
      << served.substr(0, 100);
  EXPECT_TRUE(ReadFileBytes(EntryPath()) == wrapped);

  // No header size on disk, confirmed by the server while a reader keeps the header from being
  // written: the body is served, not the header.
  std::string sizeless = EntryBytes(1, 0, "\"z\"", kKey, "kept body");
  WriteFileBytes(EntryPath(), sizeless.replace(0, 2, Le(0, 2)));
  m_api.Queue(Ok("", L"max-age=60", L"\"z\"", kDate, 304));
  const TqUSysFile::Handle reader =
      TqUSysFile::OpenFile(EntryPath(), TqUSysFile::kAccessRead, TqUSysFile::kShareRead,
                           TqUSysFile::kOpenExisting, 0, 0);
  EXPECT_EQ(Open(), "kept body");
  TqUSysFile::CloseFile(reader);

  // Gone: fetched, stored anew and then served fresh. A clock that moves on every reading: an
  // open that read it twice would record a use and an expiry from two different times.
  fs::remove(EntryPath());
  int readings = 0;
  TqUSysTime::SetClockForTesting([&] { return kDate + readings++; });
  m_api.Queue(Ok("stored", std::nullopt, L"\"s\""));
  EXPECT_EQ(Open(), "stored");
  EXPECT_EQ(readings, 1);
  EXPECT_EQ(ReadFileBytes(EntryPath()),
            EntryBytes(kDate, kDate + 2'592'000, "\"s\"", kKey, "stored"));
  EXPECT_EQ(Open(), "stored");
  TqUSysTime::SetClockForTesting([this] { return m_clock.Now(); });
  EXPECT_EQ(m_api.Sent().size(), 4u);
  EXPECT_EQ(m_log.Text(), "");
}

// Bodies that end before, at and after the end of the bytes read with the header, read in odd
// chunks, sized and sought, on the first open (the name not yet known) and on a later one, also
// from a file system that answers reads in pieces mid-file. A read into no buffer is a stream
// error, never a write through null.
TEST_F(RepeatedOpenTest, BodiesOfEverySizeAreServedWholeSizedAndSoughtOnEveryOpen) {
  const std::size_t header = EntryBytes(0, 0, "\"t\"", kKey, "").size();
  for (const std::uint64_t piece : {std::uint64_t{0}, std::uint64_t{4096}})
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, 16384 - header - 1,
                                 16384 - header, 16384 - header + 1, std::size_t{100000}}) {
    SCOPED_TRACE(testing::Message() << size << " in pieces of " << piece);
    TqUSysFileFaults::LimitReads(piece);
    const std::string body = Pattern(size);
    const std::string on_disk = EntryBytes(kDate + 5, kNever, "\"t\"", kKey, body);
    WriteFileBytes(EntryPath(), on_disk);
    for (int open = 0; open < 2; ++open) {
      auto stream = m_cache.OpenUrl(kUrl, 0, {});
      ASSERT_NE(stream, nullptr);
      EXPECT_EQ(stream->MetaData().size, size);
      EXPECT_THROW(stream->Read(nullptr, 1), std::runtime_error);
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
    TqUSysFileFaults::LimitReads(0);
    EXPECT_EQ(ReadFileBytes(EntryPath()), on_disk) << "an open rewrote a recorded entry";
  }
  EXPECT_TRUE(m_api.Sent().empty());
}

// A served body holds its file as a reader: writers of the entry are refused until it closes,
// and a store renamed over the name meanwhile leaves the open body as it was. A process that
// ignores the locks and cuts the entry short makes the read fail instead of ending early.
TEST_F(RepeatedOpenTest, AnOpenBodyKeepsWritersOutReadsOnAcrossARenameAndFailsWhenCutShort) {
  const std::string body = Pattern(100000);
  // The first open (the name not yet known), a later one, and one across a rename.
  for (int open = 0; open < 3; ++open) {
    SCOPED_TRACE(open);
    WriteFileBytes(EntryPath(), EntryBytes(kDate + 5, kNever, "\"t\"", kKey, body));
    auto stream = m_cache.OpenUrl(kUrl, 0, {});
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(stream->MetaData().size, body.size());
    std::string first(20000, '\0');
    for (std::size_t done = 0; done < first.size();) {
      const std::uint64_t got = stream->Read(first.data() + done, first.size() - done);
      ASSERT_GT(got, 0u);
      done += got;
    }
    TqUSysFile::Handle writer = OpenWriter(EntryPath());
    EXPECT_EQ(writer, TqUSysFile::kInvalid) << "a writer got in while a body was being read";
    if (writer != TqUSysFile::kInvalid) TqUSysFile::CloseFile(writer);
#if !defined(_WIN32)  // on Windows a reader's sharing keeps every writer and rename out
    if (open < 2) {
      fs::resize_file(EntryPath(), 50000);
      std::string rest;
      EXPECT_THROW(rest = ReadAll(*stream, 4096), std::runtime_error) << rest.size() << " bytes";
      continue;
    }
    const fs::path temporary = fs::path(EntryPath()) += ".new";
    WriteFileBytes(temporary, EntryBytes(kDate + 5, kNever, "\"t\"", kKey, "new body"));
    fs::rename(temporary, EntryPath());
#endif
    EXPECT_TRUE(first + ReadAll(*stream) == body);
  }
  EXPECT_TRUE(m_api.Sent().empty());
  // While a writer holds the entry, an open does not read it: the body comes from the server.
  TqUSysFile::Handle writer = OpenWriter(EntryPath());
  EXPECT_NE(writer, TqUSysFile::kInvalid);
  m_api.Queue(Ok("while written", L"max-age=60", L"\"t\""));
  EXPECT_EQ(Open(), "while written");
  if (writer != TqUSysFile::kInvalid) TqUSysFile::CloseFile(writer);
#if defined(_WIN32)
  EXPECT_TRUE(Open() == body);
#else
  EXPECT_EQ(Open(), "new body");
#endif
}

#if !defined(_WIN32)  // the open hook runs before the lock only on POSIX
// Other opens hold the entry for a moment, to record their own use, just when this open has
// recorded its use (fresh, or confirmed by the server) and opens the file to read it, and again
// as it looks once more: the body is served as the file holds it once let go, as it is for a
// body kept under a name.
TEST_F(RepeatedOpenTest, AnEntryHeldForAMomentAfterItsUseWasRecordedIsStillServed) {
  TqUSysFile::Handle other = TqUSysFile::kInvalid;
  bool taken = false;
  int looks_held = 0;
  fs::path held;
  // Once this open's use (`now`) is in the file, the next open of it finds it held, and so do
  // the two after that (regression: one more look was made, and null served); the fourth finds
  // it let go.
  const auto hold_once_recorded = [&](const fs::path& path, std::int64_t now) {
    taken = false;
    held = path;
    TqUSysFile::SetOpenHookForTesting([&, now] {
      if (other != TqUSysFile::kInvalid) {
        if (looks_held-- > 0) return;
        TqUSysFile::CloseFile(std::exchange(other, TqUSysFile::kInvalid));
        return;
      }
      if (taken || ReadFileBytes(held).substr(4, 8) != Le(now, 8)) return;
      taken = true;
      looks_held = 2;
      other = OpenWriter(held);
      ASSERT_NE(other, TqUSysFile::kInvalid);
    });
  };
  const auto let_go = [&] {
    TqUSysFile::SetOpenHookForTesting({});
    if (other != TqUSysFile::kInvalid) TqUSysFile::CloseFile(other);
    other = TqUSysFile::kInvalid;
    EXPECT_TRUE(taken);
  };

  struct Case {
    std::int64_t expiry;
    std::optional<FakeResponse> answer;  // to the revalidation of a stale entry
    std::int64_t expiry_after;
  } const cases[] = {
      {kNever, std::nullopt, kNever},
      {2, Ok("", L"max-age=60", L"\"t\"", kDate, 304), kDate + 60},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.expiry);
    WriteFileBytes(EntryPath(), EntryBytes(1, c.expiry, "\"t\"", kKey, "stored body"));
    if (c.answer) m_api.Queue(*c.answer);
    hold_once_recorded(EntryPath(), kDate + 5);
    const std::string served = Open();
    let_go();
    EXPECT_EQ(served, "stored body");
    EXPECT_EQ(ReadFileBytes(EntryPath()),
              EntryBytes(kDate + 5, c.expiry_after, "\"t\"", kKey, "stored body"));
  }

  // A body kept under a name, read at once by another.
  WriteNamed(L"name", "named body");
  m_clock.Advance(1);
  hold_once_recorded(EntryPath(L"qvcache://name"), kDate + 6);
  const std::string named = ReadNamed(L"name");
  let_go();
  EXPECT_EQ(named, "named body");
}
#endif

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
  // Read-only (copied in, or left so) too, as a writable directory allows on POSIX; and
  // clearing the cache takes such a file and whatever else lies in the directory.
  for (const bool clear : {false, true}) {
    SCOPED_TRACE(clear ? "cleared" : "looked at");
    WriteFileBytes(EntryPath(), cases[0]);
    fs::permissions(EntryPath(), fs::perms::owner_read);
    if (clear) {
      fs::create_directories(m_cache.Directory() / "sub");
      WriteFileBytes(m_cache.Directory() / "sub" / "file", "x");
      m_cache.Clear();
    } else {
      EXPECT_FALSE(m_cache.Contains(kUrl));
    }
    EXPECT_THAT(Remaining(), IsEmpty());
  }
}

// Links, FIFOs and directories planted by another local user at an entry's name or its temporary
// file's, on a first open and at a name the cache already knows: a miss (fetched, a link's
// target untouched, an entry of the cache's own put in the place, or, where nothing can replace
// a directory, served without being kept), never a wait on a FIFO.
TEST_F(CacheTest, LinksAndFifosPlantedAtAnEntryOrItsTemporaryFileAreMissesAndTouchNothing) {
  TempDir outside;
  const std::string planted = EntryBytes(1, kNever, "", kKey, "planted outside");
  const fs::path temporary = fs::path(EntryPath()) += ".tmp";
  struct Case {
    const char* name;
    fs::path at;
    fs::path target;  // empty: a FIFO (POSIX only: Windows has none in a directory)
    std::string target_bytes;
    bool directory = false;  // a directory with a file in it instead
  } const cases[] = {
      // First, since where no link can be planted the cases after it are skipped.
      {"directory at the entry", EntryPath(), {}, "", true},
      {"directory at the temporary file", temporary, {}, "", true},
      {"link at the entry", EntryPath(), outside.WriteFile("entry", planted), planted},
      {"link at the temporary file", temporary, outside.WriteFile("victim", "kept"), "kept"},
#if !defined(_WIN32)
      {"FIFO at the entry", EntryPath(), {}, ""},
      {"FIFO at the temporary file", temporary, {}, ""},
#endif
  };
  for (const Case& c : cases) {
    for (const char* round : {"first open", "known name"}) {
      SCOPED_TRACE(std::string(c.name) + ", " + round);
      RemoveAll();
      if (c.directory) {
        fs::create_directories(c.at);
        WriteFileBytes(c.at / "inside", "kept");
      }
#if !defined(_WIN32)
      ASSERT_TRUE(c.directory || !c.target.empty() || ::mkfifo(c.at.c_str(), 0600) == 0);
#endif
      if (!c.target.empty() && !PlantLink(c.target, c.at)) {
        // Wine 8 makes no reparse points; Windows only for a privileged or developer-mode user.
        GTEST_SKIP() << "no symbolic link can be planted here" << (IsWine() ? " (Wine)" : "");
      }
      const std::size_t sent = m_api.Sent().size();
      m_api.Queue(Ok("from the server", L"max-age=60", L"\"s\""));
      // Bounded, so that an open waiting on a FIFO fails the test; the FIFO's write end, opened
      // and closed, then lets it finish.
      auto opened = std::async(std::launch::async, [&] { return Open(); });
      const bool returned = opened.wait_for(2s) == std::future_status::ready;
#if !defined(_WIN32)
      if (!returned) ::close(::open(c.at.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
#endif
      EXPECT_TRUE(returned) << "the open waited on the FIFO";
      EXPECT_EQ(opened.get(), "from the server");
      EXPECT_EQ(c.target.empty() ? "" : ReadFileBytes(c.target), c.target_bytes);
      EXPECT_FALSE(IsLink(EntryPath()));
      if (c.directory) {
        EXPECT_EQ(ReadFileBytes(c.at / "inside"), "kept");
        m_api.Queue(Ok("from the server", L"max-age=60", L"\"s\""));
      }
      EXPECT_EQ(Open(), "from the server") << "served fresh from the cache's own entry";
      EXPECT_EQ(m_api.Sent().size(), sent + (c.directory ? 2 : 1));
      if (c.directory) fs::remove_all(c.at);
    }
  }
  // Clearing the cache removes a planted link to a directory as itself: what it leads to stays.
  fs::create_directories(outside / "dir");
  WriteFileBytes(outside / "dir" / "kept", "kept");
  RemoveAll();
  ASSERT_TRUE(PlantLink(outside / "dir", EntryPath()));
  m_cache.Clear();
  EXPECT_EQ(ReadFileBytes(outside / "dir" / "kept"), "kept");
  EXPECT_FALSE(IsLink(EntryPath()));
}

// A body that must not be stored is served (from memory, refusing a read into no buffer) and
// takes the old entry with it; a download that cannot be finished serves nothing, leaves no
// file, and logs its line. (A store failing at each file operation: tests/faults.)
TEST_F(CacheTest, FailedDownloadsServeNothingLeaveNoFileAndLogTheirLine) {
  WriteFileBytes(EntryPath(), EntryBytes(1, 2, "\"old\"", kKey, "old"));
  m_api.Queue(Ok("private", L"no-store", L"\"b\""));
  auto unstored = m_cache.OpenUrl(kUrl, 0, {});
  ASSERT_NE(unstored, nullptr);
  EXPECT_THROW(unstored->Read(nullptr, 1), std::runtime_error);
  EXPECT_EQ(ReadAll(*unstored), "private");
  unstored.reset();
  EXPECT_THAT(Remaining(), IsEmpty());

  const auto cut = [](FakeResponse whole) {
    whole.headers.back().second = L"10";  // "Content-Length", for a body of 5 bytes
    return whole;
  };
  FakeResponse broken = Ok("", L"no-store", std::nullopt);
  broken.Body("part").Body("rest").read_fails_after = 1;
  FakeResponse two_chunks = Ok("", L"max-age=60", std::wstring(L"\"a\""));
  two_chunks.Body("part").Body("rest");
  const std::string opening = "Failed to read resource into cache: ";
  struct Case {
    const char* name;
    std::wstring url;
    std::optional<FakeResponse> response;  // none: the connection fails
    bool read_throws;  // the second read throws what no stream error is
    ::testing::Matcher<std::string> log;
  } const cases[] = {
      {"short", kUrl, cut(Ok("12345", L"no-store", std::nullopt)), false,
       "Failed to read expected number of bytes from HTTP stream into cache system. "
       "Expected 10 but read 5\n"},
      // A transport that ends a cut body as if it were whole (WinINet may): never stored as whole.
      {"short, stored", kUrl, cut(Ok("12345", L"max-age=60", std::wstring(L"\"c\""))), false,
       "Failed to read expected number of bytes from HTTP stream into cache system. "
       "Expected 10 but read 5\n"},
      // The stream's message ends in its own line feed, so the copy's line comes as two records.
      {"read fails", kUrl, broken, false,
       "Failed to read or write stream in CopyStream: Unable to read HTTP data\n\n"
       "Failed to read HTTP data into cache system: " + kKey + "\n"},
      {"no connection", kUrl, std::nullopt, false,
       opening + kKey + ": Unable to create HTTP connection\n\n"},
      {"read throws", kUrl, two_chunks, true, opening + kKey + ": not a runtime error\n"},
      // A tag that fits its own field but makes the header one byte over 64 KiB.
      {"header too long", kUrl,
       Ok("x", L"max-age=60", std::wstring(65535 - 24 - kKey.size() + 1, L't')), false,
       StartsWith(opening + kKey + ": ")},
      {"key too long", L"http://example.test/" + std::wstring(70000, L'k'),
       Ok("x", L"max-age=60", std::wstring(L"\"a\"")), false, StartsWith(opening)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    m_log.Clear();
    qv::net::HttpConnectionPool::Terminate();  // the next request connects anew
    if (c.response) m_api.Queue(*c.response);
    else m_api.FailNextConnects(1);
    int reads = 0;
    m_api.on_read = [&] {
      if (c.read_throws && ++reads == 2) throw std::logic_error("not a runtime error");
    };
    EXPECT_EQ(Open(c.url), "<null>");
    m_api.on_read = {};
    EXPECT_THAT(Remaining(), IsEmpty());
    EXPECT_THAT(m_log.Text(), c.log);
  }
  // A stored-body name too long for the header is the caller's to hear of.
  EXPECT_THROW(m_cache.OpenWriteStream(std::wstring(70000, L'n')), gsl::narrowing_error);
  EXPECT_THAT(Remaining(), IsEmpty());

#if !defined(_WIN32)  // Windows deletes no file that is open, so no clearing takes it away
  // The directory is cleared under a store, and another process's writer makes the temporary
  // file anew: the store neither renames that half-written file into place nor deletes it.
  const fs::path temporary = fs::path(EntryPath()) += ".tmp";
  const std::string half = EntryBytes(1, kNever, "\"o\"", kKey, "half");
  TqUSysFile::Handle other = TqUSysFile::kInvalid;
  m_api.Queue(two_chunks);
  m_api.on_read = [&] {
    if (other != TqUSysFile::kInvalid) return;
    m_cache.Clear();
    other = TqUSysFile::OpenFile(temporary, TqUSysFile::kAccessWrite, TqUSysFile::kShareNone,
                                 TqUSysFile::kCreateAlways, 0, 0);
    std::uint64_t written = 0;
    ASSERT_TRUE(TqUSysFile::WriteFile(other, half.data(), half.size(), &written));
  };
  EXPECT_EQ(Open(), "<null>");
  m_api.on_read = {};
  TqUSysFile::CloseFile(other);
  EXPECT_EQ(ReadFileBytes(temporary), half);
  EXPECT_FALSE(fs::exists(EntryPath()));
  m_api.Queue(Ok("whole", L"max-age=60", L"\"w\""));
  EXPECT_EQ(Open(), "whole");
#endif
}

// A stale entry is revalidated with its tag; the answer decides what is served and what the
// entry file holds afterwards (the open's time, kDate + 5, recorded as its use). A stored tag
// holding CR, LF or NUL would split or end the "If-None-Match" line: it is no validator (the URL
// is fetched whole). The terminator a transport leaves at the end of its text is not part of it.
TEST_F(CacheTest, ARevalidationKeepsTheEntryWhenItsTagStandsOrNoAnswerComes) {
  const std::string stored = EntryBytes(1, 2, "\"v1\"", kKey, "old");
  std::string no_header_size = EntryBytes(1, kNever, "\"v1\"", kKey, "old");
  no_header_size.replace(0, 2, Le(0, 2));
  const auto after = [](std::int64_t expiry, const std::string& tag, const std::string& body) {
    return EntryBytes(kDate + 5, expiry, tag, kKey, body);
  };
  const auto tagged = [](const std::string& tag) { return EntryBytes(1, 2, tag, kKey, "old"); };
  const FakeResponse replaced = Ok("new", L"max-age=0", L"\"n\"");
  struct Case {
    const char* name;
    std::string stored;
    std::optional<FakeResponse> answer;  // none: the request cannot be sent
    std::string served;
    std::string file;  // empty: none
    std::wstring sent = L"If-None-Match: \"v1\"";  // the request's header block
  } const cases[] = {
      {"same tag", stored, Ok("new", L"max-age=60", L"\"v1\""), "old",
       after(kDate + 60, "\"v1\"", "old")},
      {"not modified, max-age unreadable", stored, Ok("", L"max-age=abc", L"\"v9\"", kDate, 304),
       "old", after(kDate, "\"v1\"", "old")},
      {"not sent", stored, std::nullopt, "old", after(2, "\"v1\"", "old")},
      {"tag with LF", tagged("\"a\"\nX-Injected: 1"), replaced, "new", after(kDate, "\"n\"", "new"),
       L""},
      {"tag with CR", tagged("\"a\"\rX-Injected: 1"), replaced, "new", after(kDate, "\"n\"", "new"),
       L""},
      {"tag with NUL", tagged(std::string("\"a\0b\"", 5)), replaced, "new",
       after(kDate, "\"n\"", "new"), L""},
      {"tag ending in NUL", tagged(std::string("\"ok\"\0", 5)), replaced, "new",
       after(kDate, "\"n\"", "new"), L"If-None-Match: \"ok\""},
      // Last: the checks after the table look at what it leaves.
      {"not sent, no header size", no_header_size, std::nullopt, "<null>", no_header_size},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    WriteFileBytes(EntryPath(), c.stored);
    const std::size_t sent = m_api.Sent().size();
    if (c.answer) m_api.Queue(*c.answer);
    else m_api.fail_call = [](const std::string& call) { return call.rfind("Send", 0) == 0; };
    m_log.Clear();
    EXPECT_EQ(Open(), c.served);
    m_api.fail_call = {};
    EXPECT_EQ(m_log.Text(), "") << "no header dropped, no failure";
    EXPECT_TRUE(ReadFileBytes(EntryPath()) == c.file) << ReadFileBytes(EntryPath());
    if (c.answer) {
      ASSERT_EQ(m_api.Sent().size(), sent + 1);
      EXPECT_EQ(m_api.Sent().back().headers, c.sent);
    }
  }
  // A file with a header size of 0 is an entry of no use, not a file to delete.
  EXPECT_FALSE(m_cache.Contains(kUrl));
  EXPECT_EQ(m_cache.ExpiryTime(kUrl), kNever);
  EXPECT_TRUE(fs::exists(EntryPath()));
  // No entry file: a new entry, stale. An entry file that a writer holds: none to be had.
  EXPECT_EQ(m_cache.ExpiryTime(L"http://example.test/never-cached"), 0);
  const TqUSysFile::Handle writer = OpenWriter(EntryPath());
  ASSERT_NE(writer, TqUSysFile::kInvalid);
  EXPECT_EQ(m_cache.ExpiryTime(kUrl), -1);
  TqUSysFile::CloseFile(writer);
}

// The request names what the entry is kept under: a dotted or differently cased spelling is
// sent normalised (query kept), so its answer is the answer for the key it is stored under. A
// URL holding a NUL names no entry.
TEST_F(CacheTest, TheRequestIsBuiltFromTheNormalisedUrlTheEntryIsKeyedOn) {
  m_api.Queue(Ok("b", L"max-age=60", std::nullopt));
  EXPECT_EQ(Open(L"http://Example.TEST/x/./y/../../data.bin?q=%7e1"), "b");
  ASSERT_EQ(m_api.Sent().size(), 1u);
  EXPECT_EQ(m_api.Sent()[0].resource, L"/data.bin?q=~1");
  EXPECT_EQ(Open(kUrl), "b") << "the same entry, fresh";
  EXPECT_EQ(m_api.Sent().size(), 1u);
  // Read up to a NUL, this one would be served the shorter URL's entry.
  EXPECT_EQ(Open(std::wstring(kUrl) + std::wstring(L"\0x", 2)), "<null>");
  EXPECT_EQ(m_api.Sent().size(), 1u);
}

// The directory removed while the host runs (a clean-up tool) is made again, owner-only, by
// the next miss or named write: every store failed, and every URL opened as null, until the
// host restarted.
TEST_F(CacheTest, ADirectoryRemovedUnderTheCacheIsMadeAgainByTheNextStore) {
  for (int round = 0; round < 2; ++round) {
    fs::remove_all(m_cache.Directory());
    if (round == 0) {
      m_api.Queue(Ok("body", L"max-age=60", std::nullopt));
      EXPECT_EQ(Open(), "body");
      EXPECT_TRUE(m_cache.Contains(kUrl));
    } else {
      WriteNamed(L"kept", "named");
      EXPECT_EQ(ReadNamed(L"kept"), "named");
    }
#if !defined(_WIN32)
    EXPECT_EQ(fs::status(m_cache.Directory()).permissions() & fs::perms::all,
              fs::perms::owner_all);
#endif
  }
}

// A stored-body name is the caller's own text: read as a URL, names differing in case, after a
// "#" or a "?", or in an encoded letter shared one entry, and one was served the other's body.
TEST_F(CacheTest, BodiesStoredUnderDifferentNamesStayApart) {
  const std::vector<std::wstring> names = {L"Thumb", L"thumb", L"report#2", L"report#3",
                                           L"a?x",   L"a?y",   L"%41",      L"A"};
  for (const std::wstring& name : names) WriteNamed(name, qv::WideToUtf8(name));
  for (const std::wstring& name : names) EXPECT_EQ(ReadNamed(name), qv::WideToUtf8(name));
  EXPECT_TRUE(m_cache.Contains(L"qvcache://Thumb"));
  EXPECT_FALSE(m_cache.Contains(L"qvcache://THUMB"));
}

// A file URL says nothing about how long its body holds: every open asks the file again, and a
// file rewritten at the same size within the same second is served as it is now, not as stored.
TEST_F(CacheTest, AFileUrlIsServedAsTheFileIsNowAtEveryOpen) {
  const fs::path file = m_dir.path() / "source.txt";
#if defined(_WIN32)
  const std::wstring url = L"file:///" + file.generic_wstring();
#else
  const std::wstring url = L"file://" + file.wstring();
#endif
  WriteFileBytes(file, "first");
  ASSERT_TRUE(SetModifiedTime(file, std::chrono::seconds(kDate) + 100ms));
  EXPECT_EQ(Open(url), "first");
  EXPECT_TRUE(fs::exists(EntryPath(url)));
  WriteFileBytes(file, "again");
  ASSERT_TRUE(SetModifiedTime(file, std::chrono::seconds(kDate) + 600ms));
  EXPECT_EQ(Open(url), "again");
  EXPECT_EQ(Open(url), "again");
  fs::remove(file);
  EXPECT_EQ(Open(url), "<null>") << "no source, nothing served";
  EXPECT_TRUE(m_api.Sent().empty());
}

// A tag from a server holding CR, LF or NUL is not kept as one: the body is stored, without a
// tag, and the next revalidation sends none.
TEST_F(CacheTest, ATagWithLineBreaksOrNulIsNoValidatorAndIsNotStoredAsOne) {
  m_api.Queue(Ok("tagged", L"max-age=0", std::wstring(L"\"t\"\rX-Injected: 1")));
  EXPECT_EQ(Open(), "tagged");
  EXPECT_EQ(CacheEntry::Load(EntryPath()).ETag(), "");
  m_clock.Advance(1);
  m_api.Queue(Ok("tagged again", L"max-age=0", std::wstring(L"\"t\"\rX-Injected: 1")));
  EXPECT_EQ(Open(), "tagged again") << "stored anew, as a response without a tag is";
  EXPECT_EQ(m_api.Sent().back().headers, L"");
  EXPECT_EQ(m_log.Text(), "");
}

// Several opens of one URL at once send one request; each gets what it would have got alone.
TEST_F(SharedDownloadTest, ConcurrentOpensSendOneRequestAndEachGetsWhatItWouldHaveGotAlone) {
  constexpr int kOpens = 8;
  const std::string body = Pattern(1 << 20);
  const FakeResponse fresh = Ok(body, L"max-age=60", L"\"v1\"");
  struct Case {
    std::optional<FakeResponse> stored;  // stored first, then made stale
    int flags;
    FakeResponse held;  // the answer to the concurrent opens
    bool served;        // each open got the body
    bool kept;          // the URL is in the cache afterwards
    Lines lines;        // each open's log lines, the URL in place of "%"
  } const cases[] = {
      {std::nullopt, 0, fresh, true, true, {}},
      {fresh, 0, Ok("", L"max-age=60", L"\"v1\"", kDate + 200, 304), true, true, {}},
      {std::nullopt, 0, Ok(body, L"no-store", std::nullopt), true, false, {}},
      {std::nullopt, 0, Status(404), false, false, {"Error: HTTP Response 404 for GET %"}},
      {fresh, kStale, Status(503), true, true,
       {"Error: HTTP Response 503 for GET %",
        "Serving stale entry for %: the server answered 503"}},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const Case& c = cases[i];
    const std::string url = "http://example.test/" + std::to_string(i);
    const std::wstring wide = qv::Utf8ToWide(url);
    SCOPED_TRACE(url);
    m_clock.Set(kDate);
    if (c.stored) {
      m_api.Queue(*c.stored);
      ASSERT_EQ(Open(wide, c.flags), body);
      m_clock.Set(m_cache.ExpiryTime(wide) + 1);
    }
    const std::int64_t stale_expiry = m_cache.ExpiryTime(wide);
    const std::size_t sent = m_api.Sent().size();
    m_api.Queue(c.held);
    m_log.Clear();
    HoldSends();
    std::vector<std::future<std::string>> opens;
    for (int n = 0; n < kOpens; ++n) {
      opens.push_back(std::async(std::launch::async, [&] { return Open(wide, c.flags); }));
    }
    WaitForArrivals(kOpens);
    Release();
    for (auto& open : opens) EXPECT_TRUE(open.get() == (c.served ? body : "<null>"));
    m_api.OnSend({});
    ASSERT_EQ(m_api.Sent().size(), sent + 1);
    EXPECT_EQ(m_cache.Contains(wide), c.kept);
    if (c.held.status == 304) {
      EXPECT_EQ(m_api.Sent().back().headers, L"If-None-Match: \"v1\"");
      EXPECT_GT(m_cache.ExpiryTime(wide), stale_expiry) << "renewed by the 304";
    }
    Lines expected;
    for (std::string line : c.lines) {
      expected.insert(expected.end(), kOpens, line.replace(line.find('%'), 1, url) + "\n");
    }
    Lines lines = m_log.Lines();
    std::sort(lines.begin(), lines.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(lines, expected);
  }
}

// A stopped waiter leaves while the download is still held; a stopped download is no failure of
// the opens waiting for it: one of them downloads anew.
TEST_F(SharedDownloadTest, AStoppedWaiterLeavesAndAStoppedDownloadIsTakenOverByAWaiter) {
  const std::string body = Pattern(256 << 10);
  m_api.Queue(Ok(body, L"max-age=60", L"\"v\""));
  m_api.Queue(Ok(body, L"max-age=60", L"\"v\""));
  HoldSends();
  qv::stop_source stop_download;
  qv::stop_source stop_waiter;
  auto download = std::async(std::launch::async,
                             [&] { return Open(kUrl, 0, stop_download.get_token()); });
  WaitForArrivals(1);  // the download, held at its send
  auto stopped =
      std::async(std::launch::async, [&] { return Open(kUrl, 0, stop_waiter.get_token()); });
  auto waiter = std::async(std::launch::async, [&] { return Open(kUrl); });
  WaitForArrivals(3);
  stop_waiter.request_stop();
  EXPECT_EQ(stopped.wait_for(30s), std::future_status::ready) << "left while the send is held";
  stop_download.request_stop();
  Release();
  EXPECT_EQ(stopped.get(), "<null>");
  EXPECT_EQ(download.get(), "<null>");
  EXPECT_TRUE(waiter.get() == body);
  EXPECT_EQ(m_api.Sent().size(), 2u);
  EXPECT_EQ(m_log.Text(), "");
}

// A download whose thread leaves without an outcome (an exception none of the cache's) still
// ends every wait.
TEST(DownloadsInFlightTest, ADownloadThatThrowsEndsEveryWaitAndLeavesTheTable) {
  using qv::net::detail::DownloadsInFlight;
  DownloadsInFlight table;
  std::optional<DownloadsInFlight::Ticket> download(table.Join("key"));
  ASSERT_TRUE(download->IsDownload());
  DownloadsInFlight::Ticket waiter = table.Join("key");
  ASSERT_FALSE(waiter.IsDownload());
  auto waited = std::async(std::launch::async, [&] { return waiter.Wait({}); });
  download.reset();  // as its thread's stack unwinds, without an outcome
  const auto seen = waited.get();
  ASSERT_NE(seen, nullptr);
  EXPECT_EQ(seen->kind, qv::net::detail::DownloadOutcome::Kind::kAbandoned);
  EXPECT_TRUE(table.Join("key").IsDownload());
}

// A stale entry is served, and kept, when its revalidation cannot reach the server or the server
// fails (after the retries); never when the resource is gone, and only where the open's flag and
// the stored response allow it. That permission rides in the entry's header as a mark, which a
// 304 in between sets or takes away again. A mark that would not fit (a tag and key that fill the
// header without it) is left off, and the 304's expiry still reaches the file. A new body whose
// tag leaves its header no room cannot be stored either: the marked entry is served, as for any
// new body that cannot be stored whole. A stale entry served is kept as it was, its use recorded.
TEST_F(StaleOnErrorTest, AStaleEntryIsServedOnlyWhenTheServerFailsAndTheFlagAndEntryAllowIt) {
  constexpr int kNoConnection = -1;
  constexpr int kTagTooLong = -2;  // a 200 whose tag makes the new body's header too long
  constexpr int kNeverStale = kStale | IUrlCache::NeverExpire;
  struct Case {
    const char* stored;  // the stored response's cache-control
    int store_flags;
    const char* renewed;  // the cache-control of a 304 to an open with `flags` in between
    int failure;  // the answer to the revalidation: a status (0: none at all), or one of the above
    int flags;
    bool served;
    bool long_tag = false;  // the tag fills the header: no room for the mark
  } const cases[] = {
      {"max-age=60", kStale, nullptr, kNoConnection, kStale, true},
      {"max-age=60", kStale, nullptr, 0, kStale, true},
      {"max-age=60", kStale, nullptr, 500, kStale, true},
      {"max-age=60", kStale, nullptr, 502, kStale, true},
      {"max-age=60", kStale, nullptr, 503, kStale, true},
      {"max-age=60", kStale, nullptr, 504, kStale, true},
      {"max-age=60", kStale, nullptr, 404, kStale, false},
      {"max-age=60", 0, nullptr, 0, 0, false},
      {"max-age=60, must-revalidate", kStale, nullptr, 503, kStale, false},
      {"no-cache", kStale, nullptr, 0, kStale, false},
      {"max-age=60", 0, nullptr, 0, kStale, false},
      {"max-age=60", 0, "max-age=60", 503, kStale, true},
      {"max-age=60", kStale, "max-age=60, must-revalidate", 503, kStale, false},
      {"max-age=60", kNeverStale, nullptr, 0, kNeverStale, true},
      {"max-age=60", 0, "max-age=60", 503, kStale, false, true},
      {"max-age=60", kStale, nullptr, 503, kStale, false, true},
      {"max-age=60", kStale, nullptr, kTagTooLong, kStale, true},
  };
  const std::string body(100000, 'b');
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const Case& c = cases[i];
    const std::wstring url = L"http://example.test/" + std::to_wstring(i);
    const std::string narrow = qv::WideToUtf8(url);
    SCOPED_TRACE(narrow);
    const std::string tag = c.long_tag ? std::string(65535 - 24 - narrow.size(), 't') : "\"v1\"";
    m_clock.Set(kDate);
    m_log.Clear();
    m_api.Queue(Ok(body, qv::Utf8ToWide(c.stored), qv::Utf8ToWide(tag)));
    ASSERT_EQ(Open(url, c.store_flags), body);
    const auto allowed = [&](const char* cache_control) {
      return !c.long_tag && cache_control == std::string("max-age=60");
    };
    bool marked = (c.store_flags & kStale) && allowed(c.stored);
    const auto layout = [&](std::int64_t expiry) {
      return EntryBytes(m_clock.Now(), expiry, tag, narrow, body, marked ? kMark : "");
    };
    EXPECT_EQ(ReadFileBytes(EntryPath(url)), layout(m_cache.ExpiryTime(url)));
    if (c.renewed) {
      m_clock.Set(m_cache.ExpiryTime(url) + 1);
      m_api.Queue(Ok("", qv::Utf8ToWide(c.renewed), qv::Utf8ToWide(tag), m_clock.Now(), 304));
      EXPECT_EQ(Open(url, c.flags), body);
      marked = allowed(c.renewed);
      EXPECT_EQ(ReadFileBytes(EntryPath(url)), layout(m_clock.Now() + 60)) << "header rewritten";
    }
    if (c.flags & IUrlCache::NeverExpire) {
      // Stale only by a time past every other: made so by hand, marked as the open left it.
      EXPECT_EQ(m_cache.ExpiryTime(url), kNever);
      WriteFileBytes(EntryPath(url), layout(5));
    } else {
      m_clock.Set(m_cache.ExpiryTime(url) + 1);
    }
    const std::int64_t stale_expiry = m_cache.ExpiryTime(url);

    qv::net::HttpConnectionPool::Terminate();
    if (c.failure == kNoConnection) m_api.FailNextConnects(1);
    if (c.failure == kTagTooLong) {
      const std::wstring too_long(65535 - 24 - narrow.size() + 1, L't');
      m_api.Queue(Ok("new body", L"max-age=60", too_long));
    }
    for (int n = 0; n < (c.failure == 502 ? 6 : c.failure >= 0 ? 1 : 0); ++n) {
      m_api.Queue(Status(c.failure));
    }
    EXPECT_EQ(m_log.Text(), "") << "stored and renewed without a line";
    const std::size_t sleeps = Sleeps().size();
    const std::string got = Open(url, c.flags);

    Lines expected;
    const std::string status = std::to_string(c.failure);
    if (c.failure > 0) {
      expected.push_back("Error: HTTP Response " + status + " for GET " + narrow + "\n");
    }
    if (c.served) {
      EXPECT_EQ(got, body);
      EXPECT_EQ(ReadFileBytes(EntryPath(url)), layout(stale_expiry)) << "kept, still stale";
      const std::string reason = c.failure == kNoConnection ? "Unable to create HTTP connection"
                                 : c.failure == kTagTooLong ? "the new body could not be stored"
                                 : c.failure == 0           ? "no answer from the server"
                                                            : "the server answered " + status;
      expected.push_back("Serving stale entry for " + narrow + ": " + reason + "\n");
    } else {
      EXPECT_EQ(got, "<null>");
      EXPECT_FALSE(m_cache.Contains(url)) << "the entry is dropped";
    }
    EXPECT_EQ(m_log.Lines(), expected);
    EXPECT_EQ(Sleeps().size() - sleeps, c.failure == 502 ? 5u : 0u) << "served after retries";
  }
}

// A clean-up takes expired entries first within an hour's span, and older spans first. A link
// planted in the directory is no file of the cache: its target is neither counted nor deleted.
TEST_F(CacheTest, CleanUpTakesExpiredEntriesFirstOlderSpansFirstAndNeverCountsOrFollowsALink) {
  Limit(1);
  TempDir outside;
  const fs::path big = outside.WriteFile("big", std::string(2 * 1048576, 'x'));
  // Wine makes no link, Windows only for a privileged or developer-mode user: then none is there.
  Names expected = {"oldest_fresh", "recent_expired"};
  if (PlantLink(big, m_cache.Directory() / "planted")) expected.insert("planted");
  // 1,050,000 bytes: deleting the 250,000-byte entry is enough.
  Entry("oldest_fresh", kDate - 7200, kNever, 300000);
  Entry("half_hour_later_expired", kDate - 7200 + 1800, kDate - 1, 250000);
  Entry("recent_expired", kDate - 10, kDate - 1, 500000);
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_EQ(Remaining(), expected);
  EXPECT_EQ(fs::file_size(big), 2u * 1048576);

  // The limit is the option's mebibytes, and a directory of exactly that size is within it.
  RemoveAll();
  Entry("older", kDate - 60, kNever, 524288);
  Entry("newer", kDate - 10, kNever, 524288);
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_EQ(Remaining(), (Names{"older", "newer"}));
  Entry("newer", kDate - 10, kNever, 524289);
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_EQ(Remaining(), (Names{"newer"}));

  // A file that is not an entry goes when the headers are read, but its bytes stay in the
  // run's total: the entries go too until the total is below the target.
  RemoveAll();
  WriteFileBytes(m_cache.Directory() / "foreign", std::string(1048576, 'f'));
  Entry("older", kDate - 60, kNever, 100000);
  Entry("newer", kDate - 10, kNever, 100000);
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_THAT(Remaining(), IsEmpty());

  // Two deletions needed: the whole first span goes before the expired entry of the next one.
  RemoveAll();
  Entry("a_oldest", kDate - 10000, kNever, 450000);
  Entry("b_same_span", kDate - 10000 + 3599, kNever, 450000);
  Entry("c_next_span_expired", kDate - 10000 + 3600, 0, 450000);
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_EQ(Remaining(), (Names{"c_next_span_expired"}));

  // Last uses in the future (a clock moved back) and at either end of time (a corrupt file) go
  // by age like the rest; a span that begins at the end of time holds what is used then, and
  // its expired entry goes first.
  RemoveAll();
  constexpr std::int64_t kFirst = std::numeric_limits<std::int64_t>::min();
  Entry("a_start_of_time", kFirst, kNever, 50000);
  Entry("b_now", kDate, kNever, 50000);
  Entry("c_ten_years_on", kDate + 10 * 365 * 86400, kNever, 50000);
  Entry("d_end_of_time", kNever, kNever, 600000);
  Entry("e_end_of_time_expired", kNever, 0, 300000);
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_EQ(Remaining(), (Names{"d_end_of_time"}));

  // The header is read from each file's first bytes: headers of every length count (the key
  // lengths: short, across the first read, long, the largest header), also from a file system
  // that answers reads in pieces, and a header claiming a key longer than its file is no entry,
  // deleted.
  for (const std::uint64_t piece : {std::uint64_t{0}, std::uint64_t{32}})
  for (const std::size_t key_length : {40, 490, 3000, 65000}) {
    SCOPED_TRACE(testing::Message() << key_length << " in pieces of " << piece);
    RemoveAll();
    Entry("a_oldest", kDate - 7200, kNever, 300000, key_length);
    Entry("b_newer", kDate - 60, kNever, 300000, key_length);
    Entry("c_newest", kDate - 10, kNever, 500000);
    std::string cut = EntryBytes(kDate - 5, kNever, "", std::string(2000, 'k'), "");
    cut.resize(1500);
    WriteFileBytes(m_cache.Directory() / "d_cut", cut);
    TqUSysFileFaults::LimitReads(piece);
    EXPECT_TRUE(m_cache.CleanUp());
    TqUSysFileFaults::LimitReads(0);
    EXPECT_EQ(Remaining(), (Names{"b_newer", "c_newest"}));
  }
}

// Removals run side by side. A removal that fails (refused through the removal seam) leaves its
// bytes in the total, so the run goes on to the next-oldest until it is below the target.
TEST_F(CacheTest, ConcurrentRemovalsTakeTheOldestAndFailuresLeadToFurtherVictims) {
  constexpr int kEntries = 2000;
  constexpr std::size_t kSize = 1024;
  constexpr auto kTarget = static_cast<std::uint64_t>(0.8 * 1048576);  // 1 MiB, less 20 %
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

#if defined(_WIN32)
// A file planted beside an entry under its name and a dot is no entry, and goes alone: joined
// into a path, its name was tidied into the entry's by Windows, and the entry went instead.
TEST_F(CacheTest, AFileThatIsNoEntryGoesAloneWhateverWindowsWouldMakeOfItsName) {
  Entry("older", kDate - 7200, kNever, 600000);  // the one the limit takes
  Entry("0123456789", kDate - 10, kNever, 500000);
  std::wstring planted;
  ASSERT_TRUE(qv::sys_path::ToSystem(m_cache.Directory() / "0123456789", planted));
  WriteFileBytes(planted + L".", "no entry");
  Limit(1);
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_EQ(Remaining(), Names{"0123456789"});
}
#endif

#if !defined(_WIN32)  // the open hook runs before the lock only on POSIX
// Just after the clean-up or a lookup read the file at a name, a writer takes the name and
// writes: a new body under a name that held an entry, a file that is no entry, or an entry whose
// long name makes its header outgrow the first read; or a new store into the temporary file a
// killed store left behind. The file the writer holds is passed over, never removed from under
// it, as it is when it was held before anyone looked, and what it writes is there once written.
TEST_F(CacheTest, AFileAWriterTookJustAfterItWasReadIsNotRemovedUnderTheWriter) {
  struct Case {
    const char* what;
    std::wstring name;  // of the body written; empty: a store of kUrl
    bool entry;         // the name holds an entry at first, or a file that is no entry
    bool clean_up;      // the reader: a clean-up, or a lookup (Contains)
    int open;  // the reader's open of the file after which the writer comes (or its removal)
  } const cases[] = {
      {"entry", L"name", true, true, 1},
      {"no entry", L"name", false, true, 1},
      {"no entry, lookup", L"name", false, false, 1},
      {"long name", std::wstring(600, L'n'), true, true, 3},
      {"store into a temporary file left behind", L"", true, true, 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::promise<void> holding;
    std::promise<void> go;
    int reads = 0;
    std::future<std::string> stored;
    std::unique_ptr<qv::io::IDataSeekableWriteStream> writer;
    if (c.name.empty()) {
      WriteFileBytes(fs::path(EntryPath()) += ".tmp", EntryBytes(1, 0, "", kKey, "left"));
      FakeResponse answer = Ok("first, second", L"max-age=60", L"\"n\"");
      answer.body_chunks = {"first, ", "second"};
      m_api.Queue(answer);
      m_api.on_read = [&] {
        if (++reads == 2) holding.set_value(), go.get_future().wait();  // first chunk written
      };
    } else if (c.entry) {
      WriteNamed(c.name, "old body");
    } else {
      WriteFileBytes(EntryPath(L"qvcache://" + c.name), "not an entry, planted");
    }
    std::atomic<bool> started{false};
    const auto take = [&] {
      if (started.exchange(true)) return;
      if (!c.name.empty()) {
        writer = m_cache.OpenWriteStream(c.name);
        return;
      }
      stored = std::async(std::launch::async, [&] { return Open(); });
      holding.get_future().wait();
    };
    std::thread::id reader;
    int opens = 0;
    TqUSysFile::SetOpenHookForTesting([&] {
      if (reader == std::thread::id()) reader = std::this_thread::get_id();
      if (std::this_thread::get_id() == reader && ++opens == c.open) take();
    });
    TqUSysDirectory::SetRemoveFaultForTesting([&](const TqUSysDirectory::Char*) {
      take();
      return false;
    });
    Limit(0);
    if (c.clean_up) {
      EXPECT_TRUE(m_cache.CleanUp());
    } else {
      EXPECT_FALSE(m_cache.Contains(L"qvcache://" + c.name));
    }
    TqUSysFile::SetOpenHookForTesting({});
    TqUSysDirectory::SetRemoveFaultForTesting({});
    ASSERT_TRUE(started);
    if (c.name.empty()) {
      go.set_value();
      EXPECT_EQ(stored.get(), "first, second");
    } else {
      ASSERT_NE(writer, nullptr);
      writer->Write("new body", 8);
      writer.reset();
      EXPECT_EQ(ReadNamed(c.name), "new body");
    }
    m_api.on_read = {};
    RemoveAll();
  }
}
#endif

// Runs the second process (tests/helpers/cache_worker, built beside this test) to its end: its
// exit status, kKilled when it was killed, -1 when it could not be started or did not end.
constexpr int kKilled = -9;
int RunWorker(std::vector<std::string> arguments) {
#if defined(_WIN32)
  std::wstring self(32768, L'\0');
  self.resize(::GetModuleFileNameW(nullptr, self.data(), static_cast<DWORD>(self.size())));
  const fs::path helper = fs::path(self).parent_path() / L"cache_worker.exe";
  std::wstring line = L"\"" + helper.wstring() + L"\"";
  for (const std::string& word : arguments) line += L" \"" + qv::Utf8ToWide(word) + L"\"";
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION info = {};
  if (!::CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                        &startup, &info)) {
    return -1;
  }
  DWORD code = static_cast<DWORD>(-1);
  if (::WaitForSingleObject(info.hProcess, 60000) != WAIT_OBJECT_0) {
    ::TerminateProcess(info.hProcess, code);
    ::WaitForSingleObject(info.hProcess, INFINITE);
  }
  ::GetExitCodeProcess(info.hProcess, &code);
  ::CloseHandle(info.hThread);
  ::CloseHandle(info.hProcess);
  return static_cast<int>(code);
#else
  arguments.insert(arguments.begin(),
                   (fs::read_symlink("/proc/self/exe").parent_path() / "cache_worker").string());
  std::vector<char*> argv;
  for (std::string& word : arguments) argv.push_back(word.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  int status = 0;
  if (::posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0 ||
      ::waitpid(pid, &status, 0) != pid) {
    return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
#endif
}

TEST_F(CacheTest, TwoProcessesAndThreadsOnOneDirectoryNeverSeeATornBody) {
  m_api.SetResponder(ChurnResponder(7));
  Limit(0);  // each clean-up deletes what it can
  const std::vector<std::string> arguments = {"churn", m_dir.path().string(), "150"};
  auto first = std::async(std::launch::async, RunWorker, arguments);
  auto second = std::async(std::launch::async, RunWorker, arguments);
  int whole[4] = {};
  int torn[4] = {};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] { Churn(m_cache, 150, 10 + t, whole[t], torn[t]); });
  }
  for (int t = 0; t < 4; ++t) {
    threads[t].join();
    EXPECT_EQ(torn[t], 0);
    EXPECT_GT(whole[t], 0);
  }
  EXPECT_EQ(first.get(), 0) << "a body the other process was served was torn";
  EXPECT_EQ(second.get(), 0);
  EXPECT_THAT(Remaining(".tmp"), IsEmpty());
}

TEST_F(CacheTest, AProcessKilledInTheMiddleOfAStoreLeavesTheOldEntryReadable) {
  const std::string old_bytes = EntryBytes(1, 2, "\"old\"", "http://churn.test/resource", "old");
  WriteFileBytes(EntryPath(kChurnUrl), old_bytes);
  ASSERT_EQ(RunWorker({"kill-mid-store", m_dir.path().string()}), kKilled);

  // The half-written body is in the temporary file, never under the entry's name.
  EXPECT_EQ(Remaining(".tmp").size(), 1u);
  EXPECT_EQ(ReadFileBytes(EntryPath(kChurnUrl)), old_bytes);
  // The dead writer's lock went with it: the next store takes the temporary file over.
  m_api.Queue(Ok("new", std::nullopt, std::nullopt));
  EXPECT_EQ(Open(kChurnUrl), "new");
  EXPECT_THAT(Remaining(".tmp"), IsEmpty());
}

TEST_F(CacheTest, InMemoryConcurrentOpensOfOneUrlShareOneDownloadAndClearForgetsBodies) {
  qv::net::InMemoryCache memory;
  const std::wstring url = L"http://example.test/held";
  auto open = [&](const std::wstring& text = L"http://example.test/held") {
    auto stream = memory.OpenUrl(text, 0, {});
    return stream ? ReadAll(*stream) : "<null>";
  };
  m_api.Queue(Ok("the body", std::nullopt, std::nullopt));
  HoldSends();
  qv::net::detail::SetInMemoryCacheWaitHookForTesting([this] { Arrive(); });
  // One of the four downloads and is held there; the three others wait for its body.
  std::vector<std::future<std::string>> opens;
  for (int i = 0; i < 4; ++i) opens.push_back(std::async(std::launch::async, open));
  WaitForArrivals(4);
  Release();
  for (auto& result : opens) EXPECT_EQ(result.get(), "the body");
  EXPECT_EQ(m_api.Sent().size(), 1u);
  qv::net::detail::SetInMemoryCacheWaitHookForTesting({});

  // Clear forgets every body, so the next open downloads again; streams handed out keep theirs.
  auto kept = memory.OpenUrl(url, 0, {});
  memory.Clear();
  m_api.Queue(Ok("the new body", std::nullopt, std::nullopt));
  EXPECT_EQ(open(), "the new body");
  EXPECT_EQ(ReadAll(*kept), "the body");
  // A clean-up trims nothing here: the body is still served without a download.
  EXPECT_TRUE(memory.CleanUp());
  EXPECT_EQ(open(), "the new body");
  EXPECT_EQ(m_api.Sent().size(), 2u);

  // A download that fails keeps nothing and the next open tries again; an error answer is an
  // empty body, kept like any other; another text of the same URL is another entry.
  qv::net::HttpConnectionPool::Terminate();  // the next request connects anew
  m_api.FailNextConnects(1);
  EXPECT_EQ(open(L"http://example.test/other"), "<null>");
  m_api.Queue(Status(404));
  EXPECT_EQ(open(L"http://example.test/other"), "");
  EXPECT_EQ(open(L"http://example.test/other"), "");
  m_api.Queue(Ok("again", std::nullopt, std::nullopt));
  EXPECT_EQ(open(L"http://EXAMPLE.test/held"), "again");
  EXPECT_EQ(m_api.Sent().size(), 4u);
}

// A "v1" that is a link is taken for what it leads to: a cache moved to another disk is used
// there, and one whose disk is not mounted now is unusable, like a path below a plain file.
TEST(InitialiseCacheTest, AnUnusableDirectoryFallsBackToMemoryAndAUsableOneGetsTheDiskCache) {
  TempDir dir;
  dir.WriteFile("plain", "x");
  std::vector<fs::path> unusable = {dir.path() / "plain" / "below"};
  std::vector<fs::path> usable = {dir.path()};
  fs::create_directories(dir.path() / "moved" / "v1");
  fs::create_directory(dir.path() / "unmounted");
  fs::create_directory(dir.path() / "elsewhere");
#if !defined(_WIN32)  // Windows links a directory only with a flag of its own
  PlantLink(dir.path() / "moved" / "v1", dir.path() / "elsewhere" / "v1");
  usable.push_back(dir.path() / "elsewhere");
#endif
  if (PlantLink(dir.path() / "not-mounted", dir.path() / "unmounted" / "v1")) {
    unusable.push_back(dir.path() / "unmounted");
  }
  for (const fs::path& path : unusable) {
    SCOPED_TRACE(path.string());
    qv::net::InitialiseCache(qv::Utf8ToWide(path.string()).c_str());
    IUrlCache* cache = qv::net::CacheSystem();
    EXPECT_NE(dynamic_cast<qv::net::InMemoryCache*>(cache), nullptr);
    EXPECT_EQ(cache->OpenWriteStream(L"kept"), nullptr);
    EXPECT_EQ(cache->OpenReadStream(L"kept"), nullptr);
    qv::net::TerminateCache();
  }
#if !defined(_WIN32)
  // A name no UTF-8 holds would be another directory (U+FFFD in its place), and the default
  // with no home known would be the working directory: neither is used.
  const fs::path working = fs::current_path();
  fs::current_path(dir.path());
  const char* home = std::getenv("HOME");
  const std::string saved_home = home != nullptr ? home : "";
  const char* xdg = std::getenv("XDG_CACHE_HOME");
  const std::string saved_xdg = xdg != nullptr ? xdg : "";
  ::unsetenv("HOME");
  ::unsetenv("XDG_CACHE_HOME");
  const std::wstring lone = qv::Utf8ToWide(dir.path().string()) + L"/d\xD800";
  for (const wchar_t* name : {lone.c_str(), static_cast<const wchar_t*>(nullptr)}) {
    qv::net::InitialiseCache(name);
    EXPECT_NE(dynamic_cast<qv::net::InMemoryCache*>(qv::net::CacheSystem()), nullptr);
    qv::net::TerminateCache();
  }
  if (home != nullptr) ::setenv("HOME", saved_home.c_str(), 1);
  if (xdg != nullptr) ::setenv("XDG_CACHE_HOME", saved_xdg.c_str(), 1);
  fs::current_path(working);
  EXPECT_FALSE(fs::exists(dir.path() / "DiskCache"));
  EXPECT_FALSE(fs::exists(dir.path() / "d\xEF\xBF\xBD"));
#endif
  // A plain file where the directory belongs passes for it, as anything there does: the disk
  // cache is made, and everything it would keep in a file is null.
  dir.WriteFile("filed/v1", "x");
  qv::net::InitialiseCache(qv::Utf8ToWide((dir.path() / "filed").string()).c_str());
  EXPECT_NE(dynamic_cast<DiskCache*>(qv::net::CacheSystem()), nullptr);
  EXPECT_EQ(qv::net::CacheSystem()->OpenWriteStream(L"kept"), nullptr);
  EXPECT_EQ(qv::net::CacheSystem()->OpenReadStream(L"kept"), nullptr);
  qv::net::TerminateCache();
  for (const fs::path& path : usable) {
    SCOPED_TRACE(path.string());
    qv::net::InitialiseCache(qv::Utf8ToWide(path.string()).c_str());
    IUrlCache* cache = qv::net::CacheSystem();
    EXPECT_NE(dynamic_cast<DiskCache*>(cache), nullptr);
    if (auto stream = cache->OpenWriteStream(L"kept")) stream->Write("body", 4);
    auto stream = cache->OpenReadStream(L"kept");
    EXPECT_EQ(stream ? ReadAll(*stream) : "<null>", "body");
    stream.reset();
    // Kept as the entry of its prefixed name, apart from the bare name's.
    EXPECT_TRUE(static_cast<DiskCache*>(cache)->Contains(L"qvcache://kept"));
    EXPECT_FALSE(static_cast<DiskCache*>(cache)->Contains(L"kept"));
    // An unusable directory then leaves the installed cache in place.
    qv::net::InitialiseCache(qv::Utf8ToWide(unusable[0].string()).c_str());
    EXPECT_EQ(qv::net::CacheSystem(), cache);
    qv::net::TerminateCache();
  }
  EXPECT_EQ(qv::net::CacheSystem(), nullptr);
}

// Against nginx, the real-world peer: its own tags and 304s, a file changed under it (a tag and
// a length of other sizes), and its "expires" as "cache-control". (A resource gone, and its
// line: the stale-entry and shared-download tables.)
TEST(NginxCacheTest, TagsRevalidationChangesLifetimesAndRemovalAsNginxServesThem) {
  if (!NginxHarness::Installed()) GTEST_SKIP() << "nginx is not installed";
#if defined(_WIN32)  // CTest's shared nginx takes no directives of ours
  NginxHarness nginx;
#else
  NginxHarness nginx("location /for60/ { expires 60s; }\nlocation /stale/ { expires epoch; }");
#endif
  ASSERT_TRUE(nginx.ok()) << nginx.error();
  qv::net::IHttpApi* previous = qv::net::SetHttpApi(new qv::net::WinInet());
  LogCapture log;
  TempDir dir;
  ScopedClock clock(std::time(nullptr));
  DiskCache cache(dir.path().wstring().c_str());
  auto open = [&](const std::string& path) {
    auto stream = cache.OpenUrl(qv::Utf8ToWide(nginx.Url(path)), 0, {});
    return stream ? ReadAll(*stream) : "<null>";
  };
  auto served_tag = [&](const std::string& path) {
    return qv::net::HttpReadStream::Open(qv::Utf8ToWide(nginx.Url(path)), 0, {})->ETag();
  };
  constexpr std::int64_t kMonth = 2592000;
  const std::string body(70000, 'n');
  // The cache's clock runs `ahead` of nginx's. Without "cache-control" the lifetime counts from
  // the cache's clock, with it from nginx's "Date".
  struct Row {
    std::string path, change, body;
    std::int64_t ahead, lifetime;
  } rows[] = {
      {"/a.txt", "first", "first", 0, kMonth},        // first download
      {"/a.txt", "", "first", kMonth + 1, kMonth},    // stale: 304 to its tag
      {"/a.txt", body, body, 2 * kMonth + 2, kMonth}, // changed: a new tag, longer
      {"/a.txt", "", body, 3 * kMonth + 3, kMonth},   // and confirmed again
#if !defined(_WIN32)
      {"/for60/b.txt", "b", "b", 0, 60},
      {"/for60/b.txt", "", "b", 61, 60},
      {"/stale/c.txt", "c", "c", 0, -1},
      {"/stale/c.txt", "", "c", 0, -1},
#endif
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.path + " +" + std::to_string(row.ahead));
    if (!row.change.empty()) {
      // nginx's tag is the time to the second and the length: the change must show in it.
      const fs::path changed = nginx.WriteFile(row.path.substr(1), row.change);
      fs::last_write_time(changed, fs::last_write_time(changed) + 10s);
    }
    const std::int64_t server_now = std::time(nullptr);
    clock.Set(server_now + row.ahead);
    EXPECT_EQ(open(row.path), row.body);
    const CacheEntry stored = CacheEntry::Load(DiskCache::ComputeCacheLocation(
        qv::Utf8ToWide(nginx.Url(row.path)), cache.Directory()));
    EXPECT_EQ(std::optional<std::string>(stored.ETag()), served_tag(row.path));
    EXPECT_THAT(stored.ETag(), StartsWith("\""));
    const std::int64_t from = row.lifetime == kMonth ? clock.Now() : server_now;
    EXPECT_GE(stored.Expiry(), from + row.lifetime);
    EXPECT_LE(stored.Expiry(), from + row.lifetime + 2);  // nginx's second may have turned
  }
  EXPECT_THAT(LinesBeyondWine(log), IsEmpty());
  qv::net::HttpConnectionPool::Terminate();
  delete qv::net::SetHttpApi(previous);
}

}  // namespace
}  // namespace tq::test
