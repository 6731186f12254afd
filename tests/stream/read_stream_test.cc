#include "net/stream/read_stream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "net/http/http_status.h"
#include "net/stream/url_reading.h"
#include "tests/support/fake_transport_fixture.h"
#include "tests/support/latch.h"
#include "tests/support/read_all.h"

namespace {

using namespace std::chrono_literals;
using qv::net::HttpReadStream;
using qv::net::HttpStatus;
using tq::test::CountingHandler;
using tq::test::FakeResponse;
using tq::test::ScopedHandler;
using ::testing::ElementsAreArray;

constexpr const wchar_t* kUrl = L"http://example.test/file.bin";
const std::string kLogSuffix = " for GET http://example.test/file.bin\n";

FakeResponse Status(std::uint32_t status) {
  FakeResponse response;
  response.status = status;
  return response;
}

class HttpReadStreamTest : public tq::test::FakeTransportTest {};

TEST_F(HttpReadStreamTest, HeadFirstLearnsTheSizeButNotFromA405AndAHugeSizeIsNotReserved) {
  CountingHandler handler;
  ScopedHandler scoped(&handler);
  m_api.Queue(Status(200).Header(L"Content-Length", L"100").Header(L"ETag", L"\"head\""));
  m_api.Queue(Status(200).Header(L"ETag", L"\"get\""));
  auto stream = HttpReadStream::Open(kUrl, HttpReadStream::FlagMakeHeadRequest, {});
  EXPECT_TRUE(stream->Succeeded());
  EXPECT_EQ(stream->ContentSize(), 100u);
  EXPECT_EQ(stream->ETag(), "\"head\"");
  EXPECT_EQ(handler.Count(), 2) << "the handlers run for the HEAD and for the GET";
  stream->Close();
  char byte = 0;
  EXPECT_THROW(stream->Read(&byte, 1), qv::net::http_exception) << "no request left to read";

  m_api.Queue(Status(405).Header(L"Content-Length", L"7"));
  m_api.Queue(Status(200).Body("payload"));
  stream = HttpReadStream::Open(kUrl, HttpReadStream::FlagMakeHeadRequest, {});
  EXPECT_FALSE(stream->ContentSize().has_value()) << "a size from a 405 HEAD is not learnt";
  EXPECT_EQ(tq::test::ReadAll(*stream, 64), "payload");

  // 5 GB does not fit the 32-bit numeric query; the header's text carries it.
  m_api.Queue(Status(200).Header(L"Content-Length", L"5000000000"));
  EXPECT_EQ(HttpReadStream::Open(kUrl, 0, {})->ContentSize(), 5000000000u);

  // Regression: the announced length was reserved up front, so 8 GiB announced for a 10 KiB
  // body took 8 GiB of address space, and a larger claim threw std::bad_alloc.
  const std::string body(10 * 1024, 'b');
  for (const wchar_t* announced : {L"8589934592", L"18446744073709551615"}) {
    m_api.Queue(Status(200).Header(L"Content-Length", announced).Body(body));
    auto memory = qv::net::ReadUrlIntoMemory(kUrl, {});
    ASSERT_NE(memory, nullptr);
    const auto& bytes = memory->Sink()->bytes;
    EXPECT_TRUE(std::string(bytes.begin(), bytes.end()) == body);
    EXPECT_LE(bytes.capacity(), qv::net::kMostReservedUpFront);
  }
  EXPECT_EQ(m_log.Text(), "");
}

// A URL that cannot be opened or read into memory is null with one log line.
TEST_F(HttpReadStreamTest, AUrlThatCannotBeOpenedOrReadIntoMemoryIsNullWithOneLogLine) {
  const std::string url = qv::WideToUtf8(kUrl);
  m_api.FailNextConnects(1);
  EXPECT_EQ(qv::net::ReadUrlIntoMemory(kUrl, {}), nullptr);
  EXPECT_EQ(m_log.Text(),
            "Failed to open stream for URL: " + url + ": Unable to create HTTP connection\n\n");
  m_log.Clear();
  m_api.Queue(Status(200).Body("body"));
  m_api.on_read = [] { throw std::logic_error(""); };  // no text: named as unknown
  EXPECT_EQ(qv::net::ReadUrlIntoMemory(kUrl, {}), nullptr);
  m_api.on_read = {};
  EXPECT_EQ(m_log.Text(), "Failed to read URL: " + url + ": Unknown exception\n");
}

// 429 waits 2 s more per retry, 502 50 ms more, in one shared count of five retries; a
// Retry-After of up to 30 s replaces the wait, a longer one is not retried. A retry resends the
// caller's headers and those the handlers left without running them again; a 304 is not logged.
TEST_F(HttpReadStreamTest, TooManyRequestsAndBadGatewayRetriesAreBoundedAndHonourRetryAfter) {
  struct Case {
    std::vector<FakeResponse> script;
    std::vector<std::chrono::milliseconds> sleeps;
    HttpStatus final_status;
  };
  auto retry_after = [](const wchar_t* seconds) {
    return Status(429).Header(L"Retry-After", seconds);
  };
  const Case cases[] = {
      {{Status(502), Status(429), Status(200)}, {50ms, 4s}, HttpStatus::OK},
      {std::vector(6, Status(429)), {2s, 4s, 6s, 8s, 10s}, HttpStatus::TooManyRequests},
      {std::vector(6, Status(502)), {50ms, 100ms, 150ms, 200ms, 250ms}, HttpStatus::BadGateway},
      {{retry_after(L"30"), Status(200)}, {30s}, HttpStatus::OK},
      {{retry_after(L"31")}, {}, HttpStatus::TooManyRequests},
      {{retry_after(L"0"), Status(200)}, {}, HttpStatus::OK},
      // Past 32 bits the header gives no number: the default wait, not a count cut to 32 bits.
      {{retry_after(L"4294967326"), Status(200)}, {2s}, HttpStatus::OK},
      {{Status(502), Status(304)}, {50ms}, HttpStatus::NotModified},
  };
  CountingHandler handler;
  handler.AddHeaderOnEachCall(L"X-Handler");
  ScopedHandler scoped(&handler);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.script.size());
    m_log.Clear();
    const std::size_t sleeps = Sleeps().size();
    const std::size_t sends = m_api.Sent().size();
    const int closes = m_api.CloseCount();
    const int handled = handler.Count();
    for (const FakeResponse& response : c.script) m_api.Queue(response);
    qv::net::HttpRequest request(kUrl, qv::net::HttpMethod::Get);  // the handlers amend it
    request.AddHeader(L"If-None-Match", L"\"v1\"");
    auto stream = HttpReadStream::Open(request, {});
    const auto waited = Sleeps();
    EXPECT_THAT(std::vector(waited.begin() + sleeps, waited.end()), ElementsAreArray(c.sleeps));
    const auto sent = m_api.Sent();
    EXPECT_EQ(sent.size() - sends, c.script.size());
    for (std::size_t i = sends; i < sent.size(); ++i) {
      EXPECT_EQ(sent[i].headers, L"If-None-Match: \"v1\"\r\nX-Handler: 1");
    }
    EXPECT_EQ(handler.Count() - handled, 1) << "the handlers do not run again for a retry";
    EXPECT_EQ(m_api.CloseCount() - closes, static_cast<int>(c.script.size()) - 1)
        << "each answer retried is closed before the next send";
    EXPECT_EQ(stream->QueryStatusCode(), c.final_status);
    const bool ok = c.final_status == HttpStatus::OK;
    EXPECT_EQ(stream->Succeeded(), ok);
    EXPECT_EQ(m_log.Text(), ok || c.final_status == HttpStatus::NotModified
                                ? ""
                                : "Error: HTTP Response " +
                                      std::to_string(c.script.back().status) + kLogSuffix);
  }
}

