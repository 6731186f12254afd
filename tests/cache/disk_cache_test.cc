#include "net/cache/disk_cache.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "net/cache/cache_entry_format.h"
#include "tests/cache/cache_test_support.h"
#include "tests/support/fake_transport_fixture.h"
#include "tests/support/servers/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using qv::net::CacheEntry;
using qv::net::DiskCache;
using qv::net::IUrlCache;
using tq::test::EntryBytes;
using tq::test::FakeResponse;
using tq::test::ReadAll;
using tq::test::ReadFileBytes;
using tq::test::ScopedClock;
using tq::test::WriteFileBytes;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kDate = 1'700'000'000;  // the server's clock
constexpr const wchar_t* kUrl = L"http://example.test/data.bin";
const std::string kSend = "Send GET http://example.test/data.bin";

// A 200 answer with a body, a "Date" and optional cache-control and tag.
FakeResponse Ok(const std::string& body, std::optional<std::wstring> cache_control,
                std::optional<std::wstring> etag, std::optional<std::int64_t> date = kDate) {
  FakeResponse r;
  r.status = 200;
  if (date) r.dates[L"Date"] = *date;
  if (cache_control) r.Header(L"cache-control", *cache_control);
  if (etag) r.Header(L"ETag", *etag);
  r.Header(L"Content-Length", std::to_wstring(body.size()));
  if (!body.empty()) r.Body(body);
  return r;
}

FakeResponse NotModified(std::int64_t date, const std::wstring& cache_control) {
  FakeResponse r;
  r.status = 304;
  r.dates[L"Date"] = date;
  r.Header(L"cache-control", cache_control);
  return r;
}

class DiskCacheTest : public tq::test::FakeTransportTest {
 protected:
  std::string Open(const wchar_t* url = kUrl, int flags = 0) {
    auto stream = m_cache.OpenUrl(url, flags, {});
    if (!stream) return "<null>";
    return ReadAll(*stream);
  }
  fs::path EntryPath(const wchar_t* url = kUrl) const {
    return DiskCache::ComputeCacheLocation(url, m_cache.Directory());
  }
  std::size_t SendCount() const { return m_api.Sent().size(); }
  std::vector<std::string> Lines() const { return m_log.Lines(); }

  tq::test::TempDir m_dir;
  ScopedClock m_clock{kDate + 5};
  DiskCache m_cache{m_dir.path().wstring().c_str()};
};

TEST_F(DiskCacheTest, KeysAndFileNamesIgnoreTheQueryAndKeepTenHexDigits) {
  EXPECT_EQ(DiskCache::UrlToCache(L"HTTP://Example.TEST/a/../b?x=1#frag"), "http://example.test/b");
  EXPECT_EQ(DiskCache::UrlToCache(L"http://example.test/b?y=2"), "http://example.test/b");
  const fs::path a = DiskCache::ComputeCacheLocation(L"http://example.test/b?x=1", "/d");
  EXPECT_EQ(a, DiskCache::ComputeCacheLocation(L"http://example.test/b", "/d"));
  EXPECT_EQ(a.parent_path(), fs::path("/d"));
  EXPECT_THAT(a.filename().string(), ::testing::MatchesRegex("[0-9a-f]{10}"));
  // The first five bytes of SHA-256("http://example.test/b").
  EXPECT_EQ(a.filename().string(), "5901985d20");
  EXPECT_NE(a, DiskCache::ComputeCacheLocation(L"http://example.test/c", "/d"));
}

