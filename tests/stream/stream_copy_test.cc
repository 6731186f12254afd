// CopyStream into a file (where the next chunk is read while the last one is written): every
// byte lands in place, errors, exceptions and stops end the copy, and every copy starts with a
// zero buffer whatever the thread's last copy left in it; and CopyStream into a memory stream
// with room reserved, which reads straight into that room, or over the very bytes it reads.
// (Plain copies into memory: the read stream's and the nginx end-to-end tests.)
#include "net/stream/stream_copy.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/support/servers/temp_dir.h"
#include "tests/tqutil/test_files.h"

namespace {

using qv::net::CopyStream;
using qv::net::CopyStreamResult;
using qv::net::kCopyChunkSize;

constexpr std::uint64_t kMiB = 1024 * 1024;
constexpr std::uint64_t C = kCopyChunkSize;
const std::string kDiskFull = "Failed to read or write stream in CopyStream: disk full\n";

char ByteAt(std::uint64_t position) {
  return static_cast<char>((position * 131 + position / 4093) & 0xFF);
}

// `size` bytes in reads of at most `most`, each byte telling its position; runs a hook after
// each read, and counts first reads handed a buffer that is not zero.
class PositionSource : public qv::io::IDataReadStream {
 public:
  PositionSource(std::uint64_t size, std::uint64_t most) : m_size(size), m_most(most) {}
  std::uint64_t Read(void* buffer, std::uint64_t size) override {
    auto* out = static_cast<char*>(buffer);
    if (++m_reads == 1 && std::any_of(out, out + size, [](char c) { return c != 0; })) {
      ++dirty_starts;
    }
    const std::uint64_t n = std::min({size, m_most, m_size - m_pos});
    for (std::uint64_t i = 0; i < n; ++i) out[i] = ByteAt(m_pos + i);
    m_pos += n;
    if (after_read) after_read();
    return n;
  }
  std::function<void()> after_read;
  std::uint64_t Position() const { return m_pos; }
  static inline int dirty_starts = 0;

 private:
  std::uint64_t m_size;
  std::uint64_t m_most;
  std::uint64_t m_pos = 0;
  int m_reads = 0;
};

// A file target that runs a hook before each write, with its size.
class HookedFile : public qv::io::FileWriteStream {
 public:
  explicit HookedFile(const std::filesystem::path& path)
      : FileWriteStream(TqUSysFile::OpenFile(path, TqUSysFile::kAccessWrite,
                                             TqUSysFile::kShareNone, TqUSysFile::kCreateAlways,
                                             0, 0)) {}
  std::uint64_t Write(const void* buffer, std::uint64_t size) override {
    if (before_write_size) before_write_size(size);
    return FileWriteStream::Write(buffer, size);
  }
  std::function<void(std::uint64_t size)> before_write_size;
};

bool FileHoldsPositions(const std::filesystem::path& path, std::uint64_t size) {
  const std::string bytes = tq::test::ReadFileBytes(path);
  if (bytes.size() != size) return false;
  for (std::uint64_t i = 0; i < size; ++i) {
    if (bytes[i] != ByteAt(i)) return false;
  }
  return true;
}

class CopyIntoFileTest : public ::testing::Test {
 protected:
  std::filesystem::path Target() const { return m_dir.path() / "target.bin"; }
  tq::test::TempDir m_dir;
  tq::test::LogCapture m_log;
};

// Reads of every size around a chunk land in place. Past the first chunks of a long body, where
// the writer thread writes, a read must be able to finish while the piece before it is being
// written: one write there waits for a later read (bounded, so that a copy taking turns fails
// instead of hanging), then writes its piece, which must still hold its own bytes. A write that
// fails there ends the copy with its log line as a failed read does; any other exception passes
// to the caller; a stop ends it with every counted byte written.
TEST_F(CopyIntoFileTest, EveryByteLandsInPlaceTheNextReadOverlapsTheWriteAndStopsEndTheCopy) {
  enum End { kWhole, kOverlap, kWriteFails, kWriteThrowsLogicError, kStop };
  const struct {
    std::uint64_t size;
    std::uint64_t most_per_read;
    End end;
  } cases[] = {
      {0, C, kWhole},          {C, C, kWhole},           {C + 1, 65536 + 3, kWhole},
      {2 * C + 12345, 5 * kMiB + 1, kWhole},             {4 * C + 5, C, kOverlap},
      {5 * C, C, kWriteFails}, {5 * C, C, kWriteThrowsLogicError}, {6 * C, C, kStop},
  };
  PositionSource::dirty_starts = 0;
  std::mutex mutex;
  std::condition_variable changed;
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.size << " end " << c.end);
    m_log.Clear();
    PositionSource source(c.size, c.most_per_read);
    qv::stop_source stop;
    std::uint64_t read_so_far = 0;  // under the mutex
    std::uint64_t read_at_stop = 0;
    source.after_read = [&] {
      std::lock_guard lock(mutex);
      read_so_far = source.Position();
      changed.notify_all();
      if (c.end != kStop || read_at_stop != 0 || read_so_far < 3 * C) return;
      stop.request_stop();
      read_at_stop = read_so_far;
    };
    // Closed before its bytes are checked: Windows lets no one read a file opened without sharing.
    std::optional<HookedFile> target(std::in_place, Target());
    std::uint64_t written = 0;
    std::uint64_t handed_when_failed = 0;  // the failed write's bytes count: they were handed over
    bool waited = false;
    bool overlapped = false;
    target->before_write_size = [&](std::uint64_t size) {
      if (written >= 3 * C && c.end == kWriteFails) {
        handed_when_failed = written + size;
        throw std::runtime_error("disk full");
      }
      if (written >= 3 * C && c.end == kWriteThrowsLogicError) throw std::logic_error("not so");
      if (c.end == kOverlap && written >= 2 * C && !waited) {
        waited = true;
        std::unique_lock lock(mutex);
        overlapped = changed.wait_for(lock, std::chrono::seconds(10),
                                      [&] { return read_so_far > written + size; });
      }
      written += size;
    };
    if (c.end == kWriteThrowsLogicError) {
      EXPECT_THROW(CopyStream(source, *target, stop.get_token()), std::logic_error);
      continue;
    }
    const CopyStreamResult result = CopyStream(source, *target, stop.get_token());
    target.reset();
    EXPECT_EQ(result.completed, c.end == kWhole || c.end == kOverlap);
    EXPECT_EQ(overlapped, c.end == kOverlap) << "the next read waited for the write";
    if (c.end == kWriteFails) {
      EXPECT_GE(handed_when_failed, 3 * C);
      EXPECT_EQ(result.bytes_copied, handed_when_failed) << "a piece read after it is not counted";
      EXPECT_EQ(m_log.Text(), kDiskFull);
      continue;
    }
    const std::uint64_t size = c.end == kStop ? read_at_stop : c.size;
    EXPECT_TRUE(c.end != kStop || read_at_stop > 0);
    EXPECT_EQ(result.bytes_copied, size);
    EXPECT_TRUE(FileHoldsPositions(Target(), size));
    EXPECT_EQ(m_log.Text(), "");
  }
  EXPECT_EQ(PositionSource::dirty_starts, 0);
}

