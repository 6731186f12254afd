#include "net/http/http_status.h"

#include <gtest/gtest.h>

#include <future>
#include <vector>

namespace qv::net {
namespace {

TEST(HttpCategoryTest, OneObjectNamedHttpFromEveryThread) {
  const std::error_category* first = &HttpCategory();
  std::vector<std::future<const std::error_category*>> others;
  for (int i = 0; i < 4; ++i) {
    others.push_back(std::async(std::launch::async, [] { return &HttpCategory(); }));
  }
  for (auto& other : others) EXPECT_EQ(other.get(), first);
  EXPECT_STREQ(HttpCategory().name(), "http");
}

TEST(HttpCategoryTest, MessagesForListedUnlistedAndOddCodes) {
  const auto& category = HttpCategory();
  EXPECT_EQ(category.message(200), "OK (200)");
  EXPECT_EQ(category.message(304), "NotModified (304)");
  EXPECT_EQ(category.message(404), "NotFound (404)");
  EXPECT_EQ(category.message(418), "I'm A Teapot (418)");
  EXPECT_EQ(category.message(226), "IMUsed (226)");
  EXPECT_EQ(category.message(505), "HTTPVersionNotSupported (505)");
  EXPECT_EQ(category.message(511), "NetworkAuthenticationRequired (511)");
  for (int code : {0, -1, 299, 306, 419, 420, 427, 430, 509, 600, 1000}) {
    EXPECT_EQ(category.message(code), "Unknown") << code;
  }
  int listed = 0;
  for (int code = -10; code < 1000; ++code) listed += category.message(code) != "Unknown";
  EXPECT_EQ(listed, 62);
}

TEST(HttpCategoryTest, ErrorCodesCompareByCategoryAndValue) {
  const std::error_code not_found(404, HttpCategory());
  EXPECT_EQ(not_found, std::error_condition(404, HttpCategory()));
  EXPECT_NE(not_found, std::error_condition(404, std::generic_category()));
  EXPECT_NE(not_found, std::error_code(404, std::generic_category()));
  EXPECT_EQ(not_found.message(), "NotFound (404)");
  EXPECT_EQ(not_found.default_error_condition().category(), HttpCategory());
}

}  // namespace
}  // namespace qv::net
