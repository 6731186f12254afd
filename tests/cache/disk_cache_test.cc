#include "net/cache/disk_cache.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <limits>
#include <string>

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
using tq::test::WriteFileBytes;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kDate = 1'700'000'000;  // the server's clock
constexpr const wchar_t* kUrl = L"http://example.test/data.bin";
const std::string kKey = "http://example.test/data.bin";

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

class DiskCacheTest : public tq::test::FakeTransportTest {
 protected:
  std::string Open(const wchar_t* url = kUrl, int flags = 0) {
    auto stream = m_cache.OpenUrl(url, flags, {});
    return stream ? ReadAll(*stream) : "<null>";
  }
  fs::path EntryPath(const wchar_t* url = kUrl) const {
    return DiskCache::ComputeCacheLocation(url, m_cache.Directory());
  }
  std::size_t SendCount() const { return m_api.Sent().size(); }

  tq::test::TempDir m_dir;
  tq::test::ScopedClock m_clock{kDate + 5};
  DiskCache m_cache{m_dir.path().wstring().c_str()};
};

TEST_F(DiskCacheTest, KeysAndFileNamesIgnoreTheQueryAndKeepTenHexDigits) {
  EXPECT_EQ(DiskCache::UrlToCache(L"HTTP://Example.TEST/a/../b?x=1#frag"), "http://example.test/b");
  const fs::path a = DiskCache::ComputeCacheLocation(L"http://example.test/b?x=1", "/d");
  // The first five bytes of SHA-256("http://example.test/b").
  EXPECT_EQ(a, fs::path("/d/5901985d20"));
  EXPECT_NE(a, DiskCache::ComputeCacheLocation(L"http://example.test/c", "/d"));
}

