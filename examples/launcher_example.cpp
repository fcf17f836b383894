// launcher_example: the whole life of a libzorvel client in one file.
//
//   Init -> StartBroadcast -> instances found -> ReadProfiles -> stored
//   profiles found -> Connect -> connection available -> StopBroadcast -> Stop
//
// How the threads are split, and why:
//  - The main thread runs a GLib main loop on the default main context. The
//    library has no loop of its own: its connect timer, its watch on the
//    daemon's bus name and the daemon's signals all run on that context.
//    Without a running loop nothing ever connects.
//  - A worker thread runs the scenario as plain top-to-bottom code. It calls
//    the Launcher and then waits (with a deadline) for the callbacks to
//    report what it is waiting for. Waiting like that on the main thread
//    would block the very loop that delivers the callbacks.
//  - The callbacks run on the main-loop thread or on a command thread of the
//    library. They only record what happened and wake the worker; they never
//    block.
//
// Run it with the daemon on the system bus (or DBUS_SYSTEM_BUS_ADDRESS set to
// a bus where it runs). Without a daemon it gives up after 10 seconds with
// exit code 1.

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include <glib.h>

#include <zorvel/Launcher.h>

namespace {

constexpr auto kPatience = std::chrono::seconds(10);  // per step

// What the callbacks have reported so far, shared with the worker.
struct Reports {
  std::mutex mutex;
  std::condition_variable changed;
  std::map<int, std::string> found;  // every id seen, instance or profile
  int availableId = -1;
  bool available = false;

  // Waits until `done()` holds; false after kPatience without it.
  template <typename Predicate>
  bool WaitFor(Predicate done) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, kPatience, done);
  }
};

// The scenario; returns the process exit code.
int Run(Reports& reports) {
  // What the callbacks print next to a found id. Declared before the
  // Launcher: its callbacks may run until the Launcher is destroyed, so
  // everything they touch must outlive it.
  const char* phase = "broadcast";
  zv_client::zorvel::Launcher launcher;

  // Set the callbacks before Init: from Init on they may be called at any
  // time, on another thread.
  //
  // The instance-found callback has two sources: instances that a running
  // broadcast finds, and the stored profiles that ReadProfiles delivers one
  // by one. A broadcast reports each instance again at every round, so
  // remember what was seen and print each id once.
  launcher.SetOnInstanceFoundCallback([&reports, &phase](int id, const std::string& name) {
    std::lock_guard<std::mutex> lock(reports.mutex);
    if (reports.found.emplace(id, name).second) {
      // `name` is raw bytes from the daemon; printed as is here.
      std::printf("  found      id %-5d %s   (during %s)\n", id, name.c_str(), phase);
    }
    reports.changed.notify_all();
  });
  launcher.SetOnConnectionAvailable([&reports](int id, bool available) {
    std::lock_guard<std::mutex> lock(reports.mutex);
    std::printf("  connection id %-5d %s\n", id, available ? "available" : "not available");
    reports.availableId = id;
    reports.available = available;
    reports.changed.notify_all();
  });
  launcher.SetOnCancelConnectionCallback([](int status) { std::printf("  connection cancelled, status %d\n", status); });

  // Init only starts connecting (on the main loop, in the background). It
  // succeeds even while the daemon is absent: commands are held until the
  // daemon is there.
  if (launcher.Init() != 0) {
    std::fprintf(stderr, "Init failed\n");
    return 1;
  }
  std::printf("Init done\n");

  // Commands return at once; the daemon's replies arrive as callbacks.
  launcher.StartBroadcast(false);
  std::printf("StartBroadcast sent, waiting for instances...\n");
  if (!reports.WaitFor([&] { return !reports.found.empty(); })) {
    std::fprintf(stderr,
                 "No instance reported within %lld s: is the zorvel daemon running on the system bus "
                 "(DBUS_SYSTEM_BUS_ADDRESS)?\n",
                 static_cast<long long>(kPatience.count()));
    return 1;  // destroying the Launcher drops the held commands
  }
  // Give the broadcast a moment to report the other instances.
  std::this_thread::sleep_for(std::chrono::seconds(1));

  int target = 0;
  {
    std::lock_guard<std::mutex> lock(reports.mutex);
    target = reports.found.begin()->first;
    phase = "ReadProfiles";
  }

  // ReadProfiles returns an empty list at once; the stored profiles come
  // through the instance-found callback. The broadcast is still running, so
  // its instances keep coming too (already printed, so silent here).
  launcher.ReadProfiles();
  std::printf("ReadProfiles sent (stored profiles arrive as instance-found callbacks)\n");
  std::this_thread::sleep_for(std::chrono::seconds(1));

  // Connect to the first instance found; the answer is the
  // connection-available callback.
  launcher.Connect(target);
  std::printf("Connect(%d) sent, waiting for the connection...\n", target);
  if (!reports.WaitFor([&] { return reports.availableId == target; })) {
    std::fprintf(stderr, "No connection-available event for %d within %lld s\n", target,
                 static_cast<long long>(kPatience.count()));
    return 1;
  }

  // StopBroadcast and Stop wait for the daemon's answer. Note: after
  // StopBroadcast the library holds new commands until the daemon restarts,
  // so it comes last, before Stop (which is never held).
  std::printf("StopBroadcast -> %d\n", launcher.StopBroadcast());
  const int stopped = launcher.Stop();
  std::printf("Stop -> %d\n", stopped);
  return stopped == 0 ? 0 : 1;
}  // the Launcher is destroyed here, while the main loop still runs

gboolean QuitLoop(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_REMOVE;
}

}  // namespace

int main() {
  // Print each line as it is written, also into a pipe.
  setvbuf(stdout, nullptr, _IOLBF, 0);

  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);  // nullptr: the default main context
  Reports reports;
  int exitCode = 1;
  std::thread worker([&] {
    exitCode = Run(reports);
    // Quit from inside the loop (a g_main_loop_quit that came before
    // g_main_loop_run would be lost).
    g_idle_add(QuitLoop, loop);
  });
  g_main_loop_run(loop);
  worker.join();
  g_main_loop_unref(loop);
  return exitCode;
}
