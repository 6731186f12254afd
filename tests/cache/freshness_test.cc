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
using qv::net::IsFresh;

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kDate = 1'700'000'000;  // the server's clock
constexpr std::int64_t kNow = kDate + 1'000;   // ours, ahead of it
constexpr std::int64_t kThirtyDays = 2'592'000;

TEST(FreshnessTest, DirectivesCountFromTheDateAndTheDefaultLifetimeFromNow) {
  struct Case {
    std::optional<std::int64_t> date;
    std::optional<std::wstring> cache_control;
    std::int64_t now;
    std::optional<std::int64_t> expiry;
    bool no_store;
  } const cases[] = {
      {std::nullopt, L"max-age=60", kNow, std::nullopt, false},  // no date: stale at once
      {kDate, std::nullopt, kNow, kNow + kThirtyDays, false},
      {kDate, std::nullopt, kMax - 5, kMax, false},  // not wrapped into the past
      {kDate, L" public , max-age=  90 ", kNow, kDate + 90, false},
      {kDate, L"max-age=60, must-revalidate", kNow, kDate + 60, false},
      {kDate, L"max-age=60, no-cache", kNow, kDate - 1, false},
      {kDate, L"no-cache, max-age=5", kNow, kDate + 5, false},  // the last directive wins
      {kDate, L" private , no-store ", kNow, std::nullopt, true},
      {kDate, L"max-age=-1", kNow, kDate, false},
      {kDate, L"max-age=99999999999999999999999", kNow, kMax, false},
      {kDate, L"", kNow, std::nullopt, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.cache_control ? qv::WideToUtf8(*c.cache_control) : "<none>");
    std::optional<std::wstring_view> value;
    if (c.cache_control) value = *c.cache_control;
    const Freshness got = qv::net::FreshnessOf(c.date, value, c.now);
    EXPECT_EQ(got.expiry, c.expiry);
    EXPECT_EQ(got.no_store, c.no_store);
  }
  EXPECT_EQ(ExpiryFor(0, Freshness{}), 0);
  EXPECT_TRUE(IsFresh(kNow, kNow));  // fresh through its last second
  EXPECT_FALSE(IsFresh(kNow - 1, kNow));
}

// A clock that moves on every reading: an open that read it twice would record a use and an
// expiry from two different times, and count more than one reading.
class FreshnessClockTest : public FakeTransportTest {
 protected:
  FreshnessClockTest() { TqUSysTime::SetClockForTesting([this] { return kNow + m_readings++; }); }
  ~FreshnessClockTest() override { TqUSysTime::SetClockForTesting({}); }

  int m_readings = 0;
  TempDir m_dir;
  qv::net::DiskCache m_cache{m_dir.path().wstring().c_str()};
};

TEST_F(FreshnessClockTest, OneOpenReadsTheClockOnceForExpiryAndUse) {
  for (const int flags : {0, static_cast<int>(qv::net::IUrlCache::NeverExpire)}) {
    const std::wstring url = L"http://example.test/" + std::to_wstring(flags);
    FakeResponse response;
    response.dates[L"Date"] = kDate;
    response.Header(L"ETag", L"\"a\"").Body("body");
    m_api.Queue(response);
    m_readings = 0;
    auto stream = m_cache.OpenUrl(url, flags, {});
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(ReadAll(*stream), "body");
    EXPECT_EQ(m_readings, 1);
    EXPECT_EQ(ReadFileBytes(qv::net::DiskCache::ComputeCacheLocation(url, m_cache.Directory())),
              EntryBytes(kNow, flags ? kMax : kNow + kThirtyDays, "\"a\"", qv::WideToUtf8(url), "body"));
  }
}

}  // namespace
}  // namespace tq::test
