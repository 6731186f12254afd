#include "tqutil/app_info.h"

#include <cstdlib>
#include <optional>
#include <string>

#include <gtest/gtest.h>

namespace {

// Sets an environment variable for one scope.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : m_name(name) {
    if (const char* old = std::getenv(name)) m_old = old;
    if (value) {
      ::setenv(name, value, 1);
    } else {
      ::unsetenv(name);
    }
  }
  ~ScopedEnv() {
    if (m_old) {
      ::setenv(m_name, m_old->c_str(), 1);
    } else {
      ::unsetenv(m_name);
    }
  }

 private:
  const char* m_name;
  std::optional<std::string> m_old;
};

TEST(AppInfoTest, CacheDirectoryOfTheApplication) {
  TqUWideStringBuffer dir;
  {
    ScopedEnv xdg("XDG_CACHE_HOME", "/xdg/cache");
    ASSERT_TRUE(TqUAppInfo::GetAppDir(0, &dir));
    EXPECT_EQ(dir.View(), L"/xdg/cache/tqnetwork");
    TqUAppInfo::SetAppName(L"host");
    ASSERT_TRUE(TqUAppInfo::GetAppDir(0, &dir));
    EXPECT_EQ(dir.View(), L"/xdg/cache/host");
    TqUAppInfo::SetAppName(L"tqnetwork");
  }
  {
    ScopedEnv xdg("XDG_CACHE_HOME", "relative/ignored");
    ScopedEnv home("HOME", "/home/u/");
    ASSERT_TRUE(TqUAppInfo::GetAppDir(0, &dir));
    EXPECT_EQ(dir.View(), L"/home/u/.cache/tqnetwork");
    EXPECT_FALSE(TqUAppInfo::GetAppDir(1, &dir));
  }
  {
    ScopedEnv xdg("XDG_CACHE_HOME", nullptr);
    ScopedEnv home("HOME", nullptr);
    EXPECT_FALSE(TqUAppInfo::GetAppDir(0, &dir));
  }
}

}  // namespace