// Regression: a 200 carrying two different Content-Length values was served (and stored by the
// cache). Lengths that agree, as numbers, are fine; a HEAD whose lengths differ teaches nothing.
TEST_F(HttpReadStreamTest, ContentLengthValuesThatDifferMakeTheAnswerUnusable) {
  const std::string kLine =
      "Error: HTTP Response with differing Content-Length values" + kLogSuffix;
  struct Case {
    std::vector<const wchar_t*> lengths;
    bool usable;
  };
  const Case cases[] = {
      {{L"400", L"10"}, false},       {{L"10", L"x"}, false}, {{L"10", L"10", L"20"}, false},
      {{L"10", L"10"}, true},         {{L"10", L"010"}, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.lengths.size());
    m_log.Clear();
    FakeResponse response = Status(200).Body("0123456789");
    for (const wchar_t* length : c.lengths) response.Header(L"Content-Length", length);
    m_api.Queue(response);
    auto stream = HttpReadStream::Open(kUrl, 0, {});
    EXPECT_EQ(stream->Succeeded(), c.usable);
    EXPECT_TRUE(stream->IsOpen());
    EXPECT_EQ(stream->QueryStatusCode(), HttpStatus::OK);
    EXPECT_EQ(tq::test::ReadAll(*stream, 64), c.usable ? "0123456789" : "");
    EXPECT_EQ(stream->ContentSize().has_value(), c.usable);
    EXPECT_EQ(m_log.Text(), c.usable ? "" : kLine);
  }

  m_log.Clear();
  m_api.Queue(Status(200).Header(L"Content-Length", L"400").Header(L"Content-Length", L"10"));
  m_api.Queue(Status(200).Header(L"Content-Length", L"7").Body("payload"));
  auto head_first = HttpReadStream::Open(kUrl, HttpReadStream::FlagMakeHeadRequest, {});
  EXPECT_TRUE(head_first->Succeeded());
  EXPECT_EQ(head_first->ContentSize(), 7u) << "the size comes from the GET";
  EXPECT_EQ(m_log.Text(), "") << "nothing is logged for a HEAD";
}

