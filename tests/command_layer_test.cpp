// The command layer against the private bus and zorvel-sim: how commands are
// accepted, held, replayed and dropped, how readiness and the link are lost
// and restored, and the connect retry timer. The log lines are part of the
// contract, so they are matched as the library writes them.

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <common/GLibPtr.h>
#include <common/GLibUtils.h>
#include <dbus/client/DBusClientAsync.h>
#include <dbus/client/ServiceContract.h>
#include <platform/SystemLog.h>

#include "support/BusTest.h"
#include "support/VariantProbe.h"

namespace zv_client {
namespace testing {
namespace {

using dbus::client::DBusClientAsync;
using dbus::client::kBusName;
using Clock = std::chrono::steady_clock;

const std::string kReadyLine = "\"IpcReady [1] command pool size [";
const std::string kMakeRestore = "Ipc isn't connected - make restore";

// "onFound" deliveries as (id, name), whichever thread they arrive on.
class FoundRecorder {
 public:
  DBusClientAsync::SignalCallback Handler() {
    return [this](GVariant* parameters) {
      std::string name;
      int id = 0;
      if (!common::DeserializeDataFromGVariant(parameters, name, id)) return;
      std::lock_guard<std::mutex> lock(mutex_);
      items_.emplace_back(id, name);
    };
  }
  std::size_t CountOf(int id) const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::size_t count = 0;
    for (const auto& item : items_) count += item.first == id ? 1 : 0;
    return count;
  }
  std::vector<std::pair<int, std::string>> Items() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return items_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::pair<int, std::string>> items_;
};

std::vector<std::string> Methods(const std::vector<SimCall>& calls) {
  std::vector<std::string> methods;
  for (const SimCall& call : calls) methods.push_back(call.method);
  return methods;
}

int IntArgument(const SimCall& call) {
  gint32 value = 0;
  if (call.args && g_variant_is_of_type(call.args.get(), G_VARIANT_TYPE("(i)"))) {
    g_variant_get(call.args.get(), "(i)", &value);
  }
  return value;
}

// The text after "thd: " up to the next blank.
std::string ThreadIdOf(const std::string& line) {
  const auto start = line.find("thd: ");
  if (start == std::string::npos) return {};
  const auto end = line.find(' ', start + 5);
  return line.substr(start + 5, end - start - 5);
}

std::vector<LogLine> LinesWith(const LogCapture& logs, const std::string& substring) {
  std::vector<LogLine> found;
  for (const LogLine& line : logs.Lines()) {
    if (line.text.find(substring) != std::string::npos) found.push_back(line);
  }
  return found;
}

std::string PoolLine(const std::string& method) { return "move command[" + method + "] into pool["; }

class TheCommandLayer : public BusTest {
 protected:
  SimOptions SimArguments() const override { return {{{7, "Stored"}, {8, "Other"}}, {}, 0, {}}; }

  // A client whose "onFound" deliveries go to found_, connecting through its
  // retry timer; waits for the `readyCount`-th readiness of the test.
  std::unique_ptr<DBusClientAsync> ReadyClient(std::size_t readyCount = 1) {
    auto client = NewClient();
    client->Connect();
    EXPECT_TRUE(logs().WaitFor(kReadyLine, readyCount)) << logs().Dump();
    RunOnMainLoop([] {});  // the readiness handler, replay included, has returned
    return client;
  }
  std::unique_ptr<DBusClientAsync> NewClient() {
    auto client = std::make_unique<DBusClientAsync>();
    client->SetSignalCallback("onFound", found_.Handler());
    return client;
  }
  // Issues a command that must be held, and waits until it is: commands issued
  // together reach the pool in whatever order their threads run.
  void Hold(DBusClientAsync& client, const std::string& method, GVariant* params = nullptr,
            GVariant** result = nullptr) {
    const std::size_t before = logs().Count(PoolLine(method));
    ASSERT_TRUE(client.Call(method, params, result, -1));
    ASSERT_TRUE(logs().WaitFor(PoolLine(method), before + 1)) << logs().Dump();
  }
  bool WaitIdle(DBusClientAsync& client) {
    return WaitUntil([&] { return client.GetCounts().inFlight == 0; });
  }

