#include "tests/support/servers/sockets.h"

#if defined(_WIN32)
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

#include <algorithm>

namespace tq::test::sockets {
namespace {

#if defined(_WIN32)
using Native = SOCKET;
using Length = int;
constexpr int kNoSignal = 0;
constexpr int kBothWays = SD_BOTH;
int CloseNative(SOCKET s) { return ::closesocket(s); }
// Winsock, started once for the life of the test process.
bool Started() {
  static const bool started = [] {
    WSADATA data;
    return ::WSAStartup(MAKEWORD(2, 2), &data) == 0;
  }();
  return started;
}
int PollOne(pollfd* entry, int timeout) { return ::WSAPoll(entry, 1, timeout); }
#else
using Native = int;
using Length = socklen_t;
constexpr int kNoSignal = MSG_NOSIGNAL;
constexpr int kBothWays = SHUT_RDWR;
int CloseNative(int s) { return ::close(s); }
bool Started() { return true; }
int PollOne(pollfd* entry, int timeout) { return ::poll(entry, 1, timeout); }
#endif

Native N(Handle s) { return static_cast<Native>(s); }

// A thread waiting for data looks at `stopping` this often: on Windows (and Wine) shutting a
// socket down does not wake a thread blocked on it.
constexpr int kWaitSliceMs = 50;

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

// A failed call's INVALID_SOCKET or -1 is kNone.
Handle NewStreamSocket() {
  if (!Started()) return kNone;
#if defined(_WIN32)
  return static_cast<Handle>(
      ::WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_NO_HANDLE_INHERIT));
#else
  return static_cast<Handle>(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
#endif
}

}  // namespace

Handle ListenOnLoopback(int backlog, int* port) {
  const Handle s = NewStreamSocket();
  if (s == kNone) return kNone;
  sockaddr_in address = Loopback(0);
  Length length = sizeof address;
  if (::bind(N(s), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(N(s), backlog) != 0 ||
      ::getsockname(N(s), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    Close(s);
    return kNone;
  }
  *port = ntohs(address.sin_port);
  return s;
}

Handle ConnectToLoopback(int port) {
  const Handle s = NewStreamSocket();
  if (s == kNone) return kNone;
  const sockaddr_in address = Loopback(port);
  if (::connect(N(s), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    Close(s);
    return kNone;
  }
  return s;
}

Handle Accept(Handle listener) {
  return static_cast<Handle>(::accept(N(listener), nullptr, nullptr));  // kNone on failure
}

bool WaitReadable(Handle s, const std::atomic<bool>& stopping) {
  for (int ready = 0; !stopping; ) {
    pollfd entry{};
    entry.fd = N(s);
    entry.events = POLLIN;
    ready = PollOne(&entry, kWaitSliceMs);
    if (ready != 0) return ready > 0 && !stopping;
  }
  return false;
}

long Receive(Handle s, char* buffer, std::size_t size) {
  const int chunk = static_cast<int>(std::min<std::size_t>(size, 1 << 20));
  return static_cast<long>(::recv(N(s), buffer, chunk, 0));
}

bool SendAll(Handle s, const char* data, std::size_t size) {
  while (size > 0) {
    const int chunk = static_cast<int>(std::min<std::size_t>(size, 1 << 20));
    const auto sent = ::send(N(s), data, chunk, kNoSignal);
    if (sent <= 0) return false;
    data += sent;
    size -= static_cast<std::size_t>(sent);
  }
  return true;
}

void SetNoDelay(Handle s) {
  int on = 1;
  ::setsockopt(N(s), IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof on);
}

void ResetOnClose(Handle s) {
  linger hard{};
  hard.l_onoff = 1;
  hard.l_linger = 0;
  ::setsockopt(N(s), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&hard), sizeof hard);
}

void Shutdown(Handle s) { ::shutdown(N(s), kBothWays); }

void Close(Handle s) { CloseNative(N(s)); }

}  // namespace tq::test::sockets
