#include "net/http/http_request.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "net/http/request_handler.h"
#include "tests/support/log_capture.h"

namespace qv::net {
namespace {

// Headers keep their order and duplicates, and removal is by the exact name. A name or value
// holding CR or LF is dropped with its log line: an ETag holding a bare CR once went out inside
// If-None-Match and split the header block, so a server could add headers to later requests.
TEST(HttpRequestTest, HeadersKeepOrderAndAnyHoldingCrOrLfIsDroppedAndNeverFormatted) {
  tq::test::LogCapture log;
  HttpRequest request(L"https://example.com/x?y=1", HttpMethod::Get);
  EXPECT_EQ(request.FormatHeaders(), L"");
  request.AddHeader(L"Range", L"1");
  const wchar_t* refused[][2] = {{L"If-None-Match", L"\"v1\"\rX-Injected: 1"},
                                 {L"If-None-Match", L"\"v1\"\nX-Injected: 1"},
                                 {L"X-Injected: 1\r\nIf-None-Match", L"\"v1\""},
                                 {L"X-Name\n", L"1"},
                                 {L"X-Value", L"\r"}};
  for (const auto& header : refused) request.AddHeader(header[0], header[1]);
  request.AddHeader(L"X-Empty", L"");
  request.AddHeader(L"Range", L"3");
  EXPECT_EQ(request.FormatHeaders(), L"Range: 1\r\nX-Empty: \r\nRange: 3");
  EXPECT_EQ(log.Lines(), std::vector<std::string>(
                             std::size(refused),
                             "Request header dropped: its name or value holds CR, LF or NUL\n"));
  request.RemoveHeader(L"range");
  EXPECT_EQ(request.FormatHeaders(), L"Range: 1\r\nX-Empty: \r\nRange: 3");
  request.RemoveHeader(L"Range");
  request.RemoveHeader(nullptr);
  EXPECT_EQ(request.FormatHeaders(), L"X-Empty: ");
  // A method outside the enumeration has no text rather than one read past the table.
  request.SetMethod(static_cast<HttpMethod>(7));
  EXPECT_STREQ(request.GetMethodStr(), L"");
}

// Appends its name to a shared trace and a header to the request; throws if named "throw".
class TracingHandler : public HttpRequestHandler {
 public:
  TracingHandler(std::vector<std::string>& trace, std::string name)
      : m_trace(trace), m_name(std::move(name)) {}
  void HandlePreRequest(HttpRequest& request) override {
    if (m_name == "throw") throw std::runtime_error("refused");
    m_trace.push_back(m_name);
    request.AddHeader(L"X-Handler", qv::Utf8ToWide(m_name).c_str());
  }

 private:
  std::vector<std::string>& m_trace;
  std::string m_name;
};

using Trace = std::vector<std::string>;

TEST(RequestHandlerTest, RunInRegistrationOrderUntilOneThrows) {
  Trace trace;
  TracingHandler first(trace, "1"), second(trace, "2"), thrower(trace, "throw");
  HttpRequest request(L"http://example.com/", HttpMethod::Get);
  HttpRequestHandlerManager::RegisterHandler(&first);
  HttpRequestHandlerManager::RegisterHandler(&second);
  HttpRequestHandlerManager::RegisterHandler(&first);  // twice: runs twice
  HttpRequestHandlerManager::HandlePreRequest(request);
  EXPECT_EQ(trace, (Trace{"1", "2", "1"}));
  EXPECT_EQ(request.FormatHeaders(), L"X-Handler: 1\r\nX-Handler: 2\r\nX-Handler: 1");

  HttpRequestHandlerManager::UnregisterHandler(&first);  // removes both entries
  HttpRequestHandlerManager::RegisterHandler(&thrower);
  HttpRequestHandlerManager::RegisterHandler(&first);
  trace.clear();
  EXPECT_THROW(HttpRequestHandlerManager::HandlePreRequest(request), std::runtime_error);
  EXPECT_EQ(trace, (Trace{"2"}));
  for (auto* h : {&first, &second, &thrower}) HttpRequestHandlerManager::UnregisterHandler(h);
}

}  // namespace
}  // namespace qv::net
