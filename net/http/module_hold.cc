#include "net/http/module_hold.h"

#include <atomic>
#include <mutex>

#if defined(_WIN32)
#include <windows.h>
#endif

namespace qv::net::detail {
namespace {

std::mutex g_hold_mutex;
int g_holds = 0;
std::atomic<bool> g_process_ending{false};
#if defined(_WIN32)
HMODULE g_module = nullptr;
#endif

}  // namespace

void HoldModule() {
  std::lock_guard lock(g_hold_mutex);
  if (g_holds++ > 0) return;
#if defined(_WIN32)
  // A reference of our own on the module that holds this code (the DLL, or the program the
  // library is linked into).
  HMODULE module = nullptr;
  if (::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                           reinterpret_cast<LPCWSTR>(&HoldModule), &module)) {
    g_module = module;
  }
#endif
}

void ReleaseModule() {
  std::lock_guard lock(g_hold_mutex);
  if (g_holds == 0 || --g_holds > 0) return;
#if defined(_WIN32)
  // The caller came in through the host, which holds a reference of its own: this never
  // unloads the code that runs it.
  if (g_module != nullptr) ::FreeLibrary(g_module);
  g_module = nullptr;
#endif
}

void NoteProcessEnding() { g_process_ending = true; }

bool ProcessEnding() { return g_process_ending; }

}  // namespace qv::net::detail
