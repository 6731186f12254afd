#include "output_file.h"

#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>
#else
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <random>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace tqfetch {
namespace {

namespace fs = std::filesystem;

// What unfinished copies have made beside their targets, for the signal watcher to remove should
// a signal end the program first. Made, renamed and removed under the lock, which the
// watcher takes and keeps: it finds each file either listed or not made yet, never half-way.
// Never destroyed: a signal may come while the program exits.
std::mutex& g_leftovers_mutex = *new std::mutex;
std::vector<fs::path>& g_leftovers = *new std::vector<fs::path>;

// Called with the lock held.
void ForgetLeftover(const fs::path& path) {
  g_leftovers.erase(std::remove(g_leftovers.begin(), g_leftovers.end(), path), g_leftovers.end());
}

// Removes a file (or, with `tree`, a directory and all in it) that a copy no longer needs, and
// takes it off the list.
void DropLeftover(const fs::path& path, bool tree) {
  if (path.empty()) return;
  std::lock_guard lock(g_leftovers_mutex);
  std::error_code ignored;
  if (tree) {
    fs::remove_all(path, ignored);
  } else {
    fs::remove(path, ignored);
  }
  ForgetLeftover(path);
}

}  // namespace

std::string RandomHex() {
  static std::mutex mutex;
  static std::mt19937_64 random{std::random_device{}()};
  std::lock_guard lock(mutex);
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(random()));
  return text;
}

bool NamesStandardOutput(const fs::path& target) {
#if defined(_WIN32)
  (void)target;
  return false;
#else
  // Not when it is closed (held by /dev/null for reading): `-o /dev/null >&-` names no output.
  const int mode = ::fcntl(1, F_GETFL);
  struct stat named = {}, out = {};
  return mode != -1 && (mode & O_ACCMODE) != O_RDONLY && ::stat(target.c_str(), &named) == 0 &&
         ::fstat(1, &out) == 0 && named.st_dev == out.st_dev && named.st_ino == out.st_ino;
#endif
}

bool WritesBeside(const fs::path& target) {
  std::error_code error;
  const fs::file_status status = fs::status(target, error);
  return !fs::exists(status) || fs::is_regular_file(status);
}

// --- ReplacingFile -----------------------------------------------------------------------------

ReplacingFile::ReplacingFile(fs::path target) : m_target(std::move(target)) {
  std::error_code error;
  if (fs::is_symlink(fs::symlink_status(m_target, error))) {
    const fs::path named = fs::weakly_canonical(m_target, error);
    if (!error) m_target = named;
  }
}

ReplacingFile::~ReplacingFile() {
  if (m_fd >= 0) CloseFd();
  DropLeftover(m_temp, false);
}

int ReplacingFile::Open() {
  // A file there that may not be written stays as it is, as a plain open would leave it
  // (a rename replaces a read-only file whose directory is writable).
  std::error_code error;
  if (fs::exists(m_target, error)) {
    errno = 0;
    if (!std::ofstream(m_target, std::ios::binary | std::ios::app)) return errno ? errno : EACCES;
  }
  const fs::path directory = m_target.has_parent_path() ? m_target.parent_path() : fs::path(".");
  // The copy keeps the permissions of the file it replaces, from the moment it is made: made
  // wider and narrowed later, it could be opened by another user meanwhile.
  const fs::file_status old = fs::status(m_target, error);
  const bool replaces = !error && fs::exists(old);
  for (int attempt = 0; attempt < 16; ++attempt) {
    const fs::path temp = directory / (".tqfetch-" + RandomHex() + ".part");
    std::lock_guard lock(g_leftovers_mutex);
    // Exclusive: never opens, nor truncates through, what someone else put under the name.
#if defined(_WIN32)
    m_fd = _wopen(temp.c_str(), _O_WRONLY | _O_CREAT | _O_EXCL | _O_BINARY, _S_IREAD | _S_IWRITE);
#else
    const auto mode = replaces ? static_cast<mode_t>(old.permissions() & fs::perms::all) : 0666;
    m_fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
#endif
    if (m_fd >= 0) {
      m_temp = temp;
      g_leftovers.push_back(temp);
      // What the umask took off the file's own bits.
      if (replaces) fs::permissions(m_temp, old.permissions() & fs::perms::all, error);
      return 0;
    }
    if (errno != EEXIST) return errno;
  }
  return EEXIST;
}

