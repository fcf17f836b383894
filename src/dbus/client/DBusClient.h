#pragma once

/// \file
/// \brief The base D-Bus client of the daemon (proxy, name watcher, signal
/// dispatch). Applications normally use zv_client::zorvel::Launcher, which
/// is built on DBusClientAsync, and need not use this class directly.

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <gio/gio.h>

#include <zorvel/common/GLibPtr.h>
#include <zorvel/common/ThreadAnnotations.h>
#include <zorvel/platform/Export.h>

namespace zv_client {
/// \brief The D-Bus layer of the library.
namespace dbus {
/// \brief The client of the daemon: the base client, the command layer,
/// the link state and the service contract.
namespace client {

class DBusClient;

namespace detail {
struct CallbackAnchor;
struct ClientInternals;  // the library's own access to a client, see DBusClient.cpp
}  // namespace detail

/// \brief The base D-Bus client: owns the proxy for the daemon's object on the system
/// bus, follows the owner of the daemon's well-known name, makes synchronous
/// calls and dispatches the daemon's signals by member name.
///
/// The client talks over a connection of its own to the system bus, never
/// over GLib's shared one: the shared connection ends the process when the bus
/// goes away, and an application must not be killed by a library it loaded.
/// When the bus is gone the next Connect opens a new connection.
///
/// Threads: the name watcher and signal callbacks are delivered through the
/// thread-default main context of the thread that called Connect (normally the
/// global default context, whose main loop the application runs). The
/// public operations may be called from any thread unless their own page says
/// otherwise. Failures are results (false, null) and log lines; the methods
/// that are not noexcept throw only what allocation throws, unless their page
/// says more.
///
/// Lock order (outermost first; a lock is only ever taken while holding locks
/// above it):
/// 1. the callback anchor's dispatch mutex (held while a GLib callback runs
///    on us)
/// 2. DBusClientAsync's locks (see there)
/// 3. connectionMutex_
/// 4. stateMutex_ (a leaf)
///
/// The process-wide application callback mutex is held only around a handler,
/// with neither 3 nor 4 held; a handler may take any lock of 2-4 again.
/// The analysis sees 3 -> 4 (ZV_ACQUIRED_AFTER below); 1 lives in an object
/// reached through a GLib handle and 2 in the derived class, which this class
/// cannot name.
class ZORVEL_API DBusClient {
 public:
  /// \brief A handler of one of the daemon's signals: gets the signal's
  /// parameters, borrowed (valid during the call only; may be null).
  using SignalCallback = std::function<void(GVariant*)>;

  /// A client without a connection; Connect() makes one.
  DBusClient();
  /// Detaches the GLib callbacks (waiting for one that runs), then drops the
  /// watcher, the subscription and the proxy, and closes the connection.
  virtual ~DBusClient();

  DBusClient(const DBusClient&) = delete;
  DBusClient& operator=(const DBusClient&) = delete;

  /// \brief Creates the proxy and subscribes to the daemon's signals.
  ///
  /// Fails while the name has no owner or is still owned by the instance
  /// last recorded (one that is going away); LastConnectFailure() says why.
  /// Blocks until the bus (and the daemon, for the proxy) answered: the
  /// command layer calls it on a thread of its own, never on the main loop.
  /// \return true when connected.
  virtual bool Connect() ZV_EXCLUDES(connectionMutex_, stateMutex_);
  /// \brief Drops the subscription and the proxy. Any thread.
  /// \return false when it was not connected.
  virtual bool Disconnect() ZV_EXCLUDES(connectionMutex_, stateMutex_);
  /// Disconnect(), then Connect(); blocks as Connect does.
  virtual void Reconnect() ZV_EXCLUDES(connectionMutex_, stateMutex_);
  /// \brief One synchronous call of `method`; blocks the calling thread until
  /// the reply, the timeout or teardown.
  ///
  /// Not on the main-loop thread: it would hold up the daemon's events.
  /// \param method a method of the daemon's interface.
  /// \param params the input tuple, or null. A floating `params` is sunk
  ///        (the caller then holds a full reference it must release); a full
  ///        reference stays the caller's.
  /// \param result if not null, receives the reply, which belongs to the
  ///        caller (g_variant_unref); null when the call failed.
  /// \param timeout in ms, -1 for GDBus's default.
  /// \return true when the daemon replied; false when the client was not
  ///         ready (nothing sent) or the call failed.
  virtual bool Call(const std::string& method, GVariant* params, GVariant** result, int timeout)
      ZV_EXCLUDES(stateMutex_);

