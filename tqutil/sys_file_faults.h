// A seam for tests of code that works with files: counts the file operations of TqUSysFile and
// TqUSysDirectory (and RezeroMemory's return of pages) that one thread makes, and makes the Nth
// of them fail as the system would (errno on POSIX, the last error on Windows). Not part of the
// library's interface (not exported, not installed): tests reach it through the library's
// objects. While no thread has armed it, an operation pays one relaxed atomic load.
#pragma once

#include <cstdint>

struct TqUSysFileFaults {
  // From now on, on the calling thread only, counts file operations from 0 and fails the one
  // numbered `fail_at` with `error` (an errno value on POSIX, a Windows error code on Windows).
  static void Arm(std::uint64_t fail_at, int error);
  // Ends it on the calling thread; returns how many operations the thread made while armed.
  static std::uint64_t Disarm();
  // The kind of the operation that failed ("open", "write", ...); null while none has.
  static const char* Failed();

  // From now on, on every thread, every read of a file returns at most `most` bytes, as a
  // network or user-space file system may answer a read in the middle of a file; 0 ends it.
  static void LimitReads(std::uint64_t most);

  // For the library: `size` cut to the read limit, if any.
  static std::uint64_t ReadSize(std::uint64_t size);
  // For the library: whether the operation `kind` fails here; when it does, errno (POSIX) or
  // the last error (Windows) is set and the caller fails as if the system call had.
  static bool Fails(const char* kind);
};
