#include "support/BusTest.h"

#include <string>

namespace zv_client {
namespace testing {

void BusTest::SetUp() {
  sim_ = std::make_unique<SimProcess>(SimArguments());
  ASSERT_TRUE(sim_->Running()) << "zorvel-sim did not start";
  control_ = std::make_unique<SimControl>();
}

void BusTest::TearDown() {
  control_.reset();
  if (sim_ && sim_->Running()) {
    EXPECT_EQ(sim_->Stop(), 0) << "zorvel-sim did not exit cleanly";
  }
  sim_.reset();
  std::vector<pid_t> left;
  const bool none = WaitUntil([&] { return (left = ChildProcesses()).empty(); }, std::chrono::seconds(5));
  std::string pids;
  for (const pid_t pid : left) pids += " " + std::to_string(pid);
  EXPECT_TRUE(none) << "child processes left behind:" << pids;
}

}  // namespace testing
}  // namespace zv_client
