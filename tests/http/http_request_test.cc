#include "net/http/http_request.h"

#include <gtest/gtest.h>

namespace qv::net {
namespace {

TEST(HttpRequestTest, HeadersKeepOrderAndDuplicatesAndRemoveIsExact) {
  HttpRequest request(L"https://example.com/x?y=1", HttpMethod::Get);
  EXPECT_TRUE(request.IsSecure());
  EXPECT_STREQ(request.GetUrl().GetResource(), L"/x?y=1");
  EXPECT_EQ(request.FormatHeaders(), L"");
  request.AddHeader(L"Range", L"1");
  request.AddHeader(L"X-Empty", L"");
  request.AddHeader(L"Range", L"3");
  EXPECT_EQ(request.FormatHeaders(), L"Range: 1\r\nX-Empty: \r\nRange: 3");
  request.RemoveHeader(L"range");
  EXPECT_EQ(request.FormatHeaders(), L"Range: 1\r\nX-Empty: \r\nRange: 3");
  request.RemoveHeader(L"Range");
  EXPECT_EQ(request.FormatHeaders(), L"X-Empty: ");
  request.SetMethod(HttpMethod::Put);
  EXPECT_STREQ(request.GetMethodStr(), L"PUT");
  request.SetMethod(static_cast<HttpMethod>(7));
  EXPECT_STREQ(request.GetMethodStr(), L"");
}

}  // namespace
}  // namespace qv::net
