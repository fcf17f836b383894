// Creating, using and destroying the library over and over must leave no
// threads, file descriptors, bus match rules or memory behind.

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include <zorvel/Launcher.h>

#include "support/BusTest.h"

namespace zv_client {
namespace testing {
namespace {

// Shadow memory, quarantines and valgrind's own heap make RSS meaningless.
bool MemoryIsInstrumented() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return true;
#else
  const char* preload = std::getenv("LD_PRELOAD");
  return preload != nullptr && std::strstr(preload, "vgpreload") != nullptr;
#endif
}

std::size_t Entries(const char* directory) {
  std::size_t count = 0;
  if (DIR* dir = opendir(directory)) {
    while (const dirent* entry = readdir(dir)) {
      if (entry->d_name[0] != '.') ++count;
    }
    closedir(dir);
  }
  return count;
}

std::size_t Threads() { return Entries("/proc/self/task"); }
std::size_t Descriptors() { return Entries("/proc/self/fd"); }

long ResidentKb() {
  std::ifstream statm("/proc/self/statm");
  long size = 0;
  long resident = 0;
  statm >> size >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// Match rules the bus holds for the library's connection (GLib's shared
// system-bus connection), asked of the bus itself.
long MatchRules() {
  common::GObjectPtr<GDBusConnection> bus(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
  common::GObjectPtr<GDBusConnection> asker = OpenBusConnection();
  common::GVariantPtr reply(g_dbus_connection_call_sync(
      asker.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.Debug.Stats",
      "GetConnectionStats", g_variant_new("(s)", g_dbus_connection_get_unique_name(bus.get())),
      G_VARIANT_TYPE("(a{sv})"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
  if (!reply) return -1;
  common::GVariantPtr stats(g_variant_get_child_value(reply.get(), 0));
  guint32 rules = 0;
  g_variant_lookup(stats.get(), "MatchRules", "u", &rules);
  return static_cast<long>(rules);
}

class Resources : public BusTest {};

TEST_F(Resources, ThousandLifecyclesLeaveNothingBehind) {
  // One full cycle first, so that GLib's one-time state (the shared bus
  // connection, its worker thread, type registrations) is in the baseline.
  auto fullCycle = [&](int round) {
    zorvel::Launcher launcher;
    ASSERT_EQ(launcher.Init(), 0);
    const std::size_t before = control().CallsOf("deleteStoredProfile").size();
    launcher.DeleteStoredProfile(round);
    ASSERT_TRUE(control().WaitForCall("deleteStoredProfile", before + 1));
    EXPECT_GT(MatchRules(), 0) << "the bus reports no match rules for a connected client";
  };
  fullCycle(0);
  const std::size_t threads = Threads();
  const std::size_t descriptors = Descriptors();
  const long rules = MatchRules();
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
  EXPECT_TRUE(WaitUntil([&] { return MatchRules() <= rules; })) << MatchRules() << " match rules, " << rules
                                                                 << " before";
  const long growth = ResidentKb() - resident;
  std::printf("resources: threads %zu -> %zu, fds %zu -> %zu, match rules %ld -> %ld, rss %+ld kB\n", threads,
              Threads(), descriptors, Descriptors(), rules, MatchRules(), growth);
  if (!MemoryIsInstrumented()) {
    EXPECT_LT(growth, 8 * 1024) << "resident memory grew by " << growth << " kB";
  }
}

}  // namespace
}  // namespace testing
}  // namespace zv_client
