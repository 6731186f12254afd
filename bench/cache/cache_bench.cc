// The disk cache against references measured in the same run:
//   open     a fresh 4 KiB entry through DiskCache::OpenUrl and read whole, vs open + read +
//            close of the same entry file directly (goal: at most 1.5x);
//   cleanup  CleanUp over 10,000 and 100,000 entry files of 1 KiB, 10 % over the limit (goal:
//            the 100,000 run at most 12x the 10,000 run, and under 1 s), under $TMPDIR and
//            again on tmpfs; for reference, rm of as many files as the large run deleted;
//   store    a body from nginx stored through the cache by OpenFileOrUrl and read back, in a
//            child process whose peak resident memory is reported (goal: below 64 MiB), vs
//            `curl -s -o FILE URL` for the same body.
// Each row runs both sides in turn (bench_support.h: Interleave) and reports medians, with the
// smallest and largest run.
// Usage: cache_bench hits [count]  (only fresh hits, for a profiler: see HitLoop)
//        cache_bench open [opens per run]  (the open row alone)
//        cache_bench cleanup [entries, the small run]  (the clean-up rows alone)
//        cache_bench cleanup-once [entries]  (one clean-up, for strace -c or a profiler)
//        cache_bench [store MiB (default 1024)] [opens per run (default 20000)]
//                    [clean-up entries, the small run; the large one is 10x (default 10000)]
//        (or TQ_BENCH_STORE_MIB / TQ_BENCH_OPEN_ITERATIONS / TQ_BENCH_CLEANUP_ENTRIES)
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "net/cache/cache_entry.h"
#include "net/cache/cache_entry_format.h"
#include "net/cache/cache_init.h"
#include "net/cache/disk_cache.h"
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
using tq::bench::Setting;

std::wstring Wide(const fs::path& path) { return qv::Utf8ToWide(path.string()); }

// An entry file written straight from the layout (quicker to set up in bulk than stores).
void WriteEntry(const fs::path& path, const std::string& key, std::int64_t last_used,
                std::size_t body_size) {
  namespace ef = qv::net::entry_format;
  const std::size_t header_size = ef::kHeaderOverhead + key.size();
  std::string bytes(ef::BodyOffset(static_cast<std::uint16_t>(header_size)) + body_size, 'b');
  auto* p = reinterpret_cast<unsigned char*>(bytes.data());
  ef::PutU16(p, static_cast<std::uint16_t>(header_size));
  ef::PutU16(p + ef::kStartMarkerOffset, ef::kStartMarker);
  ef::PutI64(p + ef::kLastUsedOffset, last_used);
  ef::PutI64(p + ef::kExpiryOffset, ef::kNeverExpires);
  ef::PutU16(p + ef::kTagLengthOffset, 0);
  ef::PutU16(p + ef::kTagOffset, static_cast<std::uint16_t>(key.size()));
  std::copy(key.begin(), key.end(), bytes.begin() + ef::kTagOffset + 2);
  ef::PutU16(p + ef::kTagOffset + 2 + key.size(), ef::kEndMarker);
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0 || ::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
    std::fprintf(stderr, "cannot write %s\n", path.c_str());
    std::exit(1);
  }
  ::close(fd);
}

