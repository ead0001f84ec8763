// SPDX-License-Identifier: Apache-2.0
// A packet for tests of what packets are handed to.
#pragma once

#include "pim/speaker/PacketManager.h"

namespace Routing::Pim::Speaker {

/// A join of one (S,G), by IPv4 or IPv6, with this hold time.
inline OutgoingPacket packet(bool four, U16 holdTime) {
  Wire::JoinPrune message(IpGenAddr(four ? "10.0.0.2" : "fe80::2"), holdTime);
  message.groupAdd(IpGenAddr(four ? "239.1.1.1" : "ff0e::1"));
  message.entryAdd(EntryKind::sourceJoin, IpGenAddr(four ? "10.9.0.1" : "2001:db8::1"));
  IpGenAddr const source(four ? "10.0.0.1" : "fe80::1");
  IpGenAddr const destination = Wire::allPimRouters(source.af());
  return {Dova::IntfId(four ? "eth0" : "eth6"), source, destination, message,
          Wire::encodeJoinPrune(message, source, destination)};
}

}  // namespace Routing::Pim::Speaker
