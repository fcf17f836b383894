#include "Sides.h"

#include <cstdlib>
#include <exception>

#include <zorvel/LauncherTesting.h>
#include <zorvel/dbus/client/ServiceContract.h>

#include "Report.h"
#include "harness/Processes.h"

namespace zv_bench {

using zv_client::common::GCharPtr;
using zv_client::common::GErrorPtr;
using zv_client::common::GVariantPtr;
namespace contract = zv_client::dbus::client;

// ---------------------------------------------------------------------------
// DaemonControl

namespace {

guint64 TimeOf(const GVariantPtr& reply) {
  guint64 value = 0;
  g_variant_get(reply.get(), "(t)", &value);
  return value;
}

}  // namespace

void DaemonControl::SetProfiles(guint32 count) { Call("SetProfiles", g_variant_new("(u)", count)); }
void DaemonControl::SetDelay(guint32 ms) { Call("SetDelay", g_variant_new("(u)", ms)); }
Ns DaemonControl::Emit(const std::string& destination) {
  return TimeOf(Call("Emit", g_variant_new("(s)", destination.c_str())));
}
void DaemonControl::ReleaseName() { Call("ReleaseName", nullptr); }
Ns DaemonControl::AcquireName() { return TimeOf(Call("AcquireName", nullptr)); }
void DaemonControl::Quit() { Call("Quit", nullptr); }

GVariantPtr DaemonControl::Call(const char* method, GVariant* parameters) {
  GError* raw = nullptr;
  GVariant* reply = g_dbus_connection_call_sync(connection_, kName, "/zorvel/bench", "zorvel.bench.Control", method,
                                                parameters, nullptr, G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, &raw);
  const GErrorPtr error(raw);
  if (reply == nullptr) Fatal(std::string("daemon control ") + method + ": " + (error ? error->message : "?"));
  return GVariantPtr(reply);
}

// ---------------------------------------------------------------------------
// Floor

Floor::Floor(const std::string& address, Probe& probe) : probe_(probe) {
  try {
    connection_ = zv_client::testing::OpenBusConnection(address);
  } catch (const std::exception& failure) {
    Fatal(std::string("floor: ") + failure.what());
  }
  GError* raw = nullptr;
  // The application needs neither cached properties nor the proxy's own
  // g-signal emission; it subscribes to the daemon's signals itself.
  proxy_.reset(g_dbus_proxy_new_sync(connection_.get(),
                                     static_cast<GDBusProxyFlags>(G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES |
                                                                  G_DBUS_PROXY_FLAGS_DO_NOT_CONNECT_SIGNALS),
                                     nullptr, contract::kBusName.c_str(), contract::kObjectPath.c_str(),
                                     contract::kInterfaceName.c_str(), nullptr, &raw));
  const GErrorPtr error(raw);
  if (!proxy_) Fatal(std::string("floor proxy: ") + error->message);
  // Subscribed from a thread without a thread-default context: delivered on
  // the global default context, the one the library's signals use.
  subscription_ = g_dbus_connection_signal_subscribe(
      connection_.get(), contract::kBusName.c_str(), contract::kInterfaceName.c_str(), nullptr,
      contract::kObjectPath.c_str(), nullptr, G_DBUS_SIGNAL_FLAGS_NONE, &Floor::OnSignal, this, nullptr);
  onFound_ = [this](int id, const std::string& name) { probe_.Found(id, name); };
  onAvailable_ = [this](int id, bool /*available*/) { probe_.ConnectionAvailable(id); };
  onList_ = [this](const std::vector<zv_client::common::SessionProfile>& profiles) {
    probe_.ProfileList(0, profiles.size());
  };
}

Floor::~Floor() {
  g_dbus_connection_signal_unsubscribe(connection_.get(), subscription_);
  proxy_.reset();
  g_dbus_connection_close_sync(connection_.get(), nullptr, nullptr);
}

void Floor::Call(const std::string& method, int argument) {
  GError* raw = nullptr;
  const GVariantPtr reply(g_dbus_proxy_call_sync(proxy_.get(), method.c_str(), g_variant_new("(i)", argument),
                                                 G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &raw));
  const GErrorPtr error(raw);
  if (!reply) Fatal("floor " + method + ": " + (error ? error->message : "?"));
}

GVariantPtr Floor::CallReadProfiles() {
  GError* raw = nullptr;
  GVariantPtr reply(g_dbus_proxy_call_sync(proxy_.get(), contract::kMethodReadProfiles.c_str(), nullptr,
                                           G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &raw));
  const GErrorPtr error(raw);
  if (!reply) Fatal(std::string("floor readProfiles: ") + (error ? error->message : "?"));
  return reply;
}

std::size_t Floor::ReadProfiles() {
  const GVariantPtr reply = CallReadProfiles();
  const GVariantPtr list(g_variant_get_child_value(reply.get(), 0));
  const std::size_t n = g_variant_n_children(list.get());
  std::size_t delivered = 0;
  for (std::size_t i = 1; i + 1 < n; i += 2) {
    const int id = std::atoi(Text(list.get(), i).c_str());
    const std::string name = Text(list.get(), i + 1);
    onFound_(id, name);
    ++delivered;
  }
  return delivered;
}

std::size_t Floor::ReadProfileList() {
  const GVariantPtr reply = CallReadProfiles();
  const std::vector<zv_client::common::SessionProfile> profiles = zv_client::common::VariantToProfiles(reply.get());
  onList_(profiles);
  return profiles.size();
}

void Floor::CallBurst(int count, std::atomic<int>& answered) {
  // dbus-daemon's max_replies_per_connection on a system bus: past it the bus
  // answers a call with LimitsExceeded instead of passing it on.
  constexpr int kMaxUnanswered = 128;
  burstCount_ = count;
  burstSent_ = 0;
  burstAnswered_ = &answered;
  for (int i = 0; i < kMaxUnanswered; ++i) SendNextOfBurst();
}

void Floor::SendNextOfBurst() {
  const int i = burstSent_++;
  if (i >= burstCount_) return;
  const std::string& method = i % 2 == 0 ? contract::kMethodConnect : contract::kMethodStartBroadcast;
  g_dbus_proxy_call(proxy_.get(), method.c_str(), g_variant_new("(i)", 1 + i % 60000), G_DBUS_CALL_FLAGS_NONE, -1,
                    nullptr, &Floor::OnAnswer, this);
}

// The base64 text of the "(s)" child `index` of `list`, decoded.
std::string Floor::Text(GVariant* list, std::size_t index) {
  const GVariantPtr element(g_variant_get_child_value(list, index));
  const gchar* encoded = nullptr;
  g_variant_get(element.get(), "(&s)", &encoded);
  gsize length = 0;
  const GCharPtr decoded(reinterpret_cast<gchar*>(g_base64_decode(encoded, &length)));
  return std::string(decoded.get(), length);
}

void Floor::OnAnswer(GObject* proxy, GAsyncResult* result, gpointer data) {
  auto& self = *static_cast<Floor*>(data);
  GError* raw = nullptr;
  const GVariantPtr reply(g_dbus_proxy_call_finish(G_DBUS_PROXY(proxy), result, &raw));
  const GErrorPtr error(raw);
  // A failed call is cheaper than an answered one: counted as answered, it
  // would lower the floor the library is compared with.
  if (!reply) Fatal("floor burst: a call failed: " + std::string(error ? error->message : "?"));
  self.SendNextOfBurst();
  ++*self.burstAnswered_;  // last: once every answer is counted, the burst's caller may start another
}

void Floor::OnSignal(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* member,
                     GVariant* parameters, gpointer data) {
  auto& self = *static_cast<Floor*>(data);
  if (contract::kSignalOnFound == member && g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ayq)"))) {
    GVariant* rawBytes = nullptr;
    guint16 number = 0;
    g_variant_get(parameters, "(@ayq)", &rawBytes, &number);
    const GVariantPtr bytes(rawBytes);
    gsize length = 0;
    const auto* data64 = static_cast<const char*>(g_variant_get_fixed_array(bytes.get(), &length, 1));
    const std::string encoded(data64 != nullptr ? data64 : "", length);
    gsize decodedLength = 0;
    const GCharPtr decoded(reinterpret_cast<gchar*>(g_base64_decode(encoded.c_str(), &decodedLength)));
    self.onFound_(number, std::string(decoded.get(), decodedLength));
  } else if (contract::kSignalOnConnectionAvailable == member &&
             g_variant_is_of_type(parameters, G_VARIANT_TYPE("(qq)"))) {
    guint16 id = 0;
    guint16 state = 0;
    g_variant_get(parameters, "(qq)", &id, &state);
    self.onAvailable_(id, state != 0);
  }
}

