#include "platform/transfer_state.h"

#include <algorithm>
#include <cstring>

namespace tqplatform {

void TransferClock::Start(TransferLimits limits, bool sends_body, Clock::time_point now) {
  connect_ = limits.connect.count() > 0 ? limits.connect : kDefaultConnect;
  idle_ = limits.idle;
  if (sends_body && idle_.count() > 0) idle_ = std::max(idle_, limits.send);
  if (sends_body && limits.send.count() == 0) idle_ = std::chrono::milliseconds(0);
  start_ = now;
  request_sent_ = now;
  last_progress_ = now;
  drain_deadline_ = Clock::time_point::max();
}

void TransferClock::RequestSent(Clock::time_point now) {
  request_sent_ = now;
  last_progress_ = now;
}

TransferClock::Clock::time_point TransferClock::Deadline(TransferState state) const {
  const bool idle_limited = idle_.count() > 0;
  switch (state) {
    case TransferState::kConnecting:
      return start_ + connect_ + kConnectGrace;
    case TransferState::kAwaitingHeaders:
      return idle_limited ? request_sent_ + idle_ : Clock::time_point::max();
    case TransferState::kReceiving:
      return idle_limited ? last_progress_ + idle_ : Clock::time_point::max();
    case TransferState::kDraining:
      return std::min(drain_deadline_, Deadline(TransferState::kReceiving));
    default:
      return Clock::time_point::max();
  }
}

std::size_t SpillBuffer::Take(char* out, std::size_t size) {
  if (empty()) return 0;
  const std::size_t n = std::min(size, bytes_.size() - pos_);
  std::memcpy(out, bytes_.data() + pos_, n);
  pos_ += n;
  if (empty()) Clear();
  return n;
}

void SpillBuffer::Append(const char* data, std::size_t size) {
  if (empty()) Clear();
  bytes_.append(data, size);
}

void SpillBuffer::Clear() {
  bytes_.clear();
  pos_ = 0;
}

bool SpillBuffer::SwapStorage(std::string& other) {
  if (!empty()) return false;
  Clear();
  bytes_.swap(other);
  bytes_.clear();
  return true;
}

}  // namespace tqplatform
