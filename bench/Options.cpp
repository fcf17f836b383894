#include "Options.h"

#include <getopt.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace zv_bench {
namespace {

std::vector<std::string> Split(const std::string& text) {
  std::vector<std::string> parts;
  std::stringstream in(text);
  for (std::string part; std::getline(in, part, ',');) {
    if (!part.empty()) parts.push_back(part);
  }
  return parts;
}

void Usage(const char* program) {
  std::printf(
      "usage: %s [options]\n"
      "Measures libzorvel against plain GDBus on a private bus with a lean daemon.\n"
      "  --out DIR            samples, plot and logs (default bench-results)\n"
      "  --phases LIST        call,signal,profiles,burst,recovery,log,liveness (default: all)\n"
      "  --samples N          call and signal samples per arm (default 2000)\n"
      "  --profile-runs N     ReadProfiles runs per arm (default 25)\n"
      "  --profiles N         stored profiles (default and most: %d, a D-Bus signature's limit)\n"
      "  --burst-runs N       bursts (default 3)\n"
      "  --burst-size N       commands per burst (default 1000)\n"
      "  --recovery-rounds N  daemon restarts (default 12)\n"
      "  --no-silent-pass     no arm with the library's log silenced\n"
      "  --no-journal-pass    calls and signals only with no journal listening\n"
      "  --quick              a short run (for profiling under valgrind)\n"
      "  --trace              the library's log lines to stderr instead of the system log\n"
      "  --timeline           the library's log lines, timed, to <out>/timeline.txt instead\n"
      "  --daemon PATH, --dbus-daemon PATH, --bus-config PATH, --plot-script PATH\n"
      "The last line of the output is one JSON object with the figures.\n",
      program, kMaxProfilesOnTheBus);
}

// getopt_long hands back these values for the long options; they start above
// any character so that they can never be mistaken for a short option.
enum OptionId {
  kOut = 1000,
  kPhases,
  kSamples,
  kProfileRuns,
  kProfiles,
  kBurstRuns,
  kBurstSize,
  kRecovery,
  kNoSilent,
  kNoJournal,
  kQuick,
  kTrace,
  kTimeline,
  kDaemon,
  kDbusDaemon,
  kBusConfig,
  kPlot,
  kHelp
};

const option kOptions[] = {{"out", required_argument, nullptr, kOut},
                           {"phases", required_argument, nullptr, kPhases},
                           {"samples", required_argument, nullptr, kSamples},
                           {"profile-runs", required_argument, nullptr, kProfileRuns},
                           {"profiles", required_argument, nullptr, kProfiles},
                           {"burst-runs", required_argument, nullptr, kBurstRuns},
                           {"burst-size", required_argument, nullptr, kBurstSize},
                           {"recovery-rounds", required_argument, nullptr, kRecovery},
                           {"no-silent-pass", no_argument, nullptr, kNoSilent},
                           {"no-journal-pass", no_argument, nullptr, kNoJournal},
                           {"quick", no_argument, nullptr, kQuick},
                           {"trace", no_argument, nullptr, kTrace},
                           {"timeline", no_argument, nullptr, kTimeline},
                           {"daemon", required_argument, nullptr, kDaemon},
                           {"dbus-daemon", required_argument, nullptr, kDbusDaemon},
                           {"bus-config", required_argument, nullptr, kBusConfig},
                           {"plot-script", required_argument, nullptr, kPlot},
                           {"help", no_argument, nullptr, kHelp},
                           {nullptr, 0, nullptr, 0}};

// Each Apply* below takes one option of its group and returns false for any
// other, so that ParseOptions can offer an option to each group in turn.

// Where the output goes, which helpers run, and which phases are measured.
bool ApplyPathOrPhases(int opt, const char* arg, Options& options) {
  switch (opt) {
    case kOut:
      options.outDir = arg;
      return true;
    case kPhases:
      options.phases = Split(arg);
      return true;
    case kDaemon:
      options.benchDaemon = arg;
      return true;
    case kDbusDaemon:
      options.dbusDaemon = arg;
      return true;
    case kBusConfig:
      options.busConfig = arg;
      return true;
    case kPlot:
      options.plotScript = arg;
      return true;
  }
  return false;
}

// How long each phase runs. Numbers are read as atoi reads them (garbage is
// 0); RangesAreValid rejects the results that make no sense.
bool ApplyRunLength(int opt, const char* arg, Options& options) {
  switch (opt) {
    case kSamples:
      options.callSamples = options.signalSamples = std::atoi(arg);
      return true;
    case kProfileRuns:
      options.profileRuns = std::atoi(arg);
      return true;
    case kProfiles:
      options.profileCount = std::atoi(arg);
      return true;
    case kBurstRuns:
      options.burstRuns = std::atoi(arg);
      return true;
    case kBurstSize:
      options.burstSize = std::atoi(arg);
      return true;
    case kRecovery:
      options.recoveryRounds = std::atoi(arg);
      return true;
    case kQuick:
      options.callSamples = options.signalSamples = 200;
      options.profileRuns = 3;
      options.burstRuns = 1;
      options.recoveryRounds = 2;
      options.logLines = 2000;
      return true;
  }
  return false;
}

// Which extra arms run and where the library's own log lines go.
bool ApplyPassOrLogging(int opt, Options& options) {
  switch (opt) {
    case kNoSilent:
      options.silentPass = false;
      return true;
    case kNoJournal:
      options.journalPass = false;
      return true;
    case kTrace:
      options.trace = true;
      return true;
    case kTimeline:
      options.timeline = true;
      return true;
  }
  return false;
}

// Stray arguments or figures too small for a phase to measure anything.
bool RangesAreValid(int argc, const Options& options) {
  return optind >= argc && options.callSamples >= 2 && options.profileRuns >= 1 && options.profileCount >= 1 &&
         options.burstRuns >= 1 && options.burstSize >= 2 && options.recoveryRounds >= 1 && options.logLines >= 10;
}

// Asking for more profiles than one reply can carry is not an error: the run
// goes on with as many as fit, and says so.
void CapProfileCount(Options& options) {
  if (options.profileCount > kMaxProfilesOnTheBus) {
    std::fprintf(stderr,
                 "zorvel-bench: --profiles %d capped at %d, the most the profile list payload carries over a "
                 "bus (D-Bus signatures are limited to 255 characters)\n",
                 options.profileCount, kMaxProfilesOnTheBus);
    options.profileCount = kMaxProfilesOnTheBus;
  }
}

}  // namespace

bool Options::Has(const char* phase) const { return std::find(phases.begin(), phases.end(), phase) != phases.end(); }

int ParseOptions(int argc, char** argv, Options& options) {
  for (int opt; (opt = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    if (ApplyPathOrPhases(opt, optarg, options) || ApplyRunLength(opt, optarg, options) ||
        ApplyPassOrLogging(opt, options)) {
      continue;
    }
    Usage(argv[0]);
    return opt == kHelp ? 0 : 2;
  }
  if (!RangesAreValid(argc, options)) {
    Usage(argv[0]);
    return 2;
  }
  CapProfileCount(options);
  return -1;
}

}  // namespace zv_bench
