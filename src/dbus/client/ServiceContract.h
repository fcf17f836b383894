#pragma once

// Everything the library and the zorvel daemon agree on. No other source of
// the library spells these names.

#include <string>

namespace zv_client {
namespace dbus {
namespace client {

// Signals of kInterfaceName, in declaration order.
inline const std::string kSignalOnFound = "onFound";                              // (ayq)
inline const std::string kSignalOnCancel = "onCancel";                            // (ayqq)
inline const std::string kSignalOnConnectionAvailable = "onConnectionAvailable";  // (qq)
inline const std::string kSignalOnDbusClosing = "onDbusClosing";                  // (i)
inline const std::string kSignalOnVoiceGuideSay = "onVoiceGuideSay";              // (ay)
inline const std::string kSignalOnServiceShutdown = "onServiceShutdown";          // (i)

inline const std::string kBusName = "zorvel.dbus.service";
inline const std::string kObjectPath = "/zorvel/dbus/service";
inline const std::string kInterfaceName = "dbus.zorvel.Interface";

// Methods of kInterfaceName, in declaration order of the table the command
// layer builds. In/out: init ()->(i), startBroadcast (i)->(i),
// stopBroadcast ()->(i), connect (i)->(i), deinit ()->(i),
// readProfiles ()->(profile list), deleteStoredProfile (i)->(i).
inline const std::string kMethodInit = "init";
inline const std::string kMethodStartBroadcast = "startBroadcast";
inline const std::string kMethodStopBroadcast = "stopBroadcast";
inline const std::string kMethodConnect = "connect";
inline const std::string kMethodDeinit = "deinit";
inline const std::string kMethodReadProfiles = "readProfiles";
inline const std::string kMethodDeleteStoredProfile = "deleteStoredProfile";

}  // namespace client
}  // namespace dbus
}  // namespace zv_client
