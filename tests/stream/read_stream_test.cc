#include "net/stream/read_stream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <tuple>
#include <vector>

#include "net/http/http_status.h"
#include "tests/support/fake_transport_fixture.h"

namespace {

using namespace std::chrono_literals;
using qv::net::HttpMethod;
using qv::net::HttpReadStream;
using qv::net::HttpRequest;
using qv::net::HttpStatus;
using tq::test::CountingHandler;
using tq::test::FakeResponse;
using tq::test::ScopedHandler;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

constexpr const wchar_t* kUrl = L"http://example.test/file.bin";
const std::string kSend = "Send GET http://example.test/file.bin";
const std::string kSendHead = "Send HEAD http://example.test/file.bin";
const std::string kLogPrefix = "Error: HTTP Response ";
const std::string kLogSuffix = " for GET http://example.test/file.bin\n";
const int kHead = HttpReadStream::FlagMakeHeadRequest;

FakeResponse Status(std::uint32_t status) {
  FakeResponse response;
  response.status = status;
  return response;
}

std::string ReadAll(HttpReadStream& stream) {
  std::string body;
  char buffer[64];
  while (const std::uint64_t n = stream.Read(buffer, sizeof buffer)) body.append(buffer, n);
  return body;
}

// The what() of the http_exception `call` throws ("" if none).
template <typename F>
std::string ThrownText(F call) {
  try {
    call();
  } catch (const qv::net::http_exception& e) {
    return e.what();
  }
  return "";
}

// IsOpen, Succeeded and the status, compared in one assertion.
using State = std::tuple<bool, bool, HttpStatus>;
State StateOf(const HttpReadStream& stream) {
  return {stream.IsOpen(), stream.Succeeded(), stream.QueryStatusCode()};
}

class HttpReadStreamTest : public tq::test::FakeTransportTest {};

TEST_F(HttpReadStreamTest, GetDeliversBodySizeAndTagAndClosesItsRequestOnDestruction) {
  CountingHandler handler;
  ScopedHandler scoped(&handler);
  m_api.Queue(Status(200).Header(L"Content-Length", L"11").Header(L"ETag", L"\"v1\"")
                  .Body("hello ").Body("world"));
  auto stream = HttpReadStream::Open(kUrl, 0, {});
  EXPECT_EQ(StateOf(*stream), State(true, true, HttpStatus::OK));
  EXPECT_EQ(stream->ContentSize(), 11u);
  EXPECT_EQ(stream->ETag(), "\"v1\"");
  const qv::io::StreamMetaData meta = stream->MetaData();
  EXPECT_EQ(meta.size, 11u);
  EXPECT_EQ(meta.etag, "\"v1\"");
  EXPECT_FALSE(meta.modified.has_value());
  EXPECT_EQ(ReadAll(*stream), "hello world");
  stream.reset();

  EXPECT_EQ(handler.Count(), 1);
  const auto sent = m_api.Sent();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].method, L"GET");
  EXPECT_THAT(sent[0].accept_types, ElementsAre(L"*/*"));
  EXPECT_THAT(StreamCalls(),
              ElementsAre(kSend, "Status", "Numeric", "Header", "Read", "Read", "Read", "Close"));
  EXPECT_EQ(m_api.OpenRequestHandles(), 0u);
  EXPECT_EQ(m_log.Text(), "");
}

TEST_F(HttpReadStreamTest, ContentSizeIsEmptyWithoutHeaderAndReadFromTextAbove32Bits) {
  m_api.Queue(Status(200).Body("x"));
  auto without = HttpReadStream::Open(kUrl, 0, {});
  EXPECT_TRUE(without->Succeeded());
  EXPECT_FALSE(without->ContentSize().has_value());
  EXPECT_FALSE(without->MetaData().size.has_value());
  EXPECT_FALSE(without->ETag().has_value());
  without.reset();
  // The numeric query finds nothing, the text is asked as well, then the tag.
  EXPECT_THAT(StreamCalls(), ElementsAre(kSend, "Status", "Numeric", "Header", "Header", "Close"));

  // 5 GB does not fit the 32-bit numeric query; the header's text carries it.
  m_api.Queue(Status(200).Header(L"Content-Length", L"5000000000"));
  EXPECT_EQ(HttpReadStream::Open(kUrl, 0, {})->ContentSize(), 5000000000u);
  m_api.Queue(Status(200).Header(L"ETag", L"W/\"caf\u00e9\""));
  EXPECT_EQ(HttpReadStream::Open(kUrl, 0, {})->ETag(), "W/\"caf\xC3\xA9\"");
}

