#include "net/stream/thread_pool.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "tests/support/servers/gate.h"

namespace {

using qv::net::thread_pool;
using tq::test::Gate;

bool IsReady(const std::future<void>& future) {
  return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

// Read only once the pool that ran the task is joined: a stored exception's reference count
// lives in the uninstrumented runtime, out of ThreadSanitizer's view.
template <typename T>
std::error_code ErrorOf(std::future<T>& future) {
  try {
    future.get();
  } catch (const std::future_error& e) {
    return e.code();
  } catch (const std::system_error& e) {
    return e.code();
  }
  return {};
}

class ThreadPoolTest : public ::testing::Test {
 protected:
  void TearDown() override { qv::net::detail::SetStopHookForTesting(nullptr); }
};

TEST_F(ThreadPoolTest, FourRunTogetherAndTheFifthStartsWhenOneEnds) {
  thread_pool pool(4);
  Gate gates[5];
  std::vector<std::future<void>> futures;
  for (auto& gate : gates) futures.push_back(pool.submit([&gate] { gate.Wait(); }));
  for (int id = 0; id < 4; ++id) ASSERT_TRUE(gates[id].WaitForWaiters(1)) << id;
  EXPECT_EQ(gates[4].waiters(), 0);
  EXPECT_FALSE(IsReady(futures[4]));
  gates[2].Open();
  EXPECT_TRUE(gates[4].WaitForWaiters(1));
  for (auto& gate : gates) gate.Open();
  for (auto& future : futures) future.get();
}

TEST_F(ThreadPoolTest, DestructionFinishesRunningTasksAndBreaksQueuedOnes) {
  auto pool = std::make_unique<thread_pool>(1);
  Gate gate;
  bool finished = false;
  bool queued_ran = false;
  auto running = pool->submit([&] {
    gate.Wait();
    finished = true;
  });
  auto queued = pool->submit([&] { queued_ran = true; });
  ASSERT_TRUE(gate.WaitForWaiters(1));
  // The running task may end only once no worker can take another task.
  qv::net::detail::SetStopHookForTesting([&] { gate.Open(); });
  pool.reset();
  EXPECT_TRUE(finished);
  EXPECT_FALSE(queued_ran);
  running.get();
  EXPECT_EQ(ErrorOf(queued), std::make_error_code(std::future_errc::broken_promise));

  // A task cannot shut its own pool down: refused with the deadlock error, the pool still serves.
  auto other = std::make_unique<thread_pool>(1);
  auto self = other->submit([&] { other->Shutdown(); });
  EXPECT_EQ(other->submit([] { return 3; }).get(), 3);
  other.reset();
  EXPECT_EQ(ErrorOf(self), std::make_error_code(std::errc::resource_deadlock_would_occur));
}

TEST_F(ThreadPoolTest, AThrowingTaskReportsThroughItsFutureAndThePoolGoesOn) {
  thread_pool pool(1);
  auto failing = pool.submit([]() -> int { throw std::runtime_error("task failed"); });
  auto next = pool.submit([] { return 7; });
  EXPECT_EQ(next.get(), 7) << "served by the very thread the throwing task ran on";
  pool.Shutdown();
  EXPECT_THROW(failing.get(), std::runtime_error);
}

}  // namespace
