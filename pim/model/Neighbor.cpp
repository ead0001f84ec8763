// SPDX-License-Identifier: Apache-2.0
#include "pim/model/Neighbor.h"

namespace Routing::Pim {

Vel::AttributeTable const& Neighbor::attributeTable() const {
  using Self = Neighbor;
  static Vel::AttributeTable const table{VEL_ROW_FIXED(address), VEL_ROW_FIXED(intf)};
  return table;
}

}  // namespace Routing::Pim
