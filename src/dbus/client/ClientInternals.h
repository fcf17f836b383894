#pragma once

// Internal: what the library's own code (the owner of the shared client, the
// tests) may do to a client beyond its public interface. Not installed.

#include <string>

#include <dbus/client/DBusClient.h>

namespace zv_client {
namespace dbus {
namespace client {
namespace detail {

struct ClientInternals {
  // Fails every call of `client` in flight, and every later one, at once.
  static void CancelCalls(DBusClient& client);
  // The unique bus name of the client's own connection, "" when none is open.
  static std::string UniqueName(const DBusClient& client);
};

}  // namespace detail
}  // namespace client
}  // namespace dbus
}  // namespace zv_client
