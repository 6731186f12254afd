// TQNET_EXPORT marks what the library exports; everything else stays hidden.
#pragma once

#if defined(_WIN32)
#if defined(TQNET_BUILDING)
#define TQNET_EXPORT __declspec(dllexport)
#else
#define TQNET_EXPORT __declspec(dllimport)
#endif
#else
#define TQNET_EXPORT __attribute__((visibility("default")))
#endif
