// SPDX-License-Identifier: Apache-2.0
// The (S,G,rpt) prunes that go with a (*,G) join, and the periodic joins that are left out.
#include "tests/pim/speaker/PacketManagerScene.h"

namespace Routing::Pim::Speaker {
namespace {

using testing::Contains;

class BesideTest : public PacketManagerTest {
 protected:
  BesideTest() {
    engine->periodicGroupStatusIs(Vel::create<Packet::JoinPruneStatus>());
    sets = {engine->triggeredGroupIs(neighbor), engine->overrideGroupIs(neighbor),
            engine->periodicGroupStatus()->upJoinPruneIs(neighbor)};
    sets[2]->periodicIs(true);
    manager->dataSetsAre(engine);
  }

  IpGenAddr const neighbor{"10.0.0.2"};
  Vel::Ptr<JoinPruneStatus> engine = joinPruneStatusFactory();
  std::array<Data, 3> sets;  // triggered, override, periodic
};

TEST_F(BesideTest, AWildcardJoinTakesThePrunesOfItsGroupAlongWhicheverSetTheyAreIn) {
  for (auto const& joining : sets) {
    for (std::size_t i = 0; i < sets.size(); ++i) {
      groupIs(sets[i], "239.1.1.1")->prunedRptSourceIs(behind("10.9.0.1", static_cast<U32>(3 - i)));
      groupIs(sets[i], "239.1.1.1")->prunedRptSourceIs(IpGenAddr("10.9.0.9"));
      groupIs(sets[i], "239.1.1.2")->prunedRptSourceIs(IpGenAddr("10.9.0.8"));
    }
    groupIs(joining, "239.1.1.1")->wcSourceDataIs(wildcardOf(IpGenAddr("10.255.0.1")));
    mtuFor(1, 5);
    // Of its own set: the join and two prunes.
    EXPECT_EQ(ask(joining).sources, 3u);
    EXPECT_THAT(taken(),
                ElementsAre(Lines{"join (*,G) 10.255.0.1 239.1.1.1", "prune (S,G,rpt) 10.9.0.2 239.1.1.1",
                                  "prune (S,G,rpt) 10.9.0.3 239.1.1.1", "prune (S,G,rpt) 10.9.0.4 239.1.1.1",
                                  "prune (S,G,rpt) 10.9.0.9 239.1.1.1"}));
    // Those of the other sets stay there.
    for (auto const& other : sets) {
      bool const isEmptied = other == joining && !other->periodic();
      auto const group = other->joinPruneGroupData(IpGenAddr("239.1.1.1"));
      EXPECT_EQ(group ? group->prunedRptSourceCount() : 0, isEmptied ? 0u : 2u);
      other->joinPruneGroupDataDelAll();
    }
    manager->stop();  // the next set begins at its front
    manager->start();
  }
}

TEST_F(BesideTest, AWildcardJoinAndThePrunesOfAnotherSetGoIntoTheNextMessageRatherThanBeingParted) {
  groupIs(sets[2], "239.1.1.2")->prunedRptSourceIs(IpGenAddr("10.9.0.1"));
  groupIs(sets[2], "239.1.1.2")->prunedRptSourceIs(IpGenAddr("10.9.0.2"));
  groupIs(sets[2], "239.1.1.1")->prunedRptSourceIs(IpGenAddr("10.9.0.1"));
  groupIs(sets[2], "239.1.1.1")->prunedRptSourceIs(IpGenAddr("10.9.0.2"));
  groupIs(sets[0], "239.1.1.2")->wcSourceDataIs(wildcardOf(IpGenAddr("10.255.0.1")));
  groupIs(sets[0], "239.1.1.1")->wcSourceDataIs(wildcardOf(IpGenAddr("10.255.0.1")));
  mtuFor(2, 5);
  askForAll(sets[0]);
  auto const messages = taken();
  ASSERT_THAT(messages, SizeIs(2));
  for (auto const& message : messages) EXPECT_THAT(message, SizeIs(3));
}

TEST_F(BesideTest, TheSmallestPrunesOfAllSetsGoAndTheRestIsCounted) {
  for (U32 n : {1, 4, 5}) groupIs(sets[0], "239.1.1.1")->prunedRptSourceIs(behind("10.9.0.0", n));
  for (U32 n : {2, 3, 6}) groupIs(sets[2], "239.1.1.1")->prunedRptSourceIs(behind("10.9.0.0", n));
  groupIs(sets[0], "239.1.1.1")->wcSourceDataIs(wildcardOf(IpGenAddr("10.255.0.1")));
  mtuFor(1, 4);
  EXPECT_EQ(ask(sets[0]), (MessageReport{2, 2, 0}));
  EXPECT_THAT(taken(),
              ElementsAre(Lines{"join (*,G) 10.255.0.1 239.1.1.1", "prune (S,G,rpt) 10.9.0.1 239.1.1.1",
                                "prune (S,G,rpt) 10.9.0.2 239.1.1.1", "prune (S,G,rpt) 10.9.0.3 239.1.1.1"}));
  EXPECT_EQ(manager->prunesLeftOut(), 3u);
  EXPECT_THAT(traces, Contains(HasSubstr("for 3 (S,G,rpt) prunes")));
}

TEST_F(BesideTest, APruneThatIsPendingAsAJoinOrCannotBeEncodedDoesNotGoAlong) {
  groupIs(sets[2], "239.1.1.1")->prunedRptSourceIs(IpGenAddr("10.9.0.1"));
  groupIs(sets[2], "239.1.1.1")->prunedRptSourceIs(IpGenAddr("2001:db8::1"));
  groupIs(sets[1], "239.1.1.1")->joinedRptSourceIs(IpGenAddr("10.9.0.1"));
  groupIs(sets[0], "239.1.1.1")->wcSourceDataIs(wildcardOf(IpGenAddr("10.255.0.1")));
  EXPECT_EQ(ask(sets[0]), (MessageReport{1, 0, 0}));
  EXPECT_THAT(taken(), ElementsAre(Lines{"join (*,G) 10.255.0.1 239.1.1.1"}));
}

TEST_F(BesideTest, APeriodicJoinThatWasHeardIsLeftOutAndAWildcardJoinWithItsPrunes) {
  struct Heard final : HeardJoins {
    bool anyLeftOut(Dova::IntfId const& intf, IpGenAddr const& upstream) const override {
      return any && intf == Dova::IntfId("eth0") && upstream == IpGenAddr("10.0.0.2");
    }
    bool isLeftOut(Dova::IntfId const&, IpGenAddr const&, RouteKey const& route) const override {
      return routes.contains(shown(route));
    }
    bool any = true;
    std::set<std::string> routes{"(*,239.1.1.1)", "(10.9.0.1,239.1.1.1)"};
  } heard;
  manager->heardJoinsAre(&heard);
  for (auto const& data : sets) {
    auto const group = groupIs(data, "239.1.1.1");
    group->wcSourceDataIs(wildcardOf(IpGenAddr("10.255.0.1")));
    group->prunedRptSourceIs(IpGenAddr("10.9.0.1"));
    group->joinedSourceIs(IpGenAddr("10.9.0.1"));
    group->joinedSourceIs(IpGenAddr("10.9.0.2"));
  }
  EXPECT_EQ(ask(sets[0]), (MessageReport{4, 0, 0}));
  EXPECT_EQ(ask(sets[1]), (MessageReport{4, 0, 0}));
  captured.take();
  EXPECT_EQ(ask(sets[2]), (MessageReport{1, 3, 0}));
  EXPECT_THAT(taken(), ElementsAre(Lines{"join (S,G) 10.9.0.2 239.1.1.1"}));
  heard.any = false;
  EXPECT_EQ(ask(sets[2]), (MessageReport{4, 0, 0}));
}

}  // namespace
}  // namespace Routing::Pim::Speaker
