// The stream layer against references measured in the same run, both served by nginx:
//   copy   CopyStream from an HttpReadStream into a file vs `curl -s -o FILE URL`;
//   async  OpenFileOrUrlAsync of N distinct 256 KiB files on the 4 worker threads, no cache
//          installed, vs `curl -s --parallel --parallel-max 4` fetching the same URLs.
// Usage: stream_bench [copy MiB (default 1024)] [async files (default 200)]
//        (or TQ_BENCH_COPY_MIB / TQ_BENCH_ASYNC_FILES in the environment; CI runs it small)
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "net/http/connection_pool.h"
#include "net/http/http_api.h"
#include "net/http/wininet_api.h"
#include "net/stream/open_file_or_url.h"
#include "net/stream/read_stream.h"
#include "net/stream/stream_copy.h"
#include "net/stream/thread_pool.h"
#include "bench/bench_report.h"
#include "bench/bench_support.h"
#include "tests/support/servers/nginx_harness.h"
#include "tests/support/servers/temp_dir.h"

namespace {

using tq::bench::Clock;
using tq::bench::CurlSeconds;
using tq::bench::Seconds;
using tq::bench::Setting;
constexpr int kRounds = 3;
constexpr std::size_t kAsyncFileSize = 256 * 1024;

// CopyStream from the URL into `target`; the bytes copied, or -1.
long long CopyUrlToFile(const std::wstring& url, const std::filesystem::path& target) {
  TqUSysFile::Handle file = TqUSysFile::OpenFile(target, TqUSysFile::kAccessWrite,
                                                 TqUSysFile::kShareNone,
                                                 TqUSysFile::kCreateAlways, 0, 0);
  if (file == TqUSysFile::kInvalid) return -1;
  qv::io::FileWriteStream out(file);
  auto source = qv::net::HttpReadStream::Open(url, 0, {});
  if (!source->Succeeded()) return -1;
  const qv::net::CopyStreamResult result = qv::net::CopyStream(*source, out, {});
  return result.completed ? static_cast<long long>(result.bytes_copied) : -1;
}

// All URLs opened at once through the worker pool, each read whole into memory; false when
// one is missing or short.
bool OpenAllAsync(const std::vector<std::wstring>& urls) {
  std::vector<std::future<std::unique_ptr<qv::io::IDataSeekableReadStream>>> futures;
  futures.reserve(urls.size());
  for (const std::wstring& url : urls) futures.push_back(qv::net::OpenFileOrUrlAsync(url, 0, {}));
  bool ok = true;
  for (auto& future : futures) {
    auto stream = future.get();
    ok = ok && stream && stream->MetaData().size == kAsyncFileSize;
  }
  return ok;
}

void PrintRow(const std::string& name, double ours, double theirs, const char* unit,
              const char* goal) {
  std::printf("%-66s %9.1f %-5s %9.1f %-5s %6.2f %7s\n", name.c_str(), ours, unit, theirs, unit,
              ours / theirs, goal);
}

}  // namespace