// Claims one byte more than it was asked for on its read `at` (counting from 1).
class ClaimingSource : public qv::io::IDataReadStream {
 public:
  ClaimingSource(PositionSource& inner, int at) : m_inner(inner), m_at(at) {}
  std::uint64_t Read(void* buffer, std::uint64_t size) override {
    if (++m_reads == m_at) before_claim = m_inner.Position();
    const std::uint64_t n = m_inner.Read(buffer, size);
    return m_reads == m_at ? size + 1 : n;
  }
  std::uint64_t before_claim = 0;  // the source's position when the claiming read began

 private:
  PositionSource& m_inner;
  int m_at;
  int m_reads = 0;
};

// Regression: a read claiming more than it was asked for was handed on whole when the copy went
// through its buffer (into a file, or into memory without room reserved): the target got bytes
// from past the read (in memory, past the buffer's end). It now fails as in reserved room, with
// only the bytes of the reads before it written.
TEST_F(CopyIntoFileTest, AReadClaimingMoreThanAskedEndsACopyThroughTheBuffer) {
  const std::string kLine = "Failed to read or write stream in CopyStream: a read returned "
                            "more bytes than were asked for\n";
  for (const int at : {1, 2, 40, 41}) {
    SCOPED_TRACE(at);
    m_log.Clear();
    PositionSource source(8 * C, C);
    ClaimingSource claiming(source, at);
    std::optional<HookedFile> target(std::in_place, Target());
    const CopyStreamResult result = CopyStream(claiming, *target, {});
    target.reset();
    EXPECT_FALSE(result.completed);
    EXPECT_EQ(result.bytes_copied, claiming.before_claim);
    EXPECT_EQ(claiming.before_claim > C, at >= 40) << "later claims come with the writer thread";
    EXPECT_TRUE(FileHoldsPositions(Target(), result.bytes_copied));
    EXPECT_EQ(m_log.Text(), kLine);
  }
  m_log.Clear();
  PositionSource source(2 * C, C);
  ClaimingSource claiming(source, 2);
  qv::io::MemoryStream target;  // no room reserved: through the buffer, a chunk at a time
  const CopyStreamResult result = CopyStream(claiming, target, {});
  EXPECT_FALSE(result.completed);
  EXPECT_EQ(result.bytes_copied, claiming.before_claim);
  EXPECT_EQ(target.Size(), claiming.before_claim);
  EXPECT_EQ(m_log.Text(), kLine);
}

