// The calling thread's last-error value.
#include "platform/windows_types.h"

namespace {
thread_local DWORD t_last_error = ERROR_SUCCESS;
}  // namespace

extern "C" {

DWORD GetLastError() { return t_last_error; }

void SetLastError(DWORD code) { t_last_error = code; }

}  // extern "C"
