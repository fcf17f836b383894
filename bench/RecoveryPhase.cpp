// Recovery: the daemon's name vanishes, a command is issued meanwhile (and
// held), the name gets a new owner at a random point of the library's
// 500 ms retry period; from the moment the bus granted the name until the
// held command reaches the daemon.

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <random>

#include <zorvel/dbus/client/ServiceContract.h>

#include "Phases.h"

namespace zv_bench {

namespace contract = zv_client::dbus::client;
namespace platform = zv_client::platform;

void RecoveryPhase(Bench& bench) {
  // Connect attempts, from the retry timer or the name watch, by their log
  // line. Every line still goes where it would, but the library pays a
  // little more than its default logging cost: with a sink installed it
  // formats every line, even while no journal listens.
  struct Attempts {
    std::mutex mutex;
    std::vector<Ns> at;  // guarded by mutex
  };
  auto attempts = std::make_shared<Attempts>();
  platform::SetLogSink(
      [attempts](platform::LogBuffer buffer, platform::LogPriority priority, const char* tag, const char* text) {
        if (std::strstr(text, "Try to connect to DBus server") != nullptr) {
          const Ns now = NowNs();
          std::lock_guard<std::mutex> lock(attempts->mutex);
          attempts->at.push_back(now);
        }
        ForwardLine(buffer, priority, tag, text);
      });

  std::mt19937 random(12345);
  std::uniform_real_distribution<double> phase(0.0, 500.0);
  std::vector<double> recovery, overhead;
  for (int round = 0; round < bench.options.recoveryRounds; ++round) {
    bench.library.WaitIdle();
    bench.control.ReleaseName();
    const Ns released = NowNs();
    while (bench.library.client().IsConnected()) {
      if (NowNs() - released > 5000000000ULL) Fatal("the library did not see the name vanish");
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    {
      std::lock_guard<std::mutex> lock(attempts->mutex);
      attempts->at.clear();
    }
    const std::uint64_t found = bench.libProbe.FoundCount();
    bench.Issue(contract::kMethodStartBroadcast, 0);  // held: the daemon is away
    SleepMs(phase(random));
    const Ns owned = bench.control.AcquireName();
    Probe::Event event;
    if (!bench.libProbe.WaitFound(found, event, 5000)) Fatal("the held command was not replayed");
    const Ns arrived = ParseNs(event.name);
    Ns attempt = 0;
    {
      std::lock_guard<std::mutex> lock(attempts->mutex);
      for (Ns at : attempts->at) {
        if (at <= arrived) attempt = std::max(attempt, at);
      }
    }
    recovery.push_back(static_cast<double>(arrived - owned) / 1e6);
    if (attempt != 0) overhead.push_back(static_cast<double>(arrived - attempt) / 1e6);
    bench.library.WaitIdle();
  }
  DefaultLog();

  Report& report = bench.report;
  const Stats rec = Summarise(recovery), over = Summarise(overhead);
  report.Line("  %-34s %9.1f %9.1f   max %.1f  (ms, n=%zu)", "daemon owns name -> held cmd arrives", rec.median,
              rec.p99, rec.max, rec.n);
  report.Line("  %-34s %9.1f %9.1f   max %.1f  (ms, n=%zu)", "  of which connect attempt -> arrival", over.median,
              over.p99, over.max, over.n);
  report.Set("recovery_ms_median", rec.median);
  report.Set("recovery_ms_max", rec.max);
  report.Set("recovery_overhead_ms_median", over.median);
  report.Set("recovery_overhead_ms_max", over.max);
}

}  // namespace zv_bench
