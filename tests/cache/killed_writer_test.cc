// Writers of the cache killed half-way, as kill -9 or a crash ends them: no destructor runs.
#include <gtest/gtest.h>

#if !defined(_WIN32)
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <filesystem>

#include "net/cache/disk_cache.h"
#include "tests/support/servers/temp_dir.h"

namespace tq::test {
namespace {

#if !defined(_WIN32)
TEST(KilledWriterTest, ANamedBodyCutShortByAKilledWriterIsNeverServed) {
  TempDir dir;
  qv::net::DiskCache cache(dir.path().wstring().c_str());
  const pid_t child = ::fork();
  if (child == 0) {
    auto stream = cache.OpenWriteStream(L"thumb");
    if (stream) stream->Write("first half", 10);
    ::raise(SIGKILL);  // with the stream still open
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status));
  ASSERT_TRUE(std::filesystem::exists(
      qv::net::DiskCache::ComputeCacheLocation(L"qvcache://thumb", cache.Directory())));
  EXPECT_EQ(cache.OpenReadStream(L"thumb"), nullptr);
}
#endif

}  // namespace
}  // namespace tq::test
