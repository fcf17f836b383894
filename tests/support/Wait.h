#pragma once

#include <chrono>
#include <functional>

namespace zv_client {
namespace testing {

// Polls `predicate` every few milliseconds until it holds or `deadline`
// passes; true when it held. The one way the tests wait for anything.
bool WaitUntil(const std::function<bool()>& predicate,
               std::chrono::milliseconds deadline = std::chrono::seconds(20));

}  // namespace testing
}  // namespace zv_client
