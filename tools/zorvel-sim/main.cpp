// zorvel-sim: command line, signals and main loop around the Simulator.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <glib-unix.h>

#include <zorvel/Version.h>
#include <zorvel/platform/SystemLog.h>

#include "Simulator.h"

namespace {

using zv_client::common::GCharPtr;
using zv_client::common::GErrorPtr;
using zv_client::common::GMainLoopPtr;
using zv_client::common::GStrvPtr;
using zv_client::common::SessionProfile;

constexpr char kDescription[] =
    "Plays the zorvel daemon on a bus: owns \"zorvel.dbus.service\" and serves\n"
    "\"dbus.zorvel.Interface\" on \"/zorvel/dbus/service\":\n"
    "  init () -> (i), startBroadcast (i) -> (i), stopBroadcast () -> (i),\n"
    "  connect (i) -> (i), deinit () -> (i), readProfiles () -> profile list,\n"
    "  deleteStoredProfile (i) -> (i)\n"
    "The integer answers are 0, except deleteStoredProfile: 0 when the profile\n"
    "existed (it is removed), -1 otherwise. startBroadcast emits one onFound per\n"
    "instance every interval until stopBroadcast; connect(id) answers, then emits\n"
    "onConnectionAvailable (id, 1) unless its answer was set to non-zero.\n"
    "\n"
    "Control: \"zorvel.sim\" serves \"zorvel.sim.Control\" on \"/zorvel/sim\" from\n"
    "a connection of its own that stays up across restarts of the daemon's name.\n"
    "METHOD below is one of the seven daemon methods.\n"
    "  Emit (s member, v body)           the daemon's name emits signal member;\n"
    "                                    a body that is not a tuple is wrapped\n"
    "  EmitAs (s member, v body, s dest) the same from the control connection,\n"
    "                                    which does not own the daemon's name;\n"
    "                                    dest \"\" broadcasts\n"
    "  SetAnswer (s METHOD, i value)     integer answer from now on\n"
    "  SetReply (s METHOD, v body)       reply with exactly this body from now\n"
    "                                    on, any type (wins over SetAnswer)\n"
    "  SetError (s METHOD, (ss) error)   answer with the D-Bus error (name,\n"
    "                                    message) from now on (wins over both)\n"
    "  ClearReply (s METHOD)             drop the SetReply body and SetError\n"
    "  SetDelay (s METHOD, u ms)         answer after ms milliseconds (0: at once)\n"
    "  SetNoReply (s METHOD, b never)    never answer; held calls are dropped\n"
    "                                    on the next release of the name\n"
    "  GetCalls () -> a(tssv)            calls received: sequence (from 1, never\n"
    "                                    reset), method, sender, arguments\n"
    "  ClearCalls ()\n"
    "  ReleaseName ()                    close the service connection\n"
    "  AcquireName () -> s               own the name on a new connection, return\n"
    "                                    its unique name (the current one if owned)\n"
    "  Restart () -> s                   ReleaseName, then AcquireName\n"
    "  GetOwner () -> s                  \"\" while released\n"
    "  SetProfiles (a(is)), GetProfiles () -> a(is), SetInstances (a(is)),\n"
    "  SetInterval (u ms), Quit ()\n"
    "  signal CallReceived (t sequence, s method, v arguments)\n"
    "\n"
    "The arguments of a call without any show as <@av []>: D-Bus has no empty\n"
    "tuple; likewise a body <@av []> given to Emit or SetReply is sent as an\n"
    "empty body. A body that is not a tuple travels as a one-element tuple.\n"
    "GetProfiles replaces bytes that are not UTF-8 (possible in names\n"
    "given with --profile); readProfiles always carries the raw bytes.\n"
    "\n"
    "After StopBroadcast or the onDbusClosing event, a client holds its commands\n"
    "until the daemon's name passes to a new owner: call Restart (or ReleaseName\n"
    "then AcquireName), or stop and start the sim. zorvelctl monitor shows the\n"
    "client's link state as it changes.\n"
    "\n"
    "Examples, with DBUS_SYSTEM_BUS_ADDRESS set to the bus the sim is on:\n"
    "  C='gdbus call --system --dest zorvel.sim --object-path /zorvel/sim'\n"
    "  $C --method zorvel.sim.Control.Restart\n"
    "  $C --method zorvel.sim.Control.SetReply readProfiles '<(42,)>'\n"
    "  $C --method zorvel.sim.Control.SetNoReply deinit true\n"
    "  $C --method zorvel.sim.Control.Emit onDbusClosing '<(0,)>'\n"
    "  $C --method zorvel.sim.Control.EmitAs onFound \"<(b'QQ==', @q 7)>\" ''\n"
    "  $C --method zorvel.sim.Control.GetCalls\n"
    "  gdbus call --system --dest zorvel.dbus.service \\\n"
    "    --object-path /zorvel/dbus/service --method dbus.zorvel.Interface.init\n"
    "\n"
    "Exit status: 0 after SIGINT, SIGTERM, Quit or the loss of the bus;\n"
    "1 when the bus or the names cannot be had; 2 for bad options.";

// "ID:NAME", NAME being any bytes (it may hold ':' too). Returns what is
// wrong with `text`, "" when `entry` is filled.
std::string ParseEntry(const char* text, SessionProfile& entry) {
  const char* colon = std::strchr(text, ':');
  if (colon == nullptr || colon == text) return "expects ID:NAME with a decimal ID";
  const std::string id(text, colon);
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(id.c_str(), &end, 10);
  if (*end != '\0') return "expects ID:NAME with a decimal ID";
  // strtol clamps what does not fit a long and says so in errno.
  if (errno == ERANGE || value < G_MININT32 || value > G_MAXINT32) {
    return "has an ID out of range (" + std::to_string(G_MININT32) + " to " + std::to_string(G_MAXINT32) + ")";
  }
  entry.id = static_cast<int>(value);
  entry.name = colon + 1;
  return "";
}

bool ParseEntries(gchar** texts, const char* option, std::vector<SessionProfile>& entries) {
  for (gchar** text = texts; text != nullptr && *text != nullptr; ++text) {
    SessionProfile entry;
    if (const std::string problem = ParseEntry(*text, entry); !problem.empty()) {
      std::fprintf(stderr, "zorvel-sim: %s %s: '%s'\n", option, problem.c_str(), *text);
      return false;
    }
    entries.push_back(std::move(entry));
  }
  return true;
}

// Fills `options`; returns -1 to run, otherwise the exit status.
int ParseOptions(int argc, char** argv, zv_sim::Options& options) {
  gchar* address = nullptr;
  gchar** profiles = nullptr;
  gchar** instances = nullptr;
  gint interval = 200;
  gboolean quiet = FALSE;
  gboolean help = FALSE;
  gboolean version = FALSE;
  // FILENAME arrays keep the raw bytes: names need not be in the locale's encoding.
  const GOptionEntry entries[] = {
      {"address", 'a', 0, G_OPTION_ARG_STRING, &address,
       "Bus address (default: the system bus, i.e. DBUS_SYSTEM_BUS_ADDRESS)", "ADDR"},
      {"profile", 'p', 0, G_OPTION_ARG_FILENAME_ARRAY, &profiles, "A stored profile (repeatable; default none)",
       "ID:NAME"},
      {"instance", 'i', 0, G_OPTION_ARG_FILENAME_ARRAY, &instances,
       "An instance found while broadcasting (repeatable; default 101:\"Kitchen speaker\" and "
       "102:\"Hall display\")",
       "ID:NAME"},
      {"interval", 0, 0, G_OPTION_ARG_INT, &interval, "Broadcast interval in milliseconds (default 200)", "MS"},
      {"quiet", 'q', 0, G_OPTION_ARG_NONE, &quiet, "Print nothing on stdout", nullptr},
      {"help", 'h', 0, G_OPTION_ARG_NONE, &help, "Show this help", nullptr},
      {"version", 0, 0, G_OPTION_ARG_NONE, &version, "Print the version and exit", nullptr},
      {}};
  g_autoptr(GOptionContext) context = g_option_context_new("- simulated zorvel daemon");
  g_option_context_add_main_entries(context, entries, nullptr);
  g_option_context_set_description(context, kDescription);
  // Handled here rather than by GLib, which would exit() from inside the parser.
  g_option_context_set_help_enabled(context, FALSE);

  int status = -1;
  GError* raw = nullptr;
  const bool parsed = g_option_context_parse(context, &argc, &argv, &raw);
  // What the parser stored is ours (a failed parse leaves the defaults).
  const GCharPtr addressOwned(address);
  const GStrvPtr profilesOwned(profiles), instancesOwned(instances);
  if (!parsed) {
    GErrorPtr error(raw);
    std::fprintf(stderr, "zorvel-sim: %s\nTry 'zorvel-sim --help'.\n", error->message);
    status = 2;
  } else if (help) {
    GCharPtr text(g_option_context_get_help(context, TRUE, nullptr));
    std::fputs(text.get(), stdout);
    status = 0;
  } else if (version) {
    std::printf("zorvel-sim %s\n", zv_client::zorvel::Version());
    status = 0;
  } else if (argc > 1) {
    std::fprintf(stderr, "zorvel-sim: unexpected argument '%s'\nTry 'zorvel-sim --help'.\n", argv[1]);
    status = 2;
  } else if (interval <= 0) {
    std::fprintf(stderr, "zorvel-sim: --interval must be at least 1 ms\n");
    status = 2;
  } else if (!ParseEntries(profiles, "--profile", options.profiles) ||
             !ParseEntries(instances, "--instance", options.instances)) {
    status = 2;
  } else {
    if (address != nullptr) options.address = address;
    if (instances == nullptr) options.instances = {{"Kitchen speaker", 101}, {"Hall display", 102}};
    options.intervalMs = static_cast<guint>(interval);
    options.quiet = quiet != FALSE;
  }
  return status;
}

gboolean OnQuitSignal(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_CONTINUE;
}

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);  // whoever reads our log sees each line at once
  zv_sim::Options options;
  const int status = ParseOptions(argc, argv, options);
  if (status >= 0) return status;

  // The payload helpers write to the system log; this program's log is stdout.
  zv_client::platform::SetLogSink(
      [](zv_client::platform::LogBuffer, zv_client::platform::LogPriority, const char*, const char*) {});
  const GMainLoopPtr owned(g_main_loop_new(nullptr, FALSE));
  GMainLoop* const loop = owned.get();
  int exitStatus = 0;
  {
    zv_sim::Simulator simulator(std::move(options), loop);
    GError* raw = nullptr;
    if (simulator.Start(&raw)) {
      const guint sigint = g_unix_signal_add(SIGINT, &OnQuitSignal, loop);
      const guint sigterm = g_unix_signal_add(SIGTERM, &OnQuitSignal, loop);
      g_main_loop_run(loop);
      g_source_remove(sigint);
      g_source_remove(sigterm);
    } else {
      GErrorPtr error(raw);
      std::fprintf(stderr, "zorvel-sim: %s\n", error ? error->message : "start failed");
      exitStatus = 1;
    }
  }
  zv_client::platform::SetLogSink(nullptr);
  return exitStatus;
}
