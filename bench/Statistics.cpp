#include "Statistics.h"

#include <algorithm>

namespace zv_bench {
namespace {

// Nearest-rank percentile `p` (0 to 100) of `sorted`; 0 when it is empty.
double Percentile(const std::vector<double>& sorted, double p) {
  if (sorted.empty()) return 0;
  std::size_t rank = static_cast<std::size_t>(p / 100.0 * static_cast<double>(sorted.size()) + 0.999999);
  rank = std::min(std::max<std::size_t>(rank, 1), sorted.size());
  return sorted[rank - 1];
}

}  // namespace

Stats Summarise(std::vector<double> values) {
  Stats stats;
  if (values.empty()) return stats;
  std::sort(values.begin(), values.end());
  stats.n = values.size();
  stats.median = Percentile(values, 50);
  stats.p99 = Percentile(values, 99);
  stats.max = values.back();
  return stats;
}

}  // namespace zv_bench
