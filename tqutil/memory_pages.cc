#include "tqutil/memory_pages.h"

#include <algorithm>
#include <cstring>
#include <new>

#if defined(_WIN32)
#include <windows.h>
#else
#include <sys/mman.h>
#include <unistd.h>
#endif

#include "tqutil/sys_file_faults.h"

namespace qv {
namespace {

// Cleared in place when a buffer is rezeroed; a multiple of every page size in use.
constexpr std::size_t kClearInPlace = std::size_t{1} << 20;

std::size_t PageSize() {
#if defined(_WIN32)
  SYSTEM_INFO info;
  ::GetSystemInfo(&info);
  return info.dwPageSize;
#else
  static const std::size_t size = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  return size;
#endif
}

enum class Discard {
  kZero,  // the pages went back and read as zero now
  kKept,  // the pages are as they were: still to be cleared in place
  kLost,  // the pages went back but could not be had again: they must not be touched
};

// Gives whole pages back to the system; they read as zero afterwards.
Discard DiscardPages(std::uint8_t* pages, std::size_t size) {
#if defined(_WIN32)
  if (!::VirtualFree(pages, size, MEM_DECOMMIT)) return Discard::kKept;
  // Committing again needs commit charge, which another party may have taken meanwhile.
  if (TqUSysFileFaults::Fails("commit") ||
      ::VirtualAlloc(pages, size, MEM_COMMIT, PAGE_READWRITE) == nullptr) {
    return Discard::kLost;
  }
  return Discard::kZero;
#else
  // Private anonymous pages come back zero-filled after MADV_DONTNEED.
  if (TqUSysFileFaults::Fails("discard") || ::madvise(pages, size, MADV_DONTNEED) != 0) {
    return Discard::kKept;
  }
  return Discard::kZero;
#endif
}

}  // namespace

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

bool RezeroMemory(const ZeroedMemory& memory, std::size_t used) noexcept {
  const std::size_t size = memory.get_deleter().size;
  used = std::min(used, size);
  const std::size_t in_place = std::min(used, kClearInPlace);
  std::memset(memory.get(), 0, in_place);
  if (used == in_place) return true;
  // The rest starts on a page boundary (the buffer does, and kClearInPlace is whole pages) and
  // is rounded up to whole pages, which the mapping holds even past `size`.
  const std::size_t page = PageSize();
  const std::size_t rest = (used - in_place + page - 1) / page * page;
  switch (DiscardPages(memory.get() + in_place, rest)) {
    case Discard::kZero:
      return true;
    case Discard::kKept:
      std::memset(memory.get() + in_place, 0, used - in_place);
      return true;
    case Discard::kLost:
      break;
  }
  return false;
}

}  // namespace qv
