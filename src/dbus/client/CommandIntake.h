#pragma once

#include <deque>
#include <mutex>
#include <utility>

#include <dbus/client/DBusClientAsync.h>

namespace zv_client {
namespace dbus {
namespace client {
namespace detail {

// Accepted commands that no command thread has taken yet, oldest first.
// Each command gets a thread of its own, but a thread runs the oldest command
// not yet taken rather than "its" command: so commands enter the command
// layer in the order in which they were accepted, not in the order in which
// their threads happen to get the pool lock.
//
// Lock: mutex_, a leaf (also held while a command's thread is started).
// Invariant: one thread runs per command put in, so Take() never finds it empty.
class CommandIntake {
 public:
  using Command = DBusClientAsync::CommandData;

  // Puts `command` in and runs `startThread` in the same step, so that a
  // thread that cannot be started takes its own command back out (and the
  // exception passes on).
  template <typename StartThread>
  void Put(Command command, StartThread startThread);
  Command Take();

 private:
  std::mutex mutex_;
  std::deque<Command> waiting_;  // guarded by mutex_
};

template <typename StartThread>
void CommandIntake::Put(Command command, StartThread startThread) {
  std::lock_guard<std::mutex> lock(mutex_);
  waiting_.push_back(std::move(command));
  try {
    startThread();
  } catch (...) {
    waiting_.pop_back();
    throw;
  }
}

inline CommandIntake::Command CommandIntake::Take() {
  std::lock_guard<std::mutex> lock(mutex_);
  Command command = std::move(waiting_.front());
  waiting_.pop_front();
  return command;
}

}  // namespace detail
}  // namespace client
}  // namespace dbus
}  // namespace zv_client
