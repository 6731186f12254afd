#include "tqutil/option.h"

#include <gtest/gtest.h>

namespace {

TEST(OptionTest, DefaultsAndHostValues) {
  EXPECT_EQ(TqUOption::GetInt32("general.localcache.max_size"), 1024);
  EXPECT_EQ(TqUOption::GetInt32("unknown.key"), 0);
  EXPECT_EQ(TqUOption::GetInt32(nullptr), 0);
  TqUOption::SetInt32("general.localcache.max_size", -3);
  EXPECT_EQ(TqUOption::GetInt32("general.localcache.max_size"), -3);
  TqUOption::Unset("general.localcache.max_size");
  EXPECT_EQ(TqUOption::GetInt32("general.localcache.max_size"), 1024);
}

}  // namespace
