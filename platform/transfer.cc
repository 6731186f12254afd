// The transfer engine's run: slots, the drive loop and the end of a transfer. Its options are
// set in transfer_options.cc, and libcurl's callbacks are in transfer_callbacks.cc.
#include "platform/transfer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cstring>
#include <utility>

#include "platform/curl_errors.h"
#include "platform/fault_injection.h"
#include "platform/internet_handle.h"
#include "tqutil/decimal.h"

namespace tqplatform {
namespace {

using Clock = TransferClock::Clock;
using std::chrono::milliseconds;

// Longest wait for a redirect's small body to drain before its connection is dropped instead.
constexpr milliseconds kRedirectDrainWait{1000};
// Longest single wait in libcurl; the clock and the stop signal are checked at least this often.
constexpr int kMaxPollMs = 1000;

// Set by SetWaitHookForTesting (fault_injection.h); null outside tests.
std::atomic<void (*)(HINTERNET)> g_wait_hook{nullptr};

}  // namespace

// --- slots and the stop signal -----------------------------------------------------------------

CurlMulti TransferSlot::MakeMulti() {
  CurlMulti multi(curl_multi_init());
  // One easy handle uses one connection at a time; the one it used last is all that is kept, so
  // the connection noted is the only one a later transfer can reuse.
  if (multi != nullptr) curl_multi_setopt(multi.get(), CURLMOPT_MAXCONNECTS, 1L);
  return multi;
}

std::unique_ptr<TransferSlot> TransferSlot::Create() {
  std::unique_ptr<TransferSlot> slot(new TransferSlot());
  slot->multi_ = MakeMulti();
  slot->easy_.reset(curl_easy_init());
  if (slot->multi_ == nullptr || slot->easy_ == nullptr) return nullptr;
  return slot;
}

TransferSlot::~TransferSlot() { Detach(); }

void TransferSlot::NoteKeptConnection() {
  // The socket of the connection the transfer returned to the cache; none when it was closed.
  // The cache keeps one connection, so once a transfer is done at most one socket is open.
  if (open_sockets_.size() <= 1) {
    kept_socket_ = open_sockets_.empty() ? CURL_SOCKET_BAD : open_sockets_.front();
    return;
  }
  curl_socket_t socket = CURL_SOCKET_BAD;
  if (curl_easy_getinfo(easy_.get(), CURLINFO_ACTIVESOCKET, &socket) != CURLE_OK) {
    socket = CURL_SOCKET_BAD;
  }
  kept_socket_ = socket;
}

void TransferSlot::SocketOpened(curl_socket_t socket) { open_sockets_.push_back(socket); }

int TransferSlot::CloseSocketCallback(void* slot, curl_socket_t socket) {
  auto* self = static_cast<TransferSlot*>(slot);
  std::erase(self->open_sockets_, socket);
  // A reset (or TCP's own time-out) leaves the socket closed before anyone closes it.
  tcp_info info{};
  socklen_t length = sizeof info;
  self->last_closed_was_cut_ = ::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 &&
                               info.tcpi_state == TCP_CLOSE;
  return ::close(socket);
}

bool TransferSlot::KeptConnectionSpoke() const {
  if (kept_socket_ == CURL_SOCKET_BAD) return false;
  // Only this slot's multi closes that socket, and it has not run since the note.
  pollfd idle{kept_socket_, POLLIN, 0};
  return ::poll(&idle, 1, 0) != 0;
}

bool TransferSlot::DropKeptConnectionIfItSpoke() {
  if (!KeptConnectionSpoke()) {
    kept_socket_ = CURL_SOCKET_BAD;
    return true;
  }
  const curl_socket_t socket = std::exchange(kept_socket_, CURL_SOCKET_BAD);
  Detach();
  CurlMulti fresh = MakeMulti();
  if (fresh == nullptr) {
    kept_socket_ = socket;  // looked at again by the next transfer
    return false;
  }
  multi_ = std::move(fresh);  // the old multi closes its connections
  return true;
}

bool TransferSlot::DropStaleSystemError() {
  long os_errno = 0;
  if (curl_easy_getinfo(easy_.get(), CURLINFO_OS_ERRNO, &os_errno) == CURLE_OK && os_errno == 0) {
    return true;
  }
  CurlEasy fresh(curl_easy_init());
  if (fresh == nullptr) return false;
  easy_ = std::move(fresh);  // the multi keeps the connections, and the slot the header list
  applied_ = AppliedOptions();
  return true;
}

bool TransferSlot::Attach() {
  attached_ = curl_multi_add_handle(multi_.get(), easy_.get()) == CURLM_OK;
  return attached_;
}

void TransferSlot::Detach() {
  if (attached_) curl_multi_remove_handle(multi_.get(), easy_.get());
  attached_ = false;
}

const std::string& TransferSlot::SentUrl(const std::string& url) {
  if (url_asked_.empty() || url != url_asked_) {
    UrlParts parts;
    url_sent_ = ParseUrl(url, &parts) ? std::move(parts.text) : url;
    url_asked_ = url;
  }
  return url_sent_;
}

curl_slist* TransferSlot::HeaderList(bool* ok) {
  *ok = true;
  if (std::equal(wanted_lines_.begin(), wanted_lines_.end(), listed_lines_.begin(),
                 listed_lines_.end())) {
    return header_list_.get();
  }
  applied_.ForgetHeaders(easy_.get());  // the handle must not refer to the list freed here
  header_list_.reset();
  listed_lines_.clear();
  for (const std::string_view line : wanted_lines_) {
    listed_lines_.emplace_back(line);
    curl_slist* grown = curl_slist_append(header_list_.get(), listed_lines_.back().c_str());
    if (grown == nullptr) {
      header_list_.reset();
      listed_lines_.clear();
      *ok = false;
      return nullptr;
    }
    (void)header_list_.release();  // `grown` starts with the list so far
    header_list_.reset(grown);
  }
  return header_list_.get();
}

void StopSignal::Stop() {
  stopped_.store(true);
  // A transfer that sets its watch after this read sees the flag before it waits (both are
  // sequentially consistent), so nothing watched means nothing to wake.
  if (watched_.load() == nullptr) return;
  std::lock_guard lock(mutex_);
  if (CURLM* multi = watched_.load()) curl_multi_wakeup(multi);
}

void StopSignal::Watch(CURLM* multi) {
  if (multi != nullptr) {
    watched_.store(multi);
    return;
  }
  std::lock_guard lock(mutex_);
  watched_.store(nullptr);
}

// --- the transfer ------------------------------------------------------------------------------

Transfer::~Transfer() {
  Finish(milliseconds(0));
  ReleaseSlot();
  GiveBackStorage();
}

void Transfer::GiveBackStorage() {
  // Bodies that arrive before anyone reads them (all of a small one, mostly) are kept here, and
  // their slot has gone back by the time they are read: without this every such request would
  // take fresh pages, which cost more to fault in than the body costs to copy.
  std::string storage;
  if (slot_ == nullptr && spill_.capacity() > storage.capacity() && spill_.SwapStorage(storage)) {
    slots_.KeepStorage(std::move(storage));
  }
}

bool Transfer::MoveTo(TransferState next) {
  const bool legal = IsLegalMove(state_, next);
  assert(legal && "illegal transfer state move");
  if (legal) state_ = next;
  return legal;
}

DWORD Transfer::AcquireSlot() {
  DWORD error = ERROR_SUCCESS;
  slot_ = slots_.Acquire(*stop_, request_.slot_wait, &error);
  if (slot_ == nullptr) return error;
  if (!slot_->DropKeptConnectionIfItSpoke() || !slot_->DropStaleSystemError()) {
    slots_.Release(std::move(slot_));
    return ERROR_NOT_ENOUGH_MEMORY;
  }
  // The larger room is kept: a transfer used before may have more than the slot.
  if (slot_->spill_storage().capacity() > spill_.capacity()) {
    spill_.SwapStorage(slot_->spill_storage());
  }
  slot_->set_transfer(this);
  stop_->Watch(slot_->multi());
  return ERROR_SUCCESS;
}

void Transfer::ReleaseSlot() {
  if (slot_ == nullptr) return;
  stop_->Watch(nullptr);
  slot_->Detach();
  slot_->ReleaseOptions();
  slot_->set_transfer(nullptr);
  // What libcurl wrote into the slot's error buffer stays with the transfer.
  const char* text = slot_->error_text();
  const std::size_t length = strnlen(text, CURL_ERROR_SIZE - 1);
  std::memcpy(error_text_, text, length);
  error_text_[length] = '\0';
  header_list_ = nullptr;
  // The larger spill buffer goes back with the slot, unless it still holds bytes to read.
  if (slot_->spill_storage().capacity() < spill_.capacity()) {
    spill_.SwapStorage(slot_->spill_storage());
  }
  slots_.Release(std::move(slot_));
}

DWORD Transfer::Open(TransferRequest request) {
  if (state_ != TransferState::kIdle) return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
  request_ = std::move(request);
  return Open();
}

DWORD Transfer::Open() {
  if (state_ != TransferState::kIdle) return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
  bool same_origin = true;
  for (int hop = 0;; ++hop) {
    bool follow = false;
    if (DWORD error = RunHop(hop, &same_origin, &follow)) return FailOpen(error);
    if (!follow) return ERROR_SUCCESS;
    // The redirect's own body is dropped; a small one keeps its connection for the next hop.
    Finish(kRedirectDrainWait);
  }
}

DWORD Transfer::RunHop(int hop, bool* same_origin, bool* follow) {
  if (slot_ == nullptr) {
    if (DWORD error = AcquireSlot()) return error;
  }
  if (DWORD error = Configure(*same_origin)) return error;
  if (DWORD error = Drive(Goal::kHeaders)) return error;
  if (state_ == TransferState::kFailed) return error_;
  // A proxy's answer to a tunnel's CONNECT is no redirect of the origin's: followed, the proxy,
  // which sees the request's host in the clear, would choose where its answer comes from.
  if (proxy_answered_) return ERROR_SUCCESS;
  // Most responses do not redirect: the request's text is not lent for nothing.
  if (!MayRedirect(request_.redirects, response().status_code())) return ERROR_SUCCESS;
  // Lent to the policy and taken back: it changes them only when the response redirects.
  Hop next{std::move(request_.url), std::move(request_.method), *same_origin};
  const DWORD error = NextHop(request_.redirects, response(), hop, &next, follow);
  request_.url = std::move(next.url);
  request_.method = std::move(next.method);
  if (error != ERROR_SUCCESS) return error;
  if (*follow) {
    request_.request_target.clear();
    if (next.drop_body) request_.body.clear();
    *same_origin = next.same_origin;
  }
  return ERROR_SUCCESS;
}

DWORD Transfer::FailOpen(DWORD error) {
  Finish(milliseconds(0));
  ReleaseSlot();
  if (state_ != TransferState::kFailed) MoveTo(TransferState::kFailed);
  error_ = error;
  return error;
}

DWORD Transfer::Read(char* out, std::size_t size, std::size_t* got) {
  *got = 0;
  if (!HasResponse()) return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
  std::size_t filled = spill_.Take(out, size);
  if (filled < size && IsRunning(state_)) {
    target_ = out;
    target_len_ = size;
    target_filled_ = filled;
    clock_.Progress(Clock::now());  // time spent paused between reads does not count
    Resume();
    const DWORD error = Drive(Goal::kData);
    filled = target_filled_;
    target_ = nullptr;
    target_len_ = 0;
    target_filled_ = 0;
    if (error != ERROR_SUCCESS) {
      // The body failed on the engine's side (time-out, stop): its connection goes.
      error_ = error;
      ReleaseSlot();
      if (IsRunning(state_)) MoveTo(TransferState::kFinished);
    }
  }
  *got = filled;
  // Bytes received before a failure are handed over first; the failure comes with the next read.
  if (filled > 0 || !spill_.empty()) return ERROR_SUCCESS;
  return error_;
}

void Transfer::Resume() {
  if (state_ != TransferState::kPaused) return;
  MoveTo(TransferState::kReceiving);
  // Redelivers the chunk refused while nobody was reading, straight into the reader's buffer.
  curl_easy_pause(slot_->easy(), CURLPAUSE_CONT);
}

void Transfer::Finish(milliseconds wait) {
  if (state_ == TransferState::kConnecting || state_ == TransferState::kAwaitingHeaders) {
    ReleaseSlot();
    MoveTo(TransferState::kFailed);
    return;
  }
  if (state_ != TransferState::kReceiving && state_ != TransferState::kPaused) return;
  const bool paused = state_ == TransferState::kPaused;
  target_ = nullptr;
  discarded_ = 0;
  clock_.DrainUntil(Clock::now() + wait);
  MoveTo(TransferState::kDraining);
  if (paused) curl_easy_pause(slot_->easy(), CURLPAUSE_CONT);
  if (state_ == TransferState::kDraining) Drive(Goal::kDrain);
  if (IsRunning(state_)) {
    // Not drained in time, or too long to drain: removing it drops its connection.
    ReleaseSlot();
    MoveTo(TransferState::kFinished);
  }
}

void Transfer::Reset() {
  // Idle is reached only here (or made so): nothing ran since, nothing is left to forget. A new
  // request's transfer, recycled when its last user let go, is idle at its first send.
  if (state_ == TransferState::kIdle) return;
  Finish(milliseconds(0));
  if (state_ != TransferState::kIdle) MoveTo(TransferState::kIdle);
  // The spill's room stays for the next Open: the same user sends again.
  ClearResponse();
}

bool Transfer::Recycle() {
  // Ended as the destructor ends it, then idle as after Reset; the spill's room stays.
  Finish(milliseconds(0));
  ReleaseSlot();
  Reset();
  // A body or a header block far larger than usual is not kept for every later request.
  if (request_.body.capacity() > kKeptRoomLimit || blocks_[0].capacity() > kKeptRoomLimit ||
      blocks_[1].capacity() > kKeptRoomLimit) {
    return false;
  }
  stop_ = nullptr;
  waiter_ = nullptr;
  // What the last user sent is not the next one's: a query before its first send finds nothing.
  sent_url_.clear();
  method_.clear();
  request_.url.clear();
  request_.request_target.clear();
  request_.body.clear();
  request_.header_lines.clear();
  request_.user.clear();
  request_.password.clear();
  request_.proxy_user.clear();
  request_.proxy_password.clear();
  return true;
}

// --- driving -----------------------------------------------------------------------------------

bool Transfer::Reached(Goal goal) const {
  switch (goal) {
    case Goal::kHeaders:
      return state_ != TransferState::kConnecting && state_ != TransferState::kAwaitingHeaders;
    case Goal::kData:
      return target_filled_ == target_len_;
    case Goal::kDrain:
      return state_ != TransferState::kDraining;
  }
  return true;
}

DWORD Transfer::Drive(Goal goal) {
  for (;;) {
    int running = 0;
    const CURLMcode code = curl_multi_perform(slot_->multi(), &running);
    if (code != CURLM_OK) {
      return code == CURLM_OUT_OF_MEMORY ? ERROR_NOT_ENOUGH_MEMORY : ERROR_INTERNET_INTERNAL_ERROR;
    }
    // Bytes that came during the call are stamped once, as it returns, rather than line by line
    // and chunk by chunk: the call does not wait, so the stamp is as good.
    if (progress_noted_) {
      progress_noted_ = false;
      clock_.Progress(Clock::now());
    }
    CollectDone();
    if (!IsRunning(state_) || Reached(goal)) return ERROR_SUCCESS;
    if (stop_->stopped()) return ERROR_INTERNET_OPERATION_CANCELLED;

    const auto now = Clock::now();
    const auto deadline = clock_.Deadline(state_);
    if (now >= deadline) return ERROR_INTERNET_TIMEOUT;
    int wait_ms = kMaxPollMs;
    if (deadline != Clock::time_point::max()) {
      const auto left = std::chrono::duration_cast<milliseconds>(deadline - now).count() + 1;
      wait_ms = static_cast<int>(std::min<long long>(wait_ms, left));
    }
    // Some bytes for the reader: hand them over rather than wait for more.
    const bool have_data = goal == Goal::kData && target_filled_ > 0;
    if (have_data) wait_ms = 0;
    int ready = 0;
    if (DWORD error = Poll(wait_ms, &ready)) return error;
    if (have_data && ready == 0) return ERROR_SUCCESS;
  }
}

DWORD Transfer::Poll(int wait_ms, int* ready) {
  if (auto* hook = g_wait_hook.load(); hook != nullptr && wait_ms > 0 && waiter_ != nullptr) {
    hook(waiter_);
  }
  if (curl_multi_poll(slot_->multi(), nullptr, 0, wait_ms, ready) != CURLM_OK) {
    return ERROR_INTERNET_INTERNAL_ERROR;
  }
  return ERROR_SUCCESS;
}

void Transfer::CollectDone() {
  std::optional<CURLcode> done;
  int queued = 0;
  while (CURLMsg* message = curl_multi_info_read(slot_->multi(), &queued)) {
    if (message->msg == CURLMSG_DONE) done = message->data.result;
  }
  if (done.has_value()) End(*done);
}

void Transfer::End(CURLcode result) {
  result_ = result;
  const bool had_headers =
      state_ != TransferState::kConnecting && state_ != TransferState::kAwaitingHeaders;
  // A challenge libcurl would have answered, with no answer after it, was the final response;
  // a proxy's to a tunnel's CONNECT also when libcurl gives up on it with an error, as it does
  // when the proxy refuses its credentials: the caller sees the 407, as without credentials.
  // (Not when this layer stopped it: a challenge without end is a failure.)
  const bool tunnel_refused = !had_headers && tunnel_challenged_ && header_error_ == 0;
  if (tunnel_refused) {
    OnConnected();
    proxy_answered_ = true;
  }
  const bool complete =
      had_headers || tunnel_refused || (result == CURLE_OK && !response().empty());
  if (complete) {
    error_ = result == CURLE_OK ? ERROR_SUCCESS : ErrorOf(result, had_headers);
    // A proxy's refusal of a tunnel ends libcurl's transfer with an error, after it read the
    // refusal's body and dropped it: a body announced empty is whole all the same.
    if (!request_out_) {
      const std::optional<std::string_view> length = response().Find("Content-Length");
      if (length && qv::ParseDecimal(*length) == std::uint64_t{0}) error_ = ERROR_SUCCESS;
    }
    if (!had_headers) OnFinalHeaders();
  } else {
    error_ = result == CURLE_OK ? ERROR_HTTP_INVALID_SERVER_RESPONSE : ErrorOf(result, false);
  }
  slot_->NoteKeptConnection();
  ReleaseSlot();
  MoveTo(complete ? TransferState::kFinished : TransferState::kFailed);
}

DWORD Transfer::ErrorOf(CURLcode result, bool had_headers) const {
  if (header_error_ != 0) return header_error_;
  // libcurl reports a header line over its limit as running out of memory.
  if (result == CURLE_OUT_OF_MEMORY && !had_headers) return ERROR_HTTP_INVALID_SERVER_RESPONSE;
  // libcurl's store of the answer's headers refuses a line it cannot parse (a fold before any
  // header, a trailer without a colon) with this code; the options were all taken before the run.
  if (result == CURLE_BAD_FUNCTION_ARGUMENT) return ERROR_HTTP_INVALID_SERVER_RESPONSE;
  // The system error of the kept connection that died under the request stays through its
  // sending again: the new connection's failure names it only when that one was cut too.
  const bool stale_system_error = resent_ && slot_ != nullptr && !slot_->last_closed_was_cut();
  return WinInetErrorFromCurl(result, slot_ != nullptr ? slot_->easy() : nullptr,
                              stale_system_error);
}

void SetWaitHookForTesting(void (*hook)(HINTERNET)) { g_wait_hook = hook; }

void RunWaitHook(HINTERNET request) {
  if (auto* hook = g_wait_hook.load(); hook != nullptr) hook(request);
}

}  // namespace tqplatform
