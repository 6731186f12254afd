// The operating system interfaces the library calls (WinINet, URL Moniker, Win32). net/ reaches
// them only through here: on Windows the SDK itself, elsewhere platform/, which implements the
// same subset.
#pragma once

#if defined(_WIN32)
#include <windows.h>
#include <wininet.h>
#include <urlmon.h>
#else
#include "platform/windows_types.h"
#include "platform/urlmon.h"
#include "platform/wininet.h"
#endif
