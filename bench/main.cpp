// zorvel-bench: what the library costs an application over plain GDBus.
//
// One run starts a private bus and the lean benchmark daemon on it (with the
// tests' own start-up code), runs a GLib main loop on the default main
// context (the library needs one; the plain GDBus side gets its signals
// through the same loop), and measures each figure for the library (a
// Launcher) and for the floor (GDBus alone on a connection of its own to the
// same bus) in the same run, alternating sample by sample. The machines are
// shared and noisy, so the figures that count are ratios library/floor.
// The liveness scenarios are measured first, each in a child process with a
// bus and daemon of its own (LivenessPhase.cpp).
//
// Output: a readable table, then (last line) one JSON object with the figures.
// Samples and the latency plot go to --out (default: ./bench-results).

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <thread>
#include <utility>

#include <gio/gio.h>

#include "Bench.h"
#include "BenchBus.h"
#include "LogOutput.h"
#include "Options.h"
#include "Phases.h"
#include "Report.h"
#include "harness/PrivateJournal.h"

int main(int argc, char** argv) {
  using namespace zv_bench;
  namespace support = zv_client::testing;

  Options options;
  if (const int status = ParseOptions(argc, argv, options); status >= 0) return status;
  if (g_mkdir_with_parents(options.outDir.c_str(), 0755) != 0) Fatal("cannot create " + options.outDir);
  RouteLines(options.trace, options.timeline);
  Report report(options.outDir);
  report.ClearSamples();

  // The helpers' complaints (the bus cannot raise its fd limit, say) go to a file.
  const int errFd = open((options.outDir + "/processes.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);

  // Before this process starts any thread: a forked child, and this process
  // itself, must be able to enter namespaces of their own.
  double liveLogLine = -1;
  if (options.Has("log")) liveLogLine = MeasureLiveJournalLine(options.logLines / 10);
  Liveness liveness;
  if (options.Has("liveness")) liveness = MeasureLiveness(options, errFd);
  // A journal path of our own for the whole run: no journal listens unless
  // the benchmark binds one (the journal pass), whatever this machine runs,
  // so the figures without a journal mean no journal.
  const std::string noJournalOfOurOwn = support::EnterPrivateJournalDir();
  if (!noJournalOfOurOwn.empty()) {
    std::fprintf(stderr,
                 "zorvel-bench: no journal path of our own (%s); the figures without a journal are taken with "
                 "whatever journal this machine runs\n",
                 noJournalOfOurOwn.c_str());
  }

  // The private bus, before anything in this process looks at the system bus.
  BenchBus bus(options, errFd);
  if (errFd >= 0) close(errFd);

  DefaultLog();
  const zv_client::common::GMainLoopPtr owned(g_main_loop_new(nullptr, FALSE));
  GMainLoop* const loop = owned.get();
  std::thread loopThread([loop] { g_main_loop_run(loop); });

  report.Header();
  {
    Bench bench(options, report, bus.address(), bus.control());
    bench.liveLogLine = liveLogLine;
    bench.liveness = std::move(liveness);
    bench.noJournalOfOurOwn = noJournalOfOurOwn;
    bench.Run();
  }  // the Launcher goes first: its destructor waits for its commands

  g_main_loop_quit(loop);
  loopThread.join();
  bus.Stop();

  WriteTimeline(options.outDir + "/timeline.txt");
  std::printf("%s\n", report.Json().c_str());
  return 0;
}
