#include "tqutil/sys_file.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <future>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include "tests/tqutil/temp_dir.h"

namespace {

using F = TqUSysFile;
using Path = std::filesystem::path;

struct Open {  // closed at the end of the scope
  F::Handle h;
  Open(const Path& p, std::uint32_t access, std::uint32_t share, std::uint32_t creation)
      : h(F::OpenFile(p, access, share, creation, 0, 0)) {}
  ~Open() { F::CloseFile(h); }
  Open(const Open&) = delete;
  explicit operator bool() const { return h != nullptr; }
};
Open Reader(const Path& p) { return {p, F::kAccessRead, F::kShareRead, F::kOpenExisting}; }
Open Creator(const Path& p) { return {p, F::kAccessWrite, F::kShareNone, F::kCreateAlways}; }
Open Rewriter(const Path& p) { return {p, F::kAccessWrite, F::kShareNone, F::kOpenExistingWrite}; }

void WriteText(const Path& p, const std::string& s) { std::ofstream(p, std::ios::binary) << s; }
std::string ReadText(const Path& p) {
  std::ifstream in(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// A child process that holds a file open until destroyed. Pipes, not sleeps, order the two.
struct Holder {
  Holder(const Path& path, std::uint32_t access, std::uint32_t share, std::uint32_t creation,
         const std::string& write = "") {
    int ready[2], release[2];
    if (::pipe(ready) != 0 || ::pipe(release) != 0) return;
    if ((pid = ::fork()) == 0) {
      F::Handle h = F::OpenFile(path, access, share, creation, 0, 0);
      std::uint64_t n = 0;
      char ok = h && (write.empty() || F::WriteFile(h, write.data(), write.size(), &n));
      ::close(release[1]);
      if (::write(ready[1], &ok, 1) == 1) {
        while (::read(release[0], &ok, 1) < 0) {
        }
      }
      ::_exit(0);
    }
    ::close(ready[1]);
    ::close(release[0]);
    release_fd = release[1];
    char ok = 0;
    opened = ::read(ready[0], &ok, 1) == 1 && ok;
    ::close(ready[0]);
  }
  ~Holder() {
    if (pid > 0 && ::close(release_fd) == 0) ::waitpid(pid, nullptr, 0);
  }
  pid_t pid = -1;
  int release_fd = -1;
  bool opened = false;
};

TEST(SysFileTest, SharingBetweenProcesses) {
  tq::test::TempDir dir;
  const auto path = dir / "entry.tmp";
  {
    Holder writer(path, F::kAccessWrite, F::kShareNone, F::kCreateAlways, "winner's body");
    ASSERT_TRUE(writer.opened);
    EXPECT_FALSE(Reader(path)) << "the writer in the other process excludes readers";
    // Regression: the loser of a race for the same temporary file must not truncate the
    // winner's half-written body.
    EXPECT_FALSE(Creator(path));
    EXPECT_EQ(ReadText(path), "winner's body");
  }
  {
    Holder reader(path, F::kAccessRead, F::kShareRead, F::kOpenExisting);
    ASSERT_TRUE(reader.opened);
    EXPECT_TRUE(Reader(path)) << "readers in two processes coexist";
    EXPECT_FALSE(Rewriter(path)) << "a reader in another process excludes writers";
  }
  Open creator = Creator(path);
  ASSERT_TRUE(creator);
  EXPECT_EQ(F::GetFileSize(creator.h), 0) << "create-always empties the file once it holds it";
}

// The window between a writer's open and its lock, held open on purpose: a read lease makes the
// open wait in the kernel until the holder lets go, and the holder first renames a new file over
// the path (or not, to show that the rename is what makes the open fail).
TEST(SysFileTest, AWriterIsRefusedWhenAFileIsRenamedOverThePathDuringItsOpen) {
  tq::test::TempDir dir;
  const auto path = dir / "entry";
  const int signal = SIGRTMIN + 1;  // stays blocked on this thread: only sigtimedwait takes it
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signal);
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &set, nullptr), 0);
  for (const bool rename : {true, false}) {
    SCOPED_TRACE(rename ? "renamed" : "not renamed");
    WriteText(path, "old");
    WriteText(dir / "new", "new");
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const f_owner_ex self{F_OWNER_TID, static_cast<pid_t>(::syscall(SYS_gettid))};
    if (fd < 0 || ::fcntl(fd, F_SETSIG, signal) != 0 || ::fcntl(fd, F_SETOWN_EX, &self) != 0 ||
        ::fcntl(fd, F_SETLEASE, F_RDLCK) != 0) {
      const std::string why = std::strerror(errno);
      if (fd >= 0) ::close(fd);
      GTEST_SKIP() << "no file leases here: " << why;
    }
    auto writer = std::async(std::launch::async, [&] { return bool(Rewriter(path)); });
    const timespec limit{60, 0};
    const int got = ::sigtimedwait(&set, nullptr, &limit);  // the writer is inside its open
    const bool renamed =
        got == signal && rename && std::rename((dir / "new").c_str(), path.c_str()) == 0;
    ::fcntl(fd, F_SETLEASE, F_UNLCK);
    ::close(fd);
    ASSERT_EQ(got, signal);
    EXPECT_EQ(renamed, rename);
    EXPECT_EQ(writer.get(), !rename);
  }
}

