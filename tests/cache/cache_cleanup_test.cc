#include "net/cache/disk_cache.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
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
using qv::net::DiskCache;
using tq::test::EntryBytes;
using tq::test::ScopedClock;
using tq::test::WriteFileBytes;
using ::testing::UnorderedElementsAre;

constexpr std::int64_t kNow = 1'000'000;
constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t kMiB = 1048576;

class CacheCleanUpTest : public ::testing::Test {
 protected:
  ~CacheCleanUpTest() override { TqUOption::Unset("general.localcache.max_size"); }

  void Limit(std::int32_t mebibytes) { TqUOption::SetInt32("general.localcache.max_size", mebibytes); }

  // An entry file of exactly `size` bytes.
  void Entry(const std::string& name, std::int64_t last_used, std::int64_t expiry,
             std::size_t size) {
    const std::string key = "http://example.test/" + name;
    const std::string header = EntryBytes(last_used, expiry, "", key, "");
    ASSERT_GE(size, header.size());
    WriteFileBytes(m_cache.Directory() / name, header + std::string(size - header.size(), 'b'));
  }

  std::set<std::string> Remaining() const {
    std::set<std::string> names;
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
  ScopedClock m_clock{kNow};
  DiskCache m_cache{m_dir.path().wstring().c_str()};
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
  // entries until under 838,860 bytes: two are enough.
  WriteFileBytes(m_cache.Directory() / "foreign", "1234567");
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_EQ(Remaining(), (std::set<std::string>{"e2", "e3", "e4", "e5", "e6", "e7", "e8", "e9"}));
  EXPECT_LT(Total(), static_cast<std::uint64_t>(0.8 * kMiB));
}

TEST_F(CacheCleanUpTest, WithinAnHourExpiredEntriesGoFirstThenTheRestByAge) {
  Limit(1);
  // 1,050,000 bytes: deleting the 250,000-byte entry is enough to get under 838,860.
  Entry("oldest_fresh", kNow - 7200, kNever, 300000);
  Entry("half_hour_later_expired", kNow - 7200 + 1800, kNow - 1, 250000);
  Entry("recent", kNow - 10, kNow - 1, 500000);
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_EQ(Remaining(), (std::set<std::string>{"oldest_fresh", "recent"}));

  // Needing more, the rest of the span goes by age before the next span's expired entries.
  Limit(0);
  Entry("half_hour_later_expired", kNow - 7200 + 1800, kNow - 1, 250000);
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_TRUE(Remaining().empty());
}

TEST_F(CacheCleanUpTest, AnEntryMoreThanAnHourYoungerGoesOnlyAfterTheEarlierSpan) {
  Limit(1);
  Entry("a_oldest", kNow - 10000, kNever, 450000);
  Entry("b_same_span", kNow - 10000 + 3599, kNever, 450000);
  Entry("c_next_span_expired", kNow - 10000 + 3600, 0, 450000);
  // 1,350,000 bytes; the target 838,860 needs two deletions: the whole first span goes before
  // the expired entry of the next one.
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_EQ(Remaining(), (std::set<std::string>{"c_next_span_expired"}));
}

TEST_F(CacheCleanUpTest, HeldFilesAndTheirSizesStayAndForeignEntriesAreCandidates) {
  Limit(1);
  Entry("held", kNow - 5000, 0, 500000);  // oldest and expired, but a writer has it
  auto writer = TqUSysFile::OpenFile(m_cache.Directory() / "held", 1, 0, 2, 0, 0);
  ASSERT_NE(writer, nullptr);
  // Right markers under any name: a candidate like any entry.
  Entry("some.tmp", kNow - 4000, kNever, 300000);
  Entry("young", kNow, kNever, 400000);
  EXPECT_TRUE(m_cache.CleanUp());
  // 1,200,000 bytes: the held file cannot go, so both others do (its size still counts).
  EXPECT_EQ(Remaining(), (std::set<std::string>{"held"}));
  TqUSysFile::CloseFile(writer);
}

TEST_F(CacheCleanUpTest, ZeroDeletesEverythingANegativeLimitNothing) {
  Entry("a", kNow, kNever, 100);
  Entry("b", kNow, kNever, 100);
  Limit(-1);
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_EQ(Remaining().size(), 2u);
  Limit(0);
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_TRUE(Remaining().empty());
}

// An entry whose last use lies at the end of time once made the span's end overflow, so that no
// pass deleted anything and the run never ended.
TEST_F(CacheCleanUpTest, EntriesLastUsedAtTheEndsOfTimeDoNotStallTheRun) {
  Limit(0);
  Entry("max", kNever, kNever, 100);
  Entry("near_max", kNever - 10, kNever, 100);
  Entry("min", std::numeric_limits<std::int64_t>::min(), 0, 100);
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_TRUE(Remaining().empty());
}

// Removals run side by side. The victims are still the oldest entries, and a removal that fails
// (here refused through the removal seam: a POSIX directory cannot protect single files) leaves
// its bytes in the total, so the run goes on to the next-oldest until it is below the target.
TEST_F(CacheCleanUpTest, ConcurrentRemovalsTakeTheOldestAndFailuresLeadToFurtherVictims) {
  constexpr int kEntries = 2000;
  constexpr std::size_t kSize = 1024;
  auto name = [](int i) {
    char text[8];
    std::snprintf(text, sizeof text, "e%04d", i);
    return std::string(text);
  };
  // Every tenth entry cannot be removed.
  auto refused = [](const std::string& file) { return std::stoi(file.substr(1)) % 10 == 3; };
  for (int i = 0; i < kEntries; ++i) Entry(name(i), kNow - 2 * kEntries + i, kNever, kSize);

  // One by one, oldest first: the refused stay, the others go until under 838,860 bytes.
  std::set<std::string> expected;
  std::uint64_t total = kEntries * kSize;
  int i = 0;
  for (; i < kEntries && total >= static_cast<std::uint64_t>(0.8 * kMiB); ++i) {
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
  EXPECT_LT(Total(), static_cast<std::uint64_t>(0.8 * kMiB));
  // Had every removal succeeded, 819 entries would be left, the oldest of them this one.
  EXPECT_EQ(Remaining().count(name(kEntries - 819)), 0u);

  // When nothing can be removed, the run still ends, with every file in place.
  TqUSysDirectory::SetRemoveFaultForTesting([](const TqUSysDirectory::Char*) { return true; });
  Limit(0);
  EXPECT_TRUE(m_cache.CleanUp());
  EXPECT_EQ(Remaining(), expected);
}

TEST_F(CacheCleanUpTest, AMissingDirectoryEndsTheRunButCleanUpStillSucceeds) {
  fs::remove_all(m_cache.Directory());
  EXPECT_TRUE(m_cache.CleanUp());
}

}  // namespace
