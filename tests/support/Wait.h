#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

namespace zv_client {
namespace testing {

// Polls `predicate` every few milliseconds until it holds or `deadline`
// passes; true when it held. The one way the tests wait for anything.
inline bool WaitUntil(const std::function<bool()>& predicate,
                      std::chrono::milliseconds deadline = std::chrono::seconds(20)) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (!predicate()) {
    if (std::chrono::steady_clock::now() >= end) return predicate();  // a slow predicate still gets its due
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
  }
  return true;
}

// False when `work` did not finish within WaitUntil's deadline (a deadlock, or a wait for the daemon).
// Then the work is left running: its future is kept, never waited for, so that the caller's failure
// message comes out now rather than the program hanging here until the test's timeout.
inline bool FinishesInBoundedTime(std::function<void()> work) {
  auto done = std::async(std::launch::async, std::move(work));
  const bool finished = WaitUntil([&] { return done.wait_for(std::chrono::seconds(0)) == std::future_status::ready; });
  if (!finished) return new std::future<void>(std::move(done)), false;  // leaked on purpose
  done.get();
  return true;
}

// What callbacks on any thread reported, in order.
template <typename T>
class Recorder {
 public:
  void Add(T value) {
    std::lock_guard<std::mutex> lock(mutex_);
    items_.push_back(std::move(value));
  }
  std::vector<T> Items() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return items_;
  }
  bool WaitForSize(std::size_t size) const {
    return WaitUntil([&] { return Items().size() >= size; });
  }
  bool WaitFor(const std::vector<T>& expected) const {
    return WaitUntil([&] { return Items() == expected; });
  }

 private:
  mutable std::mutex mutex_;
  std::vector<T> items_;  // guarded by mutex_
};

}  // namespace testing
}  // namespace zv_client
