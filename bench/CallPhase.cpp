// Calls: Connect and StartBroadcast in turn, from the application's call to
// the daemon's echo reaching its callback, against the same call made with
// plain GDBus on the calling thread and on a new thread of its own.

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include <zorvel/dbus/client/ServiceContract.h>

#include "Phases.h"

namespace zv_bench {
namespace {

namespace contract = zv_client::dbus::client;
using Arm = Bench::Arm;

// One timed library call: from the call to the echo's callback. `accept`
// gets how long the caller was blocked, `outbound` (StartBroadcast only) the
// time until the daemon saw the call.
double LibCallSample(Bench& bench, const std::string& method, std::vector<double>& accept,
                     std::vector<double>& outbound) {
  // Untimed: keep the guard and the Launcher from refusing `method`.
  if (bench.LibPrepare(method)) Bench::Settle();
  const int id = bench.NextId();
  Probe::Event event;
  const std::uint64_t found = bench.libProbe.FoundCount();
  const std::uint64_t available = bench.libProbe.AvailableCount();
  const Ns start = NowNs();
  accept.push_back(Us(bench.Issue(method, id)));
  const bool ok = method == contract::kMethodConnect ? bench.libProbe.WaitAvailable(available, event)
                                                     : bench.libProbe.WaitFound(found, event);
  if (!ok) Fatal("library: no echo for " + method);
  bench.library.WaitIdle();  // the command thread's tail is not the next sample's cost
  if (method == contract::kMethodStartBroadcast) outbound.push_back(Us(ParseNs(event.name) - start));
  return Us(event.at - start);
}

// The same with plain GDBus, on this thread or on a new one (`accept` then
// gets how long creating the thread blocked the caller).
double FloorCallSample(Bench& bench, const std::string& method, std::vector<double>& outbound, bool onNewThread,
                       std::vector<double>& accept) {
  const int id = bench.NextId();
  const int argument = method == contract::kMethodConnect ? id : 1;
  Probe::Event event;
  const std::uint64_t found = bench.floorProbe.FoundCount();
  const std::uint64_t available = bench.floorProbe.AvailableCount();
  std::atomic<bool> done{false};
  const Ns start = NowNs();
  if (onNewThread) {
    std::thread([&] {
      bench.floor.Call(method, argument);
      done = true;
    }).detach();
    accept.push_back(Us(NowNs() - start));
  } else {
    bench.floor.Call(method, argument);
    done = true;
  }
  const bool ok = method == contract::kMethodConnect ? bench.floorProbe.WaitAvailable(available, event)
                                                     : bench.floorProbe.WaitFound(found, event);
  if (!ok) Fatal("floor: no echo for " + method);
  // The thread's tail is not the next sample's cost.
  while (!done) std::this_thread::sleep_for(std::chrono::microseconds(20));
  if (onNewThread) Bench::Settle();
  if (method == contract::kMethodStartBroadcast) outbound.push_back(Us(ParseNs(event.name) - start));
  return Us(event.at - start);
}

// What one detached thread per command costs by itself: from creating a
// thread to its first instruction.
double ThreadStartSample() {
  std::mutex mutex;
  std::condition_variable started;
  Ns at = 0;
  const Ns start = NowNs();
  std::thread([&] {
    const Ns now = NowNs();
    std::lock_guard<std::mutex> lock(mutex);
    at = now;
    started.notify_all();
  }).detach();
  std::unique_lock<std::mutex> lock(mutex);
  started.wait(lock, [&] { return at != 0; });
  return Us(at - start);
}

}  // namespace

void CallPhase(Bench& bench, Journal journal) {
  Report& report = bench.report;
  const bool listening = journal == Journal::kListening;
  const std::string prefix = listening ? "journal_" : "";
  std::vector<Arm> arms{Bench::kArmLib, Bench::kArmFloor, Bench::kArmThreadFloor};
  // With a journal listening only the floors are measured again: the silent
  // arm would be the same as without one.
  if (!listening) arms = bench.WithSilent(arms);

  std::vector<double> samples[Bench::kArmCount], accept[Bench::kArmCount], outbound[Bench::kArmCount];
  // Every arm of a round makes the same call, Connect and StartBroadcast in
  // turn, so each arm sees the same mix.
  bench.Rounds(bench.options.callSamples, arms, [&](Arm arm, int round) {
    const std::string& method = round % 2 == 0 ? contract::kMethodConnect : contract::kMethodStartBroadcast;
    if (arm == Bench::kArmFloor || arm == Bench::kArmThreadFloor) {
      samples[arm].push_back(FloorCallSample(bench, method, outbound[arm], arm == Bench::kArmThreadFloor, accept[arm]));
    } else {
      samples[arm].push_back(LibCallSample(bench, method, accept[arm], outbound[arm]));
    }
  });

  // Apart from the rounds, so that these threads slow down no sample.
  std::vector<double> threadStart;
  for (int i = 0; !listening && i < std::max(100, bench.options.callSamples / 4); ++i) {
    threadStart.push_back(ThreadStartSample());
    SleepMs(0.2);
  }
  const Stats threadStats = Summarise(threadStart);

  const Stats lib = Summarise(samples[Bench::kArmLib]), floor = Summarise(samples[Bench::kArmFloor]);
  const Stats libOut = Summarise(outbound[Bench::kArmLib]), floorOut = Summarise(outbound[Bench::kArmFloor]);
  const Stats acceptStats = Summarise(accept[Bench::kArmLib]);
  const Stats threadFloor = Summarise(samples[Bench::kArmThreadFloor]);
  const Stats threadFloorOut = Summarise(outbound[Bench::kArmThreadFloor]);
  const Stats threadAccept = Summarise(accept[Bench::kArmThreadFloor]);
  report.Row(listening ? "call -> echo callback, journal" : "call -> echo callback", lib, floor);
  report.Row("  of which call -> daemon", libOut, floorOut);
  report.Line("  %-34s %9.1f %9.1f   (us, caller blocked in Connect/StartBroadcast)", "accept", acceptStats.median,
              acceptStats.p99);
  if (!listening) {
    report.Line("  %-34s %9.1f %9.1f   (us, to a new thread's first instruction)", "  thread start alone",
                threadStats.median, threadStats.p99);
  }
  report.Row("plain GDBus, a thread per call", threadFloor, floor);
  report.Row("  of which call -> daemon", threadFloorOut, floorOut);
  report.Line("  %-34s %9.1f %9.1f   (us, creating the thread)", "  accept", threadAccept.median, threadAccept.p99);
  report.Line("    library against this floor of a thread per command: x%.2f at the median",
              Ratio(lib.median, threadFloor.median));
  report.Set(prefix + "call_ratio_median", Ratio(lib.median, floor.median));
  report.Set(prefix + "call_ratio_p99", Ratio(lib.p99, floor.p99));
  report.Set(prefix + "call_lib_us_median", lib.median);
  report.Set(prefix + "call_ratio_vs_thread_floor_median", Ratio(lib.median, threadFloor.median));
  report.WriteSamples("call_" + prefix + "lib", samples[Bench::kArmLib]);
  report.WriteSamples("call_" + prefix + "floor", samples[Bench::kArmFloor]);
  report.WriteSamples("call_" + prefix + "thread_floor", samples[Bench::kArmThreadFloor]);
  if (listening) return;

  report.Set("call_floor_us_median", floor.median);
  report.Set("call_outbound_ratio_median", Ratio(libOut.median, floorOut.median));
  report.Set("accept_us_median", acceptStats.median);
  report.Set("accept_us_p99", acceptStats.p99);
  report.Set("accept_thread_floor_us_median", threadAccept.median);
  report.Set("accept_thread_floor_us_p99", threadAccept.p99);
  report.Set("accept_p99_ratio_vs_thread_floor", Ratio(acceptStats.p99, threadAccept.p99));
  report.Set("call_thread_floor_ratio_median", Ratio(threadFloor.median, floor.median));
  report.Set("thread_start_us_median", threadStats.median);
  report.Set("thread_start_us_p99", threadStats.p99);

  if (!bench.options.silentPass) return;
  const Stats silent = Summarise(samples[Bench::kArmSilent]), silentOut = Summarise(outbound[Bench::kArmSilent]);
  const Stats silentAccept = Summarise(accept[Bench::kArmSilent]);
  report.Row("call, library log silenced", silent, floor);
  report.Row("  of which call -> daemon", silentOut, floorOut);
  report.Line("  %-34s %9.1f %9.1f   (us)", "accept, library log silenced", silentAccept.median, silentAccept.p99);
  bench.LoggingShare("call", lib, silent, floor, "call_logging_share");
  report.Set("call_ratio_median_silent", Ratio(silent.median, floor.median));
  report.Set("call_ratio_p99_silent", Ratio(silent.p99, floor.p99));
  report.Set("accept_us_median_silent", silentAccept.median);
  report.Set("accept_us_p99_silent", silentAccept.p99);
  report.WriteSamples("call_silent", samples[Bench::kArmSilent]);
}

}  // namespace zv_bench
