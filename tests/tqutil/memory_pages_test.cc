#include "tqutil/memory_pages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

TEST(ZeroedMemoryTest, BuffersAreZeroWritableAndRezeroedWhereUsed) {
  for (std::size_t size : {std::size_t{1}, std::size_t{4096}, std::size_t{8388608}}) {
    qv::ZeroedMemory memory = qv::AllocateZeroed(size);
    ASSERT_NE(memory.get(), nullptr);
    EXPECT_EQ(memory[0], 0);
    EXPECT_EQ(memory[size - 1], 0);
    memory[size - 1] = 0xAB;  // writable to its last byte
    EXPECT_EQ(memory[size - 1], 0xAB);
  }

  constexpr std::size_t kSize = 8388608;
  qv::ZeroedMemory memory = qv::AllocateZeroed(kSize);
  auto all_zero = [&] {
    return std::all_of(memory.get(), memory.get() + kSize, [](std::uint8_t b) { return b == 0; });
  };
  // Within the part cleared in place, just past it, not on a page boundary, and all of it.
  for (std::size_t used : {std::size_t{1}, std::size_t{1048577}, std::size_t{3000001}, kSize}) {
    std::memset(memory.get(), 0x5A, used);
    qv::RezeroMemory(memory, used);
    EXPECT_TRUE(all_zero()) << used;
  }
  memory[0] = 1;
  qv::RezeroMemory(memory, 0);
  EXPECT_EQ(memory[0], 1) << "nothing used, nothing cleared";

  std::vector<std::uint8_t> bytes(300000);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i % 253);
  const std::vector<std::uint8_t> before = bytes;
  qv::PrepareForWrite(bytes.data() + 1001, 250000);
  EXPECT_EQ(bytes, before);
}
