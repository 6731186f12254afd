// The host's file-protocol framework: protocol objects by scheme, the handles the file layer
// passes back into a protocol, file information, and progress reporting.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "tqutil/export.h"
#include "tqutil/strings.h"

/// Opaque handles. A protocol derives its own handle records from these; the file layer only
/// stores the pointers and hands them back unchanged.
class TqUFileHandle {
 protected:
  TqUFileHandle() = default;
  ~TqUFileHandle() = default;
};
/// What one reading thread of a file needs of its own (see CreateThreadHandle).
class TqUThreadHandle {
 protected:
  TqUThreadHandle() = default;
  ~TqUThreadHandle() = default;
};
/// One read set up on a file (see SetupReadFile).
class TqUFileRequestHandle {
 protected:
  TqUFileRequestHandle() = default;
  ~TqUFileRequestHandle() = default;
};

/// What is known of a file: any of size, modification time and revision.
class TQUTIL_API TqUFileInfo {
 public:
  /// The file's size in bytes.
  void SetFileSize(std::uint64_t size) { m_size = size; }
  /// The last modification, in TqUSysTime seconds.
  void SetFileModificationTime(std::int64_t time) { m_modified = time; }  // TqUSysTime seconds
  /// A text that changes whenever the file does (an HTTP entity tag); null is taken as "".
  void SetFileRevisionId(const wchar_t* revision) { m_revision = revision ? revision : L""; }

  /// What was set above; empty when it was not.
  /// @{
  std::optional<std::uint64_t> GetFileSize() const { return m_size; }
  std::optional<std::int64_t> GetFileModificationTime() const { return m_modified; }
  std::optional<std::wstring> GetFileRevisionId() const { return m_revision; }
  /// @}

 private:
  std::optional<std::uint64_t> m_size;
  std::optional<std::int64_t> m_modified;
  std::optional<std::wstring> m_revision;
};

/// File information by name, thread-safe, holding at most `capacity` names: adding one more
/// forgets the least recently used. Entries do not expire.
class TQUTIL_API TqUFileInfoCache {
 public:
  /// Holds at most `capacity` names.
  explicit TqUFileInfoCache(std::size_t capacity);
  TqUFileInfoCache(const TqUFileInfoCache&) = delete;
  TqUFileInfoCache& operator=(const TqUFileInfoCache&) = delete;

  /// The information kept for `name` into `info` (the name then counts as the most recently
  /// used); false when none.
  bool Lookup(const wchar_t* name, TqUFileInfo* info);
  /// Keeps (or replaces) the information for `name`.
  void Add(const wchar_t* name, const TqUFileInfo& info);

 private:
  using Entry = std::pair<std::wstring, TqUFileInfo>;
  std::mutex m_mutex;
  std::size_t m_capacity;
  std::list<Entry> m_lru;  ///< most recently used first
  std::unordered_map<std::wstring, std::list<Entry>::iterator> m_index;
};

/// Receives the progress of a long operation.
class TQUTIL_API TqUProgress {
 public:
  virtual ~TqUProgress();
  /// `fraction` runs from 0.0 to 1.0. Returning false asks the operation to stop, where it can.
  virtual bool SetProgress(double fraction) = 0;
};

/// A file protocol: how the host's file layer reaches files of some scheme. The base class
/// gives the behaviour of a protocol that supports nothing; protocols override what they do.
class TQUTIL_API TqUFileProtocol {
 public:
  /// How OpenFile opens a file.
  enum OpenMode : int {
    OpenRead = 0,  ///< for reading
    OpenWrite = 1  ///< for writing
  };

  TqUFileProtocol() = default;
  TqUFileProtocol(const TqUFileProtocol&) = delete;
  TqUFileProtocol& operator=(const TqUFileProtocol&) = delete;

