#pragma once

// The simulated zorvel daemon. It keeps two bus connections:
// - the service connection owns "zorvel.dbus.service" and serves the daemon's
//   object; it is replaced on every AcquireName/Restart, so the name gets a
//   new unique owner without a new process;
// - the control connection owns "zorvel.sim" and serves "zorvel.sim.Control"
//   on "/zorvel/sim" for the whole life of the process.
//
// Everything runs on the thread of the default main context: GDBus delivers
// both objects' method calls there and the timers fire there, so no state
// needs a lock. The name operations talk to the bus synchronously; the bus
// daemon never waits on us, and blocking the loop for that round trip makes
// every control call atomic with respect to the daemon calls.

#include <list>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gio/gio.h>

#include <zorvel/common/GLibPtr.h>
#include <zorvel/common/GLibUtils.h>

namespace zv_sim {

using zv_client::common::GObjectPtr;
using zv_client::common::GVariantPtr;
using zv_client::common::SessionProfile;

struct Options {
  std::string address;  // empty: the system bus (DBUS_SYSTEM_BUS_ADDRESS)
  std::vector<SessionProfile> profiles;
  std::vector<SessionProfile> instances;
  guint intervalMs = 200;
  bool quiet = false;
};

class Simulator {
 public:
  // `loop` is borrowed; Quit() and the loss of the bus quit it.
  Simulator(Options options, GMainLoop* loop);
  ~Simulator();
  Simulator(const Simulator&) = delete;
  Simulator& operator=(const Simulator&) = delete;

  // Owns the daemon's name first and "zorvel.sim" last, so whoever waits for
  // "zorvel.sim" finds the daemon ready too.
  bool Start(GError** error);
  // Releases the daemon's name and closes both connections; idempotent.
  void Shutdown();

 private:
  struct Call {
    guint64 sequence;
    std::string method;
    std::string sender;
    GVariantPtr arguments;
  };
  using ErrorReply = std::pair<std::string, std::string>;  // error name, message; no name: a normal reply
  // How a daemon call is to be answered: the reply body (or `error`), the
  // signal body emitted right after it (connect's onConnectionAvailable, or
  // null), and what the log says about it.
  struct Answer {
    GVariantPtr body;
    GVariantPtr followUp;
    ErrorReply error;
    std::string description;
  };
  // A reply put off by SetDelay.
  struct DelayedReply {
    Simulator* owner;
    GObjectPtr<GDBusMethodInvocation> invocation;
    Answer answer;
    guint timeoutId;
  };

  static void DaemonCallThunk(GDBusConnection* connection, const gchar* sender, const gchar* path,
                              const gchar* interface, const gchar* method, GVariant* parameters,
                              GDBusMethodInvocation* invocation, gpointer self);
  static void ControlCallThunk(GDBusConnection* connection, const gchar* sender, const gchar* path,
                               const gchar* interface, const gchar* method, GVariant* parameters,
                               GDBusMethodInvocation* invocation, gpointer self);
  static void OnBusClosed(GDBusConnection* connection, gboolean remotePeerVanished, GError* error, gpointer self);
  static gboolean OnBroadcastTick(gpointer self);
  static gboolean OnDelayedReply(gpointer pending);

  void HandleDaemonCall(const gchar* sender, const std::string& method, GVariant* parameters,
                        GDBusMethodInvocation* invocation);
  // Keeps the call for GetCalls and announces it with CallReceived.
  void RecordCall(const std::string& method, const std::string& from, GVariant* parameters);
  // What the call changes in the daemon's state; returns the daemon's answer.
  int ApplyEffects(const std::string& method, GVariant* parameters);
  int DeleteStoredProfile(GVariant* parameters);
  // The answer to give, after the overrides of SetAnswer, SetReply, SetError.
  Answer ChooseAnswer(const std::string& method, GVariant* parameters, int answer) const;
  GVariantPtr ProfilesBody() const;
  // The onConnectionAvailable body that follows an accepted connect.
  static GVariantPtr ConnectFollowUp(GVariant* parameters);
  // Answers now, later (SetDelay) or never (SetNoReply).
  void Deliver(const std::string& method, const std::string& received, GObjectPtr<GDBusMethodInvocation> invocation,
               Answer chosen);
  void HandleControlCall(const std::string& method, GVariant* parameters, GDBusMethodInvocation* invocation);
  // The control methods that can fail; false after answering with an error.
  bool HandleEmit(const std::string& method, GVariant* parameters, GDBusMethodInvocation* invocation);
  bool HandleOverride(const std::string& method, GVariant* parameters, GDBusMethodInvocation* invocation);

  bool AcquireName(GError** error);
  void ReleaseName();
  void SendReply(GDBusMethodInvocation* invocation, const Answer& answer);
  bool EmitSignal(GDBusConnection* connection, const char* destination, const char* member, GVariant* body,
                  GError** error);
  void StartBroadcast();
  void StopBroadcast();
  std::string Owner() const;
  void Log(const char* format, ...) const G_GNUC_PRINTF(2, 3);

  std::string address_;
  std::vector<SessionProfile> profiles_;
  std::vector<SessionProfile> instances_;
  guint intervalMs_;
  bool quiet_;
  GMainLoop* loop_;

  zv_client::common::GDBusNodeInfoPtr daemonNode_;
  zv_client::common::GDBusNodeInfoPtr controlNode_;
  GObjectPtr<GDBusConnection> control_;
  guint controlObjectId_ = 0;
  gulong closedHandlerId_ = 0;
  GObjectPtr<GDBusConnection> service_;  // null while the name is released
  guint serviceObjectId_ = 0;
  guint broadcastId_ = 0;  // timeout source while broadcasting

  std::map<std::string, int> answers_;          // SetAnswer
  std::map<std::string, GVariantPtr> replies_;  // SetReply; always tuples
  std::map<std::string, ErrorReply> errors_;    // SetError
  std::map<std::string, guint> delays_;         // SetDelay, non-zero only
  std::set<std::string> neverAnswered_;         // SetNoReply
  std::list<DelayedReply> delayed_;             // list: addresses stay valid for the timers
  std::vector<GObjectPtr<GDBusMethodInvocation>> unanswered_;

  std::vector<Call> calls_;
  guint64 nextSequence_ = 1;  // keeps counting across ClearCalls
};

}  // namespace zv_sim
