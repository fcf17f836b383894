// Signal dispatch of DBusClient: which handler runs, with what, on which
// thread, and which senders can reach it at all.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <dbus/client/DBusClient.h>
#include <dbus/client/ServiceContract.h>

#include "support/BusTest.h"
#include "support/VariantProbe.h"

namespace zv_client {
namespace testing {
namespace {

using dbus::client::DBusClient;
using dbus::client::kSignalOnCancel;
using dbus::client::kSignalOnFound;

// An "onFound" body whose number tells the signals apart.
GVariant* Found(guint16 marker) { return g_variant_new("(^ayq)", "S2l0Y2hlbg==", marker); }

guint16 MarkerOf(GVariant* parameters) {
  guint16 marker = 0;
  if (g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ayq)"))) g_variant_get_child(parameters, 1, "q", &marker);
  return marker;
}

// Markers in the order their signals were seen; fed on the loop thread.
class Markers {
 public:
  void Add(guint16 marker) {
    std::lock_guard<std::mutex> lock(mutex_);
    seen_.push_back(marker);
  }
  std::vector<guint16> Seen() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return seen_;
  }
  bool Has(guint16 marker) const {
    const std::vector<guint16> seen = Seen();
    return std::find(seen.begin(), seen.end(), marker) != seen.end();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<guint16> seen_;
};

// Each test declares its client after everything the handlers touch: the
// client's destructor waits for a running callback and silences later ones.
class SignalDispatchTest : public BusTest {
 protected:
  void ConnectReady(DBusClient& client) {
    auto ready = std::make_shared<std::atomic<bool>>(false);
    client.SetIpcReadyCallback([ready](bool isReady) { *ready = isReady; });
    ASSERT_TRUE(client.Connect()) << logs().Dump();
    // Once the watcher has answered, the bus has our subscription's match rule too.
    ASSERT_TRUE(WaitUntil([&] { return ready->load(); }));
  }
};

TEST_F(SignalDispatchTest, RunsOnlyTheLatestHandlerAndSkipsMembersWithoutOne) {
  std::atomic<int> first{0};
  Markers second;
  std::atomic<int> mystery{0};
  DBusClient client;
  ConnectReady(client);
  client.SetSignalCallback(kSignalOnFound, [&](GVariant*) { ++first; });
  client.SetSignalCallback(kSignalOnFound, [&](GVariant* parameters) { second.Add(MarkerOf(parameters)); });
  client.SetSignalCallback(kSignalOnCancel, DBusClient::SignalCallback());  // empty: as good as none

  control().Emit("onMystery", g_variant_new("(i)", 1));
  control().Emit(kSignalOnCancel, g_variant_new("(^ayqq)", "eA==", 1, 2));
  control().Emit(kSignalOnFound, Found(1));
  ASSERT_TRUE(WaitUntil([&] { return second.Has(1); }));  // one sender: in order
  EXPECT_EQ(first, 0);
  EXPECT_TRUE(logs().Contains("Haven't found callback for signal onMystery. Skipping processing..."))
      << logs().Dump();
  EXPECT_TRUE(logs().Contains("Haven't found callback for signal onCancel. Skipping processing..."));

  // Registering later replays nothing.
  client.SetSignalCallback("onMystery", [&](GVariant*) { ++mystery; });
  control().Emit(kSignalOnFound, Found(2));
  ASSERT_TRUE(WaitUntil([&] { return second.Has(2); }));
  EXPECT_EQ(mystery, 0);
  EXPECT_EQ(second.Seen(), (std::vector<guint16>{1, 2}));
}

TEST(SignalDispatch, HandleSignalBorrowsTheParametersAndLetsExceptionsThrough) {
  LogCapture logs;
  DBusClient client;  // never connected: direct dispatch works all the same
  GVariant* seen = nullptr;
  client.SetSignalCallback(kSignalOnFound, [&](GVariant* parameters) { seen = parameters; });

  VariantProbe owned(1);
  g_variant_ref_sink(owned.variant());
  client.HandleSignal(kSignalOnFound, owned.variant());
  EXPECT_EQ(seen, owned.variant());
  EXPECT_FALSE(owned.Freed());
  g_variant_unref(owned.variant());
  EXPECT_TRUE(owned.Freed()) << "HandleSignal kept a reference";

  VariantProbe floating(2);
  client.HandleSignal(kSignalOnFound, floating.variant());
  EXPECT_TRUE(g_variant_is_floating(floating.variant())) << "HandleSignal sank the parameters";
  g_variant_unref(floating.variant());
  EXPECT_TRUE(floating.Freed());

  client.SetSignalCallback(kSignalOnCancel, [](GVariant*) { throw std::runtime_error("handler failed"); });
  EXPECT_THROW(client.HandleSignal(kSignalOnCancel, nullptr), std::runtime_error);
  // The process-wide signal lock was released on the way out.
  std::atomic<bool> done{false};
  std::thread other([&] {
    client.HandleSignal(kSignalOnFound, nullptr);
    done = true;
  });
  if (!WaitUntil([&] { return done.load(); })) {
    other.detach();  // blocked for good on the lock; nothing else it could touch
    FAIL() << "a throwing handler left the signal lock held";
  }
  other.join();
  EXPECT_EQ(logs.Count("HandleSignal is called, signal name [onFound]"), 3u) << logs.Dump();
}

TEST_F(SignalDispatchTest, HandlersOfDifferentSignalsNeverRunAtTheSameTime) {
  std::atomic<int> active{0};
  std::atomic<int> overlaps{0};
  std::atomic<int> found{0};
  std::atomic<int> cancelled{0};
  std::atomic<bool> loopThreadSeen{false};
  const std::thread::id testThread = std::this_thread::get_id();
  auto run = [&](std::atomic<int>& counter) {
    if (++active != 1) ++overlaps;
    // Some work, so that an unguarded pair of handlers would meet.
    std::this_thread::sleep_for(std::chrono::microseconds(200));
    --active;
    ++counter;
  };
  DBusClient client;
  ConnectReady(client);
  client.SetSignalCallback(kSignalOnFound, [&](GVariant*) {
    if (std::this_thread::get_id() != testThread) loopThreadSeen = true;
    run(found);
  });
  client.SetSignalCallback(kSignalOnCancel, [&](GVariant*) { run(cancelled); });

  control().SetInterval(1);
  GVariant* start = g_variant_new("(i)", 1);
  ASSERT_TRUE(client.Call(dbus::client::kMethodStartBroadcast, start, nullptr, -1));
  g_variant_unref(start);
  std::atomic<bool> stop{false};
  std::thread direct([&] {
    const common::GVariantPtr parameters(g_variant_ref_sink(g_variant_new("(^ayqq)", "eA==", 1, 2)));
    while (!stop) client.HandleSignal(kSignalOnCancel, parameters.get());
  });
  const bool enough = WaitUntil([&] { return found >= 200 && cancelled >= 200; });
  stop = true;
  direct.join();
  ASSERT_TRUE(client.Call(dbus::client::kMethodStopBroadcast, nullptr, nullptr, -1));
  EXPECT_TRUE(enough) << found << " onFound, " << cancelled << " onCancel";
  EXPECT_TRUE(loopThreadSeen);
  EXPECT_EQ(overlaps, 0);
}

TEST_F(SignalDispatchTest, AHandlerMayDispatchAnotherSignalOnItsOwnThread) {
  std::atomic<int> outer{0};
  std::atomic<int> inner{0};
  DBusClient client;
  ConnectReady(client);
  client.SetSignalCallback(kSignalOnCancel, [&](GVariant*) { ++inner; });
  client.SetSignalCallback(kSignalOnFound, [&](GVariant* parameters) {
    ++outer;
    client.HandleSignal(kSignalOnCancel, parameters);
  });

  control().Emit(kSignalOnFound, Found(1));  // dispatched on the loop thread
  EXPECT_TRUE(WaitUntil([&] { return outer == 1 && inner == 1; })) << "the main loop is stuck";
  const common::GVariantPtr parameters(g_variant_ref_sink(Found(2)));
  client.HandleSignal(kSignalOnFound, parameters.get());
  EXPECT_EQ(outer, 2);
  EXPECT_EQ(inner, 2);
}

TEST_F(SignalDispatchTest, OnlyTheOwnerOfTheDaemonsNameReachesTheHandlers) {
  Markers handled;
  DBusClient client;
  ConnectReady(client);
  client.SetSignalCallback(kSignalOnFound, [&](GVariant* parameters) { handled.Add(MarkerOf(parameters)); });

  // A subscription without a sender filter on the same connection shows what
  // reached the process, so the client's filtering is what is tested.
  const common::GObjectPtr<GDBusConnection> bus(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
  const std::string self = g_dbus_connection_get_unique_name(bus.get());
  auto* witnessed = new std::shared_ptr<Markers>(std::make_shared<Markers>());
  const std::shared_ptr<Markers> witness = *witnessed;
  PublishToGLib(witnessed);
  const guint subscription = g_dbus_connection_signal_subscribe(
      bus.get(), nullptr, dbus::client::kInterfaceName.c_str(), kSignalOnFound.c_str(),
      dbus::client::kObjectPath.c_str(), nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* parameters,
         gpointer data) {
        ReceiveFromGLib(data);
        (*static_cast<std::shared_ptr<Markers>*>(data))->Add(MarkerOf(parameters));
      },
      witnessed, [](gpointer data) { delete static_cast<std::shared_ptr<Markers>*>(data); });
  // The match rule is in place once a later call on the connection returned.
  common::GVariantPtr(g_dbus_connection_call_sync(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                  "org.freedesktop.DBus", "GetId", nullptr, nullptr,
                                                  G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));

  Impostor impostor;
  EXPECT_TRUE(impostor.Emit(kSignalOnFound, Found(101)));
  EXPECT_TRUE(impostor.Emit(kSignalOnFound, Found(102), self));
  control().EmitAs(kSignalOnFound, Found(103));
  control().EmitAs(kSignalOnFound, Found(104), self);
  control().Emit(kSignalOnFound, Found(1));
  ASSERT_TRUE(WaitUntil([&] {
    return witness->Has(101) && witness->Has(102) && witness->Has(103) && witness->Has(104) && witness->Has(1);
  })) << "the impostors' signals never reached the process";
  g_dbus_connection_signal_unsubscribe(bus.get(), subscription);
  // Everything above is on our connection already; this one is dispatched after it.
  control().Emit(kSignalOnFound, Found(2));
  ASSERT_TRUE(WaitUntil([&] { return handled.Has(2); }));

  EXPECT_EQ(handled.Seen(), (std::vector<guint16>{1, 2}));
  EXPECT_EQ(logs().Count("[Zorvel] Got Signal from zorvel daemon onFound"), 2u) << logs().Dump();
}

}  // namespace
}  // namespace testing
}  // namespace zv_client
