#include "Report.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>

#include <glib.h>

namespace zv_bench {

void Fatal(const std::string& message) {
  std::fprintf(stderr, "zorvel-bench: %s\n", message.c_str());
  std::fflush(stderr);
  std::_Exit(1);  // helper processes die with us (they are started with a death signal)
}

namespace {

// `path` as a reader of the output should see it: relative to the working
// directory when it lies below it.
std::string DisplayPath(const std::string& path) {
  char* cwd = getcwd(nullptr, 0);
  std::string base = cwd != nullptr ? cwd : "";
  std::free(cwd);
  if (base.empty() || path.compare(0, base.size(), base) != 0) return path;
  if (path.size() == base.size()) return ".";
  if (path[base.size()] != '/') return path;
  return path.substr(base.size() + 1);
}

}  // namespace

void Report::Header() const {
  char host[256] = "";
  gethostname(host, sizeof host - 1);
  std::printf("zorvel-bench on %s, %u cores; library (Launcher) vs plain GDBus, same bus and daemon\n", host,
              std::thread::hardware_concurrency());
  std::printf("  %-34s %9s %9s   %9s %9s   %6s %6s\n", "", "lib med", "lib p99", "gdbus med", "gdbus p99", "x med",
              "x p99");
  std::fflush(stdout);
}

void Report::Line(const char* format, ...) const {
  char line[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  std::printf("%s\n", line);
  std::fflush(stdout);
}

void Report::Row(const char* what, const Stats& lib, const Stats& floor) const {
  Line("  %-34s %9.1f %9.1f   %9.1f %9.1f   %6.2f %6.2f  (us, n=%zu/%zu)", what, lib.median, lib.p99, floor.median,
       floor.p99, Ratio(lib.median, floor.median), Ratio(lib.p99, floor.p99), lib.n, floor.n);
}

std::string Report::Json() const {
  std::string json = "{";
  for (const auto& [key, value] : figures_) {
    char item[128];
    // Whole numbers in full (a memory size in kB has more than 5 digits).
    const bool whole = value == std::floor(value) && std::fabs(value) < 1e15;
    std::snprintf(item, sizeof item, whole ? "%s\"%s\": %.0f" : "%s\"%s\": %.5g", json.size() > 1 ? ", " : "",
                  key.c_str(), value);
    json += item;
  }
  return json + "}";
}

void Report::ClearSamples() const {
  GDir* dir = g_dir_open(outDir_.c_str(), 0, nullptr);
  if (dir == nullptr) return;
  while (const gchar* name = g_dir_read_name(dir)) {
    if (g_str_has_suffix(name, ".dat")) unlink((outDir_ + "/" + name).c_str());
  }
  g_dir_close(dir);
}

void Report::WriteSamples(const std::string& name, std::vector<double> values) const {
  std::sort(values.begin(), values.end());
  std::ofstream out(outDir_ + "/" + name + ".dat");
  out << "# sorted samples (us) and their cumulative fraction\n";
  for (std::size_t i = 0; i < values.size(); ++i) {
    out << values[i] << ' ' << static_cast<double>(i + 1) / static_cast<double>(values.size()) << '\n';
  }
}

void Report::Plot(const std::string& script) const {
  if (script.empty() || access(script.c_str(), R_OK) != 0) return;
  const std::string command =
      "gnuplot -e \"dir='" + outDir_ + "'\" '" + script + "' >'" + outDir_ + "/gnuplot.log' 2>&1";
  if (std::system(command.c_str()) == 0) {
    Line("  plot: %s/latency.png", DisplayPath(outDir_).c_str());
  } else {
    Line("  plot: gnuplot failed (see %s/gnuplot.log)", DisplayPath(outDir_).c_str());
  }
}

}  // namespace zv_bench
