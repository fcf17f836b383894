#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>

#include <zorvel/common/ThreadAnnotations.h>
#include <zorvel/dbus/client/DBusClientAsync.h>

namespace zv_client {
namespace dbus {
namespace client {
namespace detail {

// Where the commands a client accepted ended, for tests and diagnostics.
// Lock: mutex_, a leaf, so that a snapshot is never torn. Invariant, once no
// command is in flight: accepted == ranAtOnce + replayed + droppedDuplicate +
// discarded + failed + held, and pooled == replayed + discarded + held.
class CommandTally {
 public:
  using Counts = DBusClientAsync::Counts;
  static constexpr std::size_t kHeldUnchanged = static_cast<std::size_t>(-1);

  // Adds `delta` to one count and, unless kHeldUnchanged, records the pool
  // size in the same step.
  void Add(std::uint64_t Counts::*field, std::int64_t delta = 1, std::size_t held = kHeldUnchanged)
      ZV_EXCLUDES(mutex_) {
    common::MutexLock lock(mutex_);
    counts_.*field += static_cast<std::uint64_t>(delta);
    if (held != kHeldUnchanged) counts_.held = held;
  }
  Counts Snapshot() const ZV_EXCLUDES(mutex_) {
    common::MutexLock lock(mutex_);
    return counts_;
  }

 private:
  mutable common::Mutex mutex_;
  Counts counts_ ZV_GUARDED_BY(mutex_);  // inFlight is the gate's, not kept here
};

}  // namespace detail
}  // namespace client
}  // namespace dbus
}  // namespace zv_client
