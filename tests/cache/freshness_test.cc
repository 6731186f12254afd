// The freshness rules with the time given, not read: what a response's "Date" and
// "cache-control" allow at `now`, and that one cache open judges and records by one reading of
// the clock.
#include "net/cache/freshness.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "net/cache/url_cache.h"
#include "tests/cache/cache_test_support.h"
#include "tests/support/fake_transport_fixture.h"
#include "tests/support/servers/temp_dir.h"

namespace tq::test {
namespace {

using qv::net::ExpiryFor;
using qv::net::Freshness;
using qv::net::FreshnessOf;
using qv::net::IsFresh;

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kDate = 1'700'000'000;  // the server's clock
constexpr std::int64_t kNow = kDate + 1'000;   // ours, ahead of it
constexpr std::int64_t kThirtyDays = 2'592'000;

TEST(FreshnessTest, DirectivesCountFromTheDateAndTheDefaultLifetimeFromNow) {
  struct Case {
    const char* what;
    std::optional<std::int64_t> date;
    std::optional<std::wstring> cache_control;
    std::int64_t now;
    std::optional<std::int64_t> expiry;
    bool no_store;
  };
  const Case cases[] = {
      {"no date", std::nullopt, L"max-age=60", kNow, std::nullopt, false},
      {"date only", kDate, std::nullopt, kNow, kNow + kThirtyDays, false},
      {"date only, at the end of time", kDate, std::nullopt, kMax - 5, kMax, false},
      {"max-age", kDate, L"max-age=60", kNow, kDate + 60, false},
      {"no-cache", kDate, L"no-cache", kNow, kDate - 1, false},
      {"no-store", kDate, L"no-store", kNow, std::nullopt, true},
      {"no-store among others", kDate, L" private , no-store ", kNow, std::nullopt, true},
      {"the last directive wins", kDate, L"no-cache, max-age=5", kNow, kDate + 5, false},
      {"negative max-age", kDate, L"max-age=-1", kNow, kDate, false},
      {"max-age past 2^64", kDate, L"max-age=99999999999999999999999", kNow, kMax, false},
      {"empty value", kDate, L"", kNow, std::nullopt, false},
  };
  for (const Case& c : cases) {
    std::optional<std::wstring_view> value;
    if (c.cache_control) value = *c.cache_control;
    const Freshness got = FreshnessOf(c.date, value, c.now);
    EXPECT_EQ(got.expiry, c.expiry) << c.what;
    EXPECT_EQ(got.no_store, c.no_store) << c.what;
  }
}

TEST(FreshnessTest, TheRecordedExpiryAndWhenItIsStillFresh) {
  EXPECT_EQ(ExpiryFor(qv::net::IUrlCache::NeverExpire, Freshness{kDate - 1, false}), kMax);
  EXPECT_EQ(ExpiryFor(0, Freshness{kDate + 60, false}), kDate + 60);
  EXPECT_EQ(ExpiryFor(0, Freshness{}), 0);

  EXPECT_TRUE(IsFresh(kNow, kNow));  // fresh through its last second
  EXPECT_FALSE(IsFresh(kNow - 1, kNow));
  EXPECT_TRUE(IsFresh(kMax, kMax));
}

// A clock that moves on every reading: an open that read it twice would record a use and an
// expiry from two different times, and count more than one reading.
class FreshnessClockTest : public FakeTransportTest {
 protected:
  FreshnessClockTest() {
    TqUSysTime::SetClockForTesting([this] { return kNow + m_readings++; });
  }
  ~FreshnessClockTest() override { TqUSysTime::SetClockForTesting({}); }

  int m_readings = 0;
  TempDir m_dir;
  qv::net::DiskCache m_cache{m_dir.path().wstring().c_str()};
};

TEST_F(FreshnessClockTest, OneOpenReadsTheClockOnceForExpiryAndUse) {
  constexpr const wchar_t* kUrl = L"http://example.test/a";
  FakeResponse response;
  response.dates[L"Date"] = kDate;
  response.Header(L"ETag", L"\"a\"");
  response.Header(L"Content-Length", L"4");
  response.Body("body");
  m_api.Queue(response);

  m_readings = 0;
  auto stream = m_cache.OpenUrl(kUrl, 0, {});
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(ReadAll(*stream), "body");
  EXPECT_EQ(m_readings, 1);

  const std::filesystem::path entry =
      qv::net::DiskCache::ComputeCacheLocation(kUrl, m_cache.Directory());
  EXPECT_EQ(ReadFileBytes(entry),
            EntryBytes(kNow, kNow + kThirtyDays, "\"a\"", "http://example.test/a", "body"));
}

}  // namespace
}  // namespace tq::test
