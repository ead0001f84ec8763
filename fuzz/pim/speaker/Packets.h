// SPDX-License-Identifier: Apache-2.0
// What every Join/Prune message that this agent sends must keep to.
#pragma once

#include <set>
#include <tuple>

#include "fuzz/Fuzz.h"
#include "pim/speaker/PacketManager.h"

namespace Fuzz {

using Dova::IpGenAddr;
namespace Speaker = Routing::Pim::Speaker;
namespace Wire = Routing::Pim::Wire;

/// The bytes say what the message says, within the MTU; each group has one set and each entry comes once
/// (RFC 7761, 4.9.5).
inline void requireGoodPacket(Speaker::OutgoingPacket const& packet, U32 mtu) {
  FUZZ_REQUIRE(packet.bytes.size() + (packet.source.isIpv4() ? 20 : 40) <= mtu);
  FUZZ_REQUIRE(packet.destination == Wire::allPimRouters(packet.source.af()));
  auto const decoded = Wire::decodeJoinPrune(packet.bytes, packet.source, packet.destination);
  FUZZ_REQUIRE(std::holds_alternative<Wire::JoinPrune>(decoded));
  auto const& message = std::get<Wire::JoinPrune>(decoded);
  FUZZ_REQUIRE(message == packet.message);
  FUZZ_REQUIRE(!message.groups().empty());
  std::set<IpGenAddr> groups;
  for (auto const& group : message.groups()) {
    FUZZ_REQUIRE(groups.insert(group.group()).second);
    FUZZ_REQUIRE(!group.joins().empty() || !group.prunes().empty());
    std::set<std::tuple<Routing::Pim::EntryKind, IpGenAddr>> entries;
    for (auto const list : {group.joins(), group.prunes()})
      for (auto const& entry : list) FUZZ_REQUIRE(entries.emplace(joinOf(entry.kind), entry.address).second);
  }
}

}  // namespace Fuzz