TEST_F(HttpReadStreamTest, HeadFirstLearnsSizeAndTagAndAFailedHeadIsIgnoredSilently) {
  CountingHandler handler;
  ScopedHandler scoped(&handler);
  // The HEAD's values stay; the GET does not ask again.
  m_api.Queue(Status(200).Header(L"Content-Length", L"100").Header(L"ETag", L"\"head\""));
  m_api.Queue(Status(200).Header(L"ETag", L"\"get\""));
  {
    auto stream = HttpReadStream::Open(kUrl, kHead, {});
    EXPECT_TRUE(stream->Succeeded());
    EXPECT_EQ(stream->ContentSize(), 100u);
    EXPECT_EQ(stream->ETag(), "\"head\"");
  }
  EXPECT_EQ(handler.Count(), 2);
  EXPECT_THAT(StreamCalls(), ElementsAre(kSendHead, "Status", "Numeric", "Header", "Close", kSend,
                                         "Status", "Close"));
  // A HEAD without the size: the GET supplies it.
  m_api.Queue(Status(200));
  m_api.Queue(Status(200).Header(L"Content-Length", L"100"));
  EXPECT_EQ(HttpReadStream::Open(kUrl, kHead, {})->ContentSize(), 100u);
  EXPECT_EQ(handler.Count(), 4);

  m_api.Queue(Status(405).Header(L"Content-Length", L"7"));
  m_api.Queue(Status(200).Body("payload"));
  auto refused_head = HttpReadStream::Open(kUrl, kHead, {});
  EXPECT_TRUE(refused_head->Succeeded());
  EXPECT_FALSE(refused_head->ContentSize().has_value()) << "a size from a 405 HEAD is not learnt";
  EXPECT_EQ(ReadAll(*refused_head), "payload");
  EXPECT_EQ(m_log.Text(), "");

  // Only the GET's failure is logged, once, at severity 0; an unsuccessful stream never reads.
  m_api.Queue(Status(404));
  m_api.Queue(Status(404).Body("<html>not found</html>"));
  auto missing = HttpReadStream::Open(kUrl, kHead, {});
  EXPECT_FALSE(missing->Succeeded());
  const int reads = m_api.CountCalls("Read");
  char buffer[16];
  EXPECT_EQ(missing->Read(buffer, sizeof buffer), 0u);
  EXPECT_EQ(m_api.CountCalls("Read"), reads);
  const auto records = m_log.Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].text, kLogPrefix + "404" + kLogSuffix);
  EXPECT_EQ(records[0].severity, 0);
}

TEST_F(HttpReadStreamTest, RetryAfterOf30IsWaitedAnd31IsNotAnd0RetriesAtOnce) {
  m_api.Queue(Status(429).Header(L"Retry-After", L"30"));
  m_api.Queue(Status(200));
  EXPECT_TRUE(HttpReadStream::Open(kUrl, 0, {})->Succeeded());
  EXPECT_THAT(Sleeps(), ElementsAre(30000ms));
  EXPECT_THAT(StreamCalls(), ElementsAre(kSend, "Status", "Numeric", "Close", kSend, "Status",
                                         "Numeric", "Header", "Header", "Close"));
  EXPECT_EQ(m_log.Text(), "");

  m_api.Queue(Status(429).Header(L"Retry-After", L"31"));
  auto refused = HttpReadStream::Open(kUrl, 0, {});
  EXPECT_EQ(StateOf(*refused), State(true, false, HttpStatus::TooManyRequests));
  EXPECT_THAT(Sleeps(), ElementsAre(30000ms)) << "no wait for 31 s";
  EXPECT_EQ(m_api.CountCalls("Send"), 3);
  EXPECT_THAT(m_log.Lines(), ElementsAre(kLogPrefix + "429" + kLogSuffix));
  refused.reset();

  m_api.Queue(Status(429).Header(L"Retry-After", L"0"));
  m_api.Queue(Status(200));
  EXPECT_TRUE(HttpReadStream::Open(kUrl, 0, {})->Succeeded());
  EXPECT_THAT(Sleeps(), ElementsAre(30000ms)) << "Retry-After 0 retries without waiting";
  EXPECT_EQ(m_api.CountCalls("Send"), 5);
}