int main(int argc, char** argv) {
  const unsigned long copy_mib = Setting(argc, argv, 1, "TQ_BENCH_COPY_MIB", 1024);
  const unsigned long async_files = Setting(argc, argv, 2, "TQ_BENCH_ASYNC_FILES", 200);

  tq::test::NginxHarness nginx;
  if (!nginx.ok()) {
    std::fprintf(stderr, "nginx: %s\n", nginx.error().c_str());
    return 1;
  }
  tq::test::TempDir out_dir;
  // Sparse: nginx sends it from the page cache, so the figures measure the client side.
  const auto big = nginx.WriteFile("big.bin", "");
  std::filesystem::resize_file(big, static_cast<std::uintmax_t>(copy_mib) << 20);
  std::vector<std::wstring> urls;
  std::vector<std::string> curl_parallel = {"-s", "--no-progress-meter", "--parallel", "--parallel-max", "4"};
  for (unsigned long i = 0; i < async_files; ++i) {
    const std::string name = "f" + std::to_string(i) + ".bin";
    nginx.WriteFile(name, std::string(kAsyncFileSize, static_cast<char>('a' + i % 26)));
    urls.push_back(qv::Utf8ToWide(nginx.Url("/" + name)));
    curl_parallel.insert(curl_parallel.end(), {nginx.Url("/" + name), "-o", "/dev/null"});
  }

  qv::net::SetHttpApi(new qv::net::WinInet());

  // --- CopyStream into a file -----------------------------------------------------------------
  const std::wstring big_url = qv::Utf8ToWide(nginx.Url("/big.bin"));
  const auto ours_file = out_dir.path() / "ours.bin";
  const auto curl_file = out_dir.path() / "curl.bin";
  const long long expected = static_cast<long long>(copy_mib) << 20;
  double ours_copy = 1e30;
  double curl_copy = 1e30;
  for (int round = 0; round < kRounds; ++round) {
    // Each side starts with no dirty pages of the other's file still being written back.
    ::sync();
    const auto start = Clock::now();
    if (CopyUrlToFile(big_url, ours_file) != expected) {
      std::fprintf(stderr, "CopyStream did not copy %lld bytes\n", expected);
      return 1;
    }
    const double ours = Seconds(start);
    ours_copy = std::min(ours_copy, ours);
    std::filesystem::remove(ours_file);
    ::sync();
    const double theirs = CurlSeconds({"-s", "-o", curl_file.string(), nginx.Url("/big.bin")});
    if (theirs < 0) {
      std::fprintf(stderr, "curl failed\n");
      return 1;
    }
    curl_copy = std::min(curl_copy, theirs);
    std::fprintf(stderr, "copy round %d: %.0f MiB/s, curl %.0f MiB/s\n", round + 1,
                 copy_mib / ours, copy_mib / theirs);
    std::filesystem::remove(curl_file);
  }

  // --- OpenFileOrUrlAsync -----------------------------------------------------------------------
  qv::net::ExchangeWorkerThreadPool(std::make_unique<qv::net::thread_pool>(4u));
  double ours_async = 1e30;
  double curl_async = 1e30;
  for (int round = 0; round < kRounds; ++round) {
    const auto start = Clock::now();
    if (!OpenAllAsync(urls)) {
      std::fprintf(stderr, "an asynchronous open failed\n");
      return 1;
    }
    const double ours = Seconds(start);
    ours_async = std::min(ours_async, ours);
    const double theirs = CurlSeconds(curl_parallel);
    if (theirs < 0) {
      std::fprintf(stderr, "curl --parallel failed\n");
      return 1;
    }
    curl_async = std::min(curl_async, theirs);
    std::fprintf(stderr, "async round %d: %.0f files/s, curl %.0f files/s\n", round + 1,
                 async_files / ours, async_files / theirs);
  }

  qv::net::ExchangeWorkerThreadPool(nullptr).reset();
  qv::net::HttpConnectionPool::Terminate();
  delete qv::net::SetHttpApi(nullptr);

  const double mib = static_cast<double>(copy_mib);
  std::printf("%-66s %15s %15s %6s %7s\n", "benchmark (best of 3)", "tqnetwork", "reference",
              "ratio", "goal");
  PrintRow("CopyStream HttpReadStream -> file, " + std::to_string(copy_mib) +
               " MiB vs curl -s -o FILE",
           mib / ours_copy, mib / curl_copy, "MiB/s", ">=0.90");
  PrintRow("OpenFileOrUrlAsync " + std::to_string(async_files) +
               " x 256 KiB, 4 workers vs curl --parallel-max 4",
           async_files / ours_async, async_files / curl_async, "fil/s", ">=0.80");

  using tq::bench::Figure;
  const double copy_ratio = curl_copy / ours_copy;
  tq::bench::Report("CopyStream from HttpReadStream into a file, " + std::to_string(copy_mib) +
                        " MiB, vs curl -s -o FILE",
                    Figure("%.0f MiB/s", mib / ours_copy), Figure("%.0f MiB/s", mib / curl_copy),
                    copy_ratio, ">= 0.90", copy_ratio >= 0.9);
  const double async_ratio = curl_async / ours_async;
  tq::bench::Report("OpenFileOrUrlAsync " + std::to_string(async_files) +
                        " x 256 KiB, no cache, vs curl --parallel --parallel-max 4",
                    Figure("%.0f files/s", async_files / ours_async),
                    Figure("%.0f files/s", async_files / curl_async), async_ratio, ">= 0.80",
                    async_ratio >= 0.8);
  return 0;
}