  /// Whether the proxy is there (Connect succeeded, no Disconnect since). Any thread.
  bool IsConnected() const;
  /// \brief Sets the callable told when the daemon's name gets an owner
  /// (true) or loses it (false), on the main-loop thread.
  ///
  /// The callable installed is the one that runs (state it keeps survives
  /// between calls); it may be replaced at any time, also while it runs.
  /// \param callback stored (moved); empty to stop calls.
  void SetIpcReadyCallback(std::function<void(bool)> callback) ZV_EXCLUDES(stateMutex_);

  /// Starts the name watcher, if none runs, on the proxy's connection, or
  /// without a proxy on the client's connection to the bus. Its callbacks
  /// run on the calling thread's thread-default main context.
  void LaunchBusWatcher() ZV_EXCLUDES(stateMutex_);
  /// Stops the name watcher, if one runs.
  void StopBusWatcher() ZV_EXCLUDES(stateMutex_);

  /// \brief Registers `callback` for the signal member `signalName`,
  /// replacing any earlier one.
  ///
  /// Safe against concurrent dispatch: a handler already running finishes,
  /// and is destroyed only then. Handlers run on the main-loop thread.
  /// \param signalName a signal of the daemon's interface (ServiceContract.h).
  /// \param callback stored (moved) and run as it is.
  void SetSignalCallback(const std::string& signalName, SignalCallback callback) ZV_EXCLUDES(stateMutex_);
  /// \brief Runs the handler registered for `signalName` on the calling
  /// thread.
  ///
  /// None, or an empty one, is logged and skipped. It runs under the
  /// process-wide application callback mutex, which the same thread may take
  /// again: a handler may itself call HandleSignal.
  /// \param signalName the signal member.
  /// \param parameters borrowed; passed to the handler as it is.
  /// \warning Exceptions of the handler pass to the caller.
  void HandleSignal(const std::string& signalName, GVariant* parameters) ZV_EXCLUDES(stateMutex_);

 protected:
  /// \name GDBus callbacks
  /// Run by GLib on the main-loop thread. `userData` is the callback handle
  /// this client registered (see NewCallbackHandle), never the client itself,
  /// so a callback that GLib dispatches after the client is gone finds no
  /// client and does nothing. Every pointer is GLib's, borrowed for the call.
  ///@{
  /// The daemon's name got the owner `nameOwner`: records it, tells the ready callback.
  static void OnBusNameAvailable(GDBusConnection* connection, const char* name, const char* nameOwner, void* userData);
  /// The daemon's name lost its owner: records it, tells the ready callback.
  static void OnBusNameVanished(GDBusConnection* connection, const char* name, void* userData);
  /// One of the daemon's signals: dispatched by member name (HandleSignal).
  static void SignalHandler(GDBusConnection* connection, const char* senderName, const char* objectPath,
                            const char* interfaceName, const char* signalName, GVariant* parameters, void* userData);
  ///@}

  /// \brief A heap handle naming this client for a GLib registration's user
  /// data; pass FreeCallbackHandle as its destroy notify.
  /// \return a new handle, owned by the registration.
  void* NewCallbackHandle() const;
  /// Frees a handle of NewCallbackHandle (a GDestroyNotify). Any thread.
  static void FreeCallbackHandle(void* handle);

  /// Blocks until no GLib callback runs on this client and makes every later
  /// one a no-op. A derived destructor calls it first, before its own members
  /// go; calling it from inside one of this client's callbacks is not allowed.
  void DetachCallbacks();
  /// Fails every call in flight and every later one at once; for teardown.
  void CancelCalls();

