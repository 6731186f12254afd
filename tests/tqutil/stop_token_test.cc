#include "tqutil/stop_token.h"

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(StopTokenTest, SourceAndTokensShareOneState) {
  qv::stop_token none;
  EXPECT_FALSE(none.stop_possible());
  EXPECT_FALSE(none.stop_requested());

  qv::stop_source source;
  qv::stop_token token = source.get_token();
  qv::stop_token copy = token;
  qv::stop_token moved = std::move(copy);
  EXPECT_TRUE(token.stop_possible());
  EXPECT_FALSE(moved.stop_requested());
  EXPECT_TRUE(source.request_stop());
  EXPECT_FALSE(source.request_stop()) << "only the first request makes it";
  EXPECT_TRUE(token.stop_requested());
  EXPECT_TRUE(moved.stop_requested());

  // A token outlives its source.
  qv::stop_token survivor;
  {
    qv::stop_source s2;
    qv::stop_source s2_copy = s2;
    survivor = s2_copy.get_token();
    s2.request_stop();
    EXPECT_TRUE(s2_copy.stop_requested());
  }
  EXPECT_TRUE(survivor.stop_requested());
  survivor = none;
  EXPECT_FALSE(survivor.stop_possible());
}

TEST(StopTokenTest, AStopRequestedOnOneThreadIsSeenOnOthers) {
  qv::stop_source source;
  constexpr int kThreads = 4;
  std::vector<std::promise<void>> started(kThreads);
  std::vector<std::future<int>> results;
  std::atomic<int> winners{0};
  for (int i = 0; i < kThreads; ++i) {
    results.push_back(std::async(std::launch::async, [&, i, token = source.get_token()] {
      qv::stop_token mine = token;  // copies made and dropped on every thread
      started[i].set_value();
      int spins = 0;
      while (!mine.stop_requested()) {
        qv::stop_token churn = mine;
        ++spins;
      }
      return spins;
    }));
  }
  for (auto& s : started) s.get_future().wait();
  std::vector<std::thread> requesters;
  for (int i = 0; i < kThreads; ++i) {
    requesters.emplace_back([&, source] () mutable { winners += source.request_stop(); });
  }
  for (auto& t : requesters) t.join();
  for (auto& r : results) EXPECT_GE(r.get(), 0);
  EXPECT_EQ(winners, 1);
}

}  // namespace
