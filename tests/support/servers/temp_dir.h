// A temporary directory for one test, removed with everything in it on destruction.
#pragma once

#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

namespace tq::test {

// Writes `contents` to root/relative, creating parent directories, and returns the full path.
// Throws std::runtime_error when the file cannot be written.
inline std::filesystem::path WriteFileUnder(const std::filesystem::path& root,
                                            std::string_view relative, std::string_view contents) {
  const std::filesystem::path full = root / relative;
  std::filesystem::create_directories(full.parent_path());
  std::ofstream out(full, std::ios::binary | std::ios::trunc);
  out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
  out.close();
  if (!out) throw std::runtime_error("cannot write " + full.string());
  return full;
}

// Makes a new directory base/<prefix><random number>, never one that exists, and returns it.
// Throws std::runtime_error when none can be made.
inline std::filesystem::path MakeNewDirectory(const std::filesystem::path& base,
                                              const std::string& prefix) {
  std::random_device entropy;
  for (int attempt = 0; attempt < 100; ++attempt) {
    const std::filesystem::path candidate = base / (prefix + std::to_string(entropy()));
    if (std::filesystem::create_directory(candidate)) return candidate;
  }
  throw std::runtime_error("cannot create a directory in " + base.string());
}

class TempDir {
 public:
  // A fresh directory under $TMPDIR (or TMP / TEMP on Windows), for its owner alone as mkdtemp
  // makes one. Throws std::runtime_error on failure.
  TempDir() : path_(MakeNewDirectory(std::filesystem::temp_directory_path(), "tqtest-")) {
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all);
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
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
