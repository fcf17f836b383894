#include "Session.h"

#include <gio/gio.h>
#include <glib-unix.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include <common/BusConnection.h>
#include <common/GLibPtr.h>
#include <dbus/client/ServiceContract.h>
#include <platform/SystemLog.h>

namespace zorvelctl {
namespace {

using zv_client::dbus::client::kBusName;

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

  // zorvelctl's own connection to the bus, to tell "no bus" and "no daemon"
  // from "no event" without touching the library's connection.
  using zv_client::common::GCharPtr;
  using zv_client::common::GErrorPtr;
  using zv_client::common::GObjectPtr;
  // The address GLib itself would use: the one named in any message.
  GError* rawError = nullptr;
  GCharPtr address(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &rawError));
  GObjectPtr<GDBusConnection> bus;
  if (address) {
    address_ = address.get();
    bus = zv_client::common::OpenPrivateBusConnection(address_, &rawError);
  }
  GErrorPtr busError(rawError);
  if (!bus) {
    return Finish(Event("summary"), kExitUnreachable,
                  "the system bus at " + address_ + " is not reachable (set DBUS_SYSTEM_BUS_ADDRESS): " +
                      (busError ? busError->message : "unknown error"));
  }

  // Without --verbose the library's lines go to the system log, as they do
  // for any application.
  if (options_.verbose) zv_client::platform::SetLogSink(PrintLogLine);

  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  const guint watch = g_bus_watch_name_on_connection(
      bus.get(), kBusName.c_str(), G_BUS_NAME_WATCHER_FLAGS_NONE,
      [](GDBusConnection*, const gchar*, const gchar* owner, gpointer self) {
        static_cast<Session*>(self)->OnOwner(owner);
      },
      [](GDBusConnection*, const gchar*, gpointer self) { static_cast<Session*>(self)->OnOwner(nullptr); }, this,
      nullptr);
  auto onSignal = [](gpointer self) {
    static_cast<Session*>(self)->OnSignal();
    return gboolean{G_SOURCE_CONTINUE};
  };
  const guint onInt = g_unix_signal_add(SIGINT, onSignal, this);
  const guint onTerm = g_unix_signal_add(SIGTERM, onSignal, this);

  int code = kExitFailed;
  std::thread worker([&] {
    {
      // Destroyed before the loop quits: its teardown may still need it.
      Launcher launcher;
      code = Work(launcher);
    }
    // Quit from inside the loop: a quit before g_main_loop_run would be lost.
    g_idle_add(QuitLoop, loop);
  });
  g_main_loop_run(loop);
  worker.join();

  g_source_remove(onInt);
  g_source_remove(onTerm);
  g_bus_unwatch_name(watch);
  if (options_.verbose) zv_client::platform::SetLogSink({});
  g_main_loop_unref(loop);
  return code;
}

int Session::Work(Launcher& launcher) {
  if (plan_.waitForDaemon && !Wait([](const Reports& reports) { return !reports.owner.empty(); })) {
    return Finish(Event("summary"), kExitUnreachable,
                  kBusName + " had no owner on the system bus at " + address_ + " " + TimeoutText());
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
    printer_.Print(held);
  });
}

void Session::OnOwner(const char* owner) {
  Record([&](Reports& reports) {
    reports.owner = owner != nullptr ? owner : "";
    if (plan_.showOwner) printer_.Print(Event("daemon-owner").Text("owner", reports.owner));
  });
}

void Session::OnSignal() {
  // The first signal ends the command as its timeout would; a second one
  // ends the process at once (e.g. during a Stop the daemon does not answer).
  if (interrupted_) std::_Exit(kExitFailed);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    interrupted_ = true;
  }
  changed_.notify_all();
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
  {
    std::lock_guard<std::mutex> lock(mutex_);
    finished_ = true;
  }
  const char* result = code == kExitOk ? "ok" : code == kExitUnreachable ? "unreachable" : "failed";
  summary.Text("command", options_.command).Text("result", result).Int("exit_code", code);
  printer_.Summary(std::move(summary), code != kExitOk, message);
  return code;
}

}  // namespace zorvelctl
