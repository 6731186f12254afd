// The entry point of tqnetwork.dll. Nothing in the library needs to hear of threads starting
// or ending, so it asks the system to stop those notifications. The system refuses that for a
// DLL with static thread-local storage, and MinGW's runtime gives every DLL a TLS directory
// (its callbacks run the thread-local destructors): the call then fails (error 126), and the
// host's threads still enter this function, which returns at once.
#include <windows.h>

#include "net/http/module_hold.h"

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved);

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved) {
  if (reason == DLL_PROCESS_ATTACH) ::DisableThreadLibraryCalls(instance);
  // Called before the runtime runs the static destructors. A detach with `reserved` set is the
  // process ending, not an unload: the other threads are gone already.
  if (reason == DLL_PROCESS_DETACH && reserved != nullptr) qv::net::detail::NoteProcessEnding();
  return TRUE;
}
