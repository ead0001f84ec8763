// SPDX-License-Identifier: Apache-2.0
// Rounds through periodic data, and what the filter and the suppression hook have left out.
#include "tests/pim/speaker/PacketManagerScene.h"

namespace Routing::Pim::Speaker {
namespace {

// --- Periodic data

TEST_F(PacketManagerTest, GoesRoundPeriodicDataFromWhereTheLastMessageEnded) {
  mtuFor(1, 2);
  auto const data = dataIs("10.0.0.2", true);
  auto const group = groupIs(data, "239.1.1.1");
  for (U32 n = 1; n <= 5; ++n) group->prunedRptSourceIs(behind("10.9.0.0", n));
  for (int n = 0; n < 4; ++n) ask(data);
  Lines const first{"prune (S,G,rpt) 10.9.0.1 239.1.1.1", "prune (S,G,rpt) 10.9.0.2 239.1.1.1"};
  EXPECT_THAT(
      taken(),
      ElementsAre(first, Lines{"prune (S,G,rpt) 10.9.0.3 239.1.1.1", "prune (S,G,rpt) 10.9.0.4 239.1.1.1"},
                  Lines{"prune (S,G,rpt) 10.9.0.5 239.1.1.1"}, first));
  EXPECT_EQ(data->joinPruneGroupDataCount(), 1u);
  EXPECT_EQ(group->routes(), 5u);
}

TEST_F(PacketManagerTest, SendsAllOfPeriodicDataOnceAMessageIfItFits) {
  auto const data = dataIs("10.0.0.2", true);
  for (U32 n = 0; n < 3; ++n)
    data->joinPruneGroupDataIs(behind("239.1.0.0", n))->joinedSourceIs(IpGenAddr("10.9.0.1"));
  for (int n = 0; n < 3; ++n) EXPECT_EQ(ask(data), (MessageReport{3, 0, 0}));
  EXPECT_THAT(taken(), SizeIs(3));
}

TEST_F(PacketManagerTest, GoesOnBehindAGroupOrSourceThatIsGone) {
  mtuFor(1, 2);
  auto const data = dataIs("10.0.0.2", true);
  auto const group = groupIs(data, "239.1.1.1");
  for (U32 n = 1; n <= 5; ++n) group->prunedRptSourceIs(behind("10.9.0.0", n));
  ask(data);
  taken();
  group->prunedRptSourceDel(IpGenAddr("10.9.0.2"));
  ask(data);
  EXPECT_THAT(taken(),
              ElementsAre(Lines{"prune (S,G,rpt) 10.9.0.3 239.1.1.1", "prune (S,G,rpt) 10.9.0.4 239.1.1.1"}));
  // What is left of the group is removed, and with it everything behind the bookmark: the front is next.
  for (U32 n = 1; n <= 5; ++n) group->prunedRptSourceDel(behind("10.9.0.0", n));
  data->joinPruneGroupDataDel(IpGenAddr("239.1.1.1"));
  groupIs(data, "239.1.1.2")->joinedSourceIs(IpGenAddr("10.9.0.1"));
  EXPECT_EQ(ask(data), (MessageReport{1, 0, 0}));
  EXPECT_THAT(taken(), ElementsAre(Lines{"join (S,G) 10.9.0.1 239.1.1.2"}));
  EXPECT_EQ(ask(data), (MessageReport{1, 0, 0}));
}

TEST_F(PacketManagerTest, GoesRoundEachDataSetForItself) {
  mtuFor(1, 1);
  auto const data = dataIs("10.0.0.2", true), other = dataIs("10.0.0.3", true);
  for (auto const& one : {data, other})
    for (U32 n = 1; n <= 2; ++n) groupIs(one, "239.1.1.1")->prunedRptSourceIs(behind("10.9.0.0", n));
  for (int n = 0; n < 2; ++n) {
    ask(data);
    ask(other);
  }
  EXPECT_THAT(
      taken(),
      ElementsAre(Lines{"prune (S,G,rpt) 10.9.0.1 239.1.1.1"}, Lines{"prune (S,G,rpt) 10.9.0.1 239.1.1.1"},
                  Lines{"prune (S,G,rpt) 10.9.0.2 239.1.1.1"}, Lines{"prune (S,G,rpt) 10.9.0.2 239.1.1.1"}));
}

TEST_F(PacketManagerTest, ForgetsTheBookmarksOfDataSetsThatAreGone) {
  {
    auto const data = dataIs("10.0.0.2", true), once = dataIs("10.0.0.2");
    for (auto const& one : {data, once}) groupIs(one, "239.1.1.1")->joinedSourceIs(IpGenAddr("10.9.0.1"));
    ask(once);
    ask(data);
    EXPECT_EQ(manager->bookmarks(), 2u);
  }
  manager->txMessageInfo()->joinPruneMessage()->joinPruneDataIs(nullptr);
  EXPECT_EQ(manager->bookmarks(), 0u);
}

TEST_F(PacketManagerTest, MayGoBeforeTheDataThatItRemembers) {
  auto const data = dataIs("10.0.0.2", true);
  auto const group = groupIs(data, "239.1.1.1");
  group->joinedSourceIs(IpGenAddr("10.9.0.1"));
  ask(data);
  auto const record = manager->txMessageInfo();
  manager = nullptr;
  record->countInc(1);
  EXPECT_THAT(packets(), SizeIs(1));
  group->joinedSourceDel(IpGenAddr("10.9.0.1"));
}

// --- Filter and suppression

TEST_F(PacketManagerTest, TakesOutWhatTheFilterDeniesAndCountsItAsFiltered) {
  auto const filter = Vel::create<Filter>();
  filter->denied = {"239.1.1.1"};
  managerIs(filter);
  auto const data = dataIs("10.0.0.2");
  auto const denied = groupIs(data, "239.1.1.1");
  denied->wcSourceDataIs(wildcardOf(IpGenAddr("10.255.0.1")));
  denied->prunedRptSourceIs(IpGenAddr("10.9.0.1"));
  denied->joinedRptSourceIs(IpGenAddr("10.9.0.2"));
  denied->joinedSourceIs(IpGenAddr("10.9.0.3"));
  denied->prunedSourceIs(IpGenAddr("10.9.0.4"));
  groupIs(data, "239.1.1.2")->joinedSourceIs(IpGenAddr("10.9.0.1"));
  EXPECT_EQ(ask(data), (MessageReport{1, 0, 5}));
  EXPECT_THAT(taken(), ElementsAre(Lines{"join (S,G) 10.9.0.1 239.1.1.2"}));
  EXPECT_THAT(filter->asked, testing::UnorderedElementsAre("239.1.1.1", "239.1.1.2"));
  EXPECT_EQ(data->joinPruneGroupDataCount(), 0u);
}

TEST_F(PacketManagerTest, SendsNothingIfTheFilterDeniesEverything) {
  auto const filter = Vel::create<Filter>();
  filter->denied = {"239.1.1.1"};
  managerIs(filter);
  for (bool const periodic : {false, true}) {
    auto const data = dataIs("10.0.0.2", periodic);
    for (U32 n = 1; n <= 3; ++n) groupIs(data, "239.1.1.1")->joinedSourceIs(behind("10.9.0.0", n));
    EXPECT_EQ(ask(data), (MessageReport{0, 0, 3}));
    EXPECT_EQ(data->joinPruneGroupDataCount(), periodic ? 1u : 0u);
  }
  EXPECT_THAT(packets(), IsEmpty());
}

TEST_F(PacketManagerTest, AsksTheSuppressionHookForEachEntryAndTakesOutWhatItNames) {
  Lines asked;
  std::set<std::string> suppressed;
  managerIs(nullptr,
            [&](Dova::IntfId const& intf, IpGenAddr const& upstream, RouteKey const& route, EntryKind kind) {
              asked.push_back(shown(intf) + " " + toText(upstream) + " " + shown(route) + " " +
                              std::string(text(kind)));
              return suppressed.contains(shown(route) + " " + std::string(actionText(kind)));
            });
  suppressed = {"(*,239.1.1.1) join", "(10.9.0.2,239.1.1.1) join"};
  auto const data = dataIs("10.0.0.2");
  auto const group = groupIs(data, "239.1.1.1");
  group->wcSourceDataIs(wildcardOf(IpGenAddr("10.255.0.1")));
  group->prunedRptSourceIs(IpGenAddr("10.9.0.1"));
  group->joinedSourceIs(IpGenAddr("10.9.0.2"));
  group->joinedRptSourceIs(IpGenAddr("10.9.0.3"));
  group->prunedSourceIs(IpGenAddr("10.9.0.4"));
  EXPECT_EQ(ask(data), (MessageReport{3, 2, 0}));
  EXPECT_THAT(asked, ElementsAre("eth0 10.0.0.2 (*,239.1.1.1) (*,G) join",
                                 "eth0 10.0.0.2 (10.9.0.1,239.1.1.1) (S,G,rpt) prune",
                                 "eth0 10.0.0.2 (10.9.0.2,239.1.1.1) (S,G) join",
                                 "eth0 10.0.0.2 (10.9.0.3,239.1.1.1) (S,G,rpt) join",
                                 "eth0 10.0.0.2 (10.9.0.4,239.1.1.1) (S,G) prune"));
  EXPECT_THAT(taken(),
              ElementsAre(Lines{"join (S,G,rpt) 10.9.0.3 239.1.1.1", "prune (S,G,rpt) 10.9.0.1 239.1.1.1",
                                "prune (S,G) 10.9.0.4 239.1.1.1"}));
  EXPECT_EQ(data->joinPruneGroupDataCount(), 0u);
}

TEST_F(PacketManagerTest, DoesNotSuppressThePrunesThatGoWithAWildcardJoin) {
  managerIs(nullptr, [](auto const&, auto const&, auto const&, EntryKind kind) { return !isJoin(kind); });
  auto const data = dataIs("10.0.0.2", true);
  auto const group = groupIs(data, "239.1.1.1");
  group->wcSourceDataIs(wildcardOf(IpGenAddr("10.255.0.1")));
  group->prunedRptSourceIs(IpGenAddr("10.9.0.1"));
  group->prunedSourceIs(IpGenAddr("10.9.0.2"));
  EXPECT_EQ(ask(data), (MessageReport{2, 1, 0}));
  EXPECT_THAT(taken(),
              ElementsAre(Lines{"join (*,G) 10.255.0.1 239.1.1.1", "prune (S,G,rpt) 10.9.0.1 239.1.1.1"}));
}

TEST_F(PacketManagerTest, EndsAStepInALongRowOfWhatIsLeftOutAndGoesOnBehindIt) {
  auto const filter = Vel::create<Filter>();
  filter->denied = {"239.1.1.1"};
  for (bool const filtered : {false, true}) {
    managerIs(filtered ? filter : nullptr, [&](auto const&, auto const&, RouteKey const& route, EntryKind) {
      return route.group() == IpGenAddr("239.1.1.1");
    });
    for (bool const periodic : {false, true}) {
      auto const data = dataIs("10.0.0.2", periodic);
      for (U32 n = 1; n <= PacketManager::maxPassedOver + 5; ++n)
        groupIs(data, "239.1.1.1")->joinedSourceIs(behind("10.9.0.0", n));
      auto const first = ask(data);
      EXPECT_EQ(first.skipped(), PacketManager::maxPassedOver);
      EXPECT_EQ(filtered, first.filteredSources != 0);
      EXPECT_EQ(ask(data).skipped(), 5u);
      EXPECT_EQ(data->joinPruneGroupDataCount(), periodic ? 1u : 0u);
    }
  }
  EXPECT_THAT(packets(), IsEmpty());
}

}  // namespace
}  // namespace Routing::Pim::Speaker
