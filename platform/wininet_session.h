// Sessions (InternetOpenW) and connections (InternetConnectW) of the WinINet layer.
//
// A session owns a libcurl share object for DNS and TLS sessions only: libcurl documents
// connection sharing between concurrent threads as unsafe. Connections are instead kept in
// transfer slots: a connection handle owns up to "max connections per server" slots, each a multi
// handle with one easy handle, whose connection cache keeps the keep-alive connection between
// requests. A request checks a slot out while its transfer runs, so the number of slots is the
// per-server bound and sequential requests reuse the warm connection of the last slot returned.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/curl_handles.h"
#include "platform/internet_handle.h"
#include "platform/transfer.h"

namespace tqplatform {

// Defaults of the options below; WinINet's own for an HTTP/1.1 server.
inline constexpr DWORD kDefaultMaxConnsPerServer = 2;
// Idle slots kept across all the connections of a session: each holds a kept-alive socket and
// its multi handle's wake-up pair, and a host keeps a connection handle per server for as long
// as it runs. Past the bound, the slot idle longest goes; its connection handle stays.
inline constexpr std::size_t kMaxIdleSlotsPerSession = 32;
inline constexpr DWORD kDefaultConnectTimeoutMs = 60'000;
inline constexpr DWORD kDefaultSendTimeoutMs = 30'000;
inline constexpr DWORD kDefaultReceiveTimeoutMs = 60'000;
// A time-out of 0 or 0xFFFFFFFF means "no time-out", as in WinINet; a connect still ends at
// libcurl's own bound (TransferClock::kDefaultConnect), so that no wait is without end.
inline constexpr DWORD kInfiniteTimeout = 0xFFFFFFFFu;

// Options that InternetSetOptionW can set on a session, a connection or a request. Unset values
// fall through to the parent handle (request -> connection -> session -> process -> default),
// looked up when a request is sent, so options set on a connection after its requests were
// opened still apply to their next send.
struct Settings {
  std::optional<DWORD> max_conns;
  std::optional<DWORD> connect_timeout;
  std::optional<DWORD> send_timeout;
  std::optional<DWORD> receive_timeout;
  std::optional<DWORD> connect_retries;  // taken as WinINet takes it; nothing applies it
  std::optional<std::string> user;
  std::optional<std::string> password;
  std::optional<std::string> proxy_user;
  std::optional<std::string> proxy_password;
  std::optional<std::string> agent;

  // Fills unset fields from `parent`.
  void Inherit(const Settings& parent);
};

// Counts the changes of every SettingsHolder in the process, so that what is derived from
// settings can be kept until one of them changes.
std::uint64_t SettingsGeneration();

class SettingsHolder {
 public:
  // One field, without copying the others.
  template <class T>
  T Get(T Settings::*field) const {
    std::lock_guard lock(mutex_);
    return settings_.*field;
  }
  // Fills the fields of `out` that are unset from these settings, without copying the others.
  void FillUnset(Settings* out) const {
    std::lock_guard lock(mutex_);
    out->Inherit(settings_);
  }
  template <class F>
  void Update(F&& change) {
    {
      std::lock_guard lock(mutex_);
      change(settings_);
      updated_.store(true, std::memory_order_release);
    }
    Changed();
  }
  // False while nothing was ever set here: most requests set nothing of their own, and then
  // have nothing to add to what they inherit.
  bool updated() const { return updated_.load(std::memory_order_acquire); }

 private:
  static void Changed();

  mutable std::mutex mutex_;
  Settings settings_;
  std::atomic<bool> updated_{false};
};

// Settings made with a null handle: they apply to every handle of the process.
SettingsHolder& ProcessSettings();

class Session;

// The sessions alive now, for a process-wide change that their connections must see.
std::vector<std::shared_ptr<Session>> LiveSessions();

// False when the text holds a CR or LF: it cannot go out as (part of) one header line.
bool FitsOneLine(std::string_view text);

// A test may point certificate verification at its own CA file (see fault_injection.h).
std::optional<std::string> TestCaFile();

class Session : public InternetObject {
 public:
  static constexpr HandleKind kKind = HandleKind::kSession;

  Session(std::string agent, ProxyMode mode, std::string proxy,
          std::vector<std::string> proxy_bypass);
  ~Session() override;

  CURLSH* share() const { return share_.get(); }
  ProxyMode proxy_mode() const { return proxy_mode_; }
  // The proxy for a scheme ("http" or "https"), in libcurl's form; empty for none.
  std::string ProxyFor(const std::string& scheme) const;
  // The bypass list's patterns (see BypassesProxy in transfer.h).
  const std::vector<std::string>& proxy_bypass() const { return proxy_bypass_; }
  SettingsHolder& settings() { return settings_; }

  // Bookkeeping of its connections' idle slots (see kMaxIdleSlotsPerSession): a slot made idle
  // gets a stamp, later ones larger.
  std::uint64_t SlotIdled();
  void SlotsTaken(std::size_t count) { idle_slots_.fetch_sub(count, std::memory_order_relaxed); }
  // Drops the slots idle longest until the bound holds. Never throws; called without any
  // connection's lock held.
  void TrimIdleSlots() noexcept;

