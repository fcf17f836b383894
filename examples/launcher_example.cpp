// launcher_example: the whole life of a libzorvel client in one file.
//
//   Init -> StartBroadcast -> instances found -> ReadProfiles -> stored
//   profiles found -> Connect -> connection available -> StopBroadcast -> Stop
//
// How the threads are split, and why:
//  - The main thread runs a GLib main loop on the default main context. The
//    library has no loop of its own: its connect timer, its watch on the
//    daemon's bus name and the daemon's signals all run on that context.
//    Without a running loop nothing ever connects.
//  - A worker thread runs the scenario as plain top-to-bottom code. It calls
//    the Launcher and then waits (with a deadline) for the callbacks to
//    report what it is waiting for. Waiting like that on the main thread
//    would block the very loop that delivers the callbacks.
//  - The callbacks run on the main-loop thread or on a command thread of the
//    library. They only record what happened and wake the worker; they never
//    block.
//
// Every command ends with an outcome (answered, failed, held, ...), given to
// the outcome callback. The worker takes each command's id from the
// overloads with a `CommandId*` and waits for that command's outcome where
// it needs the daemon's answer; the callback prints every outcome.
//
// Run it with the daemon on the system bus (or DBUS_SYSTEM_BUS_ADDRESS set to
// a bus where it runs). Without a daemon it gives up after 10 seconds with
// exit code 1.

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include <glib.h>

#include <zorvel/Launcher.h>

namespace {

using zv_client::zorvel::CommandId;
using zv_client::zorvel::CommandOutcome;
using zv_client::zorvel::CommandStatus;

constexpr auto kPatience = std::chrono::seconds(10);  // per step

// What the callbacks have reported so far, shared with the worker.
struct Reports {
  std::mutex mutex;
  std::condition_variable changed;
  std::map<int, std::string> found;  // every id seen, instance or profile
  int availableId = -1;
  bool available = false;
  std::map<CommandId, CommandOutcome> ended;  // final outcomes, by command

  // Waits until `done()` holds; false after kPatience without it.
  template <typename Predicate>
  bool WaitFor(Predicate done) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, kPatience, done);
  }
  // The final outcome of `command`, or none after kPatience without it.
  std::optional<CommandOutcome> Outcome(CommandId command) {
    std::unique_lock<std::mutex> lock(mutex);
    if (!changed.wait_for(lock, kPatience, [&] { return ended.count(command) != 0; })) return std::nullopt;
    return ended[command];
  }
};

// One line for an outcome: "#3 connect(101): answered 0".
std::string Describe(const CommandOutcome& outcome) {
  std::string text = "#" + std::to_string(outcome.id) + " " + outcome.method + "(" +
                     (outcome.argument ? std::to_string(*outcome.argument) : "") + "): ";
  switch (outcome.status) {
    case CommandStatus::kAnswered:
      if (outcome.method != "readProfiles") return text + "answered " + std::to_string(outcome.answer);
      // The whole list at once, with full ids (the instance-found calls
      // carry them as 16-bit numbers).
      text += "answered, " + std::to_string(outcome.profiles.size()) + " stored profile(s)";
      for (std::size_t i = 0; i < outcome.profiles.size(); ++i) {
        text += (i == 0 ? ": " : ", ") + std::to_string(outcome.profiles[i].id) + " " + outcome.profiles[i].name;
      }
      return text;
    case CommandStatus::kFailed:
      return text + "failed, " + outcome.errorName + ": " + outcome.errorMessage;
    case CommandStatus::kTimedOut:
      return text + "timed out";
    case CommandStatus::kDroppedAsRepeat:
      return text + "dropped as a repeat";
    case CommandStatus::kHeld:
      return text + "held until the daemon is ready";
    case CommandStatus::kDiscarded:
      return text + "discarded";
    case CommandStatus::kNotStarted:
      return text + "not started, " + outcome.errorName;
  }
  return text;
}

bool AnsweredZero(const std::optional<CommandOutcome>& outcome) {
  return outcome && outcome->status == CommandStatus::kAnswered && outcome->answer == 0;
}

// Sets the callbacks; they must be set before Init, from which on they may be
// called at any time, on another thread. `phase` is what they print next to a
// found id; like `reports`, it must outlive the Launcher.
//
// The instance-found callback has two sources: instances that a running
// broadcast finds, and the stored profiles that ReadProfiles delivers one
// by one. A broadcast reports each instance again at every round, so
// remember what was seen and print each id once.
void SetCallbacks(zv_client::zorvel::Launcher& launcher, Reports& reports, const char*& phase) {
  launcher.SetOnInstanceFoundCallback([&reports, &phase](int id, const std::string& name) {
    std::lock_guard<std::mutex> lock(reports.mutex);
    if (reports.found.emplace(id, name).second) {
      // `name` is raw bytes from the daemon; printed as is here.
      std::printf("  found      id %-5d %s   (during %s)\n", id, name.c_str(), phase);
    }
    reports.changed.notify_all();
  });
  launcher.SetOnConnectionAvailable([&reports](int id, bool available) {
    std::lock_guard<std::mutex> lock(reports.mutex);
    std::printf("  connection id %-5d %s\n", id, available ? "available" : "not available");
    reports.availableId = id;
    reports.available = available;
    reports.changed.notify_all();
  });
  launcher.SetOnCancelConnectionCallback(
      [](int status) { std::printf("  connection cancelled, status %d\n", status); });
  // Each command ends here exactly once (a held one is reported first as
  // held, then again when it ends), possibly before the call that issued it
  // has returned.
  launcher.SetOnCommandOutcome([&reports](const CommandOutcome& outcome) {
    std::printf("  outcome    %s\n", Describe(outcome).c_str());
    if (!outcome.final) return;
    std::lock_guard<std::mutex> lock(reports.mutex);
    reports.ended[outcome.id] = outcome;
    reports.changed.notify_all();
  });
}

