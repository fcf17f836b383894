#pragma once

#include <functional>
#include <memory>

#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/PrivateBus.h"
#include "support/Sim.h"
#include "support/Wait.h"

namespace zv_client {
namespace testing {

// A fresh zorvel-sim per test (seeded by SimArguments), started after the log
// capture; TearDown stops it, and it must exit with 0.
class BusTest : public ::testing::Test {
 protected:
  virtual SimOptions SimArguments() const { return {}; }

  void SetUp() override {
    sim_ = std::make_unique<SimProcess>(SimArguments());
    ASSERT_TRUE(sim_->Running()) << "zorvel-sim did not start";
    control_ = std::make_unique<SimControl>();
  }
  void TearDown() override {
    control_.reset();
    EXPECT_EQ(sim_ && sim_->Running() ? sim_->Stop() : 0, 0) << "zorvel-sim did not exit cleanly";
    sim_.reset();
  }

  // Kills the bus and starts a new one at its address (after `whileBusDown`):
  // the daemon goes with the old bus, and is started again on the new one
  // after `whileAway`.
  void RestartBusAndDaemon(const std::function<void()>& whileAway = {},
                           const std::function<void()>& whileBusDown = {}) {
    control_.reset();
    RestartBus(whileBusDown);
    sim_->Stop();  // it quit when its bus went
    if (whileAway) whileAway();
    ASSERT_TRUE(sim_->Start());
    control_ = std::make_unique<SimControl>();
  }

  LogCapture& logs() { return logs_; }
  SimProcess& sim() { return *sim_; }
  SimControl& control() { return *control_; }

 private:
  LogCapture logs_;
  std::unique_ptr<SimProcess> sim_;
  std::unique_ptr<SimControl> control_;
};

}  // namespace testing
}  // namespace zv_client
