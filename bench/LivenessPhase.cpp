// Liveness: how long the application's GLib main loop can stall because of
// the library. A 10 ms heartbeat runs on the default main context, the one
// the library's callbacks use, and the longest gap between its ticks is
// taken in each scenario:
//  - replay: three different commands held while the daemon's name has no
//    owner, then replayed to a daemon that answers each call after 200 ms;
//  - frozen bus: the bus's dbus-daemon stopped for a second (SIGSTOP) while
//    a Launcher starts connecting;
//  - stalled journal: 500 commands while a socket bound at the journal's
//    path takes lines but is never read;
//  - idle, for comparison: the library ready, no command.
// And the stack size of a command thread, read on one.
//
// Each scenario runs in a child process of its own, forked at start-up: each
// needs a Launcher of its own from Init on (a process has one client), a bus
// of its own to freeze or a journal path of its own, and a library stuck in
// one must not stop the run. A child still running after 20 s is killed and
// its stall counted as those 20 s.

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>

#include <zorvel/Launcher.h>

#include "BenchBus.h"
#include "ForkedChild.h"
#include "Heartbeat.h"
#include "Phases.h"
#include "harness/PrivateJournal.h"

namespace zv_bench {
namespace {

using zv_client::zorvel::CommandOutcome;
using zv_client::zorvel::CommandStatus;

constexpr std::chrono::seconds kChildDeadline{20};
// Waits inside a child end well before its deadline, so that it still
// reports what it measured when the library does not finish.
constexpr int kWaitMs = 10000;
constexpr guint32 kReplayDelayMs = 200;
constexpr double kFreezeMs = 1000;
constexpr double kFrozenWindowMs = 1500;
constexpr int kJournalCommands = 500;

void SleepUntil(Ns at) {
  const Ns now = NowNs();
  if (at > now) SleepMs(static_cast<double>(at - now) / 1e6);
}

// The stack reserved for the calling thread, in kB; -1 when unknown.
long StackKb() {
  pthread_attr_t attributes;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) return -1;
  std::size_t size = 0;
  const bool known = pthread_attr_getstacksize(&attributes, &size) == 0;
  pthread_attr_destroy(&attributes);
  return known ? static_cast<long>(size / 1024) : -1;
}

// A Launcher's outcomes as they arrive, from whatever thread tells them.
class Outcomes {
 public:
  void Record(const CommandOutcome& outcome, bool onLoopThread) {
    // Read on the thread that tells the end of a command run at once.
    const long stackKb = outcome.final && !outcome.wasHeld && !onLoopThread ? StackKb() : -1;
    std::lock_guard<std::mutex> lock(mutex_);
    if (!outcome.final) {
      ++held_;
    } else {
      ++ended_;
      lastEndAt_ = NowNs();
      if (outcome.status == CommandStatus::kAnswered) ++answered_;
      if (stackKb >= 0) stackKb_ = stackKb;
    }
    changed_.notify_all();
  }

  bool WaitHeld(int count) {
    return Wait([&] { return held_ >= count; });
  }
  bool WaitEnded(int count) {
    return Wait([&] { return ended_ >= count; });
  }
  int Ended() { return Get(ended_); }
  int Answered() { return Get(answered_); }
  Ns LastEndAt() { return Get(lastEndAt_); }
  // Of the last command run at once whose end was told off the main-loop thread.
  long StackKbOffLoop() { return Get(stackKb_); }

 private:
  template <typename Done>
  bool Wait(Done done) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(kWaitMs), done);
  }
  template <typename T>
  T Get(const T& field) {
    std::lock_guard<std::mutex> lock(mutex_);
    return field;
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  int held_ = 0;  // guarded by mutex_, like every field below
  int ended_ = 0;
  int answered_ = 0;
  Ns lastEndAt_ = 0;
  long stackKb_ = -1;
};

// What every child sets up: a private bus with the benchmark daemon, the
// default main context run by a thread of its own as an application runs it,
// the heartbeat on it, and a Launcher (not yet Init-ed) whose outcomes are
// counted.
class Scene {
 public:
  Scene(const Options& options, int errFd) : bus(options, errFd), control(bus.control()) {
    DefaultLog();
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    std::thread([loop] { g_main_loop_run(loop); }).detach();  // ends with the child
    launcher.SetOnCommandOutcome(
        [this](const CommandOutcome& outcome) { outcomes.Record(outcome, heartbeat.OnLoopThread()); });
  }

  void Init() {
    if (launcher.Init() != 0) Fatal("Launcher::Init failed");
  }
  // Connect and StartBroadcast in turn, which neither the Launcher nor the
  // duplicate guard refuses; the first is a Connect, after a StartBroadcast.
  void IssueNext() {
    const int rc = connectNext_ ? launcher.Connect(1 + commands_++ % 60000) : launcher.StartBroadcast(true);
    if (rc != 0) Fatal("the Launcher refused a command");
    connectNext_ = !connectNext_;
  }
  // Init, then a first command, held until the library has connected.
  void InitReady() {
    Init();
    launcher.StartBroadcast(true);
    if (!outcomes.WaitEnded(1)) Fatal("liveness: the library did not become ready");
  }

