#include "net/stream/thread_pool.h"

#include <algorithm>
#include <system_error>

#include "net/http/module_hold.h"

namespace qv::net {
namespace {

// The stop token of the pool whose worker this thread is; null on other threads. A plain
// pointer, so that nothing of the library runs as a thread ends.
thread_local const qv::stop_token* t_worker_pool_token = nullptr;

detail::ThreadStartHook g_start_hook;
detail::StopHook g_stop_hook;

detail::ThreadStartHook& StartHook() { return g_start_hook; }
detail::StopHook& StopHookSlot() { return g_stop_hook; }

// The process-wide slot. It owns its pool, so a pool left installed is shut down at exit or
// unload, and the tasks still running finish then; not as a Windows process ends, when the
// workers are gone already (detail::ProcessEnding). It is made on first use, after the
// load-time statics those tasks use (the stop watcher, the handler list, the hooks above), so
// that it is destroyed before any of them.
struct PoolSlot {
  std::unique_ptr<thread_pool> pool;
  ~PoolSlot() {
    if (detail::ProcessEnding()) (void)pool.release();
  }
};

std::unique_ptr<thread_pool>& Slot() {
  static PoolSlot slot;
  return slot.pool;
}

void RunStopHook() {
  if (const detail::StopHook& hook = StopHookSlot()) hook();
}

}  // namespace

thread_pool::joiner::~joiner() {
  for (std::thread& thread : m_threads) {
    if (thread.joinable()) thread.join();
  }
}

thread_pool::thread_pool(std::optional<std::uint32_t> thread_count) {
  // hardware_concurrency() may answer 0 ("unknown"); a pool that never runs anything would then
  // hang every future, so one thread is the floor of the default.
  const std::uint32_t count =
      thread_count ? *thread_count : std::max(1u, std::thread::hardware_concurrency());
  try {
    m_threads.reserve(count);
    for (std::uint32_t i = 0; i < count; ++i) {
      if (const detail::ThreadStartHook& hook = StartHook()) hook(i);
      m_threads.emplace_back(&thread_pool::WorkerLoop, this);
    }
  } catch (...) {
    // Workers already started may be waiting for a task: m_done alone would not wake them, and
    // the joiner (destroyed as the exception leaves) would wait for ever.
    m_done = true;
    StopQueue();
    throw;
  }
}

thread_pool::~thread_pool() {
  StopQueue();
  m_done = true;
  RunStopHook();
  // The members go in reverse order: m_joiner joins the workers before the queue (and with it
  // every task that never ran, breaking its promise) is destroyed.
}

bool thread_pool::IsOwnThread() const {
  // The worker's own mark, not the pool's thread list: another thread may be joining one of
  // those threads meanwhile, which writes its id. A thread that has not reached its loop yet
  // runs no task, so it cannot be asking.
  return t_worker_pool_token == &m_stopping_token;
}

void thread_pool::Shutdown() {
  // Refused before anything is stopped: a task cannot wait for its own thread to end.
  if (IsOwnThread()) {
    throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur),
                            "thread_pool::Shutdown from one of its own tasks");
  }
  StopQueue();
  m_done = true;
  RunStopHook();
  for (std::thread& thread : m_threads) {
    if (thread.joinable()) thread.join();
  }
}

void thread_pool::StopQueue() {
  m_queue_stopped = true;
  m_stopping.request_stop();
  // Waking under the lock: a worker that tested the flag before it was set is already waiting
  // when the wake-up comes, so none is missed.
  std::lock_guard lock(m_queue_mutex);
  m_queue_cv.notify_all();
}

void thread_pool::Enqueue(vemo::function_wrapper task) {
  std::lock_guard lock(m_queue_mutex);
  m_queue.push_back(std::move(task));
  m_queue_cv.notify_one();
}

bool thread_pool::CallerPoolStopping() {
  return t_worker_pool_token != nullptr && t_worker_pool_token->stop_requested();
}

const qv::stop_token* thread_pool::CallerPoolStopToken() { return t_worker_pool_token; }

void thread_pool::WorkerLoop() {
  if (m_done) return;
  t_worker_pool_token = &m_stopping_token;
  for (;;) {
    vemo::function_wrapper task;
    {
      std::unique_lock lock(m_queue_mutex);
      m_queue_cv.wait(lock, [this] { return m_queue_stopped || !m_queue.empty(); });
      // A stopped queue is left even with tasks in it: those are dropped with the pool.
      if (m_queue_stopped) return;
      task = std::move(m_queue.front());
      m_queue.pop_front();
    }
    // A packaged task keeps its callable's exception for the future; nothing escapes here.
    task();
    task = vemo::function_wrapper();
    if (m_done) return;
  }
}

thread_pool* WorkerThreadPool() { return Slot().get(); }

std::unique_ptr<thread_pool> ExchangeWorkerThreadPool(std::unique_ptr<thread_pool> pool) {
  // An installed pool's workers keep the module loaded; the slot's own destruction at exit
  // releases nothing.
  const bool was_empty = Slot() == nullptr;
  if (was_empty && pool != nullptr) detail::HoldModule();
  Slot().swap(pool);
  if (!was_empty && Slot() == nullptr) detail::ReleaseModule();
  return pool;
}

namespace detail {
ThreadStartHook SetThreadStartHookForTesting(ThreadStartHook hook) {
  return std::exchange(StartHook(), std::move(hook));
}

StopHook SetStopHookForTesting(StopHook hook) {
  return std::exchange(StopHookSlot(), std::move(hook));
}
}  // namespace detail

}  // namespace qv::net
