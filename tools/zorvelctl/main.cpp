// zorvelctl: drive and watch the zorvel daemon through libzorvel, for people
// who integrate the daemon on a device.
//
// Threads: the main thread runs the GLib main loop on the default main
// context, which the library needs (its connect timer, name watcher and the
// daemon's signals run there), together with zorvelctl's own watch on the
// daemon's bus name and the SIGINT/SIGTERM handlers. A worker thread runs the
// command as straight-line code: it calls the Launcher and waits on a
// condition variable for what the callbacks and the library's log report.
//
// What the public API does not say: commands other than Stop/StopBroadcast
// return before the daemon has seen them, are held while the daemon is
// unreachable, and the daemon's answers to them are not passed on. The
// library does report its progress in its log, so zorvelctl installs a log
// sink and reads a few of those lines: "IpcReady [1]" (the library is
// connected), "Method [X] called" followed by the command's "FINISHED" line
// (X reached the daemon; a "Failed to call D-Bus" line in between means the
// daemon answered with an error) and "Extracted int" (the daemon's answer to
// Stop). If the wording of those lines changes, the commands end at the
// timeout instead.

#include <glib-unix.h>
#include <gio/gio.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <common/GLibPtr.h>
#include <dbus/client/ServiceContract.h>
#include <platform/SystemLog.h>
#include <zorvel/Launcher.h>

#include "Output.h"

namespace {

using zorvelctl::Event;
using zorvelctl::Printer;
using zv_client::zorvel::Launcher;
using Clock = std::chrono::steady_clock;

enum Exit { kExitOk = 0, kExitFailed = 1, kExitUsage = 2, kExitUnreachable = 3 };

// After the last stored profile arrived (or the read finished), how long no
// further one may come before the list counts as complete.
constexpr auto kProfilesQuiet = std::chrono::milliseconds(300);

const char kUsage[] = R"(NAME
    zorvelctl - drive and watch the zorvel daemon through libzorvel

SYNOPSIS
    zorvelctl [--timeout SECONDS] [--verbose] [--json] COMMAND [ARGUMENTS]
    zorvelctl --help

DESCRIPTION
    zorvelctl runs one command of the zorvel daemon through libzorvel, the
    library that applications use, on the system bus, and prints the events
    the library delivers: found instances, stored profiles, available and
    cancelled connections. It first waits for the daemon's bus name
    (zorvel.dbus.service) to have an owner. Each event is one line; with
    --json one JSON object per line, followed by a summary object.

    Names are raw bytes. In text output bytes that are not valid UTF-8, and
    control characters, are shown as \xNN. In JSON a byte that is not valid
    UTF-8 is written as \u00NN (NN = the byte value) and the object gets
    "name_utf8":false; control characters use the usual JSON escapes.

COMMANDS
    broadcast [--online-check]
        Start a broadcast and print each instance found (each id and name
        once) until the timeout (default 3 s) or SIGINT/SIGTERM, then stop the
        broadcast and print the daemon's answer. Note that after a stopped
        broadcast the library holds further commands until the daemon
        restarts; every zorvelctl run starts afresh.
    profiles
        Read the stored profiles and print each as it arrives. Ends when no
        further profile came for a short quiet period after the read finished
        or after the first profile. An empty store sends no event at all: the
        end of the read is taken from the library's log; should that not be
        seen, the command ends at the timeout (default 10 s).
    connect ID
        Ask the daemon to connect to instance (or stored profile) ID and wait
        for its connection-available event for ID (default timeout 10 s).
    delete ID
        Delete the stored profile ID. The library does not pass on the
        daemon's answer, so zorvelctl reads the profiles before and after and
        reports whether ID was stored and is gone (default timeout 10 s).
    stop
        Tell the daemon to deinitialise (Launcher::Stop) once the library is
        connected, and print the daemon's answer (default timeout 10 s).
        The call itself waits for the answer up to the D-Bus default of 25 s,
        whatever the timeout.
    monitor
        Print every callback as it arrives, and every change of the daemon's
        bus name owner, until SIGINT/SIGTERM or the timeout (default: none).
        Issues no command. When the daemon restarts, zorvelctl sets the
        library up again, since an idle client reconnects only on its next
        command.

OPTIONS
    --timeout SECONDS
        The longest the command runs in total, waiting for the daemon
        included (fractions allowed; 0 means no limit). SIGINT or SIGTERM
        ends it early in the same way; a second one ends it at once.
    --online-check
        broadcast: start the broadcast with the online check.
    -v, --verbose
        Print the library's log lines on stderr. zorvelctl reads them to
        follow the library's progress, so they never reach the system log.
    --json
        One JSON object per line: {"event":"instance-found","id":101,
        "name":"Kitchen speaker"}, ..., then {"event":"summary",
        "command":...,"result":"ok"|"failed"|"unreachable","exit_code":N,
        ...,"message":...}.
    -h, --help
        Print this text.

EXIT STATUS
    0   Success.
    1   The daemon answered a failure, or an expected event did not come
        before the timeout (or before SIGINT/SIGTERM).
    2   Usage error.
    3   The daemon could not be reached within the timeout: the bus is not
        reachable, zorvel.dbus.service has no owner, or the library did not
        connect to it.

ENVIRONMENT
    DBUS_SYSTEM_BUS_ADDRESS
        The address of the system bus, on which the daemon is looked for
        (default unix:path=/var/run/dbus/system_bus_socket).

EXAMPLES
    zorvelctl broadcast --timeout 5
    zorvelctl --json profiles | jq -r .name
    zorvelctl connect 101 && echo connected
    DBUS_SYSTEM_BUS_ADDRESS=unix:path=/tmp/bus zorvelctl --verbose stop
)";