  virtual ~TqUFileProtocol();
  /// OpenFile may be called on a name as it is, without SetupOpenFile first. Base: false.
  virtual bool SupportsDirectOpen();
  /// Whole files move with GetFile and PutFile. Base: false.
  virtual bool SupportsGetPut();
  /// The protocol keeps downloaded files itself (GetFileToCache). Base: false.
  virtual bool SupportsOwnCache();
  /// Files of this protocol live elsewhere, so the file layer caches and shows progress. The
  /// path form answers as IsRemote() does; the base class answers false.
  virtual bool IsRemote(const wchar_t* path);
  /// @copydoc IsRemote(const wchar_t*)
  virtual bool IsRemote();
  /// Size, modification time and revision of `url` into `info`; false when unknown. Base: false.
  virtual bool GetFileInfo(const wchar_t* url, TqUFileInfo* info);
  /// Copies the whole file at `url` to `local_path`, telling `progress` (may be null); false on
  /// failure. Base: false.
  virtual bool GetFile(const wchar_t* url, const wchar_t* local_path, TqUProgress* progress);
  /// As GetFile, into the protocol's own cache; its path goes to `cache_path`. Base: false.
  virtual bool GetFileToCache(const wchar_t* url, TqUProgress* progress,
                              TqUWideStringBuffer* cache_path);
  /// Copies the local file to `url`; false on failure. Base: false.
  virtual bool PutFile(const wchar_t* local_path, const wchar_t* url, TqUProgress* progress);
  /// A handle for reading or writing `url`, closed with CloseFile; null on failure. Base: null.
  virtual TqUFileHandle* OpenFile(const wchar_t* url, OpenMode mode);
  /// Reads exactly `size` bytes at `offset` on the thread's handle for a read set up with
  /// SetupReadFile; false on failure or a short file. Base: false.
  virtual bool ReadFile(TqUFileHandle* file, TqUThreadHandle* thread,
                        TqUFileRequestHandle* request, std::uint64_t offset, std::uint64_t size,
                        unsigned char* buffer);
  /// Writes `size` bytes at `offset`; false on failure. Base: false.
  virtual bool WriteFile(TqUFileHandle* file, std::uint64_t offset, std::uint64_t size,
                         unsigned char* buffer);
  /// Ends the use of a handle from OpenFile; false for a handle it does not know. Base: true.
  virtual bool CloseFile(TqUFileHandle* file);
  /// Lets a protocol widen a block download; the base leaves both values as they are.
  virtual void ExtendBlockDownload(TqUFileHandle* file, unsigned int block_size,
                                   unsigned int& first_block, unsigned int& block_count);
  /// ReadFileToSize is available. Base: false.
  virtual bool SupportsReadFileToSize();
  /// As ReadFile, but a short file is no failure: the bytes read, or -1 on failure; the file's
  /// whole size goes to `total_size` when known. Base: -1.
  virtual std::int64_t ReadFileToSize(TqUFileHandle* file, TqUThreadHandle* thread,
                                      TqUFileRequestHandle* request, std::uint64_t offset,
                                      std::uint64_t size, unsigned char* buffer,
                                      std::uint64_t* total_size);
  /// What one reading thread needs of its own (a connection, say), released with
  /// ReleaseThreadHandle; null on failure. Base: null.
  virtual TqUThreadHandle* CreateThreadHandle(TqUFileHandle* file);
  /// Ends the use of a handle from CreateThreadHandle. Base: true.
  virtual bool ReleaseThreadHandle(TqUThreadHandle* thread);
  /// Prepares a read of `size` bytes at `offset`, released with ReleaseRequestHandle; null on
  /// failure. Base: null.
  virtual TqUFileRequestHandle* SetupReadFile(TqUFileHandle* file, std::uint64_t offset,
                                              std::uint64_t size);
  /// Ends the use of a handle from SetupReadFile. Base: true.
  virtual bool ReleaseRequestHandle(TqUFileRequestHandle* request);
  /// Makes `path` absolute for this protocol. Base: ResolveAbsoluteFileOrURL.
  virtual bool ResolveAbsolute(const wchar_t* path, const wchar_t* base,
                               const wchar_t* directory, TqUWideStringBuffer* result);
  /// Resolves `relative` against `base` into `result`; false when it cannot. Base: false.
  virtual bool ResolveRelative(const wchar_t* base, const wchar_t* relative,
                               TqUWideStringBuffer* result);
  /// The name to show for `path`. Base: the path itself.
  virtual void GetDisplayName(const wchar_t* path, TqUWideStringBuffer* result);
  /// A longer name to show, e.g. in a tool tip. Base: the path itself.
  virtual void GetVerboseDisplayName(const wchar_t* path, TqUWideStringBuffer* result);
  /// The path to hand to the system for `path`. Base: the path itself.
  virtual void GetPhysicalPath(const wchar_t* path, TqUWideStringBuffer* result);
  /// The path to keep in a most-recently-used list. Base: the path itself.
  virtual void GetMRUPath(const wchar_t* path, TqUWideStringBuffer* result);
  /// Lets a protocol rewrite a name before it is opened; the base sets `resolved` to `url` and
  /// returns false (nothing was set up).
  virtual bool SetupOpenFile(const wchar_t* url, TqUWideStringBuffer* resolved, OpenMode mode);

  /// Makes `path` absolute: a URL or an absolute local path is kept; otherwise it is resolved
  /// against `base` (a URL, or a local file whose directory is used) or, without a base, joined
  /// to `directory`. False when there is nothing to resolve against or resolution fails.
  static bool ResolveAbsoluteFileOrURL(const wchar_t* path, const wchar_t* base,
                                       const wchar_t* directory, TqUWideStringBuffer* result);
};

/// Protocol objects by scheme (compared without case). Reference-counted: Initialise and
/// Terminate pair up; the registry exists while the count is above 0. It does not own the
/// protocols. Thread-safe.
class TQUTIL_API TqUFileProtocolRegistry {
 public:
  /// Counts one user of the registry, creating it for the first.
  static void Initialise();
  /// Ends one user's share; the last one destroys the registry.
  static void Terminate();
  /// The registry; null while it does not exist.
  static TqUFileProtocolRegistry* Get();

  /// False when `scheme` is registered already (the registration is left as it was), and when
  /// `scheme` or `protocol` is null or `scheme` is empty (nothing is registered).
  bool Register(const wchar_t* scheme, TqUFileProtocol* protocol);
  /// Removes the scheme's protocol and returns it; null when none is registered.
  TqUFileProtocol* Unregister(const wchar_t* scheme);
  /// The protocol registered for `scheme`; null when none.
  TqUFileProtocol* Lookup(const wchar_t* scheme) const;

 private:
  TqUFileProtocolRegistry() = default;
  mutable std::mutex m_mutex;
  std::unordered_map<std::wstring, TqUFileProtocol*> m_protocols;  ///< scheme in lower case
};
