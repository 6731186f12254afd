// The few socket calls the test servers make, on POSIX sockets or on Winsock, without either
// system's headers.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

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

// Waits until `s` can be read or accepted from (true), or `stopping` is set (false). A thread
// waiting here sees `stopping` within a few tens of milliseconds, on every system.
bool WaitReadable(Handle s, const std::atomic<bool>& stopping);
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

}  // namespace tq::test::sockets
