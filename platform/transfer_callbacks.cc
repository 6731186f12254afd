// The transfer engine's side of libcurl's callbacks: header lines, body bytes, the connection
// made and the request sent. The run they belong to is in transfer.cc.
#include <algorithm>
#include <cstring>
#include <optional>
#include <string_view>

#include "platform/internet_handle.h"
#include "platform/transfer.h"
#include "platform/wide_text.h"

namespace tqplatform {

using Clock = TransferClock::Clock;

namespace {

// libcurl removes no transfer coding but chunked (this layer asks for none): a body still coded
// would be handed over as if it were the bytes of the resource. "identity" changes nothing.
bool HasCodingNotRemoved(const HeaderBlock& block) {
  for (std::size_t i = 0;; ++i) {
    const std::optional<std::string_view> value = block.Find("Transfer-Encoding", i);
    if (!value) return false;
    const bool removed = EveryListItem(*value, [](std::string_view coding) {
      return coding.empty() || EqualsIgnoreCase(coding, "chunked") ||
             EqualsIgnoreCase(coding, "identity");
    });
    if (!removed) return true;
  }
}

// The idempotent methods: sent twice, they have the effect of one.
bool IsIdempotent(std::string_view method) {
  for (const std::string_view idempotent : {"GET", "HEAD", "PUT", "DELETE", "OPTIONS", "TRACE"}) {
    if (method == idempotent) return true;
  }
  return false;
}

}  // namespace

// Each is given the slot (TransferSlot::set_transfer); libcurl calls them only while a transfer
// runs on it, so a slot without one refuses rather than touch anything.

// No exception may unwind through libcurl's frames: one thrown by the work of a callback (an
// allocation that failed) ends the transfer with its error instead.
template <class Work>
size_t Transfer::DataCallback(void* slot, const Work& work) noexcept {
  Transfer* self = static_cast<TransferSlot*>(slot)->transfer();
  if (self == nullptr) return 0;
  try {
    return work(*self);
  } catch (...) {
    self->header_error_ = ErrorOfCurrentException();
    return 0;
  }
}

size_t Transfer::HeaderCallback(char* data, size_t size, size_t count, void* slot) {
  return DataCallback(slot, [&](Transfer& t) { return t.OnHeader(data, size * count); });
}

size_t Transfer::WriteCallback(char* data, size_t size, size_t count, void* slot) {
  return DataCallback(slot, [&](Transfer& t) { return t.OnBody(data, size * count); });
}

int Transfer::PrereqCallback(void* slot, char*, char*, int, int) {
  Transfer* self = static_cast<TransferSlot*>(slot)->transfer();
  if (self == nullptr) return CURL_PREREQFUNC_ABORT;
  self->request_out_ = true;
  self->answer_begun_ = false;
  self->in_challenge_body_ = false;
  self->OnConnected();
  return CURL_PREREQFUNC_OK;
}

int Transfer::SocketCallback(void* slot, curl_socket_t socket, curlsocktype) {
  auto* owner = static_cast<TransferSlot*>(slot);
  try {
    owner->SocketOpened(socket);
  } catch (...) {
    if (Transfer* self = owner->transfer()) self->header_error_ = ErrorOfCurrentException();
    return CURL_SOCKOPT_ERROR;
  }
  // A new connection: libcurl starts over on it (a kept-alive one that died when the request
  // went out, or one closed after a challenge), and through a proxy an https request needs a
  // tunnel on it first, whose answer is not the origin's.
  if (Transfer* self = owner->transfer()) {
    // libcurl sends a request again, on a new connection, when the kept one it went out on
    // closed without a byte of answer. The server may have carried it out all the same: a
    // request that is not idempotent fails instead of taking effect twice unknown to its caller.
    // (A challenge's answer, which libcurl may send on a new connection, follows an answer.)
    if (self->request_out_ && !self->answer_begun_ && !IsIdempotent(self->method_)) {
      self->header_error_ = ERROR_INTERNET_CONNECTION_RESET;
      return CURL_SOCKOPT_ERROR;
    }
    if (self->request_out_ && !self->answer_begun_) self->resent_ = true;
    self->request_out_ = false;
    self->in_challenge_body_ = false;
    self->tunnel_challenged_ = false;
  }
  return CURL_SOCKOPT_OK;
}

void Transfer::OnConnected() {
  if (state_ != TransferState::kConnecting) return;
  MoveTo(TransferState::kAwaitingHeaders);
  clock_.RequestSent(Clock::now());
}

void Transfer::OnFinalHeaders() {
  curl_off_t length = -1;
  curl_easy_getinfo(slot_->easy(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
  content_length_ = length > 0 ? static_cast<std::uint64_t>(length) : 0;
  // A body announced to fit is kept whole while nobody reads (the length is only a hint: the
  // bound still holds), with room made for it at once.
  keep_whole_body_ = content_length_ > 0 && content_length_ <= kSpillLimit;
  if (keep_whole_body_) spill_.Reserve(static_cast<std::size_t>(content_length_));
}

size_t Transfer::OnHeader(const char* data, size_t size) {
  progress_noted_ = true;
  answer_begun_ = true;
  // Lines that come before libcurl sends the request are a proxy's answer to its CONNECT for an
  // https tunnel, not the origin's.
  const bool tunnel = !request_out_;
  if (!tunnel) OnConnected();
  // A challenge's body ends before its answer's status line, which no trailer line can be like:
  // "/" is no character of a name.
  if (in_challenge_body_ && std::string_view(data, size).starts_with("HTTP/")) {
    in_challenge_body_ = false;
  }
  if ((!tunnel && state_ != TransferState::kAwaitingHeaders) || in_challenge_body_) {
    // Trailers of a chunked body (also of a challenge's, which libcurl reads before it answers):
    // not kept here, but libcurl keeps them, and each line counts as progress; without a bound
    // a server could go on sending them until memory runs out.
    trailer_bytes_ += size;
    if (trailer_bytes_ <= HeaderBlock::kMaxBytes) return size;
    header_error_ = ERROR_HTTP_INVALID_SERVER_RESPONSE;
    return 0;
  }
  switch (pending().AddLine(std::string_view(data, size))) {
    case HeaderBlock::LineResult::kInvalid:
      header_error_ = ERROR_HTTP_INVALID_SERVER_RESPONSE;
      return 0;  // makes libcurl stop the transfer
    case HeaderBlock::LineResult::kAccepted:
      return size;
    case HeaderBlock::LineResult::kEndOfBlock:
      break;
  }
  const DWORD error = OnHeaderBlock(tunnel);
  if (error == ERROR_SUCCESS) return size;
  header_error_ = error;
  return 0;
}

DWORD Transfer::OnHeaderBlock(bool tunnel) {
  HeaderBlock& pending = this->pending();
  const int status = pending.status_code();
  if (tunnel && status >= 200 && status < 300) {  // the tunnel is up: the origin answers next
    pending.Clear();
    tunnel_challenged_ = false;
    return ERROR_SUCCESS;
  }
  // A tunnel refused is answered as WinINet does: the proxy's answer is the response (a 407 the
  // caller may answer with credentials), unless libcurl answers the challenge itself.
  if (tunnel && !(status == 407 && answers_407_)) OnConnected();
  // No request here asks to switch protocols; libcurl would hand over what follows a 101 as the
  // body of a response that has no status at all.
  if (status == 101) return ERROR_HTTP_INVALID_SERVER_RESPONSE;
  if (status >= 100 && status < 200) {  // interim response; the real one follows
    pending.Clear();
    return ERROR_SUCCESS;
  }
  // libcurl frames the body by each Transfer-Encoding line as it came, without what a folded
  // line adds: "gzip,\r\n chunked" would hand over the chunks' framing as the body. An answer
  // to a HEAD and a 304 have no body: their transfer coding, which a server may send, is what
  // a GET would get.
  const bool bodyless = status == 304 || method_ == "HEAD";
  if (!pending.ContentLengthAgrees() ||
      (!bodyless && (pending.Folded("Transfer-Encoding") || HasCodingNotRemoved(pending)))) {
    return ERROR_HTTP_INVALID_SERVER_RESPONSE;
  }
  // The blocks exchange roles: each keeps the room it grew for the next one.
  response_index_ ^= 1;
  this->pending().Clear();
  // libcurl answers an authentication challenge itself when it has credentials: such a block
  // is final only if no other response follows it (the body or the end of the transfer tells).
  if ((status == 401 && answers_401_) || (status == 407 && answers_407_)) {
    // libcurl answers as often as it is asked, and each answer starts the header block's
    // deadline again: a server that never stops asking (a Digest nonce "stale" every time)
    // would hold the request for ever.
    if (++challenges_answered_ > kMaxChallengesAnswered) return ERROR_INTERNET_LOGIN_FAILURE;
    tunnel_challenged_ = tunnel;
    in_challenge_body_ = true;
    clock_.RequestSent(Clock::now());  // the answer goes out as a new request
    return ERROR_SUCCESS;
  }
  proxy_answered_ = tunnel;
  MoveTo(TransferState::kReceiving);
  OnFinalHeaders();
  return ERROR_SUCCESS;
}

size_t Transfer::OnBody(const char* data, size_t size) {
  progress_noted_ = true;
  OnConnected();
  if (state_ == TransferState::kAwaitingHeaders) {
    // libcurl hands over only the final response's body.
    MoveTo(TransferState::kReceiving);
    OnFinalHeaders();
  }
  if (state_ == TransferState::kDraining) return OnDrainedBody(size);
  std::size_t taken = 0;
  if (target_ != nullptr) {
    taken = std::min(target_len_ - target_filled_, size);
    std::memcpy(target_ + target_filled_, data, taken);
    target_filled_ += taken;
  }
  const std::size_t rest = size - taken;
  if (rest == 0) return size;
  // The rest of a chunk partly taken is kept: libcurl cannot take it back. While nobody reads
  // (the open is returning), the first chunk is kept, and a small body whole, so that it
  // completes, and frees its connection, without a pause and resume. A reader whose buffer is
  // full pauses the transfer instead: bytes kept here would reach every later read second-hand.
  if (taken > 0 || (target_ == nullptr &&
                    (spill_.empty() ||
                     (keep_whole_body_ && spill_.pending() + rest <= kSpillLimit)))) {
    spill_.Append(data + taken, rest);
    return size;
  }
  // Nobody has room: stop the transfer; libcurl delivers this chunk again when it resumes.
  MoveTo(TransferState::kPaused);
  return CURL_WRITEFUNC_PAUSE;
}

size_t Transfer::OnDrainedBody(size_t size) {
  if (discarded_ + size > kDrainLimit) {
    MoveTo(TransferState::kPaused);
    return CURL_WRITEFUNC_PAUSE;
  }
  discarded_ += size;
  return size;
}

}  // namespace tqplatform