  BenchBus bus;
  DaemonControl control;
  Heartbeat heartbeat;
  Outcomes outcomes;
  zv_client::zorvel::Launcher launcher;

 private:
  bool connectNext_ = true;
  int commands_ = 0;
};

// The library ready with nothing to do; and the stack of a command thread.
void Idle(Scene& scene, const ChildPipe& out) {
  scene.InitReady();
  // A command run at once while the daemon is ready ends on a command thread.
  for (int i = 0; i < 4 && scene.outcomes.StackKbOffLoop() < 0; ++i) {
    const int ended = scene.outcomes.Ended();
    scene.IssueNext();
    if (!scene.outcomes.WaitEnded(ended + 1)) break;
  }
  const long stackKb = scene.outcomes.StackKbOffLoop();
  if (stackKb >= 0) {
    out.Send("command_thread_stack_kb", static_cast<double>(stackKb));
  } else {
    std::fprintf(stderr,
                 "zorvel-bench: no command ended off the main-loop thread; command_thread_stack_kb not "
                 "measured\n");
  }
  SleepMs(50);  // the last command's thread ends
  scene.heartbeat.Open();
  SleepMs(1000);
  out.Send("main_loop_stall_ms_idle", scene.heartbeat.LongestGapMs());
}

// Three different commands held, then replayed to a slow daemon.
void Replay(Scene& scene, const ChildPipe& out) {
  scene.control.SetDelay(kReplayDelayMs);
  scene.control.ReleaseName();
  scene.Init();
  scene.launcher.StartBroadcast(true);
  scene.launcher.Connect(7);
  scene.launcher.DeleteStoredProfile(3);
  if (!scene.outcomes.WaitHeld(3)) Fatal("liveness: the commands were not held");
  // Past the library's first connect attempt (500 ms after Init): from then
  // on it watches for the name's new owner.
  SleepMs(700);
  scene.heartbeat.Open();
  const Ns owned = scene.control.AcquireName();
  const bool ended = scene.outcomes.WaitEnded(3);
  out.Send("main_loop_stall_ms_replay", scene.heartbeat.LongestGapMs());
  out.Send("replay_answered", scene.outcomes.Answered());
  if (ended) out.Send("replay_ms", static_cast<double>(scene.outcomes.LastEndAt() - owned) / 1e6);
}

// The bus stopped for a second while the library starts connecting.
void FrozenBus(Scene& scene, const ChildPipe& out) {
  // Nothing of ours uses the bus from here until it runs again: the control
  // connection is only used from this thread, after the thaw.
  const pid_t bus = scene.bus.busPid();
  if (kill(bus, SIGSTOP) != 0) Fatal("cannot stop the bus");
  const Ns stopped = NowNs();
  const Ns thawAt = stopped + static_cast<Ns>(kFreezeMs * 1e6);
  scene.heartbeat.Open();
  // From a thread of its own, in case Init itself waits for the bus.
  std::thread thaw([bus, thawAt] {
    SleepUntil(thawAt);
    kill(bus, SIGCONT);
  });
  scene.Init();
  SleepUntil(stopped + static_cast<Ns>(kFrozenWindowMs * 1e6));
  out.Send("main_loop_stall_ms_frozen_bus", scene.heartbeat.LongestGapMs());
  thaw.join();
  // The library must be back once the bus is: a command's answer tells.
  const Ns issued = NowNs();
  scene.launcher.StartBroadcast(true);
  if (scene.outcomes.WaitEnded(1) && scene.outcomes.Answered() == 1) {
    out.Send("frozen_bus_answer_ms", static_cast<double>(scene.outcomes.LastEndAt() - issued) / 1e6);
  }
}

// Commands while a journal takes lines and never reads them: once its
// socket's queue is full, every send to it blocks.
void StalledJournal(Scene& scene, const ChildPipe& out) {
  scene.InitReady();
  const int journal = zv_client::testing::ListenAsJournal();  // never read, never closed
  if (journal < 0 || !AwaitJournalVerdict(true)) {
    std::fprintf(stderr, "zorvel-bench: the library sees no journal; stalled journal not measured\n");
    return;
  }
  const int before = scene.outcomes.Ended();
  scene.heartbeat.Open();
  for (int i = 0; i < kJournalCommands; ++i) scene.IssueNext();
  scene.outcomes.WaitEnded(before + kJournalCommands);
  out.Send("main_loop_stall_ms_stalled_journal", scene.heartbeat.LongestGapMs());
  out.Send("stalled_journal_ended", scene.outcomes.Ended() - before);
}

}  // namespace

