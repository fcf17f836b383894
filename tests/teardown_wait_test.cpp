// The gate teardown waits on, without a bus: it counts the commands in flight, and a wait for idle
// wakes when the last one leaves on another thread (a lost wakeup fails at the deadline, not hangs).

#include <zorvel/dbus/client/CommandGate.h>

#include "support/Wait.h"

namespace zv_client::testing {
namespace {

using dbus::client::detail::CommandGate;
using namespace std::chrono_literals;

TEST(TeardownWait, IdleOnceTheLastCommandLeftAndAWaiterWakesThen) {
  const auto gate = std::make_shared<CommandGate>();  // a waiter left behind on failure still has it
  EXPECT_TRUE(gate->WaitIdleFor(0ms));
  gate->Enter(), gate->Enter();
  EXPECT_EQ(gate->InFlight(), 2u);
  EXPECT_FALSE(gate->WaitIdleFor(20ms));
  gate->Leave();
  EXPECT_FALSE(gate->WaitIdleFor(0ms));
  gate->Leave();
  EXPECT_TRUE(gate->WaitIdleFor(0ms));
  for (int round = 0; round < 100; ++round) {
    // Eight commands leave on threads of their own while a waiter blocks, with or without a timeout.
    for (int i = 0; i < 8; ++i) gate->Enter();
    const auto woke = std::make_shared<std::atomic<bool>>(false);
    std::thread([gate, woke, round] {
      round % 2 ? gate->WaitIdle() : void(gate->WaitIdleFor(1h)), *woke = true;
    }).detach();
    for (int i = 0; i < 8; ++i) std::thread([gate] { gate->Leave(); }).detach();
    ASSERT_TRUE(WaitUntil([&] { return woke->load(); }, 10s)) << "lost wakeup in round " << round;
  }
  EXPECT_EQ(gate->InFlight(), 0u);
}

}  // namespace
}  // namespace zv_client::testing
