#include "net/http/request_handler.h"

#include <algorithm>
#include <vector>

namespace qv::net {
namespace {

// Plain process-wide list: set up while no request runs, then only read. Constant-initialised,
// so a static initialiser elsewhere may register; made at load, so it is destroyed at exit only
// after the worker pool has ended the tasks that still send.
std::vector<HttpRequestHandler*> g_handlers;

std::vector<HttpRequestHandler*>& Handlers() { return g_handlers; }

}  // namespace

HttpRequestHandler::~HttpRequestHandler() = default;

void HttpRequestHandlerManager::RegisterHandler(HttpRequestHandler* handler) {
  Handlers().push_back(handler);
}

void HttpRequestHandlerManager::UnregisterHandler(HttpRequestHandler* handler) {
  auto& handlers = Handlers();
  handlers.erase(std::remove(handlers.begin(), handlers.end(), handler), handlers.end());
}

void HttpRequestHandlerManager::HandlePreRequest(HttpRequest& request) {
  // The bounds are read once: handlers must not change the list while it is walked.
  auto& handlers = Handlers();
  for (auto it = handlers.begin(), end = handlers.end(); it != end; ++it) {
    (*it)->HandlePreRequest(request);
  }
}

}  // namespace qv::net
