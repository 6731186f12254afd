#include "net/cache/cache_entry.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include <gsl/narrow>

#include "net/cache/cache_entry_format.h"
#include "tests/cache/cache_test_support.h"
#include "tests/support/log_capture.h"
#include "tests/support/servers/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using qv::net::CacheEntry;
using tq::test::BytesSource;
using tq::test::EntryBytes;
using tq::test::ReadAll;
using tq::test::ReadFileBytes;
using tq::test::WriteFileBytes;

const std::string kKey = "http://example.test/abcdefghij";

class CacheEntryTest : public ::testing::Test {
 protected:
  fs::path Path() const { return m_dir.path() / "0123456789"; }
  fs::path Temp() const { return fs::path(Path()) += ".tmp"; }
  std::string Body(CacheEntry entry) {
    auto stream = entry.OpenReadStream();
    return stream ? ReadAll(*stream) : "<null>";
  }

  tq::test::TempDir m_dir;
  tq::test::ScopedClock m_clock{1000};
  tq::test::LogCapture m_log;
};

TEST_F(CacheEntryTest, StoreAndLoadFollowTheEntryLayoutByteForByte) {
  CacheEntry entry(Path(), kKey);
  entry.SetExpiry(5000);
  BytesSource source("hello body");
  ASSERT_TRUE(entry.Store(source, {}));
  EXPECT_EQ(ReadFileBytes(Path()), EntryBytes(1000, 5000, "", kKey, "hello body"));
  EXPECT_FALSE(fs::exists(Temp()));

  // Times are little-endian and signed; never expiring is the largest value.
  entry.SetExpiry(qv::net::entry_format::kNeverExpires);
  ASSERT_TRUE(entry.UpdateETag(std::string("\"v\xC3\xA9\"")));
  m_clock.Set(-2);
  BytesSource again("x");
  ASSERT_TRUE(entry.Store(again, {}));
  EXPECT_EQ(ReadFileBytes(Path()), EntryBytes(-2, INT64_MAX, "\"v\xC3\xA9\"", kKey, "x"));

  // A file built by hand loads; reading rewrites only the fixed part (last use, expiry).
  WriteFileBytes(Path(), EntryBytes(700, 9000, "\"abc\"", kKey, "the body"));
  CacheEntry loaded = CacheEntry::Load(Path());
  EXPECT_EQ(loaded.HeaderSize(), 24 + 5 + kKey.size());
  EXPECT_EQ(loaded.LastUsed(), 700);
  EXPECT_EQ(loaded.Expiry(), 9000);
  EXPECT_EQ(loaded.ETag(), "\"abc\"");
  EXPECT_EQ(loaded.Key(), kKey);
  EXPECT_TRUE(loaded.IsValid());
  m_clock.Set(1234);
  loaded.SetExpiry(4321);
  auto stream = loaded.OpenReadStream();
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->RTell(), 0u);
  EXPECT_EQ(stream->MetaData().size, 8u);
  EXPECT_EQ(ReadAll(*stream, 3), "the body");
  stream->RSeek(4, qv::io::StreamPosition::Begin);
  EXPECT_EQ(ReadAll(*stream), "body");
  stream.reset();
  EXPECT_EQ(ReadFileBytes(Path()), EntryBytes(1234, 4321, "\"abc\"", kKey, "the body"));
}

