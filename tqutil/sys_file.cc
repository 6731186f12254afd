#include "tqutil/sys_file.h"

#include "tqutil/sys_file_faults.h"
#include "tqutil/sys_path.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#if defined(_WIN32)
#include <windows.h>
#else
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

// The record behind a handle. It owns its file from the moment it holds it: a record that never
// reaches a caller (out of memory on the way) closes the file as it goes.
struct TqUSysFileHandleTag {
  TqUSysFileHandleTag() = default;
  TqUSysFileHandleTag(const TqUSysFileHandleTag&) = delete;
  TqUSysFileHandleTag& operator=(const TqUSysFileHandleTag&) = delete;
#if defined(_WIN32)
  ~TqUSysFileHandleTag() {
    if (file != INVALID_HANDLE_VALUE) ::CloseHandle(file);
  }
  HANDLE file = INVALID_HANDLE_VALUE;
#else
  ~TqUSysFileHandleTag() {
    if (fd >= 0) ::close(fd);
  }
  int fd = -1;
#endif
};

namespace {

// Live handles, so that a null, closed or foreign handle is refused instead of followed.
struct Registry {
  std::mutex mutex;
  std::unordered_set<TqUSysFile::Handle> live;
};

Registry& TheRegistry() {
  static Registry* const registry = new Registry();
  return *registry;
}

bool IsLive(TqUSysFile::Handle h) {
  if (!h) return false;
  Registry& r = TheRegistry();
  std::lock_guard lock(r.mutex);
  return r.live.count(h) != 0;
}

// Records `record` as a live handle. Throws std::bad_alloc when there is no room, the record
// then still the caller's.
void Register(TqUSysFileHandleTag* record) {
  Registry& r = TheRegistry();
  std::lock_guard lock(r.mutex);
  r.live.insert(record);
}

#if defined(_WIN32)
// Makes `record` a live handle for a caller; should that fail (out of memory), the record
// closes its file.
TqUSysFile::Handle Adopt(std::unique_ptr<TqUSysFileHandleTag> record) {
  Register(record.get());
  return record.release();
}
#endif

bool Forget(TqUSysFile::Handle h) {
  if (!h) return false;
  Registry& r = TheRegistry();
  std::lock_guard lock(r.mutex);
  return r.live.erase(h) != 0;
}

bool ValidArguments(std::uint32_t access, std::uint32_t share, std::uint32_t creation,
                    std::uint32_t reserved1, std::uint32_t reserved2) {
  return access <= TqUSysFile::kAccessWrite && share <= TqUSysFile::kShareRead &&
         creation >= TqUSysFile::kCreateAlways && creation <= TqUSysFile::kOpenAlways &&
         reserved1 == 0 && reserved2 == 0;
}

// A function a test installs to reach a moment inside the library (the ...ForTesting members).
// Called without any lock held, so that it may wait for other threads to arrive; costs one
// atomic load while none is installed.
template <class Function>
class TestHook {
 public:
  void Set(Function function) {
    std::lock_guard lock(m_mutex);
    if (function) {
      m_function = std::make_shared<const Function>(std::move(function));
    } else {
      m_function.reset();
    }
    m_set.store(m_function != nullptr, std::memory_order_release);
  }
  std::shared_ptr<const Function> Get() {
    if (!m_set.load(std::memory_order_acquire)) return nullptr;
    std::lock_guard lock(m_mutex);
    return m_function;
  }

