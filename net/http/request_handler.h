// Hooks that amend the library's outgoing requests (an authorisation header, a changed method,
// ...): those of the read stream and of the file protocol's reads and file information, not the
// whole-file downloads, which the URL Moniker sends. The host registers them at start-up;
// senders run them before a request's first send.
#pragma once

#include "net/export.h"
#include "net/http/http_request.h"

namespace qv::net {

/// Called concurrently for different requests: implementations must be thread-safe. A handler
/// must not register or unregister handlers from inside HandlePreRequest.
class TQNET_EXPORT HttpRequestHandler {
 public:
  HttpRequestHandler() = default;
  /// Copies share nothing: a handler's registration is not copied.
  /// @{
  HttpRequestHandler(const HttpRequestHandler&) {}
  HttpRequestHandler& operator=(const HttpRequestHandler&) { return *this; }
  /// @}
  virtual ~HttpRequestHandler();
  /// Amends `request` (headers, method) before it is sent; called once for every request of a
  /// read stream or of the file protocol's reads and file information (not again for a retry,
  /// nor for a whole-file download).
  virtual void HandlePreRequest(HttpRequest& request) = 0;
};

/// The process-wide list of handlers, in registration order. It does not own them; the host
/// unregisters a handler before destroying it. Registration happens while no request is sent.
class TQNET_EXPORT HttpRequestHandlerManager {
 public:
  HttpRequestHandlerManager() = delete;

  /// Appends; no null or duplicate check (a handler registered twice runs twice).
  static void RegisterHandler(HttpRequestHandler* handler);
  /// Removes every entry equal to `handler`; the rest keep their order.
  static void UnregisterHandler(HttpRequestHandler* handler);
  /// Runs every handler on `request`, first registered first. A handler's exception propagates
  /// and the handlers after it are not called.
  static void HandlePreRequest(HttpRequest& request);
};

}  // namespace qv::net
