// Nothing lost or torn: threads and processes opening, storing and trimming the same entries.
#include "net/cache/disk_cache.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <future>
#include <string>
#include <vector>

#include "tests/cache/cache_churn.h"
#include "tests/cache/cache_test_support.h"
#include "tests/support/fake_transport_fixture.h"
#include "tests/support/servers/temp_dir.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using qv::net::CacheEntry;
using qv::net::DiskCache;
using tq::test::ChurnResult;
using tq::test::kChurnUrl;

// A helper program built next to this test.
fs::path Helper() { return fs::read_symlink("/proc/self/exe").parent_path() / "cache_worker"; }

// The helper in a child process, its standard output through a pipe; killed if still running.
class Child {
 public:
  explicit Child(const std::vector<std::string>& args) {
    int fds[2];
    if (::pipe(fds) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    const std::string program = Helper().string();
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    if (posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::close(fds[1]);
    m_out = fds[0];
  }
  ~Child() {
    if (pid > 0) ::kill(pid, SIGKILL);
    Wait();
    if (m_out >= 0) ::close(m_out);
  }

  // One line of its output, without the line feed; "" at its end.
  std::string ReadLine() {
    std::string line;
    char c;
    while (::read(m_out, &c, 1) == 1 && c != '\n') line += c;
    return line;
  }
  int Wait() {
    int status = 0;
    if (pid > 0) {
      while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
      }
      pid = -1;
    }
    return status;
  }

  pid_t pid = -1;

 private:
  int m_out = -1;
};

std::vector<fs::path> TemporaryFiles(const fs::path& directory) {
  std::vector<fs::path> found;
  for (const auto& item : fs::directory_iterator(directory)) {
    if (item.path().extension() == ".tmp") found.push_back(item.path());
  }
  return found;
}

class CacheConcurrencyTest : public tq::test::FakeTransportTest {
 protected:
  void SetUp() override {
    FakeTransportTest::SetUp();
    m_api.SetResponder(tq::test::ChurnResponder(7));
    TqUOption::SetInt32("general.localcache.max_size", 0);
  }
  void TearDown() override {
    TqUOption::Unset("general.localcache.max_size");
    FakeTransportTest::TearDown();
  }

  tq::test::TempDir m_dir;
  DiskCache m_cache{qv::Utf8ToWide(m_dir.path().string()).c_str()};
};

TEST_F(CacheConcurrencyTest, TwoProcessesAndThreadsOnOneDirectoryNeverSeeATornBody) {
  const std::string directory = m_dir.path().string();
  Child first({"churn", directory, "150"});
  Child second({"churn", directory, "150"});
  ASSERT_TRUE(first.pid > 0 && second.pid > 0) << "no helper at " << Helper();
  // Four threads of this process churn beside them, each trimming now and then.
  std::vector<std::future<ChurnResult>> runs;
  for (int t = 0; t < 4; ++t) {
    runs.push_back(std::async(std::launch::async,
                              [this, t] { return tq::test::RunChurn(m_cache, 150, 10 + t); }));
  }
  int served = 0;
  for (auto& run : runs) {
    const ChurnResult r = run.get();
    EXPECT_EQ(r.torn, 0) << r.example;
    served += r.served;
  }
  EXPECT_GT(served, 0);
  for (Child* child : {&first, &second}) {
    const std::string summary = child->ReadLine();
    const int status = child->Wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    EXPECT_THAT(summary, ::testing::StartsWith("served "));
  }
  EXPECT_THAT(TemporaryFiles(m_cache.Directory()), ::testing::IsEmpty());
}

TEST_F(CacheConcurrencyTest, AProcessKilledInTheMiddleOfAStoreLeavesTheOldEntryReadable) {
  const fs::path entry_path = DiskCache::ComputeCacheLocation(kChurnUrl, m_cache.Directory());
  {
    CacheEntry old(entry_path, DiskCache::UrlToCache(kChurnUrl));
    old.UpdateETag(std::string("\"old\""));
    tq::test::BytesSource body(std::string(5000, 'O'));
    ASSERT_TRUE(old.Store(body, {}));
  }
  const std::string old_bytes = tq::test::ReadFileBytes(entry_path);

  Child child({"kill-mid-store", m_dir.path().string()});
  ASSERT_GT(child.pid, 0) << "no helper at " << Helper();
  ASSERT_EQ(child.ReadLine(), "storing");
  ::kill(child.pid, SIGKILL);
  const int status = child.Wait();
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);

  // The half-written body is in the temporary file, never under the entry's name.
  EXPECT_EQ(TemporaryFiles(m_cache.Directory()).size(), 1u);
  EXPECT_EQ(tq::test::ReadFileBytes(entry_path), old_bytes);
  CacheEntry loaded = CacheEntry::Load(entry_path);
  EXPECT_EQ(loaded.ETag(), "\"old\"");
  auto body = loaded.OpenReadStream();
  ASSERT_NE(body, nullptr);
  EXPECT_EQ(tq::test::ReadAll(*body), std::string(5000, 'O'));
  body.reset();

  // The dead writer's lock went with it: the next store takes the temporary file over.
  auto fresh = m_cache.OpenUrl(kChurnUrl, 0, {});
  ASSERT_NE(fresh, nullptr);
  EXPECT_TRUE(tq::test::IsWhole(tq::test::ReadAll(*fresh)));
  EXPECT_THAT(TemporaryFiles(m_cache.Directory()), ::testing::IsEmpty());
}

}  // namespace
