// The library's HTTP start-up and shut-down, called once each by the host. They wire the layers
// together (worker pool, transport, file protocol), so they live above all of them: nothing else
// in net/ includes this.
#pragma once

#include "net/export.h"

namespace qv::net {

/// Creates the worker pool (4 threads, replacing and destroying an earlier one), installs a new
/// WinInet backend as the transport (a transport installed before is replaced, not deleted: it
/// stays its installer's), and registers the http/https file protocol. Throws when the pool or
/// backend cannot be made; the earlier pool and transport then stay installed. Called on one of
/// the pool's threads (from a pre-request handler, say) it throws std::system_error
/// (resource_deadlock_would_occur) and changes nothing; so does TerminateHttp.
TQNET_EXPORT void InitialiseHttp();

/// Unregisters the file protocol, stops the worker pool and waits for its running tasks to
/// finish, then deletes whatever transport is installed (see SetHttpApi in
/// net/http/http_api.h: a host's own transport too, unless it took it back first) and destroys
/// the pool (queued tasks never run; their futures break). Call HttpConnectionPool::Terminate()
/// first, while the transport is still installed.
TQNET_EXPORT void TerminateHttp();

}  // namespace qv::net
