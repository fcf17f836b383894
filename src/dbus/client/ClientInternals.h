#pragma once

// Internal: what the library's own code (the owner of the shared client, the
// tests) may do to a client beyond its public interface. Not installed.

#include <string>

#include <zorvel/common/ThreadAnnotations.h>
#include <zorvel/dbus/client/DBusClient.h>

namespace zv_client {
namespace dbus {
namespace client {
namespace detail {

struct ClientInternals {
  // The process-wide lock held while a signal handler runs: whoever calls the
  // application from elsewhere takes it too, so no two callbacks overlap.
  // Recursive: a callback may cause another on its own thread.
  static common::RecursiveMutex& ApplicationCallbackMutex();
  // The base class's own synchronous call, with why it failed (see there).
  static bool Call(DBusClient& client, const std::string& method, GVariant* params, GVariant** result, int timeout,
                   common::GErrorPtr& error);
  // Fails every call of `client` in flight, and every later one, at once.
  static void CancelCalls(DBusClient& client);
  // The unique bus name of the client's own connection, "" when none is open.
  static std::string UniqueName(const DBusClient& client);
};

}  // namespace detail
}  // namespace client
}  // namespace dbus
}  // namespace zv_client
