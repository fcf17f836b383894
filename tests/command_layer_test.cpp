// The command layer: holding, replaying, dropping, restoring, and the races it must survive
// (each such test hangs, or crashes under the sanitizers, without its guard).

#include <algorithm>
#include <array>
#include <future>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <random>

#include <common/GLibUtils.h>
#include <dbus/client/DBusClientAsync.h>
#include <dbus/client/TestHooks.h>
#include <platform/SystemLog.h>

#include "support/BusTest.h"
#include "support/VariantProbe.h"

namespace zv_client::testing {
namespace {

using dbus::client::DBusClientAsync;
using Found = std::vector<std::pair<int, std::string>>;
using Strings = std::vector<std::string>;
using Probes = std::vector<std::unique_ptr<VariantProbe>>;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

const std::string kReadyLine = "\"IpcReady [1] command pool size [";
const std::string kMakeRestore = "Ipc isn't connected - make restore";
const Found kStored{{7, "Stored"}, {8, "Other"}};
const Strings kMethods{"init", "deinit", "connect", "startBroadcast", "stopBroadcast", "deleteStoredProfile",
                       "readProfiles"};
enum Disruption { kNameRestart, kNameGone, kProcessRestart, kFound, kClosing, kDisconnect, kBadReply, kKinds };

GVariant* ParamsFor(const std::string& method, Probes& probes) {
  if (method != "connect" && method != "startBroadcast" && method != "deleteStoredProfile") return nullptr;
  probes.push_back(std::make_unique<VariantProbe>(5));
  return probes.back()->variant();
}

// How many probes are still alive once all were freed or the deadline passed.
std::size_t Unreleased(const Probes& probes) {
  const auto alive = [&] { return std::count_if(probes.begin(), probes.end(), [](auto& p) { return !p->Freed(); }); };
  WaitUntil([&] { return alive() == 0; });
  return alive();
}

bool Balanced(const DBusClientAsync::Counts& c) {
  return c.accepted == c.ranAtOnce + c.replayed + c.droppedDuplicate + c.discarded + c.failed + c.held &&
         c.pooled == c.replayed + c.discarded + c.held;
}

class TheCommandLayer : public BusTest {
 protected:
  SimOptions SimArguments() const override { return {kStored, {}, 20}; }


