// The platform layer's one libcurl transfer engine, used by the WinINet requests and the URL
// Moniker downloads alike. The calling thread drives its own transfer through a multi handle;
// body bytes are pulled into the reader's buffer, and between reads the transfer is paused (a
// body announced as no larger than one receive buffer is kept whole instead), so what the engine
// holds beyond the reader's buffer is bounded by a receive buffer or two whatever the body's
// size. Redirects are followed by one policy, time-outs kept by one clock
// (transfer_state.h). One thread at a time uses a Transfer; StopSignal::Stop may come from any.
#pragma once

#include <curl/curl.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/curl_handles.h"
#include "platform/easy_options.h"
#include "platform/http_headers.h"
#include "platform/redirect_policy.h"
#include "platform/transfer_state.h"
#include "platform/wininet.h"

namespace tqplatform {

class Transfer;

// One multi handle with its easy handle. The multi's connection cache keeps the connection
// alive between the transfers of successive users of the slot.
class TransferSlot {
 public:
  // Null when libcurl cannot make the handles.
  static std::unique_ptr<TransferSlot> Create();
  ~TransferSlot();
  TransferSlot(const TransferSlot&) = delete;
  TransferSlot& operator=(const TransferSlot&) = delete;

  CURL* easy() const { return easy_.get(); }
  CURLM* multi() const { return multi_.get(); }
  // Notes the connection a transfer that ended left in the multi's cache (call while attached).
  void NoteKeptConnection();
  // The sockets of the slot's connections, as libcurl opens (reported by the transfer's socket
  // callback) and closes them (through CloseSocketCallback, given the slot): the connection
  // left in the cache is known without looking through the multi's cache for it.
  void SocketOpened(curl_socket_t socket);
  static int CloseSocketCallback(void* slot, curl_socket_t socket);
  // Whether the connection libcurl closed last had already been ended by the network (a reset)
  // rather than closed alive; false before any close.
  bool last_closed_was_cut() const { return last_closed_was_cut_; }
  // Before the next transfer: a kept connection on which bytes, or its end, arrived while it lay
  // idle is dropped with everything the multi keeps (the multi is made anew). Nothing may come
  // on an idle HTTP/1.1 connection; bytes a server sent after its answer would be read as the
  // answer to the next request. False when no new multi can be made.
  bool DropKeptConnectionIfItSpoke();
  // Whether that kept connection has spoken (false when none is kept); the slot stays as it is.
  bool KeptConnectionSpoke() const;
  // Before the next transfer too: libcurl keeps the system error of a call that failed on the
  // easy handle through every transfer after it, and a transfer's failure is told apart by it
  // (a connection reset from bytes libcurl refused). A handle holding one is made anew, with
  // nothing applied. False when no new handle can be made.
  bool DropStaleSystemError();
  bool Attach();
  // Takes the easy handle out of the multi: an unfinished transfer closes its connection, a
  // finished one leaves it in the multi's cache for the next transfer.
  void Detach();
  // Sets a hop's options on the easy handle (only those that changed since the last hop).
  bool ApplyOptions(const HopOptions& options) { return applied_.Apply(easy_.get(), options); }
  // libcurl's callbacks are given the slot, which outlives its handles, and reach the transfer
  // using it through this: the handle's callback data and error buffer are set once, and an
  // idle handle refers to nothing that may be gone. Null while nobody uses the slot.
  void set_transfer(Transfer* transfer) { transfer_ = transfer; }
  Transfer* transfer() const { return transfer_; }
  // libcurl's error text of the transfer running on the slot.
  char* error_text() { return error_text_; }
  // Drops what the handle holds of a transfer that is over: its body and its lines for a proxy
  // (the callbacks' target, error buffer and header list are the slot's, and stay).
  void ReleaseOptions() { applied_.Release(easy_.get()); }
  // Room for body bytes that arrive before anyone reads, lent to each transfer on the slot.
  std::string& spill_storage() { return spill_storage_; }
  // The next request's header lines are gathered into NewHeaderLines (emptied first), with
  // made_line as room for a line the transfer composes; HeaderList then gives libcurl's list of
  // them, made again only when they differ from the last request's. Null for no lines, and (with
  // *ok false) when memory runs out.
  std::vector<std::string_view>& NewHeaderLines() {
    wanted_lines_.clear();
    return wanted_lines_;
  }
  std::string& made_line() { return made_line_; }
  curl_slist* HeaderList(bool* ok);
  // The URL as libcurl sends it (dot segments removed; `url` itself when it does not parse).
  // Successive requests on a slot mostly ask for the same URL, so the last answer is kept.
  const std::string& SentUrl(const std::string& url);

