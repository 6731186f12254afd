#include "net/stream/stream_copy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "net/stream/read_stream.h"
#include "tests/support/fake_transport_fixture.h"

namespace {

using qv::net::CopyStream;
using qv::net::CopyStreamResult;
using qv::net::OpenUrlReadStream;
using qv::net::ReadUrlIntoMemory;
using tq::test::FakeResponse;
using ::testing::ElementsAre;

constexpr std::uint64_t kMiB = 1024 * 1024;
const std::string kCopyFailed = "Failed to read or write stream in CopyStream: ";

// `size` bytes (byte i is i mod 251); records each read's requested size, may run a hook on the
// n-th read, and counts first reads handed a buffer that is not all zero.
class PatternSource : public qv::io::IDataReadStream {
 public:
  explicit PatternSource(std::uint64_t size) : m_size(size) {}
  std::uint64_t Read(void* buffer, std::uint64_t size) override {
    m_requests.push_back(size);
    const auto* bytes = static_cast<const std::uint8_t*>(buffer);
    if (dirty_starts && m_requests.size() == 1 && size > 0 &&
        (bytes[0] != 0 || std::memcmp(bytes, bytes + 1, size - 1) != 0)) {
      ++*dirty_starts;
    }
    if (on_read) on_read(m_requests.size());
    const std::uint64_t n = std::min(size, m_size - m_pos);
    auto* out = static_cast<std::uint8_t*>(buffer);
    for (std::uint64_t i = 0; i < n; ++i) out[i] = static_cast<std::uint8_t>((m_pos + i) % 251);
    m_pos += n;
    return n;
  }
  std::function<void(std::size_t read_number)> on_read;
  std::vector<std::uint64_t> m_requests;
  std::uint64_t* dirty_starts = nullptr;

