// The application is never held hostage: no thread waits for a delivery turn inside a callback,
// and the main loop waits neither for the daemon (the replay) nor for the bus (connect attempts);
// library threads are small, and a thread that cannot be started still ends its command.
// Each interleaving is forced through the test hooks; each test hangs or fails without its fix.

#include <pthread.h>

#include <system_error>

#include <zorvel/common/GLibUtils.h>
#include <zorvel/dbus/client/CallbackAnchor.h>  // ZORVEL_TSAN_ANNOTATE

#include "support/BusTest.h"
#include "support/Outcomes.h"

namespace zv_client::testing {
namespace {

using dbus::client::DBusClientAsync;
using zorvel::CommandId;
using zorvel::CommandOutcome;
using zorvel::CommandStatus;
using zorvel::Launcher;
using End = DBusClientAsync::CommandEnd::Kind;
using Hook = dbus::client::testing::Point;

// What a command thread's stack may be: the library asks for 256 KiB; ThreadSanitizer's runtime
// enlarges a small stack by room for its own per-thread state.
#if defined(ZORVEL_TSAN_ANNOTATE)
constexpr std::size_t kLargestStack = 1024 * 1024;
#else
constexpr std::size_t kLargestStack = 512 * 1024;
#endif

std::thread::id MainLoopThread() {
  std::thread::id id;
  RunOnMainLoop([&] { id = std::this_thread::get_id(); });
  return id;
}

class Liveness : public BusTest {
 protected:
  // Records the outcomes of `launcher` (see Outcomes::Attach), inits it, and waits until a first command was
  // answered: the layer is ready.
  ::testing::AssertionResult InitReady(Launcher& launcher, std::function<void(const CommandOutcome&)> also = {}) {
    told_.Attach(launcher, std::move(also));
    if (launcher.Init() == 0 &&
        told_.Run([&](CommandId* id) { launcher.DeleteStoredProfile(99, id); }).status == CommandStatus::kAnswered)
      return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "Init failed, or the daemon never became ready\n" << logs().Dump();
  }

