#include "net/http/request_handler.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace qv::net {
namespace {

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
