// SPDX-License-Identifier: Apache-2.0
// The joins and prunes for one upstream neighbor.
#pragma once

#include "pim/model/packet/JoinPruneGroupData.h"

namespace Routing::Pim::Packet {

/// What one Join/Prune message carries, or what is pending for one upstream neighbor.
class VEL_API JoinPruneData final : public Vel::Entity {
 public:
  enum Attribute : Vel::AttributeId {
    upstreamNeighborId = Vel::firstAttributeId,
    holdTimeId,
    periodicId,
    joinPruneGroupDataId
  };

  class NotifieeConst : public Vel::ReactorOn<JoinPruneData> {
   public:
    virtual void onHoldTime() { handleNotification(holdTimeId); }
    virtual void onPeriodic() { handleNotification(periodicId); }
    virtual void onJoinPruneGroupData(Dova::IpGenAddr) {}
    virtual void onJoinPruneGroupDatavelImmediate() {}
    virtual void onJoinPruneGroupData() { handleDefault("joinPruneGroupData"); }
  };
  using Notifiee = Vel::WritableReactor<NotifieeConst, JoinPruneData>;

  /// For one upstream neighbor, empty.
  explicit JoinPruneData(Dova::IpGenAddr const& upstreamNeighbor) : upstreamNeighbor_(upstreamNeighbor) {}

  /// The upstream neighbor's address, the key.
  VEL_FIXED(Dova::IpGenAddr, upstreamNeighbor);

  /// The hold time that the message carries, in seconds.
  VEL_VALUE(U16, holdTime, HoldTime, 0);

  /// True for data that is refreshed again and again instead of being sent once.
  VEL_VALUE(bool, periodic, Periodic, false);

  /// The groups, by address. Add a group empty and then its sources; remove the sources, not a filled group.
  VEL_ENTITIES(Dova::IpGenAddr, JoinPruneGroupData, joinPruneGroupData, JoinPruneGroupData);

 public:
  Dova::IpGenAddr const& velKey() const { return upstreamNeighbor_; }
  Vel::AttributeTable const& attributeTable() const override;

 protected:
  void doTeardown() override;

 private:
  friend struct EngineAccess<JoinPruneData>;
};

}  // namespace Routing::Pim::Packet
