// One line per scenario in a form the benchmark command collects into its table:
//   BENCH<TAB>scenario<TAB>our figure<TAB>reference figure<TAB>ratio<TAB>goal<TAB>met|missed
// Programs print their own readable output as well; scripts/bench.sh keeps only these lines.
#pragma once

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

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
  char text[160];
  std::snprintf(text, sizeof text, format, args...);
  return text;
}

// The figures of repeated runs of one side of a row.
class Samples {
 public:
  void Add(double value) { m_values.push_back(value); }
  bool Empty() const { return m_values.empty(); }
  std::size_t Count() const { return m_values.size(); }
  // In the order the runs were made.
  const std::vector<double>& Values() const { return m_values; }
  double Median() const {
    if (m_values.empty()) return 0;
    std::vector<double> sorted = m_values;
    std::sort(sorted.begin(), sorted.end());
    const std::size_t middle = sorted.size() / 2;
    return sorted.size() % 2 != 0 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
  }
  double Min() const {
    return m_values.empty() ? 0 : *std::min_element(m_values.begin(), m_values.end());
  }
  double Max() const {
    return m_values.empty() ? 0 : *std::max_element(m_values.begin(), m_values.end());
  }
  // The same runs in another unit: `convert` maps each value (seconds to a rate, say).
  template <typename Convert>
  Samples Map(Convert convert) const {
    Samples out;
    for (double value : m_values) out.Add(convert(value));
    return out;
  }

 private:
  std::vector<double> m_values;
};

// "median (min-max) unit" with `format` for each number ("%.1f").
inline std::string Spread(const Samples& samples, const char* format, const char* unit) {
  const std::string pattern = std::string(format) + " " + unit + " (" + format + "-" + format + ")";
  return Figure(pattern.c_str(), samples.Median(), samples.Min(), samples.Max());
}

}  // namespace tq::bench
