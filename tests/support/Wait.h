#pragma once

#include <chrono>
#include <functional>
#include <thread>

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

}  // namespace testing
}  // namespace zv_client
