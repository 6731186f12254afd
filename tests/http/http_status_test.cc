#include "net/http/http_status.h"

#include <gtest/gtest.h>

namespace qv::net {
namespace {

TEST(HttpCategoryTest, MessagesAndComparisons) {
  const auto& category = HttpCategory();
  EXPECT_STREQ(category.name(), "http");
  EXPECT_EQ(category.message(418), "I'm A Teapot (418)");
  EXPECT_EQ(category.message(511), "NetworkAuthenticationRequired (511)");
  for (int code : {-1, 306, 600}) EXPECT_EQ(category.message(code), "Unknown") << code;
  int listed = 0;
  for (int code = -10; code < 1000; ++code) listed += category.message(code) != "Unknown";
  EXPECT_EQ(listed, 62);

  const std::error_code not_found(404, category);
  EXPECT_EQ(not_found.message(), "NotFound (404)");
  EXPECT_EQ(not_found, std::error_condition(404, category));
  EXPECT_NE(not_found, std::error_condition(404, std::generic_category()));
}

}  // namespace
}  // namespace qv::net
