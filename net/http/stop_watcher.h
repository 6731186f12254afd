// One process-wide thread that watches stop tokens for waits that cannot look at a token
// themselves, such as a send blocked inside the transport: when a watched token reports a stop,
// the thread runs the action registered with it, once. qv::stop_token has no callbacks, so the
// thread polls the tokens it watches every kStopPollInterval, and sleeps while it watches none.
// Internal to the library.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "net/host/tqutil.h"

namespace qv::net::detail {

// How long a stop may go unnoticed by the watcher thread.
inline constexpr std::chrono::milliseconds kStopPollInterval{100};

// One registration with the watcher thread, from construction to Finish (or destruction). The
// thread is started on first use. Neither copyable nor movable; used by one thread.
class StopWatch {
 public:
  // Watches `stop`; when it reports a stop, `on_stop` runs on the watcher thread, at most once,
  // and must not throw. A token that can never stop is not watched. If the thread cannot be
  // started, nothing is watched (the wait then ends as it would have without the watch).
  StopWatch(qv::stop_token stop, std::function<void()> on_stop);
  ~StopWatch();
  StopWatch(const StopWatch&) = delete;
  StopWatch& operator=(const StopWatch&) = delete;

  // Ends the watch: afterwards `on_stop` never starts. True when it ran; an action still running
  // is waited for, so that on return it has ended. Later calls give the same answer.
  bool Finish();

  struct Entry;

 private:
  std::shared_ptr<Entry> m_entry;
  bool m_finished = false;
  bool m_ran = false;
};

// Ends the watcher thread and waits for it (TerminateHttp; also done at exit, but not as a
// Windows process ends: the thread is gone by then). Watches still registered are no longer
// served until a new watch starts the thread again.
void ShutdownStopWatcher();

}  // namespace qv::net::detail
