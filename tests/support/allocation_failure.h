// Allocations that fail on demand: the program's operator new, replaced so that the n-th
// allocation of the calling thread from now on throws std::bad_alloc, as when memory runs out.
// Per thread, so that servers and other threads of a test allocate as they please. Defines the
// replaceable operators: include it in one source file of a test program only.
#pragma once

#include <cstdlib>
#include <new>

namespace tq::test {

namespace allocation_failure_detail {
// The allocation of the calling thread, counted from 0, that fails next; -1: none.
inline thread_local long t_failing = -1;
inline thread_local bool t_failed = false;

inline void* Allocate(std::size_t size) {
  if (t_failing >= 0 && t_failing-- == 0) {
    t_failed = true;
    throw std::bad_alloc();
  }
  if (void* p = std::malloc(size != 0 ? size : 1)) return p;
  throw std::bad_alloc();
}
}  // namespace allocation_failure_detail

// While it lives, the n-th allocation of this thread fails (once); Failed() tells whether it
// came to that, until the next one is made.
class FailingAllocation {
 public:
  explicit FailingAllocation(long n) {
    allocation_failure_detail::t_failed = false;
    allocation_failure_detail::t_failing = n;
  }
  ~FailingAllocation() { allocation_failure_detail::t_failing = -1; }
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;

  static bool Failed() { return allocation_failure_detail::t_failed; }
};

}  // namespace tq::test

void* operator new(std::size_t size) { return tq::test::allocation_failure_detail::Allocate(size); }
void* operator new[](std::size_t size) {
  return tq::test::allocation_failure_detail::Allocate(size);
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
