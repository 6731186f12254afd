// An in-process HTTP/1.1 server on 127.0.0.1 with an ephemeral port, whose answers the test
// scripts per path: cpp-httplib, or on Windows the raw responder (tests/WINDOWS.md). It records
// every request, counts the TCP connections it accepted and the requests it served at the same
// time, and can hold answers at a Gate.
#pragma once

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/servers/gate.h"

namespace tq::test {

struct ScriptedResponse {
  ScriptedResponse() = default;
  explicit ScriptedResponse(int status_code, std::string body_bytes = {})
      : status(status_code), body(std::move(body_bytes)) {}
  // Chainable setters: ScriptedResponse(302).Header("Location", "/b").Hold(&gate).
  ScriptedResponse& Header(std::string name, std::string value) {
    headers.emplace_back(std::move(name), std::move(value));
    return *this;
  }
  ScriptedResponse& Chunked(std::size_t piece) {
    chunk_size = piece;
    return *this;
  }
  ScriptedResponse& Hold(Gate* gate) {
    hold = gate;
    return *this;
  }

  int status = 200;
  // Sent in this order; a repeated name is sent repeatedly.
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;  // sent as application/octet-stream
  // Sends the body with chunked transfer encoding, in pieces of this many bytes (0: not chunked).
  std::size_t chunk_size = 0;
  // When set, the answer waits at this gate (owned by the test) before it is sent.
  Gate* hold = nullptr;
};

struct RecordedRequest {
  std::string method;
  std::string path;  // without the query
  std::string query;  // as sent, without '?'
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;

  // The first value of a header (names compared case-insensitively), or nullopt.
  std::optional<std::string> Header(const std::string& name) const {
    const auto same = [](unsigned char x, unsigned char y) {
      return std::tolower(x) == std::tolower(y);
    };
    for (const auto& [key, value] : headers) {
      if (std::ranges::equal(key, name, same)) return value;
    }
    return std::nullopt;
  }
};

using ScriptedHandler = std::function<ScriptedResponse(const RecordedRequest&)>;

class ScriptedServer {
 public:
  struct Options {
    // With both set, serves HTTPS with this certificate and private key (PEM files).
    std::string cert_file;
    std::string key_file;
  };

  explicit ScriptedServer(const Options& options = {});
  // Stops the server and waits for its threads. Clients should close their connections first:
  // a thread serving an idle keep-alive connection may end only after its idle time-out.
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  // False when the server could not start (no socket, bad certificate).
  bool ok() const { return port_ > 0; }
  int port() const { return port_; }
  // "http://127.0.0.1:<port>" + path (https when serving TLS).
  std::string Url(const std::string& path = "/") const {
    return std::string(tls_ ? "https" : "http") + "://127.0.0.1:" + std::to_string(port_) + path;
  }

  // Answers requests of any method for exactly this path (the query is ignored). A later call
  // for the same path replaces the earlier one. Paths without a route get 404.
  void Route(const std::string& path, ScriptedResponse response) {
    Route(path, [response](const RecordedRequest&) { return response; });
  }
  void Route(const std::string& path, ScriptedHandler handler) {
    std::lock_guard lock(mutex_);
    routes_[path] = std::move(handler);
  }

  std::size_t request_count() const { return requests().size(); }
  // TCP connections the server accepted.
  std::size_t connection_count() const { return accepted_.load(); }
  // The largest number of requests that were being answered at the same time.
  std::size_t max_concurrent_requests() const {
    std::lock_guard lock(mutex_);
    return max_in_flight_;
  }
  std::vector<RecordedRequest> requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
  }

 private:
  // Records the request and answers it as its route says (404 without one), after the answer's
  // gate opens. Both backends answer through it.
  ScriptedResponse Answer(const RecordedRequest& record) {
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

  mutable std::mutex mutex_;
  std::map<std::string, ScriptedHandler> routes_;
  std::vector<RecordedRequest> requests_;
  std::size_t in_flight_ = 0;
  std::size_t max_in_flight_ = 0;
  std::atomic<std::size_t> accepted_{0};
  int port_ = -1;  // set once serving
  bool tls_ = false;
  struct Impl;
  std::unique_ptr<Impl> impl_;  // last: its threads use the members above
};

}  // namespace tq::test
