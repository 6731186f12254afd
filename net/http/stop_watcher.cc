#include "net/http/stop_watcher.h"

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "net/http/module_hold.h"

namespace qv::net::detail {

struct StopWatch::Entry {
  enum class State { Watching, Running, Ran };

  qv::stop_token stop;
  std::function<void()> on_stop;
  State state = State::Watching;  // guarded by the watcher's mutex
};

namespace {

class Watcher {
 public:
  Watcher() = default;
  // At process exit the thread is ended before the entries it reads go.
  ~Watcher() { Shutdown(false); }
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;

  // False when the thread could not be started: the entry is then not watched.
  bool Add(const std::shared_ptr<StopWatch::Entry>& entry) {
    std::lock_guard lock(m_mutex);
    if (!m_running) {
      try {
        m_thread = std::thread(&Watcher::Loop, this);
      } catch (const std::system_error&) {
        return false;
      }
      m_running = true;
      HoldModule();
    }
    m_entries.push_back(entry);
    // A token stopped already is seen at once, not a poll interval later.
    ++m_generation;
    m_wake.notify_all();
    return true;
  }

  // True when the entry's action ran. Waits for an action that is running.
  bool Remove(const std::shared_ptr<StopWatch::Entry>& entry) {
    std::unique_lock lock(m_mutex);
    m_ran.wait(lock, [&] { return entry->state != StopWatch::Entry::State::Running; });
    m_entries.erase(std::remove(m_entries.begin(), m_entries.end(), entry), m_entries.end());
    return entry->state == StopWatch::Entry::State::Ran;
  }

  // `release` gives back the module hold the thread took; not at exit, where nothing may unload.
  void Shutdown(bool release) {
    std::thread thread;
    {
      std::lock_guard lock(m_mutex);
      if (!m_running) return;
      m_stopping = true;
      thread = std::move(m_thread);
      m_wake.notify_all();
    }
    thread.join();
    std::lock_guard lock(m_mutex);
    m_stopping = false;
    m_running = false;
    if (release) ReleaseModule();
  }

 private:
  void Loop() {
    using State = StopWatch::Entry::State;
    std::unique_lock lock(m_mutex);
    while (!m_stopping) {
      if (m_entries.empty()) {
        m_wake.wait(lock, [&] { return m_stopping || !m_entries.empty(); });
        continue;
      }
      std::vector<std::shared_ptr<StopWatch::Entry>> due;
      for (const auto& entry : m_entries) {
        if (entry->state == State::Watching && entry->stop.stop_requested()) {
          entry->state = State::Running;
          due.push_back(entry);
        }
      }
      if (!due.empty()) {
        // The actions run unlocked: closing a handle may wait for the call blocked on it to
        // return, and that call's thread then takes the lock in Remove.
        lock.unlock();
        for (const auto& entry : due) {
          try {
            entry->on_stop();
          } catch (...) {
            // An action must not throw; if one does, the watcher still serves the others.
          }
        }
        lock.lock();
        for (const auto& entry : due) entry->state = State::Ran;
        m_ran.notify_all();
        continue;
      }
      const std::uint64_t generation = m_generation;
      m_wake.wait_for(lock, kStopPollInterval,
                      [&] { return m_stopping || m_generation != generation; });
    }
  }

  std::mutex m_mutex;
  std::condition_variable m_wake;  // the thread: an entry was added, or it is to end
  std::condition_variable m_ran;   // Remove: an action ended
  std::vector<std::shared_ptr<StopWatch::Entry>> m_entries;
  std::uint64_t m_generation = 0;
  bool m_running = false;
  bool m_stopping = false;
  std::thread m_thread;
};

// Made at load, not on first use: the worker pool, ended at exit, is made later and so ends
// (with the sends of its running tasks) before the watcher goes. Not as a Windows process ends:
// its thread is gone already, maybe in the middle of a wait (detail::ProcessEnding).
Watcher* const g_watcher = new Watcher;
struct WatcherEnd {
  ~WatcherEnd() {
    if (!ProcessEnding()) delete g_watcher;
  }
} g_watcher_end;

Watcher& TheWatcher() { return *g_watcher; }

}  // namespace

StopWatch::StopWatch(qv::stop_token stop, std::function<void()> on_stop) {
  if (!stop.stop_possible()) return;
  auto entry = std::make_shared<Entry>();
  entry->stop = std::move(stop);
  entry->on_stop = std::move(on_stop);
  if (TheWatcher().Add(entry)) m_entry = std::move(entry);
}

StopWatch::~StopWatch() { Finish(); }

bool StopWatch::Finish() {
  if (!m_finished) {
    m_finished = true;
    if (m_entry) m_ran = TheWatcher().Remove(m_entry);
    m_entry.reset();
  }
  return m_ran;
}

void ShutdownStopWatcher() { TheWatcher().Shutdown(true); }

}  // namespace qv::net::detail
