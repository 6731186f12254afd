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

 private:
  std::uint64_t m_size;
  std::uint64_t m_most;
  std::uint64_t m_pos = 0;
  int m_reads = 0;
};

// A file target that runs a hook before each write with its number (from 1).
class HookedFile : public qv::io::FileWriteStream {
 public:
  explicit HookedFile(const std::filesystem::path& path)
      : FileWriteStream(TqUSysFile::OpenFile(path, TqUSysFile::kAccessWrite,
                                             TqUSysFile::kShareNone, TqUSysFile::kCreateAlways,
                                             0, 0)) {}
  std::uint64_t Write(const void* buffer, std::uint64_t size) override {
    if (before_write) before_write(++m_writes);
    return FileWriteStream::Write(buffer, size);
  }
  std::function<void(int write_number)> before_write;

 private:
  int m_writes = 0;
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

// The third read must be able to finish while the second chunk is still being written: the
// write waits for it (bounded, so that a copy taking turns fails instead of hanging), and then
// writes the second chunk, which must still hold its own bytes.
TEST_F(CopyIntoFileTest, TheNextReadOverlapsTheWriteAndNeverTouchesTheChunkBeingWritten) {
  std::mutex mutex;
  std::condition_variable changed;
  bool third_read_done = false;
  bool overlapped = false;
  PositionSource source(4 * kCopyChunkSize + 5, kCopyChunkSize);
  source.after_read = [&](int n) {
    if (n != 3) return;
    std::lock_guard lock(mutex);
    third_read_done = true;
    changed.notify_all();
  };
  HookedFile target(Target());
  target.before_write = [&](int n) {
    if (n != 2) return;
    std::unique_lock lock(mutex);
    overlapped = changed.wait_for(lock, std::chrono::seconds(10), [&] { return third_read_done; });
  };
  const CopyStreamResult result = CopyStream(source, target, {});
  EXPECT_TRUE(result.completed);
  EXPECT_EQ(result.bytes_copied, 4 * kCopyChunkSize + 5);
  EXPECT_TRUE(overlapped) << "the third read waited for the second write";
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
    HookedFile target(Target());
    const CopyStreamResult result = CopyStream(source, target, {});
    EXPECT_TRUE(result.completed);
    EXPECT_EQ(result.bytes_copied, c.size);
    EXPECT_TRUE(FileHoldsPositions(Target(), c.size));
  }
  EXPECT_EQ(m_log.Text(), "");
}

// A write that fails on the writer's side ends the copy as a failed read or write does, with
// its log line; any other exception passes to the caller; a stop ends the copy with every
// counted byte written when it returns.
TEST_F(CopyIntoFileTest, WriteErrorsExceptionsAndStopsEndTheCopyAsTheyAlwaysDid) {
  {
    PositionSource source(5 * kCopyChunkSize, kCopyChunkSize);
    HookedFile target(Target());
    target.before_write = [](int n) {
      if (n == 3) throw std::runtime_error("disk full");
    };
    const CopyStreamResult result = CopyStream(source, target, {});
    EXPECT_FALSE(result.completed);
    EXPECT_GE(result.bytes_copied, 3 * kCopyChunkSize);
    EXPECT_THAT(m_log.Lines(),
                ElementsAre("Failed to read or write stream in CopyStream: disk full\n"));
  }
  {
    PositionSource source(5 * kCopyChunkSize, kCopyChunkSize);
    HookedFile target(Target());
    target.before_write = [](int n) {
      if (n == 2) throw std::logic_error("not a runtime error");
    };
    EXPECT_THROW(CopyStream(source, target, {}), std::logic_error);
  }
  {
    qv::stop_source stop;
    PositionSource source(6 * kCopyChunkSize, kCopyChunkSize);
    source.after_read = [&](int n) {
      if (n == 3) stop.request_stop();
    };
    CopyStreamResult result;
    {
      HookedFile target(Target());
      result = CopyStream(source, target, stop.get_token());
    }
    EXPECT_FALSE(result.completed);
    EXPECT_EQ(result.bytes_copied, 3 * kCopyChunkSize);
    EXPECT_TRUE(FileHoldsPositions(Target(), 3 * kCopyChunkSize));
  }
  EXPECT_EQ(m_log.Lines().size(), 1u);
}

}  // namespace
