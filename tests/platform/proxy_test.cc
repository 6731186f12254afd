// Proxies: named in InternetOpenW or taken from the environment, with proxy credentials.
#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/platform/wininet_test_util.h"
#include "tests/support/servers/scripted_server.h"

namespace {

using namespace tq::test;

// The scripted server plays the proxy: a request through a proxy names the whole URL.
constexpr const char* kProxiedPath = "http://origin.invalid/x";

class ProxyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(proxy_.ok());
    proxy_.Route(kProxiedPath, [](const RecordedRequest& r) {
      // "bob:pw"
      if (r.Header("Proxy-Authorization") != "Basic Ym9iOnB3") {
        return ScriptedResponse(407, "who are you")
            .Header("Proxy-Authenticate", "Basic realm=\"proxy\"");
      }
      return ScriptedResponse(200, "via proxy");
    });
  }

  static DWORD GetThrough(const Handle& session, std::string* body, bool with_credentials) {
    Handle connection(InternetConnectW(session.get(), L"origin.invalid", 80, nullptr, nullptr,
                                       INTERNET_SERVICE_HTTP, 0, 0));
    if (with_credentials) {
      wchar_t user[] = L"bob";
      wchar_t password[] = L"pw";
      InternetSetOptionW(connection.get(), INTERNET_OPTION_PROXY_USERNAME, user, 4);
      InternetSetOptionW(connection.get(), INTERNET_OPTION_PROXY_PASSWORD, password, 3);
    }
    Handle request = OpenRequest(connection, L"/x");
    if (!Send(request)) return 0;
    const DWORD status = StatusCode(request);
    ReadAll(request, body);
    return status;
  }

  ScriptedServer proxy_;
};

TEST_F(ProxyTest, NamedProxyWithCredentials) {
  const std::wstring name = L"http=127.0.0.1:" + Wide(std::to_string(proxy_.port()));
  Handle session(InternetOpenW(L"t", INTERNET_OPEN_TYPE_PROXY, name.c_str(), nullptr, 0));
  ASSERT_TRUE(session);
  std::string body;
  EXPECT_EQ(GetThrough(session, &body, false), 407u);
  EXPECT_EQ(GetThrough(session, &body, true), 200u);
  EXPECT_EQ(body, "via proxy");
}

TEST_F(ProxyTest, PreconfiguredTakesTheEnvironmentsProxy) {
  const std::string url = "http://127.0.0.1:" + std::to_string(proxy_.port());
  ASSERT_EQ(setenv("http_proxy", url.c_str(), 1), 0);
  Handle session(InternetOpenW(L"t", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0));
  std::string body;
  const DWORD status = GetThrough(session, &body, true);
  unsetenv("http_proxy");
  EXPECT_EQ(status, 200u);
  EXPECT_EQ(body, "via proxy");

  // A direct session ignores the environment.
  ASSERT_EQ(setenv("http_proxy", url.c_str(), 1), 0);
  Handle direct = OpenSession();
  EXPECT_EQ(GetThrough(direct, &body, true), 0u);
  EXPECT_EQ(GetLastError(), ERROR_INTERNET_NAME_NOT_RESOLVED);
  unsetenv("http_proxy");
}

}  // namespace
