// From a captured frame to the IP datagram in it: Ethernet with any number of VLAN tags, raw IP and Linux
// cooked frames; IPv4 with options, IPv6 with extension headers.
//
//     if (auto datagram = findDatagram(frame.link, frame.bytes)) {
//       if (datagram->protocol == pimProtocol && datagram->state == Datagram::State::whole) ...
//     }
//
// The IPv4 header checksum is not verified: sending hosts leave it to their network cards, so a capture made
// on one shows it wrong.
#pragma once

#include <optional>
#include <span>

#include "runtime/dova/IpGenAddr.h"

namespace Routing::Pim::Agent {

using Dova::IpGenAddr;
using Vel::U8;

/// What a frame begins with.
enum class LinkType { ethernet, rawIp, linuxCooked, linuxCooked2 };

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

  /// Of the payload, behind all extension headers.
  U8 protocol = 0;

  State state = State::whole;

  /// Lies within the frame's bytes.
  std::span<U8 const> payload;
};

/// The datagram in a frame; nothing for a frame that has none, or ends before it says which protocol it
/// carries.
std::optional<Datagram> findDatagram(LinkType link, std::span<U8 const> frame);

}  // namespace Routing::Pim::Agent
