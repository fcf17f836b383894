#pragma once

/// \file
/// \brief The public facade of libzorvel: zv_client::zorvel::Launcher, its
/// command outcomes and the library's own error names.
///
/// Include it as `<zorvel/Launcher.h>`. The rules that every operation of the
/// Launcher follows (calling order, the main loop, threads, callbacks, what
/// happens across daemon and bus restarts) are on the \ref index "main page".

/**
 * \mainpage Drive the zorvel daemon over the system D-Bus
 *
 * The application creates one zv_client::zorvel::Launcher, sets its
 * callbacks and calls plain methods; the library turns them into D-Bus calls
 * to the daemon and turns the daemon's signals back into callbacks. This page
 * gives the rules every operation follows; each operation's own page adds
 * what it returns, on which threads it may be called and runs its callbacks,
 * who owns what it passes, and how it fails.
 *
 * The headers, all included through the prefix `zorvel/`:
 * - `<zorvel/Launcher.h>`: the Launcher, its command outcomes and error
 *   names (this page).
 * - `<zorvel/Version.h>`: the version of the headers and of the loaded
 *   library.
 * - `<zorvel/common/GLibUtils.h>`: the payload formats and conversions;
 *   `<zorvel/common/GLibPtr.h>`: owning holders for GLib references.
 * - `<zorvel/platform/SystemLog.h>`: the log, its level and a sink of your
 *   own.
 * - `<zorvel/dbus/client/LinkState.h>`: where the link to the daemon stands.
 * - `<zorvel/dbus/client/DBusClient.h>`, `<zorvel/dbus/client/DBusClientAsync.h>`
 *   and `<zorvel/dbus/client/ServiceContract.h>`: the client layers the
 *   Launcher is built on, and the names the library and the daemon agree on.
 * - `<zorvel/common/ThreadAnnotations.h>` and `<zorvel/platform/Export.h>`:
 *   the lock annotations and the export macro the other headers use.
 *
 * \section calling_order Calling order
 *
 * Create one Launcher, set its callbacks, Init(), then the commands, Stop(),
 * destroy it. All Launcher objects of a process share one client, so use one
 * Launcher at a time: Init() on a second object replaces the client (and the
 * first object's callbacks), and destroying any Launcher removes the client
 * for all of them (their commands then return -1 or nothing).
 *
 * \section main_loop Main loop
 *
 * The library runs no main loop of its own. The application must run a GLib
 * main loop on the default main context (`g_main_loop_new(nullptr, FALSE)`):
 * the connect retry timer fires there, and the daemon's name changes and
 * signals are delivered there. Without it the library never connects and
 * every command stays held. "The main-loop thread" on these pages is the
 * thread that runs that loop.
 *
 * \section never_block Commands never block the caller
 *
 * Connect, StartBroadcast, ReadProfiles and DeleteStoredProfile hand their
 * command to a thread of its own and return at once (0, or an empty list);
 * their return value does not carry the daemon's answer, their outcome does
 * (below). While the daemon is not reachable the command is held and sent
 * when it comes back. Stop and StopBroadcast call the daemon directly, wait
 * for its answer (StopBroadcast up to 500 ms) and fail at once when the
 * daemon is not ready.
 *
 * Commands are sent in the order they were issued (from several threads:
 * in the order the calls returned). A repeat is recognised by its method
 * alone, whatever its argument: a command whose method is that of the
 * command sent just before, or of a command already held, is dropped (so
 * DeleteStoredProfile(2) right after DeleteStoredProfile(1) is not sent,
 * even seconds later; any other command in between lets it through).
 *
 * \section outcomes How each command ended
 *
 * Every command you issue ends exactly once with a
 * zv_client::zorvel::CommandOutcome, given to the callback set with
 * SetOnCommandOutcome: answered (with the daemon's integer answer, or for
 * ReadProfiles the whole list of stored profiles), failed (the D-Bus error),
 * timed out, dropped as a repeat, discarded, or not started. A held command
 * is reported when it is held (`final == false`) and again when it ends.
 * Each command overload with a `CommandId* issued` stores the command's id
 * there before the command is handed over, so the outcome, which may arrive
 * on another thread before the call returns, can be matched with it.
 *
 * Outcomes of Stop, StopBroadcast and of commands not started run on the
 * calling thread before the call returns; the others on a thread of the
 * library: the command's own thread, or the thread that replays held
 * commands once the daemon is back; on the main-loop thread only for held
 * commands discarded by the daemon's closing event; on the thread calling
 * StopBroadcast (held commands it discards) or on the thread destroying
 * the Launcher (held commands discarded at teardown). An outcome that would
 * come on a thread while it is inside one of your callbacks comes right
 * after that callback returned. They follow the rules of the other
 * callbacks below and never run after the Launcher's destructor returned.
 * A ReadProfiles outcome comes just before the instance-found calls of the
 * same read.
 *
 * \section own_threads The application's threads are its own
 *
 * The library never makes the main loop wait for the daemon or the bus:
 * connecting (opening the bus connection, creating the proxy) and sending
 * held commands happen on threads of the library. Those threads run on a
 * 256 KiB stack, and the callbacks that run on them (outcomes, stored
 * profiles) share it: keep large buffers off the stack there. A command
 * whose thread cannot be started ends as kNotStarted with
 * kErrorInternal; held commands whose replay finds no thread stay held,
 * and the library tries again every 500 ms.
 *
 * \section ids Ids in events
 *
 * Instance ids (instance found, connection available) and cancellation
 * statuses travel as unsigned 16-bit numbers: 0 to 65535, and a stored
 * profile with id -5 arrives through the instance-found callback as 65531.
 * The list in a ReadProfiles outcome carries every id in full (int).
 * A reply holds at most 41 stored profiles (D-Bus limits its signature).
 *
 * \section daemon_restart Across a daemon restart
 *
 * When the daemon's name vanishes the library looks for the daemon again at
 * once and in the background, whether or not commands are held: an
 * application that only listens gets the new instance's events with no
 * command issued. The daemon's name is watched meanwhile, so the link is
 * back within milliseconds of the new instance owning the name (a retry
 * every 500 ms is the fallback). Commands held while the daemon is away are
 * sent at most once, oldest first, to the new instance. A command already
 * sent when the daemon vanished is not sent again.
 *
 * After StopBroadcast or the daemon's "closing" event, every Connect,
 * StartBroadcast, ReadProfiles and DeleteStoredProfile is held (not sent)
 * until the daemon's name passes to a new owner, as when the daemon
 * restarts; Stop and StopBroadcast, which call the daemon directly, still
 * reach it. When the daemon is ready at that moment, both discard the
 * commands held then (only commands that the daemon's vanishing at that
 * very moment put on hold can be); when it is not ready (it is away, or a
 * StopBroadcast or closing event came before), they change nothing: the
 * commands held stay held and are sent to the daemon's next instance.
 *
 * \section bus_restart Across a restart of the system bus
 *
 * The library talks over a D-Bus connection of its own, never over GLib's
 * shared system-bus connection (whose loss ends the process), and does not
 * touch the shared one: when the bus goes away the application lives on,
 * and when the bus is back at its address the library reconnects as after
 * a daemon restart (commands issued meanwhile are held and then sent).
 *
 * \section callbacks Callbacks
 *
 * - Instance found (id, name): for each instance the daemon reports during a
 *   broadcast, on the main-loop thread; and for each stored profile after
 *   ReadProfiles (id and name of the profile, in the daemon's order), on a
 *   thread of the library (the command's own, or the one replaying held
 *   commands).
 * - Connection cancelled (status) and connection available (id, available):
 *   on the main-loop thread.
 * - Command outcomes: see \ref outcomes "How each command ended".
 * - Link state: on the main-loop thread (see SetOnLinkState).
 *
 * No two callbacks (outcomes included) run at the same time. The callable
 * you set is the one that runs (a functor or mutable lambda keeps its state
 * between events). A callback may call the Launcher's commands and setters
 * (also replacing itself: the replaced callable is destroyed once it has
 * returned), but must return normally (no exception), must not block for
 * long (it holds up the daemon's other events) and must not call Init or
 * destroy the Launcher. Values a callback receives by reference (the name,
 * the outcome, the link status) are valid only during the call: copy what
 * you keep.
 *
 * \section errors Errors
 *
 * Errors are reported by results and in the system log, never by exceptions:
 * every operation except SetSignalCallbacks is noexcept.
 */

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <zorvel/platform/Export.h>
#include <zorvel/common/GLibUtils.h>
#include <zorvel/common/ThreadAnnotations.h>
#include <zorvel/dbus/client/LinkState.h>

