#include "net/http/send_watch.h"

#include <new>
#include <utility>

namespace qv::net::detail {
namespace {

thread_local const qv::stop_token* t_send_stop = nullptr;
thread_local const qv::stop_token* t_send_stop_also = nullptr;

qv::stop_token Current(const qv::stop_token* token) {
  return token != nullptr ? *token : qv::stop_token();
}

}  // namespace

SendStopScope::SendStopScope(const qv::stop_token& stop, qv::stop_token also)
    : m_previous(t_send_stop), m_previous_also(t_send_stop_also), m_also(std::move(also)) {
  t_send_stop = &stop;
  t_send_stop_also = &m_also;
}

SendStopScope::~SendStopScope() {
  t_send_stop = m_previous;
  t_send_stop_also = m_previous_also;
}

SendWatch::SendWatch(void* request, std::function<void(void*)> close) {
  qv::stop_token stop = Current(t_send_stop);
  qv::stop_token also = Current(t_send_stop_also);
  if (!stop.stop_possible() && !also.stop_possible()) return;
  try {
    m_watch.emplace(std::move(stop), std::move(also),
                    [request, close = std::move(close)] { close(request); });
  } catch (const std::bad_alloc&) {
    // Unwatched, the send ends as it would have before: at its own time-out.
  }
}

}  // namespace qv::net::detail
