// A process that runs short of descriptors or threads: every open ends whole or in its
// documented failure, never torn, hung or leaking, and works again once there is room.
#include <gtest/gtest.h>

#if !defined(_WIN32)
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "net/cache/cache_init.h"
#include "net/cache/url_cache.h"
#include "net/http/connection_pool.h"
#include "net/http/stop_watcher.h"
#include "net/http/wininet_api.h"
#include "net/startup/http_init.h"
#include "net/stream/open_file_or_url.h"
#include "net/stream/read_stream.h"
#include "net/stream/stream_copy.h"
#include "net/stream/thread_pool.h"
#include "tests/support/log_capture.h"
#include "tests/support/read_all.h"
#include "tests/support/servers/nginx_harness.h"
#include "tests/support/servers/temp_dir.h"

// Present when the undefined-behaviour sanitizer's runtime is linked in.
extern "C" void __ubsan_handle_dynamic_type_cache_miss() __attribute__((weak));

namespace {

namespace fs = std::filesystem;

int OpenDescriptors() {
  int count = -1;  // the listing's own
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/fd")) ++count;
  return count;
}

// Holds every free descriptor but `spare` for its life. The soft limit is first lowered to a
// little above the highest descriptor open, so that filling the rest is cheap whatever it was.
class DescriptorSqueeze {
 public:
  explicit DescriptorSqueeze(int spare) {
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &m_previous), 0);
    int highest = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
      highest = std::max(highest, std::stoi(entry.path().filename().string()));
    }
    rlimit lowered = m_previous;
    lowered.rlim_cur = std::min<rlim_t>(m_previous.rlim_cur, highest + 64);
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
    for (int fd = dup(0); fd >= 0; fd = dup(0)) m_held.push_back(fd);
    EXPECT_EQ(errno, EMFILE);
    for (; spare > 0 && !m_held.empty(); --spare) {
      close(m_held.back());
      m_held.pop_back();
    }
  }
  ~DescriptorSqueeze() {
    for (const int fd : m_held) close(fd);
    setrlimit(RLIMIT_NOFILE, &m_previous);
  }
  DescriptorSqueeze(const DescriptorSqueeze&) = delete;
  DescriptorSqueeze& operator=(const DescriptorSqueeze&) = delete;

 private:
  rlimit m_previous{};
  std::vector<int> m_held;
};

// No thread can be started while it lives: every new thread asks for more stack than there is
// address space.
class NoNewThreads {
 public:
  NoNewThreads() {
    EXPECT_EQ(pthread_getattr_default_np(&m_previous), 0);
    pthread_attr_t huge;
    pthread_attr_init(&huge);
    EXPECT_EQ(pthread_attr_setstacksize(&huge, std::size_t{1} << 60), 0);
    EXPECT_EQ(pthread_setattr_default_np(&huge), 0);
    pthread_attr_destroy(&huge);
  }
  ~NoNewThreads() {
    pthread_setattr_default_np(&m_previous);
    pthread_attr_destroy(&m_previous);
  }
  NoNewThreads(const NoNewThreads&) = delete;
  NoNewThreads& operator=(const NoNewThreads&) = delete;

 private:
  pthread_attr_t m_previous{};
};

std::string Pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 7 + i / 251) % 256);
  return bytes;
}

std::string FileText(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

class ResourceShortageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!tq::test::NginxHarness::Installed()) GTEST_SKIP() << "nginx is not installed";
    ASSERT_TRUE(m_nginx.ok()) << m_nginx.error();
    m_nginx.WriteFile("body.bin", m_body);
    m_previous_api = qv::net::SetHttpApi(new qv::net::WinInet());
  }
  void TearDown() override {
    qv::net::TerminateCache();
    qv::net::HttpConnectionPool::Terminate();
    delete qv::net::SetHttpApi(m_previous_api);
  }

  // Past one copy chunk: a copy into a file then wants a writer thread.
  const std::string m_body = Pattern(qv::net::kCopyChunkSize + 4099);
  tq::test::NginxHarness m_nginx;
  const std::wstring m_url = qv::Utf8ToWide(m_nginx.Url("/body.bin"));
  tq::test::TempDir m_dir;
  tq::test::LogCapture m_log;
  qv::net::IHttpApi* m_previous_api = nullptr;
};

