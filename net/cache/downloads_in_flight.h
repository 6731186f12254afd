// Concurrent opens of one cache entry within this process share one download: the first open
// that must ask the server becomes the download, the others wait for its outcome and then serve
// what it left. Without it, N threads opening one document send N requests for the same bytes,
// and since only one store of an entry can hold its temporary file, the others' stores are
// refused and those opens get nothing. A waiter waits no longer than the download, which the
// transport's time-outs bound, and leaves soon after its own stop (it looks every few
// milliseconds: the token cannot wake it). Other processes are not seen here; they meet the
// download's files on disk as before.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "net/host/tqutil.h"

namespace qv::net::detail {

// What a finished download leaves for the opens that waited for it.
struct DownloadOutcome {
  enum class Kind {
    kAbandoned,  // ended without an answer meant for others (stopped, or an exception escaped)
    kEntry,      // the entry file holds the body to serve (stored, confirmed or kept)
    kMemory,     // a body that must not be stored, held in memory
    kFailed,     // nothing to serve
  };
  Kind kind = Kind::kAbandoned;
  std::wstring url;  // the URL the download asked for
  int flags = 0;     // its open flags
  std::shared_ptr<qv::io::MemorySink> body;  // kMemory
  // The log lines the download wrote: an open that takes the outcome writes them too, as it
  // would have had it asked the server itself.
  std::vector<TqULogRecord> log;
};

class DownloadsInFlight {
 public:
  struct Slot;

  // The caller's part in the download of one entry: the download itself, or a wait for it.
  class Ticket {
   public:
    Ticket(Ticket&& other) noexcept;
    Ticket& operator=(Ticket&&) = delete;
    Ticket(const Ticket&) = delete;
    // A download that ends without Finish (its thread threw) counts as abandoned, so that no
    // waiter is left waiting.
    ~Ticket();

    bool IsDownload() const { return m_is_download; }
    // The download: publishes its outcome and wakes the waiters. Later opens start afresh.
    void Finish(DownloadOutcome outcome);
    // A waiter: the download's outcome, or null when `stop` was requested first (the waiter
    // leaves; the download goes on for the others).
    std::shared_ptr<const DownloadOutcome> Wait(const qv::stop_token& stop);

   private:
    friend class DownloadsInFlight;
    Ticket(DownloadsInFlight* table, std::shared_ptr<Slot> slot, bool is_download);

    DownloadsInFlight* m_table;
    std::shared_ptr<Slot> m_slot;
    bool m_is_download;
  };

  DownloadsInFlight();
  ~DownloadsInFlight();
  DownloadsInFlight(const DownloadsInFlight&) = delete;
  DownloadsInFlight& operator=(const DownloadsInFlight&) = delete;

  // Makes the caller the download of `id` when none is under way, a waiter for it otherwise.
  Ticket Join(const std::string& id);

  // The table of this process.
  static DownloadsInFlight& Process();

 private:
  struct State;
  void Publish(Slot& slot, std::shared_ptr<const DownloadOutcome> outcome);
  std::unique_ptr<State> m_state;
};

// Runs `hook` (empty: none) on a waiter's thread each time it starts to wait for a download.
// Not thread-safe: set while no open runs.
void SetDownloadWaitHookForTesting(std::function<void()> hook);

}  // namespace qv::net::detail
