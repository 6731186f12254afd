// Throughput and request rate of the WinINet layer against references measured in the same run:
//   stream  a large file from nginx with 8 MiB InternetReadFile calls vs `curl -s -o /dev/null`;
//   small   2,000 sequential small GETs on one connection handle vs one reused libcurl handle,
//           in 10 alternating batches so that load from elsewhere affects both alike.
// Both sides of a row run in turn (5 streams after one uncounted stream each, 10 batches each)
// and the medians are compared. The large file is read once before, so nginx serves it from the
// page cache to every stream.
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
#include "bench/platform/layer.h"
#include "tests/support/servers/nginx_harness.h"

namespace {

using tq::bench::Clock;
using tq::bench::Layer;
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

}  // namespace

int main(int argc, char** argv) {
  const unsigned long stream_mib = Setting(argc, argv, 1, "TQ_BENCH_STREAM_MIB", 1024);
  const unsigned long small_requests = Setting(argc, argv, 2, "TQ_BENCH_SMALL_REQUESTS", 2000);

  tq::test::NginxHarness nginx;
  if (!nginx.ok()) {
    std::fprintf(stderr, "nginx: %s\n", nginx.error().c_str());
    return 1;
  }
  // The large file is sparse: nginx sends it from the page cache, so the figures measure the
  // client side, not the disk.
  const auto big = nginx.WriteFile("big.bin", "");
  std::filesystem::resize_file(big, static_cast<std::uintmax_t>(stream_mib) << 20);
  if (!tq::bench::WarmPageCache(big)) {
    std::fprintf(stderr, "cannot read %s\n", big.string().c_str());
    return 1;
  }
  nginx.WriteFile("small.txt", std::string(512, 's'));
  const std::string big_url = nginx.Url("/big.bin");
  const std::string small_url = nginx.Url("/small.txt");

  // --- streaming --------------------------------------------------------------------------------
  const double bytes = static_cast<double>(stream_mib) * 1024 * 1024;
  tq::bench::Samples ours_stream, curl_stream;
  long peak_kib = 0;
  {
    Layer layer(nginx.port());
    std::vector<char> buffer(8u << 20);
    auto ours = [&] {
      const auto start = Clock::now();
      const long long got = layer.Get(L"/big.bin", buffer);
      if (got != static_cast<long long>(bytes)) {
        std::fprintf(stderr, "streamed %lld bytes instead of %.0f\n", got, bytes);
        return -1.0;
      }
      return Seconds(start);
    };
    auto curl = [&] {
      const double seconds = tq::bench::CurlSeconds({"-s", "-o", "/dev/null", big_url});
      if (seconds < 0) std::fprintf(stderr, "curl failed\n");
      return seconds;
    };
    if (!tq::bench::InterleaveAfterWarmUp(tq::bench::Runs(5), ours, curl, &ours_stream,
                                          &curl_stream, [] {})) {
      return 1;
    }
    peak_kib = PeakRssKiB();
  }

  // --- small requests ---------------------------------------------------------------------------
  // Both sides run in alternating batches on warm connections, so that a busy machine slows
  // them alike instead of favouring whichever ran in a quiet moment; each batch is one sample.
  const int batches = tq::bench::Runs(10);
  const unsigned long per_batch = std::max(1ul, small_requests / static_cast<unsigned long>(batches));
  tq::bench::Samples ours_small, curl_small;  // seconds per request
  {
    Layer layer(nginx.port());
    std::vector<char> buffer(64 * 1024);
    CURL* easy = tq::bench::ReusedCurlHandle(small_url);
    if (layer.Get(L"/small.txt", buffer) != 512 || curl_easy_perform(easy) != CURLE_OK) return 1;
    auto ours = [&] {
      const auto start = Clock::now();
      for (unsigned long i = 0; i < per_batch; ++i) {
        if (layer.Get(L"/small.txt", buffer) != 512) return -1.0;
      }
      return Seconds(start) / static_cast<double>(per_batch);
    };
    auto curl = [&] {
      const auto start = Clock::now();
      for (unsigned long i = 0; i < per_batch; ++i) {
        if (curl_easy_perform(easy) != CURLE_OK) return -1.0;
      }
      return Seconds(start) / static_cast<double>(per_batch);
    };
    const bool ok = tq::bench::Interleave(batches, ours, curl, &ours_small, &curl_small);
    curl_easy_cleanup(easy);
    if (!ok) return 1;
  }

  using tq::bench::Spread;
  const double mib = bytes / (1 << 20);
  const auto stream_rate = [mib](double seconds) { return mib / seconds; };
  const auto request_rate = [](double seconds) { return 1.0 / seconds; };
  const double stream_ratio = curl_stream.Median() / ours_stream.Median();
  const double small_ratio = curl_small.Median() / ours_small.Median();
  std::printf("stream %lu MiB, 8 MiB reads: %s, curl %s, ratio of medians %.2f (goal >= 0.9); "
              "peak RSS %.1f MiB (goal < 64)\n",
              stream_mib, Spread(ours_stream.Map(stream_rate), "%.0f", "MiB/s").c_str(),
              Spread(curl_stream.Map(stream_rate), "%.0f", "MiB/s").c_str(), stream_ratio,
              peak_kib / 1024.0);
  std::printf("small  %d batches of %lu GETs on one connection: %s, reused libcurl handle %s, "
              "ratio of medians %.2f (goal >= 1.0)\n",
              batches, per_batch, Spread(ours_small.Map(request_rate), "%.0f", "req/s").c_str(),
              Spread(curl_small.Map(request_rate), "%.0f", "req/s").c_str(), small_ratio);

  tq::bench::Report("WinINet layer: stream " + std::to_string(stream_mib) +
                        " MiB, 8 MiB InternetReadFile vs curl -o /dev/null",
                    Spread(ours_stream.Map(stream_rate), "%.0f", "MiB/s"),
                    Spread(curl_stream.Map(stream_rate), "%.0f", "MiB/s"), stream_ratio,
                    ">= 0.90", stream_ratio >= 0.9);
  tq::bench::Report("WinINet layer: peak RSS while streaming",
                    tq::bench::Figure("%.1f MiB", peak_kib / 1024.0), "-",
                    peak_kib / 1024.0 / 64.0, "< 64 MiB (ratio to 64)", peak_kib < 64 * 1024);
  tq::bench::Report("WinINet layer: " + std::to_string(per_batch * batches) +
                        " small GETs on one connection vs reused libcurl handle",
                    Spread(ours_small.Map(request_rate), "%.0f", "req/s"),
                    Spread(curl_small.Map(request_rate), "%.0f", "req/s"), small_ratio, ">= 1.0",
                    small_ratio >= 1.0);
  return 0;
}
