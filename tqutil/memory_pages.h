// Memory pages straight from the operating system, for large buffers whose pages are zero when
// first touched: a buffer that is mostly left unused costs neither a memset nor page faults for
// the untouched part — unlike the heap, which hands back reused memory that calloc must clear in
// full.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "tqutil/export.h"

namespace qv {

/// Frees memory from AllocateZeroed; it must know the size it frees.
struct TQUTIL_API ZeroedMemoryDeleter {
  /// The allocation's size in bytes.
  std::size_t size = 0;
  /// Gives the pages back to the system.
  void operator()(std::uint8_t* memory) const noexcept;
};

/// Page-aligned memory that comes zeroed from the system.
using ZeroedMemory = std::unique_ptr<std::uint8_t[], ZeroedMemoryDeleter>;

/// `size` zero bytes, starting on a page boundary; throws std::bad_alloc when the system has no
/// room.
TQUTIL_API ZeroedMemory AllocateZeroed(std::size_t size);

/// Makes the first `used` bytes of `memory` (from AllocateZeroed) zero again, so that the buffer
/// can be handed out as new. The first MiB is cleared in place (cheaper than faulting it in
/// again); pages beyond it go back to the system, which zeroes them when they are next touched,
/// so a kept buffer holds at most one MiB of memory while it is unused (unless the system
/// refuses to take them back: they are then cleared in place and stay). False when the system
/// took those pages but could not give them back (Windows, out of commit charge): the buffer
/// must then only be freed, never used again.
[[nodiscard]] TQUTIL_API bool RezeroMemory(const ZeroedMemory& memory, std::size_t used) noexcept;

}  // namespace qv
