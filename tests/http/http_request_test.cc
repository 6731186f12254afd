#include "net/http/http_request.h"

#include <gtest/gtest.h>

namespace qv::net {
namespace {

TEST(HttpRequestTest, FormatsHeadersInInsertionOrderWithoutTrailingCrLf) {
  HttpRequest request(L"http://example.com/a", HttpMethod::Get);
  EXPECT_EQ(request.FormatHeaders(), L"");
  request.AddHeader(L"Range", L"bytes=0-9");
  EXPECT_EQ(request.FormatHeaders(), L"Range: bytes=0-9");
  request.AddHeader(L"If-None-Match", L"\"abc\"");
  request.AddHeader(L"X-Empty", L"");
  request.AddHeader(L"Range", L"bytes=10-19");  // duplicates are kept
  EXPECT_EQ(request.FormatHeaders(),
            L"Range: bytes=0-9\r\nIf-None-Match: \"abc\"\r\nX-Empty: \r\nRange: bytes=10-19");
}

TEST(HttpRequestTest, RemoveHeaderIsExactAndKeepsTheOrderOfTheRest) {
  HttpRequest request(L"http://example.com/", HttpMethod::Get);
  request.AddHeader(L"Range", L"1");
  request.AddHeader(L"A", L"2");
  request.AddHeader(L"Range", L"3");
  request.AddHeader(L"B", L"4");
  for (const wchar_t* other : {L"range", L"Rang", L"Absent"}) request.RemoveHeader(other);
  EXPECT_EQ(request.FormatHeaders(), L"Range: 1\r\nA: 2\r\nRange: 3\r\nB: 4");
  request.RemoveHeader(L"Range");
  EXPECT_EQ(request.FormatHeaders(), L"A: 2\r\nB: 4");
}

TEST(HttpRequestTest, MethodTextsAndValuesOutsideTheEnumeration) {
  HttpRequest request(L"http://example.com/", HttpMethod::Head);
  EXPECT_STREQ(request.GetMethodStr(), L"HEAD");
  const std::pair<HttpMethod, const wchar_t*> cases[] = {
      {HttpMethod::Get, L"GET"}, {HttpMethod::Put, L"PUT"}, {HttpMethod::Post, L"POST"}};
  for (const auto& [method, text] : cases) {
    request.SetMethod(method);
    EXPECT_STREQ(request.GetMethodStr(), text);
  }
  request.SetMethod(static_cast<HttpMethod>(7));
  EXPECT_EQ(static_cast<int>(request.GetMethod()), 7);
  EXPECT_STREQ(request.GetMethodStr(), L"");
}

TEST(HttpRequestTest, UrlSecurityAndUncheckedUrls) {
  HttpRequest secure(L"https://example.com/x?y=1", HttpMethod::Get);
  EXPECT_TRUE(secure.IsSecure());
  EXPECT_FALSE(HttpRequest(L"http://example.com/x", HttpMethod::Get).IsSecure());
  EXPECT_STREQ(secure.GetUrl().GetResource(), L"/x?y=1");
  // The request keeps what it is given; a bad URL fails later, at connection time.
  EXPECT_FALSE(HttpRequest(L"not a url", HttpMethod::Get).GetUrl().IsValid());
  HttpRequest from_url(TqUURL(L"http://example.com:8080/p", false), HttpMethod::Post);
  EXPECT_EQ(from_url.GetUrl().GetPort(), 8080);
}

TEST(HttpCredentialsTest, CopiesAndMovesAreIndependent) {
  HttpCredentials empty;
  EXPECT_STREQ(empty.GetUsername(), L"");
  EXPECT_STREQ(empty.GetPassword(), L"");
  HttpCredentials source(L"user", L"secret");
  HttpCredentials copy(source);
  copy.SetPassword(L"changed");
  EXPECT_STREQ(source.GetPassword(), L"secret");
  EXPECT_STREQ(copy.GetPassword(), L"changed");
  EXPECT_STREQ(copy.GetUsername(), L"user");
  HttpCredentials assigned;
  assigned = source;
  assigned.SetUsername(L"other");
  EXPECT_STREQ(source.GetUsername(), L"user");
  HttpCredentials moved(std::move(copy));
  EXPECT_STREQ(moved.GetPassword(), L"changed");
}

}  // namespace
}  // namespace qv::net
