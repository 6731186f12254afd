// One call that turns a local path or a URL into a seekable read stream.
#pragma once

#include <future>
#include <memory>
#include <string>
#include <string_view>

#include "net/export.h"
#include "net/host/tqutil.h"

namespace qv::net {

// A local path opens the file; a URL goes through the installed URL cache, or without one is
// read whole into memory. Null when nothing could be opened or a stop was requested. `flags` is
// passed to IUrlCache::OpenUrl (NeverExpire).
TQNET_EXPORT std::unique_ptr<qv::io::IDataSeekableReadStream> OpenFileOrUrl(std::wstring_view name,
                                                                            int flags,
                                                                            qv::stop_token stop);

// As OpenFileOrUrl; a local path is opened at once on the calling thread (ready future), a URL
// on the worker threads.
TQNET_EXPORT std::future<std::unique_ptr<qv::io::IDataSeekableReadStream>> OpenFileOrUrlAsync(
    std::wstring name, int flags, qv::stop_token stop);

}  // namespace qv::net
