// Throughput and request rate of the WinINet layer against references measured in the same run:
//   stream  a large file from nginx with 8 MiB InternetReadFile calls vs `curl -s -o /dev/null`;
//   small   2,000 sequential small GETs on one connection handle vs one reused libcurl handle,
//           in 20 alternating batches so that load from elsewhere affects both alike.
// Usage: platform_bench [stream MiB (default 1024)] [small requests (default 2000)]
//        (or TQ_BENCH_STREAM_MIB / TQ_BENCH_SMALL_REQUESTS in the environment)
#include <curl/curl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/wininet.h"
#include "bench/bench_report.h"
#include "bench/bench_support.h"
#include "tests/support/servers/nginx_harness.h"

namespace {

using tq::bench::Clock;
using tq::bench::Seconds;
using tq::bench::Setting;

// Peak resident set of this process, in KiB.
long PeakRssKiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  }
  return -1;
}

struct Layer {
  HINTERNET session = nullptr;
  HINTERNET connection = nullptr;
  explicit Layer(int port) {
    session = InternetOpenW(L"tq-bench", INTERNET_OPEN_TYPE_DIRECT, nullptr, nullptr, 0);
    connection = InternetConnectW(session, L"127.0.0.1", static_cast<INTERNET_PORT>(port), nullptr,
                                  nullptr, INTERNET_SERVICE_HTTP, 0, 0);
  }
  ~Layer() { InternetCloseHandle(session); }

  // GETs the path and reads it to the end; returns the bytes read, or -1.
  long long Get(const wchar_t* path, std::vector<char>& buffer) {
    const wchar_t* accept[] = {L"*/*", nullptr};
    HINTERNET request = HttpOpenRequestW(connection, L"GET", path, nullptr, nullptr, accept,
                                         INTERNET_FLAG_KEEP_CONNECTION, 0);
    if (request == nullptr || !HttpSendRequestW(request, nullptr, 0, nullptr, 0)) {
      std::fprintf(stderr, "request failed: %u\n", GetLastError());
      InternetCloseHandle(request);
      return -1;
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
    return total;
  }
};

size_t Discard(char*, size_t size, size_t count, void*) { return size * count; }

}  // namespace

