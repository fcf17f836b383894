#pragma once

/// \file
/// \brief The command layer under zv_client::zorvel::Launcher: commands on
/// library threads, held commands, reconnection. Applications normally use
/// the Launcher.

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <zorvel/common/GLibPtr.h>
#include <zorvel/common/GLibUtils.h>
#include <zorvel/common/ThreadAnnotations.h>
#include <zorvel/dbus/client/DBusClient.h>
#include <zorvel/dbus/client/LinkState.h>
#include <zorvel/platform/Export.h>

namespace zv_client {
namespace dbus {
namespace client {

namespace detail {
class CommandGate;
template <typename Item>
class CommandIntake;
class CommandTally;
class OrderedDeliveries;
struct CommandExecution;
// Serialises the test of reconnectFuture_ with the start of a new task, for
// every client of the process (DBusClientAsync.cpp; not exported).
common::Mutex& RestoreMutex();
}  // namespace detail

/// \brief The command layer. Call never waits for D-Bus: each accepted command runs on
/// a detached thread of its own, in the order the commands were accepted; while
/// the daemon is not ready, commands are held in a pool and replayed, oldest
/// first and at most once, when the daemon's bus name gets a new owner.
///
/// Nothing of this layer makes the application's main loop wait for the
/// daemon or the bus: the readiness handler only marks the layer ready and
/// hands the replay to a library thread, connect attempts (opening the bus
/// connection, creating the proxy) run on a library thread, and no lock that
/// the main loop takes is held across a D-Bus call.
///
/// A lost link is restored in the background, whether or not commands are
/// held, so that the daemon's signals reach a listening application after the
/// daemon restarted: a 500 ms retry timer on the default main context asks for
/// a connect attempt, and while it runs the daemon's name is watched, so that
/// the attempt is made at once when the name gets an owner.
///
/// Threads: Call, Submit, Disconnect, GetCounts and the setters may be
/// called from any thread, also from inside a callback of this client; the
/// destructor not (see there). The observers a command is submitted with
/// run on the threads given with Submit.
///
/// Lock order (outermost first), extending DBusClient's:
/// callback anchor (main-loop callbacks) -> application callback mutex (a
/// handler that calls Disconnect) -> poolMutex_;
/// runMutex_ -> poolMutex_ -> restoreMutex -> timerMutex_, and poolMutex_ ->
/// DBusClient's connectionMutex_ (a base Disconnect, which never waits for
/// the bus);
/// runMutex_ -> linkMutex_ -> DBusClient's connectionMutex_ -> timerMutex_.
/// timerMutex_, attemptMutex_ and the locks of the small mechanisms (intake,
/// deliveries, gates, tally) are leaves. runMutex_ and linkMutex_ are held
/// across calls to the daemon or the bus, and the main loop takes neither;
/// a connect attempt opens the connection and the proxy before it takes
/// DBusClient's connectionMutex_, which the main loop takes in a Disconnect.
/// The analysis sees the order among this class's own locks
/// (ZV_ACQUIRED_AFTER below), not that with DBusClient's private ones.
///
/// How the hazards of this layer are closed:
///  - Deliveries vs. Disconnect: outcomes and the "onFound" payloads of a
///    profile read are queued under poolMutex_ and dispatched after it is
///    released, batch by batch in the order they were queued. A thread that
///    is inside an application callback (it holds the application callback
///    mutex) never waits for a batch's turn: its batch is put off until it
///    left the callback, so an earlier batch waiting for that mutex always
///    gets it (see OrderedDeliveries).
///  - Restoration vs. a connect attempt: both run under linkMutex_, and a
///    restoration leaves a link alone that an attempt made meanwhile; so the
///    layer is never ready without a link (a command that found it so would
///    drop the readiness and have the link restored).
///  - Commands outliving the client: every accepted command, replay, connect
///    attempt and restoration is counted in a gate that its thread shares; the
///    destructor lets commands run for a grace period, then cancels the D-Bus
///    calls in flight, discards commands that have not run yet and waits for
///    the counts to reach zero.
///  - Main-loop callbacks vs. teardown: the timer, watcher and signal
///    registrations carry a handle, not the client; the destructor detaches the
///    handle first (waiting for a callback that is running), so one that GLib
///    dispatches later finds no client.
///  - Accounting: each accepted command ends exactly once as ran, replayed,
///    dropped as a duplicate or discarded (see Counts), and its params
///    reference is released exactly once, also when its function throws.
class ZORVEL_API DBusClientAsync : public DBusClient {
 public:
  /// How one command ended, for whoever issued it (see Submit).
  struct CommandEnd {
    /// The ways a command ends; all but kHeld are final.
    enum class Kind {
      kRan,              ///< its function ran: reply, or error, or failure below
      kDroppedAsRepeat,  ///< the same method as the command run just before, or as one held
      kHeld,             ///< not the end: pooled until the daemon is ready (ends later, wasHeld set)
      kDiscarded,        ///< dropped unsent: by Disconnect or teardown
      kFailedToRun,      ///< an exception before its function could run: failure below
    };
    /// An end of kind `ended`; `held` when the command waited in the pool first.
    explicit CommandEnd(Kind ended = Kind::kRan, bool held = false) : kind(ended), wasHeld(held) {}
    Kind kind = Kind::kRan;  ///< how it ended
    bool wasHeld = false;    ///< it waited in the pool first
    /// kRan: the daemon's reply; null when the call failed, with `error` the
    /// GDBus error (null when the link was not ready and nothing was sent).
    /// An observer that keeps a copy of the end keeps a reference of its own.
    common::SharedVariantPtr reply;
    /// kRan: the GDBus error of a failed call (see `reply`); a copy of the end
    /// carries a duplicate of the error.
    common::CopyableErrorPtr error;
    std::vector<common::SessionProfile> profiles;  ///< kRan, readProfiles: the list the reply carried
    std::string failure;                           ///< the exception's text, if one was thrown
  };
  /// Told how a command ended; gets the end by reference, valid during the call.
  using CommandObserver = std::function<void(const CommandEnd&)>;

