#include "tqutil/sys_file.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <unordered_set>

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

int RetryOpen(int dir, const char* name, int flags) {
  int fd;
  do {
    fd = ::openat(dir, name, flags, 0666);
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

#if !defined(_WIN32)
namespace {

// OpenFile's POSIX body for `name` relative to `dir` (AT_FDCWD: as a path).
TqUSysFile::Handle OpenAt(int dir, const char* name, std::uint32_t access, std::uint32_t share,
                          std::uint32_t creation) {
  const bool write = access == TqUSysFile::kAccessWrite;
  // An exclusive lock needs a descriptor open for writing, so an exclusive reader asks for
  // write access too; when it may not write, nobody of its kind can write either, and a
  // shared lock is enough to keep out writers.
  const bool exclusive = write || share == TqUSysFile::kShareNone;
  int flags = O_CLOEXEC | (write || exclusive ? O_RDWR : O_RDONLY);
  if (creation == TqUSysFile::kCreateAlways || creation == TqUSysFile::kOpenAlways) {
    flags |= O_CREAT;
  }
  // Never O_TRUNC here: the file is emptied only once the lock is ours.
  int fd = RetryOpen(dir, name, flags);
  bool locked_exclusive = exclusive;
  if (fd < 0 && !write && exclusive && (errno == EACCES || errno == EROFS || errno == EISDIR)) {
    fd = RetryOpen(dir, name, O_CLOEXEC | O_RDONLY);
    locked_exclusive = false;
  }
  if (fd < 0) return TqUSysFile::kInvalid;
  struct stat st = {};
  if (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode) || !Lock(fd, locked_exclusive)) {
    ::close(fd);
    return TqUSysFile::kInvalid;
  }
  if (write) {
    // Between our open and our lock another writer may have renamed a new file over the path:
    // the file we locked is then no longer the path's, and writing it would change a file
    // that others reach by another name (or by none). Such an open is refused like any other.
    struct stat now = {};
    if (::fstatat(dir, name, &now, 0) != 0 || now.st_dev != st.st_dev ||
        now.st_ino != st.st_ino) {
      ::close(fd);
      return TqUSysFile::kInvalid;
    }
  }
  if (creation == TqUSysFile::kCreateAlways && ::ftruncate(fd, 0) != 0) {
    ::close(fd);
    return TqUSysFile::kInvalid;
  }
  auto* record = new TqUSysFileHandleTag();
  record->fd = fd;
  return Adopt(record);
}

}  // namespace
#endif

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
  return OpenAt(AT_FDCWD, path.c_str(), access, share, creation);
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

namespace {

using RefuseRemoval = std::function<bool(const TqUSysDirectory::Char*)>;

struct RemoveFault {
  std::mutex mutex;
  std::atomic<bool> set{false};
  std::shared_ptr<const RefuseRemoval> refuse;
};

RemoveFault& TheRemoveFault() {
  static RemoveFault* const fault = new RemoveFault();
  return *fault;
}

// Whether the test seam refuses to remove `name`. Called without the lock held, so that a seam
// may wait for other removals to arrive.
bool RemovalRefused(const TqUSysDirectory::Char* name) {
  RemoveFault& f = TheRemoveFault();
  if (!f.set.load(std::memory_order_acquire)) return false;
  std::shared_ptr<const RefuseRemoval> refuse;
  {
    std::lock_guard lock(f.mutex);
    refuse = f.refuse;
  }
  return refuse && *refuse && (*refuse)(name);
}

#if defined(_WIN32)
std::error_code LastError() {
  return std::error_code(static_cast<int>(::GetLastError()), std::system_category());
}
#else
std::error_code Errno() { return std::error_code(errno, std::generic_category()); }
#endif

}  // namespace

void TqUSysDirectory::SetRemoveFaultForTesting(std::function<bool(const Char* name)> refuse) {
  RemoveFault& f = TheRemoveFault();
  std::lock_guard lock(f.mutex);
  if (refuse) {
    f.refuse = std::make_shared<const RefuseRemoval>(std::move(refuse));
    f.set.store(true, std::memory_order_release);
  } else {
    f.refuse.reset();
    f.set.store(false, std::memory_order_release);
  }
}

#if defined(_WIN32)

TqUSysDirectory::TqUSysDirectory(const std::filesystem::path& path) : m_path(path) {
  const DWORD attributes = ::GetFileAttributesW(path.c_str());
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
  const std::filesystem::path pattern = m_path / L"*";
  HANDLE find = ::FindFirstFileExW(pattern.c_str(), FindExInfoBasic, &data,
                                   FindExSearchNameMatch, nullptr, FIND_FIRST_EX_LARGE_FETCH);
  if (find == INVALID_HANDLE_VALUE) {
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
      if (data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) {
        // A link: what it leads to decides.
        std::error_code ec;
        const std::filesystem::path target = m_path / name;
        item.regular = std::filesystem::is_regular_file(target, ec);
        if (item.regular) {
          const std::uintmax_t size = std::filesystem::file_size(target, ec);
          item.size = ec ? -1 : static_cast<std::int64_t>(size);
        }
      } else if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
        item.regular = true;
        item.size = static_cast<std::int64_t>((static_cast<std::uint64_t>(data.nFileSizeHigh)
                                               << 32) | data.nFileSizeLow);
      }
      visit(item);
    }
    if (!::FindNextFileW(find, &data)) {
      if (::GetLastError() != ERROR_NO_MORE_FILES) result = LastError();
      break;
    }
  }
  ::FindClose(find);
  return result;
}

