// SPDX-License-Identifier: Apache-2.0
// One group's joins and prunes.
#pragma once

#include "pim/model/RouteKey.h"
#include "pim/model/detail/EngineAccess.h"
#include "runtime/vel/Attribute.h"

namespace Routing::Pim::Packet {

/// The (*,G) entry of a group: the RP, and whether it is a join or a prune. It does not change; a group whose
/// entry changes is given another one.
class VEL_API WcSourceData final : public Vel::Entity {
 public:
  class NotifieeConst : public Vel::ReactorOn<WcSourceData> {};
  using Notifiee = Vel::WritableReactor<NotifieeConst, WcSourceData>;

  /// An entry that names this RP.
  WcSourceData(Dova::IpGenAddr const& address, bool join) : address_(address), join_(join) {}

  /// The RP named in the entry.
  Dova::IpGenAddr const& address() const { return address_; }
  /// True for a (*,G) join, false for a (*,G) prune.
  bool join() const { return join_; }

 private:
  Dova::IpGenAddr const address_;
  bool const join_;
};

/// One group set of a Join/Prune message (RFC 7761, 4.9.5.1), or what is pending for a group: the sources of
/// each kind of entry, and at most one wildcard entry.
class VEL_API JoinPruneGroupData final : public Vel::FollowedEntity {
 public:
  enum Attribute : Vel::AttributeId {
    groupId = Vel::firstAttributeId,
    joinedSourceId,
    prunedSourceId,
    joinedRptSourceId,
    prunedRptSourceId,
    wcSourceDataId
  };

  class NotifieeConst : public Vel::ReactorOn<JoinPruneGroupData> {
   public:
    virtual void onJoinedSource(Dova::IpGenAddr) {}
    virtual void onJoinedSourcevelImmediate() {}
    virtual void onJoinedSource() { handleDefault("joinedSource"); }
    virtual void onPrunedSource(Dova::IpGenAddr) {}
    virtual void onPrunedSourcevelImmediate() {}
    virtual void onPrunedSource() { handleDefault("prunedSource"); }
    virtual void onJoinedRptSource(Dova::IpGenAddr) {}
    virtual void onJoinedRptSourcevelImmediate() {}
    virtual void onJoinedRptSource() { handleDefault("joinedRptSource"); }
    virtual void onPrunedRptSource(Dova::IpGenAddr) {}
    virtual void onPrunedRptSourcevelImmediate() {}
    virtual void onPrunedRptSource() { handleDefault("prunedRptSource"); }
    virtual void onWcSourceData() { handleNotification(wcSourceDataId); }
  };
  using Notifiee = Vel::WritableReactor<NotifieeConst, JoinPruneGroupData>;

  /// Of one group, empty.
  explicit JoinPruneGroupData(Dova::IpGenAddr const& group) : group_(group) {}

  /// The group's address, its key.
  VEL_FIXED(Dova::IpGenAddr, group);

  /// (S,G) joins and prunes.
  VEL_SET(Vel::HashSet<Dova::IpGenAddr>, joinedSource, JoinedSource);
  VEL_SET(Vel::HashSet<Dova::IpGenAddr>, prunedSource, PrunedSource);

  /// (S,G,rpt) joins and prunes. The prunes are walked in ascending order: where they cannot all be sent with
  /// a (*,G) join, the numerically smallest go (RFC 7761, 4.9.5.2).
  VEL_SET(Vel::HashSet<Dova::IpGenAddr>, joinedRptSource, JoinedRptSource);
  VEL_SET(Vel::OrderedSet<Dova::IpGenAddr>, prunedRptSource, PrunedRptSource);

 public:
  /// The (*,G) entry, or null. Setting another record notifies, whatever it holds.
  Vel::Ptr<WcSourceData> wcSourceData() const { return wcSourceData_; }
  /// Sets or, by null, removes it, and tells the reactors; the same one is nothing.
  void wcSourceDataIs(Vel::Ptr<WcSourceData> const& wildcard) {
    velValueIs<NotifieeConst, wcSourceDataId>(wcSourceData_, wildcard,
                                              [](NotifieeConst& r) { r.onWcSourceData(); });
  }
  void wcSourceDataIs(Vel::Ptr<WcSourceData> const&) const { Vel::throwConstInstance(); }
  /// Removes the (*,G) entry.
  void wcSourceDataDel() { wcSourceDataIs(nullptr); }
  void wcSourceDataDel() const { Vel::throwConstInstance(); }

  /// How many entries there are; O(1). The wildcard entry is one.
  U32 routes() const {
    return joinedSourceCount() + prunedSourceCount() + joinedRptSourceCount() + prunedRptSourceCount() +
           (wcSourceData_ ? 1 : 0);
  }

  /// True if there is no entry of any kind; O(1).
  bool empty() const { return routes() == 0; }

  Dova::IpGenAddr const& velKey() const { return group_; }
  Vel::AttributeTable const& attributeTable() const override;

 private:
  friend struct EngineAccess<JoinPruneGroupData>;
  template <class Key, class Element, class View>
  friend class Vel::EntityIterator;

  // For walks over many groups: most have one kind of source.
  void velPrefetch() const { (joinedSource_.size() != 0 ? joinedSource_ : prunedSource_).velPrefetch(); }

  Vel::Ptr<WcSourceData> wcSourceData_;
  bool wcSourceSet_ = false;  // for the follower; see EngineAccess
};

}  // namespace Routing::Pim::Packet
