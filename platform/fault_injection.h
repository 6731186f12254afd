// Test-only seam of the platform layer, outside the Win32 subset: makes chosen calls fail with
// chosen error codes, so that tests reach time-out and failure paths at once instead of waiting
// for a real network to misbehave. Not available on Windows builds, where the OS provides the
// functions.
//
//   TqPlatformInjectFault("HttpSendRequestW", ERROR_INTERNET_TIMEOUT, 2, 1);
//   // 1st HttpSendRequestW runs normally, the 2nd and 3rd return FALSE with GetLastError()
//   // == 12002 and do nothing else, later ones run normally again.
//   TqPlatformClearFaults();
//
// Function names that can fail: InternetOpenW, InternetConnectW, InternetSetOptionW,
// HttpOpenRequestW, HttpSendRequestW, HttpQueryInfoW, InternetReadFile, InternetCloseHandle.
// A failing call returns its failure value (NULL or FALSE), sets the error code, and has no other
// effect (no handle is created or closed, no byte is read). Faults count calls from every thread;
// the functions below are safe to call from any thread at any time.
#pragma once

#include "platform/wininet.h"

#ifndef _WIN32

#include "platform/fault_table.h"  // kTqPlatformFaultForever, for fail_count

extern "C" {
// Arms a fault for one function: the next skip_count calls run normally, then fail_count calls
// fail with `error`. Replaces any fault armed before for the same function. Returns FALSE (and
// sets ERROR_INVALID_PARAMETER) for an unknown function name, a null name or an error of 0.
TQPLATFORM_API BOOL TqPlatformInjectFault(const char* function_name, DWORD error,
                                          unsigned fail_count, unsigned skip_count);

// Disarms every fault.
TQPLATFORM_API void TqPlatformClearFaults();

// How many calls of the function have failed through an injected fault since the last clear.
TQPLATFORM_API unsigned TqPlatformInjectedFailures(const char* function_name);

// Another test seam: verify HTTPS servers against the CA certificates of this PEM file instead of
// the system's store, so that tests can run a trusted HTTPS server of their own. Null restores
// the system's store. Applies to requests sent afterwards.
TQPLATFORM_API BOOL TqPlatformSetCaFile(const char* pem_path);
}

namespace tqplatform {
// Used by the entry points: returns the error to fail with, or 0 to run normally.
DWORD TakeInjectedFault(const char* function_name);

// Test seam: `hook` (null: none) runs on the calling thread each time a send or a read is about
// to wait for the network, and each time a call on a request is about to wait for another call
// on it to end, with the request's handle. A test then knows the call is inside and blocked, and
// can close the handle from another thread at that moment.
void SetWaitHookForTesting(void (*hook)(HINTERNET request));
// Runs the hook, if any, for `request`.
void RunWaitHook(HINTERNET request);
}  // namespace tqplatform

#endif  // _WIN32