  std::unique_ptr<DBusClientAsync> NewClient(std::size_t readyCount = 1) {  // waits for the readyCount-th readiness
    auto client = std::make_unique<DBusClientAsync>();
    client->SetSignalCallback("onFound", [this](GVariant* parameters) {
      std::string name;
      int id = 0;
      if (!common::DeserializeDataFromGVariant(parameters, name, id)) return;
      std::lock_guard<std::mutex> lock(mutex_);
      found_.emplace_back(id, name);
    });
    client->SetSignalCallback("onDbusClosing", [raw = client.get()](GVariant*) { raw->Disconnect(); });
    client->Connect();
    EXPECT_TRUE(readyCount == 0 || logs().WaitFor(kReadyLine, readyCount)) << logs().Dump();
    RunOnMainLoop([] {});  // the readiness handler, replay included, has returned
    return client;
  }
  Found FoundSoFar() {
    std::lock_guard<std::mutex> lock(mutex_);
    return found_;
  }
  // Commands enter the layer in the order they were accepted: only the last one needs waiting for.
  void Hold(DBusClientAsync& client, const std::vector<std::pair<std::string, GVariant*>>& commands) {
    const std::string last = "move command[" + commands.back().first + "] into pool[";
    const std::size_t before = logs().Count(last);
    for (const auto& [method, params] : commands) ASSERT_TRUE(client.Call(method, params, nullptr, -1));
    ASSERT_TRUE(logs().WaitFor(last, before + 1)) << logs().Dump();
  }
  // The daemon's calls once the client is idle.
  Strings Calls(DBusClientAsync& client) {
    EXPECT_TRUE(WaitUntil([&] { return client.GetCounts().inFlight == 0; }));
    return control().CallTexts();
  }
  // Workers issue random commands (params floating, sunk, or with a reference the caller keeps) while
  // `next` picks disruptions (-1 ends); then every accepted command has ended once, every reference gone.
  DBusClientAsync::Counts Storm(const std::function<int()>& next, Clock::time_point end = Clock::time_point::max()) {
    DBusClientAsync::Counts counts;
    std::mutex probesMutex;
    Probes handedOver, shared;
    std::atomic<bool> stop{false};
    auto client = NewClient();
    DBusClientAsync* raw = client.get();
    std::vector<std::thread> workers;
    for (unsigned w = 0; w < 3; ++w) {
      workers.emplace_back([&, w] {
        std::mt19937 random(w + 1);
        while (!stop) {
          const std::string& method = kMethods[random() % kMethods.size()];
          const unsigned mode = random() % 3;
          std::unique_lock<std::mutex> lock(probesMutex);
          GVariant* params = ParamsFor(method, mode == 2 ? shared : handedOver);
          lock.unlock();
          if (params != nullptr && mode == 1) g_variant_ref_sink(params);
          if (params != nullptr && mode == 2) g_variant_ref(params);
          EXPECT_TRUE(raw->Call(method, params, nullptr, -1));
          WaitUntil([&] { return raw->GetCounts().inFlight < 8; });
        }
      });
    }
    // After a restart commands must run again, otherwise the workers move on.
    DBusClientAsync::Counts seen;
    const auto await = [&](bool run) {
      WaitUntil([&] {
        const auto c = raw->GetCounts();
        return Clock::now() >= end || (run ? c.ranAtOnce + c.replayed >= seen.ranAtOnce + seen.replayed + 30
                                           : c.accepted >= seen.accepted + 10);
      });
      seen = raw->GetCounts();
    };
    for (int kind = next(); kind >= 0 && !stop; kind = next()) {
      if (kind == kNameRestart) control().Restart();
      if (kind == kNameGone) control().ReleaseName(), await(false), control().AcquireName();
      if (kind == kProcessRestart) sim().Kill(), await(false), stop = !sim().Start();
      if (kind == kFound) control().Emit("onFound", common::SerializeIntoGVariant("Storm", 9));
      if (kind == kClosing) control().Emit("onDbusClosing", g_variant_new("(i)", 0));  // its handler disconnects
      if (kind == kDisconnect) client->Disconnect();
      // The count does not parse: decoding the replayed and later reads throws.
      if (kind == kBadReply) control().SetReply("readProfiles", g_variant_new("(((s)))", "eA==")), control().Restart();
      await(kind == kNameRestart || kind == kNameGone || kind == kProcessRestart || kind == kBadReply);
      if (kind == kBadReply) control().ClearReply("readProfiles");
    }
    stop = true;
    for (std::thread& worker : workers) worker.join();
    EXPECT_TRUE(sim().Running());

    // Commands of two names in turn (none is a repeat) until one runs at once.
    control().Restart();
    WaitUntil([&] { return raw->GetCounts().inFlight == 0; });
    const std::uint64_t ran = raw->GetCounts().ranAtOnce;
    for (int n = 0; n < 100 && raw->GetCounts().ranAtOnce == ran; ++n) {
      raw->Call(n % 2 == 0 ? "init" : "deinit", nullptr, nullptr, -1);
      WaitUntil([&] { return raw->GetCounts().ranAtOnce > ran; }, 600ms);
    }
    EXPECT_GT(raw->GetCounts().ranAtOnce, ran) << "the client never became ready again";
    WaitUntil([&] {
      counts = raw->GetCounts();
      return counts.inFlight == 0 && counts.held == 0 && Balanced(counts);
    });
    EXPECT_EQ(counts.accepted, counts.ranAtOnce + counts.replayed + counts.droppedDuplicate + counts.discarded +
                                   counts.failed + counts.held);
    EXPECT_EQ(counts.pooled, counts.replayed + counts.discarded + counts.held);
    EXPECT_EQ(counts.inFlight, 0u);
    client.reset();
    EXPECT_EQ(Unreleased(handedOver), 0u) << "of " << handedOver.size() << " params";
    for (const auto& probe : shared) {
      EXPECT_FALSE(probe->Freed()) << "the layer released a reference the caller still held";
      if (!probe->Freed()) g_variant_unref(probe->variant());
    }
    EXPECT_EQ(Unreleased(shared), 0u) << "of " << shared.size() << " params";
    return counts;
  }

