// Text that names a place in the file system, on its way from the system's own bytes.
#include "tqutil/app_info.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

#if defined(_WIN32)
#include <windows.h>
#endif

namespace {

#if !defined(_WIN32)
// A home that is no UTF-8 text was named with U+FFFD in its place: another directory, which a
// cache then created and filled. Wide text cannot name such a directory, so none is named.
TEST(AppInfoNamesTest, AHomeThatIsNoUtf8TextNamesNoDirectory) {
  const auto variable = [](const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
  };
  const std::optional<std::string> saved_xdg = variable("XDG_CACHE_HOME");
  const std::optional<std::string> saved_home = variable("HOME");
  for (const auto& [xdg, home] : {std::pair<const char*, const char*>{"/tmp/caf\xE9", "/home/u"},
                                  {nullptr, "/home/caf\xE9"}}) {
    xdg ? ::setenv("XDG_CACHE_HOME", xdg, 1) : ::unsetenv("XDG_CACHE_HOME");
    ::setenv("HOME", home, 1);
    TqUWideStringBuffer dir;
    EXPECT_FALSE(TqUAppInfo::GetAppDir(0, &dir)) << home;
  }
  saved_xdg ? ::setenv("XDG_CACHE_HOME", saved_xdg->c_str(), 1) : ::unsetenv("XDG_CACHE_HOME");
  saved_home ? ::setenv("HOME", saved_home->c_str(), 1) : ::unsetenv("HOME");
}
#endif

#if defined(_WIN32)
// The home came from the C runtime's copy of the environment: made at start from the ANSI one,
// where a profile named with characters outside the code page reads as "?", and blind to the
// system's own block after that. Either way the cache went to another directory.
TEST(AppInfoNamesTest, TheCacheHomeIsTheSystemsOwnWideText) {
  const wchar_t* const name = L"LOCALAPPDATA";
  std::wstring saved(32768, L'\0');
  saved.resize(::GetEnvironmentVariableW(name, saved.data(), static_cast<DWORD>(saved.size())));
  const std::wstring home = L"C:\\Users\\\u0141ucja\U0001F600\\AppData\\Local";
  TqUWideStringBuffer dir;
  TqUAppInfo::GetAppDir(0, &dir);  // asked before, as a host may have: the copy is made by now
  ASSERT_TRUE(::SetEnvironmentVariableW(name, home.c_str()));
  const bool known = TqUAppInfo::GetAppDir(0, &dir);
  const std::wstring found(dir.View());
  // A relative home named a directory that moved with the current one.
  ASSERT_TRUE(::SetEnvironmentVariableW(name, L"AppData\\Local"));
  const bool relative_known = TqUAppInfo::GetAppDir(0, &dir);
  ::SetEnvironmentVariableW(name, saved.empty() ? nullptr : saved.c_str());
  ASSERT_TRUE(known);
  EXPECT_EQ(found, home + L"\\tqnetwork");
  EXPECT_FALSE(relative_known);
}
#endif

}  // namespace
