#pragma once

// The simulated daemon: its process (SimProcess), its control surface
// (SimControl) and a stranger that speaks in the daemon's name (Impostor).

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <gio/gio.h>

#include <common/GLibPtr.h>

namespace zv_client {
namespace testing {

inline const std::string kSimBusName = "zorvel.sim";

using SimEntries = std::vector<std::pair<int, std::string>>;  // (id, name)

struct SimOptions {
  SimEntries profiles;                      // --profile ID:NAME
  SimEntries instances;                     // --instance ID:NAME; empty: the sim's own defaults
  unsigned intervalMs = 0;                  // --interval; 0: the sim's default
  std::vector<std::string> extraArguments;  // anything else, as is
};

// zorvel-sim as a child process. Quiet unless ZORVEL_TEST_SIM_VERBOSE is set.
// The process dies with the thread that started it: start it from the test's
// own thread, not from a short-lived helper thread.
class SimProcess {
 public:
  explicit SimProcess(SimOptions options = {});  // starts it
  ~SimProcess();                                 // stops it
  SimProcess(const SimProcess&) = delete;
  SimProcess& operator=(const SimProcess&) = delete;

  // Starts a new process (also after Kill or Stop) and waits until it owns
  // both kSimBusName and the daemon's name; false (with a test failure) if not.
  bool Start();
  // SIGKILL / SIGTERM, reaps the process and waits until its names are gone.
  void Kill();
  // Returns the exit status (128 + signal when killed by one), -1 if not running.
  int Stop();

  bool Running() const { return pid_ > 0; }
  pid_t Pid() const { return pid_; }

 private:
  int Terminate(int signal);

  SimOptions options_;
  pid_t pid_ = -1;
};

struct SimCall {
  std::uint64_t seq = 0;
  std::string method;
  std::string sender;
  common::GVariantPtr args;  // the arguments tuple
};

// Synchronous client of the sim's control surface, over a connection of its
// own. A failing control call is a test failure; its result is then empty.
// A GVariant* `body` is borrowed, or consumed when floating (as g_variant_new
// does); null stands for an empty body.
class SimControl {
 public:
  SimControl();

  void Emit(const std::string& member, GVariant* body);
  // Emitted by the control connection, which does not own the daemon's name;
  // "" broadcasts, anything else is unicast to that bus name.
  void EmitAs(const std::string& member, GVariant* body, const std::string& destination = "");
  void SetAnswer(const std::string& method, int value);
  void SetReply(const std::string& method, GVariant* body);
  void ClearReply(const std::string& method);
  void SetDelay(const std::string& method, unsigned ms);
  void SetNoReply(const std::string& method, bool never = true);
  std::vector<SimCall> GetCalls();
  void ClearCalls();
  void ReleaseName();
  std::string AcquireName();  // the new owner
  std::string Restart();      // the new owner
  std::string GetOwner();
  void SetProfiles(const SimEntries& profiles);
  SimEntries GetProfiles();
  void SetInstances(const SimEntries& instances);
  void SetInterval(unsigned ms);
  void Quit();

  std::vector<SimCall> CallsOf(const std::string& method);
  // Waits until the sim has received `method` at least `count` times.
  bool WaitForCall(const std::string& method, std::size_t count = 1,
                   std::chrono::milliseconds deadline = std::chrono::seconds(20));

  GDBusConnection* connection() const { return connection_.get(); }

 private:
  common::GVariantPtr Invoke(const char* method, GVariant* parameters, bool failureExpected = false);

  common::GObjectPtr<GDBusConnection> connection_;
};

// An extra connection that emits signals on the daemon's object path and
// interface without owning its name.
class Impostor {
 public:
  Impostor();
  std::string UniqueName() const;
  // `body` as for SimControl; "" broadcasts. True once the bus took it.
  bool Emit(const std::string& member, GVariant* body, const std::string& destination = "");

 private:
  common::GObjectPtr<GDBusConnection> connection_;
};

}  // namespace testing
}  // namespace zv_client
