// Running under Wine, and the log line that Wine's WinINet causes and Windows' does not
// (tests/WINDOWS.md). A test that meets it tolerates exactly that line, and only under Wine; on
// Linux and on Windows its expectation stays whole.
#pragma once

#include <string>
#include <vector>

#ifdef _WIN32
#include <windows.h>
#endif

#include "tests/support/log_capture.h"

namespace tq::test {

// True in a Windows program run by Wine: Wine's ntdll exports wine_get_version, Windows' does not.
inline bool IsWine() {
#ifdef _WIN32
  static const bool wine =
      GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
  return wine;
#else
  return false;
#endif
}

// The captured lines, less (under Wine only) the one logged for each connection handle as Wine
// refuses INTERNET_OPTION_MAX_CONNS_PER_SERVER on it (12016); the library goes on.
inline std::vector<std::string> LinesBeyondWine(const LogCapture& log) {
  std::vector<std::string> lines = log.Lines();
  if (IsWine()) {
    std::erase(lines, "WinInet: InternetSetOption(INTERNET_OPTION_MAX_CONNS_PER_SERVER, 4) "
                      "failed with code 12016\n");
  }
  return lines;
}

}  // namespace tq::test
