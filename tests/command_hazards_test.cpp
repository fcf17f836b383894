// Races the command layer has to survive: handlers that disconnect while the
// daemon announces its closing, a client deleted with commands in flight,
// clients created and destroyed while the daemon restarts, and the accounting
// of every accepted command with its params reference. Each of them hangs, or
// crashes under the sanitizers, when its guard in the layer is missing. The
// soak runs all of it at random for a while.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <common/GLibPtr.h>
#include <common/GLibUtils.h>
#include <dbus/client/DBusClientAsync.h>

#include "support/BusTest.h"
#include "support/VariantProbe.h"

namespace zv_client {
namespace testing {
namespace {

using dbus::client::DBusClientAsync;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

const std::string kReadyLine = "\"IpcReady [1] command pool size [";
const std::string kProfilesRead = "\"Read profiles size[";
const std::vector<std::string> kMethods{"init",         "deinit",       "connect",
                                        "startBroadcast", "stopBroadcast", "deleteStoredProfile",
                                        "readProfiles"};

bool TakesInteger(const std::string& method) {
  return method == "connect" || method == "startBroadcast" || method == "deleteStoredProfile";
}

int IntArgument(const SimCall& call) {
  gint32 value = 0;
  if (call.args && g_variant_is_of_type(call.args.get(), G_VARIANT_TYPE("(i)"))) {
    g_variant_get(call.args.get(), "(i)", &value);
  }
  return value;
}

std::string Describe(const DBusClientAsync::Counts& c) {
  char text[256];
  std::snprintf(text, sizeof text,
                "accepted %" PRIu64 " ranAtOnce %" PRIu64 " replayed %" PRIu64 " droppedDuplicate %" PRIu64
                " discarded %" PRIu64 " failed %" PRIu64 " pooled %" PRIu64 " held %" PRIu64 " inFlight %" PRIu64,
                c.accepted, c.ranAtOnce, c.replayed, c.droppedDuplicate, c.discarded, c.failed, c.pooled, c.held,
                c.inFlight);
  return text;
}

using Probes = std::vector<std::unique_ptr<VariantProbe>>;

// How many of `probes` are still alive once every one of them was freed or
// the deadline passed: 0 when all were released.
std::size_t Unreleased(const Probes& probes) {
  const auto alive = [&] {
    std::size_t count = 0;
    for (const auto& probe : probes) count += probe->Freed() ? 0 : 1;
    return count;
  };
  WaitUntil([&] { return alive() == 0; });
  return alive();
}

bool Balanced(const DBusClientAsync::Counts& c) {
  return c.accepted == c.ranAtOnce + c.replayed + c.droppedDuplicate + c.discarded + c.failed + c.held &&
         c.pooled == c.replayed + c.discarded + c.held;
}

class ACommandLayerClient : public BusTest {
 protected:
  SimOptions SimArguments() const override { return {{{7, "Stored"}, {8, "Other"}}, {}, 20, {}}; }

  std::unique_ptr<DBusClientAsync> ReadyClient(std::size_t readyCount) {
    auto client = std::make_unique<DBusClientAsync>();
    client->Connect();
    EXPECT_TRUE(logs().WaitFor(kReadyLine, readyCount)) << logs().Dump();
    RunOnMainLoop([] {});  // the readiness handler, replay included, has returned
    return client;
  }

  // Issues commands until a deleteStoredProfile carrying `marker` reaches the
  // daemon. One attempt may be dropped as a repeat of the command that just
  // ran, or fail when it meets a name change, so they alternate with another
  // command and are repeated until one gets through.
  bool DeliverFinalCommand(DBusClientAsync& client, int marker) {
    auto next = Clock::now();
    bool other = false;
    return WaitUntil(
        [&] {
          for (const SimCall& call : control().CallsOf("deleteStoredProfile")) {
            if (IntArgument(call) == marker) return true;
          }
          if (Clock::now() >= next) {
            if (other) {
              client.Call("stopBroadcast", nullptr, nullptr, -1);
            } else {
              client.Call("deleteStoredProfile", common::IntegerToVariant(marker), nullptr, -1);
            }
            other = !other;
            next = Clock::now() + 600ms;
          }
          return false;
        },
        60s);
  }