// ---------------------------------------------------------------------------
// Library

Library::Library(Probe& probe) : probe_(probe) {
  launcher_.SetOnInstanceFoundCallback([&probe](int id, const std::string& name) { probe.Found(id, name); });
  launcher_.SetOnConnectionAvailable([&probe](int id, bool /*available*/) { probe.ConnectionAvailable(id); });
  if (launcher_.Init() != 0) Fatal("Launcher::Init failed");
  client_ = dynamic_cast<zv_client::dbus::client::DBusClientAsync*>(zv_client::zorvel::testing::CurrentClient());
  if (client_ == nullptr) Fatal("no command layer installed");
}

std::string Library::BusName() const { return zv_client::zorvel::testing::CurrentClientBusName(); }

Ns Library::Issue(const std::string& method, int id) {
  const Ns start = NowNs();
  const int rc = method == contract::kMethodConnect ? launcher_.Connect(id) : launcher_.StartBroadcast(true);
  const Ns blocked = NowNs() - start;
  if (rc != 0) Fatal("Launcher refused " + method);
  return blocked;
}

zv_client::zorvel::CommandId Library::ReadProfiles() {
  zv_client::zorvel::CommandId id = 0;
  if (!launcher_.ReadProfiles(&id).empty()) Fatal("ReadProfiles answered synchronously");
  return id;
}

void Library::FollowOutcomes(bool follow) {
  using zv_client::zorvel::CommandOutcome;
  using zv_client::zorvel::CommandStatus;
  if (!follow) {
    launcher_.SetOnCommandOutcome(nullptr);
    return;
  }
  launcher_.SetOnCommandOutcome([this](const CommandOutcome& outcome) {
    if (!outcome.final || outcome.method != contract::kMethodReadProfiles) return;
    probe_.ProfileList(outcome.id, outcome.status == CommandStatus::kAnswered ? outcome.profiles.size() : 0);
  });
}

bool Library::WaitIdle(int timeoutMs) {
  const Ns deadline = NowNs() + static_cast<Ns>(timeoutMs) * 1000000ULL;
  while (client_->GetCounts().inFlight != 0) {
    if (NowNs() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(50));
  }
  return true;
}

}  // namespace zv_bench
