// Visibility of tqutil's public symbols (the whole library is the host's public API).
#pragma once

#if defined(_WIN32)
#if defined(TQUTIL_BUILDING)
#define TQUTIL_API __declspec(dllexport)
#else
#define TQUTIL_API __declspec(dllimport)
#endif
#else
#define TQUTIL_API __attribute__((visibility("default")))
#endif
