#include "platform/fault_injection.h"

#include "platform/fault_table.h"

namespace tqplatform {
namespace {

FaultTable& Table() {
  static FaultTable table;
  return table;
}

}  // namespace

DWORD TakeInjectedFault(const char* function_name) { return Table().Take(function_name); }

}  // namespace tqplatform

extern "C" {

BOOL TqPlatformInjectFault(const char* function_name, DWORD error, unsigned fail_count,
                           unsigned skip_count) {
  if (tqplatform::Table().Arm(function_name, error, fail_count, skip_count)) return TRUE;
  SetLastError(ERROR_INVALID_PARAMETER);
  return FALSE;
}

void TqPlatformClearFaults() { tqplatform::Table().Clear(); }

unsigned TqPlatformInjectedFailures(const char* function_name) {
  return tqplatform::Table().Failures(function_name);
}

}  // extern "C"