struct Options {
  std::string command;
  int id = 0;
  bool onlineCheck = false;
  std::optional<double> timeout;
  bool verbose = false;
  bool json = false;
  bool help = false;
};

bool ParseNumber(const char* text, double& value) {
  char* end = nullptr;
  value = std::strtod(text, &end);
  return *text != '\0' && *end == '\0' && value >= 0 && value < 1e9;
}

bool ParseId(const std::string& text, int& id) {
  char* end = nullptr;
  const long value = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || value < INT32_MIN || value > INT32_MAX) return false;
  id = static_cast<int>(value);
  return true;
}

// Returns an error message, empty when `options` is complete.
std::string ParseOptions(int argc, char** argv, Options& options) {
  std::vector<std::string> positional;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "-h" || arg == "--help") {
      options.help = true;
    } else if (arg == "-v" || arg == "--verbose") {
      options.verbose = true;
    } else if (arg == "--json") {
      options.json = true;
    } else if (arg == "--online-check") {
      options.onlineCheck = true;
    } else if (arg == "--timeout" || arg.rfind("--timeout=", 0) == 0) {
      const char* value = arg == "--timeout" ? (i + 1 < argc ? argv[++i] : nullptr) : argv[i] + 10;
      double seconds = 0;
      if (value == nullptr || !ParseNumber(value, seconds)) return "--timeout needs a number of seconds";
      options.timeout = seconds;
    } else if (arg.size() > 1 && arg[0] == '-' && !std::isdigit(static_cast<unsigned char>(arg[1]))) {
      return "unknown option '" + arg + "'";
    } else {
      positional.push_back(arg);
    }
  }
  if (options.help) return "";
  if (positional.empty()) return "no command given";
  options.command = positional[0];
  const std::set<std::string> withId{"connect", "delete"};
  const std::set<std::string> withoutId{"broadcast", "profiles", "stop", "monitor"};
  if (withId.count(options.command) != 0) {
    if (positional.size() != 2) return options.command + " needs one ID";
    if (!ParseId(positional[1], options.id)) return "'" + positional[1] + "' is not an ID";
  } else if (withoutId.count(options.command) != 0) {
    if (positional.size() != 1) return options.command + " takes no argument";
  } else {
    return "unknown command '" + options.command + "'";
  }
  if (options.onlineCheck && options.command != "broadcast") return "--online-check belongs to broadcast";
  return "";
}

