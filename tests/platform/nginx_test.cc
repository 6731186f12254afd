// The basics once against a real server: nginx.
#include <gtest/gtest.h>

#include "tests/platform/wininet_test_util.h"
#include "tests/support/servers/nginx_harness.h"

namespace {

using namespace tq::test;

TEST(NginxTest, KeepAliveRangeHeadRevalidationAndAMissingFile) {
  if (!NginxHarness::Installed()) GTEST_SKIP() << "nginx is not installed";
  // $connection numbers the connections nginx accepted: equal numbers mean reuse.
  NginxHarness nginx({.server_directives = "add_header X-Connection $connection always;"});
  ASSERT_TRUE(nginx.ok()) << nginx.error();
  std::string data(1000, '\0');
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7919 >> 3);
  nginx.WriteFile("data.bin", data);
  Handle session = OpenSession();
  Handle connection = Connect(session, nginx.port());
  const auto request = [&](const wchar_t* verb, const std::string& headers = "",
                           const wchar_t* path = L"/data.bin") {
    Handle r = OpenRequest(connection, path, verb);
    EXPECT_TRUE(Send(r, std::wstring(headers.begin(), headers.end()))) << GetLastError();
    return r;
  };
  std::string body, first_connection;
  for (int i = 0; i < 20; ++i) {
    Handle get = request(L"GET");
    ASSERT_TRUE(ReadAll(get, &body));
    ASSERT_EQ(body, data);
    if (i == 0) first_connection = QueryText(get, HTTP_QUERY_CUSTOM, L"X-Connection");
    EXPECT_EQ(QueryText(get, HTTP_QUERY_CUSTOM, L"X-Connection"), first_connection);
  }

  Handle range = request(L"GET", "Range: bytes=10-19\r\n");
  EXPECT_EQ(StatusCode(range), 206u);
  EXPECT_EQ(QueryText(range, HTTP_QUERY_CONTENT_RANGE), "bytes 10-19/1000");
  ASSERT_TRUE(ReadAll(range, &body));
  EXPECT_EQ(body, data.substr(10, 10));

  Handle head = request(L"HEAD");
  EXPECT_EQ(QueryText(head, HTTP_QUERY_CONTENT_LENGTH), "1000");
  ASSERT_TRUE(ReadAll(head, &body));
  EXPECT_TRUE(body.empty());
  const std::string etag = QueryText(head, HTTP_QUERY_ETAG);
  ASSERT_EQ(etag.front(), '"') << etag;
  Handle again = request(L"GET", "If-None-Match: " + etag + "\r\n");
  EXPECT_EQ(StatusCode(again), 304u);
  ASSERT_TRUE(ReadAll(again, &body));
  EXPECT_TRUE(body.empty());
  EXPECT_EQ(StatusCode(request(L"GET", "", L"/nothing-here")), 404u);
}

}  // namespace
