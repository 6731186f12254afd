// The part of ScriptedServer both backends share: routes, the request log, the count of
// requests being answered at once, and its address.
#include <algorithm>
#include <cctype>

#include "tests/support/servers/scripted_server.h"

namespace tq::test {

std::optional<std::string> RecordedRequest::Header(const std::string& name) const {
  const auto same = [](unsigned char x, unsigned char y) {
    return std::tolower(x) == std::tolower(y);
  };
  for (const auto& [key, value] : headers) {
    if (std::ranges::equal(key, name, same)) return value;
  }
  return std::nullopt;
}

ScriptedResponse ScriptedServer::Answer(const RecordedRequest& record) {
  ScriptedHandler handler;
  {
    std::lock_guard lock(mutex_);
    requests_.push_back(record);
    max_in_flight_ = std::max(max_in_flight_, ++in_flight_);
    const auto it = routes_.find(record.path);
    if (it != routes_.end()) handler = it->second;
  }
  const ScriptedResponse answer = handler ? handler(record) : ScriptedResponse(404, "no route");
  if (answer.hold != nullptr) answer.hold->Wait();
  std::lock_guard lock(mutex_);
  --in_flight_;
  return answer;
}

std::string ScriptedServer::Url(const std::string& path) const {
  return std::string(tls_ ? "https" : "http") + "://127.0.0.1:" + std::to_string(port_) + path;
}

void ScriptedServer::Route(const std::string& path, ScriptedResponse response) {
  Route(path, [response](const RecordedRequest&) { return response; });
}

void ScriptedServer::Route(const std::string& path, ScriptedHandler handler) {
  std::lock_guard lock(mutex_);
  routes_[path] = std::move(handler);
}

std::size_t ScriptedServer::request_count() const {
  std::lock_guard lock(mutex_);
  return requests_.size();
}

std::size_t ScriptedServer::connection_count() const { return accepted_.load(); }

std::size_t ScriptedServer::max_concurrent_requests() const {
  std::lock_guard lock(mutex_);
  return max_in_flight_;
}

std::vector<RecordedRequest> ScriptedServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

}  // namespace tq::test
