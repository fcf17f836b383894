#include <zorvel/dbus/client/CommandGate.h>

namespace zv_client {
namespace dbus {
namespace client {
namespace detail {

void CommandGate::Enter() {
  common::MutexLock lock(mutex_);
  ++inFlight_;
}

void CommandGate::Leave() {
  common::MutexLock lock(mutex_);
  --inFlight_;
  idle_.notify_all();
}

bool CommandGate::WaitIdleFor(std::chrono::milliseconds timeout) {
  // The loop std::condition_variable::wait_for runs with a predicate, written
  // out so that the analysis sees inFlight_ read with mutex_ held.
  common::MutexLock lock(mutex_);
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (inFlight_ != 0) {
    if (idle_.wait_until(lock.native(), deadline) == std::cv_status::timeout) return inFlight_ == 0;
  }
  return true;
}

void CommandGate::WaitIdle() {
  common::MutexLock lock(mutex_);
  while (inFlight_ != 0) idle_.wait(lock.native());
}

std::size_t CommandGate::InFlight() const {
  common::MutexLock lock(mutex_);
  return inFlight_;
}

}  // namespace detail
}  // namespace client
}  // namespace dbus
}  // namespace zv_client
