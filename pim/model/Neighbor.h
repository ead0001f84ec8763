// SPDX-License-Identifier: Apache-2.0
// A PIM neighbor.
#pragma once

#include "pim/model/Intf.h"

namespace Routing::Pim {

/// A router from which Hellos come in (RFC 7761, 4.3.1). Its interface does not change: a neighbor that moves
/// to another interface is another one.
class VEL_API Neighbor final : public Vel::Entity {
 public:
  enum Attribute : Vel::AttributeId { addressId = Vel::firstAttributeId, intfId };

  class NotifieeConst : public Vel::ReactorOn<Neighbor> {};
  using Notifiee = Vel::WritableReactor<NotifieeConst, Neighbor>;

  /// Status::pimNeighborIs() is what puts one into its place.
  Neighbor(Dova::IpGenAddr const& address, Vel::Ptr<Intf const> const& intf)
      : address_(address), intf_(intf) {}

  /// The key.
  VEL_FIXED(Dova::IpGenAddr, address);

  /// The interface on which the neighbor is.
  VEL_FIXED(Vel::Ptr<Intf const>, intf);

 public:
  Dova::IpGenAddr const& velKey() const { return address_; }
  Vel::AttributeTable const& attributeTable() const override;
};

}  // namespace Routing::Pim