TEST_F(CacheEntryTest, FilesThatAreNotEntriesAreDeletedOnLoadAtEveryTruncationAndCorruption) {
  const std::string good = EntryBytes(1, 2, "\"t\"", kKey, "");
  std::vector<std::pair<std::string, std::string>> cases = {
      {"bad start marker", std::string(good).replace(2, 2, "\x01\x02")},
      {"bad end marker", std::string(good).replace(good.size() - 2, 2, "\x02\x03")},
      {"random bytes", "\x7f\x45\x4c\x46\x02\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00"},
      // Lengths far beyond the file: refused without reading or allocating them.
      {"absurd tag length", good.substr(0, 20) + tq::test::Le16(0xFFFF) + "tiny"},
      {"absurd key length", good.substr(0, 20) + tq::test::Le16(0) + tq::test::Le16(0xFFFF) +
                                "\x02\x02"},
  };
  for (std::size_t n = 0; n < good.size(); ++n) {
    cases.emplace_back("truncated to " + std::to_string(n), good.substr(0, n));
  }
  for (const auto& [name, bytes] : cases) {
    SCOPED_TRACE(name);
    WriteFileBytes(Path(), bytes);
    try {
      CacheEntry::Load(Path());
      ADD_FAILURE() << "loaded";
    } catch (const qv::net::invalid_cache_header& e) {
      EXPECT_STREQ(e.what(), "Cache entry was invalid or corrupt. It was deleted.");
    }
    EXPECT_FALSE(fs::exists(Path()));
  }

  // Right markers but a header size of 0: it loads, yet is not a valid entry.
  WriteFileBytes(Path(), std::string(good).replace(0, 2, tq::test::Le16(0)));
  CacheEntry zero = CacheEntry::Load(Path());
  EXPECT_EQ(zero.HeaderSize(), 0);
  EXPECT_FALSE(zero.IsValid());
}

TEST_F(CacheEntryTest, ATagOfAnotherLengthCannotBeRewrittenInPlaceButIsStoredAnew) {
  WriteFileBytes(Path(), EntryBytes(1, 2, "\"short\"", kKey, "old body"));
  CacheEntry entry = CacheEntry::Load(Path());
  EXPECT_FALSE(entry.UpdateETag(std::string("\"short\"")));
  EXPECT_TRUE(entry.UpdateETag(std::nullopt));  // no tag: store every time, keep the old one
  EXPECT_EQ(entry.ETag(), "\"short\"");
  EXPECT_TRUE(entry.UpdateETag(std::string("\"short\"\0", 8)));  // length counts, not C text
  EXPECT_TRUE(entry.UpdateETag(std::string()));
  EXPECT_EQ(entry.ETag(), "");
  ASSERT_TRUE(entry.UpdateETag(std::string("\"a much longer tag\"")));

  auto file = TqUSysFile::OpenFile(Path(), 1, 0, 2, 0, 0);
  ASSERT_NE(file, nullptr);
  EXPECT_FALSE(entry.WriteHeader(file, true));  // would run into the old body
  TqUSysFile::CloseFile(file);

  BytesSource source("new body");
  ASSERT_TRUE(entry.Store(source, {}));
  EXPECT_EQ(ReadFileBytes(Path()), EntryBytes(1000, 2, "\"a much longer tag\"", kKey, "new body"));
  EXPECT_EQ(Body(CacheEntry::Load(Path())), "new body");
}

TEST_F(CacheEntryTest, HeadersTooLargeForTheSizeFieldAreRefusedWithoutTouchingTheEntry) {
  const std::string old_bytes = EntryBytes(1, 2, "", kKey, "old body");
  // A tag over 65,535 bytes overflows its own field; the other one fits its field but not the
  // header size.
  for (const std::size_t tag_length : {std::size_t{65536}, 65535 - 24 - kKey.size() + 1}) {
    SCOPED_TRACE(tag_length);
    WriteFileBytes(Path(), old_bytes);
    CacheEntry entry = CacheEntry::Load(Path());
    entry.UpdateETag(std::string(tag_length, 't'));
    BytesSource source("new body");
    EXPECT_THROW(entry.Store(source, {}), gsl::narrowing_error);
    EXPECT_THROW(entry.OpenWriteStream(), gsl::narrowing_error);
    EXPECT_EQ(ReadFileBytes(Path()), old_bytes);
    EXPECT_FALSE(fs::exists(Temp()));
  }

  CacheEntry largest(Path(), kKey);
  largest.UpdateETag(std::string(65535 - 24 - kKey.size(), 't'));
  BytesSource source("body after a 64 KiB header");
  ASSERT_TRUE(largest.Store(source, {}));
  EXPECT_EQ(largest.HeaderSize(), 65535);
  CacheEntry loaded = CacheEntry::Load(Path());
  EXPECT_EQ(loaded.ETag().size(), 65535 - 24 - kKey.size());
  EXPECT_EQ(Body(loaded), "body after a 64 KiB header");
}

