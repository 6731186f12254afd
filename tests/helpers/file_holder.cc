// Holds one file open through TqUSysFile for a test in another process.
//
// Usage: file_holder <access> <share> <creation>
// Reads from standard input a line with the file's path (UTF-8) and a line with the text to
// write to it (empty: nothing written); opens the file, writes the text, answers one byte on
// standard output ('1' opened and written, '0' not), then holds the file until standard input
// ends (the test released it) or the process is killed (a writer that died half-way).
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#endif

#include "tqutil/sys_file.h"

namespace {

bool ReadLine(std::string& line) {
  line.clear();
  for (int c; (c = std::getchar()) != EOF;) {
    if (c == '\n') return true;
    line.push_back(static_cast<char>(c));
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: file_holder <access> <share> <creation>\n");
    return 2;
  }
#if defined(_WIN32)
  _setmode(_fileno(stdin), _O_BINARY);
  _setmode(_fileno(stdout), _O_BINARY);
#endif
  std::string path, text;
  if (!ReadLine(path) || !ReadLine(text)) return 2;
  const auto number = [](const char* s) {
    return static_cast<std::uint32_t>(std::strtoul(s, nullptr, 10));
  };
  TqUSysFile::Handle file =
      TqUSysFile::OpenFile(std::filesystem::path(std::u8string(path.begin(), path.end())),
                           number(argv[1]), number(argv[2]), number(argv[3]), 0, 0);
  std::uint64_t written = 0;
  const bool ok = file != TqUSysFile::kInvalid &&
                  (text.empty() || TqUSysFile::WriteFile(file, text.data(), text.size(), &written));
  std::putchar(ok ? '1' : '0');
  std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
  TqUSysFile::CloseFile(file);
  return 0;
}
