// A daemon that misbehaves, strangers that speak in its name, and a daemon
// that restarts over and over: the library must log, drop what it cannot
// use, never crash, and keep working for the next command.

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <dbus/client/DBusClientAsync.h>
#include <zorvel/Launcher.h>
#include <zorvel/LauncherTesting.h>

#include "support/BusTest.h"

namespace zv_client {
namespace testing {
namespace {

using dbus::client::DBusClientAsync;

// Records every application callback of one Launcher.
struct Recorder {
  std::mutex mutex;
  std::vector<std::pair<int, std::string>> found;
  std::vector<int> cancelled;
  std::vector<std::pair<int, bool>> available;

  void Attach(zorvel::Launcher& launcher) {
    launcher.SetOnInstanceFoundCallback([this](int id, const std::string& name) {
      std::lock_guard<std::mutex> lock(mutex);
      found.emplace_back(id, name);
    });
    launcher.SetOnCancelConnectionCallback([this](int status) {
      std::lock_guard<std::mutex> lock(mutex);
      cancelled.push_back(status);
    });
    launcher.SetOnConnectionAvailable([this](int id, bool state) {
      std::lock_guard<std::mutex> lock(mutex);
      available.emplace_back(id, state);
    });
  }
  std::size_t FoundCount() {
    std::lock_guard<std::mutex> lock(mutex);
    return found.size();
  }
  std::size_t EventCount() {
    std::lock_guard<std::mutex> lock(mutex);
    return found.size() + cancelled.size() + available.size();
  }
  std::size_t AvailableCount() {
    std::lock_guard<std::mutex> lock(mutex);
    return available.size();
  }
};

class HostileDaemon : public BusTest {
 protected:
  void SetUp() override {
    BusTest::SetUp();
    control().SetInstances({});  // a broadcast announces nothing: every onFound here is the test's own
    recorder_.Attach(launcher_);
    ASSERT_EQ(launcher_.Init(), 0);
    ASSERT_TRUE(logs().WaitFor("IpcReady [1]")) << "the library never became ready";
  }

  DBusClientAsync& Client() {
    return dynamic_cast<DBusClientAsync&>(*zorvel::testing::CurrentClient());
  }

  // Issues one queued command and waits until the daemon has it, so that the
  // next command cannot overtake it (command threads race for the pool).
  template <typename Command>
  void Issue(const std::string& method, Command command) {
    const std::size_t before = control().CallsOf(method).size();
    command();
    ASSERT_TRUE(control().WaitForCall(method, before + 1)) << method << " never reached the daemon";
  }

  // The layer is still usable (also when it first has to find the daemon
  // again): a connect request reaches the daemon and its answer reaches the
  // application.
  void ExpectNextCommandWorks() {
    const std::size_t before = control().CallsOf("connect").size();
    const std::size_t events = recorder_.AvailableCount();
    launcher_.StartBroadcast(false);  // clears the Connect guard
    EXPECT_EQ(launcher_.Connect(42), 0);
    EXPECT_TRUE(control().WaitForCall("connect", before + 1));
    EXPECT_TRUE(WaitUntil([&] { return recorder_.AvailableCount() > events; }));
  }

