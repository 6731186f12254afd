// Installing the process-wide URL cache at host start-up.
#pragma once

#include "net/export.h"

namespace qv::net {

/// Installs a DiskCache over `directory`/v1 (null: the default directory), or, when that
/// directory cannot be made and no cache is installed yet, an InMemoryCache. Call while no other
/// thread uses the cache. A cache installed by an earlier call is replaced and destroyed when the
/// new disk cache can be made, and kept otherwise.
TQNET_EXPORT void InitialiseCache(const wchar_t* directory);

}  // namespace qv::net
