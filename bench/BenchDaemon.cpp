// zorvel-bench-daemon: a lean stand-in for the zorvel daemon, for the
// benchmarks only. It answers every method at once (unless told to wait, see
// SetDelay) and echoes connect and startBroadcast to the caller as the signal
// the application waits for, so the daemon's share of a round trip is small
// and the same for every client that calls it. The simulator is not used
// here because its own per-call work (call records, control signals, log
// lines) would blur the client's cost.
//
// Service (owned by a connection that can be closed and reopened, so the name
// gets a new owner the way a restarted daemon's does):
//   connect(i id)      -> (i) 0, after onConnectionAvailable (id, 1) to the caller
//   startBroadcast(i)  -> (i) 0, after onFound to the caller: name = the
//                          CLOCK_MONOTONIC time (ns, decimal text) at which the
//                          call arrived, number = a 16-bit sequence number
//   readProfiles()     -> the profile list payload of the stored profiles
//   every other method -> (i) 0
// Echoes are sent to the caller only, so a client never pays for the echoes
// of another client sharing the bus.
//
// With a delay set, each call is answered (and echoed) that long after it
// arrived, every call on its own timer, so the daemon stays free meanwhile.
//
// Control ("zorvel.bench" on /zorvel/bench, a connection of its own that stays
// up across name restarts):
//   SetProfiles(u count)        stores profiles 1..count
//   SetDelay(u ms)              answers later calls after `ms` (0: at once)
//   Emit(s destination) -> t    onFound to `destination` from the service
//                               connection; name = the emission time (ns)
//   ReleaseName()               closes the service connection
//   AcquireName() -> t          a new service connection owns the name; the
//                               time (ns) at which the bus granted it
//   Quit()

#include <getopt.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gio/gio.h>
#include <glib-unix.h>

#include <zorvel/common/BusConnection.h>
#include <zorvel/common/GLibPtr.h>
#include <zorvel/common/GLibUtils.h>
#include <zorvel/dbus/client/ServiceContract.h>

#include "Timing.h"

namespace {

using zv_client::common::GErrorPtr;
using zv_client::common::GObjectPtr;
using zv_client::common::GVariantPtr;
using zv_client::common::SessionProfile;
using zv_client::common::SinkVariant;
namespace contract = zv_client::dbus::client;
// zorvel-bench's own clock, which compares our timestamps with its own.
using zv_bench::NowNs;

constexpr char kControlName[] = "zorvel.bench";
constexpr char kControlPath[] = "/zorvel/bench";
constexpr char kControlXml[] = R"xml(
<node>
  <interface name="zorvel.bench.Control">
    <method name="SetProfiles"><arg name="count" type="u" direction="in"/></method>
    <method name="SetDelay"><arg name="ms" type="u" direction="in"/></method>
    <method name="Emit">
      <arg name="destination" type="s" direction="in"/>
      <arg name="emitted" type="t" direction="out"/>
    </method>
    <method name="ReleaseName"/>
    <method name="AcquireName"><arg name="owned" type="t" direction="out"/></method>
    <method name="Quit"/>
  </interface>
</node>)xml";

// The daemon's methods with the reply types GDBus checks our answers against.
constexpr char kServiceXml[] = R"xml(
<node>
  <interface name="dbus.zorvel.Interface">
    <method name="init"><arg type="i" direction="out"/></method>
    <method name="startBroadcast"><arg type="i" direction="in"/><arg type="i" direction="out"/></method>
    <method name="stopBroadcast"><arg type="i" direction="out"/></method>
    <method name="connect"><arg type="i" direction="in"/><arg type="i" direction="out"/></method>
    <method name="deinit"><arg type="i" direction="out"/></method>
    <method name="readProfiles"><arg type="r" direction="out"/></method>
    <method name="deleteStoredProfile"><arg type="i" direction="in"/><arg type="i" direction="out"/></method>
  </interface>
</node>)xml";

struct Daemon {
  std::string address;
  zv_client::common::GMainLoopPtr loop;
  zv_client::common::GDBusNodeInfoPtr serviceNode;
  zv_client::common::GDBusNodeInfoPtr controlNode;
  GObjectPtr<GDBusConnection> control;
  GObjectPtr<GDBusConnection> service;
  guint serviceObject = 0;
  GVariantPtr profilesReply;  // built once per SetProfiles: replies only serialise it
  guint16 sequence = 0;
  guint32 delayMs = 0;  // how long after its arrival a call is answered
};

// A call whose answer waits for the delay.
struct DelayedCall {
  Daemon* daemon;
  GDBusMethodInvocation* invocation;  // ours until answered
  std::uint64_t arrived;
};

