// TqUSysDirectory on POSIX: one descriptor of the directory and the *at calls relative to it;
// listings with readdir, and removal of a tree that never follows a link.
#if !defined(_WIN32)

#include "tqutil/sys_file.h"

#include "tqutil/sys_file_faults.h"
#include "tqutil/sys_file_internal.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

using qv::sys_file::CreatedForTesting;
using qv::sys_file::Descriptor;
using qv::sys_file::DirCloser;
using qv::sys_file::Errno;
using qv::sys_file::kOpenFlags;
using qv::sys_file::Lock;
using qv::sys_file::OpenAt;
using qv::sys_file::OpenedForTesting;
using qv::sys_file::RemovalRefused;
using qv::sys_file::RetryOpen;
using qv::sys_file::StillNamed;
using qv::sys_file::ValidArguments;
using qv::sys_file::WholePath;

TqUSysDirectory::TqUSysDirectory(const std::filesystem::path& path) : m_path(path) {
  if (!WholePath(path, m_error)) return;
  do {
    m_fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  } while (m_fd < 0 && errno == EINTR);
  if (m_fd < 0) m_error = Errno();
}

TqUSysDirectory::~TqUSysDirectory() {
  if (m_fd >= 0) ::close(m_fd);
}

std::error_code TqUSysDirectory::List(const std::function<void(const Item&)>& visit,
                                      bool sizes) const {
  if (m_error) return m_error;
  // A descriptor of its own, so that every listing starts at the beginning and several may
  // run at once.
  Descriptor fd(RetryOpen(m_fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.fd < 0) return Errno();
  // Closed however the listing ends: a visitor may throw.
  const std::unique_ptr<DIR, DirCloser> dir(::fdopendir(fd.fd));
  if (!dir) return Errno();
  fd.release();  // the listing's now
  std::error_code result;
  for (;;) {
    errno = 0;
    const dirent* const entry = ::readdir(dir.get());
    if (entry == nullptr) {
      if (errno != 0) result = Errno();
      break;
    }
    const char* const name = entry->d_name;
    if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0))) continue;
    Item item;
    item.name = name;
    item.length = std::strlen(name);
    // The listing tells the kind of most entries; only unknown kinds need a look at what they
    // are, and regular files one for their size when it is asked for. A link is not a file of
    // the directory's own, whatever it leads to.
    const unsigned char type = entry->d_type;
    if (type == DT_REG && !sizes) {
      item.regular = true;
    } else if (type == DT_REG || type == DT_UNKNOWN) {
      struct stat st = {};
      if (::fstatat(m_fd, name, &st, AT_SYMLINK_NOFOLLOW) == 0) {
        item.regular = S_ISREG(st.st_mode);
        if (item.regular) item.size = static_cast<std::int64_t>(st.st_size);
      } else {
        item.regular = type == DT_REG;  // gone meanwhile: still listed as what it was
      }
    }
    visit(item);
  }
  return result;
}

TqUSysFile::Handle TqUSysDirectory::OpenFile(const Char* name, std::uint32_t access,
                                             std::uint32_t share, std::uint32_t creation,
                                             std::uint32_t reserved1,
                                             std::uint32_t reserved2) const {
  if (m_fd < 0 || name == nullptr || name[0] == 0 ||
      !ValidArguments(access, share, creation, reserved1, reserved2)) {
    return TqUSysFile::kInvalid;
  }
  return OpenAt(m_fd, name, access, share, creation);
}

namespace {

// Opens `name` to read without recording an access: a look at a file's first bytes is not a use
// of it, and over a large directory the access times would dirty thousands of inodes, most of
// them in files about to be deleted. The system refuses that for a file of another user, which
// is then opened as usual.
int OpenUntouched(int dir, const char* name) {
#if defined(O_NOATIME)
  const int fd = RetryOpen(dir, name, kOpenFlags | O_RDONLY | O_NOATIME);
  if (fd >= 0 || errno != EPERM) return fd;
#endif
  return RetryOpen(dir, name, kOpenFlags | O_RDONLY);
}

}  // namespace

