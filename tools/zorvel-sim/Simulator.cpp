#include "Simulator.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

#include <zorvel/common/BusConnection.h>
#include <zorvel/dbus/client/ServiceContract.h>

#include "InterfaceXml.h"

namespace zv_sim {
namespace {

using namespace zv_client::dbus::client;  // the daemon's names
using zv_client::common::GCharPtr;
using zv_client::common::GErrorPtr;
using zv_client::common::SinkVariant;

constexpr char kControlName[] = "zorvel.sim";
constexpr char kControlPath[] = "/zorvel/sim";
constexpr char kControlInterface[] = "zorvel.sim.Control";
constexpr char kControlXml[] = R"xml(
<node>
  <interface name="zorvel.sim.Control">
    <method name="Emit">
      <arg name="member" type="s" direction="in"/>
      <arg name="body" type="v" direction="in"/>
    </method>
    <method name="EmitAs">
      <arg name="member" type="s" direction="in"/>
      <arg name="body" type="v" direction="in"/>
      <arg name="destination" type="s" direction="in"/>
    </method>
    <method name="SetAnswer">
      <arg name="method" type="s" direction="in"/>
      <arg name="value" type="i" direction="in"/>
    </method>
    <method name="SetReply">
      <arg name="method" type="s" direction="in"/>
      <arg name="body" type="v" direction="in"/>
    </method>
    <method name="ClearReply">
      <arg name="method" type="s" direction="in"/>
    </method>
    <method name="SetError">
      <arg name="method" type="s" direction="in"/>
      <arg name="error" type="(ss)" direction="in"/>
    </method>
    <method name="SetDelay">
      <arg name="method" type="s" direction="in"/>
      <arg name="ms" type="u" direction="in"/>
    </method>
    <method name="SetNoReply">
      <arg name="method" type="s" direction="in"/>
      <arg name="never" type="b" direction="in"/>
    </method>
    <method name="GetCalls">
      <arg name="calls" type="a(tssv)" direction="out"/>
    </method>
    <method name="ClearCalls"/>
    <method name="ReleaseName"/>
    <method name="AcquireName">
      <arg name="owner" type="s" direction="out"/>
    </method>
    <method name="Restart">
      <arg name="owner" type="s" direction="out"/>
    </method>
    <method name="GetOwner">
      <arg name="owner" type="s" direction="out"/>
    </method>
    <method name="SetProfiles">
      <arg name="profiles" type="a(is)" direction="in"/>
    </method>
    <method name="GetProfiles">
      <arg name="profiles" type="a(is)" direction="out"/>
    </method>
    <method name="SetInstances">
      <arg name="instances" type="a(is)" direction="in"/>
    </method>
    <method name="SetInterval">
      <arg name="ms" type="u" direction="in"/>
    </method>
    <method name="Quit"/>
    <signal name="CallReceived">
      <arg name="sequence" type="t"/>
      <arg name="method" type="s"/>
      <arg name="arguments" type="v"/>
    </signal>
  </interface>
</node>
)xml";

constexpr guint32 kRequestNameDoNotQueue = 4;
constexpr guint32 kRequestNamePrimaryOwner = 1;
constexpr guint32 kRequestNameAlreadyOwner = 4;

bool IsDaemonMethod(const std::string& method) {
  for (const std::string* known : {&kMethodInit, &kMethodStartBroadcast, &kMethodStopBroadcast, &kMethodConnect,
                                   &kMethodDeinit, &kMethodReadProfiles, &kMethodDeleteStoredProfile}) {
    if (*known == method) return true;
  }
  return false;
}

// Profile names are raw bytes; g_strescape keeps them on one printable line.
// It stops at a NUL, so each NUL-free piece is escaped on its own.
std::string Escaped(const std::string& bytes) {
  std::string result;
  std::size_t start = 0;
  for (;;) {
    const std::size_t nul = bytes.find('\0', start);
    GCharPtr piece(g_strescape(bytes.substr(start, nul - start).c_str(), nullptr));
    result += piece.get();
    if (nul == std::string::npos) return result;
    result += "\\000";
    start = nul + 1;
  }
}

std::string Printed(GVariant* value) {
  GCharPtr text(g_variant_print(value, FALSE));
  return text.get();
}

std::string Described(const std::vector<SessionProfile>& entries) {
  std::string text = "[";
  for (const SessionProfile& entry : entries) {
    if (text.size() > 1) text += ", ";
    text += std::to_string(entry.id) + " \"" + Escaped(entry.name) + "\"";
  }
  return text + "]";
}

// A message body's signature (its type without the outer parentheses) may
// hold at most 255 characters.
bool FitsInMessage(GVariant* body) {
  return body == nullptr || std::strlen(g_variant_get_type_string(body)) <= 255 + 2;
}

// Message bodies are tuples; anything else travels as a one-element tuple,
// except an empty array of variants, which stands for an empty body (D-Bus
// cannot carry an empty structure). Takes over the reference `value` (as
// g_variant_get's "v" hands it out).
GVariantPtr AsTuple(GVariant* value) {
  GVariantPtr owned(value);
  if (g_variant_is_of_type(value, G_VARIANT_TYPE_TUPLE)) return owned;
  if (g_variant_is_of_type(value, G_VARIANT_TYPE("av")) && g_variant_n_children(value) == 0) {
    return SinkVariant(g_variant_new_tuple(nullptr, 0));
  }
  return SinkVariant(g_variant_new_tuple(&value, 1));
}

// D-Bus has no empty structure, so the arguments of a call without any travel
// as an empty array of variants: it has no children either.
GVariant* ArgumentsForWire(GVariant* arguments) {  // new floating unless `arguments` is returned as is
  if (g_variant_n_children(arguments) != 0) return arguments;
  return g_variant_new_array(G_VARIANT_TYPE_VARIANT, nullptr, 0);
}

std::vector<SessionProfile> EntriesOf(GVariant* parameters) {
  std::vector<SessionProfile> entries;
  const GVariantPtr list(g_variant_get_child_value(parameters, 0));
  GVariantIter iter;
  g_variant_iter_init(&iter, list.get());
  gint32 id = 0;
  const gchar* name = nullptr;
  while (g_variant_iter_loop(&iter, "(i&s)", &id, &name)) entries.push_back(SessionProfile{name, id});
  return entries;
}

GVariant* EntriesToVariant(const std::vector<SessionProfile>& entries) {  // new floating
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a(is)"));
  for (const SessionProfile& entry : entries) {
    // A D-Bus string must be UTF-8; names seeded from the command line may not be.
    GCharPtr name(g_utf8_make_valid(entry.name.data(), static_cast<gssize>(entry.name.size())));
    g_variant_builder_add(&builder, "(is)", entry.id, name.get());
  }
  return g_variant_new("(a(is))", &builder);
}

void ReturnError(GDBusMethodInvocation* invocation, const char* name, const char* format, ...) G_GNUC_PRINTF(3, 4);
void ReturnError(GDBusMethodInvocation* invocation, const char* name, const char* format, ...) {
  va_list args;
  va_start(args, format);
  GCharPtr message(g_strdup_vprintf(format, args));
  va_end(args);
  const std::string errorName = std::string("zorvel.sim.Error.") + name;
  g_dbus_method_invocation_return_dbus_error(invocation, errorName.c_str(), message.get());
}

// Owns `name` or fails: queueing behind another owner would leave the caller
// of AcquireName waiting for a name that may never come.
bool RequestName(GDBusConnection* connection, const char* name, GError** error) {
  GVariantPtr reply(g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                "org.freedesktop.DBus", "RequestName",
                                                g_variant_new("(su)", name, kRequestNameDoNotQueue),
                                                G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, error));
  if (!reply) return false;
  guint32 result = 0;
  g_variant_get(reply.get(), "(u)", &result);
  if (result == kRequestNamePrimaryOwner || result == kRequestNameAlreadyOwner) return true;
  g_set_error(error, G_IO_ERROR, G_IO_ERROR_EXISTS, "%s is already owned by another connection", name);
  return false;
}

}  // namespace

