// What every benchmark program needs besides its scenarios: wall time, sizes taken from the
// command line or the environment, and curl run as the reference.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/bench_report.h"

namespace tq::bench {

using Clock = std::chrono::steady_clock;

inline double Seconds(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// The number at argv[position] if given, else the environment variable `env`, else `fallback`.
inline unsigned long Setting(int argc, char** argv, int position, const char* env,
                             unsigned long fallback) {
  if (argc > position) return std::strtoul(argv[position], nullptr, 10);
  if (const char* value = std::getenv(env)) return std::strtoul(value, nullptr, 10);
  return fallback;
}

inline double CpuSeconds(const rusage& usage) {
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// The user and system time this process (all its threads) has used so far.
inline double ProcessCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return CpuSeconds(usage);
}

// Reads the file at `path` once, so that the server sends it from the page cache to every run
// alike: otherwise the run that reads it first (a sparse file's pages are made as they are first
// read) pays for bringing it in, and the order of the turns decides that pair's ratio. False
// when it cannot be read whole.
inline bool WarmPageCache(const std::filesystem::path& path) {
  const int fd = ::open(path.c_str(), O_RDONLY);
  if (fd < 0) return false;
  std::vector<char> chunk(1 << 20);
  ssize_t got = 0;
  while ((got = ::read(fd, chunk.data(), chunk.size())) > 0) {
  }
  ::close(fd);
  return got == 0;
}

// How many times each side of a row runs: `normal`, or once when TQ_BENCH_QUICK is set (the
// smoke run of scripts/bench.sh --quick, which checks that every row works and judges nothing).
inline int Runs(int normal) {
  const char* quick = std::getenv("TQ_BENCH_QUICK");
  return quick != nullptr && *quick != '\0' && *quick != '0' ? 1 : normal;
}

// Both sides of a row, run in turn `runs` times each: ours, reference, reference, ours, ... so
// that neither always runs first and a change in the machine's load weighs on both alike. Each
// function returns the figure of one run (seconds, usually), or a negative number when the run
// failed; then the pairing stops and returns false.
template <typename Ours, typename Reference>
bool Interleave(int runs, Ours ours, Reference reference, Samples* ours_out,
                Samples* reference_out) {
  for (int run = 0; run < runs; ++run) {
    for (int side = 0; side < 2; ++side) {
      const bool ours_now = (side == 0) == (run % 2 == 0);
      const double figure = ours_now ? ours() : reference();
      if (figure < 0) return false;
      (ours_now ? ours_out : reference_out)->Add(figure);
    }
  }
  return true;
}

// Interleave after one turn of each side that counts for neither: what a process or the server
// does once (a connection, buffers, the file system's first allocations in a directory) is not a
// pair's figure. `forget` runs after that turn, to drop what the sides recorded of it.
template <typename Ours, typename Reference, typename Forget>
bool InterleaveAfterWarmUp(int runs, Ours ours, Reference reference, Samples* ours_out,
                           Samples* reference_out, Forget forget) {
  if (ours() < 0 || reference() < 0) return false;
  forget();
  return Interleave(runs, ours, reference, ours_out, reference_out);
}

// Runs the curl tool with `args` and returns its wall time in seconds, or -1 when it fails. Its
// standard error goes to /dev/null: curl --parallel draws a progress meter even with -s.
// When `cpu_seconds` is given, it receives the user and system time curl used.
inline double CurlSeconds(const std::vector<std::string>& args, double* cpu_seconds = nullptr) {
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>("curl"));
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  const auto start = Clock::now();
  const pid_t pid = fork();
  if (pid == 0) {
    if (FILE* null = std::freopen("/dev/null", "w", stderr)) (void)null;
    execvp("curl", argv.data());
    _exit(127);
  }
  int status = 0;
  rusage usage{};
  if (pid < 0 || wait4(pid, &status, 0, &usage) != pid) return -1;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return -1;
  const double seconds = Seconds(start);
  if (cpu_seconds != nullptr) *cpu_seconds = CpuSeconds(usage);
  return seconds;
}

}  // namespace tq::bench