// State shared by the main-loop thread, the library's threads and the worker;
// every member below `mutex` is guarded by it. The worker never calls the
// Launcher with `mutex` held: callbacks take it, and the library may wait for
// a running callback.
struct Session {
  struct Found {
    int id;
    std::string name;
    Clock::time_point at;
  };
  struct Tally {  // completed runs of one daemon method
    int done = 0;
    bool failed = false;  // the last run
    std::string error;
    Clock::time_point at;
  };

  Session(const Options& opts, Printer& out) : options(opts), printer(out) {}

  const Options& options;
  Printer& printer;
  Clock::time_point deadline = Clock::time_point::max();

  std::mutex mutex;
  std::condition_variable changed;
  std::atomic<bool> interrupted{false};  // also read without the lock
  bool ownerKnown = false;
  std::string owner;  // of the daemon's name, "" when it has none
  bool libraryReady = false;
  std::string foundLabel = "instance-found";  // "" prints nothing
  bool dedupe = true;
  std::set<std::pair<int, std::string>> printed;
  std::vector<Found> found;
  std::vector<std::pair<int, bool>> connections;
  std::vector<int> cancellations;
  std::size_t events = 0;
  std::map<std::string, Tally> tallies;
  std::map<std::thread::id, std::string> methodOnThread;
  std::map<std::thread::id, int> answerOnThread;
  std::map<std::thread::id, std::string> errorOnThread;

  void Notify(const std::function<void()>& update) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      update();
    }
    changed.notify_all();
  }

  bool Expired() const { return interrupted || Clock::now() >= deadline; }

  // Waits until `done()` holds (true), or the deadline passes or SIGINT/
  // SIGTERM came (false). `until` shortens the wait.
  template <typename Predicate>
  bool Wait(std::unique_lock<std::mutex>& lock, Predicate done,
            Clock::time_point until = Clock::time_point::max()) {
    const Clock::time_point end = std::min(until, deadline);
    while (!done()) {
      if (interrupted || Clock::now() >= end) return false;
      if (end == Clock::time_point::max()) {
        changed.wait(lock);
      } else {
        changed.wait_until(lock, end);
      }
    }
    return true;
  }

  void OnFound(int id, const std::string& name) {
    Notify([&] {
      found.push_back({id, name, Clock::now()});
      ++events;
      if (foundLabel.empty() || (dedupe && !printed.insert({id, name}).second)) return;
      printer.Print(Event(foundLabel).Int("id", id).Text("name", name));
    });
  }

  void Attach(Launcher& launcher) {
    launcher.SetOnInstanceFoundCallback([this](int id, const std::string& name) { OnFound(id, name); });
    launcher.SetOnConnectionAvailable([this](int id, bool available) {
      Notify([&] {
        connections.emplace_back(id, available);
        ++events;
        printer.Print(Event("connection-available").Int("id", id).Bool("available", available));
      });
    });
    launcher.SetOnCancelConnectionCallback([this](int status) {
      Notify([&] {
        cancellations.push_back(status);
        ++events;
        printer.Print(Event("connection-cancelled").Int("status", status));
      });
    });
  }

  // A line of the library's log, on whichever thread logged it.
  void OnLibraryLine(const std::string& text) {
    static constexpr char kCallFailed[] = "Failed to call D-Bus for Zorvel daemon, error = ";
    const std::thread::id thread = std::this_thread::get_id();
    auto between = [&text](const std::string& before, const std::string& after, std::string& out) {
      const std::size_t start = text.find(before);
      if (start == std::string::npos) return false;
      const std::size_t end = text.find(after, start + before.size());
      if (end == std::string::npos) return false;
      out = text.substr(start + before.size(), end - start - before.size());
      return true;
    };
    std::string value;
    Notify([&] {
      if (text.find("\"IpcReady [1]") != std::string::npos) {
        libraryReady = true;
      } else if (text.find("\"IpcReady [0]") != std::string::npos) {
        libraryReady = false;
      } else if (between("Method [", "] called", value)) {
        methodOnThread[thread] = value;
        errorOnThread.erase(thread);
      } else if (text.find(kCallFailed) != std::string::npos) {
        errorOnThread[thread] = text.substr(text.find(kCallFailed) + std::strlen(kCallFailed));
      } else if (between("##### Extracted int: [", "]", value)) {
        answerOnThread[thread] = std::atoi(value.c_str());
      } else if (between("\"ExecuteCommand[", "] FINISHED\"", value) ||
                 between("\"IpcReady command[", "] FINISHED\"", value)) {
        const auto running = methodOnThread.find(thread);
        if (running == methodOnThread.end() || running->second != value) return;  // held or dropped
        methodOnThread.erase(running);
        Tally& tally = tallies[value];
        ++tally.done;
        const auto error = errorOnThread.find(thread);
        tally.failed = error != errorOnThread.end();
        tally.error = tally.failed ? error->second : "";
        tally.at = Clock::now();
        if (tally.failed) errorOnThread.erase(error);
      }
    });
  }

  void OnOwner(const char* newOwner) {
    Notify([&] {
      ownerKnown = true;
      owner = newOwner != nullptr ? newOwner : "";
      if (options.command == "monitor") printer.Print(Event("daemon-owner").Text("owner", owner));
    });
  }
};

