#pragma once

/// \file
/// \brief Everything the library and the zorvel daemon agree on: bus name,
/// object path, interface, methods and signals.
///
/// No other source of the library spells these names. The D-Bus
/// introspection XML of the interface is installed as
/// `<prefix>/share/dbus-1/interfaces/dbus.zorvel.Interface.xml`. The
/// signatures in the notes are the D-Bus payload types.

#include <string>

namespace zv_client {
namespace dbus {
namespace client {

/// \name Signals of kInterfaceName, in declaration order
///@{
inline const std::string kSignalOnFound = "onFound";                              ///< (ayq)
inline const std::string kSignalOnCancel = "onCancel";                            ///< (ayqq)
inline const std::string kSignalOnConnectionAvailable = "onConnectionAvailable";  ///< (qq)
inline const std::string kSignalOnDbusClosing = "onDbusClosing";                  ///< (i)
inline const std::string kSignalOnVoiceGuideSay = "onVoiceGuideSay";              ///< (ay)
inline const std::string kSignalOnServiceShutdown = "onServiceShutdown";          ///< (i)
///@}

/// The daemon's well-known name on the system bus.
inline const std::string kBusName = "zorvel.dbus.service";
/// The path of the daemon's object.
inline const std::string kObjectPath = "/zorvel/dbus/service";
/// The daemon's interface: its methods and signals.
inline const std::string kInterfaceName = "dbus.zorvel.Interface";

/// \name Methods of kInterfaceName
/// In declaration order of the table the command layer builds. In/out:
/// init ()->(i), startBroadcast (i)->(i), stopBroadcast ()->(i),
/// connect (i)->(i), deinit ()->(i), readProfiles ()->(profile list),
/// deleteStoredProfile (i)->(i).
///@{
inline const std::string kMethodInit = "init";                                ///< ()->(i)
inline const std::string kMethodStartBroadcast = "startBroadcast";            ///< (i)->(i)
inline const std::string kMethodStopBroadcast = "stopBroadcast";              ///< ()->(i)
inline const std::string kMethodConnect = "connect";                          ///< (i)->(i)
inline const std::string kMethodDeinit = "deinit";                            ///< ()->(i)
inline const std::string kMethodReadProfiles = "readProfiles";                ///< ()->(profile list)
inline const std::string kMethodDeleteStoredProfile = "deleteStoredProfile";  ///< (i)->(i)
///@}

}  // namespace client
}  // namespace dbus
}  // namespace zv_client
