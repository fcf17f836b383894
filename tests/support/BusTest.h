#pragma once

#include <memory>

#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/PrivateBus.h"
#include "support/Sim.h"
#include "support/Wait.h"

namespace zv_client {
namespace testing {

// Each test gets a fresh zorvel-sim (started in SetUp, after the log capture)
// and a control client for it; TearDown stops the sim (which must exit with
// 0) and fails the test if any child process is left. Override SimArguments
// to seed the sim.
class BusTest : public ::testing::Test {
 protected:
  virtual SimOptions SimArguments() const { return {}; }

  void SetUp() override;
  void TearDown() override;

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