// A stop while the send (or the wait for the answer's headers) blocks in the transport closes
// the request handle from the watcher thread; a stop during the pause before a retry ends the
// pause. Either way the stream ends without a request and sends nothing more. A stop before
// the first send throws and sends nothing.
TEST_F(HttpReadStreamTest, AStopDuringABlockedSendOrARetryPauseEndsWithoutAnotherSend) {
  enum class Open { Url, HeadFirst, Request, RetryPause, Before };
  for (const Open open : {Open::Url, Open::HeadFirst, Open::Request, Open::RetryPause,
                          Open::Before}) {
    SCOPED_TRACE(static_cast<int>(open));
    const int closes = m_api.CloseCount();
    const int sends = m_api.CountCalls("Send");
    qv::stop_source source;
    tq::test::Latch blocked(1);
    m_api.OnBlocked([&] { blocked.count_down(); });
    auto previous = qv::net::detail::SetRetrySleepForTesting(
        [&](std::chrono::milliseconds) { source.request_stop(); });
    FakeResponse blocking;
    blocking.block_until_closed = true;
    if (open == Open::Before) {
      source.request_stop();
    } else {
      m_api.Queue(open == Open::RetryPause ? Status(502) : blocking);
    }
    // The GET after a cancelled HEAD is still made once, and closed at once.
    if (open == Open::HeadFirst) m_api.Queue(Status(200).Body("never read"));
    std::thread user([&] {
      if (open == Open::RetryPause || open == Open::Before) return;
      blocked.wait();
      source.request_stop();  // the user presses cancel while the send blocks
    });
    std::unique_ptr<HttpReadStream> stream;
    qv::net::HttpRequest request(kUrl, qv::net::HttpMethod::Get);
    try {
      stream = open == Open::Request ? HttpReadStream::Open(request, source.get_token())
               : HttpReadStream::Open(kUrl, open == Open::HeadFirst
                                                ? HttpReadStream::FlagMakeHeadRequest : 0,
                                      source.get_token());
    } catch (const qv::net::http_exception& e) {
      EXPECT_EQ(open, Open::Before);
      EXPECT_STREQ(e.what(), "Unable to create HTTP connection\n");
    }
    user.join();
    qv::net::detail::SetRetrySleepForTesting(std::move(previous));
    if (open == Open::Before) {
      EXPECT_EQ(stream, nullptr);
      EXPECT_EQ(m_api.CountCalls("Send"), sends) << "nothing is sent";
      continue;
    }
    ASSERT_NE(stream, nullptr);
    EXPECT_FALSE(stream->IsOpen());
    EXPECT_FALSE(stream->Succeeded());
    EXPECT_EQ(stream->QueryStatusCode(),
              open == Open::RetryPause ? HttpStatus::BadGateway : HttpStatus::Unknown)
        << "the last status read";
    const int expected_sends = open == Open::HeadFirst ? 2 : 1;
    EXPECT_EQ(m_api.CountCalls("Send") - sends, expected_sends);
    EXPECT_EQ(m_api.CloseCount() - closes, expected_sends) << "each handle closed exactly once";
  }
  m_api.OnBlocked({});
  EXPECT_EQ(m_log.Text(), "");
}

}  // namespace