/// \brief Everything of libzorvel lives in this namespace.
namespace zv_client {
/// \brief The public facade: Launcher, command outcomes, error names and
/// the library's version.
namespace zorvel {

/// Names one command issued through a Launcher: unique in the process, never 0.
using CommandId = std::uint64_t;

/// \brief How a command ended (CommandOutcome::status).
///
/// Every status but kHeld is final: the command's outcome is not reported
/// again.
enum class CommandStatus {
  kAnswered,         ///< the daemon answered: `answer`, or `profiles` for ReadProfiles
  kFailed,           ///< the call failed: `errorName` and `errorMessage`
  kTimedOut,         ///< the daemon did not answer within the call's timeout
  kDroppedAsRepeat,  ///< not sent: a repeat (see \ref never_block "Commands never block the caller")
  kHeld,             ///< not final: held until the daemon is ready
  kDiscarded,        ///< not sent: held, then discarded (StopBroadcast, closing event, teardown)
  kNotStarted,       ///< not sent at all: `errorName` says why
};

/// \name Error names of the library's own
/// For what no D-Bus error describes; they appear in CommandOutcome::errorName.
/// A kTimedOut outcome carries "org.freedesktop.DBus.Error.NoReply".
///@{
// kNotStarted:
inline constexpr char kErrorNoClient[] = "zorvel.client.Error.NoClient";    ///< kNotStarted: no Init, or a Launcher was destroyed
inline constexpr char kErrorNotInited[] = "zorvel.client.Error.NotInited";  ///< kNotStarted: Stop, ReadProfiles, DeleteStoredProfile
inline constexpr char kErrorConnectPending[] =
    "zorvel.client.Error.ConnectPending";                                 ///< kNotStarted: Connect before Start/StopBroadcast
inline constexpr char kErrorNotReady[] = "zorvel.client.Error.NotReady";  ///< kNotStarted: the daemon not ready (Stop, StopBroadcast)
inline constexpr char kErrorInternal[] = "zorvel.client.Error.Internal";  ///< kNotStarted: e.g. no thread could be started
// kFailed (besides the daemon's or the bus's own D-Bus errors):
inline constexpr char kErrorInvalidReply[] = "zorvel.client.Error.InvalidReply";  ///< kFailed: a reply that does not decode
inline constexpr char kErrorCancelled[] = "zorvel.client.Error.Cancelled";        ///< kFailed: a call in flight at teardown
// kTimedOut: "org.freedesktop.DBus.Error.NoReply".
///@}

/// Where the link to the daemon stands (see Launcher::SetOnLinkState).
using LinkState = dbus::client::LinkState;
/// A change of the link to the daemon, as Launcher::SetOnLinkState reports it.
using LinkStatus = dbus::client::LinkStatus;
using dbus::client::LinkStateName;

/// \brief How one command issued through a Launcher ended (or that it is
/// held), as the callback set with Launcher::SetOnCommandOutcome receives it.
///
/// The callback gets it by reference, valid during the call only.
/// \see \ref outcomes "How each command ended"
struct CommandOutcome {
  CommandId id = 0;             ///< the command, as stored through `CommandId* issued`
  std::string method;           ///< the D-Bus method: "connect", "startBroadcast", "stopBroadcast",
                                ///< "deinit" (Stop), "readProfiles", "deleteStoredProfile"
  std::optional<int> argument;  ///< Connect, DeleteStoredProfile: the id; StartBroadcast: 1 or 0
  CommandStatus status = CommandStatus::kAnswered;  ///< how it ended
  bool final = true;                             ///< false only for kHeld: another outcome of this command follows
  bool wasHeld = false;                          ///< the command was held before it ended
  int answer = 0;                                ///< kAnswered, except ReadProfiles: the daemon's answer (0: done)
  std::vector<common::SessionProfile> profiles;  ///< kAnswered, ReadProfiles: all of them, in order
  std::string errorName;                         ///< kFailed, kTimedOut, kNotStarted
  std::string errorMessage;                      ///< the same, for people
};

namespace detail {
struct OutcomeRoute;
struct LauncherSignals;  // the handlers SetSignalCallbacks registers
// Guards the callable slots of every Launcher (Launcher.cpp; not exported).
extern common::Mutex callableSlotsMutex;
}  // namespace detail

/// \brief Drives the zorvel daemon: commands in, events and outcomes out.
///
/// Create one, set its callbacks, Init(), issue commands, Stop(), destroy
/// it (see \ref calling_order "Calling order"). Every Launcher of a process
/// shares one client.
///
/// Threads: every operation may be called from any thread, also from inside
/// one of its callbacks, except Init and the destructor, which must not run
/// inside a callback. The callbacks run on the threads given with each
/// setter, one at a time (see \ref callbacks "Callbacks").
///
/// Failures are results (-1, an empty list) and a CommandOutcome, never
/// exceptions: every operation except SetSignalCallbacks is noexcept.
class ZORVEL_API Launcher {
 public:
  /// Creates a Launcher without a client; Init() creates it.
  Launcher() noexcept;
  /// \brief Deletes the shared client: held commands are discarded (their
  /// outcomes delivered), no callback runs afterwards.
  ///
  /// It first waits for the Launcher operations running on other threads and
  /// for the commands in flight, up to a grace period of 1 s, then cancels
  /// what is still waiting for the daemon and waits for that.
  ///
  /// The outcomes of the commands discarded here run on the destroying
  /// thread, before it returns. Must not run inside one of the Launcher's
  /// callbacks. It removes the client of every Launcher of the process.
  ~Launcher() noexcept;

