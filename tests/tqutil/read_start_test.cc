// TqUSysDirectory::ReadStart: the first bytes of a file by name, with the rules of every open.
#if !defined(_WIN32)
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/servers/temp_dir.h"
#include "tqutil/sys_file.h"

namespace {

using F = TqUSysFile;
using Path = std::filesystem::path;

void WriteText(const Path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

// ReadStart of `name` into a buffer of `size`: the bytes read, or "<refused>".
std::string Start(const TqUSysDirectory& dir, const Path& name, std::size_t size) {
  std::string buffer(size, '\0');
  const std::int64_t got = dir.ReadStart(name.c_str(), buffer.data(), size);
  if (got < 0) return "<refused>";
  EXPECT_LE(static_cast<std::size_t>(got), size);
  buffer.resize(static_cast<std::size_t>(got));
  return buffer;
}

TEST(ReadStartTest, ReadsTheFirstBytesOfRegularFilesOnlyAndNeverWhileAWriterHoldsThem) {
  tq::test::TempDir dir;
  const TqUSysDirectory directory(dir.path());
  ASSERT_FALSE(directory.Error());
  WriteText(dir / "file", "0123456789");
  WriteText(dir / "empty", "");
  std::filesystem::create_directory(dir / "sub");

  struct Case {
    const char* name;
    std::size_t size;
    std::string expected;
  } const cases[] = {
      {"file", 4, "0123"},
      {"file", 10, "0123456789"},
      {"file", 64, "0123456789"},  // short at the end of the file
      {"empty", 16, ""},
      {"missing", 16, "<refused>"},
      {"sub", 16, "<refused>"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.name) + ", " + std::to_string(c.size));
    EXPECT_EQ(Start(directory, c.name, c.size), c.expected);
  }

  // Sharing as a reader that shares: other readers do not keep it out, a writer does.
  {
    const F::Handle reader =
        F::OpenFile(dir / "file", F::kAccessRead, F::kShareRead, F::kOpenExisting, 0, 0);
    ASSERT_NE(reader, F::kInvalid);
    EXPECT_EQ(Start(directory, "file", 4), "0123");
    F::CloseFile(reader);
  }
  {
    const F::Handle writer =
        F::OpenFile(dir / "file", F::kAccessWrite, F::kShareNone, F::kOpenExistingWrite, 0, 0);
    ASSERT_NE(writer, F::kInvalid);
    EXPECT_EQ(Start(directory, "file", 4), "<refused>");
    F::CloseFile(writer);
  }
  // Nothing of the read stays open: the writer gets the file at once afterwards.
  const F::Handle writer =
      F::OpenFile(dir / "file", F::kAccessWrite, F::kShareNone, F::kOpenExistingWrite, 0, 0);
  EXPECT_NE(writer, F::kInvalid);
  F::CloseFile(writer);

  // A directory that did not open refuses.
  const TqUSysDirectory absent(dir / "absent");
  EXPECT_EQ(Start(absent, "file", 4), "<refused>");
}

#if !defined(_WIN32)  // links need rights on Windows; a Windows directory holds no FIFO
TEST(ReadStartTest, ALinkIsNotFollowedAndAFifoOrDeviceIsRefusedWithoutWaiting) {
  tq::test::TempDir outside;
  WriteText(outside / "target", "secret");
  tq::test::TempDir dir;
  const TqUSysDirectory directory(dir.path());
  std::filesystem::create_symlink(outside / "target", dir / "link");
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  // A hard link to a device is what a planted device looks like; a symbolic one is refused as
  // a link, so the device is reached by a directory of its own instead.
  const TqUSysDirectory dev("/dev");

  EXPECT_EQ(Start(directory, "link", 16), "<refused>");
  EXPECT_EQ(Start(dev, "zero", 16), "<refused>");
  EXPECT_EQ(Start(dev, "null", 16), "<refused>");
  auto attempt = std::async(std::launch::async, [&] { return Start(directory, "fifo", 16); });
  const bool returned = attempt.wait_for(std::chrono::seconds(2)) == std::future_status::ready;
  if (!returned) {  // hung: a writer end lets it return, so the test can end
    const int unblock = ::open((dir / "fifo").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    attempt.wait();
    if (unblock >= 0) ::close(unblock);
  }
  EXPECT_TRUE(returned);
  EXPECT_EQ(attempt.get(), "<refused>");
}
#endif

}  // namespace
