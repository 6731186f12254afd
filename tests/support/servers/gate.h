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
  ~Gate();
  Gate(const Gate&) = delete;
  Gate& operator=(const Gate&) = delete;

  // Threads wait at most this long, so that a failing test cannot hang its servers for ever.
  static constexpr std::chrono::seconds kMaxHold{30};

  void Open();
  bool is_open() const;

  // Blocks until the gate is open (true) or `bound` has passed (false).
  bool Wait(std::chrono::milliseconds bound = kMaxHold);
  // Blocks until at least `count` threads are waiting at the gate, or `bound` has passed.
  bool WaitForWaiters(int count, std::chrono::milliseconds bound = kMaxHold);
  int waiters() const;

 private:
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  bool open_ = false;
  int waiters_ = 0;
};

}  // namespace tq::test
