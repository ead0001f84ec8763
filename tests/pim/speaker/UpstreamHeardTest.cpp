// SPDX-License-Identifier: Apache-2.0
// What other routers ask of our upstream neighbors, and the (S,G,rpt) prunes beside a (*,G) join.
#include "tests/pim/speaker/UpstreamScene.h"

namespace Routing::Pim::Speaker::Test {
namespace {

class UpstreamHeardTest : public UpstreamScene {
 protected:
  /// Joins what is given, and lets it be sent.
  void joined(std::vector<std::string> const& routes) {
    for (auto const& route : routes) join(route, "N1");
    sentUntil(1);
  }
};

INSTANTIATE_TEST_SUITE_P(Families, UpstreamHeardTest,
                         testing::Values(AddressFamily::ipv4, AddressFamily::ipv6));

// --- Suppression -----------------------------------------------------------------------------------

TEST_P(UpstreamHeardTest, ARefreshIsLeftOutWhileAnotherRoutersJoinStandsForIt) {
  joined({"(S1,G1)", "(S2,G1)", "(*,G1)"});
  prune("(S3,G1)");
  sentUntil(59);
  hear("N1", "join (*,G1) R1, join (S1,G1)");
  EXPECT_EQ(sending("(S1,G1)"), "suppressed");
  EXPECT_EQ(sending("(S2,G1)"), "sent");
  // The next turn, at 120, still comes before t_suppressed has ended; the one after that does not.
  EXPECT_THAT(sentUntil(60), ElementsAre("N1: join (S2,G1)"));
  EXPECT_THAT(sentUntil(120), ElementsAre("N1: join (S2,G1)"));
  EXPECT_THAT(sentUntil(180),
              ElementsAre("N1: join (*,G1) R1, join (S1,G1), join (S2,G1), prune (S3,G1,rpt)"));
}

TEST_P(UpstreamHeardTest, ARefreshIsNotLeftOutIfTheNextTurnComesAfterTheHeardHoldTime) {
  joined({"(S1,G1)", "(S2,G1)", "(S3,G1)"});
  sentUntil(59);
  hear("N1", "join (S1,G1)", 64);  // 59 + 64 - 3 is the next turn, 120
  hear("N1", "join (S2,G1)", 65);
  hear("N1", "join (S3,G1)", 40);
  EXPECT_THAT(sentUntil(60), ElementsAre("N1: join (S1,G1), join (S3,G1)"));
  EXPECT_THAT(sentUntil(120), ElementsAre("N1: join (S1,G1), join (S2,G1), join (S3,G1)"));
}

TEST_P(UpstreamHeardTest, SuppressionEndsAfter1Point1To1Point4PeriodsAndIsNeverShortened) {
  joined({"(S1,G1)"});
  sentUntil(10);
  hear("N1", "join (S1,G1)", 65535);
  hear("N1", "join (S1,G1)", 1);
  time = 10 + 1.1 * 60 - 0.01;
  EXPECT_EQ(sending("(S1,G1)"), "suppressed");
  time = 10 + 1.4 * 60;
  EXPECT_EQ(sending("(S1,G1)"), "sent");
}

TEST_P(UpstreamHeardTest, WithoutSuppressionNothingIsLeftOutAndNoOverrideTakenOut) {
  joined({"(S1,G1)"});
  eth0.link.suppression = false;
  hear("N1", "prune (S1,G1)");
  hear("N1", "join (S1,G1)");
  EXPECT_EQ(sending("(S1,G1)"), "sent");
  EXPECT_THAT(sentUntil(4), ElementsAre("N1: join (S1,G1)"));
  EXPECT_THAT(sentUntil(60), ElementsAre("N1: join (S1,G1)"));
}

TEST_P(UpstreamHeardTest, JoinsToAnotherNeighborOrOfAnotherRouteSuppressNothing) {
  joined({"(S1,G1)", "(*,G1)"});
  sentUntil(59);
  hear("N2", "join (S1,G1), join (*,G1) R1");
  hear("N1", "join (S1,G2), join (S2,G1), join (S1,G1,rpt)");
  EXPECT_THAT(sentUntil(60), ElementsAre("N1: join (*,G1) R1, join (S1,G1)"));
}

TEST_P(UpstreamHeardTest, TriggeredJoinsAreNotSuppressed) {
  joined({"(S1,G1)"});
  hear("N1", "join (S1,G1)");
  leave("(S1,G1)");
  join("(S1,G1)", "N1");
  hear("N1", "join (S1,G1)");
  EXPECT_THAT(sentUntil(2), ElementsAre("N1: join (S1,G1)"));
}

TEST_P(UpstreamHeardTest, SuppressionEndsWithTheNeighborAndWithAnotherOne) {
  joined({"(S1,G1)", "(S2,G1)", "(S3,G1)"});
  hear("N1", "join (S1,G1), join (S2,G1), join (S3,G1)");
  join("(S2,G1)", "N2");
  EXPECT_EQ(sending("(S2,G1)"), "sent");
  eth0.observer->neighborRestarted(names.address("N1"));
  EXPECT_EQ(sending("(S1,G1)"), "sent");
  hear("N1", "join (S1,G1)");
  neighborDown("N1");
  neighborUp("N1");
  EXPECT_EQ(sending("(S1,G1)"), "sent");
}

// --- Override --------------------------------------------------------------------------------------

TEST_P(UpstreamHeardTest, APruneThatIsHeardIsOverriddenWithinTheOverrideIntervalAndEndsSuppression) {
  joined({"(S1,G1)", "(*,G2)"});
  hear("N1", "join (S1,G1), join (*,G2) R1");
  hear("N1", "prune (S1,G1), prune (*,G2) R2");
  EXPECT_EQ(sending("(S1,G1)"), "sent");
  EXPECT_EQ(sending("(*,G2)"), "sent");
  EXPECT_THAT(sentUntil(1.24), IsEmpty());
  EXPECT_THAT(sentUntil(3.6), ElementsAre("N1: join (*,G2) R1, join (S1,G1)"));
  EXPECT_THAT(sentUntil(59), IsEmpty());
}

TEST_P(UpstreamHeardTest, AnSGJoinIsAlsoOverriddenAfterARptPruneAndAWildcardPrune) {
  joined({"(S1,G1)", "(S1,G2)", "(S2,G2)", "(S3,G3)"});
  hear("N1", "prune (S1,G1,rpt), prune (*,G2) R1");
  EXPECT_THAT(sentUntil(4), ElementsAre("N1: join (S1,G1), join (S1,G2), join (S2,G2)"));
  hear("N2", "prune (*,G2) R1, prune (S1,G1)");
  EXPECT_THAT(sentUntil(8), IsEmpty());
}

TEST_P(UpstreamHeardTest, AWildcardJoinIsNotOverriddenAfterAnSGPrune) {
  joined({"(*,G1)"});
  hear("N1", "prune (*,G2) R1, prune (S1,G2)");
  EXPECT_THAT(sentUntil(4), IsEmpty());
}

TEST_P(UpstreamHeardTest, AJoinThatIsHeardTakesAPendingOverrideOutUnlessItEndsEarlier) {
  joined({"(S1,G1)", "(*,G3)", "(S2,G1)"});
  hear("N1", "prune (S1,G1), prune (S2,G1), prune (*,G3) R1");
  hear("N1", "join (S1,G1), join (*,G3) R1");
  hear("N1", "join (S2,G1)", 2);
  EXPECT_THAT(sentUntil(4), ElementsAre("N1: join (S2,G1)"));
}

TEST_P(UpstreamHeardTest, APruneThatIsHeardWhileTheJoinIsAboutToBeSentCallsForNoOther) {
  join("(S1,G1)", "N1");
  join("(*,G2)", "N1");
  hear("N1", "prune (S1,G1), prune (*,G2) R1");
  EXPECT_THAT(sentUntil(10), ElementsAre("N1: join (*,G2) R1, join (S1,G1)"));
}

// --- (S,G,rpt) -------------------------------------------------------------------------------------

TEST_P(UpstreamHeardTest, PrunesAreStoredUntilTheSharedTreeIsJoinedAndThenGoWithEachJoin) {
  prune("(S1,G1)");
  prune("(S2,G1)");
  prune("(S3,G1)");
  unprune("(S3,G1)");
  EXPECT_THAT(sentUntil(1), IsEmpty());
  join("(*,G1)", "N1");
  EXPECT_THAT(sentUntil(2), ElementsAre("N1: join (*,G1) R1, prune (S1,G1,rpt), prune (S2,G1,rpt)"));
  EXPECT_THAT(sentUntil(61), ElementsAre("N1: join (*,G1) R1, prune (S1,G1,rpt), prune (S2,G1,rpt)"));
}

TEST_P(UpstreamHeardTest, APruneBesideAJoinedSharedTreeIsSentAtOnceAndRefreshedWithIt) {
  joined({"(*,G1)"});
  prune("(S1,G1)");
  EXPECT_FALSE(upstream->pruneIs(key("(S1,G1)")));
  EXPECT_THAT(sentUntil(2), ElementsAre("N1: prune (S1,G1,rpt)"));
  EXPECT_THAT(sentUntil(60), ElementsAre("N1: join (*,G1) R1, prune (S1,G1,rpt)"));
}

TEST_P(UpstreamHeardTest, APruneThatIsNoLongerWantedIsJoinedOnce) {
  joined({"(*,G1)"});
  prune("(S1,G1)");
  sentUntil(2);
  unprune("(S1,G1)");
  EXPECT_FALSE(upstream->pruneDel(key("(S1,G1)")));
  EXPECT_THAT(sentUntil(3), ElementsAre("N1: join (S1,G1,rpt)"));
  EXPECT_THAT(sentUntil(60), ElementsAre("N1: join (*,G1) R1"));
}

TEST_P(UpstreamHeardTest, APruneThatChangesBeforeItWasSentLeavesTheLastWishAlone) {
  joined({"(*,G1)"});
  prune("(S1,G1)");
  unprune("(S1,G1)");
  EXPECT_THAT(sentUntil(2), ElementsAre("N1: join (S1,G1,rpt)"));
  unprune("(S1,G1)");
  prune("(S1,G1)");
  unprune("(S1,G1)");
  prune("(S1,G1)");
  EXPECT_THAT(sentUntil(3), ElementsAre("N1: prune (S1,G1,rpt)"));
}

TEST_P(UpstreamHeardTest, WithTheSharedTreeItsPrunesEndWithoutAMessageAndAreStored) {
  joined({"(*,G1)"});
  prune("(S1,G1)");
  sentUntil(2);
  unprune("(S1,G1)");
  prune("(S2,G1)");
  hear("N1", "prune (S3,G1,rpt)");
  leave("(*,G1)");
  EXPECT_THAT(sentUntil(10), ElementsAre("N1: prune (*,G1) R1"));
  EXPECT_EQ(sending("(S2,G1,rpt)"), "no shared tree");
  join("(*,G1)", "N2");
  EXPECT_THAT(sentUntil(11), ElementsAre("N2: join (*,G1) R1, prune (S2,G1,rpt)"));
}

TEST_P(UpstreamHeardTest, AnRptPruneOfASourceThatIsWantedIsOverriddenOnceAndNotRefreshed) {
  joined({"(*,G1)"});
  hear("N1", "prune (S1,G1,rpt), prune (S2,G1)");
  EXPECT_THAT(sentUntil(1.24), IsEmpty());
  EXPECT_THAT(sentUntil(3.6), ElementsAre("N1: join (S1,G1,rpt), join (S2,G1,rpt)"));
  EXPECT_THAT(sentUntil(60), ElementsAre("N1: join (*,G1) R1"));
}

TEST_P(UpstreamHeardTest, AnRptPruneOfASourceThatIsPrunedOrOfAnotherNeighborOrGroupIsNothing) {
  joined({"(*,G1)"});
  prune("(S1,G1)");
  sentUntil(2);
  hear("N1", "prune (S1,G1,rpt), prune (S1,G2,rpt)");
  hear("N2", "prune (S2,G1,rpt)");
  EXPECT_THAT(sentUntil(10), IsEmpty());
}

TEST_P(UpstreamHeardTest, AnRptJoinThatIsHeardTakesThePendingOverrideOut) {
  joined({"(*,G1)"});
  hear("N1", "prune (S1,G1,rpt), prune (S2,G1,rpt)");
  hear("N1", "join (S1,G1,rpt)");
  hear("N2", "join (S2,G1,rpt)");
  EXPECT_THAT(sentUntil(4), ElementsAre("N1: join (S2,G1,rpt)"));
}

TEST_P(UpstreamHeardTest, APruneThatIsWantedTakesAPendingOverrideOfItOut) {
  joined({"(*,G1)"});
  hear("N1", "prune (S1,G1,rpt)");
  prune("(S1,G1)");
  EXPECT_THAT(sentUntil(4), ElementsAre("N1: prune (S1,G1,rpt)"));
}

}  // namespace
}  // namespace Routing::Pim::Speaker::Test
