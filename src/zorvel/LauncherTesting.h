#pragma once

// Internal hooks for the test suite, fuzzers and benchmarks (linked against
// the object library, not exported from libzorvel.so).

#include <string>

#include <zorvel/dbus/client/DBusClient.h>

namespace zv_client {
namespace zorvel {
namespace testing {

// The client that Init installed, or null. Valid until the Launcher that
// installed it is destroyed or another Init replaces it.
dbus::client::DBusClient* CurrentClient();
// The unique bus name of that client's own connection, "" when there is none.
std::string CurrentClientBusName();

}  // namespace testing
}  // namespace zorvel
}  // namespace zv_client
