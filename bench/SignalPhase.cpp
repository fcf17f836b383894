// Signals: from the daemon's emission (its timestamp travels as the name of
// an onFound) to the application's instance-found callback, the library's
// handler against a plain GDBus subscription decoding the payload by hand.

#include "Phases.h"

namespace zv_bench {
namespace {

using Arm = Bench::Arm;

double SignalSample(Bench& bench, bool library) {
  Probe& probe = library ? bench.libProbe : bench.floorProbe;
  // The library's own connection: its name is looked up each time, since the
  // library may open a new one after a restart of the bus.
  const std::string destination = library ? bench.library.BusName() : bench.floor.UniqueName();
  if (destination.empty()) Fatal("the library has no bus connection");
  Probe::Event event;
  const std::uint64_t found = probe.FoundCount();
  bench.control.Emit(destination);
  if (!probe.WaitFound(found, event))
    Fatal(std::string(library ? "library" : "plain GDBus") + ": signal not delivered");
  return Us(event.at - ParseNs(event.name));
}

}  // namespace

double LibSignalSample(Bench& bench) { return SignalSample(bench, true); }

void SignalPhase(Bench& bench, Journal journal) {
  Report& report = bench.report;
  const bool listening = journal == Journal::kListening;
  const std::string prefix = listening ? "journal_" : "";
  std::vector<Arm> arms{Bench::kArmLib, Bench::kArmFloor};
  if (!listening) arms = bench.WithSilent(arms);
  std::vector<double> samples[Bench::kArmCount];
  bench.Rounds(bench.options.signalSamples, arms,
               [&](Arm arm, int) { samples[arm].push_back(SignalSample(bench, arm != Bench::kArmFloor)); });

  const Stats lib = Summarise(samples[Bench::kArmLib]), floor = Summarise(samples[Bench::kArmFloor]);
  report.Row(listening ? "daemon signal -> callback, journal" : "daemon signal -> callback", lib, floor);
  report.Set(prefix + "signal_ratio_median", Ratio(lib.median, floor.median));
  report.Set(prefix + "signal_ratio_p99", Ratio(lib.p99, floor.p99));
  report.Set(prefix + "signal_lib_us_median", lib.median);
  report.WriteSamples("signal_" + prefix + "lib", samples[Bench::kArmLib]);
  report.WriteSamples("signal_" + prefix + "floor", samples[Bench::kArmFloor]);
  if (listening) return;

  report.Set("signal_floor_us_median", floor.median);
  if (!bench.options.silentPass) return;
  const Stats silent = Summarise(samples[Bench::kArmSilent]);
  report.Row("signal, library log silenced", silent, floor);
  bench.LoggingShare("signal", lib, silent, floor, "signal_logging_share");
  report.Set("signal_ratio_median_silent", Ratio(silent.median, floor.median));
  report.WriteSamples("signal_silent", samples[Bench::kArmSilent]);
}

}  // namespace zv_bench