// 429 waits 2 s more per retry, 502 50 ms more, both by the retry's number in one shared count
// of five retries: the sixth answer is final (a seventh send would be unscripted).
TEST_F(HttpReadStreamTest, TooManyRequestsAndBadGatewayAreRetriedFiveTimesInOneCount) {
  struct Case {
    std::vector<std::uint32_t> statuses;
    std::vector<std::chrono::milliseconds> sleeps;
    HttpStatus final_status;
  };
  const Case cases[] = {
      {{502, 429, 200}, {50ms, 4s}, HttpStatus::OK},
      {{429, 429, 429, 429, 429, 429}, {2s, 4s, 6s, 8s, 10s}, HttpStatus::TooManyRequests},
      {{502, 502, 502, 502, 502, 502}, {50ms, 100ms, 150ms, 200ms, 250ms}, HttpStatus::BadGateway},
      {{502, 429, 502, 429, 502, 429}, {50ms, 4s, 150ms, 8s, 250ms}, HttpStatus::TooManyRequests},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.statuses));
    m_log.Clear();
    const std::size_t sleeps = Sleeps().size();
    const int sends = m_api.CountCalls("Send");
    const int closes = m_api.CloseCount();
    for (const std::uint32_t status : c.statuses) m_api.Queue(Status(status));
    auto stream = HttpReadStream::Open(kUrl, 0, {});
    const auto waited = Sleeps();
    EXPECT_THAT(std::vector(waited.begin() + sleeps, waited.end()), ElementsAreArray(c.sleeps));
    EXPECT_EQ(m_api.CountCalls("Send") - sends, static_cast<int>(c.statuses.size()));
    EXPECT_EQ(m_api.CloseCount() - closes, static_cast<int>(c.statuses.size()) - 1)
        << "each answer retried is closed before the next send";
    EXPECT_TRUE(stream->IsOpen());
    EXPECT_EQ(stream->QueryStatusCode(), c.final_status);
    const bool ok = c.final_status == HttpStatus::OK;
    EXPECT_EQ(stream->Succeeded(), ok);
    EXPECT_EQ(m_log.Text(), ok ? "" : kLogPrefix + std::to_string(c.statuses.back()) + kLogSuffix);
  }
}

TEST_F(HttpReadStreamTest, StopNoConnectionOrNoTransportBeforeTheFirstSendThrows) {
  const std::string kNoConnection = "Unable to create HTTP connection\n";
  m_api.FailNextConnects(1);
  EXPECT_EQ(ThrownText([&] { HttpReadStream::Open(kUrl, 0, {}); }), kNoConnection);
  qv::stop_source source;
  source.request_stop();
  EXPECT_EQ(ThrownText([&] { HttpReadStream::Open(kUrl, 0, source.get_token()); }), kNoConnection);
  HttpRequest request(kUrl, HttpMethod::Get);
  EXPECT_EQ(ThrownText([&] { HttpReadStream::Open(request, source.get_token()); }), kNoConnection);
  EXPECT_THAT(StreamCalls(), IsEmpty()) << "nothing is sent";

  qv::net::IHttpApi* installed = qv::net::SetHttpApi(nullptr);
  const std::string text = ThrownText([&] { HttpReadStream::Open(kUrl, 0, {}); });
  qv::net::SetHttpApi(installed);
  EXPECT_EQ(text, kNoConnection);
}

