// TqUSysDirectory on Windows: a directory by its path, joined with each name per call; listings
// through FindFirstFileExW, which carry the sizes, and removal that never enters a reparse point.
#if defined(_WIN32)

#include "tqutil/sys_file.h"

#include "tqutil/sys_file_faults.h"
#include "tqutil/sys_file_internal.h"
#include "tqutil/sys_path.h"

#include <cwchar>
#include <string>
#include <vector>

using qv::sys_file::DeleteReadOnly;
using qv::sys_file::FindHandle;
using qv::sys_file::LastError;
using qv::sys_file::LastFileError;
using qv::sys_file::RemovalRefused;
namespace sys = qv::sys_file::sys;

namespace {

// The file `name` of `directory` as the system's calls take it: the directory's path made whole
// and prefixed, and the name joined to it as it is. A name as a listing gives it may end in a dot
// or a space, or be a device's ("nul", "aux.txt"): joined as a plain path, the system's tidying
// would name another file ("entry." is "entry") or the device. Empty, with the last error set,
// when the directory's path cannot be put in that form.
std::filesystem::path NameIn(const std::filesystem::path& directory, const wchar_t* name) {
  std::wstring joined;
  if (!qv::sys_path::ToSystem(directory, joined)) return {};
  if (joined.back() != L'\\') joined += L'\\';
  joined += name;
  return joined;
}

}  // namespace

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
  if (!sys::AttributesEx(NameIn(m_path, name), &data) ||
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
  return TqUSysFile::OpenFile(NameIn(m_path, name), access, share, creation, reserved1,
                              reserved2);
}

std::int64_t TqUSysDirectory::ReadStart(const Char* name, void* buffer,
                                        std::size_t size) const {
  TqUSysFile::Handle file = OpenFile(name, TqUSysFile::kAccessRead, TqUSysFile::kShareRead,
                                     TqUSysFile::kOpenExisting, 0, 0);
  if (file == TqUSysFile::kInvalid) return -1;
  std::uint64_t got = 0;
  const bool read = TqUSysFile::ReadFileAtFully(file, buffer, size, 0, &got);
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
  if (sys::Attributes(NameIn(m_path, name)) != INVALID_FILE_ATTRIBUTES) return true;
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
  const auto keep = [&ec](const std::error_code& error) {
    if (error && !ec) ec = error;
  };
  std::uintmax_t count = 0;
  // A directory being emptied, with its names as listed and the next of them to go. The
  // directories entered are kept on a list of their own, not on the call stack: a tree may be
  // as deep as whoever can write the directory made it, and a call per level would run out of
  // stack.
  struct Level {
    std::filesystem::path path;
    std::vector<std::filesystem::path> names;
    std::size_t next = 0;
  };
  std::vector<Level> levels;  // outermost first
  // Removes `name` when it is no directory; enters it (a new level) when it is one.
  const auto remove = [&](const std::filesystem::path& name) {
    // MinGW's remove_all is no use here: its symlink_status follows links (there is no lstat),
    // so it would take a junction for a directory and empty what it leads to.
    const DWORD attributes = sys::Attributes(name);
    if (attributes == INVALID_FILE_ATTRIBUTES) {
      const DWORD error = ::GetLastError();
      if (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND) {
        keep(std::error_code(static_cast<int>(error), std::system_category()));
      }
      return;
    }
    if (RemovalRefused(name.filename().c_str())) {
      keep(std::make_error_code(std::errc::permission_denied));
      return;
    }
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
      // A file, or a link to one: DeleteFileW removes a link itself.
      std::error_code removed;
      if (TqUSysFile::RemoveFile(name, removed)) ++count;
      keep(removed);
      return;
    }
    Level level{name, {}, 0};
    // A directory junction or link is not entered: it goes as itself, whatever lies behind it.
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) {
      WIN32_FIND_DATAW data;
      // Closed before the entries go (a directory being listed cannot be removed), and however
      // the listing ends.
      if (const FindHandle find = sys::FindFirst(name, &data, 0)) {
        do {
          if (std::wcscmp(data.cFileName, L".") != 0 && std::wcscmp(data.cFileName, L"..") != 0) {
            level.names.push_back(NameIn(name, data.cFileName));
          }
        } while (::FindNextFileW(find.get(), &data));
      }
    }
    levels.push_back(std::move(level));
  };
  remove(path);
  while (!levels.empty()) {
    Level& level = levels.back();
    if (level.next < level.names.size()) {
      // A copy: entering it may move the level.
      const std::filesystem::path inner = level.names[level.next++];
      remove(inner);
      continue;
    }
    const std::filesystem::path done = std::move(level.path);
    levels.pop_back();
    if (sys::RemoveDir(done)) {
      ++count;
    } else {
      keep(LastError());
    }
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
  const std::filesystem::path path = NameIn(m_path, name);
  if (sys::Delete(path)) return true;
  const DWORD error = ::GetLastError();
  if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) return false;
  if (error == ERROR_ACCESS_DENIED && DeleteReadOnly(path)) return true;
  ec = std::error_code(static_cast<int>(error), std::system_category());
  return false;
}

bool TqUSysDirectory::RemoveFileUnlessHeld(const Char* name, std::error_code& ec) const {
  // A file open without delete sharing (every open of ours) is not deleted.
  return RemoveFile(name, ec);
}

#endif
