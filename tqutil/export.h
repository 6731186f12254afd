// Visibility of tqutil's public symbols (the whole library is the host's public API).
// On Windows the same declarations serve three kinds of users: tqutil.dll itself
// (TQUTIL_BUILDING: exported), code linking the objects statically, e.g. the tests
// (TQUTIL_STATIC: plain declarations, no import thunks), and everyone else (imported).
#pragma once

#if defined(_WIN32)
#if defined(TQUTIL_STATIC)
#define TQUTIL_API
#elif defined(TQUTIL_BUILDING)
#define TQUTIL_API __declspec(dllexport)
#else
#define TQUTIL_API __declspec(dllimport)
#endif
#else
#define TQUTIL_API __attribute__((visibility("default")))
#endif

// A constant given in its class (static constexpr) is emitted only where it is used; a host that
// imports the class takes it from tqutil.dll when it binds it to a reference, so the DLL must
// emit and export it even though nothing in the library takes its address.
#if defined(_WIN32) && defined(TQUTIL_BUILDING) && !defined(TQUTIL_STATIC)
#define TQUTIL_EXPORT_CONSTANT __attribute__((used))
#else
#define TQUTIL_EXPORT_CONSTANT
#endif
