// Cancelling a send that blocks inside the transport when its stop is requested. IHttpApi
// carries no stop token, so the read stream names the token of the send it makes for the
// duration of the call (SendStopScope), and a transport that opened a request handle hands it to
// the stop watcher for the send (SendWatch): on a stop the watcher thread closes the handle,
// which is how WinINet cancels a blocked call. Internal to the library.
#pragma once

#include <functional>
#include <optional>

#include "net/host/tqutil.h"
#include "net/http/stop_watcher.h"

namespace qv::net::detail {

// The stop token of the send in flight on this thread, from construction to destruction.
// Scopes nest; the innermost one counts. The token must outlive the scope.
class SendStopScope {
 public:
  explicit SendStopScope(const qv::stop_token& stop);
  ~SendStopScope();
  SendStopScope(const SendStopScope&) = delete;
  SendStopScope& operator=(const SendStopScope&) = delete;

 private:
  const qv::stop_token* m_previous;
};

// Watches the request handle of one send, made under a SendStopScope on this thread (without a
// scope nothing is watched): when the scope's stop is requested, `close(request)` runs on the
// watcher thread. The transport creates it once the handle is open, just before sending. It
// throws nothing: when memory runs out the send is simply not watched.
class SendWatch {
 public:
  SendWatch(void* request, std::function<void(void*)> close);
  SendWatch(const SendWatch&) = delete;
  SendWatch& operator=(const SendWatch&) = delete;

  // Call once the send returned. True when the watcher closed the handle: the send was
  // cancelled and the handle must be neither used nor closed again. When false the handle is
  // the caller's as before, and the watcher will never touch it.
  bool Cancelled() { return m_watch && m_watch->Finish(); }

 private:
  std::optional<StopWatch> m_watch;
};

}  // namespace qv::net::detail
