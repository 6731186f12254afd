// The disk cache against files planted in its directory by another local user and against a
// server that answers spellings of one path differently or sends tags with line breaks: a
// planted link or FIFO is a miss (served from the network, its target untouched, no hang), and
// nothing from a cached entry or another spelling reaches a request or an entry.
#include "net/cache/disk_cache.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#ifndef _WIN32
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#include <chrono>
#include <filesystem>
#include <future>
#include <limits>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "net/cache/cache_init.h"
#include "net/http/connection_pool.h"
#include "net/http/http_api.h"
#include "net/http/wininet_api.h"
#include "net/stream/open_file_or_url.h"
#include "tests/cache/cache_test_support.h"
#include "tests/support/servers/raw_responder.h"
#include "tests/support/servers/temp_dir.h"
#include "tests/support/wine.h"

namespace tq::test {
namespace {

namespace fs = std::filesystem;

constexpr std::int64_t kServerTime = 1'700'000'000;  // the Date below
constexpr const char* kDate = "Tue, 14 Nov 2023 22:13:20 GMT";

// A loopback server answering GET by path from a table (anything else: 404), fresh for ten
// minutes with a tag of its own, keeping connections alive and recording every request head.
class PathServer {
 public:
  explicit PathServer(std::map<std::string, std::string> bodies) : m_bodies(std::move(bodies)) {}

  std::wstring Url(const std::string& path) const {
    return qv::Utf8ToWide(m_responder.Url(path));
  }
  std::vector<std::string> Heads() const {
    std::lock_guard lock(m_mutex);
    return m_heads;
  }
  bool ok() const { return m_responder.ok(); }

 private:
  void Serve(RawConnection& connection) {
    for (std::string head; !(head = connection.ReadRequestHead()).empty();) {
      {
        std::lock_guard lock(m_mutex);
        m_heads.push_back(head);
      }
      const std::size_t start = head.find(' ') + 1;
      const std::string path = head.substr(start, head.find(' ', start) - start);
      const auto it = m_bodies.find(path);
      if (it == m_bodies.end()) {
        connection.Send("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
        continue;
      }
      connection.Send(std::string("HTTP/1.1 200 OK\r\nDate: ") + kDate +
                      "\r\nCache-Control: max-age=600\r\nETag: \"" + it->second +
                      "\"\r\nContent-Length: " + std::to_string(it->second.size()) + "\r\n\r\n" +
                      it->second);
    }
  }

  const std::map<std::string, std::string> m_bodies;
  mutable std::mutex m_mutex;
  std::vector<std::string> m_heads;
  RawResponder m_responder{[this](RawConnection& connection) { Serve(connection); }};
};

class HostileCache : public ::testing::Test {
 protected:
  HostileCache() {
    m_previous_api = qv::net::SetHttpApi(new qv::net::WinInet());
    qv::net::InitialiseCache(qv::Utf8ToWide(m_dir.path().string()).c_str());
  }
  ~HostileCache() override {
    qv::net::TerminateCache();
    qv::net::HttpConnectionPool::Terminate();
    delete qv::net::SetHttpApi(m_previous_api);
  }

  fs::path Directory() const { return m_dir.path() / "v1"; }
  fs::path EntryPath(const std::wstring& url) const {
    return qv::net::DiskCache::ComputeCacheLocation(url, Directory());
  }
  static std::string Open(const std::wstring& url) {
    auto stream = qv::net::OpenFileOrUrl(url, 0, {});
    return stream ? ReadAll(*stream) : "<null>";
  }

  TempDir m_dir;
  TempDir m_outside;  // where planted links point: never written by the cache
  ScopedClock m_clock{kServerTime + 1};
  PathServer m_server{{{"/data", "from the server"}, {"/b", "the answer for /b"},
                       {"/x/../b", "the answer for /x/../b"}}};