// A memory stream counting the writes made through it, failing one that would pass `most` bytes.
class WrittenMemory : public qv::io::MemoryStream {
 public:
  using MemoryStream::MemoryStream;
  std::uint64_t Write(const void* buffer, std::uint64_t size) override {
    ++writes;
    if (Size() + size > most) throw std::runtime_error("past the bound");
    return MemoryStream::Write(buffer, size);
  }
  int writes = 0;
  std::uint64_t most = UINT64_MAX;
};

// A copy into reserved room holds exactly the bytes it counted however it ends: a body shorter
// or longer than the room, a read that fails or throws, one that claims more than it was asked
// for, a stop. A stream derived from the memory stream still gets its writes.
TEST(CopyIntoMemoryTest, ReservedRoomHoldsExactlyTheBytesCountedHoweverTheCopyEnds) {
  constexpr std::uint64_t kRoom = 3 * kMiB + 17;
  enum End { kWhole, kReadFails, kReadThrowsLogicError, kClaimsMore, kStop, kDerived };
  const struct {
    std::uint64_t size;
    End end;
  } cases[] = {
      {kRoom, kWhole},    {kRoom / 3, kWhole},        {kRoom + C + 5, kWhole},
      {kRoom, kReadFails}, {kRoom, kReadThrowsLogicError}, {kRoom, kClaimsMore},
      {kRoom, kStop},     {kRoom, kDerived},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.size << " end " << c.end);
    tq::test::LogCapture log;
    PositionSource source(c.size, 64 * 1024 + 3);
    qv::stop_source stop;
    std::uint64_t before_last_read = 0;
    std::uint64_t position = 0;
    source.after_read = [&] {
      before_last_read = position;
      position = source.Position();
      if (position < kMiB) return;
      if (c.end == kReadFails) throw std::runtime_error("reset");
      if (c.end == kReadThrowsLogicError) throw std::logic_error("not so");
      if (c.end == kStop) stop.request_stop();
    };
    ClaimingSource claiming(source, 16);  // the read that passes the first MiB
    qv::io::IDataReadStream& from =
        c.end == kClaimsMore ? static_cast<qv::io::IDataReadStream&>(claiming) : source;
    WrittenMemory derived(kRoom);
    qv::io::MemoryStream plain(kRoom);
    qv::io::MemoryStream& target = c.end == kDerived ? derived : plain;
    const std::uint8_t* room = target.Sink()->bytes.data();

    if (c.end == kReadThrowsLogicError) {
      EXPECT_THROW(CopyStream(from, target, stop.get_token()), std::logic_error);
      EXPECT_EQ(target.Size(), before_last_read) << "the room is cut back to the bytes read";
      continue;
    }
    const CopyStreamResult result = CopyStream(from, target, stop.get_token());
    EXPECT_EQ(result.completed, c.end == kWhole || c.end == kDerived);
    EXPECT_EQ(target.Size(), result.bytes_copied);
    const std::uint64_t expected = c.end == kWhole || c.end == kDerived ? c.size
                                   : c.end == kStop                     ? position
                                                                        : before_last_read;
    EXPECT_EQ(result.bytes_copied, expected);
    const auto& bytes = target.Sink()->bytes;
    bool in_place = true;
    for (std::uint64_t i = 0; i < bytes.size() && in_place; ++i) {
      in_place = static_cast<char>(bytes[i]) == ByteAt(i);
    }
    EXPECT_TRUE(in_place);
    if (c.size <= kRoom) {
      EXPECT_EQ(bytes.data(), room) << "read into the room, not moved";
    }
    EXPECT_EQ(derived.writes > 0, c.end == kDerived);
    const std::string failure =
        c.end == kReadFails    ? "Failed to read or write stream in CopyStream: reset\n"
        : c.end == kClaimsMore ? "Failed to read or write stream in CopyStream: a read returned "
                                 "more bytes than were asked for\n"
                               : "";
    EXPECT_EQ(log.Text(), failure);
  }
}

// A memory stream copied into one over the same bytes (with room to spare) appends what it had
// left to read when the copy began, over more than a chunk, instead of reading its own writes
// (which the target's bound turns into a failed copy rather than a run out of memory).
TEST(CopyIntoMemoryTest, ACopyIntoTheSameBytesTakesWhatTheSourceHeldAtTheStart) {
  auto sink = std::make_shared<qv::io::MemorySink>();
  for (std::uint64_t i = 0; i < C + 5; ++i) sink->bytes.push_back(ByteAt(i));
  sink->bytes.reserve(3 * C);
  std::vector<std::uint8_t> expected = sink->bytes;
  expected.insert(expected.end(), sink->bytes.begin() + 1, sink->bytes.end());
  qv::io::MemoryStream source(sink);
  WrittenMemory target(sink);
  target.most = 3 * C;
  source.RSeek(1, qv::io::StreamPosition::Begin);
  const CopyStreamResult result = CopyStream(source, target, {});
  EXPECT_TRUE(result.completed);
  EXPECT_EQ(result.bytes_copied, C + 4);
  EXPECT_TRUE(sink->bytes == expected);
}

}  // namespace