 private:
  std::mutex m_mutex;
  std::atomic<bool> m_set{false};
  std::shared_ptr<const Function> m_function;
};

TestHook<std::function<void()>>& TheOpenHook() {
  static auto* const hook = new TestHook<std::function<void()>>();
  return *hook;
}

// Runs the test seam of an open that found a regular file and is about to lock it.
void OpenedForTesting() {
  if (auto hook = TheOpenHook().Get()) (*hook)();
}

TestHook<std::function<bool(const TqUSysDirectory::Char*)>>& TheRemoveFault() {
  static auto* const fault = new TestHook<std::function<bool(const TqUSysDirectory::Char*)>>();
  return *fault;
}

// Whether the test seam refuses to remove `name`.
bool RemovalRefused(const TqUSysDirectory::Char* name) {
  auto refuse = TheRemoveFault().Get();
  return refuse && (*refuse)(name);
}

// The threads that have armed TqUSysFileFaults, and each thread's own count.
std::atomic<int> g_armed_threads{0};
struct ThreadFaults {
  bool armed = false;
  std::uint64_t count = 0;
  std::uint64_t fail_at = 0;
  int error = 0;
  const char* failed = nullptr;
};
thread_local ThreadFaults t_faults;

#if !defined(_WIN32)
static_assert(sizeof(off_t) == 8, "64-bit file offsets are required");

// Every open: a link at the name is never followed (O_NOFOLLOW) and the open never waits
// (O_NONBLOCK: a FIFO opened for reading would wait for a writer forever; a file under another
// party's lease is refused at once, as the sharing refuses an open). What was opened is
// checked to be a regular file before anything else is done with it; the directories these
// files live in may be writable by others, so anything else found at a name is refused. The
// flag stays on the descriptor: a regular file ignores it (its reads and writes wait for the
// disk either way), and clearing it would cost every open one more system call.
constexpr int kOpenFlags = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;

// Created files are for their owner only: the cache's files name the URLs the user opened.
constexpr mode_t kCreateMode = 0600;

// The system reads a path up to its first NUL: a path with one inside would act on the file
// that the part before it names, another file than the one asked for. Such a path names no
// file (as on Windows); false with errno set.
bool WholePath(const std::filesystem::path& path) {
  if (path.native().find('\0') == std::string::npos) return true;
  errno = EINVAL;
  return false;
}

// The same for the calls that report through an error code.
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

// Owns a descriptor.
struct Descriptor {
  explicit Descriptor(int value) : fd(value) {}
  ~Descriptor() {
    if (fd >= 0) ::close(fd);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int release() { return std::exchange(fd, -1); }
  int fd;
};

// Takes a whole-file lock without waiting. A flock lock belongs to this open (the open file
// description, not the process), so two opens in one process exclude each other like two
// processes do, and it goes with the open's last descriptor. Of the locks with that owner it is
// the cheaper one to take and to drop at close, which every cache hit does.
bool Lock(int fd, bool exclusive) {
  if (TqUSysFileFaults::Fails("lock")) return false;
  int rc;
  do {
    rc = ::flock(fd, (exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB);
  } while (rc < 0 && errno == EINTR);
  return rc == 0;
}

// Whether `name` (a link not followed) is still the file `opened` describes.
bool StillNamed(int dir, const char* name, const struct stat& opened) {
  struct stat now = {};
  return ::fstatat(dir, name, &now, AT_SYMLINK_NOFOLLOW) == 0 && now.st_dev == opened.st_dev &&
         now.st_ino == opened.st_ino;
}

// Closes a listing, and the descriptor it was made from with it.
struct DirCloser {
  void operator()(DIR* dir) const { ::closedir(dir); }
};

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

// OpenFile's POSIX body for `name` relative to `dir` (AT_FDCWD: as a path).
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
  return AdoptDescriptor(fd, dir, creation == TqUSysFile::kCreateAlways ? name : nullptr);
}
#else

// Owners of the system's handles, so that every path out of a function closes them: a visitor
// or an allocation that throws must not leave a file or a directory open (Windows then refuses
// to remove it, and the handle is lost for the process's life).
struct HandleCloser {
  using pointer = HANDLE;
  void operator()(HANDLE h) const { ::CloseHandle(h); }
};
using OwnedHandle = std::unique_ptr<void, HandleCloser>;
struct FindCloser {
  using pointer = HANDLE;
  void operator()(HANDLE h) const { ::FindClose(h); }
};
using FindHandle = std::unique_ptr<void, FindCloser>;

// The system's file calls that take a path. Every one of this file goes through these, so each
// gets its path in the form that works at any length (tqutil/sys_path.h); when a path cannot be
// put in that form, each fails as the call itself would, with the last error set.
namespace sys {

OwnedHandle Open(const std::filesystem::path& path, DWORD access, DWORD share,
                       DWORD disposition, DWORD flags) {
  std::wstring name;
  if (!qv::sys_path::ToSystem(path, name)) return nullptr;
  const HANDLE h = ::CreateFileW(name.c_str(), access, share, nullptr, disposition, flags, nullptr);
  return OwnedHandle(h == INVALID_HANDLE_VALUE ? nullptr : h);
}

DWORD Attributes(const std::filesystem::path& path) {
  std::wstring name;
  if (!qv::sys_path::ToSystem(path, name)) return INVALID_FILE_ATTRIBUTES;
  return ::GetFileAttributesW(name.c_str());
}

bool AttributesEx(const std::filesystem::path& path, WIN32_FILE_ATTRIBUTE_DATA* data) {
  std::wstring name;
  return qv::sys_path::ToSystem(path, name) &&
         ::GetFileAttributesExW(name.c_str(), GetFileExInfoStandard, data);
}

bool SetAttributes(const std::filesystem::path& path, DWORD attributes) {
  std::wstring name;
  return qv::sys_path::ToSystem(path, name) && ::SetFileAttributesW(name.c_str(), attributes);
}

bool Move(const std::filesystem::path& from, const std::filesystem::path& to, DWORD flags) {
  std::wstring source, target;
  return qv::sys_path::ToSystem(from, source) && qv::sys_path::ToSystem(to, target) &&
         ::MoveFileExW(source.c_str(), target.c_str(), flags);
}

bool Delete(const std::filesystem::path& path) {
  std::wstring name;
  return qv::sys_path::ToSystem(path, name) && ::DeleteFileW(name.c_str());
}

bool RemoveDir(const std::filesystem::path& path) {
  std::wstring name;
  return qv::sys_path::ToSystem(path, name) && ::RemoveDirectoryW(name.c_str());
}

bool MakeDir(const std::filesystem::path& path) {
  std::wstring name;
  return qv::sys_path::ToSystem(path, name) && ::CreateDirectoryW(name.c_str(), nullptr);
}

// The listing of `directory`'s entries, its first one in `data`; null when it cannot be made.
FindHandle FindFirst(const std::filesystem::path& directory, WIN32_FIND_DATAW* data,
                     DWORD flags) {
  std::wstring pattern;
  if (!qv::sys_path::ToSystem(directory / L"*", pattern)) return nullptr;
  const HANDLE h = ::FindFirstFileExW(pattern.c_str(), FindExInfoBasic, data,
                                      FindExSearchNameMatch, nullptr, flags);
  return FindHandle(h == INVALID_HANDLE_VALUE ? nullptr : h);
}

}  // namespace sys

// Whether `file` is a plain file on a disk: not a directory, not a reparse point (a link or a
// junction, opened as itself), not a pipe or a device.
bool IsPlainFile(HANDLE file) {
  if (::GetFileType(file) != FILE_TYPE_DISK) return false;
  BY_HANDLE_FILE_INFORMATION info;
  if (!::GetFileInformationByHandle(file, &info)) return false;
  return (info.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) == 0;
}

// Not named by MinGW's headers (Windows 10 1809 and later).
constexpr auto kFileDispositionInfoEx = static_cast<FILE_INFO_BY_HANDLE_CLASS>(21);

// Marks the open `file` to be deleted when closed, a read-only one too: a stale file that is
// read-only (planted, or left so) must not block its name for ever, as it does not on POSIX.
bool MarkForDeletion(HANDLE file) {
  FILE_DISPOSITION_INFO_EX ex = {};
  ex.Flags = FILE_DISPOSITION_FLAG_DELETE | FILE_DISPOSITION_FLAG_IGNORE_READONLY_ATTRIBUTE;
  if (::SetFileInformationByHandle(file, kFileDispositionInfoEx, &ex, sizeof(ex))) return true;
  FILE_DISPOSITION_INFO disposition = {};
  disposition.DeleteFile = TRUE;
  if (::SetFileInformationByHandle(file, FileDispositionInfo, &disposition, sizeof(disposition))) {
    return true;
  }
  // Older systems (and Wine) delete no read-only file: the flag goes first, and comes back if
  // the file stays after all.
  FILE_BASIC_INFO basic = {};
  if (::GetLastError() != ERROR_ACCESS_DENIED ||
      !::GetFileInformationByHandleEx(file, FileBasicInfo, &basic, sizeof(basic)) ||
      (basic.FileAttributes & FILE_ATTRIBUTE_READONLY) == 0) {
    return false;
  }
  const DWORD attributes = basic.FileAttributes;
  FILE_BASIC_INFO change = {};  // times of 0: left as they are
  change.FileAttributes = attributes & ~FILE_ATTRIBUTE_READONLY;
  if (change.FileAttributes == 0) change.FileAttributes = FILE_ATTRIBUTE_NORMAL;
  if (!::SetFileInformationByHandle(file, FileBasicInfo, &change, sizeof(change))) return false;
  if (::SetFileInformationByHandle(file, FileDispositionInfo, &disposition, sizeof(disposition))) {
    return true;
  }
  change.FileAttributes = attributes;
  ::SetFileInformationByHandle(file, FileBasicInfo, &change, sizeof(change));
  return false;
}

// Frees `path` for a file created anew: whatever lies there (a stale file, a link) is deleted,
// the link itself and never what it leads to, unless an open holds it (the sharing then
// refuses the deleting open, and the caller is refused at once). A directory is left alone
// (opening one needs FILE_FLAG_BACKUP_SEMANTICS). True when the path is free.
bool RemoveStale(const std::filesystem::path& path) {
  if (TqUSysFileFaults::Fails("open")) return false;
  const OwnedHandle old = sys::Open(path, DELETE | FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES,
                                    0, OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT);
  if (!old) return ::GetLastError() == ERROR_FILE_NOT_FOUND;
  return MarkForDeletion(old.get());  // the last handle: the name goes as it closes
}

// Opens `path` as CreateFileW does with these values, as a handle when what it opened is a plain
// file; null otherwise.
TqUSysFile::Handle OpenPlainFile(const std::filesystem::path& path, DWORD access, DWORD share,
                                 DWORD disposition, DWORD flags) {
  if (TqUSysFileFaults::Fails("open")) return TqUSysFile::kInvalid;
  OwnedHandle h = sys::Open(path, access, share, disposition, FILE_ATTRIBUTE_NORMAL | flags);
  if (!h) return TqUSysFile::kInvalid;
  OpenedForTesting();
  if (!IsPlainFile(h.get())) return TqUSysFile::kInvalid;
  auto record = std::make_unique<TqUSysFileHandleTag>();
  record->file = h.release();
  return Adopt(std::move(record));
}

// Deletes the read-only file at `path` that DeleteFileW refused: POSIX removes one from a
// writable directory, and a planted or copied read-only file must not hold its name for ever.
// Others' opens that share deletion keep the file until they close, as DeleteFileW does; a
// directory (which opens only with FILE_FLAG_BACKUP_SEMANTICS) and a link's target are left
// alone. True when the file is gone or goes with the last open.
bool DeleteReadOnly(const std::filesystem::path& path) {
  const OwnedHandle file =
      sys::Open(path, DELETE | FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES,
                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, OPEN_EXISTING,
                FILE_FLAG_OPEN_REPARSE_POINT);
  return file && MarkForDeletion(file.get());
}

#endif

}  // namespace

TqUSysFile::Handle TqUSysFile::OpenFile(const std::filesystem::path& path, std::uint32_t access,
                                        std::uint32_t share, std::uint32_t creation,
                                        std::uint32_t reserved1, std::uint32_t reserved2) {
  if (!ValidArguments(access, share, creation, reserved1, reserved2) || path.empty()) {
    return kInvalid;
  }
#if defined(_WIN32)
  const DWORD desired = access == kAccessWrite ? (GENERIC_READ | GENERIC_WRITE) : GENERIC_READ;
  // Windows applies the sharing check as it opens, so a refused open never empties a file.
  const DWORD share_mode = share == kShareRead ? FILE_SHARE_READ : 0;
  DWORD disposition = OPEN_EXISTING;
  if (creation == kCreateAlways) {
    // As on POSIX: what lay at the path goes first, and the new file is made by this open.
    if (!RemoveStale(path)) return kInvalid;
    disposition = CREATE_NEW;
  } else if (creation == kOpenAlways) {
    disposition = OPEN_ALWAYS;
  }
  // A reparse point is opened as itself, never followed, and then refused as not plain.
  return OpenPlainFile(path, desired, share_mode, disposition, FILE_FLAG_OPEN_REPARSE_POINT);
#else
  if (!WholePath(path)) return kInvalid;
  return OpenAt(AT_FDCWD, path.c_str(), access, share, creation);
#endif
}

void TqUSysFile::SetOpenHookForTesting(std::function<void()> hook) {
  TheOpenHook().Set(std::move(hook));
}

namespace {

// One read of at most 1 GiB, at the file's position or, given `offset`, at that offset without
// moving the position.
bool ReadOnce(TqUSysFile::Handle file, void* buffer, std::uint64_t size,
              const std::uint64_t* offset, std::uint64_t* read) {
  if (read) *read = 0;
  if (!IsLive(file) || (!buffer && size > 0) ||
      (offset && *offset > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) ||
      TqUSysFileFaults::Fails("read")) {
    return false;
  }
#if defined(_WIN32)
  const DWORD chunk = static_cast<DWORD>(std::min<std::uint64_t>(size, 1u << 30));
  OVERLAPPED at = {};
  if (offset) {
    at.Offset = static_cast<DWORD>(*offset & 0xFFFFFFFFu);
    at.OffsetHigh = static_cast<DWORD>(*offset >> 32);
  }
  DWORD got = 0;
  if (!::ReadFile(file->file, buffer, chunk, &got, offset ? &at : nullptr)) {
    // A synchronous read at an offset at or past the end reports the end as an error.
    return offset && ::GetLastError() == ERROR_HANDLE_EOF;
  }
#else
  const auto chunk = static_cast<std::size_t>(std::min<std::uint64_t>(size, 1u << 30));
  ssize_t got;
  do {
    got = offset ? ::pread(file->fd, buffer, chunk, static_cast<off_t>(*offset))
                 : ::read(file->fd, buffer, chunk);
  } while (got < 0 && errno == EINTR);
  if (got < 0) return false;
#endif
  if (read) *read = static_cast<std::uint64_t>(got);
  return true;
}

}  // namespace

TqUSysFile::Handle TqUSysFile::OpenNamedFile(const std::filesystem::path& path) {
#if defined(_WIN32)
  // The system follows the links on the way as it opens (no FILE_FLAG_OPEN_REPARSE_POINT), and
  // what they lead to must be a plain file, opened as OpenFile's reader opens it. The name is
  // opened itself, never resolved to a final path first: Wine gives none past MAX_PATH, and a
  // volume without a drive letter has none.
  if (path.empty()) return kInvalid;
  return OpenPlainFile(path, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0);
#else
  if (!WholePath(path)) return kInvalid;
  std::error_code ec;
  const std::filesystem::path resolved = std::filesystem::canonical(path, ec);
  if (ec) return kInvalid;
  return OpenFile(resolved, kAccessRead, kShareRead, kOpenExisting, 0, 0);
#endif
}

bool TqUSysFile::ReadFile(Handle file, void* buffer, std::uint64_t size, std::uint64_t* read) {
  return ReadOnce(file, buffer, size, nullptr, read);
}

bool TqUSysFile::ReadFileAt(Handle file, void* buffer, std::uint64_t size, std::uint64_t offset,
                            std::uint64_t* read) {
  return ReadOnce(file, buffer, size, &offset, read);
}

bool TqUSysFile::WriteFile(Handle file, const void* buffer, std::uint64_t size,
                           std::uint64_t* written) {
  if (written) *written = 0;
  if (!IsLive(file) || (!buffer && size > 0)) return false;
  const auto* p = static_cast<const unsigned char*>(buffer);
  std::uint64_t done = 0;
  while (done < size) {
    if (TqUSysFileFaults::Fails("write")) {
      if (written) *written = done;
      return false;
    }
    const auto chunk = static_cast<std::size_t>(std::min<std::uint64_t>(size - done, 1u << 30));
#if defined(_WIN32)
    DWORD put = 0;
    if (!::WriteFile(file->file, p + done, static_cast<DWORD>(chunk), &put, nullptr) || put == 0) {
      if (written) *written = done;
      return false;
    }
#else
    ssize_t put = ::write(file->fd, p + done, chunk);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) {  // ENOSPC, EIO, EFBIG ...
      if (written) *written = done;
      return false;
    }
#endif
    done += static_cast<std::uint64_t>(put);
  }
  if (written) *written = done;
  return true;
}

