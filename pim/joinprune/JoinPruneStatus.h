// SPDX-License-Identifier: Apache-2.0
// Where the agent's route state machines and the Join/Prune machines meet.
#pragma once

#include "pim/joinprune/JoinPruneMessageInfo.h"
#include "pim/model/detail/EngineAccess.h"
#include "pim/model/packet/JoinPruneStatus.h"

namespace Routing::Pim {

/// What is to be sent, by upstream neighbor. The message machine makes an entry in each of `triggeredGroup`,
/// `overrideGroup` and the periodic status for every target, and removes them with the target; the agent's
/// route state machines fill the entries. Not to be confused with Packet::JoinPruneStatus, the periodic part.
class VEL_API JoinPruneStatus final : public Vel::Entity {
 public:
  enum Attribute : Vel::AttributeId {
    triggeredGroupId = Vel::firstAttributeId,
    overrideGroupId,
    periodicGroupStatusId,
    rxPruneId
  };

  class NotifieeConst : public Vel::ReactorOn<JoinPruneStatus> {
   public:
    virtual void onTriggeredGroup(Dova::IpGenAddr) {}
    virtual void onTriggeredGroupvelImmediate() {}
    virtual void onTriggeredGroup() { handleDefault("triggeredGroup"); }
    virtual void onOverrideGroup(Dova::IpGenAddr) {}
    virtual void onOverrideGroupvelImmediate() {}
    virtual void onOverrideGroup() { handleDefault("overrideGroup"); }
    virtual void onPeriodicGroupStatus() { handleNotification(periodicGroupStatusId); }
    virtual void onRxPrune(RouteIntfKey) {}
    virtual void onRxPrunevelImmediate() {}
    virtual void onRxPrune() { handleDefault("rxPrune"); }
  };
  using Notifiee = Vel::WritableReactor<NotifieeConst, JoinPruneStatus>;

  /// One entry of `rxPrune`: the key and the record under it.
  class VEL_API VelRxPrune final : public Vel::Counted {
   public:
    /// A record under a key.
    VelRxPrune(RouteIntfKey const& key, Vel::Ptr<JoinPruneMessageInfo> const& ptr) : key_(key), ptr_(ptr) {}
    RouteIntfKey const& velKey() const { return key_; }
    /// The record.
    Vel::Ptr<JoinPruneMessageInfo> const& ptr() const { return ptr_; }

   private:
    friend class JoinPruneStatus;
    RouteIntfKey const key_;
    Vel::Ptr<JoinPruneMessageInfo> ptr_;
  };

  /// To be sent at once, by upstream neighbor.
  VEL_ENTITIES(Dova::IpGenAddr, Packet::JoinPruneData, triggeredGroup, TriggeredGroup);

  /// To be sent within the override interval, by upstream neighbor.
  VEL_ENTITIES(Dova::IpGenAddr, Packet::JoinPruneData, overrideGroup, OverrideGroup);

  /// To be sent every interval; null until set.
  VEL_POINTER(Packet::JoinPruneStatus, periodicGroupStatus, PeriodicGroupStatus);

  /// Received prunes by route and interface, for the rest of the agent: nothing in this library looks at it.
  VEL_COLLECTION_NOTIFY(RouteIntfKey, rxPrune, RxPrune)
  /// Walks `rxPrune`, and stays valid whatever changes meanwhile.
  using RxPruneIterator = Vel::EntityIterator<RouteIntfKey, VelRxPrune, VelRxPrune const>;
  /// The same.
  using RxPruneIteratorConst = RxPruneIterator;

  /// The record, or null.
  Vel::Ptr<JoinPruneMessageInfo> rxPrune(RouteIntfKey const& key) const;
  /// How many records there are; O(1).
  U32 rxPruneCount() const { return rxPrune_.size(); }
  /// At the first record.
  RxPruneIterator rxPruneIterator() const { return {this, rxPrune_}; }

  /// Puts a record under a key; null removes the key. Notifies if anything changed.
  void rxPruneIs(RouteIntfKey const& key, Vel::Ptr<JoinPruneMessageInfo> const& ptr);
  void rxPruneIs(RouteIntfKey const&, Vel::Ptr<JoinPruneMessageInfo> const&) const {
    Vel::throwConstInstance();
  }
  /// Inserts without a notification. A key that is there throws RangeException, null
  /// InvalidArgumentException.
  void newRxPrune(RouteIntfKey const& key, Vel::Ptr<JoinPruneMessageInfo> const& ptr);
  void newRxPrune(RouteIntfKey const&, Vel::Ptr<JoinPruneMessageInfo> const&) const {
    Vel::throwConstInstance();
  }
  /// The removed record, or null.
  Vel::Ptr<JoinPruneMessageInfo> rxPruneDel(RouteIntfKey const& key);
  Vel::Ptr<JoinPruneMessageInfo> rxPruneDel(RouteIntfKey const&) const { Vel::throwConstInstance(); }
  /// The same for the record at an iterator's position.
  Vel::Ptr<JoinPruneMessageInfo> rxPruneDel(RxPruneIterator& i) { return rxPruneDel(i.key()); }
  Vel::Ptr<JoinPruneMessageInfo> rxPruneDel(RxPruneIterator&) const { Vel::throwConstInstance(); }
  /// Removes what is there now, and tells the reactors of each.
  void rxPruneDelAll();
  void rxPruneDelAll() const { Vel::throwConstInstance(); }

  Vel::AttributeTable const& attributeTable() const override;

 protected:
  void doTeardown() override;

 private:
  friend struct EngineAccess<JoinPruneStatus>;

  void const* machine_ = nullptr;
  Vel::EntityMap<RouteIntfKey, VelRxPrune> rxPrune_;
};

/// Makes an empty status with a count of 1.
VEL_API Vel::Ptr<JoinPruneStatus> joinPruneStatusFactory();

}  // namespace Routing::Pim
