#pragma once

// Internal: the object that GLib registrations (name watcher, signal
// subscription, retry timer) receive as user data instead of the client.
// GLib may dispatch such a callback after the registration was removed, and
// frees the user data only later through the destroy notify, so the handle
// lives as long as GLib holds it, while the client may already be gone.

#include <memory>
#include <mutex>

namespace zv_client {
namespace dbus {
namespace client {

class DBusClient;

namespace detail {

struct CallbackAnchor {
  // Held while a GLib callback runs on the client; recursive because a
  // callback may run a nested main loop iteration that dispatches another.
  std::recursive_mutex mutex;
  DBusClient* client = nullptr;  // guarded by mutex; null once the client detached
};

using CallbackHandle = std::shared_ptr<CallbackAnchor>;  // what the user data points to

// Enters a callback: the client stays alive until the scope ends, or is null.
class CallbackScope {
 public:
  explicit CallbackScope(void* handle) {
    if (handle == nullptr) return;
    // A copy: the callback may remove its own registration, and with it the
    // handle, while it runs.
    anchor_ = *static_cast<CallbackHandle*>(handle);
    lock_ = std::unique_lock<std::recursive_mutex>(anchor_->mutex);
    client_ = anchor_->client;
  }
  DBusClient* client() const { return client_; }

 private:
  CallbackHandle anchor_;
  std::unique_lock<std::recursive_mutex> lock_;
  DBusClient* client_ = nullptr;
};

}  // namespace detail
}  // namespace client
}  // namespace dbus
}  // namespace zv_client