  std::mutex mutex_;
  Found found_;
};

TEST_F(TheCommandLayer, AcceptsKnownCommandsAtOnceAndRunsEachOnAThreadOfItsOwn) {
  auto client = NewClient();

  // Unknown names, also one that differs only in case, start nothing.
  VariantProbe refused(1);
  GVariant* untouched = nullptr;
  EXPECT_FALSE(client->Call("ReadProfiles", nullptr, &untouched, -1));
  EXPECT_FALSE(client->Call("noSuchMethod", refused.variant(), nullptr, -1));
  EXPECT_EQ(untouched, nullptr);
  const auto refusal = logs().Lines("DBusClientAsync::Call cann't find method [ReadProfiles]");
  ASSERT_EQ(refusal.size(), 1u) << logs().Dump();
  EXPECT_EQ(refusal[0].priority, platform::LogPriority::kError);
  EXPECT_TRUE(logs().Contains("DBusClientAsync::Call cann't find method [noSuchMethod]"));
  EXPECT_EQ(logs().Count("ExecuteCommand["), 0u);
  EXPECT_TRUE(WaitUntil([&] { return refused.Freed(); })) << "the refused params were not released";

  // readProfiles never writes `result`; one "onFound" per stored profile, in order.
  GVariant* sentinel = g_variant_ref_sink(g_variant_new_int32(42));
  GVariant* slot = sentinel;
  ASSERT_TRUE(client->Call("readProfiles", nullptr, &slot, -1));
  ASSERT_TRUE(WaitUntil([&] { return FoundSoFar() == kStored; })) << logs().Dump();
  EXPECT_EQ(Calls(*client), Strings{"readProfiles()"});
  EXPECT_EQ(slot, sentinel);
  g_variant_unref(sentinel);
  EXPECT_TRUE(logs().Contains("\"Read profiles size[2]\""));
  const auto started = logs().Lines("\"ExecuteCommand[readProfiles] STARTED IsReady[1]");
  ASSERT_EQ(started.size(), 1u) << logs().Dump();
  EXPECT_EQ(started[0].text.find("thd: " + logt::thread_id() + " "), std::string::npos) << "ran on the caller's thread";
}

TEST_F(TheCommandLayer, RestoresALostLinkByItselfAndReplaysHeldCommandsInAcceptanceOrder) {
  auto client = NewClient();

  // The process dies with nothing held (the call in flight fails and is not sent again): the link
  // goes, and is looked for again at once, with no command asking for it.
  control().SetNoReply("stopBroadcast");
  ASSERT_TRUE(client->Call("stopBroadcast", nullptr, nullptr, -1));
  ASSERT_TRUE(control().WaitForCall("stopBroadcast"));
  sim().Kill();
  ASSERT_TRUE(logs().WaitFor("\"IpcReady [0] command pool size [0]\"")) << logs().Dump();
  ASSERT_TRUE(logs().WaitFor("Reconnect end")) << logs().Dump();
  EXPECT_TRUE(logs().Contains("Connection lost. Disconnect from the server and stop watcher"));
  EXPECT_EQ(logs().Count("there are unhandled commands"), 0u);
  EXPECT_FALSE(client->IsConnected());
  GVariant* slot = nullptr;
  ASSERT_TRUE(client->Call("readProfiles", nullptr, &slot, -1));  // replayed without destination
  Hold(*client, {{"init", nullptr}, {"connect", common::IntegerToVariant(5)},
                 {"deleteStoredProfile", common::IntegerToVariant(7)}});
  EXPECT_EQ(logs().Count(kMakeRestore), 4u);
  EXPECT_EQ(logs().Count("IsReady[0] IsConnected[0]"), 4u) << logs().Dump();

  ASSERT_TRUE(sim().Start());
  ASSERT_TRUE(logs().WaitFor("\"IpcReady command[deleteStoredProfile] FINISHED\"")) << logs().Dump();
  EXPECT_TRUE(logs().Contains(kReadyLine + "4]"));
  EXPECT_EQ(Calls(*client), (Strings{"readProfiles()", "init()", "connect(5,)", "deleteStoredProfile(7,)"}));
  EXPECT_TRUE(WaitUntil([&] { return FoundSoFar() == kStored; })) << logs().Dump();
  EXPECT_EQ(slot, nullptr);
  EXPECT_EQ(client->GetCounts().replayed, 4u);
  // Only the restored link's watcher saw the daemon come back.
  EXPECT_EQ(logs().Count("Get Dbus owner for name"), 2u) << logs().Dump();
}

// Records which kind of connect attempt made the link, and can step into one.
class AttemptHook {
 public:
  explicit AttemptHook(std::function<void()> onConnected = {}) : onConnected_(std::move(onConnected)) {
    dbus::client::testing::SetHook([this](dbus::client::testing::Point point) {
      using dbus::client::testing::Point;
      if (point == Point::kReconnectAwaitsLink) reconnectWaits_ = true;
      if (point != Point::kConnectedByTimer && point != Point::kConnectedByNameWatch) return;
      (point == Point::kConnectedByTimer ? byTimer_ : byNameWatch_)++;
      if (onConnected_) std::exchange(onConnected_, nullptr)();
    });
  }
  ~AttemptHook() { dbus::client::testing::SetHook(nullptr); }
  int byTimer() const { return byTimer_; }
  int byNameWatch() const { return byNameWatch_; }
  bool reconnectWaits() const { return reconnectWaits_; }

