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
  // Runs the handlers over a fresh request; returns the trace.
  std::vector<std::string> Run() {
    m_trace.clear();
    HttpRequest request(L"http://example.com/", HttpMethod::Get);
    HttpRequestHandlerManager::HandlePreRequest(request);
    return m_trace;
  }
  std::vector<HttpRequestHandler*> m_registered;
  std::vector<std::string> m_trace;
};

using Trace = std::vector<std::string>;

TEST_F(RequestHandlerTest, RunsInRegistrationOrderAndUnregistersAllDuplicates) {
  HttpRequest request(L"http://example.com/", HttpMethod::Head);
  request.AddHeader(L"A", L"b");
  HttpRequestHandlerManager::HandlePreRequest(request);  // none registered: left alone
  EXPECT_EQ(request.FormatHeaders(), L"A: b");
  EXPECT_EQ(request.GetMethod(), HttpMethod::Head);

  TracingHandler first(m_trace, "1"), second(m_trace, "2"), third(m_trace, "3");
  Register(&first);
  Register(&second);
  Register(&third);
  HttpRequestHandlerManager::HandlePreRequest(request);
  EXPECT_EQ(m_trace, (Trace{"1", "2", "3"}));
  EXPECT_EQ(request.FormatHeaders(), L"A: b\r\nX-Handler: 1\r\nX-Handler: 2\r\nX-Handler: 3");

  HttpRequestHandlerManager::UnregisterHandler(&second);
  EXPECT_EQ(Run(), (Trace{"1", "3"}));
  Register(&first);  // now registered twice: runs twice
  EXPECT_EQ(Run(), (Trace{"1", "3", "1"}));
  HttpRequestHandlerManager::UnregisterHandler(&first);   // one call removes both entries
  HttpRequestHandlerManager::UnregisterHandler(&second);  // not registered: no change
  EXPECT_EQ(Run(), (Trace{"3"}));
}

TEST_F(RequestHandlerTest, AnExceptionStopsTheWalk) {
  TracingHandler before(m_trace, "before"), thrower(m_trace, "throw"), after(m_trace, "after");
  Register(&before);
  Register(&thrower);
  Register(&after);
  EXPECT_THROW(Run(), std::runtime_error);
  EXPECT_EQ(m_trace, (Trace{"before"}));
}

}  // namespace
}  // namespace qv::net
