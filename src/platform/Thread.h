#pragma once

// Internal: not installed. The threads the library starts, for every layer
// (the journal writer here, the command layer's threads above).

#include <cstddef>
#include <functional>

namespace zv_client {
namespace platform {
namespace detail {

// Every library thread runs on a stack of this size, not the 8 MiB default:
// a daemon that hangs while the application issues hundreds of commands
// keeps one waiting thread per command, and on a 32-bit device 8 MiB each
// exhausts the address space near 350 of them. The deepest path of the
// library's own (a D-Bus call through GDBus, a log line, a profile list
// decoded) needs well under a tenth of it; the rest is the application's,
// whose callbacks (outcomes, stored profiles) run on these threads.
constexpr std::size_t kLibraryThreadStackSize = 256 * 1024;

// Starts `work` on a new detached thread with that stack: 0, or the error
// number (`work` is then not run).
int StartDetachedThread(std::function<void()> work);

}  // namespace detail
}  // namespace platform
}  // namespace zv_client