  zorvel::Launcher launcher_;
  Recorder recorder_;
};

TEST_F(HostileDaemon, SurvivesRepliesOfTheWrongTypeToEveryMethod) {
  // readProfiles answering an integer, an empty tuple, and a tuple whose
  // count element is not a text payload; other commands in between, so that
  // the duplicate guard lets each readProfiles through.
  control().SetReply("readProfiles", g_variant_new("(i)", 5));
  Issue("readProfiles", [&] { launcher_.ReadProfiles(); });
  EXPECT_TRUE(logs().WaitFor("Read profiles size[0]"));
  control().SetReply("readProfiles", nullptr);  // an empty body
  Issue("startBroadcast", [&] { launcher_.StartBroadcast(false); });
  Issue("readProfiles", [&] { launcher_.ReadProfiles(); });
  EXPECT_TRUE(logs().WaitFor("Read profiles size[0]", 2));
  control().SetReply("readProfiles", g_variant_new("((i))", 1));
  Issue("startBroadcast", [&] { launcher_.StartBroadcast(false); });
  Issue("readProfiles", [&] { launcher_.ReadProfiles(); });
  EXPECT_TRUE(logs().WaitFor("Exception was raised from connectionManager. Please check sequence"));
  EXPECT_EQ(recorder_.FoundCount(), 0U);

  // Integer methods answering a string or an empty tuple.
  for (const char* method : {"connect", "startBroadcast", "deleteStoredProfile", "init"}) {
    control().SetReply(method, g_variant_new("(s)", "not a number"));
  }
  Issue("startBroadcast", [&] { launcher_.StartBroadcast(true); });
  Issue("connect", [&] { EXPECT_EQ(launcher_.Connect(3), 0); });
  Issue("deleteStoredProfile", [&] { EXPECT_EQ(launcher_.DeleteStoredProfile(3), 0); });
  control().SetReply("stopBroadcast", g_variant_new("(s)", "seven"));
  control().SetReply("deinit", nullptr);
  EXPECT_EQ(launcher_.Stop(), 0);
  EXPECT_EQ(launcher_.StopBroadcast(), 0);  // decodes nothing: 0

  for (const char* method : {"connect", "startBroadcast", "deleteStoredProfile", "init", "readProfiles"}) {
    control().ClearReply(method);
  }
  control().Restart();  // StopBroadcast left the layer waiting for a new owner
  ExpectNextCommandWorks();
  Issue("readProfiles", [&] { launcher_.ReadProfiles(); });
  EXPECT_TRUE(logs().WaitFor("Read profiles size[", 3));
}

TEST_F(HostileDaemon, KeepsWorkingWhenRepliesNeverComeOrComeSlowly) {
  // A queued command that is never answered holds the next one back only
  // for its own timeout.
  control().SetNoReply("init");
  DBusClientAsync& client = Client();
  ASSERT_TRUE(client.Call("init", nullptr, nullptr, 300));
  ASSERT_TRUE(control().WaitForCall("init"));
  ASSERT_TRUE(client.Call("deleteStoredProfile", g_variant_new("(i)", 9), nullptr, -1));
  EXPECT_TRUE(control().WaitForCall("deleteStoredProfile"));
  EXPECT_TRUE(logs().WaitFor("Command wasnot derived. It can be ok if timeout"));

  // Slow replies while more commands queue behind them: all arrive.
  control().SetDelay("connect", 300);
  EXPECT_EQ(launcher_.Connect(1), 0);
  ASSERT_TRUE(control().WaitForCall("connect"));
  EXPECT_EQ(launcher_.StartBroadcast(true), 0);
  EXPECT_EQ(launcher_.DeleteStoredProfile(2), 0);
  EXPECT_TRUE(control().WaitForCall("deleteStoredProfile", 2));
  EXPECT_TRUE(control().WaitForCall("startBroadcast"));
  control().SetDelay("connect", 0);

  // A direct call that is never answered fails after its own 500 ms.
  control().SetNoReply("stopBroadcast");
  EXPECT_EQ(launcher_.StopBroadcast(), -1);
  EXPECT_TRUE(logs().Contains("Failed to call D-Bus for Zorvel daemon, error = "));
  EXPECT_TRUE(logs().Contains("StopBroadcast failed with code [-1]"));
  control().SetNoReply("stopBroadcast", false);
  control().Restart();
  ExpectNextCommandWorks();
}

TEST_F(HostileDaemon, IgnoresSignalsOfTheWrongTypeForEveryMember) {
  const std::vector<std::pair<std::string, GVariant*>> malformed = {
      {"onFound", g_variant_new("(i)", 1)},
      {"onFound", g_variant_new("(ayqq)", nullptr, 1, 2)},
      {"onFound", nullptr},
      {"onCancel", g_variant_new("(s)", "x")},
      {"onCancel", g_variant_new("(ayq)", nullptr, 1)},
      {"onConnectionAvailable", g_variant_new("(ii)", 5, 1)},
      {"onVoiceGuideSay", g_variant_new("(i)", 1)},
      {"onServiceShutdown", g_variant_new("(s)", "x")},
      {"onDbusClosing", g_variant_new("(s)", "x")},
  };
  for (const auto& [member, body] : malformed) control().Emit(member, body);
  ASSERT_TRUE(logs().WaitFor("onDbusClosing handled"));
  {
    std::lock_guard<std::mutex> lock(recorder_.mutex);
    EXPECT_TRUE(recorder_.found.empty());
    EXPECT_TRUE(recorder_.cancelled.empty());
    // A (qq) reader given another type reads zeros, as GLib would.
    ASSERT_EQ(recorder_.available.size(), 1U);
    EXPECT_EQ(recorder_.available[0], std::make_pair(0, false));
  }
  EXPECT_GE(logs().Count("Failed to deserialize data"), 3U);
  EXPECT_EQ(logs().Count("onCancelConnection handled"), 2U);
  EXPECT_EQ(logs().Count("onDbusClosing emitted [0]"), 1U);

  // onDbusClosing dropped readiness: commands wait for the next instance.
  control().Restart();
  ExpectNextCommandWorks();
}

TEST_F(HostileDaemon, DeliversHugeAndNonUtf8NamesAndCopesWithTenThousandProfiles) {
  const std::string huge(1 << 20, 'x');
  const std::string binary("\xff\xfe\x00zorvel\x80", 10);
  control().Emit("onFound", common::SerializeIntoGVariant(huge, 1));
  control().Emit("onFound", common::SerializeIntoGVariant(binary, 2));
  ASSERT_TRUE(WaitUntil([&] { return recorder_.FoundCount() == 2; }));
  {
    std::lock_guard<std::mutex> lock(recorder_.mutex);
    EXPECT_EQ(recorder_.found[0], std::make_pair(1, huge));
    EXPECT_EQ(recorder_.found[1], std::make_pair(2, binary));
  }

  // A D-Bus signature holds at most 255 characters, so one reply carries at
  // most 41 profiles ("(" "(" + 83 times "(s)" + "))"). The longest list that
  // fits arrives whole, raw bytes included (sent as a raw reply: the control
  // surface's own profile list takes D-Bus strings only).
  std::vector<common::SessionProfile> stored;
  for (int id = 0; id < 41; ++id) stored.push_back({"profile " + std::to_string(id), id});
  stored[17].name = binary;
  stored[18].name = huge;
  control().SetReply("readProfiles", common::ProfilesToVariant(stored));
  Issue("readProfiles", [&] { launcher_.ReadProfiles(); });
  ASSERT_TRUE(WaitUntil([&] { return recorder_.FoundCount() == 2 + stored.size(); }));
  {
    std::lock_guard<std::mutex> lock(recorder_.mutex);
    for (std::size_t i = 0; i < stored.size(); ++i) {
      EXPECT_EQ(recorder_.found[2 + i], std::make_pair(stored[i].id, stored[i].name)) << "profile " << i;
    }
  }

  // 10,000 stored profiles cannot be sent at all: the daemon answers with an
  // error, the library logs it and carries on.
  control().ClearReply("readProfiles");
  SimEntries many;
  for (int id = 0; id < 10000; ++id) many.emplace_back(id, "profile " + std::to_string(id));
  control().SetProfiles(many);
  Issue("startBroadcast", [&] { launcher_.StartBroadcast(false); });
  Issue("readProfiles", [&] { launcher_.ReadProfiles(); });
  EXPECT_TRUE(logs().WaitFor("Command wasnot derived. It can be ok if timeout"));
  EXPECT_TRUE(logs().Contains("LimitsExceeded"));
  EXPECT_EQ(recorder_.FoundCount(), 2 + stored.size());
  ExpectNextCommandWorks();

  // The decoder itself has no such limit.
  std::vector<common::SessionProfile> tenThousand;
  for (const auto& [id, name] : many) tenThousand.push_back({name, id});
  common::GVariantPtr payload = common::SinkVariant(common::ProfilesToVariant(tenThousand));
  const std::vector<common::SessionProfile> decoded = common::VariantToProfiles(payload.get());
  ASSERT_EQ(decoded.size(), tenThousand.size());
  EXPECT_EQ(decoded.back().name, "profile 9999");
}

TEST_F(HostileDaemon, NeverPassesAStrangersSignalsToTheApplication) {
  Impostor impostor;
  common::GObjectPtr<GDBusConnection> systemBus(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
  ASSERT_TRUE(systemBus);
  const std::string application = g_dbus_connection_get_unique_name(systemBus.get());
  for (const std::string& destination : {std::string(), application}) {
    impostor.Emit("onFound", common::SerializeIntoGVariant("fake", 66), destination);
    impostor.Emit("onCancel", common::ProfileWithStatusToVariant({"fake", 66}, 1), destination);
    impostor.Emit("onConnectionAvailable", g_variant_new("(qq)", 66, 1), destination);
    impostor.Emit("onDbusClosing", g_variant_new("(i)", 1), destination);
  }
  // A real signal after the fake ones: once it is in, the fakes would be too.
  control().Emit("onFound", common::SerializeIntoGVariant("real", 7));
  ASSERT_TRUE(WaitUntil([&] { return recorder_.FoundCount() == 1; }));
  EXPECT_EQ(recorder_.EventCount(), 1U);
  EXPECT_FALSE(logs().Contains("onDbusClosing emitted"));

  // A stranger that takes the name while the daemon is away is, for that
  // time, the daemon; once it is gone, what it sends is ignored again.
  control().ReleaseName();
  common::GObjectPtr<GDBusConnection> claimer = OpenBusConnection();
  common::GVariantPtr owned(g_dbus_connection_call_sync(
      claimer.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
      g_variant_new("(su)", "zorvel.dbus.service", 4U), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
      nullptr));
  ASSERT_TRUE(owned);
  common::GVariantPtr released(g_dbus_connection_call_sync(
      claimer.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "ReleaseName",
      g_variant_new("(s)", "zorvel.dbus.service"), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
      nullptr));
  ASSERT_TRUE(released);
  control().AcquireName();
  ExpectNextCommandWorks();  // the library follows the daemon again
  g_dbus_connection_emit_signal(claimer.get(), nullptr, "/zorvel/dbus/service", "dbus.zorvel.Interface", "onFound",
                                common::SerializeIntoGVariant("former", 67), nullptr);
  g_dbus_connection_flush_sync(claimer.get(), nullptr, nullptr);
  control().Emit("onFound", common::SerializeIntoGVariant("real again", 8));
  ASSERT_TRUE(WaitUntil([&] { return recorder_.FoundCount() >= 2; }));
  std::lock_guard<std::mutex> lock(recorder_.mutex);
  for (const auto& [id, name] : recorder_.found) EXPECT_NE(id, 67) << "a former owner's signal got through";
}

}  // namespace
}  // namespace testing
}  // namespace zv_client
