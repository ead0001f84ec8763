#include "jpagent/simulate/RouteData.h"

#include <algorithm>
#include <tuple>

namespace Routing::Pim::Jpagent {

std::vector<RouteEntry> entriesOf(Wire::JoinPrune const& message) {
  std::vector<RouteEntry> entries;
  for (auto const& group : message.groups()) {
    for (auto const& join : group.joins()) entries.push_back({true, join.kind, join.address, group.group()});
    for (auto const& prune : group.prunes())
      entries.push_back({false, prune.kind, prune.address, group.group()});
  }
  return entries;
}

std::vector<RouteEntry> entriesOf(Packet::JoinPruneData const& data) {
  std::vector<RouteEntry> entries;
  for (auto const& groupData : data.joinPruneGroupDataIterator()) {
    auto const group = groupData.group();
    auto const add = [&](auto sources, Wire::SourceKind kind, bool join) {
      for (; sources; ++sources) entries.push_back({join, kind, sources.key(), group});
    };
    if (auto const wildcard = groupData.wcSourceData())
      entries.push_back({wildcard->join(), Wire::SourceKind::wildcard, wildcard->address(), group});
    add(groupData.joinedSourceIterator(), Wire::SourceKind::source, true);
    add(groupData.prunedSourceIterator(), Wire::SourceKind::source, false);
    add(groupData.joinedRptSourceIterator(), Wire::SourceKind::sourceRpt, true);
    add(groupData.prunedRptSourceIterator(), Wire::SourceKind::sourceRpt, false);
  }
  std::sort(entries.begin(), entries.end(), [](RouteEntry const& a, RouteEntry const& b) {
    return std::tuple(a.group, a.kind, !a.join, a.source) < std::tuple(b.group, b.kind, !b.join, b.source);
  });
  return entries;
}

void put(Packet::JoinPruneGroupData& group, RouteEntry const& entry) {
  switch (entry.kind) {
    case Wire::SourceKind::wildcard:
      group.wcSourceDataIs(Vel::create<Packet::WcSourceData>(entry.source, entry.join));
      break;
    case Wire::SourceKind::source:
      entry.join ? group.joinedSourceIs(entry.source) : group.prunedSourceIs(entry.source);
      break;
    case Wire::SourceKind::sourceRpt:
      entry.join ? group.joinedRptSourceIs(entry.source) : group.prunedRptSourceIs(entry.source);
      break;
  }
}

bool has(Packet::JoinPruneGroupData const& group, RouteEntry const& entry) {
  switch (entry.kind) {
    case Wire::SourceKind::wildcard: {
      auto const wildcard = group.wcSourceData();
      return wildcard && wildcard->join() == entry.join && wildcard->address() == entry.source;
    }
    case Wire::SourceKind::source:
      return entry.join ? group.joinedSource(entry.source) : group.prunedSource(entry.source);
    case Wire::SourceKind::sourceRpt:
      return entry.join ? group.joinedRptSource(entry.source) : group.prunedRptSource(entry.source);
  }
  return false;
}

bool takeOut(Packet::JoinPruneGroupData& group, RouteEntry const& entry) {
  if (!has(group, entry)) return false;
  switch (entry.kind) {
    case Wire::SourceKind::wildcard:
      group.wcSourceDataDel();
      break;
    case Wire::SourceKind::source:
      entry.join ? group.joinedSourceDel(entry.source) : group.prunedSourceDel(entry.source);
      break;
    case Wire::SourceKind::sourceRpt:
      entry.join ? group.joinedRptSourceDel(entry.source) : group.prunedRptSourceDel(entry.source);
      break;
  }
  return true;
}

}  // namespace Routing::Pim::Jpagent