Simulator::Simulator(Options options, GMainLoop* loop)
    : address_(std::move(options.address)),
      profiles_(std::move(options.profiles)),
      instances_(std::move(options.instances)),
      intervalMs_(options.intervalMs),
      quiet_(options.quiet),
      loop_(loop) {}

Simulator::~Simulator() { Shutdown(); }

bool Simulator::Start(GError** error) {
  if (address_.empty()) {
    GCharPtr address(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, error));
    if (!address) return false;
    address_ = address.get();
  }
  daemonNode_.reset(g_dbus_node_info_new_for_xml(kDaemonInterfaceXml, error));
  if (!daemonNode_) return false;
  if (g_dbus_node_info_lookup_interface(daemonNode_.get(), kInterfaceName.c_str()) == nullptr) {
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_INVALID_DATA, "the embedded XML lacks %s", kInterfaceName.c_str());
    return false;
  }
  controlNode_.reset(g_dbus_node_info_new_for_xml(kControlXml, error));
  if (!controlNode_) return false;

  control_ = zv_client::common::OpenPrivateBusConnection(address_, error);
  if (!control_) {
    g_prefix_error(
        error, "the bus at %s is not reachable (set it with --address or DBUS_SYSTEM_BUS_ADDRESS): ", address_.c_str());
    return false;
  }
  closedHandlerId_ = g_signal_connect(control_.get(), "closed", G_CALLBACK(&Simulator::OnBusClosed), this);
  static const GDBusInterfaceVTable vtable = {&Simulator::ControlCallThunk, nullptr, nullptr, {}};
  controlObjectId_ = g_dbus_connection_register_object(control_.get(), kControlPath, controlNode_->interfaces[0],
                                                       &vtable, this, nullptr, error);
  if (controlObjectId_ == 0 || !AcquireName(error) || !RequestName(control_.get(), kControlName, error)) {
    return false;
  }
  Log("control %s owns %s; profiles %s, instances %s, interval %u ms",
      g_dbus_connection_get_unique_name(control_.get()), kControlName, Described(profiles_).c_str(),
      Described(instances_).c_str(), intervalMs_);
  return true;
}

