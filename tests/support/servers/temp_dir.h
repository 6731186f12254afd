// A temporary directory for one test, removed with everything in it on destruction.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace tq::test {

// Writes `contents` to root/relative, creating parent directories, and returns the full path.
// Throws std::runtime_error when the file cannot be written.
std::filesystem::path WriteFileUnder(const std::filesystem::path& root, std::string_view relative,
                                     std::string_view contents);

// Makes a new directory base/<prefix><random number>, never one that exists, and returns it.
// Throws std::runtime_error when none can be made.
std::filesystem::path MakeNewDirectory(const std::filesystem::path& base,
                                       const std::string& prefix);

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
  std::filesystem::path WriteFile(std::string_view relative, std::string_view contents) const {
    return WriteFileUnder(path_, relative, contents);
  }

 private:
  std::filesystem::path path_;
};

}  // namespace tq::test