 private:
  static void Lock(CURL*, curl_lock_data data, curl_lock_access, void* self);
  static void Unlock(CURL*, curl_lock_data data, void* self);

  std::mutex locks_[CURL_LOCK_DATA_LAST];
  CurlShare share_;  // after the locks: its clean-up still takes them
  ProxyMode proxy_mode_;
  std::string proxy_;
  std::vector<std::string> proxy_bypass_;
  SettingsHolder settings_;
  std::atomic<std::size_t> idle_slots_{0};
  std::atomic<std::uint64_t> idle_stamps_{0};
};

// A connection's slots are its WinINet rule "max connections per server": a request checks one
// out for its transfer and waits while all are in use.
class Connection : public InternetObject, public SlotSource {
 public:
  static constexpr HandleKind kKind = HandleKind::kConnection;

  Connection(std::shared_ptr<Session> session, const std::string& host, INTERNET_PORT port);
  ~Connection() override;

  const std::shared_ptr<Session>& session() const { return session_; }
  // "scheme://host[:port]" of the requests made on this connection.
  const std::string& Origin(bool secure) const { return origins_[secure ? 1 : 0]; }
  SettingsHolder& settings() { return settings_; }

  // This connection's settings, with the unset fields filled from its session's and then the
  // process's. What they give is kept, and shared with the requests that read it, until a
  // setting changes anywhere, so that requests do not each look through (and lock) handles other
  // threads share, nor copy the settings' texts.
  std::shared_ptr<const Settings> Inherited() const;

  // Checks a slot out, waiting while all "max connections" slots are in use. A stop must be
  // followed by WakeWaiters to end the wait.
  std::unique_ptr<TransferSlot> Acquire(const StopSignal& stop,
                                        std::optional<std::chrono::milliseconds> wait,
                                        DWORD* error) override;
  // Gives a slot back; its easy handle must no longer be in its multi.
  void Release(std::unique_ptr<TransferSlot> slot) override;
  // Kept for the next slot checked out without room of its own, up to one per slot.
  void KeepStorage(std::string storage) override;
  void WakeWaiters();
  // The stamp of this connection's slot idle longest; none without an idle slot.
  std::optional<std::uint64_t> OldestIdleStamp() const;
  // Closes the idle slot stamped `stamp`, and the storage and transfers kept for requests once
  // none is left; false when that slot is no longer idle.
  bool DropIdleSlot(std::uint64_t stamp);

  // A transfer for a new request, stopped by `stop`: one a closed request left, when there is
  // one, whose buffers are warm and as large as requests on this connection need.
  std::unique_ptr<Transfer> TakeTransfer(StopSignal& stop);
  // Takes back the transfer of a request being destroyed; up to one per slot is kept.
  void KeepTransfer(std::unique_ptr<Transfer> transfer);

 private:
  // Where settings come from, nearest first: the connection, its session, the process.
  std::array<const SettingsHolder*, 3> Chain() const;
  DWORD MaxConns() const;
  // Moves the idle slots whose kept connection spoke (the server closed it, mostly) into
  // `closed`, all but the one used last, which the transfer taking it checks; slots_mutex_ must
  // be held.
  void SetAsideIdleSlotsThatSpoke(std::vector<std::unique_ptr<TransferSlot>>* closed);
  // MaxConns, kept until a setting changes; slots_mutex_ must be held.
  DWORD MaxConnsLocked() const;
  // True when no slot is idle or in use: the connection holds no socket, and what it kept for
  // the next request goes, or stays for as long as the host keeps the handle (a host meets many
  // servers once). slots_mutex_ must be held.
  bool UnusedLocked() const { return idle_.empty() && in_use_ == 0; }

  std::shared_ptr<Session> session_;  // outlives the slots, whose easy handles use its share
  const std::array<std::string, 2> origins_;  // http, https
  SettingsHolder settings_;

  mutable std::mutex inherited_mutex_;
  // The chain's settings as of inherited_generation_; null until first asked for.
  mutable std::shared_ptr<const Settings> inherited_;
  mutable std::uint64_t inherited_generation_ = 0;

  mutable std::mutex slots_mutex_;
  std::condition_variable slots_cv_;
  struct IdleSlot {
    std::unique_ptr<TransferSlot> slot;
    std::uint64_t stamp;  // from the session's SlotIdled
  };
  std::vector<IdleSlot> idle_;  // most recently used last
  // When SetAsideIdleSlotsThatSpoke last looked at the idle slots.
  std::chrono::steady_clock::time_point idle_looked_at_;
  std::vector<std::string> spare_storage_;            // see KeepStorage
  std::vector<std::unique_ptr<Transfer>> spare_transfers_;  // see KeepTransfer; made ready
  DWORD in_use_ = 0;
  mutable DWORD max_conns_ = 0;  // MaxConns as of max_conns_generation_
  mutable std::uint64_t max_conns_generation_ = 0;
  mutable bool max_conns_valid_ = false;
  std::atomic<std::uint32_t> waiting_{0};  // requests waiting in Acquire
};

}  // namespace tqplatform
