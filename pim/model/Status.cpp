// SPDX-License-Identifier: Apache-2.0
#include "pim/model/Status.h"

namespace Routing::Pim {

Vel::Ptr<Neighbor> Status::pimNeighborIs(Dova::IpGenAddr const& address, Vel::Ptr<Intf const> const& intf) {
  if (Neighbor* const present = pimNeighbor_.find(address)) {
    Vel::requireSameParameter("_intf", intf, present->intf());
    return present;
  }
  Vel::Ptr<Neighbor> const added = Vel::create<Neighbor>(address, intf);
  pimNeighborIs(added);
  return added;
}

void Status::doTeardown() {
  pimNeighborDelAll();
  pimIntfDelAll();
}

Vel::AttributeTable const& Status::attributeTable() const {
  using Self = Status;
  static Vel::AttributeTable const table{VEL_ROW_FIXED(pimIntf), VEL_ROW_FIXED(pimNeighbor)};
  return table;
}

}  // namespace Routing::Pim
