#include "net/stream/thread_pool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <latch>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace {

using qv::net::thread_pool;
using ::testing::ElementsAre;

// A gate tasks wait at until the test opens it.
class Gate {
 public:
  void Open() {
    std::lock_guard lock(m_mutex);
    m_open = true;
    m_cv.notify_all();
  }
  void Wait() {
    std::unique_lock lock(m_mutex);
    m_cv.wait(lock, [this] { return m_open; });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_cv;
  bool m_open = false;
};

// Counts started tasks and lets the test wait for a number of them.
class StartCounter {
 public:
  void Started(int id) {
    std::lock_guard lock(m_mutex);
    m_started.push_back(id);
    m_cv.notify_all();
  }
  void WaitFor(std::size_t count) {
    std::unique_lock lock(m_mutex);
    m_cv.wait(lock, [&] { return m_started.size() >= count; });
  }
  std::vector<int> Started() {
    std::lock_guard lock(m_mutex);
    return m_started;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_cv;
  std::vector<int> m_started;
};

bool IsReady(const std::future<void>& future) {
  return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

void ExpectBrokenPromise(std::future<void>& future) {
  try {
    future.get();
    ADD_FAILURE() << "the future held a value";
  } catch (const std::future_error& e) {
    EXPECT_EQ(e.code(), std::make_error_code(std::future_errc::broken_promise));
  }
}

// Restores the test hooks whatever a test does.
class ThreadPoolTest : public ::testing::Test {
 protected:
  void TearDown() override {
    qv::net::detail::SetThreadStartHookForTesting(nullptr);
    qv::net::detail::SetStopHookForTesting(nullptr);
  }
};

TEST_F(ThreadPoolTest, FunctionWrapperCallsOnceAndOwnsItsCallable) {
  auto counter = std::make_shared<int>(0);
  vemo::function_wrapper empty;
  EXPECT_FALSE(empty);
  {
    vemo::function_wrapper wrapper([counter] { ++*counter; });
    EXPECT_EQ(counter.use_count(), 2);
    vemo::function_wrapper moved(std::move(wrapper));
    EXPECT_FALSE(wrapper);
    EXPECT_TRUE(moved);
    moved();
    EXPECT_EQ(*counter, 1);
  }
  EXPECT_EQ(counter.use_count(), 1) << "destroying the wrapper destroys the callable";
  // Move-only callables are accepted.
  auto owned = std::make_unique<int>(7);
  int seen = 0;
  vemo::function_wrapper move_only([p = std::move(owned), &seen] { seen = *p; });
  move_only();
  EXPECT_EQ(seen, 7);
}

TEST_F(ThreadPoolTest, TasksStartInQueueOrder) {
  thread_pool pool(1);
  Gate gate;
  StartCounter starts;
  auto blocker = pool.submit([&] {
    starts.Started(0);
    gate.Wait();
  });
  std::vector<std::future<void>> futures;
  for (int id = 1; id <= 8; ++id) futures.push_back(pool.submit([&, id] { starts.Started(id); }));
  gate.Open();
  for (auto& future : futures) future.get();
  blocker.get();
  EXPECT_THAT(starts.Started(), ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8));
}

TEST_F(ThreadPoolTest, FourRunTogetherAndTheFifthStartsWhenOneEnds) {
  thread_pool pool(4);
  EXPECT_EQ(pool.ThreadCount(), 4u);
  Gate gates[5];
  StartCounter starts;
  std::vector<std::future<void>> futures;
  for (int id = 0; id < 5; ++id) {
    futures.push_back(pool.submit([&, id] {
      starts.Started(id);
      gates[id].Wait();
    }));
  }
  starts.WaitFor(4);
  // Every worker is held at a gate: the fifth task cannot have started.
  EXPECT_THAT(starts.Started(), ::testing::UnorderedElementsAre(0, 1, 2, 3));
  gates[2].Open();
  starts.WaitFor(5);
  EXPECT_EQ(starts.Started().back(), 4);
  futures[2].get();
  for (int id : {0, 1, 3, 4}) gates[id].Open();
  for (auto& future : futures) {
    if (future.valid()) future.get();
  }
}

TEST_F(ThreadPoolTest, DestructionFinishesRunningTasksAndBreaksQueuedOnes) {
  auto pool = std::make_unique<thread_pool>(1);
  Gate running_gate;
  std::latch running(1);
  bool finished = false;
  auto running_future = pool->submit([&] {
    running.count_down();
    running_gate.Wait();
    finished = true;
  });
  bool queued_ran = false;
  auto queued1 = pool->submit([&] { queued_ran = true; });
  auto queued2 = pool->submit([&] { queued_ran = true; });
  running.wait();
  // The running task may end only once no worker can take another task.
  qv::net::detail::SetStopHookForTesting([&] { running_gate.Open(); });
  pool.reset();
  EXPECT_TRUE(finished);
  EXPECT_FALSE(queued_ran);
  running_future.get();
  ExpectBrokenPromise(queued1);
  ExpectBrokenPromise(queued2);
}

TEST_F(ThreadPoolTest, AThrowingTaskReportsThroughItsFutureAndThePoolGoesOn) {
  // One worker: the tasks after the throwing one are served by the very thread it ran on.
  thread_pool pool(1);
  auto failing = pool.submit([]() -> int { throw std::runtime_error("task failed"); });
  std::vector<std::future<int>> results;
  for (int i = 0; i < 10; ++i) results.push_back(pool.submit([i] { return i * i; }));
  for (int i = 0; i < 10; ++i) EXPECT_EQ(results[i].get(), i * i);
  // The exception is looked at once the worker is joined: the stored exception's reference
  // count lives in the uninstrumented runtime, where ThreadSanitizer cannot see it.
  pool.Shutdown();
  try {
    failing.get();
    ADD_FAILURE() << "the task's exception was lost";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "task failed");
  }
}

TEST_F(ThreadPoolTest, CountsZeroAndDefault) {
  auto idle = std::make_unique<thread_pool>(0);
  EXPECT_EQ(idle->ThreadCount(), 0u);
  auto never = idle->submit([] {});
  EXPECT_FALSE(IsReady(never)) << "no thread runs it";
  idle.reset();
  ExpectBrokenPromise(never);

  const unsigned hardware = std::thread::hardware_concurrency();
  thread_pool by_default;
  EXPECT_EQ(by_default.ThreadCount(), hardware == 0 ? 1u : hardware);
  EXPECT_EQ(by_default.submit([] { return 5; }).get(), 5);
}

TEST_F(ThreadPoolTest, AThreadThatCannotStartEndsInTheExceptionAtEveryStep) {
  for (std::uint32_t failing = 0; failing < 4; ++failing) {
    int attempts = 0;
    qv::net::detail::SetThreadStartHookForTesting([&](std::uint32_t index) {
      ++attempts;
      if (index == failing) {
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
      }
    });
    try {
      thread_pool pool(4);
      ADD_FAILURE() << "no exception with thread " << failing << " failing";
    } catch (const std::system_error& e) {
      // Reaching here at all proves the started workers were stopped and joined.
      EXPECT_EQ(e.code(), std::make_error_code(std::errc::resource_unavailable_try_again));
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
  std::latch running(1);
  auto task = pool.submit([&] {
    running.count_down();
    gate.Wait();
  });
  running.wait();
  qv::net::detail::SetStopHookForTesting([&] { gate.Open(); });
  pool.Shutdown();
  EXPECT_TRUE(IsReady(task)) << "Shutdown returns only after the running task ended";
  task.get();
  qv::net::detail::SetStopHookForTesting(nullptr);
  pool.Shutdown();  // idempotent

  // A task cannot shut its own pool down: refused with the deadlock error, and the pool is
  // left serving.
  auto other = std::make_unique<thread_pool>(1);
  auto self = other->submit([&] { other->Shutdown(); });
  EXPECT_EQ(other->submit([] { return 3; }).get(), 3);
  other.reset();  // joined before the exception is looked at (see above)
  try {
    self.get();
    ADD_FAILURE() << "a task shut its own pool down";
  } catch (const std::system_error& e) {
    EXPECT_EQ(e.code(), std::make_error_code(std::errc::resource_deadlock_would_occur));
  }
}

TEST_F(ThreadPoolTest, TheProcessWideSlotOwnsItsPool) {
  EXPECT_EQ(qv::net::WorkerThreadPool(), nullptr);
  auto first = std::make_unique<thread_pool>(1);
  thread_pool* first_raw = first.get();
  EXPECT_EQ(qv::net::ExchangeWorkerThreadPool(std::move(first)), nullptr);
  EXPECT_EQ(qv::net::WorkerThreadPool(), first_raw);
  auto previous = qv::net::ExchangeWorkerThreadPool(std::make_unique<thread_pool>(1));
  EXPECT_EQ(previous.get(), first_raw);
  EXPECT_NE(qv::net::WorkerThreadPool(), first_raw);
  previous.reset();
  EXPECT_EQ(qv::net::ExchangeWorkerThreadPool(nullptr)->ThreadCount(), 1u);
  EXPECT_EQ(qv::net::WorkerThreadPool(), nullptr);
}

}  // namespace
