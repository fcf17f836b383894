// A daemon that misbehaves and strangers that speak in its name: the library
// must log, drop what it cannot use, never crash, and keep working.

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <dbus/client/DBusClientAsync.h>
#include <zorvel/Launcher.h>
#include <zorvel/LauncherTesting.h>

#include "support/BusTest.h"

namespace zv_client {
namespace testing {
namespace {

using Found = std::pair<int, std::string>;

class HostileDaemon : public BusTest {
 protected:
  void SetUp() override {
    BusTest::SetUp();
    control().SetInstances({});  // a broadcast announces nothing: every onFound here is the test's own
    launcher_.SetOnInstanceFoundCallback([this](int id, const std::string& name) {
      std::lock_guard<std::mutex> lock(mutex_);
      found_.emplace_back(id, name);
    });
    launcher_.SetOnCancelConnectionCallback([this](int) { ++cancelled_; });
    launcher_.SetOnConnectionAvailable([this](int, bool) { ++available_; });
    ASSERT_EQ(launcher_.Init(), 0);
    ASSERT_TRUE(logs().WaitFor("IpcReady [1]")) << "the library never became ready";
  }
  std::vector<Found> FoundSoFar() {
    std::lock_guard<std::mutex> lock(mutex_);
    return found_;
  }
  // Issues one queued command and waits until the daemon has it, so that the
  // next one cannot overtake it (command threads race for the pool).
  template <typename Command>
  void Issue(const std::string& method, Command command) {
    const std::size_t before = control().CallsOf(method).size();
    command();
    ASSERT_TRUE(control().WaitForCall(method, before + 1)) << method << " never reached the daemon";
  }
  // After a daemon restart: a connect request reaches the daemon and its answer the application.
  void ExpectNextCommandWorks() {
    const std::size_t before = control().CallsOf("connect").size();
    const int events = available_;
    launcher_.StartBroadcast(false);  // clears the Connect guard
    EXPECT_EQ(launcher_.Connect(42), 0);
    EXPECT_TRUE(control().WaitForCall("connect", before + 1));
    EXPECT_TRUE(WaitUntil([&] { return available_ > events; }));
  }