int OpenBench(unsigned long iterations) {
  tq::test::TempDir dir;
  qv::net::DiskCache cache(Wide(dir.path()).c_str());
  const std::wstring url = L"http://bench.test/fresh-4k.bin";
  const fs::path path = qv::net::DiskCache::ComputeCacheLocation(url, cache.Directory());
  WriteEntry(path, qv::net::DiskCache::UrlToCache(url), 1, 4096);

  std::vector<char> buffer(65536);
  std::uint64_t check = 0;
  // Microseconds per open of `iterations` opens, each read whole; -1 when one fails.
  auto open_all = [&] {
    const auto start = Clock::now();
    for (unsigned long i = 0; i < iterations; ++i) {
      auto stream = cache.OpenUrl(url, 0, {});
      if (!stream) return std::fprintf(stderr, "open failed\n"), -1.0;
      while (const auto n = stream->Read(buffer.data(), buffer.size())) check += n;
    }
    return Seconds(start) / static_cast<double>(iterations) * 1e6;
  };
  // The same, with every open a second after the last: each one rewrites the last-used time.
  std::int64_t now = 2'000'000'000;
  auto recording_all = [&] {
    TqUSysTime::SetClockForTesting([&now] { return now++; });
    const double us = open_all();
    TqUSysTime::SetClockForTesting({});
    return us;
  };
  auto direct_all = [&] {
    const auto start = Clock::now();
    for (unsigned long i = 0; i < iterations; ++i) {
      const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
      if (fd < 0) return std::fprintf(stderr, "direct open failed\n"), -1.0;
      ssize_t n;
      while ((n = ::read(fd, buffer.data(), buffer.size())) > 0) {
        check += static_cast<std::uint64_t>(n);
      }
      ::close(fd);
    }
    return Seconds(start) / static_cast<double>(iterations) * 1e6;
  };
  if (open_all() < 0) return 1;  // warm: the entry's use recorded, the page cache filled
  tq::bench::Samples ours, direct, recording, direct2;
  const int runs = tq::bench::Runs(9);
  if (!tq::bench::Interleave(runs, open_all, direct_all, &ours, &direct) ||
      !tq::bench::Interleave(tq::bench::Runs(5), recording_all, direct_all, &recording, &direct2)) {
    return 1;
  }
  const double ratio = ours.Median() / direct.Median();
  std::printf(
      "open   fresh 4 KiB entry, %d runs of %lu: DiskCache::OpenUrl %s, "
      "open+read+close %s, ratio of medians %.2f (goal <= 1.5); with the last-used time "
      "rewritten on every open %s, ratio %.2f  [%llu bytes]\n",
      runs, iterations, tq::bench::Spread(ours, "%.2f", "us").c_str(),
      tq::bench::Spread(direct, "%.2f", "us").c_str(), ratio,
      tq::bench::Spread(recording, "%.2f", "us").c_str(), recording.Median() / direct2.Median(),
      static_cast<unsigned long long>(check));
  tq::bench::Report(
      "DiskCache::OpenUrl + read of a fresh 4 KiB entry vs open+read+close of its file",
      tq::bench::Spread(ours, "%.2f", "us"), tq::bench::Spread(direct, "%.2f", "us"), ratio,
      "<= 1.5 (time ratio)", ratio <= 1.5);
  return 0;
}

// Processor seconds (user and system, all threads) of the last CleanUpSeconds.
double g_cleanup_cpu = 0;

double CpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Seconds of one CleanUp over `count` 1 KiB entries whose total is 10 % over the limit.
double CleanUpSeconds(std::size_t count, std::size_t* remaining) {
  tq::test::TempDir dir;  // under $TMPDIR
  qv::net::DiskCache cache(Wide(dir.path()).c_str());
  std::mt19937_64 random(count);
  constexpr std::size_t kFileSize = 1024;
  for (std::size_t i = 0; i < count; ++i) {
    const std::string number = std::to_string(i);
    const std::string key = std::string("http://bench.test/").append(number);
    const std::int64_t last_used = 1'700'000'000 + static_cast<std::int64_t>(random() % 864000);
    const std::size_t header = 26 + key.size();
    WriteEntry(cache.Directory() / std::string("e").append(number), key, last_used,
               kFileSize - header);
  }
  const auto limit_mib =
      static_cast<std::int32_t>(static_cast<double>(count * kFileSize) / 1.1 / 1048576);
  TqUOption::SetInt32("general.localcache.max_size", std::max(limit_mib, 1));
  ::sync();  // the files' creation is not the clean-up's cost
  const double cpu = CpuSeconds();
  const auto start = Clock::now();
  cache.CleanUp();
  const double seconds = Seconds(start);
  g_cleanup_cpu = CpuSeconds() - cpu;
  TqUOption::Unset("general.localcache.max_size");
  *remaining = static_cast<std::size_t>(
      std::distance(fs::directory_iterator(cache.Directory()), fs::directory_iterator()));
  return seconds;
}

// Seconds to remove `count` files of `size` bytes one after another, as rm does: with 1 KiB, what
// the device alone asks of any clean-up that deletes as many files; with 0, what the same unlinks
// cost when no data block is freed (on a disk mounted with "discard", each freed block waits for
// the device).
double RemoveSeconds(std::size_t count, std::size_t size) {
  tq::test::TempDir dir;  // under $TMPDIR
  const std::string bytes(size, 'b');
  std::vector<std::string> paths;
  paths.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    paths.push_back((dir.path() / std::string("f").append(std::to_string(i))).string());
    const int fd = ::open(paths.back().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || ::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
      std::fprintf(stderr, "cannot write %s\n", paths.back().c_str());
      std::exit(1);
    }
    ::close(fd);
  }
  ::sync();
  const auto start = Clock::now();
  for (const std::string& path : paths) ::unlink(path.c_str());
  return Seconds(start);
}

// CleanUp over `count` entries `runs` times, the first `rm_runs` of them paired with rm of as
// many files as it deleted (the order alternating); false when a run leaves a different number
// of files. (On a disk mounted with "discard", rm of tens of thousands of files takes minutes.)
bool CleanUpPairs(std::size_t count, int runs, int rm_runs, tq::bench::Samples* ours,
                  tq::bench::Samples* rm, std::size_t* left) {
  *left = 0;
  std::size_t deleted = 0;
  for (int run = 0; run < runs; ++run) {
    for (int side = 0; side < 2; ++side) {
      if ((side == 0) == (run % 2 == 0)) {
        std::size_t remaining = 0;
        ours->Add(CleanUpSeconds(count, &remaining));
        if (run > 0 && remaining != *left) return false;
        *left = remaining;
        deleted = count - remaining;
      } else if (run < rm_runs) {
        rm->Add(RemoveSeconds(deleted, 1024));
      }
    }
  }
  return true;
}

