#include "net/cache/cache_entry.h"

#include <gmock/gmock.h>
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
using qv::net::invalid_cache_header;
using tq::test::BytesSource;
using tq::test::EntryBytes;
using tq::test::ReadAll;
using tq::test::ReadFileBytes;
using tq::test::ScopedClock;
using tq::test::WriteFileBytes;

// Exactly 30 bytes: with an empty tag the header size is 54 and the body starts at byte 56.
const std::string kKey30 = "http://example.test/abcdefghij";
static_assert(sizeof("http://example.test/abcdefghij") - 1 == 30);

// Holds a file the way a writer does: exclusive, so readers and other writers are refused.
struct HeldFile {
  explicit HeldFile(const fs::path& path)
      : handle(TqUSysFile::OpenFile(path, TqUSysFile::kAccessWrite, TqUSysFile::kShareNone,
                                    TqUSysFile::kOpenAlways, 0, 0)) {}
  ~HeldFile() {
    if (handle) TqUSysFile::CloseFile(handle);
  }
  TqUSysFile::Handle handle;
};

class CacheEntryTest : public ::testing::Test {
 protected:
  fs::path Path(const std::string& name = "0123456789") const { return m_dir.path() / name; }
  bool TempExists(const fs::path& path) const { return fs::exists(fs::path(path) += ".tmp"); }

  tq::test::TempDir m_dir;
  ScopedClock m_clock{1000};
  tq::test::LogCapture m_log;
};

TEST_F(CacheEntryTest, StoreWritesTheDocumentedLayoutByteForByte) {
  CacheEntry entry(Path(), kKey30);
  entry.SetExpiry(5000);
  BytesSource source("hello body");
  ASSERT_TRUE(entry.Store(source, {}));

  EXPECT_EQ(ReadFileBytes(Path()), EntryBytes(1000, 5000, "", kKey30, "hello body"));
  EXPECT_EQ(entry.HeaderSize(), 54);
  EXPECT_EQ(qv::net::entry_format::BodyOffset(entry.HeaderSize()), 56u);
  EXPECT_FALSE(TempExists(Path()));

  // Times are little-endian and signed; never-expiring is the largest value.
  entry.SetExpiry(qv::net::entry_format::kNeverExpires);
  ASSERT_TRUE(entry.UpdateETag(std::string("\"v\xC3\xA9\"")));
  m_clock.Set(-2);
  BytesSource again("x");
  ASSERT_TRUE(entry.Store(again, {}));
  EXPECT_EQ(ReadFileBytes(Path()),
            EntryBytes(-2, INT64_MAX, "\"v\xC3\xA9\"", kKey30, "x"));
}

TEST_F(CacheEntryTest, LoadReadsAFileBuiltByHandAndReadingRecordsTheUseInPlace) {
  const std::string tag = "\"abc\"";
  WriteFileBytes(Path(), EntryBytes(700, 9000, tag, kKey30, "the body"));

  CacheEntry entry = CacheEntry::Load(Path());
  EXPECT_EQ(entry.HeaderSize(), 24 + tag.size() + kKey30.size());
  EXPECT_EQ(entry.LastUsed(), 700);
  EXPECT_EQ(entry.Expiry(), 9000);
  EXPECT_EQ(entry.ETag(), tag);
  EXPECT_EQ(entry.Key(), kKey30);
  EXPECT_TRUE(entry.IsValid());

  m_clock.Set(1234);
  entry.SetExpiry(4321);
  auto stream = entry.OpenReadStream();
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->RTell(), 0u);
  EXPECT_EQ(stream->MetaData().size, 8u);
  EXPECT_EQ(ReadAll(*stream, 3), "the body");
  stream->RSeek(4, qv::io::StreamPosition::Begin);
  EXPECT_EQ(ReadAll(*stream), "body");
  stream.reset();
  // Only the fixed part changed: new last-used time and expiry, same tag, key and body.
  EXPECT_EQ(ReadFileBytes(Path()), EntryBytes(1234, 4321, tag, kKey30, "the body"));
}

