// Launcher events end to end: the daemon's signals, emitted by the real sim,
// reaching the application's callbacks; callbacks replaced while they run;
// callbacks calling back into the Launcher.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <common/GLibUtils.h>
#include <zorvel/Launcher.h>

#include "support/BusTest.h"

namespace zv_client {
namespace testing {
namespace {

using zorvel::Launcher;
using Found = std::pair<int, std::string>;
using Available = std::pair<int, bool>;

// Callback arguments, recorded from whatever thread delivers them.
template <typename T>
class Recorder {
 public:
  void Add(T value) {
    std::lock_guard<std::mutex> lock(mutex_);
    items_.push_back(std::move(value));
  }
  std::vector<T> Items() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return items_;
  }
  std::size_t Size() const { return Items().size(); }
  bool WaitForSize(std::size_t size) const {
    return WaitUntil([&] { return Size() >= size; });
  }

 private:
  mutable std::mutex mutex_;
  std::vector<T> items_;
};

GVariant* FoundPayload(const std::string& name, int id) { return common::SerializeIntoGVariant(name, id); }

GVariant* CancelPayload(const std::string& name, int id, int status) {
  return common::ProfileWithStatusToVariant(common::SessionProfile{name, id}, status);
}

GVariant* EmptyBytes() { return g_variant_new_array(G_VARIANT_TYPE_BYTE, nullptr, 0); }

// Whether a line containing `later` follows one containing `earlier`.
bool LoggedAfter(const LogCapture& logs, const std::string& earlier, const std::string& later) {
  bool seen = false;
  for (const LogLine& line : logs.Lines()) {
    if (seen && line.text.find(later) != std::string::npos) return true;
    seen = seen || line.text.find(earlier) != std::string::npos;
  }
  return false;
}

class LauncherEventsTest : public BusTest {
 protected:
  SimOptions SimArguments() const override { return {{{1, "One"}, {2, "Two"}}, {}, 50, {}}; }

