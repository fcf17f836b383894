#include "support/PrivateBus.h"

#include <signal.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include <zorvel/dbus/client/CallbackAnchor.h>

#include "harness/Processes.h"

namespace zv_client {
namespace testing {
namespace {

[[noreturn]] void Fatal(const std::string& message) {
  std::fprintf(stderr, "private bus: %s\n", message.c_str());
  std::abort();
}

// Without its bus no test can run: a failure here ends the program.
common::GObjectPtr<GDBusConnection> Open(const std::string& address) {
  try {
    return OpenBusConnection(address);
  } catch (const std::exception& error) {
    Fatal(error.what());
  }
}

class PrivateBus {
 public:
  static PrivateBus& Get() {
    static PrivateBus* const bus = new PrivateBus;  // outlives static destructors
    std::call_once(bus->started_, [] { bus->Start(); });
    return *bus;
  }

  const std::string& address() const { return address_; }

  void Stop() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (loop_ != nullptr) {
      // Quit from inside the loop: a quit before g_main_loop_run started would be lost.
      g_idle_add(
          [](gpointer loop) -> gboolean {
            g_main_loop_quit(static_cast<GMainLoop*>(loop));
            return G_SOURCE_REMOVE;
          },
          loop_);
      if (loopThread_.joinable()) loopThread_.join();
      g_main_loop_unref(std::exchange(loop_, nullptr));
    }
    StopDaemon(SIGTERM);
    rmdir(directory_.c_str());
  }

  // Kills the dbus-daemon and starts a new one at the same address.
  void Restart(const std::function<void()>& whileDown) {
    std::lock_guard<std::mutex> lock(mutex_);
    StopDaemon(SIGKILL);
    if (whileDown) whileDown();
    StartDaemon();
  }

  // SIGSTOP / SIGCONT to the dbus-daemon: a bus that accepts connections
  // but answers nothing until thawed.
  void Freeze(bool frozen) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (pid_ > 0) kill(pid_, frozen ? SIGSTOP : SIGCONT);
  }

  common::GObjectPtr<GDBusConnection> helper() {
    std::lock_guard<std::mutex> lock(mutex_);
    return common::GObjectPtr<GDBusConnection>(static_cast<GDBusConnection*>(g_object_ref(helper_.get())));
  }

 private:
  void Start() {
    char directory[] = "/tmp/zorvel-test-bus-XXXXXX";
    if (mkdtemp(directory) == nullptr) Fatal("mkdtemp failed");
    directory_ = directory;
    // A fixed path rather than a random one: a restarted bus must be found
    // where the old one was, as a system bus is.
    address_ = "unix:path=" + directory_ + "/bus";
    // Before GLib's first look at the system bus address.
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
    StartDaemon();
    loop_ = g_main_loop_new(g_main_context_default(), FALSE);
    loopThread_ = std::thread([this] { g_main_loop_run(loop_); });
  }

  void StartDaemon() {
    try {
      pid_ = StartBusDaemon(address_).pid;
    } catch (const std::exception& error) {
      Fatal(error.what());
    }
    helper_ = Open(address_);
  }

  void StopDaemon(int signal) {
    helper_.reset();
    if (pid_ <= 0) return;
    StopChild(pid_, signal, std::chrono::seconds(20));
    pid_ = -1;
  }

  std::once_flag started_;
  std::mutex mutex_;
  std::string directory_;
  std::string address_;
  pid_t pid_ = -1;                              // guarded by mutex_
  common::GObjectPtr<GDBusConnection> helper_;  // guarded by mutex_
  GMainLoop* loop_ = nullptr;
  std::thread loopThread_;
};

class BusEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { PrivateBus::Get(); }
  void TearDown() override { PrivateBus::Get().Stop(); }
};

[[maybe_unused]] const bool kEnvironmentRegistered = (::testing::AddGlobalTestEnvironment(new BusEnvironment), true);

}  // namespace

const std::string& BusAddress() { return PrivateBus::Get().address(); }

common::GObjectPtr<GDBusConnection> OpenBusConnection() { return Open(BusAddress()); }

void RestartBus(const std::function<void()>& whileDown) { PrivateBus::Get().Restart(whileDown); }

void FreezeBus(bool frozen) { PrivateBus::Get().Freeze(frozen); }

std::string NameOwner(const std::string& name) { return NameOwner(PrivateBus::Get().helper().get(), name); }

void RunOnMainLoop(const std::function<void()>& function) {
  struct Job {
    const std::function<void()>* function;
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
  } job{&function, {}, {}, false};
  PrivateBus::Get();
  dbus::client::detail::PublishHandle(&job);
  g_main_context_invoke(
      g_main_context_default(),
      [](gpointer data) -> gboolean {
        dbus::client::detail::ReceiveHandle(data);
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

}  // namespace testing
}  // namespace zv_client