TEST_F(DiskCacheTest, AFreshEntryIsServedWithoutARequestAndAStaleOneIsRevalidatedWithItsTag) {
  m_api.Queue(Ok("first body", L"max-age=60", L"\"v1\""));
  EXPECT_EQ(Open(), "first body");
  EXPECT_TRUE(m_cache.Contains(kUrl));
  EXPECT_EQ(ReadFileBytes(EntryPath()),
            EntryBytes(kDate + 5, kDate + 60, "\"v1\"", kKey, "first body"));

  m_clock.Set(kDate + 60);  // expiry not passed yet: still fresh, and the use is recorded
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
  twice.reset();

  m_clock.Set(kDate + 61);
  FakeResponse not_modified;
  not_modified.status = 304;
  not_modified.dates[L"Date"] = kDate + 100;
  not_modified.Header(L"cache-control", L"max-age=60");
  m_api.Queue(not_modified);
  EXPECT_EQ(Open(), "first body");
  ASSERT_EQ(SendCount(), 2u);
  EXPECT_EQ(m_api.Sent()[0].headers, L"");
  EXPECT_EQ(m_api.Sent()[1].headers, L"If-None-Match: \"v1\"");
  EXPECT_EQ(m_cache.ExpiryTime(kUrl), kDate + 160);
  EXPECT_EQ(CacheEntry::Load(EntryPath()).ETag(), "\"v1\"");

  // A tag of another length: the header grows, and the store still succeeds.
  m_clock.Set(kDate + 161);
  m_api.Queue(Ok("replaced body", L"max-age=60", L"\"a-much-longer-tag\""));
  EXPECT_EQ(Open(), "replaced body");
  EXPECT_EQ(CacheEntry::Load(EntryPath()).ETag(), "\"a-much-longer-tag\"");
  EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(DiskCacheTest, ExpiryFollowsDateAndCacheControl) {
  struct Case {
    std::optional<std::wstring> cache_control;
    std::optional<std::int64_t> date;
    int flags;
    std::int64_t expiry;
  };
  const Case cases[] = {
      {L"max-age=60", kDate, 0, kDate + 60},
      {L"max-age=60, no-cache", kDate, 0, kDate - 1},
      {L"no-cache,max-age=60", kDate, 0, kDate + 60},
      {L"max-age=abc", kDate, 0, kDate},
      {L" public , max-age=  90 ", kDate, 0, kDate + 90},
      // Tokens are compared exactly: capitals are other tokens, and a parsed value that sets
      // nothing leaves the response stale.
      {L"MAX-AGE=60, No-Cache", kDate, 0, 0},
      {std::nullopt, kDate, 0, kDate + 5 + 2592000},  // 30 days from now
      {L"max-age=60", std::nullopt, 0, 0},             // no "Date": revalidated at once
      {L"max-age=60", kDate, IUrlCache::NeverExpire, kNever},
      {L"max-age=-1", kDate, 0, kDate},  // a sign is not a number: not centuries of freshness
      // A lifetime beyond the clock's range never expires instead of wrapping into the past.
      {L"max-age=99999999999999999999999", kDate, 0, kNever},
      {L"max-age=9223372036854775807", kDate, 0, kNever},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const std::wstring url = L"http://example.test/" + std::to_wstring(i);
    SCOPED_TRACE(qv::WideToUtf8(url));
    m_api.Queue(Ok("b", cases[i].cache_control, std::nullopt, cases[i].date));
    EXPECT_EQ(Open(url.c_str(), cases[i].flags), "b");
    EXPECT_EQ(m_cache.ExpiryTime(url), cases[i].expiry);
  }
  // Never expiring holds at the end of time.
  m_clock.Set(kNever - 1);
  EXPECT_EQ(Open(L"http://example.test/8"), "b");
  EXPECT_EQ(SendCount(), std::size(cases));
}

TEST_F(DiskCacheTest, NoStoreIsServedFromMemoryAndDropsTheStoredEntry) {
  m_api.Queue(Ok("stored", L"max-age=0", L"\"a\""));
  ASSERT_EQ(Open(), "stored");
  ASSERT_TRUE(fs::exists(EntryPath()));
  m_clock.Advance(1);
  m_api.Queue(Ok("private", L"no-store", L"\"b\""));
  EXPECT_EQ(Open(), "private");
  EXPECT_FALSE(fs::exists(EntryPath()));
  EXPECT_THAT(m_log.Lines(), IsEmpty());

  FakeResponse short_body;  // shorter than announced: not served
  short_body.status = 200;
  short_body.dates[L"Date"] = kDate;
  short_body.Header(L"cache-control", L"no-store").Header(L"Content-Length", L"10").Body("12345");
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
  EXPECT_THAT(m_log.Lines(), ElementsAre("Error: HTTP Response 404 for GET " + kKey + "\n"));
}

TEST_F(DiskCacheTest, WithoutAnAnswerAStaleEntryIsServedAndAFailedConnectionIsLogged) {
  m_api.Queue(Ok("stale but good", L"max-age=0", L"\"a\""));
  ASSERT_EQ(Open(), "stale but good");
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

TEST_F(DiskCacheTest, AnotherUrlsFileIsNeitherUsedNorOverwrittenAndACorruptOneIsReplaced) {
  const std::string foreign = EntryBytes(1, kNever, "", "http://other.test/collides", "theirs");
  WriteFileBytes(EntryPath(), foreign);
  m_api.Queue(Ok("ours", L"max-age=60", L"\"a\""));
  EXPECT_EQ(Open(), "ours");
  m_api.Queue(Ok("ours again", L"max-age=60", L"\"a\""));
  EXPECT_EQ(Open(), "ours again");
  EXPECT_EQ(ReadFileBytes(EntryPath()), foreign);
  EXPECT_FALSE(m_cache.Contains(kUrl));
  EXPECT_EQ(m_cache.ExpiryTime(kUrl), -1);

  WriteFileBytes(EntryPath(), "\x01\x02garbage that is no entry");
  EXPECT_FALSE(m_cache.Contains(kUrl));  // the look deletes it
  EXPECT_FALSE(fs::exists(EntryPath()));
  WriteFileBytes(EntryPath(), EntryBytes(1, kNever, "", kKey, "x").substr(0, 30));  // cut in key
  m_api.Queue(Ok("fetched", L"max-age=60", L"\"a\""));
  EXPECT_EQ(Open(), "fetched");
  EXPECT_EQ(CacheEntry::Load(EntryPath()).ETag(), "\"a\"");
}

TEST_F(DiskCacheTest, StoredBodiesLiveUnderThePrefixedNameAndClearEmptiesTheDirectory) {
  for (const std::string body : {"a longer first version", "mine"}) {
    auto out = m_cache.OpenWriteStream(L"settings/layout");
    ASSERT_NE(out, nullptr);
    out->Write(body.data(), body.size());
    EXPECT_EQ(out->WTell(), body.size());
    EXPECT_EQ(m_cache.OpenReadStream(L"settings/layout"), nullptr);  // nobody reads it half-written
  }
  EXPECT_EQ(ReadFileBytes(EntryPath(L"qvcache://settings/layout")),
            EntryBytes(kDate + 5, 0, "", "qvcache://settings/layout", "mine"));
  EXPECT_FALSE(m_cache.Contains(L"settings/layout"));
  EXPECT_EQ(m_cache.OpenReadStream(L"not/written"), nullptr);
  m_clock.Set(kNever - 1);  // expiry does not matter to stored bodies
  auto in = m_cache.OpenReadStream(L"settings/layout");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(ReadAll(*in), "mine");
  in.reset();

  WriteFileBytes(m_cache.Directory() / "stray.tmp", "x");
  m_cache.Clear();
  EXPECT_TRUE(fs::is_directory(m_cache.Directory()));
  EXPECT_TRUE(fs::is_empty(m_cache.Directory()));
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
  EXPECT_FALSE(CacheEntry::Load(EntryPath(url.c_str())).ETag().empty());
  EXPECT_EQ(Open(url.c_str(), IUrlCache::NeverExpire), "file contents");
  EXPECT_EQ(m_cache.ExpiryTime(url), kNever);
  fs::remove(source);
  EXPECT_EQ(Open(url.c_str()), "file contents");  // fresh for ever: the source is not asked
  EXPECT_EQ(SendCount(), 0u);
}

TEST(DiskCacheDirectoryTest, TheDirectoryIsAPrivateV1BelowTheGivenOrDefaultOne) {
  tq::test::TempDir dir;
  const fs::path base = dir.path() / "a" / "b";
  DiskCache cache(base.wstring().c_str());
  EXPECT_EQ(cache.Directory(), base / "v1");
  // Entry files name the URLs the user opened: what the cache creates is owner-only.
  for (const fs::path& made : {base / "v1", base, dir.path() / "a"}) {
    EXPECT_EQ(fs::status(made).permissions() & fs::perms::all, fs::perms::owner_all) << made;
  }
  fs::permissions(base / "v1", fs::perms::owner_all | fs::perms::group_read);
  DiskCache again(base.wstring().c_str());  // an existing directory keeps its permissions
  EXPECT_EQ(fs::status(base / "v1").permissions() & fs::perms::all,
            fs::perms::owner_all | fs::perms::group_read);

  const char* previous = std::getenv("XDG_CACHE_HOME");
  const std::string saved = previous ? previous : "";
  ::setenv("XDG_CACHE_HOME", (dir.path() / "xdg").c_str(), 1);
  DiskCache by_default(nullptr);
  if (previous) ::setenv("XDG_CACHE_HOME", saved.c_str(), 1); else ::unsetenv("XDG_CACHE_HOME");
  EXPECT_EQ(by_default.Directory().filename(), "v1");
  EXPECT_EQ(by_default.Directory().parent_path().filename(), "DiskCache");
  EXPECT_EQ(by_default.Directory().parent_path().parent_path().parent_path(), dir.path() / "xdg");
  EXPECT_TRUE(fs::is_directory(by_default.Directory()));

  // Non-ASCII directory names reach the file system as UTF-8.
  DiskCache accented((qv::Utf8ToWide(dir.path().string()) + L"/caf\u00e9").c_str());
  EXPECT_TRUE(fs::is_directory(dir.path() / "caf\xC3\xA9" / "v1"));

  // A plain file where the directory should be passes the existence test, and then fails
  // every operation quietly.
  dir.WriteFile("x/v1", "a file where the directory should be");
  DiskCache cache_on_file((dir.path() / "x").wstring().c_str());
  EXPECT_EQ(cache_on_file.OpenWriteStream(L"n"), nullptr);
  EXPECT_EQ(cache_on_file.OpenReadStream(L"n"), nullptr);
  EXPECT_FALSE(cache_on_file.Contains(L"http://example.test/"));
}

}  // namespace
