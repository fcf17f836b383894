#pragma once

// What a run tells: table lines as the measurements finish, the figures as
// one JSON object (the last line of the output), the samples and the plot.

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Statistics.h"

namespace zv_bench {

// Ends the run: the figures so far would mislead.
[[noreturn]] void Fatal(const std::string& message);

class Report {
 public:
  explicit Report(std::string outDir) : outDir_(std::move(outDir)) {}

  // The machine and the column headings of the table.
  void Header() const;
  // One table line, printed at once.
  void Line(const char* format, ...) const __attribute__((format(printf, 2, 3)));
  // Median and p99 of both sides (us) and their ratios.
  void Row(const char* what, const Stats& lib, const Stats& floor) const;

  void Set(const std::string& key, double value) { figures_[key] = value; }
  // The figures in key order, one JSON object on one line.
  std::string Json() const;

  // Removes the samples of an earlier run from <out>, so that the plot shows
  // only this run's arms.
  void ClearSamples() const;
  // <out>/<name>.dat: sorted samples with their cumulative fraction, for the plot.
  void WriteSamples(const std::string& name, std::vector<double> values) const;
  // Runs gnuplot on `script` over the samples, if there is one.
  void Plot(const std::string& script) const;

 private:
  std::string outDir_;
  std::map<std::string, double> figures_;
};

}  // namespace zv_bench