// Each open is run with 0, 1, 2, ... descriptors to spare, its connection made anew each time
// (the transfer's wake-up pair, the socket), until it succeeds: every failure before is the
// documented one, and leaves no descriptor open and no temporary file in the cache.
TEST_F(ResourceShortageTest, EachDescriptorAnOpenNeedsMissingInTurnFailsCleanly) {
  // Its check of an object's dynamic type tells readable memory by writing it to a pipe: with
  // no descriptor free, every object it checks would be reported as of no type at all.
  if (&__ubsan_handle_dynamic_type_cache_miss != nullptr) {
    GTEST_SKIP() << "the sanitizer's type checks need descriptors of their own";
  }
  const fs::path local = tq::test::WriteFileUnder(m_dir.path(), "local.bin", m_body);
  const fs::path cache = m_dir.path() / "cache";
  // What an open gives: the body whole, or nothing (null, a request that did not succeed, or
  // the empty stream of a send that could not be made) when it failed as documented.
  auto all_of = [](std::unique_ptr<qv::io::IDataSeekableReadStream> stream) {
    return stream == nullptr ? std::string() : tq::test::ReadAll(*stream);
  };
  auto url = [&] { return all_of(qv::net::OpenFileOrUrl(m_url, 0, {})); };
  struct Step {
    const char* name;
    std::function<void()> prepare;
    std::function<std::string()> open;
  };
  const Step steps[] = {
      {"read stream", [] {},
       [&] {
         auto stream = qv::net::HttpReadStream::Open(m_url, 0, {});
         return stream->Succeeded() ? tq::test::ReadAll(*stream) : std::string();
       }},
      {"local file", [] {}, [&] { return all_of(qv::net::OpenFileOrUrl(local.wstring(), 0, {})); }},
      {"into memory", [] {}, url},
      {"cache store",
       [&] {
         if (qv::net::CacheSystem() == nullptr) qv::net::InitialiseCache(cache.wstring().c_str());
         qv::net::CacheSystem()->Clear();
       },
       url},
      {"cache hit", [] {}, url},
  };
  const int before = OpenDescriptors();
  for (const Step& step : steps) {
    SCOPED_TRACE(step.name);
    std::string got;
    int spare = 0;
    for (; spare < 8 && got.empty(); ++spare) {
      qv::net::HttpConnectionPool::Terminate();
      step.prepare();
      {
        DescriptorSqueeze squeeze(spare);
        got = step.open();
      }
      EXPECT_TRUE(got.empty() || got == m_body) << spare << " spare: " << got.size() << " bytes";
      qv::net::HttpConnectionPool::Terminate();
      EXPECT_EQ(OpenDescriptors(), before) << spare << " spare";
      if (fs::exists(cache)) {
        for (const auto& entry : fs::recursive_directory_iterator(cache)) {
          EXPECT_NE(entry.path().extension(), ".tmp") << spare << " spare";
        }
      }
    }
    EXPECT_GT(spare, 1) << "never short of a descriptor";
    EXPECT_TRUE(got == m_body) << "never whole";
  }
  // The entry the store made serves whole.
  EXPECT_TRUE(url() == m_body);
}

// With no thread to be had, start-up refuses and changes nothing; a stream whose stop cannot be
// watched still opens, and a copy into a file makes its writes itself.
TEST_F(ResourceShortageTest, NoThreadToBeHadLeavesStartUpUndoneAndStreamsWorking) {
  qv::net::detail::ShutdownStopWatcher();
  qv::net::IHttpApi* const installed = qv::net::HttpApi();
  qv::net::thread_pool* const pool = qv::net::WorkerThreadPool();
  NoNewThreads none;
  EXPECT_THROW(qv::net::InitialiseHttp(), std::system_error);
  EXPECT_EQ(qv::net::HttpApi(), installed);
  EXPECT_EQ(qv::net::WorkerThreadPool(), pool);

  qv::stop_source stop;
  auto stream = qv::net::HttpReadStream::Open(m_url, 0, stop.get_token());
  ASSERT_TRUE(stream->Succeeded());
  const fs::path copy = m_dir.path() / "copy.bin";
  auto file = std::make_unique<qv::io::FileWriteStream>(TqUSysFile::OpenFile(
      copy, TqUSysFile::kAccessWrite, TqUSysFile::kShareNone, TqUSysFile::kCreateAlways, 0, 0));
  const qv::net::CopyStreamResult copied = qv::net::CopyStream(*stream, *file, stop.get_token());
  file.reset();
  EXPECT_TRUE(copied.completed);
  EXPECT_TRUE(FileText(copy) == m_body);
}

}  // namespace

#endif
