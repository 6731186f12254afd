// Files with Windows-style sharing, on every system.
//
// The sharing rules the disk cache relies on hold across threads and processes: readers that
// allow sharing coexist, an open for writing is exclusive, and an open that the sharing refuses
// fails at once (it never waits). On POSIX this is done with whole-file locks that belong to each
// open (flock), taken before a file is emptied, so a refused writer never truncates another
// writer's file.
//
// The directories these files live in may be writable by others, so an open only ever opens a
// regular file at the name itself: a symbolic link (a reparse point on Windows) is never
// followed, and a FIFO, socket, device or directory is refused without waiting. Files are
// created readable and writable by their owner only (POSIX mode 0600).
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <system_error>

#include "tqutil/export.h"

/// Files through the system's own calls, with Windows-like sharing rules on every system.
class TQUTIL_API TqUSysFile {
 public:
  /// An open file; null (kInvalid) for none.
  using Handle = struct TqUSysFileHandleTag*;
  /// No file.
  TQUTIL_EXPORT_CONSTANT static constexpr Handle kInvalid = nullptr;

  // access
  TQUTIL_EXPORT_CONSTANT static constexpr std::uint32_t kAccessRead = 0;   ///< read only
  TQUTIL_EXPORT_CONSTANT static constexpr std::uint32_t kAccessWrite = 1;  ///< read and write
  // share
  /// Others may not open the file while this handle is open.
  TQUTIL_EXPORT_CONSTANT static constexpr std::uint32_t kShareNone = 0;
  /// Others may open the file for reading.
  TQUTIL_EXPORT_CONSTANT static constexpr std::uint32_t kShareRead = 1;
  // creation
  /// A new file made by this open alone: whatever lies at the name (a stale file, a link, a
  /// FIFO) is removed first, unless an open holds it, and the file is created exclusively. No
  /// other open finds it at the name before this one holds it.
  TQUTIL_EXPORT_CONSTANT static constexpr std::uint32_t kCreateAlways = 1;
  /// An existing file, contents kept.
  TQUTIL_EXPORT_CONSTANT static constexpr std::uint32_t kOpenExistingWrite = 2;
  /// An existing file.
  TQUTIL_EXPORT_CONSTANT static constexpr std::uint32_t kOpenExisting = 3;
  /// Created when missing, contents kept.
  TQUTIL_EXPORT_CONSTANT static constexpr std::uint32_t kOpenAlways = 4;