 private:
  std::function<void()> onConnected_;  // run once, on the main-loop thread
  std::atomic<int> byTimer_{0}, byNameWatch_{0};
  std::atomic<bool> reconnectWaits_{false};
};

TEST_F(TheCommandLayer, ReconnectsAsSoonAsTheDaemonsNameHasANewOwnerNotAtTheNextRetry) {
  auto client = NewClient();
  AttemptHook attempts;
  for (int round = 1; round <= 3; ++round) {  // a name passed on at once, and one that stays away a while
    if (round == 2) {
      sim().Kill();
      ASSERT_TRUE(logs().WaitFor("Try to connect to DBus server", 2)) << "the retry timer stopped trying";
      ASSERT_TRUE(sim().Start());
    } else {
      control().Restart();
    }
    ASSERT_TRUE(logs().WaitFor(kReadyLine, round + 1)) << logs().Dump();
    EXPECT_EQ(attempts.byNameWatch(), round) << logs().Dump();
  }
  EXPECT_EQ(attempts.byTimer(), 0);
}

TEST_F(TheCommandLayer, StaysConnectedWhenARestorationRunsRightAfterAConnectAttemptSucceeded) {
  // The interleaving: an attempt connects; a restoration asked for before (a command found no link)
  // runs its Reconnect; only then the attempt resets the timer. Without the link lock the
  // restoration drops the new link, and the watcher then reports the daemon to a client without one.
  control().ReleaseName();
  auto client = NewClient(0);
  std::future<void> restoration;
  AttemptHook attempts([&] {
    restoration = std::async(std::launch::async, [&] { client->Reconnect(); });
    WaitUntil([&] {
      return attempts.reconnectWaits() || restoration.wait_for(0s) == std::future_status::ready;
    });
  });
  control().AcquireName();
  ASSERT_TRUE(logs().WaitFor(kReadyLine)) << logs().Dump();
  ASSERT_TRUE(WaitUntil([&] { return restoration.valid(); }));
  restoration.get();
  EXPECT_TRUE(client->IsConnected());
  ASSERT_TRUE(client->Call("init", nullptr, nullptr, -1));
  EXPECT_TRUE(control().WaitForCall("init")) << logs().Dump();
  EXPECT_FALSE(logs().Contains("Dbus is nor ready yet")) << logs().Dump();
}

TEST_F(TheCommandLayer, DisconnectKeepsTheLinkAndALossWithCommandsHeldRestoresItAtOnce) {
  auto client = NewClient();
  EXPECT_TRUE(client->Disconnect());
  EXPECT_TRUE(logs().Contains("Async Disconnect. Reset `ready` without the real disconnecting"));
  EXPECT_TRUE(client->IsConnected());
  // Connected but not ready: held without restoration; signals still arrive.
  Hold(*client, {{"deinit", nullptr}});
  EXPECT_EQ(logs().Count("IsReady[0] IsConnected[1]"), 1u) << logs().Dump();
  EXPECT_EQ(logs().Count("RestoreConnection start"), 0u);
  control().Emit("onFound", common::SerializeIntoGVariant("Beacon", 42));
  ASSERT_TRUE(WaitUntil([&] { return FoundSoFar() == Found{{42, "Beacon"}}; })) << logs().Dump();

  // The name goes with the command held: restoration at once; it survives.
  control().ReleaseName();
  ASSERT_TRUE(logs().WaitFor("\"IpcReady [0] command pool size [1]\"")) << logs().Dump();
  ASSERT_TRUE(logs().WaitFor("Connection is lost, but there are unhandled commands. RestoreConnection"));
  EXPECT_EQ(client->GetCounts().held, 1u);
  EXPECT_FALSE(client->IsConnected());
  control().AcquireName();
  ASSERT_TRUE(logs().WaitFor("\"IpcReady command[deinit] FINISHED\"")) << logs().Dump();
  EXPECT_EQ(Calls(*client), Strings{"deinit()"});
}

TEST_F(TheCommandLayer, DropsARepeatedCommandWhetherItJustRanOrIsAlreadyHeld) {
  auto client = NewClient();
  const auto onMainBuffer = [&](const std::string& text) {
    const auto lines = logs().Lines(text);
    return lines.size() == 1 && lines[0].buffer == platform::LogBuffer::kMain;
  };
  const auto run = [&](const std::string& method, GVariant* params, int timeout = -1) {
    ASSERT_TRUE(client->Call(method, params, nullptr, timeout));
    ASSERT_TRUE(WaitUntil([&] { return client->GetCounts().inFlight == 0; }));
  };

  // Twice while ready: the second is never sent; another one in between lets the third run.
  run("startBroadcast", common::IntegerToVariant(1));
  run("startBroadcast", common::IntegerToVariant(1));
  EXPECT_TRUE(onMainBuffer("Duplicate command in active startBroadcast")) << logs().Dump();
  EXPECT_EQ(logs().Count("\"ExecuteCommand[startBroadcast] FINISHED\""), 1u) << "a dropped command logs nothing more";
  run("stopBroadcast", nullptr);
  run("startBroadcast", common::IntegerToVariant(1));

  // A command whose call failed still counts as the one that just ran.
  control().SetNoReply("init");
  run("init", nullptr, 200);
  EXPECT_TRUE(logs().Contains("Command wasnot derived. It can be ok if timeout")) << logs().Dump();
  control().SetNoReply("init", false);
  run("init", nullptr);
  EXPECT_TRUE(logs().Contains("Duplicate command in active init")) << logs().Dump();

  // The same command twice while not ready: held once, replayed once.
  client->Disconnect();
  Hold(*client, {{"deleteStoredProfile", common::IntegerToVariant(2)}});
  run("deleteStoredProfile", common::IntegerToVariant(2));
  EXPECT_TRUE(onMainBuffer("Duplicate command in pool deleteStoredProfile")) << logs().Dump();
  control().Restart();
  ASSERT_TRUE(logs().WaitFor("\"IpcReady command[deleteStoredProfile] FINISHED\"")) << logs().Dump();
  EXPECT_EQ(Calls(*client), (Strings{"startBroadcast(1,)", "stopBroadcast()", "startBroadcast(1,)", "init()",
                                     "deleteStoredProfile(2,)"}));
  EXPECT_EQ(client->GetCounts().droppedDuplicate, 3u);
  EXPECT_EQ(client->GetCounts().replayed, 1u);
}

TEST_F(TheCommandLayer, ConnectsThroughOneRetryTimerAndRestoresOneTaskAtATime) {
  control().ReleaseName();
  const auto armed = Clock::now();
  auto client = NewClient(0);
  EXPECT_TRUE(client->Connect());
  EXPECT_TRUE(logs().Count("Try to connect to DBus server") == 0 || Clock::now() - armed >= 400ms)
      << "the first attempt must wait for the timer";
  EXPECT_EQ(logs().Count("ConnectAsync"), 2u);

  // Lower bounds only: an attempt seen at time t was made before t.
  ASSERT_TRUE(logs().WaitFor("Try to connect to DBus server", 1));
  EXPECT_GE(Clock::now() - armed, 400ms);
  ASSERT_TRUE(logs().WaitFor("Try to connect to DBus server", 3));
  EXPECT_GE(Clock::now() - armed, 1400ms);
  EXPECT_EQ(logs().Count("connect id["), 1u) << "one timer for both Connects and every failed attempt";

  // Held commands each start the one restoration task or find it still running.
  Hold(*client, {{"init", nullptr}, {"deinit", nullptr}, {"connect", common::IntegerToVariant(3)},
                 {"startBroadcast", common::IntegerToVariant(1)}, {"stopBroadcast", nullptr},
                 {"deleteStoredProfile", common::IntegerToVariant(99)}});
  const std::size_t started = logs().Count("RestoreConnection end");
  EXPECT_EQ(logs().Count("RestoreConnection start"), 6u);
  EXPECT_EQ(started + logs().Count("Reconnecting is still running. Return"), 6u) << logs().Dump();
  EXPECT_GE(started, 1u);
  ASSERT_TRUE(logs().WaitFor("Reconnect end", started));
  std::size_t tasks = 0, finished = 0;  // a task starts only after the previous one ended
  for (const LogLine& line : logs().Lines()) {
    if (line.text.find("Reconnect end") != std::string::npos) ++finished;
    if (line.text.find("RestoreConnection end") != std::string::npos) {
      EXPECT_GE(finished, tasks++) << "a task started while another ran\n" << logs().Dump();
    }
  }
}

TEST_F(TheCommandLayer, SurvivesDeliveryHandlersThatDisconnectWhileTheDaemonAnnouncesItsClosing) {
  // onDbusClosing holds the dispatch while a read is answered; its onFound handlers disconnect too.
  std::atomic<int> delivered{0};
  std::atomic<bool> closed{false}, readWhileClosing{false};
  auto client = NewClient();
  DBusClientAsync* raw = client.get();
  client->SetSignalCallback("onFound", [&, raw](GVariant*) { raw->Disconnect(), ++delivered; });
  client->SetSignalCallback("onDbusClosing", [&, raw](GVariant*) {
    raw->Call("readProfiles", nullptr, nullptr, -1);
    readWhileClosing = logs().WaitFor("\"Read profiles size[2]\"");
    raw->Disconnect();
    closed = true;
  });
  control().Emit("onDbusClosing", g_variant_new("(i)", 0));
  ASSERT_TRUE(WaitUntil([&] { return closed && delivered == 2; })) << logs().Dump();
  EXPECT_TRUE(readWhileClosing);
  EXPECT_EQ(logs().Count("Async Disconnect. Reset `ready` without the real disconnecting"), 1u);
}

TEST_F(TheCommandLayer, IsDestroyedWithCommandsInFlightWithoutWaitingForTheDaemon) {
  Probes probes;
  const auto issueAll = [&](DBusClientAsync& client) {
    for (const std::string& method : kMethods) ASSERT_TRUE(client.Call(method, ParamsFor(method, probes), nullptr, -1));
  };
  const auto destroysQuickly = [](std::unique_ptr<DBusClientAsync>& client) {
    const auto start = Clock::now();
    return client.reset(), Clock::now() - start < 10s;  // far below the 15 s reply
  };

  // One command blocked on a reply due in 15 s, six behind it: teardown cancels and discards.
  control().SetDelay("init", 15000);
  auto client = NewClient();
  issueAll(*client);
  ASSERT_TRUE(control().WaitForCall("init"));
  EXPECT_TRUE(destroysQuickly(client)) << "teardown waited for the daemon";
  EXPECT_EQ(control().GetCalls().size(), 1u) << "a command waiting behind the blocked one was sent";
  EXPECT_EQ(Unreleased(probes), 0u) << "params of a cancelled or discarded command leaked";

  // Commands held in the pool are discarded.
  control().ReleaseName();
  client = NewClient(0);
  issueAll(*client);
  ASSERT_TRUE(logs().WaitFor("move command[readProfiles] into pool[7]")) << logs().Dump();
  EXPECT_TRUE(destroysQuickly(client)) << "teardown waited for the daemon";
  EXPECT_EQ(Unreleased(probes), 0u) << "params of a held command leaked";
  EXPECT_EQ(logs().Count("IpcReady command["), 0u);

  // A delivery handler still running when destruction starts uses the client: waited for.
  control().AcquireName();
  client = NewClient(2);
  DBusClientAsync* raw = client.get();
  std::atomic<bool> entered{false};
  std::atomic<int> usedDuringTeardown{0};
  client->SetSignalCallback("onFound", [&, raw](GVariant*) {
    entered = true;
    if (!logs().WaitFor("Stop dbus client", 3)) return;
    raw->Disconnect();
    ++usedDuringTeardown;
  });
  ASSERT_TRUE(client->Call("readProfiles", nullptr, nullptr, -1));
  ASSERT_TRUE(WaitUntil([&] { return entered.load(); }));
  client.reset();
  EXPECT_GE(usedDuringTeardown, 1);
}

TEST_F(TheCommandLayer, SurvivesClientsCreatedAndDestroyedWhileTheDaemonRestarts) {
  std::atomic<bool> stop{false};
  std::atomic<int> restarts{0};
  std::thread churn([&] {
    SimControl churnControl;
    for (; !stop; ++restarts) {
      churnControl.Restart();
      churnControl.Emit("onFound", common::SerializeIntoGVariant("Churn", 5));
      churnControl.Emit("onDbusClosing", g_variant_new("(i)", 0));
      churnControl.Emit("onConnectionAvailable", g_variant_new("(qq)", 5, 1));
    }
  });
  Probes probes;
  for (int round = 0; round < 30; ++round) {
    const std::size_t attempts = logs().Count("Try to connect to DBus server"), reports = logs().Count("\"IpcReady [");
    auto client = NewClient(0);
    // Destroyed before its timer fired, as it fires, after the first report with commands running,
    // with a restoration starting, with a read racing the first connect.
    const int kind = round % 5;
    EXPECT_TRUE((kind != 1 && kind != 4) || logs().WaitFor("Try to connect to DBus server", attempts + 1));
    for (const std::string& method : kind == 2 || kind == 3 ? kMethods : std::vector<std::string>{}) {
      EXPECT_TRUE(client->Call(method, ParamsFor(method, probes), nullptr, -1));
    }
    EXPECT_TRUE(kind != 2 || logs().WaitFor("\"IpcReady [", reports + 1)) << "round " << round;
    EXPECT_TRUE(kind != 4 || client->Call("readProfiles", nullptr, nullptr, -1));
    client.reset();
  }
  stop = true;
  churn.join();
  EXPECT_GT(restarts, 0);
  EXPECT_EQ(Unreleased(probes), 0u) << "of " << probes.size() << " params";
}

TEST_F(TheCommandLayer, AccountsForEveryAcceptedCommandAndReleasesItsParamsOnce) {
  const std::vector<int> order{kNameRestart, kDisconnect, kBadReply, kNameGone,
                               kProcessRestart, kFound, kClosing, kDisconnect};
  std::size_t step = 0;
  EXPECT_GE(Storm([&] { return step < order.size() ? order[step++] : -1; }).accepted, 10u * order.size());
}

using CommandLayerSoak = TheCommandLayer;

TEST_F(CommandLayerSoak, KeepsEveryCommandAccountedForUnderRandomCommandsRestartsAndSignals) {
  const char* text = std::getenv("ZORVEL_SOAK_SECONDS");
  const double seconds = text != nullptr && std::atof(text) > 0.0 ? std::atof(text) : 3.0;
  const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  // Every disruption once per round, in random order, so a short run sees each.
  std::mt19937 random(2024);
  std::array<int, kKinds> round{0, 1, 2, 3, 4, 5, 6};
  int disruptions = 0;
  const auto counts = Storm(
      [&] {
        if (disruptions % kKinds == 0) std::shuffle(round.begin(), round.end(), random);
        return Clock::now() < end ? round[disruptions++ % kKinds] : -1;
      },
      end);
  std::cout << "[soak] " << seconds << " s: " << disruptions << " disruptions, " << FoundSoFar().size() << " found, "
            << counts.accepted << " commands (" << counts.replayed << " replayed, " << counts.discarded << " discarded)"
            << std::endl;
}

}  // namespace
}  // namespace zv_client::testing
