// The freshness rules with the time given, not read: what a response's "Date" and
// "cache-control" allow at `now`. (That one open reads the clock once: the cache test.)
#include "net/cache/freshness.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

namespace tq::test {
namespace {

using qv::net::ExpiryFor;
using qv::net::Freshness;
using qv::net::IsFresh;

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kDate = 1'700'000'000;  // the server's clock
constexpr std::int64_t kNow = kDate + 1'000;   // ours, ahead of it

TEST(FreshnessTest, DirectivesCountFromTheDateAndTheDefaultLifetimeFromNow) {
  struct Case {
    std::optional<std::int64_t> date;
    std::optional<std::wstring> cache_control;
    std::int64_t now;
    std::optional<std::int64_t> expiry;
    bool no_store;
  } const cases[] = {
      {std::nullopt, L"max-age=60", kNow, std::nullopt, false},  // no date: stale at once
      {kDate, std::nullopt, kNow, kNow + 2'592'000, false},       // 30 days from now
      {kDate, std::nullopt, kMax - 5, kMax, false},               // not wrapped into the past
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
    SCOPED_TRACE(::testing::PrintToString(c.cache_control));
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

}  // namespace
}  // namespace tq::test
