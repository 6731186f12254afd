#include "tqutil/per_thread.h"

#if defined(_WIN32)

#include <windows.h>

#include <system_error>

namespace qv::detail {

unsigned long AllocateThreadSlot(void (*destroy)(void*)) {
  // The system calls `destroy` as each thread ends, for as long as the process lives: the
  // module that holds it stays loaded until then, even past the host's last FreeLibrary.
  HMODULE module = nullptr;
  if (!::GetModuleHandleExW(
          GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
          reinterpret_cast<LPCWSTR>(reinterpret_cast<void*>(destroy)), &module)) {
    throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(),
                            "GetModuleHandleExW");
  }
  const DWORD slot = ::FlsAlloc(destroy);
  if (slot == FLS_OUT_OF_INDEXES) {
    throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(),
                            "FlsAlloc");
  }
  return slot;
}

void* GetThreadSlot(unsigned long slot) { return ::FlsGetValue(slot); }

void SetThreadSlot(unsigned long slot, void* value) {
  if (!::FlsSetValue(slot, value)) {
    throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(),
                            "FlsSetValue");
  }
}

}  // namespace qv::detail

#endif
