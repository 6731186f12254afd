#include "tqutil/stop_token.h"

namespace qv {
namespace {

void AddRef(detail::StopState* state) {
  if (state) state->refs.fetch_add(1, std::memory_order_relaxed);
}

void Release(detail::StopState* state) {
  // The last holder deletes; acq_rel orders every holder's use before the deletion.
  if (state && state->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete state;
}

}  // namespace

stop_token::stop_token(detail::StopState* state) noexcept : m_state(state) { AddRef(m_state); }
stop_token::stop_token(const stop_token& other) noexcept : m_state(other.m_state) {
  AddRef(m_state);
}
stop_token::stop_token(stop_token&& other) noexcept : m_state(other.m_state) {
  other.m_state = nullptr;
}
stop_token& stop_token::operator=(const stop_token& other) noexcept {
  if (m_state != other.m_state) {
    AddRef(other.m_state);
    Release(m_state);
    m_state = other.m_state;
  }
  return *this;
}
stop_token& stop_token::operator=(stop_token&& other) noexcept {
  if (this != &other) {
    Release(m_state);
    m_state = other.m_state;
    other.m_state = nullptr;
  }
  return *this;
}
stop_token::~stop_token() { Release(m_state); }

bool stop_token::stop_requested() const noexcept {
  return m_state && (m_state->flags.load(std::memory_order_acquire) & detail::kStopRequested);
}

stop_source::stop_source() : m_state(new detail::StopState()) {}
stop_source::stop_source(const stop_source& other) noexcept : m_state(other.m_state) {
  AddRef(m_state);
}
stop_source& stop_source::operator=(const stop_source& other) noexcept {
  if (m_state != other.m_state) {
    AddRef(other.m_state);
    Release(m_state);
    m_state = other.m_state;
  }
  return *this;
}
stop_source::~stop_source() { Release(m_state); }

bool stop_source::request_stop() noexcept {
  const auto old = m_state->flags.fetch_or(detail::kStopRequested, std::memory_order_acq_rel);
  return (old & detail::kStopRequested) == 0;
}

bool stop_source::stop_requested() const noexcept {
  return m_state->flags.load(std::memory_order_acquire) & detail::kStopRequested;
}

stop_token stop_source::get_token() const noexcept { return stop_token(m_state); }

}  // namespace qv
