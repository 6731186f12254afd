// Random ranged reads of a large file on nginx through HttpFileProtocol::ReadFileToSize, against
// the same reads made with one reused libcurl easy handle per thread, measured in the same run.
// Usage: fileprotocol_bench [file MiB (1024)] [threads (4)] [reads per thread (2500)] [read KiB (64)]
//        (or TQ_BENCH_FILE_MIB, TQ_BENCH_THREADS, TQ_BENCH_READS, TQ_BENCH_READ_KIB)
// The two clients run in 5 alternating batches, each a sample; the medians are compared.
// The file is sparse: nginx serves it from the page cache, so the figure is the client's cost.
#include <curl/curl.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_report.h"
#include "bench/bench_support.h"
#include "net/fileprotocol/http_file_protocol.h"
#include "tests/support/servers/nginx_harness.h"

namespace {

using tq::bench::Clock;
using tq::bench::Setting;

struct Plan {
  std::uint64_t file_size;
  unsigned threads;
  unsigned reads;
  std::uint64_t read_size;
  // Offsets per thread, the same for both clients.
  std::vector<std::vector<std::uint64_t>> offsets;
};

Plan MakePlan(std::uint64_t file_size, unsigned threads, unsigned reads, std::uint64_t read_size) {
  Plan plan{file_size, threads, reads, read_size, {}};
  std::mt19937_64 random(7);
  plan.offsets.resize(threads);
  for (auto& list : plan.offsets) {
    for (unsigned i = 0; i < reads; ++i) list.push_back(random() % (file_size - read_size + 1));
  }
  return plan;
}

// Runs `work(thread index)` on every thread at once; returns the seconds from start to last end.
template <typename Work>
double RunThreads(unsigned threads, Work work) {
  std::atomic<unsigned> ready{0};
  std::atomic<bool> go{false};
  std::vector<std::thread> pool;
  for (unsigned t = 0; t < threads; ++t) {
    pool.emplace_back([&, t] {
      ++ready;
      while (!go.load()) std::this_thread::yield();
      work(t);
    });
  }
  while (ready.load() != threads) std::this_thread::yield();
  const auto start = Clock::now();
  go = true;
  for (auto& t : pool) t.join();
  return tq::bench::Seconds(start);
}

std::atomic<long> g_failures{0};

double RunProtocol(const Plan& plan, const std::wstring& url, unsigned begin, unsigned end) {
  qv::net::HttpFileProtocol protocol;
  TqUFileHandle* file = protocol.OpenFile(url.c_str(), TqUFileProtocol::OpenRead);
  if (file == nullptr) return -1;
  const double seconds = RunThreads(plan.threads, [&](unsigned t) {
    TqUThreadHandle* thread = protocol.CreateThreadHandle(file);
    std::vector<unsigned char> buffer(plan.read_size);
    for (unsigned i = begin; i < end; ++i) {
      const std::uint64_t offset = plan.offsets[t][i];
      TqUFileRequestHandle* request = protocol.SetupReadFile(file, offset, plan.read_size);
      std::uint64_t total = 0;
      const std::int64_t n = protocol.ReadFileToSize(file, thread, request, offset,
                                                     plan.read_size, buffer.data(), &total);
      protocol.ReleaseRequestHandle(request);
      if (n != static_cast<std::int64_t>(plan.read_size) || total != plan.file_size) ++g_failures;
    }
    protocol.ReleaseThreadHandle(thread);
  });
  protocol.CloseFile(file);
  return seconds;
}

struct Sink {
  unsigned char* data;
  std::size_t size;
  std::size_t used;
};

size_t Collect(char* data, size_t size, size_t count, void* user) {
  auto* sink = static_cast<Sink*>(user);
  const size_t bytes = size * count;
  const size_t room = sink->size - sink->used;
  std::memcpy(sink->data + sink->used, data, bytes < room ? bytes : room);
  sink->used += bytes < room ? bytes : room;
  return bytes;
}

double RunCurl(const Plan& plan, const std::string& url, unsigned begin, unsigned end) {
  return RunThreads(plan.threads, [&](unsigned t) {
    CURL* easy = curl_easy_init();
    std::vector<unsigned char> buffer(plan.read_size);
    Sink sink{buffer.data(), buffer.size(), 0};
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, Collect);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &sink);
    char range[64];
    for (unsigned i = begin; i < end; ++i) {
      const std::uint64_t offset = plan.offsets[t][i];
      std::snprintf(range, sizeof range, "%llu-%llu", static_cast<unsigned long long>(offset),
                    static_cast<unsigned long long>(offset + plan.read_size - 1));
      curl_easy_setopt(easy, CURLOPT_RANGE, range);
      sink.used = 0;
      long status = 0;
      if (curl_easy_perform(easy) != CURLE_OK ||
          curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status) != CURLE_OK || status != 206 ||
          sink.used != plan.read_size) {
        ++g_failures;
      }
    }
    curl_easy_cleanup(easy);
  });
}

}  // namespace