std::int64_t TqUSysFile::SeekFile(Handle file, std::int64_t offset, int origin) {
  if (!IsLive(file) || origin < 0 || origin > 2 || TqUSysFileFaults::Fails("seek")) return -1;
#if defined(_WIN32)
  LARGE_INTEGER distance;
  distance.QuadPart = offset;
  LARGE_INTEGER position;
  const DWORD method = origin == 0 ? FILE_BEGIN : origin == 1 ? FILE_CURRENT : FILE_END;
  if (!::SetFilePointerEx(file->file, distance, &position, method)) return -1;
  return position.QuadPart;
#else
  const int whence = origin == 0 ? SEEK_SET : origin == 1 ? SEEK_CUR : SEEK_END;
  const off_t pos = ::lseek(file->fd, static_cast<off_t>(offset), whence);
  return pos < 0 ? -1 : static_cast<std::int64_t>(pos);
#endif
}

std::int64_t TqUSysFile::GetFileSize(Handle file) {
  if (!IsLive(file) || TqUSysFileFaults::Fails("size")) return -1;
#if defined(_WIN32)
  LARGE_INTEGER size;
  if (!::GetFileSizeEx(file->file, &size)) return -1;
  return size.QuadPart;
#else
  struct stat st = {};
  if (::fstat(file->fd, &st) != 0) return -1;
  return static_cast<std::int64_t>(st.st_size);
#endif
}