void Simulator::Shutdown() {
  ReleaseName();
  if (!control_) return;
  if (closedHandlerId_ != 0) g_signal_handler_disconnect(control_.get(), closedHandlerId_);
  closedHandlerId_ = 0;
  if (controlObjectId_ != 0) g_dbus_connection_unregister_object(control_.get(), controlObjectId_);
  controlObjectId_ = 0;
  if (!g_dbus_connection_is_closed(control_.get())) {
    // Closing drops whatever is still queued, such as the reply to Quit.
    g_dbus_connection_flush_sync(control_.get(), nullptr, nullptr);
    g_dbus_connection_close_sync(control_.get(), nullptr, nullptr);
  }
  control_.reset();
}

// A fresh connection each time, so every acquisition gives the name a new
// unique owner, as a restarted daemon would.
bool Simulator::AcquireName(GError** error) {
  GObjectPtr<GDBusConnection> connection = zv_client::common::OpenPrivateBusConnection(address_, error);
  if (!connection) return false;
  static const GDBusInterfaceVTable vtable = {&Simulator::DaemonCallThunk, nullptr, nullptr, {}};
  const guint objectId = g_dbus_connection_register_object(
      connection.get(), kObjectPath.c_str(),
      g_dbus_node_info_lookup_interface(daemonNode_.get(), kInterfaceName.c_str()), &vtable, this, nullptr, error);
  if (objectId == 0 || !RequestName(connection.get(), kBusName.c_str(), error)) {
    if (objectId != 0) g_dbus_connection_unregister_object(connection.get(), objectId);
    g_dbus_connection_close_sync(connection.get(), nullptr, nullptr);
    return false;
  }
  service_ = std::move(connection);
  serviceObjectId_ = objectId;
  Log("owner %s owns %s", Owner().c_str(), kBusName.c_str());
  return true;
}

void Simulator::ReleaseName() {
  if (!service_) return;
  const std::string owner = Owner();
  StopBroadcast();
  // Held calls are dropped unanswered; once the connection is gone the bus
  // answers their callers with an error.
  for (const DelayedReply& pending : delayed_) g_source_remove(pending.timeoutId);
  delayed_.clear();
  unanswered_.clear();
  g_dbus_connection_unregister_object(service_.get(), serviceObjectId_);
  serviceObjectId_ = 0;

  GObjectPtr<GDBusConnection> connection = std::move(service_);
  if (!g_dbus_connection_is_closed(connection.get())) {
    // Giving the name back explicitly, rather than only closing, means the bus
    // has announced the loss to everyone before our control reply goes out.
    GError* raw = nullptr;
    GVariantPtr reply(g_dbus_connection_call_sync(
        connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "ReleaseName",
        g_variant_new("(s)", kBusName.c_str()), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &raw));
    GErrorPtr error(raw);
    if (error) Log("releasing %s failed: %s", kBusName.c_str(), error->message);
    g_dbus_connection_close_sync(connection.get(), nullptr, nullptr);
  }
  Log("owner %s released %s", owner.c_str(), kBusName.c_str());
}

