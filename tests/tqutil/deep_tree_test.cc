#include "tqutil/sys_file.h"

#include <gtest/gtest.h>

#if defined(_WIN32)
#include <windows.h>
#else
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <system_error>

#include "tests/support/servers/temp_dir.h"

namespace {

namespace fs = std::filesystem;

// A removal run on a thread whose stack is far smaller than the tree is deep.
struct Removal {
  fs::path path;
  std::error_code ec;
  std::uintmax_t removed = 0;
};

#if defined(_WIN32)
// Windows gives the thread the 64 KiB asked for, which a call per level overran long before 400
// levels. (Wine gives every thread 1 MiB or more, which only about 1,500 levels overran, and
// making that chain under Wine takes minutes: each level's path is longer than the last.)
constexpr std::size_t kSmallStack = 64 * 1024;
constexpr std::size_t kDepth = 400;

std::size_t MakeChain(const fs::path& directory, std::size_t depth) {
  std::wstring path = L"\\\\?\\" + fs::absolute(directory).wstring();
  for (std::size_t i = 0; i < depth; ++i) {
    path += L"\\d";
    if (!::CreateDirectoryW(path.c_str(), nullptr)) return 0;
  }
  const HANDLE file = ::CreateFileW((path + L"\\f").c_str(), GENERIC_WRITE, 0, nullptr,
                                    CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return 0;
  ::CloseHandle(file);
  return depth;
}

void RemoveOnSmallStack(Removal& run) {
  const HANDLE thread = ::CreateThread(
      nullptr, kSmallStack,
      [](void* arg) -> DWORD {
        auto* r = static_cast<Removal*>(arg);
        r->removed = TqUSysDirectory::RemoveTree(r->path, r->ec);
        return 0;
      },
      &run, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
  ASSERT_NE(thread, nullptr);
  ::WaitForSingleObject(thread, INFINITE);
  ::CloseHandle(thread);
}
#else
constexpr std::size_t kSmallStack = 128 * 1024;
constexpr std::size_t kDepth = 3000;

std::size_t MakeChain(const fs::path& directory, std::size_t depth) {
  int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY);
  for (std::size_t i = 0; i < depth && fd >= 0; ++i) {
    const int inner = ::mkdirat(fd, "d", 0700) == 0 ? ::openat(fd, "d", O_RDONLY | O_DIRECTORY) : -1;
    ::close(fd);
    fd = inner;
  }
  if (fd < 0) return 0;
  const int file = ::openat(fd, "f", O_WRONLY | O_CREAT, 0600);
  ::close(fd);
  if (file < 0) return 0;
  ::close(file);
  return depth;
}

void RemoveOnSmallStack(Removal& run) {
  // And with few descriptors to spare: a removal holding one a level would run out of them (and
  // leave the host's other threads none) long before the bottom of the chain.
  rlimit files = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
  const rlimit saved = files;
  int highest = 0;
  for (int fd = 0; fd < 65536; ++fd) {
    if (::fcntl(fd, F_GETFD) >= 0) highest = fd;
  }
  files.rlim_cur = std::min<rlim_t>(files.rlim_max, highest + 1 + 100);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &files), 0);
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, std::max<std::size_t>(PTHREAD_STACK_MIN, kSmallStack));
  pthread_t thread;
  const int made = pthread_create(
      &thread, &attributes,
      [](void* arg) -> void* {
        auto* r = static_cast<Removal*>(arg);
        r->removed = TqUSysDirectory::RemoveTree(r->path, r->ec);
        return nullptr;
      },
      &run);
  pthread_attr_destroy(&attributes);
  if (made == 0) pthread_join(thread, nullptr);
  setrlimit(RLIMIT_NOFILE, &saved);
  ASSERT_EQ(made, 0);
}
#endif

// Regression: a tree removal went one call deeper for every level of the tree, so a chain of
// directories planted in a shared cache directory crashed the host's Clear() once it was deeper
// than the calling thread's stack could hold (a few thousand levels). The removal's stack no
// longer grows with the tree's depth, on either system, nor (POSIX) the descriptors it holds.
TEST(SysDirectoryTest, ADeepChainOfDirectoriesIsRemovedOnASmallStack) {
  tq::test::TempDir temp;
  const std::size_t depth = MakeChain(temp.path(), kDepth);
  ASSERT_GT(depth, 0u);
  Removal run;
  run.path = temp.path() / "d";
  RemoveOnSmallStack(run);
  EXPECT_FALSE(run.ec) << run.ec.message();
  EXPECT_EQ(run.removed, depth + 1);  // every directory and the file at the bottom
  EXPECT_FALSE(fs::exists(run.path));
}

}  // namespace