  /// \brief One command as the layer runs or holds it.
  struct CommandData {
    /// The D-Bus call a command makes.
    struct Parameters {
      std::string method;           ///< a method of the daemon's interface
      GVariant* params = nullptr;   ///< input tuple or null; not owned by the record
      GVariant** result = nullptr;  ///< reply destination, or null for lastReply_
      int timeout = -1;             ///< ms, -1 for the D-Bus default
    };
    Parameters parameters;                            ///< the call
    std::function<bool(const Parameters&)> function;  ///< makes the call; true when it succeeded
    CommandObserver observer;                         ///< may be empty
  };

  /// Where accepted commands ended; for tests and diagnostics (never waits for
  /// a command that is running). Once no command is in flight, accepted ==
  /// ranAtOnce + replayed + droppedDuplicate + discarded + failed + held.
  struct Counts {
    std::uint64_t accepted = 0;          ///< taken by Call or Submit
    std::uint64_t ranAtOnce = 0;         ///< ran without being held
    std::uint64_t replayed = 0;          ///< ran after being held
    std::uint64_t droppedDuplicate = 0;  ///< dropped as a repeat
    std::uint64_t discarded = 0;         ///< by Disconnect or teardown
    std::uint64_t failed = 0;            ///< an exception before the command could run
    std::uint64_t pooled = 0;            ///< ever entered the pool (each later replayed or discarded)
    std::uint64_t held = 0;              ///< in the pool now
    std::uint64_t inFlight = 0;          ///< accepted, command thread not yet finished (or a replay running)
  };

  /// A client without a link; Connect() starts making one.
  DBusClientAsync();
  /// Lets the commands it accepted run for up to a grace period of 1 s, then
  /// cancels the call in flight and discards the rest, and waits for their
  /// threads; must not run on a thread that is inside one of this client's
  /// commands or callbacks. The observers of discarded commands run on the
  /// destroying thread.
  ~DBusClientAsync() override;

  /// \brief Arms the connect retry timer; never waits. The attempts run on
  /// a library thread, driven by the timer on the default main context.
  /// \return always true.
  bool Connect() override ZV_EXCLUDES(timerMutex_, statusMutex_);
  /// \brief While ready: forgets readiness and drops the held commands; keeps
  /// the D-Bus link.
  ///
  /// While not ready it changes nothing (held commands stay held for the
  /// next readiness). Never waits for the daemon or the bus. The observers
  /// of the commands it drops run on the calling thread before it returns.
  /// \return as DBusClient::Disconnect.
  bool Disconnect() override ZV_EXCLUDES(poolMutex_);
  /// Drops the link, unless a connect attempt restored it meanwhile, and
  /// arms the retry timer; waits for a command that is running. Runs on a
  /// library thread (RestoreConnection), not on the main loop.
  void Reconnect() override ZV_EXCLUDES(runMutex_, linkMutex_);
  /// \brief Accepts `method` for execution and returns at once.
  /// \param method a method of the command table (ServiceContract.h).
  /// \param params the input tuple, or null; takes over the caller's
  ///        reference (floating or full) in every case.
  /// \param result never written.
  /// \param timeout in ms, -1 for the D-Bus default.
  /// \return true when accepted, false for a method outside the command
  ///         table.
  /// \warning Throws std::system_error when no thread can be started (as
  ///          Submit).
  bool Call(const std::string& method, GVariant* params, GVariant** result, int timeout) override;
  /// \brief Call, with `observer` told how the command ended: exactly once
  /// with its end, and before that with kHeld if it was held.
  ///
  /// It runs without any lock of this client held, before the "onFound"
  /// deliveries of a profile read, on the thread that ended the command: a
  /// command thread, the library thread that replays held commands, the
  /// main-loop thread (a Disconnect there), the thread calling Disconnect, or
  /// the destroying thread; on a thread that is inside a callback, once that
  /// callback returned. Not called when the method is unknown (false).
  /// \param method a method of the command table (ServiceContract.h).
  /// \param params the input tuple, or null; taken over in every case.
  /// \param timeout in ms, -1 for the D-Bus default.
  /// \param observer stored (moved) with the command; may be empty.
  /// \return true when accepted, false for an unknown method.
  /// \warning Throws std::system_error (the command then not taken,
  ///          `params` released) when no thread can be started.
  bool Submit(const std::string& method, GVariant* params, int timeout, CommandObserver observer);

