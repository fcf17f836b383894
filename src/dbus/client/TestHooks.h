#pragma once

// Internal: points in the command layer where a test can step in to force an
// interleaving of threads that would otherwise be a matter of luck. Not
// installed, not exported; without a hook installed a point costs one
// relaxed atomic load.

#include <functional>

namespace zv_client {
namespace dbus {
namespace client {
namespace testing {

enum class Point {
  // A retry attempt connected; the timer is not reset yet (the attempt's
  // library thread, link lock held).
  kConnectedByTimer,
  // As above, for the attempt made when the daemon's name got an owner.
  kConnectedByNameWatch,
  // A restoration task holds the run lock and is about to take the link lock.
  kReconnectAwaitsLink,
  // Disconnect found the layer ready and is about to take the pool lock.
  kDisconnectAwaitsPool,
  // A client's destructor begins (the destroying thread).
  kTeardownBegins,
  // A connect attempt begins (its library thread, link lock held).
  kAttemptStarts,
  // A library thread is about to be started; a hook that throws makes the start fail.
  kThreadStarts,
  // The replay was handed to a library thread, by the readiness handler or
  // its retry (main-loop thread, pool lock held).
  kReplayHandedOver,
  // The watcher saw the name owned by the owner the client remembers (main-loop thread).
  kRememberedOwnerIgnored,
};

// Installs `hook` for every point (an empty one removes it). The hook runs on
// the thread that reached the point, under the locks named above.
void SetHook(std::function<void(Point)> hook);
void Hook(Point point);

}  // namespace testing
}  // namespace client
}  // namespace dbus
}  // namespace zv_client
