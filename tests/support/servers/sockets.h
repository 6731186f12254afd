// The few socket calls the test servers make, on POSIX sockets or on Winsock, without either
// system's headers.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace tq::test::sockets {

#if defined(_WIN32)
using Handle = std::uintptr_t;  // SOCKET
#else
using Handle = int;
#endif
inline constexpr Handle kNone = static_cast<Handle>(-1);

// A socket listening on 127.0.0.1 on an ephemeral port (written to *port); kNone on failure.
Handle ListenOnLoopback(int backlog, int* port);
// A connection to 127.0.0.1:port; kNone when refused.
Handle ConnectToLoopback(int port);
Handle Accept(Handle listener);

// Waits until `s` can be read or accepted from (true), or `stopping` is set or `timeout_ms` has
// passed (false; a negative time-out waits without end). A thread waiting here sees `stopping`
// within a few tens of milliseconds, on every system.
bool WaitReadable(Handle s, const std::atomic<bool>& stopping, int timeout_ms = -1);
// Bytes read (> 0), 0 when the peer closed, < 0 on an error.
long Receive(Handle s, char* buffer, std::size_t size);
// Sends every byte; false when the peer is gone. Never raises SIGPIPE.
bool SendAll(Handle s, const char* data, std::size_t size);

void SetNoDelay(Handle s);
// The next Close sends a TCP reset (RST) instead of an orderly close.
void ResetOnClose(Handle s);
// Ends both directions; wakes a thread blocked on `s` where the system does so.
void Shutdown(Handle s);
void Close(Handle s);
// "address:port" of the peer.
std::string PeerName(Handle s);

// Accepts connections on 127.0.0.1 (ephemeral port) on a thread of its own and serves each on a
// thread of its own, so that the test decides how many there are. Stop() wakes every wait, ends
// both directions of the open connections and joins every thread.
class LoopbackServer {
 public:
  // Serves one accepted connection (index: in accept order, from 0); hands the socket back
  // through Close() before it returns.
  using Serve = std::function<void(Handle, std::size_t index)>;

  explicit LoopbackServer(Serve serve);
  ~LoopbackServer() { Stop(); }
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  bool ok() const { return port_ > 0; }
  int port() const { return port_; }
  std::size_t accepted() const { return accepted_.load(); }
  // Set once stopping begins; waits on the connections pass it to WaitReadable.
  const std::atomic<bool>& stopping() const { return stopping_; }
  void RequestStop() { stopping_ = true; }
  void Stop();
  void Close(Handle s);

 private:
  void AcceptLoop();

  Serve serve_;
  Handle listener_ = kNone;
  int port_ = -1;
  std::atomic<std::size_t> accepted_{0};
  std::atomic<bool> stopping_{false};
  std::mutex mutex_;
  std::set<Handle> open_;
  std::vector<std::thread> workers_;
  std::thread acceptor_;  // last: starts once the rest is ready
};

}  // namespace tq::test::sockets
