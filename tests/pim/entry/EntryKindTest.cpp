// SPDX-License-Identifier: Apache-2.0
#include "pim/entry/EntryKind.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace Routing::Pim {
namespace {

TEST(EntryKindTest, EachKindHasATextOfItsOwnThatIsItsRouteAndItsAction) {
  std::set<std::string_view> texts;
  for (EntryKind const kind : entryKinds) {
    EXPECT_TRUE(texts.insert(text(kind)).second) << text(kind);
    EXPECT_EQ(text(kind), std::string(routeText(kind)) + " " + std::string(actionText(kind)));
    EXPECT_EQ(isJoin(kind), actionText(kind) == "join");
    EXPECT_EQ(isWildcard(kind), routeText(kind) == "(*,G)");
    EXPECT_EQ(entryKinds[indexOf(kind)], kind);
  }
}

TEST(EntryKindTest, TheFlagsAndTheListSayWhichKindItIs) {
  EXPECT_EQ(flagsOf(EntryKind::sourceJoin), 4);
  EXPECT_EQ(flagsOf(EntryKind::wildcardJoin), 7);
  EXPECT_EQ(flagsOf(EntryKind::sourceRptJoin), 5);
  for (EntryKind const kind : entryKinds) {
    EXPECT_EQ(flagsOf(kind), flagsOf(opposite(kind)));
    EXPECT_EQ(entryKindOf(flagsOf(kind), isJoin(kind)), kind);
    // A receiver ignores S.
    EXPECT_EQ(entryKindOf(static_cast<Vel::U8>(flagsOf(kind) & ~EntryFlags::sparse), isJoin(kind)), kind);
  }
}

TEST(EntryKindTest, TheOppositeIsTheOtherActionOnTheSameRoute) {
  for (EntryKind const kind : entryKinds) {
    EXPECT_NE(isJoin(opposite(kind)), isJoin(kind));
    EXPECT_EQ(routeText(opposite(kind)), routeText(kind));
    EXPECT_EQ(opposite(opposite(kind)), kind);
    EXPECT_EQ(joinOf(kind), isJoin(kind) ? kind : opposite(kind));
    EXPECT_EQ(pruneOf(kind), isJoin(kind) ? opposite(kind) : kind);
  }
}

}  // namespace
}  // namespace Routing::Pim
