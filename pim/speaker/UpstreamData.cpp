// SPDX-License-Identifier: Apache-2.0
#include "pim/speaker/private/UpstreamData.h"

namespace Routing::Pim::Speaker::Detail {

void removeIfEmpty(DataPtr const& data, GroupPtr const& group) {
  if (group->empty() && data->joinPruneGroupData(group->group()) == group)
    data->joinPruneGroupDataDel(group->group());
}

bool hasEntry(DataPtr const& data, Route const& route, bool isJoin) {
  auto const* const group = data ? EngineAccess<Packet::JoinPruneData>::group(*data, route.group) : nullptr;
  if (!group) return false;
  switch (route.kind) {
    case RouteKind::source:
      return isJoin ? group->joinedSource(route.source) : group->prunedSource(route.source);
    case RouteKind::sourceRpt:
      return isJoin ? group->joinedRptSource(route.source) : group->prunedRptSource(route.source);
    case RouteKind::wildcard:
      return group->wcSourceData() && group->wcSourceData()->join() == isJoin;
  }
  return false;
}

void putInto(Packet::JoinPruneGroupData& group, Route const& route, bool isJoin, IpGenAddr const& rp) {
  switch (route.kind) {
    case RouteKind::source:
      isJoin ? group.joinedSourceIs(route.source) : group.prunedSourceIs(route.source);
      return;
    case RouteKind::sourceRpt:
      isJoin ? group.joinedRptSourceIs(route.source) : group.prunedRptSourceIs(route.source);
      return;
    case RouteKind::wildcard: {
      auto const there = group.wcSourceData();
      if (there && there->join() == isJoin && there->address() == rp) return;
      group.wcSourceDataIs(Vel::create<Packet::WcSourceData>(rp, isJoin));
      return;
    }
  }
}

void takeEntry(DataPtr const& data, Route const& route, bool isJoin) {
  if (!hasEntry(data, route, isJoin)) return;
  GroupPtr const group = data->joinPruneGroupData(route.group);
  switch (route.kind) {
    case RouteKind::source:
      isJoin ? group->joinedSourceDel(route.source) : group->prunedSourceDel(route.source);
      break;
    case RouteKind::sourceRpt:
      isJoin ? group->joinedRptSourceDel(route.source) : group->prunedRptSourceDel(route.source);
      break;
    case RouteKind::wildcard:
      group->wcSourceDataDel();
      break;
  }
  removeIfEmpty(data, group);
}

}  // namespace Routing::Pim::Speaker::Detail
