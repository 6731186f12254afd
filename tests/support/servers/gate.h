// A gate that server threads wait at until the test opens it: lets a test hold answers back
// without sleeping, and know how many are held.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace tq::test {

class Gate {
 public:
  Gate() = default;
  // Opens the gate and waits until every thread waiting at it has left, so a test may let a
  // gate go out of scope while server threads still wait at it.
  ~Gate() {
    std::unique_lock lock(mutex_);
    open_ = true;
    cv_.notify_all();
    cv_.wait(lock, [&] { return waiters_ == 0; });
  }
  Gate(const Gate&) = delete;
  Gate& operator=(const Gate&) = delete;

  // Threads wait at most this long, so that a failing test cannot hang its servers for ever.
  static constexpr std::chrono::seconds kMaxHold{30};

  void Open() {
    std::lock_guard lock(mutex_);
    open_ = true;
    cv_.notify_all();
  }
  bool is_open() const {
    std::lock_guard lock(mutex_);
    return open_;
  }

  // Blocks until the gate is open (true) or `bound` has passed (false).
  bool Wait(std::chrono::milliseconds bound = kMaxHold) {
    std::unique_lock lock(mutex_);
    ++waiters_;
    cv_.notify_all();
    const bool opened = cv_.wait_for(lock, bound, [&] { return open_; });
    --waiters_;
    cv_.notify_all();
    return opened;
  }
  // Blocks until at least `count` threads are waiting at the gate, or `bound` has passed.
  bool WaitForWaiters(int count, std::chrono::milliseconds bound = kMaxHold) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, bound, [&] { return waiters_ >= count; });
  }
  int waiters() const {
    std::lock_guard lock(mutex_);
    return waiters_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  bool open_ = false;
  int waiters_ = 0;
};

}  // namespace tq::test