  /// \brief Runs or pools `command`, whose params reference this layer owns,
  /// on the calling thread (the layer's command threads call it).
  /// \return 0, or -1 when an exception stopped the command (it then ends as
  ///         kFailedToRun).
  int ExecuteCommand(const CommandData& command) ZV_EXCLUDES(runMutex_, poolMutex_);
  /// \brief Starts restoring the link on a library thread (Reconnect),
  /// unless a restoration is under way; returns at once. When no thread can
  /// be started, arms the retry timer and the name watch instead.
  void RestoreConnection() ZV_EXCLUDES(detail::RestoreMutex());
  /// \brief Removes the connect retry timer and the name watch.
  /// \param remove true: only if the timer is armed; false: in any case.
  void ResetTimer(bool remove) ZV_EXCLUDES(timerMutex_);

  /// A snapshot of the counts; never waits for a running command. Any thread.
  Counts GetCounts();

  /// \brief Told every change of the link's state, on the main-loop thread
  /// (the default main context), in order; none after the client's
  /// destruction began. Replaces the observer set before.
  /// \param observer stored (moved); gets the status by reference, valid
  ///        during the call only. Empty to stop calls.
  void SetLinkStateObserver(std::function<void(const LinkStatus&)> observer) ZV_EXCLUDES(statusMutex_);

 private:
  // An accepted command, or (empty) the replay of the held commands, in the
  // order in which library threads take them.
  using IntakeItem = std::optional<CommandData>;

  // The two ways ExecuteCommand takes a command, and the replay's hand-over
  // to a library thread (hidden helpers, not part of the exported class).
  friend struct detail::CommandExecution;

  void SetFunctions();
  // The two command functions of the table, the IpcReady handler and the
  // replay it hands over: small callables that hold the client pointer and
  // nothing else. The analysis cannot tie the lock of `client` that a caller
  // holds to the functor's own `client`, so each says at its start which
  // locks it finds held.
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
  struct HeldCommandsReplay {
    DBusClientAsync* client;
    // runMutex_ held by `runLock`, and released before the deliveries.
    // (This, RunFunction and DeliverQueued take a std::unique_lock rather
    // than a common::MutexLock: their signatures are exported.)
    void operator()(std::unique_lock<std::mutex>& runLock) const;
  };
  // Starts a thread that takes the oldest item of the intake; throws when
  // no thread can be started (the item is then not put in).
  void StartIntakeThread(IntakeItem item);
  // null: the oldest accepted command
  int ExecuteCommand(const CommandData* given) ZV_EXCLUDES(runMutex_, poolMutex_);
  // Runs the command's function and ends it as run (a throw passes on).
  // `poolLock` (a std::unique_lock on poolMutex_) released on entry, held on
  // every way out.
  bool RunFunction(const CommandData& command, bool wasHeld, std::unique_lock<std::mutex>& poolLock)
      ZV_REQUIRES(runMutex_) ZV_ACQUIRE(poolMutex_);
  // Ends `command`: counts it and queues its observer's call.
  void Finish(const CommandData& command, CommandEnd end) ZV_REQUIRES(poolMutex_);
  void DiscardPool() ZV_REQUIRES(poolMutex_);
  // Runs what was queued under poolMutex_, releasing it (`poolLock`) first.
  void DeliverQueued(std::unique_lock<std::mutex>& poolLock) ZV_RELEASE(poolMutex_);

