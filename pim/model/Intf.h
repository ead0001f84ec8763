// SPDX-License-Identifier: Apache-2.0
// A PIM interface.
#pragma once

#include "pim/model/RouteKey.h"
#include "runtime/dova/IpGenPrefix.h"
#include "runtime/vel/Attribute.h"

namespace Routing::Pim {

/// An interface on which PIM is enabled. The agent keeps its attributes in step with the world and its
/// configuration; what each means to the machines, and when they read it, is written at the attribute.
class VEL_API Intf final : public Vel::Entity {
 public:
  enum Attribute : Vel::AttributeId {
    intfIdId = Vel::firstAttributeId,
    usedAddressWithMaskId,
    joinPruneHoldTimeId,
    joinPruneIntervalId,
    usedOverrideIntervalInSecondsId
  };

  class NotifieeConst : public Vel::ReactorOn<Intf> {
   public:
    virtual void onUsedAddressWithMask() { handleNotification(usedAddressWithMaskId); }
    virtual void onJoinPruneHoldTime() { handleNotification(joinPruneHoldTimeId); }
    virtual void onJoinPruneInterval() { handleNotification(joinPruneIntervalId); }
    virtual void onUsedOverrideIntervalInSeconds() { handleNotification(usedOverrideIntervalInSecondsId); }
  };
  using Notifiee = Vel::WritableReactor<NotifieeConst, Intf>;

  /// Without an address, and with the timers of RFC 7761, 4.11.
  explicit Intf(Dova::IntfId const& intfId) : intfId_(intfId) {}

  /// The key.
  VEL_FIXED(Dova::IntfId, intfId);

  /// The address that PIM uses on the interface. An interface without one has the unspecified address.
  VEL_VALUE(Dova::IpGenPrefix, usedAddressWithMask, UsedAddressWithMask);

 public:
  /// Delivers onUsedAddressWithMask() without any change, as after a change of secondary addresses.
  void usedAddressWithMaskNotify();
  void usedAddressWithMaskNotify() const { Vel::throwConstInstance(); }

  /// J/P_HoldTime, in seconds (RFC 7761, 4.11: 3.5 times the interval). It is written into messages when
  /// their timer is armed.
  VEL_VALUE(U16, joinPruneHoldTime, JoinPruneHoldTime, 210);

  /// t_periodic, in seconds (RFC 7761, 4.11). Must not be 0 once there is something to refresh.
  VEL_VALUE(U32, joinPruneInterval, JoinPruneInterval, 60);

  /// The upper bound of t_override, in seconds (RFC 7761, 4.11). Machines read it when they are made.
  VEL_SECONDS(usedOverrideIntervalInSeconds, UsedOverrideIntervalInSeconds, 2.5);

 public:
  Dova::IntfId const& velKey() const { return intfId_; }
  Vel::AttributeTable const& attributeTable() const override;
};

}  // namespace Routing::Pim
