// The clean-up reads each file's header from its first bytes: headers of every length count.
#include <filesystem>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "net/cache/disk_cache.h"
#include "tests/cache/cache_test_support.h"
#include "tests/support/servers/temp_dir.h"
#include "tqutil/option.h"

namespace {

namespace fs = std::filesystem;
using Names = std::set<std::string>;
using tq::test::EntryBytes;
using tq::test::TempDir;
using tq::test::WriteFileBytes;

constexpr std::int64_t kNow = 1'700'000'000;

class CleanUpHeaderTest : public ::testing::Test {
 protected:
  ~CleanUpHeaderTest() override { TqUOption::Unset("general.localcache.max_size"); }

  // An entry file of exactly `size` bytes whose key is `key_length` characters long.
  void Entry(const std::string& name, std::int64_t last_used, std::size_t key_length,
             std::size_t size) {
    std::string key = "http://example.test/" + name + "/";
    key.append(key_length - key.size(), 'k');
    const std::string header = EntryBytes(last_used, kNow + 3600, "\"tag\"", key, "");
    WriteFileBytes(m_cache.Directory() / name, header + std::string(size - header.size(), 'b'));
  }
  Names Remaining() const {
    Names names;
    for (const auto& item : fs::directory_iterator(m_cache.Directory())) {
      names.insert(item.path().filename().string());
    }
    return names;
  }

  TempDir m_dir;
  tq::test::ScopedClock m_clock{kNow};
  qv::net::DiskCache m_cache{m_dir.path().wstring().c_str()};
};

TEST_F(CleanUpHeaderTest, LongHeadersAreEntriesAndAHeaderLongerThanItsFileIsNot) {
  TqUOption::SetInt32("general.localcache.max_size", 1);
  // 1,100,000 bytes in entries against a limit of 1 MiB: the oldest entry's 300,000 bytes
  // bring the directory below the 80 % target, whatever the length of the headers.
  struct Case {
    const char* name;
    std::size_t key_length;  // the header holds 30 bytes more
  } const cases[] = {{"short keys", 40}, {"keys across the first read", 490},
                     {"long keys", 3000}, {"keys of the largest header", 65000}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    for (const std::string& name : Remaining()) fs::remove(m_cache.Directory() / name);
    Entry("a_oldest", kNow - 7200, c.key_length, 300000);
    Entry("b_newer", kNow - 60, c.key_length, 300000);
    Entry("c_newest", kNow - 10, 40, 500000);
    // Claims a key longer than the file holds: no entry, deleted.
    std::string cut = EntryBytes(kNow - 5, kNow + 3600, "", std::string(2000, 'k'), "");
    cut.resize(1500);
    WriteFileBytes(m_cache.Directory() / "d_cut", cut);
    EXPECT_TRUE(m_cache.CleanUp());
    EXPECT_EQ(Remaining(), (Names{"b_newer", "c_newest"}));
  }
}

}  // namespace
