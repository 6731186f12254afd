// File helpers shared by the tests of the file layer, the cache and the fault loops: whole files
// read and written, directories listed, links planted, open descriptors counted, and
// modification times set to a fraction of a second on every system (the setter of
// std::filesystem in MinGW's library keeps whole seconds only).
#pragma once

#if defined(_WIN32)
#include <windows.h>
#endif

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <system_error>

namespace tq::test {

inline std::string ReadFileBytes(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteFileBytes(const std::filesystem::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

// The names in `directory`; only those with `extension` when one is given.
inline std::set<std::string> FileNames(const std::filesystem::path& directory,
                                       const std::string& extension = "") {
  std::set<std::string> names;
  for (const auto& item : std::filesystem::directory_iterator(directory)) {
    if (extension.empty() || item.path().extension() == extension) {
      names.insert(item.path().filename().string());
    }
  }
  return names;
}

// Whether `path` is a symbolic link (on Windows a reparse point).
inline bool IsLink(const std::filesystem::path& path) {
#if defined(_WIN32)
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
#else
  return std::filesystem::is_symlink(path);
#endif
}

// Plants a symbolic link (on Windows a reparse point); false where none can be made (Wine makes
// none: CreateSymbolicLinkW reports success and leaves nothing behind; Windows makes one only for
// a privileged or developer-mode user).
inline bool PlantLink(const std::filesystem::path& target, const std::filesystem::path& link) {
#if defined(_WIN32)
  return CreateSymbolicLinkW(link.c_str(), target.c_str(),
                             SYMBOLIC_LINK_FLAG_ALLOW_UNPRIVILEGED_CREATE) != 0 &&
         IsLink(link);
#else
  std::filesystem::create_symlink(target, link);  // throws if it cannot: POSIX always can
  return true;
#endif
}

// The descriptors the process has open, where the system tells (Linux); 0 elsewhere.
inline std::size_t OpenDescriptors() {
  std::size_t count = 0;
#if defined(__linux__)
  for ([[maybe_unused]] const auto& item : std::filesystem::directory_iterator("/proc/self/fd")) {
    ++count;
  }
#endif
  return count;
}

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
