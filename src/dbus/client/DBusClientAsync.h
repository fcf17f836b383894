#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <common/Export.h>
#include <common/GLibPtr.h>
#include <common/GLibUtils.h>
#include <dbus/client/DBusClient.h>

namespace zv_client {
namespace dbus {
namespace client {

namespace detail {
class CommandGate;
class CommandIntake;
class CommandTally;
class OrderedDeliveries;
}  // namespace detail

// The command layer. Call never waits for D-Bus: each accepted command runs on
// a detached thread of its own, in the order the commands were accepted; while
// the daemon is not ready, commands are held in a pool and replayed, oldest
// first and at most once, when the daemon's bus name gets a new owner.
//
// A lost link is restored in the background, whether or not commands are
// held, so that the daemon's signals reach a listening application after the
// daemon restarted: a 500 ms retry timer on the default main context tries to
// connect, and while it runs the daemon's name is watched, so that the
// attempt is made at once when the name gets an owner.
//
// Lock order (outermost first), extending DBusClient's:
//   callback anchor (main-loop callbacks) -> signal mutex (a handler that calls
//   Disconnect) -> poolMutex_ -> linkMutex_ -> DBusClient's connectionMutex_,
//   and poolMutex_ -> restoreMutex -> timerMutex_. timerMutex_ and the locks
//   of the small mechanisms (intake, deliveries, gate, tally) are leaves.
//
// How the hazards of this layer are closed:
//  - Deliveries vs. Disconnect: the profile-reading command only queues its
//    "onFound" payloads while poolMutex_ is held; they are dispatched after
//    it is released, batch by batch in the order the replies were read. So a
//    callback may call StopBroadcast/Disconnect, and onDbusClosing (signal
//    mutex held) never waits for a thread that waits for the signal mutex.
//  - Restoration vs. a connect attempt: both run under linkMutex_, and a
//    restoration leaves a link alone that an attempt made meanwhile; so the
//    layer is never ready without a link (a command that found it so would
//    drop the readiness and have the link restored).
//  - Commands outliving the client: every accepted command is counted in a
//    gate that its thread shares; the destructor lets them run for a grace
//    period, then cancels the D-Bus call in flight, discards commands that
//    have not run yet and waits for the count to reach zero.
//  - Main-loop callbacks vs. teardown: the timer, watcher and signal
//    registrations carry a handle, not the client; the destructor detaches the
//    handle first (waiting for a callback that is running), so one that GLib
//    dispatches later finds no client.
//  - Accounting: each accepted command ends exactly once as ran, replayed,
//    dropped as a duplicate or discarded (see Counts), and its params
//    reference is released exactly once, also when its function throws.
class ZORVEL_API DBusClientAsync : public DBusClient {
 public:
  // How one command ended, for whoever issued it (see Submit).
  struct CommandEnd {
    enum class Kind {
      kRan,              // its function ran: reply, or error, or failure below
      kDroppedAsRepeat,  // the same method as the command run just before, or as one held
      kHeld,             // not the end: pooled until the daemon is ready (ends later, wasHeld set)
      kDiscarded,        // dropped unsent: by Disconnect or teardown
      kFailedToRun,      // an exception before its function could run: failure below
    };
    explicit CommandEnd(Kind ended = Kind::kRan, bool held = false) : kind(ended), wasHeld(held) {}
    Kind kind = Kind::kRan;
    bool wasHeld = false;  // it waited in the pool first
    // kRan: the daemon's reply; null when the call failed, with `error` the
    // GDBus error (null when the link was not ready and nothing was sent).
    std::shared_ptr<GVariant> reply;
    std::shared_ptr<GError> error;
    std::vector<common::SessionProfile> profiles;  // kRan, readProfiles: the list the reply carried
    std::string failure;                           // the exception's text, if one was thrown
  };
  using CommandObserver = std::function<void(const CommandEnd&)>;

  struct CommandData {
    struct Parameters {
      std::string method;
      GVariant* params = nullptr;   // input tuple or null; not owned by the record
      GVariant** result = nullptr;  // reply destination, or null for lastReply_
      int timeout = -1;             // ms, -1 for the D-Bus default
    };
    Parameters parameters;
    std::function<bool(const Parameters&)> function;
    CommandObserver observer;  // may be empty
  };

  // Where accepted commands ended; for tests and diagnostics (never waits for
  // a command that is running). Once no command is in flight, accepted ==
  // ranAtOnce + replayed + droppedDuplicate + discarded + failed + held.
  struct Counts {
    std::uint64_t accepted = 0;
    std::uint64_t ranAtOnce = 0;
    std::uint64_t replayed = 0;
    std::uint64_t droppedDuplicate = 0;
    std::uint64_t discarded = 0;  // by Disconnect or teardown
    std::uint64_t failed = 0;     // an exception before the command could run
    std::uint64_t pooled = 0;     // ever entered the pool (each later replayed or discarded)
    std::uint64_t held = 0;       // in the pool now
    std::uint64_t inFlight = 0;   // accepted, command thread not yet finished
  };

