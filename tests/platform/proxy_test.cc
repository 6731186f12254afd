// Proxies named in InternetOpenW or taken from the environment, with proxy credentials.
#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/platform/wininet_test_util.h"
#include "tests/support/servers/scripted_server.h"

namespace {

using namespace tq::test;

TEST(ProxyTest, NamedOrEnvironmentProxyAsksForAndTakesItsCredentials) {
  ScriptedServer proxy;  // a request through a proxy names the whole URL
  proxy.Route("http://origin.invalid/x", [](const RecordedRequest& r) {
    if (r.Header("Proxy-Authorization") != "Basic Ym9iOnB3") {  // "bob:pw"
      return ScriptedResponse(407, "who").Header("Proxy-Authenticate", "Basic realm=\"p\"");
    }
    return ScriptedResponse(200, "via proxy");
  });
  auto get = [](const Handle& session, bool credentials, std::string* body) -> DWORD {
    Handle connection(InternetConnectW(session.get(), L"origin.invalid", 80, nullptr, nullptr,
                                       INTERNET_SERVICE_HTTP, 0, 0));
    if (credentials) {
      wchar_t user[] = L"bob", password[] = L"pw";
      InternetSetOptionW(connection.get(), INTERNET_OPTION_PROXY_USERNAME, user, 4);
      InternetSetOptionW(connection.get(), INTERNET_OPTION_PROXY_PASSWORD, password, 3);
    }
    Handle request = OpenRequest(connection, L"/x");
    if (!Send(request)) return 0;
    ReadAll(request, body);
    return StatusCode(request);
  };
  const std::string port = std::to_string(proxy.port());
  const std::wstring name = L"http=127.0.0.1:" + std::wstring(port.begin(), port.end());
  Handle named(InternetOpenW(L"t", INTERNET_OPEN_TYPE_PROXY, name.c_str(), nullptr, 0));
  std::string body;
  EXPECT_EQ(get(named, false, &body), 407u);
  EXPECT_EQ(get(named, true, &body), 200u);
  EXPECT_EQ(body, "via proxy");

  ASSERT_EQ(setenv("http_proxy", ("http://127.0.0.1:" + port).c_str(), 1), 0);
  Handle preconfigured(InternetOpenW(L"t", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0));
  const DWORD via_environment = get(preconfigured, true, &body);
  const DWORD direct = get(OpenSession(), true, &body);  // a direct session ignores it
  const DWORD direct_error = GetLastError();
  unsetenv("http_proxy");
  EXPECT_EQ(via_environment, 200u);
  EXPECT_EQ(direct, 0u);
  EXPECT_EQ(direct_error, static_cast<DWORD>(ERROR_INTERNET_NAME_NOT_RESOLVED));
}

}  // namespace
