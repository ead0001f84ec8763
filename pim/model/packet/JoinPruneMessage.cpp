// SPDX-License-Identifier: Apache-2.0
#include "pim/model/packet/JoinPruneMessage.h"

namespace Routing::Pim::Packet {

std::ostream& operator<<(std::ostream& os, JoinPruneMessage::Report const& report) {
  return os << "Sources: " << report.sources << ", Suppressed: " << report.suppressedSources
            << ", Filtered: " << report.filteredSources;
}

Vel::AttributeTable const& JoinPruneMessage::attributeTable() const {
  using Self = JoinPruneMessage;
  static Vel::AttributeTable const table{VEL_ROW_FIXED(joinPruneData), VEL_ROW_FIXED(report)};
  return table;
}

}  // namespace Routing::Pim::Packet