std::string Simulator::Owner() const { return service_ ? g_dbus_connection_get_unique_name(service_.get()) : ""; }

void Simulator::DaemonCallThunk(GDBusConnection*, const gchar* sender, const gchar*, const gchar*, const gchar* method,
                                GVariant* parameters, GDBusMethodInvocation* invocation, gpointer self) {
  static_cast<Simulator*>(self)->HandleDaemonCall(sender, method, parameters, invocation);
}

void Simulator::ControlCallThunk(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method,
                                 GVariant* parameters, GDBusMethodInvocation* invocation, gpointer self) {
  static_cast<Simulator*>(self)->HandleControlCall(method, parameters, invocation);
}

void Simulator::OnBusClosed(GDBusConnection*, gboolean, GError*, gpointer self) {
  // The bus went away (a test tearing it down): nothing is left to simulate.
  auto* simulator = static_cast<Simulator*>(self);
  simulator->Log("bus connection closed, quitting");
  g_main_loop_quit(simulator->loop_);
}

void Simulator::HandleDaemonCall(const gchar* sender, const std::string& method, GVariant* parameters,
                                 GDBusMethodInvocation* invocationRef) {
  // GDBus hands over its reference; we answer by hand, so we keep it ourselves.
  GObjectPtr<GDBusMethodInvocation> invocation(invocationRef);
  const std::string from = sender != nullptr ? sender : "";
  RecordCall(method, from, parameters);
  // The state changes on receipt, even when the reply is put off or never sent.
  const int answer = ApplyEffects(method, parameters);
  Answer chosen = ChooseAnswer(method, parameters, answer);
  const std::string received = "<- " + method + " " + Printed(parameters) + " from " + from;
  Deliver(method, received, std::move(invocation), std::move(chosen));
}

void Simulator::RecordCall(const std::string& method, const std::string& from, GVariant* parameters) {
  const guint64 sequence = nextSequence_++;
  calls_.push_back(Call{sequence, method, from, GVariantPtr(g_variant_ref(parameters))});
  GError* raw = nullptr;
  if (!g_dbus_connection_emit_signal(control_.get(), nullptr, kControlPath, kControlInterface, "CallReceived",
                                     g_variant_new("(tsv)", sequence, method.c_str(), ArgumentsForWire(parameters)),
                                     &raw)) {
    GErrorPtr error(raw);
    Log("emitting CallReceived failed: %s", error->message);
  }
}

int Simulator::ApplyEffects(const std::string& method, GVariant* parameters) {
  if (method == kMethodStartBroadcast) {
    StartBroadcast();
  } else if (method == kMethodStopBroadcast) {
    StopBroadcast();
  } else if (method == kMethodDeleteStoredProfile) {
    return DeleteStoredProfile(parameters);
  }
  return 0;
}

int Simulator::DeleteStoredProfile(GVariant* parameters) {
  gint32 id = 0;
  g_variant_get(parameters, "(i)", &id);
  const auto stored = std::find_if(profiles_.begin(), profiles_.end(),
                                   [id](const SessionProfile& profile) { return profile.id == id; });
  if (stored == profiles_.end()) return -1;
  profiles_.erase(stored);
  return 0;
}

Simulator::Answer Simulator::ChooseAnswer(const std::string& method, GVariant* parameters, int answer) const {
  const auto answerOverride = answers_.find(method);
  const bool overridden = answerOverride != answers_.end();
  if (overridden) answer = answerOverride->second;

  Answer chosen;
  if (method == kMethodReadProfiles && !overridden) {
    chosen.body = ProfilesBody();
    chosen.description = "profiles " + Described(profiles_);
  } else {
    chosen.body = SinkVariant(zv_client::common::IntegerToVariant(answer));
  }
  if (method == kMethodConnect && answer == 0) chosen.followUp = ConnectFollowUp(parameters);
  const auto reply = replies_.find(method);
  if (reply != replies_.end()) {
    chosen.body.reset(g_variant_ref(reply->second.get()));
    chosen.description.clear();
  }
  const auto failing = errors_.find(method);
  if (failing != errors_.end()) {
    chosen.error = failing->second;
    chosen.followUp.reset();
    chosen.description = "error " + chosen.error.first;
  }
  if (chosen.description.empty()) chosen.description = Printed(chosen.body.get());
  return chosen;
}