int main(int argc, char** argv) {
  const std::uint64_t file_mib = Setting(argc, argv, 1, "TQ_BENCH_FILE_MIB", 1024);
  const unsigned threads = static_cast<unsigned>(Setting(argc, argv, 2, "TQ_BENCH_THREADS", 4));
  const unsigned reads = static_cast<unsigned>(Setting(argc, argv, 3, "TQ_BENCH_READS", 2500));
  const std::uint64_t read_kib = Setting(argc, argv, 4, "TQ_BENCH_READ_KIB", 64);
  if (file_mib == 0 || threads == 0 || reads == 0 || read_kib == 0 || read_kib * 1024 > file_mib << 20) {
    std::fprintf(stderr, "bad settings\n");
    return 2;
  }
  curl_global_init(CURL_GLOBAL_DEFAULT);
  tq::test::NginxHarness nginx;
  if (!nginx.ok()) {
    std::fprintf(stderr, "nginx did not start: %s\n", nginx.error().c_str());
    return 1;
  }
  const auto path = nginx.WriteFile("big.bin", "");
  const int fd = ::open(path.c_str(), O_WRONLY);
  if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(file_mib << 20)) != 0) {
    std::fprintf(stderr, "cannot size the file\n");
    return 1;
  }
  ::close(fd);
  // Read once here, so that nginx serves every range from the page cache for both clients.
  // Otherwise the side that reads a batch's ranges first pays for bringing them in, and the
  // order of the turns, not the clients, decides the ratio.
  if (!tq::bench::WarmPageCache(path)) {
    std::fprintf(stderr, "cannot read the file\n");
    return 1;
  }

  const Plan plan = MakePlan(file_mib << 20, threads, reads, read_kib * 1024);
  const std::string url = nginx.Url("/big.bin");
  const std::wstring wide_url(url.begin(), url.end());
  const unsigned warm = reads < 100 ? reads : 100;
  RunCurl(plan, url, 0, warm);
  RunProtocol(plan, wide_url, 0, warm);
  g_failures = 0;

  // Alternating batches, so that a change in the machine's load weighs on both sides alike;
  // each batch is one sample of seconds per read.
  const unsigned batches = static_cast<unsigned>(tq::bench::Runs(5));
  auto batch_reads = [&](unsigned b) {
    return static_cast<double>(threads) * (reads * (b + 1) / batches - reads * b / batches);
  };
  unsigned curl_batch = 0, ours_batch = 0;
  auto curl_side = [&] {
    const unsigned b = curl_batch++;
    return RunCurl(plan, url, reads * b / batches, reads * (b + 1) / batches) / batch_reads(b);
  };
  auto ours_side = [&] {
    const unsigned b = ours_batch++;
    const double seconds =
        RunProtocol(plan, wide_url, reads * b / batches, reads * (b + 1) / batches);
    return seconds < 0 ? -1.0 : seconds / batch_reads(b);
  };
  tq::bench::Samples ours, curl;
  if (!tq::bench::Interleave(static_cast<int>(batches), ours_side, curl_side, &ours, &curl)) {
    std::fprintf(stderr, "the file did not open\n");
    return 1;
  }
  using tq::bench::Spread;
  const auto rate = [](double seconds) { return 1.0 / seconds; };
  const double mib_per_read = static_cast<double>(plan.read_size) / (1 << 20);
  const auto mib_rate = [mib_per_read](double seconds) { return mib_per_read / seconds; };
  std::printf("ranged reads: %u threads x %u reads of %llu KiB from a %llu MiB file on nginx, "
              "%u alternating batches\n",
              threads, reads, static_cast<unsigned long long>(read_kib),
              static_cast<unsigned long long>(file_mib), batches);
  std::printf("  ReadFileToSize        %s  %s\n", Spread(ours.Map(rate), "%.0f", "reads/s").c_str(),
              Spread(ours.Map(mib_rate), "%.1f", "MiB/s").c_str());
  std::printf("  libcurl easy, reused  %s  %s\n", Spread(curl.Map(rate), "%.0f", "reads/s").c_str(),
              Spread(curl.Map(mib_rate), "%.1f", "MiB/s").c_str());
  const double ratio = curl.Median() / ours.Median();
  std::printf("  ratio of medians (ours / libcurl) %.2f   (goal >= 0.80)\n", ratio);
  tq::bench::Report("file protocol: " + std::to_string(threads) + " threads x " +
                        std::to_string(reads) + " random " + std::to_string(read_kib) +
                        " KiB ranged reads",
                    Spread(ours.Map(rate), "%.0f", "reads/s"),
                    Spread(curl.Map(rate), "%.0f", "reads/s") + " (libcurl)", ratio, ">= 0.80",
                    ratio >= 0.8);
  if (g_failures.load() != 0) {
    std::printf("  FAILED reads: %ld\n", g_failures.load());
    return 1;
  }
  return 0;
}
