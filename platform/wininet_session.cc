// InternetOpenW, InternetConnectW and InternetCloseHandle, and the sessions and connections they
// make. InternetSetOptionW is in internet_options.cc.
#include "platform/wininet_session.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

#include "platform/fault_injection.h"
#include "platform/wide_text.h"
#include "platform/wininet_request.h"

namespace tqplatform {

void Settings::Inherit(const Settings& parent) {
  auto fill = [](auto& mine, const auto& theirs) {
    if (!mine.has_value()) mine = theirs;
  };
  fill(max_conns, parent.max_conns);
  fill(connect_timeout, parent.connect_timeout);
  fill(send_timeout, parent.send_timeout);
  fill(receive_timeout, parent.receive_timeout);
  fill(connect_retries, parent.connect_retries);
  fill(user, parent.user);
  fill(password, parent.password);
  fill(proxy_user, parent.proxy_user);
  fill(proxy_password, parent.proxy_password);
  fill(agent, parent.agent);
}

namespace {
std::atomic<std::uint64_t> g_settings_generation{0};
}  // namespace

std::uint64_t SettingsGeneration() { return g_settings_generation.load(std::memory_order_acquire); }

void SettingsHolder::Changed() { g_settings_generation.fetch_add(1, std::memory_order_acq_rel); }

SettingsHolder& ProcessSettings() {
  static auto* holder = new SettingsHolder;
  return *holder;
}

namespace {
// The sessions of the process, for a change of a process-wide setting that their connections'
// waiting requests must see. Never destroyed: handles may be used from static destructors.
struct SessionList {
  std::mutex mutex;
  std::vector<std::weak_ptr<Session>> sessions;
};

SessionList& Sessions() {
  static auto* list = new SessionList;
  return *list;
}

void AddSession(const std::shared_ptr<Session>& session) {
  SessionList& list = Sessions();
  std::lock_guard lock(list.mutex);
  std::erase_if(list.sessions, [](const auto& weak) { return weak.expired(); });
  list.sessions.push_back(session);
}

}  // namespace

std::vector<std::shared_ptr<Session>> LiveSessions() {
  std::vector<std::shared_ptr<Session>> out;
  SessionList& list = Sessions();
  std::lock_guard lock(list.mutex);
  for (const auto& weak : list.sessions) {
    if (auto session = weak.lock()) out.push_back(std::move(session));
  }
  return out;
}

namespace {
std::mutex g_ca_mutex;
std::optional<std::string> g_ca_file;
std::atomic<bool> g_ca_file_set{false};  // spares every request the lock outside such tests
}  // namespace

std::optional<std::string> TestCaFile() {
  if (!g_ca_file_set.load(std::memory_order_acquire)) return std::nullopt;
  std::lock_guard lock(g_ca_mutex);
  return g_ca_file;
}

// --- Session ---------------------------------------------------------------------------------

Session::Session(std::string agent, ProxyMode mode, std::string proxy,
                 std::vector<std::string> proxy_bypass)
    : InternetObject(kKind), proxy_mode_(mode), proxy_(std::move(proxy)),
      proxy_bypass_(std::move(proxy_bypass)) {
  settings_.Update([&](Settings& s) { s.agent = std::move(agent); });
  share_.reset(curl_share_init());
  if (share_ != nullptr) {
    CURLSH* share = share_.get();
    curl_share_setopt(share, CURLSHOPT_LOCKFUNC, &Session::Lock);
    curl_share_setopt(share, CURLSHOPT_UNLOCKFUNC, &Session::Unlock);
    curl_share_setopt(share, CURLSHOPT_USERDATA, this);
    curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
  }
}

Session::~Session() = default;

std::uint64_t Session::SlotIdled() {
  idle_slots_.fetch_add(1, std::memory_order_relaxed);
  return idle_stamps_.fetch_add(1, std::memory_order_relaxed);
}

void Session::TrimIdleSlots() noexcept {
  // Rare (only past the bound), so the connections are looked through rather than tracked.
  try {
    while (idle_slots_.load(std::memory_order_relaxed) > kMaxIdleSlotsPerSession) {
      std::shared_ptr<Connection> oldest;
      std::uint64_t stamp = 0;
      for (std::shared_ptr<InternetObject>& child : Children()) {
        if (child->kind() != HandleKind::kConnection) continue;
        auto connection = std::static_pointer_cast<Connection>(std::move(child));
        const std::optional<std::uint64_t> its = connection->OldestIdleStamp();
        if (its.has_value() && (oldest == nullptr || *its < stamp)) {
          stamp = *its;
          oldest = std::move(connection);
        }
      }
      // Taken meanwhile by a request: the next slot made idle trims again.
      if (oldest == nullptr || !oldest->DropIdleSlot(stamp)) return;
    }
  } catch (const std::bad_alloc&) {
    // No room to look: the slots stay until a later release finds some.
  }
}

void Session::Lock(CURL*, curl_lock_data data, curl_lock_access, void* self) {
  static_cast<Session*>(self)->locks_[data].lock();
}

void Session::Unlock(CURL*, curl_lock_data data, void* self) {
  static_cast<Session*>(self)->locks_[data].unlock();
}

namespace {

// `proxy` with WinINet's port for it when it names none: 1080 for SOCKS, 80 for the others
// (libcurl would take 1080 for every kind).
std::string WithPort(std::string proxy, std::string_view port) {
  if (proxy.empty()) return proxy;
  const std::size_t scheme_end = proxy.find("://");
  const std::size_t host = scheme_end == std::string::npos ? 0 : scheme_end + 3;
  if (scheme_end != std::string::npos && proxy.starts_with("socks")) port = "1080";
  const std::size_t end = std::min(proxy.find('/', host), proxy.size());
  std::size_t after_host = host;  // a port's colon comes after an IPv6 address's brackets
  if (host < end && proxy[host] == '[') after_host = std::min(proxy.find(']', host), end);
  if (proxy.find(':', after_host) < end) return proxy;
  proxy.insert(end, std::string(":").append(port));
  return proxy;
}

}  // namespace

std::string Session::ProxyFor(const std::string& scheme) const {
  // WinINet's list: entries separated by spaces or semicolons, each "[scheme=]proxy"; an entry
  // without a scheme serves every scheme, and a "socks" entry those left without a proxy. WinINet
  // speaks SOCKS version 4, with the name looked up here.
  std::string fallback;
  std::string socks;
  std::size_t i = 0;
  while (i < proxy_.size()) {
    while (i < proxy_.size() && (proxy_[i] == ' ' || proxy_[i] == ';')) ++i;
    const std::size_t start = i;
    while (i < proxy_.size() && proxy_[i] != ' ' && proxy_[i] != ';') ++i;
    const std::string entry = proxy_.substr(start, i - start);
    if (entry.empty()) continue;
    const auto eq = entry.find('=');
    const std::string_view name = std::string_view(entry).substr(0, eq);
    if (eq == std::string::npos) {
      if (fallback.empty()) fallback = entry;
    } else if (EqualsIgnoreCase(name, scheme)) {
      return WithPort(entry.substr(eq + 1), "80");
    } else if (EqualsIgnoreCase(name, "socks") && socks.empty() && eq + 1 < entry.size()) {
      socks = entry.substr(eq + 1);
      if (socks.find("://") == std::string::npos) socks.insert(0, "socks4://");
    }
  }
  return fallback.empty() ? WithPort(socks, "1080") : WithPort(fallback, "80");
}

// --- Transfer slots and connections ------------------------------------------------------------

namespace {

std::string MakeOrigin(bool secure, const std::string& host, INTERNET_PORT port) {
  std::string url = secure ? "https://" : "http://";
  if (host.find(':') != std::string::npos) {
    url.append(1, '[').append(host).append(1, ']');
  } else {
    url += host;
  }
  if (port != INTERNET_INVALID_PORT_NUMBER) url.append(1, ':').append(std::to_string(port));
  return url;
}

}  // namespace

Connection::Connection(std::shared_ptr<Session> session, const std::string& host,
                       INTERNET_PORT port)
    : InternetObject(kKind), session_(std::move(session)),
      origins_{MakeOrigin(false, host, port), MakeOrigin(true, host, port)} {}

Connection::~Connection() {
  std::vector<std::unique_ptr<Transfer>> transfers;
  {
    std::lock_guard lock(slots_mutex_);
    transfers.swap(spare_transfers_);
  }
  // Outside the lock: a transfer's end hands its room back through KeepStorage.
  transfers.clear();
  std::lock_guard lock(slots_mutex_);
  session_->SlotsTaken(idle_.size());
  idle_.clear();
  spare_storage_.clear();
}

std::array<const SettingsHolder*, 3> Connection::Chain() const {
  return {&settings_, &session_->settings(), &ProcessSettings()};
}

std::shared_ptr<const Settings> Connection::Inherited() const {
  std::lock_guard lock(inherited_mutex_);
  // The generation is read before the holders: a change made meanwhile leaves a newer generation
  // than the one recorded, and the next call looks again.
  const std::uint64_t generation = SettingsGeneration();
  if (inherited_ == nullptr || inherited_generation_ != generation) {
    // Made anew, never changed in place: requests may still hold the one before.
    auto settings = std::make_shared<Settings>();
    for (const SettingsHolder* holder : Chain()) holder->FillUnset(settings.get());
    inherited_ = std::move(settings);
    inherited_generation_ = generation;
  }
  return inherited_;
}

DWORD Connection::MaxConns() const {
  // The one field, without copying the strings of the others: this runs when a closed request
  // hands its transfer and slot back, in destructors, where an allocation that fails would end
  // the process.
  for (const SettingsHolder* holder : Chain()) {
    if (const std::optional<DWORD> value = holder->Get(&Settings::max_conns)) return *value;
  }
  return kDefaultMaxConnsPerServer;
}

DWORD Connection::MaxConnsLocked() const {
  // The chain is looked through (under its own lock) only when a setting changed somewhere
  // since the last look; the generation is read first, as Inherited does.
  const std::uint64_t generation = SettingsGeneration();
  if (!max_conns_valid_ || max_conns_generation_ != generation) {
    max_conns_ = MaxConns();
    max_conns_generation_ = generation;
    max_conns_valid_ = true;
  }
  return max_conns_;
}

std::unique_ptr<TransferSlot> Connection::Acquire(const StopSignal& stop,
                                                  std::optional<std::chrono::milliseconds> wait,
                                                  DWORD* error) {
  std::vector<std::unique_ptr<TransferSlot>> closed;  // close their connections after the lock
  std::unique_lock lock(slots_mutex_);
  // The bound is read again at each wake-up: a raised one lets waiting requests go at once.
  auto ready = [&] { return stop.stopped() || in_use_ < MaxConnsLocked(); };
  if (!ready()) {
    // Counted before the stop and the bound are looked at again (see WakeWaiters).
    waiting_.fetch_add(1);
    std::atomic_thread_fence(std::memory_order_seq_cst);
    bool in_time = true;
    if (!wait.has_value()) {
      slots_cv_.wait(lock, ready);
    } else {
      in_time = slots_cv_.wait_for(lock, *wait, ready);
    }
    waiting_.fetch_sub(1);
    if (!in_time) {
      *error = ERROR_INTERNET_TIMEOUT;
      return nullptr;
    }
  }
  if (stop.stopped()) {
    *error = ERROR_INTERNET_OPERATION_CANCELLED;
    return nullptr;
  }
  std::unique_ptr<TransferSlot> slot;
  // Looked for at most once a second: each look asks the system about every other idle slot,
  // under the lock, and a server's keep-alive time-out is seconds long anyway.
  if (idle_.size() > 1) {
    const auto now = std::chrono::steady_clock::now();
    if (now - idle_looked_at_ >= std::chrono::seconds(1)) {
      idle_looked_at_ = now;
      SetAsideIdleSlotsThatSpoke(&closed);
    }
  }
  if (!idle_.empty()) {
    slot = std::move(idle_.back().slot);
    idle_.pop_back();
    session_->SlotsTaken(1);
  } else {
    slot = TransferSlot::Create();
    if (slot == nullptr) {
      *error = ERROR_NOT_ENOUGH_MEMORY;
      return nullptr;
    }
  }
  if (!spare_storage_.empty() &&
      slot->spill_storage().capacity() < spare_storage_.back().capacity()) {
    slot->spill_storage().swap(spare_storage_.back());
    spare_storage_.pop_back();
  }
  ++in_use_;
  return slot;
}

void Connection::SetAsideIdleSlotsThatSpoke(std::vector<std::unique_ptr<TransferSlot>>* closed) {
  // A server closes connections that lie idle past its own time-out. Requests sent one at a
  // time use the slot used last, so without this the slots of requests once sent in parallel
  // would keep theirs, closed at the other end, for as long as the connection handle lives.
  try {
    for (auto idle = idle_.begin(); idle + 1 < idle_.end();) {
      if (!idle->slot->KeptConnectionSpoke()) {
        ++idle;
        continue;
      }
      closed->push_back(std::move(idle->slot));
      idle = idle_.erase(idle);
      session_->SlotsTaken(1);
    }
  } catch (const std::bad_alloc&) {
    // No room to set one aside: it stays until its turn comes, as it would without this.
  }
}

void Connection::KeepStorage(std::string storage) {
  std::lock_guard lock(slots_mutex_);
  if (spare_storage_.size() >= MaxConnsLocked() || UnusedLocked()) return;
  try {
    spare_storage_.push_back(std::move(storage));
  } catch (const std::bad_alloc&) {
    // No room to keep it: it goes, as it would have without this.
  }
}

std::unique_ptr<Transfer> Connection::TakeTransfer(StopSignal& stop) {
  {
    std::lock_guard lock(slots_mutex_);
    if (!spare_transfers_.empty()) {
      std::unique_ptr<Transfer> transfer = std::move(spare_transfers_.back());
      spare_transfers_.pop_back();
      transfer->Rebind(stop);
      return transfer;
    }
  }
  return std::make_unique<Transfer>(*this, stop);
}

void Connection::KeepTransfer(std::unique_ptr<Transfer> transfer) {
  // Made ready here, outside the lock, by the thread that lets the request go.
  if (!transfer->Recycle()) return;
  std::unique_lock lock(slots_mutex_);
  if (spare_transfers_.size() < MaxConnsLocked() && !UnusedLocked()) {
    try {
      spare_transfers_.push_back(std::move(transfer));
      return;
    } catch (const std::bad_alloc&) {
      // No room to keep it: it goes, as it would have without this.
    }
  }
  lock.unlock();
  // One not kept ends outside the lock: its end hands its room back through KeepStorage.
  transfer.reset();
}

void Connection::Release(std::unique_ptr<TransferSlot> slot) {
  std::unique_ptr<TransferSlot> surplus;
  bool waiters = false;
  {
    std::lock_guard lock(slots_mutex_);
    --in_use_;
    // After the bound was lowered, surplus slots close their connections.
    if (idle_.size() + in_use_ < MaxConnsLocked()) {
      try {
        idle_.reserve(idle_.size() + 1);
        idle_.push_back({std::move(slot), session_->SlotIdled()});
      } catch (const std::bad_alloc&) {
        // No room to keep it: it goes with its connection, and the transfer that gave it back
        // carries on as if it had been kept (a release must not fail halfway).
      }
    }
    if (slot != nullptr) surplus = std::move(slot);
    // Waiters count themselves under this lock: the count is exact here.
    waiters = waiting_.load(std::memory_order_relaxed) != 0;
  }
  if (waiters) slots_cv_.notify_all();
  surplus.reset();
  session_->TrimIdleSlots();
}

std::optional<std::uint64_t> Connection::OldestIdleStamp() const {
  std::lock_guard lock(slots_mutex_);
  if (idle_.empty()) return std::nullopt;
  return idle_.front().stamp;
}

bool Connection::DropIdleSlot(std::uint64_t stamp) {
  std::unique_ptr<TransferSlot> dropped;
  std::vector<std::string> storage;
  std::vector<std::unique_ptr<Transfer>> transfers;
  {
    std::lock_guard lock(slots_mutex_);
    if (idle_.empty() || idle_.front().stamp != stamp) return false;
    dropped = std::move(idle_.front().slot);
    idle_.erase(idle_.begin());
    session_->SlotsTaken(1);
    if (UnusedLocked()) {
      storage.swap(spare_storage_);
      transfers.swap(spare_transfers_);
    }
  }
  // Outside the lock: the slot closes its connection, and the transfers end (their room is not
  // kept by an unused connection).
  return true;
}

void Connection::WakeWaiters() {
  // The stop or the new bound was stored before this fence, and a waiter counts itself before
  // it looks at them: either the count read here includes it, or it sees the change and does
  // not wait. Nobody waiting spares the lock.
  std::atomic_thread_fence(std::memory_order_seq_cst);
  if (waiting_.load() == 0) return;
  { std::lock_guard lock(slots_mutex_); }
  slots_cv_.notify_all();
}

namespace {

// Host names are put into URLs; characters that would change the URL's meaning are refused.
bool ValidHostName(const std::string& host) {
  if (host.empty()) return false;
  for (char c : host) {
    const auto u = static_cast<unsigned char>(c);
    if (u <= 0x20 || u == 0x7F || std::strchr("/\\?#@%", c) != nullptr) return false;
  }
  return true;
}

// The proxy bypass list's patterns, separated by spaces, semicolons or commas. libcurl's own
// list cannot stand in: it matches a name's tail ("example.com" for "www.example.com") and
// knows neither "*" inside a pattern nor "<local>".
std::vector<std::string> BypassPatterns(const std::string& bypass) {
  std::vector<std::string> out;
  std::size_t i = 0;
  while (i < bypass.size()) {
    while (i < bypass.size() && std::strchr(" ;,", bypass[i]) != nullptr) ++i;
    const std::size_t start = i;
    while (i < bypass.size() && std::strchr(" ;,", bypass[i]) == nullptr) ++i;
    if (i > start) out.push_back(bypass.substr(start, i - start));
  }
  return out;
}

}  // namespace

// The agent goes out as the value of a header line, and a user name inside one when a server
// asks for Digest: a line break in either would start a line of the caller's making.
bool FitsOneLine(std::string_view text) { return text.find_first_of("\r\n") == text.npos; }

}  // namespace tqplatform