 private:
  TransferSlot() = default;
  // A multi that keeps one idle connection, the one noted last.
  static CurlMulti MakeMulti();
  // Before the multi: its clean-up closes its connections through CloseSocketCallback.
  std::vector<curl_socket_t> open_sockets_;
  Transfer* transfer_ = nullptr;
  char error_text_[CURL_ERROR_SIZE] = {};
  // Before the handles: the easy handle refers to the parsed URL it holds.
  AppliedOptions applied_;
  CurlMulti multi_;
  CurlEasy easy_;
  bool attached_ = false;
  curl_socket_t kept_socket_ = CURL_SOCKET_BAD;
  bool last_closed_was_cut_ = false;
  std::string spill_storage_;
  std::string url_asked_;
  std::string url_sent_;
  std::vector<std::string_view> wanted_lines_;
  std::string made_line_;
  std::vector<std::string> listed_lines_;  // what header_list_ holds
  CurlHeaderList header_list_;
};

// Who lends slots to a transfer: a WinINet connection's bounded pool, or a download's own slot.
class StopSignal;
class SlotSource {
 public:
  virtual ~SlotSource() = default;
  // Returns null with `*error` set on time-out (`wait` elapsed; nullopt waits without bound) or
  // when `stop` is stopped.
  virtual std::unique_ptr<TransferSlot> Acquire(const StopSignal& stop,
                                                std::optional<std::chrono::milliseconds> wait,
                                                DWORD* error) = 0;
  virtual void Release(std::unique_ptr<TransferSlot> slot) = 0;
  // Takes back the room a transfer kept a body in after its slot went back (the body was read
  // later), so that the next transfer to check a slot out starts with it instead of fresh
  // memory; the default lets it go.
  virtual void KeepStorage(std::string /*storage*/) {}
};

// Ends a transfer from another thread: Stop sets the flag and wakes the thread in libcurl's wait.
class StopSignal {
 public:
  void Stop();
  bool stopped() const { return stopped_.load(); }

 private:
  friend class Transfer;
  void Watch(CURLM* multi);

  std::atomic<bool> stopped_{false};
  // Held while a stop wakes the multi and while the watch is taken off it, so that a multi is
  // never woken once its transfer has let it go; setting the watch needs no lock.
  std::mutex mutex_;
  std::atomic<CURLM*> watched_{nullptr};  // not owned: the multi of the running transfer
};

// What to send. Header lines are "Name: value"; an empty value ("Accept:") removes a header
// libcurl would add.
struct TransferRequest {
  std::string url;
  // In place of the URL's path in the first hop's request line ("*"); empty: the path.
  std::string request_target;
  std::string method = "GET";
  std::string body;
  std::vector<std::string> header_lines;
  bool http10 = false;
  std::string agent;
  ProxyMode proxy_mode = ProxyMode::kEnvironment;
  // kNamed: the proxies for http and https URLs (empty: none), and the host names that go
  // direct: WinINet's bypass patterns (see BypassesProxy).
  std::string http_proxy;
  std::string https_proxy;
  std::vector<std::string> proxy_bypass;
  // Answer 401 challenges, at the first hop's origin only; answer 407 challenges.
  std::string user;
  std::string password;
  std::string proxy_user;
  std::string proxy_password;
  bool verify_host = true;
  std::optional<std::string> ca_file;
  CURLSH* share = nullptr;  // not owned; must outlive the transfer
  TransferLimits limits;
  // How long waiting for a slot may take; nullopt: no bound.
  std::optional<std::chrono::milliseconds> slot_wait;
  RedirectRules redirects;
};

// Whether `host` matches one of WinINet's bypass patterns: each matches the whole host name,
// ignoring case, with "*" standing for any text; "<local>" matches a name without a dot.
bool BypassesProxy(const std::vector<std::string>& patterns, std::string_view host);

class Transfer {
 public:
  // A response body up to this size is read and dropped when a transfer is ended early, so that
  // its connection stays usable; a larger one closes it.
  static constexpr std::size_t kDrainLimit = 64 * 1024;
  // libcurl's receive buffer.
  static constexpr long kBufferSize = 256 * 1024;
  // The largest announced body kept whole while nobody reads.
  static constexpr std::size_t kSpillLimit = kBufferSize;

