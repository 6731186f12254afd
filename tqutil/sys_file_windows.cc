// The Windows primitives under TqUSysFile: the system's file calls that take a path (the `sys`
// wrappers of CreateFileW and its kin), deletion through an open handle (read-only files too),
// and opens that keep only plain files.
#if defined(_WIN32)

#include "tqutil/sys_file_internal.h"

#include "tqutil/sys_file_faults.h"
#include "tqutil/sys_path.h"

#include <memory>
#include <string>
#include <utility>

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

}  // namespace

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
  if (!IsPlainFile(h.get())) return TqUSysFile::kInvalid;
  auto record = std::make_unique<TqUSysFileHandleTag>();
  record->file = h.release();
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
