// SPDX-License-Identifier: Apache-2.0
// The entries of a group by their kind.
#pragma once

#include "pim/entry/EntryKind.h"
#include "pim/model/packet/JoinPruneGroupData.h"

namespace Routing::Pim::Packet {

/// The collection of one kind of source, for code that is the same for all of them: GroupSources<kind> has
/// `kind`, `name` ("JoinedSource") and the operations below. There is none for (*,G).
template <EntryKind entryKind>
struct GroupSources;

/// GroupSources of one kind.
#define PIM_GROUP_SOURCES(entryKind, foo, Foo)                                                  \
  template <>                                                                                   \
  struct GroupSources<EntryKind::entryKind> {                                                   \
    static constexpr EntryKind kind = EntryKind::entryKind;                                     \
    static constexpr char name[] = #Foo;                                                        \
    static U32 count(JoinPruneGroupData const& group) { return group.foo##Count(); }            \
    static bool contains(JoinPruneGroupData const& group, Dova::IpGenAddr const& source) {      \
      return group.foo##Count() != 0 && group.foo(source);                                      \
    }                                                                                           \
    static auto iterator(JoinPruneGroupData const& group) { return group.foo##Iterator(); }     \
    static auto iteratorAfter(JoinPruneGroupData const& group, Dova::IpGenAddr const& source) { \
      return group.foo##IteratorAfter(source);                                                  \
    }                                                                                           \
    static bool add(JoinPruneGroupData& group, Dova::IpGenAddr const& source) {                 \
      return group.foo##Is(source);                                                             \
    }                                                                                           \
    static bool remove(JoinPruneGroupData& group, Dova::IpGenAddr const& source) {              \
      return group.foo##Del(source);                                                            \
    }                                                                                           \
    static void notify(JoinPruneGroupData& group, Dova::IpGenAddr const& source) {              \
      group.foo##Notify(source);                                                                \
    }                                                                                           \
    static void notifyImmediate(JoinPruneGroupData& group) { group.foo##NotifyImmediate(); }    \
  };
PIM_GROUP_SOURCES(sourceJoin, joinedSource, JoinedSource)
PIM_GROUP_SOURCES(sourcePrune, prunedSource, PrunedSource)
PIM_GROUP_SOURCES(sourceRptJoin, joinedRptSource, JoinedRptSource)
PIM_GROUP_SOURCES(sourceRptPrune, prunedRptSource, PrunedRptSource)
#undef PIM_GROUP_SOURCES

/// `sources(GroupSources<kind>())` for a kind that has sources, `wildcard()` for a (*,G) join or prune. Both
/// return the same type.
template <class Sources, class Wildcard>
auto byEntryKind(EntryKind kind, Sources const& sources, Wildcard const& wildcard) {
  switch (kind) {
    case EntryKind::sourceJoin:
      return sources(GroupSources<EntryKind::sourceJoin>());
    case EntryKind::sourcePrune:
      return sources(GroupSources<EntryKind::sourcePrune>());
    case EntryKind::sourceRptJoin:
      return sources(GroupSources<EntryKind::sourceRptJoin>());
    case EntryKind::sourceRptPrune:
      return sources(GroupSources<EntryKind::sourceRptPrune>());
    case EntryKind::wildcardJoin:
    case EntryKind::wildcardPrune:
      break;
  }
  return wildcard();
}

/// The kind of a (*,G) entry.
inline EntryKind kindOf(WcSourceData const& wildcard) {
  return wildcard.join() ? EntryKind::wildcardJoin : EntryKind::wildcardPrune;
}

/// Whether the group has the entry. The address of a (*,G) entry is its RP.
inline bool hasEntry(JoinPruneGroupData const& group, EntryKind kind, Dova::IpGenAddr const& address) {
  return byEntryKind(
      kind, [&](auto sources) { return sources.contains(group, address); },
      [&] {
        Vel::Ptr<WcSourceData> const wildcard = group.wcSourceData();
        return wildcard && kindOf(*wildcard) == kind && wildcard->address() == address;
      });
}

/// Adds an entry and tells the reactors. True, unless the group has that source already. A (*,G) entry is
/// always another one, and takes the place of the one that is there.
inline bool addEntry(JoinPruneGroupData& group, EntryKind kind, Dova::IpGenAddr const& address) {
  return byEntryKind(
      kind, [&](auto sources) { return sources.add(group, address); },
      [&] {
        group.wcSourceDataIs(Vel::create<WcSourceData>(address, isJoin(kind)));
        return true;
      });
}

/// Removes an entry and tells the reactors; false if the group does not have it.
inline bool removeEntry(JoinPruneGroupData& group, EntryKind kind, Dova::IpGenAddr const& address) {
  return byEntryKind(
      kind, [&](auto sources) { return sources.remove(group, address); },
      [&] {
        bool const present = hasEntry(group, kind, address);
        if (present) group.wcSourceDataDel();
        return present;
      });
}

/// Calls `visit(kind, address)` for each entry of the group: by kind, and in each kind in the order of its
/// collection. What is called may change the group: an entry that is there during the whole walk is visited
/// once. REQUIRES: somebody holds the group meanwhile.
template <class Visit>
void forEachEntry(JoinPruneGroupData const& group, Visit const& visit) {
  for (EntryKind const kind : entryKinds) {
    byEntryKind(
        kind,
        [&](auto sources) {
          if (sources.count(group) == 0) return;
          for (auto i = sources.iterator(group); i; ++i) visit(kind, i.key());
        },
        [&] {
          Vel::Ptr<WcSourceData> const wildcard = group.wcSourceData();
          if (wildcard && kindOf(*wildcard) == kind) visit(kind, wildcard->address());
        });
  }
}

}  // namespace Routing::Pim::Packet
