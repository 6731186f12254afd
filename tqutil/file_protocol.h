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

// Opaque handles. A protocol derives its own handle records from these; the file layer only
// stores the pointers and hands them back unchanged.
class TqUFileHandle {
 protected:
  TqUFileHandle() = default;
  ~TqUFileHandle() = default;
};
class TqUThreadHandle {
 protected:
  TqUThreadHandle() = default;
  ~TqUThreadHandle() = default;
};
class TqUFileRequestHandle {
 protected:
  TqUFileRequestHandle() = default;
  ~TqUFileRequestHandle() = default;
};

// What is known of a file: any of size, modification time and revision.
class TQUTIL_API TqUFileInfo {
 public:
  void SetFileSize(std::uint64_t size) { m_size = size; }
  void SetFileModificationTime(std::int64_t time) { m_modified = time; }  // TqUSysTime seconds
  void SetFileRevisionId(const wchar_t* revision) { m_revision = revision ? revision : L""; }

  std::optional<std::uint64_t> GetFileSize() const { return m_size; }
  std::optional<std::int64_t> GetFileModificationTime() const { return m_modified; }
  std::optional<std::wstring> GetFileRevisionId() const { return m_revision; }

 private:
  std::optional<std::uint64_t> m_size;
  std::optional<std::int64_t> m_modified;
  std::optional<std::wstring> m_revision;
};

// File information by name, thread-safe, holding at most `capacity` names: adding one more
// forgets the least recently used. Entries do not expire.
class TQUTIL_API TqUFileInfoCache {
 public:
  explicit TqUFileInfoCache(std::size_t capacity);
  TqUFileInfoCache(const TqUFileInfoCache&) = delete;
  TqUFileInfoCache& operator=(const TqUFileInfoCache&) = delete;

  bool Lookup(const wchar_t* name, TqUFileInfo* info);
  void Add(const wchar_t* name, const TqUFileInfo& info);
  std::size_t Size() const;

 private:
  using Entry = std::pair<std::wstring, TqUFileInfo>;
  mutable std::mutex m_mutex;
  std::size_t m_capacity;
  std::list<Entry> m_lru;  // most recently used first
  std::unordered_map<std::wstring, std::list<Entry>::iterator> m_index;
};

// Receives the progress of a long operation.
class TQUTIL_API TqUProgress {
 public:
  virtual ~TqUProgress();
  // `fraction` runs from 0.0 to 1.0. Returning false asks the operation to stop, where it can.
  virtual bool SetProgress(double fraction) = 0;
};

// A file protocol: how the host's file layer reaches files of some scheme. The base class
// gives the behaviour of a protocol that supports nothing; protocols override what they do.
class TQUTIL_API TqUFileProtocol {
 public:
  enum OpenMode : int { OpenRead = 0, OpenWrite = 1 };

  TqUFileProtocol() = default;
  TqUFileProtocol(const TqUFileProtocol&) = delete;
  TqUFileProtocol& operator=(const TqUFileProtocol&) = delete;

  virtual ~TqUFileProtocol();
  virtual bool SupportsDirectOpen();                 // false
  virtual bool SupportsGetPut();                     // false
  virtual bool SupportsOwnCache();                   // false
  virtual bool IsRemote(const wchar_t* path);        // IsRemote()
  virtual bool IsRemote();                           // false
  virtual bool GetFileInfo(const wchar_t* url, TqUFileInfo* info);                  // false
  virtual bool GetFile(const wchar_t* url, const wchar_t* local_path, TqUProgress* progress);
  virtual bool GetFileToCache(const wchar_t* url, TqUProgress* progress,
                              TqUWideStringBuffer* cache_path);                     // false
  virtual bool PutFile(const wchar_t* local_path, const wchar_t* url, TqUProgress* progress);
  virtual TqUFileHandle* OpenFile(const wchar_t* url, OpenMode mode);               // null
  virtual bool ReadFile(TqUFileHandle* file, TqUThreadHandle* thread,
                        TqUFileRequestHandle* request, std::uint64_t offset, std::uint64_t size,
                        unsigned char* buffer);                                     // false
  virtual bool WriteFile(TqUFileHandle* file, std::uint64_t offset, std::uint64_t size,
                         unsigned char* buffer);                                    // false
  virtual bool CloseFile(TqUFileHandle* file);                                      // true
  // Lets a protocol widen a block download; the base leaves both values as they are.
  virtual void ExtendBlockDownload(TqUFileHandle* file, unsigned int block_size,
                                   unsigned int& first_block, unsigned int& block_count);
  virtual bool SupportsReadFileToSize();             // false
  virtual std::int64_t ReadFileToSize(TqUFileHandle* file, TqUThreadHandle* thread,
                                      TqUFileRequestHandle* request, std::uint64_t offset,
                                      std::uint64_t size, unsigned char* buffer,
                                      std::uint64_t* total_size);                   // -1
  virtual TqUThreadHandle* CreateThreadHandle(TqUFileHandle* file);                 // null
  virtual bool ReleaseThreadHandle(TqUThreadHandle* thread);                        // true
  virtual TqUFileRequestHandle* SetupReadFile(TqUFileHandle* file, std::uint64_t offset,
                                              std::uint64_t size);                  // null
  virtual bool ReleaseRequestHandle(TqUFileRequestHandle* request);                 // true
  // ResolveAbsoluteFileOrURL
  virtual bool ResolveAbsolute(const wchar_t* path, const wchar_t* base,
                               const wchar_t* directory, TqUWideStringBuffer* result);
  virtual bool ResolveRelative(const wchar_t* base, const wchar_t* relative,
                               TqUWideStringBuffer* result);                        // false
  virtual void GetDisplayName(const wchar_t* path, TqUWideStringBuffer* result);    // path
  virtual void GetVerboseDisplayName(const wchar_t* path, TqUWideStringBuffer* result);
  virtual void GetPhysicalPath(const wchar_t* path, TqUWideStringBuffer* result);   // path
  virtual void GetMRUPath(const wchar_t* path, TqUWideStringBuffer* result);        // path
  // Lets a protocol rewrite a name before it is opened; the base sets `resolved` to `url` and
  // returns false (nothing was set up).
  virtual bool SetupOpenFile(const wchar_t* url, TqUWideStringBuffer* resolved, OpenMode mode);

  // Makes `path` absolute: a URL or an absolute local path is kept; otherwise it is resolved
  // against `base` (a URL, or a local file whose directory is used) or, without a base, joined
  // to `directory`. False when there is nothing to resolve against or resolution fails.
  static bool ResolveAbsoluteFileOrURL(const wchar_t* path, const wchar_t* base,
                                       const wchar_t* directory, TqUWideStringBuffer* result);
};

// Protocol objects by scheme (compared without case). Reference-counted: Initialise and
// Terminate pair up; the registry exists while the count is above 0. It does not own the
// protocols. Thread-safe.
class TQUTIL_API TqUFileProtocolRegistry {
 public:
  static void Initialise();
  static void Terminate();
  // The registry; null while it does not exist.
  static TqUFileProtocolRegistry* Get();

  // False when `scheme` is registered already (the registration is left as it was) or null.
  bool Register(const wchar_t* scheme, TqUFileProtocol* protocol);
  // Removes the scheme's protocol and returns it; null when none is registered.
  TqUFileProtocol* Unregister(const wchar_t* scheme);
  TqUFileProtocol* Lookup(const wchar_t* scheme) const;

 private:
  TqUFileProtocolRegistry() = default;
  mutable std::mutex m_mutex;
  std::unordered_map<std::wstring, TqUFileProtocol*> m_protocols;  // scheme in lower case
};
