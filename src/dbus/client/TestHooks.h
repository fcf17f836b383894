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
  kConnectedByTimer,      // a retry attempt connected; the timer is not reset yet (main-loop thread, link lock held)
  kConnectedByNameWatch,  // as above, for the attempt made when the daemon's name got an owner
  kReconnectAwaitsLink,   // a restoration task holds the run lock and is about to take the link lock
  kDisconnectAwaitsPool,  // Disconnect found the layer ready and is about to take the pool lock
  kTeardownBegins,        // a client's destructor begins (the destroying thread)
  kAttemptStarts,         // a connect attempt begins (its library thread, link lock held)
  kThreadStarts,          // a library thread is about to be started; a hook that throws makes the start fail
  kReplayHandedOver,  // the readiness handler handed the replay to a library thread (main-loop thread, pool lock held)
  kRememberedOwnerIgnored,  // the watcher saw the name owned by the owner the client remembers (main-loop thread)
};

// Installs `hook` for every point (an empty one removes it). The hook runs on
// the thread that reached the point, under the locks named above.
void SetHook(std::function<void(Point)> hook);
void Hook(Point point);

}  // namespace testing
}  // namespace client
}  // namespace dbus
}  // namespace zv_client
