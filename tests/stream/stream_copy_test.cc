#include "net/stream/stream_copy.h"
#include "net/stream/url_reading.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <stdexcept>

#include "tests/support/fake_transport_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using qv::net::CopyStream;
using qv::net::CopyStreamResult;
using ::testing::ElementsAre;

constexpr std::uint64_t kMiB = 1024 * 1024;

// `size` bytes; may run a hook on the n-th read, and counts first reads handed a buffer that
// is not all zero.
class PatternSource : public qv::io::IDataReadStream {
 public:
  explicit PatternSource(std::uint64_t size) : m_size(size) {}
  std::uint64_t Read(void* buffer, std::uint64_t size) override {
    const auto* bytes = static_cast<const std::uint8_t*>(buffer);
    if (++m_reads == 1 && size > 0 && (bytes[0] != 0 || std::memcmp(bytes, bytes + 1, size - 1))) {
      ++dirty_starts;
    }
    if (on_read) on_read(m_reads);
    const std::uint64_t n = std::min(size, m_size - m_pos);
    std::memset(buffer, 0x5A, n);
    m_pos += n;
    return n;
  }
  std::function<void(std::size_t read_number)> on_read;
  std::size_t m_reads = 0;
  static inline int dirty_starts = 0;

 private:
  std::uint64_t m_size;
  std::uint64_t m_pos = 0;
};

struct NullTarget : qv::io::IDataWriteStream {
  std::uint64_t Write(const void*, std::uint64_t size) override { return size; }
};

// Regression: a thread keeps its copy buffer between copies, and a copy must still start with
// the whole buffer zero, whether the thread's previous copy dirtied a little of it, all of it,
// or ended in an exception or a stop. Runtime errors end the copy with a log line; others pass.
TEST(CopyStreamTest, EveryCopyStartsWithAZeroBufferWhateverTheLastCopyLeftInIt) {
  PatternSource::dirty_starts = 0;
  tq::test::LogCapture log;
  auto copy = [&](std::uint64_t size, std::function<void(std::size_t)> hook = {},
                  qv::stop_token stop = {}) {
    PatternSource source(size);
    source.on_read = std::move(hook);
    NullTarget target;
    return CopyStream(source, target, stop);
  };
  for (const std::uint64_t size : {std::uint64_t{100}, 3 * kMiB, 20 * kMiB}) {
    EXPECT_TRUE(copy(size).completed) << size;
    EXPECT_TRUE(copy(1).completed) << "after a copy of " << size;
  }
  EXPECT_THROW(copy(8 * kMiB, [](std::size_t n) { if (n == 2) throw std::logic_error("gone"); }),
               std::logic_error);
  EXPECT_TRUE(copy(1).completed);
  const CopyStreamResult reset =
      copy(20 * kMiB, [](std::size_t n) { if (n == 2) throw std::runtime_error("reset"); });
  EXPECT_EQ(reset.bytes_copied, 8 * kMiB);
  EXPECT_FALSE(reset.completed);
  EXPECT_THAT(log.Lines(), ElementsAre("Failed to read or write stream in CopyStream: reset\n"));
  EXPECT_TRUE(copy(1).completed);
  qv::stop_source stopped;
  stopped.request_stop();
  EXPECT_FALSE(copy(5 * kMiB, {}, stopped.get_token()).completed);
  EXPECT_TRUE(copy(1).completed);
  EXPECT_EQ(PatternSource::dirty_starts, 0);
}

class ReadUrlIntoMemoryTest : public tq::test::FakeTransportTest {};

// Regression: the announced Content-Length was reserved up front, so 8 GiB announced for a
// 10 KiB body took 8 GiB of address space, and a larger claim threw std::bad_alloc. The room
// reserved is now bounded; the bytes that come are what the stream holds.
TEST_F(ReadUrlIntoMemoryTest, AHugeAnnouncedLengthIsNotReservedUpFront) {
  const std::string body(10 * 1024, 'b');
  const std::string big(5 * kMiB + 3, 'g');
  struct Case {
    const wchar_t* announced;
    const std::string* body;
    std::uint64_t most_reserved;
  };
  const Case cases[] = {
      {L"8589934592", &body, qv::net::kMostReservedUpFront},
      {L"18446744073709551615", &body, qv::net::kMostReservedUpFront},
      {L"10240", &body, 10 * 1024},
      {L"5242883", &big, big.size() * 2},  // grows past the bounded reserve as bytes arrive
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(qv::WideToUtf8(c.announced));
    tq::test::FakeResponse response;
    response.Header(L"Content-Length", c.announced);
    for (std::size_t at = 0; at < c.body->size(); at += 4096) response.Body(c.body->substr(at, 4096));
    m_api.Queue(response);
    auto memory = qv::net::ReadUrlIntoMemory(L"http://example.test/big", {});
    ASSERT_NE(memory, nullptr);
    const auto& bytes = memory->Sink()->bytes;
    EXPECT_TRUE(std::string(bytes.begin(), bytes.end()) == *c.body);
    EXPECT_LE(bytes.capacity(), c.most_reserved);
  }
  EXPECT_EQ(m_log.Text(), "");
}

}  // namespace
