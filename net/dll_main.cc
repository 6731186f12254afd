// The entry point of tqnetwork.dll. Nothing in the library needs to hear of threads starting
// or ending, so those notifications are turned off: the host's threads then never enter the
// loader lock on this DLL's account. (Thread-local destructors do not depend on it: the loader
// keeps the TLS callbacks of a DLL that has thread-local data.)
#include <windows.h>

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved);

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID /*reserved*/) {
  if (reason == DLL_PROCESS_ATTACH) ::DisableThreadLibraryCalls(instance);
  return TRUE;
}
