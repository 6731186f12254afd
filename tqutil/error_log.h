// The host's error log.
//
// Two ways to write: TqUError::Post writes one formatted message; the piecewise functions append
// to the calling thread's current line, which is written as one record when a piece ends with
// "\n" (so lines of different threads never interleave). A host may install its own sink; the
// default sink writes each record to standard error.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "tqutil/export.h"

class TqUComponent;

/// One line of the error log, as a sink receives it.
struct TqULogRecord {
  int severity = 0;          ///< Post's severity; 0 for lines built from pieces
  std::string component;     ///< UTF-8 name of the posting component; "" for pieces
  std::string text;          ///< UTF-8; lines from pieces keep their final "\n"
};

/// Where the error log's lines go (by default, standard error).
using TqULogSink = std::function<void(const TqULogRecord&)>;

/// The host's error log: whole messages (Post) or one line built from pieces (Log...),
/// which ends when a piece ends in a line feed.
class TQUTIL_API TqUError {
 public:
  /// printf-style wide format with the convention of TqUWideStringBuffer::Format ("%s" is a wide
  /// string). `component` may be null.
  static void Post(int severity, const TqUComponent* component, const wchar_t* format, ...);

  /// Pieces of the calling thread's current line (a null text appends nothing).
  static void LogWideString(const wchar_t* text);
  /// A signed decimal piece.
  static void LogInt32(std::int32_t value);
  /// An unsigned decimal piece.
  static void LogNat64(std::uint64_t value);

  /// Installs a sink (an empty function restores the default) and returns the one it replaces.
  /// Records are delivered under a lock, one at a time.
  static TqULogSink SetSink(TqULogSink sink);
};

/// The system half of the error log: narrow (UTF-8) pieces of the current line.
class TQUTIL_API TqUSysError {
 public:
  /// A UTF-8 piece (a null text appends nothing).
  static void LogUTF8String(const char* text);
};
