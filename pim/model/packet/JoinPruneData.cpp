// SPDX-License-Identifier: Apache-2.0
#include "pim/model/packet/JoinPruneData.h"

namespace Routing::Pim::Packet {

void JoinPruneData::doTeardown() { joinPruneGroupDataDelAll(); }

Vel::AttributeTable const& JoinPruneData::attributeTable() const {
  using Self = JoinPruneData;
  static Vel::AttributeTable const table{VEL_ROW_FIXED(upstreamNeighbor), VEL_ROW(holdTime),
                                         VEL_ROW(periodic), VEL_ROW_FIXED(joinPruneGroupData)};
  return table;
}

}  // namespace Routing::Pim::Packet