 private:
  std::uint64_t m_size;
  std::uint64_t m_pos = 0;
};

// Keeps the sizes written and counts bytes that break the source's pattern.
class CheckingTarget : public qv::io::IDataWriteStream {
 public:
  std::uint64_t Write(const void* buffer, std::uint64_t size) override {
    if (throw_on_write) throw qv::net::http_exception("disk full\n");
    const auto* in = static_cast<const std::uint8_t*>(buffer);
    for (std::uint64_t i = 0; i < size; ++i) {
      m_mismatches += in[i] != static_cast<std::uint8_t>((m_total + i) % 251);
    }
    m_total += size;
    m_writes.push_back(size);
    return size;
  }
  bool throw_on_write = false;
  std::vector<std::uint64_t> m_writes;
  std::uint64_t m_total = 0;
  std::uint64_t m_mismatches = 0;
};

TEST(IsHttpUrlTest, MatchesOnlyTheExactLowerCaseSchemes) {
  for (const wchar_t* yes : {L"http:", L"https:", L"http://example.test/a", L"https://e.test/a"}) {
    EXPECT_TRUE(qv::net::IsHttpUrl(yes)) << qv::WideToUtf8(yes);
  }
  for (const wchar_t* no : {L"https", L"http", L"", L"HTTP://e.test/a", L"Https://e.test/a",
                            L" http://e.test/a", L"httpx://e.test/a", L"file:///tmp/a"}) {
    EXPECT_FALSE(qv::net::IsHttpUrl(no)) << qv::WideToUtf8(no);
  }
  // A view that is not NUL-terminated is read only within its bounds.
  const std::wstring text = L"http:rest";
  EXPECT_FALSE(qv::net::IsHttpUrl(std::wstring_view(text).substr(0, 4)));
}

TEST(CopyStreamTest, CopiesIn8MiBChunksAndEndsOnAZeroRead) {
  PatternSource source(20 * kMiB);
  CheckingTarget target;
  const CopyStreamResult result = CopyStream(source, target, {});
  EXPECT_EQ(result.bytes_copied, 20971520u);
  EXPECT_TRUE(result.completed);
  EXPECT_THAT(target.m_writes, ElementsAre(8 * kMiB, 8 * kMiB, 4 * kMiB));
  EXPECT_EQ(source.m_requests, std::vector<std::uint64_t>(4, qv::net::kCopyChunkSize));
  EXPECT_EQ(target.m_mismatches, 0u);

  PatternSource empty(0);
  CheckingTarget nothing;
  const CopyStreamResult none = CopyStream(empty, nothing, {});
  EXPECT_EQ(none.bytes_copied, 0u);
  EXPECT_TRUE(none.completed);
  EXPECT_EQ(empty.m_requests.size(), 1u);
  EXPECT_TRUE(nothing.m_writes.empty());
}

TEST(CopyStreamTest, StopIsSeenAfterTheChunkIsWrittenEvenOnTheLastChunk) {
  qv::stop_source stop;
  PatternSource source(20 * kMiB);
  source.on_read = [&](std::size_t n) { if (n == 3) stop.request_stop(); };
  CheckingTarget target;
  const CopyStreamResult result = CopyStream(source, target, stop.get_token());
  EXPECT_EQ(result.bytes_copied, 20 * kMiB) << "every byte was copied";
  EXPECT_FALSE(result.completed);
  EXPECT_THAT(target.m_writes, ElementsAre(8 * kMiB, 8 * kMiB, 4 * kMiB));
  EXPECT_EQ(source.m_requests.size(), 3u) << "no read after the stop";

  // A stop seen with the end of the source is still not a completed copy.
  qv::stop_source at_end;
  PatternSource short_source(10);
  short_source.on_read = [&](std::size_t n) { if (n == 2) at_end.request_stop(); };
  const CopyStreamResult ended = CopyStream(short_source, target, at_end.get_token());
  EXPECT_EQ(ended.bytes_copied, 10u);
  EXPECT_FALSE(ended.completed);
}

TEST(CopyStreamTest, RuntimeErrorsAreLoggedAndEndTheCopyOthersPassThrough) {
  tq::test::LogCapture log;
  PatternSource failing(20 * kMiB);
  failing.on_read = [](std::size_t n) { if (n == 2) throw std::runtime_error("connection reset"); };
  CheckingTarget target;
  const CopyStreamResult read_error = CopyStream(failing, target, {});
  EXPECT_EQ(read_error.bytes_copied, 8 * kMiB);
  EXPECT_FALSE(read_error.completed);
  EXPECT_THAT(log.Lines(), ElementsAre(kCopyFailed + "connection reset\n"));

  // A failed write still counts the chunk that was read and handed over.
  log.Clear();
  PatternSource source(20 * kMiB);
  CheckingTarget full;
  full.throw_on_write = true;
  const CopyStreamResult write_error = CopyStream(source, full, {});
  EXPECT_EQ(write_error.bytes_copied, 8 * kMiB);
  EXPECT_FALSE(write_error.completed);
  EXPECT_EQ(log.Text(), kCopyFailed + "disk full\n\n");

  log.Clear();
  struct EmptyTextError : std::runtime_error {
    EmptyTextError() : std::runtime_error("") {}
  };
  PatternSource silent(1);
  silent.on_read = [](std::size_t) { throw EmptyTextError(); };
  EXPECT_FALSE(CopyStream(silent, target, {}).completed);
  EXPECT_EQ(log.Text(), kCopyFailed + "Unknown exception\n");

  PatternSource logic(1);
  logic.on_read = [](std::size_t) { throw std::logic_error("not a runtime error"); };
  EXPECT_THROW(CopyStream(logic, target, {}), std::logic_error);
}

// Regression: a thread keeps its copy buffer between copies, and a copy must still start with
// the whole buffer zero, whether the thread's previous copy dirtied a little of it, more than
// the part cleared in place, all of it, or ended in an exception or a stop.
TEST(CopyStreamTest, EveryCopyStartsWithAZeroBufferWhateverTheLastCopyLeftInIt) {
  std::uint64_t dirty_starts = 0;
  auto copy = [&](std::uint64_t size, std::function<void(std::size_t)> hook,
                  qv::stop_token stop = {}) {
    PatternSource source(size);
    source.on_read = std::move(hook);
    source.dirty_starts = &dirty_starts;
    CheckingTarget target;
    try {
      return CopyStream(source, target, stop);
    } catch (const std::logic_error&) {
      return CopyStreamResult{};
    }
  };
  for (const std::uint64_t size : {std::uint64_t{100}, 3 * kMiB, 8 * kMiB, 20 * kMiB}) {
    EXPECT_TRUE(copy(size, {}).completed) << size;
    EXPECT_TRUE(copy(1, {}).completed) << "after a copy of " << size;
  }
  // A read that fails after filling the buffer: the next copy must not see its bytes.
  copy(8 * kMiB, [](std::size_t n) { if (n == 2) throw std::logic_error("gone"); });
  EXPECT_TRUE(copy(1, {}).completed);
  {
    tq::test::LogCapture log;
    copy(8 * kMiB, [](std::size_t n) { if (n == 2) throw std::runtime_error("reset"); });
  }
  EXPECT_TRUE(copy(1, {}).completed);
  qv::stop_source stopped;
  stopped.request_stop();
  EXPECT_FALSE(copy(5 * kMiB, {}, stopped.get_token()).completed);
  EXPECT_TRUE(copy(1, {}).completed);
  EXPECT_EQ(dirty_starts, 0u);
}

constexpr const wchar_t* kUrl = L"http://example.test/data";

FakeResponse Answer(std::uint32_t status, std::vector<std::string> chunks,
                    const wchar_t* length = nullptr) {
  FakeResponse response;
  response.status = status;
  if (length) response.Header(L"Content-Length", length);
  response.body_chunks = std::move(chunks);
  return response;
}

using UrlReadingTest = tq::test::FakeTransportTest;

TEST_F(UrlReadingTest, OpenUrlReadStreamRoutesBySchemeAndReturnsUnsuccessfulStreams) {
  m_api.Queue(Answer(200, {"body"}, L"4"));
  auto http = OpenUrlReadStream(kUrl, {});
  ASSERT_NE(dynamic_cast<qv::net::HttpReadStream*>(http.get()), nullptr);
  char buffer[8];
  EXPECT_EQ(http->Read(buffer, sizeof buffer), 4u);
  http.reset();
  m_api.Queue(Answer(404, {}));
  auto not_found = OpenUrlReadStream(kUrl, {});
  ASSERT_NE(not_found, nullptr) << "an unsuccessful stream is still a stream";
  EXPECT_EQ(not_found->Read(buffer, sizeof buffer), 0u);
  not_found.reset();
  m_log.Clear();

  // Other schemes, and HTTP written in capitals, go to the utility library, never the transport.
  const auto file = std::filesystem::temp_directory_path() / "tq_stream_copy_test.txt";
  std::ofstream(file) << "file body";
  auto local = OpenUrlReadStream(L"file://" + file.wstring(), {});
  ASSERT_NE(local, nullptr);
  EXPECT_EQ(local->Read(buffer, sizeof buffer), 8u);
  std::filesystem::remove(file);
  EXPECT_EQ(OpenUrlReadStream(L"HTTP://example.test/data", {}), nullptr);
  EXPECT_EQ(OpenUrlReadStream(L"gopher://example.test/data", {}), nullptr);
  EXPECT_EQ(m_api.CountCalls("Send"), 2);
  EXPECT_EQ(m_log.Text(), "");
}

TEST_F(UrlReadingTest, ReadUrlIntoMemoryHoldsTheWholeBodyAtPositionZero) {
  m_api.Queue(Answer(200, {"first-", "second-", "third"}, L"18"));
  auto memory = ReadUrlIntoMemory(kUrl, {});
  ASSERT_NE(memory, nullptr);
  EXPECT_EQ(memory->RTell(), 0u);
  EXPECT_EQ(memory->Size(), 18u);
  // Sized from Content-Length, so the body never made the buffer grow.
  EXPECT_EQ(memory->Sink()->bytes.capacity(), 18u);
  const auto& bytes = memory->Sink()->bytes;
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "first-second-third");
  EXPECT_EQ(m_api.OpenRequestHandles(), 0u) << "the source is released before returning";
  m_api.Queue(Answer(200, {"abc", "def"}));
  auto grown = ReadUrlIntoMemory(kUrl, {});
  ASSERT_NE(grown, nullptr);
  EXPECT_EQ(grown->Size(), 6u) << "no Content-Length";
  EXPECT_EQ(m_log.Text(), "");
}

