#include "net/cache/disk_cache.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <mutex>
#include <set>
#include <string>

#include "tests/cache/cache_test_support.h"
#include "tests/support/servers/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using tq::test::WriteFileBytes;
using Names = std::set<std::string>;

constexpr std::int64_t kNow = 1'000'000;
constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t kMiB = 1048576;
constexpr auto kTarget = static_cast<std::uint64_t>(0.8 * kMiB);  // a run trims below this

class CacheCleanUpTest : public ::testing::Test {
 protected:
  ~CacheCleanUpTest() override { TqUOption::Unset("general.localcache.max_size"); }

  void Limit(std::int32_t mebibytes) { TqUOption::SetInt32("general.localcache.max_size", mebibytes); }

  // An entry file of exactly `size` bytes.
  void Entry(const std::string& name, std::int64_t last_used, std::int64_t expiry,
             std::size_t size) {
    const std::string header =
        tq::test::EntryBytes(last_used, expiry, "", "http://example.test/" + name, "");
    ASSERT_GE(size, header.size());
    WriteFileBytes(m_cache.Directory() / name, header + std::string(size - header.size(), 'b'));
  }

  Names Remaining() const {
    Names names;
    for (const auto& item : fs::directory_iterator(m_cache.Directory())) {
      names.insert(item.path().filename().string());
    }
    return names;
  }

  std::uint64_t Total() const {
    std::uint64_t total = 0;
    for (const auto& item : fs::directory_iterator(m_cache.Directory())) total += item.file_size();
    return total;
  }

  tq::test::TempDir m_dir;
  tq::test::ScopedClock m_clock{kNow};
  qv::net::DiskCache m_cache{m_dir.path().wstring().c_str()};
};

TEST_F(CacheCleanUpTest, ADirectoryAtItsLimitIsLeftAloneAndOneByteMoreTrimsBelowEightyPercent) {
  Limit(1);
  // Ten entries of 104,857 bytes, oldest first, and a foreign file: 1,048,576 bytes in all.
  for (int i = 0; i < 10; ++i) Entry("e" + std::to_string(i), kNow - 1000 + i, kNever, 104857);
  WriteFileBytes(m_cache.Directory() / "foreign", "123456");
  ASSERT_EQ(Total(), kMiB);
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_EQ(Remaining().size(), 11u);  // not even the foreign file was looked at

  // One byte over: the foreign file is no entry and goes (its bytes with it); then the oldest
  // entries until under the target: two are enough.
  WriteFileBytes(m_cache.Directory() / "foreign", "1234567");
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_EQ(Remaining(), (Names{"e2", "e3", "e4", "e5", "e6", "e7", "e8", "e9"}));
  EXPECT_LT(Total(), kTarget);
}

TEST_F(CacheCleanUpTest, ExpiredEntriesGoFirstWithinTheOldestHourThenTheRestOfItByAge) {
  Limit(1);
  // 1,050,000 bytes: deleting the 250,000-byte entry is enough.
  Entry("oldest_fresh", kNow - 7200, kNever, 300000);
  Entry("half_hour_later_expired", kNow - 7200 + 1800, kNow - 1, 250000);
  Entry("recent_expired", kNow - 10, kNow - 1, 500000);
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_EQ(Remaining(), (Names{"oldest_fresh", "recent_expired"}));

  // 1,350,000 bytes needing two deletions: the whole first span goes before the expired entry
  // of the next one.
  fs::remove(m_cache.Directory() / "oldest_fresh");
  fs::remove(m_cache.Directory() / "recent_expired");
  Entry("a_oldest", kNow - 10000, kNever, 450000);
  Entry("b_same_span", kNow - 10000 + 3599, kNever, 450000);
  Entry("c_next_span_expired", kNow - 10000 + 3600, 0, 450000);
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_EQ(Remaining(), (Names{"c_next_span_expired"}));
}

