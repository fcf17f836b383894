#include "Session.h"

#include <gio/gio.h>
#include <glib-unix.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include <zorvel/common/BusConnection.h>
#include <zorvel/common/GLibPtr.h>
#include <zorvel/dbus/client/ServiceContract.h>
#include <zorvel/platform/SystemLog.h>

namespace zorvelctl {
namespace {

using zv_client::dbus::client::kBusName;

using zv_client::common::GErrorPtr;
using zv_client::common::GMainLoopPtr;
using zv_client::common::GObjectPtr;

// How long the worker has to end a command after the first SIGINT/SIGTERM;
// more than StopBroadcast's own 500 ms wait, which a broadcast still does.
constexpr std::chrono::milliseconds kInterruptGrace(1000);

// Ends the process once the summary is out, skipping the Launcher's
// destructor and every static destructor. After an interrupt they may wait:
// the destructor for commands in flight (a grace period, then their
// cancellation) and for a Stop the daemon never answers. The user asked for
// an end, not a tidy teardown; the daemon sees the connection close either
// way. Output is flushed first, since _Exit does not.
[[noreturn]] void ExitNow(int code) {
  std::fflush(stdout);
  std::fflush(stderr);
  std::_Exit(code);
}

gboolean QuitLoop(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_REMOVE;
}

// The library's log lines, for people: --verbose shows them on stderr.
void PrintLogLine(zv_client::platform::LogBuffer, zv_client::platform::LogPriority priority, const char* tag,
                  const char* text) {
  using zv_client::platform::LogPriority;
  const char level = priority == LogPriority::kError ? 'E' : priority == LogPriority::kWarning ? 'W' : 'I';
  std::fprintf(stderr, "%c %s: %s\n", level, tag, text);
}

}  // namespace

int Session::Run(Plan plan) {
  plan_ = std::move(plan);
  if (*options_.timeout > 0) {
    deadline_ =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(*options_.timeout));
  }
  GObjectPtr<GDBusConnection> bus;
  if (const std::string problem = OpenBus(bus); !bus) {
    return Finish(Event("summary"), kExitUnreachable,
                  "the system bus at " + address_ + " is not reachable (set DBUS_SYSTEM_BUS_ADDRESS): " + problem);
  }
  // Without --verbose the library's lines go to the system log, as they do
  // for any application.
  if (options_.verbose) zv_client::platform::SetLogSink(PrintLogLine);
  const int code = RunLoop(bus.get());
  if (options_.verbose) zv_client::platform::SetLogSink({});
  return code;
}

// zorvelctl's own connection to the bus, to tell "no bus" and "no daemon"
// from "no event" without touching the library's connection. Returns what
// went wrong when `bus` stays empty.
std::string Session::OpenBus(GObjectPtr<GDBusConnection>& bus) {
  // The address GLib itself would use: the one named in any message.
  GError* rawError = nullptr;
  bus = zv_client::common::OpenPrivateSystemBusConnection(address_, &rawError);
  GErrorPtr error(rawError);
  return error ? error->message : "unknown error";
}

