#include "tests/support/servers/temp_dir.h"

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

// A random name, taken only if nobody has it yet ($TMPDIR, or TMP / TEMP on Windows, names the
// base), for its owner alone as mkdtemp makes one.
TempDir::TempDir() : path_(MakeNewDirectory(std::filesystem::temp_directory_path(), "tqtest-")) {
  std::filesystem::permissions(path_, std::filesystem::perms::owner_all);
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
