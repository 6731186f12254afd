#include "tqutil/app_info.h"

#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>

#include "tqutil/utf8.h"

#if defined(_WIN32)
#include <windows.h>
#endif

namespace {

struct AppName {
  std::mutex mutex;
  std::wstring name = L"tqnetwork";
};

AppName& TheAppName() {
  static AppName* const name = new AppName();
  return *name;
}

// The per-user cache home; empty when none is known.
std::wstring CacheHome() {
#if defined(_WIN32)
  // The system's own block, not the C runtime's copy (_wgetenv): that copy is made from the
  // ANSI environment, where characters outside the code page become "?", and misses changes
  // made through the system since.
  constexpr wchar_t kName[] = L"LOCALAPPDATA";
  std::wstring local(MAX_PATH, L'\0');
  // Asked again when another thread lengthened it between the sizing call and the filling one.
  for (int attempt = 0; attempt < 4; ++attempt) {
    const DWORD length =
        ::GetEnvironmentVariableW(kName, local.data(), static_cast<DWORD>(local.size()));
    if (length < local.size()) {
      local.resize(length);  // 0: not set (or empty)
      // As on POSIX, a relative home is none: the cache would move with the current directory,
      // which a file dialog may change.
      if (!std::filesystem::path(local).is_absolute()) local.clear();
      return local;
    }
    local.resize(length);  // the room needed, its terminator included
  }
  return {};
#else
  // A directory whose name is no UTF-8 text would be named with U+FFFD in its place: another
  // directory. None is known then.
  bool whole = true;
  // XDG: a relative $XDG_CACHE_HOME is invalid and must be ignored.
  const char* xdg = std::getenv("XDG_CACHE_HOME");
  if (xdg && xdg[0] == '/') {
    std::wstring x = qv::utf8::ToWide(xdg, &whole);
    return whole ? x : std::wstring();
  }
  // A relative home is none, as a relative $XDG_CACHE_HOME is: the cache would move with the
  // working directory.
  const char* home = std::getenv("HOME");
  if (home && home[0] == '/') {
    std::wstring h = qv::utf8::ToWide(home, &whole);
    if (!whole) return {};
    while (h.size() > 1 && h.back() == L'/') h.pop_back();
    return h + L"/.cache";
  }
  return {};
#endif
}

}  // namespace

bool TqUAppInfo::GetAppDir(int kind, TqUWideStringBuffer* out) {
  if (kind != 0 || !out) return false;
  std::wstring dir = CacheHome();
  if (dir.empty()) return false;
  if (dir.back() != L'/' && dir.back() != L'\\') {
#if defined(_WIN32)
    dir += L'\\';
#else
    dir += L'/';
#endif
  }
  AppName& a = TheAppName();
  std::lock_guard lock(a.mutex);
  out->SetString(dir + a.name);
  return true;
}

void TqUAppInfo::SetAppName(const wchar_t* name) {
  if (!name || !*name) return;
  AppName& a = TheAppName();
  std::lock_guard lock(a.mutex);
  a.name = name;
}
