#include "tqutil/sys_file.h"

#include <algorithm>
#include <limits>
#include <mutex>
#include <unordered_set>

#if defined(_WIN32)
#include <windows.h>
#else
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

// The record behind a handle.
struct TqUSysFileHandleTag {
#if defined(_WIN32)
  HANDLE file = INVALID_HANDLE_VALUE;
#else
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

TqUSysFile::Handle Adopt(TqUSysFileHandleTag* record) {
  Registry& r = TheRegistry();
  std::lock_guard lock(r.mutex);
  r.live.insert(record);
  return record;
}

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

#if !defined(_WIN32)
static_assert(sizeof(off_t) == 8, "64-bit file offsets are required");

int RetryOpen(const char* path, int flags) {
  int fd;
  do {
    fd = ::open(path, flags, 0666);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

// Takes a whole-file lock without waiting. Open-file-description locks belong to this open
// (not to the process), so two opens in one process exclude each other like two processes do.
bool Lock(int fd, bool exclusive) {
#if defined(F_OFD_SETLK)
  struct flock fl = {};
  fl.l_type = exclusive ? F_WRLCK : F_RDLCK;
  fl.l_whence = SEEK_SET;
  fl.l_start = 0;
  fl.l_len = 0;  // to the end, however large the file grows
  fl.l_pid = 0;
  int rc;
  do {
    rc = ::fcntl(fd, F_OFD_SETLK, &fl);
  } while (rc < 0 && errno == EINTR);
  return rc == 0;
#else
  int rc;
  do {
    rc = ::flock(fd, (exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB);
  } while (rc < 0 && errno == EINTR);
  return rc == 0;
#endif
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
  // Windows applies the sharing check before it empties a file, so CREATE_ALWAYS is safe.
  const DWORD share_mode = share == kShareRead ? FILE_SHARE_READ : 0;
  DWORD disposition = OPEN_EXISTING;
  if (creation == kCreateAlways) disposition = CREATE_ALWAYS;
  if (creation == kOpenAlways) disposition = OPEN_ALWAYS;
  HANDLE h = ::CreateFileW(path.c_str(), desired, share_mode, nullptr, disposition,
                           FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return kInvalid;
  auto* record = new TqUSysFileHandleTag();
  record->file = h;
  return Adopt(record);
#else
  const bool write = access == kAccessWrite;
  // An exclusive lock needs a descriptor open for writing, so an exclusive reader asks for
  // write access too; when it may not write, nobody of its kind can write either, and a
  // shared lock is enough to keep out writers.
  const bool exclusive = write || share == kShareNone;
  int flags = O_CLOEXEC | (write || exclusive ? O_RDWR : O_RDONLY);
  if (creation == kCreateAlways || creation == kOpenAlways) flags |= O_CREAT;
  // Never O_TRUNC here: the file is emptied only once the lock is ours.
  int fd = RetryOpen(path.c_str(), flags);
  bool locked_exclusive = exclusive;
  if (fd < 0 && !write && exclusive && (errno == EACCES || errno == EROFS || errno == EISDIR)) {
    fd = RetryOpen(path.c_str(), O_CLOEXEC | O_RDONLY);
    locked_exclusive = false;
  }
  if (fd < 0) return kInvalid;
  struct stat st = {};
  if (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode) || !Lock(fd, locked_exclusive)) {
    ::close(fd);
    return kInvalid;
  }
  if (write) {
    // Between our open and our lock another writer may have renamed a new file over the path:
    // the file we locked is then no longer the path's, and writing it would change a file
    // that others reach by another name (or by none). Such an open is refused like any other.
    struct stat now = {};
    if (::stat(path.c_str(), &now) != 0 || now.st_dev != st.st_dev || now.st_ino != st.st_ino) {
      ::close(fd);
      return kInvalid;
    }
  }
  if (creation == kCreateAlways && ::ftruncate(fd, 0) != 0) {
    ::close(fd);
    return kInvalid;
  }
  auto* record = new TqUSysFileHandleTag();
  record->fd = fd;
  return Adopt(record);
#endif
}

bool TqUSysFile::ReadFile(Handle file, void* buffer, std::uint64_t size, std::uint64_t* read) {
  if (read) *read = 0;
  if (!IsLive(file) || (!buffer && size > 0)) return false;
#if defined(_WIN32)
  const DWORD chunk = static_cast<DWORD>(std::min<std::uint64_t>(size, 1u << 30));
  DWORD got = 0;
  if (!::ReadFile(file->file, buffer, chunk, &got, nullptr)) return false;
  if (read) *read = got;
  return true;
#else
  const auto chunk = static_cast<std::size_t>(std::min<std::uint64_t>(size, 1u << 30));
  ssize_t got;
  do {
    got = ::read(file->fd, buffer, chunk);
  } while (got < 0 && errno == EINTR);
  if (got < 0) return false;
  if (read) *read = static_cast<std::uint64_t>(got);
  return true;
#endif
}

bool TqUSysFile::WriteFile(Handle file, const void* buffer, std::uint64_t size,
                           std::uint64_t* written) {
  if (written) *written = 0;
  if (!IsLive(file) || (!buffer && size > 0)) return false;
  const auto* p = static_cast<const unsigned char*>(buffer);
  std::uint64_t done = 0;
  while (done < size) {
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
  if (!IsLive(file) || origin < 0 || origin > 2) return -1;
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
  if (!IsLive(file)) return -1;
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

bool TqUSysFile::CloseFile(Handle file) {
  if (!Forget(file)) return false;
#if defined(_WIN32)
  const bool ok = ::CloseHandle(file->file) != 0;
#else
  // The lock goes with the last descriptor of this open; close is not retried on EINTR
  // (Linux has released the descriptor already).
  const bool ok = ::close(file->fd) == 0;
#endif
  delete file;
  return ok;
}