// The end of a run: prints the summary and gives the exit code. A failure
// while the library never got connected means the daemon was not reached.
int Finish(Session& session, Event summary, int code, const std::string& message) {
  bool ready = false;
  {
    std::lock_guard<std::mutex> lock(session.mutex);
    ready = session.libraryReady;
  }
  std::string text = message;
  if (code == kExitFailed && !ready) {
    code = kExitUnreachable;
    text = "the library did not connect to " + zv_client::dbus::client::kBusName + " (" + message + ")";
  }
  const char* result = code == kExitOk ? "ok" : code == kExitUnreachable ? "unreachable" : "failed";
  summary.Text("command", session.options.command).Text("result", result).Int("exit_code", code);
  session.printer.Summary(std::move(summary), code != kExitOk, text);
  return code;
}

std::string TimeoutText(const Session& session) {
  char text[64];
  std::snprintf(text, sizeof text, "within %g s", *session.options.timeout);
  return session.interrupted ? "before the interrupt" : text;
}

// Waits until the daemon's bus name has an owner.
bool WaitForDaemon(Session& session) {
  std::unique_lock<std::mutex> lock(session.mutex);
  return session.Wait(lock, [&] { return session.ownerKnown && !session.owner.empty(); });
}

// Waits for the next completed run of `method` after `before` runs; returns
// its error ("" on success) or nullopt when it did not complete in time.
std::optional<std::string> WaitForRun(Session& session, const std::string& method, int before) {
  std::unique_lock<std::mutex> lock(session.mutex);
  if (!session.Wait(lock, [&] { return session.tallies[method].done > before; })) return std::nullopt;
  const Session::Tally& tally = session.tallies[method];
  return tally.failed ? tally.error : "";
}

// Reads the stored profiles; 0 and `profiles` filled, or an exit code.
int ReadStoredProfiles(Session& session, Launcher& launcher, std::vector<Session::Found>& profiles,
                       std::string& message) {
  const std::string method = zv_client::dbus::client::kMethodReadProfiles;
  std::unique_lock<std::mutex> lock(session.mutex);
  const int before = session.tallies[method].done;
  const std::size_t first = session.found.size();
  lock.unlock();
  launcher.ReadProfiles();  // empty at once; the profiles arrive as instance-found callbacks
  lock.lock();
  // Complete once quiet for a moment after the read finished or a profile came.
  const Session::Tally& tally = session.tallies[method];
  auto lastNews = [&] {
    Clock::time_point last = Clock::time_point::min();
    if (tally.done > before) last = tally.at;
    if (session.found.size() > first) last = std::max(last, session.found.back().at);
    return last;
  };
  bool complete = false;
  while (!(tally.done > before && tally.failed)) {
    const Clock::time_point last = lastNews();
    if (last != Clock::time_point::min() && Clock::now() >= last + kProfilesQuiet) {
      complete = true;
      break;
    }
    if (session.Expired()) break;
    const Clock::time_point recheck = last == Clock::time_point::min() ? last.max() : last + kProfilesQuiet;
    session.Wait(lock, [&] { return lastNews() != last; }, recheck);
  }
  std::set<std::pair<int, std::string>> seen;
  for (std::size_t i = first; i < session.found.size(); ++i) {
    if (seen.insert({session.found[i].id, session.found[i].name}).second) profiles.push_back(session.found[i]);
  }
  if (tally.done > before && tally.failed) {
    message = "the daemon answered readProfiles with an error: " + tally.error;
    return kExitFailed;
  }
  if (complete || !profiles.empty()) return kExitOk;
  message = "the stored profiles were not read " + TimeoutText(session);
  return kExitFailed;
}

