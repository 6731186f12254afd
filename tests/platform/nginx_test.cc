// The basics once against a real server: nginx.
#include <gtest/gtest.h>

#include <random>

#include "tests/platform/wininet_test_util.h"
#include "tests/support/servers/nginx_harness.h"

namespace {

using namespace tq::test;

class NginxTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!NginxHarness::Installed()) GTEST_SKIP() << "nginx is not installed";
    // $connection numbers the connections nginx accepted: equal numbers mean reuse.
    nginx_ = std::make_unique<NginxHarness>(
        NginxHarness::Options{.server_directives = "add_header X-Connection $connection always;"});
    ASSERT_TRUE(nginx_->ok()) << nginx_->error();
    std::mt19937 rng(11);
    data_.resize(1000);
    for (auto& c : data_) c = static_cast<char>(rng());
    nginx_->WriteFile("data.bin", data_);
    connection_ = Connect(session_, nginx_->port());
    ASSERT_TRUE(connection_);
  }
  Handle Request(const wchar_t* verb, const std::string& headers = "",
                 const wchar_t* path = L"/data.bin") {
    Handle request = OpenRequest(connection_, path, verb);
    EXPECT_TRUE(Send(request, std::wstring(headers.begin(), headers.end()))) << GetLastError();
    return request;
  }

  std::unique_ptr<NginxHarness> nginx_;  // declared first: stops after the handles closed
  std::string data_;
  Handle session_ = OpenSession();
  Handle connection_;
};

TEST_F(NginxTest, KeepAliveAcrossRequests) {
  std::string first_connection;
  for (int i = 0; i < 20; ++i) {
    Handle request = Request(L"GET");
    std::string body;
    ASSERT_TRUE(ReadAll(request, &body));
    ASSERT_EQ(body, data_);
    const std::string connection = QueryText(request, HTTP_QUERY_CUSTOM, L"X-Connection");
    if (i == 0) first_connection = connection;
    EXPECT_EQ(connection, first_connection);
  }
}

TEST_F(NginxTest, RangeHeadRevalidationAndAMissingFile) {
  Handle range = Request(L"GET", "Range: bytes=10-19\r\n");
  EXPECT_EQ(StatusCode(range), 206u);
  EXPECT_EQ(QueryText(range, HTTP_QUERY_CONTENT_RANGE), "bytes 10-19/1000");
  std::string body;
  ASSERT_TRUE(ReadAll(range, &body));
  EXPECT_EQ(body, data_.substr(10, 10));

  Handle head = Request(L"HEAD");
  EXPECT_EQ(QueryText(head, HTTP_QUERY_CONTENT_LENGTH), "1000");
  SYSTEMTIME modified{};
  DWORD length = sizeof modified;
  ASSERT_TRUE(HttpQueryInfoW(head.get(), HTTP_QUERY_LAST_MODIFIED | HTTP_QUERY_FLAG_SYSTEMTIME,
                             &modified, &length, nullptr));
  EXPECT_GE(modified.wYear, 2024);
  ASSERT_TRUE(ReadAll(head, &body));
  EXPECT_TRUE(body.empty());

  const std::string etag = QueryText(head, HTTP_QUERY_ETAG);
  ASSERT_EQ(etag.front(), '"') << etag;
  Handle again = Request(L"GET", "If-None-Match: " + etag + "\r\n");
  EXPECT_EQ(StatusCode(again), 304u);
  ASSERT_TRUE(ReadAll(again, &body));
  EXPECT_TRUE(body.empty());
  EXPECT_EQ(StatusCode(Request(L"GET", "", L"/nothing-here")), 404u);
}

}  // namespace
