// Helpers shared by the cache tests: a settable clock, entry files built byte by byte, planted
// links, and the workload that threads and processes run on one directory.
#pragma once

#if defined(_WIN32)
#include <windows.h>
#endif

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>

#include "net/cache/disk_cache.h"
#include "tests/support/fake_http_api.h"
#include "tests/support/read_all.h"
#include "tqutil/sys_time.h"

namespace tq::test {

// The cache clock for one scope: tests move time instead of waiting for it.
class ScopedClock {
 public:
  explicit ScopedClock(std::int64_t now) : m_now(now) {
    TqUSysTime::SetClockForTesting([this] { return m_now.load(); });
  }
  ~ScopedClock() { TqUSysTime::SetClockForTesting({}); }
  void Set(std::int64_t now) { m_now = now; }
  void Advance(std::int64_t seconds) { m_now += seconds; }
  std::int64_t Now() const { return m_now; }

 private:
  std::atomic<std::int64_t> m_now;
};

inline std::string Le(std::uint64_t v, int bytes) {
  std::string out;
  for (int i = 0; i < bytes; ++i) out += static_cast<char>(v >> (8 * i));
  return out;
}

// An entry file's bytes from the layout, written out by hand, independent of the code under test;
// `extension` goes after the end marker, inside the header size.
inline std::string EntryBytes(std::int64_t last_used, std::int64_t expiry, const std::string& tag,
                              const std::string& key, const std::string& body,
                              const std::string& extension = "") {
  return Le(24 + tag.size() + key.size() + extension.size(), 2) + "\x01\x01" + Le(last_used, 8) +
         Le(expiry, 8) + Le(tag.size(), 2) + tag + Le(key.size(), 2) + key + "\x02\x02" +
         extension + body;
}

inline std::string ReadFileBytes(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteFileBytes(const std::filesystem::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

// Whether `path` is a symbolic link (on Windows a reparse point).
inline bool IsLink(const std::filesystem::path& path) {
#if defined(_WIN32)
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
#else
  return std::filesystem::is_symlink(path);
#endif
}

// Plants a symbolic link (on Windows a reparse point); false where none can be made (Wine makes
// none; Windows only for a privileged or developer-mode user).
inline bool PlantLink(const std::filesystem::path& target, const std::filesystem::path& link) {
#if defined(_WIN32)
  return CreateSymbolicLinkW(link.c_str(), target.c_str(),
                             SYMBOLIC_LINK_FLAG_ALLOW_UNPRIVILEGED_CREATE) != 0 &&
         IsLink(link);
#else
  std::filesystem::create_symlink(target, link);  // throws if it cannot: POSIX always can
  return true;
#endif
}

// The workload of the cache's concurrency tests, shared by the test threads and the second
// process (tests/helpers/cache_worker.cc): one URL whose answers alternate at random between two
// bodies of different lengths and tags, stale at once, opened and trimmed over and over. A torn
// entry shows as a body that is not wholly one of the two.
inline constexpr const wchar_t* kChurnUrl = L"http://churn.test/resource";
inline const std::string kChurnBodyA(70000, 'A');
inline const std::string kChurnBodyB(230000, 'B');

inline std::function<FakeResponse(const SentRequest&)> ChurnResponder(unsigned seed) {
  auto state = std::make_shared<std::atomic<unsigned>>(seed * 2654435761u + 1);
  return [state](const SentRequest&) {
    const bool a = (((*state = *state * 1103515245u + 12345u) >> 16) & 1) != 0;
    FakeResponse response;
    response.dates[L"Date"] = 1;
    response.Header(L"cache-control", L"max-age=0");
    response.Header(L"ETag", a ? L"\"a\"" : L"\"bbbbbbbbbbbbbbbbbbbb\"");
    const std::string& body = a ? kChurnBodyA : kChurnBodyB;
    // Several chunks, so that stores take a while.
    for (std::size_t at = 0; at < body.size(); at += 30000) response.Body(body.substr(at, 30000));
    return response;
  };
}

// Opens the churn URL `iterations` times, and every `cleanup_every`-th time (0: never) trims the
// cache to the configured limit. Counts the bodies served whole, and torn.
inline void Churn(qv::net::DiskCache& cache, int iterations, int cleanup_every, int& whole,
                  int& torn) {
  for (int i = 0; i < iterations; ++i) {
    if (cleanup_every > 0 && i % cleanup_every == cleanup_every - 1) cache.CleanUp();
    if (auto stream = cache.OpenUrl(kChurnUrl, 0, {})) {
      const std::string body = ReadAll(*stream, 65536);
      ++(body == kChurnBodyA || body == kChurnBodyB ? whole : torn);
    }
  }
}

}  // namespace tq::test
