#include "net/http/request_handler.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace qv::net {
namespace {

// Appends its name to a shared trace and a header to the request.
class TracingHandler : public HttpRequestHandler {
 public:
  TracingHandler(std::vector<std::string>& trace, std::string name)
      : m_trace(trace), m_name(std::move(name)) {}
  void HandlePreRequest(HttpRequest& request) override {
    m_trace.push_back(m_name);
    request.AddHeader(L"X-Handler", qv::Utf8ToWide(m_name).c_str());
  }

 private:
  std::vector<std::string>& m_trace;
  std::string m_name;
};

class ThrowingHandler : public HttpRequestHandler {
 public:
  void HandlePreRequest(HttpRequest&) override { throw std::runtime_error("refused"); }
};

// Handlers are process-wide: every test leaves the list as it found it.
class RequestHandlerTest : public ::testing::Test {
 protected:
  void Register(HttpRequestHandler* handler) {
    HttpRequestHandlerManager::RegisterHandler(handler);
    m_registered.push_back(handler);
  }
  void TearDown() override {
    for (auto* handler : m_registered) HttpRequestHandlerManager::UnregisterHandler(handler);
  }
  std::vector<HttpRequestHandler*> m_registered;
};

TEST_F(RequestHandlerTest, RunsInRegistrationOrderAndUnregistersAllDuplicates) {
  std::vector<std::string> trace;
  TracingHandler first(trace, "1"), second(trace, "2"), third(trace, "3");
  Register(&first);
  Register(&second);
  Register(&third);

  HttpRequest request(L"http://example.com/", HttpMethod::Get);
  HttpRequestHandlerManager::HandlePreRequest(request);
  EXPECT_EQ(trace, (std::vector<std::string>{"1", "2", "3"}));
  EXPECT_EQ(request.FormatHeaders(), L"X-Handler: 1\r\nX-Handler: 2\r\nX-Handler: 3");

  HttpRequestHandlerManager::UnregisterHandler(&second);
  trace.clear();
  HttpRequest next(L"http://example.com/", HttpMethod::Get);
  HttpRequestHandlerManager::HandlePreRequest(next);
  EXPECT_EQ(trace, (std::vector<std::string>{"1", "3"}));

  Register(&first);  // now registered twice: runs twice
  trace.clear();
  HttpRequestHandlerManager::HandlePreRequest(next);
  EXPECT_EQ(trace, (std::vector<std::string>{"1", "3", "1"}));

  HttpRequestHandlerManager::UnregisterHandler(&first);  // one call removes both entries
  HttpRequestHandlerManager::UnregisterHandler(&second);  // not registered: no change
  trace.clear();
  HttpRequestHandlerManager::HandlePreRequest(next);
  EXPECT_EQ(trace, (std::vector<std::string>{"3"}));
}

TEST_F(RequestHandlerTest, EmptyListLeavesTheRequestAlone) {
  HttpRequest request(L"http://example.com/", HttpMethod::Head);
  request.AddHeader(L"A", L"b");
  HttpRequestHandlerManager::HandlePreRequest(request);
  EXPECT_EQ(request.FormatHeaders(), L"A: b");
  EXPECT_EQ(request.GetMethod(), HttpMethod::Head);
}

TEST_F(RequestHandlerTest, AnExceptionStopsTheWalk) {
  std::vector<std::string> trace;
  TracingHandler before(trace, "before"), after(trace, "after");
  ThrowingHandler thrower;
  Register(&before);
  Register(&thrower);
  Register(&after);
  HttpRequest request(L"http://example.com/", HttpMethod::Get);
  EXPECT_THROW(HttpRequestHandlerManager::HandlePreRequest(request), std::runtime_error);
  EXPECT_EQ(trace, (std::vector<std::string>{"before"}));
}

}  // namespace
}  // namespace qv::net
