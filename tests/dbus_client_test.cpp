// DBusClient on a real bus: connecting, following the daemon's owner, calls, teardown, signal dispatch.

#include <atomic>
#include <stdexcept>
#include <thread>

#include <zorvel/common/GLibUtils.h>
#include <zorvel/dbus/client/DBusClient.h>
#include <zorvel/dbus/client/ServiceContract.h>

#include "support/BusTest.h"
#include "support/Outcomes.h"
#include "support/VariantProbe.h"

namespace zv_client::testing {
namespace {

using namespace dbus::client;

// What a client's ready callback was told, in order ("TFT"); it runs on the loop thread. The
// callback keeps the history itself: the callable installed must be the one that runs.
struct ReadyLog : Recorder<std::string> {
  void Watch(DBusClient& client) {
    const std::vector<std::string> seen = Items();
    client.SetIpcReadyCallback(
        [this, history = seen.empty() ? "" : seen.back()](bool ready) mutable { Add(history += ready ? 'T' : 'F'); });
  }
  bool WaitFor(const std::string& expected) const {
    const bool reached = WaitUntil([&] { return !Items().empty() && Items().back() == expected; });
    EXPECT_TRUE(reached) << (Items().empty() ? "nothing" : Items().back());
    return reached;
  }
};

// An "onFound" body whose number tells the signals apart.
GVariant* Found(guint16 marker) { return g_variant_new("(^ayq)", "S2l0Y2hlbg==", marker); }

class DBusClientTest : public BusTest {
 protected:
  // Connects `client` and waits until its watcher reported the owner (so the subscription is in place).
  void ConnectReady(DBusClient& client, ReadyLog& ready, const std::string& expected = "T") {
    ready.Watch(client);
    ASSERT_TRUE(client.Connect()) << logs().Dump();
    ASSERT_TRUE(ready.WaitFor(expected));
  }
  // One "init" through `client`; true when it reached the sim and was answered with 0.
  static bool InitWorks(DBusClient& client) {
    GVariant* reply = nullptr;
    const bool called = client.Call(kMethodInit, nullptr, &reply, -1);
    const common::GVariantPtr owned(reply);
    return called && reply != nullptr && common::GCharPtr(g_variant_print(reply, FALSE)).get() == std::string("(0,)");
  }
  ReadyLog ready_;
};

TEST_F(DBusClientTest, CallsOnlyOnceTheWatcherReportedTheOwner) {
  DBusClient client;
  ready_.Watch(client);
  GVariant* untouched = reinterpret_cast<GVariant*>(&ready_);
  GVariant* reply = untouched;
  RunOnMainLoop([&] {  // the watcher cannot report meanwhile
    ASSERT_TRUE(client.Connect());
    EXPECT_TRUE(client.IsConnected());
    EXPECT_FALSE(client.Call(kMethodInit, nullptr, &reply, -1));
    EXPECT_EQ(reply, untouched) << "a refused call wrote the result slot";
    EXPECT_TRUE(client.Connect());  // connected already: no second proxy
  });
  ASSERT_TRUE(ready_.WaitFor("T"));
  EXPECT_TRUE(InitWorks(client)) << logs().Dump();
  EXPECT_EQ(control().CallsOf(kMethodInit), 1u) << "the refused call must not reach the daemon";
  control().Restart();
  ASSERT_TRUE(ready_.WaitFor("TFT"));
  EXPECT_TRUE(client.IsConnected()) << "a vanished name must not disconnect the client";
  EXPECT_TRUE(InitWorks(client)) << logs().Dump();
}

TEST_F(DBusClientTest, ConnectRefusesAMissingOrRememberedOwner) {
  std::atomic<int> received{0};
  DBusClient client;
  client.SetSignalCallback(kSignalOnServiceShutdown, [&](GVariant*) { ++received; });
  control().ReleaseName();
  EXPECT_FALSE(client.Connect());
  EXPECT_FALSE(client.IsConnected());
  EXPECT_FALSE(client.Call(kMethodInit, nullptr, nullptr, -1));

  control().AcquireName();
  ConnectReady(client, ready_);
  EXPECT_TRUE(client.Disconnect());
  EXPECT_FALSE(client.IsConnected());
  EXPECT_FALSE(client.Disconnect());
  client.StopBusWatcher();
  EXPECT_FALSE(client.Connect()) << "the owner it remembers is taken for one that goes away";
  // A watcher that reports the remembered owner changes nothing.
  std::atomic<bool> ignored{false};
  using Point = dbus::client::testing::Point;
  ScopedHook hook([&](Point point) { ignored = ignored || point == Point::kRememberedOwnerIgnored; });
  client.LaunchBusWatcher();
  EXPECT_TRUE(WaitUntil([&] { return ignored.load(); }));
  EXPECT_FALSE(client.Call(kMethodInit, nullptr, nullptr, -1));
  client.StopBusWatcher();
  control().Emit(kSignalOnServiceShutdown, g_variant_new("(i)", 2));  // not connected: not handled

  control().Restart();
  ConnectReady(client, ready_, "TT");
  EXPECT_TRUE(InitWorks(client));
  control().Emit(kSignalOnServiceShutdown, g_variant_new("(i)", 3));
  EXPECT_TRUE(WaitUntil([&] { return received == 1; }));
  EXPECT_EQ(control().CallsOf(kMethodInit), 1u);
}

TEST_F(DBusClientTest, CallSinksAFloatingArgumentAndReportsFailures) {
  DBusClient client;
  ConnectReady(client, ready_);
  ASSERT_TRUE(client.Call(kMethodStopBroadcast, nullptr, nullptr, -1));  // no arguments at all

  // Floating: the caller ends up with exactly one full reference.
  VariantProbe floating(77);
  GVariant* reply = nullptr;
  ASSERT_TRUE(client.Call(kMethodDeleteStoredProfile, floating.variant(), &reply, -1));
  g_variant_unref(reply);
  EXPECT_FALSE(g_variant_is_floating(floating.variant()) || floating.Freed());
  g_variant_unref(floating.variant());
  EXPECT_TRUE(WaitUntil([&] { return floating.Freed(); })) << "Call kept a reference of its own";
  EXPECT_EQ(control().CallTexts(), (std::vector<std::string>{"stopBroadcast()", "deleteStoredProfile(77,)"}));

  // A failing call clears the slot and leaves the client connected.
  reply = reinterpret_cast<GVariant*>(&ready_);
  EXPECT_FALSE(client.Call("noSuchMethod", nullptr, &reply, -1));
  EXPECT_EQ(reply, nullptr);
  control().SetNoReply(kMethodInit);
  EXPECT_FALSE(client.Call(kMethodInit, nullptr, nullptr, 300));
  EXPECT_TRUE(client.IsConnected());
}

TEST_F(DBusClientTest, RunsOnlyTheLatestHandlerOneAtATimeButMayNest) {
  std::atomic<int> first{0}, markers{0};
  DBusClient client;
  ConnectReady(client, ready_);
  client.SetSignalCallback(kSignalOnFound, [&](GVariant*) { ++first; });
  // Markers in order, 1 then 12, kept by the handler itself.
  client.SetSignalCallback(kSignalOnFound, [&markers, seen = 0](GVariant* parameters) mutable {
    guint16 marker = 0;
    g_variant_get_child(parameters, 1, "q", &marker);
    markers = seen = seen * 10 + marker;
  });
  client.SetSignalCallback(kSignalOnCancel, DBusClient::SignalCallback());  // empty: as good as none
  control().Emit("onMystery", g_variant_new("(i)", 1));                     // not in the contract, still dispatched
  control().Emit(kSignalOnCancel, g_variant_new("(^ayqq)", "eA==", 1, 2));
  control().Emit(kSignalOnFound, Found(1));
  ASSERT_TRUE(WaitUntil([&] { return markers == 1; }));  // one sender: in order
  EXPECT_EQ(first, 0);
  control().Emit(kSignalOnFound, Found(2));
  ASSERT_TRUE(WaitUntil([&] { return markers == 12; })) << markers;

  // Handlers never overlap, from the main loop and from other threads, but may nest.
  std::atomic<int> active{0}, overlaps{0}, found{0}, cancelled{0};
  auto run = [&](std::atomic<int>& counter) {
    if (++active != 1) ++overlaps;
    std::this_thread::sleep_for(std::chrono::microseconds(200));  // work, so unguarded handlers would meet
    --active;
    ++counter;
  };
  client.SetSignalCallback(kSignalOnFound, [&](GVariant*) { run(found); });
  client.SetSignalCallback(kSignalOnCancel, [&](GVariant*) { run(cancelled); });
  client.SetSignalCallback(kSignalOnVoiceGuideSay, [&](GVariant* parameters) {  // nests a dispatch
    client.HandleSignal(kSignalOnCancel, parameters);
  });

  control().SetInterval(1);
  const common::GVariantPtr start(g_variant_new("(i)", 1));  // Call sinks it into this reference
  ASSERT_TRUE(client.Call(kMethodStartBroadcast, start.get(), nullptr, -1));
  std::atomic<bool> stop{false};
  std::thread direct([&] {
    const common::GVariantPtr parameters(g_variant_ref_sink(g_variant_new("(^ayqq)", "eA==", 1, 2)));
    while (!stop) client.HandleSignal(kSignalOnCancel, parameters.get());
  });
  const bool enough = WaitUntil([&] { return found >= 200 && cancelled >= 200; });
  stop = true;
  direct.join();
  ASSERT_TRUE(client.Call(kMethodStopBroadcast, nullptr, nullptr, -1));
  EXPECT_TRUE(enough) << found << " onFound, " << cancelled << " onCancel";
  EXPECT_EQ(overlaps, 0);

  // Nested dispatch from a handler, on the loop thread and on ours.
  const int before = cancelled;
  control().Emit(kSignalOnVoiceGuideSay, g_variant_new("(^ay)", "aGk="));
  EXPECT_TRUE(WaitUntil([&] { return cancelled == before + 1; })) << "the main loop is stuck";
  client.HandleSignal(kSignalOnVoiceGuideSay, nullptr);
  EXPECT_EQ(cancelled, before + 2);
}

TEST(SignalDispatch, HandleSignalBorrowsAndRethrows) {
  LogCapture logs;
  DBusClient client;  // never connected: direct dispatch works all the same
  GVariant* seen = nullptr;
  int runs = 0;
  client.SetSignalCallback(kSignalOnFound, [&](GVariant* parameters) { seen = parameters, ++runs; });
  VariantProbe owned(1);
  g_variant_ref_sink(owned.variant());
  client.HandleSignal(kSignalOnFound, owned.variant());
  EXPECT_EQ(seen, owned.variant());
  g_variant_unref(owned.variant());
  EXPECT_TRUE(owned.Freed()) << "HandleSignal kept a reference";
  VariantProbe floating(2);
  client.HandleSignal(kSignalOnFound, floating.variant());
  EXPECT_TRUE(g_variant_is_floating(floating.variant())) << "HandleSignal sank the parameters";
  g_variant_unref(floating.variant());
  EXPECT_TRUE(floating.Freed());

  client.SetSignalCallback(kSignalOnCancel, [](GVariant*) { throw std::runtime_error("handler failed"); });
  EXPECT_THROW(client.HandleSignal(kSignalOnCancel, nullptr), std::runtime_error);
  // The process-wide signal lock was released on the way out (else this hangs until the test's timeout).
  std::thread([&] { client.HandleSignal(kSignalOnFound, nullptr); }).join();
  EXPECT_EQ(runs, 3);
}

}  // namespace
}  // namespace zv_client::testing
