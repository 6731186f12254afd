// Names that are either local paths or URLs.
#pragma once

#include <memory>

#include "tqutil/export.h"
#include "tqutil/stop_token.h"
#include "tqutil/streams.h"

/// Names that may be local paths or URLs, told apart and opened.
class TQUTIL_API TqUFileURL {
 public:
  /// 0 for a local path ("/x", "x/y", "C:\\x", "C:/x", "\\\\server\\share"); 1 for a text that
  /// starts with a scheme of two or more characters and a colon ("http:", "file:", "qvcache:").
  static int GetURLType(const wchar_t* name);

  /// Opens a URL that is not HTTP: "file:" URLs (local files; the metadata's tag is made of the
  /// file's size and modification time). Null for schemes it cannot open and for missing files.
  static std::unique_ptr<qv::io::IDataReadStream> OpenURLReadStream(const wchar_t* url,
                                                                     qv::stop_token stop);
};
