#include "harness/Processes.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <thread>

#include <zorvel/common/BusConnection.h>

namespace zv_client {
namespace testing {

const char* const kDbusDaemonProgram = ZORVEL_DBUS_DAEMON_PROGRAM;
const char* const kPrivateBusConfig = ZORVEL_PRIVATE_BUS_CONFIG;

namespace {

using Clock = std::chrono::steady_clock;

int ExitCode(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

// One line from `fd`, without its line feed; "" at end of file, on an error
// or when `deadline` passes first.
std::string ReadLine(int fd, Clock::time_point deadline) {
  std::string line;
  while (Clock::now() < deadline) {
    pollfd entry{fd, POLLIN, 0};
    const int ready = poll(&entry, 1, 100);
    if (ready < 0 && errno != EINTR) return {};
    if (ready <= 0) continue;
    char c = 0;
    if (read(fd, &c, 1) != 1) return {};  // the writer went away
    if (c == '\n') return line;
    line += c;
  }
  return {};
}

}  // namespace

pid_t SpawnChild(const std::vector<std::string>& argv, int keepFd, int errFd) {
  // Everything the child needs is built before fork: after it, in a process
  // with threads, only async-signal-safe calls are allowed.
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);  // the parent is already gone
    if (keepFd >= 0) fcntl(keepFd, F_SETFD, 0);
    if (errFd >= 0) dup2(errFd, 2);
    execv(args[0], args.data());
    _exit(127);
  }
  if (pid < 0) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
  return pid;
}

int StopChild(pid_t pid, int signal, std::chrono::milliseconds grace, bool* forced) {
  if (forced != nullptr) *forced = false;
  kill(pid, signal);
  int status = 0;
  const Clock::time_point deadline = Clock::now() + grace;
  for (pid_t reaped; (reaped = waitpid(pid, &status, WNOHANG)) != pid;) {
    if (reaped < 0 && errno == ECHILD) return -1;  // not a child of ours (any more)
    if (Clock::now() >= deadline) {
      if (forced != nullptr) *forced = true;
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return ExitCode(status);
}

BusDaemon StartBusDaemon(const std::string& listenAddress, int errFd, const std::string& program,
                         const std::string& config) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error(std::string("pipe2: ") + std::strerror(errno));
  BusDaemon bus;
  try {
    bus.pid = SpawnChild({program, "--config-file=" + config, "--nofork", "--print-address=" + std::to_string(fds[1]),
                          "--address=" + listenAddress},
                         fds[1], errFd);
  } catch (...) {
    close(fds[0]);
    close(fds[1]);
    throw;
  }
  close(fds[1]);  // so that the read below sees end of file if the daemon dies
  bus.address = ReadLine(fds[0], Clock::now() + std::chrono::seconds(20));
  close(fds[0]);
  if (bus.address.empty()) {
    StopChild(bus.pid, SIGKILL, std::chrono::seconds(5));
    throw std::runtime_error(program + " printed no address");
  }
  return bus;
}

common::GObjectPtr<GDBusConnection> OpenBusConnection(const std::string& address) {
  GError* raw = nullptr;
  common::GObjectPtr<GDBusConnection> connection = common::OpenPrivateBusConnection(address, &raw);
  const common::GErrorPtr error(raw);
  if (!connection) throw std::runtime_error("cannot connect to " + address + ": " + error->message);
  return connection;
}

std::string NameOwner(GDBusConnection* connection, const std::string& name) {
  // NameHasNoOwner is the error expected when there is none: not reported.
  GVariant* reply = g_dbus_connection_call_sync(
      connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetNameOwner",
      g_variant_new("(s)", name.c_str()), G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  if (reply == nullptr) return {};
  const common::GVariantPtr owned(reply);
  const gchar* owner = nullptr;
  g_variant_get(reply, "(&s)", &owner);
  return owner;
}

std::string OwnersWait::Why() const {
  if (owned) return {};
  if (exited) return "exited with status " + std::to_string(status);
  return "timed out";
}

OwnersWait WaitForOwners(GDBusConnection* connection, const std::vector<std::string>& names, pid_t child,
                         std::chrono::milliseconds deadline) {
  OwnersWait wait;
  const Clock::time_point end = Clock::now() + deadline;
  for (;;) {
    int status = 0;
    if (child > 0 && waitpid(child, &status, WNOHANG) == child) {
      wait.exited = true;
      wait.status = ExitCode(status);
      return wait;
    }
    bool all = true;
    for (const std::string& name : names) {
      if (NameOwner(connection, name).empty()) {
        all = false;
        break;
      }
    }
    if (all) {
      wait.owned = true;
      return wait;
    }
    if (Clock::now() >= end) return wait;
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
  }
}

}  // namespace testing
}  // namespace zv_client
