#pragma once

// The processes behind a private bus: a dbus-daemon of our own, children that
// die with the thread that started them, and waiting until a child owns its
// bus names. No GoogleTest here: the tests' support turns failures into test
// failures, the benchmark into its own messages. Each function says whether
// it throws (std::runtime_error) or returns what went wrong.

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include <gio/gio.h>

#include <zorvel/common/GLibPtr.h>

namespace zv_client {
namespace testing {

// Found when the project was configured.
extern const char* const kDbusDaemonProgram;
extern const char* const kPrivateBusConfig;  // data/private-bus.conf

// Forks and execs `argv` (argv[0] is the program path). The child gets
// SIGKILL when the thread that started it ends, so a crashed parent leaves
// nothing behind. `keepFd` stays open across exec; the child's stderr goes to
// `errFd` when that is not -1. Throws when fork fails.
pid_t SpawnChild(const std::vector<std::string>& argv, int keepFd = -1, int errFd = -1);

// Sends `signal` to the child `pid` and reaps it; SIGKILL follows if it has
// not ended after `grace` (then `forced` is set). Returns its exit code, or
// 128 + the signal that ended it; -1 when `pid` is no child of ours. A child
// reaped already must not be passed: its pid may belong to another process.
int StopChild(pid_t pid, int signal, std::chrono::milliseconds grace, bool* forced = nullptr);

struct BusDaemon {
  pid_t pid = -1;
  std::string address;  // as the daemon printed it: "unix:tmpdir=..." becomes a concrete address
};

// Starts a dbus-daemon in the foreground listening at `listenAddress` and
// returns once it listens. Its complaints go to `errFd` unless that is -1.
// Throws when it cannot be started or prints no address.
BusDaemon StartBusDaemon(const std::string& listenAddress, int errFd = -1,
                         const std::string& program = kDbusDaemonProgram,
                         const std::string& config = kPrivateBusConfig);

// A new private connection to the bus at `address`, not GLib's shared one
// (whose loss would end the process). Throws when it cannot be opened.
common::GObjectPtr<GDBusConnection> OpenBusConnection(const std::string& address);

// The unique name owning `name`, "" when it has none or the bus cannot say.
std::string NameOwner(GDBusConnection* connection, const std::string& name);

struct OwnersWait {
  bool owned = false;       // every name had an owner in time
  bool exited = false;      // the child ended first; it has been reaped
  int status = 0;           // its exit code, or 128 + signal, when it ended
  std::string Why() const;  // for messages: "" when owned
};

// Waits until every name in `names` has an owner, polling every few
// milliseconds, or until the child `child` (when > 0) ends, or `deadline`.
OwnersWait WaitForOwners(GDBusConnection* connection, const std::vector<std::string>& names, pid_t child,
                         std::chrono::milliseconds deadline);

}  // namespace testing
}  // namespace zv_client
