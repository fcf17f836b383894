// The command layer: holding, replaying, dropping, restoring, and the races it must survive
// (each such test hangs, or crashes under the sanitizers, without its guard).

#include <algorithm>
#include <array>
#include <cstdlib>
#include <future>
#include <iostream>
#include <list>
#include <random>

#include <zorvel/common/GLibUtils.h>

#include "support/BusTest.h"
#include "support/Outcomes.h"
#include "support/VariantProbe.h"

namespace zv_client::testing {
namespace {

using dbus::client::DBusClientAsync;
using End = DBusClientAsync::CommandEnd::Kind;
using dbus::client::LinkState;
using Found = std::vector<std::pair<int, std::string>>;
using Strings = std::vector<std::string>;
using Probes = std::vector<std::unique_ptr<VariantProbe>>;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

const Found kStored{{7, "Stored"}, {8, "Other"}};
const Strings kMethods{"init",        "deinit", "connect", "startBroadcast", "stopBroadcast", "deleteStoredProfile",
                       "readProfiles"};

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

class TheCommandLayer : public BusTest {
 protected:
  SimOptions SimArguments() const override { return {kStored, {}, 20}; }

  std::unique_ptr<DBusClientAsync> NewClient(int readyCount = 1) {  // waits for its readyCount-th readiness
    auto client = std::make_unique<DBusClientAsync>();
    readies_ = reports_ = 0;
    client->SetLinkStateObserver([this](const dbus::client::LinkStatus& status) {
      readies_ += status.state == LinkState::kReady;
      reports_ += status.state == LinkState::kReady || status.state == LinkState::kWaitingForDaemon;
    });
    client->SetSignalCallback("onFound", [this](GVariant* parameters) {
      std::string name;
      int id = 0;
      if (common::DeserializeDataFromGVariant(parameters, name, id)) found_.Add({id, name});
    });
    client->SetSignalCallback("onDbusClosing", [raw = client.get()](GVariant*) { raw->Disconnect(); });
    client->Connect();
    EXPECT_TRUE(readyCount == 0 || WaitForReadies(readyCount)) << logs().Dump();
    return client;
  }
  // Readiness is told on the main loop after the readiness handler returned.
  bool WaitForReadies(int count) {
    return WaitUntil([&] { return readies_ >= count; });
  }
  // The daemon's calls once the client is idle.
  Strings Calls(DBusClientAsync& client) {
    EXPECT_TRUE(WaitUntil([&] { return client.GetCounts().inFlight == 0; }));
    return control().CallTexts();
  }

