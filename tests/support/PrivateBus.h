#pragma once

// The process-wide private bus: a dbus-daemon of our own that GLib takes for
// the system bus, and a GLib main loop on the default main context on a thread
// of its own, from before the first test (or the first helper that needs it)
// to after the last.

#include <functional>
#include <string>

#include <gio/gio.h>

#include <zorvel/common/GLibPtr.h>

#include "harness/Processes.h"  // SpawnChild and the other start-up helpers

namespace zv_client {
namespace testing {

// The bus address, also exported as DBUS_SYSTEM_BUS_ADDRESS. The test process
// itself never opens GLib's shared system-bus connection: it would end the
// process when the bus goes away, and the library must cope without it.
const std::string& BusAddress();

// Kills the bus (every connection to it is lost) and starts a new one at the
// same address, after `whileDown` returned (it must not use this header's
// functions).
void RestartBus(const std::function<void()>& whileDown = {});

// Stops (true) or resumes (false) the bus's dbus-daemon: meanwhile the bus
// accepts connections and answers nothing, as a bus under pressure.
void FreezeBus(bool frozen);

// A new private connection to the bus, not GLib's system-bus singleton.
common::GObjectPtr<GDBusConnection> OpenBusConnection();

// Unique name owning `name`, "" when it has none.
std::string NameOwner(const std::string& name);

// Runs `function` on the main-loop thread and waits for it to return; nothing
// else is dispatched from the default main context meanwhile.
void RunOnMainLoop(const std::function<void()>& function);

}  // namespace testing
}  // namespace zv_client
