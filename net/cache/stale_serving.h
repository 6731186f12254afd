// Serving a stale entry when its revalidation cannot reach the server (the open flag
// IUrlCache::ServeStaleOnError): which answers allow it, and the line that says it happened.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "net/host/tqutil.h"

namespace qv::net::detail {

// A "cache-control" value holds "must-revalidate" or "no-cache" (directives split at "," and
// trimmed, compared exactly): the response must never be served stale.
bool ForbidsStaleServing(std::wstring_view cache_control);

// An answer that says the server cannot serve now rather than that the resource is gone: no
// answer at all (0), or 500, 502, 503, 504 (after the read stream's retries).
bool IsServerFailure(int status);

// "Serving stale entry for " + url + ": " + reason + "\n".
void LogServingStale(const std::wstring& url, std::string_view reason);

// A read stream that closes its source once the source reports its end, so that a file being
// copied is no longer open when the copy is renamed over it (Windows refuses to replace a file
// that is open).
class ClosingAtEndStream : public qv::io::IDataReadStream {
 public:
  explicit ClosingAtEndStream(std::unique_ptr<qv::io::IDataSeekableReadStream> source)
      : m_source(std::move(source)) {}
  std::uint64_t Read(void* buffer, std::uint64_t size) override;
  qv::io::StreamMetaData MetaData() override;

 private:
  std::unique_ptr<qv::io::IDataSeekableReadStream> m_source;
};

}  // namespace qv::net::detail
