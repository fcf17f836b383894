#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

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

// Runs `work` on a thread of its own and waits for it within WaitUntil's deadline. Work still
// running then (a deadlock, or a wait for the daemon) uses the caller's objects, so the test can
// neither go on nor unwind: the failure is reported with `why()` (say, the log) and the program
// aborts, rather than hanging here until the test's timeout.
inline void MustFinishInBoundedTime(std::function<void()> work, const std::function<std::string()>& why = {}) {
  auto done = std::async(std::launch::async, std::move(work));
  if (WaitUntil([&] { return done.wait_for(std::chrono::seconds(0)) == std::future_status::ready; })) {
    done.get();
    return;
  }
  ADD_FAILURE() << "still running at the deadline: " << (why ? why() : std::string("a deadlock?"));
  std::fflush(stdout);
  std::abort();
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