TEST_F(CacheEntryTest, AStoreThatDoesNotCompleteLeavesTheOldEntryAndNoTemporaryFile) {
  const std::string old_bytes = EntryBytes(1, 2, "\"old\"", kKey, "old body");
  WriteFileBytes(Path(), old_bytes);
  {  // Stopped after the first chunk; the entry still describes the file on disk.
    CacheEntry entry = CacheEntry::Load(Path());
    entry.UpdateETag(std::string("\"new\""));
    qv::stop_source stop;
    BytesSource source(std::string(100, 'n'), 10);
    source.on_read = [&](std::size_t) { stop.request_stop(); };
    EXPECT_FALSE(entry.Store(source, stop.get_token()));
    EXPECT_EQ(ReadFileBytes(Path()), old_bytes);
    EXPECT_FALSE(fs::exists(Temp()));
    EXPECT_EQ(Body(entry), "old body");
  }
  {  // The source breaks mid-way.
    CacheEntry entry = CacheEntry::Load(Path());
    BytesSource source(std::string(100, 'n'), 10);
    source.FailAt(50);
    m_log.Clear();
    EXPECT_FALSE(entry.Store(source, {}));
    EXPECT_EQ(m_log.Lines(), std::vector<std::string>{
                                 "Failed to read or write stream in CopyStream: source broke\n"});
    EXPECT_FALSE(fs::exists(Temp()));
    EXPECT_EQ(CacheEntry::Load(Path()).ETag(), "\"old\"");
  }
  // Another writer holds the temporary file: refused at once, and its file is left alone.
  WriteFileBytes(Temp(), "someone else's half-written entry");
  auto other = TqUSysFile::OpenFile(Temp(), TqUSysFile::kAccessWrite, TqUSysFile::kShareNone,
                                    TqUSysFile::kOpenAlways, 0, 0);
  ASSERT_NE(other, nullptr);
  const std::string before = ReadFileBytes(Path());
  BytesSource source("new body");
  EXPECT_FALSE(CacheEntry::Load(Path()).Store(source, {}));
  EXPECT_EQ(ReadFileBytes(Temp()), "someone else's half-written entry");
  EXPECT_EQ(ReadFileBytes(Path()), before);
  TqUSysFile::CloseFile(other);
}

// A store renames a new file over the name while readers hold entries loaded before it.
TEST_F(CacheEntryTest, ReadersAcrossAStoreWithAnotherTagSeeOneWholeBody) {
  WriteFileBytes(Path(), EntryBytes(1, 2, "\"a\"", kKey, std::string(10000, 'o')));
  CacheEntry not_yet_reading = CacheEntry::Load(Path());
  CacheEntry reader = CacheEntry::Load(Path());
  auto reading = reader.OpenReadStream();
  ASSERT_NE(reading, nullptr);
  char first[10];
  ASSERT_EQ(reading->Read(first, sizeof first), sizeof first);

  CacheEntry writer = CacheEntry::Load(Path());
  writer.UpdateETag(std::string("\"a tag of another length\""));
  BytesSource source(std::string(20000, 'n'));
  ASSERT_TRUE(writer.Store(source, {}));
  const std::string stored = ReadFileBytes(Path());

  // An open stream keeps the old body; an entry loaded before serves the new file whole (not
  // at the old header's body offset) and does not record its use over the new header.
  EXPECT_EQ(ReadAll(*reading), std::string(10000 - 10, 'o'));
  EXPECT_EQ(Body(std::move(not_yet_reading)), std::string(20000, 'n'));
  EXPECT_EQ(ReadFileBytes(Path()), stored);
}

}  // namespace
