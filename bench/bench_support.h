// What every benchmark program needs besides its scenarios: wall time, sizes taken from the
// command line or the environment, and curl run as the reference.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

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

// Runs the curl tool with `args` and returns its wall time in seconds, or -1 when it fails. Its
// standard error goes to /dev/null: curl --parallel draws a progress meter even with -s.
inline double CurlSeconds(const std::vector<std::string>& args) {
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
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return -1;
  return Seconds(start);
}

}  // namespace tq::bench
