// Opening the same URL again and again: the cache remembers which file a URL maps to and serves
// a fresh entry whose use is recorded from one read of the file, but what the file holds at each
// open decides what is served, and every sharing and hostile-directory rule still holds.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#if !defined(_WIN32)
#include <sys/stat.h>
#endif

#include <cstdint>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "net/cache/disk_cache.h"
#include "tests/cache/cache_test_support.h"
#include "tests/support/fake_transport_fixture.h"
#include "tests/support/servers/temp_dir.h"
#include "tqutil/sys_file.h"

namespace tq::test {
namespace {

namespace fs = std::filesystem;
using qv::net::DiskCache;
using qv::io::StreamPosition;

constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kNow = 1'700'000'000;
constexpr const wchar_t* kUrl = L"http://example.test/repeated.bin";
const std::string kKey = "http://example.test/repeated.bin";

FakeResponse Ok(const std::string& body) {
  FakeResponse r;
  r.dates[L"Date"] = kNow;
  r.Header(L"cache-control", L"max-age=60");
  r.Header(L"ETag", L"\"server\"");
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

class RepeatedOpenTest : public FakeTransportTest {
 protected:
  fs::path EntryPath() const { return DiskCache::ComputeCacheLocation(kUrl, m_cache.Directory()); }
  std::string Open() {
    auto stream = m_cache.OpenUrl(kUrl, 0, {});
    return stream ? ReadAll(*stream, 777) : "<null>";
  }
  // A fresh entry whose use is recorded this very second: an open changes nothing on disk.
  void FreshEntry(const std::string& body, std::int64_t last_used = kNow) {
    WriteFileBytes(EntryPath(), EntryBytes(last_used, kNever, "\"t\"", kKey, body));
  }

  TempDir m_dir;
  ScopedClock m_clock{kNow};
  DiskCache m_cache{m_dir.path().wstring().c_str()};
};

// Bodies that end before, at and after the end of the bytes read with the header, read in odd
// chunks, sized and sought from every origin, on the first open (the name not yet known) and on
// later ones.
TEST_F(RepeatedOpenTest, BodiesOfEverySizeAreServedWholeSizedAndSoughtOnEveryOpen) {
  const std::size_t header = EntryBytes(0, 0, "\"t\"", kKey, "").size();
  for (const std::size_t size :
       {std::size_t{0}, std::size_t{1}, std::size_t{4096}, 16384 - header - 1, 16384 - header,
        16384 - header + 1, std::size_t{16384}, std::size_t{100000}}) {
    SCOPED_TRACE(size);
    const std::string body = Pattern(size);
    FreshEntry(body);
    const std::string on_disk = ReadFileBytes(EntryPath());
    for (int open = 0; open < 3; ++open) {
      SCOPED_TRACE(open);
      auto stream = m_cache.OpenUrl(kUrl, 0, {});
      ASSERT_NE(stream, nullptr);
      EXPECT_EQ(stream->MetaData().size, size);
      EXPECT_EQ(ReadAll(*stream, 777), body);
      EXPECT_EQ(stream->Read(nullptr, 0), 0u);
      if (size >= 10) {
        EXPECT_EQ(stream->RSeek(-5, StreamPosition::End), size - 5);
        EXPECT_EQ(ReadAll(*stream), body.substr(size - 5));
        EXPECT_EQ(stream->RSeek(3, StreamPosition::Begin), 3u);
        EXPECT_EQ(stream->RSeek(2, StreamPosition::Current), 5u);
        EXPECT_EQ(stream->RTell(), 5u);
        char byte = 0;
        EXPECT_EQ(stream->Read(&byte, 1), 1u);
        EXPECT_EQ(byte, body[5]);
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

// The remembered name says where to look, never what is there.
TEST_F(RepeatedOpenTest, WhatTheFileHoldsAtEachOpenDecidesWhatIsServed) {
  FreshEntry("first");
  EXPECT_EQ(Open(), "first");

  FreshEntry("second, longer");
  EXPECT_EQ(Open(), "second, longer");

  // Used a second ago: served, and this second's use recorded.
  FreshEntry("third", kNow - 1);
  EXPECT_EQ(Open(), "third");
  EXPECT_EQ(ReadFileBytes(EntryPath()), EntryBytes(kNow, kNever, "\"t\"", kKey, "third"));

  // Stale: asked again.
  WriteFileBytes(EntryPath(), EntryBytes(kNow, kNow - 1, "\"t\"", kKey, "stale"));
  m_api.Queue(Ok("from the server"));
  EXPECT_EQ(Open(), "from the server");
  ASSERT_EQ(m_api.Sent().size(), 1u);
  EXPECT_EQ(m_api.Sent()[0].headers, L"If-None-Match: \"t\"");

  // Another URL's entry at the name: fetched, and the file left alone.
  const std::string other = EntryBytes(kNow, kNever, "", "http://example.test/other", "other");
  WriteFileBytes(EntryPath(), other);
  m_api.Queue(Ok("fetched"));
  EXPECT_EQ(Open(), "fetched");
  EXPECT_EQ(ReadFileBytes(EntryPath()), other);

  // Not an entry: deleted and fetched.
  WriteFileBytes(EntryPath(), "junk");
  m_api.Queue(Ok("fetched again"));
  EXPECT_EQ(Open(), "fetched again");
  EXPECT_EQ(m_api.Sent().size(), 3u);

  // Gone: fetched and stored.
  fs::remove(EntryPath());
  m_api.Queue(Ok("stored"));
  EXPECT_EQ(Open(), "stored");
  EXPECT_EQ(Open(), "stored");
  EXPECT_EQ(m_api.Sent().size(), 4u);
}

// A served body holds its file as a reader: writers of the entry are refused until it closes,
// and a store renamed over the name meanwhile leaves the open body as it was.
TEST_F(RepeatedOpenTest, AnOpenBodyKeepsWritersOutAndReadsOnAcrossARename) {
  const std::string old_body = Pattern(50000);
  FreshEntry(old_body);
  EXPECT_EQ(Open(), old_body);
  auto stream = m_cache.OpenUrl(kUrl, 0, {});
  ASSERT_NE(stream, nullptr);
  std::string first(1000, '\0');
  ASSERT_EQ(stream->Read(first.data(), first.size()), first.size());

  TqUSysFile::Handle writer =
      TqUSysFile::OpenFile(EntryPath(), TqUSysFile::kAccessWrite, TqUSysFile::kShareNone,
                           TqUSysFile::kOpenExistingWrite, 0, 0);
  EXPECT_EQ(writer, TqUSysFile::kInvalid) << "a writer got in while a body was being read";
  if (writer != TqUSysFile::kInvalid) TqUSysFile::CloseFile(writer);

#if defined(_WIN32)
  // Windows lets no file be renamed over one that is open: the store waits for the reader.
  const std::string stored_body = old_body;
  EXPECT_EQ(first + ReadAll(*stream), old_body);
#else
  const std::string stored_body = "new body";
  const fs::path temporary = fs::path(EntryPath()) += ".new";
  WriteFileBytes(temporary, EntryBytes(kNow, kNever, "\"t\"", kKey, "new body"));
  fs::rename(temporary, EntryPath());
  EXPECT_EQ(first + ReadAll(*stream), old_body);
  EXPECT_EQ(Open(), "new body");
#endif

  stream.reset();
  writer = TqUSysFile::OpenFile(EntryPath(), TqUSysFile::kAccessWrite, TqUSysFile::kShareNone,
                                TqUSysFile::kOpenExistingWrite, 0, 0);
  EXPECT_NE(writer, TqUSysFile::kInvalid);
  // While a writer holds the entry, an open does not read it: the body comes from the server.
  m_api.Queue(Ok("while written"));
  EXPECT_EQ(Open(), "while written");
  if (writer != TqUSysFile::kInvalid) TqUSysFile::CloseFile(writer);
  EXPECT_EQ(Open(), stored_body);
}

#if !defined(_WIN32)
// Links and FIFOs are POSIX's here (the hostile tests cover Windows' reparse points).
// What is planted at a name the cache already knows is treated as on a first open: a link is not
// followed, even to a valid fresh entry of the same URL, and a FIFO does not make it wait.
TEST_F(RepeatedOpenTest, ALinkOrFifoPlantedAtAKnownNameIsNeverReadThrough) {
  FreshEntry("cached");
  EXPECT_EQ(Open(), "cached");
  const fs::path elsewhere = m_dir.path() / "elsewhere";
  const std::string planted = EntryBytes(kNow, kNever, "\"t\"", kKey, "through the link");
  WriteFileBytes(elsewhere, planted);
  fs::remove(EntryPath());
  fs::create_symlink(elsewhere, EntryPath());
  m_api.Queue(Ok("from the server"));
  EXPECT_EQ(Open(), "from the server");
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(EntryPath())));
  EXPECT_EQ(ReadFileBytes(elsewhere), planted);

  fs::remove(EntryPath());
  ASSERT_EQ(::mkfifo(EntryPath().c_str(), 0600), 0);
  m_api.Queue(Ok("not from the FIFO"));
  EXPECT_EQ(Open(), "not from the FIFO");
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(EntryPath())));
}
#endif

}  // namespace
}  // namespace tq::test
