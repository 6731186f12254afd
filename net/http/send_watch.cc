#include "net/http/send_watch.h"

#include <new>
#include <utility>

namespace qv::net::detail {
namespace {

thread_local const qv::stop_token* t_send_stop = nullptr;

qv::stop_token CurrentSendStop() { return t_send_stop != nullptr ? *t_send_stop : qv::stop_token(); }

}  // namespace

SendStopScope::SendStopScope(const qv::stop_token& stop) : m_previous(t_send_stop) {
  t_send_stop = &stop;
}

SendStopScope::~SendStopScope() { t_send_stop = m_previous; }

SendWatch::SendWatch(void* request, std::function<void(void*)> close) {
  qv::stop_token stop = CurrentSendStop();
  if (!stop.stop_possible()) return;
  try {
    m_watch.emplace(std::move(stop), [request, close = std::move(close)] { close(request); });
  } catch (const std::bad_alloc&) {
    // Unwatched, the send ends as it would have before: at its own time-out.
  }
}

}  // namespace qv::net::detail
