#include "BenchBus.h"

#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <exception>

#include <zorvel/dbus/client/ServiceContract.h>

#include "Report.h"
#include "Sides.h"

namespace zv_bench {

namespace support = zv_client::testing;

BenchBus::BenchBus(const Options& options, int errFd) {
  try {
    bus_ = support::StartBusDaemon("unix:tmpdir=/tmp", errFd,
                                   options.dbusDaemon.empty() ? support::kDbusDaemonProgram : options.dbusDaemon,
                                   options.busConfig.empty() ? support::kPrivateBusConfig : options.busConfig);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", bus_.address.c_str(), 1);
    daemon_ = support::SpawnChild({options.benchDaemon, "--address", bus_.address}, -1, errFd);
    control_ = support::OpenBusConnection(bus_.address);
  } catch (const std::exception& failure) {
    Fatal(failure.what());
  }
  const support::OwnersWait up = support::WaitForOwners(
      control_.get(), {DaemonControl::kName, zv_client::dbus::client::kBusName}, daemon_, std::chrono::seconds(20));
  if (!up.owned) Fatal("the benchmark daemon did not start (" + up.Why() + "; see processes.log)");
}

void BenchBus::Stop() {
  if (daemon_ < 0) return;
  DaemonControl(control_.get()).Quit();
  support::StopChild(daemon_, SIGTERM, std::chrono::seconds(5));
  daemon_ = -1;
  control_.reset();
  support::StopChild(bus_.pid, SIGTERM, std::chrono::seconds(5));
}

}  // namespace zv_bench
