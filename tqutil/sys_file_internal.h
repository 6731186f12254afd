// What the pieces of TqUSysFile and TqUSysDirectory share: the record behind a handle, the
// registry of live handles, the test seams, and each system's primitives that more than one
// piece calls. Internal to tqutil (not exported, not installed).
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>

#include "tqutil/sys_file.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

// The record behind a handle. It owns its file from the moment it holds it: a record that never
// reaches a caller (out of memory on the way) closes the file as it goes.
struct TqUSysFileHandleTag {
  TqUSysFileHandleTag() = default;
  TqUSysFileHandleTag(const TqUSysFileHandleTag&) = delete;
  TqUSysFileHandleTag& operator=(const TqUSysFileHandleTag&) = delete;
  // The calls using the handle now, and whether it was closed meanwhile (it is then closed as
  // the last of them ends). Guarded by the registry's lock.
  int uses = 0;
  bool closed = false;
  // The file's size as its open found it; -1 for a file the open created.
  std::int64_t size_when_opened = -1;
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

namespace qv::sys_file {

// Holds a handle for the length of one call on it: false when it is not a live handle (a null,
// closed or foreign one is refused instead of followed). A CloseFile on another thread meanwhile
// takes the handle off the live ones at once, but its file and record stay until the call ends:
// the call never reads a freed record, nor a descriptor number that a new open has taken.
class Use {
 public:
  explicit Use(TqUSysFile::Handle h);
  ~Use();
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;
  explicit operator bool() const { return m_handle != nullptr; }