  FoundRecorder found_;
};

TEST_F(TheCommandLayer, AcceptsCommandsAtOnceAndRunsEachOnAThreadOfItsOwn) {
  auto client = ReadyClient();

  // Unknown names, also one that differs only in case, start nothing.
  VariantProbe refused(1);
  GVariant* untouched = nullptr;
  EXPECT_FALSE(client->Call("ReadProfiles", nullptr, &untouched, -1));
  EXPECT_FALSE(client->Call("noSuchMethod", refused.variant(), nullptr, -1));
  EXPECT_EQ(untouched, nullptr);
  const auto refusal = LinesWith(logs(), "DBusClientAsync::Call cann't find method [ReadProfiles]");
  ASSERT_EQ(refusal.size(), 1u) << logs().Dump();
  EXPECT_EQ(refusal[0].priority, platform::LogPriority::kError);
  EXPECT_TRUE(logs().Contains("DBusClientAsync::Call cann't find method [noSuchMethod]"));
  EXPECT_EQ(client->GetCounts().accepted, 0u);
  EXPECT_EQ(logs().Count("ExecuteCommand["), 0u);
  EXPECT_TRUE(WaitUntil([&] { return refused.Freed(); })) << "the refused params were not released";

  // readProfiles never writes through `result`; its reply comes back as one
  // "onFound" delivery per stored profile.
  common::GVariantPtr sentinel = common::SinkVariant(g_variant_new_int32(42));
  GVariant* slot = sentinel.get();
  ASSERT_TRUE(client->Call("readProfiles", nullptr, &slot, -1));
  ASSERT_TRUE(WaitUntil([&] { return found_.CountOf(7) == 1 && found_.CountOf(8) == 1; })) << logs().Dump();
  ASSERT_TRUE(WaitIdle(*client));
  EXPECT_EQ(slot, sentinel.get());
  EXPECT_TRUE(logs().Contains("\"Read profiles size[2]\""));
  EXPECT_EQ(found_.Items(), (std::vector<std::pair<int, std::string>>{{7, "Stored"}, {8, "Other"}}));

  // While the daemon sits on the reply, Call has already returned: the
  // command is still running when the caller gets true.
  control().SetNoReply("startBroadcast");
  ASSERT_TRUE(client->Call("startBroadcast", common::IntegerToVariant(1), nullptr, -1));
  EXPECT_EQ(logs().Count("\"ExecuteCommand[startBroadcast] FINISHED\""), 0u);
  ASSERT_TRUE(control().WaitForCall("startBroadcast"));
  ASSERT_TRUE(client->Call("init", nullptr, nullptr, -1));  // has to wait behind it, accepted all the same
  EXPECT_EQ(logs().Count("\"ExecuteCommand[init] FINISHED\""), 0u);
  EXPECT_EQ(logs().Count("\"ExecuteCommand[startBroadcast] FINISHED\""), 0u);

  const std::string caller = logt::thread_id();
  for (const std::string method : {"readProfiles", "startBroadcast"}) {
    const auto started = LinesWith(logs(), "\"ExecuteCommand[" + method + "] STARTED");
    ASSERT_EQ(started.size(), 1u) << method << "\n" << logs().Dump();
    const std::string thread = ThreadIdOf(started[0].text);
    EXPECT_FALSE(thread.empty()) << started[0].text;
    EXPECT_NE(thread, caller) << method << " ran on the caller's thread";
  }
  // Teardown cancels the call that is never answered and discards init.
}

TEST_F(TheCommandLayer, ReplaysCommandsHeldWhileTheNameHasNoOwnerInIssueOrderOnceItGetsOne) {
  control().ReleaseName();
  ASSERT_TRUE(NameOwner(kBusName).empty());
  auto client = NewClient();
  client->Connect();

  common::GVariantPtr sentinel = common::SinkVariant(g_variant_new_int32(42));
  GVariant* slot = sentinel.get();
  Hold(*client, "init");
  Hold(*client, "connect", common::IntegerToVariant(5));
  Hold(*client, "readProfiles", nullptr, &slot);  // replayed without destination
  Hold(*client, "deleteStoredProfile", common::IntegerToVariant(7));

  EXPECT_EQ(logs().Count(kMakeRestore), 4u) << "every command pooled while not connected requests restoration";
  EXPECT_EQ(logs().Count("IsReady[0] IsConnected[0]"), 4u) << logs().Dump();
  EXPECT_EQ(client->GetCounts().held, 4u);
  EXPECT_TRUE(control().GetCalls().empty());

  control().AcquireName();
  ASSERT_TRUE(logs().WaitFor("\"IpcReady command[deleteStoredProfile] FINISHED\"")) << logs().Dump();
  EXPECT_TRUE(logs().Contains(kReadyLine + "4]"));
  ASSERT_TRUE(client->Call("stopBroadcast", nullptr, nullptr, -1));
  ASSERT_TRUE(control().WaitForCall("stopBroadcast"));

  const auto calls = control().GetCalls();
  EXPECT_EQ(Methods(calls),
            (std::vector<std::string>{"init", "connect", "readProfiles", "deleteStoredProfile", "stopBroadcast"}));
  ASSERT_EQ(calls.size(), 5u);
  EXPECT_EQ(IntArgument(calls[1]), 5);
  EXPECT_EQ(IntArgument(calls[3]), 7);
  EXPECT_TRUE(WaitUntil([&] { return found_.CountOf(7) == 1 && found_.CountOf(8) == 1; })) << logs().Dump();
  ASSERT_TRUE(WaitIdle(*client));
  EXPECT_EQ(slot, sentinel.get());
  EXPECT_EQ(client->GetCounts().replayed, 4u);
}

TEST_F(TheCommandLayer, ReplaysCommandsHeldWhileTheDaemonProcessIsDownOnceItIsBack) {
  auto client = ReadyClient();

  // The name vanishes with nothing held: the link goes, restoration waits
  // for a command.
  sim().Kill();
  ASSERT_TRUE(logs().WaitFor("\"IpcReady [0] command pool size [0]\"")) << logs().Dump();
  RunOnMainLoop([] {});  // the handler has returned
  EXPECT_TRUE(logs().Contains("Connection lost. Disconnect from the server and stop watcher"));
  EXPECT_FALSE(client->IsConnected());
  EXPECT_EQ(logs().Count("RestoreConnection start"), 0u);

  Hold(*client, "init");
  Hold(*client, "startBroadcast", common::IntegerToVariant(1));
  Hold(*client, "readProfiles");
  EXPECT_EQ(logs().Count(kMakeRestore), 3u);

  ASSERT_TRUE(sim().Start());
  ASSERT_TRUE(logs().WaitFor(kReadyLine + "3]")) << logs().Dump();
  ASSERT_TRUE(WaitUntil([&] { return found_.CountOf(7) == 1 && found_.CountOf(8) == 1; })) << logs().Dump();
  ASSERT_TRUE(client->Call("stopBroadcast", nullptr, nullptr, -1));
  ASSERT_TRUE(control().WaitForCall("stopBroadcast"));
  EXPECT_EQ(Methods(control().GetCalls()),
            (std::vector<std::string>{"init", "startBroadcast", "readProfiles", "stopBroadcast"}));
  EXPECT_EQ(logs().Count(kReadyLine), 2u);
}

TEST_F(TheCommandLayer, HoldsACommandWithoutRestorationWhileConnectedButNotYetReady) {
  auto client = NewClient();
  {
    // Connected, but the name watcher's first report cannot be dispatched
    // while the main loop is parked: connected and not ready.
    MainLoopPause pause;
    ASSERT_TRUE(client->DBusClient::Connect());
    EXPECT_TRUE(client->IsConnected());
    Hold(*client, "init");
    Hold(*client, "readProfiles");
    EXPECT_EQ(logs().Count("IsReady[0] IsConnected[1]"), 2u) << logs().Dump();
    EXPECT_EQ(logs().Count(kMakeRestore), 0u);
    EXPECT_EQ(logs().Count("RestoreConnection start"), 0u);
    EXPECT_TRUE(control().GetCalls().empty());
  }
  ASSERT_TRUE(logs().WaitFor("\"IpcReady command[readProfiles] FINISHED\"")) << logs().Dump();
  EXPECT_EQ(Methods(control().GetCalls()), (std::vector<std::string>{"init", "readProfiles"}));
  EXPECT_TRUE(WaitUntil([&] { return found_.CountOf(7) == 1 && found_.CountOf(8) == 1; }));
  EXPECT_EQ(logs().Count(kMakeRestore), 0u);
}

TEST_F(TheCommandLayer, DropsARepeatedCommandWhetherItJustRanOrIsAlreadyHeld) {
  auto client = ReadyClient();
  const auto mainBufferLine = [&](const std::string& text) {
    const auto lines = LinesWith(logs(), text);
    return lines.size() == 1 && lines[0].buffer == platform::LogBuffer::kMain;
  };

  // The same command twice while ready: the second is never sent.
  VariantProbe first(1), second(1), third(1);
  ASSERT_TRUE(client->Call("startBroadcast", first.variant(), nullptr, -1));
  ASSERT_TRUE(control().WaitForCall("startBroadcast"));
  ASSERT_TRUE(WaitIdle(*client));
  ASSERT_TRUE(client->Call("startBroadcast", second.variant(), nullptr, -1));
  ASSERT_TRUE(logs().WaitFor("Duplicate command in active startBroadcast")) << logs().Dump();
  ASSERT_TRUE(WaitIdle(*client));
  EXPECT_TRUE(mainBufferLine("Duplicate command in active startBroadcast"));
  EXPECT_EQ(logs().Count("\"ExecuteCommand[startBroadcast] FINISHED\""), 1u) << "a dropped command logs nothing more";
  EXPECT_EQ(control().CallsOf("startBroadcast").size(), 1u);

  // Another command in between lets the third one run.
  ASSERT_TRUE(client->Call("stopBroadcast", nullptr, nullptr, -1));
  ASSERT_TRUE(control().WaitForCall("stopBroadcast"));
  ASSERT_TRUE(WaitIdle(*client));
  ASSERT_TRUE(client->Call("startBroadcast", third.variant(), nullptr, -1));
  ASSERT_TRUE(control().WaitForCall("startBroadcast", 2));
  EXPECT_EQ(Methods(control().GetCalls()),
            (std::vector<std::string>{"startBroadcast", "stopBroadcast", "startBroadcast"}));

  // A command whose call failed still counts as the one that just ran.
  control().SetNoReply("init");
  ASSERT_TRUE(client->Call("init", nullptr, nullptr, 200));  // times out
  ASSERT_TRUE(logs().WaitFor("Command wasnot derived. It can be ok if timeout")) << logs().Dump();
  ASSERT_TRUE(WaitIdle(*client));
  control().SetNoReply("init", false);
  ASSERT_TRUE(client->Call("init", nullptr, nullptr, -1));
  ASSERT_TRUE(logs().WaitFor("Duplicate command in active init")) << logs().Dump();
  ASSERT_TRUE(WaitIdle(*client));
  EXPECT_EQ(control().CallsOf("init").size(), 1u);

  // The same command twice while not ready: held once, replayed once.
  client->Disconnect();
  VariantProbe held(2), dropped(2);
  Hold(*client, "deleteStoredProfile", held.variant());
  ASSERT_TRUE(client->Call("deleteStoredProfile", dropped.variant(), nullptr, -1));
  ASSERT_TRUE(logs().WaitFor("Duplicate command in pool deleteStoredProfile")) << logs().Dump();
  ASSERT_TRUE(WaitIdle(*client));
  EXPECT_TRUE(mainBufferLine("Duplicate command in pool deleteStoredProfile"));
  EXPECT_EQ(client->GetCounts().held, 1u);
  control().Restart();
  ASSERT_TRUE(logs().WaitFor("\"IpcReady command[deleteStoredProfile] FINISHED\"")) << logs().Dump();
  ASSERT_TRUE(client->Call("stopBroadcast", nullptr, nullptr, -1));
  ASSERT_TRUE(control().WaitForCall("stopBroadcast", 2));
  EXPECT_EQ(control().CallsOf("deleteStoredProfile").size(), 1u);

  // Each params reference was released: run, dropped, replayed.
  for (const VariantProbe* probe : {&first, &second, &third, &held, &dropped}) {
    EXPECT_TRUE(WaitUntil([&] { return probe->Freed(); })) << "params " << probe << " leaked";
  }
  const auto counts = client->GetCounts();
  EXPECT_EQ(counts.droppedDuplicate, 3u);
  EXPECT_EQ(counts.replayed, 1u);
}

TEST_F(TheCommandLayer, RequestsRestorationOnLosingTheNameOnlyWhenCommandsAreHeld) {
  auto client = ReadyClient();

  // Nothing held: disconnect and stop watching, nothing else.
  control().ReleaseName();
  ASSERT_TRUE(logs().WaitFor("\"IpcReady [0] command pool size [0]\"")) << logs().Dump();
  RunOnMainLoop([] {});  // the handler has returned
  EXPECT_TRUE(logs().Contains("Connection lost. Disconnect from the server and stop watcher"));
  EXPECT_FALSE(client->IsConnected());
  EXPECT_EQ(logs().Count("RestoreConnection start"), 0u);
  EXPECT_EQ(logs().Count("there are unhandled commands"), 0u);
  control().AcquireName();
  Hold(*client, "init");  // not connected: this one asks for restoration
  EXPECT_EQ(logs().Count(kMakeRestore), 1u);
  ASSERT_TRUE(logs().WaitFor("\"IpcReady command[init] FINISHED\"")) << logs().Dump();
  EXPECT_EQ(control().CallsOf("init").size(), 1u);
  // The watcher stopped with the link: only the restored link's watcher saw
  // the name come back.
  EXPECT_EQ(logs().Count("Get Dbus owner for name"), 2u) << logs().Dump();

  // Something held when the name goes: restoration at once, and the command
  // survives it.
  client->Disconnect();
  Hold(*client, "deinit");
  control().ReleaseName();
  ASSERT_TRUE(logs().WaitFor("\"IpcReady [0] command pool size [1]\"")) << logs().Dump();
  ASSERT_TRUE(logs().WaitFor("Connection is lost, but there are unhandled commands. RestoreConnection"));
  EXPECT_EQ(client->GetCounts().held, 1u);
  EXPECT_FALSE(client->IsConnected());
  control().AcquireName();
  ASSERT_TRUE(logs().WaitFor("\"IpcReady command[deinit] FINISHED\"")) << logs().Dump();
  ASSERT_TRUE(client->Call("stopBroadcast", nullptr, nullptr, -1));
  ASSERT_TRUE(control().WaitForCall("stopBroadcast"));
  EXPECT_EQ(Methods(control().GetCalls()), (std::vector<std::string>{"init", "deinit", "stopBroadcast"}));
}

TEST_F(TheCommandLayer, DisconnectForgetsReadinessButKeepsTheLinkUntilTheNameGetsANewOwner) {
  auto client = ReadyClient();

  EXPECT_TRUE(client->Disconnect());
  EXPECT_TRUE(logs().Contains("Async Disconnect. Reset `ready` without the real disconnecting"));
  EXPECT_TRUE(client->IsConnected());
  EXPECT_TRUE(client->Disconnect());
  EXPECT_EQ(LinesWith(logs(), "DBusClientAsync.cpp: Disconnect(").size(), 2u) << logs().Dump();
  EXPECT_EQ(LinesWith(logs(), "Already disconnected").size(), 1u);

  Hold(*client, "init");
  EXPECT_EQ(logs().Count("IsReady[0] IsConnected[1]"), 1u) << logs().Dump();
  EXPECT_EQ(logs().Count(kMakeRestore), 0u);
  EXPECT_EQ(logs().Count("RestoreConnection start"), 0u);

  // The daemon's signals still arrive over the kept link, and the command
  // still waits.
  control().Emit("onFound", common::SerializeIntoGVariant("Beacon", 42));
  ASSERT_TRUE(WaitUntil([&] { return found_.CountOf(42) == 1; })) << logs().Dump();
  EXPECT_EQ(client->GetCounts().held, 1u);
  EXPECT_TRUE(control().CallsOf("init").empty());

  control().Restart();
  ASSERT_TRUE(control().WaitForCall("init"));
  ASSERT_TRUE(logs().WaitFor("\"IpcReady command[init] FINISHED\""));
  ASSERT_TRUE(client->Call("stopBroadcast", nullptr, nullptr, -1));
  ASSERT_TRUE(control().WaitForCall("stopBroadcast"));
  EXPECT_EQ(control().CallsOf("init").size(), 1u);
}

TEST_F(TheCommandLayer, ConnectsThroughOneRetryTimerAndRestoresOneTaskAtATime) {
  control().ReleaseName();
  auto client = NewClient();
  const auto armed = Clock::now();
  EXPECT_TRUE(client->Connect());
  EXPECT_TRUE(client->Connect());
  const std::size_t early = logs().Count("Try to connect to DBus server");
  if (Clock::now() - armed < std::chrono::milliseconds(400)) {
    EXPECT_EQ(early, 0u) << "the first attempt must wait for the timer";
  }
  EXPECT_EQ(logs().Count("ConnectAsync"), 2u);
  EXPECT_EQ(logs().Count("connect id["), 1u);

  // Lower bounds only: an attempt seen at time t was made before t.
  ASSERT_TRUE(logs().WaitFor("Try to connect to DBus server", 1));
  EXPECT_GE(Clock::now() - armed, std::chrono::milliseconds(400));
  ASSERT_TRUE(logs().WaitFor("Try to connect to DBus server", 3));
  EXPECT_GE(Clock::now() - armed, std::chrono::milliseconds(1400));
  EXPECT_EQ(logs().Count("connect id["), 1u) << "a failed attempt keeps the same timer";
  control().AcquireName();
  ASSERT_TRUE(logs().WaitFor(kReadyLine)) << logs().Dump();

  // Several commands while disconnected: a request either starts the one
  // task or finds it still running.
  control().ReleaseName();
  ASSERT_TRUE(logs().WaitFor("\"IpcReady [0] command pool size [0]\""));
  RunOnMainLoop([] {});  // the handler has returned
  const std::vector<std::pair<std::string, GVariant*>> commands{
      {"init", nullptr},
      {"deinit", nullptr},
      {"connect", common::IntegerToVariant(3)},
      {"startBroadcast", common::IntegerToVariant(1)},
      {"stopBroadcast", nullptr},
      {"deleteStoredProfile", common::IntegerToVariant(99)}};
  for (const auto& [method, params] : commands) ASSERT_TRUE(client->Call(method, params, nullptr, -1));
  ASSERT_TRUE(logs().WaitFor("move command[", commands.size())) << logs().Dump();
  const std::size_t started = logs().Count("RestoreConnection end");
  EXPECT_EQ(logs().Count("RestoreConnection start"), commands.size());
  EXPECT_EQ(started + logs().Count("Reconnecting is still running. Return"), commands.size()) << logs().Dump();
  EXPECT_GE(started, 1u);
  ASSERT_TRUE(logs().WaitFor("Reconnect end", started));
  // A new task starts only after the previous one has finished.
  std::size_t tasks = 0, finished = 0;
  for (const LogLine& line : logs().Lines()) {
    if (line.text.find("Reconnect end") != std::string::npos) ++finished;
    if (line.text.find("RestoreConnection end") != std::string::npos) {
      EXPECT_GE(finished, tasks) << "task " << tasks + 1 << " started while another ran\n" << logs().Dump();
      ++tasks;
    }
  }

  control().AcquireName();
  ASSERT_TRUE(logs().WaitFor(kReadyLine + "6]")) << logs().Dump();
  ASSERT_TRUE(WaitUntil([&] { return control().GetCalls().size() == commands.size(); }));
  ASSERT_TRUE(WaitIdle(*client));
  EXPECT_EQ(client->GetCounts().replayed, commands.size());
}

}  // namespace
}  // namespace testing
}  // namespace zv_client
