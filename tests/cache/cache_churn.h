// The workload of the cache's concurrency tests, shared by the test threads and the second
// process (tests/helpers/cache_worker.cc): one URL whose answers alternate between two bodies
// of different lengths and tags, always revalidated, opened and trimmed over and over. A torn
// entry shows as a body that is not wholly one of the two.
#pragma once

#include <atomic>
#include <string>

#include "net/cache/disk_cache.h"
#include "tests/support/fake_http_api.h"
#include "tqutil/option.h"

namespace tq::test {

inline constexpr const wchar_t* kChurnUrl = L"http://churn.test/resource";
inline const std::string kChurnBodyA(70000, 'A');
inline const std::string kChurnBodyB(230000, 'B');

// Answers every request at random with body A (tag "a") or body B (a longer tag), stale at
// once, in several chunks so that stores take a while.
inline std::function<FakeResponse(const SentRequest&)> ChurnResponder(unsigned seed) {
  auto state = std::make_shared<std::atomic<unsigned>>(seed * 2654435761u + 1);
  return [state](const SentRequest&) {
    const unsigned r = (*state = *state * 1103515245u + 12345u) >> 16;
    const bool a = (r & 1) != 0;
    FakeResponse response;
    response.status = 200;
    response.dates[L"Date"] = 1;  // long ago: stale at once
    response.Header(L"cache-control", L"max-age=0");
    response.Header(L"ETag", a ? L"\"a\"" : L"\"bbbbbbbbbbbbbbbbbbbb\"");
    const std::string& body = a ? kChurnBodyA : kChurnBodyB;
    for (std::size_t at = 0; at < body.size(); at += 30000) {
      response.Body(body.substr(at, 30000));
    }
    return response;
  };
}

struct ChurnResult {
  int served = 0;
  int null = 0;
  int torn = 0;
  std::string example;  // the first torn body's description
};

inline bool IsWhole(const std::string& body) { return body == kChurnBodyA || body == kChurnBodyB; }

// Opens the URL `iterations` times (and every `cleanup_every`-th time trims the cache with a
// limit of 0, deleting everything it can; 0: never).
inline ChurnResult RunChurn(qv::net::DiskCache& cache, int iterations, int cleanup_every) {
  ChurnResult result;
  std::string body;
  std::string buffer(65536, '\0');
  for (int i = 0; i < iterations; ++i) {
    if (cleanup_every > 0 && i % cleanup_every == cleanup_every - 1) cache.CleanUp();
    auto stream = cache.OpenUrl(kChurnUrl, 0, {});
    if (!stream) {
      ++result.null;
      continue;
    }
    body.clear();
    while (const std::uint64_t n = stream->Read(buffer.data(), buffer.size())) {
      body.append(buffer.data(), n);
    }
    if (IsWhole(body)) {
      ++result.served;
    } else if (result.torn++ == 0) {
      result.example = std::to_string(body.size()) + " bytes starting with '" +
                       body.substr(0, 1) + "', ending with '" +
                       (body.empty() ? "" : body.substr(body.size() - 1)) + "'";
    }
  }
  return result;
}

}  // namespace tq::test
