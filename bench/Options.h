#pragma once

// What a run measures and how long: the command line of zorvel-bench.

#include <string>
#include <vector>

namespace zv_bench {

// The profile list payload is one struct of 1 + 2N "(s)" elements, and a
// D-Bus signature may not exceed 255 characters: "((s)...(s))" of 1 + 2N
// elements has 3 (1 + 2N) + 2 of them, so N <= 41. A daemon that answers with
// more is disconnected by the bus for sending an invalid message, so no
// client, with the library or without, can read more profiles in one call.
constexpr int kMaxProfilesOnTheBus = 41;

struct Options {
  std::string outDir = "bench-results";  // samples, plot, helper logs; relative paths stay relative
  std::string dbusDaemon;                // empty: the one found at build time
  std::string busConfig;                 // empty: data/private-bus.conf
  std::string benchDaemon = ZORVEL_BENCH_DAEMON;
  std::string plotScript = ZORVEL_BENCH_PLOT_SCRIPT;
  int callSamples = 2000;                   // per arm
  int signalSamples = 2000;                 // per arm
  int profileRuns = 25;                     // per arm
  int profileCount = kMaxProfilesOnTheBus;  // stored profiles, at most kMaxProfilesOnTheBus
  int burstRuns = 3;
  int burstSize = 1000;
  int recoveryRounds = 12;
  int logLines = 20000;
  bool silentPass = true;   // an arm with the library's log silenced
  bool journalPass = true;  // calls and signals again with a journal listening
  bool trace = false;       // the library's lines to stderr instead of the system log
  bool timeline = false;    // the library's lines, timed, to <out>/timeline.txt instead
  std::vector<std::string> phases{"call", "signal", "profiles", "burst", "recovery", "log", "liveness"};

  bool Has(const char* phase) const;
};

// Parses the command line into `options`. Returns -1 to go on, else the exit
// status (0 after --help, 2 after a usage error, with the usage printed).
int ParseOptions(int argc, char** argv, Options& options);

}  // namespace zv_bench
