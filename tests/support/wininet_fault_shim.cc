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

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {

enum Function : int {
  kInternetOpenW, kInternetConnectW, kInternetSetOptionW, kHttpOpenRequestW, kHttpSendRequestW,
  kHttpQueryInfoW, kInternetReadFile, kInternetCloseHandle, kFunctionCount
};

constexpr std::array<const char*, kFunctionCount> kNames = {
    "InternetOpenW",    "InternetConnectW", "InternetSetOptionW", "HttpOpenRequestW",
    "HttpSendRequestW", "HttpQueryInfoW",   "InternetReadFile",   "InternetCloseHandle"};

struct Fault {
  DWORD error = 0;
  unsigned skip = 0;
  unsigned fail = 0;
  unsigned failures = 0;
};

struct FaultTable {
  std::mutex mutex;
  std::array<Fault, kFunctionCount> faults;
  std::atomic<bool> armed{false};  // lets the common case (nothing armed) skip the lock
};

FaultTable& Table() {
  static FaultTable table;
  return table;
}

int IndexOf(const char* name) {
  if (name == nullptr) return -1;
  for (int i = 0; i < kFunctionCount; ++i) {
    if (std::strcmp(kNames[static_cast<std::size_t>(i)], name) == 0) return i;
  }
  return -1;
}

// The error to fail the call with, or 0 to forward it.
DWORD TakeFault(Function function) {
  FaultTable& table = Table();
  if (!table.armed.load(std::memory_order_acquire)) return 0;
  std::lock_guard lock(table.mutex);
  Fault& fault = table.faults[function];
  if (fault.error == 0 || fault.fail == 0) return 0;
  if (fault.skip > 0) {
    --fault.skip;
    return 0;
  }
  if (fault.fail != kTqPlatformFaultForever) --fault.fail;
  ++fault.failures;
  return fault.error;
}

// The real function of the system's DLL (wininet.dll). A
// missing one ends the test program: every test would otherwise fail for a reason far from here.
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
    if (const DWORD error = TakeFault(F)) {
      SetLastError(error);
      return R{};
    }
    static const auto real = Real<R (*)(A...)>(L"wininet.dll", kNames[F]);
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
  const int index = IndexOf(function_name);
  if (index < 0 || error == 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  FaultTable& table = Table();
  std::lock_guard lock(table.mutex);
  Fault& fault = table.faults[static_cast<std::size_t>(index)];
  fault = Fault{error, skip_count, fail_count, fault.failures};
  table.armed.store(true, std::memory_order_release);
  return TRUE;
}

void TqPlatformClearFaults() {
  FaultTable& table = Table();
  std::lock_guard lock(table.mutex);
  table.faults.fill(Fault{});
  table.armed.store(false, std::memory_order_release);
}

unsigned TqPlatformInjectedFailures(const char* function_name) {
  const int index = IndexOf(function_name);
  if (index < 0) return 0;
  FaultTable& table = Table();
  std::lock_guard lock(table.mutex);
  return table.faults[static_cast<std::size_t>(index)].failures;
}

}  // extern "C"

#endif  // _WIN32
