#include "tqutil/sys_path.h"

#include <algorithm>

#if defined(_WIN32)
#include <windows.h>
#endif

namespace qv::sys_path {

namespace {

constexpr std::wstring_view kVerbatim = L"\\\\?\\";   // \\?\  no tidying at all
constexpr std::wstring_view kNtForm = L"\\??\\";      // \??\  the same, in the kernel's spelling
constexpr std::wstring_view kDevice = L"\\\\.\\";     // \\.\  a device, tidied already
constexpr std::wstring_view kShare = L"\\\\";         // \\server\share\...

bool StartsWith(std::wstring_view text, std::wstring_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// A path that the system takes as it is, without tidying it.
bool InSystemForm(std::wstring_view path) {
  return StartsWith(path, kVerbatim) || StartsWith(path, kNtForm);
}

bool IsAsciiLetter(wchar_t c) { return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z'); }

}  // namespace

std::wstring LongForm(std::wstring_view full) {
  if (InSystemForm(full) || StartsWith(full, kDevice)) return std::wstring(full);
  if (StartsWith(full, kShare)) {
    std::wstring unc(kVerbatim);
    unc += L"UNC\\";
    unc += full.substr(kShare.size());
    return unc;
  }
  if (full.size() >= 3 && IsAsciiLetter(full[0]) && full[1] == L':' && full[2] == L'\\') {
    std::wstring drive(kVerbatim);
    drive += full;
    return drive;
  }
  return std::wstring(full);
}

#if defined(_WIN32)
bool ToSystem(const std::filesystem::path& path, std::wstring& out) {
  const std::wstring& given = path.native();
  if (given.empty() || given.find(L'\0') != std::wstring::npos) {
    ::SetLastError(ERROR_INVALID_NAME);
    return false;
  }
  if (InSystemForm(given)) {
    out = given;
    return true;
  }
  std::wstring full(std::max<std::size_t>(given.size() + 1, MAX_PATH), L'\0');
  // A relative path depends on the current directory, which another thread may change between
  // the call that sizes the result and the one that fills it: asked again, a few times.
  for (int attempt = 0; attempt < 4; ++attempt) {
    const DWORD length = ::GetFullPathNameW(given.c_str(), static_cast<DWORD>(full.size()),
                                            full.data(), nullptr);
    if (length == 0) {
      if (::GetLastError() == ERROR_SUCCESS) ::SetLastError(ERROR_INVALID_NAME);
      return false;
    }
    if (length < full.size()) {
      full.resize(length);
      out = LongForm(full);
      return true;
    }
    full.resize(length);  // the room needed, its terminator included
  }
  ::SetLastError(ERROR_FILENAME_EXCED_RANGE);
  return false;
}
#endif

}  // namespace qv::sys_path