GVariantPtr Simulator::ProfilesBody() const {
  // The profile list payload is the whole reply body, not its only argument.
  return SinkVariant(zv_client::common::ProfilesToVariant(profiles_));
}

GVariantPtr Simulator::ConnectFollowUp(GVariant* parameters) {
  gint32 id = 0;
  g_variant_get(parameters, "(i)", &id);
  return SinkVariant(g_variant_new("(qq)", static_cast<guint16>(id), static_cast<guint16>(1)));
}

void Simulator::Deliver(const std::string& method, const std::string& received,
                        GObjectPtr<GDBusMethodInvocation> invocation, Answer chosen) {
  if (neverAnswered_.count(method) != 0) {
    Log("%s -> never answered", received.c_str());
    unanswered_.push_back(std::move(invocation));
    return;
  }
  const auto delay = delays_.find(method);
  if (delay != delays_.end()) {
    Log("%s -> %s in %u ms", received.c_str(), chosen.description.c_str(), delay->second);
    delayed_.push_back(DelayedReply{this, std::move(invocation), std::move(chosen), 0});
    DelayedReply& pending = delayed_.back();
    pending.timeoutId = g_timeout_add(delay->second, &Simulator::OnDelayedReply, &pending);
    return;
  }
  Log("%s -> %s", received.c_str(), chosen.description.c_str());
  SendReply(invocation.get(), chosen);
}

gboolean Simulator::OnDelayedReply(gpointer data) {
  auto* pending = static_cast<DelayedReply*>(data);
  Simulator* self = pending->owner;
  self->Log("-> delayed reply to %s from %s: %s", g_dbus_method_invocation_get_method_name(pending->invocation.get()),
            g_dbus_method_invocation_get_sender(pending->invocation.get()), pending->answer.description.c_str());
  self->SendReply(pending->invocation.get(), pending->answer);
  self->delayed_.remove_if([pending](const DelayedReply& entry) { return &entry == pending; });
  return G_SOURCE_REMOVE;
}

// Built by hand: g_dbus_method_invocation_return_value checks the body against
// the declared out-args, and SetReply exists to send bodies that break them.
void Simulator::SendReply(GDBusMethodInvocation* invocation, const Answer& answer) {
  GVariant* const body = answer.body.get();
  GVariant* const followUp = answer.followUp.get();
  const ErrorReply& failure = answer.error;
  GDBusMessage* request = g_dbus_method_invocation_get_message(invocation);
  GDBusConnection* connection = g_dbus_method_invocation_get_connection(invocation);
  if ((g_dbus_message_get_flags(request) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0) {
    GObjectPtr<GDBusMessage> reply;
    if (!failure.first.empty()) {
      reply.reset(g_dbus_message_new_method_error_literal(request, failure.first.c_str(), failure.second.c_str()));
    } else if (FitsInMessage(body)) {
      reply.reset(g_dbus_message_new_method_reply(request));
      g_dbus_message_set_body(reply.get(), body);
    } else {
      // A profile list of more than 41 profiles has a longer signature than
      // D-Bus allows (255); the bus would drop the whole connection.
      Log("reply too large for D-Bus: signature of %zu characters", std::strlen(g_variant_get_type_string(body)));
      reply.reset(g_dbus_message_new_method_error(request, "org.freedesktop.DBus.Error.LimitsExceeded",
                                                  "reply signature longer than 255 characters"));
    }
    GError* raw = nullptr;
    if (!g_dbus_connection_send_message(connection, reply.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, &raw)) {
      GErrorPtr error(raw);
      Log("reply failed: %s", error->message);
    }
  }
  if (followUp == nullptr) return;
  GError* raw = nullptr;
  if (EmitSignal(connection, nullptr, kSignalOnConnectionAvailable.c_str(), followUp, &raw)) {
    Log("-> %s %s", kSignalOnConnectionAvailable.c_str(), Printed(followUp).c_str());
  } else {
    GErrorPtr error(raw);
    Log("emitting %s failed: %s", kSignalOnConnectionAvailable.c_str(), error->message);
  }
}

bool Simulator::EmitSignal(GDBusConnection* connection, const char* destination, const char* member, GVariant* body,
                           GError** error) {
  if (!FitsInMessage(body)) {
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT, "signal signature longer than 255 characters");
    if (g_variant_is_floating(body)) SinkVariant(body);  // dropped at once
    return false;
  }
  return g_dbus_connection_emit_signal(connection, destination, kObjectPath.c_str(), kInterfaceName.c_str(), member,
                                       body, error);
}

