#pragma once

// Internal: the threads the command layer starts (command threads, the
// replay of held commands, connect attempts, restorations).

#include <functional>
#include <memory>

#include <zorvel/platform/Thread.h>

namespace zv_client {
namespace dbus {
namespace client {
namespace detail {

using platform::detail::kLibraryThreadStackSize;

// Starts `work` on a new detached library thread (see kLibraryThreadStackSize).
// Throws std::system_error when no thread can be started; `work` is then not run.
void StartLibraryThread(std::function<void()> work);

class CommandGate;

// StartLibraryThread, with the thread counted in `gate` from before it starts
// until `work` has run: leaving the gate is the thread's last touch of what
// `work` uses (which may be freed as soon as the gate is idle), so the thread
// co-owns the gate. A start that fails leaves the gate as it was, and throws.
void StartGatedLibraryThread(std::shared_ptr<CommandGate> gate, std::function<void()> work);

}  // namespace detail
}  // namespace client
}  // namespace dbus
}  // namespace zv_client
