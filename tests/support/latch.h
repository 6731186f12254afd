// A single-use countdown latch for tests. MinGW's std::latch (GCC 12) sometimes misses its
// wake-up under Wine, which hangs a test until its time-out; this one behaves alike everywhere.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace tq::test {

class Latch {
 public:
  explicit Latch(std::ptrdiff_t count) : m_count(count) {}
  Latch(const Latch&) = delete;

  void count_down(std::ptrdiff_t n = 1) {
    std::lock_guard lock(m_mutex);
    if ((m_count -= n) <= 0) m_done.notify_all();
  }
  void wait() const {
    std::unique_lock lock(m_mutex);
    m_done.wait(lock, [this] { return m_count <= 0; });
  }
  void arrive_and_wait(std::ptrdiff_t n = 1) {
    count_down(n);
    wait();
  }

 private:
  mutable std::mutex m_mutex;
  mutable std::condition_variable m_done;
  std::ptrdiff_t m_count;
};

}  // namespace tq::test
