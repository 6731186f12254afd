// Fault injection for tests, on both systems: makes chosen WinINet calls of the library fail with
// chosen error codes (see platform/fault_injection.h for the calls' semantics).
//
// On Linux the platform layer implements it. On Windows the system is WinINet itself, so a
// test-only shim (wininet_fault_shim.cc) takes the place of the library's imports of the same
// functions and forwards every call to wininet.dll unless a fault is armed.
#pragma once

#if defined(_WIN32)

#include <windows.h>
#include <wininet.h>

#include <cstdint>

// Passed as fail_count: the call keeps failing until the fault is cleared.
inline constexpr unsigned kTqPlatformFaultForever = 0xFFFFFFFFu;

extern "C" {
// Arms a fault for one function: the next skip_count calls run normally, then fail_count calls
// fail with `error` without reaching WinINet. Returns FALSE (and sets ERROR_INVALID_PARAMETER)
// for an unknown function name, a null name or an error of 0. Function names: InternetOpenW,
// InternetConnectW, InternetSetOptionW, HttpOpenRequestW, HttpSendRequestW, HttpQueryInfoW,
// InternetReadFile, InternetCloseHandle.
BOOL TqPlatformInjectFault(const char* function_name, DWORD error, unsigned fail_count,
                           unsigned skip_count);
// Disarms every fault.
void TqPlatformClearFaults();
// How many calls of the function have failed through an injected fault since the last clear.
unsigned TqPlatformInjectedFailures(const char* function_name);
}

#else

#include "platform/fault_injection.h"

#endif
