#include "tqutil/zeroed_memory.h"

#include <new>

#if defined(_WIN32)
#include <windows.h>
#else
#include <sys/mman.h>
#endif

namespace qv {

void ZeroedMemoryDeleter::operator()(std::uint8_t* memory) const noexcept {
  if (memory == nullptr) return;
#if defined(_WIN32)
  ::VirtualFree(memory, 0, MEM_RELEASE);
#else
  ::munmap(memory, size);
#endif
}

ZeroedMemory AllocateZeroed(std::size_t size) {
  if (size == 0) size = 1;
#if defined(_WIN32)
  void* memory = ::VirtualAlloc(nullptr, size, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
  if (memory == nullptr) throw std::bad_alloc();
#else
  void* memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc();
#endif
  return ZeroedMemory(static_cast<std::uint8_t*>(memory), ZeroedMemoryDeleter{size});
}

}  // namespace qv