// Runs the main loop while the worker runs the command; returns its exit code.
int Session::RunLoop(GDBusConnection* bus) {
  const GMainLoopPtr loop(g_main_loop_new(nullptr, FALSE));
  const guint watch = g_bus_watch_name_on_connection(
      bus, kBusName.c_str(), G_BUS_NAME_WATCHER_FLAGS_NONE,
      [](GDBusConnection*, const gchar*, const gchar* owner, gpointer self) {
        static_cast<Session*>(self)->OnOwner(owner);
      },
      [](GDBusConnection*, const gchar*, gpointer self) { static_cast<Session*>(self)->OnOwner(nullptr); }, this,
      nullptr);
  const guint onInt = g_unix_signal_add(
      SIGINT,
      [](gpointer self) {
        static_cast<Session*>(self)->OnSignal(SIGINT);
        return gboolean{G_SOURCE_CONTINUE};
      },
      this);
  const guint onTerm = g_unix_signal_add(
      SIGTERM,
      [](gpointer self) {
        static_cast<Session*>(self)->OnSignal(SIGTERM);
        return gboolean{G_SOURCE_CONTINUE};
      },
      this);

  int code = kExitFailed;
  std::thread worker([&] {
    {
      // Destroyed before the loop quits: its teardown may still need it.
      Launcher launcher;
      code = Work(launcher);
      // The summary is out; an interrupted run does not wait for the
      // Launcher's teardown (see ExitNow).
      if (interrupted_) ExitNow(code);
    }
    // Quit from inside the loop: a quit before g_main_loop_run would be lost.
    g_idle_add(QuitLoop, loop.get());
  });
  g_main_loop_run(loop.get());
  worker.join();

  g_source_remove(onInt);
  g_source_remove(onTerm);
  g_bus_unwatch_name(watch);
  return code;
}

int Session::Work(Launcher& launcher) {
  bool ownerKnown = false;
  if (plan_.waitForDaemon && !Wait([&ownerKnown](const Reports& reports) {
        ownerKnown = reports.ownerKnown;
        return !reports.owner.empty();
      })) {
    // Until the name watch has reported, nothing is known about an owner: a
    // short timeout can end the wait before the bus has answered.
    return Finish(Event("summary"), kExitUnreachable,
                  ownerKnown ? kBusName + " had no owner on the system bus at " + address_ + " " + TimeoutText()
                             : "the system bus at " + address_ + " did not tell whether " + kBusName +
                                   " has an owner " + TimeoutText());
  }
  Attach(launcher);
  if (launcher.Init() != 0) return Finish(Event("summary"), kExitFailed, "the library's Init failed");
  return plan_.run(*this, launcher);
}

void Session::Attach(Launcher& launcher) {
  launcher.SetOnInstanceFoundCallback([this](int id, const std::string& name) {
    Record([&](Reports& reports) {
      ++reports.events;
      const bool first = reports.instances.insert({id, name}).second;
      if (plan_.found == FoundLines::kEvery || (plan_.found == FoundLines::kOncePerInstance && first)) {
        printer_.Print(Event("instance-found").Int("id", id).Text("name", name));
      }
    });
  });
  launcher.SetOnConnectionAvailable([this](int id, bool available) {
    Record([&](Reports& reports) {
      ++reports.events;
      reports.connections.emplace_back(id, available);
      printer_.Print(Event("connection-available").Int("id", id).Bool("available", available));
    });
  });
  launcher.SetOnCancelConnectionCallback([this](int status) {
    Record([&](Reports& reports) {
      ++reports.events;
      reports.cancellations.push_back(status);
      printer_.Print(Event("connection-cancelled").Int("status", status));
    });
  });
  launcher.SetOnCommandOutcome([this](const CommandOutcome& outcome) { OnOutcome(outcome); });
  launcher.SetOnLinkState([this](const zv_client::zorvel::LinkStatus& status) {
    Record([&](Reports& reports) {
      reports.link = status;
      if (!plan_.showOwner) return;
      Event link("link-state");
      link.Text("state", zv_client::zorvel::LinkStateName(status.state)).Text("reason", status.text);
      if (!status.busAddress.empty()) link.Text("bus", status.busAddress);
      printer_.Print(link);
    });
  });
}

void Session::OnOutcome(const CommandOutcome& outcome) {
  Record([&](Reports& reports) {
    if (outcome.final) {
      reports.ended[outcome.id] = outcome;
      return;
    }
    // Held until the library is connected to the daemon; its final outcome follows.
    reports.held.insert(outcome.id);
    Event held("command-held");
    held.Text("method", outcome.method);
    if (outcome.argument) held.Int("argument", *outcome.argument);
    // Why: the link as last told (the first state may still be on its way
    // to the main loop when a command issued at once is held).
    held.Text("why", reports.link ? reports.link->text : "the library is connecting to the daemon");
    printer_.Print(held);
  });
}

