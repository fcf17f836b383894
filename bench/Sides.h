#pragma once

// The two sides measured against each other, and the daemon's control
// surface. The library side is a Launcher; the floor is what an application
// writes with GDBus alone. Both end in the same Probe callbacks.

#include <atomic>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include <gio/gio.h>

#include <zorvel/Launcher.h>
#include <zorvel/common/GLibPtr.h>
#include <zorvel/common/GLibUtils.h>
#include <zorvel/dbus/client/DBusClientAsync.h>

#include "Probe.h"
#include "Timing.h"

namespace zv_bench {

// zorvel-bench-daemon's control surface (bench/BenchDaemon.cpp), over a
// connection of its own that stays up while the service name comes and goes.
class DaemonControl {
 public:
  static constexpr const char* kName = "zorvel.bench";

  explicit DaemonControl(GDBusConnection* connection) : connection_(connection) {}
  void SetProfiles(guint32 count);
  // The service answers every later call `ms` after it arrived (0: at once).
  void SetDelay(guint32 ms);
  // An onFound to `destination` from the service; when the daemon emitted it.
  Ns Emit(const std::string& destination);
  void ReleaseName();
  // The service name owned again, by a new connection; when the bus granted it.
  Ns AcquireName();
  void Quit();

 private:
  zv_client::common::GVariantPtr Call(const char* method, GVariant* parameters);
  GDBusConnection* connection_;
};

// Plain GDBus: a proxy (no property loading, no proxy signals) on a
// connection of its own, plus a signal subscription with the library's match
// rule, delivered on the default main context like the library's signals.
class Floor {
 public:
  Floor(const std::string& address, Probe& probe);
  ~Floor();
  Floor(const Floor&) = delete;
  Floor& operator=(const Floor&) = delete;

  std::string UniqueName() const { return g_dbus_connection_get_unique_name(connection_.get()); }

  // A method call that waits for the daemon's integer answer.
  void Call(const std::string& method, int argument);
  // readProfiles, decoded by hand into one callback per profile; how many.
  std::size_t ReadProfiles();
  // readProfiles, decoded with the library's own decoder into one callback
  // with the whole list (what an application that wants the list writes).
  std::size_t ReadProfileList();
  // `count` calls, Connect and StartBroadcast in turn, sent without waiting
  // for their answers but with no more unanswered than a system bus allows
  // one connection: each answer sends the next call. `answered` counts the
  // answers, which arrive on the main loop.
  void CallBurst(int count, std::atomic<int>& answered);

 private:
  static std::string Text(GVariant* list, std::size_t index);
  void SendNextOfBurst();
  static void OnAnswer(GObject* proxy, GAsyncResult* result, gpointer data);
  static void OnSignal(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* member,
                       GVariant* parameters, gpointer data);
  zv_client::common::GVariantPtr CallReadProfiles();

  Probe& probe_;
  zv_client::common::GObjectPtr<GDBusConnection> connection_;
  zv_client::common::GObjectPtr<GDBusProxy> proxy_;
  guint subscription_ = 0;
  std::function<void(int, const std::string&)> onFound_;
  std::function<void(int, bool)> onAvailable_;
  std::function<void(const std::vector<zv_client::common::SessionProfile>&)> onList_;
  // The burst under way; set before its first call is sent.
  int burstCount_ = 0;
  std::atomic<int> burstSent_{0};
  std::atomic<int>* burstAnswered_ = nullptr;
};

// The library: a Launcher whose callbacks feed the probe, and its command
// layer for the counts that tell when every command has ended.
class Library {
 public:
  explicit Library(Probe& probe);

  zv_client::dbus::client::DBusClientAsync& client() { return *client_; }
  // The unique name of the library's own bus connection ("" without one).
  std::string BusName() const;

  // Issues `method` ("connect" with `id`, or "startBroadcast"); returns how
  // long the caller was blocked.
  Ns Issue(const std::string& method, int id);
  // ReadProfiles; its command id. The outcome reaches the probe as a list
  // while outcomes are followed.
  zv_client::zorvel::CommandId ReadProfiles();
  // Installs (or removes) the outcome callback that reports lists.
  void FollowOutcomes(bool follow);
  // Waits until every accepted command has ended (its thread is done).
  bool WaitIdle(int timeoutMs = 10000);

 private:
  Probe& probe_;
  zv_client::zorvel::Launcher launcher_;
  zv_client::dbus::client::DBusClientAsync* client_ = nullptr;
};

}  // namespace zv_bench
