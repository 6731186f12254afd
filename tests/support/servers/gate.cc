#include "tests/support/servers/gate.h"

namespace tq::test {

Gate::~Gate() {
  std::unique_lock lock(mutex_);
  open_ = true;
  cv_.notify_all();
  cv_.wait(lock, [&] { return waiters_ == 0; });
}

void Gate::Open() {
  {
    std::lock_guard lock(mutex_);
    open_ = true;
  }
  cv_.notify_all();
}

bool Gate::is_open() const {
  std::lock_guard lock(mutex_);
  return open_;
}

bool Gate::Wait(std::chrono::milliseconds bound) {
  std::unique_lock lock(mutex_);
  ++waiters_;
  cv_.notify_all();
  const bool opened = cv_.wait_for(lock, bound, [&] { return open_; });
  --waiters_;
  cv_.notify_all();
  return opened;
}

bool Gate::WaitForWaiters(int count, std::chrono::milliseconds bound) {
  std::unique_lock lock(mutex_);
  return cv_.wait_for(lock, bound, [&] { return waiters_ >= count; });
}

int Gate::waiters() const {
  std::lock_guard lock(mutex_);
  return waiters_;
}

}  // namespace tq::test
