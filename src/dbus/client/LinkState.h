#pragma once

/// \file
/// \brief Where the link to the daemon stands: LinkState, LinkStatus and
/// their names. Launcher::SetOnLinkState reports them (as
/// zv_client::zorvel::LinkState and zv_client::zorvel::LinkStatus).

#include <string>

#include <zorvel/platform/Export.h>

namespace zv_client {
namespace dbus {
namespace client {

/// \brief Where the link to the daemon stands, as the application sees it:
/// why a command is held, if it is.
enum class LinkState {
  kConnecting,         ///< a connection to the daemon is being made
  kWaitingForDaemon,   ///< the bus is there, the daemon's name has no owner (or one that is going away)
  kBusUnreachable,     ///< the system bus cannot be reached: `busAddress`, `error`
  kReady,              ///< the daemon is ready: commands are sent
  kHeldUntilNewOwner,  ///< after StopBroadcast or the daemon's closing event, until its name changes owner
};

/// \brief One change of the link's state, with what a person needs to know
/// about it. Received by reference: valid during the callback only.
struct LinkStatus {
  LinkState state = LinkState::kConnecting;  ///< the new state
  std::string text;                          ///< for people: what the state means now
  std::string busAddress;                    ///< kBusUnreachable: the address tried ("" when none is known)
  std::string error;                         ///< kBusUnreachable: GLib's error message
};

/// \brief The state's name, as zorvelctl prints it: "connecting",
/// "waiting-for-daemon", "bus-unreachable", "ready", "held-until-new-owner".
///
/// Any thread.
/// \param state the state to name.
/// \return a static string owned by the library (never free it);
///         "unknown" for a value outside the enumeration.
ZORVEL_API const char* LinkStateName(LinkState state);

}  // namespace client
}  // namespace dbus
}  // namespace zv_client
