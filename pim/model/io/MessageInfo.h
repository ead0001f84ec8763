// SPDX-License-Identifier: Apache-2.0
// A channel of PIM messages.
#pragma once

#include "pim/model/packet/JoinPruneMessage.h"

namespace Routing::Pim::IO {

/// One received or outgoing PIM message after another. Setting the message and raising the count says: here
/// is one. All reactors of the channel have dealt with it when `countInc(1)` returns.
class VEL_API MessageInfo final : public Vel::Entity {
 public:
  enum Attribute : Vel::AttributeId { joinPruneMessageId = Vel::firstAttributeId, intfIdId, countId };

  class NotifieeConst : public Vel::ReactorOn<MessageInfo> {
   public:
    virtual void onJoinPruneMessage() { handleNotification(joinPruneMessageId); }
    virtual void onIntfId() { handleNotification(intfIdId); }
    virtual void onCount() { handleNotification(countId); }
  };
  using Notifiee = Vel::WritableReactor<NotifieeConst, MessageInfo>;

  /// The message; null until set.
  VEL_POINTER(Packet::JoinPruneMessage, joinPruneMessage, JoinPruneMessage);

  /// The interface that it was received on or is sent from.
  VEL_VALUE(Dova::IntfId, intfId, IntfId);

  /// How many messages there have been, modulo 2^32.
  VEL_COUNTER(count, Count);

 public:
  Vel::AttributeTable const& attributeTable() const override;
};

}  // namespace Routing::Pim::IO
