// Stored profiles: ReadProfiles until the last profile's instance-found
// callback, and until the outcome carrying the whole list, against
// readProfiles with plain GDBus decoded by hand into one callback per
// profile, and decoded with the library's decoder into one list (on the
// calling thread, and on a new thread of its own).

#include <atomic>
#include <thread>

#include "Phases.h"

namespace zv_bench {
namespace {

using Arm = Bench::Arm;

struct LibTimes {
  double lastCallback = 0;  // us until the last instance-found callback
  double outcome = 0;       // us until the outcome with the list
};

LibTimes LibProfilesSample(Bench& bench) {
  const int count = bench.options.profileCount;
  // readProfiles must not follow readProfiles, or the guard drops it.
  bench.LibRunNext();
  Bench::Settle();
  bench.libProbe.ExpectProfiles(count);
  const Ns start = NowNs();
  const zv_client::zorvel::CommandId id = bench.ReadProfiles();
  Ns lastAt = 0, listAt = 0;
  std::size_t listed = 0;
  if (!bench.libProbe.WaitProfiles(lastAt, 30000)) Fatal("library: profiles not delivered");
  if (!bench.libProbe.WaitProfileList(id, listAt, listed, 30000)) Fatal("library: no ReadProfiles outcome");
  if (listed != static_cast<std::size_t>(count)) Fatal("library: the outcome's list is short");
  bench.library.WaitIdle();
  return LibTimes{Us(lastAt - start), Us(listAt - start)};
}

double FloorProfilesSample(Bench& bench) {
  const int count = bench.options.profileCount;
  Bench::Settle();  // the lead-in the library's sample has
  bench.floorProbe.ExpectProfiles(count);
  const Ns start = NowNs();
  if (bench.floor.ReadProfiles() != static_cast<std::size_t>(count)) Fatal("floor: profile count");
  Ns doneAt = 0;
  if (!bench.floorProbe.WaitProfiles(doneAt, 1000)) Fatal("floor: profiles not delivered");
  return Us(doneAt - start);
}

double FloorListSample(Bench& bench, bool onNewThread) {
  std::atomic<bool> done{false};
  // Every arm starts after the same pause, as the library's does after its
  // untimed command: a sample that follows another at once finds the machine
  // warmer (measured: the thread floor 10-15 % faster), which would count
  // against whichever arm is not run that way.
  Bench::Settle();
  const Ns start = NowNs();
  if (onNewThread) {
    std::thread([&] {
      bench.floor.ReadProfileList();
      done = true;
    }).detach();
  } else {
    bench.floor.ReadProfileList();
    done = true;
  }
  Ns at = 0;
  std::size_t listed = 0;
  if (!bench.floorProbe.WaitProfileList(0, at, listed, 30000)) Fatal("floor: no profile list");
  if (listed != static_cast<std::size_t>(bench.options.profileCount)) Fatal("floor: the list is short");
  while (!done) std::this_thread::sleep_for(std::chrono::microseconds(20));
  return Us(at - start);
}

}  // namespace

void ProfilesPhase(Bench& bench) {
  Report& report = bench.report;
  const Options& options = bench.options;
  bench.control.SetProfiles(static_cast<guint32>(options.profileCount));
  bench.library.FollowOutcomes(true);
  std::vector<double> samples[Bench::kArmCount], lists[Bench::kArmCount];
  const std::vector<Arm> arms =
      bench.WithSilent({Bench::kArmLib, Bench::kArmFloor, Bench::kArmListFloor, Bench::kArmThreadFloor});
  bench.Rounds(options.profileRuns, arms, [&](Arm arm, int) {
    if (arm == Bench::kArmFloor) {
      samples[arm].push_back(FloorProfilesSample(bench));
    } else if (arm == Bench::kArmListFloor || arm == Bench::kArmThreadFloor) {
      lists[arm].push_back(FloorListSample(bench, arm == Bench::kArmThreadFloor));
    } else {
      const LibTimes times = LibProfilesSample(bench);
      samples[arm].push_back(times.lastCallback);
      lists[arm].push_back(times.outcome);
    }
  });
  bench.library.FollowOutcomes(false);
  bench.control.SetProfiles(0);

  const Stats lib = Summarise(samples[Bench::kArmLib]), floor = Summarise(samples[Bench::kArmFloor]);
  char what[64];
  std::snprintf(what, sizeof what, "ReadProfiles x%d -> last callback", options.profileCount);
  report.Row(what, lib, floor);
  report.Set("profiles_ratio", Ratio(lib.median, floor.median));
  report.Set("profiles_count", options.profileCount);
  report.Set("profiles_lib_us_median", lib.median);
  report.Set("profiles_floor_us_median", floor.median);

  const Stats libList = Summarise(lists[Bench::kArmLib]), listFloor = Summarise(lists[Bench::kArmListFloor]);
  const Stats threadListFloor = Summarise(lists[Bench::kArmThreadFloor]);
  report.Row("ReadProfiles -> outcome with list", libList, listFloor);
  report.Row("plain GDBus list, on a new thread", threadListFloor, listFloor);
  report.Line("    library against this floor of a thread per command: x%.2f at the median",
              Ratio(libList.median, threadListFloor.median));
  report.Set("profiles_list_ratio", Ratio(libList.median, listFloor.median));
  report.Set("profiles_list_lib_us_median", libList.median);
  report.Set("profiles_list_floor_us_median", listFloor.median);
  report.Set("profiles_list_thread_floor_ratio_median", Ratio(threadListFloor.median, listFloor.median));
  report.Set("profiles_list_ratio_vs_thread_floor_median", Ratio(libList.median, threadListFloor.median));

  if (!options.silentPass) return;
  const Stats silent = Summarise(samples[Bench::kArmSilent]), silentList = Summarise(lists[Bench::kArmSilent]);
  report.Row("ReadProfiles, library log silenced", silent, floor);
  bench.LoggingShare("profile read", lib, silent, floor, "profiles_logging_share");
  report.Set("profiles_ratio_silent", Ratio(silent.median, floor.median));
  report.Row("  outcome with list, silenced", silentList, listFloor);
  report.Set("profiles_list_ratio_silent", Ratio(silentList.median, listFloor.median));
}

}  // namespace zv_bench
