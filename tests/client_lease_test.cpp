// Leases on the shared client against its replacement, without a bus (a client that was never
// connected opens nothing): a lease keeps its client alive, and the replacement deletes the old
// client only once the last lease on it went.

#include <optional>

#include <zorvel/SharedClient.h>

#include "support/Outcomes.h"

namespace zv_client::testing {
namespace {

using dbus::client::DBusClientAsync;
using namespace zorvel::detail;

TEST(ClientLease, ReplacementWaitsForTheLeasesOnTheOldClient) {
  HookCounts hooks;  // tells when and where a client's destructor begins
  auto first = std::make_unique<DBusClientAsync>(), second = std::make_unique<DBusClientAsync>();
  DBusClientAsync* const firstClient = first.get();
  DBusClientAsync* const secondClient = second.get();
  InstallClient(std::move(first));
  std::optional<ClientLease> lease(LeaseClient());
  EXPECT_EQ(lease->get(), firstClient);

  std::atomic<bool> installed{false};
  std::thread replacing([&] { InstallClient(std::move(second)), installed = true; });
  const std::thread::id replacer = replacing.get_id();
  EXPECT_TRUE(WaitUntil([&] { return LeaseClient().get() == secondClient; })) << "a new lease gets the new client";
  EXPECT_FALSE(installed || hooks.teardowns() > 0) << "the old client retired under a lease";
  lease.reset();
  // Failing here ends the program (a joinable thread goes) before anything the thread uses.
  ASSERT_TRUE(WaitUntil([&] { return installed.load(); })) << "the replacement never saw the lease go";
  replacing.join();
  EXPECT_EQ(hooks.teardowns(), 1);
  EXPECT_EQ(hooks.tornDownOn(), replacer) << "the replacement did not delete the old client";

  InstallClient(nullptr);
  EXPECT_EQ(hooks.teardowns(), 2);
  EXPECT_FALSE(LeaseClient()) << "a lease with no client installed";
}

}  // namespace
}  // namespace zv_client::testing