  Recorder<std::pair<int, std::string>> found_;
  std::atomic<int> readies_{0}, reports_{0};  // of the latest client: readiness, and readiness or its loss
};

TEST_F(TheCommandLayer, RunsEachCommandOnAThreadOfItsOwn) {
  auto client = NewClient();
  // Unknown names, also one that differs only in case, start nothing; their params are released.
  VariantProbe refused(1);
  GVariant* untouched = nullptr;
  EXPECT_FALSE(client->Call("ReadProfiles", nullptr, &untouched, -1));
  EXPECT_FALSE(client->Call("noSuchMethod", refused.variant(), nullptr, -1));
  EXPECT_EQ(untouched, nullptr);
  EXPECT_TRUE(WaitUntil([&] { return refused.Freed(); }));
  EXPECT_EQ(client->GetCounts().accepted, 0u);

  // readProfiles never writes `result`; one "onFound" per stored profile, in order, off this thread.
  std::thread::id ranOn;
  client->SetSignalCallback("onFound", [&](GVariant*) { ranOn = std::this_thread::get_id(); });
  GVariant* sentinel = g_variant_ref_sink(g_variant_new_int32(42));
  GVariant* slot = sentinel;
  ASSERT_TRUE(client->Call("readProfiles", nullptr, &slot, -1));
  EXPECT_EQ(Calls(*client), Strings{"readProfiles()"});
  EXPECT_EQ(slot, sentinel);
  g_variant_unref(sentinel);
  EXPECT_TRUE(ranOn != std::thread::id() && ranOn != std::this_thread::get_id());
}

TEST_F(TheCommandLayer, RestoresALostLinkAndReplaysInOrder) {
  std::array<Ends, 4> ends;
  auto client = NewClient();
  // The process dies with nothing held (the call in flight fails and is not sent again): the link
  // goes, and is looked for again with no command asking for it.
  HookCounts attempts;
  control().SetNoReply("stopBroadcast");
  ASSERT_TRUE(client->Call("stopBroadcast", nullptr, nullptr, -1));
  ASSERT_TRUE(control().WaitForCall("stopBroadcast"));
  sim().Kill();
  ASSERT_TRUE(WaitUntil([&] { return attempts.reconnectWaits(); })) << logs().Dump();
  EXPECT_FALSE(client->IsConnected());
  const char* const methods[] = {"readProfiles", "init", "connect", "deleteStoredProfile"};
  GVariant* const params[] = {nullptr, nullptr, common::IntegerToVariant(5), common::IntegerToVariant(7)};
  for (std::size_t i = 0; i < 4; ++i) ASSERT_TRUE(client->Submit(methods[i], params[i], -1, ends[i].Observer()));
  for (const Ends& end : ends) ASSERT_TRUE(end.WaitFor({End::kHeld}));

  ASSERT_TRUE(sim().Start());
  for (const Ends& end : ends) EXPECT_TRUE(end.WaitFor({End::kHeld, End::kRan}));
  EXPECT_EQ(Calls(*client), (Strings{"readProfiles()", "init()", "connect(5,)", "deleteStoredProfile(7,)"}));
  EXPECT_TRUE(found_.WaitFor(kStored)) << logs().Dump();
  EXPECT_EQ(client->GetCounts().replayed, 4u);
}

TEST_F(TheCommandLayer, ReconnectsWhenTheNameGetsAnOwner) {
  auto client = NewClient();
  HookCounts attempts;
  for (int round = 1; round <= 3; ++round) {  // a name passed on at once, and one that stays away a while
    if (round == 2) {
      sim().Kill();
      ASSERT_TRUE(WaitUntil([&, before = attempts.started()] { return attempts.started() >= before + 2; }))
          << "the retry timer stopped trying";
      ASSERT_TRUE(sim().Start());
    } else {
      control().Restart();
    }
    ASSERT_TRUE(WaitForReadies(round + 1)) << logs().Dump();
  }
  // The retry comes 500 ms after the attempt that failed: only a stalled machine lets it win a round.
  EXPECT_EQ(attempts.byNameWatch() + attempts.byTimer(), 3) << logs().Dump();
  EXPECT_GE(attempts.byNameWatch(), 2) << logs().Dump();
}

TEST_F(TheCommandLayer, StaysConnectedWhenARestorationFollowsAConnect) {
  Ends ends;
  // The interleaving: an attempt connects; a restoration asked for before (a command found no link)
  // runs its Reconnect; only then the attempt resets the timer. Without the link lock the
  // restoration drops the new link, and the watcher then reports the daemon to a client without one.
  control().ReleaseName();
  auto client = NewClient(0);
  std::promise<std::shared_future<void>> started;  // the hook runs on the attempt's own thread
  HookCounts attempts([&] {
    const std::shared_future<void> restoration = std::async(std::launch::async, [&] { client->Reconnect(); }).share();
    started.set_value(restoration);
    WaitUntil([&] { return attempts.reconnectWaits() || restoration.wait_for(0s) == std::future_status::ready; });
  });
  control().AcquireName();
  ASSERT_TRUE(WaitForReadies(1)) << logs().Dump();
  std::future<std::shared_future<void>> restoration = started.get_future();
  ASSERT_EQ(restoration.wait_for(20s), std::future_status::ready);
  restoration.get().get();
  EXPECT_TRUE(client->IsConnected());
  ASSERT_TRUE(client->Submit("init", nullptr, -1, ends.Observer()));
  EXPECT_TRUE(ends.WaitFor({End::kRan})) << logs().Dump();
  EXPECT_EQ(control().CallsOf("init"), 1u);
}

TEST_F(TheCommandLayer, HoldsCommandsAfterDisconnectUntilANewOwner) {
  Ends ends, again;
  auto client = NewClient();
  HookCounts attempts;
  EXPECT_TRUE(client->Disconnect());
  EXPECT_TRUE(client->IsConnected());
  // Connected but not ready: held (the same command twice: held once), with no restoration; signals still arrive.
  ASSERT_TRUE(client->Submit("deinit", nullptr, -1, ends.Observer()));
  ASSERT_TRUE(ends.WaitFor({End::kHeld}));
  ASSERT_TRUE(client->Submit("deinit", nullptr, -1, again.Observer()));
  ASSERT_TRUE(again.WaitFor({End::kDroppedAsRepeat}));
  control().Emit("onFound", common::SerializeIntoGVariant("Beacon", 42));
  ASSERT_TRUE(found_.WaitFor({{42, "Beacon"}})) << logs().Dump();
  EXPECT_FALSE(attempts.reconnectWaits());
  control().ReleaseName();  // the name goes with the command held; it survives the restoration
  ASSERT_TRUE(WaitUntil([&] { return attempts.reconnectWaits(); }));
  EXPECT_EQ(client->GetCounts().held, 1u);
  control().AcquireName();
  EXPECT_TRUE(ends.WaitFor({End::kHeld, End::kRan}));
  EXPECT_EQ(Calls(*client), Strings{"deinit()"});
}

TEST_F(TheCommandLayer, DropsRepeatedCommands) {
  std::list<Ends> ends;  // told until the client goes
  auto client = NewClient();
  const auto run = [&](const std::string& method, GVariant* params, int timeout = -1) {
    EXPECT_TRUE(client->Submit(method, params, timeout, ends.emplace_back().Observer()));
    EXPECT_TRUE(WaitUntil([&] { return client->GetCounts().inFlight == 0; }));
    return ends.back().Items();
  };
  const std::vector<End> ran{End::kRan}, dropped{End::kDroppedAsRepeat};
  EXPECT_EQ(run("startBroadcast", common::IntegerToVariant(1)), ran);
  EXPECT_EQ(run("startBroadcast", common::IntegerToVariant(0)), dropped) << "whatever its argument";
  EXPECT_EQ(run("stopBroadcast", nullptr), ran);
  EXPECT_EQ(run("startBroadcast", common::IntegerToVariant(1)), ran);
  // A command whose call failed still counts as the one that just ran.
  control().SetNoReply("init");
  EXPECT_EQ(run("init", nullptr, 200), ran);
  control().SetNoReply("init", false);
  EXPECT_EQ(run("init", nullptr), dropped);
  EXPECT_EQ(Calls(*client), (Strings{"startBroadcast(1,)", "stopBroadcast()", "startBroadcast(1,)", "init()"}));
}

TEST_F(TheCommandLayer, TeardownDoesNotWaitForTheDaemon) {
  Probes probes;
  std::array<Ends, 7> inFlight, held;
  const auto issueAll = [&](DBusClientAsync& client, std::array<Ends, 7>& ends) {
    for (std::size_t i = 0; i < kMethods.size(); ++i)
      ASSERT_TRUE(client.Submit(kMethods[i], ParamsFor(kMethods[i], probes), -1, ends[i].Observer()));
  };

  // One command blocked on a late reply, six behind it: teardown cancels and discards.
  control().SetDelay("init", 60000);
  auto client = NewClient();
  // Bounded by the deadline, far below the reply due in a minute.
  const auto destroyInTime = [&] {
    MustFinishInBoundedTime([&] { client.reset(); }, [] { return std::string("teardown waited for the daemon"); });
  };
  issueAll(*client, inFlight);
  ASSERT_TRUE(control().WaitForCall("init"));
  destroyInTime();
  EXPECT_EQ(control().CallTexts().size(), 1u) << "a command waiting behind the blocked one was sent";
  EXPECT_EQ(Unreleased(probes), 0u) << "params of a cancelled or discarded command leaked";
  for (const Ends& end : inFlight) EXPECT_EQ(end.Items().size(), 1u) << "not ended exactly once";

  // Commands held in the pool are discarded, and told so before the destructor returns.
  control().ReleaseName();
  client = NewClient(0);
  issueAll(*client, held);
  for (const Ends& end : held) ASSERT_TRUE(end.WaitFor({End::kHeld}));
  destroyInTime();
  for (const Ends& end : held) EXPECT_EQ(end.Items(), (std::vector<End>{End::kHeld, End::kDiscarded}));
  EXPECT_EQ(Unreleased(probes), 0u) << "params of a held command leaked";

  // A delivery handler still running when destruction starts uses the client: waited for.
  control().AcquireName();
  client = NewClient();
  DBusClientAsync* raw = client.get();
  HookCounts hook;
  std::atomic<bool> entered{false};
  std::atomic<int> usedDuringTeardown{0};
  client->SetSignalCallback("onFound", [&, raw](GVariant*) {
    entered = true;
    if (!WaitUntil([&] { return hook.teardowns() > 0; }, 3s)) return;
    raw->Disconnect();
    ++usedDuringTeardown;
  });
  ASSERT_TRUE(client->Call("readProfiles", nullptr, nullptr, -1));
  ASSERT_TRUE(WaitUntil([&] { return entered.load(); }));
  client.reset();
  EXPECT_GE(usedDuringTeardown, 1);
}

TEST_F(TheCommandLayer, SurvivesClientsDestroyedDuringRestarts) {
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
  HookCounts hook;
  for (int round = 0; round < 30; ++round) {
    const int attempts = hook.started();
    auto client = NewClient(0);
    // Destroyed before its timer fired, as it fires, after the first report with commands running,
    // with a restoration starting, with a read racing the first connect.
    const int kind = round % 5;
    EXPECT_TRUE((kind != 1 && kind != 4) || WaitUntil([&] { return hook.started() > attempts; }));
    for (const std::string& method : kind == 2 || kind == 3 ? kMethods : std::vector<std::string>{}) {
      EXPECT_TRUE(client->Call(method, ParamsFor(method, probes), nullptr, -1));
    }
    EXPECT_TRUE(kind != 2 || WaitUntil([&] { return reports_ > 0; })) << "round " << round;
    EXPECT_TRUE(kind != 4 || client->Call("readProfiles", nullptr, nullptr, -1));
    client.reset();
  }
  stop = true;
  churn.join();
  EXPECT_GT(restarts, 0);
  EXPECT_EQ(Unreleased(probes), 0u) << "of " << probes.size() << " params";
}

using CommandLayerSoak = TheCommandLayer;

TEST_F(CommandLayerSoak, EndsEveryCommandOnce) {
  const char* text = std::getenv("ZORVEL_SOAK_SECONDS");
  const double seconds = text != nullptr && std::atof(text) > 0.0 ? std::atof(text) : 3.0;
  const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  enum Disruption { kNameRestart, kNameGone, kProcessRestart, kFound, kClosing, kDisconnect, kBadReply, kKinds };

  // Workers issue random commands, params floating, sunk, or with a reference the caller keeps.
  std::mutex probesMutex;
  Probes handedOver, shared;
  std::atomic<std::uint64_t> issued{0}, ended{0}, endedTwice{0};
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
        auto once = std::make_shared<std::atomic<bool>>(false);
        EXPECT_TRUE(raw->Submit(method, params, -1, [&, once](const DBusClientAsync::CommandEnd& told) {
          if (told.kind == End::kHeld) return;
          ++ended;
          if (once->exchange(true)) ++endedTwice;
        }));
        ++issued;
        WaitUntil([&] { return raw->GetCounts().inFlight < 8; });
      }
    });
  }
  // Every disruption once per round, in random order, so a short run sees each. After a
  // restart commands must run again before the next one, otherwise the workers move on.
  std::mt19937 random(2024);
  std::array<int, kKinds> round{0, 1, 2, 3, 4, 5, 6};
  DBusClientAsync::Counts seen;
  const auto settle = [&](bool run) {
    WaitUntil([&] {
      const auto c = raw->GetCounts();
      return Clock::now() >= end ||
             (run ? c.ranAtOnce + c.replayed >= seen.ranAtOnce + seen.replayed + 30 : c.accepted >= seen.accepted + 10);
    });
    seen = raw->GetCounts();
  };
  int disruptions = 0;
  for (; Clock::now() < end || disruptions < kKinds; ++disruptions) {
    if (disruptions % kKinds == 0) std::shuffle(round.begin(), round.end(), random);
    const int kind = round[disruptions % kKinds];
    if (kind == kNameRestart) control().Restart();
    if (kind == kNameGone) control().ReleaseName(), settle(false), control().AcquireName();
    if (kind == kProcessRestart && (sim().Kill(), settle(false), !sim().Start())) FAIL() << "no daemon came back";
    if (kind == kFound) control().Emit("onFound", common::SerializeIntoGVariant("Storm", 9));
    if (kind == kClosing) control().Emit("onDbusClosing", g_variant_new("(i)", 0));  // its handler disconnects
    if (kind == kDisconnect) client->Disconnect();
    // The count does not parse: decoding the replayed and later reads throws.
    if (kind == kBadReply) control().SetReply("readProfiles", g_variant_new("(((s)))", "eA==")), control().Restart();
    settle(kind == kNameRestart || kind == kNameGone || kind == kProcessRestart || kind == kBadReply);
    if (kind == kBadReply) control().ClearReply("readProfiles");
  }
  stop = true;
  for (std::thread& worker : workers) worker.join();

  // Ready again: commands of two names in turn (none is a repeat) until one runs at once.
  control().Restart();
  const std::uint64_t ranBefore = raw->GetCounts().ranAtOnce;
  for (int n = 0; n < 100 && raw->GetCounts().ranAtOnce == ranBefore; ++n) {
    raw->Call(n % 2 == 0 ? "init" : "deinit", nullptr, nullptr, -1);
    WaitUntil([&] { return raw->GetCounts().ranAtOnce > ranBefore; }, 600ms);
  }
  EXPECT_GT(raw->GetCounts().ranAtOnce, ranBefore) << "the client never became ready again";
  ASSERT_TRUE(WaitUntil([&] { return raw->GetCounts().inFlight == 0; }));
  const DBusClientAsync::Counts held = raw->GetCounts();
  EXPECT_EQ(held.accepted,
            held.ranAtOnce + held.replayed + held.droppedDuplicate + held.discarded + held.failed + held.held);
  client.reset();  // discards what is still held
  EXPECT_EQ(ended, issued) << "every command ends, at the latest at teardown";
  EXPECT_EQ(endedTwice, 0u);
  EXPECT_EQ(Unreleased(handedOver), 0u) << "of " << handedOver.size() << " params";
  for (const auto& probe : shared) {
    EXPECT_FALSE(probe->Freed()) << "the layer released a reference the caller still held";
    if (!probe->Freed()) g_variant_unref(probe->variant());
  }
  EXPECT_EQ(Unreleased(shared), 0u) << "of " << shared.size() << " params";
  std::cout << "[soak] " << seconds << " s: " << disruptions << " disruptions, " << issued << " commands ("
            << held.replayed << " replayed, " << held.discarded << " discarded)" << std::endl;
}

}  // namespace
}  // namespace zv_client::testing
