#pragma once

// Summaries of samples. The machines are shared and noisy, so the figures
// that count are medians and ratios of medians, not means.

#include <cstddef>
#include <vector>

namespace zv_bench {

struct Stats {
  std::size_t n = 0;
  double median = 0, p99 = 0, max = 0;
};

Stats Summarise(std::vector<double> values);

// a / b, or 0 when b is not positive (a phase that measured nothing).
inline double Ratio(double a, double b) { return b > 0 ? a / b : 0; }

}  // namespace zv_bench
