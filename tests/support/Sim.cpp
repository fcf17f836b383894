#include "support/Sim.h"

#include <cstdlib>

#include <gtest/gtest.h>

#include <zorvel/dbus/client/ServiceContract.h>

#include "harness/Processes.h"
#include "support/PrivateBus.h"
#include "support/Wait.h"

namespace zv_client {
namespace testing {
namespace {

using dbus::client::kBusName;
const std::string kSimBusName = "zorvel.sim";

GVariant* EntriesToVariant(const SimEntries& entries) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a(is)"));
  for (const auto& [id, name] : entries) g_variant_builder_add(&builder, "(is)", id, name.c_str());
  return g_variant_builder_end(&builder);
}

// An empty array of variants stands for an empty body on the control surface.
GVariant* BodyOrEmpty(GVariant* body) {
  return body != nullptr ? body : g_variant_new_array(G_VARIANT_TYPE_VARIANT, nullptr, 0);
}

}  // namespace

SimProcess::SimProcess(SimOptions options) : options_(std::move(options)) { Start(); }

bool SimProcess::Start() {
  BusAddress();  // the child inherits DBUS_SYSTEM_BUS_ADDRESS
  std::vector<std::string> argv{ZORVEL_TEST_SIM_PATH};
  if (std::getenv("ZORVEL_TEST_SIM_VERBOSE") == nullptr) argv.push_back("--quiet");
  for (const auto& [id, name] : options_.profiles)
    argv.insert(argv.end(), {"--profile", std::to_string(id) + ":" + name});
  for (const auto& [id, name] : options_.instances)
    argv.insert(argv.end(), {"--instance", std::to_string(id) + ":" + name});
  if (options_.intervalMs != 0) argv.insert(argv.end(), {"--interval", std::to_string(options_.intervalMs)});
  pid_ = SpawnChild(argv);

  const OwnersWait wait =
      WaitForOwners(OpenBusConnection().get(), {kSimBusName, kBusName}, pid_, std::chrono::seconds(20));
  if (!wait.owned) {
    ADD_FAILURE() << "zorvel-sim (" << argv[0] << ") did not come up (" << wait.Why() << ")";
    if (wait.exited) pid_ = -1;
    return false;
  }
  return true;
}

int SimProcess::Terminate(int signal) {
  if (!Running()) return -1;
  const std::string owners[] = {NameOwner(kSimBusName), NameOwner(kBusName)};
  bool forced = false;
  const int status = StopChild(pid_, signal, std::chrono::seconds(20), &forced);
  if (forced) ADD_FAILURE() << "zorvel-sim ignored signal " << signal;
  pid_ = -1;
  // The bus drops a dead peer's names a little after the process is gone.
  const bool gone = WaitUntil([&] {
    return (owners[0].empty() || NameOwner(kSimBusName) != owners[0]) &&
           (owners[1].empty() || NameOwner(kBusName) != owners[1]);
  });
  EXPECT_TRUE(gone) << "the names of the dead zorvel-sim are still owned";
  return status;
}

SimControl::SimControl() : connection_(OpenBusConnection()) {}

common::GVariantPtr SimControl::Invoke(const char* method, GVariant* parameters) {
  GError* rawError = nullptr;
  GVariant* reply =
      g_dbus_connection_call_sync(connection_.get(), kSimBusName.c_str(), "/zorvel/sim", "zorvel.sim.Control", method,
                                  parameters, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &rawError);
  common::GErrorPtr error(rawError);
  if (reply == nullptr) ADD_FAILURE() << "zorvel.sim.Control." << method << " failed: " << error->message;
  return common::GVariantPtr(reply);
}

void SimControl::Emit(const std::string& member, GVariant* body) {
  Invoke("Emit", g_variant_new("(sv)", member.c_str(), BodyOrEmpty(body)));
}

void SimControl::EmitAs(const std::string& member, GVariant* body, const std::string& destination) {
  Invoke("EmitAs", g_variant_new("(svs)", member.c_str(), BodyOrEmpty(body), destination.c_str()));
}

void SimControl::SetAnswer(const std::string& method, int value) {
  Invoke("SetAnswer", g_variant_new("(si)", method.c_str(), value));
}

void SimControl::SetReply(const std::string& method, GVariant* body) {
  Invoke("SetReply", g_variant_new("(sv)", method.c_str(), BodyOrEmpty(body)));
}

void SimControl::SetError(const std::string& method, const std::string& name, const std::string& message) {
  Invoke("SetError", g_variant_new("(s(ss))", method.c_str(), name.c_str(), message.c_str()));
}

void SimControl::ClearReply(const std::string& method) { Invoke("ClearReply", g_variant_new("(s)", method.c_str())); }

void SimControl::SetDelay(const std::string& method, unsigned ms) {
  Invoke("SetDelay", g_variant_new("(su)", method.c_str(), ms));
}

void SimControl::SetNoReply(const std::string& method, bool never) {
  Invoke("SetNoReply", g_variant_new("(sb)", method.c_str(), never));
}

std::vector<SimCall> SimControl::GetCalls() {
  std::vector<SimCall> calls;
  const common::GVariantPtr reply = Invoke("GetCalls", nullptr);
  if (!reply || !g_variant_is_of_type(reply.get(), G_VARIANT_TYPE("(a(tssv))"))) return calls;
  GVariantIter* iter = nullptr;
  g_variant_get(reply.get(), "(a(tssv))", &iter);
  const gchar* method = nullptr;
  GVariant* args = nullptr;
  while (g_variant_iter_loop(iter, "(t&s&sv)", nullptr, &method, nullptr, &args)) {
    calls.push_back(SimCall{method, common::GVariantPtr(g_variant_ref(args))});
  }
  g_variant_iter_free(iter);
  return calls;
}

void SimControl::ReleaseName() { Invoke("ReleaseName", nullptr); }

namespace {
std::string StringOf(const common::GVariantPtr& reply) {
  if (!reply || !g_variant_is_of_type(reply.get(), G_VARIANT_TYPE("(s)"))) return {};
  const gchar* text = nullptr;
  g_variant_get(reply.get(), "(&s)", &text);
  return text;
}
}  // namespace

std::string SimControl::AcquireName() { return StringOf(Invoke("AcquireName", nullptr)); }

std::string SimControl::Restart() { return StringOf(Invoke("Restart", nullptr)); }

void SimControl::SetProfiles(const SimEntries& profiles) {
  Invoke("SetProfiles", g_variant_new("(@a(is))", EntriesToVariant(profiles)));
}

void SimControl::SetInstances(const SimEntries& instances) {
  Invoke("SetInstances", g_variant_new("(@a(is))", EntriesToVariant(instances)));
}

void SimControl::SetInterval(unsigned ms) { Invoke("SetInterval", g_variant_new("(u)", ms)); }

std::vector<SimCall> SimControl::CallsOf(const std::string& method) {
  std::vector<SimCall> calls = GetCalls();
  std::vector<SimCall> matching;
  for (SimCall& call : calls) {
    if (call.method == method) matching.push_back(std::move(call));
  }
  return matching;
}

std::vector<std::string> SimControl::CallTexts() {
  std::vector<std::string> texts;
  for (const SimCall& call : GetCalls()) {
    const bool none = g_variant_n_children(call.args.get()) == 0;
    texts.push_back(call.method + (none ? "()" : common::GCharPtr(g_variant_print(call.args.get(), FALSE)).get()));
  }
  return texts;
}

bool SimControl::WaitForCall(const std::string& method, std::size_t count, std::chrono::milliseconds deadline) {
  return WaitUntil([&] { return CallsOf(method).size() >= count; }, deadline);
}

}  // namespace testing
}  // namespace zv_client
