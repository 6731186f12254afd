// A fresh directory under the system's temporary directory, removed with its contents.
#pragma once

#include <atomic>
#include <filesystem>
#include <string>

#if defined(_WIN32)
#include <process.h>
#else
#include <unistd.h>
#endif

namespace tq::test {

struct TempDir {
  TempDir() {
    static std::atomic<int> counter{0};
    m_path = std::filesystem::temp_directory_path() /
             ("tqutil-test-" + std::to_string(ProcessId()) + "-" + std::to_string(counter++));
    std::filesystem::remove_all(m_path);
    std::filesystem::create_directories(m_path);
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(m_path, ec);
  }
  static int ProcessId() {
#if defined(_WIN32)
    return ::_getpid();
#else
    return static_cast<int>(::getpid());
#endif
  }
  const std::filesystem::path& Path() const { return m_path; }
  std::filesystem::path operator/(const std::string& name) const { return m_path / name; }
  std::filesystem::path m_path;
};

}  // namespace tq::test