 private:
  qv::net::IHttpApi* m_previous_api = nullptr;
};

TEST_F(HostileCache, LinksPlantedAtAnEntryOrItsTemporaryFileAreMissesAndTheirTargetsStayUntouched) {
  ASSERT_TRUE(m_server.ok());
  const std::wstring url = m_server.Url("/data");
  const std::string key = qv::net::DiskCache::UrlToCache(url);
  // At the entry's name: a link to a fresh-looking entry outside, which must not be served.
  const std::string planted = EntryBytes(1, std::numeric_limits<std::int64_t>::max(), "", key,
                                         "planted outside");
  const fs::path outside_entry = m_outside.WriteFile("entry", planted);
  // At its temporary name: a link to a file of the user's, which a store must not write.
  const fs::path victim = m_outside.WriteFile("victim", "precious");
  struct Case {
    const char* name;
    fs::path link;
    fs::path target;
    std::string target_bytes;
  } const cases[] = {
      {"link at the entry", EntryPath(url), outside_entry, planted},
      {"link at the temporary file", fs::path(EntryPath(url)) += ".tmp", victim, "precious"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    for (const auto& item : fs::directory_iterator(Directory())) fs::remove(item.path());
    if (!PlantLink(c.target, c.link)) {
      // Wine 8 makes no reparse points; Windows makes them for a privileged or developer-mode
      // user only. The cache's refusal of them cannot be seen without one.
      GTEST_SKIP() << "no symbolic link can be planted here" << (IsWine() ? " (Wine)" : "");
    }
    const std::size_t requests = m_server.Heads().size();
    EXPECT_EQ(Open(url), "from the server");
    EXPECT_EQ(m_server.Heads().size(), requests + 1);
    EXPECT_EQ(ReadFileBytes(c.target), c.target_bytes);
    // The store put an entry of its own in the link's place.
    EXPECT_FALSE(IsLink(EntryPath(url)));
    // The transport may leave its terminator at the end of the tag.
    EXPECT_THAT(qv::net::CacheEntry::Load(EntryPath(url)).ETag(),
                ::testing::StartsWith("\"from the server\""));
    EXPECT_EQ(Open(url), "from the server") << "served fresh from the new entry";
    EXPECT_EQ(m_server.Heads().size(), requests + 1);
  }
}

#ifndef _WIN32
// FIFOs are POSIX's: Windows has no named pipe in a directory of files.
// A FIFO at the entry's name made the open wait for a writer forever. Each open runs on a
// thread whose wait is bounded, so that the old behaviour fails instead of hanging; the FIFO's
// write end, opened and closed, then lets the thread finish.
TEST_F(HostileCache, AFifoPlantedAtAnEntryOrItsTemporaryFileNeverHangsAnOpen) {
  ASSERT_TRUE(m_server.ok());
  const std::wstring url = m_server.Url("/data");
  for (const fs::path& fifo : {EntryPath(url), fs::path(EntryPath(url)) += ".tmp"}) {
    SCOPED_TRACE(fifo.filename().string());
    for (const auto& item : fs::directory_iterator(Directory())) fs::remove(item.path());
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    auto opened = std::async(std::launch::async, [&] { return Open(url); });
    const bool returned = opened.wait_for(std::chrono::seconds(2)) == std::future_status::ready;
    if (!returned) {
      const int writer = ::open(fifo.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
      if (writer >= 0) ::close(writer);
    }
    EXPECT_TRUE(returned) << "the open waited on the FIFO";
    EXPECT_EQ(opened.get(), "from the server");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(EntryPath(url))));
  }
}

#endif  // _WIN32

// A tag with a bare CR, stored in the entry, would end "If-None-Match" early and put what
// follows it on a line of its own.
TEST_F(HostileCache, AnEntryWhoseTagHoldsACarriageReturnIsFetchedWithoutIfNoneMatch) {
  ASSERT_TRUE(m_server.ok());
  const std::wstring url = m_server.Url("/data");
  WriteFileBytes(EntryPath(url), EntryBytes(1, 0, "\"old\"\rX-Injected: yes",
                                            qv::net::DiskCache::UrlToCache(url), "stale"));
  EXPECT_EQ(Open(url), "from the server");
  const std::vector<std::string> heads = m_server.Heads();
  ASSERT_EQ(heads.size(), 1u);
  EXPECT_THAT(heads[0], ::testing::Not(::testing::HasSubstr("If-None-Match")));
  EXPECT_THAT(heads[0], ::testing::Not(::testing::HasSubstr("X-Injected")));
  // The transport may leave its terminator at the end of the tag.
  EXPECT_THAT(qv::net::CacheEntry::Load(EntryPath(url)).ETag(),
              ::testing::StartsWith("\"from the server\""));
}

// A server that answers a dotted spelling of a path differently must not decide what the plain
// spelling serves: both share one key, so the request carries that key's URL.
TEST_F(HostileCache, ADottedSpellingOfAPathNeverStoresItsAnswerUnderThePlainPathsKey) {
  ASSERT_TRUE(m_server.ok());
  EXPECT_EQ(Open(m_server.Url("/x/../b")), "the answer for /b");
  EXPECT_EQ(Open(m_server.Url("/b")), "the answer for /b");
  for (const std::string& head : m_server.Heads()) {
    EXPECT_THAT(head, ::testing::StartsWith("GET /b HTTP/1.1\r\n"));
  }
}

}  // namespace
}  // namespace tq::test
