// Closing transport handles where an exception cannot be let out. Internal to the library.
#pragma once

#include "net/http/http_api.h"

namespace qv::net::detail {

// Closes `handle` (nothing when the transport or the handle is null) from a destructor or a
// clean-up that must finish: a host's transport that throws from its close (it should not)
// must not end the process, nor keep the handles after it from being closed.
inline void CloseQuietly(IHttpApi* api, void* handle) noexcept {
  if (api == nullptr || handle == nullptr) return;
  try {
    api->CloseHandle(handle);
  } catch (...) {
  }
}

}  // namespace qv::net::detail
