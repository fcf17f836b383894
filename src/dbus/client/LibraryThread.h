#pragma once

// Internal: the threads the command layer starts (command threads, the
// replay of held commands, connect attempts, restorations).

#include <cstddef>
#include <functional>

namespace zv_client {
namespace dbus {
namespace client {
namespace detail {

// Every library thread runs on a stack of this size, not the 8 MiB default:
// a daemon that hangs while the application issues hundreds of commands
// keeps one waiting thread per command, and on a 32-bit device 8 MiB each
// exhausts the address space near 350 of them. The deepest path of the
// library's own (a D-Bus call through GDBus, a log line, a profile list
// decoded) needs well under a tenth of it; the rest is the application's,
// whose callbacks (outcomes, stored profiles) run on these threads.
constexpr std::size_t kLibraryThreadStackSize = 256 * 1024;

// Starts `work` on a new detached thread with that stack. Throws
// std::system_error when no thread can be started; `work` is then not run.
void StartLibraryThread(std::function<void()> work);

}  // namespace detail
}  // namespace client
}  // namespace dbus
}  // namespace zv_client
