#pragma once

// Internal: the threads the command layer starts (command threads, the
// replay of held commands, connect attempts, restorations).

#include <functional>

#include <zorvel/platform/Thread.h>

namespace zv_client {
namespace dbus {
namespace client {
namespace detail {

using platform::detail::kLibraryThreadStackSize;

// Starts `work` on a new detached library thread (see kLibraryThreadStackSize).
// Throws std::system_error when no thread can be started; `work` is then not run.
void StartLibraryThread(std::function<void()> work);

}  // namespace detail
}  // namespace client
}  // namespace dbus
}  // namespace zv_client
