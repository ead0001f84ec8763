// SPDX-License-Identifier: Apache-2.0
// Single entries in the engine's data sets. Not part of the library's interface.
//
// Every change calls out: the engine's reactors write trace lines. The caller of these asks afterwards what
// is still there.
#pragma once

#include "pim/model/private/ModelAccess.h"
#include "pim/speaker/Route.h"

namespace Routing::Pim::Speaker::Detail {

using DataPtr = Vel::Ptr<Packet::JoinPruneData>;
using GroupPtr = Vel::Ptr<Packet::JoinPruneGroupData>;

/// Whether the join or prune of a route is in a data set, which may be null.
bool hasEntry(DataPtr const& data, Route const& route, bool isJoin);

/// Puts an entry into a group, in place of a (*,G) entry of the other kind or with another RP.
void putInto(Packet::JoinPruneGroupData& group, Route const& route, bool isJoin, IpGenAddr const& rp);

/// Removes a group of a data set that has nothing left. The engine removes one that it has seen being
/// emptied; this is for one that it has not.
void removeIfEmpty(DataPtr const& data, GroupPtr const& group);

/// Puts the join or prune of a route in; the RP is that of a (*,G). Null data: nothing. Whether to go on
/// after each call out is what `current()` says, and what is returned.
template <class Current>
bool putEntry(DataPtr const& data, Route const& route, bool isJoin, IpGenAddr const& rp,
              Current const& current) {
  if (!data) return current();
  for (;;) {
    GroupPtr const group = data->joinPruneGroupDataIs(route.group);
    if (!current()) {
      removeIfEmpty(data, group);
      return false;
    }
    if (EngineAccess<Packet::JoinPruneData>::group(*data, route.group) != group.get())
      continue;  // what was called has removed it again
    putInto(*group, route, isJoin, rp);
    return current();
  }
}

/// Takes the join or prune of a route out, if it is there, and its group when that is empty.
void takeEntry(DataPtr const& data, Route const& route, bool isJoin);

/// Takes sources out one by one.
template <class Sources, class Remove, class Current>
bool takeSources(Sources sources, Remove const& remove, Current const& current) {
  for (; sources; ++sources) {
    remove(sources.key());
    if (!current()) return false;
  }
  return true;
}

/// Takes all (S,G,rpt) entries of a group out.
template <class Current>
bool takeRptEntries(DataPtr const& data, IpGenAddr const& address, Current const& current) {
  GroupPtr const group = data ? data->joinPruneGroupData(address) : nullptr;
  if (!group) return current();
  auto const joins = [&](IpGenAddr const& source) { group->joinedRptSourceDel(source); };
  auto const prunes = [&](IpGenAddr const& source) { group->prunedRptSourceDel(source); };
  if (!takeSources(group->joinedRptSourceIterator(), joins, current)) return false;
  if (!takeSources(group->prunedRptSourceIterator(), prunes, current)) return false;
  removeIfEmpty(data, group);
  return current();
}

/// Takes everything out of the groups that `mayTake(route)` names: asked for (S,G) and (*,G), whose entries
/// are joins and prunes, and with the (*,G) for the (S,G,rpt) of its group.
template <class MayTake, class Current>
bool drain(DataPtr const& data, MayTake const& mayTake, Current const& current) {
  if (!data) return current();
  for (auto i = data->joinPruneGroupDataIterator(); i; ++i) {
    GroupPtr const group = i.ptr();
    auto const may = [&](IpGenAddr const& source) {
      return mayTake(Route{RouteKind::source, source, group->group()});
    };
    auto const joins = [&](IpGenAddr const& source) { may(source) && group->joinedSourceDel(source); };
    auto const prunes = [&](IpGenAddr const& source) { may(source) && group->prunedSourceDel(source); };
    if (mayTake(Route::wildcard(group->group()))) {
      group->wcSourceDataDel();
      if (!current() || !takeRptEntries(data, group->group(), current)) return false;
    }
    if (!takeSources(group->joinedSourceIterator(), joins, current)) return false;
    if (!takeSources(group->prunedSourceIterator(), prunes, current)) return false;
    removeIfEmpty(data, group);
    if (!current()) return false;
  }
  return true;
}

}  // namespace Routing::Pim::Speaker::Detail
