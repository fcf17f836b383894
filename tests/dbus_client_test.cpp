// DBusClient against a real bus and zorvel-sim: connecting, following the
// daemon's owner across restarts, synchronous calls, teardown.

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <dbus/client/DBusClient.h>
#include <dbus/client/ServiceContract.h>

#include "support/BusTest.h"
#include "support/VariantProbe.h"

namespace zv_client {
namespace testing {
namespace {

using dbus::client::DBusClient;
using dbus::client::kBusName;

// What a client's ready callback was told, in order; it runs on the loop thread.
class ReadyLog {
 public:
  std::function<void(bool)> Callback() {
    return [this](bool ready) {
      std::lock_guard<std::mutex> lock(mutex_);
      events_.push_back(ready);
    };
  }
  std::vector<bool> Events() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }
  bool WaitFor(const std::vector<bool>& expected) const {
    return WaitUntil([&] { return Events() == expected; });
  }

 private:
  mutable std::mutex mutex_;
  std::vector<bool> events_;
};

std::string Text(const std::vector<bool>& events) {
  std::string text;
  for (const bool event : events) text += event ? "T" : "F";
  return text;
}

gint32 IntReply(GVariant* reply) {
  gint32 value = -12345;
  if (reply != nullptr && g_variant_is_of_type(reply, G_VARIANT_TYPE("(i)"))) g_variant_get(reply, "(i)", &value);
  return value;
}

class DBusClientTest : public BusTest {
 protected:
  // Connects `client` and waits until its watcher has reported the owner.
  void ConnectReady(DBusClient& client, ReadyLog& ready, const std::vector<bool>& expected = {true}) {
    ASSERT_TRUE(client.Connect()) << logs().Dump();
    ASSERT_TRUE(ready.WaitFor(expected)) << Text(ready.Events());
  }