  // Waits until no command is in flight or held, and the books balance.
  DBusClientAsync::Counts Settle(DBusClientAsync& client) {
    DBusClientAsync::Counts counts;
    WaitUntil([&] {
      counts = client.GetCounts();
      return counts.inFlight == 0 && counts.held == 0 && Balanced(counts);
    });
    return counts;
  }
};

TEST_F(ACommandLayerClient, SurvivesDeliveryHandlersThatDisconnectWhileTheDaemonAnnouncesItsClosing) {
  {
    // The handler disconnects on the command's own thread.
    std::atomic<int> delivered{0};
    auto client = ReadyClient(1);
    DBusClientAsync* raw = client.get();
    client->SetSignalCallback("onFound", [&, raw](GVariant*) {
      raw->Disconnect();
      ++delivered;
    });
    ASSERT_TRUE(client->Call("readProfiles", nullptr, nullptr, -1));
    ASSERT_TRUE(WaitUntil([&] { return delivered == 2; })) << logs().Dump();
    EXPECT_EQ(logs().Count("Async Disconnect. Reset `ready` without the real disconnecting"), 1u);
  }
  {
    // The "onDbusClosing" handler holds the signal dispatch while a profile
    // read gets its reply, then disconnects; the read's own deliveries
    // disconnect as well. Neither may wait for the other.
    std::atomic<int> delivered{0};
    std::atomic<bool> closed{false}, readWhileClosing{false};
    auto client = ReadyClient(2);
    DBusClientAsync* raw = client.get();
    client->SetSignalCallback("onFound", [&, raw](GVariant*) {
      raw->Disconnect();
      ++delivered;
    });
    client->SetSignalCallback("onDbusClosing", [&, raw](GVariant*) {
      const std::size_t before = logs().Count(kProfilesRead);
      raw->Call("readProfiles", nullptr, nullptr, -1);
      readWhileClosing = logs().WaitFor(kProfilesRead, before + 1);
      raw->Disconnect();
      closed = true;
    });
    control().Emit("onDbusClosing", g_variant_new("(i)", 0));
    ASSERT_TRUE(WaitUntil([&] { return closed && delivered == 2; })) << logs().Dump();
    EXPECT_TRUE(readWhileClosing);
    EXPECT_EQ(logs().Count("Async Disconnect. Reset `ready` without the real disconnecting"), 2u);
  }
}

TEST_F(ACommandLayerClient, IsDestroyedWithCommandsInFlightWithoutWaitingForTheDaemon) {
  Probes probes;
  const auto probe = [&](int value) {
    probes.push_back(std::make_unique<VariantProbe>(value));
    return probes.back()->variant();
  };
  const auto destroy = [](std::unique_ptr<DBusClientAsync>& client) {
    const auto start = Clock::now();
    client.reset();
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
  };

  // One command blocked on a reply that comes in 15 s, four waiting behind it.
  control().SetDelay("startBroadcast", 15000);
  auto client = ReadyClient(1);
  ASSERT_TRUE(client->Call("startBroadcast", probe(1), nullptr, -1));
  ASSERT_TRUE(control().WaitForCall("startBroadcast"));
  ASSERT_TRUE(client->Call("connect", probe(2), nullptr, -1));
  ASSERT_TRUE(client->Call("deleteStoredProfile", probe(3), nullptr, -1));
  ASSERT_TRUE(client->Call("init", nullptr, nullptr, -1));
  ASSERT_TRUE(client->Call("readProfiles", nullptr, nullptr, -1));
  // Teardown gives commands a 1 s grace, then cancels the call in flight and
  // discards the rest; it never waits for a reply or a D-Bus timeout. The
  // limit is generous and still far below the 15 s reply.
  EXPECT_LT(destroy(client), 10000) << "ms spent destroying the client";
  EXPECT_EQ(control().GetCalls().size(), 1u) << "a command waiting behind the blocked one was sent";
  EXPECT_EQ(Unreleased(probes), 0u) << "params of a cancelled or discarded command leaked";

  // Commands held in the pool are discarded.
  control().ReleaseName();
  client = std::make_unique<DBusClientAsync>();
  client->Connect();
  for (const std::string method : {"connect", "deleteStoredProfile", "init"}) {
    const std::string pooled = "move command[" + method + "] into pool[";
    ASSERT_TRUE(client->Call(method, TakesInteger(method) ? probe(4) : nullptr, nullptr, -1));
    ASSERT_TRUE(logs().WaitFor(pooled)) << logs().Dump();
  }
  EXPECT_LT(destroy(client), 10000) << "ms spent destroying the client";
  EXPECT_EQ(Unreleased(probes), 0u) << "params of a held command leaked";
  EXPECT_EQ(logs().Count("IpcReady command["), 0u);

  // A delivery handler still running when destruction starts keeps using the
  // client; the destructor waits for it.
  control().AcquireName();
  client = ReadyClient(2);
  DBusClientAsync* raw = client.get();
  std::atomic<bool> entered{false};
  std::atomic<int> usedDuringTeardown{0};
  const std::size_t stops = logs().Count("Stop dbus client");
  client->SetSignalCallback("onFound", [&, raw](GVariant*) {
    entered = true;
    if (!logs().WaitFor("Stop dbus client", stops + 1)) return;
    raw->Disconnect();
    raw->GetCounts();
    ++usedDuringTeardown;
  });
  ASSERT_TRUE(client->Call("readProfiles", nullptr, nullptr, -1));
  ASSERT_TRUE(WaitUntil([&] { return entered.load(); }));
  client.reset();
  EXPECT_GE(usedDuringTeardown, 1);
}

TEST_F(ACommandLayerClient, SurvivesClientsCreatedAndDestroyedWhileTheDaemonRestarts) {
  std::atomic<bool> stop{false};
  std::atomic<int> restarts{0};
  std::thread churn([&] {
    SimControl churnControl;
    while (!stop) {
      churnControl.Restart();
      ++restarts;
      churnControl.Emit("onFound", common::SerializeIntoGVariant("Churn", 5));
      churnControl.Emit("onDbusClosing", g_variant_new("(i)", 0));
      churnControl.Emit("onConnectionAvailable", g_variant_new("(qq)", 5, 1));
    }
  });

  Probes probes;
  std::atomic<int> found{0};
  const auto issue = [&](DBusClientAsync& client) {
    for (const std::string& method : kMethods) {
      GVariant* params = nullptr;
      if (TakesInteger(method)) {
        probes.push_back(std::make_unique<VariantProbe>(5));
        params = probes.back()->variant();
      }
      EXPECT_TRUE(client.Call(method, params, nullptr, -1));
    }
  };
  for (int round = 0; round < 30; ++round) {
    auto client = std::make_unique<DBusClientAsync>();
    DBusClientAsync* raw = client.get();
    client->SetSignalCallback("onFound", [&found](GVariant*) { ++found; });
    client->SetSignalCallback("onDbusClosing", [raw](GVariant*) { raw->Disconnect(); });
    const std::size_t attempts = logs().Count("Try to connect to DBus server");
    const std::size_t reports = logs().Count("\"IpcReady [");
    client->Connect();
    switch (round % 5) {
      case 0:  // destroyed before its timer fired
        break;
      case 1:  // destroyed as its timer fires
        EXPECT_TRUE(logs().WaitFor("Try to connect to DBus server", attempts + 1));
        break;
      case 2:  // destroyed after the watcher's first report, commands replayed or running
        issue(*client);
        EXPECT_TRUE(logs().WaitFor("\"IpcReady [", reports + 1)) << "round " << round;
        break;
      case 3:  // destroyed with commands just accepted and a restoration starting
        issue(*client);
        break;
      case 4:  // destroyed with a profile read racing the first connect
        EXPECT_TRUE(logs().WaitFor("Try to connect to DBus server", attempts + 1));
        EXPECT_TRUE(client->Call("readProfiles", nullptr, nullptr, -1));
        break;
    }
    client.reset();
  }
  stop = true;
  churn.join();
  EXPECT_GT(restarts, 0);
  EXPECT_EQ(Unreleased(probes), 0u) << "of " << probes.size() << " params";
}

TEST_F(ACommandLayerClient, AccountsForEveryAcceptedCommandAndReleasesItsParamsOnce) {
  auto client = ReadyClient(1);

  // Three ways to hand params over: a floating reference, a reference the
  // caller sank first, and a floating one the caller also keeps a reference
  // to (which the layer must leave alone).
  std::mutex probesMutex;
  Probes handedOver, shared;
  const auto params = [&](int n) -> GVariant* {
    auto probe = std::make_unique<VariantProbe>(1000 + n);
    GVariant* variant = probe->variant();
    std::lock_guard<std::mutex> lock(probesMutex);
    switch (n % 3) {
      case 0:
        break;
      case 1:
        g_variant_ref_sink(variant);
        break;
      case 2:
        g_variant_ref(variant);
        shared.push_back(std::move(probe));
        return variant;
    }
    handedOver.push_back(std::move(probe));
    return variant;
  };

  constexpr int kWorkers = 3, kCommandsEach = 40;
  std::atomic<int> workersDone{0};
  std::vector<std::thread> workers;
  for (int w = 0; w < kWorkers; ++w) {
    workers.emplace_back([&, w] {
      for (int n = 0; n < kCommandsEach; ++n) {
        const std::string& method = kMethods[(n * 3 + w) % kMethods.size()];
        EXPECT_TRUE(client->Call(method, TakesInteger(method) ? params(n * kWorkers + w) : nullptr, nullptr, -1));
        WaitUntil([&] { return client->GetCounts().inFlight < 6; });
      }
      ++workersDone;
    });
  }

  std::uint64_t mark = 0;
  const auto progress = [&] {
    WaitUntil([&] { return client->GetCounts().accepted >= mark + 8 || workersDone == kWorkers; });
    mark = client->GetCounts().accepted;
  };
  progress();
  control().Restart();
  progress();
  client->Disconnect();
  progress();
  control().SetReply("readProfiles", g_variant_new("(((s)))", "eA=="));  // the count does not parse: decoding throws
  progress();
  control().ReleaseName();
  progress();
  control().AcquireName();
  progress();
  control().ClearReply("readProfiles");
  sim().Kill();
  progress();
  sim().Start();
  progress();
  client->Disconnect();
  progress();
  control().Restart();
  for (std::thread& worker : workers) worker.join();
  ASSERT_TRUE(sim().Running());

  control().Restart();
  ASSERT_TRUE(DeliverFinalCommand(*client, 4242)) << logs().Dump();
  const DBusClientAsync::Counts counts = Settle(*client);
  EXPECT_TRUE(Balanced(counts)) << Describe(counts);
  EXPECT_EQ(counts.inFlight, 0u);
  EXPECT_GE(counts.accepted, static_cast<std::uint64_t>(kWorkers * kCommandsEach));

  client.reset();
  EXPECT_EQ(Unreleased(handedOver), 0u) << "of " << handedOver.size() << " params";
  std::size_t releasedTwice = 0;
  for (const auto& probe : shared) {
    releasedTwice += probe->Freed() ? 1 : 0;
    if (!probe->Freed()) g_variant_unref(probe->variant());
  }
  EXPECT_EQ(releasedTwice, 0u) << "of " << shared.size() << " params the caller still held";
  EXPECT_EQ(Unreleased(shared), 0u) << "of " << shared.size() << " params";
}

double SoakSeconds() {
  const char* text = std::getenv("ZORVEL_SOAK_SECONDS");
  const double seconds = text != nullptr ? std::atof(text) : 0.0;
  return seconds > 0.0 ? seconds : 3.0;
}

using CommandLayerSoak = ACommandLayerClient;

TEST_F(CommandLayerSoak, KeepsEveryCommandAccountedForUnderRandomCommandsRestartsAndSignals) {
  const double seconds = SoakSeconds();
  std::atomic<int> found{0};
  auto client = ReadyClient(1);
  DBusClientAsync* raw = client.get();
  client->SetSignalCallback("onFound", [&found](GVariant*) { ++found; });
  client->SetSignalCallback("onDbusClosing", [raw](GVariant*) { raw->Disconnect(); });

  std::atomic<bool> stop{false};
  std::vector<std::thread> workers;
  for (unsigned w = 0; w < 4; ++w) {
    workers.emplace_back([&, w] {
      std::mt19937 random(w + 1);
      while (!stop) {
        const std::string& method = kMethods[random() % kMethods.size()];
        GVariant* params = nullptr;
        if (TakesInteger(method)) {
          params = common::IntegerToVariant(static_cast<int>(random() % 100));
          if (random() % 2 == 0) g_variant_ref_sink(params);  // handed over as a full reference
        }
        EXPECT_TRUE(raw->Call(method, params, nullptr, -1));
        WaitUntil([&] { return raw->GetCounts().inFlight < 16; });
      }
    });
  }

  const auto end = Clock::now() + std::chrono::duration<double>(seconds);
  std::mt19937 random(2024);
  int nameRestarts = 0, processRestarts = 0, signals = 0, disconnects = 0;
  // After a restart the client is given time to come back and run commands
  // before the next one; otherwise the workers only need to have moved on.
  std::uint64_t accepted = 0, executed = 0;
  const auto awaitCommands = [&](bool run) {
    WaitUntil([&] {
      const auto counts = raw->GetCounts();
      return Clock::now() >= end || (run ? counts.ranAtOnce + counts.replayed >= executed + 100
                                         : counts.accepted >= accepted + 10);
    });
    const auto counts = raw->GetCounts();
    accepted = counts.accepted;
    executed = counts.ranAtOnce + counts.replayed;
  };
  // Every kind of disruption once per round, in a random order, so that even
  // a short run sees each of them.
  std::vector<int> round{0, 1, 2, 3, 4, 5};
  std::size_t next = round.size();
  while (Clock::now() < end && !stop) {
    if (next == round.size()) {
      std::shuffle(round.begin(), round.end(), random);
      next = 0;
    }
    switch (round[next++]) {
      case 0:
        control().Restart();
        ++nameRestarts;
        awaitCommands(true);
        break;
      case 1:
        control().ReleaseName();
        awaitCommands(false);
        control().AcquireName();
        ++nameRestarts;
        awaitCommands(true);
        break;
      case 2:
        sim().Kill();
        awaitCommands(false);
        if (!sim().Start()) stop = true;  // already a failure; let the workers go first
        ++processRestarts;
        awaitCommands(true);
        break;
      case 3:
        control().Emit("onFound", common::SerializeIntoGVariant("Soak", 9));
        ++signals;
        awaitCommands(false);
        break;
      case 4:
        control().Emit("onDbusClosing", g_variant_new("(i)", 0));  // its handler disconnects
        ++signals;
        awaitCommands(false);
        break;
      case 5:
        client->Disconnect();
        ++disconnects;
        awaitCommands(false);
        break;
    }
  }
  stop = true;
  for (std::thread& worker : workers) worker.join();
  ASSERT_TRUE(sim().Running());

  control().Restart();
  ASSERT_TRUE(DeliverFinalCommand(*client, 4242)) << "the client never became ready again";
  const DBusClientAsync::Counts counts = Settle(*client);
  EXPECT_TRUE(Balanced(counts)) << Describe(counts);
  std::printf("[soak] %.1f s: %" PRIu64 " commands, %d restarts (%d name, %d process), %d signals, "
              "%d disconnects, %d found; %s\n",
              seconds, counts.accepted, nameRestarts + processRestarts, nameRestarts, processRestarts, signals,
              disconnects, found.load(), Describe(counts).c_str());
  std::fflush(stdout);
}

}  // namespace
}  // namespace testing
}  // namespace zv_client
