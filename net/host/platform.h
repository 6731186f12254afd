// The operating system interfaces the library calls (WinINet, URL Moniker, Win32). net/ reaches
// them only through here.
#pragma once

#include "platform/windows_types.h"
#include "platform/urlmon.h"
#include "platform/wininet.h"