// Starts the broadcast and waits for the first instance; false if none came.
bool Broadcast(zv_client::zorvel::Launcher& launcher, Reports& reports) {
  // Commands return at once; the daemon's replies arrive as callbacks, and
  // each command's end as its outcome. This one is held until the library
  // is connected (about half a second after Init).
  std::printf("StartBroadcast, waiting for instances...\n");
  launcher.StartBroadcast(false);
  if (!reports.WaitFor([&] { return !reports.found.empty(); })) {
    std::fprintf(stderr,
                 "No instance reported within %lld s: is the zorvel daemon running on the system bus "
                 "(DBUS_SYSTEM_BUS_ADDRESS)?\n",
                 static_cast<long long>(kPatience.count()));
    return false;
  }
  // Give the broadcast a moment to report the other instances.
  std::this_thread::sleep_for(std::chrono::seconds(1));
  return true;
}

// Reads the stored profiles; false if the daemon did not answer.
//
// ReadProfiles returns an empty list at once. The stored profiles come
// through the instance-found callback, one by one, and then all together
// in the command's outcome, which also says that the list is complete.
// The broadcast is still running, so its instances keep coming too
// (already printed, so silent here).
bool ReadStoredProfiles(zv_client::zorvel::Launcher& launcher, Reports& reports) {
  // The id the call hands back names the command in its outcome. It is
  // written before the command is handed over: the outcome may come on
  // another thread even before ReadProfiles returns.
  std::printf("ReadProfiles\n");
  CommandId command = 0;
  launcher.ReadProfiles(&command);
  const std::optional<CommandOutcome> read = reports.Outcome(command);
  if (!read || read->status != CommandStatus::kAnswered) {
    std::fprintf(stderr, "The stored profiles were not read\n");
    return false;
  }
  return true;
}

// Connects to `target` and waits until the connection is available. The
// daemon's answer comes with the outcome (0: it goes ahead); the connection
// itself is the connection-available callback.
bool ConnectTo(zv_client::zorvel::Launcher& launcher, Reports& reports, int target) {
  std::printf("Connect(%d), waiting for the connection...\n", target);
  CommandId command = 0;
  launcher.Connect(target, &command);
  if (!AnsweredZero(reports.Outcome(command))) {
    std::fprintf(stderr, "The daemon did not accept Connect(%d)\n", target);
    return false;
  }
  if (!reports.WaitFor([&] { return reports.availableId == target; })) {
    std::fprintf(stderr, "No connection-available event for %d within %lld s\n", target,
                 static_cast<long long>(kPatience.count()));
    return false;
  }
  return true;
}

// StopBroadcast and Stop wait for the daemon's answer (their outcomes are
// told before they return). Note: after StopBroadcast the library holds new
// commands until the daemon restarts, so it comes last, before Stop (which
// is never held). Returns the process exit code.
int StopAll(zv_client::zorvel::Launcher& launcher) {
  std::printf("StopBroadcast -> %d\n", launcher.StopBroadcast());
  const int stopped = launcher.Stop();
  std::printf("Stop -> %d\n", stopped);
  return stopped == 0 ? 0 : 1;
}

// The scenario; returns the process exit code.
int Run(Reports& reports) {
  // What the callbacks print next to a found id. Declared before the
  // Launcher: its callbacks may run until the Launcher is destroyed, so
  // everything they touch must outlive it.
  const char* phase = "broadcast";
  zv_client::zorvel::Launcher launcher;
  SetCallbacks(launcher, reports, phase);

  // Init only starts connecting (on the main loop, in the background). It
  // succeeds even while the daemon is absent: commands are held until the
  // daemon is there.
  if (launcher.Init() != 0) {
    std::fprintf(stderr, "Init failed\n");
    return 1;
  }
  std::printf("Init done\n");

  if (!Broadcast(launcher, reports)) return 1;  // destroying the Launcher drops the held commands

  // Connect to the instance of lowest id found.
  int target = 0;
  {
    std::lock_guard<std::mutex> lock(reports.mutex);
    target = reports.found.begin()->first;
    phase = "ReadProfiles";
  }

  if (!ReadStoredProfiles(launcher, reports)) return 1;
  if (!ConnectTo(launcher, reports, target)) return 1;
  return StopAll(launcher);
}  // the Launcher is destroyed here, while the main loop still runs

gboolean QuitLoop(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_REMOVE;
}

}  // namespace

int main() {
  // Print each line as it is written, also into a pipe.
  setvbuf(stdout, nullptr, _IOLBF, 0);

  g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);  // nullptr: the default main context
  Reports reports;
  int exitCode = 1;
  std::thread worker([&] {
    exitCode = Run(reports);
    // Quit from inside the loop (a g_main_loop_quit that came before
    // g_main_loop_run would be lost).
    g_idle_add(QuitLoop, loop);
  });
  g_main_loop_run(loop);
  worker.join();
  return exitCode;
}
