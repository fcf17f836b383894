#pragma once

// The process-wide private bus: a dbus-daemon of our own that GLib takes for
// the system bus, and a GLib main loop on the default main context, running
// on a thread of its own from before the first test to after the last.
// Started by a global test environment (so before any test touches the bus)
// or by the first helper that needs it, whichever comes first.

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gio/gio.h>

#include <common/GLibPtr.h>

namespace zv_client {
namespace testing {

// The bus address, also exported as DBUS_SYSTEM_BUS_ADDRESS.
const std::string& BusAddress();
pid_t BusDaemonPid();

// A new private connection to the bus, not GLib's system-bus singleton.
common::GObjectPtr<GDBusConnection> OpenBusConnection();

// Unique name owning `name`, "" when it has none.
std::string NameOwner(const std::string& name);

// Runs `function` on the main-loop thread and waits for it to return.
void RunOnMainLoop(const std::function<void()>& function);

// Parks the main-loop thread while it lives, so that nothing is dispatched
// from the default main context until it goes (or Resume). Not for use on
// the main-loop thread itself.
class MainLoopPause {
 public:
  MainLoopPause();  // returns once the loop thread is parked
  ~MainLoopPause() { Resume(); }
  MainLoopPause(const MainLoopPause&) = delete;
  MainLoopPause& operator=(const MainLoopPause&) = delete;
  void Resume();

 private:
  struct State;
  std::shared_ptr<State> state_;
};

// ThreadSanitizer cannot see GLib's own locking (GLib is not instrumented),
// so data handed to a callback that GLib runs on another thread looks
// unordered to it. Call PublishToGLib(p) before handing `p` over and
// ReceiveFromGLib(p) first thing in the callback; no-ops without TSan.
void PublishToGLib(const void* handle);
void ReceiveFromGLib(const void* handle);

// Live or unreaped children of this process, the bus daemon excepted.
std::vector<pid_t> ChildProcesses();

// Forks and execs `argv` (argv[0] is the program path). The child dies with
// the thread that started it, so a crashed test leaves nothing behind.
pid_t SpawnChild(const std::vector<std::string>& argv, int keepFd = -1);

}  // namespace testing
}  // namespace zv_client
