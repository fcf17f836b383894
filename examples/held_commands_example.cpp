// held_commands_example: commands issued while the daemon cannot be reached
// are held by the library and sent, oldest first, once the daemon's bus name
// has an owner again (a daemon that restarts, or one that starts after the
// application).
//
//   held_commands_example CONNECT_ID DELETE_ID
//
// issues Connect(CONNECT_ID), DeleteStoredProfile(DELETE_ID) and
// ReadProfiles() back to back, then waits up to 60 s for their results: the
// outcome of each (first "held", then the daemon's answer), the
// connection-available event, and the stored profiles, in which DELETE_ID no
// longer appears because the deletion reached the daemon before the read.
// Exit code 0 when all of that happened, 1 otherwise.
//
// Threads as in launcher_example.cpp: the main thread runs the GLib main loop
// that the library needs, a worker runs the scenario and waits for what the
// callbacks report.

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include <glib.h>

#include <zorvel/Launcher.h>

namespace {

using zv_client::zorvel::CommandId;
using zv_client::zorvel::CommandOutcome;
using zv_client::zorvel::CommandStatus;

constexpr auto kPatience = std::chrono::seconds(60);

struct Reports {
  std::mutex mutex;
  std::condition_variable changed;
  std::map<CommandId, CommandOutcome> ended;  // final outcomes, by command
  bool connected = false;
};

const char* StatusText(CommandStatus status) {
  switch (status) {
    case CommandStatus::kAnswered:
      return "answered";
    case CommandStatus::kFailed:
      return "failed";
    case CommandStatus::kTimedOut:
      return "timed out";
    case CommandStatus::kDroppedAsRepeat:
      return "dropped as a repeat";
    case CommandStatus::kHeld:
      return "held";
    case CommandStatus::kDiscarded:
      return "discarded";
    case CommandStatus::kNotStarted:
      return "not started";
  }
  return "?";
}

int Run(Reports& reports, int connectId, int deleteId) {
  zv_client::zorvel::Launcher launcher;
  launcher.SetOnInstanceFoundCallback(
      [](int id, const std::string& name) { std::printf("  stored profile id %-5d %s\n", id, name.c_str()); });
  launcher.SetOnConnectionAvailable([&reports, connectId](int id, bool available) {
    std::lock_guard<std::mutex> lock(reports.mutex);
    std::printf("  connection id %-5d %s\n", id, available ? "available" : "not available");
    // Events carry ids in 16 bits: a larger CONNECT_ID comes back cut to them.
    if (id == static_cast<std::uint16_t>(connectId) && available) reports.connected = true;
    reports.changed.notify_all();
  });
  // Each command is told here first as held, then once more when it ends.
  launcher.SetOnCommandOutcome([&reports](const CommandOutcome& outcome) {
    std::lock_guard<std::mutex> lock(reports.mutex);
    const std::string argument = outcome.argument ? std::to_string(*outcome.argument) : "";
    std::printf("  outcome #%llu %s(%s): %s", static_cast<unsigned long long>(outcome.id), outcome.method.c_str(),
                argument.c_str(), StatusText(outcome.status));
    if (outcome.status == CommandStatus::kAnswered && outcome.method == "readProfiles") {
      std::printf(", %zu profile(s)", outcome.profiles.size());
    } else if (outcome.status == CommandStatus::kAnswered) {
      std::printf(" %d", outcome.answer);
    } else if (!outcome.errorName.empty()) {
      std::printf(" (%s)", outcome.errorName.c_str());
    }
    std::printf("%s\n", outcome.wasHeld && outcome.final ? ", after being held" : "");
    if (outcome.final) reports.ended[outcome.id] = outcome;
    reports.changed.notify_all();
  });
  if (launcher.Init() != 0) return 1;

  // None of these waits for the daemon: each is accepted at once and held
  // until the library is connected. The library connects in the background
  // (first attempt after 500 ms, then every 500 ms while the daemon's name
  // has no owner).
  //
  // They reach the daemon in the order they were issued, each at most once.
  CommandId connect = 0, remove = 0, read = 0;
  launcher.Connect(connectId, &connect);
  std::printf("issued connect(%d)\n", connectId);
  launcher.DeleteStoredProfile(deleteId, &remove);
  std::printf("issued deleteStoredProfile(%d)\n", deleteId);
  launcher.ReadProfiles(&read);
  std::printf("issued readProfiles(); waiting for the daemon...\n");

  // The read's outcome carries the whole list: no need to guess when the
  // last stored profile has arrived.
  std::unique_lock<std::mutex> lock(reports.mutex);
  const bool done = reports.changed.wait_for(lock, kPatience, [&] {
    return reports.connected && reports.ended.count(remove) != 0 && reports.ended.count(read) != 0;
  });
  if (!done || reports.ended[read].status != CommandStatus::kAnswered) {
    std::fprintf(stderr, "the held commands did not complete within %lld s\n",
                 static_cast<long long>(kPatience.count()));
    return 1;
  }
  const CommandOutcome& deletion = reports.ended[remove];
  const auto& profiles = reports.ended[read].profiles;
  const bool gone = std::none_of(profiles.begin(), profiles.end(),
                                 [deleteId](const auto& profile) { return profile.id == deleteId; });
  const bool deleted = deletion.status == CommandStatus::kAnswered && deletion.answer == 0;
  std::printf("done: connected to %d; deleteStoredProfile(%d) answered %d; %zu stored profile(s), %d %s\n", connectId,
              deleteId, deletion.answer, profiles.size(), deleteId, gone ? "no longer among them" : "still among them");
  return deleted && gone ? 0 : 1;
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

  g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);
  Reports reports;
  int exitCode = 1;
  std::thread worker([&] {
    exitCode = Run(reports, std::atoi(argv[1]), std::atoi(argv[2]));
    g_idle_add(QuitLoop, loop);
  });
  g_main_loop_run(loop);
  worker.join();
  return exitCode;
}