void Session::OnOwner(const char* owner) {
  Record([&](Reports& reports) {
    reports.owner = owner != nullptr ? owner : "";
    reports.ownerKnown = true;
    if (plan_.showOwner) printer_.Print(Event("daemon-owner").Text("owner", reports.owner));
  });
}

// On the main-loop thread. The first signal wakes the worker, which ends the
// command as its timeout would, but with the signal's exit status; the
// worker is given kInterruptGrace for that. A second signal, a worker
// inside a call that waits for the daemon, or one whose summary is out
// already (it is tearing the Launcher down) end the process at once.
void Session::OnSignal(int signal) {
  bool now = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    now = interrupted_ || finished_ || !calling_.empty();
    if (!interrupted_) {
      signal_ = signal;
      interrupted_ = true;
    }
  }
  if (now) Abandon();
  changed_.notify_all();
  g_timeout_add(
      static_cast<guint>(kInterruptGrace.count()),
      [](gpointer self) -> gboolean { static_cast<Session*>(self)->Abandon(); }, this);
}

void Session::Abandon() {
  // Held until the process ends: nothing is printed after the summary.
  std::lock_guard<std::mutex> lock(mutex_);
  if (!finished_) {
    const std::string message =
        calling_.empty() ? "interrupted" : "interrupted while " + calling_ + " waited for the daemon's answer";
    PrintSummary(Event("summary"), InterruptedExit(signal_), message);
  }
  ExitNow(code_);
}

void Session::Calling(const std::string& subject, const std::function<void()>& call) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    calling_ = subject;
  }
  call();
  std::lock_guard<std::mutex> lock(mutex_);
  calling_.clear();
}

// Once the summary is out the run is over: nothing is recorded or printed.
void Session::Record(const std::function<void(Reports&)>& update) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (finished_) return;
    update(reports_);
  }
  changed_.notify_all();
}

bool Session::Wait(const std::function<bool(const Reports&)>& done, Clock::time_point until) {
  const Clock::time_point end = std::min(until, deadline_);
  std::unique_lock<std::mutex> lock(mutex_);
  while (!done(reports_)) {
    if (interrupted_ || Clock::now() >= end) return false;
    if (end == Clock::time_point::max()) {
      changed_.wait(lock);
    } else {
      changed_.wait_until(lock, end);
    }
  }
  return true;
}

std::optional<CommandOutcome> Session::AwaitOutcome(CommandId command) {
  std::optional<CommandOutcome> outcome;
  Wait([&](const Reports& reports) {
    const auto ended = reports.ended.find(command);
    if (ended != reports.ended.end()) outcome = ended->second;
    return outcome.has_value();
  });
  return outcome;
}

Reports Session::Snapshot() {
  std::lock_guard<std::mutex> lock(mutex_);
  return reports_;
}

std::string Session::TimeoutText() const {
  char text[64];
  std::snprintf(text, sizeof text, "within %g s", *options_.timeout);
  return interrupted_ ? "before the interrupt" : text;
}

int Session::Finish(Event summary, int code, const std::string& message) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!interrupted_) return PrintSummary(std::move(summary), code, message);
  // The command ended because of the signal (or just as it came): it is
  // reported as interrupted, whatever the command made of its ending.
  return PrintSummary(std::move(summary), InterruptedExit(signal_),
                      code == kExitOk ? "interrupted: " + message : message);
}

int Session::PrintSummary(Event summary, int code, const std::string& message) {
  finished_ = true;
  code_ = code;
  summary.Text("command", options_.command).Text("result", ResultName(code)).Int("exit_code", code);
  printer_.Summary(std::move(summary), code != kExitOk, message);
  return code;
}

}  // namespace zorvelctl
