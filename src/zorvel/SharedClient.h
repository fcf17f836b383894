#pragma once

// Internal: the one client of the process, shared by every Launcher.

#include <memory>

#include <zorvel/dbus/client/DBusClientAsync.h>

namespace zv_client {
namespace zorvel {
namespace detail {

// A Launcher operation holds a lease on the client while it uses it, so that
// destroying a Launcher (or a second Init) on another thread cannot free the
// client under the call. Leases are short: an operation takes one for its
// own duration only.
class ClientLease {
 public:
  ClientLease() = default;
  explicit ClientLease(std::shared_ptr<dbus::client::DBusClientAsync> client) : client_(std::move(client)) {}
  ClientLease(ClientLease&&) = default;
  ClientLease& operator=(ClientLease&&) = delete;
  ~ClientLease();

  dbus::client::DBusClientAsync* get() const { return client_.get(); }
  dbus::client::DBusClientAsync* operator->() const { return client_.get(); }
  explicit operator bool() const { return client_ != nullptr; }

 private:
  std::shared_ptr<dbus::client::DBusClientAsync> client_;
};

// The installed client, or an empty lease when there is none.
ClientLease LeaseClient();

// Installs `client` (null: none) and then retires the one installed before:
// waits until no lease on it is left, cancelling its D-Bus calls in flight if
// that takes longer than the teardown grace period, and deletes it, which
// waits for the commands it accepted. Must not be called while the calling
// thread holds a lease or runs inside one of the client's callbacks.
void InstallClient(std::unique_ptr<dbus::client::DBusClientAsync> client);

}  // namespace detail
}  // namespace zorvel
}  // namespace zv_client
