#pragma once

// What the phases share: the two sides, the daemon's control surface, the
// report, and the bookkeeping that keeps the library's commands from being
// refused (the Launcher refuses a second Connect, the command layer drops a
// command of the same method as the one before).

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gio/gio.h>

#include "LogOutput.h"
#include "Options.h"
#include "Probe.h"
#include "Report.h"
#include "Sides.h"

namespace zv_bench {

// What the liveness children reported (see MeasureLiveness).
struct Liveness {
  std::map<std::string, double> figures;  // by name
  std::set<std::string> killed;           // the stall figures of children killed at their deadline
};

class Bench {
 public:
  // The arms of a comparison, one sample each per round: the library with
  // its default log output; the floor; the library with every log line
  // dropped once formatted, which tells how much of the difference is
  // logging; plain GDBus making each call on a new thread of its own, the
  // least that one detached thread per command can cost; and, for profile
  // reads, plain GDBus decoding the reply into one list.
  enum Arm { kArmLib, kArmFloor, kArmSilent, kArmThreadFloor, kArmListFloor, kArmCount };

  // A private bus at `address` with the benchmark daemon on it; `control`
  // reaches the daemon's control surface.
  Bench(Options options, Report& report, const std::string& address, GDBusConnection* control);

  // Every phase asked for, then the plot.
  void Run();

  // Runs `rounds` rounds of one sample per arm of `arms`. The order rotates
  // from round to round, so that no arm always runs right after another one.
  template <typename Sample>
  void Rounds(int rounds, const std::vector<Arm>& arms, Sample sample);
  // The arms `arms`, with the silent arm added after the floor when the run
  // has one.
  std::vector<Arm> WithSilent(std::vector<Arm> arms) const;

  static const std::string& Other(const std::string& method);
  // Every library command goes through these two, which keep track of what
  // the guard and the Launcher would refuse next. Issue ends the run rather
  // than issue a Connect the Launcher would refuse; it returns how long the
  // caller was blocked.
  Ns Issue(const std::string& method, int id);
  zv_client::zorvel::CommandId ReadProfiles();
  // After commands whose threads may have run in any order.
  void ForgetLastMethod() { lastLibMethod_.clear(); }

  // Runs `method` at once (untimed), putting the other command before it
  // when the duplicate guard or the Launcher would refuse it.
  void LibRun(const std::string& method);
  // Runs (untimed) the other of Connect and StartBroadcast than the method
  // run last, which the duplicate guard does not drop.
  void LibRunNext() { LibRun(Other(lastLibMethod_)); }
  // Makes sure `method` can be issued now without being refused; true when
  // that took a command first.
  bool LibPrepare(const std::string& method);
  // Lets the thread of an untimed command finish exiting: a thread that has
  // just exited slows down the start of the next one, which would otherwise
  // be charged to the sample that follows.
  static void Settle() { SleepMs(0.5); }
  int NextId() { return 1 + static_cast<int>(idCounter_++ % 60000); }

  // How much of the median overhead over the floor is logging; `key` gets
  // that share.
  void LoggingShare(const char* what, const Stats& lib, const Stats& silent, const Stats& floor,
                    const std::string& key);

  const Options options;
  Report& report;
  DaemonControl control;
  Probe libProbe;
  Probe floorProbe;
  Floor floor;
  Library library;
  double liveLogLine = -1;        // us per line with a journal listening, measured at start-up; -1: not measured
  Liveness liveness;              // measured at start-up
  std::string noJournalOfOurOwn;  // why calls and signals cannot be measured with a journal listening

 private:
  // Issues `method`, waits until its thread has ended and, if it ran, for
  // its echo. False when the duplicate guard dropped it.
  bool LibRunOnce(const std::string& method);
  void WaitLibraryReady();
  // Calls and signals again with the library logging to a journal of ours.
  void JournalPass();

  std::uint64_t idCounter_ = 0;
  std::string lastLibMethod_;  // the method the command layer ran last ("" when unknown)
  bool libConnected_ = false;  // a Connect since the last StartBroadcast: the Launcher refuses another
};

template <typename Sample>
void Bench::Rounds(int rounds, const std::vector<Arm>& arms, Sample sample) {
  const std::size_t n = arms.size();
  for (int i = 0; i < rounds; ++i) {
    for (std::size_t k = 0; k < n; ++k) {
      const Arm arm = arms[(static_cast<std::size_t>(i) + k) % n];
      if (arm == kArmSilent) SilenceLog();
      sample(arm, i);
      if (arm == kArmSilent) DefaultLog();
    }
  }
}

}  // namespace zv_bench
