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
#include <vector>

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

  /// Writes a record as it stands (one that a recorder kept, written again for another caller).
  static void Write(const TqULogRecord& record);
};

/// Keeps a copy of every record the calling thread writes while it lives; the records still go
/// to the sink as usual. Recorders on one thread nest: the innermost one keeps the records.
class TQUTIL_API TqULogRecorder {
 public:
  /// Starts keeping the calling thread's records (the thread's outer recorder pauses).
  TqULogRecorder();
  /// Stops; the outer recorder, if any, keeps the records from then on.
  ~TqULogRecorder();
  /// Not copyable: it belongs to its thread's stack.
  TqULogRecorder(const TqULogRecorder&) = delete;
  /// Not copyable: it belongs to its thread's stack.
  TqULogRecorder& operator=(const TqULogRecorder&) = delete;

  /// The records kept so far, in the order written.
  const std::vector<TqULogRecord>& Records() const { return m_records; }
  /// The records kept so far, handed over; none are kept after.
  std::vector<TqULogRecord> TakeRecords() { return std::move(m_records); }

 private:
  friend struct TqULogRecorderAccess;
  TqULogRecorder* m_outer;
  std::vector<TqULogRecord> m_records;
};

/// The system half of the error log: narrow (UTF-8) pieces of the current line.
class TQUTIL_API TqUSysError {
 public:
  /// A UTF-8 piece (a null text appends nothing).
  static void LogUTF8String(const char* text);
};
