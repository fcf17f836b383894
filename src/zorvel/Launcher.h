#pragma once

// libzorvel: drive the zorvel daemon over the system D-Bus.
//
// Calling order
//   Create one Launcher, set its callbacks, Init(), then the commands, Stop(),
//   destroy it. All Launcher objects of a process share one client, so use one
//   Launcher at a time: Init() on a second object replaces the client (and the
//   first object's callbacks), and destroying any Launcher removes the client
//   for all of them (their commands then return -1 or nothing).
//
// Main loop
//   The library runs no main loop of its own. The application must run a GLib
//   main loop on the default main context (g_main_loop_new(nullptr, FALSE)):
//   the connect retry timer fires there, and the daemon's name changes and
//   signals are delivered there. Without it the library never connects and
//   every command stays held.
//
// Commands never block the caller
//   Connect, StartBroadcast, ReadProfiles and DeleteStoredProfile hand their
//   command to a thread of its own and return at once (0, or an empty list);
//   the daemon's answer is not seen. While the daemon is not reachable the
//   command is held and sent when it comes back. Stop and StopBroadcast call
//   the daemon directly, wait for its answer (StopBroadcast up to 500 ms) and
//   fail at once when the daemon is not ready.
//   Commands are sent in the order they were issued (from several threads:
//   in the order the calls returned). The same command twice in a row is
//   sent once: a repeat of the command sent just before, or of a command
//   already held, is dropped.
//
// Across a daemon restart
//   When the daemon's name vanishes the library looks for the daemon again at
//   once and in the background, whether or not commands are held: an
//   application that only listens gets the new instance's events with no
//   command issued. The daemon's name is watched meanwhile, so the link is
//   back within milliseconds of the new instance owning the name (a retry
//   every 500 ms is the fallback). Commands held while the daemon is away are
//   sent at most once, oldest first, to the new instance. A command already
//   sent when the daemon vanished is not sent again. StopBroadcast and the
//   daemon's "closing" event discard the commands held at that moment, and
//   until the daemon's name passes to a new owner new commands are held.
//
// Across a restart of the system bus
//   The library talks over a D-Bus connection of its own, never over GLib's
//   shared system-bus connection (whose loss ends the process), and does not
//   touch the shared one: when the bus goes away the application lives on,
//   and when the bus is back at its address the library reconnects as after
//   a daemon restart (commands issued meanwhile are held and then sent).
//
// Callbacks
//   - Instance found (id, name): for each instance the daemon reports during a
//     broadcast, on the main-loop thread; and for each stored profile after
//     ReadProfiles (id and name of the profile, in the daemon's order), on a
//     command thread of the library or on the main-loop thread.
//   - Connection cancelled (status) and connection available (id, available):
//     on the main-loop thread.
//   No two callbacks run at the same time. The callable you set is the one
//   that runs (a functor or mutable lambda keeps its state between events).
//   A callback may call the Launcher's commands and setters (also replacing
//   itself: the replaced callable is destroyed once it has returned), but
//   must return normally (no exception), must not block for long (it holds
//   up the daemon's other events) and must not call Init or destroy the
//   Launcher.
//
// Errors are reported by results and in the system log, never by exceptions:
// every operation except SetSignalCallbacks is noexcept.

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <common/Export.h>
#include <common/GLibUtils.h>

namespace zv_client {
namespace zorvel {

class ZORVEL_API Launcher {
 public:
  Launcher() noexcept;
  // Deletes the shared client: held commands are discarded, no callback runs
  // afterwards. It first waits for the Launcher operations running on other
  // threads and for the commands in flight, up to a grace period of 1 s,
  // then cancels what is still waiting for the daemon and waits for that.
  ~Launcher() noexcept;

  Launcher(const Launcher&) = delete;
  Launcher& operator=(const Launcher&) = delete;

  // Creates the client and starts connecting in the background; 0 on success
  // (also while the daemon is absent), -1 on failure. A second Init is a
  // no-op answering 0.
  int Init() noexcept;
  // Does nothing (the client stays as it is).
  void Deinit() noexcept;

  // Asks the daemon to connect to instance `id`; 0 when accepted, -1 when a
  // connection was already requested since the last Start/StopBroadcast or no
  // client is installed. The result arrives as a connection-available event.
  int Connect(int id) noexcept;
  // Starts announcing instances; 0 when accepted (-1 without a client).
  int StartBroadcast(bool isOnlineCheck) noexcept;
  // Stops the broadcast and waits up to 500 ms for the daemon's answer, which
  // it returns (-1 when the call failed). Then discards the held commands.
  int StopBroadcast() noexcept;
  // Tells the daemon to deinitialise; waits for it. 0, or -1 on failure.
  int Stop() noexcept;
  // Returns an empty list at once; the stored profiles arrive afterwards
  // through the instance-found callback, one call per profile.
  std::vector<common::SessionProfile> ReadProfiles() noexcept;
  // Asks the daemon to delete the stored profile `id`; 0 when accepted.
  int DeleteStoredProfile(int id) noexcept;

  void SetOnInstanceFoundCallback(std::function<void(int, const std::string&)> callback) noexcept;
  void SetOnCancelConnectionCallback(std::function<void(int)> callback) noexcept;
  void SetOnConnectionAvailable(std::function<void(int, bool)> callback) noexcept;
  // Registers the Launcher's signal handlers with the client; Init calls it.
  void SetSignalCallbacks();

 private:
  // Atomic because a callback may call back into the Launcher from the
  // main-loop thread or a command thread while the application calls it.
  std::atomic<bool> inited_{false};
  std::atomic<bool> instanceConnected_{false};
  // Guarded by a mutex of the Launcher source. Shared, so that a handler runs
  // the installed callable itself while a setter may replace it meanwhile.
  std::shared_ptr<const std::function<void(int, const std::string&)>> onInstanceFoundCallback_;
  std::shared_ptr<const std::function<void(int)>> onCancelConnectionCallback_;
  std::shared_ptr<const std::function<void(int, bool)>> onConnectionAvailableCallback_;
};

}  // namespace zorvel
}  // namespace zv_client
