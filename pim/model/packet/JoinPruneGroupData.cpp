// SPDX-License-Identifier: Apache-2.0
#include "pim/model/packet/JoinPruneGroupData.h"

namespace Routing::Pim::Packet {

Vel::AttributeTable const& JoinPruneGroupData::attributeTable() const {
  using Self = JoinPruneGroupData;
  static Vel::AttributeTable const table{VEL_ROW_FIXED(group),           VEL_ROW_FIXED(joinedSource),
                                         VEL_ROW_FIXED(prunedSource),    VEL_ROW_FIXED(joinedRptSource),
                                         VEL_ROW_FIXED(prunedRptSource), VEL_ROW_FIXED(wcSourceData)};
  return table;
}

}  // namespace Routing::Pim::Packet
