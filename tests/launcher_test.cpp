// Launcher commands end to end: the lifecycle, what each command answers and
// sends, the shared client's replacement and teardown, and daemon restarts.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <common/GLibPtr.h>
#include <common/GLibUtils.h>
#include <dbus/client/DBusClientAsync.h>
#include <zorvel/Launcher.h>
#include <zorvel/LauncherTesting.h>

#include "support/BusTest.h"

namespace zv_client {
namespace testing {
namespace {

using dbus::client::DBusClientAsync;
using zorvel::Launcher;
using Found = std::pair<int, std::string>;

constexpr char kNotInited[] = "Launcher is not inited. Please check your call sequence";

// Instance-found deliveries, recorded from whatever thread makes them.
class FoundLog {
 public:
  std::function<void(int, const std::string&)> Callback() {
    return [this](int id, const std::string& name) {
      std::lock_guard<std::mutex> lock(mutex_);
      items_.emplace_back(id, name);
    };
  }
  std::vector<Found> Items() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return items_;
  }
  std::size_t Size() const { return Items().size(); }

 private:
  mutable std::mutex mutex_;
  std::vector<Found> items_;
};

// "method args" for each call the sim received, e.g. "connect (7,)".
std::vector<std::string> Described(const std::vector<SimCall>& calls) {
  std::vector<std::string> described;
  for (const SimCall& call : calls) {
    common::GCharPtr args(g_variant_print(call.args.get(), FALSE));
    const bool none = g_variant_n_children(call.args.get()) == 0;
    described.push_back(call.method + " " + (none ? "()" : args.get()));
  }
  return described;
}

// Whether a line containing `later` follows one containing `earlier`.
bool LoggedAfter(const LogCapture& logs, const std::string& earlier, const std::string& later) {
  bool seen = false;
  for (const LogLine& line : logs.Lines()) {
    if (seen && line.text.find(later) != std::string::npos) return true;
    seen = seen || line.text.find(earlier) != std::string::npos;
  }
  return false;
}

// GetCounts takes the pool lock, so it waits for a D-Bus call in flight: not
// for use while the sim sits on a reply.
DBusClientAsync::Counts CurrentCounts() {
  auto* client = dynamic_cast<DBusClientAsync*>(zorvel::testing::CurrentClient());
  return client != nullptr ? client->GetCounts() : DBusClientAsync::Counts{};
}

// Runs `work` on another thread and waits (generously) for it to finish;
// false when it did not, e.g. because it deadlocked.
bool FinishesInBoundedTime(std::function<void()> work) {
  auto done = std::async(std::launch::async, std::move(work));
  const bool finished =
      WaitUntil([&] { return done.wait_for(std::chrono::seconds(0)) == std::future_status::ready; });
  if (finished) done.get();
  return finished;
}

class LauncherTest : public BusTest {
 protected:
  // Init, then wait until the daemon's name owner was seen and the command
  // layer is ready (the `count`th time, across restarts).
  ::testing::AssertionResult InitReady(Launcher& launcher, std::size_t count = 1) {
    if (launcher.Init() != 0) return ::testing::AssertionFailure() << "Init failed\n" << logs().Dump();
    return WaitReady(count);
  }
  ::testing::AssertionResult WaitReady(std::size_t count) {
    if (!logs().WaitFor("IpcReady [1]", count)) {
      return ::testing::AssertionFailure() << "the daemon never became ready\n" << logs().Dump();
    }
    return ::testing::AssertionSuccess();
  }
  bool WaitPooled(const std::string& method) {
    return logs().WaitFor("move command[" + method + "] into pool");
  }
};

TEST_F(LauncherTest, ASecondInitKeepsTheClientAndDeinitChangesNothing) {
  Launcher launcher;
  EXPECT_EQ(zorvel::testing::CurrentClient(), nullptr);
  ASSERT_EQ(launcher.Init(), 0);
  dbus::client::DBusClient* const client = zorvel::testing::CurrentClient();
  ASSERT_NE(client, nullptr);
  EXPECT_NE(dynamic_cast<DBusClientAsync*>(client), nullptr);

  EXPECT_EQ(launcher.Init(), 0);
  EXPECT_EQ(logs().Count("Launcher is already inited. Ignore it from now on"), 1u);
  EXPECT_EQ(zorvel::testing::CurrentClient(), client);

  launcher.Deinit();
  EXPECT_EQ(logs().Count("Deinit. we're lazy here, so we do nothing"), 1u);
  EXPECT_EQ(logs().Count("Launcher.cpp: Deinit("), 1u);
  EXPECT_EQ(launcher.Init(), 0);
  EXPECT_EQ(logs().Count("Launcher is already inited. Ignore it from now on"), 2u);
  EXPECT_EQ(zorvel::testing::CurrentClient(), client);
  EXPECT_EQ(logs().Count("ConnectAsync"), 1u);  // only the first Init armed the connect timer

  // Still inited and connected after all that.
  ASSERT_TRUE(WaitReady(1));
  EXPECT_EQ(launcher.Stop(), 0);
  EXPECT_EQ(Described(control().GetCalls()), std::vector<std::string>{"deinit ()"});
}

TEST_F(LauncherTest, StopReadProfilesAndDeleteStoredProfileRefuseOnAFreshLauncherAndSendNothing) {
  Launcher fresh;
  EXPECT_EQ(fresh.Stop(), -1);
  EXPECT_TRUE(fresh.ReadProfiles().empty());
  EXPECT_EQ(fresh.DeleteStoredProfile(1), -1);
  EXPECT_EQ(logs().Count(kNotInited), 3u);

  // The same while another Launcher has installed a working client.
  Launcher inited;
  ASSERT_TRUE(InitReady(inited));
  EXPECT_EQ(fresh.Stop(), -1);
  EXPECT_TRUE(fresh.ReadProfiles().empty());
  EXPECT_EQ(fresh.DeleteStoredProfile(1), -1);
  EXPECT_EQ(logs().Count(kNotInited), 6u);
  EXPECT_EQ(CurrentCounts().accepted, 0u);
  EXPECT_TRUE(control().GetCalls().empty());
}

TEST_F(LauncherTest, WithoutAClientEveryCommandFailsWithoutCrashing) {
  {
    Launcher never;
    EXPECT_EQ(never.Connect(7), -1);
    EXPECT_EQ(never.StartBroadcast(true), -1);
    EXPECT_EQ(never.StopBroadcast(), -1);
    EXPECT_EQ(logs().Count(kNotInited), 3u);
  }

  // Destroying any Launcher removes the client of all of them.
  Launcher first;
  ASSERT_TRUE(InitReady(first));
  { Launcher other; }
  EXPECT_EQ(zorvel::testing::CurrentClient(), nullptr);
  EXPECT_EQ(first.Connect(7), -1);
  EXPECT_EQ(first.StartBroadcast(false), -1);
  EXPECT_EQ(first.StopBroadcast(), -1);
  EXPECT_EQ(first.Stop(), -1);
  EXPECT_TRUE(first.ReadProfiles().empty());
  EXPECT_EQ(first.DeleteStoredProfile(1), -1);
  EXPECT_EQ(logs().Count(kNotInited), 9u);
  EXPECT_TRUE(control().GetCalls().empty());
}

TEST_F(LauncherTest, StopAndStopBroadcastFailAtOnceWhileTheDaemonIsNotReady) {
  control().ReleaseName();
  Launcher launcher;
  ASSERT_EQ(launcher.Init(), 0);  // the daemon being away does not fail Init

  EXPECT_EQ(launcher.Stop(), -1);
  EXPECT_TRUE(logs().Contains("Deinit failed with code [0]"));
  EXPECT_EQ(launcher.StopBroadcast(), -1);
  EXPECT_TRUE(logs().Contains("StopBroadcast failed with code [-1]"));
  // Its Disconnect still ran, after the failed call.
  EXPECT_TRUE(LoggedAfter(logs(), "StopBroadcast failed with code [-1]", "DBusClientAsync.cpp: Disconnect("))
      << logs().Dump();
  EXPECT_TRUE(logs().Contains("StopBroadcast FINISHED"));

  // Back once the daemon is.
  control().AcquireName();
  ASSERT_TRUE(WaitReady(1));
  EXPECT_EQ(launcher.Stop(), 0);

  // Ready but silent: the 500 ms of StopBroadcast run out, readiness is
  // dropped anyway, and the next command waits for the daemon's restart.
  control().SetDelay("stopBroadcast", 5000);
  EXPECT_EQ(launcher.StopBroadcast(), -1);
  EXPECT_EQ(logs().Count("StopBroadcast failed with code [-1]"), 2u);
  EXPECT_TRUE(logs().Contains("Async Disconnect. Reset `ready` without the real disconnecting"));
  EXPECT_EQ(launcher.Connect(7), 0);
  ASSERT_TRUE(WaitPooled("connect"));
  EXPECT_TRUE(control().CallsOf("connect").empty());
  control().Restart();
  ASSERT_TRUE(control().WaitForCall("connect"));
  EXPECT_EQ(Described(control().CallsOf("connect")), std::vector<std::string>{"connect (7,)"});
}

TEST_F(LauncherTest, StopAndStopBroadcastWaitForTheDaemonsAnswer) {
  Launcher launcher;
  ASSERT_TRUE(InitReady(launcher));

  control().SetAnswer("deinit", -1);
  control().SetDelay("deinit", 200);
  EXPECT_EQ(launcher.Stop(), 0);  // the answer is logged, not returned
  EXPECT_TRUE(logs().Contains("##### Extracted int: [-1] #########"));
  EXPECT_TRUE(logs().Contains("Stop FINISHED"));

  control().SetAnswer("stopBroadcast", 7);
  EXPECT_EQ(launcher.StopBroadcast(), 7);
  EXPECT_TRUE(logs().Contains("##### Extracted int: [7] #########"));
  EXPECT_EQ(Described(control().GetCalls()), (std::vector<std::string>{"deinit ()", "stopBroadcast ()"}));
}

TEST_F(LauncherTest, QueuedCommandsReturnAtOnceWhileTheDaemonHoldsItsReply) {
  Launcher launcher;
  ASSERT_TRUE(InitReady(launcher));
  for (const char* method : {"connect", "startBroadcast", "readProfiles", "deleteStoredProfile"}) {
    control().SetNoReply(method);
  }

  EXPECT_EQ(launcher.Connect(7), 0);
  ASSERT_TRUE(control().WaitForCall("connect"));
  // connect is never answered; the layer runs one call at a time, so the
  // others cannot even reach the daemon, yet each returns.
  EXPECT_EQ(launcher.StartBroadcast(true), 0);
  EXPECT_TRUE(launcher.ReadProfiles().empty());
  EXPECT_EQ(launcher.DeleteStoredProfile(5), 0);
  EXPECT_EQ(Described(control().GetCalls()), std::vector<std::string>{"connect (7,)"});
  // The Launcher's destructor cancels the call the daemon sits on.
}

TEST_F(LauncherTest, QueuedCommandsReachTheDaemonLaterWithTheirArguments) {
  Launcher launcher;
  ASSERT_TRUE(InitReady(launcher));
  control().SetDelay("connect", 300);

  EXPECT_EQ(launcher.Connect(7), 0);
  ASSERT_TRUE(control().WaitForCall("connect"));
  // These three wait for connect's reply, then go in any order.
  EXPECT_EQ(launcher.StartBroadcast(true), 0);
  EXPECT_TRUE(launcher.ReadProfiles().empty());
  EXPECT_EQ(launcher.DeleteStoredProfile(5), 0);
  for (const char* method : {"startBroadcast", "readProfiles", "deleteStoredProfile"}) {
    ASSERT_TRUE(control().WaitForCall(method)) << method;
  }
  EXPECT_EQ(Described(control().CallsOf("connect")), std::vector<std::string>{"connect (7,)"});
  EXPECT_EQ(Described(control().CallsOf("startBroadcast")), std::vector<std::string>{"startBroadcast (1,)"});
  EXPECT_EQ(Described(control().CallsOf("readProfiles")), std::vector<std::string>{"readProfiles ()"});
  EXPECT_EQ(Described(control().CallsOf("deleteStoredProfile")),
            std::vector<std::string>{"deleteStoredProfile (5,)"});

  // One at a time from here: a command repeating the one sent just before is
  // dropped, so each follows a different one.
  EXPECT_EQ(launcher.Connect(8), 0);
  ASSERT_TRUE(control().WaitForCall("connect", 2));
  EXPECT_EQ(launcher.StartBroadcast(false), 0);
  ASSERT_TRUE(control().WaitForCall("startBroadcast", 2));
  EXPECT_EQ(launcher.DeleteStoredProfile(-3), 0);
  ASSERT_TRUE(control().WaitForCall("deleteStoredProfile", 2));
  EXPECT_EQ(Described(control().CallsOf("startBroadcast")),
            (std::vector<std::string>{"startBroadcast (1,)", "startBroadcast (0,)"}));
  EXPECT_EQ(Described(control().CallsOf("deleteStoredProfile")),
            (std::vector<std::string>{"deleteStoredProfile (5,)", "deleteStoredProfile (-3,)"}));
  const std::vector<SimCall> calls = control().GetCalls();
  for (const SimCall& call : calls) EXPECT_EQ(call.sender, calls.front().sender);
}

TEST_F(LauncherTest, ConnectRefusesASecondRequestUntilTheBroadcastIsStartedOrStopped) {
  Launcher launcher;
  ASSERT_TRUE(InitReady(launcher));

  EXPECT_EQ(launcher.Connect(7), 0);
  ASSERT_TRUE(control().WaitForCall("connect"));
  const auto accepted = CurrentCounts().accepted;
  EXPECT_EQ(launcher.Connect(8), -1);
  EXPECT_EQ(CurrentCounts().accepted, accepted);  // never handed to the client

  EXPECT_EQ(launcher.StartBroadcast(true), 0);
  ASSERT_TRUE(control().WaitForCall("startBroadcast"));
  EXPECT_EQ(launcher.Connect(8), 0);
  ASSERT_TRUE(control().WaitForCall("connect", 2));
  EXPECT_EQ(Described(control().CallsOf("connect")), (std::vector<std::string>{"connect (7,)", "connect (8,)"}));

  EXPECT_EQ(launcher.Connect(9), -1);
  EXPECT_EQ(launcher.StopBroadcast(), 0);
  EXPECT_EQ(launcher.Connect(9), 0);
  // StopBroadcast dropped readiness: connect(9) waits for a new daemon owner.
  ASSERT_TRUE(WaitPooled("connect"));
  control().Restart();
  ASSERT_TRUE(control().WaitForCall("connect", 3));
  EXPECT_EQ(Described(control().CallsOf("connect")),
            (std::vector<std::string>{"connect (7,)", "connect (8,)", "connect (9,)"}));
}

class LauncherProfilesTest : public LauncherTest {
 protected:
  SimOptions SimArguments() const override { return {{{1, "One"}, {2, "Two"}}, {}, 0, {}}; }
};

TEST_F(LauncherProfilesTest, StoredProfilesArriveThroughTheInstanceFoundCallbackInTheDaemonsOrder) {
  FoundLog found;
  Launcher launcher;
  launcher.SetOnInstanceFoundCallback(found.Callback());
  ASSERT_TRUE(InitReady(launcher));

  const std::string withNul("A\0B", 3);
  const std::string notUtf8("\xff\xfe caf\xe9");
  control().SetReply("readProfiles",
                     common::ProfilesToVariant({{"Kitchen", 3}, {withNul, 1}, {notUtf8, 2}, {"Minus five", -5}}));
  EXPECT_TRUE(launcher.ReadProfiles().empty());
  ASSERT_TRUE(logs().WaitFor("ExecuteCommand[readProfiles] FINISHED"));
  // The delivery carries the id in 16 bits: -5 arrives as 65531.
  EXPECT_EQ(found.Items(),
            (std::vector<Found>{{3, "Kitchen"}, {1, withNul}, {2, notUtf8}, {65531, "Minus five"}}));
}

TEST_F(LauncherProfilesTest, ADeletedProfileIsGoneFromTheNextReadAndAnEmptyStoreDeliversNothing) {
  FoundLog found;
  Launcher launcher;
  launcher.SetOnInstanceFoundCallback(found.Callback());
  ASSERT_TRUE(InitReady(launcher));
  const std::string finished = "ExecuteCommand[readProfiles] FINISHED";

  EXPECT_TRUE(launcher.ReadProfiles().empty());
  ASSERT_TRUE(logs().WaitFor(finished, 1));
  EXPECT_EQ(found.Items(), (std::vector<Found>{{1, "One"}, {2, "Two"}}));

  EXPECT_EQ(launcher.DeleteStoredProfile(1), 0);
  ASSERT_TRUE(control().WaitForCall("deleteStoredProfile"));
  EXPECT_TRUE(launcher.ReadProfiles().empty());
  ASSERT_TRUE(logs().WaitFor(finished, 2));
  EXPECT_EQ(found.Items(), (std::vector<Found>{{1, "One"}, {2, "Two"}, {2, "Two"}}));

  EXPECT_EQ(launcher.DeleteStoredProfile(2), 0);
  ASSERT_TRUE(control().WaitForCall("deleteStoredProfile", 2));
  EXPECT_TRUE(control().GetProfiles().empty());
  EXPECT_TRUE(launcher.ReadProfiles().empty());
  ASSERT_TRUE(logs().WaitFor(finished, 3));
  EXPECT_TRUE(logs().Contains("Read profiles size[0]"));
  EXPECT_EQ(found.Size(), 3u);
}

TEST_F(LauncherProfilesTest, InitOnASecondLauncherReplacesTheClientWhileTheFirstHasCommandsInFlight) {
  FoundLog firstFound;
  FoundLog secondFound;
  Launcher first;
  Launcher second;
  first.SetOnInstanceFoundCallback(firstFound.Callback());
  second.SetOnInstanceFoundCallback(secondFound.Callback());
  ASSERT_TRUE(InitReady(first));
  DBusClientAsync* const firstClient = dynamic_cast<DBusClientAsync*>(zorvel::testing::CurrentClient());

  control().SetNoReply("readProfiles");
  first.ReadProfiles();
  ASSERT_TRUE(control().WaitForCall("readProfiles"));
  EXPECT_EQ(first.StartBroadcast(true), 0);  // waits behind readProfiles
  EXPECT_EQ(first.DeleteStoredProfile(1), 0);

  // Replacing the client cancels the call in flight and discards the rest.
  ASSERT_TRUE(FinishesInBoundedTime([&] { EXPECT_EQ(second.Init(), 0); }));
  EXPECT_NE(zorvel::testing::CurrentClient(), firstClient);
  EXPECT_TRUE(logs().Contains("Stop dbus client"));

  ASSERT_TRUE(WaitReady(2));
  control().SetNoReply("readProfiles", false);
  second.ReadProfiles();
  ASSERT_TRUE(control().WaitForCall("readProfiles", 2));
  ASSERT_TRUE(WaitUntil([&] { return secondFound.Size() == 2; }));
  EXPECT_EQ(secondFound.Items(), (std::vector<Found>{{1, "One"}, {2, "Two"}}));
  EXPECT_TRUE(firstFound.Items().empty());
  EXPECT_TRUE(control().CallsOf("startBroadcast").empty());
  EXPECT_TRUE(control().CallsOf("deleteStoredProfile").empty());
}

TEST_F(LauncherProfilesTest, DestroyingALauncherWithCommandsInFlightIsBoundedAndSilencesItsCallbacks) {
  std::atomic<bool> destroyed{false};
  std::atomic<int> lateCalls{0};
  FoundLog witnessFound;
  auto launcher = std::make_unique<Launcher>();
  launcher->SetOnInstanceFoundCallback([&](int, const std::string&) {
    if (destroyed) ++lateCalls;
  });
  launcher->SetOnConnectionAvailable([&](int, bool) {
    if (destroyed) ++lateCalls;
  });
  ASSERT_TRUE(InitReady(*launcher));

  // readProfiles is answered while the destructor's grace period runs, so its
  // deliveries may race the teardown; deleteStoredProfile is never answered.
  control().SetDelay("readProfiles", 700);
  control().SetNoReply("deleteStoredProfile");
  launcher->ReadProfiles();
  ASSERT_TRUE(control().WaitForCall("readProfiles"));
  launcher->DeleteStoredProfile(1);
  launcher->StartBroadcast(true);
  launcher->Connect(7);

  ASSERT_TRUE(FinishesInBoundedTime([&] { launcher.reset(); }));
  destroyed = true;
  EXPECT_EQ(zorvel::testing::CurrentClient(), nullptr);

  // A new Launcher hears the daemon; the destroyed one's callbacks stay silent.
  Launcher witness;
  witness.SetOnInstanceFoundCallback(witnessFound.Callback());
  ASSERT_TRUE(InitReady(witness, 2));
  control().Emit("onConnectionAvailable", g_variant_new("(qq)", 7, 1));
  control().Emit("onFound", common::SerializeIntoGVariant("Marker", 99));
  ASSERT_TRUE(WaitUntil([&] {
    const std::vector<Found> items = witnessFound.Items();
    return std::find(items.begin(), items.end(), Found{99, "Marker"}) != items.end();
  }));
  EXPECT_EQ(lateCalls, 0);
}

TEST_F(LauncherTest, CommandsHeldWhileTheDaemonIsAwayAreSentOnceInOrderToTheNewOwner) {
  Launcher launcher;
  ASSERT_TRUE(InitReady(launcher));
  control().ReleaseName();
  ASSERT_TRUE(logs().WaitFor("IpcReady [0]"));

  // One at a time, so that the pool's order is the order of the calls.
  EXPECT_EQ(launcher.Connect(7), 0);
  ASSERT_TRUE(WaitPooled("connect"));
  EXPECT_EQ(launcher.StartBroadcast(true), 0);
  ASSERT_TRUE(WaitPooled("startBroadcast"));
  EXPECT_EQ(launcher.DeleteStoredProfile(3), 0);
  ASSERT_TRUE(WaitPooled("deleteStoredProfile"));
  EXPECT_TRUE(launcher.ReadProfiles().empty());
  ASSERT_TRUE(WaitPooled("readProfiles"));

  const std::string newOwner = control().AcquireName();
  ASSERT_TRUE(logs().WaitFor("IpcReady command[readProfiles] FINISHED"));
  // A later command shows that nothing else is on its way.
  EXPECT_EQ(launcher.DeleteStoredProfile(4), 0);
  ASSERT_TRUE(control().WaitForCall("deleteStoredProfile", 2));
  EXPECT_EQ(Described(control().GetCalls()),
            (std::vector<std::string>{"connect (7,)", "startBroadcast (1,)", "deleteStoredProfile (3,)",
                                      "readProfiles ()", "deleteStoredProfile (4,)"}));
  EXPECT_EQ(CurrentCounts().replayed, 4u);
  EXPECT_EQ(control().GetOwner(), newOwner);
}

TEST_F(LauncherTest, ACommandAlreadySentToTheOldInstanceIsNotSentAgain) {
  Launcher launcher;
  ASSERT_TRUE(InitReady(launcher));
  control().SetNoReply("deleteStoredProfile");
  EXPECT_EQ(launcher.DeleteStoredProfile(4), 0);
  ASSERT_TRUE(control().WaitForCall("deleteStoredProfile"));

  control().Restart();  // the held call fails with the old instance
  ASSERT_TRUE(logs().WaitFor("IpcReady [0]"));
  EXPECT_EQ(launcher.StartBroadcast(true), 0);
  ASSERT_TRUE(control().WaitForCall("startBroadcast"));
  EXPECT_EQ(Described(control().GetCalls()),
            (std::vector<std::string>{"deleteStoredProfile (4,)", "startBroadcast (1,)"}));
}

}  // namespace
}  // namespace testing
}  // namespace zv_client
