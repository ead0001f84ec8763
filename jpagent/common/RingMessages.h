// SPDX-License-Identifier: Apache-2.0
// What a simulation writes into the ring trace file, beside what the engine writes: what it does to the
// engine, what the engine does to its timers and sends, and what time it is. The engine's own messages are
// documented with these in docs/tracing.md.
#pragma once

#include <array>
#include <cmath>
#include <string>
#include <string_view>

#include "jpagent/common/SendKind.h"
#include "runtime/dova/IpGenAddr.h"
#include "runtime/scrivo/Scrivo.h"

namespace Routing::Pim::Jpagent {

using Dova::IpGenAddr;
using Vel::Seconds;
using Vel::U8;

/// The name that these messages give as their source.
#define SIMULATION_SOURCE "Simulation"

/// Followed by the virtual time in microseconds. What comes after it happens then, and takes as long as it
/// takes.
inline constexpr char clockLiteral[] = "Clock: ";

enum class TimerEvent : U8 { armed, moved, disarmed, fired };
inline constexpr std::array<std::string_view, 4> timerEventNames = {"Armed", "Moved", "Disarmed", "Fired"};
constexpr std::string_view text(TimerEvent event) { return timerEventNames[static_cast<std::size_t>(event)]; }

namespace RingMessages {

inline void clock(Seconds now) { SCRIVO_MESSAGE(SIMULATION_SOURCE, clockLiteral, std::llround(now * 1e6)); }

inline void remark(std::string const& text) { SCRIVO_MESSAGE(SIMULATION_SOURCE, "Remark: ", text); }

inline void received(std::string const& intf, std::size_t entries) {
  SCRIVO_MESSAGE(SIMULATION_SOURCE, "Received a message, Intf: ", intf, ", Entries: ", entries);
}

// What differs by send kind or event is a literal of the statement, so each has its instance.

/// `due` is the time at which the timer is to fire, or was; of a timer that was disarmed, there is none.
template <TimerEvent event, SendKind sendKind>
void timer(IpGenAddr const& neighbor, std::string const& intf, std::string const& due) {
  if constexpr (event == TimerEvent::disarmed)
    SCRIVO_MESSAGE(SIMULATION_SOURCE, text(event).data(), " the ", text(sendKind).data(), " timer of ",
                   neighbor, ", Intf: ", intf);
  else
    SCRIVO_MESSAGE(SIMULATION_SOURCE, text(event).data(), " the ", text(sendKind).data(), " timer of ",
                   neighbor, ", Intf: ", intf, ", Due: ", due);
}

template <SendKind sendKind>
void sent(IpGenAddr const& neighbor, std::string const& intf, std::size_t joins, std::size_t prunes,
          std::size_t bytes) {
  SCRIVO_MESSAGE(SIMULATION_SOURCE, "Sent a message of ", text(sendKind).data(), " data to ", neighbor,
                 ", Intf: ", intf, ", Joins: ", joins, ", Prunes: ", prunes, ", Bytes: ", bytes);
}

/// `first` is the first of the entries that change.
template <SendKind sendKind>
void changed(IpGenAddr const& neighbor, std::string const& first, std::size_t entries) {
  SCRIVO_MESSAGE(SIMULATION_SOURCE, "Changed the ", text(sendKind).data(), " data of ", neighbor,
                 ", First: ", first, ", Entries: ", entries);
}

/// Calls `message.template operator()<sendKind>()` for a send kind that is known at run time only.
template <class Message>
void ofSendKind(SendKind sendKind, Message const& message) {
  switch (sendKind) {
    case SendKind::triggered:
      return message.template operator()<SendKind::triggered>();
    case SendKind::override:
      return message.template operator()<SendKind::override>();
    case SendKind::periodic:
      return message.template operator()<SendKind::periodic>();
  }
}

}  // namespace RingMessages

}  // namespace Routing::Pim::Jpagent
