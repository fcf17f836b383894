#include "support/PrivateBus.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* address);
extern "C" void __tsan_release(void* address);
#endif

namespace zv_client {
namespace testing {
namespace {

[[noreturn]] void Fatal(const std::string& message) {
  std::fprintf(stderr, "private bus: %s\n", message.c_str());
  std::abort();
}

common::GObjectPtr<GDBusConnection> Open(const std::string& address) {
  GError* error = nullptr;
  GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
      address.c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, &error);
  if (connection == nullptr) Fatal(std::string("cannot connect to the private bus: ") + error->message);
  g_dbus_connection_set_exit_on_close(connection, FALSE);
  return common::GObjectPtr<GDBusConnection>(connection);
}

class PrivateBus {
 public:
  static PrivateBus& Get() {
    static PrivateBus* const bus = new PrivateBus;  // outlives static destructors
    std::call_once(bus->started_, [] { bus->Start(); });
    return *bus;
  }

  const std::string& address() const { return address_; }
  pid_t pid() const { return pid_; }

  void Stop() {
    std::lock_guard<std::mutex> lock(stopMutex_);
    if (pid_ <= 0) return;
    g_main_loop_quit(loop_);
    if (loopThread_.joinable()) loopThread_.join();
    g_main_loop_unref(loop_);
    systemBus_.reset();
    helper_.reset();
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
  }

  GDBusConnection* helper() const { return helper_.get(); }

 private:
  void Start() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) Fatal("pipe2 failed");
    pid_ = SpawnChild({ZORVEL_TEST_DBUS_DAEMON, "--config-file=" ZORVEL_TEST_BUS_CONFIG, "--nofork",
                       "--print-address=" + std::to_string(fds[1]), "--address=unix:tmpdir=/tmp"},
                      fds[1]);
    close(fds[1]);
    address_ = ReadLine(fds[0]);
    close(fds[0]);
    if (address_.empty()) Fatal("dbus-daemon printed no address");

    // Before GLib's first look at the system bus, which it never repeats.
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
    helper_ = Open(address_);
    // Keep GLib's singleton alive for the whole run, and keep it from
    // raising SIGTERM when the bus goes away at the end.
    GError* error = nullptr;
    systemBus_.reset(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error));
    if (!systemBus_) Fatal(std::string("system bus: ") + error->message);
    g_dbus_connection_set_exit_on_close(systemBus_.get(), FALSE);

    loop_ = g_main_loop_new(g_main_context_default(), FALSE);
    loopThread_ = std::thread([this] { g_main_loop_run(loop_); });
  }

  static std::string ReadLine(int fd) {
    std::string line;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < end) {
      pollfd entry{fd, POLLIN, 0};
      if (poll(&entry, 1, 100) <= 0) continue;
      char c = 0;
      if (read(fd, &c, 1) != 1) break;
      if (c == '\n') return line;
      line += c;
    }
    return {};
  }

  std::once_flag started_;
  std::mutex stopMutex_;
  std::string address_;
  pid_t pid_ = -1;
  common::GObjectPtr<GDBusConnection> helper_;
  common::GObjectPtr<GDBusConnection> systemBus_;
  GMainLoop* loop_ = nullptr;
  std::thread loopThread_;
};

class BusEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { PrivateBus::Get(); }
  void TearDown() override { PrivateBus::Get().Stop(); }
};

[[maybe_unused]] const bool kEnvironmentRegistered =
    (::testing::AddGlobalTestEnvironment(new BusEnvironment), true);

}  // namespace

void PublishToGLib(const void* handle) {
#if defined(__SANITIZE_THREAD__)
  __tsan_release(const_cast<void*>(handle));
#else
  (void)handle;
#endif
}

void ReceiveFromGLib(const void* handle) {
#if defined(__SANITIZE_THREAD__)
  __tsan_acquire(const_cast<void*>(handle));
#else
  (void)handle;
#endif
}

