// A thousand lifecycles of the library must leave no threads, descriptors, connections, match
// rules or memory behind.

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

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

// A count the bus keeps in its debug statistics, -1 when it does not tell.
long BusStat(const char* key) {
  common::GObjectPtr<GDBusConnection> asker = OpenBusConnection();
  common::GVariantPtr reply(g_dbus_connection_call_sync(
      asker.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.Debug.Stats", "GetStats",
      nullptr, G_VARIANT_TYPE("(a{sv})"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
  common::GVariantPtr stats(reply ? g_variant_get_child_value(reply.get(), 0) : nullptr);
  guint32 value = 0;
  if (!stats || !g_variant_lookup(stats.get(), key, "u", &value)) return -1;
  return static_cast<long>(value) - (std::string(key) == "ActiveConnections" ? 1 : 0);  // not the asker
}

using Resources = BusTest;

TEST_F(Resources, ThousandLifecyclesLeaveNothingBehind) {
  const long rules = BusStat("MatchRules"), connections = BusStat("ActiveConnections");
  ASSERT_GE(rules, 0) << "the bus does not report match rules";
  // One full cycle first puts GLib's one-time state (its worker thread) in the baseline.
  auto fullCycle = [&](int round) {
    zorvel::Launcher launcher;
    ASSERT_EQ(launcher.Init(), 0);
    const std::size_t before = control().CallsOf("deleteStoredProfile");
    launcher.DeleteStoredProfile(round);
    ASSERT_TRUE(control().WaitForCall("deleteStoredProfile", before + 1));
    EXPECT_GT(BusStat("MatchRules"), rules) << "a connected client shows no match rules: nothing is measured";
  };
  fullCycle(0);
  const std::size_t threads = Threads(), descriptors = Descriptors();
  [[maybe_unused]] const long resident = ResidentKb();
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
  EXPECT_TRUE(WaitUntil([&] { return BusStat("MatchRules") <= rules; }))
      << BusStat("MatchRules") << " match rules, " << rules << " before";
  // Sanitizers' shadow memory and valgrind's heap make RSS meaningless.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  const char* preload = std::getenv("LD_PRELOAD");
  if (preload == nullptr || std::strstr(preload, "vgpreload") == nullptr) {
    EXPECT_LT(ResidentKb() - resident, 8 * 1024) << "resident memory grew by " << ResidentKb() - resident << " kB";
  }
#endif
}

}  // namespace
}  // namespace zv_client::testing