TEST_F(UrlReadingTest, ReadUrlIntoMemoryFailuresGiveNullWithTheirLogLines) {
  // No connection: the stream's exception, then the line's own "\n".
  m_api.FailNextConnects(1);
  EXPECT_EQ(ReadUrlIntoMemory(kUrl, {}), nullptr);
  EXPECT_EQ(m_log.Text(), "Failed to open stream for URL: http://example.test/data: Unable to "
                          "create HTTP connection\n\n");

  // A body cut short and a stall are driven through the real transport by the fault suite.
  // A stop requested while the body is read: null, nothing logged.
  m_log.Clear();
  qv::stop_source stop;
  m_api.Queue(Answer(200, {"abc", "def"}));
  const int reads_before = m_api.CountCalls("Read");
  m_api.on_read = [&] { stop.request_stop(); };
  EXPECT_EQ(ReadUrlIntoMemory(kUrl, stop.get_token()), nullptr);
  m_api.on_read = nullptr;
  EXPECT_EQ(m_api.CountCalls("Read") - reads_before, 1)
      << "the copy ends after the chunk it was reading";
  EXPECT_EQ(m_log.Text(), "");

  // A size too large to hold is refused, and the request released.
  m_api.Queue(Answer(200, {"tiny"}, L"18446744073709551615"));
  EXPECT_EQ(ReadUrlIntoMemory(kUrl, {}), nullptr);
  EXPECT_THAT(m_log.Text(),
              ::testing::StartsWith("Failed to read URL: http://example.test/data: "));
  EXPECT_EQ(m_api.OpenRequestHandles(), 0u);
  m_log.Clear();

  // A standard exception that is not a runtime error (a handler's logic error).
  struct ThrowingHandler : qv::net::HttpRequestHandler {
    void HandlePreRequest(qv::net::HttpRequest&) override { throw std::logic_error("bad hook"); }
  } thrower;
  tq::test::ScopedHandler scoped(&thrower);
  EXPECT_EQ(ReadUrlIntoMemory(kUrl, {}), nullptr);
  EXPECT_EQ(m_log.Text(), "Failed to read URL: http://example.test/data: bad hook\n");
}

}  // namespace