std::int64_t TqUSysDirectory::FileSize(const Char* name) const {
  std::error_code ec;
  const std::filesystem::path path = m_path / name;
  if (!std::filesystem::is_regular_file(path, ec)) return -1;
  const std::uintmax_t size = std::filesystem::file_size(path, ec);
  return ec ? -1 : static_cast<std::int64_t>(size);
}

TqUSysFile::Handle TqUSysDirectory::OpenFile(const Char* name, std::uint32_t access,
                                             std::uint32_t share, std::uint32_t creation,
                                             std::uint32_t reserved1,
                                             std::uint32_t reserved2) const {
  if (m_error) return TqUSysFile::kInvalid;
  return TqUSysFile::OpenFile(m_path / name, access, share, creation, reserved1, reserved2);
}

bool TqUSysDirectory::Exists(const Char* name, std::error_code& ec) const {
  return std::filesystem::exists(m_path / name, ec);
}

bool TqUSysDirectory::RemoveFile(const Char* name, std::error_code& ec) const {
  ec.clear();
  if (RemovalRefused(name)) {
    ec = std::make_error_code(std::errc::permission_denied);
    return false;
  }
  const std::filesystem::path path = m_path / name;
  if (::DeleteFileW(path.c_str())) return true;
  const DWORD error = ::GetLastError();
  if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) return false;
  ec = std::error_code(static_cast<int>(error), std::system_category());
  return false;
}

#else

TqUSysDirectory::TqUSysDirectory(const std::filesystem::path& path) : m_path(path) {
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
  const int fd = RetryOpen(m_fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return Errno();
  DIR* const dir = ::fdopendir(fd);
  if (dir == nullptr) {
    const std::error_code ec = Errno();
    ::close(fd);
    return ec;
  }
  std::error_code result;
  for (;;) {
    errno = 0;
    const dirent* const entry = ::readdir(dir);
    if (entry == nullptr) {
      if (errno != 0) result = Errno();
      break;
    }
    const char* const name = entry->d_name;
    if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0))) continue;
    Item item;
    item.name = name;
    item.length = std::strlen(name);
    // The listing tells the kind of most entries; only links and unknown kinds need a look at
    // what they are, and regular files one for their size when it is asked for.
    const unsigned char type = entry->d_type;
    if (type == DT_REG && !sizes) {
      item.regular = true;
    } else if (type == DT_REG || type == DT_LNK || type == DT_UNKNOWN) {
      struct stat st = {};
      if (::fstatat(m_fd, name, &st, 0) == 0) {
        item.regular = S_ISREG(st.st_mode);
        if (item.regular) item.size = static_cast<std::int64_t>(st.st_size);
      } else {
        item.regular = type == DT_REG;  // gone meanwhile: still listed as what it was
      }
    }
    visit(item);
  }
  ::closedir(dir);
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

std::int64_t TqUSysDirectory::FileSize(const Char* name) const {
  struct stat st = {};
  if (m_fd < 0 || ::fstatat(m_fd, name, &st, 0) != 0 || !S_ISREG(st.st_mode)) return -1;
  return static_cast<std::int64_t>(st.st_size);
}

bool TqUSysDirectory::Exists(const Char* name, std::error_code& ec) const {
  ec.clear();
  if (m_fd < 0) {
    ec = m_error;
    return false;
  }
  struct stat st = {};
  if (::fstatat(m_fd, name, &st, 0) == 0) return true;
  if (errno != ENOENT && errno != ENOTDIR) ec = Errno();
  return false;
}

bool TqUSysDirectory::RemoveFile(const Char* name, std::error_code& ec) const {
  ec.clear();
  if (m_fd < 0) {
    ec = m_error;
    return false;
  }
  if (RemovalRefused(name)) {
    ec = std::make_error_code(std::errc::permission_denied);
    return false;
  }
  if (::unlinkat(m_fd, name, 0) == 0) return true;
  if (errno != ENOENT) ec = Errno();
  return false;
}

#endif