void Simulator::StartBroadcast() {
  if (broadcastId_ != 0) return;
  broadcastId_ = g_timeout_add(intervalMs_, &Simulator::OnBroadcastTick, this);
  Log("broadcast started, every %u ms", intervalMs_);
}

void Simulator::StopBroadcast() {
  if (broadcastId_ == 0) return;
  g_source_remove(broadcastId_);
  broadcastId_ = 0;
  Log("broadcast stopped");
}

gboolean Simulator::OnBroadcastTick(gpointer data) {
  auto* self = static_cast<Simulator*>(data);
  for (const SessionProfile& instance : self->instances_) {
    GError* raw = nullptr;
    GVariant* payload = zv_client::common::SerializeIntoGVariant(instance.name, instance.id);  // consumed below
    if (self->EmitSignal(self->service_.get(), nullptr, kSignalOnFound.c_str(), payload, &raw)) {
      self->Log("-> %s \"%s\" %u", kSignalOnFound.c_str(), Escaped(instance.name).c_str(),
                static_cast<guint16>(instance.id));
    } else {
      GErrorPtr error(raw);
      self->Log("emitting %s failed: %s", kSignalOnFound.c_str(), error->message);
    }
  }
  return G_SOURCE_CONTINUE;
}

bool Simulator::HandleEmit(const std::string& method, GVariant* parameters, GDBusMethodInvocation* invocation) {
  const bool impostor = method == "EmitAs";
  const gchar* member = nullptr;
  const gchar* destination = "";
  GVariant* boxed = nullptr;
  if (impostor) {
    g_variant_get(parameters, "(&sv&s)", &member, &boxed, &destination);
  } else {
    g_variant_get(parameters, "(&sv)", &member, &boxed);
  }
  const GVariantPtr body = AsTuple(boxed);
  // GDBus would only print a critical for these; the caller deserves an error.
  if (!g_dbus_is_member_name(member)) {
    ReturnError(invocation, "InvalidArgs", "'%s' is not a valid D-Bus member name", member);
    return false;
  }
  if (*destination != '\0' && !g_dbus_is_name(destination)) {
    ReturnError(invocation, "InvalidArgs", "'%s' is not a valid bus name", destination);
    return false;
  }
  GDBusConnection* connection = impostor ? control_.get() : service_.get();
  if (connection == nullptr) {
    ReturnError(invocation, "Released", "%s is released; call AcquireName first", kBusName.c_str());
    return false;
  }
  GError* raw = nullptr;
  if (!EmitSignal(connection, *destination != '\0' ? destination : nullptr, member, body.get(), &raw)) {
    GErrorPtr error(raw);
    ReturnError(invocation, "Failed", "emitting %s failed: %s", member, error->message);
    return false;
  }
  if (impostor) {
    Log("-> %s %s from impostor %s to %s", member, Printed(body.get()).c_str(),
        g_dbus_connection_get_unique_name(connection), *destination != '\0' ? destination : "everyone");
  } else {
    Log("-> %s %s", member, Printed(body.get()).c_str());
  }
  return true;
}