int RunBroadcast(Session& session, Launcher& launcher) {
  launcher.StartBroadcast(session.options.onlineCheck);
  {
    std::unique_lock<std::mutex> lock(session.mutex);
    session.Wait(lock, [] { return false; });  // until the timeout or a signal
  }
  const int answer = launcher.StopBroadcast();
  std::size_t instances = 0;
  {
    std::lock_guard<std::mutex> lock(session.mutex);
    instances = session.printed.size();
  }
  Event summary = Event("summary").Int("instances", static_cast<std::int64_t>(instances)).Int("answer", answer);
  const std::string found = std::to_string(instances) + (instances == 1 ? " instance" : " instances") + " found";
  if (answer < 0) return Finish(session, std::move(summary), kExitFailed, found + "; stopBroadcast failed");
  return Finish(session, std::move(summary), kExitOk,
                found + "; broadcast stopped, the daemon answered " + std::to_string(answer));
}

int RunProfiles(Session& session, Launcher& launcher) {
  {
    std::lock_guard<std::mutex> lock(session.mutex);
    session.foundLabel = "profile";
  }
  std::vector<Session::Found> profiles;
  std::string message;
  const int code = ReadStoredProfiles(session, launcher, profiles, message);
  Event summary = Event("summary").Int("count", static_cast<std::int64_t>(profiles.size()));
  if (code != kExitOk) return Finish(session, std::move(summary), code, message);
  return Finish(session, std::move(summary), kExitOk,
                profiles.empty() ? "no stored profiles" : std::to_string(profiles.size()) + " stored profile(s)");
}

int RunConnect(Session& session, Launcher& launcher) {
  const int id = session.options.id;
  const std::string method = zv_client::dbus::client::kMethodConnect;
  std::unique_lock<std::mutex> lock(session.mutex);
  const int before = session.tallies[method].done;
  lock.unlock();
  Event summary = Event("summary").Int("id", id);
  if (launcher.Connect(id) < 0) return Finish(session, std::move(summary), kExitFailed, "Connect was refused");

  lock.lock();
  std::optional<bool> available;
  std::optional<int> cancelled;
  const Session::Tally& tally = session.tallies[method];
  session.Wait(lock, [&] {
    for (const auto& connection : session.connections) {
      if (connection.first == id) available = connection.second;
    }
    if (!session.cancellations.empty()) cancelled = session.cancellations.front();
    return available || cancelled || (tally.done > before && tally.failed);
  });
  const std::string error = tally.done > before && tally.failed ? tally.error : "";
  const std::string timeout = TimeoutText(session);
  lock.unlock();

  const std::string subject = "connection to " + std::to_string(id);
  if (available) {
    summary.Bool("available", *available);
    if (*available) return Finish(session, std::move(summary), kExitOk, subject + " available");
    return Finish(session, std::move(summary), kExitFailed, subject + " reported not available");
  }
  if (cancelled) {
    summary.Int("status", *cancelled);
    return Finish(session, std::move(summary), kExitFailed,
                  subject + " cancelled with status " + std::to_string(*cancelled));
  }
  if (!error.empty()) {
    return Finish(session, std::move(summary), kExitFailed, "the daemon answered connect with an error: " + error);
  }
  return Finish(session, std::move(summary), kExitFailed, "no connection-available event for " + std::to_string(id) + " " + timeout);
}

