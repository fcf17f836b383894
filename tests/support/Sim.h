#pragma once

// The simulated daemon: its process (SimProcess) and its control surface (SimControl).

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <gio/gio.h>

#include <zorvel/common/GLibPtr.h>

namespace zv_client {
namespace testing {

using SimEntries = std::vector<std::pair<int, std::string>>;  // (id, name)

struct SimOptions {
  SimEntries profiles;      // --profile ID:NAME
  SimEntries instances;     // --instance ID:NAME; empty: the sim's own defaults
  unsigned intervalMs = 0;  // --interval; 0: the sim's default
};

// zorvel-sim as a child process (quiet unless ZORVEL_TEST_SIM_VERBOSE is set).
// It dies with the thread that started it: start it from the test's thread.
class SimProcess {
 public:
  explicit SimProcess(SimOptions options = {});  // starts it
  ~SimProcess() { Stop(); }
  SimProcess(const SimProcess&) = delete;
  SimProcess& operator=(const SimProcess&) = delete;

  // Starts a new process and waits until it owns the control and the daemon's
  // names; false (with a test failure) if not.
  bool Start();
  // SIGKILL / SIGTERM, reaps the process and waits until its names are gone.
  void Kill() { Terminate(SIGKILL); }
  // The exit status (128 + signal when killed by one), -1 if not running.
  int Stop() { return Terminate(SIGTERM); }
  bool Running() const { return pid_ > 0; }

 private:
  int Terminate(int signal);

  SimOptions options_;
  pid_t pid_ = -1;
};

// Synchronous client of the sim's control surface, over a connection of its
// own. A failing control call is a test failure. A GVariant* `body` is
// borrowed, or consumed when floating; null stands for an empty body.
class SimControl {
 public:
  SimControl();

  void Emit(const std::string& member, GVariant* body) { Send("Emit", "(sv)", member.c_str(), OrEmpty(body)); }
  // Emitted by a connection that does not own the daemon's name; "" broadcasts.
  void EmitAs(const std::string& member, GVariant* body, const std::string& destination = "") {
    Send("EmitAs", "(svs)", member.c_str(), OrEmpty(body), destination.c_str());
  }
  void SetAnswer(const std::string& method, int value) { Send("SetAnswer", "(si)", method.c_str(), value); }
  void SetReply(const std::string& method, GVariant* body) { Send("SetReply", "(sv)", method.c_str(), OrEmpty(body)); }
  void SetError(const std::string& method, const std::string& name, const std::string& message) {
    Send("SetError", "(s(ss))", method.c_str(), name.c_str(), message.c_str());
  }
  // And SetError.
  void ClearReply(const std::string& method) { Send("ClearReply", "(s)", method.c_str()); }
  void SetDelay(const std::string& method, unsigned ms) { Send("SetDelay", "(su)", method.c_str(), ms); }
  void SetNoReply(const std::string& method, bool never = true) { Send("SetNoReply", "(sb)", method.c_str(), never); }
  void ReleaseName() { Invoke("ReleaseName", nullptr); }
  void AcquireName() { Invoke("AcquireName", nullptr); }
  void Restart() { Invoke("Restart", nullptr); }  // the name passes to a new owner
  void SetProfiles(const SimEntries& profiles);
  void SetInstances(const SimEntries& instances);
  void SetInterval(unsigned ms) { Send("SetInterval", "(u)", ms); }

  std::vector<std::string> CallTexts();            // "connect(7,)", "init()": every call, in order
  std::size_t CallsOf(const std::string& method);  // how many calls of `method` it received
  // Waits until the sim has received `method` at least `count` times.
  bool WaitForCall(const std::string& method, std::size_t count = 1,
                   std::chrono::milliseconds deadline = std::chrono::seconds(20));

 private:
  common::GVariantPtr Invoke(const char* method, GVariant* parameters);
  template <typename... Arguments>
  void Send(const char* method, const char* format, Arguments... arguments) {
    Invoke(method, g_variant_new(format, arguments...));
  }
  // An empty array of variants stands for an empty body on the control surface.
  static GVariant* OrEmpty(GVariant* body) {
    return body != nullptr ? body : g_variant_new_array(G_VARIANT_TYPE_VARIANT, nullptr, 0);
  }

  common::GObjectPtr<GDBusConnection> connection_;
};

}  // namespace testing
}  // namespace zv_client
