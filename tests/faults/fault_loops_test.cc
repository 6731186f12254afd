// Fault loops: for N = 0, 1, 2, ... the Nth file operation of a cache store, or the Nth transport
// call of a read stream, fails; every N must end in a result the caller can tell apart, with
// nothing torn, left behind or leaked, until N passes the last operation and the call succeeds.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#if defined(_WIN32)
#include <windows.h>
#endif

#include "net/cache/disk_cache.h"
#include "tests/cache/cache_test_support.h"
#include "tests/support/fake_transport_fixture.h"
#include "tests/support/servers/temp_dir.h"
#include "tqutil/sys_file_faults.h"

namespace tq::test {
namespace {

namespace fs = std::filesystem;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

#if defined(_WIN32)
constexpr int kFileFault = ERROR_ACCESS_DENIED;
#else
constexpr int kFileFault = EIO;
#endif

// Open descriptors of the process (Linux); -1 where it cannot be counted.
int OpenDescriptors() {
#if defined(__linux__)
  int count = 0;
  for ([[maybe_unused]] const auto& item : fs::directory_iterator("/proc/self/fd")) ++count;
  return count;
#else
  return -1;
#endif
}

// The body of an entry file whose header is whole and names `key` and `tag`; none when the
// file is not exactly such an entry (a torn or half-written file).
std::optional<std::string> EntryBody(const std::string& bytes, const std::string& tag,
                                     const std::string& key) {
  const std::string empty = EntryBytes(0, 0, tag, key, "");
  if (bytes.size() < empty.size()) return std::nullopt;
  std::string header = bytes.substr(0, empty.size());
  header.replace(4, 16, std::string(16, '\0'));  // the last-used and expiry times
  if (header != empty) return std::nullopt;
  return bytes.substr(empty.size());
}

using CacheStoreFaultLoop = FakeTransportTest;

const std::string kCopyFailed =
    "Failed to read or write stream in CopyStream: FileWriteStream: cannot write the file\n";

TEST_F(CacheStoreFaultLoop, AStoreThatFailsAtEveryFileOperationServesOrReturnsNullAndTearsNothing) {
  const wchar_t* const url = L"http://example.test/entry";
  const std::string key = "http://example.test/entry";
  const std::string old_body = "the old body";
  const std::string new_body(100000, 'n');
  TempDir dir;
  ScopedClock clock(1000);
  qv::net::DiskCache cache(dir.path().wstring().c_str());
  const fs::path entry = qv::net::DiskCache::ComputeCacheLocation(url, cache.Directory());
  fs::path temporary = entry;
  temporary += ".tmp";

  bool stored = false;
  for (std::uint64_t n = 0; !stored; ++n) {
    ASSERT_LT(n, 200u) << "the store never got through";
    // A stale entry of another tag, so that the open loads it, asks anew and replaces it.
    WriteFileBytes(entry, EntryBytes(1, 999, "\"old\"", key, old_body));
    FakeResponse answer;
    answer.dates[L"Date"] = 1000;
    answer.Header(L"cache-control", L"max-age=60").Header(L"ETag", L"\"new\"");
    answer.Header(L"Content-Length", std::to_wstring(new_body.size()));
    for (std::size_t at = 0; at < new_body.size(); at += 30000) answer.Body(new_body.substr(at, 30000));
    m_api.Queue(answer);
    m_log.Clear();
    const int descriptors = OpenDescriptors();

    TqUSysFileFaults::Arm(n, kFileFault);
    std::string served = "<null>";
    if (auto stream = cache.OpenUrl(url, 0, {})) {
      try {
        served = ReadAll(*stream, 65536);
      } catch (const std::runtime_error& e) {
        served = std::string("<thrown> ") + e.what();
      }
    }
    const char* failed = TqUSysFileFaults::Failed();
    const std::uint64_t operations = TqUSysFileFaults::Disarm();
    stored = operations <= n;
    SCOPED_TRACE("failing operation " + std::to_string(n) + ": " + (failed ? failed : "none"));

    // The new body whole; or null, silent but for a copy into the entry that failed; or a body
    // stream whose read fails with the file stream's error. Never a partial body.
    if (served == "<null>") {
      EXPECT_THAT(m_log.Lines(), AnyOf(IsEmpty(), ElementsAre(kCopyFailed)));
    } else {
      EXPECT_THAT(served, AnyOf(new_body, "<thrown> FileReadStream: cannot read the file"));
      EXPECT_THAT(m_log.Lines(), IsEmpty());
    }
    // The entry's name holds the old entry whole, the new one whole, or nothing.
    if (fs::exists(entry)) {
      const std::string bytes = ReadFileBytes(entry);
      const bool old_whole = EntryBody(bytes, "\"old\"", key) == old_body;
      const bool new_whole = EntryBody(bytes, "\"new\"", key) == new_body;
      EXPECT_TRUE(old_whole || new_whole) << "torn entry of " << bytes.size() << " bytes";
    }
    EXPECT_FALSE(fs::exists(temporary)) << "temporary file left behind";
    EXPECT_EQ(OpenDescriptors(), descriptors) << "descriptor leaked";
    if (stored) {
      EXPECT_EQ(served, new_body);
      EXPECT_EQ(EntryBody(ReadFileBytes(entry), "\"new\"", key), new_body);
    }
    // Whatever the failure left, the next open without one serves the body from the server
    // or from a whole entry.
    if (!stored && !(fs::exists(entry) && EntryBody(ReadFileBytes(entry), "\"new\"", key))) {
      m_api.Queue(answer);
    }
    auto again = cache.OpenUrl(url, 0, {});
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(ReadAll(*again), new_body);
    fs::remove(entry);
  }
}

}  // namespace
}  // namespace tq::test
