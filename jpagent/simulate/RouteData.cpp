// SPDX-License-Identifier: Apache-2.0
#include "jpagent/simulate/RouteData.h"

#include <algorithm>
#include <tuple>

#include "pim/model/packet/GroupEntries.h"

namespace Routing::Pim::Jpagent {

std::vector<RouteEntry> entriesOf(Wire::JoinPrune const& message) {
  std::vector<RouteEntry> entries;
  for (auto const& group : message.groups())
    for (auto const& source : group.sources())
      entries.push_back({source.kind, source.address, group.group()});
  return entries;
}

std::vector<RouteEntry> entriesOf(Packet::JoinPruneData const& data) {
  std::vector<RouteEntry> entries;
  for (auto const& group : data.joinPruneGroupDataIterator()) {
    Packet::forEachEntry(group, [&](EntryKind kind, IpGenAddr const& address) {
      entries.push_back({kind, address, group.group()});
    });
  }
  std::sort(entries.begin(), entries.end(), [](RouteEntry const& a, RouteEntry const& b) {
    return std::tie(a.group, a.kind, a.source) < std::tie(b.group, b.kind, b.source);
  });
  return entries;
}

}  // namespace Routing::Pim::Jpagent
