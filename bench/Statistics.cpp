#include "Statistics.h"

#include <algorithm>

namespace zv_bench {

double Percentile(const std::vector<double>& sorted, double p) {
  if (sorted.empty()) return 0;
  std::size_t rank = static_cast<std::size_t>(p / 100.0 * static_cast<double>(sorted.size()) + 0.999999);
  rank = std::min(std::max<std::size_t>(rank, 1), sorted.size());
  return sorted[rank - 1];
}

Stats Summarise(std::vector<double> values) {
  Stats stats;
  if (values.empty()) return stats;
  std::sort(values.begin(), values.end());
  stats.n = values.size();
  stats.median = Percentile(values, 50);
  stats.p99 = Percentile(values, 99);
  stats.min = values.front();
  stats.max = values.back();
  double sum = 0;
  for (double v : values) sum += v;
  stats.mean = sum / static_cast<double>(values.size());
  return stats;
}

}  // namespace zv_bench
