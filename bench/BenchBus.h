#pragma once

// A private bus with zorvel-bench-daemon on it, started with the harness the
// tests use, and a connection of ours to the daemon's control surface. The
// benchmark has one for the whole run; each liveness child has its own.

#include <sys/types.h>

#include <string>

#include <gio/gio.h>

#include <zorvel/common/GLibPtr.h>

#include "Options.h"
#include "harness/Processes.h"

namespace zv_bench {

class BenchBus {
 public:
  // Starts the bus and the daemon and waits until the daemon owns its names,
  // or ends the run. Points DBUS_SYSTEM_BUS_ADDRESS at the bus, where the
  // library looks for the system bus: call it while this process has no other
  // thread. The helpers' complaints go to `errFd` unless it is -1.
  BenchBus(const Options& options, int errFd);
  ~BenchBus() { Stop(); }
  BenchBus(const BenchBus&) = delete;
  BenchBus& operator=(const BenchBus&) = delete;

  const std::string& address() const { return bus_.address; }
  pid_t busPid() const { return bus_.pid; }
  GDBusConnection* control() const { return control_.get(); }

  // Tells the daemon to quit and stops both; once.
  void Stop();

 private:
  zv_client::testing::BusDaemon bus_;
  pid_t daemon_ = -1;
  zv_client::common::GObjectPtr<GDBusConnection> control_;
};

}  // namespace zv_bench
