// SPDX-License-Identifier: Apache-2.0
// IP datagrams and Ethernet frames around PIM messages, for captures that are made and not caught.
#pragma once

#include <initializer_list>
#include <span>
#include <vector>

#include "runtime/dova/IpGenAddr.h"

namespace Routing::Pim::Jpagent {

using Dova::IpGenAddr;
using Vel::U16;
using Vel::U8;

/// An IP datagram, with the TTL or hop limit of PIM messages to neighbors (RFC 7761, 4.9) unless another is
/// given. REQUIRES: both addresses are of one known family; the payload fits.
std::vector<U8> ipDatagram(IpGenAddr const& source, IpGenAddr const& destination, U8 protocol,
                           std::span<U8 const> payload, U8 ttl = 1);

/// An Ethernet frame around a datagram, padded to the 60 bytes that a wire demands. Tags are VLAN
/// identifiers, the outermost first: one makes an 802.1Q frame, several make QinQ. REQUIRES: the destination
/// is multicast.
std::vector<U8> ethernetFrame(std::span<U8 const> datagram, std::initializer_list<U16> vlanTags = {});

}  // namespace Routing::Pim::Jpagent