bool TqUSysFile::GetFileModifiedTime(Handle file, std::int64_t* nanoseconds) {
  if (!IsLive(file) || nanoseconds == nullptr) return false;
  constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
  std::int64_t seconds = 0;
  std::int64_t fraction = 0;  // nanoseconds past `seconds`, below one second
#if defined(_WIN32)
  FILETIME written = {};
  if (!::GetFileTime(file->file, nullptr, nullptr, &written)) return false;
  // 100-nanosecond ticks since 1601.
  const std::uint64_t ticks = (static_cast<std::uint64_t>(written.dwHighDateTime) << 32) |
                              written.dwLowDateTime;
  constexpr std::int64_t kTicksPerSecond = 10'000'000;
  constexpr std::int64_t kSeconds1601To1970 = 11'644'473'600;
  seconds = static_cast<std::int64_t>(ticks / kTicksPerSecond) - kSeconds1601To1970;
  fraction = static_cast<std::int64_t>(ticks % kTicksPerSecond) * 100;
#else
  struct stat st = {};
  if (::fstat(file->fd, &st) != 0) return false;
  seconds = static_cast<std::int64_t>(st.st_mtim.tv_sec);
  fraction = static_cast<std::int64_t>(st.st_mtim.tv_nsec);
  if (fraction < 0 || fraction >= kNanosecondsPerSecond) return false;
#endif
  // A time set by anyone who can write the file: one beyond the range is refused, not wrapped.
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
  if (seconds > (kMax - fraction) / kNanosecondsPerSecond ||
      seconds < kMin / kNanosecondsPerSecond) {
    return false;
  }
  *nanoseconds = seconds * kNanosecondsPerSecond + fraction;
  return true;
}