  // One "init" through `client`; true when it reached the sim and answered 0.
  bool InitWorks(DBusClient& client) {
    GVariant* reply = nullptr;
    const bool called = client.Call(dbus::client::kMethodInit, nullptr, &reply, -1);
    common::GVariantPtr owned(reply);
    return called && IntReply(reply) == 0;
  }
};

TEST_F(DBusClientTest, ConnectsToARunningDaemonButCallsOnlyOnceTheWatcherReported) {
  ReadyLog ready;
  DBusClient client;
  client.SetIpcReadyCallback(ready.Callback());
  const std::string owner = NameOwner(kBusName);
  GVariant* untouched = reinterpret_cast<GVariant*>(&ready);
  GVariant* reply = untouched;
  {
    // Nothing is dispatched from the main context meanwhile, so the watcher
    // cannot have reported yet.
    MainLoopPause pause;
    ASSERT_TRUE(client.Connect());
    EXPECT_TRUE(client.IsConnected());
    EXPECT_FALSE(client.Call(dbus::client::kMethodInit, nullptr, &reply, -1));
    EXPECT_EQ(reply, untouched) << "a refused call wrote the result slot";
    EXPECT_EQ(logs().Count("Dbus is nor ready yet [0][0]"), 1u) << logs().Dump();
    EXPECT_TRUE(logs().Contains("Old nameOwner(), new nameOwner (" + owner + ")"));
    // Connected already: returns at once, no second proxy.
    EXPECT_TRUE(client.Connect());
    EXPECT_EQ(logs().Count("Old nameOwner("), 1u);
  }
  ASSERT_TRUE(ready.WaitFor({true})) << Text(ready.Events());
  EXPECT_TRUE(logs().Contains("Upadte name owner, set new ID [" + owner + "], old one was []"));
  EXPECT_TRUE(InitWorks(client)) << logs().Dump();
  const std::vector<SimCall> calls = control().CallsOf(dbus::client::kMethodInit);
  ASSERT_EQ(calls.size(), 1u) << "the refused call must not reach the daemon";
  EXPECT_EQ(calls[0].sender,
            g_dbus_connection_get_unique_name(
                common::GObjectPtr<GDBusConnection>(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr)).get()));
}

TEST_F(DBusClientTest, ConnectFailsWhileTheNameHasNoOwnerAndSucceedsOnceItHasOne) {
  ReadyLog ready;
  DBusClient client;
  client.SetIpcReadyCallback(ready.Callback());
  control().ReleaseName();
  ASSERT_TRUE(NameOwner(kBusName).empty());

  EXPECT_FALSE(client.Connect());
  EXPECT_FALSE(client.IsConnected());
  EXPECT_TRUE(logs().Contains(
      "Connection failed: got empty nameOwner? [1] connected to service which terminates? [0]"))
      << logs().Dump();
  EXPECT_FALSE(client.Call(dbus::client::kMethodInit, nullptr, nullptr, -1));
  EXPECT_TRUE(logs().Contains("Dbus is nor ready yet [1][0]")) << "the proxy was kept";

  const std::string owner = control().AcquireName();
  ConnectReady(client, ready);
  EXPECT_TRUE(logs().Contains("Upadte name owner, set new ID [" + owner + "]"));
  EXPECT_TRUE(InitWorks(client));
}

TEST_F(DBusClientTest, RefusesTheRememberedOwnerAndKeepsHandlersAcrossReconnection) {
  ReadyLog ready;
  std::atomic<int> received{0};
  DBusClient client;
  client.SetIpcReadyCallback(ready.Callback());
  client.SetSignalCallback(dbus::client::kSignalOnServiceShutdown, [&](GVariant*) { ++received; });
  ConnectReady(client, ready);
  control().Emit(dbus::client::kSignalOnServiceShutdown, g_variant_new("(i)", 1));
  ASSERT_TRUE(WaitUntil([&] { return received == 1; }));

  EXPECT_TRUE(client.Disconnect());
  EXPECT_FALSE(client.IsConnected());
  client.StopBusWatcher();
  EXPECT_FALSE(client.Connect());
  EXPECT_TRUE(logs().Contains(
      "Connection failed: got empty nameOwner? [0] connected to service which terminates? [1]"))
      << logs().Dump();

  // A watcher that reports the remembered owner changes nothing.
  client.LaunchBusWatcher();
  EXPECT_TRUE(logs().WaitFor("Connected to old name owner, which terminates"));
  EXPECT_FALSE(client.Call(dbus::client::kMethodInit, nullptr, nullptr, -1));
  EXPECT_TRUE(logs().Contains("Dbus is nor ready yet [1][0]"));
  client.StopBusWatcher();
  // Not connected: this one must not reach the handler.
  control().Emit(dbus::client::kSignalOnServiceShutdown, g_variant_new("(i)", 2));

  const std::string owner = control().Restart();
  ConnectReady(client, ready, {true, true});
  EXPECT_TRUE(logs().Contains("Upadte name owner, set new ID [" + owner + "]"));
  EXPECT_TRUE(InitWorks(client));
  control().Emit(dbus::client::kSignalOnServiceShutdown, g_variant_new("(i)", 3));
  EXPECT_TRUE(WaitUntil([&] { return received == 2; }));
  EXPECT_EQ(logs().Count("[Zorvel] Got Signal from zorvel daemon onServiceShutdown"), 2u) << logs().Dump();
}

TEST_F(DBusClientTest, FollowsTheDaemonThroughANameRestartAndANewProcess) {
  ReadyLog ready;
  std::atomic<int> received{0};
  DBusClient client;
  client.SetIpcReadyCallback(ready.Callback());
  client.SetSignalCallback(dbus::client::kSignalOnVoiceGuideSay, [&](GVariant*) { ++received; });
  ConnectReady(client, ready);

  const std::string restarted = control().Restart();
  ASSERT_TRUE(ready.WaitFor({true, false, true})) << Text(ready.Events());
  EXPECT_TRUE(client.IsConnected()) << "a vanished name must not disconnect the client";
  EXPECT_TRUE(logs().Contains("Name [" + kBusName + "] vanished on DBus"));
  EXPECT_TRUE(logs().Contains("Upadte name owner, set new ID [" + restarted + "], old one was []"));
  EXPECT_TRUE(InitWorks(client)) << logs().Dump();
  control().Emit(dbus::client::kSignalOnVoiceGuideSay, g_variant_new("(^ay)", "aGk="));
  EXPECT_TRUE(WaitUntil([&] { return received == 1; }));

  sim().Kill();
  ASSERT_TRUE(ready.WaitFor({true, false, true, false})) << Text(ready.Events());
  EXPECT_FALSE(client.Call(dbus::client::kMethodInit, nullptr, nullptr, -1));
  ASSERT_TRUE(sim().Start());
  ASSERT_TRUE(ready.WaitFor({true, false, true, false, true})) << Text(ready.Events());
  EXPECT_TRUE(logs().Contains("Upadte name owner, set new ID [" + NameOwner(kBusName) + "]"));
  SimControl fresh;
  EXPECT_TRUE(InitWorks(client)) << logs().Dump();
  EXPECT_EQ(fresh.CallsOf(dbus::client::kMethodInit).size(), 1u);
  fresh.Emit(dbus::client::kSignalOnVoiceGuideSay, g_variant_new("(^ay)", "aGk="));
  EXPECT_TRUE(WaitUntil([&] { return received == 2; }));

  EXPECT_EQ(sim().Stop(), 0) << "zorvel-sim exits cleanly on SIGTERM";
  EXPECT_TRUE(ready.WaitFor({true, false, true, false, true, false})) << Text(ready.Events());
}

TEST_F(DBusClientTest, CallSinksAFloatingArgumentLeavesOthersAloneAndReportsFailures) {
  ReadyLog ready;
  DBusClient client;
  client.SetIpcReadyCallback(ready.Callback());
  ConnectReady(client, ready);

  // No arguments at all.
  GVariant* reply = nullptr;
  ASSERT_TRUE(client.Call(dbus::client::kMethodStopBroadcast, nullptr, &reply, -1));
  EXPECT_EQ(IntReply(reply), 0);
  g_variant_unref(reply);
  std::vector<SimCall> calls = control().CallsOf(dbus::client::kMethodStopBroadcast);
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(g_variant_n_children(calls[0].args.get()), 0u);

  // Floating: the caller ends up with exactly one full reference.
  VariantProbe floating(77);
  ASSERT_TRUE(g_variant_is_floating(floating.variant()));
  ASSERT_TRUE(client.Call(dbus::client::kMethodDeleteStoredProfile, floating.variant(), &reply, -1));
  g_variant_unref(reply);
  EXPECT_FALSE(g_variant_is_floating(floating.variant()));
  EXPECT_FALSE(floating.Freed());
  g_variant_unref(floating.variant());
  EXPECT_TRUE(WaitUntil([&] { return floating.Freed(); })) << "Call kept a reference of its own";
  calls = control().CallsOf(dbus::client::kMethodDeleteStoredProfile);
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(IntReply(calls[0].args.get()), 77);

  // Not floating: left as it was.
  VariantProbe owned(5);
  g_variant_ref_sink(owned.variant());
  ASSERT_TRUE(client.Call(dbus::client::kMethodConnect, owned.variant(), nullptr, -1));
  EXPECT_FALSE(owned.Freed());
  g_variant_unref(owned.variant());
  EXPECT_TRUE(WaitUntil([&] { return owned.Freed(); }));

  // A failing call clears the slot and leaves the client connected.
  reply = reinterpret_cast<GVariant*>(&ready);
  EXPECT_FALSE(client.Call("noSuchMethod", nullptr, &reply, -1));
  EXPECT_EQ(reply, nullptr);
  control().SetNoReply(dbus::client::kMethodInit);
  EXPECT_FALSE(client.Call(dbus::client::kMethodInit, nullptr, nullptr, 300));
  EXPECT_EQ(logs().Count("Failed to call D-Bus for Zorvel daemon, error = "), 2u) << logs().Dump();
  EXPECT_TRUE(client.IsConnected());
  control().SetNoReply(dbus::client::kMethodInit, false);
  EXPECT_TRUE(InitWorks(client)) << logs().Dump();
}

TEST_F(DBusClientTest, DisconnectsOnceAndLeavesNothingBehindWhenDestroyed) {
  ReadyLog witnessReady;
  std::atomic<int> witnessed{0};
  std::atomic<int> received{0};
  DBusClient witness;  // stays, to know when the others would have been told
  witness.SetIpcReadyCallback(witnessReady.Callback());
  witness.SetSignalCallback(dbus::client::kSignalOnFound, [&](GVariant*) { ++witnessed; });
  ConnectReady(witness, witnessReady);

  {
    ReadyLog ready;
    DBusClient client;
    client.SetIpcReadyCallback(ready.Callback());
    ConnectReady(client, ready);
    EXPECT_TRUE(client.Disconnect());
    EXPECT_TRUE(logs().Contains("Disconnect started"));
    EXPECT_FALSE(client.Disconnect());
    EXPECT_EQ(logs().Count("Already disconnected"), 1u);
  }
  EXPECT_EQ(logs().Count("Already disconnected"), 2u) << "the destructor disconnects an idle client";
  EXPECT_EQ(logs().Count("~DBusClient end"), 1u);

  auto ready = std::make_unique<ReadyLog>();
  auto client = std::make_unique<DBusClient>();
  client->SetIpcReadyCallback(ready->Callback());
  client->SetSignalCallback(dbus::client::kSignalOnFound, [&](GVariant*) { ++received; });
  ConnectReady(*client, *ready);
  logs().Clear();
  client.reset();
  ready.reset();  // a late callback into it would be a use after free
  EXPECT_TRUE(logs().Contains("Disconnect started")) << logs().Dump();
  EXPECT_TRUE(logs().Contains("~DBusClient end"));

  logs().Clear();
  control().Restart();
  ASSERT_TRUE(witnessReady.WaitFor({true, false, true}));
  control().Emit(dbus::client::kSignalOnFound, g_variant_new("(^ayq)", "eA==", 1));
  ASSERT_TRUE(WaitUntil([&] { return witnessed == 1; }));
  EXPECT_EQ(received, 0);
  EXPECT_EQ(logs().Count("vanished on DBus"), 1u) << "only the witness still watches\n" << logs().Dump();
  EXPECT_EQ(logs().Count("[Zorvel] Got Signal"), 1u) << "only the witness is still subscribed";
}

}  // namespace
}  // namespace testing
}  // namespace zv_client
