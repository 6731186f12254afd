// A second process for the cache's multi-process tests. Over a scripted transport it either
//   churn <dir> <iterations>   opens one URL again and again while answers alternate between two
//                              bodies of different lengths and tags (exit status 0: every body
//                              it was served was whole); or
//   kill-mid-store <dir>       starts storing a new body for the URL and, once part of it is
//                              written, kills itself as kill -9 would, with no clean-up.
#if defined(_WIN32)
#include <windows.h>
#else
#include <unistd.h>
#endif

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "net/cache/disk_cache.h"
#include "net/http/connection_pool.h"
#include "net/http/http_api.h"
#include "tests/cache/cache_test_support.h"
#include "tests/support/fake_transport_fixture.h"

int main(int argc, char** argv) {
  const std::string mode = argc >= 3 ? argv[1] : "";
  tq::test::FakeHttpApi api;
  qv::net::SetHttpApi(&api);
  if (mode == "churn" && argc >= 4) {
    qv::net::DiskCache cache(qv::Utf8ToWide(argv[2]).c_str());
#if defined(_WIN32)
    api.SetResponder(tq::test::ChurnResponder(static_cast<unsigned>(::GetCurrentProcessId())));
#else
    api.SetResponder(tq::test::ChurnResponder(static_cast<unsigned>(::getpid())));
#endif
    int whole = 0;
    int torn = 0;
    tq::test::Churn(cache, std::atoi(argv[3]), 0, whole, torn);
    qv::net::HttpConnectionPool::Terminate();
    std::printf("served %d, torn %d\n", whole, torn);
    return torn == 0 ? 0 : 1;
  }
  if (mode == "kill-mid-store") {
    int reads = 0;
    api.on_read = [&] {
      if (++reads != 2) return;  // the first chunk is in the temporary file
#if defined(_WIN32)
      ::TerminateProcess(::GetCurrentProcess(), static_cast<UINT>(-9));
#else
      ::raise(SIGKILL);
#endif
    };
    tq::test::FakeResponse response;
    response.dates[L"Date"] = 1;
    response.Header(L"ETag", L"\"new tag of another length\"");
    api.Queue(response.Body(std::string(100000, 'N')).Body(std::string(100000, 'N')));
    qv::net::DiskCache(qv::Utf8ToWide(argv[2]).c_str()).OpenUrl(tq::test::kChurnUrl, 0, {});
    return 2;  // not reached: killed while storing
  }
  std::fprintf(stderr, "usage: cache_worker churn <dir> <iterations> | kill-mid-store <dir>\n");
  return 64;
}
