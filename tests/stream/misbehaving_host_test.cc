// Host code that misbehaves: a replaceable transport that throws, reports more than it was asked
// for, or ignores the header index. The library must neither leak a handle, nor end the process,
// nor hand out bytes it does not have.
#include "net/stream/read_stream.h"

#include <gtest/gtest.h>

#include <cwctype>
#include <memory>
#include <stdexcept>
#include <string>

#include "net/http/connection_pool.h"
#include "tests/support/fake_transport_fixture.h"
#include "tests/support/read_all.h"

namespace {

using qv::net::HttpReadStream;
using tq::test::FakeResponse;

constexpr const wchar_t* kUrl = L"http://example.test/file.bin";

// Forwards to the scripted fake; the call numbered `throw_at` (CloseHandle not counted) throws
// instead, and a read may report more bytes than it was asked for.
class ThrowingApi : public qv::net::IHttpApi {
 public:
  using Selector = qv::net::HttpHeaderSelector;
  explicit ThrowingApi(qv::net::IHttpApi& inner) : m_inner(inner) {}
  long throw_at = -1;
  long calls = 0;
  std::uint32_t read_extra = 0;
  bool close_throws = false;  // CloseHandle closes, then throws
  bool ignore_index = false;  // header queries answer the first copy, whatever index is asked
  // Numbers read as WinINet reads them: the leading digits, a leading '-' wrapping modulo 2^32.
  bool lenient_numbers = false;

  void* OpenInternet(const wchar_t* agent) override { return Count(), m_inner.OpenInternet(agent); }
  void* Connect(void* internet, const TqUURL& url) override {
    return Count(), m_inner.Connect(internet, url);
  }
  void* SendRequest(void* connection, const qv::net::HttpRequest& request,
                    const wchar_t** accept_types, bool& sent) override {
    Count();
    return m_inner.SendRequest(connection, request, accept_types, sent);
  }
  std::uint32_t QueryStatusCode(void* request) override {
    return Count(), m_inner.QueryStatusCode(request);
  }
  std::optional<std::wstring> QueryHeader(void* request, const Selector& header,
                                          std::uint32_t* index) override {
    return Count(), m_inner.QueryHeader(request, header, ignore_index ? nullptr : index);
  }
  std::optional<std::uint32_t> QueryHeaderNumeric(void* request, const Selector& header,
                                                  std::uint32_t* index) override {
    Count();
    if (!lenient_numbers) return m_inner.QueryHeaderNumeric(request, header, index);
    const std::optional<std::wstring> text = m_inner.QueryHeader(request, header, index);
    if (!text) return std::nullopt;
    std::size_t i = text->find_first_not_of(L" \t");
    const bool negative = i < text->size() && (*text)[i] == L'-';
    std::uint32_t value = 0;
    for (i += negative; i < text->size() && std::iswdigit((*text)[i]); ++i) {
      value = value * 10 + static_cast<std::uint32_t>((*text)[i] - L'0');
    }
    return negative ? 0u - value : value;
  }
  std::optional<std::int64_t> QueryHeaderDateTime(void* request, const Selector& header,
                                                  std::uint32_t* index) override {
    return Count(), m_inner.QueryHeaderDateTime(request, header, index);
  }
  bool Read(void* request, void* buffer, std::uint32_t size, std::uint32_t& read) override {
    Count();
    const bool ok = m_inner.Read(request, buffer, size, read);
    if (ok && read != 0) read += read_extra;
    return ok;
  }
  bool CloseHandle(void* handle) override {
    const bool closed = m_inner.CloseHandle(handle);
    if (close_throws) throw std::runtime_error("close threw");
    return closed;
  }