bool TqUSysFile::CloseFile(Handle file) {
  if (!Forget(file)) return false;
  // Closed here, for its result, and taken from the record, which would close it again.
  const std::unique_ptr<TqUSysFileHandleTag> record(file);
#if defined(_WIN32)
  return ::CloseHandle(std::exchange(record->file, INVALID_HANDLE_VALUE)) != 0;
#else
  // The lock goes with the last descriptor of this open; close is not retried on EINTR
  // (Linux has released the descriptor already).
  return ::close(std::exchange(record->fd, -1)) == 0;
#endif
}

namespace {

#if defined(_WIN32)
std::error_code LastError() {
  return std::error_code(static_cast<int>(::GetLastError()), std::system_category());
}
std::error_code LastFileError() { return LastError(); }
#else
std::error_code Errno() { return std::error_code(errno, std::generic_category()); }
std::error_code LastFileError() { return Errno(); }
#endif

}  // namespace

bool TqUSysFile::RenameFile(const std::filesystem::path& from, const std::filesystem::path& to,
                            std::error_code& ec) {
  ec.clear();
  if (TqUSysFileFaults::Fails("rename")) {
    ec = LastFileError();
    return false;
  }
#if defined(_WIN32)
  // The standard library's rename, through the one conversion of paths.
  constexpr DWORD kFlags = MOVEFILE_REPLACE_EXISTING | MOVEFILE_COPY_ALLOWED;
  if (sys::Move(from, to, kFlags)) return true;
  const DWORD error = ::GetLastError();
  ec = std::error_code(static_cast<int>(error), std::system_category());
  // Windows replaces no read-only file, which POSIX does in a writable directory: a planted or
  // copied read-only entry would refuse every new copy for ever. The flag goes for the rename,
  // and comes back when the rename still fails.
  if (error == ERROR_ACCESS_DENIED) {
    const DWORD attributes = sys::Attributes(to);
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_READONLY) != 0 &&
        (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
      const DWORD writable = attributes & ~static_cast<DWORD>(FILE_ATTRIBUTE_READONLY);
      if (sys::SetAttributes(to, writable != 0 ? writable : FILE_ATTRIBUTE_NORMAL)) {
        if (sys::Move(from, to, kFlags)) {
          ec.clear();
          return true;
        }
        sys::SetAttributes(to, attributes);
      }
    }
  }
  return false;
