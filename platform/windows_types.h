// Win32 base types, constants and the thread's last-error value, with the Windows SDK's names
// and values. On Windows this header only includes <windows.h>.
#pragma once

#ifdef _WIN32
#include <windows.h>
#else

#include <cstdint>

// TQPLATFORM_EXPORT marks the Windows SDK functions libtqplatform exports; the library is built
// with hidden visibility, so nothing else of it is reachable from outside. TQPLATFORM_API marks
// the library's own test hooks: tests link its objects directly and need no export.
#ifndef TQPLATFORM_EXPORT
#define TQPLATFORM_EXPORT __attribute__((visibility("default")))
#endif
#ifndef TQPLATFORM_API
#define TQPLATFORM_API
#endif

using BOOL = int;
using BYTE = std::uint8_t;
using WORD = std::uint16_t;
using DWORD = std::uint32_t;
using DWORD_PTR = std::uintptr_t;
using ULONG = std::uint32_t;
using LONG = std::int32_t;
using HRESULT = std::int32_t;
using LPVOID = void*;
using LPCVOID = const void*;
using LPDWORD = DWORD*;
using WCHAR = wchar_t;
using LPWSTR = wchar_t*;
using LPCWSTR = const wchar_t*;
using LPSTR = char*;
using LPCSTR = const char*;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

struct SYSTEMTIME {
  WORD wYear;
  WORD wMonth;
  WORD wDayOfWeek;
  WORD wDay;
  WORD wHour;
  WORD wMinute;
  WORD wSecond;
  WORD wMilliseconds;
};
using LPSYSTEMTIME = SYSTEMTIME*;
static_assert(sizeof(SYSTEMTIME) == 16);

// 100-nanosecond intervals since 1601-01-01 UTC, split in two halves.
struct FILETIME {
  DWORD dwLowDateTime;
  DWORD dwHighDateTime;
};
using LPFILETIME = FILETIME*;

inline constexpr DWORD ERROR_SUCCESS = 0;
inline constexpr DWORD ERROR_FILE_NOT_FOUND = 2;
inline constexpr DWORD ERROR_PATH_NOT_FOUND = 3;
inline constexpr DWORD ERROR_ACCESS_DENIED = 5;
inline constexpr DWORD ERROR_INVALID_HANDLE = 6;
inline constexpr DWORD ERROR_NOT_ENOUGH_MEMORY = 8;
inline constexpr DWORD ERROR_SHARING_VIOLATION = 32;
inline constexpr DWORD ERROR_HANDLE_EOF = 38;
inline constexpr DWORD ERROR_INVALID_PARAMETER = 87;
inline constexpr DWORD ERROR_INSUFFICIENT_BUFFER = 122;
inline constexpr DWORD ERROR_BAD_ARGUMENTS = 160;
inline constexpr DWORD ERROR_ALREADY_EXISTS = 183;

inline constexpr HRESULT S_OK = 0;
inline constexpr HRESULT S_FALSE = 1;
inline constexpr HRESULT E_NOTIMPL = static_cast<HRESULT>(0x80004001u);
inline constexpr HRESULT E_NOINTERFACE = static_cast<HRESULT>(0x80004002u);
inline constexpr HRESULT E_POINTER = static_cast<HRESULT>(0x80004003u);
inline constexpr HRESULT E_ABORT = static_cast<HRESULT>(0x80004004u);
inline constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005u);
inline constexpr HRESULT E_OUTOFMEMORY = static_cast<HRESULT>(0x8007000Eu);
inline constexpr HRESULT E_INVALIDARG = static_cast<HRESULT>(0x80070057u);

constexpr bool SUCCEEDED(HRESULT hr) { return hr >= 0; }
constexpr bool FAILED(HRESULT hr) { return hr < 0; }
// HRESULT_FROM_WIN32: the Win32 code in the facility FACILITY_WIN32 (7), severity set.
constexpr HRESULT HRESULT_FROM_WIN32(DWORD code) {
  return code == 0 ? 0 : static_cast<HRESULT>((code & 0x0000FFFFu) | (7u << 16) | 0x80000000u);
}

extern "C" {
// The calling thread's last-error value, as the Win32 functions leave it.
TQPLATFORM_EXPORT DWORD GetLastError();
TQPLATFORM_EXPORT void SetLastError(DWORD code);

// Converts a UTC calendar time to a file time. Fails (FALSE, ERROR_INVALID_PARAMETER) for
// fields outside their ranges or years outside 1601..30827; wDayOfWeek is ignored.
TQPLATFORM_EXPORT BOOL SystemTimeToFileTime(const SYSTEMTIME* system_time, LPFILETIME file_time);
}

#endif  // _WIN32
