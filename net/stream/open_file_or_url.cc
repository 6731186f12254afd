#include "net/stream/open_file_or_url.h"

#include <filesystem>
#include <utility>

#include "net/cache/url_cache.h"
#include "net/stream/thread_pool.h"
#include "net/stream/url_reading.h"

namespace qv::net {
namespace {

using StreamPtr = std::unique_ptr<qv::io::IDataSeekableReadStream>;

std::future<StreamPtr> ReadyFuture(StreamPtr stream) {
  std::promise<StreamPtr> promise;
  promise.set_value(std::move(stream));
  return promise.get_future();
}

// The future of a task that will never run: the same broken promise as a task dropped when
// the pool shuts down, so a host handles both alike.
std::future<StreamPtr> BrokenFuture() {
  std::future<StreamPtr> future;
  {
    std::promise<StreamPtr> promise;
    future = promise.get_future();
  }
  return future;
}

}  // namespace

StreamPtr OpenFileOrUrl(std::wstring_view name, int flags, qv::stop_token stop) {
  if (stop.stop_requested()) return nullptr;
  // GetURLType reads up to a NUL; a view need not end at one.
  const std::wstring text(name);
  // Every way on reads the name as a C string somewhere, which would end at a NUL inside it:
  // the name of another file or resource.
  if (text.find(L'\0') != std::wstring::npos) return nullptr;
  if (TqUFileURL::GetURLType(text.c_str()) == 0) {
    bool whole = true;
    const std::filesystem::path path = qv::PathOfWide(text, &whole);
    if (!whole) return nullptr;  // the path would name another file
    return qv::io::FileReadStream::Create(path);
  }
  if (IUrlCache* cache = CacheSystem()) return cache->OpenUrl(text, flags, std::move(stop));
  return ReadUrlIntoMemory(text, std::move(stop));
}

std::future<StreamPtr> OpenFileOrUrlAsync(std::wstring name, int flags, qv::stop_token stop) {
  if (TqUFileURL::GetURLType(name.c_str()) == 0) {
    // Local files never wait behind network work; an exception reaches the caller directly.
    return ReadyFuture(OpenFileOrUrl(name, flags, std::move(stop)));
  }
  thread_pool* pool = WorkerThreadPool();
  if (pool == nullptr) return BrokenFuture();
  return pool->submit([name = std::move(name), flags, stop = std::move(stop)]() {
    return OpenFileOrUrl(name, flags, stop);
  });
}

}  // namespace qv::net