TEST(SysFileTest, BadArgumentsAndHandlesAreRefused) {
  tq::test::TempDir dir;
  const auto path = dir / "f";
  WriteText(path, "x");
  EXPECT_FALSE(Reader(dir.Path())) << "a directory is not a file";
  EXPECT_EQ(F::OpenFile(path, 0, 1, 3, 1, 0), nullptr) << "reserved value";
  char buffer[4];
  std::uint64_t n = 0;
  auto* foreign = reinterpret_cast<F::Handle>(buffer);
  EXPECT_FALSE(F::ReadFile(nullptr, buffer, 4, &n));
  EXPECT_FALSE(F::WriteFile(foreign, buffer, 4, &n));
  F::Handle h = F::OpenFile(path, F::kAccessRead, F::kShareRead, F::kOpenExisting, 0, 0);
  ASSERT_TRUE(h);
  EXPECT_TRUE(F::CloseFile(h));
  EXPECT_FALSE(F::CloseFile(h));
}

TEST(SysFileTest, DirectoryListsOpensAndRemovesByName) {
  tq::test::TempDir dir;
  WriteText(dir / "file", "12345");
  std::filesystem::create_symlink(dir / "file", dir / "link");
  std::filesystem::create_symlink(dir / "missing", dir / "dangling");
  std::filesystem::create_directory(dir / "sub");

  const TqUSysDirectory directory(dir.Path());
  ASSERT_FALSE(directory.Error());
  using Item = std::pair<bool, std::int64_t>;  // regular, size
  std::map<std::string, Item> items;
  EXPECT_FALSE(directory.List([&](const TqUSysDirectory::Item& i) {
    items[std::string(i.name, i.length)] = {i.regular, i.size};
  }));
  EXPECT_EQ(items, (std::map<std::string, Item>{
                       {"file", {true, 5}}, {"link", {true, 5}},  // a link is followed
                       {"dangling", {false, -1}}, {"sub", {false, -1}}}));
  {
    Open writer = Rewriter(dir / "file");
    ASSERT_TRUE(writer);
    EXPECT_EQ(directory.OpenFile("file", F::kAccessRead, F::kShareRead, F::kOpenExisting, 0, 0),
              nullptr)
        << "the sharing rules hold by name too";
  }
  std::error_code ec;
  TqUSysDirectory::SetRemoveFaultForTesting(
      [](const TqUSysDirectory::Char* name) { return std::strcmp(name, "file") == 0; });
  EXPECT_FALSE(directory.RemoveFile("file", ec));
  EXPECT_EQ(ec, std::errc::permission_denied);
  TqUSysDirectory::SetRemoveFaultForTesting({});
  EXPECT_TRUE(directory.RemoveFile("link", ec));  // the link, not what it leads to
  EXPECT_TRUE(std::filesystem::exists(dir / "file"));
  EXPECT_TRUE(directory.RemoveFile("file", ec));

  EXPECT_EQ(TqUSysDirectory(dir / "none").Error(), std::errc::no_such_file_or_directory);
}

}  // namespace
