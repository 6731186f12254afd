// Prints a URL's body, read through the library's disk cache (or a local file, read directly):
// everything a host does to use tqnetwork, from start-up to shut-down.
//
//   example URL CACHE_DIRECTORY
#include <cstdint>
#include <cstdio>

#include "net/cache/cache_init.h"
#include "net/cache/url_cache.h"
#include "net/http/connection_pool.h"
#include "net/http/http_init.h"
#include "net/stream/open_file_or_url.h"
#include "tqutil/strings.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: example URL CACHE_DIRECTORY\n");
    return 2;
  }

  // Start-up, in this order. The worker threads, the WinINet transport and the http/https file
  // protocol:
  qv::net::InitialiseHttp();
  // The URL cache, in CACHE_DIRECTORY/v1 (in memory when that directory cannot be made):
  qv::net::InitialiseCache(qv::Utf8ToWide(argv[2]).c_str());

  int status = 0;
  {
    // A fresh cache entry is served without a request; a stale one is revalidated first.
    auto stream = qv::net::OpenFileOrUrl(qv::Utf8ToWide(argv[1]), 0, {});
    if (stream) {
      char buffer[65536];
      while (std::uint64_t n = stream->Read(buffer, sizeof buffer)) {
        std::fwrite(buffer, 1, n, stdout);
      }
    } else {
      std::fprintf(stderr, "example: could not open %s (the error log says why)\n", argv[1]);
      status = 1;
    }
  }  // Every stream is closed before shut-down.

  // Shut-down, in this order. The pool closes its connections through the transport, so it
  // goes while the transport is still installed; TerminateHttp then unregisters the file
  // protocol, stops the worker threads and destroys the transport; the cache goes last.
  qv::net::HttpConnectionPool::Terminate();
  qv::net::TerminateHttp();
  qv::net::TerminateCache();
  return status;
}
