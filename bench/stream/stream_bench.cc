// The stream layer against references measured in the same run, both served by nginx:
//   copy   CopyStream from an HttpReadStream into a file vs `curl -s -o FILE URL`;
//   async  OpenFileOrUrlAsync of N distinct 256 KiB files on the 4 worker threads, no cache
//          installed, vs `curl -s --parallel --parallel-max 4` fetching the same URLs.
// Both sides of a row run in turn, 5 times each after one turn each that is not counted, and the
// medians are compared. The large file is read once before, so nginx serves it from the page
// cache to every run.
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
  if (!tq::bench::WarmPageCache(big)) {
    std::fprintf(stderr, "cannot read %s\n", big.string().c_str());
    return 1;
  }
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
  // Each side starts with no dirty pages of the other's file still being written back, and its
  // own file is gone before the other side runs.
  // The CPU time each side used, for the readable line: on a busy machine the wall time
  // follows the scheduler as much as the code.
  tq::bench::Samples ours_cpu, curl_cpu;
  auto copy_ours = [&] {
    ::sync();
    const double cpu = tq::bench::ProcessCpuSeconds();
    const auto start = Clock::now();
    if (CopyUrlToFile(big_url, ours_file) != expected) {
      std::fprintf(stderr, "CopyStream did not copy %lld bytes\n", expected);
      return -1.0;
    }
    const double seconds = Seconds(start);
    ours_cpu.Add(tq::bench::ProcessCpuSeconds() - cpu);
    std::filesystem::remove(ours_file);
    return seconds;
  };
  auto copy_curl = [&] {
    ::sync();
    double cpu = 0;
    const double seconds =
        CurlSeconds({"-s", "-o", curl_file.string(), nginx.Url("/big.bin")}, &cpu);
    if (seconds < 0) std::fprintf(stderr, "curl failed\n");
    curl_cpu.Add(cpu);
    std::filesystem::remove(curl_file);
    return seconds;
  };
  tq::bench::Samples ours_copy, curl_copy;
  if (!tq::bench::InterleaveAfterWarmUp(tq::bench::Runs(5), copy_ours, copy_curl, &ours_copy,
                                        &curl_copy, [&] { ours_cpu = curl_cpu = {}; })) {
    return 1;
  }

  // --- OpenFileOrUrlAsync -----------------------------------------------------------------------
  qv::net::ExchangeWorkerThreadPool(std::make_unique<qv::net::thread_pool>(4u));
  // Each run starts with nothing of the copies above still being written back, as those did.
  tq::bench::Samples ours_async_cpu, curl_async_cpu;
  auto async_ours = [&] {
    ::sync();
    const double cpu = tq::bench::ProcessCpuSeconds();
    const auto start = Clock::now();
    if (!OpenAllAsync(urls)) {
      std::fprintf(stderr, "an asynchronous open failed\n");
      return -1.0;
    }
    const double seconds = Seconds(start);
    ours_async_cpu.Add(tq::bench::ProcessCpuSeconds() - cpu);
    return seconds;
  };
  auto async_curl = [&] {
    ::sync();
    double cpu = 0;
    const double seconds = CurlSeconds(curl_parallel, &cpu);
    if (seconds < 0) std::fprintf(stderr, "curl --parallel failed\n");
    curl_async_cpu.Add(cpu);
    return seconds;
  };
  tq::bench::Samples ours_async, curl_async;
  if (!tq::bench::InterleaveAfterWarmUp(tq::bench::Runs(5), async_ours, async_curl, &ours_async,
                                        &curl_async,
                                        [&] { ours_async_cpu = curl_async_cpu = {}; })) {
    return 1;
  }

  qv::net::ExchangeWorkerThreadPool(nullptr).reset();
  qv::net::HttpConnectionPool::Terminate();
  delete qv::net::SetHttpApi(nullptr);

  using tq::bench::Spread;
  const double mib = static_cast<double>(copy_mib);
  const double files = static_cast<double>(async_files);
  const auto copy_rate = [mib](double seconds) { return mib / seconds; };
  const auto file_rate = [files](double seconds) { return files / seconds; };
  // The copy's goal holds for the median and for every pair of runs made side by side.
  double worst_pair = 1e300;
  for (std::size_t i = 0; i < ours_copy.Count() && i < curl_copy.Count(); ++i) {
    worst_pair = std::min(worst_pair, curl_copy.Values()[i] / ours_copy.Values()[i]);
  }
  // Each pair as made, so that a slow run shows which side and which turn it was.
  std::string pairs;
  for (std::size_t i = 0; i < ours_copy.Count() && i < curl_copy.Count(); ++i) {
    pairs += tq::bench::Figure(" %.0f/%.0f", copy_rate(ours_copy.Values()[i]),
                               copy_rate(curl_copy.Values()[i]));
  }
  const double copy_ratio = curl_copy.Median() / ours_copy.Median();
  const double async_ratio = curl_async.Median() / ours_async.Median();
  std::printf("copy   CopyStream %lu MiB into a file: %s, curl -o %s, ratio of medians %.2f, "
              "worst pair %.2f (goal >= 1.0, no pair below 0.9); CPU time %s, curl %s; "
              "MiB/s of each pair, ours/curl:%s\n",
              copy_mib, Spread(ours_copy.Map(copy_rate), "%.0f", "MiB/s").c_str(),
              Spread(curl_copy.Map(copy_rate), "%.0f", "MiB/s").c_str(), copy_ratio, worst_pair,
              Spread(ours_cpu, "%.2f", "s").c_str(), Spread(curl_cpu, "%.2f", "s").c_str(),
              pairs.c_str());
  std::printf("async  OpenFileOrUrlAsync %lu x 256 KiB: %s, curl --parallel %s, ratio of medians "
              "%.2f (goal >= 1.0); CPU time %s, curl %s\n",
              async_files, Spread(ours_async.Map(file_rate), "%.0f", "files/s").c_str(),
              Spread(curl_async.Map(file_rate), "%.0f", "files/s").c_str(), async_ratio,
              Spread(ours_async_cpu, "%.3f", "s").c_str(),
              Spread(curl_async_cpu, "%.3f", "s").c_str());

  tq::bench::Report("CopyStream from HttpReadStream into a file, " + std::to_string(copy_mib) +
                        " MiB, vs curl -s -o FILE",
                    Spread(ours_copy.Map(copy_rate), "%.0f", "MiB/s"),
                    Spread(curl_copy.Map(copy_rate), "%.0f", "MiB/s"), copy_ratio,
                    tq::bench::Figure(">= 1.0, no pair < 0.9 (worst %.2f)", worst_pair),
                    copy_ratio >= 1.0 && worst_pair >= 0.9);
  tq::bench::Report("OpenFileOrUrlAsync " + std::to_string(async_files) +
                        " x 256 KiB, no cache, vs curl --parallel --parallel-max 4",
                    Spread(ours_async.Map(file_rate), "%.0f", "files/s"),
                    Spread(curl_async.Map(file_rate), "%.0f", "files/s"), async_ratio, ">= 1.0",
                    async_ratio >= 1.0);
  return 0;
}
