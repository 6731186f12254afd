// Where tqfetch's output lands: a file written beside its target and renamed over it once whole,
// the program's own standard output named as a file, and what a signal that ends the program
// midway leaves behind (nothing: the files a copy made beside its target are removed first).
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

namespace tqfetch {

// 16 hexadecimal digits nobody can guess, for names of the program's own files.
std::string RandomHex();

// Whether `target` is the program's own standard output (/dev/stdout, /dev/fd/1): written
// through it where it stands, after what the caller put there (`-o /dev/stdout >> log`), never
// replaced by a new file, which would drop what the file held and what the caller writes next.
bool NamesStandardOutput(const std::filesystem::path& target);

// Whether a copy to `target` goes to a new file renamed over it once complete: for a regular
// file (or none yet). A device or a pipe (/dev/null, a FIFO) is written as it is: nothing of it
// is kept, and nothing may take its place.
bool WritesBeside(const std::filesystem::path& target);

// A file written beside `target` under a name of its own and renamed over `target` when all of
// it is written: a copy that fails midway (a full disk, a read that fails) leaves a file
// already there as it was, and nothing beside it. A link at `target` is written through, to
// the file it names, as a plain open would. Each step gives 0 or the system's error number.
class ReplacingFile {
 public:
  explicit ReplacingFile(std::filesystem::path target);
  ~ReplacingFile();
  ReplacingFile(const ReplacingFile&) = delete;
  ReplacingFile& operator=(const ReplacingFile&) = delete;

  int Open();
  int Write(const char* data, std::size_t size);
  // On disk before the rename, so that a crash never leaves a short file under the name.
  int Commit();

 private:
  int CloseFd();

  std::filesystem::path m_target;
  std::filesystem::path m_temp;
  int m_fd = -1;
};

#if !defined(_WIN32)
// Ctrl-C, a TERM or a hang-up (its terminal closed) ends the program at once, by that signal as
// a shell expects, once what unfinished copies left beside their targets is removed. Called
// first in main, before any other thread starts. A signal that was ignored when the program
// started (SIGINT of a background job) stays ignored.
void WatchSignals();

// A standard descriptor the caller closed (`tqfetch fetch URL >&-`) would be the first one the
// program opens (a socket, a file being written), which would then take what was meant for it:
// the body of a fetch went into a socket, as a success. It is held by /dev/null opened the
// other way, so that writing to a closed output fails as it should. Called first in main.
void HoldClosedStandardDescriptors();

// A directory of the program's own beside a download's target, where the download lands before
// it is renamed over the target whole: the download's own temporary file lies inside it, under a
// name the program does not know, and goes with it should a signal end the program midway.
class LandingDirectory {
 public:
  explicit LandingDirectory(std::filesystem::path target);
  ~LandingDirectory();
  LandingDirectory(const LandingDirectory&) = delete;
  LandingDirectory& operator=(const LandingDirectory&) = delete;

  bool ok() const { return !m_directory.empty(); }
  std::filesystem::path File() const { return m_directory / m_target.filename(); }

  // Renames the downloaded file over the target: 0 or the system's error number. As the
  // download itself would: a link there is replaced itself, anything else that is no regular
  // file is not replaced, and a file replaced keeps its permissions (not its set-id bits).
  int Commit();

 private:
  std::filesystem::path m_target;
  std::filesystem::path m_directory;
};
#endif

}  // namespace tqfetch