  // Asks for a connect attempt on a library thread; one runs at a time.
  void RequestAttempt(bool fromTimer) ZV_EXCLUDES(attemptMutex_);
  // The attempts of one attempt thread: the one asked for, and one more for
  // each request that came while it ran.
  void RunAttempts(bool fromTimer) ZV_EXCLUDES(attemptMutex_);
  // One connect attempt; true when connected. Takes linkMutex_.
  bool AttemptConnect(bool fromTimer) ZV_EXCLUDES(linkMutex_);
  void StartNameWatch() ZV_EXCLUDES(timerMutex_);
  // Arms the retry timer and, while it is armed, the watch on the daemon's name.
  void ArmRestoration() ZV_EXCLUDES(timerMutex_, statusMutex_);
  // Forgets the timer and the name watch; removes the timer's source.
  void DropTimer() ZV_EXCLUDES(timerMutex_);
  // Queues a change of the link's state for the main loop (unchanged states
  // are not told; with `onlyAfterLoss`, only one that follows a loss).
  void ReportLink(LinkState state, std::string text, std::string busAddress = {}, std::string error = {},
                  bool onlyAfterLoss = false) ZV_EXCLUDES(statusMutex_);
  // The state an attempt's failure means.
  void ReportConnectFailure() ZV_EXCLUDES(statusMutex_);
  static gboolean OnLinkStatusIdle(gpointer handle);
  static gboolean OnConnectTimer(gpointer handle);
  static void OnDaemonNameAppeared(GDBusConnection* connection, const char* name, const char* nameOwner, void* handle);

  common::GVariantPtr lastReply_ ZV_GUARDED_BY(runMutex_);
  std::vector<common::SessionProfile> profiles_ ZV_GUARDED_BY(runMutex_);
  std::map<std::string, std::function<bool(const CommandData::Parameters&)>> functions_;  // fixed after construction
  // Guards the pool, readiness and what is queued for delivery; never held
  // across a call to the daemon or the bus (the main loop takes it).
  common::Mutex poolMutex_ ZV_ACQUIRED_AFTER(runMutex_);
  std::deque<CommandData> commandPool_ ZV_GUARDED_BY(poolMutex_);  // holds a full ref to each params
  guint connectTimerId_ ZV_GUARDED_BY(timerMutex_) = 0;
  std::future<bool> reconnectFuture_ ZV_GUARDED_BY(detail::RestoreMutex());
  std::atomic<bool> ready_{false};  // written under poolMutex_
  common::Mutex timerMutex_ ZV_ACQUIRED_AFTER(poolMutex_, linkMutex_);
  std::string activeCommand_ ZV_GUARDED_BY(poolMutex_);

  // Held while a command's function runs (its D-Bus call) and across a
  // replay and a restoration: commands never overlap, and run in the order
  // the intake hands them out.
  common::Mutex runMutex_;
  common::GErrorPtr lastError_ ZV_GUARDED_BY(runMutex_);  // why the last call failed
  // The "onFound" deliveries of the profile read running now.
  std::vector<std::function<void()>> foundDeliveries_ ZV_GUARDED_BY(runMutex_);
  common::GSourcePtr connectTimerSource_ ZV_GUARDED_BY(timerMutex_);  // the armed timer
  guint nameWatchId_ ZV_GUARDED_BY(timerMutex_) = 0;                  // the daemon's name while the timer is armed
  common::GObjectPtr<GDBusConnection> nameWatchBus_ ZV_GUARDED_BY(timerMutex_);  // the connection it watches on
  // See "Restoration vs. a connect attempt" above.
  common::Mutex linkMutex_ ZV_ACQUIRED_AFTER(runMutex_);
  common::Mutex attemptMutex_;
  bool attemptRunning_ ZV_GUARDED_BY(attemptMutex_) = false;
  bool attemptAgain_ ZV_GUARDED_BY(attemptMutex_) = false;  // the name got an owner during the running attempt
  // The last task's Reconnect is done (a timer it armed may since have been
  // removed); written under the restore mutex and by the task.
  std::atomic<bool> reconnectPassed_{false};
  std::atomic<bool> draining_{false};  // set first in the destructor: nothing new is pooled
  std::atomic<bool> closing_{false};   // set after the grace period: nothing new runs
  common::Mutex statusMutex_;          // a leaf
  std::optional<LinkState> reportedState_ ZV_GUARDED_BY(statusMutex_);
  std::deque<LinkStatus> statusQueue_ ZV_GUARDED_BY(statusMutex_);  // not yet told
  std::shared_ptr<const std::function<void(const LinkStatus&)>> linkObserver_ ZV_GUARDED_BY(statusMutex_);
  std::unique_ptr<detail::CommandIntake<IntakeItem>> intake_;
  // What runs after poolMutex_ is released; batches are added and closed
  // under poolMutex_.
  std::unique_ptr<detail::OrderedDeliveries> deliveries_;
  std::unique_ptr<detail::CommandTally> tally_;
  std::shared_ptr<detail::CommandGate> gate_;      // command threads and replays
  std::shared_ptr<detail::CommandGate> linkGate_;  // connect attempts and restorations
};

}  // namespace client
}  // namespace dbus
}  // namespace zv_client
