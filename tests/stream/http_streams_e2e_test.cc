// The stream layer end to end over the real transport on 127.0.0.1.
// Servers that lie or fail: the hostile and fault suites.
#include "net/stream/read_stream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "net/http/connection_pool.h"
#include "net/http/wininet_api.h"
#include "net/stream/open_file_or_url.h"
#include "net/stream/stream_copy.h"
#include "net/stream/url_reading.h"
#include "tests/support/log_capture.h"
#include "tests/support/read_all.h"
#include "tests/support/servers/gate.h"
#include "tests/support/servers/nginx_harness.h"
#include "tests/support/servers/raw_responder.h"
#include "tests/support/servers/scripted_server.h"
#include "tests/support/wine.h"

namespace {

using qv::net::HttpReadStream;
using ::testing::ElementsAre;

std::wstring Wide(const std::string& text) { return qv::Utf8ToWide(text); }

std::string Pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 7 + i / 251) % 256);
  return bytes;
}

class HttpStreamsEndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_previous_api = qv::net::SetHttpApi(new qv::net::WinInet());
    m_previous_sleep = qv::net::detail::SetRetrySleepForTesting(
        [this](std::chrono::milliseconds wait) { m_sleeps.push_back(wait); });
  }
  void TearDown() override {
    qv::net::HttpConnectionPool::Terminate();
    delete qv::net::SetHttpApi(m_previous_api);
    qv::net::detail::SetRetrySleepForTesting(std::move(m_previous_sleep));
  }

  tq::test::LogCapture m_log;
  std::vector<std::chrono::milliseconds> m_sleeps;  // the opening thread's retry waits
  qv::net::IHttpApi* m_previous_api = nullptr;
  qv::net::detail::RetrySleepFunction m_previous_sleep;
};

// Into memory: the room is sized from Content-Length up to a bound, and grows past it as the
// bytes come. (Lengths far larger than the body: ReadUrlIntoMemoryTest.)
TEST_F(HttpStreamsEndToEndTest, NginxServesFilesWholeIntoMemoryAHeadFirstOpenAndA404) {
  if (!tq::test::NginxHarness::Installed()) GTEST_SKIP() << "nginx is not installed";
  tq::test::NginxHarness nginx;
  ASSERT_TRUE(nginx.ok()) << nginx.error();
  const std::wstring url = Wide(nginx.Url("/data.bin"));
  std::string body;
  for (const std::size_t size : {std::size_t{3 * 1024 * 1024 + 17}, std::size_t{5 << 20} + 3}) {
    body = Pattern(size);
    nginx.WriteFile("data.bin", body);
    auto memory = qv::net::ReadUrlIntoMemory(url, {});
    ASSERT_NE(memory, nullptr);
    const auto& bytes = memory->Sink()->bytes;
    EXPECT_TRUE(std::string(bytes.begin(), bytes.end()) == body) << size;
    if (size < qv::net::kMostReservedUpFront) {
      EXPECT_EQ(bytes.capacity(), size) << "sized from Content-Length";
    } else {
      EXPECT_LE(bytes.capacity(), 2 * size);
    }
  }
  auto head_first = HttpReadStream::Open(url, HttpReadStream::FlagMakeHeadRequest, {});
  EXPECT_TRUE(head_first->Succeeded());
  EXPECT_EQ(head_first->ContentSize(), body.size());
  EXPECT_TRUE(tq::test::ReadAll(*head_first) == body);
  head_first.reset();
  EXPECT_EQ(tq::test::TextBeyondWine(m_log), "");

  auto empty = qv::net::OpenFileOrUrl(Wide(nginx.Url("/missing.bin")), 0, {});
  ASSERT_NE(empty, nullptr) << "a 404 is an empty stream";
  EXPECT_EQ(tq::test::ReadAll(*empty), "");
  EXPECT_THAT(tq::test::LinesBeyondWine(m_log), ElementsAre("Error: HTTP Response 404 for GET " +
                                         nginx.Url("/missing.bin") + "\n"));
}

// The transport reads Retry-After for the wait. (Its bounds, and a silent 304: the fake's table.)
TEST_F(HttpStreamsEndToEndTest, ScriptedServerRetryAfterIsWaitedAndTheRequestSentAgain) {
  tq::test::ScriptedServer server;
  ASSERT_TRUE(server.ok());
  std::atomic<int> calls{0};
  server.Route("/busy", [&](const tq::test::RecordedRequest&) {
    if (calls++ == 0) return tq::test::ScriptedResponse(429, "").Header("Retry-After", "7");
    return tq::test::ScriptedResponse(200, "finally");
  });
  EXPECT_EQ(tq::test::ReadAll(*HttpReadStream::Open(Wide(server.Url("/busy")), 0, {})), "finally");
  EXPECT_THAT(m_sleeps, ElementsAre(std::chrono::seconds(7)));
  EXPECT_EQ(tq::test::TextBeyondWine(m_log), "");
  qv::net::HttpConnectionPool::Terminate();  // so that the server stops without waiting for it
}

