// TqUSysFile's members that work on a handle: opening, reading, writing, seeking, the size and
// modification time of an open file, and closing.
#include "tqutil/sys_file.h"

#include "tqutil/sys_file_faults.h"
#include "tqutil/sys_file_internal.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <utility>

using qv::sys_file::Forget;
using qv::sys_file::Use;
using qv::sys_file::ValidArguments;
#if defined(_WIN32)
using qv::sys_file::OpenPlainFile;
using qv::sys_file::RemoveStale;
#else
using qv::sys_file::OpenAt;
using qv::sys_file::WholePath;
#endif

namespace {

#if defined(_WIN32)
// The most one system call is given (its count is a DWORD).
constexpr std::uint64_t kMostPerWrite = 1u << 30;
#else
// Linux sizes the page-cache folios a write fills by the write's length. Large folios come from
// the allocator's large free blocks, which a virtual machine's balloon hands back to its host
// once they have lain free for a few seconds; every page of them then costs the host a fault
// when it is written again (2 s per GiB measured, six times the copy itself). Folios of up to
// 32 KiB are served from the small blocks each processor keeps at hand, which stay with the
// guest: writes of 32 KiB took 0.32 s per GiB every time, where 64 KiB and more took 0.27-1 s.
constexpr std::uint64_t kMostPerWrite = 32 * 1024;
#endif

}  // namespace

TqUSysFile::Handle TqUSysFile::OpenFile(const std::filesystem::path& path, std::uint32_t access,
                                        std::uint32_t share, std::uint32_t creation,
                                        std::uint32_t reserved1, std::uint32_t reserved2) {
  if (!ValidArguments(access, share, creation, reserved1, reserved2) || path.empty()) {
    return kInvalid;
  }
#if defined(_WIN32)
  // A writer may rename or delete the file it holds through its own handle (RenameHeldFile,
  // RemoveHeldFile), never letting go of it on the way. It shares nothing, so asking for
  // DELETE refuses no open that its sharing would not refuse anyway.
  const DWORD desired =
      access == kAccessWrite ? (GENERIC_READ | GENERIC_WRITE | DELETE) : GENERIC_READ;
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

namespace {

// One read of at most 1 GiB, at the file's position or, given `offset`, at that offset without
// moving the position.
bool ReadOnce(TqUSysFile::Handle file, void* buffer, std::uint64_t size,
              const std::uint64_t* offset, std::uint64_t* read) {
  if (read) *read = 0;
  const Use use(file);
  if (!use || (!buffer && size > 0) ||
      (offset && *offset > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) ||
      TqUSysFileFaults::Fails("read")) {
    return false;
  }
  // A read at an offset ends at the largest offset a file can have: the system refuses one
  // that would pass it (EINVAL) rather than reading nothing past the end.
  if (offset) {
    size = std::min(size, static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) -
                              *offset);
  }
  size = TqUSysFileFaults::ReadSize(size);
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
  // volume without a drive letter has none. Other programs take no part in the library's
  // sharing: a caller's file must open while an editor or a logger holds it for writing, and
  // must not keep them from saving it meanwhile (as on POSIX). The library's own writers share
  // nothing, so they still keep this reader out, and it them.
  if (path.empty()) return kInvalid;
  return OpenPlainFile(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                       OPEN_EXISTING, 0);
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

bool TqUSysFile::ReadFileAtFully(Handle file, void* buffer, std::uint64_t size,
                                 std::uint64_t offset, std::uint64_t* read) {
  if (read == nullptr) return false;
  *read = 0;
  std::int64_t opened = -1;
  {
    const Use use(file);
    if (!use) return false;
    // On POSIX the open measures just before its lock: a file written in place and finished in
    // between is longer, reads past that size and is read on to its end.
    opened = file->size_when_opened;
  }
  while (*read < size) {
    std::uint64_t got = 0;
    if (!ReadFileAt(file, static_cast<char*>(buffer) + *read, size - *read, offset + *read,
                    &got)) {
      return false;
    }
    if (got == 0) break;
    *read += got;
    if (opened >= 0 && offset + *read == static_cast<std::uint64_t>(opened)) break;
  }
  return true;
}

bool TqUSysFile::WriteFile(Handle file, const void* buffer, std::uint64_t size,
                           std::uint64_t* written) {
  if (written) *written = 0;
  const Use use(file);
  if (!use || (!buffer && size > 0)) return false;
  // A test's injected fault counts one operation for each write of some bytes.
  if (size > 0 && TqUSysFileFaults::Fails("write")) return false;
  const auto* p = static_cast<const unsigned char*>(buffer);
  std::uint64_t done = 0;
  while (done < size) {
    const auto chunk = static_cast<std::size_t>(std::min(size - done, kMostPerWrite));
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
  const Use use(file);
  if (!use || origin < 0 || origin > 2 || TqUSysFileFaults::Fails("seek")) return -1;
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
  const Use use(file);
  if (!use || TqUSysFileFaults::Fails("size")) return -1;
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
  const Use use(file);
  if (!use || nanoseconds == nullptr) return false;
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
  bool in_use = false;
  if (!Forget(file, &in_use)) return false;
  // A call on another thread still uses it: the last one closes it as it ends.
  if (in_use) return true;
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
