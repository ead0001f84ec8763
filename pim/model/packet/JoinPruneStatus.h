// SPDX-License-Identifier: Apache-2.0
// The periodic payload of all upstream neighbors.
#pragma once

#include "pim/model/packet/JoinPruneData.h"

namespace Routing::Pim::Packet {

/// The joins and prunes that are refreshed every interval, per upstream neighbor. Not to be confused with
/// Routing::Pim::JoinPruneStatus, which refers to one of these.
class VEL_API JoinPruneStatus final : public Vel::Entity {
 public:
  enum Attribute : Vel::AttributeId { upJoinPruneId = Vel::firstAttributeId };

  class NotifieeConst : public Vel::ReactorOn<JoinPruneStatus> {
   public:
    virtual void onUpJoinPrune(Dova::IpGenAddr) {}
    virtual void onUpJoinPrunevelImmediate() {}
    virtual void onUpJoinPrune() { handleDefault("upJoinPrune"); }
  };
  using Notifiee = Vel::WritableReactor<NotifieeConst, JoinPruneStatus>;

  /// By the upstream neighbor's address.
  VEL_ENTITIES(Dova::IpGenAddr, JoinPruneData, upJoinPrune, UpJoinPrune);

 public:
  Vel::AttributeTable const& attributeTable() const override;

 protected:
  void doTeardown() override;
};

}  // namespace Routing::Pim::Packet
