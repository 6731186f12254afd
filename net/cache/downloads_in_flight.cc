#include "net/cache/downloads_in_flight.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <unordered_map>
#include <utility>

namespace qv::net::detail {
namespace {

std::function<void()>& WaitHook() {
  static std::function<void()> hook;
  return hook;
}

// How often a waiter looks at its stop token: the token has no callback to wake it.
constexpr std::chrono::milliseconds kStopPoll{20};

}  // namespace

void SetDownloadWaitHookForTesting(std::function<void()> hook) { WaitHook() = std::move(hook); }

struct DownloadsInFlight::Slot {
  std::shared_ptr<const DownloadOutcome> outcome;  // set once, under the table's mutex
  std::string id;
};

struct DownloadsInFlight::State {
  std::mutex mutex;
  std::condition_variable ended;
  std::unordered_map<std::string, std::shared_ptr<Slot>> downloads;
};

DownloadsInFlight::DownloadsInFlight() : m_state(std::make_unique<State>()) {}
DownloadsInFlight::~DownloadsInFlight() = default;

DownloadsInFlight& DownloadsInFlight::Process() {
  // Never destroyed: opens on other threads may still end while the process exits.
  static DownloadsInFlight* const table = new DownloadsInFlight();
  return *table;
}

DownloadsInFlight::Ticket DownloadsInFlight::Join(const std::string& id) {
  std::lock_guard lock(m_state->mutex);
  if (auto it = m_state->downloads.find(id); it != m_state->downloads.end()) {
    return Ticket(this, it->second, false);
  }
  // Made whole before it is recorded: a slot that could not be made (out of memory) must not
  // stay behind as a download under way, which every later open would wait for.
  auto slot = std::make_shared<Slot>();
  slot->id = id;
  m_state->downloads.emplace(id, slot);
  return Ticket(this, std::move(slot), true);
}

void DownloadsInFlight::Publish(Slot& slot, std::shared_ptr<const DownloadOutcome> outcome) {
  {
    std::lock_guard lock(m_state->mutex);
    slot.outcome = std::move(outcome);
    // Opens from now on ask afresh (and mostly find the entry this download left).
    auto it = m_state->downloads.find(slot.id);
    if (it != m_state->downloads.end() && it->second.get() == &slot) m_state->downloads.erase(it);
  }
  m_state->ended.notify_all();
}

DownloadsInFlight::Ticket::Ticket(DownloadsInFlight* table, std::shared_ptr<Slot> slot,
                                  bool is_download)
    : m_table(table), m_slot(std::move(slot)), m_is_download(is_download) {}

DownloadsInFlight::Ticket::Ticket(Ticket&& other) noexcept
    : m_table(other.m_table), m_slot(std::move(other.m_slot)), m_is_download(other.m_is_download) {
  other.m_is_download = false;
}

DownloadsInFlight::Ticket::~Ticket() {
  if (m_is_download && m_slot) {
    try {
      m_table->Publish(*m_slot, std::make_shared<DownloadOutcome>());
    } catch (...) {
      // Out of memory for the outcome: publish none rather than leave the waiters hanging.
      m_table->Publish(*m_slot, nullptr);
    }
  }
}

void DownloadsInFlight::Ticket::Finish(DownloadOutcome outcome) {
  if (!m_is_download || !m_slot) return;
  std::shared_ptr<const DownloadOutcome> published;
  try {
    published = std::make_shared<const DownloadOutcome>(std::move(outcome));
  } catch (...) {
    // Out of memory for the outcome: the waiters see an abandoned download and ask afresh.
  }
  m_is_download = false;
  m_table->Publish(*m_slot, std::move(published));
}

std::shared_ptr<const DownloadOutcome> DownloadsInFlight::Ticket::Wait(
    const qv::stop_token& stop) {
  State& state = *m_table->m_state;
  if (WaitHook()) WaitHook()();
  std::unique_lock lock(state.mutex);
  // Ended: an outcome, or the slot is no longer the one under way (a download that could not
  // even record an outcome counts as abandoned).
  auto ended = [&] {
    if (m_slot->outcome) return true;
    auto it = state.downloads.find(m_slot->id);
    return it == state.downloads.end() || it->second != m_slot;
  };
  while (!ended()) {
    if (stop.stop_requested()) return nullptr;
    if (stop.stop_possible()) {
      state.ended.wait_for(lock, kStopPoll);
    } else {
      state.ended.wait(lock);
    }
  }
  if (m_slot->outcome) return m_slot->outcome;
  return std::make_shared<const DownloadOutcome>();
}

}  // namespace qv::net::detail
