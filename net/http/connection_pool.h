// Shared transport connections: one connection handle per server and credentials, opened on
// first demand through the installed IHttpApi and kept until Terminate.
#pragma once

#include <cstdint>
#include <string>

#include "net/export.h"
#include "net/host/tqutil.h"

namespace qv::net {

/// The process's pool of transport connections, one per host, port and credentials, shared
/// by every read stream so that requests to a server reuse its connection. Static only.
class TQNET_EXPORT HttpConnectionPool {
 public:
  HttpConnectionPool() = delete;
  /// No state of its own to assign: the pool is process-wide.
  /// @{
  HttpConnectionPool& operator=(const HttpConnectionPool&) { return *this; }
  HttpConnectionPool& operator=(HttpConnectionPool&&) { return *this; }
  /// @}

  /// The pooled connection for the URL's host, port, user name and password; null when none
  /// can be had. The pool keeps the handle: callers use it (from any thread, concurrently) and
  /// never close it.
  static void* CreateConnection(const TqUURL& url);
  /// Closes every pooled connection and the internet handle through the installed transport,
  /// which must be the one that opened them. Call when no stream is open: a stream still
  /// reading (say, a task of OpenFileOrUrlAsync the host did not wait for) then fails its reads,
  /// since the WinINet layer cancels the requests of a closed connection.
  static void Terminate();

  struct Impl;
};

namespace detail {

/// What identifies a pooled connection. The scheme is not part of it: security is chosen per
/// request.
struct ConnectionKey {
  std::wstring host;
  std::uint16_t port = 0;
  std::wstring user;
  std::wstring password;
  bool operator==(const ConnectionKey& other) const = default;
};

/// 64-bit FNV-1a over each field's UTF-16 code units (little-endian), combined so that the
/// value is the same on every system.
struct ConnectionKeyHash {
  std::uint64_t operator()(const ConnectionKey& key) const noexcept;
};

}  // namespace detail
}  // namespace qv::net