  Launcher(const Launcher&) = delete;
  Launcher& operator=(const Launcher&) = delete;

  /// \brief Creates the client and starts connecting in the background.
  ///
  /// A second Init is a no-op answering 0. Init on another Launcher replaces
  /// the shared client (see \ref calling_order "Calling order"). Any thread,
  /// but not inside a callback; it never waits for the bus or the daemon
  /// (the link is made on a library thread, driven by the main loop).
  /// \return 0 on success (also while the daemon is absent), -1 on failure
  ///         (logged).
  int Init() noexcept;
  /// Does nothing (the client stays as it is). Any thread.
  void Deinit() noexcept;

  /// \brief Asks the daemon to connect to instance `id`.
  ///
  /// The result arrives as a connection-available event (main-loop thread),
  /// the daemon's answer as the command's outcome (library thread). Never
  /// waits; any thread, also inside a callback.
  /// \param id the instance, as the instance-found callback reported it.
  /// \return 0 when accepted, -1 when a connection was already requested
  ///         since the last Start/StopBroadcast (outcome kNotStarted,
  ///         kErrorConnectPending) or no client is installed (kNotStarted,
  ///         kErrorNoClient), or the command could not be handed over
  ///         (kNotStarted, kErrorInternal).
  int Connect(int id) noexcept;
  /// As Connect(int), also storing the command's id in `issued`.
  /// \param id the instance, as the instance-found callback reported it.
  /// \param issued if not null, receives the command's id before the command
  ///        is handed over (the caller's variable; not kept).
  int Connect(int id, CommandId* issued) noexcept;
  /// \brief Starts announcing instances.
  ///
  /// Each instance found arrives through the instance-found callback on the
  /// main-loop thread; the daemon's answer as the command's outcome. Never
  /// waits; any thread, also inside a callback. Allows a new Connect.
  /// \param isOnlineCheck passed to the daemon (as 1 or 0).
  /// \return 0 when accepted (-1 without a client: kNotStarted,
  ///         kErrorNoClient). A command that could not be handed over still
  ///         returns 0; its outcome says kNotStarted.
  int StartBroadcast(bool isOnlineCheck) noexcept;
  /// As StartBroadcast(bool), also storing the command's id in `issued`.
  /// \param isOnlineCheck passed to the daemon (as 1 or 0).
  /// \param issued if not null, receives the command's id before the command
  ///        is handed over (the caller's variable; not kept).
  int StartBroadcast(bool isOnlineCheck, CommandId* issued) noexcept;
  /// \brief Stops the broadcast and waits up to 500 ms for the daemon's
  /// answer, which it returns.
  ///
  /// Then, if the daemon was ready, discards the held commands and holds
  /// later ones until the daemon's name passes to a new owner (see
  /// \ref daemon_restart "Across a daemon restart"). Its own outcome and
  /// those of the commands it discards run on the calling thread before it
  /// returns. Any thread; it blocks the caller for up to 500 ms, so avoid
  /// the main-loop thread if its other events must not wait.
  /// \return the daemon's answer, -1 when the call failed (not ready:
  ///         kNotStarted with kErrorNotReady; no client: kErrorNoClient; the
  ///         D-Bus error or a timeout otherwise, in the outcome).
  int StopBroadcast() noexcept;
  /// As StopBroadcast(), also storing the command's id in `issued`.
  /// \param issued if not null, receives the command's id before the call
  ///        is made (the caller's variable; not kept).
  int StopBroadcast(CommandId* issued) noexcept;
  /// \brief Tells the daemon to deinitialise; waits for it.
  ///
  /// Blocks the caller until the daemon answered or the D-Bus default
  /// timeout passed; its outcome runs on the calling thread before it
  /// returns. Any thread.
  /// \return 0, or -1 on failure: no Init on this Launcher (kNotStarted,
  ///         kErrorNotInited), no client (kErrorNoClient), the daemon not
  ///         ready (kErrorNotReady), or the call failed (its D-Bus error, in
  ///         the outcome).
  int Stop() noexcept;
  /// As Stop(), also storing the command's id in `issued`.
  /// \param issued if not null, receives the command's id before the call
  ///        is made (the caller's variable; not kept).
  int Stop(CommandId* issued) noexcept;
  /// \brief Returns an empty list at once; the stored profiles arrive
  /// afterwards through the instance-found callback, one call per profile,
  /// and as one list in the command's outcome.
  ///
  /// Both run on a library thread, the outcome first (see \ref ids
  /// "Ids in events" for how the ids differ). Never waits; any thread, also
  /// inside a callback. Without Init on this Launcher, or without a client,
  /// nothing is read and the outcome says kNotStarted.
  /// \return always an empty list (kept for compatibility).
  std::vector<common::SessionProfile> ReadProfiles() noexcept;
  /// As ReadProfiles(), also storing the command's id in `issued`.
  /// \param issued if not null, receives the command's id before the command
  ///        is handed over (the caller's variable; not kept).
  std::vector<common::SessionProfile> ReadProfiles(CommandId* issued) noexcept;
  /// \brief Asks the daemon to delete the stored profile `id`.
  ///
  /// The daemon's answer arrives as the command's outcome (library thread).
  /// Never waits; any thread, also inside a callback.
  /// \param id the stored profile's id, in full (as in a ReadProfiles
  ///        outcome).
  /// \return 0 when accepted; -1 without Init on this Launcher (kNotStarted,
  ///         kErrorNotInited), without a client (kErrorNoClient), or when the
  ///         command could not be handed over (kErrorInternal).
  int DeleteStoredProfile(int id) noexcept;
  /// As DeleteStoredProfile(int), also storing the command's id in `issued`.
  /// \param id the stored profile's id, in full (as in a ReadProfiles
  ///        outcome).
  /// \param issued if not null, receives the command's id before the command
  ///        is handed over (the caller's variable; not kept).
  int DeleteStoredProfile(int id, CommandId* issued) noexcept;