#else
  if (!WholePath(from, ec) || !WholePath(to, ec)) return false;
  std::filesystem::rename(from, to, ec);
  return !ec;
#endif
}

bool TqUSysFile::RemoveFile(const std::filesystem::path& path, std::error_code& ec) {
  ec.clear();
  if (TqUSysFileFaults::Fails("remove")) {
    ec = LastFileError();
    return false;
  }
#if defined(_WIN32)
  // As the standard library's remove does it (an empty directory goes too), through the one
  // conversion of paths. The attributes are the name's own: a link goes as itself.
  const DWORD attributes = sys::Attributes(path);
  const bool directory =
      attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  if (attributes != INVALID_FILE_ATTRIBUTES &&
      (directory ? sys::RemoveDir(path) : sys::Delete(path))) {
    return true;
  }
  const DWORD error = ::GetLastError();
  if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) return false;
  if (!directory && error == ERROR_ACCESS_DENIED && DeleteReadOnly(path)) return true;
  ec = std::error_code(static_cast<int>(error), std::system_category());
  return false;
#else
  if (!WholePath(path, ec)) return false;
  return std::filesystem::remove(path, ec);
#endif
}

TqUSysFile::NameKind TqUSysFile::KindOfName(const std::filesystem::path& path,
                                            std::error_code& ec) {
  ec.clear();
#if defined(_WIN32)
  // The name's own attributes: MinGW's symlink_status follows links (it has no lstat).
  const DWORD attributes = sys::Attributes(path);
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    const DWORD error = ::GetLastError();
    if (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND) {
      ec.assign(static_cast<int>(error), std::system_category());
    }
    return NameKind::kNone;
  }
  if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) return NameKind::kOther;
  return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? NameKind::kDirectory : NameKind::kRegular;
#else
  if (!WholePath(path, ec)) return NameKind::kNone;
  const std::filesystem::file_status status = std::filesystem::symlink_status(path, ec);
  switch (status.type()) {
    case std::filesystem::file_type::not_found:
      ec.clear();
      return NameKind::kNone;
    case std::filesystem::file_type::regular:
      return NameKind::kRegular;
    case std::filesystem::file_type::directory:
      return NameKind::kDirectory;
    default:
      return ec ? NameKind::kNone : NameKind::kOther;
  }
#endif
}

namespace {
// Whether `path` (a link not followed) names the file open as `file`. Where an open file can
// be neither renamed nor removed (Windows), the name always holds it while it is open.
bool NamesHeldFile(TqUSysFile::Handle file, const std::filesystem::path& path) {
#if defined(_WIN32)
  (void)file;
  (void)path;
  return true;
#else
  struct stat held = {};
  if (!WholePath(path) || ::fstat(file->fd, &held) != 0) return false;
  return StillNamed(AT_FDCWD, path.c_str(), held);
#endif
}
}  // namespace

bool TqUSysFile::RenameHeldFile(Handle file, const std::filesystem::path& from,
                                const std::filesystem::path& to, std::error_code& ec) {
  ec.clear();
  if (!IsLive(file)) {
    ec = std::make_error_code(std::errc::bad_file_descriptor);
    return false;
  }
  if (!NamesHeldFile(file, from)) {
    ec = std::make_error_code(std::errc::no_such_file_or_directory);
    return false;
  }
  return RenameFile(from, to, ec);
}

bool TqUSysFile::RemoveHeldFile(Handle file, const std::filesystem::path& path,
                                std::error_code& ec) {
  ec.clear();
  if (!IsLive(file)) {
    ec = std::make_error_code(std::errc::bad_file_descriptor);
    return false;
  }
  if (!NamesHeldFile(file, path)) return false;
  return RemoveFile(path, ec);
}

void TqUSysFileFaults::Arm(std::uint64_t fail_at, int error) {
  if (!t_faults.armed) g_armed_threads.fetch_add(1, std::memory_order_relaxed);
  t_faults = {true, 0, fail_at, error, nullptr};
}

std::uint64_t TqUSysFileFaults::Disarm() {
  if (t_faults.armed) g_armed_threads.fetch_sub(1, std::memory_order_relaxed);
  t_faults.armed = false;
  return t_faults.count;
}

const char* TqUSysFileFaults::Failed() { return t_faults.failed; }

bool TqUSysFileFaults::Fails(const char* kind) {
  if (g_armed_threads.load(std::memory_order_relaxed) == 0 || !t_faults.armed) return false;
  if (t_faults.count++ != t_faults.fail_at) return false;
  t_faults.failed = kind;
#if defined(_WIN32)
  ::SetLastError(static_cast<DWORD>(t_faults.error));
#else
  errno = t_faults.error;
#endif
  return true;
}

void TqUSysDirectory::SetRemoveFaultForTesting(std::function<bool(const Char* name)> refuse) {
  TheRemoveFault().Set(std::move(refuse));
}

