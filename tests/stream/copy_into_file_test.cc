// CopyStream into a file: the next chunk is read while the last one is written, and the bytes,
// errors, stops and counts come out as they do for a copy that takes its turns.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>

#include "net/stream/stream_copy.h"
#include "tests/support/log_capture.h"
#include "tests/support/servers/temp_dir.h"

namespace {

using qv::net::CopyStream;
using qv::net::CopyStreamResult;
using qv::net::kCopyChunkSize;
using ::testing::ElementsAre;

constexpr std::uint64_t kMiB = 1024 * 1024;

char ByteAt(std::uint64_t position) {
  return static_cast<char>((position * 131 + position / 4093) & 0xFF);
}

// `size` bytes in reads of at most `most` bytes, each byte telling its position; runs a hook
// after each read with its number (from 1).
class PositionSource : public qv::io::IDataReadStream {
 public:
  PositionSource(std::uint64_t size, std::uint64_t most) : m_size(size), m_most(most) {}
  std::uint64_t Read(void* buffer, std::uint64_t size) override {
    const std::uint64_t n = std::min({size, m_most, m_size - m_pos});
    auto* out = static_cast<char*>(buffer);
    for (std::uint64_t i = 0; i < n; ++i) out[i] = ByteAt(m_pos + i);
    m_pos += n;
    if (after_read) after_read(++m_reads);
    return n;
  }
  std::function<void(int read_number)> after_read;
  std::uint64_t Position() const { return m_pos; }

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
  if (std::filesystem::file_size(path) != size) return false;
  std::ifstream in(path, std::ios::binary);
  std::string chunk(1 << 20, '\0');
  for (std::uint64_t at = 0; at < size;) {
    in.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
    const auto got = static_cast<std::uint64_t>(in.gcount());
    if (got == 0) return false;
    for (std::uint64_t i = 0; i < got; ++i) {
      if (chunk[i] != ByteAt(at + i)) return false;
    }
    at += got;
  }
  return true;
}

class CopyIntoFileTest : public ::testing::Test {
 protected:
  std::filesystem::path Target() const { return m_dir.path() / "target.bin"; }
  tq::test::TempDir m_dir;
  tq::test::LogCapture m_log;
};

// Past the first chunks of a long body, a read must be able to finish while the piece before it
// is being written: one write there waits for a later read (bounded, so that a copy taking turns
// fails instead of hanging), and then writes its piece, which must still hold its own bytes.
TEST_F(CopyIntoFileTest, TheNextReadOverlapsTheWriteAndNeverTouchesThePieceBeingWritten) {
  std::mutex mutex;
  std::condition_variable changed;
  std::uint64_t read_so_far = 0;
  bool waited = false;
  bool overlapped = false;
  PositionSource source(4 * kCopyChunkSize + 5, kCopyChunkSize);
  source.after_read = [&](int) {
    std::lock_guard lock(mutex);
    read_so_far = source.Position();
    changed.notify_all();
  };
  // The target is closed before its bytes are checked: Windows lets no one read a file opened
  // without sharing.
  std::optional<HookedFile> target(std::in_place, Target());
  std::uint64_t written = 0;
  target->before_write_size = [&](std::uint64_t size) {
    if (!waited && written >= 2 * kCopyChunkSize) {
      waited = true;
      std::unique_lock lock(mutex);
      overlapped = changed.wait_for(lock, std::chrono::seconds(10),
                                    [&] { return read_so_far > written + size; });
    }
    written += size;
  };
  const CopyStreamResult result = CopyStream(source, *target, {});
  target.reset();
  EXPECT_TRUE(result.completed);
  EXPECT_EQ(result.bytes_copied, 4 * kCopyChunkSize + 5);
  EXPECT_TRUE(waited);
  EXPECT_TRUE(overlapped) << "the next read waited for the write";
  EXPECT_TRUE(FileHoldsPositions(Target(), 4 * kCopyChunkSize + 5));
  EXPECT_EQ(m_log.Text(), "");
}

// Reads of every size around a chunk, one chunk or many: every byte lands where it belongs.
TEST_F(CopyIntoFileTest, EveryByteLandsInPlaceWhateverTheReadSizes) {
  struct Case {
    std::uint64_t size;
    std::uint64_t most_per_read;
  } cases[] = {
      {0, kCopyChunkSize},
      {100, kCopyChunkSize},
      {kCopyChunkSize, kCopyChunkSize},
      {kCopyChunkSize + 1, kCopyChunkSize},
      {3 * kMiB + 7, 65536 + 3},
      {2 * kCopyChunkSize + 12345, 5 * kMiB + 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.size);
    PositionSource source(c.size, c.most_per_read);
    std::optional<HookedFile> target(std::in_place, Target());
    const CopyStreamResult result = CopyStream(source, *target, {});
    target.reset();
    EXPECT_TRUE(result.completed);
    EXPECT_EQ(result.bytes_copied, c.size);
    EXPECT_TRUE(FileHoldsPositions(Target(), c.size));
  }
  EXPECT_EQ(m_log.Text(), "");
}

// Past the first chunks, where the writer thread writes: a write that fails there ends the copy as a failed read or write does, with
// its log line; any other exception passes to the caller; a stop ends the copy with every
// counted byte written when it returns.
TEST_F(CopyIntoFileTest, WriteErrorsExceptionsAndStopsEndTheCopyAsTheyAlwaysDid) {
  {
    PositionSource source(5 * kCopyChunkSize, kCopyChunkSize);
    HookedFile target(Target());
    std::uint64_t written = 0;
    target.before_write_size = [&](std::uint64_t size) {
      if (written >= 3 * kCopyChunkSize) throw std::runtime_error("disk full");
      written += size;
    };
    const CopyStreamResult result = CopyStream(source, target, {});
    EXPECT_FALSE(result.completed);
    EXPECT_GE(result.bytes_copied, 3 * kCopyChunkSize);
    EXPECT_LT(result.bytes_copied, 5 * kCopyChunkSize);
    EXPECT_THAT(m_log.Lines(),
                ElementsAre("Failed to read or write stream in CopyStream: disk full\n"));
  }
  {
    PositionSource source(5 * kCopyChunkSize, kCopyChunkSize);
    HookedFile target(Target());
    std::uint64_t written = 0;
    target.before_write_size = [&](std::uint64_t size) {
      if (written >= 3 * kCopyChunkSize) throw std::logic_error("not a runtime error");
      written += size;
    };
    EXPECT_THROW(CopyStream(source, target, {}), std::logic_error);
  }
  {
    qv::stop_source stop;
    PositionSource source(6 * kCopyChunkSize, kCopyChunkSize);
    std::uint64_t read_at_stop = 0;
    source.after_read = [&](int) {
      if (read_at_stop != 0 || source.Position() < 3 * kCopyChunkSize) return;
      stop.request_stop();
      read_at_stop = source.Position();
    };
    CopyStreamResult result;
    {
      HookedFile target(Target());
      result = CopyStream(source, target, stop.get_token());
    }
    EXPECT_FALSE(result.completed);
    EXPECT_GT(read_at_stop, 0u);
    EXPECT_EQ(result.bytes_copied, read_at_stop);
    EXPECT_TRUE(FileHoldsPositions(Target(), read_at_stop));
  }
  EXPECT_EQ(m_log.Lines().size(), 1u);
}

}  // namespace
