// A raw TCP server on 127.0.0.1 with an ephemeral port, for answers no real server would give:
// exact bytes, a connection closed or reset half-way, a server that stalls. A script runs for
// each accepted connection on its own thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "tests/support/servers/sockets.h"

namespace tq::test {

class RawConnection {
 public:
  // Reads one request's head, through the blank line, and the body that its Content-Length
  // announces (into *body when given); returns the head ("" when the peer closed or the
  // responder is stopping).
  std::string ReadRequestHead(std::string* body = nullptr);
  // Sends all bytes; false when the peer is gone. With `piece` > 0 the bytes go out that many
  // at a time, one send each (the socket does not delay small sends), so that the client meets
  // every split of the head and body.
  bool Send(std::string_view bytes, std::size_t piece = 0);
  // Waits until the responder's Release() or its destruction. Returns true when released.
  bool Stall();
  // Closes with a TCP reset (RST) instead of an orderly close.
  void Reset();
  // Orderly close (FIN). Also done when the script returns.
  void Close();

 private:
  friend class RawResponder;
  RawConnection(sockets::Handle socket, void* owner) : socket_(socket), owner_(owner) {}
  sockets::Handle socket_;
  void* owner_;
  std::string pending_;  // bytes read past the last request
};

class RawResponder {
 public:
  using Script = std::function<void(RawConnection&)>;

  explicit RawResponder(Script script);

  // Releases stalls, unblocks reads, closes every connection and joins the threads.
  ~RawResponder();
  RawResponder(const RawResponder&) = delete;
  RawResponder& operator=(const RawResponder&) = delete;

  bool ok() const;
  int port() const;
  std::string Url(const std::string& path = "/") const;
  std::size_t connection_count() const;
  // Lets connections waiting in Stall() go on.
  void Release();

 private:
  struct Impl;
  friend class RawConnection;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tq::test