  Outcomes told_;
};

TEST_F(Liveness, ClosingEventMeetingStopBroadcastLeavesTheMainLoopRunning) {
  // StopBroadcast's Disconnect lets the daemon's closing event into the main loop's own Disconnect,
  // which is held there (signal lock held) until a command was held meanwhile and its "held" outcome
  // waits for that lock. The main loop's discarded outcome must come after it, and not wait for it.
  Launcher launcher;
  ASSERT_TRUE(InitReady(launcher));
  const std::thread::id mainLoop = MainLoopThread();
  std::atomic<bool> closingArrived{false}, release{false}, stopArrived{false};
  ScopedHook hook([&](Hook point) {
    if (point != Hook::kDisconnectAwaitsPool) return;
    if (std::this_thread::get_id() == mainLoop) {
      closingArrived = true;
      EXPECT_TRUE(WaitUntil([&] { return release.load(); }));
    } else if (!stopArrived.exchange(true)) {
      control().Emit("onDbusClosing", g_variant_new("(i)", 0));
      EXPECT_TRUE(WaitUntil([&] { return closingArrived.load(); }));
    }
  });
  launcher.StopBroadcast();
  ASSERT_TRUE(closingArrived);
  CommandId id = 0;
  launcher.StartBroadcast(true, &id);  // connected, not ready: held
  ASSERT_TRUE(WaitUntil([] { return Client().GetCounts().held == 1; }));
  release = true;
  MustFinishInBoundedTime([] { RunOnMainLoop([] {}); }, [&] { return "the main loop is stuck\n" + logs().Dump(); });
  EXPECT_EQ(told_.Of(id), (std::vector<CommandStatus>{CommandStatus::kHeld, CommandStatus::kDiscarded}));
}

TEST_F(Liveness, ReplayRunsOffTheMainLoopInOrderBeforeLaterCommands) {
  Ends startBroadcast, connect, deinit;
  control().ReleaseName();
  DBusClientAsync client;
  client.Connect();
  ASSERT_TRUE(client.Submit("startBroadcast", common::IntegerToVariant(1), -1, startBroadcast.Observer()));
  ASSERT_TRUE(client.Submit("connect", common::IntegerToVariant(5), -1, connect.Observer()));
  ASSERT_TRUE(startBroadcast.WaitFor({End::kHeld}) && connect.WaitFor({End::kHeld}));

  // The daemon takes its time over the first replayed command: the main loop goes on meanwhile. The
  // first two hand-offs of the replay find no thread: the commands stay held, and it is tried again.
  std::atomic<bool> linked{false};
  std::atomic<int> refused{0};
  ScopedHook refuse([&](Hook point) {
    if (point == Hook::kConnectedByNameWatch || point == Hook::kConnectedByTimer) linked = true;
    if (point == Hook::kThreadStarts && linked && refused < 2) {
      ++refused;
      throw std::system_error(EAGAIN, std::generic_category(), "no thread");
    }
  });
  control().SetDelay("startBroadcast", 3000);
  control().AcquireName();
  ASSERT_TRUE(control().WaitForCall("startBroadcast")) << logs().Dump();
  EXPECT_EQ(refused, 2);
  RunOnMainLoop([] {});
  EXPECT_EQ(startBroadcast.Items(), std::vector<End>{End::kHeld}) << "the main loop waited for the daemon";
  // Accepted after the readiness, it waits for the replay, and is not held behind it.
  ASSERT_TRUE(client.Submit("deinit", nullptr, -1, deinit.Observer()));

  for (const Ends* replayed : {&startBroadcast, &connect}) {
    EXPECT_TRUE(replayed->WaitFor({End::kHeld, End::kRan}));
    EXPECT_NE(replayed->thread.load(), MainLoopThread());
  }
  EXPECT_TRUE(deinit.WaitFor({End::kRan}));
  EXPECT_EQ(control().CallTexts(), (std::vector<std::string>{"startBroadcast(1,)", "connect(5,)", "deinit()"}));
  EXPECT_EQ(client.GetCounts().replayed, 2u);
}

TEST_F(Liveness, ConnectAttemptsLeaveTheMainLoopRunningWhileTheBusIsFrozen) {
  HookCounts attempts;
  Launcher launcher;
  told_.Attach(launcher);
  FreezeBus(true);
  EXPECT_EQ(launcher.Init(), 0);
  const bool attempting = WaitUntil([&] { return attempts.started() > 0; });  // blocked on the bus
  MustFinishInBoundedTime([] { RunOnMainLoop([] {}); }, [] { return std::string("the main loop waited for the bus"); });
  CommandId id = 0;
  launcher.StartBroadcast(true, &id);
  FreezeBus(false);
  EXPECT_TRUE(attempting);
  EXPECT_EQ(told_.Of(id).back(), CommandStatus::kAnswered) << "no link after the bus thawed\n" << logs().Dump();
}

TEST_F(Liveness, NameWatchFollowsTheBusAcrossItsRestart) {
  // The daemon goes first (its name is then watched on the connection of the time), then the bus:
  // the watch must move to the new connection, or only the 500 ms retry notices the daemon's return.
  HookCounts hooks;
  Launcher launcher;
  ASSERT_TRUE(InitReady(launcher));
  for (int round = 1; round <= 2; ++round) {
    const int connected = hooks.byNameWatch() + hooks.byTimer();
    sim().Kill();
    ASSERT_TRUE(WaitUntil([&, before = hooks.started()] { return hooks.started() > before; }));
    RestartBusAndDaemon([&] {  // two attempts on the new bus: the first failed and watched the name there
      ASSERT_TRUE(WaitUntil([&, before = hooks.started()] { return hooks.started() >= before + 2; }));
    });
    ASSERT_TRUE(WaitUntil([&] { return hooks.byNameWatch() + hooks.byTimer() > connected; })) << logs().Dump();
  }
  // A retry can win a round only on a machine stalled for most of its 500 ms.
  EXPECT_GE(hooks.byNameWatch(), 1);
  EXPECT_EQ(told_.Run([&](CommandId* id) { launcher.StartBroadcast(true, id); }).status, CommandStatus::kAnswered);
}

TEST_F(Liveness, CommandThreadsAreSmallAndAFailedStartEndsTheCommandOrWaitsForTheTimer) {
  std::atomic<std::size_t> stack{0};
  Launcher launcher;
  ASSERT_TRUE(InitReady(launcher, [&](const CommandOutcome&) {  // its outcome comes on the thread that ran it
    pthread_attr_t attributes;
    std::size_t size = 0;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
      pthread_attr_getstacksize(&attributes, &size);
      pthread_attr_destroy(&attributes);
    }
    stack = size;
  }));
  EXPECT_GT(stack, 0u);
  EXPECT_LE(stack, kLargestStack);

  {
    ScopedHook refuse([](Hook point) {
      if (point == Hook::kThreadStarts) throw std::system_error(EAGAIN, std::generic_category(), "no thread");
    });
    CommandId id = 0;
    EXPECT_EQ(launcher.Connect(7, &id), -1);
    const auto ended = told_.Items().back().first;
    EXPECT_EQ(std::make_tuple(ended.id, ended.status, ended.errorName),
              std::make_tuple(id, CommandStatus::kNotStarted, std::string(zorvel::kErrorInternal)));
    // The restoration the name's loss starts (in GLib's callback) finds no thread either: the timer takes over.
    control().ReleaseName();
    EXPECT_TRUE(WaitUntil([] { return !Client().IsConnected(); }));
  }
  control().AcquireName();
  const auto connect = [&](CommandId* id) { EXPECT_EQ(launcher.Connect(7, id), 0); };  // a later one starts as usual
  EXPECT_EQ(told_.Run(connect).status, CommandStatus::kAnswered);
  EXPECT_EQ(control().CallTexts(), (std::vector<std::string>{"deleteStoredProfile(99,)", "connect(7,)"}));
}

}  // namespace
}  // namespace zv_client::testing
