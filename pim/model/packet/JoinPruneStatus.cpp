// SPDX-License-Identifier: Apache-2.0
#include "pim/model/packet/JoinPruneStatus.h"

namespace Routing::Pim::Packet {

void JoinPruneStatus::doTeardown() { upJoinPruneDelAll(); }

Vel::AttributeTable const& JoinPruneStatus::attributeTable() const {
  using Self = JoinPruneStatus;
  static Vel::AttributeTable const table{VEL_ROW_FIXED(upJoinPrune)};
  return table;
}

}  // namespace Routing::Pim::Packet
