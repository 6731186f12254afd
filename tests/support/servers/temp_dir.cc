#include "tests/support/servers/temp_dir.h"

#include <stdlib.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <system_error>

namespace tq::test {

std::filesystem::path MakeNewDirectory(const std::filesystem::path& base,
                                       const std::string& prefix) {
  std::random_device entropy;
  for (int attempt = 0; attempt < 100; ++attempt) {
    const std::filesystem::path candidate = base / (prefix + std::to_string(entropy()));
    if (std::filesystem::create_directory(candidate)) return candidate;
  }
  throw std::runtime_error("cannot create a directory in " + base.string());
}

TempDir::TempDir() {
#if defined(_WIN32)
  // No mkdtemp: a random name, taken only if nobody has it yet (TMP / TEMP name the base).
  path_ = MakeNewDirectory(std::filesystem::temp_directory_path(), "tqtest-");
#else
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
                        "/tqtest-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("cannot create a temporary directory from " + pattern);
  }
  path_ = pattern;
#endif
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::filesystem::path WriteFileUnder(const std::filesystem::path& root, std::string_view relative,
                                     std::string_view contents) {
  const std::filesystem::path full = root / relative;
  std::filesystem::create_directories(full.parent_path());
  std::ofstream out(full, std::ios::binary | std::ios::trunc);
  out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
  out.close();
  if (!out) throw std::runtime_error("cannot write " + full.string());
  return full;
}

}  // namespace tq::test
