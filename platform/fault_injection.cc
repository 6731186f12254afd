#include "platform/fault_injection.h"

#include <array>
#include <atomic>
#include <cstring>
#include <mutex>

namespace tqplatform {
namespace {

constexpr std::array<const char*, 8> kFunctions = {
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
  std::array<Fault, kFunctions.size()> faults;
  // Lets the common case (nothing armed) skip the lock.
  std::atomic<unsigned> armed{0};
};

FaultTable& Table() {
  static FaultTable table;
  return table;
}

int IndexOf(const char* name) {
  if (name == nullptr) return -1;
  for (std::size_t i = 0; i < kFunctions.size(); ++i) {
    if (std::strcmp(kFunctions[i], name) == 0) return static_cast<int>(i);
  }
  return -1;
}

}  // namespace

DWORD TakeInjectedFault(const char* function_name) {
  FaultTable& table = Table();
  if (table.armed.load(std::memory_order_acquire) == 0) return 0;
  const int index = IndexOf(function_name);
  if (index < 0) return 0;
  std::lock_guard lock(table.mutex);
  Fault& fault = table.faults[static_cast<std::size_t>(index)];
  if (fault.error == 0 || fault.fail == 0) return 0;
  if (fault.skip > 0) {
    --fault.skip;
    return 0;
  }
  if (fault.fail != kTqPlatformFaultForever) --fault.fail;
  ++fault.failures;
  return fault.error;
}

}  // namespace tqplatform

using tqplatform::FaultTable;

extern "C" {

BOOL TqPlatformInjectFault(const char* function_name, DWORD error, unsigned fail_count,
                           unsigned skip_count) {
  const int index = tqplatform::IndexOf(function_name);
  if (index < 0 || error == 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  FaultTable& table = tqplatform::Table();
  std::lock_guard lock(table.mutex);
  auto& fault = table.faults[static_cast<std::size_t>(index)];
  const unsigned failures = fault.failures;
  fault = tqplatform::Fault{error, skip_count, fail_count, failures};
  table.armed.store(1, std::memory_order_release);
  return TRUE;
}

void TqPlatformClearFaults() {
  FaultTable& table = tqplatform::Table();
  std::lock_guard lock(table.mutex);
  table.faults.fill(tqplatform::Fault{});
  table.armed.store(0, std::memory_order_release);
}

unsigned TqPlatformInjectedFailures(const char* function_name) {
  const int index = tqplatform::IndexOf(function_name);
  if (index < 0) return 0;
  FaultTable& table = tqplatform::Table();
  std::lock_guard lock(table.mutex);
  return table.faults[static_cast<std::size_t>(index)].failures;
}

}  // extern "C"
