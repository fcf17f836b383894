#pragma once

#include <atomic>
#include <condition_variable>
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

// The command layer. Call never waits for D-Bus: each accepted command runs on
// a detached thread of its own, in the order the commands were accepted; while
// the daemon is not ready, commands are held in a pool and replayed, oldest
// first and at most once, when the daemon's bus name gets a new owner. A lost link is restored in the
// background by a 500 ms retry timer on the default main context.
//
// Lock order (outermost first), extending DBusClient's:
//   callback anchor (main-loop callbacks) -> signal mutex (a handler that calls
//   Disconnect) -> poolMutex_ -> restoreMutex -> timerMutex_, and
//   poolMutex_ -> connectionMutex_.
// intakeMutex_, deliveryMutex_ and the command gate's mutex are leaves, never held while
// anything else is taken or any callback runs.
//
// How the hazards of this layer are closed:
//  - Deliveries vs. Disconnect: the profile-reading command only queues its
//    "onFound" payloads while poolMutex_ is held; they are dispatched after
//    poolMutex_ is released, batch by batch in the order the replies were
//    read (a ticket taken under poolMutex_). So a callback may call
//    StopBroadcast/Disconnect, and onDbusClosing (signal mutex held) never
//    waits for a thread that waits for the signal mutex.
//  - Commands outliving the client: every accepted command is counted in a
//    gate that its thread shares; the destructor cancels the D-Bus call in
//    flight, discards commands that have not run yet and waits for the count
//    to reach zero. The wait is bounded by the application callbacks that are
//    running at that moment (no D-Bus timeout is waited for).
//  - Main-loop callbacks vs. teardown: the timer, watcher and signal
//    registrations carry a handle, not the client; the destructor detaches the
//    handle first (waiting for a callback that is running), so one that GLib
//    dispatches later finds no client.
//  - Accounting: each accepted command ends exactly once as ran, replayed,
//    dropped as a duplicate or discarded (see Counts), and its params
//    reference is released exactly once, also when its function throws.
class ZORVEL_API DBusClientAsync : public DBusClient {
 public:
  struct CommandData {
    struct Parameters {
      std::string method;
      GVariant* params = nullptr;    // input tuple or null; not owned by the record
      GVariant** result = nullptr;   // reply destination, or null for lastReply_
      int timeout = -1;              // ms, -1 for the D-Bus default
    };
    Parameters parameters;
    std::function<bool(const Parameters&)> function;
  };

  // Where accepted commands ended; for tests and diagnostics (never waits for
  // a command that is running). Once no command is in flight, accepted == ranAtOnce + replayed + droppedDuplicate +
  // discarded + failed + held.
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
  // Waits for the commands it accepted (see above); must not run on a thread
  // that is inside one of this client's commands or callbacks.
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

  // Runs or pools `command`, whose params reference this layer owns.
  int ExecuteCommand(const CommandData& command);
  void RestoreConnection();
  void ResetTimer(bool remove);

  Counts GetCounts();

 private:
  struct CommandGate;
  using Batch = std::vector<common::GVariantPtr>;

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
  // What each command thread runs: the oldest accepted command not yet taken.
  int ExecuteNext();
  int ExecuteCommand(const CommandData* given);  // null: the oldest of intake_
  // Runs the command's function; poolMutex_ held.
  bool RunFunction(const CommandData& command);
  // Takes the queued deliveries and their turn in `ticket`; poolMutex_ held.
  Batch TakeDeliveries(std::uint64_t& ticket);
  void Deliver(Batch batch, std::uint64_t ticket);
  void DiscardPool();  // poolMutex_ held
  void RemoveTimerQuietly();
  static gboolean OnConnectTimer(gpointer handle);

  GVariant* lastReply_ = nullptr;                    // owned; guarded by poolMutex_
  std::vector<common::SessionProfile> profiles_;    // guarded by poolMutex_
  std::map<std::string, std::function<bool(const CommandData::Parameters&)>> functions_;  // fixed after construction
  std::mutex poolMutex_;
  std::deque<CommandData> commandPool_;  // guarded by poolMutex_; holds a full ref to each params
  guint connectTimerId_ = 0;             // guarded by timerMutex_
  GSource* connectTimerSource_ = nullptr;  // owned ref to the armed timer; guarded by timerMutex_
  std::future<bool> reconnectFuture_;    // guarded by the process-wide restore mutex
  std::atomic<bool> reconnectArmed_{false};  // the last task's Reconnect has armed the timer; under poolMutex_
  std::atomic<bool> ready_{false};       // written under poolMutex_
  std::mutex timerMutex_;
  std::string activeCommand_;  // guarded by poolMutex_

  std::mutex intakeMutex_;             // leaf; taken under poolMutex_ by command threads
  std::deque<CommandData> intake_;     // accepted, not yet taken by a thread; guarded by intakeMutex_
  std::atomic<bool> draining_{false};     // set first in the destructor: nothing new is pooled
  std::atomic<bool> closing_{false};      // set after the grace period: nothing new runs
  Batch pendingDeliveries_;               // guarded by poolMutex_
  std::uint64_t nextDeliveryTicket_ = 0;  // guarded by poolMutex_
  std::mutex deliveryMutex_;
  std::condition_variable deliveryTurn_;
  std::uint64_t servingDeliveryTicket_ = 0;  // guarded by deliveryMutex_
  std::shared_ptr<CommandGate> gate_;

  // Adds `delta` to one count and, unless kHeldUnchanged, records the pool
  // size, in one step, so that a snapshot always adds up.
  static constexpr std::size_t kHeldUnchanged = static_cast<std::size_t>(-1);
  void Tally(std::uint64_t Counts::*field, int delta = 1, std::size_t held = kHeldUnchanged);
  std::mutex countsMutex_;  // leaf
  Counts counts_;           // guarded by countsMutex_ (inFlight unused: the gate has it)
};

}  // namespace client
}  // namespace dbus
}  // namespace zv_client