  Transfer(SlotSource& slots, StopSignal& stop) : slots_(slots), stop_(&stop) {}
  ~Transfer();
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  // Sends and follows redirects; returns ERROR_SUCCESS once the final response's headers are
  // in, or a WinINet error code. When only the body fails, the open succeeds and reads report
  // the failure. Legal from kIdle.
  DWORD Open(TransferRequest request);
  // The same for the request filled in place through next_request(), whose text keeps the room
  // the last request's had.
  DWORD Open();
  // The request the next Open() sends (the last one sent, until then); fill it while kIdle.
  TransferRequest& next_request() { return request_; }
  const TransferRequest& request() const { return request_; }

  // Makes the transfer ready for another user: the running transfer is ended as the destructor
  // ends it, and everything is forgotten but the room its buffers grew. False when that room is
  // larger than a usual request needs: the transfer is then better let go. Until Rebind, the
  // transfer may only be destroyed.
  bool Recycle();
  // Gives a recycled transfer to its next user, stopped by `stop`.
  void Rebind(StopSignal& stop) { stop_ = &stop; }
  // Reads body bytes: blocks until at least one byte, the end (0 bytes, ERROR_SUCCESS) or an
  // error. Bytes received before a failure are handed over first; the failure comes next.
  DWORD Read(char* out, std::size_t size, std::size_t* got);
  // Ends a running transfer: drains a small rest of the body so the connection can be reused
  // (waiting at most `wait`), else drops the connection.
  void Finish(std::chrono::milliseconds wait);
  // Finishes and forgets the response: back to kIdle for the next Open.
  void Reset();

  // The handle the test wait hook (fault_injection.h) is given; null: no hook.
  void set_waiter(HINTERNET waiter) { waiter_ = waiter; }

  TransferState state() const { return state_; }
  // True after a successful Open until Reset: the response and its body are there to read.
  bool HasResponse() const { return HasFinalHeaders(state_); }
  const HeaderBlock& response() const { return blocks_[response_index_]; }
  // The URL and method of the last request sent (the last hop of a redirect chain).
  const std::string& sent_url() const { return sent_url_; }
  // What the last request line named in place of the URL's path; empty: the path.
  const std::string& sent_target() const { return request_.request_target; }
  const std::string& method() const { return method_; }
  // Whether a line of the caller's went out with the last request sent: not when it is for the
  // first origin only and the chain left it, nor a Content-Length that is not the body's.
  bool CallerLineSent(std::string_view line) const;
  // libcurl's result of the transfer that ended, and its error text.
  CURLcode curl_result() const { return result_; }
  const char* error_text() const { return slot_ != nullptr ? slot_->error_text() : error_text_; }
  // The final response's Content-Length; 0 when none was given.
  std::uint64_t content_length() const { return content_length_; }

 private:
  enum class Goal { kHeaders, kData, kDrain };
  // The most room a recycled transfer keeps for a body sent, or for a header block.
  static constexpr std::size_t kKeptRoomLimit = 64 * 1024;

  // Runs `work` on the slot's transfer for a data callback: 0 (libcurl's refusal) without a
  // transfer, or when the work throws, which ends the transfer with the exception's error.
  template <class Work>
  static size_t DataCallback(void* slot, const Work& work) noexcept;
  static size_t HeaderCallback(char* data, size_t size, size_t count, void* self);
  static size_t WriteCallback(char* data, size_t size, size_t count, void* self);
  static int PrereqCallback(void* self, char*, char*, int, int);
  static int SocketCallback(void* self, curl_socket_t, curlsocktype);
  size_t OnHeader(const char* data, size_t size);
  // Decides what a complete header block is (a tunnel's, an interim, a challenge libcurl
  // answers, or the final response); an error stops the transfer.
  DWORD OnHeaderBlock(bool tunnel);
  size_t OnBody(const char* data, size_t size);
  size_t OnDrainedBody(size_t size);

