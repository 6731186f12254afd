// The registry of live handles, the test seams (the open hook, the removal fault) and the
// per-thread fault injection of TqUSysFileFaults.
#include "tqutil/sys_file_internal.h"

#include "tqutil/sys_file_faults.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <unordered_set>
#include <utility>

namespace qv::sys_file {
namespace {

// Live handles, so that a null, closed or foreign handle is refused instead of followed.
struct Registry {
  std::mutex mutex;
  std::unordered_set<TqUSysFile::Handle> live;
};

Registry& TheRegistry() {
  static Registry* const registry = new Registry();
  return *registry;
}

// A function a test installs to reach a moment inside the library (the ...ForTesting members).
// Called without any lock held, so that it may wait for other threads to arrive; costs one
// atomic load while none is installed.
template <class Function>
class TestHook {
 public:
  void Set(Function function) {
    std::lock_guard lock(m_mutex);
    if (function) {
      m_function = std::make_shared<const Function>(std::move(function));
    } else {
      m_function.reset();
    }
    m_set.store(m_function != nullptr, std::memory_order_release);
  }
  std::shared_ptr<const Function> Get() {
    if (!m_set.load(std::memory_order_acquire)) return nullptr;
    std::lock_guard lock(m_mutex);
    return m_function;
  }

 private:
  std::mutex m_mutex;
  std::atomic<bool> m_set{false};
  std::shared_ptr<const Function> m_function;
};

TestHook<std::function<void()>>& TheOpenHook() {
  static auto* const hook = new TestHook<std::function<void()>>();
  return *hook;
}

TestHook<std::function<void()>>& TheUseHook() {
  static auto* const hook = new TestHook<std::function<void()>>();
  return *hook;
}

TestHook<std::function<void()>>& TheCreateHook() {
  static auto* const hook = new TestHook<std::function<void()>>();
  return *hook;
}

TestHook<std::function<bool(const TqUSysDirectory::Char*)>>& TheRemoveFault() {
  static auto* const fault = new TestHook<std::function<bool(const TqUSysDirectory::Char*)>>();
  return *fault;
}

}  // namespace

Use::Use(TqUSysFile::Handle h) {
  if (!h) return;
  {
    Registry& r = TheRegistry();
    std::lock_guard lock(r.mutex);
    if (r.live.count(h) == 0) return;
    ++h->uses;
    m_handle = h;
  }
  if (auto hook = TheUseHook().Get()) (*hook)();
}

Use::~Use() {
  if (!m_handle) return;
  bool last = false;
  {
    Registry& r = TheRegistry();
    std::lock_guard lock(r.mutex);
    last = --m_handle->uses == 0 && m_handle->closed;
  }
  if (last) delete m_handle;  // closes the file that CloseFile left to this call
}

void Register(TqUSysFileHandleTag* record) {
  Registry& r = TheRegistry();
  std::lock_guard lock(r.mutex);
  r.live.insert(record);
}

#if defined(_WIN32)
TqUSysFile::Handle Adopt(std::unique_ptr<TqUSysFileHandleTag> record) {
  Register(record.get());
  return record.release();
}
#endif

bool Forget(TqUSysFile::Handle h, bool* in_use) {
  *in_use = false;
  if (!h) return false;
  Registry& r = TheRegistry();
  std::lock_guard lock(r.mutex);
  if (r.live.erase(h) == 0) return false;
  h->closed = true;
  *in_use = h->uses > 0;
  return true;
}

bool ValidArguments(std::uint32_t access, std::uint32_t share, std::uint32_t creation,
                    std::uint32_t reserved1, std::uint32_t reserved2) {
  return access <= TqUSysFile::kAccessWrite && share <= TqUSysFile::kShareRead &&
         creation >= TqUSysFile::kCreateAlways && creation <= TqUSysFile::kOpenAlways &&
         reserved1 == 0 && reserved2 == 0;
}

void OpenedForTesting() {
  if (auto hook = TheOpenHook().Get()) (*hook)();
}

void CreatedForTesting() {
  if (auto hook = TheCreateHook().Get()) (*hook)();
}

bool RemovalRefused(const TqUSysDirectory::Char* name) {
  auto refuse = TheRemoveFault().Get();
  return refuse && (*refuse)(name);
}

}  // namespace qv::sys_file

namespace {

// The threads that have armed TqUSysFileFaults, and each thread's own count.
std::atomic<int> g_armed_threads{0};
struct ThreadFaults {
  bool armed = false;
  std::uint64_t count = 0;
  std::uint64_t fail_at = 0;
  int error = 0;
  const char* failed = nullptr;
};
thread_local ThreadFaults t_faults;
// The most one read returns (0: no limit).
std::atomic<std::uint64_t> g_read_limit{0};

}  // namespace

void TqUSysFile::SetOpenHookForTesting(std::function<void()> hook) {
  qv::sys_file::TheOpenHook().Set(std::move(hook));
}

void TqUSysFile::SetUseHookForTesting(std::function<void()> hook) {
  qv::sys_file::TheUseHook().Set(std::move(hook));
}

void TqUSysDirectory::SetCreateHookForTesting(std::function<void()> hook) {
  qv::sys_file::TheCreateHook().Set(std::move(hook));
}

void TqUSysDirectory::SetRemoveFaultForTesting(std::function<bool(const Char* name)> refuse) {
  qv::sys_file::TheRemoveFault().Set(std::move(refuse));
}

void TqUSysFileFaults::Arm(std::uint64_t fail_at, int error) {
  if (!t_faults.armed) g_armed_threads.fetch_add(1, std::memory_order_relaxed);
  t_faults = {true, 0, fail_at, error, nullptr};
}

std::uint64_t TqUSysFileFaults::Disarm() {
  if (t_faults.armed) g_armed_threads.fetch_sub(1, std::memory_order_relaxed);
  t_faults.armed = false;
  return t_faults.count;
}

void TqUSysFileFaults::LimitReads(std::uint64_t most) {
  g_read_limit.store(most, std::memory_order_relaxed);
}

std::uint64_t TqUSysFileFaults::ReadSize(std::uint64_t size) {
  const std::uint64_t most = g_read_limit.load(std::memory_order_relaxed);
  return most == 0 || size < most ? size : most;
}

const char* TqUSysFileFaults::Failed() { return t_faults.failed; }

bool TqUSysFileFaults::Fails(const char* kind) {
  if (g_armed_threads.load(std::memory_order_relaxed) == 0 || !t_faults.armed) return false;
  if (t_faults.count++ != t_faults.fail_at) return false;
  t_faults.failed = kind;
#if defined(_WIN32)
  ::SetLastError(static_cast<DWORD>(t_faults.error));
#else
  errno = t_faults.error;
#endif
  return true;
}
