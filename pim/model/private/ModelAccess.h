// SPDX-License-Identifier: Apache-2.0
// What the model shows to the engine and to the packet manager alone. Not part of the library's interface.
#pragma once

#include "pim/model/PeriodicTimerSm.h"
#include "pim/model/packet/JoinPruneData.h"

namespace Routing::Pim {

template <>
struct EngineAccess<Packet::JoinPruneGroupData> {
  using GroupData = Packet::JoinPruneGroupData;

  /// The (S,G) joins of a group that has them and nothing else, as most groups do; null for any other group.
  /// They are not to be changed while one looks at them.
  static Vel::HashSet<Dova::IpGenAddr> const* joinsAlone(GroupData const& group) {
    U32 const others =
        group.prunedSourceCount() + group.joinedRptSourceCount() + group.prunedRptSourceCount();
    return group.joinedSourceCount() != 0 && others == 0 && !group.wcSourceData_ ? &group.joinedSource_
                                                                                 : nullptr;
  }

  /// True if there is a reactor that the follower would be called before.
  static bool watched(GroupData const& group) { return group.velWatched(); }

  /// What a reactor of the group's own has for itself: its (*,G) entry is counted. False without a follower.
  static bool& wcSourceSet(GroupData& group) { return group.wcSourceSet_; }

  /// For walks over many groups.
  static void prefetch(GroupData const& group) { group.velPrefetch(); }
};

template <>
struct EngineAccess<Packet::JoinPruneData> {
  using Data = Packet::JoinPruneData;
  using GroupTable = Vel::EntityMap<Dova::IpGenAddr, Packet::JoinPruneGroupData>::Table;

  /// The groups' own table, for a walk that calls nothing; see GroupWalk.h. It is there as long as the data.
  static GroupTable const& groups(Data const& data) { return data.joinPruneGroupData_.table(); }
  /// The group that is leaving, or null; see Vel::EntityMap::leave().
  static Packet::JoinPruneGroupData* leaving(Data const& data) { return data.joinPruneGroupData_.leaving(); }
  /// A group, or null; not held.
  static Packet::JoinPruneGroupData* group(Data const& data, Dova::IpGenAddr const& group) {
    return data.joinPruneGroupData_.find(group);
  }
};

template <>
struct EngineAccess<PeriodicTimerSm> {
  /// True if a change of the route count would do no more than move the parameters, and no reactor is told of
  /// that.
  static bool paceIsSet(PeriodicTimerSm const& sm) {
    return (!sm.periodicTimer_ || sm.periodicTimer_->armed()) && !sm.velWatched();
  }
};

}  // namespace Routing::Pim
