// The Windows primitives under TqUSysFile: the system's file calls that take a path (the `sys`
// wrappers of CreateFileW and its kin), deletion through an open handle (read-only files too),
// and opens that keep only plain files.
#if defined(_WIN32)

#include "tqutil/sys_file_internal.h"

#include "tqutil/sys_file_faults.h"
#include "tqutil/sys_path.h"

#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace qv::sys_file {

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

FindHandle FindFirst(const std::filesystem::path& directory, WIN32_FIND_DATAW* data,
                     DWORD flags) {
  std::wstring pattern;
  if (!qv::sys_path::ToSystem(directory / L"*", pattern)) return nullptr;
  const HANDLE h = ::FindFirstFileExW(pattern.c_str(), FindExInfoBasic, data,
                                      FindExSearchNameMatch, nullptr, flags);
  return FindHandle(h == INVALID_HANDLE_VALUE ? nullptr : h);
}

}  // namespace sys

namespace {

// Whether `file` is a plain file on a disk: not a directory, not a pipe or a device, and, when
// `as_itself` (opened with FILE_FLAG_OPEN_REPARSE_POINT), not a reparse point (a link or a
// junction); `*size` is its size when it is. Once the system has followed the links, a reparse
// point left is the file system's own way of keeping a plain file (deduplicated, compressed or
// cloud files) and opens as one.
bool IsPlainFile(HANDLE file, bool as_itself, std::int64_t* size) {
  if (::GetFileType(file) != FILE_TYPE_DISK) return false;
  BY_HANDLE_FILE_INFORMATION info;
  if (!::GetFileInformationByHandle(file, &info)) return false;
  *size = static_cast<std::int64_t>((std::uint64_t{info.nFileSizeHigh} << 32) | info.nFileSizeLow);
  const DWORD refused =
      FILE_ATTRIBUTE_DIRECTORY | (as_itself ? FILE_ATTRIBUTE_REPARSE_POINT : DWORD{0});
  return (info.dwFileAttributes & refused) == 0;
}

// Not named by MinGW's headers (Windows 10 1809 and later).
constexpr auto kFileDispositionInfoEx = static_cast<FILE_INFO_BY_HANDLE_CLASS>(21);

// Marks the open `file` to be deleted when closed, a read-only one too: a stale file that is
// read-only (planted, or left so) must not block its name for ever, as it does not on POSIX.
// With `at_once`, where the file system can, the name goes now rather than at the close.
bool MarkForDeletion(HANDLE file, bool at_once = false) {
  FILE_DISPOSITION_INFO_EX ex = {};
  ex.Flags = FILE_DISPOSITION_FLAG_DELETE | FILE_DISPOSITION_FLAG_IGNORE_READONLY_ATTRIBUTE |
             (at_once ? FILE_DISPOSITION_FLAG_POSIX_SEMANTICS : 0);
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

// Not named by MinGW's headers for every Windows they target (Windows 10 1809 and later).
constexpr auto kFileRenameInfoEx = static_cast<FILE_INFO_BY_HANDLE_CLASS>(22);
constexpr DWORD kRenameReplaceIfExists = 0x1;
constexpr DWORD kRenameIgnoreReadOnly = 0x40;

// FILE_RENAME_INFO, whose first member is a flag word for FileRenameInfoEx and a BOOLEAN for
// FileRenameInfo (the union that MinGW names only for some target versions).
struct RenameInfo {
  DWORD flags;
  HANDLE root;
  DWORD length;  // of the name, in bytes, without its NUL
  WCHAR name[1];
};

// One rename of `file` through its handle as class `kind`.
bool SetRename(HANDLE file, FILE_INFO_BY_HANDLE_CLASS kind, DWORD flags,
               const std::wstring& target) {
  const std::size_t bytes = offsetof(RenameInfo, name) + (target.size() + 1) * sizeof(WCHAR);
  std::vector<RenameInfo> buffer((bytes + sizeof(RenameInfo) - 1) / sizeof(RenameInfo));
  RenameInfo* info = buffer.data();
  info->flags = flags;
  info->root = nullptr;
  info->length = static_cast<DWORD>(target.size() * sizeof(WCHAR));
  std::memcpy(info->name, target.c_str(), (target.size() + 1) * sizeof(WCHAR));
  return ::SetFileInformationByHandle(file, kind, info, static_cast<DWORD>(bytes));
}

}  // namespace

bool RenameOpenFile(HANDLE file, const std::filesystem::path& to) {
  std::wstring target;
  if (!qv::sys_path::ToSystem(to, target)) return false;
  // Windows replaces no read-only file, which POSIX does in a writable directory: a planted or
  // copied read-only entry would refuse every new copy for ever. Newer systems are told to
  // ignore the flag; older ones (and Wine) know no such rename, and lose the flag for it.
  if (SetRename(file, kFileRenameInfoEx, kRenameReplaceIfExists | kRenameIgnoreReadOnly, target) ||
      SetRename(file, FileRenameInfo, TRUE, target)) {
    return true;
  }
  const DWORD error = ::GetLastError();
  const DWORD attributes = sys::Attributes(to);
  if (error != ERROR_ACCESS_DENIED || attributes == INVALID_FILE_ATTRIBUTES ||
      (attributes & FILE_ATTRIBUTE_READONLY) == 0 || (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
    ::SetLastError(error);
    return false;
  }
  const DWORD writable = attributes & ~static_cast<DWORD>(FILE_ATTRIBUTE_READONLY);
  if (sys::SetAttributes(to, writable != 0 ? writable : FILE_ATTRIBUTE_NORMAL)) {
    if (SetRename(file, FileRenameInfo, TRUE, target)) return true;
    sys::SetAttributes(to, attributes);
  }
  ::SetLastError(error);
  return false;
}

bool DeleteOpenFile(HANDLE file) { return MarkForDeletion(file, true); }

bool RemoveStale(const std::filesystem::path& path) {
  if (TqUSysFileFaults::Fails("open")) return false;
  const OwnedHandle old = sys::Open(path, DELETE | FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES,
                                    0, OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT);
  if (!old) return ::GetLastError() == ERROR_FILE_NOT_FOUND;
  return MarkForDeletion(old.get());  // the last handle: the name goes as it closes
}

TqUSysFile::Handle OpenPlainFile(const std::filesystem::path& path, DWORD access, DWORD share,
                                 DWORD disposition, DWORD flags) {
  if (TqUSysFileFaults::Fails("open")) return TqUSysFile::kInvalid;
  OwnedHandle h = sys::Open(path, access, share, disposition, FILE_ATTRIBUTE_NORMAL | flags);
  if (!h) return TqUSysFile::kInvalid;
  OpenedForTesting();
  std::int64_t size = 0;
  if (!IsPlainFile(h.get(), (flags & FILE_FLAG_OPEN_REPARSE_POINT) != 0, &size)) {
    return TqUSysFile::kInvalid;
  }
  auto record = std::make_unique<TqUSysFileHandleTag>();
  record->file = h.release();
  if (disposition != CREATE_ALWAYS && disposition != CREATE_NEW) record->size_when_opened = size;
  return Adopt(std::move(record));
}

bool DeleteReadOnly(const std::filesystem::path& path) {
  const OwnedHandle file =
      sys::Open(path, DELETE | FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES,
                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, OPEN_EXISTING,
                FILE_FLAG_OPEN_REPARSE_POINT);
  return file && MarkForDeletion(file.get());
}

}  // namespace qv::sys_file

#endif