TEST_F(DiskCacheTest, AFreshEntryIsServedFromItsFileWithoutARequestAndItsUseIsRecorded) {
  m_api.Queue(Ok("first body", L"max-age=60", L"\"v1\""));
  EXPECT_EQ(Open(), "first body");
  EXPECT_EQ(m_cache.ExpiryTime(kUrl), kDate + 60);
  EXPECT_TRUE(m_cache.Contains(kUrl));
  EXPECT_EQ(ReadFileBytes(EntryPath()),
            EntryBytes(kDate + 5, kDate + 60, "\"v1\"", "http://example.test/data.bin",
                       "first body"));

  m_clock.Set(kDate + 60);  // expiry not passed yet: still fresh
  EXPECT_EQ(Open(), "first body");
  EXPECT_EQ(SendCount(), 1u);
  EXPECT_EQ(CacheEntry::Load(EntryPath()).LastUsed(), kDate + 60);
  // Again within the same second: the use is on record already; the body is served as is.
  const std::string recorded = ReadFileBytes(EntryPath());
  auto twice = m_cache.OpenUrl(kUrl, 0, {});
  ASSERT_NE(twice, nullptr);
  EXPECT_EQ(twice->MetaData().size, 10u);
  twice->RSeek(6, qv::io::StreamPosition::Begin);
  EXPECT_EQ(ReadAll(*twice), "body");
  EXPECT_EQ(ReadFileBytes(EntryPath()), recorded);
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(DiskCacheTest, AStaleEntryIsRevalidatedWithItsTagAndA304KeepsTheBody) {
  m_api.Queue(Ok("body", L"max-age=60", L"\"v1\""));
  ASSERT_EQ(Open(), "body");
  m_clock.Set(kDate + 61);
  m_api.Queue(NotModified(kDate + 100, L"max-age=60"));
  EXPECT_EQ(Open(), "body");
  ASSERT_EQ(SendCount(), 2u);
  EXPECT_EQ(m_api.Sent()[0].headers, L"");
  EXPECT_EQ(m_api.Sent()[1].headers, L"If-None-Match: \"v1\"");
  EXPECT_EQ(m_cache.ExpiryTime(kUrl), kDate + 160);
  EXPECT_EQ(CacheEntry::Load(EntryPath()).ETag(), "\"v1\"");
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(DiskCacheTest, ExpiryFollowsDateAndCacheControl) {
  struct Case {
    const wchar_t* url;
    std::optional<std::wstring> cache_control;
    std::optional<std::int64_t> date;
    int flags;
    std::int64_t expiry;
  };
  const std::int64_t now = m_clock.Now();
  const Case cases[] = {
      {L"http://example.test/1", L"max-age=60", kDate, 0, kDate + 60},
      {L"http://example.test/2", L"max-age=60, no-cache", kDate, 0, kDate - 1},
      {L"http://example.test/3", L"no-cache,max-age=60", kDate, 0, kDate + 60},
      {L"http://example.test/4", L"max-age=abc", kDate, 0, kDate},
      {L"http://example.test/5", L" public , max-age=  90 ", kDate, 0, kDate + 90},
      // Tokens are compared exactly: capitals are other tokens, and a parsed value that sets
      // nothing leaves the response stale.
      {L"http://example.test/6", L"MAX-AGE=60, No-Cache", kDate, 0, 0},
      {L"http://example.test/7", std::nullopt, kDate, 0, now + 2592000},
      {L"http://example.test/8", L"max-age=60", std::nullopt, 0, 0},
      {L"http://example.test/9", L"max-age=60", kDate, IUrlCache::NeverExpire, kNever},
      // A sign is not a number: stale, not centuries of freshness.
      {L"http://example.test/10", L"max-age=-1", kDate, 0, kDate},
      // A lifetime beyond the clock's range never expires instead of wrapping into the past.
      {L"http://example.test/11", L"max-age=99999999999999999999999", kDate, 0, kNever},
      {L"http://example.test/12", L"max-age=9223372036854775807", kDate, 0, kNever},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(qv::WideToUtf8(c.url));
    m_api.Queue(Ok("b", c.cache_control, std::nullopt, c.date));
    EXPECT_EQ(Open(c.url, c.flags), "b");
    EXPECT_EQ(m_cache.ExpiryTime(c.url), c.expiry);
  }
}

TEST_F(DiskCacheTest, AnEntryWithoutDateIsRevalidatedAtTheNextOpenAndNeverExpireIsNot) {
  m_api.Queue(Ok("v1", L"max-age=600", std::nullopt, std::nullopt));
  EXPECT_EQ(Open(), "v1");
  EXPECT_EQ(m_cache.ExpiryTime(kUrl), 0);
  // No tag: stored anew at every revalidation.
  m_api.Queue(Ok("v2", L"max-age=600", std::nullopt, std::nullopt));
  EXPECT_EQ(Open(), "v2");
  EXPECT_EQ(SendCount(), 2u);

  const wchar_t* kForever = L"http://example.test/forever";
  m_api.Queue(Ok("kept", L"no-cache", L"\"t\""));
  EXPECT_EQ(Open(kForever, IUrlCache::NeverExpire), "kept");
  EXPECT_EQ(m_cache.ExpiryTime(kForever), kNever);
  m_clock.Set(kNever - 1);
  EXPECT_EQ(Open(kForever), "kept");
  EXPECT_EQ(SendCount(), 3u);
}

TEST_F(DiskCacheTest, A200WithTheStoredTagServesTheStoredBodyAndANewTagReplacesIt) {
  m_api.Queue(Ok("original", L"max-age=0", L"\"same\""));
  ASSERT_EQ(Open(), "original");
  m_clock.Advance(10);
  m_api.Queue(Ok("not read", L"max-age=60", L"\"same\""));
  EXPECT_EQ(Open(), "original");
  EXPECT_EQ(m_cache.ExpiryTime(kUrl), kDate + 60);

  // A tag of another length: the store succeeds and the new body is served.
  m_clock.Advance(100);
  m_api.Queue(Ok("replaced body", L"max-age=60", L"\"a-much-longer-tag\""));
  EXPECT_EQ(Open(), "replaced body");
  EXPECT_EQ(CacheEntry::Load(EntryPath()).ETag(), "\"a-much-longer-tag\"");
  EXPECT_FALSE(fs::exists(fs::path(EntryPath()) += ".tmp"));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(DiskCacheTest, NoStoreIsServedFromMemoryAndDropsTheStoredEntry) {
  m_api.Queue(Ok("stored", L"max-age=0", L"\"a\""));
  ASSERT_EQ(Open(), "stored");
  ASSERT_TRUE(fs::exists(EntryPath()));
  m_clock.Advance(1);
  m_api.Queue(Ok("private", L"no-store", L"\"b\""));
  EXPECT_EQ(Open(), "private");
  EXPECT_FALSE(fs::exists(EntryPath()));
  EXPECT_THAT(Lines(), IsEmpty());

  // A body shorter than announced is not served.
  FakeResponse short_body = Ok("", L"no-store", std::nullopt);
  short_body.headers.clear();
  short_body.Header(L"cache-control", L"no-store").Header(L"Content-Length", L"10").Body("12345");
  m_api.Queue(short_body);
  EXPECT_EQ(Open(), "<null>");
  EXPECT_THAT(Lines(), ElementsAre("Failed to read expected number of bytes from HTTP stream "
                                   "into cache system. Expected 10 but read 5\n"));

  // A body that breaks off.
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
  EXPECT_FALSE(fs::exists(EntryPath()));
}

TEST_F(DiskCacheTest, AnErrorStatusDropsTheEntryAndReturnsNothing) {
  m_api.Queue(Ok("stored", L"max-age=0", L"\"a\""));
  ASSERT_EQ(Open(), "stored");
  m_clock.Advance(1);
  FakeResponse missing;
  missing.status = 404;
  m_api.Queue(missing);
  EXPECT_EQ(Open(), "<null>");
  EXPECT_FALSE(fs::exists(EntryPath()));
  EXPECT_EQ(m_cache.ExpiryTime(kUrl), 0);
  EXPECT_THAT(Lines(), ElementsAre("Error: HTTP Response 404 for GET " +
                                   std::string("http://example.test/data.bin") + "\n"));

  // A send that fails is a status of 0: also dropped.
  m_api.Queue(Ok("again", L"max-age=0", L"\"a\""));
  ASSERT_EQ(Open(), "again");
  m_clock.Advance(1);
  FakeResponse unsent;
  unsent.send_fails = true;
  m_api.Queue(unsent);
  EXPECT_EQ(Open(), "<null>");
  EXPECT_FALSE(fs::exists(EntryPath()));
}

TEST_F(DiskCacheTest, WithoutAnAnswerAStaleEntryIsServedAndAFailedConnectionIsLogged) {
  m_api.Queue(Ok("stale but good", L"max-age=0", L"\"a\""));
  ASSERT_EQ(Open(), "stale but good");
  const std::string stored = ReadFileBytes(EntryPath());
  m_clock.Advance(1);

  FakeResponse no_request;
  no_request.open_fails = true;  // the stream holds no request
  m_api.Queue(no_request);
  EXPECT_EQ(Open(), "stale but good");

  m_api.Queue(no_request);
  EXPECT_EQ(Open(L"http://example.test/never-cached"), "<null>");

  qv::net::HttpConnectionPool::Terminate();  // the next request must connect anew
  m_api.FailNextConnects(1);
  EXPECT_EQ(Open(), "<null>");
  EXPECT_EQ(m_log.Text(),
            "Failed to read resource into cache: http://example.test/data.bin: "
            "Unable to create HTTP connection\n\n");
  EXPECT_TRUE(fs::exists(EntryPath()));
}

TEST_F(DiskCacheTest, AFileOfAnotherUrlWithTheSameNameIsNeitherUsedNorOverwritten) {
  const std::string foreign = EntryBytes(1, kNever, "", "http://other.test/collides", "theirs");
  WriteFileBytes(EntryPath(), foreign);
  m_api.Queue(Ok("ours", L"max-age=60", L"\"a\""));
  EXPECT_EQ(Open(), "ours");
  m_api.Queue(Ok("ours again", L"max-age=60", L"\"a\""));
  EXPECT_EQ(Open(), "ours again");
  EXPECT_EQ(ReadFileBytes(EntryPath()), foreign);
  EXPECT_FALSE(m_cache.Contains(kUrl));
  EXPECT_EQ(m_cache.ExpiryTime(kUrl), -1);
}

TEST_F(DiskCacheTest, ACorruptEntryFileIsDeletedAndTheUrlFetchedAgain) {
  WriteFileBytes(EntryPath(), "\x01\x02garbage that is no entry");
  EXPECT_FALSE(m_cache.Contains(kUrl));  // the look deletes it
  EXPECT_FALSE(fs::exists(EntryPath()));
  WriteFileBytes(EntryPath(), EntryBytes(1, kNever, "", "http://example.test/data.bin", "x")
                                  .substr(0, 30));  // cut inside the key
  m_api.Queue(Ok("fetched", L"max-age=60", L"\"a\""));
  EXPECT_EQ(Open(), "fetched");
  EXPECT_EQ(CacheEntry::Load(EntryPath()).ETag(), "\"a\"");
}

TEST_F(DiskCacheTest, StoredBodiesLiveUnderThePrefixedNameApartFromTheBareUrl) {
  {
    auto out = m_cache.OpenWriteStream(L"settings/layout");
    ASSERT_NE(out, nullptr);
    out->Write("mine", 4);
  }
  auto in = m_cache.OpenReadStream(L"settings/layout");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(ReadAll(*in), "mine");
  EXPECT_TRUE(m_cache.Contains(L"qvcache://settings/layout"));
  EXPECT_FALSE(m_cache.Contains(L"settings/layout"));
  EXPECT_EQ(m_cache.OpenReadStream(L"not/written"), nullptr);
  // Expiry does not matter to stored bodies.
  m_clock.Set(kNever - 1);
  in = m_cache.OpenReadStream(L"settings/layout");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(ReadAll(*in), "mine");
  EXPECT_FALSE(m_cache.QueryFlag());
}

TEST_F(DiskCacheTest, ClearLeavesAnEmptyDirectoryAndTheNextOpenFetchesAgain) {
  m_api.Queue(Ok("body", L"max-age=600", L"\"a\""));
  ASSERT_EQ(Open(), "body");
  WriteFileBytes(m_cache.Directory() / "stray.tmp", "x");
  m_cache.Clear();
  EXPECT_TRUE(fs::is_directory(m_cache.Directory()));
  EXPECT_TRUE(fs::is_empty(m_cache.Directory()));
  EXPECT_EQ(m_cache.ExpiryTime(kUrl), 0);
  m_api.Queue(Ok("body 2", L"max-age=600", L"\"b\""));
  EXPECT_EQ(Open(), "body 2");
}

TEST_F(DiskCacheTest, AnEntryHeldByAWriterIsReadIntoMemoryWithoutCaching) {
  m_api.Queue(Ok("cached", L"max-age=0", L"\"a\""));
  ASSERT_EQ(Open(), "cached");
  const std::string stored = ReadFileBytes(EntryPath());
  auto writer = TqUSysFile::OpenFile(EntryPath(), 1, 0, 2, 0, 0);
  ASSERT_NE(writer, nullptr);
  EXPECT_EQ(m_cache.ExpiryTime(kUrl), -1);
  EXPECT_FALSE(m_cache.Contains(kUrl));
  m_api.Queue(Ok("from memory", L"max-age=60", L"\"b\""));
  EXPECT_EQ(Open(), "from memory");
  TqUSysFile::CloseFile(writer);
  EXPECT_EQ(ReadFileBytes(EntryPath()), stored);
}

TEST_F(DiskCacheTest, OtherSourcesAreStaleAtOnceAndStoredOnlyWhenTheirTagChanges) {
  const fs::path source = m_dir.WriteFile("source.txt", "file contents");
  const std::wstring url = L"file://" + source.wstring();
  EXPECT_EQ(Open(url.c_str()), "file contents");
  EXPECT_EQ(m_cache.ExpiryTime(url), 0);
  const std::string tag = CacheEntry::Load(EntryPath(url.c_str())).ETag();
  EXPECT_FALSE(tag.empty());
  EXPECT_EQ(Open(url.c_str()), "file contents");
  EXPECT_EQ(Open(url.c_str(), IUrlCache::NeverExpire), "file contents");
  EXPECT_EQ(m_cache.ExpiryTime(url), kNever);
  fs::remove(source);
  EXPECT_EQ(Open(url.c_str()), "file contents");  // fresh for ever: the source is not asked
  EXPECT_EQ(SendCount(), 0u);
}

class DiskCacheDirectoryTest : public ::testing::Test {
 protected:
  tq::test::TempDir m_dir;
};

TEST_F(DiskCacheDirectoryTest, TheDirectoryIsV1BelowTheGivenOrDefaultOneAndPrivate) {
  const fs::path base = m_dir.path() / "a" / "b";
  DiskCache cache(base.wstring().c_str());
  EXPECT_EQ(cache.Directory(), base / "v1");
  EXPECT_TRUE(fs::is_directory(base / "v1"));
  for (const fs::path& made : {base / "v1", base, m_dir.path() / "a"}) {
    EXPECT_EQ(fs::status(made).permissions() & fs::perms::all, fs::perms::owner_all)
        << made;
  }
  // An existing directory keeps its permissions.
  fs::permissions(base / "v1", fs::perms::owner_all | fs::perms::group_read);
  DiskCache again(base.wstring().c_str());
  EXPECT_EQ(fs::status(base / "v1").permissions() & fs::perms::all,
            fs::perms::owner_all | fs::perms::group_read);

  const char* previous = std::getenv("XDG_CACHE_HOME");
  const std::string saved = previous ? previous : "";
  ::setenv("XDG_CACHE_HOME", (m_dir.path() / "xdg").c_str(), 1);
  DiskCache by_default(nullptr);
  if (previous) ::setenv("XDG_CACHE_HOME", saved.c_str(), 1); else ::unsetenv("XDG_CACHE_HOME");
  EXPECT_EQ(by_default.Directory().parent_path().filename(), "DiskCache");
  EXPECT_EQ(by_default.Directory().filename(), "v1");
  EXPECT_EQ(by_default.Directory().parent_path().parent_path().parent_path(), m_dir.path() / "xdg");
  EXPECT_TRUE(fs::is_directory(by_default.Directory()));

  // Non-ASCII directory names reach the file system as UTF-8.
  const std::wstring wide = qv::Utf8ToWide(m_dir.path().string()) + L"/caf\u00e9";
  DiskCache accented(wide.c_str());
  EXPECT_TRUE(fs::is_directory(m_dir.path() / "caf\xC3\xA9" / "v1"));
}

TEST_F(DiskCacheDirectoryTest, AnUnusableDirectoryThrowsAndAPlainFileNamedV1PassesTheTest) {
  m_dir.WriteFile("plain", "x");
  try {
    DiskCache cache((m_dir.path() / "plain" / "below").wstring().c_str());
    ADD_FAILURE() << "constructed";
  } catch (const fs::filesystem_error& e) {
    EXPECT_THAT(e.what(), HasSubstr("create_directories"));
    EXPECT_EQ(e.path1(), m_dir.path() / "plain" / "below" / "v1");
  }

  m_dir.WriteFile("x/v1", "a file where the directory should be");
  DiskCache cache((m_dir.path() / "x").wstring().c_str());
  EXPECT_EQ(cache.OpenWriteStream(L"n"), nullptr);
  EXPECT_EQ(cache.OpenReadStream(L"n"), nullptr);
  EXPECT_FALSE(cache.Contains(L"http://example.test/"));
}

}  // namespace