  ::testing::AssertionResult InitReady(Launcher& launcher) {
    if (launcher.Init() != 0) return ::testing::AssertionFailure() << "Init failed\n" << logs().Dump();
    if (!logs().WaitFor("IpcReady [1]")) {
      return ::testing::AssertionFailure() << "the daemon never became ready\n" << logs().Dump();
    }
    return ::testing::AssertionSuccess();
  }
};

TEST_F(LauncherEventsTest, OnFoundDeliversTheIdAndNameAfterItsLogLineAndSkipsMalformedPayloads) {
  Recorder<Found> found;
  std::atomic<bool> loggedBefore{false};
  Launcher launcher;
  launcher.SetOnInstanceFoundCallback([&](int id, const std::string& name) {
    if (id == 12) loggedBefore = logs().Contains("Execute Instance Found callback: id[12], name[Kitchen speaker]");
    found.Add({id, name});
  });
  ASSERT_TRUE(InitReady(launcher));

  control().Emit("onFound", FoundPayload("Kitchen speaker", 12));
  ASSERT_TRUE(found.WaitForSize(1));
  EXPECT_TRUE(loggedBefore);
  for (const LogLine& line : logs().Lines()) {
    if (line.text.find("Execute Instance Found callback") != std::string::npos) {
      EXPECT_NE(line.text.find("> thd: "), std::string::npos) << line.text;
    }
  }

  control().Emit("onFound", g_variant_new("(@ayq)", EmptyBytes(), 12));
  control().Emit("onFound", g_variant_new("(si)", "Kitchen speaker", 12));
  control().Emit("onFound", nullptr);
  control().Emit("onFound", FoundPayload("Hall display", 13));
  ASSERT_TRUE(found.WaitForSize(2));
  EXPECT_EQ(found.Items(), (std::vector<Found>{{12, "Kitchen speaker"}, {13, "Hall display"}}));
  std::size_t failures = 0;
  for (const LogLine& line : logs().Lines()) {
    if (line.text.find("Failed to deserialize data") == std::string::npos) continue;
    ++failures;
    EXPECT_EQ(line.priority, platform::LogPriority::kError);
  }
  EXPECT_EQ(failures, 3u);
}

TEST_F(LauncherEventsTest, OnCancelPassesTheStatusAndLogsTheProfile) {
  Recorder<int> statuses;
  Launcher launcher;
  launcher.SetOnCancelConnectionCallback([&](int status) { statuses.Add(status); });
  ASSERT_TRUE(InitReady(launcher));

  control().Emit("onCancel", CancelPayload("Hall display", 7, 3));
  ASSERT_TRUE(statuses.WaitForSize(1));
  EXPECT_TRUE(logs().Contains("onCancelConnection emitted: profile[Hall display][7], status[3]"));

  control().Emit("onCancel", common::IntegerToVariant(5));
  control().Emit("onCancel", nullptr);
  control().Emit("onCancel", g_variant_new("(@ayqq)", EmptyBytes(), 7, 3));
  control().Emit("onCancel", CancelPayload("Kitchen speaker", 1, 0));
  ASSERT_TRUE(statuses.WaitForSize(2));
  EXPECT_EQ(statuses.Items(), (std::vector<int>{3, 0}));
  EXPECT_EQ(logs().Count("onCancelConnection emitted"), 2u);  // the undecodable ones log only...
  EXPECT_EQ(logs().Count("onCancelConnection handled"), 5u);  // ...this
}

TEST_F(LauncherEventsTest, OnConnectionAvailablePassesTheIdAndWhetherTheStateIsNonZero) {
  Recorder<Available> available;
  Launcher launcher;
  launcher.SetOnConnectionAvailable([&](int id, bool state) { available.Add({id, state}); });
  ASSERT_TRUE(InitReady(launcher));

  EXPECT_EQ(launcher.Connect(7), 0);  // the sim follows its answer with (7, 1)
  ASSERT_TRUE(available.WaitForSize(1));
  control().Emit("onConnectionAvailable", g_variant_new("(qq)", 5, 2));
  control().Emit("onConnectionAvailable", g_variant_new("(qq)", 5, 0));
  control().Emit("onConnectionAvailable", g_variant_new("(qq)", 65535, 1));
  // Of another type: both numbers stay 0.
  control().Emit("onConnectionAvailable", g_variant_new("(s)", "5"));
  ASSERT_TRUE(available.WaitForSize(5));
  EXPECT_EQ(available.Items(),
            (std::vector<Available>{{7, true}, {5, true}, {5, false}, {65535, true}, {0, false}}));
  EXPECT_TRUE(logs().Contains("Execute Instance ConnectionAvailable callback: id[65535] state[1]"));
}

TEST_F(LauncherEventsTest, OnDbusClosingDropsReadinessUntilTheDaemonRestartsThenTheHeldCommandIsReplayed) {
  Launcher launcher;
  ASSERT_TRUE(InitReady(launcher));

  control().Emit("onDbusClosing", common::IntegerToVariant(0));
  ASSERT_TRUE(logs().WaitFor("onDbusClosing handled"));
  EXPECT_TRUE(LoggedAfter(logs(), "onDbusClosing emitted [0]", "Async Disconnect. Reset `ready`"));
  EXPECT_TRUE(LoggedAfter(logs(), "Async Disconnect. Reset `ready`", "onDbusClosing handled"));

  control().Emit("onDbusClosing", common::IntegerToVariant(-42));
  control().Emit("onDbusClosing", g_variant_new("(s)", "bye"));
  ASSERT_TRUE(logs().WaitFor("onDbusClosing handled", 3));
  EXPECT_TRUE(logs().Contains("onDbusClosing emitted [-42]"));
  EXPECT_EQ(logs().Count("onDbusClosing emitted [0]"), 2u);
  EXPECT_EQ(logs().Count("DBusClientAsync.cpp: Disconnect("), 3u);  // once per signal

  EXPECT_EQ(launcher.Connect(7), 0);
  ASSERT_TRUE(logs().WaitFor("move command[connect] into pool"));
  EXPECT_TRUE(control().CallsOf("connect").empty());
  control().Restart();
  ASSERT_TRUE(control().WaitForCall("connect"));
  ASSERT_TRUE(logs().WaitFor("IpcReady command[connect] FINISHED"));
  EXPECT_EQ(control().CallsOf("connect").size(), 1u);
}

TEST_F(LauncherEventsTest, SignalsWithoutAHandlerReachNoLauncherCode) {
  Recorder<Found> found;
  Recorder<int> statuses;
  Recorder<Available> available;
  Launcher launcher;
  launcher.SetOnInstanceFoundCallback([&](int id, const std::string& name) { found.Add({id, name}); });
  launcher.SetOnCancelConnectionCallback([&](int status) { statuses.Add(status); });
  launcher.SetOnConnectionAvailable([&](int id, bool state) { available.Add({id, state}); });
  ASSERT_TRUE(InitReady(launcher));
  logs().Clear();

  control().Emit("onVoiceGuideSay", common::SerializeIntoGVariant("Turn left"));
  control().Emit("onServiceShutdown", common::IntegerToVariant(1));
  control().Emit("onFound", FoundPayload("Marker", 12));
  ASSERT_TRUE(found.WaitForSize(1));
  EXPECT_TRUE(logs().Contains("Haven't found callback for signal onVoiceGuideSay. Skipping processing..."));
  EXPECT_TRUE(logs().Contains("Haven't found callback for signal onServiceShutdown. Skipping processing..."));
  std::size_t launcherLines = 0;
  for (const LogLine& line : logs().Lines()) {
    if (line.text.rfind("Launcher.cpp: ", 0) == 0) ++launcherLines;
  }
  EXPECT_EQ(launcherLines, 2u) << logs().Dump();  // the marker's two lines
  EXPECT_TRUE(statuses.Items().empty());
  EXPECT_TRUE(available.Items().empty());
}

TEST_F(LauncherEventsTest, AnImpostorsOnFoundNeverReachesTheCallback) {
  Recorder<Found> found;
  Launcher launcher;
  launcher.SetOnInstanceFoundCallback([&](int id, const std::string& name) { found.Add({id, name}); });
  ASSERT_TRUE(InitReady(launcher));
  ASSERT_EQ(launcher.Stop(), 0);
  const std::vector<SimCall> deinit = control().CallsOf("deinit");
  ASSERT_EQ(deinit.size(), 1u);
  const std::string ours = deinit[0].sender;  // the Launcher's bus connection

  Impostor impostor;
  EXPECT_TRUE(impostor.Emit("onFound", FoundPayload("Impostor", 66)));
  EXPECT_TRUE(impostor.Emit("onFound", FoundPayload("Impostor", 67), ours));
  control().EmitAs("onFound", FoundPayload("Control impostor", 68));
  control().EmitAs("onFound", FoundPayload("Control impostor", 69), ours);
  control().Emit("onFound", FoundPayload("Real", 12));  // after all of them
  ASSERT_TRUE(found.WaitForSize(1));
  EXPECT_EQ(found.Items(), (std::vector<Found>{{12, "Real"}}));
  EXPECT_EQ(logs().Count("signal name [onFound]"), 1u);
}

TEST_F(LauncherEventsTest, ACallbackMayReplaceItselfFromInside) {
  Recorder<std::string> calls;
  Launcher launcher;
  // The running callable is replaced, and so dropped by the Launcher, while it
  // still uses its own capture.
  launcher.SetOnInstanceFoundCallback([&calls, &launcher, tag = std::string(64, 'a')](int id, const std::string&) {
    launcher.SetOnInstanceFoundCallback(
        [&calls](int next, const std::string&) { calls.Add("replacement " + std::to_string(next)); });
    calls.Add(tag.substr(0, 8) + " " + std::to_string(id));
  });
  ASSERT_TRUE(InitReady(launcher));

  control().Emit("onFound", FoundPayload("x", 1));
  ASSERT_TRUE(calls.WaitForSize(1));
  control().Emit("onFound", FoundPayload("y", 2));
  ASSERT_TRUE(calls.WaitForSize(2));
  EXPECT_EQ(calls.Items(), (std::vector<std::string>{"aaaaaaaa 1", "replacement 2"}));
}

TEST_F(LauncherEventsTest, AClearedCallbackIsNoLongerCalledButItsHandlerStillRuns) {
  Recorder<Found> found;
  Recorder<int> statuses;
  Recorder<Available> available;
  Launcher launcher;
  launcher.SetOnInstanceFoundCallback([&](int id, const std::string& name) { found.Add({id, name}); });
  launcher.SetOnCancelConnectionCallback([&](int status) { statuses.Add(status); });
  launcher.SetOnConnectionAvailable([&](int id, bool state) { available.Add({id, state}); });
  ASSERT_TRUE(InitReady(launcher));
  const auto emitAll = [&] {
    control().Emit("onFound", FoundPayload("Kitchen speaker", 101));
    control().Emit("onCancel", CancelPayload("Hall display", 7, 3));
    control().Emit("onConnectionAvailable", g_variant_new("(qq)", 5, 1));
  };

  emitAll();
  ASSERT_TRUE(available.WaitForSize(1));
  launcher.SetOnInstanceFoundCallback(nullptr);
  launcher.SetOnCancelConnectionCallback(nullptr);
  launcher.SetOnConnectionAvailable(nullptr);
  emitAll();
  // Signals are handled in order: once this one is dropped, the three are done.
  control().Emit("onVoiceGuideSay", common::SerializeIntoGVariant("fence"));
  ASSERT_TRUE(logs().WaitFor("Haven't found callback for signal onVoiceGuideSay"));

  EXPECT_EQ(found.Size(), 1u);
  EXPECT_EQ(statuses.Size(), 1u);
  EXPECT_EQ(available.Size(), 1u);
  EXPECT_EQ(logs().Count("OnFoundCallback emitted"), 2u);
  EXPECT_EQ(logs().Count("Execute Instance Found callback"), 1u);
  EXPECT_EQ(logs().Count("onCancelConnection emitted: profile[Hall display][7], status[3]"), 2u);
  EXPECT_EQ(logs().Count("onCancelConnection handled"), 2u);
  EXPECT_EQ(logs().Count("onConnectionAvailable emitted"), 2u);
  EXPECT_EQ(logs().Count("Execute Instance ConnectionAvailable callback"), 1u);
}

class LauncherBusyEventsTest : public LauncherEventsTest {
 protected:
  SimOptions SimArguments() const override { return {{{1, "One"}, {2, "Two"}}, {}, 2, {}}; }
};

TEST_F(LauncherBusyEventsTest, SettersMayRaceDeliveriesFromOtherThreads) {
  std::atomic<int> foundCalls{0};
  std::atomic<int> cancelCalls{0};
  std::atomic<int> availableCalls{0};
  std::atomic<bool> stop{false};
  Launcher launcher;
  ASSERT_TRUE(InitReady(launcher));

  std::thread setter([&] {
    for (unsigned round = 0; !stop; ++round) {
      if (round % 3 == 2) {
        launcher.SetOnInstanceFoundCallback(nullptr);
        launcher.SetOnCancelConnectionCallback(nullptr);
        launcher.SetOnConnectionAvailable(nullptr);
        continue;
      }
      // A capture on the heap, so that a callable destroyed while it runs
      // would show.
      const std::string capture(round % 3 == 0 ? 40 : 80, 'c');
      launcher.SetOnInstanceFoundCallback([&, capture](int, const std::string&) { foundCalls += !capture.empty(); });
      launcher.SetOnCancelConnectionCallback([&, capture](int) { cancelCalls += !capture.empty(); });
      launcher.SetOnConnectionAvailable([&, capture](int, bool) { availableCalls += !capture.empty(); });
    }
  });

  // Broadcast deliveries on the main-loop thread, stored-profile deliveries
  // on command threads, cancel and available events from the test thread.
  EXPECT_EQ(launcher.StartBroadcast(true), 0);
  for (int round = 0; round < 20; ++round) {
    launcher.ReadProfiles();
    launcher.DeleteStoredProfile(99);
    control().Emit("onCancel", CancelPayload("Hall display", 7, round));
    control().Emit("onConnectionAvailable", g_variant_new("(qq)", round, 1));
  }
  EXPECT_TRUE(WaitUntil([&] { return foundCalls > 100 && cancelCalls > 0 && availableCalls > 0; }));
  EXPECT_TRUE(logs().WaitFor("onCancelConnection handled", 20));
  stop = true;
  setter.join();
}

TEST_F(LauncherEventsTest, AStoredProfileCallbackMayStopTheBroadcast) {
  Recorder<Found> found;
  std::atomic<int> stopResult{1000};
  Launcher launcher;
  launcher.SetOnInstanceFoundCallback([&](int id, const std::string& name) {
    found.Add({id, name});
    if (id == 1) stopResult = launcher.StopBroadcast();
  });
  ASSERT_TRUE(InitReady(launcher));
  control().SetAnswer("stopBroadcast", 4);

  EXPECT_TRUE(launcher.ReadProfiles().empty());
  ASSERT_TRUE(WaitUntil([&] { return found.Size() == 2 && stopResult != 1000; })) << logs().Dump();
  EXPECT_EQ(stopResult, 4);
  EXPECT_EQ(found.Items(), (std::vector<Found>{{1, "One"}, {2, "Two"}}));
  EXPECT_TRUE(control().WaitForCall("stopBroadcast"));
  EXPECT_TRUE(logs().Contains("Async Disconnect. Reset `ready`"));
}

TEST_F(LauncherEventsTest, OnDbusClosingArrivingDuringAStoredProfileDeliveryIsHandledAfterIt) {
  Recorder<Found> found;
  std::atomic<bool> closingHandledEarly{false};
  Launcher launcher;
  launcher.SetOnInstanceFoundCallback([&](int id, const std::string& name) {
    if (id == 1) {
      control().Emit("onDbusClosing", common::IntegerToVariant(5));
      // Dispatched now, the handler waits for this callback to return.
      EXPECT_TRUE(logs().WaitFor("HandleSignal is called, signal name [onDbusClosing]"));
      closingHandledEarly = logs().Contains("onDbusClosing emitted");
    }
    found.Add({id, name});
  });
  ASSERT_TRUE(InitReady(launcher));

  EXPECT_TRUE(launcher.ReadProfiles().empty());
  ASSERT_TRUE(logs().WaitFor("onDbusClosing handled")) << logs().Dump();
  ASSERT_TRUE(found.WaitForSize(2));
  EXPECT_EQ(found.Items(), (std::vector<Found>{{1, "One"}, {2, "Two"}}));
  EXPECT_FALSE(closingHandledEarly);
  EXPECT_TRUE(logs().Contains("onDbusClosing emitted [5]"));
  EXPECT_TRUE(logs().Contains("Async Disconnect. Reset `ready`"));
}

TEST_F(LauncherEventsTest, CallbacksMayIssueQueuedCommands) {
  Recorder<Found> found;
  std::atomic<bool> broadcastRequested{false};
  std::atomic<bool> profilesRequested{false};
  std::atomic<int> startResult{1000};
  std::atomic<int> readSize{1000};
  Launcher launcher;
  // connect -> available (7, true) -> StartBroadcast -> an instance found ->
  // ReadProfiles -> the stored profiles found.
  launcher.SetOnConnectionAvailable([&](int id, bool state) {
    if (id == 7 && state && !broadcastRequested.exchange(true)) startResult = launcher.StartBroadcast(true);
  });
  launcher.SetOnInstanceFoundCallback([&](int id, const std::string& name) {
    found.Add({id, name});
    if (id == 101 && !profilesRequested.exchange(true)) {
      readSize = static_cast<int>(launcher.ReadProfiles().size());
    }
  });
  ASSERT_TRUE(InitReady(launcher));

  EXPECT_EQ(launcher.Connect(7), 0);
  ASSERT_TRUE(WaitUntil([&] {
    const std::vector<Found> items = found.Items();
    return std::count(items.begin(), items.end(), Found{1, "One"}) == 1 &&
           std::count(items.begin(), items.end(), Found{2, "Two"}) == 1;
  })) << logs().Dump();
  EXPECT_EQ(startResult, 0);
  EXPECT_EQ(readSize, 0);
  EXPECT_EQ(control().CallsOf("startBroadcast").size(), 1u);
  EXPECT_EQ(control().CallsOf("readProfiles").size(), 1u);
}

}  // namespace
}  // namespace testing
}  // namespace zv_client
