// The link state an application sees: every change, in order, on the main-loop thread, across
// Init, StopBroadcast, a daemon restart and a restart of the bus itself.

#include <zorvel/Launcher.h>

#include "support/BusTest.h"

namespace zv_client::testing {
namespace {

using zorvel::Launcher;
using zorvel::LinkState;
using zorvel::LinkStatus;
using States = std::vector<LinkState>;

class LinkStateTest : public BusTest {
 protected:
  void SetUp() override {
    BusTest::SetUp();
    RunOnMainLoop([this] { mainLoop_ = std::this_thread::get_id(); });
    launcher_.SetOnLinkState([this](const LinkStatus& status) {
      EXPECT_EQ(std::this_thread::get_id(), mainLoop_) << "told off the main loop";
      EXPECT_FALSE(status.text.empty());
      statuses_.Add(status);
    });
  }
  // The states told since the last call, once the last of them is `last` (all of them at the deadline).
  States Next(LinkState last) {
    const std::size_t from = mark_;
    WaitUntil([&] {
      const auto told = statuses_.Items();
      return told.size() > from && told.back().state == last;
    });
    const auto told = statuses_.Items();
    mark_ = told.size();
    States states;
    for (std::size_t i = from; i < told.size(); ++i) states.push_back(told[i].state);
    return states;
  }

  std::size_t mark_ = 0;
  std::thread::id mainLoop_;
  Recorder<LinkStatus> statuses_;
  Launcher launcher_;  // after what its callback touches
};

TEST_F(LinkStateTest, FollowsInitStopBroadcastAndADaemonRestart) {
  ASSERT_EQ(launcher_.Init(), 0);
  EXPECT_EQ(Next(LinkState::kReady), (States{LinkState::kConnecting, LinkState::kReady}));
  launcher_.StopBroadcast();
  EXPECT_EQ(Next(LinkState::kHeldUntilNewOwner), States{LinkState::kHeldUntilNewOwner});
  control().Restart();  // the name passes to a new owner
  EXPECT_EQ(Next(LinkState::kReady), (States{LinkState::kWaitingForDaemon, LinkState::kConnecting, LinkState::kReady}));

  sim().Kill();
  EXPECT_EQ(Next(LinkState::kWaitingForDaemon), States{LinkState::kWaitingForDaemon});
  ASSERT_TRUE(sim().Start());
  EXPECT_EQ(Next(LinkState::kReady), (States{LinkState::kConnecting, LinkState::kReady}));
}

TEST_F(LinkStateTest, SaysWhenTheBusIsUnreachable) {
  ASSERT_EQ(launcher_.Init(), 0);
  ASSERT_EQ(Next(LinkState::kReady).back(), LinkState::kReady);
  const auto lastIs = [&](LinkState state) {
    return WaitUntil([&] { return statuses_.Items().back().state == state; });
  };
  RestartBusAndDaemon([&] { EXPECT_TRUE(lastIs(LinkState::kWaitingForDaemon)); },
                      [&] { EXPECT_TRUE(lastIs(LinkState::kBusUnreachable)); });
  EXPECT_EQ(Next(LinkState::kReady), (States{LinkState::kWaitingForDaemon, LinkState::kBusUnreachable,
                                             LinkState::kWaitingForDaemon, LinkState::kConnecting, LinkState::kReady}));
  for (const LinkStatus& status : statuses_.Items()) {
    if (status.state != LinkState::kBusUnreachable) continue;
    EXPECT_EQ(status.busAddress, BusAddress());
    EXPECT_FALSE(status.error.empty());
  }
}

}  // namespace
}  // namespace zv_client::testing
