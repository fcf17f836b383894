#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>

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
  void Enter();
  void Leave();
  // True when no command is in flight, at once or before `timeout` passed.
  bool WaitIdleFor(std::chrono::milliseconds timeout);
  void WaitIdle();
  std::size_t InFlight() const;

 private:
  mutable std::mutex mutex_;
  std::condition_variable idle_;
  std::size_t inFlight_ = 0;  // guarded by mutex_
};

}  // namespace detail
}  // namespace client
}  // namespace dbus
}  // namespace zv_client
