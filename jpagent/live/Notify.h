// SPDX-License-Identifier: Apache-2.0
// What systemd is told: the state of a service of Type=notify (see sd_notify(3)) and lines for the journal.
// Both are a datagram each.
#pragma once

#include <optional>
#include <string_view>

#include "runtime/vel/Types.h"

namespace Routing::Pim::Jpagent::Live {

/// "READY=1", "STOPPING=1", ...; several are separated by line ends. Does nothing without a NOTIFY_SOCKET.
void notifySystemd(std::string_view state);

/// A line for the journal, with a priority of syslog(3). False if there is no journal.
bool writeToJournal(int priority, std::string_view line);

/// How often "WATCHDOG=1" has to be said, in seconds, if this process is watched.
std::optional<Vel::Seconds> watchdogPeriod();

/// Gives up all capabilities but CAP_NET_RAW, for good. Throws std::system_error.
void keepOnlyNetRaw();

}  // namespace Routing::Pim::Jpagent::Live