// A write stream that opens a gate at its first write.
struct SignallingTarget : qv::io::IDataWriteStream {
  std::uint64_t Write(const void* buffer, std::uint64_t size) override {
    bytes.append(static_cast<const char*>(buffer), size);
    first_write.Open();
    return size;
  }
  tq::test::Gate first_write;
  std::string bytes;
};

// The server sends a first part, then holds the rest until released. WinINet's read on a
// synchronous request returns only when the buffer is full or the answer ends, so there the first
// part fills one whole chunk of the copy; the Linux layer returns what has arrived.
#ifdef _WIN32
constexpr std::size_t kFirstPart = qv::net::kCopyChunkSize;
#else
constexpr std::size_t kFirstPart = 1000;
#endif

TEST_F(HttpStreamsEndToEndTest, AStopFromAnotherThreadEndsACopyBetweenChunks) {
  tq::test::RawResponder responder([](tq::test::RawConnection& connection) {
    connection.ReadRequestHead();
    connection.Send("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(kFirstPart + 1000) +
                    "\r\n\r\n" + std::string(kFirstPart, 'a'));
    connection.Stall();
    connection.Send(std::string(1000, 'b'));
  });
  ASSERT_TRUE(responder.ok());
  auto source = HttpReadStream::Open(Wide(responder.Url("/slow")), 0, {});
  ASSERT_TRUE(source->Succeeded());

  qv::stop_source stop;
  SignallingTarget target;
  qv::net::CopyStreamResult result;
  std::thread copier([&] { result = qv::net::CopyStream(*source, target, stop.get_token()); });
  // The copy is now waiting for bytes the server holds back.
  EXPECT_TRUE(target.first_write.Wait());
  stop.request_stop();
  responder.Release();
  copier.join();
  EXPECT_FALSE(result.completed);
  EXPECT_EQ(result.bytes_copied, target.bytes.size());
  EXPECT_GE(result.bytes_copied, kFirstPart);
  EXPECT_EQ(tq::test::TextBeyondWine(m_log), "");
}

TEST_F(HttpStreamsEndToEndTest, BadInputEndsInNullOrEmptyNeverACrash) {
  for (const wchar_t* name : {L"http://", L"http://[::1/x", L"gopher://example.test/x",
                              L"HTTP://127.0.0.1:1/x", L"/no/such/dir/tq_missing_file.bin",
                              L"file:///no/such/dir/tq_missing_file.bin"}) {
    EXPECT_EQ(qv::net::OpenFileOrUrl(name, 0, {}), nullptr) << qv::WideToUtf8(name);
  }
  // Nothing listens there: the connection is made lazily, so the send fails: an empty stream.
  auto refused = qv::net::OpenFileOrUrl(L"http://127.0.0.1:1/x", 0, {});
  ASSERT_NE(refused, nullptr);
  EXPECT_EQ(tq::test::ReadAll(*refused), "");
}

// A body that ends before its Content-Length is a failed read, never a whole body: a copy of it
// must not be taken (or cached) as the file. Wine's WinINet reports such an end as the end of
// the body (tests/WINDOWS.md).
TEST_F(HttpStreamsEndToEndTest, ABodyCutShortIsAReadErrorNotAShortBody) {
  if (tq::test::IsWine()) GTEST_SKIP() << "Wine's InternetReadFile ends a cut body without error";
  tq::test::RawResponder responder([](tq::test::RawConnection& connection) {
    connection.ReadRequestHead();
    connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n" + std::string(500, 'x'));
    connection.Close();
  });
  ASSERT_TRUE(responder.ok());
  auto source = HttpReadStream::Open(Wide(responder.Url("/cut")), 0, {});
  ASSERT_TRUE(source->Succeeded());
  EXPECT_THROW(tq::test::ReadAll(*source), qv::net::http_exception);
  source.reset();
  EXPECT_EQ(qv::net::OpenFileOrUrl(Wide(responder.Url("/cut")), 0, {}), nullptr);
  EXPECT_THAT(m_log.Lines(), ElementsAre("Failed to read or write stream in CopyStream: Unable to "
                                         "read HTTP data\n",
                                         "\n"));
  qv::net::HttpConnectionPool::Terminate();
}

}  // namespace
