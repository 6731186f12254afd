// One line per scenario in a form the benchmark command collects into its table:
//   BENCH<TAB>scenario<TAB>our figure<TAB>reference figure<TAB>ratio<TAB>goal<TAB>met|missed
// Programs print their own readable output as well; scripts/bench.sh keeps only these lines.
#pragma once

#include <cstdio>
#include <string>

namespace tq::bench {

// `ours` and `reference` are texts with their units ("812 MiB/s"); `ratio` is the figure the goal
// speaks of, `goal` the goal as text (">= 0.9").
inline void Report(const std::string& scenario, const std::string& ours,
                   const std::string& reference, double ratio, const std::string& goal,
                   bool met) {
  std::printf("BENCH\t%s\t%s\t%s\t%.2f\t%s\t%s\n", scenario.c_str(), ours.c_str(),
              reference.c_str(), ratio, goal.c_str(), met ? "met" : "missed");
  std::fflush(stdout);
}

// printf into a std::string, for the figures.
template <typename... Args>
std::string Figure(const char* format, Args... args) {
  char text[128];
  std::snprintf(text, sizeof text, format, args...);
  return text;
}

}  // namespace tq::bench
