// held_commands_example: commands issued while the daemon cannot be reached
// are held by the library and sent, oldest first, once the daemon's bus name
// has an owner again (a daemon that restarts, or one that starts after the
// application).
//
//   held_commands_example CONNECT_ID DELETE_ID
//
// issues Connect(CONNECT_ID), DeleteStoredProfile(DELETE_ID) and
// ReadProfiles() back to back, then waits up to 60 s for their results: the
// connection-available event, and the stored profiles, in which DELETE_ID no
// longer appears because the deletion reached the daemon before the read.
// Exit code 0 when all of that happened, 1 otherwise.
//
// Threads as in launcher_example.cpp: the main thread runs the GLib main loop
// that the library needs, a worker runs the scenario and waits for what the
// callbacks report.

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include <glib.h>

#include <zorvel/Launcher.h>

namespace {

constexpr auto kPatience = std::chrono::seconds(60);
// The stored profiles come one callback each, with no end marker: the list
// is taken as complete when no further profile came for this long.
constexpr auto kQuiet = std::chrono::milliseconds(500);

struct Reports {
  std::mutex mutex;
  std::condition_variable changed;
  std::map<int, std::string> profiles;
  std::chrono::steady_clock::time_point lastProfile;
  bool connected = false;
};

int Run(Reports& reports, int connectId, int deleteId) {
  zv_client::zorvel::Launcher launcher;
  launcher.SetOnInstanceFoundCallback([&reports](int id, const std::string& name) {
    std::lock_guard<std::mutex> lock(reports.mutex);
    std::printf("  stored profile id %-5d %s\n", id, name.c_str());
    reports.profiles[id] = name;
    reports.lastProfile = std::chrono::steady_clock::now();
    reports.changed.notify_all();
  });
  launcher.SetOnConnectionAvailable([&reports, connectId](int id, bool available) {
    std::lock_guard<std::mutex> lock(reports.mutex);
    std::printf("  connection id %-5d %s\n", id, available ? "available" : "not available");
    if (id == connectId && available) reports.connected = true;
    reports.changed.notify_all();
  });
  if (launcher.Init() != 0) return 1;

  // None of these waits for the daemon: each is accepted at once and held
  // until the library is connected. The library connects in the background
  // (first attempt after 500 ms, then every 500 ms while the daemon's name
  // has no owner).
  //
  // They reach the daemon in the order they were issued, each at most once.
  launcher.Connect(connectId);
  std::printf("issued connect(%d)\n", connectId);
  launcher.DeleteStoredProfile(deleteId);
  std::printf("issued deleteStoredProfile(%d)\n", deleteId);
  launcher.ReadProfiles();
  std::printf("issued readProfiles(); waiting for the daemon...\n");

  std::unique_lock<std::mutex> lock(reports.mutex);
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  const bool connected = reports.changed.wait_until(lock, deadline, [&] { return reports.connected; });
  // Then until the profile list is complete.
  while (connected && std::chrono::steady_clock::now() < deadline) {
    const auto quietEnd = reports.lastProfile + kQuiet;
    if (!reports.profiles.empty() && std::chrono::steady_clock::now() >= quietEnd) break;
    reports.changed.wait_until(lock, reports.profiles.empty() ? deadline : quietEnd);
  }
  if (!connected || reports.profiles.empty()) {
    std::fprintf(stderr, "the held commands did not complete within %lld s\n",
                 static_cast<long long>(kPatience.count()));
    return 1;
  }
  const bool deleted = reports.profiles.count(deleteId) == 0;
  std::printf("done: connected to %d; %zu stored profile(s), %d %s\n", connectId, reports.profiles.size(), deleteId,
              deleted ? "no longer among them" : "still among them");
  return deleted ? 0 : 1;
}

gboolean QuitLoop(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_REMOVE;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s CONNECT_ID DELETE_ID\n", argv[0]);
    return 2;
  }
  setvbuf(stdout, nullptr, _IOLBF, 0);

  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  Reports reports;
  int exitCode = 1;
  std::thread worker([&] {
    exitCode = Run(reports, std::atoi(argv[1]), std::atoi(argv[2]));
    g_idle_add(QuitLoop, loop);
  });
  g_main_loop_run(loop);
  worker.join();
  g_main_loop_unref(loop);
  return exitCode;
}
