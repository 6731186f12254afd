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

#include "platform/wininet.h"
#include "tests/support/servers/nginx_harness.h"

namespace {

// Reads the path to its end on a new request handle; false on any failure.
bool GetThroughLayer(HINTERNET connection, const wchar_t* path, std::vector<char>& buffer,
                     long long expected) {
  const wchar_t* accept[] = {L"*/*", nullptr};
  HINTERNET request = HttpOpenRequestW(connection, L"GET", path, nullptr, nullptr, accept,
                                       INTERNET_FLAG_KEEP_CONNECTION, 0);
  if (request == nullptr || !HttpSendRequestW(request, nullptr, 0, nullptr, 0)) {
    std::fprintf(stderr, "request failed: %u\n", GetLastError());
    InternetCloseHandle(request);
    return false;
  }
  long long total = 0;
  for (;;) {
    DWORD got = 0;
    if (!InternetReadFile(request, buffer.data(), static_cast<DWORD>(buffer.size()), &got)) {
      std::fprintf(stderr, "read failed: %u\n", GetLastError());
      total = -1;
      break;
    }
    if (got == 0) break;
    total += got;
  }
  InternetCloseHandle(request);
  return total == expected;
}

size_t Discard(char*, size_t size, size_t count, void*) { return size * count; }

}  // namespace

// Not inlined and not static: the profiler is pointed at them by name.
extern "C" __attribute__((noinline)) bool OurRequests(HINTERNET connection, unsigned long count,
                                                      std::vector<char>* buffer) {
  for (unsigned long i = 0; i < count; ++i) {
    if (!GetThroughLayer(connection, L"/small.txt", *buffer, 512)) return false;
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

  HINTERNET session = InternetOpenW(L"tq-bench", INTERNET_OPEN_TYPE_DIRECT, nullptr, nullptr, 0);
  HINTERNET connection = InternetConnectW(session, L"127.0.0.1",
                                          static_cast<INTERNET_PORT>(nginx.port()), nullptr,
                                          nullptr, INTERNET_SERVICE_HTTP, 0, 0);
  std::vector<char> buffer(64 * 1024);
  CURL* easy = curl_easy_init();
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Discard);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_PROXY, "");
  // Warm, outside the measured functions: connections made, first-use allocations behind both.
  bool ok = true;
  for (int i = 0; i < 3 && ok; ++i) {
    ok = GetThroughLayer(connection, L"/small.txt", buffer, 512) &&
         curl_easy_perform(easy) == CURLE_OK;
  }
  ok = ok && OurRequests(connection, count, &buffer) && CurlRequests(easy, count);
  curl_easy_cleanup(easy);
  InternetCloseHandle(session);
  if (!ok) return 1;
  std::printf("%lu requests on each side\n", count);
  return 0;
}