int main(int argc, char** argv) {
  const unsigned long stream_mib = Setting(argc, argv, 1, "TQ_BENCH_STREAM_MIB", 1024);
  const unsigned long small_requests = Setting(argc, argv, 2, "TQ_BENCH_SMALL_REQUESTS", 2000);
  constexpr int kRounds = 3;

  tq::test::NginxHarness nginx;
  if (!nginx.ok()) {
    std::fprintf(stderr, "nginx: %s\n", nginx.error().c_str());
    return 1;
  }
  // The large file is sparse: nginx sends it from the page cache, so the figures measure the
  // client side, not the disk.
  const auto big = nginx.WriteFile("big.bin", "");
  std::filesystem::resize_file(big, static_cast<std::uintmax_t>(stream_mib) << 20);
  nginx.WriteFile("small.txt", std::string(512, 's'));
  const std::string big_url = nginx.Url("/big.bin");
  const std::string small_url = nginx.Url("/small.txt");

  // --- streaming --------------------------------------------------------------------------------
  const double bytes = static_cast<double>(stream_mib) * 1024 * 1024;
  double ours_best = 1e30;
  double curl_best = 1e30;
  long peak_kib = 0;
  {
    Layer layer(nginx.port());
    std::vector<char> buffer(8u << 20);
    for (int round = 0; round < kRounds; ++round) {
      const auto start = Clock::now();
      const long long got = layer.Get(L"/big.bin", buffer);
      const double ours = Seconds(start);
      if (got != static_cast<long long>(bytes)) {
        std::fprintf(stderr, "streamed %lld bytes instead of %.0f\n", got, bytes);
        return 1;
      }
      ours_best = std::min(ours_best, ours);
      const double theirs = tq::bench::CurlSeconds({"-s", "-o", "/dev/null", big_url});
      if (theirs < 0) {
        std::fprintf(stderr, "curl failed\n");
        return 1;
      }
      curl_best = std::min(curl_best, theirs);
    }
    peak_kib = PeakRssKiB();
  }

  // --- small requests ---------------------------------------------------------------------------
  // Both sides run in alternating batches on warm connections, so that a busy machine slows
  // them alike instead of favouring whichever ran in a quiet moment.
  double ours_total = 0;
  double curl_total = 0;
  {
    Layer layer(nginx.port());
    std::vector<char> buffer(64 * 1024);
    CURL* easy = curl_easy_init();
    curl_easy_setopt(easy, CURLOPT_URL, small_url.c_str());
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Discard);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_PROXY, "");
    if (layer.Get(L"/small.txt", buffer) != 512 || curl_easy_perform(easy) != CURLE_OK) return 1;
    constexpr unsigned long kBatches = 20;
    const unsigned long per_batch = std::max(1ul, small_requests / kBatches);
    for (unsigned long batch = 0; batch < kBatches; ++batch) {
      auto start = Clock::now();
      for (unsigned long i = 0; i < per_batch; ++i) {
        if (layer.Get(L"/small.txt", buffer) != 512) return 1;
      }
      ours_total += Seconds(start);
      start = Clock::now();
      for (unsigned long i = 0; i < per_batch; ++i) {
        if (curl_easy_perform(easy) != CURLE_OK) return 1;
      }
      curl_total += Seconds(start);
    }
    curl_easy_cleanup(easy);
  }
  const double done_requests = static_cast<double>(std::max(1ul, small_requests / 20) * 20);
  const double ours_rate = done_requests / ours_total;
  const double curl_rate = done_requests / curl_total;

  const double ours_mibs = bytes / ours_best / (1 << 20);
  const double curl_mibs = bytes / curl_best / (1 << 20);
  std::printf("%-52s %12s %12s %8s %8s\n", "benchmark", "tqplatform", "reference",
              "ratio", "goal");
  std::printf("%-52s %8.0f MiB/s %6.0f MiB/s %8.2f %8s\n",
              ("stream " + std::to_string(stream_mib) + " MiB, 8 MiB reads vs curl (best of 3)").c_str(),
              ours_mibs, curl_mibs, ours_mibs / curl_mibs, ">=0.90");
  std::printf("%-52s %10.0f/s %10.0f/s %8.2f %8s\n",
              (std::to_string(small_requests) + " small GETs, 1 connection vs libcurl easy").c_str(),
              ours_rate, curl_rate, ours_rate / curl_rate, ">=0.80");
  std::printf("%-52s %8.1f MiB %12s %8s %8s\n", "peak resident memory after streaming",
              peak_kib / 1024.0, "", "", "<64 MiB");

  using tq::bench::Figure;
  tq::bench::Report("WinINet layer: stream " + std::to_string(stream_mib) +
                        " MiB, 8 MiB InternetReadFile vs curl -o /dev/null",
                    Figure("%.0f MiB/s", ours_mibs), Figure("%.0f MiB/s", curl_mibs),
                    ours_mibs / curl_mibs, ">= 0.90", ours_mibs / curl_mibs >= 0.9);
  tq::bench::Report("WinINet layer: peak RSS while streaming", Figure("%.1f MiB", peak_kib / 1024.0),
                    "-", peak_kib / 1024.0 / 64.0, "< 64 MiB (ratio to 64)", peak_kib < 64 * 1024);
  tq::bench::Report("WinINet layer: " + std::to_string(small_requests) +
                        " small GETs on one connection vs reused libcurl handle",
                    Figure("%.0f req/s", ours_rate), Figure("%.0f req/s", curl_rate),
                    ours_rate / curl_rate, ">= 0.80", ours_rate / curl_rate >= 0.8);
  return 0;
}
