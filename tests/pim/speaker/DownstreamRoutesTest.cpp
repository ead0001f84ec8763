// SPDX-License-Identifier: Apache-2.0
// Received messages and time into downstream routes: each cell of their tables.
#include "tests/pim/speaker/DownstreamScene.h"

namespace Routing::Pim::Speaker::Test {
namespace {

class DownstreamRoutesTest : public DownstreamScene {};

INSTANTIATE_TEST_SUITE_P(Families, DownstreamRoutesTest,
                         testing::Values(AddressFamily::ipv4, AddressFamily::ipv6));

// --- (*,G) and (S,G) -------------------------------------------------------------------------------

TEST_P(DownstreamRoutesTest, AJoinOfWhatIsNotThereIsTakenUpForItsHoldTime) {
  receive("join (*,G1) R1, join (S1,G1)");
  EXPECT_THAT(take(), ElementsAre("joined (*,G1) R1 by N1", "joined (S1,G1) by N1"));
  EXPECT_EQ(state("(*,G1)"), "joined until 210");
  EXPECT_EQ(state("(S1,G1)"), "joined until 210");
  EXPECT_EQ(wheel->timeMin(), 210);
}

TEST_P(DownstreamRoutesTest, APruneOfWhatIsNotThereIsNothing) {
  receive("prune (*,G1) R1, prune (S1,G1)");
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_EQ(routes->count(), 0u);
}

TEST_P(DownstreamRoutesTest, AJoinOfAJoinedRouteRestartsItsExpiryTimer) {
  receive("join (*,G1) R1, join (S1,G1)");
  runUntil(60);
  take();
  receive("join (*,G1) R1, join (S1,G1)", 210, "N2");
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_EQ(state("(*,G1)"), "joined until 270");
  EXPECT_EQ(state("(S1,G1)"), "joined until 270");
  runUntil(269);
  EXPECT_THAT(take(), IsEmpty());
  runUntil(270);
  EXPECT_THAT(take(), testing::UnorderedElementsAre("expired (*,G1) R1 by N2", "expired (S1,G1) by N2"));
}

TEST_P(DownstreamRoutesTest, AShorterHoldTimeDoesNotShortenWhatIsLeft) {
  receive("join (S1,G1)", 210);
  runUntil(10);
  receive("join (S1,G1)", 20);
  EXPECT_EQ(state("(S1,G1)"), "joined until 210");
  runUntil(200);
  receive("join (S1,G1)", 20);
  EXPECT_EQ(state("(S1,G1)"), "joined until 220");
}

TEST_P(DownstreamRoutesTest, AHoldTimeOf65535NeverExpires) {
  receive("join (S1,G1)", 65535);
  receive("join (S1,G1)", 210);
  EXPECT_EQ(state("(S1,G1)"), "joined until inf");
  EXPECT_EQ(wheel->timeMin(), Vel::never);
  receive("prune (S1,G1)");
  runUntil(3);
  EXPECT_EQ(state("(S1,G1)"), "none");
}

TEST_P(DownstreamRoutesTest, AHoldTimeOfZeroExpiresWithTheNextTimers) {
  receive("join (S1,G1)", 0);
  wheel->expire();
  EXPECT_THAT(take(), ElementsAre("joined (S1,G1) by N1", "expired (S1,G1) by N1"));
}

TEST_P(DownstreamRoutesTest, ARouteThatIsNotRefreshedExpires) {
  receive("join (*,G1) R1", 30, "N2");
  take();
  runUntil(30);
  EXPECT_THAT(take(), ElementsAre("expired (*,G1) R1 by N2"));
  EXPECT_EQ(routes->count(), 0u);
  EXPECT_EQ(wheel->timeMin(), Vel::never);
}

TEST_P(DownstreamRoutesTest, APruneOfAJoinedRouteWaitsForOthersToOverrideIt) {
  receive("join (*,G1) R1, join (S1,G1)");
  take();
  runUntil(1);
  receive("prune (*,G1) R2, prune (S1,G1)", 210, "N2");
  EXPECT_THAT(take(), ElementsAre("prune-pending (*,G1) R2 by N2", "prune-pending (S1,G1) by N2"));
  EXPECT_EQ(state("(*,G1)"), "prune-pending until 210, 4");
  EXPECT_EQ(state("(S1,G1)"), "prune-pending until 210, 4");
}

TEST_P(DownstreamRoutesTest, APruneThatNobodyOverridesTakesEffectAndIsEchoedWithItsRp) {
  receive("join (*,G1) R1, join (S1,G1)");
  receive("prune (*,G1) R2", 210, "N2");
  runUntil(1);
  receive("prune (S1,G1)", 210, "N2");
  take();
  runUntil(3);
  EXPECT_THAT(take(), ElementsAre("echo (*,G1) R2", "pruned (*,G1) R2 by N2"));
  runUntil(4);
  EXPECT_THAT(take(), ElementsAre("echo (S1,G1)", "pruned (S1,G1) by N2"));
  EXPECT_EQ(routes->count(), 0u);
}

TEST_P(DownstreamRoutesTest, AJoinOverridesAPendingPruneAndRestartsTheExpiryTimer) {
  receive("join (*,G1) R1, join (S1,G1)");
  receive("prune (*,G1) R1, prune (S1,G1)");
  take();
  runUntil(2);
  receive("join (*,G1) R1, join (S1,G1)", 210, "N2");
  EXPECT_THAT(take(), ElementsAre("joined (*,G1) R1 by N2", "joined (S1,G1) by N2"));
  EXPECT_EQ(state("(*,G1)"), "joined until 212");
  runUntil(211);
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_EQ(state("(S1,G1)"), "joined until 212");
}

TEST_P(DownstreamRoutesTest, AnotherPruneDoesNotRestartThePendingOne) {
  receive("join (S1,G1)");
  receive("prune (S1,G1)");
  runUntil(2);
  take();
  receive("prune (S1,G1)", 300, "N2");
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_EQ(state("(S1,G1)"), "prune-pending until 210, 3");
}

TEST_P(DownstreamRoutesTest, APrunePendingRouteExpiresWithoutAnEcho) {
  receive("join (*,G1) R1", 2);
  receive("prune (*,G1) R1");
  take();
  runUntil(100);
  EXPECT_THAT(take(), ElementsAre("expired (*,G1) R1 by N1"));
}

TEST_P(DownstreamRoutesTest, WithASingleNeighborAPruneTakesEffectInTheSameCallAndIsNotEchoed) {
  neighborsAre({"N1"});
  receive("join (*,G1) R1, join (S1,G1)");
  take();
  receive("prune (*,G1) R1, prune (S1,G1), prune (S2,G1,rpt)");
  EXPECT_THAT(take(),
              ElementsAre("pruned (*,G1) R1 by N1", "pruned (S1,G1) by N1", "pruned (S2,G1,rpt) by N1"));
  EXPECT_EQ(state("(S2,G1,rpt)"), "pruned until 210");
  EXPECT_EQ(routes->count(), 1u);
}

TEST_P(DownstreamRoutesTest, TheNumberOfNeighborsCountsWhenThePruneIsReceived) {
  receive("join (S1,G1)");
  receive("prune (S1,G1)");
  neighborsAre({"N1"});
  take();
  runUntil(3);
  EXPECT_THAT(take(), ElementsAre("echo (S1,G1)", "pruned (S1,G1) by N1"));
}

TEST_P(DownstreamRoutesTest, TheRoutesOfAGroupDoNotTouchEachOther) {
  receive("join (*,G1) R1, join (S1,G1), prune (S1,G1,rpt)");
  runUntil(3);
  take();
  receive("prune (S1,G1)");
  runUntil(6);
  EXPECT_THAT(take(), ElementsAre("prune-pending (S1,G1) by N1", "echo (S1,G1)", "pruned (S1,G1) by N1"));
  EXPECT_EQ(state("(*,G1)"), "joined until 210");
  EXPECT_EQ(state("(S1,G1,rpt)"), "pruned until 210");
}

// --- RP and filter ---------------------------------------------------------------------------------

TEST_P(DownstreamRoutesTest, AWildcardJoinWithAnotherRpThanTheGroupsIsIgnoredAndTheOtherEntriesAreNot) {
  link.rps[names.address("G1")] = names.address("R1");
  receive("join (*,G1) R1, prune (S1,G1,rpt)");
  runUntil(3);
  take();
  receive("join (*,G1) R2, join (S1,G1)", 250);
  EXPECT_THAT(take(), ElementsAre("joined (S1,G1) by N1"));
  EXPECT_EQ(state("(*,G1)"), "joined until 210");
  EXPECT_EQ(state("(S1,G1,rpt)"), "pruned until 210");
  EXPECT_EQ(routes->counters().wrongRp, 1u);
  receive("prune (*,G1) R2");
  EXPECT_THAT(take(), ElementsAre("prune-pending (*,G1) R2 by N1"));
}

TEST_P(DownstreamRoutesTest, WithoutAKnownRpThatOfTheMessageIsAcceptedAndAnotherOneIsTold) {
  receive("join (*,G1) R1");
  receive("join (*,G1) R2", 210, "N2");
  EXPECT_THAT(take(), ElementsAre("joined (*,G1) R1 by N1", "joined (*,G1) R2 by N2"));
  EXPECT_EQ(routes->route(names.route("(*,G1)"))->rp, names.address("R2"));
}

TEST_P(DownstreamRoutesTest, NoEntryOfADeniedGroupIsTakenUp) {
  link.denied.insert(names.address("G1"));
  receive("join (*,G1) R1, join (S1,G1), prune (S2,G1,rpt), join (S1,G2)");
  EXPECT_THAT(take(), ElementsAre("joined (S1,G2) by N1"));
  EXPECT_EQ(routes->counters().denied, 3u);
}

TEST_P(DownstreamRoutesTest, AMessageForAnotherRouterIsNothing) {
  receive("join (S1,G1), prune (S2,G1,rpt)", 210, "N1", false);
  EXPECT_EQ(routes->count(), 0u);
}

// --- (S,G,rpt) -------------------------------------------------------------------------------------

TEST_P(DownstreamRoutesTest, AnRptPruneIsPendingFirstAndThenTakesEffectWithoutAnEcho) {
  receive("prune (S1,G1,rpt)");
  EXPECT_THAT(take(), ElementsAre("prune-pending (S1,G1,rpt) by N1"));
  EXPECT_EQ(state("(S1,G1,rpt)"), "prune-pending until 210, 3");
  runUntil(3);
  EXPECT_THAT(take(), ElementsAre("pruned (S1,G1,rpt) by N1"));
  EXPECT_EQ(state("(S1,G1,rpt)"), "pruned until 210");
  runUntil(210);
  EXPECT_THAT(take(), ElementsAre("expired (S1,G1,rpt) by N1"));
}

TEST_P(DownstreamRoutesTest, JoinsOfAnRptRouteThatIsNotThereAreNothing) {
  receive("join (*,G1) R1, join (S1,G1,rpt)");
  EXPECT_THAT(take(), ElementsAre("joined (*,G1) R1 by N1"));
  EXPECT_EQ(state("(S1,G1,rpt)"), "none");
}

TEST_P(DownstreamRoutesTest, AnRptJoinEndsAPruneThatIsPendingOrInEffect) {
  receive("prune (S1,G1,rpt), prune (S2,G1,rpt)");
  runUntil(2);
  receive("join (S1,G1,rpt)");
  runUntil(4);
  take();
  receive("join (S2,G1,rpt)", 210, "N2");
  EXPECT_THAT(take(), ElementsAre("joined (S2,G1,rpt) by N2"));
  EXPECT_EQ(routes->count(), 0u);
}

TEST_P(DownstreamRoutesTest, AnRptPruneInEffectIsRefreshedAndAPendingOneIsNot) {
  receive("prune (S1,G1,rpt)");
  runUntil(2);
  receive("prune (S1,G1,rpt)");
  EXPECT_EQ(state("(S1,G1,rpt)"), "prune-pending until 210, 3");
  runUntil(5);
  take();
  receive("prune (S1,G1,rpt)");
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_EQ(state("(S1,G1,rpt)"), "pruned until 215");
  receive("prune (S1,G1,rpt)", 20);
  EXPECT_EQ(state("(S1,G1,rpt)"), "pruned until 215");
}

TEST_P(DownstreamRoutesTest, APendingRptPruneExpires) {
  receive("prune (S1,G1,rpt)", 2);
  runUntil(2);
  EXPECT_THAT(take(), ElementsAre("prune-pending (S1,G1,rpt) by N1", "expired (S1,G1,rpt) by N1"));
}

TEST_P(DownstreamRoutesTest, AWildcardJoinEndsTheRptPrunesThatAreNotBesideItWhenTheMessageEnds) {
  receive("prune (S1,G1,rpt), prune (S2,G1,rpt), prune (S1,G2,rpt)");
  runUntil(3);
  receive("prune (S3,G1,rpt), prune (S4,G1,rpt)");
  take();
  Lines during;
  onEvent = [&](DownstreamEvent const& event) {
    if (event.route == names.route("(*,G1)"))
      during = {state("(S1,G1,rpt)"), state("(S2,G1,rpt)"), state("(S3,G1,rpt)"), state("(S4,G1,rpt)")};
  };
  runUntil(4);
  receive("join (*,G1) R1, prune (S1,G1,rpt), prune (S3,G1,rpt)", 210, "N2");
  EXPECT_THAT(during, ElementsAre("pruned-tmp until 210", "pruned-tmp until 210",
                                  "prune-pending-tmp until 213, 6", "prune-pending-tmp until 213, 6"));
  EXPECT_THAT(take(),
              ElementsAre("joined (*,G1) R1 by N2", "joined (S2,G1,rpt) by N2", "joined (S4,G1,rpt) by N2"));
  EXPECT_EQ(state("(S1,G1,rpt)"), "pruned until 214");
  EXPECT_EQ(state("(S3,G1,rpt)"), "prune-pending until 214, 6");
  EXPECT_EQ(state("(S1,G2,rpt)"), "pruned until 210");
}

TEST_P(DownstreamRoutesTest, AnRptJoinChangesNothingInATemporaryState) {
  receive("prune (S1,G1,rpt), prune (S2,G1,rpt)");
  runUntil(3);
  receive("prune (S3,G1,rpt)");
  take();
  receive("join (*,G1) R1, join (S1,G1,rpt), join (S2,G1,rpt), join (S3,G1,rpt), prune (S2,G1,rpt)");
  EXPECT_THAT(take(),
              ElementsAre("joined (*,G1) R1 by N1", "joined (S1,G1,rpt) by N1", "joined (S3,G1,rpt) by N1"));
  EXPECT_EQ(state("(S2,G1,rpt)"), "pruned until 213");
}

TEST_P(DownstreamRoutesTest, APruneThatComesBeforeTheWildcardJoinInTheMessageEndsWithIt) {
  receive("prune (S1,G1,rpt); join (*,G1) R1");
  EXPECT_THAT(take(), ElementsAre("prune-pending (S1,G1,rpt) by N1", "joined (*,G1) R1 by N1",
                                  "joined (S1,G1,rpt) by N1"));
  receive("join (*,G1) R1; join (*,G1) R1, prune (S1,G1,rpt); join (*,G1) R1; prune (S1,G1,rpt)");
  EXPECT_EQ(state("(S1,G1,rpt)"), "prune-pending until 210, 3");
}

TEST_P(DownstreamRoutesTest, ThePruneTimerOfATemporaryStateRunsOn) {
  receive("prune (S1,G1,rpt)");
  runUntil(2);
  receive("join (*,G1) R1, prune (S1,G1,rpt)");
  take();
  runUntil(3);
  EXPECT_THAT(take(), ElementsAre("pruned (S1,G1,rpt) by N1"));
  EXPECT_EQ(state("(S1,G1,rpt)"), "pruned until 212");
}

}  // namespace
}  // namespace Routing::Pim::Speaker::Test
