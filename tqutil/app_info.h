// Directories of the host application.
#pragma once

#include "tqutil/export.h"
#include "tqutil/strings.h"

/// Where the application keeps its files.
class TQUTIL_API TqUAppInfo {
 public:
  /// Kind 0: the application's per-user cache directory, \<cache home\>/\<application name\>, where
  /// the cache home is $XDG_CACHE_HOME when it is absolute, else $HOME/.cache when $HOME is
  /// (%LOCALAPPDATA% on Windows, when it is absolute). False for other kinds or when no home is
  /// known (or its name is no UTF-8 text, which wide text cannot name). The directory is not
  /// created.
  static bool GetAppDir(int kind, TqUWideStringBuffer* out);
  /// The application name used in directories ("tqnetwork" until set).
  static void SetAppName(const wchar_t* name);
};
