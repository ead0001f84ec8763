// What systemd is told of a service of Type=notify; see sd_notify(3), whose protocol is one datagram.
#pragma once

#include <optional>
#include <string_view>

#include "runtime/vel/Types.h"

namespace Routing::Pim::Jpagent::Live {

/// "READY=1", "STOPPING=1", ...; several are separated by line ends. Does nothing without a NOTIFY_SOCKET.
void notifySystemd(std::string_view state);

/// How often "WATCHDOG=1" has to be said, in seconds, if this process is watched.
std::optional<Vel::Seconds> watchdogPeriod();

/// Gives up all capabilities but CAP_NET_RAW, for good. Throws std::system_error.
void keepOnlyNetRaw();

}  // namespace Routing::Pim::Jpagent::Live