  std::mutex mutex_;
  std::vector<Found> found_;
  std::atomic<int> cancelled_{0};
  std::atomic<int> available_{0};
  zorvel::Launcher launcher_;  // after what its callbacks touch
};

TEST_F(HostileDaemon, SurvivesRepliesOfTheWrongTypeToEveryMethod) {
  // readProfiles answering an integer, an empty body and a tuple whose count
  // is not a text payload; startBroadcast between them gets past the duplicate guard.
  for (GVariant* reply : {g_variant_new("(i)", 5), static_cast<GVariant*>(nullptr), g_variant_new("((i))", 1)}) {
    control().SetReply("readProfiles", reply);
    Issue("startBroadcast", [&] { launcher_.StartBroadcast(false); });
    Issue("readProfiles", [&] { launcher_.ReadProfiles(); });
  }
  EXPECT_TRUE(logs().WaitFor("Exception was raised from connectionManager. Please check sequence"));
  EXPECT_EQ(logs().Count("Read profiles size[0]"), 2u);  // one at a time: the first two are done
  EXPECT_TRUE(FoundSoFar().empty());

  // Integer methods answering a string or an empty body.
  for (const char* method : {"connect", "startBroadcast", "deleteStoredProfile"}) {
    control().SetReply(method, g_variant_new("(s)", "not a number"));
  }
  Issue("startBroadcast", [&] { launcher_.StartBroadcast(true); });
  Issue("connect", [&] { EXPECT_EQ(launcher_.Connect(3), 0); });
  Issue("deleteStoredProfile", [&] { EXPECT_EQ(launcher_.DeleteStoredProfile(3), 0); });
  control().SetReply("stopBroadcast", g_variant_new("(s)", "seven"));
  control().SetReply("deinit", nullptr);
  EXPECT_EQ(launcher_.Stop(), 0);
  EXPECT_EQ(launcher_.StopBroadcast(), 0);  // decodes nothing: 0

  for (const char* method : {"connect", "startBroadcast", "deleteStoredProfile", "readProfiles"}) {
    control().ClearReply(method);
  }
  control().Restart();  // StopBroadcast left the layer waiting for a new owner
  ExpectNextCommandWorks();
  Issue("readProfiles", [&] { launcher_.ReadProfiles(); });
  EXPECT_TRUE(logs().WaitFor("Read profiles size[", 3));
}

TEST_F(HostileDaemon, KeepsWorkingWhenRepliesNeverComeOrComeSlowly) {
  // A queued command never answered holds the next one back only for its own timeout.
  control().SetNoReply("init");
  auto& client = dynamic_cast<dbus::client::DBusClientAsync&>(*zorvel::testing::CurrentClient());
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

  // A direct call never answered fails after its own 500 ms, and readiness
  // waits for the daemon's restart.
  control().SetNoReply("stopBroadcast");
  EXPECT_EQ(launcher_.StopBroadcast(), -1);
  EXPECT_TRUE(logs().Contains("Failed to call D-Bus for Zorvel daemon, error = "));
  EXPECT_TRUE(logs().Contains("StopBroadcast failed with code [-1]"));
  control().Restart();
  ExpectNextCommandWorks();
}

TEST_F(HostileDaemon, DeliversHugeAndRawNamesAndSixteenBitIdsAndCopesWithTenThousandProfiles) {
  const std::string huge(1 << 20, 'x');
  const std::string binary("\xff\xfe\x00zorvel\x80", 10);  // NUL and not UTF-8
  control().Emit("onFound", common::SerializeIntoGVariant(huge, 1));
  control().Emit("onFound", common::SerializeIntoGVariant(binary, 2));
  ASSERT_TRUE(WaitUntil([&] { return FoundSoFar().size() == 2; }));
  EXPECT_EQ(FoundSoFar(), (std::vector<Found>{{1, huge}, {2, binary}}));

  // A D-Bus signature holds at most 255 characters, so one reply carries at
  // most 41 profiles ("((" + 83 times "(s)" + "))"). The longest list arrives
  // whole and in order, raw bytes included, each id in 16 bits: -5 as 65531.
  std::vector<common::SessionProfile> stored;
  std::vector<Found> expected = FoundSoFar();
  for (int id = 0; id < 41; ++id) stored.push_back({"profile " + std::to_string(id), 40 - id});
  stored[17].name = binary;
  stored[18].name = huge;
  stored[40].id = -5;
  for (const common::SessionProfile& profile : stored) expected.emplace_back(profile.id & 0xffff, profile.name);
  control().SetReply("readProfiles", common::ProfilesToVariant(stored));
  Issue("readProfiles", [&] { launcher_.ReadProfiles(); });
  ASSERT_TRUE(WaitUntil([&] { return FoundSoFar().size() == expected.size(); }));
  EXPECT_EQ(FoundSoFar(), expected);

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
  EXPECT_EQ(FoundSoFar().size(), expected.size());
  ExpectNextCommandWorks();
}

TEST_F(HostileDaemon, NeverPassesAStrangersSignalsToTheApplication) {
  Impostor impostor;
  common::GObjectPtr<GDBusConnection> systemBus(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
  ASSERT_TRUE(systemBus);
  const std::string application = g_dbus_connection_get_unique_name(systemBus.get());
  for (const std::string& destination : {std::string(), application}) {  // broadcast and unicast
    impostor.Emit("onFound", common::SerializeIntoGVariant("fake", 66), destination);
    impostor.Emit("onCancel", common::ProfileWithStatusToVariant({"fake", 66}, 1), destination);
    impostor.Emit("onConnectionAvailable", g_variant_new("(qq)", 66, 1), destination);
    impostor.Emit("onDbusClosing", g_variant_new("(i)", 1), destination);
  }
  // A real signal after the fake ones: once it is in, the fakes would be too.
  control().Emit("onFound", common::SerializeIntoGVariant("real", 7));
  ASSERT_TRUE(WaitUntil([&] { return FoundSoFar().size() == 1; }));
  EXPECT_EQ(FoundSoFar(), (std::vector<Found>{{7, "real"}}));
  EXPECT_EQ(available_ + cancelled_, 0);
  EXPECT_FALSE(logs().Contains("onDbusClosing emitted"));

  // A stranger that owns the name while the daemon is away is, for that
  // time, the daemon; once it is gone, what it sends is ignored again.
  control().ReleaseName();
  common::GObjectPtr<GDBusConnection> claimer = OpenBusConnection();
  for (const auto& [call, args] : {std::make_pair("RequestName", g_variant_new("(su)", "zorvel.dbus.service", 4U)),
                                   std::make_pair("ReleaseName", g_variant_new("(s)", "zorvel.dbus.service"))}) {
    common::GVariantPtr answer(g_dbus_connection_call_sync(claimer.get(), "org.freedesktop.DBus",
                                                           "/org/freedesktop/DBus", "org.freedesktop.DBus", call, args,
                                                           G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
                                                           nullptr));
    ASSERT_TRUE(answer) << call;
  }
  control().AcquireName();
  ExpectNextCommandWorks();  // the library follows the daemon again
  g_dbus_connection_emit_signal(claimer.get(), nullptr, "/zorvel/dbus/service", "dbus.zorvel.Interface", "onFound",
                                common::SerializeIntoGVariant("former", 67), nullptr);
  g_dbus_connection_flush_sync(claimer.get(), nullptr, nullptr);
  control().Emit("onFound", common::SerializeIntoGVariant("real again", 8));
  ASSERT_TRUE(WaitUntil([&] { return FoundSoFar().size() >= 2; }));
  EXPECT_EQ(FoundSoFar(), (std::vector<Found>{{7, "real"}, {8, "real again"}}));
}

}  // namespace
}  // namespace testing
}  // namespace zv_client
