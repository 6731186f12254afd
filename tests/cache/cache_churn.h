// The workload of the cache's concurrency tests, shared by the test threads and the second
// process (tests/helpers/cache_worker.cc): one URL whose answers alternate at random between two
// bodies of different lengths and tags, stale at once, opened and trimmed over and over. A torn
// entry shows as a body that is not wholly one of the two.
#pragma once

#include <atomic>
#include <string>

#include "net/cache/disk_cache.h"
#include "tests/cache/cache_test_support.h"
#include "tests/support/fake_http_api.h"
#include "tqutil/option.h"

namespace tq::test {

inline constexpr const wchar_t* kChurnUrl = L"http://churn.test/resource";
inline const std::string kChurnBodyA(70000, 'A');
inline const std::string kChurnBodyB(230000, 'B');

inline std::function<FakeResponse(const SentRequest&)> ChurnResponder(unsigned seed) {
  auto state = std::make_shared<std::atomic<unsigned>>(seed * 2654435761u + 1);
  return [state](const SentRequest&) {
    const bool a = (((*state = *state * 1103515245u + 12345u) >> 16) & 1) != 0;
    FakeResponse response;
    response.status = 200;
    response.dates[L"Date"] = 1;
    response.Header(L"cache-control", L"max-age=0");
    response.Header(L"ETag", a ? L"\"a\"" : L"\"bbbbbbbbbbbbbbbbbbbb\"");
    const std::string& body = a ? kChurnBodyA : kChurnBodyB;
    // Several chunks, so that stores take a while.
    for (std::size_t at = 0; at < body.size(); at += 30000) response.Body(body.substr(at, 30000));
    return response;
  };
}

struct ChurnResult {
  int served = 0;
  int null = 0;
  int torn = 0;
};

inline bool IsWhole(const std::string& body) { return body == kChurnBodyA || body == kChurnBodyB; }

// Opens the URL `iterations` times, and every `cleanup_every`-th time (0: never) trims the cache
// to the configured limit.
inline ChurnResult RunChurn(qv::net::DiskCache& cache, int iterations, int cleanup_every) {
  ChurnResult result;
  for (int i = 0; i < iterations; ++i) {
    if (cleanup_every > 0 && i % cleanup_every == cleanup_every - 1) cache.CleanUp();
    auto stream = cache.OpenUrl(kChurnUrl, 0, {});
    if (!stream) {
      ++result.null;
      continue;
    }
    const std::string body = ReadAll(*stream, 65536);
    ++(IsWhole(body) ? result.served : result.torn);
  }
  return result;
}

}  // namespace tq::test
