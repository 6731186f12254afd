// A single-use countdown latch over a mutex and a condition variable, for tests. MinGW's
// std::latch (GCC 12) sometimes misses its wake-up under Wine, which hangs a test until its
// time-out; this one behaves alike on every system.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace tq::test {

class Latch {
 public:
  explicit Latch(std::ptrdiff_t count) : m_count(count) {}
  Latch(const Latch&) = delete;
  Latch& operator=(const Latch&) = delete;

  void count_down(std::ptrdiff_t n = 1) {
    std::lock_guard lock(m_mutex);
    m_count -= n;
    if (m_count <= 0) m_done.notify_all();
  }
  bool try_wait() const {
    std::lock_guard lock(m_mutex);
    return m_count <= 0;
  }
  void wait() const {
    std::unique_lock lock(m_mutex);
    m_done.wait(lock, [this] { return m_count <= 0; });
  }
  void arrive_and_wait(std::ptrdiff_t n = 1) {
    std::unique_lock lock(m_mutex);
    m_count -= n;
    if (m_count <= 0) m_done.notify_all();
    m_done.wait(lock, [this] { return m_count <= 0; });
  }

 private:
  mutable std::mutex m_mutex;
  mutable std::condition_variable m_done;
  std::ptrdiff_t m_count;
};

}  // namespace tq::test
