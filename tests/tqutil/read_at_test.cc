// TqUSysFile::ReadFileAt: reads at the offset it is given, wherever the file's position stands.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/servers/temp_dir.h"
#include "tqutil/sys_file.h"

namespace {

TEST(ReadFileAtTest, ReadsAtItsOffsetOnlyWithinTheFileAndOnlyThroughALiveHandle) {
  tq::test::TempDir dir;
  const std::filesystem::path path = dir.path() / "file";
  const std::string content = "0123456789abcdefghij";
  std::ofstream(path, std::ios::binary) << content;
  TqUSysFile::Handle file = TqUSysFile::OpenFile(path, TqUSysFile::kAccessRead,
                                                 TqUSysFile::kShareRead,
                                                 TqUSysFile::kOpenExisting, 0, 0);
  ASSERT_NE(file, TqUSysFile::kInvalid);
  char first[4] = {};
  std::uint64_t got = 99;
  ASSERT_TRUE(TqUSysFile::ReadFile(file, first, sizeof first, &got));
  ASSERT_EQ(std::string(first, got), "0123");

  struct Case {
    std::uint64_t offset;
    std::uint64_t size;
    std::string expected;
  } cases[] = {
      {0, 5, "01234"}, {10, 4, "abcd"}, {15, 100, "fghij"}, {20, 8, ""}, {1000, 8, ""}, {7, 0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.offset);
    std::string buffer(c.size, '\0');
    got = 99;
    ASSERT_TRUE(TqUSysFile::ReadFileAt(file, buffer.data(), c.size, c.offset, &got));
    EXPECT_EQ(buffer.substr(0, got), c.expected);
  }
#if !defined(_WIN32)
  // The sequential reads go on where they stopped (Windows moves the position).
  ASSERT_TRUE(TqUSysFile::ReadFile(file, first, sizeof first, &got));
  EXPECT_EQ(std::string(first, got), "4567");
#endif

  char byte = 0;
  EXPECT_FALSE(TqUSysFile::ReadFileAt(file, &byte, 1, std::uint64_t{1} << 63, &got));
  EXPECT_EQ(got, 0u);
  EXPECT_TRUE(TqUSysFile::CloseFile(file));
  EXPECT_FALSE(TqUSysFile::ReadFileAt(file, &byte, 1, 0, &got)) << "a closed handle was used";
  EXPECT_FALSE(TqUSysFile::ReadFileAt(TqUSysFile::kInvalid, &byte, 1, 0, &got));
}

}  // namespace
