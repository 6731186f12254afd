#include <filesystem>
#include <string>
#include <system_error>

#include <gtest/gtest.h>

#include "tests/support/servers/temp_dir.h"
#include "tests/tqutil/test_files.h"
#include "tqutil/sys_file.h"

namespace {

using F = TqUSysFile;
using tq::test::ReadFileBytes;
using tq::test::WriteFileBytes;

F::Handle Create(const std::filesystem::path& path) {
  return F::OpenFile(path, F::kAccessWrite, F::kShareNone, F::kCreateAlways, 0, 0);
}

// A writer renames and removes the file it holds without letting go of it first: once let go,
// another writer could make the temporary name anew and have its half-written file renamed
// into place. The hold lasts across the rename (no other writer takes the new name until it is
// closed), and a read-only file at the target is replaced as a writable one would be.
TEST(SysFileHeldTest, AWriterRenamesAndRemovesTheFileItHoldsWhileHoldingIt) {
  tq::test::TempDir dir;
  const auto temporary = dir / "entry.tmp";
  const auto entry = dir / "entry";
  for (const bool read_only : {false, true}) {
    SCOPED_TRACE(read_only ? "over a read-only file" : "over a writable file");
    WriteFileBytes(entry, "old");
    if (read_only) {
      std::filesystem::permissions(entry, std::filesystem::perms::owner_read);
    }
    const F::Handle held = Create(temporary);
    ASSERT_NE(held, F::kInvalid);
    std::uint64_t written = 0;
    ASSERT_TRUE(F::WriteFile(held, "body", 4, &written));
    std::error_code ec;
    EXPECT_TRUE(F::RenameHeldFile(held, temporary, entry, ec)) << ec.message();
    EXPECT_FALSE(std::filesystem::exists(temporary));
    const F::Handle other = Create(entry);
    EXPECT_EQ(other, F::kInvalid) << "the renamed file is still held";
    F::CloseFile(other);
    EXPECT_TRUE(F::CloseFile(held));
    EXPECT_EQ(ReadFileBytes(entry), "body");
  }

  const F::Handle held = Create(temporary);
  ASSERT_NE(held, F::kInvalid);
  std::error_code ec;
  EXPECT_TRUE(F::RemoveHeldFile(held, temporary, ec)) << ec.message();
  EXPECT_FALSE(ec) << ec.message();
  EXPECT_TRUE(F::CloseFile(held));
  EXPECT_FALSE(std::filesystem::exists(temporary));
}

}  // namespace