bool Simulator::HandleOverride(const std::string& control, GVariant* parameters, GDBusMethodInvocation* invocation) {
  GVariantPtr method(g_variant_get_child_value(parameters, 0));
  const std::string name = g_variant_get_string(method.get(), nullptr);
  if (!IsDaemonMethod(name)) {
    ReturnError(invocation, "UnknownMethod",
                "unknown daemon method '%s' (expected init, startBroadcast, stopBroadcast, connect, deinit, "
                "readProfiles or deleteStoredProfile)",
                name.c_str());
    return false;
  }
  GVariantPtr value(g_variant_n_children(parameters) > 1 ? g_variant_get_child_value(parameters, 1) : nullptr);
  if (control == "SetAnswer") {
    answers_[name] = g_variant_get_int32(value.get());
    Log("%s answers %d from now on", name.c_str(), answers_[name]);
  } else if (control == "SetReply") {
    replies_[name] = AsTuple(g_variant_get_variant(value.get()));
    Log("%s replies %s from now on", name.c_str(), Printed(replies_[name].get()).c_str());
  } else if (control == "SetError") {
    const gchar* error = nullptr;
    const gchar* message = nullptr;
    g_variant_get(value.get(), "(&s&s)", &error, &message);
    if (!g_dbus_is_interface_name(error)) {  // an error name has the form of an interface name
      ReturnError(invocation, "InvalidArgs", "'%s' is not a valid D-Bus error name", error);
      return false;
    }
    errors_[name] = {error, message};
    Log("%s fails with %s from now on", name.c_str(), error);
  } else if (control == "ClearReply") {
    replies_.erase(name);
    errors_.erase(name);
    Log("%s replies as usual again", name.c_str());
  } else if (control == "SetDelay") {
    const guint32 ms = g_variant_get_uint32(value.get());
    if (ms == 0) {
      delays_.erase(name);
      Log("%s answers at once", name.c_str());
    } else {
      delays_[name] = ms;
      Log("%s answers after %u ms", name.c_str(), ms);
    }
  } else {  // SetNoReply
    const bool never = g_variant_get_boolean(value.get());
    if (never) {
      neverAnswered_.insert(name);
    } else {
      neverAnswered_.erase(name);
    }
    Log("%s %s", name.c_str(), never ? "is never answered" : "is answered again");
  }
  return true;
}

void Simulator::HandleControlCall(const std::string& method, GVariant* parameters, GDBusMethodInvocation* invocation) {
  // GDBus has checked the argument types against the control XML already.
  GError* raw = nullptr;
  if (method == "Emit" || method == "EmitAs") {
    if (!HandleEmit(method, parameters, invocation)) return;
  } else if (method == "SetAnswer" || method == "SetReply" || method == "SetError" || method == "ClearReply" ||
             method == "SetDelay" || method == "SetNoReply") {
    if (!HandleOverride(method, parameters, invocation)) return;
  } else if (method == "GetCalls") {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a(tssv)"));
    for (const Call& call : calls_) {
      g_variant_builder_add(&builder, "(tssv)", call.sequence, call.method.c_str(), call.sender.c_str(),
                            ArgumentsForWire(call.arguments.get()));
    }
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(a(tssv))", &builder));
    return;
  } else if (method == "ClearCalls") {
    calls_.clear();
  } else if (method == "ReleaseName") {
    ReleaseName();
  } else if (method == "AcquireName" || method == "Restart") {
    const std::string previous = Owner();
    if (method == "Restart") ReleaseName();
    if (!service_ && !AcquireName(&raw)) {
      GErrorPtr error(raw);
      ReturnError(invocation, "Failed", "owning %s failed: %s", kBusName.c_str(), error->message);
      return;
    }
    if (method == "Restart") Log("restart: %s -> %s", previous.c_str(), Owner().c_str());
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(s)", Owner().c_str()));
    return;
  } else if (method == "GetOwner") {
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(s)", Owner().c_str()));
    return;
  } else if (method == "SetProfiles") {
    profiles_ = EntriesOf(parameters);
    Log("profiles %s", Described(profiles_).c_str());
  } else if (method == "GetProfiles") {
    g_dbus_method_invocation_return_value(invocation, EntriesToVariant(profiles_));
    return;
  } else if (method == "SetInstances") {
    instances_ = EntriesOf(parameters);
    Log("instances %s", Described(instances_).c_str());
  } else if (method == "SetInterval") {
    guint32 ms = 0;
    g_variant_get(parameters, "(u)", &ms);
    if (ms == 0) {
      ReturnError(invocation, "InvalidArgs", "the broadcast interval must be at least 1 ms");
      return;
    }
    intervalMs_ = ms;
    Log("broadcast interval %u ms", ms);
    if (broadcastId_ != 0) {  // the running timer keeps its period: start it anew
      StopBroadcast();
      StartBroadcast();
    }
  } else if (method == "Quit") {
    Log("quit requested");
    g_main_loop_quit(loop_);
  }
  g_dbus_method_invocation_return_value(invocation, nullptr);
}

void Simulator::Log(const char* format, ...) const {
  if (quiet_) return;
  va_list args;
  va_start(args, format);
  GCharPtr text(g_strdup_vprintf(format, args));
  va_end(args);
  std::printf("zorvel-sim: %s\n", text.get());  // main() makes stdout line-buffered
}

}  // namespace zv_sim
