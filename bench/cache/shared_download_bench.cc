// Concurrent opens of one uncached URL through the disk cache against as many independent
// downloads:
//   shared  8 threads open the same uncached body from nginx through OpenFileOrUrl and read it
//           whole, vs 8 downloads of it at once by curl --parallel. Bytes on the wire are what
//           nginx logged as sent (goal: one body's worth, ratio <= 0.15); wall time from the
//           first open to the last byte read (goal: no slower than the 8 downloads).
// Usage: shared_download_bench [body MiB (default 64)]   (or TQ_BENCH_SHARED_MIB)
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "net/cache/cache_init.h"
#include "net/cache/url_cache.h"
#include "net/http/connection_pool.h"
#include "net/http/http_api.h"
#include "net/http/wininet_api.h"
#include "net/stream/open_file_or_url.h"
#include "bench/bench_report.h"
#include "bench/bench_support.h"
#include "tests/support/servers/nginx_harness.h"
#include "tests/support/servers/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using tq::bench::Clock;
using tq::bench::Seconds;

constexpr int kThreads = 8;

struct Wire {
  std::uint64_t requests = 0;
  std::uint64_t bytes = 0;
};

// The requests and body bytes nginx has logged so far ("combined": the body bytes sent are the
// tenth field).
Wire ReadAccessLog(const fs::path& path) {
  Wire wire;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string field;
    for (int i = 0; i < 10 && fields >> field; ++i) {
    }
    ++wire.requests;
    wire.bytes += std::strtoull(field.c_str(), nullptr, 10);
  }
  return wire;
}

Wire Minus(Wire a, Wire b) { return {a.requests - b.requests, a.bytes - b.bytes}; }

std::string MiB(std::uint64_t bytes) {
  return tq::bench::Figure("%.0f MiB", static_cast<double>(bytes) / (1 << 20));
}

}  // namespace

int main(int argc, char** argv) {
  const unsigned long mebibytes = tq::bench::Setting(argc, argv, 1, "TQ_BENCH_SHARED_MIB", 64);
  tq::test::TempDir work;
  const fs::path access_log = work.path() / "access.log";
  tq::test::NginxHarness nginx("access_log " + access_log.string() + ";");
  if (!nginx.ok()) return std::fprintf(stderr, "nginx: %s\n", nginx.error().c_str()), 1;
  const std::uint64_t size = static_cast<std::uint64_t>(mebibytes) << 20;
  {
    std::ofstream out(nginx.root() / "shared.bin", std::ios::binary);
  }
  fs::resize_file(nginx.root() / "shared.bin", size);
  const std::string url = nginx.Url("/shared.bin");

  // Ours: every thread opens the URL at once; one of them downloads, the others wait for it.
  qv::net::WinInet api;
  qv::net::SetHttpApi(&api);
  qv::net::InitialiseCache(qv::Utf8ToWide((work.path() / "cache").string()).c_str());
  const Wire before = ReadAccessLog(access_log);
  std::vector<std::uint64_t> read(kThreads, 0);
  const auto start = Clock::now();
  {
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        auto stream = qv::net::OpenFileOrUrl(qv::Utf8ToWide(url), 0, {});
        std::vector<char> buffer(1 << 20);
        while (stream) {
          const auto n = stream->Read(buffer.data(), buffer.size());
          if (n == 0) break;
          read[i] += n;
        }
      });
    }
    for (auto& thread : threads) thread.join();
  }
  const double ours = Seconds(start);
  qv::net::TerminateCache();
  qv::net::HttpConnectionPool::Terminate();
  qv::net::SetHttpApi(nullptr);
  const Wire ours_wire = Minus(ReadAccessLog(access_log), before);
  for (int i = 0; i < kThreads; ++i) {
    if (read[i] != size) {
      std::fprintf(stderr, "thread %d read %llu of %llu bytes\n", i,
                   static_cast<unsigned long long>(read[i]), static_cast<unsigned long long>(size));
      return 1;
    }
  }

  // The reference: 8 independent downloads of the same URL at once.
  std::vector<std::string> args = {"-s", "--parallel", "--parallel-max", "8"};
  for (int i = 0; i < kThreads; ++i) {
    args.push_back("-o");
    args.push_back((work.path() / ("curl" + std::to_string(i))).string());
    args.push_back(url);
  }
  const Wire curl_before = ReadAccessLog(access_log);
  const double curl = tq::bench::CurlSeconds(args);
  const Wire curl_wire = Minus(ReadAccessLog(access_log), curl_before);
  if (curl < 0) return std::fprintf(stderr, "curl --parallel failed\n"), 1;

  std::printf("shared %d threads x %lu MiB: %.2f s, %llu request(s), %s on the wire; "
              "%d curl downloads %.2f s, %llu requests, %s\n",
              kThreads, mebibytes, ours, static_cast<unsigned long long>(ours_wire.requests),
              MiB(ours_wire.bytes).c_str(), kThreads, curl,
              static_cast<unsigned long long>(curl_wire.requests), MiB(curl_wire.bytes).c_str());
  const double bytes_ratio =
      curl_wire.bytes > 0 ? static_cast<double>(ours_wire.bytes) / curl_wire.bytes : 0.0;
  const std::string scenario = "cache: " + std::to_string(kThreads) + " threads x the same " +
                               std::to_string(mebibytes) + " MiB uncached URL vs " +
                               std::to_string(kThreads) + " curl downloads";
  tq::bench::Report(scenario + ", bytes on the wire",
                    MiB(ours_wire.bytes) + " (" + std::to_string(ours_wire.requests) + " req)",
                    MiB(curl_wire.bytes) + " (" + std::to_string(curl_wire.requests) + " req)",
                    bytes_ratio, "<= 0.15", ours_wire.bytes > 0 && bytes_ratio <= 0.15);
  tq::bench::Report(scenario + ", wall time", tq::bench::Figure("%.2f s", ours),
                    tq::bench::Figure("%.2f s", curl), curl > 0 ? ours / curl : 0.0, "<= 1.0",
                    curl > 0 && ours <= curl);
  return 0;
}
