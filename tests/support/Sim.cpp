#include "support/Sim.h"

#include <algorithm>
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

// An a(is) of `entries`, floating.
GVariant* Entries(const SimEntries& entries) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a(is)"));
  for (const auto& [id, name] : entries) g_variant_builder_add(&builder, "(is)", id, name.c_str());
  return g_variant_builder_end(&builder);
}

}  // namespace

SimProcess::SimProcess(SimOptions options) : options_(std::move(options)) { Start(); }

bool SimProcess::Start() {
  BusAddress();  // the child inherits DBUS_SYSTEM_BUS_ADDRESS
  std::vector<std::string> argv{ZORVEL_TEST_SIM_PATH};
  if (std::getenv("ZORVEL_TEST_SIM_VERBOSE") == nullptr) argv.push_back("--quiet");
  for (const auto& [option, entries] :
       {std::make_pair("--profile", &options_.profiles), std::make_pair("--instance", &options_.instances)})
    for (const auto& [id, name] : *entries) argv.insert(argv.end(), {option, std::to_string(id) + ":" + name});
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

void SimControl::SetProfiles(const SimEntries& entries) { Send("SetProfiles", "(@a(is))", Entries(entries)); }

void SimControl::SetInstances(const SimEntries& entries) { Send("SetInstances", "(@a(is))", Entries(entries)); }

std::vector<std::string> SimControl::CallTexts() {
  std::vector<std::string> texts;
  const common::GVariantPtr reply = Invoke("GetCalls", nullptr);
  if (!reply || !g_variant_is_of_type(reply.get(), G_VARIANT_TYPE("(a(tssv))"))) return texts;
  GVariantIter* iter = nullptr;
  g_variant_get(reply.get(), "(a(tssv))", &iter);
  const gchar* method = nullptr;
  GVariant* args = nullptr;
  while (g_variant_iter_loop(iter, "(t&s&sv)", nullptr, &method, nullptr, &args))
    texts.push_back(method + (g_variant_n_children(args) == 0 ? std::string("()")
                                                              : common::GCharPtr(g_variant_print(args, FALSE)).get()));
  g_variant_iter_free(iter);
  return texts;
}

std::size_t SimControl::CallsOf(const std::string& method) {
  const std::vector<std::string> texts = CallTexts();
  return std::count_if(texts.begin(), texts.end(),
                       [&](const std::string& text) { return text.rfind(method + "(", 0) == 0; });
}

bool SimControl::WaitForCall(const std::string& method, std::size_t count, std::chrono::milliseconds deadline) {
  return WaitUntil([&] { return CallsOf(method) >= count; }, deadline);
}

}  // namespace testing
}  // namespace zv_client
