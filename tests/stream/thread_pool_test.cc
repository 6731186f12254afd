#include "net/stream/thread_pool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#include "tests/support/servers/gate.h"

namespace {

using qv::net::thread_pool;
using tq::test::Gate;

bool IsReady(const std::future<void>& future) {
  return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

// The error of the future's exception, once the pool that ran the task is joined: a stored
// exception's reference count lives in the uninstrumented runtime, out of ThreadSanitizer's view.
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

const std::error_code kBroken = std::make_error_code(std::future_errc::broken_promise);

class ThreadPoolTest : public ::testing::Test {
 protected:
  void TearDown() override {
    qv::net::detail::SetThreadStartHookForTesting(nullptr);
    qv::net::detail::SetStopHookForTesting(nullptr);
  }
};

TEST_F(ThreadPoolTest, TasksStartInQueueOrder) {
  thread_pool pool(1);
  Gate gate;
  std::vector<int> started;  // written by the one worker only, read after its futures
  auto blocker = pool.submit([&] { gate.Wait(); });
  std::vector<std::future<void>> futures;
  for (int id = 1; id <= 8; ++id) {
    futures.push_back(pool.submit([&, id] { started.push_back(id); }));
  }
  gate.Open();
  for (auto& future : futures) future.get();
  blocker.get();
  EXPECT_EQ(started, (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST_F(ThreadPoolTest, FourRunTogetherAndTheFifthStartsWhenOneEnds) {
  thread_pool pool(4);
  EXPECT_EQ(pool.ThreadCount(), 4u);
  Gate gates[5];
  std::vector<std::future<void>> futures;
  for (auto& gate : gates) futures.push_back(pool.submit([&gate] { gate.Wait(); }));
  for (int id = 0; id < 4; ++id) ASSERT_TRUE(gates[id].WaitForWaiters(1)) << id;
  // Every worker is held at a gate: the fifth task cannot have started.
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
  auto queued1 = pool->submit([&] { queued_ran = true; });
  auto queued2 = pool->submit([&] { queued_ran = true; });
  ASSERT_TRUE(gate.WaitForWaiters(1));
  // The running task may end only once no worker can take another task.
  qv::net::detail::SetStopHookForTesting([&] { gate.Open(); });
  pool.reset();
  EXPECT_TRUE(finished);
  EXPECT_FALSE(queued_ran);
  running.get();
  EXPECT_EQ(ErrorOf(queued1), kBroken);
  EXPECT_EQ(ErrorOf(queued2), kBroken);

  // No thread at all: nothing runs, and the task is broken with the pool.
  auto idle = std::make_unique<thread_pool>(0);
  EXPECT_EQ(idle->ThreadCount(), 0u);
  auto never = idle->submit([] {});
  EXPECT_FALSE(IsReady(never)) << "no thread runs it";
  idle.reset();
  EXPECT_EQ(ErrorOf(never), kBroken);

  const unsigned hardware = std::thread::hardware_concurrency();
  thread_pool by_default;
  EXPECT_EQ(by_default.ThreadCount(), hardware == 0 ? 1u : hardware);
  EXPECT_EQ(by_default.submit([] { return 5; }).get(), 5);
}

TEST_F(ThreadPoolTest, AThrowingTaskReportsThroughItsFutureAndThePoolGoesOn) {
  // One worker: the tasks after the throwing one are served by the very thread it ran on.
  thread_pool pool(1);
  auto failing = pool.submit([]() -> int { throw std::runtime_error("task failed"); });
  std::vector<std::future<int>> results;
  for (int i = 0; i < 10; ++i) results.push_back(pool.submit([i] { return i * i; }));
  for (int i = 0; i < 10; ++i) EXPECT_EQ(results[i].get(), i * i);
  pool.Shutdown();
  try {
    failing.get();
    ADD_FAILURE() << "the task's exception was lost";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "task failed");
  }
}

TEST_F(ThreadPoolTest, AThreadThatCannotStartEndsInTheExceptionAtEveryStep) {
  const auto kUnavailable = std::make_error_code(std::errc::resource_unavailable_try_again);
  for (std::uint32_t failing = 0; failing < 4; ++failing) {
    int attempts = 0;
    qv::net::detail::SetThreadStartHookForTesting([&](std::uint32_t index) {
      ++attempts;
      if (index == failing) throw std::system_error(kUnavailable);
    });
    try {
      thread_pool pool(4);
      ADD_FAILURE() << "no exception with thread " << failing << " failing";
    } catch (const std::system_error& e) {
      // Reaching here at all proves the started workers were stopped and joined.
      EXPECT_EQ(e.code(), kUnavailable);
    }
    EXPECT_EQ(attempts, static_cast<int>(failing) + 1);
  }
  qv::net::detail::SetThreadStartHookForTesting(nullptr);
  thread_pool pool(4);
  EXPECT_EQ(pool.submit([] { return 1; }).get(), 1);
}

TEST_F(ThreadPoolTest, ShutdownWaitsForRunningTasksAndRefusesToJoinItsOwnThread) {
  thread_pool pool(2);
  Gate gate;
  auto task = pool.submit([&] { gate.Wait(); });
  ASSERT_TRUE(gate.WaitForWaiters(1));
  qv::net::detail::SetStopHookForTesting([&] { gate.Open(); });
  pool.Shutdown();
  EXPECT_TRUE(IsReady(task)) << "Shutdown returns only after the running task ended";
  task.get();
  qv::net::detail::SetStopHookForTesting(nullptr);
  pool.Shutdown();  // idempotent

  // A task cannot shut its own pool down: refused with the deadlock error, the pool still serves.
  auto other = std::make_unique<thread_pool>(1);
  auto self = other->submit([&] { other->Shutdown(); });
  EXPECT_EQ(other->submit([] { return 3; }).get(), 3);
  other.reset();
  EXPECT_EQ(ErrorOf(self), std::make_error_code(std::errc::resource_deadlock_would_occur));
}

}  // namespace