const std::string& BusAddress() { return PrivateBus::Get().address(); }

pid_t BusDaemonPid() { return PrivateBus::Get().pid(); }

common::GObjectPtr<GDBusConnection> OpenBusConnection() { return Open(BusAddress()); }

std::string NameOwner(const std::string& name) {
  GVariant* reply = g_dbus_connection_call_sync(
      PrivateBus::Get().helper(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
      "GetNameOwner", g_variant_new("(s)", name.c_str()), G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE, -1,
      nullptr, nullptr);  // NameHasNoOwner is the error we expect when there is none
  if (reply == nullptr) return {};
  common::GVariantPtr owned(reply);
  const gchar* owner = nullptr;
  g_variant_get(reply, "(&s)", &owner);
  return owner;
}

void RunOnMainLoop(const std::function<void()>& function) {
  struct Job {
    const std::function<void()>* function;
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
  } job{&function, {}, {}, false};
  PrivateBus::Get();
  PublishToGLib(&job);
  g_main_context_invoke(
      g_main_context_default(),
      [](gpointer data) -> gboolean {
        ReceiveFromGLib(data);
        auto* pending = static_cast<Job*>(data);
        (*pending->function)();
        std::lock_guard<std::mutex> lock(pending->mutex);
        pending->finished = true;
        pending->done.notify_all();
        return G_SOURCE_REMOVE;
      },
      &job);
  std::unique_lock<std::mutex> lock(job.mutex);
  job.done.wait(lock, [&] { return job.finished; });
}

struct MainLoopPause::State {
  std::mutex mutex;
  std::condition_variable changed;
  bool parked = false;   // guarded by mutex
  bool resumed = false;  // guarded by mutex
};

MainLoopPause::MainLoopPause() : state_(std::make_shared<State>()) {
  PrivateBus::Get();
  auto* handle = new std::shared_ptr<State>(state_);
  PublishToGLib(handle);
  g_main_context_invoke_full(
      g_main_context_default(), G_PRIORITY_HIGH,
      [](gpointer data) -> gboolean {
        ReceiveFromGLib(data);
        State& state = **static_cast<std::shared_ptr<State>*>(data);
        std::unique_lock<std::mutex> lock(state.mutex);
        state.parked = true;
        state.changed.notify_all();
        state.changed.wait(lock, [&] { return state.resumed; });
        return G_SOURCE_REMOVE;
      },
      handle, [](gpointer data) { delete static_cast<std::shared_ptr<State>*>(data); });
  std::unique_lock<std::mutex> lock(state_->mutex);
  state_->changed.wait(lock, [&] { return state_->parked; });
}

void MainLoopPause::Resume() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->resumed = true;
  state_->changed.notify_all();
}

std::vector<pid_t> ChildProcesses() {
  std::vector<pid_t> children;
  const pid_t self = getpid();
  const pid_t bus = PrivateBus::Get().pid();
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return children;
  while (const dirent* entry = readdir(proc)) {
    const pid_t pid = static_cast<pid_t>(std::atoi(entry->d_name));
    if (pid <= 0 || pid == bus) continue;
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    const auto close = text.rfind(')');  // the command name may hold anything
    if (close == std::string::npos) continue;
    char state = 0;
    int ppid = 0;
    if (std::sscanf(text.c_str() + close + 1, " %c %d", &state, &ppid) == 2 && ppid == self) {
      children.push_back(pid);
    }
  }
  closedir(proc);
  return children;
}

pid_t SpawnChild(const std::vector<std::string>& argv, int keepFd) {
  // Everything the child needs is built before fork: after it, in a process
  // with threads, only async-signal-safe calls are allowed.
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    if (keepFd >= 0) fcntl(keepFd, F_SETFD, 0);
    execv(args[0], args.data());
    _exit(127);
  }
  if (pid < 0) Fatal("fork failed");
  return pid;
}

}  // namespace testing
}  // namespace zv_client
