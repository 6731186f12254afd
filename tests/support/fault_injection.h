// Fault injection for tests, on both systems: makes chosen WinINet calls of the library fail with
// chosen error codes (platform/fault_injection.h tells the calls' semantics). On Linux the
// platform layer implements it; on Windows a test-only shim (wininet_fault_shim.cc) takes the
// place of the library's imports of the same functions and forwards every call to wininet.dll
// unless a fault is armed.
#pragma once

#if defined(_WIN32)
#include <windows.h>
#include <wininet.h>

#include "platform/fault_table.h"  // kTqPlatformFaultForever, for fail_count

extern "C" {
// The next skip_count calls of the function run normally, then fail_count calls fail with
// `error` without reaching WinINet. FALSE (ERROR_INVALID_PARAMETER) for an unknown or null
// name or an error of 0. Names: InternetOpenW, InternetConnectW, InternetSetOptionW,
// HttpOpenRequestW, HttpSendRequestW, HttpQueryInfoW, InternetReadFile, InternetCloseHandle.
BOOL TqPlatformInjectFault(const char* function_name, DWORD error, unsigned fail_count,
                           unsigned skip_count);
void TqPlatformClearFaults();  // disarms every fault
// How many calls of the function have failed through an injected fault since the last clear.
unsigned TqPlatformInjectedFailures(const char* function_name);
}
#else
#include "platform/fault_injection.h"
#endif