  DBusClientAsync();
  // Lets the commands it accepted run for up to a grace period of 1 s, then
  // cancels the call in flight and discards the rest, and waits for their
  // threads; must not run on a thread that is inside one of this client's
  // commands or callbacks.
  ~DBusClientAsync() override;

  // Arms the connect retry timer; always true.
  bool Connect() override;
  // Forgets readiness and drops the held commands; keeps the D-Bus link.
  bool Disconnect() override;
  void Reconnect() override;
  // Accepts `method` for execution and returns at once: true when accepted,
  // false for a method outside the command table. Takes over the caller's
  // reference to `params` in every case. Never writes `result`.
  bool Call(const std::string& method, GVariant* params, GVariant** result, int timeout) override;
  // Call, with `observer` told how the command ended: exactly once with its
  // end, and before that with kHeld if it was held. It runs without any lock
  // of this client held, after the "onFound" deliveries of a profile read,
  // on the thread that ended the command: a command thread, the main-loop
  // thread (a replay, or a Disconnect there), the thread calling Disconnect,
  // or the destroying thread. Not called when the method is unknown (false).
  bool Submit(const std::string& method, GVariant* params, int timeout, CommandObserver observer);

  // Runs or pools `command`, whose params reference this layer owns.
  int ExecuteCommand(const CommandData& command);
  void RestoreConnection();
  void ResetTimer(bool remove);

  Counts GetCounts();

 private:
  void SetFunctions();
  // The two command functions of the table and the IpcReady handler: small
  // callables that hold the client pointer and nothing else.
  struct ForwardingCommand {
    DBusClientAsync* client;
    bool operator()(const CommandData::Parameters& parameters) const;
  };
  struct ProfileReadingCommand {
    DBusClientAsync* client;
    bool operator()(const CommandData::Parameters& parameters) const;
  };
  struct IpcReadyHandler {
    DBusClientAsync* client;
    void operator()(bool isReady) const;
  };
  int ExecuteCommand(const CommandData* given);  // null: the oldest accepted command
  // Runs the command's function and ends it as run (a throw passes on).
  bool RunFunction(const CommandData& command, bool wasHeld);  // poolMutex_ held
  // Ends `command`: counts it and queues its observer's call (at position
  // `deliveryAt` among the deliveries not yet run, by default last).
  void Finish(const CommandData& command, CommandEnd end,
              std::size_t deliveryAt = static_cast<std::size_t>(-1));  // poolMutex_ held
  void DiscardPool();                                                  // poolMutex_ held
  // Runs what was queued under poolMutex_, releasing it first.
  void DeliverQueued(std::unique_lock<std::mutex>& poolLock);

  // One connect attempt of the retry timer or of the name watch; true when
  // connected. Takes linkMutex_.
  bool AttemptConnect(bool fromTimer);
  void StartNameWatch();
  // Arms the retry timer and, while it is armed, the watch on the daemon's name.
  void ArmRestoration();
  static gboolean OnConnectTimer(gpointer handle);
  static void OnDaemonNameAppeared(GDBusConnection* connection, const char* name, const char* nameOwner, void* handle);

  GVariant* lastReply_ = nullptr;                 // owned; guarded by poolMutex_
  std::vector<common::SessionProfile> profiles_;  // guarded by poolMutex_
  std::map<std::string, std::function<bool(const CommandData::Parameters&)>> functions_;  // fixed after construction
  std::mutex poolMutex_;
  std::deque<CommandData> commandPool_;  // guarded by poolMutex_; holds a full ref to each params
  guint connectTimerId_ = 0;             // guarded by timerMutex_
  std::future<bool> reconnectFuture_;    // guarded by the process-wide restore mutex
  std::atomic<bool> ready_{false};       // written under poolMutex_
  std::mutex timerMutex_;
  std::string activeCommand_;  // guarded by poolMutex_

  common::GErrorPtr lastError_;            // why the last call failed; guarded by poolMutex_
  GSource* connectTimerSource_ = nullptr;  // owned ref to the armed timer; guarded by timerMutex_
  guint nameWatchId_ = 0;                  // the daemon's name while the timer is armed; guarded by timerMutex_
  std::mutex linkMutex_;                   // see "Restoration vs. a connect attempt" above
  // The last task's Reconnect is done (a timer it armed may since have been
  // removed); written under poolMutex_ and the restore mutex.
  std::atomic<bool> reconnectPassed_{false};
  std::atomic<bool> draining_{false};  // set first in the destructor: nothing new is pooled
  std::atomic<bool> closing_{false};   // set after the grace period: nothing new runs
  std::unique_ptr<detail::CommandIntake> intake_;
  std::unique_ptr<detail::OrderedDeliveries> deliveries_;  // what runs after poolMutex_ is released
  std::unique_ptr<detail::CommandTally> tally_;
  std::shared_ptr<detail::CommandGate> gate_;
};

}  // namespace client
}  // namespace dbus
}  // namespace zv_client
