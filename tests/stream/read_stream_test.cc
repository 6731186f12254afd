#include "net/stream/read_stream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "net/http/http_status.h"
#include "tests/support/fake_transport_fixture.h"

namespace {

using namespace std::chrono_literals;
using qv::net::HttpHeader;
using qv::net::HttpMethod;
using qv::net::HttpReadStream;
using qv::net::HttpRequest;
using qv::net::HttpStatus;
using tq::test::CountingHandler;
using tq::test::FakeResponse;
using tq::test::ScopedHandler;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const wchar_t* kUrl = L"http://example.test/file.bin";
const std::string kSend = "Send GET http://example.test/file.bin";
const std::string kSendHead = "Send HEAD http://example.test/file.bin";

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

// Runs `open` and returns the what() of the http_exception it throws ("" if none).
template <typename F>
std::string ThrownText(F open) {
  try {
    open();
  } catch (const qv::net::http_exception& e) {
    return e.what();
  }
  return "";
}

class HttpReadStreamTest : public tq::test::FakeTransportTest {};

TEST_F(HttpReadStreamTest, GetDeliversBodySizeAndTagAndClosesItsRequestOnDestruction) {
  CountingHandler handler;
  ScopedHandler scoped(&handler);
  m_api.Queue(Status(200).Header(L"Content-Length", L"11").Header(L"ETag", L"\"v1\"")
                  .Body("hello ").Body("world"));

  auto stream = HttpReadStream::Open(kUrl, 0, {});
  EXPECT_TRUE(stream->IsOpen());
  EXPECT_TRUE(stream->Succeeded());
  EXPECT_EQ(stream->QueryStatusCode(), HttpStatus::OK);
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

  // A 5 GB body: the 32-bit numeric query cannot carry it, the header's text can.
  m_api.Queue(Status(200).Header(L"Content-Length", L"5000000000"));
  EXPECT_EQ(HttpReadStream::Open(kUrl, 0, {})->ContentSize(), 5000000000u);

  // A tag is handed on exactly as the transport gives it, in UTF-8.
  m_api.Queue(Status(200).Header(L"ETag", L"W/\"caf\u00e9\""));
  EXPECT_EQ(HttpReadStream::Open(kUrl, 0, {})->ETag(), "W/\"caf\xC3\xA9\"");
}

TEST_F(HttpReadStreamTest, HeadFirstLearnsSizeAndTagAndRunsHandlersTwice) {
  CountingHandler handler;
  ScopedHandler scoped(&handler);

  // The HEAD's values stay; the GET does not ask again.
  m_api.Queue(Status(200).Header(L"Content-Length", L"100").Header(L"ETag", L"\"head\""));
  m_api.Queue(Status(200).Header(L"ETag", L"\"get\""));
  {
    auto stream = HttpReadStream::Open(kUrl, HttpReadStream::FlagMakeHeadRequest, {});
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
  EXPECT_EQ(HttpReadStream::Open(kUrl, HttpReadStream::FlagMakeHeadRequest, {})->ContentSize(),
            100u);
  EXPECT_EQ(handler.Count(), 4);
  EXPECT_EQ(m_log.Text(), "");
}

TEST_F(HttpReadStreamTest, FailedHeadIsIgnoredSilentlyAndOnlyTheGetIsLogged) {
  m_api.Queue(Status(405).Header(L"Content-Length", L"7"));
  m_api.Queue(Status(200).Body("payload"));
  auto stream = HttpReadStream::Open(kUrl, HttpReadStream::FlagMakeHeadRequest, {});
  EXPECT_TRUE(stream->Succeeded());
  EXPECT_FALSE(stream->ContentSize().has_value()) << "a size from a 405 HEAD is not learnt";
  EXPECT_EQ(ReadAll(*stream), "payload");
  EXPECT_EQ(m_log.Text(), "");

  m_api.Queue(Status(404));
  m_api.Queue(Status(404));
  auto missing = HttpReadStream::Open(kUrl, HttpReadStream::FlagMakeHeadRequest, {});
  EXPECT_FALSE(missing->Succeeded());
  EXPECT_THAT(m_log.Lines(),
              ElementsAre("Error: HTTP Response 404 for GET http://example.test/file.bin\n"));
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
  EXPECT_TRUE(refused->IsOpen());
  EXPECT_FALSE(refused->Succeeded());
  EXPECT_EQ(refused->QueryStatusCode(), HttpStatus::TooManyRequests);
  EXPECT_THAT(Sleeps(), ElementsAre(30000ms)) << "no wait for 31 s";
  EXPECT_EQ(m_api.CountCalls("Send"), 3);
  EXPECT_THAT(m_log.Lines(),
              ElementsAre("Error: HTTP Response 429 for GET http://example.test/file.bin\n"));
  refused.reset();

  m_api.Queue(Status(429).Header(L"Retry-After", L"0"));
  m_api.Queue(Status(200));
  EXPECT_TRUE(HttpReadStream::Open(kUrl, 0, {})->Succeeded());
  EXPECT_THAT(Sleeps(), ElementsAre(30000ms)) << "Retry-After 0 retries without waiting";
  EXPECT_EQ(m_api.CountCalls("Send"), 5);
}

TEST_F(HttpReadStreamTest, SixTooManyRequestsWaitTwoToTenSecondsAndTheSixthIsTheAnswer) {
  for (int i = 0; i < 6; ++i) m_api.Queue(Status(429));
  auto stream = HttpReadStream::Open(kUrl, 0, {});
  EXPECT_THAT(Sleeps(), ElementsAre(2s, 4s, 6s, 8s, 10s));
  EXPECT_EQ(m_api.CountCalls("Send"), 6);
  EXPECT_EQ(m_api.CloseCount(), 5) << "each answer retried is closed before the next send";
  EXPECT_TRUE(stream->IsOpen());
  EXPECT_FALSE(stream->Succeeded());
  EXPECT_EQ(stream->QueryStatusCode(), HttpStatus::TooManyRequests);
  EXPECT_THAT(m_log.Lines(),
              ElementsAre("Error: HTTP Response 429 for GET http://example.test/file.bin\n"));
}

TEST_F(HttpReadStreamTest, SixBadGatewaysWait50To250MillisecondsAndTheSixthIsTheAnswer) {
  for (int i = 0; i < 6; ++i) m_api.Queue(Status(502));
  auto stream = HttpReadStream::Open(kUrl, 0, {});
  EXPECT_THAT(Sleeps(), ElementsAre(50ms, 100ms, 150ms, 200ms, 250ms));
  EXPECT_EQ(m_api.CountCalls("Send"), 6);
  EXPECT_EQ(stream->QueryStatusCode(), HttpStatus::BadGateway);
  EXPECT_FALSE(stream->Succeeded());
  EXPECT_THAT(m_log.Lines(),
              ElementsAre("Error: HTTP Response 502 for GET http://example.test/file.bin\n"));
}

TEST_F(HttpReadStreamTest, BadGatewayAndTooManyRequestsShareOneRetryCount) {
  m_api.Queue(Status(502));
  m_api.Queue(Status(429));
  m_api.Queue(Status(200));
  EXPECT_TRUE(HttpReadStream::Open(kUrl, 0, {})->Succeeded());
  EXPECT_THAT(Sleeps(), ElementsAre(50ms, 4s));

  // Alternating: the allowance is spent after five retries whatever their status, so the sixth
  // answer is final (a seventh send would be an unscripted request).
  for (std::uint32_t status : {502, 429, 502, 429, 502, 429}) m_api.Queue(Status(status));
  auto stream = HttpReadStream::Open(kUrl, 0, {});
  EXPECT_EQ(stream->QueryStatusCode(), HttpStatus::TooManyRequests);
  EXPECT_THAT(Sleeps(), ElementsAre(50ms, 4s, 50ms, 4s, 150ms, 8s, 250ms));
  EXPECT_EQ(m_api.CountCalls("Send"), 3 + 6);
}

TEST_F(HttpReadStreamTest, StopOrNoConnectionBeforeTheFirstSendThrows) {
  m_api.FailNextConnects(1);
  EXPECT_EQ(ThrownText([&] { HttpReadStream::Open(kUrl, 0, {}); }),
            "Unable to create HTTP connection\n");

  qv::stop_source source;
  source.request_stop();
  EXPECT_EQ(ThrownText([&] { HttpReadStream::Open(kUrl, 0, source.get_token()); }),
            "Unable to create HTTP connection\n");

  HttpRequest request(kUrl, HttpMethod::Get);
  EXPECT_EQ(ThrownText([&] { HttpReadStream::Open(request, source.get_token()); }),
            "Unable to create HTTP connection\n");
  EXPECT_THAT(StreamCalls(), IsEmpty()) << "nothing is sent";
}

TEST_F(HttpReadStreamTest, StopDuringTheHeadExchangeSendsTheGetOnceAndClosesIt) {
  qv::stop_source source;
  m_api.OnSend([&](const tq::test::SentRequest& sent) {
    if (sent.method == L"HEAD") source.request_stop();
  });
  m_api.Queue(Status(200).Header(L"Content-Length", L"5"));
  m_api.Queue(Status(200));
  auto stream = HttpReadStream::Open(kUrl, HttpReadStream::FlagMakeHeadRequest, source.get_token());
  EXPECT_FALSE(stream->IsOpen());
  EXPECT_FALSE(stream->Succeeded());
  EXPECT_EQ(stream->QueryStatusCode(), HttpStatus::Unknown);
  EXPECT_FALSE(stream->ContentSize().has_value());
  EXPECT_EQ(stream->Read(nullptr, 10), 0u);
  EXPECT_THAT(StreamCalls(), ElementsAre(kSendHead, "Close", kSend, "Close"));
}

TEST_F(HttpReadStreamTest, StopDuringARetryWaitClosesTheResentRequest) {
  qv::stop_source source;
  OnSleep([&](std::chrono::milliseconds) { source.request_stop(); });
  m_api.Queue(Status(502));
  m_api.Queue(Status(200));
  auto stream = HttpReadStream::Open(kUrl, 0, source.get_token());
  EXPECT_FALSE(stream->IsOpen());
  EXPECT_FALSE(stream->Succeeded());
  EXPECT_EQ(stream->QueryStatusCode(), HttpStatus::BadGateway) << "the last status read";
  EXPECT_THAT(StreamCalls(), ElementsAre(kSend, "Status", "Close", kSend, "Close"));
  EXPECT_EQ(m_log.Text(), "");
}

TEST_F(HttpReadStreamTest, StopAfterTheRetryLoopLeavesTheRequestOpenButUnsuccessful) {
  qv::stop_source source;
  m_api.on_status = [&] { source.request_stop(); };
  m_api.Queue(Status(200).Header(L"Content-Length", L"4").Body("data"));
  auto stream = HttpReadStream::Open(kUrl, 0, source.get_token());
  m_api.on_status = nullptr;
  EXPECT_TRUE(stream->IsOpen());
  EXPECT_FALSE(stream->Succeeded());
  EXPECT_EQ(stream->QueryStatusCode(), HttpStatus::OK);
  EXPECT_FALSE(stream->ContentSize().has_value());
  EXPECT_EQ(stream->Read(nullptr, 10), 0u);
  stream.reset();
  EXPECT_THAT(StreamCalls(), ElementsAre(kSend, "Status", "Close"));
}

TEST_F(HttpReadStreamTest, RequestsThatCannotBeMadeOrSentEndWithoutException) {
  FakeResponse no_handle;
  no_handle.open_fails = true;
  m_api.Queue(no_handle);
  auto without = HttpReadStream::Open(kUrl, 0, {});
  EXPECT_FALSE(without->IsOpen());
  EXPECT_FALSE(without->Succeeded());
  EXPECT_EQ(without->QueryStatusCode(), HttpStatus::Unknown);
  EXPECT_EQ(without->Read(nullptr, 10), 0u);
  without.reset();
  EXPECT_THAT(StreamCalls(), ElementsAre(kSend));

  FakeResponse unsent;
  unsent.send_fails = true;
  m_api.Queue(unsent);
  auto answered = HttpReadStream::Open(kUrl, 0, {});
  EXPECT_TRUE(answered->IsOpen());
  EXPECT_FALSE(answered->Succeeded());
  EXPECT_EQ(answered->QueryStatusCode(), HttpStatus::Unknown);
  EXPECT_EQ(answered->Read(nullptr, 10), 0u);
  answered.reset();
  EXPECT_THAT(StreamCalls(), ElementsAre(kSend, kSend, "Close")) << "no status is read";

  // A retry whose request cannot be made: without request, the last status kept.
  m_api.Queue(Status(502));
  m_api.Queue(no_handle);
  auto retried = HttpReadStream::Open(kUrl, 0, {});
  EXPECT_FALSE(retried->IsOpen());
  EXPECT_EQ(retried->QueryStatusCode(), HttpStatus::BadGateway);
  EXPECT_EQ(m_log.Text(), "");
}

TEST_F(HttpReadStreamTest, RequestConstructorSendsTheCallersRequestAsHandlersLeftIt) {
  CountingHandler handler;
  handler.AddHeaderOnEachCall(L"X-Handler");
  ScopedHandler scoped(&handler);
  HttpRequest request(kUrl, HttpMethod::Get);
  request.AddHeader(L"If-None-Match", L"\"v1\"");

  // A 502 retried: the handlers do not run again, the same request goes out twice.
  m_api.Queue(Status(502));
  m_api.Queue(Status(304));
  auto stream = HttpReadStream::Open(request, {});
  EXPECT_TRUE(stream->IsOpen());
  EXPECT_FALSE(stream->Succeeded());
  EXPECT_EQ(stream->QueryStatusCode(), HttpStatus::NotModified);
  EXPECT_EQ(stream->Read(nullptr, 10), 0u);
  EXPECT_EQ(handler.Count(), 1);
  EXPECT_EQ(request.FormatHeaders(), L"If-None-Match: \"v1\"\r\nX-Handler: 1");
  const auto sent = m_api.Sent();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].headers, L"If-None-Match: \"v1\"\r\nX-Handler: 1");
  EXPECT_EQ(sent[1].headers, sent[0].headers);
  EXPECT_EQ(m_log.Text(), "") << "304 is not logged";
  stream.reset();