  // The one place that changes state_; refuses (and asserts against) an illegal move.
  bool MoveTo(TransferState next);
  DWORD AcquireSlot();
  void ReleaseSlot();
  // Hands the spill's room to the slot source once no slot and no unread byte needs it.
  void GiveBackStorage();
  DWORD RunHop(int hop, bool* same_origin, bool* follow);
  DWORD FailOpen(DWORD error);
  DWORD Drive(Goal goal);
  bool Reached(Goal goal) const;
  DWORD Poll(int wait_ms, int* ready);
  void CollectDone();
  void End(CURLcode result);
  DWORD ErrorOf(CURLcode result, bool had_headers) const;
  void OnConnected();
  void OnFinalHeaders();
  void Resume();

  // Transfer options (transfer_options.cc).
  DWORD Configure(bool same_origin);
  void ClearResponse();
  HopOptions Options(bool same_origin) const;
  DWORD MakeHeaderList();
  bool AgentAsHeaderLine() const;

  SlotSource& slots_;
  StopSignal* stop_;  // not owned: the user's; null while recycled
  HINTERNET waiter_ = nullptr;
  TransferRequest request_;
  std::unique_ptr<TransferSlot> slot_;
  curl_slist* header_list_ = nullptr;  // the slot's, for the running hop
  CurlHeaderList proxy_header_list_;  // the caller's lines for a proxy; null: none
  TransferState state_ = TransferState::kIdle;
  TransferClock clock_;
  bool progress_noted_ = false;  // bytes came in the drive call running (see Drive)

  std::string sent_url_;
  bool sent_same_origin_ = true;
  std::string method_;
  // libcurl answers a 401 / 407 challenge itself when it has credentials for it.
  bool answers_401_ = false;
  bool answers_407_ = false;
  // More than a handshake needs (NTLM takes two rounds, a stale Digest nonce one more).
  static constexpr int kMaxChallengesAnswered = 10;
  int challenges_answered_ = 0;  // in this hop
  // The last complete block and the one being received. A complete block becomes the response
  // by exchanging their roles: each keeps the room it grew for the next block.
  HeaderBlock blocks_[2];
  int response_index_ = 0;
  HeaderBlock& pending() { return blocks_[response_index_ ^ 1]; }
  std::uint64_t content_length_ = 0;
  bool keep_whole_body_ = false;  // the announced body fits what is kept while nobody reads
  DWORD header_error_ = 0;  // why a header block was refused
  std::size_t trailer_bytes_ = 0;  // of the chunked body's trailers
  // libcurl has sent this hop's request on the connection it uses now (a tunnel is up before).
  bool request_out_ = false;
  // A line of an answer came since libcurl last sent a request (the hop's, or a challenge's).
  bool answer_begun_ = false;
  // libcurl sent the request again on a new connection after the kept one died under it.
  bool resent_ = false;
  // Until libcurl sends its answer, header lines are the trailers of the challenge's body.
  bool in_challenge_body_ = false;
  // The response is a proxy's 407 to the CONNECT of a tunnel, which libcurl answers on the
  // connection it came on: when libcurl gives up instead, that 407 is the final response.
  bool tunnel_challenged_ = false;
  // The final response is a proxy's refusal of a tunnel, not an answer of the origin's.
  bool proxy_answered_ = false;
  CURLcode result_ = CURLE_OK;
  DWORD error_ = 0;  // the failure to report: of the open, or (sticky) of the body
  char error_text_[CURL_ERROR_SIZE] = {};  // the slot's, kept when the slot goes back

  char* target_ = nullptr;  // the waiting reader's buffer
  std::size_t target_len_ = 0;
  std::size_t target_filled_ = 0;
  SpillBuffer spill_;
  std::size_t discarded_ = 0;
};

}  // namespace tqplatform
