// ScriptedServer's state that does not depend on the backend serving it.
#pragma once

#include <atomic>
#include <mutex>

#include "tests/support/servers/scripted_server.h"

namespace tq::test {

struct ScriptedServer::Book {
  // Records the request and answers it as its route says (404 without one), after the answer's
  // gate opens.
  ScriptedResponse Answer(const RecordedRequest& record);

  std::atomic<std::size_t> accepted{0};
  mutable std::mutex mutex;
  std::map<std::string, ScriptedHandler> routes;
  std::vector<RecordedRequest> requests;
  std::size_t in_flight = 0;
  std::size_t max_in_flight = 0;
};

}  // namespace tq::test
