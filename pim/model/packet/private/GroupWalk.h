// SPDX-License-Identifier: Apache-2.0
// A walk over very many groups. Not part of the library's interface.
#pragma once

#include "pim/model/private/ModelAccess.h"

namespace Routing::Pim::Packet {

/// Walks the groups of a data set in the order of their table, for a loop that calls nothing and changes
/// nothing: nothing is held, and the walk ends with the first change.
///
///     for (GroupWalk walk(*data); walk; ++walk) sum += walk->routes();
///
/// Such a loop waits for memory more than for anything else. Groups lie where they were made, each on another
/// page, and processors drop a request for memory in advance if its page is not at hand. So the walk reads a
/// little of many groups at once, which it waits for together, before the loop comes to the first of them.
class GroupWalk {
 public:
  /// The groups' own table.
  using GroupTable = EngineAccess<JoinPruneData>::GroupTable;

  /// From a place in the table on.
  GroupWalk(JoinPruneData const& data, GroupTable::Place place)
      : groups_(&EngineAccess<JoinPruneData>::groups(data)), place_(place) {
    arrive();
  }
  /// From the first group on.
  explicit GroupWalk(JoinPruneData const& data)
      : GroupWalk(data, EngineAccess<JoinPruneData>::groups(data).first()) {}

  /// False when the walk is over.
  explicit operator bool() const { return place_.position != groups_->end(); }
  /// The group, not held. REQUIRES: true.
  JoinPruneGroupData& operator*() const { return *groups_->at(place_.position); }
  /// The same.
  JoinPruneGroupData* operator->() const { return groups_->at(place_.position); }

  /// On to the next group. REQUIRES: the groups are what they were.
  GroupWalk& operator++() {
    place_ = groups_->next(place_);
    arrive();
    return *this;
  }

 private:
  static constexpr U32 together = 32;

  void arrive() {
    if (*this && place_.position >= fetched_) fetch();
  }

  void fetch() {
    U32 const first = place_.position;
    fetched_ = first + together;
    auto const* const all = groups_->all();
    for (U32 at = first; at < fetched_; ++at)
      if (groups_->isUsed(at)) read(all[at]->references());
    // The pages are at hand now, so the rest can be asked for.
    for (U32 at = first; at < fetched_; ++at) {
      if (!groups_->isUsed(at)) continue;
      Vel::Prefetch::object(all[at]);
      EngineAccess<JoinPruneGroupData>::prefetch(*all[at]);
    }
  }

  // As if the number were needed.
  static void read(U32 number) { asm volatile("" : : "r"(number)); }

  GroupTable const* groups_;
  GroupTable::Place place_;
  U32 fetched_ = 0;
};

}  // namespace Routing::Pim::Packet
