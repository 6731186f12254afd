// A temporary directory for one test, removed with everything in it on destruction.
#pragma once

#include <filesystem>
#include <string_view>

namespace tq::test {

class TempDir {
 public:
  // Creates a fresh directory under $TMPDIR (or /tmp). Throws std::runtime_error on failure.
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(std::string_view name) const { return path_ / name; }
  // Writes a file (creating parent directories) and returns its full path.
  std::filesystem::path WriteFile(std::string_view relative, std::string_view contents) const;

 private:
  std::filesystem::path path_;
};

}  // namespace tq::test
