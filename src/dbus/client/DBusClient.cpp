#include <zorvel/dbus/client/DBusClient.h>

#include <exception>
#include <utility>

#include <zorvel/common/BusConnection.h>
#include <zorvel/dbus/client/CallbackAnchor.h>
#include <zorvel/dbus/client/ClientInternals.h>
#include <zorvel/dbus/client/OrderedDeliveries.h>
#include <zorvel/dbus/client/ServiceContract.h>
#include <zorvel/dbus/client/TestHooks.h>
#include <zorvel/platform/Log.h>

namespace zv_client {
namespace dbus {
namespace client {
namespace {

constexpr char kLogTag[] = "zorvel.dbus_client";

// Makes the application's callbacks (signal handlers, and whatever else the
// library calls the application with) mutually exclusive across all clients
// and threads. Recursive, so a handler may dispatch another signal on its own
// thread. Never destroyed: a client deleted by a static destructor at exit
// uses it.
common::RecursiveMutex& ApplicationCallbackMutex() {
  static common::RecursiveMutex* const mutex = new common::RecursiveMutex;
  return *mutex;
}

const char* OrNull(const char* text) { return text != nullptr ? text : "NULL"; }

template <typename T>
common::GObjectPtr<T> NewRef(T* object) {
  return common::GObjectPtr<T>(object != nullptr ? static_cast<T*>(g_object_ref(object)) : nullptr);
}

// A private connection to the system bus at the address GLib would use for
// its shared one: ending the host when the bus goes is never ours to do.
common::GObjectPtr<GDBusConnection> ConnectToSystemBus(common::GErrorPtr& error, GCancellable* cancellable) {
  GError* rawError = nullptr;
  std::string address;
  common::GObjectPtr<GDBusConnection> connection =
      common::OpenPrivateSystemBusConnection(address, &rawError, cancellable);
  error.reset(rawError);
  return connection;
}

}  // namespace

DBusClient::DBusClient() : cancellable_(g_cancellable_new()), anchor_(std::make_shared<detail::CallbackAnchor>()) {
  anchor_->client = this;
}

DBusClient::~DBusClient() {
  ZV_LOGI("~DBusClient start");
  DetachCallbacks();
  StopBusWatcher();
  DBusClient::Disconnect();
  common::GObjectPtr<GDBusConnection> connection;
  {
    common::MutexLock lock(stateMutex_);
    connection = std::move(connection_);
  }
  // Closing, not just releasing: GDBus keeps a connection with pending work
  // alive, and the bus drops our match rules only once the socket is gone.
  if (connection) g_dbus_connection_close(connection.get(), nullptr, nullptr, nullptr);
  ZV_LOGI("~DBusClient end");
}

DBusClient::ConnectFailure DBusClient::LastConnectFailure() const {
  common::MutexLock lock(stateMutex_);
  return lastConnectFailure_;
}

common::GObjectPtr<GDBusConnection> DBusClient::BusConnection() const {
  common::MutexLock lock(stateMutex_);
  if (!connection_ || g_dbus_connection_is_closed(connection_.get())) return nullptr;
  return NewRef(connection_.get());
}

common::GObjectPtr<GDBusConnection> DBusClient::OpenBusConnection(common::GErrorPtr& error) {
  if (auto open = BusConnection()) return open;
  // Opened outside the lock (it blocks on the bus); should two threads get
  // here at once, the first one's connection wins and the other is closed.
  common::GObjectPtr<GDBusConnection> fresh = ConnectToSystemBus(error, cancellable_.get());
  if (!fresh) return nullptr;
  common::GObjectPtr<GDBusConnection> replaced;
  {
    common::MutexLock lock(stateMutex_);
    if (!connection_ || g_dbus_connection_is_closed(connection_.get())) {
      replaced = std::exchange(connection_, NewRef(fresh.get()));
      fresh.reset();
    }
  }
  if (fresh) g_dbus_connection_close(fresh.get(), nullptr, nullptr, nullptr);  // lost the race
  return BusConnection();
}

bool DBusClient::Connect() {
  if (connected_) return true;
  {
    common::MutexLock stateLock(stateMutex_);
    busName_ = kBusName;
  }

  // The bus connection and the proxy are made without connectionMutex_: both
  // wait for the bus (the proxy for the daemon too), and a Disconnect on the
  // main loop takes that lock.
  common::GErrorPtr error;
  common::GObjectPtr<GDBusConnection> bus = OpenBusConnection(error);
  common::GObjectPtr<GDBusProxy> made;
  if (bus) {
    GError* rawError = nullptr;
    made.reset(g_dbus_proxy_new_sync(bus.get(), G_DBUS_PROXY_FLAGS_NONE, nullptr, kBusName.c_str(), kObjectPath.c_str(),
                                     kInterfaceName.c_str(), cancellable_.get(), &rawError));
    error.reset(rawError);
  }

  common::MutexLock lock(connectionMutex_);
  // Two threads may both have got this far; the second must not put a second
  // proxy and subscription over the first (its own proxy is dropped).
  if (connected_) return true;
  GDBusProxy* const proxy = made.get();
  std::string remembered;
  {
    common::MutexLock stateLock(stateMutex_);
    proxy_ = std::move(made);
    remembered = nameOwner_;
  }
  if (proxy == nullptr) {
    ZV_LOGE("Failed to setup D-Bus proxy for Zorvel Daemon, error = %s", error ? error->message : "unknown error");
    ConnectFailure failure{ConnectFailure::kBusUnreachable, "", error ? error->message : "unknown error"};
    common::GCharPtr address(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    if (address) failure.busAddress = address.get();
    common::MutexLock stateLock(stateMutex_);
    lastConnectFailure_ = std::move(failure);
    return false;
  }

  common::GCharPtr owner(g_dbus_proxy_get_name_owner(proxy));
  ZV_LOGI("Old nameOwner(%s), new nameOwner (%s)", remembered.c_str(), OrNull(owner.get()));

  if (owner && remembered != owner.get()) {
    signalSubscriptionId_ = g_dbus_connection_signal_subscribe(
        bus.get(), kBusName.c_str(), kInterfaceName.c_str(), nullptr, kObjectPath.c_str(), nullptr,
        G_DBUS_SIGNAL_FLAGS_NONE, &DBusClient::SignalHandler, NewCallbackHandle(), &DBusClient::FreeCallbackHandle);
    // Connected before the watcher starts: its report may come at once on
    // the main loop, while this runs on another thread, and a client told
    // ready must already be connected.
    connected_ = true;
    // On the proxy's own connection: a watcher on another one would follow
    // the daemon on a bus the proxy no longer talks to, or on none.
    LaunchBusWatcher(bus.get());
    return connected_;
  }

  ZV_LOGE("Connection failed: got empty nameOwner? [%d] connected to service which terminates? [%d]", owner ? 0 : 1,
          (owner && remembered == owner.get()) ? 1 : 0);
  common::MutexLock stateLock(stateMutex_);
  lastConnectFailure_ = ConnectFailure{owner ? ConnectFailure::kOwnerGoingAway : ConnectFailure::kNoOwner, "", ""};
  proxy_.reset();
  return false;
}

bool DBusClient::Disconnect() {
  if (!connected_) {
    ZV_LOGI("Already disconnected");
    return false;
  }
  ZV_LOGI("Disconnect started");

  common::MutexLock lock(connectionMutex_);
  if (!connected_) {  // a concurrent Disconnect got here first
    ZV_LOGI("Already disconnected");
    return false;
  }
  connected_ = false;
  common::GObjectPtr<GDBusProxy> proxy;
  {
    common::MutexLock stateLock(stateMutex_);
    proxy = std::move(proxy_);
  }
  if (proxy && signalSubscriptionId_ != 0) {
    g_dbus_connection_signal_unsubscribe(g_dbus_proxy_get_connection(proxy.get()), signalSubscriptionId_);
  }
  ipcReady_ = false;
  return true;  // a Call still running keeps its own reference to the proxy
}

void DBusClient::Reconnect() {
  ZV_LOGI("Reconnect start");
  Disconnect();
  Connect();
  ZV_LOGI("Reconnect end");
}

bool DBusClient::Call(const std::string& method, GVariant* params, GVariant** result, int timeout) {
  common::GErrorPtr error;
  return DBusClient::Call(method, params, result, timeout, error);
}

bool DBusClient::Call(const std::string& method, GVariant* params, GVariant** result, int timeout,
                      common::GErrorPtr& error) {
  error.reset();
  ZV_LOGI("Method [%s] called", method.c_str());

  common::GObjectPtr<GDBusProxy> proxy;
  {
    common::MutexLock stateLock(stateMutex_);
    proxy = NewRef(proxy_.get());
  }
  if (!connected_ || !ipcReady_ || !proxy) {
    ZV_LOGE("Dbus is nor ready yet [%d][%d]", proxy ? 0 : 1, ipcReady_ ? 1 : 0);
    return false;
  }

  if (params != nullptr && g_variant_is_floating(params)) g_variant_ref_sink(params);

  GError* rawError = nullptr;
  common::GVariantPtr reply(g_dbus_proxy_call_sync(proxy.get(), method.c_str(), params, G_DBUS_CALL_FLAGS_NONE, timeout,
                                                   cancellable_.get(), &rawError));
  error.reset(rawError);
  if (!reply) {
    if (result != nullptr) *result = nullptr;
    ZV_LOGE("Failed to call D-Bus for Zorvel daemon, error = %s", error ? error->message : "unknown error");
    return false;
  }
  if (result != nullptr) *result = reply.release();
  return true;
}

bool DBusClient::IsConnected() const { return connected_; }

void DBusClient::SetIpcReadyCallback(std::function<void(bool)> callback) {
  auto replacement = std::make_shared<const std::function<void(bool)>>(std::move(callback));
  {
    common::MutexLock lock(stateMutex_);
    ipcReadyCallback_.swap(replacement);
  }
  // The replaced callback is released here, outside the lock, and destroyed
  // by whichever holder lets go of it last.
}

void DBusClient::LaunchBusWatcher() {
  common::GObjectPtr<GDBusConnection> bus;
  {
    common::MutexLock lock(stateMutex_);
    if (proxy_) bus = NewRef(g_dbus_proxy_get_connection(proxy_.get()));
  }
  // Without a proxy: the client's connection, opened if need be (which waits
  // for the bus; the library itself only ever watches on the proxy's).
  common::GErrorPtr error;
  if (!bus) bus = OpenBusConnection(error);
  if (bus) LaunchBusWatcher(bus.get());
}

void DBusClient::LaunchBusWatcher(GDBusConnection* bus) {
  // A watcher on a connection that closed meanwhile reports the name as
  // vanished, which restores the link: nothing is left waiting.
  common::MutexLock lock(stateMutex_);
  if (busWatcherId_ != 0 || busName_.empty()) return;
  busWatcherId_ = g_bus_watch_name_on_connection(bus, busName_.c_str(), G_BUS_NAME_WATCHER_FLAGS_NONE,
                                                 &DBusClient::OnBusNameAvailable, &DBusClient::OnBusNameVanished,
                                                 NewCallbackHandle(), &DBusClient::FreeCallbackHandle);
}

void DBusClient::StopBusWatcher() {
  guint id = 0;
  {
    common::MutexLock lock(stateMutex_);
    std::swap(id, busWatcherId_);
  }
  if (id != 0) g_bus_unwatch_name(id);
}

void DBusClient::OnBusNameAvailable(GDBusConnection* /*connection*/, const char* name, const char* nameOwner,
                                    void* userData) {
  ZV_LOGI("Get Dbus owner for name:%s owner : %s", OrNull(name), OrNull(nameOwner));
  detail::CallbackScope scope(userData);
  DBusClient* self = scope.client();
  if (self == nullptr) {
    ZV_LOGW("nullptr, return");
    return;
  }
  if (nameOwner == nullptr) return;

  std::string previous;
  {
    common::MutexLock lock(self->stateMutex_);
    previous = self->nameOwner_;
  }
  if (previous == nameOwner) {
    ZV_LOGI("Connected to old name owner, which terminates");
    testing::Hook(testing::Point::kRememberedOwnerIgnored);
    return;
  }
  ZV_LOGI("Upadte name owner, set new ID [%s], old one was [%s]", nameOwner, previous.c_str());
  self->NotifyIpcReady(true, nameOwner);
}

void DBusClient::OnBusNameVanished(GDBusConnection* /*connection*/, const char* name, void* userData) {
  ZV_LOGI("Name [%s] vanished on DBus", OrNull(name));
  detail::CallbackScope scope(userData);
  DBusClient* self = scope.client();
  if (self == nullptr) {
    ZV_LOGW("nullptr, return");
    return;
  }
  self->NotifyIpcReady(false, "");
}

void DBusClient::NotifyIpcReady(bool isReady, const char* nameOwner) {
  std::shared_ptr<const std::function<void(bool)>> callback;
  {
    common::MutexLock lock(stateMutex_);
    nameOwner_ = nameOwner;
    callback = ipcReadyCallback_;
  }
  ipcReady_ = isReady;
  // No lock held: the callback may connect, disconnect or replace itself.
  if (callback && *callback) (*callback)(isReady);
}

void DBusClient::SetSignalCallback(const std::string& signalName, SignalCallback callback) {
  auto replacement = std::make_shared<const SignalCallback>(std::move(callback));
  {
    common::MutexLock lock(stateMutex_);
    signalCallbacks_[signalName].swap(replacement);
  }
  // The replaced handler is released outside the lock; a dispatch that is
  // running it holds the pointer, so it is destroyed only when that ends.
}

void DBusClient::HandleSignal(const std::string& signalName, GVariant* parameters) {
  ZV_LOGI("HandleSignal is called, signal name [%s]", signalName.c_str());
  std::shared_ptr<const SignalCallback> handler;
  {
    common::MutexLock lock(stateMutex_);
    const auto entry = signalCallbacks_.find(signalName);
    if (entry != signalCallbacks_.end()) handler = entry->second;
  }
  if (!handler || !*handler) {
    ZV_LOGI("Haven't found callback for signal %s. Skipping processing...", signalName.c_str());
    return;
  }
  detail::CallbackExclusion exclusive(ApplicationCallbackMutex());
  (*handler)(parameters);
}

void DBusClient::SignalHandler(GDBusConnection* /*connection*/, const char* /*senderName*/, const char* /*objectPath*/,
                               const char* /*interfaceName*/, const char* signalName, GVariant* parameters,
                               void* userData) {
  ZV_LOGI("[Zorvel] Got Signal from zorvel daemon %s", OrNull(signalName));
  detail::CallbackScope scope(userData);
  if (DBusClient* self = scope.client(); self != nullptr && signalName != nullptr) {
    // An exception must not unwind through GLib's C frames.
    try {
      self->HandleSignal(signalName, parameters);
    } catch (const std::exception& exception) {
      ZV_LOGE("Signal handler for %s threw: %s", signalName, exception.what());
    } catch (...) {
      ZV_LOGE("Signal handler for %s threw", signalName);
    }
  }
  ZV_LOGI("END");
}

void* DBusClient::NewCallbackHandle() const {
  void* handle = new detail::CallbackHandle(anchor_);
  detail::PublishHandle(handle);
  return handle;
}

void DBusClient::FreeCallbackHandle(void* handle) {
  detail::ReceiveHandle(handle);
  delete static_cast<detail::CallbackHandle*>(handle);
}

void DBusClient::DetachCallbacks() {
  common::RecursiveMutexLock lock(anchor_->dispatchMutex);
  anchor_->client = nullptr;
}

void DBusClient::CancelCalls() { g_cancellable_cancel(cancellable_.get()); }

void detail::ClientInternals::CancelCalls(DBusClient& client) { client.CancelCalls(); }

common::RecursiveMutex& detail::ClientInternals::ApplicationCallbackMutex() {
  return client::ApplicationCallbackMutex();
}

bool detail::ClientInternals::Call(DBusClient& client, const std::string& method, GVariant* params, GVariant** result,
                                   int timeout, common::GErrorPtr& error) {
  return client.DBusClient::Call(method, params, result, timeout, error);
}

std::string detail::ClientInternals::UniqueName(const DBusClient& client) {
  const common::GObjectPtr<GDBusConnection> bus = client.BusConnection();
  const char* name = bus ? g_dbus_connection_get_unique_name(bus.get()) : nullptr;
  return name != nullptr ? name : "";
}

}  // namespace client
}  // namespace dbus
}  // namespace zv_client
