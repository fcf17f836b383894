// The library under load: daemon restarts while application threads issue commands,
// and a thousand lifecycles that must leave no threads, descriptors, match rules or memory.

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>

#include <dbus/client/DBusClientAsync.h>
#include <zorvel/Launcher.h>
#include <zorvel/LauncherTesting.h>

#include "support/BusTest.h"

namespace zv_client::testing {
namespace {

std::size_t Entries(const char* directory) {
  std::size_t count = 0;
  if (DIR* dir = opendir(directory)) {
    while (const dirent* entry = readdir(dir)) count += entry->d_name[0] != '.';
    closedir(dir);
  }
  return count;
}

std::size_t Threads() { return Entries("/proc/self/task"); }
std::size_t Descriptors() { return Entries("/proc/self/fd"); }

long ResidentKb() {
  std::ifstream statm("/proc/self/statm");
  long size = 0, resident = 0;
  statm >> size >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// A count the bus keeps in its debug statistics: of the whole bus, or of one
// connection when `connection` is given; -1 when the bus does not tell.
long BusStat(const char* key, const std::string& connection = "") {
  common::GObjectPtr<GDBusConnection> asker = OpenBusConnection();
  const bool whole = connection.empty();
  common::GVariantPtr reply(g_dbus_connection_call_sync(
      asker.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.Debug.Stats",
      whole ? "GetStats" : "GetConnectionStats", whole ? nullptr : g_variant_new("(s)", connection.c_str()),
      G_VARIANT_TYPE("(a{sv})"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
  if (!reply) return -1;
  common::GVariantPtr stats(g_variant_get_child_value(reply.get(), 0));
  guint32 value = 0;
  if (!g_variant_lookup(stats.get(), key, "u", &value)) return -1;
  return static_cast<long>(value) - (whole && std::string(key) == "ActiveConnections" ? 1 : 0);  // not the asker
}

class RestartStorm : public BusTest {
 protected:
  SimOptions SimArguments() const override { return {{{1, "one"}, {2, "two"}}, {}, 20}; }
};

TEST_F(RestartStorm, LeavesTheLibraryReadyWithEveryCommandAccountedFor) {
  const char* text = std::getenv("ZORVEL_STORM_RESTARTS");
  const int restarts = text != nullptr ? std::atoi(text) : 200;
  std::atomic<int> callbacks{0};
  zorvel::Launcher launcher;
  launcher.SetOnInstanceFoundCallback([&](int, const std::string&) { ++callbacks; });
  launcher.SetOnConnectionAvailable([&](int, bool) { ++callbacks; });
  ASSERT_EQ(launcher.Init(), 0);
  ASSERT_TRUE(logs().WaitFor("IpcReady [1]"));
  auto& client = dynamic_cast<dbus::client::DBusClientAsync&>(*zorvel::testing::CurrentClient());

  std::atomic<bool> stop{false};
  std::atomic<int> issued{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 random(static_cast<unsigned>(t));
      while (!stop) {
        // Each command is a thread until it ends: under ASan thousands exhaust the mappings.
        if (client.GetCounts().inFlight > 64) {
          std::this_thread::sleep_for(std::chrono::milliseconds(1));
          continue;
        }
        switch (random() % 5) {
          case 0: launcher.StartBroadcast(random() % 2 == 0); break;
          case 1:  // refused without a call while a connection is pending
            if (launcher.Connect(static_cast<int>(random() % 100)) != 0) continue;
            break;
          case 2: launcher.ReadProfiles(); break;
          case 3: launcher.DeleteStoredProfile(static_cast<int>(random() % 100)); break;
          default: std::this_thread::sleep_for(std::chrono::milliseconds(1)); continue;
        }
        ++issued;
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
      }
    });
  }

  for (int i = 1; i <= restarts; ++i) {
    if (i % 4 == 0) {  // a new process
      sim().Kill();
      ASSERT_TRUE(sim().Start());
    } else {  // a new owner from the same process
      control().Restart();
    }
    control().Emit("onConnectionAvailable", g_variant_new("(qq)", i, 1));
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();

  // Ready again: a fresh command reaches the daemon that is there now.
  const std::size_t connects = control().CallsOf("connect").size();
  launcher.StartBroadcast(false);
  launcher.Connect(4242);
  ASSERT_TRUE(control().WaitForCall("connect", connects + 1, std::chrono::seconds(30))) << "no command got through";

  dbus::client::DBusClientAsync::Counts counts;
  ASSERT_TRUE(WaitUntil([&] { return (counts = client.GetCounts()).inFlight == 0; }));
  EXPECT_EQ(counts.accepted, counts.ranAtOnce + counts.replayed + counts.droppedDuplicate + counts.discarded +
                                 counts.failed + counts.held);
  EXPECT_EQ(counts.accepted, static_cast<std::uint64_t>(issued) + 2);
  EXPECT_EQ(counts.failed, 0U);
  std::printf("storm: %d restarts, %llu commands (%llu replayed), %d callbacks\n", restarts,
              static_cast<unsigned long long>(counts.accepted), static_cast<unsigned long long>(counts.replayed),
              callbacks.load());
}

using Resources = BusTest;

TEST_F(Resources, ThousandLifecyclesLeaveNothingBehind) {
  // One full cycle first puts GLib's one-time state (shared connection, worker thread) in the baseline.
  auto fullCycle = [&](int round) {
    zorvel::Launcher launcher;
    ASSERT_EQ(launcher.Init(), 0);
    const std::size_t before = control().CallsOf("deleteStoredProfile").size();
    launcher.DeleteStoredProfile(round);
    ASSERT_TRUE(control().WaitForCall("deleteStoredProfile", before + 1));
    EXPECT_GT(BusStat("MatchRules", zorvel::testing::CurrentClientBusName()), 0)
        << "the bus reports no match rules for a connected client";
  };
  fullCycle(0);
  const std::size_t threads = Threads();
  const std::size_t descriptors = Descriptors();
  const long rules = BusStat("MatchRules"), connections = BusStat("ActiveConnections");
  ASSERT_GE(rules, 0) << "the bus does not report match rules";
  const long resident = ResidentKb();
  logs().SetKeepLines(false);

  for (int round = 1; round <= 1000; ++round) {
    if (round % 100 == 0) {  // connected, with a command that reaches the daemon
      fullCycle(round);
      continue;
    }
    zorvel::Launcher launcher;  // never connects: destroyed with its command held
    ASSERT_EQ(launcher.Init(), 0);
    launcher.StartBroadcast(round % 2 == 0);
  }

  // Detached command threads and unsubscriptions finish a moment later.
  EXPECT_TRUE(WaitUntil([&] { return Threads() <= threads; })) << Threads() << " threads, " << threads << " before";
  EXPECT_TRUE(WaitUntil([&] { return Descriptors() <= descriptors; }))
      << Descriptors() << " descriptors, " << descriptors << " before";
  EXPECT_TRUE(WaitUntil([&] { return BusStat("ActiveConnections") <= connections; }))
      << BusStat("ActiveConnections") << " connections, " << connections << " before";
  EXPECT_TRUE(WaitUntil([&] { return BusStat("MatchRules") <= rules; })) << BusStat("MatchRules") << " match rules, " << rules
                                                                 << " before";
  const long growth = ResidentKb() - resident;
  std::printf("resources: %zu threads, %zu fds, %ld match rules, rss %+ld kB\n", Threads(), Descriptors(),
              BusStat("MatchRules"), growth);
  // Sanitizers' shadow memory and valgrind's heap make RSS meaningless.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  const char* preload = std::getenv("LD_PRELOAD");
  if (preload == nullptr || std::strstr(preload, "vgpreload") == nullptr) {
    EXPECT_LT(growth, 8 * 1024) << "resident memory grew by " << growth << " kB";
  }
#endif
}

}  // namespace
}  // namespace zv_client::testing
