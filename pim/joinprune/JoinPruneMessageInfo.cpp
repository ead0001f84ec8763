// SPDX-License-Identifier: Apache-2.0
#include "pim/joinprune/JoinPruneMessageInfo.h"

namespace Routing::Pim {

Vel::Ptr<JoinPruneMessageInfo> joinPruneMessageInfoFactory() {
  return Vel::valid(Vel::create<JoinPruneMessageInfo>());
}

Vel::AttributeTable const& JoinPruneMessageInfo::attributeTable() const {
  using Self = JoinPruneMessageInfo;
  static Vel::AttributeTable const table{VEL_ROW_FIXED(riKey), VEL_ROW(upstreamNeighbor),
                                         VEL_ROW(sourceFlags), VEL_ROW(holdTime),
                                         VEL_ROW(wcSource),    VEL_ROW(rxCount)};
  return table;
}

std::ostream& operator<<(std::ostream& os, JoinPruneMessageInfo const* info) {
  if (!info) return os << "null";
  return os << info->riKey().routeKey() << ", Flags: " << info->sourceFlags()
            << ", Intf: " << info->riKey().intfId() << ", Neighbor: " << info->upstreamNeighbor()
            << ", Holdtime: " << info->holdTime();
}

}  // namespace Routing::Pim