 private:
  void Count() {
    if (calls++ == throw_at) throw std::runtime_error("transport threw");
  }
  qv::net::IHttpApi& m_inner;
};

class MisbehavingTransportTest : public tq::test::FakeTransportTest {
 protected:
  void SetUp() override {
    FakeTransportTest::SetUp();
    qv::net::SetHttpApi(&m_throwing);
  }
  void TearDown() override {
    qv::net::SetHttpApi(&m_api);
    FakeTransportTest::TearDown();
  }
  ThrowingApi m_throwing{m_api};
};

// Regression: a status or Retry-After query that threw left the request handle of the answer
// it was reading open for good.
TEST_F(MisbehavingTransportTest, ATransportThatThrowsAtAnyCallLeavesNoHandleOpen) {
  // Each round's first GET is answered 429 (retried at once), so the retry's queries count too.
  bool retried = false;
  m_api.SetResponder([&](const tq::test::SentRequest& sent) {
    FakeResponse r;
    if (sent.method == L"GET" && !retried) {
      retried = true;
      r.status = 429;
      r.Header(L"Retry-After", L"0");
      return r;
    }
    r.status = 200;
    r.Header(L"Content-Length", L"4").Header(L"ETag", L"\"t\"").Body("body");
    return r;
  });
  bool whole = false;
  for (long n = 0; !whole; ++n) {
    ASSERT_LT(n, 100) << "the read never got through";
    SCOPED_TRACE("throwing call " + std::to_string(n));
    qv::net::HttpConnectionPool::Terminate();
    m_throwing.calls = 0;
    m_throwing.throw_at = n;
    retried = false;
    std::string got;
    try {
      auto stream = HttpReadStream::Open(kUrl, HttpReadStream::FlagMakeHeadRequest, {});
      got = tq::test::ReadAll(*stream, 64);
      whole = true;
    } catch (const std::runtime_error&) {
    }
    EXPECT_EQ(got, whole ? "body" : "");
    qv::net::HttpConnectionPool::Terminate();
    EXPECT_EQ(m_api.OpenHandles(), 0u);
  }
}

// Regression: a transport count past the size asked for was handed on, so a host that read
// into a buffer of that size went on past its end.
TEST_F(MisbehavingTransportTest, AReadCountPastTheSizeAskedForIsAFailedRead) {
  FakeResponse response;
  response.Body("body");
  m_api.Queue(response);
  auto stream = HttpReadStream::Open(kUrl, 0, {});
  m_throwing.read_extra = 1;
  char buffer[2] = {};
  try {
    const std::uint64_t n = stream->Read(buffer, sizeof buffer);
    ADD_FAILURE() << "a count of " << n << " for a buffer of 2";
  } catch (const qv::net::http_exception& e) {
    EXPECT_STREQ(e.what(), "Unable to read HTTP data\n");
  }
}

// Regression: the stream closes its answers from destructors (its own, and the guard of a HEAD's
// answer), and the connection pool its handles from its own, so a transport whose close threw
// ended the process.
TEST_F(MisbehavingTransportTest, ACloseThatThrowsEndsNothingButTheCallThatMadeIt) {
  m_api.Queue(FakeResponse{});  // the HEAD
  m_api.Queue(FakeResponse{}.Body("body"));
  m_throwing.close_throws = true;
  auto stream = HttpReadStream::Open(kUrl, HttpReadStream::FlagMakeHeadRequest, {});
  EXPECT_EQ(tq::test::ReadAll(*stream, 64), "body");
  stream.reset();
  qv::net::HttpConnectionPool::Terminate();
  EXPECT_EQ(m_api.OpenHandles(), 0u);
  m_throwing.close_throws = false;
}

// Regression: the stream's own header queries pass no index, so a host's transport may well
// ignore it and answer the one copy for any index. The stream asked copy after copy of
// Content-Length, got the same one sixteen times, and refused every 200 carrying a length as one
// whose lengths disagree.
TEST_F(MisbehavingTransportTest, ATransportIgnoringTheHeaderIndexStillGivesTheBody) {
  m_throwing.ignore_index = true;
  for (const int flags : {0, HttpReadStream::FlagMakeHeadRequest}) {
    if (flags != 0) m_api.Queue(FakeResponse{}.Header(L"Content-Length", L"4"));
    m_api.Queue(FakeResponse{}.Header(L"Content-Length", L"4").Body("body"));
    auto stream = HttpReadStream::Open(kUrl, flags, {});
    EXPECT_TRUE(stream->Succeeded());
    EXPECT_EQ(stream->ContentSize(), 4u);
    EXPECT_EQ(tq::test::ReadAll(*stream, 64), "body");
  }
  EXPECT_EQ(m_log.Text(), "");
}

// Regression: the size was the transport's numeric reading of Content-Length, which WinINet takes
// from the leading digits ("12abc" as 12, "-1" as 4294967295): a size the transport itself does not
// frame the body by, so the cache refused such bodies on Windows as cut short.
TEST_F(MisbehavingTransportTest, AContentLengthThatIsNoNumberGivesNoSizeWhateverTheNumericQuerySays) {
  m_throwing.lenient_numbers = true;
  const std::pair<const wchar_t*, std::optional<std::uint64_t>> cases[] = {
      {L"-1", std::nullopt}, {L"12abc", std::nullopt}, {L"\t4 ", 4}};
  for (const auto& [length, size] : cases) {
    m_api.Queue(FakeResponse{}.Header(L"Content-Length", length).Body("body"));
    auto stream = HttpReadStream::Open(kUrl, 0, {});
    EXPECT_EQ(stream->ContentSize(), size) << qv::WideToUtf8(length);
    EXPECT_EQ(tq::test::ReadAll(*stream, 64), "body");
  }
}

}  // namespace