  /// Opens `path`. `reserved1` and `reserved2` must be 0. Null when the file cannot be opened,
  /// is not a regular file (a link at `path` is not followed), or the sharing refuses it.
  static Handle OpenFile(const std::filesystem::path& path, std::uint32_t access,
                         std::uint32_t share, std::uint32_t creation, std::uint32_t reserved1,
                         std::uint32_t reserved2);
  /// Opens for reading the existing file a caller names (a local file, a file URL's path): unlike
  /// OpenFile's, this open follows the links on the way, and then opens what they lead to as
  /// OpenFile(kAccessRead, kShareRead, kOpenExisting) does, except that on Windows it shares
  /// writing and deletion with other programs' opens (the library's own writers still exclude
  /// it). Null when that cannot be opened.
  static Handle OpenNamedFile(const std::filesystem::path& path);
  /// Reads up to `size` bytes; false on error. `*read` is 0 at the end of the file.
  static bool ReadFile(Handle file, void* buffer, std::uint64_t size, std::uint64_t* read);
  /// Reads up to `size` bytes starting at byte `offset` of the file; false on error. `*read` is 0
  /// at or past the end. The position that ReadFile uses is left alone on POSIX (Windows moves
  /// it), so a reader that always says where it reads needs no seek.
  static bool ReadFileAt(Handle file, void* buffer, std::uint64_t size, std::uint64_t offset,
                         std::uint64_t* read);
  /// ReadFileAt in as many reads as the file system needs (network and user-space ones may answer
  /// in pieces before the end): `*read` is short of `size` only at the end of the file, known
  /// from a read of nothing or, without one, from the size the open found. False on error.
  static bool ReadFileAtFully(Handle file, void* buffer, std::uint64_t size, std::uint64_t offset,
                              std::uint64_t* read);
  /// Writes all `size` bytes; false on error (a full disk included).
  static bool WriteFile(Handle file, const void* buffer, std::uint64_t size,
                        std::uint64_t* written);
  /// origin: 0 start, 1 current, 2 end. Returns the new position, or -1 on error.
  static std::int64_t SeekFile(Handle file, std::int64_t offset, int origin);
  static std::int64_t GetFileSize(Handle file);  ///< -1 on error
  /// The open file's last modification, in nanoseconds since 1970 (UTC) to the file system's
  /// resolution; false on error or when the time lies beyond what 64 bits of them hold.
  static bool GetFileModifiedTime(Handle file, std::int64_t* nanoseconds);
  /// Closes `file`; false on error (the handle is gone either way). A call on it that another
  /// thread is still making keeps the file open until that call ends, which then closes it.
  static bool CloseFile(Handle file);
  /// Renames `from` over `to`, replacing a file there; false with `ec` set on error.
  static bool RenameFile(const std::filesystem::path& from, const std::filesystem::path& to,
                         std::error_code& ec);
  /// Removes the file (or link, or empty directory) at `path`: true when removed; false with
  /// `ec` clear when nothing was there; false with `ec` set when it could not be removed.
  static bool RemoveFile(const std::filesystem::path& path, std::error_code& ec);
  /// What lies at a name itself: a link (on Windows any reparse point), FIFO or device is kOther.
  enum class NameKind { kNone, kRegular, kDirectory, kOther };
  /// The kind of `path` itself, a link never followed. kNone with `ec` clear when nothing is
  /// there, with `ec` set when the name could not be looked at.
  static NameKind KindOfName(const std::filesystem::path& path, std::error_code& ec);
  /// RenameFile of the file open as `file`, made only while `from` still names it: one that
  /// ignores the sharing (a cleared directory) may have removed it, and another writer made the
  /// name anew. Otherwise false with `ec` set to no_such_file_or_directory. The file stays held
  /// throughout; on Windows the handle itself is renamed, which needs a writer's handle
  /// (kAccessWrite), and the sharing keeps the file at `from` while it is held.
  static bool RenameHeldFile(Handle file, const std::filesystem::path& from,
                             const std::filesystem::path& to, std::error_code& ec);
  /// RemoveFile of the file open as `file` at `path`, likewise: a name that holds another file
  /// counts as nothing there. On Windows the handle itself deletes it (a writer's handle): the
  /// name goes at once where the file system can, else as the handle closes.
  static bool RemoveHeldFile(Handle file, const std::filesystem::path& path,
                             std::error_code& ec);

  /// Runs `hook` inside every open once it holds a file: on POSIX after the file is found
  /// regular and before it is locked (the moment at which a writer may be overtaken by
  /// another); on Windows, whose open takes the sharing at once, right after the open. An empty
  /// function ends it. Called from whichever threads open files.
  static void SetOpenHookForTesting(std::function<void()> hook);
  /// Runs `hook` inside every call on an open handle (a read, a write, a seek, a size) once the
  /// call holds the handle, before it uses the file. An empty function ends it.
  static void SetUseHookForTesting(std::function<void()> hook);
};

/// A directory whose files are listed, opened and removed by name relative to one open handle,
/// so that working through many files does not resolve the directory's own path again for each
/// (POSIX: one descriptor and the *at calls; Windows: the path, joined per call). Once opened it
/// may be used from several threads at once.
class TQUTIL_API TqUSysDirectory {
 public:
  /// The system's character for file names.
  using Char = std::filesystem::path::value_type;

  /// One entry of the directory, as List visits it.
  struct Item {
    const Char* name = nullptr;  ///< NUL-terminated; valid during the visit only
    /// The name's length in characters.
    std::size_t length = 0;
    bool regular = false;        ///< a regular file itself (a link to one is not)
    std::int64_t size = -1;      ///< the regular file's size; -1 when it could not be read
  };

