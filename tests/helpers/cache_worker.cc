// A second process for the cache's multi-process tests. Over a scripted transport it either
//   churn <dir> <iterations>   opens one URL again and again while answers alternate between two
//                              bodies of different lengths and tags, checks every body it is
//                              served, and trims the cache now and then; or
//   kill-mid-store <dir>       starts storing a new body for the URL, prints "storing <pid>" once
//                              part of it is written, and blocks until it is killed.
// Exit status 0 means every body it saw was whole.
#if defined(_WIN32)
#include <windows.h>
#else
#include <unistd.h>
#endif

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "net/cache/disk_cache.h"
#include "net/http/connection_pool.h"
#include "net/http/http_api.h"
#include "tests/cache/cache_test_support.h"
#include "tests/support/fake_transport_fixture.h"

namespace {

int ProcessId() {
#if defined(_WIN32)
  return static_cast<int>(::GetCurrentProcessId());
#else
  return static_cast<int>(::getpid());
#endif
}

[[noreturn]] void BlockForever() {
  for (;;) {
#if defined(_WIN32)
    ::Sleep(INFINITE);
#else
    ::pause();
#endif
  }
}

int Churn(const std::wstring& directory, int iterations) {
  tq::test::FakeHttpApi api;
  qv::net::SetHttpApi(&api);
  api.SetResponder(tq::test::ChurnResponder(static_cast<unsigned>(ProcessId())));
  qv::net::DiskCache cache(directory.c_str());
  const tq::test::ChurnResult result = tq::test::RunChurn(cache, iterations, 0);
  qv::net::HttpConnectionPool::Terminate();
  qv::net::SetHttpApi(nullptr);
  if (result.torn != 0) {
    std::fprintf(stderr, "cache_worker: %d torn bodies\n", result.torn);
    return 1;
  }
  std::printf("served %d, null %d\n", result.served, result.null);
  return 0;
}

int KillMidStore(const std::wstring& directory) {
  tq::test::FakeHttpApi api;
  qv::net::SetHttpApi(&api);
  std::atomic<int> reads{0};
  api.on_read = [&] {
    if (++reads == 2) {  // the first chunk is in the temporary file
      std::printf("storing %d\n", ProcessId());
      std::fflush(stdout);
      BlockForever();
    }
  };
  tq::test::FakeResponse response;
  response.status = 200;
  response.dates[L"Date"] = 1;
  response.Header(L"ETag", L"\"new tag of another length\"");
  response.Body(std::string(100000, 'N')).Body(std::string(100000, 'N'));
  api.Queue(response);
  qv::net::DiskCache cache(directory.c_str());
  cache.OpenUrl(tq::test::kChurnUrl, 0, {});
  return 2;  // never reached: killed while storing
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 4 && std::string(argv[1]) == "churn") {
    return Churn(qv::Utf8ToWide(argv[2]), std::atoi(argv[3]));
  }
  if (argc >= 3 && std::string(argv[1]) == "kill-mid-store") {
    return KillMidStore(qv::Utf8ToWide(argv[2]));
  }
  std::fprintf(stderr, "usage: cache_worker churn <dir> <iterations> | kill-mid-store <dir>\n");
  return 64;
}