// A stop during the HEAD still sends the GET once; during a retry wait the resent request is
// closed and the last status kept; after the retry loop looked at the token for the last time
// the request stays open but unsuccessful. Every request sent is closed.
TEST_F(HttpReadStreamTest, StopDuringTheExchangeClosesEveryRequestSent) {
  struct Case {
    const char* when;
    int flags;
    std::vector<FakeResponse> script;
    State state;
    std::vector<std::string> calls;
  };
  const Case cases[] = {
      {"HEAD", kHead, {Status(200).Header(L"Content-Length", L"5"), Status(200)},
       {false, false, HttpStatus::Unknown}, {kSendHead, "Close", kSend, "Close"}},
      {"retry wait", 0, {Status(502), Status(200)},
       {false, false, HttpStatus::BadGateway}, {kSend, "Status", "Close", kSend, "Close"}},
      {"status", 0, {Status(200).Header(L"Content-Length", L"4").Body("data")},
       {true, false, HttpStatus::OK}, {kSend, "Status", "Close"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.when);
    qv::stop_source source;
    const std::string when = c.when;
    m_api.OnSend([&](const tq::test::SentRequest& sent) {
      if (when == "HEAD" && sent.method == L"HEAD") source.request_stop();
    });
    OnSleep([&](std::chrono::milliseconds) { source.request_stop(); });
    m_api.on_status = [&] { if (when == "status") source.request_stop(); };
    for (const FakeResponse& response : c.script) m_api.Queue(response);
    const std::size_t before = StreamCalls().size();
    auto stream = HttpReadStream::Open(kUrl, c.flags, source.get_token());
    m_api.on_status = nullptr;
    EXPECT_EQ(StateOf(*stream), c.state);
    EXPECT_FALSE(stream->ContentSize().has_value());
    EXPECT_EQ(stream->Read(nullptr, 10), 0u);
    stream.reset();
    const auto calls = StreamCalls();
    EXPECT_EQ(std::vector(calls.begin() + before, calls.end()), c.calls);
  }
  EXPECT_EQ(m_log.Text(), "");
}

TEST_F(HttpReadStreamTest, RequestsThatCannotBeMadeOrSentEndWithoutException) {
  FakeResponse no_handle;
  no_handle.open_fails = true;
  m_api.Queue(no_handle);
  auto without = HttpReadStream::Open(kUrl, 0, {});
  EXPECT_EQ(StateOf(*without), State(false, false, HttpStatus::Unknown));
  EXPECT_EQ(without->Read(nullptr, 10), 0u);
  without.reset();
  EXPECT_THAT(StreamCalls(), ElementsAre(kSend));

  FakeResponse unsent;
  unsent.send_fails = true;
  m_api.Queue(unsent);
  auto answered = HttpReadStream::Open(kUrl, 0, {});
  EXPECT_EQ(StateOf(*answered), State(true, false, HttpStatus::Unknown));
  EXPECT_EQ(answered->Read(nullptr, 10), 0u);
  answered.reset();
  EXPECT_THAT(StreamCalls(), ElementsAre(kSend, kSend, "Close")) << "no status is read";

  // A retry whose request cannot be made: no request, the last status kept.
  m_api.Queue(Status(502));
  m_api.Queue(no_handle);
  auto retried = HttpReadStream::Open(kUrl, 0, {});
  EXPECT_FALSE(retried->IsOpen());
  EXPECT_EQ(retried->QueryStatusCode(), HttpStatus::BadGateway);
  EXPECT_EQ(m_log.Text(), "");
}

TEST_F(HttpReadStreamTest, ConditionalRequestIsSentAsHandlersLeftItAnd304IsNotLogged) {
  CountingHandler handler;
  handler.AddHeaderOnEachCall(L"X-Handler");
  ScopedHandler scoped(&handler);
  HttpRequest request(kUrl, HttpMethod::Get);
  request.AddHeader(L"If-None-Match", L"\"v1\"");
  // A 502 retried: the handlers do not run again, the same request goes out twice.
  m_api.Queue(Status(502));
  m_api.Queue(Status(304));
  auto stream = HttpReadStream::Open(request, {});
  EXPECT_EQ(StateOf(*stream), State(true, false, HttpStatus::NotModified));
  EXPECT_EQ(stream->Read(nullptr, 10), 0u);
  EXPECT_EQ(handler.Count(), 1);
  EXPECT_EQ(request.FormatHeaders(), L"If-None-Match: \"v1\"\r\nX-Handler: 1");
  const auto sent = m_api.Sent();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].headers, L"If-None-Match: \"v1\"\r\nX-Handler: 1");
  EXPECT_EQ(sent[1].headers, sent[0].headers);
  EXPECT_EQ(m_log.Text(), "");
  stream.reset();

  HttpRequest post(kUrl, HttpMethod::Post);
  m_api.Queue(Status(500));
  HttpReadStream::Open(post, {});
  EXPECT_THAT(m_log.Lines(),
              ElementsAre("Error: HTTP Response 500 for POST http://example.test/file.bin\n"));
}

TEST_F(HttpReadStreamTest, ReadFailuresAfterCloseAndMidBodyThrowAndKeepTheState) {
  FakeResponse response = Status(200).Header(L"Content-Length", L"6").Body("abc").Body("def");
  response.read_fails_after = 1;
  m_api.Queue(response);
  auto stream = HttpReadStream::Open(kUrl, 0, {});
  char buffer[16];
  // A size of 4 GiB or more is served in part, never truncated to a 0-byte read.
  EXPECT_EQ(stream->Read(buffer, std::uint64_t{1} << 32), 3u);
  EXPECT_EQ(ThrownText([&] { stream->Read(buffer, sizeof buffer); }), "Unable to read HTTP data\n");
  EXPECT_TRUE(stream->IsOpen());
  EXPECT_TRUE(stream->Succeeded());

  stream->Close();
  EXPECT_EQ(StateOf(*stream), State(false, true, HttpStatus::OK));
  EXPECT_EQ(ThrownText([&] { stream->Read(buffer, sizeof buffer); }), "Unable to read HTTP data\n");
  EXPECT_FALSE(stream->QueryHeader(qv::net::HttpHeader::ContentLength).has_value());
  const int closes = m_api.CloseCount();
  stream->Close();
  stream.reset();
  EXPECT_EQ(m_api.CloseCount(), closes) << "closed once only";
}

}  // namespace
