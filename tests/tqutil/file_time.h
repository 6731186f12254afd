// Setting a file's modification time to a fraction of a second, on every system: the setter of
// std::filesystem in MinGW's library keeps whole seconds only.
#pragma once

#if defined(_WIN32)
#include <windows.h>
#endif

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <system_error>

namespace tq::test {

// `since_1970` to the system's resolution (100 ns on Windows); false when it cannot be set.
inline bool SetModifiedTime(const std::filesystem::path& path,
                            std::chrono::nanoseconds since_1970) {
#if defined(_WIN32)
  const HANDLE file = CreateFileW(path.c_str(), FILE_WRITE_ATTRIBUTES,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return false;
  constexpr std::uint64_t kTicks1601To1970 = 116444736000000000ULL;  // 100 ns ticks
  const std::uint64_t ticks =
      static_cast<std::uint64_t>(since_1970.count() / 100) + kTicks1601To1970;
  FILETIME written;
  written.dwLowDateTime = static_cast<DWORD>(ticks);
  written.dwHighDateTime = static_cast<DWORD>(ticks >> 32);
  const bool set = SetFileTime(file, nullptr, nullptr, &written) != 0;
  CloseHandle(file);
  return set;
#else
  std::error_code ec;
  const std::chrono::sys_time<std::chrono::nanoseconds> time(since_1970);
  std::filesystem::last_write_time(path, std::chrono::file_clock::from_sys(time), ec);
  return !ec;
#endif
}

}  // namespace tq::test
