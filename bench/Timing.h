#pragma once

// Timestamps: CLOCK_MONOTONIC, which this process and the benchmark daemon
// share, so the daemon's timestamps can be compared with ours.

#include <time.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>

namespace zv_bench {

using Ns = std::uint64_t;

inline Ns NowNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<Ns>(now.tv_sec) * 1000000000ULL + static_cast<Ns>(now.tv_nsec);
}

inline double Us(Ns ns) { return static_cast<double>(ns) / 1e3; }

inline void SleepMs(double ms) { std::this_thread::sleep_for(std::chrono::microseconds(static_cast<long>(ms * 1000))); }

// A timestamp the daemon sent as decimal text.
inline Ns ParseNs(const std::string& text) { return std::strtoull(text.c_str(), nullptr, 10); }

}  // namespace zv_bench
