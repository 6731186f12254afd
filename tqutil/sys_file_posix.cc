// The POSIX primitives under TqUSysFile: opens that never follow a link at the name nor wait,
// whole-file locks, the removal of a stale name, and new files made unnamed (O_TMPFILE), locked,
// and only then linked at their name.
#if !defined(_WIN32)

#include "tqutil/sys_file_internal.h"

#include "tqutil/sys_file_faults.h"

#include <cstring>
#include <memory>
#include <new>
#include <string>

#include <sys/file.h>

namespace qv::sys_file {

static_assert(sizeof(off_t) == 8, "64-bit file offsets are required");

namespace {

// Created files are for their owner only: the cache's files name the URLs the user opened.
constexpr mode_t kCreateMode = 0600;

}  // namespace

bool WholePath(const std::filesystem::path& path) {
  if (path.native().find('\0') == std::string::npos) return true;
  errno = EINVAL;
  return false;
}

bool WholePath(const std::filesystem::path& path, std::error_code& ec) {
  if (WholePath(path)) return true;
  ec = std::make_error_code(std::errc::invalid_argument);
  return false;
}

int RetryOpen(int dir, const char* name, int flags) {
  if (TqUSysFileFaults::Fails("open")) return -1;
  int fd;
  do {
    fd = ::openat(dir, name, flags, kCreateMode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

bool Lock(int fd, bool exclusive) {
  if (TqUSysFileFaults::Fails("lock")) return false;
  int rc;
  do {
    rc = ::flock(fd, (exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB);
  } while (rc < 0 && errno == EINTR);
  return rc == 0;
}

bool StillNamed(int dir, const char* name, const struct stat& opened) {
  struct stat now = {};
  return ::fstatat(dir, name, &now, AT_SYMLINK_NOFOLLOW) == 0 && now.st_dev == opened.st_dev &&
         now.st_ino == opened.st_ino;
}

namespace {

bool Unlink(int dir, const char* name) {
  if (TqUSysFileFaults::Fails("remove")) return false;
  return ::unlinkat(dir, name, 0) == 0 || errno == ENOENT;
}

// Frees `name` for a file created anew: whatever lies there goes, unless an open of ours holds
// it (then the caller is refused at once, as the sharing wants). True when the name is free.
bool RemoveStale(int dir, const char* name) {
  Descriptor old(RetryOpen(dir, name, kOpenFlags | O_RDWR));
  if (old.fd < 0) {
    switch (errno) {
      case ENOENT:
        return true;
      // A link (removing it leaves what it points to alone), a socket, or a file we may not
      // open: no open of ours can hold it.
      case ELOOP:
      case ENXIO:
      case EACCES:
      case EPERM:
        return Unlink(dir, name);
      default:  // a directory, or no descriptor to be had: left alone
        return false;
    }
  }
  struct stat st = {};
  if (::fstat(old.fd, &st) != 0) return false;
  // A regular file is stale once nobody holds it (a writer killed half-way). It is removed
  // under its lock, so that no other writer takes it meanwhile; one that opened it before
  // finds, once it has the lock, that the name no longer names it. Removing instead of
  // emptying also leaves alone a file that a hard link at this name shares with another name.
  if (S_ISREG(st.st_mode) && !Lock(old.fd, true)) return false;
  return StillNamed(dir, name, st) && Unlink(dir, name);
}

// A handle for the open file `fd` holds; `fd` stays its owner until the handle is made. An
// open reports failure by null, so a handle that cannot be made (out of memory) is null with
// ENOMEM; the file that this open `created` at that name of `dir`, if any, goes again while
// it is still held, and a failed open leaves nothing behind.
TqUSysFile::Handle AdoptDescriptor(Descriptor& fd, int dir = AT_FDCWD,
                                   const char* created = nullptr) {
  try {
    auto record = std::make_unique<TqUSysFileHandleTag>();
    Register(record.get());
    record->fd = fd.release();
    return record.release();
  } catch (const std::bad_alloc&) {
    struct stat st = {};
    if (created != nullptr && ::fstat(fd.fd, &st) == 0 && StillNamed(dir, created, st)) {
      ::unlinkat(dir, created, 0);
    }
    errno = ENOMEM;
    return TqUSysFile::kInvalid;
  }
}

enum : int { kCreateRefused = -1, kCreateUnsupported = -2 };

// Makes the new file `name` (relative to `dir`) unnamed first, locks it, and only then links it
// at the name, so that no other open ever finds it there empty and unlocked: a reader would
// take it for a stale file and delete it, and the store writing it would fail. The descriptor,
// kCreateRefused (something lies at the name again: another creator won; or the unnamed file
// could not be made or locked for another reason than lack of support), or
// kCreateUnsupported where the system or file system makes no unnamed files or cannot link
// them (the caller then creates the file at its name).
int CreateHeld(int dir, const char* name) {
#if defined(O_TMPFILE)
  const char* slash = std::strrchr(name, '/');
  const std::string parent =
      slash == nullptr ? std::string(".") : std::string(name, slash == name ? 1 : slash - name);
  Descriptor fd(RetryOpen(dir, parent.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC));
  if (fd.fd < 0) {
    return errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL ? kCreateUnsupported
                                                                      : kCreateRefused;
  }
  OpenedForTesting();
  if (!Lock(fd.fd, true)) return kCreateRefused;
  // Linking a descriptor itself needs a privilege; its /proc name does not.
  const std::string self = "/proc/self/fd/" + std::to_string(fd.fd);
  if (::linkat(AT_FDCWD, self.c_str(), dir, name, AT_SYMLINK_FOLLOW) != 0) {
    return errno == EEXIST ? kCreateRefused : kCreateUnsupported;
  }
  return fd.release();
#else
  (void)dir;
  (void)name;
  return kCreateUnsupported;
#endif
}

}  // namespace

TqUSysFile::Handle OpenAt(int dir, const char* name, std::uint32_t access, std::uint32_t share,
                          std::uint32_t creation) {
  const bool write = access == TqUSysFile::kAccessWrite;
  // Where flock is emulated by byte-range locks (NFS), an exclusive lock needs a descriptor
  // open for writing, so an exclusive reader asks for write access too; when it may not
  // write, nobody of its kind can write either, and a shared lock is enough to keep out
  // writers.
  const bool exclusive = write || share == TqUSysFile::kShareNone;
  int flags = kOpenFlags | (write || exclusive ? O_RDWR : O_RDONLY);
  if (creation == TqUSysFile::kCreateAlways) {
    // A new file, made by this open alone: what lay at the name (a stale file, a link, a FIFO)
    // is removed first, and the file is created exclusively, so that nothing is ever written
    // through a link and two writers never share one file.
    if (!RemoveStale(dir, name)) return TqUSysFile::kInvalid;
    const int held = CreateHeld(dir, name);
    if (held >= 0) {
      Descriptor created(held);
      return AdoptDescriptor(created, dir, name);
    }
    if (held == kCreateRefused) return TqUSysFile::kInvalid;
    flags |= O_CREAT | O_EXCL;
  } else if (creation == TqUSysFile::kOpenAlways) {
    flags |= O_CREAT;
  }
  Descriptor fd(RetryOpen(dir, name, flags));
  bool locked_exclusive = exclusive;
  if (fd.fd < 0 && !write && exclusive && (errno == EACCES || errno == EROFS)) {
    fd.fd = RetryOpen(dir, name, kOpenFlags | O_RDONLY);
    locked_exclusive = false;
  }
  if (fd.fd < 0) return TqUSysFile::kInvalid;
  struct stat st = {};
  if (::fstat(fd.fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    return TqUSysFile::kInvalid;
  }
  OpenedForTesting();
  if (!Lock(fd.fd, locked_exclusive)) {
    // A file this open created is not left behind at the name by the open that failed.
    if (creation == TqUSysFile::kCreateAlways && StillNamed(dir, name, st)) {
      ::unlinkat(dir, name, 0);
    }
    return TqUSysFile::kInvalid;
  }
  // Between our open and our lock another writer may have renamed a new file over the path
  // (or removed a stale one to create its own): the file we locked is then no longer the
  // path's, and writing it would change a file that others reach by another name (or by
  // none). Such an open is refused like any other.
  if (write && !StillNamed(dir, name, st)) return TqUSysFile::kInvalid;
  // Never O_TRUNC at the open: an existing file is emptied only once the lock is ours.
  if (creation == TqUSysFile::kCreateAlways && st.st_size != 0 &&
      (TqUSysFileFaults::Fails("truncate") || ::ftruncate(fd.fd, 0) != 0)) {
    return TqUSysFile::kInvalid;
  }
  if (creation == TqUSysFile::kCreateAlways) return AdoptDescriptor(fd, dir, name);
  const TqUSysFile::Handle handle = AdoptDescriptor(fd);
  if (handle != TqUSysFile::kInvalid) handle->size_when_opened = st.st_size;
  return handle;
}

}  // namespace qv::sys_file

#endif
