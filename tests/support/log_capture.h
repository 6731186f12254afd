// Captures the error log for the life of a test scope, so tests assert exact log lines.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "tqutil/error_log.h"

namespace tq::test {

// Installs a capturing sink for the records of every thread; the destructor puts back the sink
// that was there before. One capture at a time.
class LogCapture {
 public:
  LogCapture()
      : m_previous(TqUError::SetSink([this](const TqULogRecord& record) {
          std::lock_guard lock(m_mutex);
          m_records.push_back(record);
        })) {}
  ~LogCapture() { TqUError::SetSink(std::move(m_previous)); }
  LogCapture(const LogCapture&) = delete;

  std::vector<TqULogRecord> Records() const {
    std::lock_guard lock(m_mutex);
    return m_records;
  }
  std::vector<std::string> Lines() const {  // the texts of the records, in order
    std::vector<std::string> lines;
    for (const auto& r : Records()) lines.push_back(r.text);
    return lines;
  }
  std::string Text() const {  // every text, concatenated
    std::string text;
    for (const auto& r : Records()) text += r.text;
    return text;
  }
  void Clear() {
    std::lock_guard lock(m_mutex);
    m_records.clear();
  }

 private:
  mutable std::mutex m_mutex;
  std::vector<TqULogRecord> m_records;
  TqULogSink m_previous;
};

}  // namespace tq::test
