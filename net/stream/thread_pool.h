// The library's worker threads: a fixed set of threads taking move-only tasks from one FIFO
// queue. Only the asynchronous opening of URLs submits to it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "net/host/tqutil.h"

namespace vemo {

// A move-only, type-erased callable, called once.
class function_wrapper {
 public:
  function_wrapper() = default;
  template <typename F>
  function_wrapper(F&& f) : m_impl(new impl_type<std::decay_t<F>>(std::forward<F>(f))) {}
  function_wrapper(function_wrapper&&) noexcept = default;
  function_wrapper& operator=(function_wrapper&&) noexcept = default;
  function_wrapper(const function_wrapper&) = delete;
  function_wrapper& operator=(const function_wrapper&) = delete;

  void operator()() { m_impl->call(); }
  explicit operator bool() const { return m_impl != nullptr; }

 private:
  struct impl_base {
    virtual void call() = 0;
    virtual ~impl_base() = default;
  };
  template <typename F>
  struct impl_type : impl_base {
    explicit impl_type(F&& f) : m_f(std::move(f)) {}
    void call() override { m_f(); }
    F m_f;
  };
  std::unique_ptr<impl_base> m_impl;
};

}  // namespace vemo

namespace qv::net {

// The threads of the library's worker pool, made by InitialiseHttp: the asynchronous opens that
// may run at once.
inline constexpr std::uint32_t kWorkerThreads = 4;

class thread_pool {
 public:
  // `thread_count` threads, or the hardware thread count when empty (1 when the platform cannot
  // tell); 0 starts none (tasks then wait until the pool is destroyed, when their futures
  // break). Throws std::system_error when a thread cannot be started: the threads already
  // started are told to stop, woken and joined before the exception leaves.
  explicit thread_pool(std::optional<std::uint32_t> thread_count = std::nullopt);
  // Shutdown(); then queued tasks are dropped and their futures report broken_promise. A task's
  // send blocked in the transport, or its pause before a retry, is cut (CallerPoolStopToken).
  // Must not run on one of the pool's own threads.
  ~thread_pool();
  thread_pool(const thread_pool&) = delete;
  thread_pool& operator=(const thread_pool&) = delete;

  // Queues `task` behind those already queued; its result or exception arrives through the
  // future, which reports broken_promise if the pool is destroyed before the task runs.
  template <typename F>
  std::future<std::invoke_result_t<F>> submit(F task) {
    using Result = std::invoke_result_t<F>;
    std::packaged_task<Result()> packaged(std::move(task));
    std::future<Result> future = packaged.get_future();
    Enqueue(vemo::function_wrapper(std::move(packaged)));
    return future;
  }

  std::size_t ThreadCount() const { return m_threads.size(); }

  // True when the caller runs on one of this pool's threads (a task, or a callback a task
  // calls): stopping or destroying the pool from there would wait for the caller itself.
  bool IsOwnThread() const;

  // True while the caller is a task of a pool that is shutting down; false on any other thread.
  // A task's own waits (a pause before a retry) end early then, so that the shut-down does not
  // wait them out.
  static bool CallerPoolStopping();

  // On one of a pool's threads, a token whose stop is requested when that pool starts shutting
  // down; null on any other thread. A task's sends watch it, so that a server holding a request
  // does not hold the shut-down until the transport's time-out.
  static const qv::stop_token* CallerPoolStopToken();

  // Stops taking tasks and waits for the running ones to end; returns when every worker has
  // ended. Queued tasks stay queued (never run) until the pool is destroyed. Idempotent; call
  // from one thread. Called from one of the pool's own tasks it throws std::system_error
  // (resource_deadlock_would_occur) and stops nothing.
  // TerminateHttp calls it before it releases the transport, so that no task outlives it.
  void Shutdown();

 private:
  // Joins every joinable thread, in start order, when destroyed.
  class joiner {
   public:
    explicit joiner(std::vector<std::thread>& threads) : m_threads(threads) {}
    ~joiner();

   private:
    std::vector<std::thread>& m_threads;
  };

  void Enqueue(vemo::function_wrapper task);
  void WorkerLoop();
  void StopQueue();

  std::atomic<bool> m_done{false};
  std::mutex m_queue_mutex;
  std::deque<vemo::function_wrapper> m_queue;
  std::condition_variable m_queue_cv;
  std::atomic<bool> m_queue_stopped{false};
  qv::stop_source m_stopping;  // requested as m_queue_stopped is set
  const qv::stop_token m_stopping_token = m_stopping.get_token();
  std::vector<std::thread> m_threads;
  joiner m_joiner{m_threads};
};

// The process-wide pool: null before InitialiseHttp and after TerminateHttp. The slot owns it
// (a pool still installed when the library is unloaded is destroyed then).
thread_pool* WorkerThreadPool();
// Installs `pool` and returns the one it replaces (which the caller then destroys). Plain
// variable: called only while no task is submitted.
std::unique_ptr<thread_pool> ExchangeWorkerThreadPool(std::unique_ptr<thread_pool> pool);

namespace detail {
// Called before each worker thread is started, with its index; a hook that throws stands for a
// thread the platform could not start. An empty function removes it. Set while no pool is
// being built.
using ThreadStartHook = std::function<void(std::uint32_t index)>;
ThreadStartHook SetThreadStartHookForTesting(ThreadStartHook hook);
// Called by Shutdown and the destructor once the queue is stopped, before the workers are
// joined: tests use it to let a running task end only after no worker may take a new one.
using StopHook = std::function<void()>;
StopHook SetStopHookForTesting(StopHook hook);
}  // namespace detail

}  // namespace qv::net
