#include <zorvel/SharedClient.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

#include <zorvel/common/ThreadAnnotations.h>
#include <zorvel/dbus/client/ClientInternals.h>
#include <zorvel/dbus/client/ServiceContract.h>
#include <zorvel/platform/Journal.h>

namespace zv_client {
namespace zorvel {
namespace detail {
namespace {

using dbus::client::DBusClientAsync;

// Matches the command layer's grace for the commands it accepted.
constexpr std::chrono::milliseconds kLeaseGrace{1000};

// Every copy of `client` is made and dropped under `mutex`, so its use count
// read under `mutex` is exact: 1 means that only the retiring thread holds it.
struct Slot {
  common::Mutex mutex;
  std::condition_variable released;
  std::shared_ptr<DBusClientAsync> client ZV_GUARDED_BY(mutex);

  // At exit (the library unloaded, or the process ending without the
  // application having destroyed its Launcher) the client left over goes
  // first, while everything it uses still exists.
  ~Slot() { client.reset(); }
};

// Built on first use, so after the contract's names that a client uses, and
// so destroyed before them.
Slot& TheSlot() {
  // Built first, the journal writer drains at exit after ~Slot has logged.
  platform::detail::PrepareJournalWriter();
  static Slot slot;
  return slot;
}

}  // namespace

ClientLease::~ClientLease() {
  if (!client_) return;
  Slot& slot = TheSlot();
  {
    common::MutexLock lock(slot.mutex);
    client_.reset();
  }
  slot.released.notify_all();
}

ClientLease LeaseClient() {
  Slot& slot = TheSlot();
  common::MutexLock lock(slot.mutex);
  return ClientLease(slot.client);
}

void InstallClient(std::unique_ptr<DBusClientAsync> client) {
  Slot& slot = TheSlot();
  std::shared_ptr<DBusClientAsync> retired(std::move(client));
  common::MutexLock lock(slot.mutex);
  slot.client.swap(retired);
  if (!retired) return;
  const auto unshared = [&] { return retired.use_count() == 1; };
  if (!slot.released.wait_for(lock.native(), kLeaseGrace, unshared)) {
    // A lease holder is in a call that does not return soon (a direct call
    // waits up to the D-Bus timeout): make it fail now.
    dbus::client::detail::ClientInternals::CancelCalls(*retired);
    slot.released.wait(lock.native(), unshared);
  }
  lock.unlock();
  retired.reset();
}

}  // namespace detail
}  // namespace zorvel
}  // namespace zv_client
