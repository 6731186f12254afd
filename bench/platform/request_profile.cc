// The small row of platform_bench reduced to what a profiler needs: warm connections, then
// `count` GETs of a 512-byte file through the WinINet layer and `count` through one reused libcurl
// handle, each side in a function of its own, so that an instruction counter run over the whole
// program gives each side's cost per request:
//   valgrind --tool=callgrind request_profile 2000
// then each side's inclusive cost (callgrind_annotate --inclusive=yes) divided by the count.
// Usage: request_profile [requests per side (default 2000)]
#include <curl/curl.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/platform/layer.h"
#include "tests/support/servers/nginx_harness.h"

// Not inlined and not static: the profiler is pointed at them by name.
extern "C" __attribute__((noinline)) bool OurRequests(tq::bench::Layer* layer, unsigned long count,
                                                      std::vector<char>* buffer) {
  for (unsigned long i = 0; i < count; ++i) {
    if (layer->Get(L"/small.txt", *buffer) != 512) return false;
  }
  return true;
}

extern "C" __attribute__((noinline)) bool CurlRequests(CURL* easy, unsigned long count) {
  for (unsigned long i = 0; i < count; ++i) {
    if (curl_easy_perform(easy) != CURLE_OK) return false;
  }
  return true;
}

int main(int argc, char** argv) {
  const unsigned long count = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 2000;
  tq::test::NginxHarness nginx;
  if (!nginx.ok()) {
    std::fprintf(stderr, "nginx: %s\n", nginx.error().c_str());
    return 1;
  }
  nginx.WriteFile("small.txt", std::string(512, 's'));
  const std::string url = nginx.Url("/small.txt");

  tq::bench::Layer layer(nginx.port());
  std::vector<char> buffer(64 * 1024);
  CURL* easy = tq::bench::ReusedCurlHandle(url);
  // Warm, outside the measured functions: connections made, first-use allocations behind both.
  bool ok = true;
  for (int i = 0; i < 3 && ok; ++i) {
    ok = layer.Get(L"/small.txt", buffer) == 512 && curl_easy_perform(easy) == CURLE_OK;
  }
  ok = ok && OurRequests(&layer, count, &buffer) && CurlRequests(easy, count);
  curl_easy_cleanup(easy);
  if (!ok) return 1;
  std::printf("%lu requests on each side\n", count);
  return 0;
}
