// The tour's local HTTP server on 127.0.0.1 (an ephemeral port): a few files served from
// memory with an entity tag and a freshness lifetime; answers GET and HEAD, If-None-Match
// (304) and one byte range (206, 416), keeps connections alive. Plain sockets, so that the same
// demo runs on Linux and on Windows.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

class TourServer {
 public:
  struct File {
    std::string etag;  // quoted, as sent
    std::string body;
    // Each answer waits this long before it is sent: a slow server, so that opens overlap.
    int delay_ms = 0;
  };

  // Throws std::runtime_error when no socket can be opened.
  TourServer();
  ~TourServer();
  TourServer(const TourServer&) = delete;
  TourServer& operator=(const TourServer&) = delete;

  void Put(const std::string& path, File file);
  std::string Url(const std::string& path) const;
  // Requests that reached `path` so far (HEAD and 304 answers included).
  int Requests(const std::string& path);
  std::string Body(const std::string& path);

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};