std::int64_t TqUSysDirectory::ReadStart(const Char* name, void* buffer,
                                        std::size_t size) const {
  if (m_fd < 0 || name == nullptr || name[0] == 0 || (buffer == nullptr && size > 0)) return -1;
  // OpenAt's steps for a shared reader, without a handle: a clean-up reads thousands of headers
  // in a row, and the handle's bookkeeping would cost more than its system calls.
  Descriptor fd(OpenUntouched(m_fd, name));
  if (fd.fd < 0) return -1;
  struct stat st;
  if (::fstat(fd.fd, &st) != 0 || !S_ISREG(st.st_mode)) return -1;
  OpenedForTesting();
  if (!Lock(fd.fd, false) || TqUSysFileFaults::Fails("read")) return -1;
  // Short only at the end, as promised: a network or user-space file system may answer a read
  // in pieces, and a header read half would be taken for no entry.
  size = std::min<std::size_t>(size, 1u << 30);
  std::size_t done = 0;
  while (done < size) {
    const auto chunk = static_cast<std::size_t>(TqUSysFileFaults::ReadSize(size - done));
    const ssize_t got = ::pread(fd.fd, static_cast<char*>(buffer) + done, chunk,
                                static_cast<off_t>(done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return -1;
    done += static_cast<std::size_t>(got);
    // The size just measured spares the read of nothing that would find the end.
    if (got == 0 || static_cast<off_t>(done) >= st.st_size) break;
  }
  return static_cast<std::int64_t>(done);
}

std::int64_t TqUSysDirectory::FileSize(const Char* name) const {
  struct stat st = {};
  if (m_fd < 0 || ::fstatat(m_fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode)) {
    return -1;
  }
  return static_cast<std::int64_t>(st.st_size);
}

bool TqUSysDirectory::Exists(const Char* name, std::error_code& ec) const {
  ec.clear();
  if (m_fd < 0) {
    ec = m_error;
    return false;
  }
  struct stat st = {};
  if (::fstatat(m_fd, name, &st, AT_SYMLINK_NOFOLLOW) == 0) return true;
  if (errno != ENOENT && errno != ENOTDIR) ec = Errno();
  return false;
}

bool TqUSysDirectory::Create(const std::filesystem::path& path, std::error_code& ec) {
  ec.clear();
  if (!WholePath(path, ec)) return false;
  // Another process clearing the same directory may remove it between the mkdir and the open
  // after it: it is made again, a few times at most.
  for (int attempt = 1;; ++attempt) {
    if (::mkdir(path.c_str(), 0700) != 0) {
      const int error = errno;
      struct stat st = {};
      if (error == EEXIST && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return true;
      ec = std::error_code(error, std::generic_category());
      return false;
    }
    CreatedForTesting();
    // The mode asked of mkdir loses what the umask takes away; owner-only is set as a whole,
    // on the directory made: one who may write the parent could swap a link in for it by now,
    // and a mode set by name would go to what the link leads to.
    Descriptor made(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (made.fd >= 0 && ::fchmod(made.fd, 0700) == 0) return true;
    ec = Errno();
    if (ec != std::errc::no_such_file_or_directory || attempt == 3) return false;
  }
}

namespace {

// Removes the name `name` of the directory `dir` (never what a link leads to), as the test seams
// allow (the refusal is asked about `leaf`, the name's last part): 0, or the errno value it
// failed with (ENOENT when nothing was there).
int RemoveName(int dir, const char* name, const char* leaf) {
  if (RemovalRefused(leaf)) return EACCES;
  if (TqUSysFileFaults::Fails("remove")) return errno;
  return ::unlinkat(dir, name, 0) == 0 ? 0 : errno;
}

// A directory being emptied: its descriptor (-1 while closed to spare descriptors), its names
// as listed, the next of them to remove, its name in the directory above, and what it is (so
// that it is known again when reached anew). Its listing (a buffer of tens of KiB) is closed
// once read.
struct Level {
  explicit Level(Descriptor directory) : fd(std::move(directory)) {}

  Descriptor fd;
  std::vector<std::string> names;
  std::size_t next = 0;
  std::string name;
  dev_t device = 0;
  ino_t inode = 0;
};

// Opens the directory `name` of `at` (O_NOFOLLOW: one swapped for a link is never entered) and
// lists its names whole before anything goes (a directory changed while read may skip names).
// Nothing, with the errno value in `*error`, when it cannot be opened or listed.
std::optional<Level> EnterLevel(int at, const std::string& name, int* error) {
  Descriptor fd(::openat(at, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat st = {};
  if (fd.fd < 0 || ::fstat(fd.fd, &st) != 0) {
    *error = errno;
    return std::nullopt;
  }
  Level level(std::move(fd));
  level.name = name;
  level.device = st.st_dev;
  level.inode = st.st_ino;
  // Listed through a descriptor of its own, so that the listing can go once read.
  Descriptor listed(::fcntl(level.fd.fd, F_DUPFD_CLOEXEC, 0));
  if (listed.fd < 0) {
    *error = errno;
    return std::nullopt;
  }
  const std::unique_ptr<DIR, DirCloser> dir(::fdopendir(listed.fd));
  if (!dir) {
    *error = errno;
    return std::nullopt;
  }
  listed.release();  // the listing's now
  while (const dirent* item = ::readdir(dir.get())) {
    if (std::strcmp(item->d_name, ".") != 0 && std::strcmp(item->d_name, "..") != 0) {
      level.names.emplace_back(item->d_name);
    }
  }
  return level;
}

// Opens `above`, closed meanwhile, again as ".." of `inside`; false, with the reason in `ec`
// unless one is there already, when it is no longer the directory entered (moved away
// meanwhile): the removal then ends rather than remove names of some other directory.
bool ReenterAbove(const Level& inside, Level& above, std::error_code& ec) {
  Descriptor fd(::openat(inside.fd.fd, "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat st = {};
  if (fd.fd < 0 || ::fstat(fd.fd, &st) != 0 || st.st_dev != above.device ||
      st.st_ino != above.inode) {
    if (!ec) ec = fd.fd < 0 ? Errno() : std::make_error_code(std::errc::no_such_file_or_directory);
    return false;
  }
  above.fd.fd = fd.release();
  return true;
}

// The directories of a removal that stay open at once: a tree may be as deep as whoever can
// write the directory made it, and a descriptor per level would take every descriptor the
// process may have (its other threads' opens failing meanwhile) and still not reach the bottom.
constexpr std::size_t kMostOpenLevels = 32;

// Removes `name` of the directory `parent` (a descriptor, or AT_FDCWD) and, when it is a
// directory, everything in it first. A link is removed as itself: a directory is only ever
// opened with O_NOFOLLOW, so one swapped for a link meanwhile is never entered. Whatever cannot
// be removed is passed over and the rest still goes (libstdc++'s remove_all stops at the first
// failure); the first failure is kept in `ec`. The count of names removed. The directories
// entered are kept on a list of their own, not on the call stack, and only the innermost of
// them are held open: an outer one closed meanwhile is opened again as ".." of the one inside
// it once that is emptied, and used only if it is still the directory it was.
std::uintmax_t RemoveTreeAt(int parent, const char* name, std::error_code& ec) {
  const auto keep = [&ec](int error) {
    if (!ec && error != 0 && error != ENOENT) ec = std::error_code(error, std::generic_category());
  };
  std::uintmax_t count = 0;
  std::vector<Level> levels;  // the directories entered, outermost first
  std::size_t first_open = 0;  // levels before it are closed, those from it on open
  // Removes `entry` of `at` when it is no directory; enters it (a new level) when it is one.
  const auto remove = [&](int at, const std::string& entry, const char* leaf) {
    const int unlink_error = RemoveName(at, entry.c_str(), leaf);
    if (unlink_error == 0) {
      ++count;
      return;
    }
    // Linux refuses to unlink a directory with EISDIR, POSIX allows EPERM.
    if (unlink_error != EISDIR && unlink_error != EPERM) {
      keep(unlink_error);
      return;
    }
    if (levels.size() - first_open >= kMostOpenLevels) {
      ::close(levels[first_open++].fd.release());
    }
    int error = 0;
    std::optional<Level> level = EnterLevel(at, entry, &error);
    if (!level) {
      keep(error == ENOTDIR ? unlink_error : error);  // ENOTDIR: a file that may not be removed
      return;
    }
    levels.push_back(std::move(*level));
  };
  const char* slash = std::strrchr(name, '/');
  remove(parent, name, slash != nullptr && slash[1] != '\0' ? slash + 1 : name);
  while (!levels.empty()) {
    Level& level = levels.back();
    if (level.next < level.names.size()) {
      const std::string inner = level.names[level.next++];
      remove(level.fd.fd, inner, inner.c_str());
      continue;
    }
    // Emptied (as far as it goes). The directory above, closed meanwhile, is opened again
    // through this one.
    const std::size_t depth = levels.size() - 1;
    if (depth > 0 && depth == first_open) {
      if (!ReenterAbove(level, levels[depth - 1], ec)) return count;
      first_open = depth - 1;
    }
    // Closed before the directory goes.
    Level done = std::move(level);
    levels.pop_back();
    ::close(done.fd.release());
    const int at = levels.empty() ? parent : levels.back().fd.fd;
    if (::unlinkat(at, done.name.c_str(), AT_REMOVEDIR) == 0) {
      ++count;
    } else {
      keep(errno);
    }
  }
  return count;
}

}  // namespace

std::uintmax_t TqUSysDirectory::RemoveTree(const std::filesystem::path& path,
                                            std::error_code& ec) {
  ec.clear();
  if (!WholePath(path, ec)) return 0;
  return RemoveTreeAt(AT_FDCWD, path.c_str(), ec);
}

bool TqUSysDirectory::RemoveFile(const Char* name, std::error_code& ec) const {
  ec.clear();
  if (m_fd < 0) {
    ec = m_error;
    return false;
  }
  const int error = RemoveName(m_fd, name, name);
  if (error != 0 && error != ENOENT) ec = std::error_code(error, std::generic_category());
  return error == 0;
}

bool TqUSysDirectory::RemoveFileUnlessHeld(const Char* name, std::error_code& ec) const {
  ec.clear();
  if (m_fd < 0) {
    ec = m_error;
    return false;
  }
  Descriptor fd(OpenUntouched(m_fd, name));
  if (fd.fd < 0) {
    if (errno != ENOENT) ec = Errno();
    return false;
  }
  struct stat st = {};
  if (::fstat(fd.fd, &st) != 0) {
    ec = Errno();
    return false;
  }
  if (!S_ISREG(st.st_mode)) {
    ec = std::make_error_code(std::errc::operation_not_supported);
    return false;
  }
  OpenedForTesting();
  if (!Lock(fd.fd, false)) {
    ec = std::make_error_code(std::errc::resource_unavailable_try_again);
    return false;
  }
  // A writer that emptied the name for a file of its own between the open and the lock has
  // that file at the name now: it is the writer's, not the one looked at.
  if (!StillNamed(m_fd, name, st)) return false;
  const int error = RemoveName(m_fd, name, name);
  if (error != 0 && error != ENOENT) ec = std::error_code(error, std::generic_category());
  return error == 0;
}

#endif
