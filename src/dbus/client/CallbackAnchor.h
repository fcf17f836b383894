#pragma once

// Internal: the object that GLib registrations (name watcher, signal
// subscription, retry timer) receive as user data instead of the client.
// GLib may dispatch such a callback after the registration was removed, and
// frees the user data only later through the destroy notify, so the handle
// lives as long as GLib holds it, while the client may already be gone.

#include <memory>

#include <zorvel/common/ThreadAnnotations.h>

namespace zv_client {
namespace dbus {
namespace client {

class DBusClient;

namespace detail {

struct CallbackAnchor {
  // Held while a GLib callback is dispatched to the client, so that detaching
  // waits for it; recursive because a callback may run a nested main loop
  // iteration that dispatches another.
  common::RecursiveMutex dispatchMutex;
  DBusClient* client ZV_GUARDED_BY(dispatchMutex) = nullptr;  // null once the client detached
};

using CallbackHandle = std::shared_ptr<CallbackAnchor>;  // what the user data points to

// GLib passes a handle from the thread that registered it to the thread that
// runs the callback under its own futex-based locks, which ThreadSanitizer
// cannot see (GLib is not instrumented). These state that ordering for it;
// no-ops in other builds.
#if defined(__SANITIZE_THREAD__)
#define ZORVEL_TSAN_ANNOTATE 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZORVEL_TSAN_ANNOTATE 1
#endif
#endif
#if defined(ZORVEL_TSAN_ANNOTATE)
extern "C" void __tsan_acquire(void* address);
extern "C" void __tsan_release(void* address);
inline void PublishHandle(void* handle) { __tsan_release(handle); }
inline void ReceiveHandle(void* handle) { __tsan_acquire(handle); }
#else
inline void PublishHandle(void* /*handle*/) {}
inline void ReceiveHandle(void* /*handle*/) {}
#endif

// Enters a callback: the client stays alive until the scope ends, or is null.
class CallbackScope {
 public:
  explicit CallbackScope(void* handle) {
    if (handle == nullptr) return;
    ReceiveHandle(handle);
    // A copy: the callback may remove its own registration, and with it the
    // handle, while it runs.
    anchor_ = *static_cast<CallbackHandle*>(handle);
    // Held until the scope ends. The analysis does not look into
    // constructors, and this is no scoped capability it could follow: the
    // lock is reached through the handle, which no annotation can name.
    anchor_->dispatchMutex.lock();
    client_ = anchor_->client;
  }
  ~CallbackScope() {
    if (anchor_) anchor_->dispatchMutex.unlock();
  }
  CallbackScope(const CallbackScope&) = delete;
  CallbackScope& operator=(const CallbackScope&) = delete;
  DBusClient* client() const { return client_; }

 private:
  CallbackHandle anchor_;  // its dispatch mutex held, when set
  DBusClient* client_ = nullptr;
};

}  // namespace detail
}  // namespace client
}  // namespace dbus
}  // namespace zv_client