#if defined(_WIN32)

TqUSysDirectory::TqUSysDirectory(const std::filesystem::path& path) : m_path(path) {
  const DWORD attributes = sys::Attributes(path);
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    m_error = LastError();
  } else if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
    m_error = std::make_error_code(std::errc::not_a_directory);
  }
}

TqUSysDirectory::~TqUSysDirectory() = default;

std::error_code TqUSysDirectory::List(const std::function<void(const Item&)>& visit,
                                      bool /*sizes: the listing carries them*/) const {
  if (m_error) return m_error;
  WIN32_FIND_DATAW data;
  // Closed however the listing ends: a visitor may throw.
  const FindHandle find = sys::FindFirst(m_path, &data, FIND_FIRST_EX_LARGE_FETCH);
  if (!find) {
    const std::error_code ec = LastError();
    return ::GetLastError() == ERROR_FILE_NOT_FOUND ? std::error_code() : ec;
  }
  std::error_code result;
  for (;;) {
    const wchar_t* name = data.cFileName;
    if (std::wcscmp(name, L".") != 0 && std::wcscmp(name, L"..") != 0) {
      Item item;
      item.name = name;
      item.length = std::wcslen(name);
      // A reparse point (a link) is not a file of the directory's own, whatever it leads to.
      if ((data.dwFileAttributes &
           (FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY)) == 0) {
        item.regular = true;
        item.size = static_cast<std::int64_t>((static_cast<std::uint64_t>(data.nFileSizeHigh)
                                               << 32) | data.nFileSizeLow);
      }
      visit(item);
    }
    if (!::FindNextFileW(find.get(), &data)) {
      if (::GetLastError() != ERROR_NO_MORE_FILES) result = LastError();
      break;
    }
  }
  return result;
}

std::int64_t TqUSysDirectory::FileSize(const Char* name) const {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!sys::AttributesEx(m_path / name, &data) ||
      (data.dwFileAttributes & (FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY)) != 0) {
    return -1;
  }
  return static_cast<std::int64_t>((static_cast<std::uint64_t>(data.nFileSizeHigh) << 32) |
                                   data.nFileSizeLow);
}

TqUSysFile::Handle TqUSysDirectory::OpenFile(const Char* name, std::uint32_t access,
                                             std::uint32_t share, std::uint32_t creation,
                                             std::uint32_t reserved1,
                                             std::uint32_t reserved2) const {
  if (m_error || name == nullptr || name[0] == 0) return TqUSysFile::kInvalid;
  return TqUSysFile::OpenFile(m_path / name, access, share, creation, reserved1, reserved2);
}

std::int64_t TqUSysDirectory::ReadStart(const Char* name, void* buffer,
                                        std::size_t size) const {
  TqUSysFile::Handle file = OpenFile(name, TqUSysFile::kAccessRead, TqUSysFile::kShareRead,
                                     TqUSysFile::kOpenExisting, 0, 0);
  if (file == TqUSysFile::kInvalid) return -1;
  std::uint64_t got = 0;
  const bool read = TqUSysFile::ReadFileAt(file, buffer, size, 0, &got);
  TqUSysFile::CloseFile(file);
  return read ? static_cast<std::int64_t>(got) : -1;
}

bool TqUSysDirectory::Exists(const Char* name, std::error_code& ec) const {
  ec.clear();
  if (m_error) {
    ec = m_error;
    return false;
  }
  // The attributes of what lies at the name itself: a link, even one that leads nowhere, has
  // its own (MinGW's symlink_status asks what the link leads to).
  if (sys::Attributes(m_path / name) != INVALID_FILE_ATTRIBUTES) return true;
  const DWORD error = ::GetLastError();
  if (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND) {
    ec = std::error_code(static_cast<int>(error), std::system_category());
  }
  return false;
}

bool TqUSysDirectory::Create(const std::filesystem::path& path, std::error_code& ec) {
  ec.clear();
  // The directory inherits its parent's access control list: under the user's profile, the
  // user's alone.
  if (sys::MakeDir(path)) return true;
  const DWORD error = ::GetLastError();
  if (error == ERROR_ALREADY_EXISTS) {
    const DWORD attributes = sys::Attributes(path);
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
      return true;
    }
  }
  ec = std::error_code(static_cast<int>(error), std::system_category());
  return false;
}

std::uintmax_t TqUSysDirectory::RemoveTree(const std::filesystem::path& path,
                                            std::error_code& ec) {
  ec.clear();
  // MinGW's remove_all is no use here: its symlink_status follows links (there is no lstat),
  // so it would take a junction for a directory and empty what it leads to.
  const DWORD attributes = sys::Attributes(path);
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    const DWORD error = ::GetLastError();
    if (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND) {
      ec = std::error_code(static_cast<int>(error), std::system_category());
    }
    return 0;
  }
  std::uintmax_t count = 0;
  const bool link = (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
  if (RemovalRefused(path.filename().c_str())) {
    ec = std::make_error_code(std::errc::permission_denied);
    return 0;
  }
  if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
    // A file, or a link to one: DeleteFileW removes a link itself.
    std::error_code removed;
    if (TqUSysFile::RemoveFile(path, removed)) ++count;
    if (removed) ec = removed;
    return count;
  }
  if (!link) {
    std::vector<std::filesystem::path> names;
    WIN32_FIND_DATAW data;
    // Closed before the entries go (a directory being listed cannot be removed), and however
    // the listing ends.
    if (const FindHandle find = sys::FindFirst(path, &data, 0)) {
      do {
        if (std::wcscmp(data.cFileName, L".") != 0 && std::wcscmp(data.cFileName, L"..") != 0) {
          names.push_back(path / data.cFileName);
        }
      } while (::FindNextFileW(find.get(), &data));
    }
    for (const std::filesystem::path& name : names) {
      std::error_code inner;
      count += RemoveTree(name, inner);
      if (inner && !ec) ec = inner;
    }
  }
  // A directory junction or link goes as itself, whatever lies behind it.
  if (sys::RemoveDir(path)) {
    ++count;
  } else if (!ec) {
    ec = LastError();
  }
  return count;
}

