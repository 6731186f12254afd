// TQNET_EXPORT marks what the library exports; everything else stays hidden.
// On Windows: exported when building tqnetwork.dll (TQNET_BUILDING), plain for code linking the
// objects statically, e.g. the tests (TQNET_STATIC), imported otherwise.
#pragma once

#if defined(_WIN32)
#if defined(TQNET_STATIC)
#define TQNET_EXPORT
#elif defined(TQNET_BUILDING)
#define TQNET_EXPORT __declspec(dllexport)
#else
#define TQNET_EXPORT __declspec(dllimport)
#endif
#else
#define TQNET_EXPORT __attribute__((visibility("default")))
#endif