  /// Never throws: Error() tells whether it opened.
  explicit TqUSysDirectory(const std::filesystem::path& path);
  ~TqUSysDirectory();
  TqUSysDirectory(const TqUSysDirectory&) = delete;
  TqUSysDirectory& operator=(const TqUSysDirectory&) = delete;

  /// Why the directory could not be opened; clear when it is open.
  const std::error_code& Error() const { return m_error; }
  /// The directory's path as given.
  const std::filesystem::path& Path() const { return m_path; }

  /// Visits every entry but "." and "..", in directory order, with the size of each regular
  /// file. Without `sizes`, a regular file whose size the directory itself does not tell (POSIX)
  /// comes with size -1, for FileSize to read, on several threads if many. Returns the error
  /// that ended the reading early, if any.
  std::error_code List(const std::function<void(const Item&)>& visit, bool sizes = true) const;
  /// The size of the regular file `name` (links not followed); -1 when it is none or cannot be
  /// read.
  std::int64_t FileSize(const Char* name) const;
  /// TqUSysFile::OpenFile for the file `name` of this directory, with the same rules.
  TqUSysFile::Handle OpenFile(const Char* name, std::uint32_t access, std::uint32_t share,
                              std::uint32_t creation, std::uint32_t reserved1,
                              std::uint32_t reserved2) const;
  /// Reads up to `size` bytes from the start of the file `name`, opened as OpenFile opens it for
  /// a reader that shares (no link followed, regular files only, refused at once while a writer
  /// holds it), and closes it again. The count read (short only at the file's end), or -1 when
  /// the file cannot be opened or read. Makes no handle: for the first bytes of many files.
  std::int64_t ReadStart(const Char* name, void* buffer, std::size_t size) const;
  /// Whether anything lies at `name` (a link counts, whatever it leads to); false with `ec` set
  /// when it cannot tell.
  bool Exists(const Char* name, std::error_code& ec) const;
  /// Removes the file (or link) `name`: true when removed; false with `ec` clear when nothing
  /// was there; false with `ec` set when it could not be removed.
  bool RemoveFile(const Char* name, std::error_code& ec) const;
  /// RemoveFile of the regular file `name` unless a writer holds it: held meanwhile as a reader
  /// that shares holds it, so that no writer takes it while it goes, and removed only while the
  /// name still names the file held. A file a writer holds is left, false with `ec` set; false
  /// with `ec` clear when nothing is there or the name holds another file by the time it is
  /// held. Where an open file cannot be removed (Windows: the sharing of every open refuses
  /// it), RemoveFile.
  bool RemoveFileUnlessHeld(const Char* name, std::error_code& ec) const;

  /// Makes the directory `path` (its parent must exist), private to the user where the system
  /// has permission bits (owner only, whatever the process's umask). True when `path` is a
  /// directory afterwards, made now or by another meanwhile; false with `ec` set otherwise (a
  /// file there, no parent). Works at any path length.
  static bool Create(const std::filesystem::path& path, std::error_code& ec);

  /// Removes `path` and, when it is a directory, everything in it; a link (a reparse point on
  /// Windows: a junction or a symbolic link) anywhere in the tree is removed as itself, and what
  /// it leads to is never entered. The count of files and directories removed; `ec` set when
  /// something could not be removed (the rest is removed still).
  static std::uintmax_t RemoveTree(const std::filesystem::path& path, std::error_code& ec);

  /// Runs `hook` inside Create once it has made its directory, before the directory's mode is
  /// set (POSIX only); an empty function ends it.
  static void SetCreateHookForTesting(std::function<void()> hook);

  /// Makes RemoveFile refuse (permission denied, the file left in place) every name for which
  /// `refuse` returns true; an empty function ends it. `refuse` is called from whichever
  /// threads remove files, possibly at once.
  static void SetRemoveFaultForTesting(std::function<bool(const Char* name)> refuse);

 private:
  std::filesystem::path m_path;
  std::error_code m_error;
#if !defined(_WIN32)
  int m_fd = -1;
#endif
};
