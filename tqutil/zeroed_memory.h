// Large zero-filled buffers straight from the operating system. Its pages are zero when they
// are first touched, so a buffer that is mostly left unused costs neither a memset nor page
// faults for the untouched part — unlike the heap, which hands back reused memory that calloc
// must clear in full.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "tqutil/export.h"

namespace qv {

struct TQUTIL_API ZeroedMemoryDeleter {
  std::size_t size = 0;
  void operator()(std::uint8_t* memory) const noexcept;
};

using ZeroedMemory = std::unique_ptr<std::uint8_t[], ZeroedMemoryDeleter>;

// `size` zero bytes; throws std::bad_alloc when the system has no room.
TQUTIL_API ZeroedMemory AllocateZeroed(std::size_t size);

}  // namespace qv
