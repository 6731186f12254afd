// Files with Windows-style sharing, on every system.
//
// The sharing rules the disk cache relies on hold across threads and processes: readers that
// allow sharing coexist, an open for writing is exclusive, and an open that the sharing refuses
// fails at once (it never waits). On POSIX this is done with open-file-description locks, taken
// before a file is emptied, so a refused writer never truncates another writer's file.
#pragma once

#include <cstdint>
#include <filesystem>

#include "tqutil/export.h"

class TQUTIL_API TqUSysFile {
 public:
  // An open file; null (kInvalid) for none.
  using Handle = struct TqUSysFileHandleTag*;
  static constexpr Handle kInvalid = nullptr;

  // access
  static constexpr std::uint32_t kAccessRead = 0;
  static constexpr std::uint32_t kAccessWrite = 1;  // read and write
  // share
  static constexpr std::uint32_t kShareNone = 0;
  static constexpr std::uint32_t kShareRead = 1;
  // creation
  static constexpr std::uint32_t kCreateAlways = 1;        // create, or empty an existing file
  static constexpr std::uint32_t kOpenExistingWrite = 2;   // existing file, contents kept
  static constexpr std::uint32_t kOpenExisting = 3;        // existing file
  static constexpr std::uint32_t kOpenAlways = 4;          // create when missing, contents kept

  // Opens `path`. `reserved1` and `reserved2` must be 0. Null when the file cannot be opened or
  // the sharing refuses it.
  static Handle OpenFile(const std::filesystem::path& path, std::uint32_t access,
                         std::uint32_t share, std::uint32_t creation, std::uint32_t reserved1,
                         std::uint32_t reserved2);
  // Reads up to `size` bytes; false on error. `*read` is 0 at the end of the file.
  static bool ReadFile(Handle file, void* buffer, std::uint64_t size, std::uint64_t* read);
  // Writes all `size` bytes; false on error (a full disk included).
  static bool WriteFile(Handle file, const void* buffer, std::uint64_t size,
                        std::uint64_t* written);
  // origin: 0 start, 1 current, 2 end. Returns the new position, or -1 on error.
  static std::int64_t SeekFile(Handle file, std::int64_t offset, int origin);
  static std::int64_t GetFileSize(Handle file);  // -1 on error
  static bool CloseFile(Handle file);
};
