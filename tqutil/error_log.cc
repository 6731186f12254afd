#include "tqutil/error_log.h"

#include <cstdarg>
#include <cstdio>
#include <cwchar>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "tqutil/component.h"
#include "tqutil/per_thread.h"
#include "tqutil/strings.h"

#if defined(_WIN32)
#include <windows.h>
#endif

namespace {

// Writers log on their failure paths, after the call that failed and before their caller asks
// GetLastError why: the log's own calls (thread-local slots, the sink, standard error) must not
// replace that answer. Elsewhere the last error is the platform layer's own, which logging never
// touches.
#if defined(_WIN32)
class KeepLastError {
 public:
  KeepLastError() : m_error(::GetLastError()) {}
  ~KeepLastError() { ::SetLastError(m_error); }
  KeepLastError(const KeepLastError&) = delete;
  KeepLastError& operator=(const KeepLastError&) = delete;

 private:
  DWORD m_error;
};
#else
struct KeepLastError {};
#endif

void WriteToStderr(const TqULogRecord& record) {
  std::string line;
  if (record.severity != 0 || !record.component.empty()) {
    line = "[" + std::to_string(record.severity) + "]";
    if (!record.component.empty()) line += " " + record.component + ":";
    line += " ";
  }
  line += record.text;
  if (line.empty() || line.back() != '\n') line += '\n';
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
}

// Recursive, so that a sink which itself logs does not deadlock its own thread.
struct SinkState {
  std::recursive_mutex mutex;
  TqULogSink sink;
};

SinkState& State() {
  // Never destroyed: threads may still log while the process exits.
  static SinkState* const state = new SinkState();
  return *state;
}

// The calling thread's innermost recorder. A plain pointer: nothing to destroy at thread exit.
thread_local TqULogRecorder* t_recorder = nullptr;

}  // namespace

struct TqULogRecorderAccess {
  static void Keep(const TqULogRecord& record) {
    if (t_recorder != nullptr) t_recorder->m_records.push_back(record);
  }
};

namespace {

// Throws nothing: writers log on their failure paths and at a thread's end, where an exception
// would replace the failure they report or end the process. A line the host's sink refuses
// (by throwing) goes to standard error instead, so it is not lost.
void Deliver(const TqULogRecord& record) noexcept {
  [[maybe_unused]] const KeepLastError keep;
  try {
    TqULogRecorderAccess::Keep(record);
  } catch (...) {
    // Out of memory: the recorder misses the line; the sink still gets it.
  }
  SinkState& state = State();
  std::lock_guard lock(state.mutex);
  try {
    if (state.sink) {
      // A copy runs: the sink may install another (SetSink) from inside its own call.
      const TqULogSink sink = state.sink;
      sink(record);
      return;
    }
  } catch (...) {
  }
  try {
    WriteToStderr(record);
  } catch (...) {
    // Out of memory: nowhere left to write the line.
  }
}

// The calling thread's unfinished line. A thread that ends with half a line still has it
// written, so nothing logged is lost. A line one of whose pieces could not be kept (out of
// memory) is broken: it is dropped whole at its end rather than written with a gap.
struct CurrentLine {
  std::string text;
  bool broken = false;
  ~CurrentLine() {
    if (!text.empty() && !broken) Deliver(TqULogRecord{0, "", std::move(text)});
  }
};

void AppendPiece(std::string_view piece) {
  if (piece.empty()) return;
  CurrentLine& line = qv::PerThread<CurrentLine>();
  if (!line.broken) line.text.append(piece);
  if (piece.back() != '\n') return;
  const bool broken = std::exchange(line.broken, false);
  TqULogRecord record{0, "", std::move(line.text)};
  line.text.clear();
  if (!broken) Deliver(record);
}

// Adds a piece made by `make` to the calling thread's line. Throws nothing, as Deliver: a piece
// that cannot be made or kept breaks its line, which ends with the piece when `ends_line`.
template <class Make>
void AddPiece(bool ends_line, const Make& make) noexcept {
  [[maybe_unused]] const KeepLastError keep;
  try {
    AppendPiece(make());
    return;
  } catch (...) {
  }
  try {
    CurrentLine& line = qv::PerThread<CurrentLine>();
    line.broken = !ends_line;
    if (ends_line) line.text.clear();
  } catch (...) {
    // No line to be had at all: nothing of it was kept either.
  }
}

}  // namespace

void TqUError::Post(int severity, const TqUComponent* component, const wchar_t* format, ...) {
  [[maybe_unused]] const KeepLastError keep;
  std::va_list args;
  va_start(args, format);
  // A line that cannot be made (out of memory) is not posted; the poster's own failure, which
  // it is reporting, goes on.
  try {
    TqUWideStringBuffer buffer;
    const bool formatted = buffer.FormatV(format, args);
    std::wstring text(buffer.View());
    if (!formatted && format) {
      // A format that cannot be formatted (an unknown conversion, say) still leaves a trace of
      // what was meant.
      text = std::wstring(L"(bad log format) ") + format;
    }
    Deliver(TqULogRecord{severity, component ? qv::WideToUtf8(component->GetName()) : "",
                         qv::WideToUtf8(text)});
  } catch (...) {
  }
  va_end(args);
}

void TqUError::LogWideString(const wchar_t* text) {
  if (!text || !*text) return;
  const bool ends_line = text[std::wcslen(text) - 1] == L'\n';
  AddPiece(ends_line, [text] { return qv::WideToUtf8(text); });
}

void TqUError::LogInt32(std::int32_t value) {
  AddPiece(false, [value] { return std::to_string(value); });
}

void TqUError::LogNat64(std::uint64_t value) {
  AddPiece(false, [value] { return std::to_string(value); });
}

TqULogSink TqUError::SetSink(TqULogSink sink) {
  SinkState& state = State();
  std::lock_guard lock(state.mutex);
  TqULogSink previous = std::move(state.sink);
  state.sink = std::move(sink);
  return previous;
}

void TqUError::Write(const TqULogRecord& record) { Deliver(record); }

TqULogRecorder::TqULogRecorder() : m_outer(t_recorder) { t_recorder = this; }

TqULogRecorder::~TqULogRecorder() { t_recorder = m_outer; }

void TqUSysError::LogUTF8String(const char* text) {
  if (!text || !*text) return;
  const std::string_view piece(text);
  AddPiece(piece.back() == '\n', [piece] { return piece; });
}
