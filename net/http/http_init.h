// The library's HTTP start-up and shut-down, called once each by the host.
#pragma once

#include "net/export.h"

namespace qv::net {

/// Creates the worker pool (4 threads, replacing and destroying an earlier one), installs a new
/// WinInet backend as the transport (a transport installed before stays its owner's), and
/// registers the http/https file protocol. Throws when the pool or backend cannot be made; the
/// earlier pool and transport then stay installed.
TQNET_EXPORT void InitialiseHttp();

/// Unregisters the file protocol, destroys whatever transport is installed, then stops the
/// worker pool (running tasks finish, queued ones break their futures). Call
/// HttpConnectionPool::Terminate() first, while the transport is still installed.
TQNET_EXPORT void TerminateHttp();

}  // namespace qv::net
