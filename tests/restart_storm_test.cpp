// The daemon restarts over and over (a new owner of its name from the same
// process, and a new process) while application threads issue commands and
// the daemon emits signals. Afterwards the library must be ready again, a
// command must reach the daemon, and every accepted command must be
// accounted for.

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <dbus/client/DBusClientAsync.h>
#include <zorvel/Launcher.h>
#include <zorvel/LauncherTesting.h>

#include "support/BusTest.h"

namespace zv_client {
namespace testing {
namespace {

int EnvOr(const char* name, int fallback) {
  const char* value = std::getenv(name);
  return value != nullptr ? std::atoi(value) : fallback;
}

class RestartStorm : public BusTest {
 protected:
  SimOptions SimArguments() const override { return {{{1, "one"}, {2, "two"}}, {}, 20, {}}; }
};

TEST_F(RestartStorm, LeavesTheLibraryReadyWithEveryCommandAccountedFor) {
  const int restarts = EnvOr("ZORVEL_STORM_RESTARTS", 200);
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
        // Every command is a thread until it ends; like a sane application,
        // do not pile up thousands of them while the daemon is away (under
        // ASan that alone exhausts the process's memory mappings).
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

  const auto started = std::chrono::steady_clock::now();
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
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

  // Ready again: a fresh command reaches the daemon that is there now.
  control().ClearCalls();
  launcher.StartBroadcast(false);
  launcher.Connect(4242);
  ASSERT_TRUE(control().WaitForCall("connect", 1, std::chrono::seconds(30))) << "no command got through";

  dbus::client::DBusClientAsync::Counts counts;
  ASSERT_TRUE(WaitUntil([&] {
    counts = client.GetCounts();
    return counts.inFlight == 0;
  }));
  EXPECT_EQ(counts.accepted, counts.ranAtOnce + counts.replayed + counts.droppedDuplicate + counts.discarded +
                                 counts.failed + counts.held);
  EXPECT_EQ(counts.accepted, static_cast<std::uint64_t>(issued) + 2);
  EXPECT_EQ(counts.failed, 0U);
  std::printf(
      "storm: %d restarts in %.1f s, %llu commands: %llu ran, %llu replayed, %llu duplicates, %llu discarded, "
      "%llu held, %d callbacks\n",
      restarts, seconds, static_cast<unsigned long long>(counts.accepted),
      static_cast<unsigned long long>(counts.ranAtOnce), static_cast<unsigned long long>(counts.replayed),
      static_cast<unsigned long long>(counts.droppedDuplicate), static_cast<unsigned long long>(counts.discarded),
      static_cast<unsigned long long>(counts.held), callbacks.load());
}

}  // namespace
}  // namespace testing
}  // namespace zv_client
