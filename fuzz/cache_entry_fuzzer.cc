// Feeds arbitrary bytes to the disk cache's entry loader as an entry file, then serves and
// rewrites whatever it accepts. Nothing read from an entry file may crash, hang or allocate
// beyond the file's own size.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "net/cache/cache_entry.h"

namespace {

const std::filesystem::path& EntryPath() {
  static const std::filesystem::path path = [] {
    std::filesystem::path dir = std::filesystem::temp_directory_path() /
                                ("cache_entry_fuzzer." + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    return dir / "0123456789";
  }();
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::filesystem::path& path = EntryPath();
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  try {
    qv::net::CacheEntry entry = qv::net::CacheEntry::Load(path);
    if (entry.IsValid()) {
      if (auto stream = entry.OpenReadStream(0)) {
        char buffer[4096];
        while (stream->Read(buffer, sizeof buffer) != 0) {
        }
      }
    }
  } catch (const std::runtime_error&) {
    // Refused (and deleted) as not an entry: the expected outcome for most inputs.
  }
  std::error_code ec;
  std::filesystem::remove(path, ec);
  return 0;
}