int RunDelete(Session& session, Launcher& launcher) {
  const int id = session.options.id;
  Event summary = Event("summary").Int("id", id);
  auto stored = [id](const std::vector<Session::Found>& profiles) {
    return std::any_of(profiles.begin(), profiles.end(), [id](const Session::Found& p) { return p.id == id; });
  };
  {
    std::lock_guard<std::mutex> lock(session.mutex);
    session.foundLabel.clear();  // the profile lists are only compared
  }
  std::vector<Session::Found> before, after;
  std::string message;
  if (const int code = ReadStoredProfiles(session, launcher, before, message)) {
    return Finish(session, std::move(summary), code, message);
  }
  const std::string method = zv_client::dbus::client::kMethodDeleteStoredProfile;
  int runs = 0;
  {
    std::lock_guard<std::mutex> lock(session.mutex);
    runs = session.tallies[method].done;
  }
  if (launcher.DeleteStoredProfile(id) < 0) return Finish(session, std::move(summary), kExitFailed, "refused");
  const std::optional<std::string> error = WaitForRun(session, method, runs);
  if (!error) return Finish(session, std::move(summary), kExitFailed, "the delete request was not sent " + TimeoutText(session));
  if (!error->empty()) {
    return Finish(session, std::move(summary), kExitFailed, "the daemon answered deleteStoredProfile with an error: " + *error);
  }
  if (const int code = ReadStoredProfiles(session, launcher, after, message)) {
    return Finish(session, std::move(summary), code, message);
  }
  const std::string subject = "stored profile " + std::to_string(id);
  summary.Bool("was_stored", stored(before)).Bool("still_stored", stored(after));
  if (stored(after)) return Finish(session, std::move(summary), kExitFailed, subject + " is still stored");
  if (!stored(before)) return Finish(session, std::move(summary), kExitFailed, "there is no " + subject);
  return Finish(session, std::move(summary), kExitOk, subject + " deleted");
}

int RunStop(Session& session, Launcher& launcher) {
  const std::thread::id self = std::this_thread::get_id();
  {
    // Stop is not held like the other commands: it fails at once unless
    // the library is connected.
    std::unique_lock<std::mutex> lock(session.mutex);
    if (!session.Wait(lock, [&] { return session.libraryReady; })) {
      lock.unlock();
      return Finish(session, Event("summary"), kExitFailed, TimeoutText(session));
    }
    session.answerOnThread.erase(self);
  }
  const int result = launcher.Stop();
  std::optional<int> answer;
  std::string error;
  {
    std::lock_guard<std::mutex> lock(session.mutex);
    if (session.answerOnThread.count(self) != 0) answer = session.answerOnThread[self];
    if (session.errorOnThread.count(self) != 0) error = session.errorOnThread[self];
  }
  Event summary("summary");
  if (answer) summary.Int("answer", *answer);
  if (result < 0) return Finish(session, std::move(summary), kExitFailed, "deinit failed: " + error);
  if (!answer) return Finish(session, std::move(summary), kExitOk, "stopped; the daemon's answer was not seen");
  const std::string text = "the daemon answered deinit with " + std::to_string(*answer);
  return Finish(session, std::move(summary), *answer < 0 ? kExitFailed : kExitOk, text);
}

int RunMonitor(Session& session) {
  {
    std::lock_guard<std::mutex> lock(session.mutex);
    session.dedupe = false;
  }
  for (;;) {
    Launcher launcher;
    session.Attach(launcher);
    if (launcher.Init() != 0) return Finish(session, Event("summary"), kExitFailed, "Init failed");
    std::unique_lock<std::mutex> lock(session.mutex);
    std::string connectedTo = session.owner;
    // A client that lost the daemon reconnects only on its next command, and
    // a monitor sends none: when the name passes to a new owner, start over.
    const bool restarted = session.Wait(lock, [&] {
      if (session.owner.empty()) return false;
      if (connectedTo.empty()) connectedTo = session.owner;  // first owner: the client connects by itself
      return session.owner != connectedTo;
    });
    if (!restarted) break;
  }
  std::size_t events = 0;
  {
    std::lock_guard<std::mutex> lock(session.mutex);
    events = session.events;
  }
  return Finish(session, Event("summary").Int("events", static_cast<std::int64_t>(events)), kExitOk,
                std::to_string(events) + " event(s)");
}