TEST_F(CacheCleanUpTest, HeldFilesAndTheirSizesStayAndForeignEntriesAreCandidates) {
  Limit(1);
  Entry("held", kNow - 5000, 0, 500000);  // oldest and expired, but a writer has it
  auto writer = TqUSysFile::OpenFile(m_cache.Directory() / "held", 1, 0, 2, 0, 0);
  ASSERT_NE(writer, nullptr);
  Entry("some.tmp", kNow - 4000, kNever, 300000);  // right markers under any name
  Entry("young", kNow, kNever, 400000);
  EXPECT_TRUE(m_cache.CleanUp());
  // The held file cannot go, so both others do (its size still counts).
  EXPECT_EQ(Remaining(), (Names{"held"}));
  TqUSysFile::CloseFile(writer);
}

// An entry last used at the end of time once made the span's end overflow, so that no pass
// deleted anything and the run never ended.
TEST_F(CacheCleanUpTest, ZeroDeletesEverythingEvenAtTheEndsOfTimeANegativeLimitNothing) {
  Entry("max", kNever, kNever, 100);
  Entry("near_max", kNever - 10, kNever, 100);
  Entry("min", std::numeric_limits<std::int64_t>::min(), 0, 100);
  Limit(-1);
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_EQ(Remaining().size(), 3u);
  Limit(0);
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_TRUE(Remaining().empty());
  fs::remove_all(m_cache.Directory());  // a missing directory ends the run, still a success
  EXPECT_TRUE(m_cache.CleanUp());
}

// Removals run side by side. The victims are still the oldest entries, and a removal that fails
// (refused through the removal seam: a POSIX directory cannot protect single files) leaves its
// bytes in the total, so the run goes on to the next-oldest until it is below the target.
TEST_F(CacheCleanUpTest, ConcurrentRemovalsTakeTheOldestAndFailuresLeadToFurtherVictims) {
  constexpr int kEntries = 2000;
  constexpr std::size_t kSize = 1024;
  auto name = [](int i) {
    char text[8];
    std::snprintf(text, sizeof text, "e%04d", i);
    return std::string(text);
  };
  auto refused = [](const std::string& file) { return std::stoi(file.substr(1)) % 10 == 3; };
  for (int i = 0; i < kEntries; ++i) Entry(name(i), kNow - 2 * kEntries + i, kNever, kSize);

  // One by one, oldest first: the refused stay, the others go until under the target.
  Names expected;
  std::uint64_t total = kEntries * kSize;
  int i = 0;
  for (; i < kEntries && total >= kTarget; ++i) {
    if (refused(name(i))) {
      expected.insert(name(i));
    } else {
      total -= kSize;
    }
  }
  for (; i < kEntries; ++i) expected.insert(name(i));

  // The first removal waits until a second one is under way: the run only ends if removals
  // overlap.
  std::mutex mutex;
  std::condition_variable second_arrived;
  int arrived = 0;
  struct RestoreSeam {
    ~RestoreSeam() { TqUSysDirectory::SetRemoveFaultForTesting({}); }
  } restore;
  TqUSysDirectory::SetRemoveFaultForTesting([&](const TqUSysDirectory::Char* file) {
    {
      std::unique_lock lock(mutex);
      if (++arrived == 2) second_arrived.notify_all();
      second_arrived.wait(lock, [&] { return arrived >= 2; });
    }
    return refused(fs::path(file).string());
  });
  Limit(1);
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_EQ(Remaining(), expected);
  EXPECT_LT(Total(), kTarget);
  // Had every removal succeeded, 819 entries would be left, the oldest of them this one.
  EXPECT_EQ(Remaining().count(name(kEntries - 819)), 0u);

  // When nothing can be removed, the run still ends, with every file in place.
  TqUSysDirectory::SetRemoveFaultForTesting([](const TqUSysDirectory::Char*) { return true; });
  Limit(0);
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_EQ(Remaining(), expected);
}

}  // namespace
