// A burst: a thousand commands, Connect and StartBroadcast in turn, issued
// back to back while the daemon is ready, until every one has ended; the
// threads and memory it takes; against the same calls sent asynchronously
// with plain GDBus until every answer is in.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>

#include <zorvel/dbus/client/ServiceContract.h>

#include "Phases.h"

namespace zv_bench {
namespace {

namespace contract = zv_client::dbus::client;

struct Memory {
  long rssKb = 0;
  long hwmKb = 0;
  long vmSizeKb = 0;
  long vmPeakKb = 0;
};

// Resident and virtual memory now and their peaks, from /proc/self/status.
Memory ReadMemory() {
  Memory memory;
  std::ifstream in("/proc/self/status");
  std::string key;
  while (in >> key) {
    if (key == "VmRSS:") {
      in >> memory.rssKb;
    } else if (key == "VmHWM:") {
      in >> memory.hwmKb;
    } else if (key == "VmSize:") {
      in >> memory.vmSizeKb;
    } else if (key == "VmPeak:") {
      in >> memory.vmPeakKb;
    }
    in.ignore(1 << 20, '\n');
  }
  return memory;
}

struct Stat {
  long threads = 0;
  long vmSizeKb = 0;
};

// Fields 20 (threads) and 23 (virtual memory, bytes) of /proc/self/stat;
// cheaper to read than the status file.
Stat ReadStat() {
  char buffer[1024];
  const int fd = open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return {};
  const ssize_t n = read(fd, buffer, sizeof buffer - 1);
  close(fd);
  if (n <= 0) return {};
  buffer[n] = '\0';
  const char* p = std::strrchr(buffer, ')');
  Stat stat;
  for (int field = 2; field < 23 && p != nullptr; ++field) {
    p = std::strchr(p + 1, ' ');
    if (p == nullptr) break;
    if (field == 19) stat.threads = std::strtol(p + 1, nullptr, 10);
    if (field == 22) stat.vmSizeKb = static_cast<long>(std::strtoull(p + 1, nullptr, 10) / 1024);
  }
  return stat;
}

}  // namespace

void BurstPhase(Bench& bench) {
  const Options& options = bench.options;
  std::vector<double> libMs, floorMs, burstAccept;
  double ranTotal = 0, droppedTotal = 0;
  long peakThreads = 0, peakRssGrowth = 0, peakVmGrowth = 0, baseThreads = 0;
  for (int run = 0; run < options.burstRuns; ++run) {
    bench.LibRun(contract::kMethodStartBroadcast);
    const std::uint64_t echoesBefore = bench.libProbe.Echoes();
    const auto before = bench.library.client().GetCounts();
    {
      std::ofstream reset("/proc/self/clear_refs");
      reset << "5";  // restart the peak-RSS mark
    }
    const Memory base = ReadMemory();
    const Stat baseStat = ReadStat();
    baseThreads = baseStat.threads;
    std::atomic<bool> sampling{true};
    std::atomic<long> threads{baseThreads};
    std::atomic<long> vmKb{baseStat.vmSizeKb};
    std::thread sampler([&] {
      while (sampling) {
        const Stat now = ReadStat();
        if (now.threads > threads) threads = now.threads;
        if (now.vmSizeKb > vmKb) vmKb = now.vmSizeKb;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
    });

    std::string method = contract::kMethodConnect;
    const Ns start = NowNs();
    for (int i = 0; i < options.burstSize; ++i) {
      burstAccept.push_back(Us(bench.Issue(method, bench.NextId())));
      method = Bench::Other(method);
    }
    Ns end = 0;
    for (;;) {
      const auto counts = bench.library.client().GetCounts();
      if (counts.inFlight == 0 && counts.accepted - before.accepted == static_cast<std::uint64_t>(options.burstSize)) {
        end = NowNs();
        break;
      }
      if (NowNs() - start > 60000000000ULL) Fatal("burst did not end");
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    sampling = false;
    sampler.join();
    const Memory after = ReadMemory();
    const auto counts = bench.library.client().GetCounts();
    const double ran = static_cast<double>(counts.ranAtOnce - before.ranAtOnce);
    const double dropped = static_cast<double>(counts.droppedDuplicate - before.droppedDuplicate);
    libMs.push_back(static_cast<double>(end - start) / 1e6);
    ranTotal += ran;
    droppedTotal += dropped;
    peakThreads = std::max(peakThreads, threads.load());
    peakRssGrowth = std::max(peakRssGrowth, after.hwmKb - base.rssKb);
    // VmPeak cannot be reset: it tells the burst's peak only when the burst
    // raised it; otherwise the peak sampled meanwhile does.
    const long vmPeak = after.vmPeakKb > base.vmPeakKb ? after.vmPeakKb : vmKb.load();
    peakVmGrowth = std::max(peakVmGrowth, vmPeak - base.vmSizeKb);
    // Every command that ran is echoed; let the echoes drain before the next
    // measurement. Which method ran last is unknown now.
    bench.libProbe.WaitEchoes(echoesBefore + static_cast<std::uint64_t>(ran), 30000);
    bench.ForgetLastMethod();

    // Floor: the same number of calls, sent without waiting (as far as the
    // bus allows), until every answer is in.
    std::atomic<int> answered{0};
    const Ns floorStart = NowNs();
    bench.floor.CallBurst(options.burstSize, answered);
    while (answered < options.burstSize) {
      if (NowNs() - floorStart > 60000000000ULL) Fatal("floor burst did not end");
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    floorMs.push_back(static_cast<double>(NowNs() - floorStart) / 1e6);
    SleepMs(50);
  }

  Report& report = bench.report;
  const Stats lib = Summarise(libMs), floor = Summarise(floorMs);
  const double runs = static_cast<double>(options.burstRuns);
  report.Line("  %-34s %9.1f %9s   %9.1f %9s   %6.2f         (ms, median of %d)", "burst of commands", lib.median, "",
              floor.median, "", Ratio(lib.median, floor.median), options.burstRuns);
  report.Line(
      "    ran %.0f, dropped as repeats %.0f (mean per burst of %d); peak threads %ld (base %ld); "
      "peak RSS growth %ld kB; peak virtual memory growth %ld kB",
      ranTotal / runs, droppedTotal / runs, options.burstSize, peakThreads, baseThreads, peakRssGrowth, peakVmGrowth);
  const Stats accept = Summarise(burstAccept);
  report.Line("    caller blocked per command during the burst: median %.1f us, p99 %.1f us", accept.median,
              accept.p99);
  report.Set("burst_accept_us_p99", accept.p99);
  report.Set("burst_ms", lib.median);
  report.Set("burst_floor_ms", floor.median);
  report.Set("burst_ran", ranTotal / runs);
  report.Set("burst_dropped", droppedTotal / runs);
  report.Set("burst_peak_threads", static_cast<double>(peakThreads));
  report.Set("burst_peak_rss_growth_kb", static_cast<double>(peakRssGrowth));
  report.Set("burst_peak_vm_growth_kb", static_cast<double>(peakVmGrowth));
}

}  // namespace zv_bench
