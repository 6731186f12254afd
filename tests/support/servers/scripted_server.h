// An in-process HTTP/1.1 server (cpp-httplib) on 127.0.0.1 with an ephemeral port, whose answers
// the test scripts per path. It records every request, counts the TCP connections it accepted
// and the requests it served at the same time, and can hold answers at a Gate.
//
//   tq::test::ScriptedServer server;
//   server.Route("/a", {.status = 200, .headers = {{"ETag", "\"x\""}}, .body = "hello"});
//   server.Route("/b", [](const tq::test::RecordedRequest& r) { ... return response; });
//   ... request http://127.0.0.1:<server.port()>/a ...
//   EXPECT_EQ(server.connection_count(), 1u);
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
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
  std::string body;
  std::string content_type = "application/octet-stream";
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
  std::string remote;  // "address:port" of the client's connection

  // The first value of a header (names compared case-insensitively), or nullopt.
  std::optional<std::string> Header(const std::string& name) const;
};

using ScriptedHandler = std::function<ScriptedResponse(const RecordedRequest&)>;

class ScriptedServer {
 public:
  struct Options {
    // With both set, serves HTTPS with this certificate and private key (PEM files).
    std::string cert_file;
    std::string key_file;
    // Requests served on one connection before the server closes it.
    std::size_t keep_alive_max = 100000;
    // How long an idle connection is kept open waiting for the next request.
    int keep_alive_seconds = 5;
  };

  ScriptedServer();
  explicit ScriptedServer(const Options& options);
  // Stops the server and waits for its threads. Clients should close their connections first:
  // a thread serving an idle keep-alive connection only ends after keep_alive_seconds.
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  // False when the server could not start (no socket, bad certificate).
  bool ok() const;
  int port() const;
  // "http://127.0.0.1:<port>" + path (https when serving TLS).
  std::string Url(const std::string& path = "/") const;

  // Answers requests of any method for exactly this path (the query is ignored). A later call
  // for the same path replaces the earlier one. Paths without a route get 404.
  void Route(const std::string& path, ScriptedResponse response);
  void Route(const std::string& path, ScriptedHandler handler);

  std::size_t request_count() const;
  // TCP connections the server accepted.
  std::size_t connection_count() const;
  // The largest number of requests that were being answered at the same time.
  std::size_t max_concurrent_requests() const;
  std::vector<RecordedRequest> requests() const;

 private:
  // Routes, the request log and the in-flight count, shared by both backends.
  struct Book;
  Book& book() const;
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tq::test