// Both clean-up sizes under the temporary directory in force, each run paired with rm of as
// many files as it deleted; the large size fewer times (it takes seconds to set up).
void CleanUpRuns(unsigned long small_count, const std::string& where) {
  using tq::bench::Spread;
  tq::bench::Samples small, small_rm, large, large_rm;
  std::size_t left_small = 0, left_large = 0;
  const std::size_t large_count = small_count * 10;
  if (!CleanUpPairs(small_count, tq::bench::Runs(5), tq::bench::Runs(5), &small, &small_rm,
                    &left_small) ||
      !CleanUpPairs(large_count, tq::bench::Runs(3), 1, &large, &large_rm, &left_large)) {
    std::fprintf(stderr, "clean-up runs left different numbers of files\n");
    std::exit(1);
  }
  const std::size_t deleted = large_count - left_large;
  const double rm_empty = RemoveSeconds(deleted, 0);
  const double growth = large.Median() / small.Median();
  std::printf("clean  %s: %lu entries %s (%zu left, rm %s), %zu entries %s (%zu left, rm of %zu "
              "files %s, empty files %.3f s), growth %.1f (goal <= 12, and < 1 s)\n",
              where.c_str(), small_count, Spread(small, "%.3f", "s").c_str(), left_small,
              Spread(small_rm, "%.3f", "s").c_str(), large_count,
              Spread(large, "%.3f", "s").c_str(), left_large, deleted,
              Spread(large_rm, "%.3f", "s").c_str(), rm_empty, growth);
  tq::bench::Report("CleanUp over " + std::to_string(small_count) + " / " +
                        std::to_string(large_count) + " entries above the limit, " + where,
                    Spread(small, "%.2f", "s") + " / " + Spread(large, "%.2f", "s"),
                    tq::bench::Figure("rm of %zu files ", deleted) + Spread(large_rm, "%.2f", "s") +
                        tq::bench::Figure(" (empty: %.2f s)", rm_empty),
                    growth, "<= 12 (growth), large < 1 s",
                    growth <= 12.0 && large.Median() < 1.0);
}

int CleanUpBench(unsigned long small_count) {
  const char* tmpdir = std::getenv("TMPDIR");
  const std::string base = tmpdir != nullptr && *tmpdir != '\0' ? tmpdir : "/tmp";
  CleanUpRuns(small_count, "in " + base);
  // Again in memory, where no device sets the pace: what the run itself costs.
  if (base != "/dev/shm" && fs::is_directory("/dev/shm")) {
    ::setenv("TMPDIR", "/dev/shm", 1);
    CleanUpRuns(small_count, "in /dev/shm (tmpfs)");
    if (tmpdir != nullptr) {
      ::setenv("TMPDIR", base.c_str(), 1);
    } else {
      ::unsetenv("TMPDIR");
    }
  }
  return 0;
}