bool RequestName(GDBusConnection* connection, const char* name, GError** error) {
  constexpr guint32 kDoNotQueue = 4;
  constexpr guint32 kPrimaryOwner = 1;
  GVariantPtr reply(g_dbus_connection_call_sync(
      connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
      g_variant_new("(su)", name, kDoNotQueue), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, error));
  if (!reply) return false;
  guint32 result = 0;
  g_variant_get(reply.get(), "(u)", &result);
  if (result == kPrimaryOwner) return true;
  g_set_error(error, G_IO_ERROR, G_IO_ERROR_EXISTS, "%s is owned by another connection", name);
  return false;
}

void Emit(GDBusConnection* connection, const char* destination, const std::string& member, GVariant* body) {
  g_dbus_connection_emit_signal(connection, destination, contract::kObjectPath.c_str(),
                                contract::kInterfaceName.c_str(), member.c_str(), body, nullptr);
}

// Echoes and answers `invocation`, which arrived at `arrived`.
void Answer(Daemon& daemon, GDBusMethodInvocation* invocation, std::uint64_t arrived) {
  GDBusConnection* connection = g_dbus_method_invocation_get_connection(invocation);
  const gchar* sender = g_dbus_method_invocation_get_sender(invocation);
  const gchar* method = g_dbus_method_invocation_get_method_name(invocation);
  GVariant* parameters = g_dbus_method_invocation_get_parameters(invocation);
  if (contract::kMethodConnect == method) {
    gint32 id = 0;
    g_variant_get(parameters, "(i)", &id);
    Emit(connection, sender, contract::kSignalOnConnectionAvailable,
         g_variant_new("(qq)", static_cast<guint16>(id), static_cast<guint16>(1)));
  } else if (contract::kMethodStartBroadcast == method) {
    Emit(connection, sender, contract::kSignalOnFound,
         zv_client::common::SerializeIntoGVariant(std::to_string(arrived), daemon.sequence++));
  } else if (contract::kMethodReadProfiles == method && daemon.profilesReply) {
    g_dbus_method_invocation_return_value(invocation, daemon.profilesReply.get());
    return;
  }
  g_dbus_method_invocation_return_value(invocation, g_variant_new("(i)", 0));
}

gboolean OnDelayOver(gpointer data) {
  auto* call = static_cast<DelayedCall*>(data);
  Answer(*call->daemon, call->invocation, call->arrived);
  delete call;
  return G_SOURCE_REMOVE;
}

void OnServiceCall(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*path*/,
                   const gchar* /*interface*/, const gchar* /*method*/, GVariant* /*parameters*/,
                   GDBusMethodInvocation* invocation, gpointer data) {
  const std::uint64_t arrived = NowNs();
  auto& daemon = *static_cast<Daemon*>(data);
  if (daemon.delayMs == 0) {
    Answer(daemon, invocation, arrived);
    return;
  }
  g_timeout_add(daemon.delayMs, &OnDelayOver, new DelayedCall{&daemon, invocation, arrived});
}

bool AcquireName(Daemon& daemon, GError** error) {
  GObjectPtr<GDBusConnection> connection = zv_client::common::OpenPrivateBusConnection(daemon.address, error);
  if (!connection) return false;
  static const GDBusInterfaceVTable vtable = {&OnServiceCall, nullptr, nullptr, {}};
  const guint object =
      g_dbus_connection_register_object(connection.get(), contract::kObjectPath.c_str(),
                                        daemon.serviceNode->interfaces[0], &vtable, &daemon, nullptr, error);
  if (object == 0 || !RequestName(connection.get(), contract::kBusName.c_str(), error)) {
    g_dbus_connection_close_sync(connection.get(), nullptr, nullptr);
    return false;
  }
  daemon.service = std::move(connection);
  daemon.serviceObject = object;
  return true;
}

void ReleaseName(Daemon& daemon) {
  if (!daemon.service) return;
  g_dbus_connection_unregister_object(daemon.service.get(), daemon.serviceObject);
  // Closing the connection makes the bus drop the name at once, as when a
  // daemon exits.
  g_dbus_connection_close_sync(daemon.service.get(), nullptr, nullptr);
  daemon.service.reset();
  daemon.serviceObject = 0;
}

void SetProfiles(Daemon& daemon, guint32 count) {
  std::vector<SessionProfile> profiles;
  profiles.reserve(count);
  for (guint32 i = 1; i <= count; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "Living room %04u", static_cast<unsigned>(i));
    profiles.push_back(SessionProfile{name, static_cast<int>(i)});
  }
  daemon.profilesReply = SinkVariant(zv_client::common::ProfilesToVariant(profiles));
}

