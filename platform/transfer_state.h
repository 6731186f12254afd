// The phases of one libcurl transfer and the rules that depend only on the phase and the time:
// which moves between phases are legal, and when the transfer has waited too long. Pure, so that
// the rules are tested without a network.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace tqplatform {

enum class TransferState {
  kIdle,             // no transfer: before the first send, or reset for the next one
  kConnecting,       // handed to libcurl; no connection yet
  kAwaitingHeaders,  // connected and sent; the final response's header block is not complete
  kReceiving,        // the final headers are in; body bytes go to the reader
  kPaused,           // libcurl holds the body: nobody was reading, or a drain met its bound
  kDraining,         // the rest of the body is read and dropped, so the connection stays usable
  kFinished,         // over after the final headers: the body ended, failed or was dropped
  kFailed,           // over without a usable final response
};

// The one table of legal moves. These three are asked at every step of every transfer, hence
// defined here, where callers can inline them.
constexpr bool IsLegalMove(TransferState from, TransferState to) {
  using S = TransferState;
  switch (from) {
    case S::kIdle:
      // An open can fail before anything goes out (no slot, no memory).
      return to == S::kConnecting || to == S::kFailed;
    case S::kConnecting:
      return to == S::kAwaitingHeaders || to == S::kFailed;
    case S::kAwaitingHeaders:
      // A response that ends with its headers (HEAD, an empty body) finishes from here.
      return to == S::kReceiving || to == S::kFinished || to == S::kFailed;
    case S::kReceiving:
      return to == S::kPaused || to == S::kDraining || to == S::kFinished;
    case S::kPaused:
      return to == S::kReceiving || to == S::kDraining || to == S::kFinished;
    case S::kDraining:
      return to == S::kPaused || to == S::kFinished;
    case S::kFinished:
      // A redirect's next hop starts from the finished one; a redirect refused fails it.
      return to == S::kIdle || to == S::kConnecting || to == S::kFailed;
    case S::kFailed:
      return to == S::kIdle;
  }
  return false;
}

// True in the phases where libcurl has the transfer (a slot is in use).
constexpr bool IsRunning(TransferState state) {
  return state != TransferState::kIdle && state != TransferState::kFinished &&
         state != TransferState::kFailed;
}

// True once the final response's headers are in, until the transfer is reset or fails.
constexpr bool HasFinalHeaders(TransferState state) {
  return state == TransferState::kReceiving || state == TransferState::kPaused ||
         state == TransferState::kDraining || state == TransferState::kFinished;
}

// The time limits of one transfer; zero means none (for `connect`: libcurl's default). For a
// request that sends a body, `send` applies as well, to the whole transfer (the clock cannot tell
// when the body is out): the longer of the two, none if either is none.
struct TransferLimits {
  std::chrono::milliseconds connect{0};
  std::chrono::milliseconds idle{0};
  std::chrono::milliseconds send{0};
};

// The one clock rule: a connection must be made within the connect limit (libcurl's own
// time-out, plus a grace that lets libcurl report it first); the whole header block has one
// deadline counted from the request's sending, however slowly its lines come; body bytes have an
// idle limit that each byte starts again; a drain has its own bound on top. The layer keeps this
// clock itself because libcurl's time-outs do not run while a transfer is paused.
class TransferClock {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds kConnectGrace{1000};

  // libcurl's own connect time-out when none is set.
  static constexpr std::chrono::milliseconds kDefaultConnect{300'000};

  void Start(TransferLimits limits, bool sends_body, Clock::time_point now);
  std::chrono::milliseconds connect_limit() const { return connect_; }
  // A request went out (the first, or libcurl's answer to a challenge).
  void RequestSent(Clock::time_point now);
  // Bytes arrived, or a reader came back after the transfer sat paused.
  void Progress(Clock::time_point now) { last_progress_ = now; }
  void DrainUntil(Clock::time_point deadline) { drain_deadline_ = deadline; }

  // The deadline in `state`; Clock::time_point::max() when there is none.
  Clock::time_point Deadline(TransferState state) const;

 private:
  std::chrono::milliseconds connect_{kDefaultConnect};
  std::chrono::milliseconds idle_{0};
  Clock::time_point start_;
  Clock::time_point request_sent_;
  Clock::time_point last_progress_;
  Clock::time_point drain_deadline_;
};

// Body bytes that came while the reader's buffer had no room; its owner bounds how many. Its
// storage can be swapped with a slot's, so that requests on a slot reuse one buffer.
class SpillBuffer {
 public:
  bool empty() const { return pos_ >= bytes_.size(); }
  // Bytes kept and not yet taken.
  std::size_t pending() const { return bytes_.size() - pos_; }
  // Copies up to `size` bytes out; returns how many.
  std::size_t Take(char* out, std::size_t size);
  // Adds bytes after those not yet taken.
  void Append(const char* data, std::size_t size);
  // Makes room for `size` bytes in all, so that a body kept whole is not copied as it grows.
  void Reserve(std::size_t size) { bytes_.reserve(size); }
  void Clear();
  // Exchanges storage with `other` while this holds nothing; false (no exchange) otherwise.
  bool SwapStorage(std::string& other);
  std::size_t capacity() const { return bytes_.capacity(); }

 private:
  std::string bytes_;
  std::size_t pos_ = 0;
};

}  // namespace tqplatform
