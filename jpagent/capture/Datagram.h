// SPDX-License-Identifier: Apache-2.0
// From a captured frame to the IP datagram in it: Ethernet with any number of VLAN tags, LLC and PPP over
// Ethernet, raw IP, Linux cooked frames and PPP; IPv4 with options, IPv6 with extension headers, both with
// an authentication header; and the same again inside GRE or IP.
//
//     auto const found = findDatagram(frame.link, frame.bytes);
//     if (auto const* const datagram = std::get_if<Datagram>(&found)) {
//       if (datagram->protocol == pimProtocol && datagram->state == Datagram::State::whole) ...
//     }
//
// The IPv4 header checksum is not verified: sending hosts leave it to their network cards, so a capture made
// on one shows it wrong.
#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <string_view>
#include <variant>

#include "runtime/dova/IpGenAddr.h"

namespace Routing::Pim::Jpagent {

using Dova::IpGenAddr;
using Vel::U16;
using Vel::U32;
using Vel::U8;

/// What a frame begins with.
enum class LinkType { ethernet, rawIp, linuxCooked, linuxCooked2, ppp, unknown };

/// Why a frame is not looked at any further.
enum class PassedOver : U8 {
  unknownLink,    ///< Of a link type that is not known here.
  notIp,          ///< Neither IPv4 nor IPv6.
  notOpened,      ///< An encapsulation that may have IP inside, but is not opened.
  unreadable,     ///< The frame ends, or contradicts itself, before it says which protocol it carries.
  otherProtocol,  ///< IP, but not PIM.
  otherMessage,   ///< PIM, but neither a Hello nor a Join/Prune, or another version.
  laterFragment,  ///< From somewhere in a PIM message; the first fragment is counted for all of them.
};

/// The fixed texts, in the order of the enumeration.
inline constexpr std::array<std::string_view, 7> passedOverNames = {
    "unknown link type",        "not IP",
    "encapsulation not opened", "cut short or damaged",
    "IP of another protocol",   "PIM of another kind",
    "later fragment",
};
static_assert(passedOverNames.size() == static_cast<std::size_t>(PassedOver::laterFragment) + 1);

constexpr std::string_view text(PassedOver why) { return passedOverNames[static_cast<std::size_t>(why)]; }

struct Datagram {
  enum class State {
    whole,          ///< `payload` is all of it; what follows in the frame is padding.
    snapped,        ///< The capture has less than the IP header promises: `payload` is what is left of it.
    firstFragment,  ///< `payload` is the beginning of a message.
    laterFragment,  ///< `payload` is from somewhere in a message.
    malformed,      ///< Lengths that contradict each other; there is no payload.
  };

  /// From the IP header; of unknown family if the capture ends before they are complete.
  IpGenAddr source, destination;

  /// The TTL or hop limit. 0 if the capture ends before it.
  U8 hopLimit = 0;

  /// Of the payload, behind all extension headers.
  U8 protocol = 0;

  State state = State::whole;

  /// Lies within the frame's bytes.
  std::span<U8 const> payload;
};

/// The innermost datagram of a frame, or why it has none: `unknownLink`, `notIp`, `notOpened` or
/// `unreadable`.
std::variant<Datagram, PassedOver> findDatagram(LinkType link, std::span<U8 const> frame);

}  // namespace Routing::Pim::Jpagent
