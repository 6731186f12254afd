// End to end: URLs opened through OpenFileOrUrl with the disk cache installed, over the real
// transport, against nginx.
#include "net/cache/disk_cache.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "net/cache/cache_init.h"
#include "net/http/connection_pool.h"
#include "net/http/wininet_api.h"
#include "net/stream/open_file_or_url.h"
#include "tests/cache/cache_test_support.h"
#include "tests/support/log_capture.h"
#include "tests/support/servers/nginx_harness.h"
#include "tests/support/servers/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using qv::net::CacheEntry;
using qv::net::DiskCache;
using tq::test::ReadAll;

// The real transport, counting requests and keeping each one's headers and the last status.
class RecordingApi : public qv::net::WinInet {
 public:
  void* SendRequest(void* connection, const qv::net::HttpRequest& request,
                    const wchar_t** accept_types, bool& sent) override {
    headers.push_back(request.FormatHeaders());
    return WinInet::SendRequest(connection, request, accept_types, sent);
  }
  std::uint32_t QueryStatusCode(void* request) override {
    return last_status = WinInet::QueryStatusCode(request);
  }
  std::vector<std::wstring> headers;
  std::uint32_t last_status = 0;
};

class CacheNginxTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!tq::test::NginxHarness::Installed()) GTEST_SKIP() << "nginx is not installed";
    m_nginx = std::make_unique<tq::test::NginxHarness>();
    ASSERT_TRUE(m_nginx->ok()) << m_nginx->error();
    m_previous = qv::net::SetHttpApi(&m_api);
    qv::net::InitialiseCache(qv::Utf8ToWide(m_dir.path().string()).c_str());
    ASSERT_NE(dynamic_cast<DiskCache*>(qv::net::CacheSystem()), nullptr);
  }
  void TearDown() override {
    qv::net::TerminateCache();
    qv::net::HttpConnectionPool::Terminate();
    qv::net::SetHttpApi(m_previous);
  }

  std::string Open(const std::wstring& url) {
    auto stream = qv::net::OpenFileOrUrl(url, 0, {});
    return stream ? ReadAll(*stream, 65536) : "<null>";
  }

  static std::int64_t RealNow() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
  }

  RecordingApi m_api;
  qv::net::IHttpApi* m_previous = nullptr;
  tq::test::TempDir m_dir;
  std::unique_ptr<tq::test::NginxHarness> m_nginx;
  tq::test::LogCapture m_log;
};

TEST_F(CacheNginxTest, StoredServedFreshWithoutRequestRevalidatedWith304AndReplacedWhenChanged) {
  const std::string v1(300000, '1');
  m_nginx->WriteFile("doc.bin", v1);
  const std::wstring url = qv::Utf8ToWide(m_nginx->Url("/doc.bin"));
  tq::test::ScopedClock clock(RealNow());

  EXPECT_EQ(Open(url), v1);
  const fs::path entry_path =
      DiskCache::ComputeCacheLocation(url, static_cast<DiskCache*>(qv::net::CacheSystem())->Directory());
  const CacheEntry stored = CacheEntry::Load(entry_path);
  EXPECT_FALSE(stored.ETag().empty());
  EXPECT_EQ(stored.Expiry(), clock.Now() + 2592000);  // no cache-control: fresh for 30 days

  EXPECT_EQ(Open(url), v1);  // fresh: no request at all
  ASSERT_EQ(m_api.headers.size(), 1u);

  clock.Advance(31 * 86400);  // stale: revalidated with the stored tag, 304 keeps the body
  EXPECT_EQ(Open(url), v1);
  ASSERT_EQ(m_api.headers.size(), 2u);
  EXPECT_THAT(m_api.headers[1], ::testing::StartsWith(L"If-None-Match: \""));
  EXPECT_EQ(m_api.last_status, 304u);
  EXPECT_EQ(CacheEntry::Load(entry_path).Expiry(), clock.Now() + 2592000);

  // Changed on the server: the new body is stored and served, then served fresh.
  const std::string v2(123457, '2');
  m_nginx->WriteFile("doc.bin", v2);
  clock.Advance(31 * 86400);
  EXPECT_EQ(Open(url), v2);
  EXPECT_EQ(m_api.last_status, 200u);
  EXPECT_NE(CacheEntry::Load(entry_path).ETag(), stored.ETag());
  EXPECT_EQ(Open(url), v2);
  EXPECT_EQ(m_api.headers.size(), 3u);
  EXPECT_FALSE(fs::exists(fs::path(entry_path) += ".tmp"));
  EXPECT_EQ(m_log.Text(), "");
}

}  // namespace
