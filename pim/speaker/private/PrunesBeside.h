// SPDX-License-Identifier: Apache-2.0
// The (S,G,rpt) prunes of a group, in all data sets for an upstream neighbor. Not part of the library's
// interface.
#pragma once

#include <array>
#include <cstddef>
#include <utility>

#include "pim/joinprune/JoinPruneStatus.h"
#include "pim/model/private/ModelAccess.h"

namespace Routing::Pim::Speaker::Detail {

/// Walks the pruned sources of up to three groups in ascending order, each source once. Survives every
/// change.
class PrunesBeside {
 public:
  /// Over one group.
  explicit PrunesBeside(Packet::JoinPruneGroupData const& group) { add(group); }

  /// Adds the groups of the same address in the data sets for an upstream neighbor. REQUIRES: at the
  /// beginning.
  void add(JoinPruneStatus const& status, Dova::IpGenAddr const& neighbor, Dova::IpGenAddr const& group) {
    add(status.triggeredGroup(neighbor).get(), group);
    add(status.overrideGroup(neighbor).get(), group);
    if (auto const periodic = status.periodicGroupStatus()) add(periodic->upJoinPrune(neighbor).get(), group);
  }

  /// False when the walk is over.
  explicit operator bool() const { return least_ != none; }
  /// The source. REQUIRES: true.
  Dova::IpGenAddr const& key() const { return walks_[least_].key(); }
  /// Whether the (S,G,rpt) is pending as a join in one of the groups. REQUIRES: true.
  bool isJoined() const {
    for (std::size_t i = 0; i < count_; ++i)
      if (groups_[i]->joinedRptSource(key())) return true;
    return false;
  }
  /// To the next source. REQUIRES: true.
  PrunesBeside& operator++() {
    Dova::IpGenAddr const passed = key();
    for (std::size_t i = 0; i < count_; ++i)
      if (walks_[i] && walks_[i].key() == passed) ++walks_[i];
    findLeast();
    return *this;
  }

 private:
  static constexpr std::size_t most = 3, none = most;

  void add(Packet::JoinPruneData const* data, Dova::IpGenAddr const& group) {
    if (data)
      if (auto const* const found = EngineAccess<Packet::JoinPruneData>::group(*data, group);
          found && found != groups_[0].get())
        add(*found);
  }
  void add(Packet::JoinPruneGroupData const& group) {
    if (count_ == most) return;
    groups_[count_] = Vel::Ptr<Packet::JoinPruneGroupData const>(&group);
    walks_[count_] = group.prunedRptSourceIterator();
    ++count_;
    findLeast();
  }
  void findLeast() {
    least_ = none;
    for (std::size_t i = 0; i < count_; ++i)
      if (walks_[i] && (least_ == none || walks_[i].key() < walks_[least_].key())) least_ = i;
  }

  using Walk = decltype(std::declval<Packet::JoinPruneGroupData const&>().prunedRptSourceIterator());
  std::array<Vel::Ptr<Packet::JoinPruneGroupData const>, most> groups_;
  std::array<Walk, most> walks_;
  std::size_t count_ = 0;
  std::size_t least_ = none;
};

}  // namespace Routing::Pim::Speaker::Detail
