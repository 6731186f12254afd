#include "tqutil/app_info.h"

#include <cstdlib>
#include <optional>
#include <string>

#include <gtest/gtest.h>

namespace {

// Sets (or, with null, unsets) an environment variable for one scope.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : m_name(name) {
    if (const char* old = std::getenv(name)) m_old = old;
    Set(value);
  }
  ~ScopedEnv() { Set(m_old ? m_old->c_str() : nullptr); }

 private:
  void Set(const char* value) { value ? ::setenv(m_name, value, 1) : ::unsetenv(m_name); }
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