  /// \brief Sets the instance-found callback: `callback(id, name)`.
  ///
  /// Runs for each instance the daemon reports during a broadcast, on the
  /// main-loop thread, and for each stored profile after ReadProfiles, on a
  /// library thread. `id` travels in 16 bits (see \ref ids "Ids in events");
  /// `name` holds raw bytes and is valid during the call only.
  /// \param callback stored (moved) and run as it is; empty to stop calls.
  ///        Replaces the one set before, which is destroyed once no thread
  ///        runs it. Any thread, also inside a callback.
  void SetOnInstanceFoundCallback(std::function<void(int, const std::string&)> callback) noexcept;
  /// \brief Sets the connection-cancelled callback: `callback(status)`, on
  /// the main-loop thread, with the daemon's status in 16 bits.
  /// \param callback stored (moved) and run as it is; empty to stop calls.
  ///        Replaces the one set before, which is destroyed once no thread
  ///        runs it. Any thread, also inside a callback.
  void SetOnCancelConnectionCallback(std::function<void(int)> callback) noexcept;
  /// \brief Sets the connection-available callback: `callback(id,
  /// available)`, on the main-loop thread, with the instance id in 16 bits.
  /// \param callback stored (moved) and run as it is; empty to stop calls.
  ///        Replaces the one set before, which is destroyed once no thread
  ///        runs it. Any thread, also inside a callback.
  void SetOnConnectionAvailable(std::function<void(int, bool)> callback) noexcept;
  /// \brief Receives how each command issued through this Launcher ended
  /// (see \ref outcomes "How each command ended" for the threads).
  /// \param callback stored (moved) and run as it is; it gets the outcome by
  ///        reference, valid during the call only. Empty to stop calls.
  ///        Replaces the one set before. Any thread, also inside a callback.
  void SetOnCommandOutcome(std::function<void(const CommandOutcome&)> callback) noexcept;
  /// \brief Receives every change of the link to the daemon, on the
  /// main-loop thread, in order, from Init on.
  ///
  /// The states: connecting; waiting for the daemon (its name has no owner,
  /// or one that is going away); the bus unreachable (with its address and
  /// GLib's error); ready; held after StopBroadcast or the daemon's closing
  /// event until its name changes owner. Each with a text for people. While
  /// the state is anything but ready, commands are held: this says why. Set
  /// it before Init to hear the first state.
  /// \param callback stored (moved) and run as it is; it gets the status by
  ///        reference, valid during the call only. Empty to stop calls.
  ///        Replaces the one set before. Any thread, also inside a callback.
  void SetOnLinkState(std::function<void(const LinkStatus&)> callback) noexcept;
  /// \brief Registers the Launcher's signal handlers with the client; Init
  /// calls it.
  ///
  /// Without a client it does nothing. Applications need not call it.
  /// \warning Not noexcept: it may throw what allocating the handlers
  ///          throws (std::bad_alloc).
  void SetSignalCallbacks();

 private:
  friend struct detail::LauncherSignals;

  // Atomic because a callback may call back into the Launcher from the
  // main-loop thread or a command thread while the application calls it.
  std::atomic<bool> inited_{false};
  std::atomic<bool> instanceConnected_{false};
  // Shared, so that a handler runs the installed callable itself while a
  // setter may replace it meanwhile.
  std::shared_ptr<const std::function<void(int, const std::string&)>> onInstanceFoundCallback_
      ZV_GUARDED_BY(detail::callableSlotsMutex);
  std::shared_ptr<const std::function<void(int)>> onCancelConnectionCallback_ ZV_GUARDED_BY(detail::callableSlotsMutex);
  std::shared_ptr<const std::function<void(int, bool)>> onConnectionAvailableCallback_
      ZV_GUARDED_BY(detail::callableSlotsMutex);
  // Where this Launcher's outcomes go; shared with its commands in flight.
  std::shared_ptr<detail::OutcomeRoute> outcomes_;
};

}  // namespace zorvel
}  // namespace zv_client
