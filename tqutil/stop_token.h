// Cooperative cancellation: a source requests a stop, tokens observe it.
#pragma once

#include <atomic>
#include <cstdint>

#include "tqutil/export.h"

namespace qv {

namespace detail {
/// The state a source and its tokens share: a reference count and 32 flag bits.
struct StopState {
  std::atomic<std::uint32_t> refs{1};
  std::atomic<std::uint32_t> flags{0};
};
inline constexpr std::uint32_t kStopRequested = 1u;
}  // namespace detail

/// Copyable; asked only whether a stop was requested. A token without state never stops.
class TQUTIL_API stop_token {
 public:
  stop_token() noexcept = default;
  /// Copies and moves share the source's state; each token holds a reference to it.
  ///@{
  stop_token(const stop_token& other) noexcept;
  stop_token(stop_token&& other) noexcept;
  stop_token& operator=(const stop_token& other) noexcept;
  stop_token& operator=(stop_token&& other) noexcept;
  ///@}
  ~stop_token();

  /// The source has requested a stop.
  bool stop_requested() const noexcept;
  /// The token has a source: a stop can ever be requested.
  bool stop_possible() const noexcept { return m_state != nullptr; }

 private:
  friend class stop_source;
  explicit stop_token(detail::StopState* state) noexcept;  ///< adds a reference
  detail::StopState* m_state = nullptr;
};

/// Owns a stop state and requests the stop; any thread may call request_stop.
class TQUTIL_API stop_source {
 public:
  stop_source();
  /// Copies share the state: a request through one is seen through all.
  /// @{
  stop_source(const stop_source& other) noexcept;
  stop_source& operator=(const stop_source& other) noexcept;
  /// @}
  ~stop_source();

  /// True for the call that made the request.
  bool request_stop() noexcept;
  /// A stop has been requested.
  bool stop_requested() const noexcept;
  /// A token that sees this source's requests.
  stop_token get_token() const noexcept;

 private:
  detail::StopState* m_state;
};

}  // namespace qv
