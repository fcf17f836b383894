#pragma once

// One run of zorvelctl: its connection to the bus, the main loop, the
// Launcher with its callbacks, and the waiting for what they report.
//
// Threads: the main thread runs the GLib main loop on the default main
// context, which the library needs (its connect timer, name watch and the
// daemon's signals run there), together with zorvelctl's own watch on the
// daemon's bus name and the SIGINT/SIGTERM handlers. A worker thread owns
// the Launcher and runs the command as straight-line code: it calls the
// Launcher and waits on a condition variable for what the callbacks report.
// The callbacks run on the main-loop thread, on the library's command
// threads or, for the outcomes of Stop, StopBroadcast and of commands not
// started, on the worker itself inside the call; they only record, print
// and notify.
//
// Interrupts: SIGINT and SIGTERM come to the main loop (g_unix_signal_add, so
// nothing runs in a signal handler). The worker, waiting in Wait, wakes and
// ends the command with its own summary. When it cannot wake, because it is
// inside a Launcher call that waits for the daemon (Calling), or it is slow
// to end, the main thread prints the summary and ends the process itself.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gio/gio.h>

#include <zorvel/Launcher.h>
#include <zorvel/common/GLibPtr.h>

#include "Options.h"
#include "Output.h"

namespace zorvelctl {

using Clock = std::chrono::steady_clock;
using zv_client::zorvel::CommandId;
using zv_client::zorvel::CommandOutcome;
using zv_client::zorvel::Launcher;

// What the bus watch and the Launcher's callbacks reported so far.
struct Reports {
  std::string owner;                                  // of the daemon's name, "" while it has none
  bool ownerKnown = false;                            // the name watch has reported at least once
  std::set<std::pair<int, std::string>> instances;    // distinct (id, name) found
  std::vector<std::pair<int, bool>> connections;      // (id, available)
  std::vector<int> cancellations;                     // statuses
  std::size_t events = 0;                             // callbacks of the daemon's events
  std::set<CommandId> held;                           // commands the library reported held
  std::optional<zv_client::zorvel::LinkStatus> link;  // the link state last told
  std::map<CommandId, CommandOutcome> ended;          // final outcomes
};

enum class FoundLines { kOncePerInstance, kEvery, kNone };

class Session;

// What a command needs from the session, and the command itself.
struct Plan {
  std::function<int(Session&, Launcher&)> run;      // returns Session::Finish's exit code
  bool waitForDaemon = true;                        // first wait for the daemon's name to have an owner
  FoundLines found = FoundLines::kOncePerInstance;  // how instance-found events are printed
  bool showOwner = false;                           // print each change of the daemon's name owner
};

class Session {
 public:
  Session(const Options& options, Printer& printer) : options_(options), printer_(printer) {}
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Connects to the system bus and runs the main loop while a worker waits
  // for the daemon, creates and initialises the Launcher and runs the plan.
  // Returns the exit code.
  int Run(Plan plan);

  const Options& options() const { return options_; }
  Printer& printer() { return printer_; }

  // Waits until `done` holds (true), or `until`, the deadline or SIGINT/
  // SIGTERM came (false). `done` runs under the session's lock: it must
  // neither block nor call the Launcher.
  bool Wait(const std::function<bool(const Reports&)>& done, Clock::time_point until = Clock::time_point::max());
  // Waits for the final outcome of `command`; none when the deadline or an
  // interrupt came first.
  std::optional<CommandOutcome> AwaitOutcome(CommandId command);
  // Runs `call`, a Launcher call that waits for the daemon's answer (Stop,
  // StopBroadcast), named `subject` in messages: an interrupt meanwhile ends
  // the run at once instead of after the call.
  void Calling(const std::string& subject, const std::function<void()>& call);
  Reports Snapshot();
  bool Expired() const { return interrupted_ || Clock::now() >= deadline_; }
  // "within 3 s", or "before the interrupt".
  std::string TimeoutText() const;

  // The end of a run: prints the summary, the last line, and gives `code`
  // (after an interrupt, the signal's exit status instead). Events that still
  // come are not printed.
  int Finish(Event summary, int code, const std::string& message);

 private:
  std::string OpenBus(zv_client::common::GObjectPtr<GDBusConnection>& bus);
  int RunLoop(GDBusConnection* bus);
  int Work(Launcher& launcher);
  void Attach(Launcher& launcher);
  void Record(const std::function<void(Reports&)>& update);
  void OnOutcome(const CommandOutcome& outcome);
  void OnOwner(const char* owner);
  void OnSignal(int signal);
  [[noreturn]] void Abandon();
  int PrintSummary(Event summary, int code, const std::string& message);  // with mutex_ held

  const Options& options_;
  Printer& printer_;
  Plan plan_;
  std::string address_;  // of the system bus
  Clock::time_point deadline_ = Clock::time_point::max();

  // Taken by every callback; the worker never calls the Launcher with it
  // held, since the library may wait for a running callback. The printer's
  // lock nests inside it.
  std::mutex mutex_;
  std::condition_variable changed_;
  Reports reports_;                       // guarded by mutex_
  bool finished_ = false;                 // guarded by mutex_: the summary is out, print nothing more
  int code_ = kExitFailed;                // guarded by mutex_: the exit status in the summary
  std::string calling_;                   // guarded by mutex_: the subject of the Launcher call in progress (Calling)
  int signal_ = 0;                        // guarded by mutex_: the first SIGINT or SIGTERM
  std::atomic<bool> interrupted_{false};  // set under mutex_
};

}  // namespace zorvelctl