TEST_F(CacheEntryTest, FilesThatAreNotEntriesAreDeletedOnLoadAtEveryTruncationAndCorruption) {
  const std::string good = EntryBytes(1, 2, "\"t\"", kKey30, "");
  std::vector<std::pair<std::string, std::string>> cases = {
      {"empty", ""},
      {"three bytes", "\x10\x00\x01"},
      {"bad start marker", std::string(good).replace(2, 2, "\x01\x02")},
      {"bad end marker", std::string(good).replace(good.size() - 2, 2, "\x02\x03")},
      {"random bytes", "\x7f\x45\x4c\x46\x02\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00"},
      // Lengths far beyond the file: must be refused without reading or allocating them.
      {"absurd tag length", good.substr(0, 20) + tq::test::Le16(0xFFFF) + "tiny"},
      {"absurd key length", good.substr(0, 20) + tq::test::Le16(0) + tq::test::Le16(0xFFFF) +
                                "\x02\x02"},
  };
  // A header cut anywhere is not an entry.
  for (std::size_t n = 0; n < good.size(); ++n) {
    cases.emplace_back("truncated to " + std::to_string(n), good.substr(0, n));
  }
  for (const auto& [name, bytes] : cases) {
    SCOPED_TRACE(name);
    WriteFileBytes(Path(), bytes);
    try {
      CacheEntry::Load(Path());
      ADD_FAILURE() << "loaded";
    } catch (const invalid_cache_header& e) {
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

TEST_F(CacheEntryTest, AFileHeldByAWriterIsNeitherLoadedNorDeleted) {
  WriteFileBytes(Path(), "not an entry, but in use");
  HeldFile writer(Path());
  ASSERT_NE(writer.handle, nullptr);
  try {
    CacheEntry::Load(Path());
    ADD_FAILURE() << "loaded";
  } catch (const invalid_cache_header&) {
    ADD_FAILURE() << "treated as corrupt";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Cache entry could not be opened. Maybe in use by another process?");
  }
  EXPECT_TRUE(fs::exists(Path()));
}

TEST_F(CacheEntryTest, UpdateETagReportsWhetherTheContentMustBeStoredAnew) {
  CacheEntry entry(Path(), kKey30);
  EXPECT_TRUE(entry.UpdateETag(std::string("\"a\"")));
  EXPECT_FALSE(entry.UpdateETag(std::string("\"a\"")));
  EXPECT_TRUE(entry.UpdateETag(std::nullopt));  // no tag: store every time, keep the old one
  EXPECT_EQ(entry.ETag(), "\"a\"");
  EXPECT_TRUE(entry.UpdateETag(std::string("\"a\"\0", 4)));  // length counts, not C text
  EXPECT_TRUE(entry.UpdateETag(std::string("")));
  EXPECT_EQ(entry.ETag(), "");
}

TEST_F(CacheEntryTest, AStoreWhoseTagChangedLengthReplacesTheEntry) {
  WriteFileBytes(Path(), EntryBytes(1, 2, "\"short\"", kKey30, "old body"));
  CacheEntry entry = CacheEntry::Load(Path());
  ASSERT_TRUE(entry.UpdateETag(std::string("\"a much longer tag\"")));

  // The fixed part alone cannot be rewritten in front of the old body...
  {
    auto file = TqUSysFile::OpenFile(Path(), 1, 0, 2, 0, 0);
    ASSERT_NE(file, nullptr);
    EXPECT_FALSE(entry.WriteHeader(file, true));
    TqUSysFile::CloseFile(file);
  }
  // ...but a store writes a whole new file and succeeds.
  BytesSource source("new body");
  ASSERT_TRUE(entry.Store(source, {}));
  EXPECT_EQ(ReadFileBytes(Path()), EntryBytes(1000, 2, "\"a much longer tag\"", kKey30, "new body"));
  CacheEntry reloaded = CacheEntry::Load(Path());
  auto stream = reloaded.OpenReadStream();
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(ReadAll(*stream), "new body");
}

TEST_F(CacheEntryTest, HeadersTooLargeForTheSizeFieldAreRefusedWithoutTouchingTheEntry) {
  const std::string old_bytes = EntryBytes(1, 2, "", kKey30, "old body");
  struct Case {
    const char* name;
    std::size_t tag_length;
  };
  // A tag over 65,535 bytes overflows its own field; one of 65,535 - 24 - 29 bytes fits each
  // field but not the header size.
  for (const Case& c : {Case{"tag over its field", 65536},
                        Case{"sum over the header size", 65535 - 24 - kKey30.size() + 1}}) {
    SCOPED_TRACE(c.name);
    WriteFileBytes(Path(), old_bytes);
    CacheEntry entry = CacheEntry::Load(Path());
    entry.UpdateETag(std::string(c.tag_length, 't'));
    BytesSource source("new body");
    EXPECT_THROW(entry.Store(source, {}), gsl::narrowing_error);
    EXPECT_THROW(entry.OpenWriteStream(), gsl::narrowing_error);
    EXPECT_EQ(ReadFileBytes(Path()), old_bytes);
    EXPECT_FALSE(TempExists(Path()));
  }

  // The largest header that fits is stored and read back.
  CacheEntry largest(Path(), kKey30);
  largest.UpdateETag(std::string(65535 - 24 - kKey30.size(), 't'));
  BytesSource source("body after a 64 KiB header");
  ASSERT_TRUE(largest.Store(source, {}));
  EXPECT_EQ(largest.HeaderSize(), 65535);
  CacheEntry loaded = CacheEntry::Load(Path());
  EXPECT_EQ(loaded.ETag().size(), 65535 - 24 - kKey30.size());
  auto stream = loaded.OpenReadStream();
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(ReadAll(*stream), "body after a 64 KiB header");
}

TEST_F(CacheEntryTest, AStoreThatDoesNotCompleteLeavesTheOldEntryAndNoTemporaryFile) {
  const std::string old_bytes = EntryBytes(1, 2, "\"old\"", kKey30, "old body");

  // Stopped after the first chunk.
  WriteFileBytes(Path(), old_bytes);
  {
    CacheEntry entry = CacheEntry::Load(Path());
    entry.UpdateETag(std::string("\"new\""));
    qv::stop_source stop;
    BytesSource source(std::string(100, 'n'), 10);
    source.on_read = [&](std::size_t) { stop.request_stop(); };
    EXPECT_FALSE(entry.Store(source, stop.get_token()));
    EXPECT_EQ(ReadFileBytes(Path()), old_bytes);
    EXPECT_FALSE(TempExists(Path()));
    // The entry still describes the file on disk, so it can be served and rewritten in place.
    auto stream = entry.OpenReadStream();
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(ReadAll(*stream), "old body");
  }

  // The source breaks mid-way.
  {
    CacheEntry entry = CacheEntry::Load(Path());
    BytesSource source(std::string(100, 'n'), 10);
    source.FailAt(50);
    m_log.Clear();
    EXPECT_FALSE(entry.Store(source, {}));
    EXPECT_EQ(m_log.Lines(), std::vector<std::string>{
                                 "Failed to read or write stream in CopyStream: source broke\n"});
    EXPECT_FALSE(TempExists(Path()));
    EXPECT_EQ(CacheEntry::Load(Path()).ETag(), "\"old\"");
  }

  // Another writer holds the temporary file: the store is refused at once and the other
  // writer's file is left alone.
  {
    fs::path temporary = Path();
    temporary += ".tmp";
    WriteFileBytes(temporary, "someone else's half-written entry");
    HeldFile other(temporary);
    ASSERT_NE(other.handle, nullptr);
    const std::string before = ReadFileBytes(Path());
    CacheEntry entry = CacheEntry::Load(Path());
    BytesSource source("new body");
    EXPECT_FALSE(entry.Store(source, {}));
    EXPECT_EQ(ReadFileBytes(temporary), "someone else's half-written entry");
    EXPECT_EQ(ReadFileBytes(Path()), before);
  }
}

TEST_F(CacheEntryTest, OpenWriteStreamStartsAtTheBodyOfAFreshFile) {
  WriteFileBytes(Path(), EntryBytes(1, 2, "", kKey30, "a long old body that must go"));
  CacheEntry entry = CacheEntry::Load(Path());
  {
    auto stream = entry.OpenWriteStream();
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(stream->WTell(), 0u);
    stream->Write("fresh", 5);
    EXPECT_EQ(stream->WTell(), 5u);
    // While it is being written, nobody reads a half-written body.
    EXPECT_THROW(CacheEntry::Load(Path()), std::runtime_error);
  }
  EXPECT_EQ(ReadFileBytes(Path()), EntryBytes(1000, 2, "", kKey30, "fresh"));
}

// A reader that loaded an entry must not use that header's body offset on a file that a store
// renamed over the name in the meantime.
TEST_F(CacheEntryTest, ReadingAfterAConcurrentStoreWithALongerTagServesTheNewFileWhole) {
  WriteFileBytes(Path(), EntryBytes(1, 2, "\"a\"", kKey30, "old body"));
  CacheEntry reader = CacheEntry::Load(Path());

  CacheEntry writer = CacheEntry::Load(Path());
  writer.UpdateETag(std::string("\"a tag of another length\""));
  BytesSource source("new body");
  ASSERT_TRUE(writer.Store(source, {}));
  const std::string stored = ReadFileBytes(Path());

  auto stream = reader.OpenReadStream();
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(ReadAll(*stream), "new body");
  stream.reset();
  // The reader's record of use was not written over the other header.
  EXPECT_EQ(ReadFileBytes(Path()), stored);
}

TEST_F(CacheEntryTest, AnOpenReaderKeepsTheOldBodyWhileAStoreReplacesTheFile) {
  WriteFileBytes(Path(), EntryBytes(1, 2, "\"a\"", kKey30, std::string(10000, 'o')));
  CacheEntry reader = CacheEntry::Load(Path());
  auto old_stream = reader.OpenReadStream();
  ASSERT_NE(old_stream, nullptr);
  char first[10];
  ASSERT_EQ(old_stream->Read(first, sizeof first), sizeof first);

  CacheEntry writer = CacheEntry::Load(Path());
  writer.UpdateETag(std::string("\"b\""));
  BytesSource source(std::string(20000, 'n'));
  ASSERT_TRUE(writer.Store(source, {}));

  EXPECT_EQ(ReadAll(*old_stream), std::string(10000 - 10, 'o'));
  auto new_stream = CacheEntry::Load(Path()).OpenReadStream();
  ASSERT_NE(new_stream, nullptr);
  EXPECT_EQ(ReadAll(*new_stream), std::string(20000, 'n'));
}

TEST_F(CacheEntryTest, RemoveDeletesTheFileAndIsTrueWhenThereIsNone) {
  WriteFileBytes(Path(), EntryBytes(1, 2, "", kKey30, "b"));
  CacheEntry entry = CacheEntry::Load(Path());
  EXPECT_TRUE(entry.Remove());
  EXPECT_FALSE(fs::exists(Path()));
  EXPECT_EQ(entry.HeaderSize(), 0);
  EXPECT_FALSE(entry.IsValid());
  EXPECT_TRUE(entry.Remove());
}

}  // namespace
