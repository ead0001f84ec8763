// SPDX-License-Identifier: Apache-2.0
// The record of the latest received Join/Prune entry.
#pragma once

#include "pim/model/RouteKey.h"
#include "pim/model/detail/EngineAccess.h"
#include "pim/model/packet/SourceFlags.h"
#include "runtime/vel/Attribute.h"

namespace Routing::Pim {

/// The latest entry of one kind, joins or prunes, that was received. The agent makes two and hands them to
/// the message machine, which writes each received entry into one of them (RFC 7761, 4.9.5).
///
/// Setters notify at once, so the order of writing is part of the contract: `upstreamNeighbor` and `holdTime`
/// (before the record's first entry of a group), `riKey`, `sourceFlags`, `wcSource` (for (*,G) alone), and
/// last `rxCount`, which moves for each entry even if all else stays the same. Who wants whole entries
/// watches `onRxCount()`:
///
///   class Printer final : public JoinPruneMessageInfo::NotifieeConst {
///     void onRxCount() override { std::cout << notifier().get() << std::endl; }
///   };
///   auto printer = Vel::create<Printer>();
///   printer->notifierIs(rxJoin);
class VEL_API JoinPruneMessageInfo final : public Vel::Entity {
 public:
  enum Attribute : Vel::AttributeId {
    riKeyId = Vel::firstAttributeId,
    upstreamNeighborId,
    sourceFlagsId,
    holdTimeId,
    wcSourceId,
    rxCountId
  };

  class NotifieeConst : public Vel::ReactorOn<JoinPruneMessageInfo> {
   public:
    virtual void onRiKey() { handleNotification(riKeyId); }
    virtual void onUpstreamNeighbor() { handleNotification(upstreamNeighborId); }
    virtual void onSourceFlags() { handleNotification(sourceFlagsId); }
    virtual void onHoldTime() { handleNotification(holdTimeId); }
    virtual void onWcSource() { handleNotification(wcSourceId); }
    virtual void onRxCount() { handleNotification(rxCountId); }
  };
  using Notifiee = Vel::WritableReactor<NotifieeConst, JoinPruneMessageInfo>;

  /// The entry's source and group; the interface is empty. The source of a (*,G) entry is the all-zero
  /// address.
  VEL_VALUE(RouteIntfKey, riKey, RiKey);

  /// The upstream neighbor to which the message was addressed.
  VEL_VALUE(Dova::IpGenAddr, upstreamNeighbor, UpstreamNeighbor);

  /// The kind of the entry: S for (S,G), SR for (S,G,rpt), SWR for (*,G).
  VEL_VALUE(Packet::SourceFlags, sourceFlags, SourceFlags);

  /// The message's hold time, in seconds. Until the first message it reads J/P_HoldTime's default.
  VEL_SECONDS(holdTime, HoldTime, 210.0);

  /// The RP that the latest (*,G) entry names.
  VEL_VALUE(Dova::IpGenAddr, wcSource, WcSource);

  /// How many entries have been received, modulo 2^32.
  VEL_COUNTER(rxCount, RxCount);

 public:
  Vel::AttributeTable const& attributeTable() const override;

 private:
  friend struct EngineAccess<JoinPruneMessageInfo>;
};

/// Makes a record with a count of 1.
VEL_API Vel::Ptr<JoinPruneMessageInfo> joinPruneMessageInfoFactory();

/// "(10.0.0.1,239.1.1.1), Flags: S, Intf: , Neighbor: 10.0.0.2, Holdtime: 210"; "null" for null.
VEL_API std::ostream& operator<<(std::ostream& os, JoinPruneMessageInfo const* info);

}  // namespace Routing::Pim
