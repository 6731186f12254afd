#include "tqutil/component.h"

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(ComponentTest, OnlyTheOuterCallsDoTheWorkOnOneThreadOrMany) {
  TqUComponent c;
  EXPECT_FALSE(c.Terminate());  // not initialised, and no debt for later
  EXPECT_TRUE(c.Initialise(L"First"));
  EXPECT_FALSE(c.Initialise(L"Second"));
  EXPECT_EQ(c.GetName(), L"First");
  EXPECT_FALSE(c.Terminate());
  EXPECT_TRUE(c.IsInitialised());
  EXPECT_TRUE(c.Terminate());
  EXPECT_FALSE(c.IsInitialised());
  EXPECT_TRUE(c.Initialise(nullptr));
  EXPECT_EQ(c.GetName(), L"");
  EXPECT_TRUE(c.Terminate());

  // Exactly one of many threads does each.
  std::atomic<int> inits{0}, terms{0};
  const auto on_threads = [&](std::atomic<int>& count, bool initialise) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([&] {
        for (int k = 0; k < 100; ++k) count += initialise ? c.Initialise(L"x") : c.Terminate();
      });
    }
    for (auto& t : threads) t.join();
  };
  on_threads(inits, true);
  on_threads(terms, false);
  EXPECT_EQ(inits, 1);
  EXPECT_EQ(terms, 1);
  EXPECT_FALSE(c.IsInitialised());
}

}  // namespace