bool TqUSysDirectory::RemoveFile(const Char* name, std::error_code& ec) const {
  ec.clear();
  if (RemovalRefused(name)) {
    ec = std::make_error_code(std::errc::permission_denied);
    return false;
  }
  if (TqUSysFileFaults::Fails("remove")) {
    ec = LastFileError();
    return false;
  }
  const std::filesystem::path path = m_path / name;
  if (sys::Delete(path)) return true;
  const DWORD error = ::GetLastError();
  if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) return false;
  if (error == ERROR_ACCESS_DENIED && DeleteReadOnly(path)) return true;
  ec = std::error_code(static_cast<int>(error), std::system_category());
  return false;
}

#else

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

std::int64_t TqUSysDirectory::ReadStart(const Char* name, void* buffer,
                                        std::size_t size) const {
  if (m_fd < 0 || name == nullptr || name[0] == 0 || (buffer == nullptr && size > 0)) return -1;
  // OpenAt's steps for a shared reader, without a handle: a clean-up reads thousands of headers
  // in a row, and the handle's bookkeeping would cost more than its system calls.
  Descriptor fd(RetryOpen(m_fd, name, kOpenFlags | O_RDONLY));
  if (fd.fd < 0) return -1;
  struct stat st;
  if (::fstat(fd.fd, &st) != 0 || !S_ISREG(st.st_mode)) return -1;
  OpenedForTesting();
  if (!Lock(fd.fd, false) || TqUSysFileFaults::Fails("read")) return -1;
  const std::size_t chunk = std::min<std::size_t>(size, 1u << 30);
  ssize_t got;
  do {
    got = ::pread(fd.fd, buffer, chunk, 0);
  } while (got < 0 && errno == EINTR);
  return got < 0 ? -1 : static_cast<std::int64_t>(got);
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
  if (::mkdir(path.c_str(), 0700) == 0) {
    // The mode asked of mkdir loses what the umask takes away; owner-only is set as a whole.
    if (::chmod(path.c_str(), 0700) == 0) return true;
    ec = Errno();
    return false;
  }
  const int error = errno;
  struct stat st = {};
  if (error == EEXIST && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return true;
  ec = std::error_code(error, std::generic_category());
  return false;
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

// Removes `name` of the directory `parent` (a descriptor, or AT_FDCWD) and, when it is a
// directory, everything in it first. A link is removed as itself: a directory is only ever
// opened with O_NOFOLLOW, so one swapped for a link meanwhile is never entered. Whatever cannot
// be removed is passed over and the rest still goes (libstdc++'s remove_all stops at the first
// failure); the first failure is kept in `ec`. The count of names removed.
std::uintmax_t RemoveTreeAt(int parent, const char* name, std::error_code& ec) {
  const auto keep = [&ec](int error) {
    if (!ec && error != 0 && error != ENOENT) ec = std::error_code(error, std::generic_category());
  };
  const char* slash = std::strrchr(name, '/');
  const int unlink_error =
      RemoveName(parent, name, slash != nullptr && slash[1] != '\0' ? slash + 1 : name);
  if (unlink_error == 0) return 1;
  // Linux refuses to unlink a directory with EISDIR, POSIX allows EPERM.
  if (unlink_error != EISDIR && unlink_error != EPERM) {
    keep(unlink_error);
    return 0;
  }
  Descriptor fd(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (fd.fd < 0) {
    keep(errno == ENOTDIR ? unlink_error : errno);  // a file that may not be removed
    return 0;
  }
  std::uintmax_t count = 0;
  {
    const std::unique_ptr<DIR, DirCloser> dir(::fdopendir(fd.fd));
    if (!dir) {
      keep(errno);
      return 0;
    }
    fd.release();  // the listing's now
    // Listed whole before anything goes: a directory changed while read may skip names.
    std::vector<std::string> names;
    while (const dirent* item = ::readdir(dir.get())) {
      if (std::strcmp(item->d_name, ".") != 0 && std::strcmp(item->d_name, "..") != 0) {
        names.emplace_back(item->d_name);
      }
    }
    for (const std::string& inner : names) {
      count += RemoveTreeAt(::dirfd(dir.get()), inner.c_str(), ec);
    }
  }
  if (::unlinkat(parent, name, AT_REMOVEDIR) == 0) {
    ++count;
  } else {
    keep(errno);
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

#endif
