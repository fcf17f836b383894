#include "support/Wait.h"

#include <thread>

namespace zv_client {
namespace testing {

bool WaitUntil(const std::function<bool()>& predicate, std::chrono::milliseconds deadline) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (!predicate()) {
    // One last look after the deadline, so a slow predicate still gets its due.
    if (std::chrono::steady_clock::now() >= end) return predicate();
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
  }
  return true;
}

}  // namespace testing
}  // namespace zv_client