int StoreBench(unsigned long mebibytes) {
  tq::test::NginxHarness nginx;
  if (!nginx.ok()) return std::fprintf(stderr, "nginx: %s\n", nginx.error().c_str()), 1;
  const std::uint64_t size = static_cast<std::uint64_t>(mebibytes) << 20;
  {
    std::ofstream out(nginx.root() / "big.bin", std::ios::binary);
  }
  fs::resize_file(nginx.root() / "big.bin", size);
  const std::string url = nginx.Url("/big.bin");
  tq::test::TempDir cache_dir;

  // Each store runs in a child, so that its peak resident memory is its own; every store is a
  // miss (a cache directory of its own).
  tq::bench::Samples ours, rss, curl;
  int store_number = 0;
  auto store_once = [&]() -> double {
    const fs::path directory = cache_dir.path() / std::to_string(store_number++);
    int report[2];
    if (pipe(report) != 0) return -1;
    const auto start = Clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
      close(report[0]);
      qv::net::WinInet api;
      qv::net::SetHttpApi(&api);
      qv::net::InitialiseCache(Wide(directory).c_str());
      std::uint64_t read = 0;
      {
        auto stream = qv::net::OpenFileOrUrl(qv::Utf8ToWide(url), 0, {});
        std::vector<char> buffer(1 << 20);
        while (stream) {
          const auto n = stream->Read(buffer.data(), buffer.size());
          if (n == 0) break;
          read += n;
        }
      }
      qv::net::TerminateCache();
      qv::net::HttpConnectionPool::Terminate();
      qv::net::SetHttpApi(nullptr);
      if (write(report[1], &read, sizeof read) != sizeof read) _exit(2);
      _exit(0);
    }
    close(report[1]);
    std::uint64_t read = 0;
    const bool reported = ::read(report[0], &read, sizeof read) == sizeof read;
    close(report[0]);
    int status = 0;
    rusage usage{};
    if (wait4(pid, &status, 0, &usage) != pid || !reported || read != size) {
      std::fprintf(stderr, "store: read %llu of %llu bytes\n",
                   static_cast<unsigned long long>(read), static_cast<unsigned long long>(size));
      return -1;
    }
    const double seconds = Seconds(start);
    rss.Add(usage.ru_maxrss / 1024.0);
    std::error_code ec;
    fs::remove_all(directory, ec);
    return seconds;
  };
  auto curl_once = [&] {
    const fs::path file = cache_dir.path() / "curl.out";
    const double seconds = tq::bench::CurlSeconds({"-s", "-o", file.string(), url});
    std::error_code ec;
    fs::remove(file, ec);
    return seconds;
  };
  if (!tq::bench::Interleave(tq::bench::Runs(5), store_once, curl_once, &ours, &curl)) return 1;
  using tq::bench::Spread;
  std::printf("store  %lu MiB from nginx through the cache (stored, then read back): %s, "
              "peak RSS %s (goal < 64); curl -o %s\n",
              mebibytes, Spread(ours, "%.2f", "s").c_str(), Spread(rss, "%.1f", "MiB").c_str(),
              Spread(curl, "%.2f", "s").c_str());
  tq::bench::Report("cache: " + std::to_string(mebibytes) +
                        " MiB body stored from nginx and read back, peak RSS (time)",
                    Spread(rss, "%.1f", "MiB") + tq::bench::Figure(", %.2f s", ours.Median()),
                    "curl -o " + Spread(curl, "%.2f", "s"), rss.Max() / 64.0,
                    "< 64 MiB (largest run, ratio to 64)", rss.Max() < 64.0);
  return 0;
}

// `count` fresh hits of one 4 KiB entry, each read whole, and nothing else: for a profiler,
//   valgrind --tool=callgrind --toggle-collect='*HitLoop*' cache_bench hits 1000
// (the first hit records the entry's use; the others are the hits the open row measures).
__attribute__((noinline)) std::uint64_t HitLoop(qv::net::DiskCache& cache, const std::wstring& url,
                                                 unsigned long count) {
  std::vector<char> buffer(65536);
  std::uint64_t total = 0;
  for (unsigned long i = 0; i < count; ++i) {
    auto stream = cache.OpenUrl(url, 0, {});
    if (!stream) return 0;
    while (const auto n = stream->Read(buffer.data(), buffer.size())) total += n;
  }
  return total;
}

int HitsOnly(unsigned long count) {
  tq::test::TempDir dir;
  qv::net::DiskCache cache(Wide(dir.path()).c_str());
  const std::wstring url = L"http://bench.test/fresh-4k.bin";
  WriteEntry(qv::net::DiskCache::ComputeCacheLocation(url, cache.Directory()),
             qv::net::DiskCache::UrlToCache(url), 1, 4096);
  HitLoop(cache, url, 1);
  const std::uint64_t total = HitLoop(cache, url, count);
  std::printf("%lu hits, %llu bytes\n", count, static_cast<unsigned long long>(total));
  return total == count * 4096 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::string(argv[1]) == "hits") {
    return HitsOnly(argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 1000);
  }
  // One row alone, for a run while iterating on it.
  if (argc > 1 && std::string(argv[1]) == "open") {
    return OpenBench(argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 20000);
  }
  if (argc > 1 && std::string(argv[1]) == "cleanup-once") {
    std::size_t left = 0;
    const double seconds =
        CleanUpSeconds(argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 100000, &left);
    std::printf("clean-up %.3f s (processor %.3f s), %zu entries left\n", seconds, g_cleanup_cpu,
                left);
    return 0;
  }
  if (argc > 1 && std::string(argv[1]) == "cleanup") {
    return CleanUpBench(argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 10000);
  }
  const unsigned long store_mib = Setting(argc, argv, 1, "TQ_BENCH_STORE_MIB", 1024);
  const unsigned long iterations = Setting(argc, argv, 2, "TQ_BENCH_OPEN_ITERATIONS", 20000);
  const unsigned long cleanup = Setting(argc, argv, 3, "TQ_BENCH_CLEANUP_ENTRIES", 10000);
  // The store goes first: its child is forked before this process has threads.
  if (int rc = StoreBench(store_mib)) return rc;
  if (int rc = OpenBench(iterations)) return rc;
  return CleanUpBench(cleanup);
}
