// One call that turns a local path or a URL into a seekable read stream.
#pragma once

#include <future>
#include <memory>
#include <string>
#include <string_view>

#include "net/export.h"
#include "net/host/tqutil.h"

namespace qv::net {

/// A local path opens the file; a URL goes through the installed URL cache, or without one is
/// read whole into memory. Null when nothing could be opened or a stop was requested. An HTTP
/// answer other than 200 (a 404, say) gives null through the disk cache, but an empty stream
/// (not null) without a cache or through the in-memory cache. `flags` is passed to
/// IUrlCache::OpenUrl (NeverExpire, ServeStaleOnError).
TQNET_EXPORT std::unique_ptr<qv::io::IDataSeekableReadStream> OpenFileOrUrl(std::wstring_view name,
                                                                            int flags,
                                                                            qv::stop_token stop);

/// As OpenFileOrUrl; a local path is opened at once on the calling thread (a ready future; an
/// exception from opening it is thrown here, not stored), a URL on the worker threads (its result
/// or exception arrives through the future). Without a worker pool (before InitialiseHttp or
/// after TerminateHttp) a URL is not opened and nothing blocks: the future is ready at once and
/// its get() throws std::future_error with std::future_errc::broken_promise, exactly as for a
/// task dropped when the pool shuts down.
TQNET_EXPORT std::future<std::unique_ptr<qv::io::IDataSeekableReadStream>> OpenFileOrUrlAsync(
    std::wstring name, int flags, qv::stop_token stop);

}  // namespace qv::net
