// Windows only: the test-only fault shim behind tests/support/fault_injection.h.
//
// The library's objects, linked statically into the tests, call WinINet through
// the import pointers __imp_<Function>. Defining those pointers here, in an object linked before
// the import libraries, makes the objects call the shim instead; the shim forwards to the real
// wininet.dll (found with GetProcAddress) unless a fault is armed. Nothing references the import
// libraries' own thunks for these functions, so their members are never linked and the pointers
// are defined once.
#if defined(_WIN32)

#include "tests/support/fault_injection.h"

#include <cstdio>
#include <cstdlib>

#include "platform/fault_table.h"

namespace {

using tqplatform::FaultTable;

FaultTable& Table() {
  static FaultTable table;
  return table;
}

// The shimmed functions, as indexes into FaultTable::kFunctions.
enum Function : int {
  kInternetOpenW, kInternetConnectW, kInternetSetOptionW, kHttpOpenRequestW, kHttpSendRequestW,
  kHttpQueryInfoW, kInternetReadFile, kInternetCloseHandle
};
static_assert(kInternetCloseHandle + 1 == FaultTable::kFunctions.size());

// The real function of the system's DLL (wininet.dll). A missing one ends the test program:
// every test would otherwise fail for a reason far from here.
template <class F>
F Real(const wchar_t* module_name, const char* name) {
  const HMODULE module = LoadLibraryW(module_name);
  FARPROC proc = module != nullptr ? GetProcAddress(module, name) : nullptr;
  if (proc == nullptr) {
    std::fprintf(stderr, "wininet fault shim: %ls has no %s\n", module_name, name);
    std::abort();
  }
  return reinterpret_cast<F>(reinterpret_cast<void*>(proc));
}

// Each function's shim: fails the call with the armed error (a null handle or FALSE), or
// forwards it to wininet.dll's own function.
template <Function F, class Fn>
struct Shim;
template <Function F, class R, class... A>
struct Shim<F, R (*)(A...)> {
  static R WINAPI Call(A... args) {
    if (const DWORD error = Table().Take(FaultTable::kFunctions[F])) {
      SetLastError(error);
      return R{};
    }
    static const auto real = Real<R (*)(A...)>(L"wininet.dll", FaultTable::kFunctions[F]);
    return real(args...);
  }
};

}  // namespace

// The import pointers the library's objects call through.
#define TQ_SHIM(name) decltype(&::name) __imp_##name = &Shim<k##name, decltype(&::name)>::Call;
extern "C" {
TQ_SHIM(InternetOpenW)
TQ_SHIM(InternetConnectW)
TQ_SHIM(InternetSetOptionW)
TQ_SHIM(HttpOpenRequestW)
TQ_SHIM(HttpSendRequestW)
TQ_SHIM(HttpQueryInfoW)
TQ_SHIM(InternetReadFile)
TQ_SHIM(InternetCloseHandle)
#undef TQ_SHIM

BOOL TqPlatformInjectFault(const char* function_name, DWORD error, unsigned fail_count,
                           unsigned skip_count) {
  if (Table().Arm(function_name, error, fail_count, skip_count)) return TRUE;
  SetLastError(ERROR_INVALID_PARAMETER);
  return FALSE;
}

void TqPlatformClearFaults() { Table().Clear(); }

unsigned TqPlatformInjectedFailures(const char* function_name) {
  return Table().Failures(function_name);
}

}  // extern "C"

#endif  // _WIN32
