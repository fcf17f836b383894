#pragma once

// Internal: not installed. Shared by the library and the project's own tools.

#include <string>

#include <gio/gio.h>

#include <zorvel/common/GLibPtr.h>

namespace zv_client {
namespace common {

// A connection of its own to the message bus at `address`: not GLib's shared
// one, whose loss would end the process. Exit-on-close is off. Null, with
// `error` set, when the bus cannot be reached or `cancellable` was cancelled.
// Blocks until the bus answered: never call it on a main loop.
inline GObjectPtr<GDBusConnection> OpenPrivateBusConnection(const std::string& address, GError** error,
                                                            GCancellable* cancellable = nullptr) {
  GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
      address.c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, cancellable, error);
  if (connection != nullptr) g_dbus_connection_set_exit_on_close(connection, FALSE);
  return GObjectPtr<GDBusConnection>(connection);
}

// The same to the system bus, at the address GLib would use for its shared
// connection (DBUS_SYSTEM_BUS_ADDRESS, else the default), which is written to
// `address` when it could be found.
inline GObjectPtr<GDBusConnection> OpenPrivateSystemBusConnection(std::string& address, GError** error,
                                                                  GCancellable* cancellable = nullptr) {
  const GCharPtr found(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, cancellable, error));
  if (!found) return GObjectPtr<GDBusConnection>();
  address = found.get();
  return OpenPrivateBusConnection(address, error, cancellable);
}

}  // namespace common
}  // namespace zv_client
