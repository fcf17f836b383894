#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>

#include <zorvel/common/ThreadAnnotations.h>

namespace zv_client {
namespace dbus {
namespace client {
namespace detail {

// Counts the commands a client accepted whose threads have not finished, so
// that teardown can wait until none of them uses the client any more. Every
// command thread co-owns the gate (a shared_ptr), and Leave() on it is the
// thread's last touch of the client: the client may be gone right after.
//
// Lock: mutex_, a leaf. Invariant: inFlight_ is the number of Enter() calls
// not yet matched by a Leave().
class CommandGate {
 public:
  void Enter() ZV_EXCLUDES(mutex_);
  void Leave() ZV_EXCLUDES(mutex_);
  // True when no command is in flight, at once or before `timeout` passed.
  bool WaitIdleFor(std::chrono::milliseconds timeout) ZV_EXCLUDES(mutex_);
  void WaitIdle() ZV_EXCLUDES(mutex_);
  std::size_t InFlight() const ZV_EXCLUDES(mutex_);

 private:
  mutable common::Mutex mutex_;
  std::condition_variable idle_;
  std::size_t inFlight_ ZV_GUARDED_BY(mutex_) = 0;
};

}  // namespace detail
}  // namespace client
}  // namespace dbus
}  // namespace zv_client
