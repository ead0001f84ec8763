// SPDX-License-Identifier: Apache-2.0
#include "pim/model/Intf.h"

namespace Routing::Pim {

void Intf::usedAddressWithMaskNotify() {
  velDeliver<NotifieeConst, usedAddressWithMaskId>([](NotifieeConst& r) { r.onUsedAddressWithMask(); });
}

Vel::AttributeTable const& Intf::attributeTable() const {
  using Self = Intf;
  static Vel::AttributeTable const table{VEL_ROW_FIXED(intfId), VEL_ROW(usedAddressWithMask),
                                         VEL_ROW(joinPruneHoldTime), VEL_ROW(joinPruneInterval),
                                         VEL_ROW(usedOverrideIntervalInSeconds)};
  return table;
}

}  // namespace Routing::Pim
