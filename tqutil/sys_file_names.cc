// TqUSysFile's members that work on names: renaming, removing, the kind of what lies at a name,
// and the renaming and removal of a file only while the name still holds the open one.
#include "tqutil/sys_file.h"

#include "tqutil/sys_file_faults.h"
#include "tqutil/sys_file_internal.h"

using qv::sys_file::Use;
using qv::sys_file::LastFileError;
#if defined(_WIN32)
using qv::sys_file::DeleteOpenFile;
using qv::sys_file::DeleteReadOnly;
using qv::sys_file::LastError;
using qv::sys_file::RenameOpenFile;
namespace sys = qv::sys_file::sys;
#else
using qv::sys_file::StillNamed;
using qv::sys_file::WholePath;
#endif

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

#if !defined(_WIN32)
namespace {
// Whether `path` (a link not followed) names the file open as `file`.
bool NamesHeldFile(TqUSysFile::Handle file, const std::filesystem::path& path) {
  struct stat held = {};
  if (!WholePath(path) || ::fstat(file->fd, &held) != 0) return false;
  return StillNamed(AT_FDCWD, path.c_str(), held);
}
}  // namespace
#endif

bool TqUSysFile::RenameHeldFile(Handle file, const std::filesystem::path& from,
                                const std::filesystem::path& to, std::error_code& ec) {
  ec.clear();
  const Use use(file);
  if (!use) {
    ec = std::make_error_code(std::errc::bad_file_descriptor);
    return false;
  }
#if defined(_WIN32)
  // The handle itself is renamed: the sharing keeps everyone else from renaming or deleting
  // the file while it is held, so it still lies at `from`.
  (void)from;
  if (TqUSysFileFaults::Fails("rename")) {
    ec = LastFileError();
    return false;
  }
  if (RenameOpenFile(file->file, to)) return true;
  ec = LastError();
  return false;
#else
  if (!NamesHeldFile(file, from)) {
    ec = std::make_error_code(std::errc::no_such_file_or_directory);
    return false;
  }
  return RenameFile(from, to, ec);
#endif
}

bool TqUSysFile::RemoveHeldFile(Handle file, const std::filesystem::path& path,
                                std::error_code& ec) {
  ec.clear();
  const Use use(file);
  if (!use) {
    ec = std::make_error_code(std::errc::bad_file_descriptor);
    return false;
  }
#if defined(_WIN32)
  (void)path;
  if (TqUSysFileFaults::Fails("remove")) {
    ec = LastFileError();
    return false;
  }
  if (DeleteOpenFile(file->file)) return true;
  ec = LastError();
  return false;
#else
  if (!NamesHeldFile(file, path)) return false;
  return RemoveFile(path, ec);
#endif
}