  HttpRequest post(kUrl, HttpMethod::Post);
  m_api.Queue(Status(500));
  HttpReadStream::Open(post, {});
  EXPECT_THAT(m_log.Lines(),
              ElementsAre("Error: HTTP Response 500 for POST http://example.test/file.bin\n"));
}

TEST_F(HttpReadStreamTest, NotFoundReadsNothingAndLogsOneExactLine) {
  m_api.Queue(Status(404).Body("<html>not found</html>"));
  auto stream = HttpReadStream::Open(kUrl, 0, {});
  char buffer[16];
  EXPECT_EQ(stream->Read(buffer, sizeof buffer), 0u);
  EXPECT_EQ(m_api.CountCalls("Read"), 0) << "an unsuccessful stream never reads";
  const auto records = m_log.Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].text, "Error: HTTP Response 404 for GET http://example.test/file.bin\n");
  EXPECT_EQ(records[0].severity, 0);
}

TEST_F(HttpReadStreamTest, ReadFailuresAfterCloseAndMidBodyThrowAndKeepTheState) {
  FakeResponse response = Status(200).Header(L"X-Number", L"42").Body("abc").Body("def");
  response.dates[L"Date"] = 1700000000;
  response.read_fails_after = 1;
  m_api.Queue(response);
  auto stream = HttpReadStream::Open(kUrl, 0, {});
  EXPECT_EQ(stream->QueryHeader(std::wstring(L"x-number")), L"42");
  EXPECT_EQ(stream->QueryHeaderNumeric(std::wstring(L"X-Number")), 42u);
  EXPECT_EQ(stream->QueryHeaderDateTime(std::wstring(L"Date")), 1700000000);

  char buffer[16];
  // A size of 4 GiB or more is served in part, never truncated to a 0-byte read.
  EXPECT_EQ(stream->Read(buffer, std::uint64_t{1} << 32), 3u);
  EXPECT_EQ(ThrownText([&] { stream->Read(buffer, sizeof buffer); }), "Unable to read HTTP data\n");
  EXPECT_TRUE(stream->IsOpen());
  EXPECT_TRUE(stream->Succeeded());

  stream->Close();
  EXPECT_FALSE(stream->IsOpen());
  EXPECT_TRUE(stream->Succeeded());
  EXPECT_EQ(stream->QueryStatusCode(), HttpStatus::OK);
  EXPECT_EQ(ThrownText([&] { stream->Read(buffer, sizeof buffer); }), "Unable to read HTTP data\n");
  EXPECT_FALSE(stream->QueryHeader(HttpHeader::ContentLength).has_value());
  const int closes = m_api.CloseCount();
  stream->Close();
  stream.reset();
  EXPECT_EQ(m_api.CloseCount(), closes) << "closed once only";
}

TEST_F(HttpReadStreamTest, NoTransportInstalledThrowsInsteadOfCrashing) {
  qv::net::IHttpApi* installed = qv::net::SetHttpApi(nullptr);
  const std::string text = ThrownText([&] { HttpReadStream::Open(kUrl, 0, {}); });
  qv::net::SetHttpApi(installed);
  EXPECT_EQ(text, "Unable to create HTTP connection\n");
}

}  // namespace
