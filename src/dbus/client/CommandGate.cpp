#include <dbus/client/CommandGate.h>

namespace zv_client {
namespace dbus {
namespace client {
namespace detail {

void CommandGate::Enter() {
  std::lock_guard<std::mutex> lock(mutex_);
  ++inFlight_;
}

void CommandGate::Leave() {
  std::lock_guard<std::mutex> lock(mutex_);
  --inFlight_;
  idle_.notify_all();
}

bool CommandGate::WaitIdleFor(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  return idle_.wait_for(lock, timeout, [this] { return inFlight_ == 0; });
}

void CommandGate::WaitIdle() {
  std::unique_lock<std::mutex> lock(mutex_);
  idle_.wait(lock, [this] { return inFlight_ == 0; });
}

std::size_t CommandGate::InFlight() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return inFlight_;
}

}  // namespace detail
}  // namespace client
}  // namespace dbus
}  // namespace zv_client