int RunCommand(Session& session) {
  const std::string& command = session.options.command;
  if (command == "monitor") return RunMonitor(session);
  if (!WaitForDaemon(session)) {
    return Finish(session, Event("summary"), kExitUnreachable,
                  zv_client::dbus::client::kBusName + " had no owner on the bus " + TimeoutText(session));
  }
  Launcher launcher;
  session.Attach(launcher);
  if (launcher.Init() != 0) return Finish(session, Event("summary"), kExitFailed, "Init failed");
  if (command == "broadcast") return RunBroadcast(session, launcher);
  if (command == "profiles") return RunProfiles(session, launcher);
  if (command == "connect") return RunConnect(session, launcher);
  if (command == "delete") return RunDelete(session, launcher);
  return RunStop(session, launcher);
}

gboolean OnSignal(gpointer data) {
  auto* session = static_cast<Session*>(data);
  // The first signal ends the command as its timeout would; a second one
  // ends the process at once (e.g. during a Stop the daemon does not answer).
  if (session->interrupted) std::_Exit(kExitFailed);
  session->Notify([session] { session->interrupted = true; });
  return G_SOURCE_CONTINUE;
}

gboolean QuitLoop(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_REMOVE;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  const std::string error = ParseOptions(argc, argv, options);
  if (options.help) {
    std::fputs(kUsage, stdout);
    return kExitOk;
  }
  if (!error.empty()) {
    std::fprintf(stderr, "zorvelctl: %s\nTry 'zorvelctl --help' for more information.\n", error.c_str());
    return kExitUsage;
  }
  if (!options.timeout) options.timeout = options.command == "monitor" ? 0 : options.command == "broadcast" ? 3 : 10;

  Printer printer(options.json);
  Session session(options, printer);
  if (*options.timeout > 0) {
    session.deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                          std::chrono::duration<double>(*options.timeout));
  }

  // zorvelctl's own connection to the bus, to tell "no daemon" from "no
  // event" without disturbing the library's connection.
  using zv_client::common::GCharPtr;
  using zv_client::common::GErrorPtr;
  using zv_client::common::GObjectPtr;
  GError* rawError = nullptr;
  GCharPtr address(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &rawError));
  GObjectPtr<GDBusConnection> bus;
  if (address) {
    bus.reset(g_dbus_connection_new_for_address_sync(
        address.get(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &rawError));
  }
  GErrorPtr busError(rawError);
  if (!bus) {
    return Finish(session, Event("summary"), kExitUnreachable,
                  std::string("the system bus is not reachable: ") + (busError ? busError->message : "?"));
  }

  zv_client::platform::SetLogSink([&session](zv_client::platform::LogBuffer, zv_client::platform::LogPriority priority,
                                             const char* tag, const char* text) {
    if (session.options.verbose) {
      const char level = priority == zv_client::platform::LogPriority::kError     ? 'E'
                         : priority == zv_client::platform::LogPriority::kWarning ? 'W'
                                                                                   : 'I';
      std::fprintf(stderr, "%c %s: %s\n", level, tag, text);
    }
    session.OnLibraryLine(text);
  });

  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  const guint watch = g_bus_watch_name_on_connection(
      bus.get(), zv_client::dbus::client::kBusName.c_str(), G_BUS_NAME_WATCHER_FLAGS_NONE,
      [](GDBusConnection*, const gchar*, const gchar* owner, gpointer data) {
        static_cast<Session*>(data)->OnOwner(owner);
      },
      [](GDBusConnection*, const gchar*, gpointer data) { static_cast<Session*>(data)->OnOwner(nullptr); }, &session,
      nullptr);
  const guint onInt = g_unix_signal_add(SIGINT, OnSignal, &session);
  const guint onTerm = g_unix_signal_add(SIGTERM, OnSignal, &session);

  int code = kExitFailed;
  std::thread worker([&] {
    code = RunCommand(session);
    // Quit from inside the loop: a quit before g_main_loop_run would be lost.
    g_idle_add(QuitLoop, loop);
  });
  g_main_loop_run(loop);
  worker.join();

  g_source_remove(onInt);
  g_source_remove(onTerm);
  g_bus_unwatch_name(watch);
  zv_client::platform::SetLogSink({});
  g_main_loop_unref(loop);
  return code;
}