 private:
  TqUSysFile::Handle m_handle = nullptr;
};
// Records `record` as a live handle. Throws std::bad_alloc when there is no room, the record
// then still the caller's.
void Register(TqUSysFileHandleTag* record);
// Takes `h` off the live handles; false when it was not one. When calls still use it, it is
// theirs to close (the last one does): `*in_use` is set and the caller leaves the record alone.
bool Forget(TqUSysFile::Handle h, bool* in_use);

// Whether OpenFile's access, share and creation are ones it knows, and the reserved values 0.
bool ValidArguments(std::uint32_t access, std::uint32_t share, std::uint32_t creation,
                    std::uint32_t reserved1, std::uint32_t reserved2);

// Runs the test seam of an open that found a regular file and is about to lock it.
void OpenedForTesting();
// Runs the test seam of TqUSysDirectory::Create that has made its directory.
void CreatedForTesting();
// Whether the test seam refuses to remove `name`.
bool RemovalRefused(const TqUSysDirectory::Char* name);

#if defined(_WIN32)

inline std::error_code LastError() {
  return std::error_code(static_cast<int>(::GetLastError()), std::system_category());
}
inline std::error_code LastFileError() { return LastError(); }

// Makes `record` a live handle for a caller; should that fail (out of memory), the record
// closes its file.
TqUSysFile::Handle Adopt(std::unique_ptr<TqUSysFileHandleTag> record);

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

// The system's file calls that take a path. Every file call of TqUSysFile and TqUSysDirectory
// goes through these, so each gets its path in the form that works at any length
// (tqutil/sys_path.h); when a path cannot be put in that form, each fails as the call itself
// would, with the last error set.
namespace sys {

OwnedHandle Open(const std::filesystem::path& path, DWORD access, DWORD share,
                 DWORD disposition, DWORD flags);
DWORD Attributes(const std::filesystem::path& path);
bool AttributesEx(const std::filesystem::path& path, WIN32_FILE_ATTRIBUTE_DATA* data);
bool SetAttributes(const std::filesystem::path& path, DWORD attributes);
bool Move(const std::filesystem::path& from, const std::filesystem::path& to, DWORD flags);
bool Delete(const std::filesystem::path& path);
bool RemoveDir(const std::filesystem::path& path);
bool MakeDir(const std::filesystem::path& path);
// The listing of `directory`'s entries, its first one in `data`; null when it cannot be made.
FindHandle FindFirst(const std::filesystem::path& directory, WIN32_FIND_DATAW* data,
                     DWORD flags);

}  // namespace sys

// Frees `path` for a file created anew: whatever lies there (a stale file, a link) is deleted,
// the link itself and never what it leads to, unless an open holds it (the sharing then
// refuses the deleting open, and the caller is refused at once). A directory is left alone
// (opening one needs FILE_FLAG_BACKUP_SEMANTICS). True when the path is free.
bool RemoveStale(const std::filesystem::path& path);

// Opens `path` as CreateFileW does with these values, as a handle when what it opened is a plain
// file; null otherwise.
TqUSysFile::Handle OpenPlainFile(const std::filesystem::path& path, DWORD access, DWORD share,
                                 DWORD disposition, DWORD flags);

// Renames the open `file` over `to` through the handle itself, replacing a file there (a
// read-only one too), so that the file is never let go of on the way; the handle needs DELETE
// access. False with the last error set.
bool RenameOpenFile(HANDLE file, const std::filesystem::path& to);
// Deletes the open `file` through the handle itself (DELETE access): its name goes now where
// the file system can, else as the last handle closes. False with the last error set.
bool DeleteOpenFile(HANDLE file);

// Deletes the read-only file at `path` that DeleteFileW refused: POSIX removes one from a
// writable directory, and a planted or copied read-only file must not hold its name for ever.
// Others' opens that share deletion keep the file until they close, as DeleteFileW does; a
// directory (which opens only with FILE_FLAG_BACKUP_SEMANTICS) and a link's target are left
// alone. True when the file is gone or goes with the last open.
bool DeleteReadOnly(const std::filesystem::path& path);

#else

inline std::error_code Errno() { return std::error_code(errno, std::generic_category()); }
inline std::error_code LastFileError() { return Errno(); }

// Every open: a link at the name is never followed (O_NOFOLLOW) and the open never waits
// (O_NONBLOCK: a FIFO opened for reading would wait for a writer forever; a file under another
// party's lease is refused at once, as the sharing refuses an open). What was opened is
// checked to be a regular file before anything else is done with it; the directories these
// files live in may be writable by others, so anything else found at a name is refused. The
// flag stays on the descriptor: a regular file ignores it (its reads and writes wait for the
// disk either way), and clearing it would cost every open one more system call.
inline constexpr int kOpenFlags = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;

// The system reads a path up to its first NUL: a path with one inside would act on the file
// that the part before it names, another file than the one asked for. Such a path names no
// file (as on Windows); false with errno set.
bool WholePath(const std::filesystem::path& path);
// The same for the calls that report through an error code.
bool WholePath(const std::filesystem::path& path, std::error_code& ec);

// openat, retried when interrupted (and failed by the fault seam); a file it creates is its
// owner's only.
int RetryOpen(int dir, const char* name, int flags);

// Owns a descriptor.
struct Descriptor {
  explicit Descriptor(int value) : fd(value) {}
  ~Descriptor() {
    if (fd >= 0) ::close(fd);
  }
  Descriptor(Descriptor&& other) noexcept : fd(other.release()) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int release() { return std::exchange(fd, -1); }
  int fd;
};

// Takes a whole-file lock without waiting. A flock lock belongs to this open (the open file
// description, not the process), so two opens in one process exclude each other like two
// processes do, and it goes with the open's last descriptor. Of the locks with that owner it is
// the cheaper one to take and to drop at close, which every cache hit does.
bool Lock(int fd, bool exclusive);

// Whether `name` (a link not followed) is still the file `opened` describes.
bool StillNamed(int dir, const char* name, const struct stat& opened);

// Closes a listing, and the descriptor it was made from with it.
struct DirCloser {
  void operator()(DIR* dir) const { ::closedir(dir); }
};

// OpenFile's POSIX body for `name` relative to `dir` (AT_FDCWD: as a path).
TqUSysFile::Handle OpenAt(int dir, const char* name, std::uint32_t access, std::uint32_t share,
                          std::uint32_t creation);

#endif

}  // namespace qv::sys_file