void OnControlCall(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*path*/,
                   const gchar* /*interface*/, const gchar* method, GVariant* parameters,
                   GDBusMethodInvocation* invocation, gpointer data) {
  auto& daemon = *static_cast<Daemon*>(data);
  const std::string name = method;
  if (name == "SetProfiles") {
    guint32 count = 0;
    g_variant_get(parameters, "(u)", &count);
    SetProfiles(daemon, count);
    g_dbus_method_invocation_return_value(invocation, nullptr);
  } else if (name == "SetDelay") {
    g_variant_get(parameters, "(u)", &daemon.delayMs);
    g_dbus_method_invocation_return_value(invocation, nullptr);
  } else if (name == "Emit") {
    const gchar* destination = nullptr;
    g_variant_get(parameters, "(&s)", &destination);
    if (!daemon.service) {
      g_dbus_method_invocation_return_dbus_error(invocation, "zorvel.bench.Error.NoName", "name released");
      return;
    }
    const std::uint64_t emitted = NowNs();
    Emit(daemon.service.get(), *destination != '\0' ? destination : nullptr, contract::kSignalOnFound,
         zv_client::common::SerializeIntoGVariant(std::to_string(emitted), daemon.sequence++));
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(t)", static_cast<guint64>(emitted)));
  } else if (name == "ReleaseName") {
    ReleaseName(daemon);
    g_dbus_method_invocation_return_value(invocation, nullptr);
  } else if (name == "AcquireName") {
    ReleaseName(daemon);
    GError* raw = nullptr;
    if (!AcquireName(daemon, &raw)) {
      GErrorPtr error(raw);
      g_dbus_method_invocation_return_dbus_error(invocation, "zorvel.bench.Error.Acquire", error->message);
      return;
    }
    // The bus has granted the name by the time RequestName answers.
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(t)", static_cast<guint64>(NowNs())));
  } else if (name == "Quit") {
    g_dbus_method_invocation_return_value(invocation, nullptr);
    g_main_loop_quit(daemon.loop.get());
  } else {
    g_dbus_method_invocation_return_dbus_error(invocation, "zorvel.bench.Error.Unknown", method);
  }
}

gboolean OnTerminate(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_REMOVE;
}

}  // namespace

int main(int argc, char** argv) {
  Daemon daemon;
  guint32 profiles = 0;
  static const option kOptions[] = {{"address", required_argument, nullptr, 'a'},
                                    {"profiles", required_argument, nullptr, 'p'},
                                    {"help", no_argument, nullptr, 'h'},
                                    {nullptr, 0, nullptr, 0}};
  for (int opt; (opt = getopt_long(argc, argv, "a:p:h", kOptions, nullptr)) != -1;) {
    switch (opt) {
      case 'a':
        daemon.address = optarg;
        break;
      case 'p':
        profiles = static_cast<guint32>(std::strtoul(optarg, nullptr, 10));
        break;
      default:
        std::printf(
            "usage: %s [--address BUS] [--profiles N]\n"
            "Lean zorvel daemon for the benchmarks; the bus defaults to DBUS_SYSTEM_BUS_ADDRESS.\n",
            argv[0]);
        return opt == 'h' ? 0 : 2;
    }
  }
  if (daemon.address.empty()) {
    const char* fromEnvironment = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    if (fromEnvironment == nullptr) {
      std::fprintf(stderr, "zorvel-bench-daemon: no bus address\n");
      return 2;
    }
    daemon.address = fromEnvironment;
  }

  daemon.loop.reset(g_main_loop_new(nullptr, FALSE));
  daemon.serviceNode.reset(g_dbus_node_info_new_for_xml(kServiceXml, nullptr));
  daemon.controlNode.reset(g_dbus_node_info_new_for_xml(kControlXml, nullptr));
  SetProfiles(daemon, profiles);

  GError* raw = nullptr;
  daemon.control = zv_client::common::OpenPrivateBusConnection(daemon.address, &raw);
  static const GDBusInterfaceVTable controlVtable = {&OnControlCall, nullptr, nullptr, {}};
  if (!daemon.control ||
      g_dbus_connection_register_object(daemon.control.get(), kControlPath, daemon.controlNode->interfaces[0],
                                        &controlVtable, &daemon, nullptr, &raw) == 0 ||
      !AcquireName(daemon, &raw) || !RequestName(daemon.control.get(), kControlName, &raw)) {
    GErrorPtr error(raw);
    std::fprintf(stderr, "zorvel-bench-daemon: %s\n", error ? error->message : "cannot start");
    return 1;
  }
  g_dbus_connection_set_exit_on_close(daemon.control.get(), FALSE);

  g_unix_signal_add(SIGINT, &OnTerminate, daemon.loop.get());
  g_unix_signal_add(SIGTERM, &OnTerminate, daemon.loop.get());
  g_main_loop_run(daemon.loop.get());

  ReleaseName(daemon);
  g_dbus_connection_close_sync(daemon.control.get(), nullptr, nullptr);
  daemon.control.reset();
  return 0;
}