using namespace tqplatform;

extern "C" {

BOOL TqPlatformSetCaFile(const char* pem_path) {
  std::lock_guard lock(g_ca_mutex);
  if (pem_path == nullptr) {
    g_ca_file.reset();
  } else {
    g_ca_file = pem_path;
  }
  g_ca_file_set.store(g_ca_file.has_value(), std::memory_order_release);
  return TRUE;
}

HINTERNET InternetOpenW(LPCWSTR agent, DWORD access_type, LPCWSTR proxy, LPCWSTR proxy_bypass,
                        DWORD flags) {
  return Guarded(HINTERNET{}, [&]() -> HINTERNET {
    if (DWORD fault = TakeInjectedFault("InternetOpenW")) return FailNull(fault);
    ProxyMode mode;
    switch (access_type) {
      case INTERNET_OPEN_TYPE_PRECONFIG:
      case INTERNET_OPEN_TYPE_PRECONFIG_WITH_NO_AUTOPROXY:  // the environment runs no script
        mode = ProxyMode::kEnvironment;
        break;
      case INTERNET_OPEN_TYPE_DIRECT:
        mode = ProxyMode::kDirect;
        break;
      case INTERNET_OPEN_TYPE_PROXY:
        mode = ProxyMode::kNamed;
        if (WideLength(proxy) == 0) return FailNull(ERROR_INVALID_PARAMETER);
        break;
      default:
        return FailNull(ERROR_INVALID_PARAMETER);
    }
    // Only synchronous use is supported: there is no status callback to complete async calls.
    if ((flags & INTERNET_FLAG_ASYNC) != 0) return FailNull(ERROR_INVALID_PARAMETER);
    std::string agent_text = WideToUtf8(agent != nullptr ? agent : L"");
    if (!FitsOneLine(agent_text)) return FailNull(ERROR_INVALID_PARAMETER);
    EnsureCurlInitialised();
    std::string proxy_text;
    std::vector<std::string> bypass;
    if (mode == ProxyMode::kNamed) {
      proxy_text = WideToUtf8(proxy);
      bypass = BypassPatterns(WideToUtf8(proxy_bypass != nullptr ? proxy_bypass : L""));
    }
    std::shared_ptr<Session> session;
    try {
      session = std::make_shared<Session>(std::move(agent_text), mode,
                                          std::move(proxy_text), std::move(bypass));
    } catch (const std::bad_alloc&) {
      return FailNull(ERROR_NOT_ENOUGH_MEMORY);
    }
    if (session->share() == nullptr) return FailNull(ERROR_NOT_ENOUGH_MEMORY);
    AddSession(session);
    return RegisterHandle(session);
  });
}

HINTERNET InternetConnectW(HINTERNET internet, LPCWSTR server_name, INTERNET_PORT server_port,
                           LPCWSTR user_name, LPCWSTR password, DWORD service, DWORD /*flags*/,
                           DWORD_PTR /*context*/) {
  return Guarded(HINTERNET{}, [&]() -> HINTERNET {
    if (DWORD fault = TakeInjectedFault("InternetConnectW")) return FailNull(fault);
    auto session = Lookup<Session>(internet);
    if (session == nullptr) return nullptr;
    if (service != INTERNET_SERVICE_HTTP) return FailNull(ERROR_INVALID_PARAMETER);
    std::string host = WideToUtf8(server_name != nullptr ? server_name : L"");
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
      host = host.substr(1, host.size() - 2);
    }
    if (!ValidHostName(host)) {
      return FailNull(host.empty() ? ERROR_INVALID_PARAMETER : ERROR_INTERNET_INVALID_URL);
    }
    std::string user = WideToUtf8(user_name != nullptr ? user_name : L"");
    if (!FitsOneLine(user)) return FailNull(ERROR_INVALID_PARAMETER);
    auto connection = std::make_shared<Connection>(session, host, server_port);
    connection->settings().Update([&](Settings& s) {
      if (!user.empty()) s.user = std::move(user);
      if (WideLength(password) != 0) s.password = WideToUtf8(password);
    });
    return RegisterChild(*session, connection);
  });
}

BOOL InternetCloseHandle(HINTERNET internet) {
  return Guarded(FALSE, [&]() -> BOOL {
    if (DWORD fault = TakeInjectedFault("InternetCloseHandle")) return Fail(fault);
    if (internet == nullptr || !CloseHandleTree(internet)) return Fail(ERROR_INVALID_HANDLE);
    return TRUE;
  });
}

}  // extern "C"
