// Helpers shared by the cache tests: a settable clock, entry files built byte by byte, and the
// workload that threads and processes run on one directory.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "net/cache/disk_cache.h"
#include "tests/support/fake_http_api.h"
#include "tests/support/read_all.h"
#include "tests/tqutil/test_files.h"
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
