// The URL Moniker subset the library calls (whole-file downloads with a status callback), with
// the Windows SDK's names, types and values. On Windows this header only includes <urlmon.h>;
// on Linux platform/ implements the two download functions over libcurl.
#pragma once

#include "platform/windows_types.h"

#ifdef _WIN32
#include <urlmon.h>
#else

#include <cstring>

// COM calling convention: meaningful on 32-bit Windows only.
#define STDMETHODCALLTYPE

struct GUID {
  DWORD Data1;
  WORD Data2;
  WORD Data3;
  BYTE Data4[8];
};
static_assert(sizeof(GUID) == 16);
using IID = GUID;
using CLSID = GUID;
using REFIID = const IID&;
using REFCLSID = const CLSID&;

inline bool IsEqualGUID(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof(GUID)) == 0; }
inline bool IsEqualIID(REFIID a, REFIID b) { return IsEqualGUID(a, b); }
inline bool operator==(const GUID& a, const GUID& b) { return IsEqualGUID(a, b); }

using OLECHAR = WCHAR;
using LPOLESTR = OLECHAR*;
using LPCOLESTR = const OLECHAR*;

// {00000000-0000-0000-C000-000000000046}
inline constexpr IID IID_IUnknown = {0x00000000, 0x0000, 0x0000,
                                     {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
// {79EAC9C0-BAF9-11CE-8C82-00AA004BA90B}
inline constexpr IID IID_IBinding = {0x79EAC9C0, 0xBAF9, 0x11CE,
                                     {0x8C, 0x82, 0x00, 0xAA, 0x00, 0x4B, 0xA9, 0x0B}};
// {79EAC9C1-BAF9-11CE-8C82-00AA004BA90B}
inline constexpr IID IID_IBindStatusCallback = {
    0x79EAC9C1, 0xBAF9, 0x11CE, {0x8C, 0x82, 0x00, 0xAA, 0x00, 0x4B, 0xA9, 0x0B}};

// Only passed by pointer in this subset; nothing here reads their contents.
struct BINDINFO;
struct FORMATETC;
struct STGMEDIUM;

// Result codes of the URL Moniker (facility FACILITY_INTERNET, 12).
inline constexpr HRESULT INET_E_INVALID_URL = static_cast<HRESULT>(0x800C0002u);
inline constexpr HRESULT INET_E_NO_SESSION = static_cast<HRESULT>(0x800C0003u);
inline constexpr HRESULT INET_E_CANNOT_CONNECT = static_cast<HRESULT>(0x800C0004u);
inline constexpr HRESULT INET_E_RESOURCE_NOT_FOUND = static_cast<HRESULT>(0x800C0005u);
inline constexpr HRESULT INET_E_OBJECT_NOT_FOUND = static_cast<HRESULT>(0x800C0006u);
inline constexpr HRESULT INET_E_DATA_NOT_AVAILABLE = static_cast<HRESULT>(0x800C0007u);
inline constexpr HRESULT INET_E_DOWNLOAD_FAILURE = static_cast<HRESULT>(0x800C0008u);
inline constexpr HRESULT INET_E_AUTHENTICATION_REQUIRED = static_cast<HRESULT>(0x800C0009u);
inline constexpr HRESULT INET_E_NO_VALID_MEDIA = static_cast<HRESULT>(0x800C000Au);
inline constexpr HRESULT INET_E_CONNECTION_TIMEOUT = static_cast<HRESULT>(0x800C000Bu);
inline constexpr HRESULT INET_E_INVALID_REQUEST = static_cast<HRESULT>(0x800C000Cu);
inline constexpr HRESULT INET_E_UNKNOWN_PROTOCOL = static_cast<HRESULT>(0x800C000Du);
inline constexpr HRESULT INET_E_SECURITY_PROBLEM = static_cast<HRESULT>(0x800C000Eu);
inline constexpr HRESULT INET_E_CANNOT_LOAD_DATA = static_cast<HRESULT>(0x800C000Fu);
inline constexpr HRESULT INET_E_REDIRECT_FAILED = static_cast<HRESULT>(0x800C0014u);
inline constexpr HRESULT INET_E_INVALID_CERTIFICATE = static_cast<HRESULT>(0x800C0019u);
inline constexpr HRESULT E_ACCESSDENIED = static_cast<HRESULT>(0x80070005u);
inline constexpr HRESULT MK_E_SYNTAX = static_cast<HRESULT>(0x800401E4u);

// Status codes of IBindStatusCallback::OnProgress.
enum BINDSTATUS : ULONG {
  BINDSTATUS_FINDINGRESOURCE = 1,
  BINDSTATUS_CONNECTING = 2,
  BINDSTATUS_REDIRECTING = 3,
  BINDSTATUS_BEGINDOWNLOADDATA = 4,
  BINDSTATUS_DOWNLOADINGDATA = 5,
  BINDSTATUS_ENDDOWNLOADDATA = 6,
  BINDSTATUS_BEGINDOWNLOADCOMPONENTS = 7,
  BINDSTATUS_INSTALLINGCOMPONENTS = 8,
  BINDSTATUS_ENDDOWNLOADCOMPONENTS = 9,
  BINDSTATUS_USINGCACHEDCOPY = 10,
  BINDSTATUS_SENDINGREQUEST = 11,
  BINDSTATUS_CLASSIDAVAILABLE = 12,
  BINDSTATUS_MIMETYPEAVAILABLE = 13,
  BINDSTATUS_CACHEFILENAMEAVAILABLE = 14,
};

class IUnknown {
 public:
  virtual HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) = 0;
  virtual ULONG STDMETHODCALLTYPE AddRef() = 0;
  virtual ULONG STDMETHODCALLTYPE Release() = 0;
};
using LPUNKNOWN = IUnknown*;

// A running download, handed to the callback's OnStartBinding. Abort is honoured from the
// callback itself or from any other thread; the other operations are not supported.
class IBinding : public IUnknown {
 public:
  virtual HRESULT STDMETHODCALLTYPE Abort() = 0;
  virtual HRESULT STDMETHODCALLTYPE Suspend() = 0;
  virtual HRESULT STDMETHODCALLTYPE Resume() = 0;
  virtual HRESULT STDMETHODCALLTYPE SetPriority(LONG priority) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetPriority(LONG* priority) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetBindResult(CLSID* protocol, DWORD* result,
                                                  LPOLESTR* result_text, DWORD* reserved) = 0;
};

class IBindStatusCallback : public IUnknown {
 public:
  virtual HRESULT STDMETHODCALLTYPE OnStartBinding(DWORD reserved, IBinding* binding) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetPriority(LONG* priority) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnLowResource(DWORD reserved) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnProgress(ULONG progress, ULONG progress_max,
                                               ULONG status_code, LPCWSTR status_text) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnStopBinding(HRESULT result, LPCWSTR error) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetBindInfo(DWORD* bind_flags, BINDINFO* bind_info) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnDataAvailable(DWORD flags, DWORD size,
                                                    FORMATETC* format, STGMEDIUM* medium) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnObjectAvailable(REFIID riid, IUnknown* object) = 0;
};
using LPBINDSTATUSCALLBACK = IBindStatusCallback*;

extern "C" {
// Downloads `url` (http or https) to `file_name`, replacing an existing file only when the whole
// body arrived: the body goes to a temporary file beside the destination, which is renamed into
// place on success and removed on failure. A 4xx or 5xx answer is a failure, never saved.
// Synchronous; `callback` (may be null) sees OnStartBinding, OnProgress and OnStopBinding on
// the calling thread. `caller` is not used.
TQPLATFORM_EXPORT HRESULT URLDownloadToFileW(LPUNKNOWN caller, LPCWSTR url, LPCWSTR file_name,
                                             DWORD reserved, LPBINDSTATUSCALLBACK callback);

// As URLDownloadToFileW, into the user's download cache ($XDG_CACHE_HOME, else ~/.cache, then
// "tqnetwork/downloads"); the path of the copy is written to `file_name`, a buffer of
// `file_name_length` characters. Every call downloads afresh; the same URL always maps to the
// same cache file, which a new download replaces. E_OUTOFMEMORY, before any transfer, when the
// path does not fit the buffer.
TQPLATFORM_EXPORT HRESULT URLDownloadToCacheFileW(LPUNKNOWN caller, LPCWSTR url, LPWSTR file_name,
                                                  DWORD file_name_length, DWORD reserved,
                                                  LPBINDSTATUSCALLBACK callback);
}

#endif  // _WIN32