Liveness MeasureLiveness(const Options& options, int errFd) {
  struct Scenario {
    const char* stallKey;
    bool needsJournalPath;  // else no journal path of our own only means the machine's journal may listen
    void (*run)(Scene&, const ChildPipe&);
  };
  static const Scenario kScenarios[] = {{"main_loop_stall_ms_idle", false, &Idle},
                                        {"main_loop_stall_ms_replay", false, &Replay},
                                        {"main_loop_stall_ms_frozen_bus", false, &FrozenBus},
                                        {"main_loop_stall_ms_stalled_journal", true, &StalledJournal}};
  Liveness liveness;
  for (const Scenario& scenario : kScenarios) {
    ChildResult result = RunInChild(kChildDeadline, [&](const ChildPipe& out) {
      const std::string why = zv_client::testing::EnterPrivateJournalDir();
      if (!why.empty() && scenario.needsJournalPath) {
        std::fprintf(stderr, "zorvel-bench: no journal path of our own (%s); %s not measured\n", why.c_str(),
                     scenario.stallKey);
        return;
      }
      // Never destroyed: the child ends with Done, not held up by a library
      // that may be stuck (its teardown waits for commands and logs).
      Scene& scene = *new Scene(options, errFd);
      scenario.run(scene, out);
      out.Done();
    });
    liveness.figures.insert(result.figures.begin(), result.figures.end());
    if (result.killed) {
      liveness.killed.insert(scenario.stallKey);
      // A stall as long as the child was given, at least.
      liveness.figures.emplace(scenario.stallKey, static_cast<double>(kChildDeadline.count()) * 1e3);
    }
  }
  return liveness;
}

void LivenessPhase(Bench& bench) {
  Report& report = bench.report;
  const Liveness& liveness = bench.liveness;
  const auto figure = [&](const std::string& key) {
    const auto found = liveness.figures.find(key);
    return found != liveness.figures.end() ? found->second : -1.0;
  };
  // One line per stall; true when measured.
  const auto stall = [&](const char* what, const std::string& key, const std::string& note) {
    const double ms = figure(key);
    if (ms < 0) {
      report.Line("  %-34s %9s     (not measured; see the messages on stderr)", what, "-");
      return false;
    }
    std::string why = note;
    if (liveness.killed.count(key) != 0) {
      why = "the child did not end within " + std::to_string(kChildDeadline.count()) + " s and was killed";
    }
    report.Line("  %-34s %9.1f ms%s", what, ms, why.empty() ? "" : ("  (" + why + ")").c_str());
    report.Set(key, ms);
    return true;
  };
  char note[128];

  report.Line("  main loop's longest stall (a %u ms heartbeat on the default main context):", Heartbeat::kPeriodMs);
  stall("  idle, library ready", "main_loop_stall_ms_idle", "");
  double longest = -1;
  const double replayMs = figure("replay_ms");
  if (replayMs >= 0) {
    std::snprintf(note, sizeof note, "%.0f of 3 answered, the last %.0f ms after the name's new owner",
                  figure("replay_answered"), replayMs);
  } else {
    std::snprintf(note, sizeof note, "the commands had not all ended after %d s", kWaitMs / 1000);
  }
  if (stall("  3 held commands replayed", "main_loop_stall_ms_replay", note)) {
    longest = std::max(longest, figure("main_loop_stall_ms_replay"));
  }
  const double answerMs = figure("frozen_bus_answer_ms");
  if (answerMs >= 0) {
    std::snprintf(note, sizeof note, "then a command answered in %.1f ms", answerMs);
  } else {
    std::snprintf(note, sizeof note, "then a command not answered within %d s", kWaitMs / 1000);
  }
  if (stall("  bus stopped 1 s during Init", "main_loop_stall_ms_frozen_bus", note)) {
    longest = std::max(longest, figure("main_loop_stall_ms_frozen_bus"));
  }
  std::snprintf(note, sizeof note, "%.0f of %d commands ended", figure("stalled_journal_ended"), kJournalCommands);
  if (stall("  500 commands, journal unread", "main_loop_stall_ms_stalled_journal", note)) {
    longest = std::max(longest, figure("main_loop_stall_ms_stalled_journal"));
  }
  if (longest >= 0) {
    report.Line("  %-34s %9.1f ms  (target <= 25)", "  longest of those three", longest);
    report.Set("main_loop_stall_ms_max", longest);
  }
  const double stackKb = figure("command_thread_stack_kb");
  if (stackKb >= 0) {
    report.Line("  %-34s %9.0f kB  (target <= 512)", "command thread's stack", stackKb);
    report.Set("command_thread_stack_kb", stackKb);
  } else {
    report.Line("  %-34s %9s     (not measured; see the messages on stderr)", "command thread's stack", "-");
  }
}

}  // namespace zv_bench
