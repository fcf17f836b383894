#pragma once

#include <deque>
#include <mutex>
#include <utility>

#include <zorvel/common/ThreadAnnotations.h>

namespace zv_client {
namespace dbus {
namespace client {
namespace detail {

// Work that was accepted but that no library thread has taken yet, oldest
// first. Each item gets a thread of its own, but a thread runs the oldest item
// not yet taken rather than "its" item: so items enter the command layer in
// the order in which they were accepted, not in the order in which their
// threads happen to get the layer's lock (the caller takes them under it).
//
// Lock: mutex_, also held while an item's thread is started (which counts it
// in the command gate, whose lock is a leaf).
// Invariant: one thread runs per item put in, so Take() never finds it empty.
template <typename Item>
class CommandIntake {
 public:
  // Puts `item` in and runs `startThread` in the same step, so that a thread
  // that cannot be started takes its own item back out (and the exception
  // passes on).
  template <typename StartThread>
  void Put(Item item, StartThread startThread) ZV_EXCLUDES(mutex_) {
    common::MutexLock lock(mutex_);
    waiting_.push_back(std::move(item));
    try {
      startThread();
    } catch (...) {
      waiting_.pop_back();
      throw;
    }
  }

  Item Take() ZV_EXCLUDES(mutex_) {
    common::MutexLock lock(mutex_);
    Item item = std::move(waiting_.front());
    waiting_.pop_front();
    return item;
  }

 private:
  common::Mutex mutex_;
  std::deque<Item> waiting_ ZV_GUARDED_BY(mutex_);
};

}  // namespace detail
}  // namespace client
}  // namespace dbus
}  // namespace zv_client