int ReplacingFile::Write(const char* data, std::size_t size) {
  while (size > 0) {
    const unsigned piece = static_cast<unsigned>(std::min<std::size_t>(size, 1u << 30));
#if defined(_WIN32)
    const int n = _write(m_fd, data, piece);
#else
    const ssize_t n = ::write(m_fd, data, piece);
    if (n < 0 && errno == EINTR) continue;
#endif
    if (n < 0) return errno;
    if (n == 0) return ENOSPC;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return 0;
}

int ReplacingFile::Commit() {
#if defined(_WIN32)
  const int flushed = _commit(m_fd) != 0 ? errno : 0;
#else
  const int flushed = ::fsync(m_fd) != 0 ? errno : 0;
#endif
  const int closed = CloseFd();
  if (flushed != 0 || closed != 0) return flushed != 0 ? flushed : closed;
  std::lock_guard lock(g_leftovers_mutex);
  std::error_code error;
  fs::rename(m_temp, m_target, error);
  if (error) return error.default_error_condition().value();  // an errno on Windows too
  ForgetLeftover(m_temp);
  m_temp.clear();
  return 0;
}

int ReplacingFile::CloseFd() {
#if defined(_WIN32)
  const int result = _close(m_fd);
#else
  const int result = ::close(m_fd);
#endif
  m_fd = -1;
  return result != 0 ? errno : 0;
}

#if !defined(_WIN32)

// --- signals and standard descriptors ---------------------------------------------------------

// The signals are blocked in every thread and taken by one thread of their own with sigwait,
// so that the clean-up is ordinary code rather than a signal handler's.
void WatchSignals() {
  sigset_t set;
  sigemptyset(&set);
  bool any = false;
  for (const int sig : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction current = {};
    if (sigaction(sig, nullptr, &current) == 0 && current.sa_handler != SIG_IGN) {
      sigaddset(&set, sig);
      any = true;
    }
  }
  if (!any) return;
  if (pthread_sigmask(SIG_BLOCK, &set, nullptr) != 0) return;
  try {
    std::thread([set] {
      int sig = 0;
      while (sigwait(&set, &sig) != 0) {
      }
      g_leftovers_mutex.lock();  // kept: nothing is made or renamed from now on
      for (const fs::path& path : g_leftovers) {
        // A download's own file may be made inside a directory while it is removed: again.
        std::error_code error;
        for (int tries = 0; tries < 16; ++tries) {
          fs::remove_all(path, error);
          if (!fs::exists(fs::symlink_status(path, error))) break;
        }
      }
      signal(sig, SIG_DFL);
      sigset_t only;
      sigemptyset(&only);
      sigaddset(&only, sig);
      pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
      raise(sig);
      _exit(128 + sig);
    }).detach();
  } catch (const std::system_error&) {
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);  // no watcher: the signals as they were
  }
}

void HoldClosedStandardDescriptors() {
  for (int fd = 0; fd <= 2; ++fd) {
    if (fcntl(fd, F_GETFD) == -1 && errno == EBADF) {
      const int held = ::open("/dev/null", fd == 0 ? O_WRONLY : O_RDONLY);
      if (held > 2) ::close(held);
    }
  }
}

// --- LandingDirectory --------------------------------------------------------------------------

LandingDirectory::LandingDirectory(fs::path target) : m_target(std::move(target)) {
  const fs::path parent = m_target.has_parent_path() ? m_target.parent_path() : fs::path(".");
  for (int attempt = 0; attempt < 16; ++attempt) {
    const fs::path directory = parent / (".tqfetch-" + RandomHex() + ".d");
    std::lock_guard lock(g_leftovers_mutex);
    if (::mkdir(directory.c_str(), 0700) == 0) {
      m_directory = directory;
      g_leftovers.push_back(directory);
      return;
    }
    if (errno != EEXIST) return;
  }
}

LandingDirectory::~LandingDirectory() { DropLeftover(m_directory, true); }

int LandingDirectory::Commit() {
  const fs::path file = File();
  std::lock_guard lock(g_leftovers_mutex);
  struct stat old = {};
  if (::lstat(m_target.c_str(), &old) == 0) {
    if (S_ISREG(old.st_mode)) {
      (void)::chmod(file.c_str(), old.st_mode & 0777);
    } else if (!S_ISLNK(old.st_mode)) {
      return EEXIST;
    }
  }
  if (::rename(file.c_str(), m_target.c_str()) != 0) return errno;
  ::rmdir(m_directory.c_str());
  ForgetLeftover(m_directory);
  m_directory.clear();
  return 0;
}

#endif

}  // namespace tqfetch
