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

// A constant given in its class (static constexpr) is emitted only where it is used; a host that
// imports the class takes it from tqnetwork.dll when it binds it to a reference, so the DLL must
// emit and export it even though nothing in the library takes its address.
#if defined(_WIN32) && defined(TQNET_BUILDING) && !defined(TQNET_STATIC)
#define TQNET_EXPORT_CONSTANT __attribute__((used))
#else
#define TQNET_EXPORT_CONSTANT
#endif