  /// \brief The client's open connection to the system bus, opening one if
  /// there is none or the one it had was closed (the bus went away).
  ///
  /// Blocks while the connection is opened: not on the main-loop thread.
  /// \param[out] error set when the bus cannot be reached.
  /// \return a new reference, the caller's; null with `error` set when the
  ///         bus cannot be reached.
  common::GObjectPtr<GDBusConnection> OpenBusConnection(common::GErrorPtr& error) ZV_EXCLUDES(stateMutex_);
  /// \brief The connection as it is, without opening one.
  /// \return a new reference, the caller's; null when none is open.
  common::GObjectPtr<GDBusConnection> BusConnection() const ZV_EXCLUDES(stateMutex_);

  /// Why the last Connect failed.
  struct ConnectFailure {
    /// kNone (no failure), kBusUnreachable, kNoOwner (the daemon's name has
    /// none), kOwnerGoingAway (still the instance last recorded).
    enum Kind { kNone, kBusUnreachable, kNoOwner, kOwnerGoingAway };
    Kind kind = kNone;       ///< what failed
    std::string busAddress;  ///< kBusUnreachable: the address tried
    std::string error;       ///< kBusUnreachable: GLib's message
  };
  /// Why the last Connect failed (a copy). Any thread.
  ConnectFailure LastConnectFailure() const ZV_EXCLUDES(stateMutex_);

  /// \brief The synchronous Call of this class, also handing back why it
  /// failed: the GDBus error of the call, or none when the client was not
  /// ready and nothing was sent.
  /// \param method a method of the daemon's interface.
  /// \param params as for the other Call: a floating one is sunk, the
  ///        reference stays the caller's.
  /// \param result if not null, receives the reply, the caller's.
  /// \param timeout in ms, -1 for GDBus's default.
  /// \param[out] error the GDBus error, the caller's; reset first.
  /// \return true when the daemon replied.
  bool Call(const std::string& method, GVariant* params, GVariant** result, int timeout, common::GErrorPtr& error)
      ZV_EXCLUDES(stateMutex_);

 private:
  friend struct detail::ClientInternals;

  // Records `nameOwner` ("" when the name vanished) and tells the ready callback.
  void NotifyIpcReady(bool isReady, const char* nameOwner) ZV_EXCLUDES(stateMutex_);
  void LaunchBusWatcher(GDBusConnection* bus) ZV_EXCLUDES(stateMutex_);

  // Fields in the order of the client's data model. The GLib callbacks (main
  // loop thread) and the application's threads share them as noted. A
  // callable is held through a shared pointer: a dispatch copies the pointer,
  // not the callable, so the callable the application installed is the one
  // that runs, and replacing it never destroys it under a running call.
  std::map<std::string, std::shared_ptr<const SignalCallback>> signalCallbacks_ ZV_GUARDED_BY(stateMutex_);
  std::shared_ptr<const std::function<void(bool)>> ipcReadyCallback_ ZV_GUARDED_BY(stateMutex_);
  std::atomic<bool> connected_{false};
  // Written under connectionMutex_ and stateMutex_. Call takes its own
  // reference under stateMutex_, so a Disconnect on another thread cannot
  // release the proxy in the middle of a call.
  common::GObjectPtr<GDBusProxy> proxy_ ZV_GUARDED_BY(stateMutex_);
  guint signalSubscriptionId_ ZV_GUARDED_BY(connectionMutex_) = 0;
  // Written under connectionMutex_ too; the watcher reads it under stateMutex_.
  std::string busName_ ZV_GUARDED_BY(stateMutex_);
  std::string nameOwner_ ZV_GUARDED_BY(stateMutex_);  // written only by the watcher callbacks
  guint busWatcherId_ ZV_GUARDED_BY(stateMutex_) = 0;
  std::atomic<bool> ipcReady_{false};
  common::Mutex connectionMutex_;

  mutable common::Mutex stateMutex_ ZV_ACQUIRED_AFTER(connectionMutex_);
  common::GObjectPtr<GDBusConnection> connection_ ZV_GUARDED_BY(stateMutex_);  // closed and released at teardown
  common::GObjectPtr<GCancellable> cancellable_;                               // set once; cancelled at teardown
  ConnectFailure lastConnectFailure_ ZV_GUARDED_BY(stateMutex_);
  std::shared_ptr<detail::CallbackAnchor> anchor_;  // shared with every GLib registration
};

}  // namespace client
}  // namespace dbus
}  // namespace zv_client
