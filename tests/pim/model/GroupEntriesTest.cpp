// SPDX-License-Identifier: Apache-2.0
#include "pim/model/packet/GroupEntries.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Routing::Pim::Packet {
namespace {

using Dova::IpGenAddr;

IpGenAddr const s1("10.9.0.1"), s2("10.9.0.2"), rp("10.255.0.1");

std::vector<std::string> entriesOf(JoinPruneGroupData const& group) {
  std::vector<std::string> entries;
  forEachEntry(group, [&](EntryKind kind, IpGenAddr const& address) {
    entries.push_back(std::string(text(kind)) + " " + toText(address));
  });
  return entries;
}

// The collection that each kind is for, by the group's own operations.
bool inItsCollection(JoinPruneGroupData const& group, EntryKind kind, IpGenAddr const& address) {
  switch (kind) {
    case EntryKind::sourceJoin:
      return group.joinedSource(address);
    case EntryKind::sourcePrune:
      return group.prunedSource(address);
    case EntryKind::sourceRptJoin:
      return group.joinedRptSource(address);
    case EntryKind::sourceRptPrune:
      return group.prunedRptSource(address);
    case EntryKind::wildcardJoin:
    case EntryKind::wildcardPrune:
      break;
  }
  auto const wildcard = group.wcSourceData();
  return wildcard && wildcard->join() == isJoin(kind) && wildcard->address() == address;
}

TEST(GroupEntriesTest, AnEntryOfEachKindIsAddedToItsCollectionAloneAndRemovedFromIt) {
  for (EntryKind const kind : entryKinds) {
    auto const group = Vel::create<JoinPruneGroupData>(IpGenAddr("239.1.1.1"));
    EXPECT_FALSE(hasEntry(*group, kind, s1));
    EXPECT_FALSE(removeEntry(*group, kind, s1));
    EXPECT_TRUE(addEntry(*group, kind, s1)) << text(kind);
    for (EntryKind const other : entryKinds) {
      EXPECT_EQ(inItsCollection(*group, other, s1), other == kind) << text(kind) << ", " << text(other);
      EXPECT_EQ(hasEntry(*group, other, s1), other == kind) << text(kind) << ", " << text(other);
    }
    EXPECT_FALSE(hasEntry(*group, kind, s2));
    EXPECT_EQ(group->routes(), 1u);
    EXPECT_EQ(addEntry(*group, kind, s1), isWildcard(kind));
    EXPECT_EQ(group->routes(), 1u);
    EXPECT_FALSE(removeEntry(*group, opposite(kind), s1));
    EXPECT_FALSE(removeEntry(*group, kind, s2));
    EXPECT_TRUE(removeEntry(*group, kind, s1));
    EXPECT_TRUE(group->empty());
  }
}

TEST(GroupEntriesTest, TheWalkHasEachEntryOnceByKind) {
  auto const group = Vel::create<JoinPruneGroupData>(IpGenAddr("239.1.1.1"));
  EXPECT_THAT(entriesOf(*group), testing::IsEmpty());
  for (EntryKind const kind : entryKinds) addEntry(*group, kind, isWildcard(kind) ? rp : s1);
  addEntry(*group, EntryKind::sourceRptPrune, s2);
  EXPECT_THAT(entriesOf(*group),
              testing::ElementsAre("(S,G) join 10.9.0.1", "(S,G) prune 10.9.0.1", "(*,G) prune 10.255.0.1",
                                   "(S,G,rpt) join 10.9.0.1", "(S,G,rpt) prune 10.9.0.1",
                                   "(S,G,rpt) prune 10.9.0.2"));
  addEntry(*group, EntryKind::wildcardJoin, s2);
  EXPECT_THAT(entriesOf(*group), testing::Contains("(*,G) join 10.9.0.2"));
}

TEST(GroupEntriesTest, TheWalkMayRemoveWhatItMeets) {
  auto const group = Vel::create<JoinPruneGroupData>(IpGenAddr("239.1.1.1"));
  for (EntryKind const kind : entryKinds)
    for (Vel::U32 n = 0; n < 50; ++n) addEntry(*group, kind, IpGenAddr::ipv4(0x0a090000 + n));
  Vel::U32 visited = 0;
  forEachEntry(*group, [&](EntryKind kind, IpGenAddr const& address) {
    ++visited;
    EXPECT_TRUE(removeEntry(*group, kind, address));
  });
  EXPECT_EQ(visited, 201u);
  EXPECT_TRUE(group->empty());
}

}  // namespace
}  // namespace Routing::Pim::Packet
