// SPDX-License-Identifier: Apache-2.0
// What this router wants, as it is sent: (*,G) and (S,G) towards neighbors that come and end.
#include "tests/pim/speaker/UpstreamScene.h"

namespace Routing::Pim::Speaker::Test {
namespace {

class UpstreamRoutesTest : public UpstreamScene {};

INSTANTIATE_TEST_SUITE_P(Families, UpstreamRoutesTest,
                         testing::Values(AddressFamily::ipv4, AddressFamily::ipv6));

TEST_P(UpstreamRoutesTest, ARouteThatIsWantedIsJoinedAtOnceAndThenInEveryInterval) {
  join("(S1,G1)", "N1");
  join("(*,G1)", "N1");
  EXPECT_THAT(sentUntil(0.1), ElementsAre("N1: join (*,G1) R1, join (S1,G1)"));
  EXPECT_THAT(sentUntil(59), IsEmpty());
  EXPECT_THAT(sentUntil(60), ElementsAre("N1: join (*,G1) R1, join (S1,G1)"));
  EXPECT_THAT(sentUntil(120), ElementsAre("N1: join (*,G1) R1, join (S1,G1)"));
}

TEST_P(UpstreamRoutesTest, ARouteThatIsNoLongerWantedIsPrunedOnce) {
  join("(S1,G1)", "N1");
  join("(*,G1)", "N1");
  sentUntil(1);
  leave("(S1,G1)");
  leave("(*,G1)");
  EXPECT_THAT(sentUntil(2), ElementsAre("N1: prune (*,G1) R1, prune (S1,G1)"));
  EXPECT_THAT(sentUntil(200), IsEmpty());
  EXPECT_FALSE(upstream->joinDel(key("(S1,G1)")));
}

TEST_P(UpstreamRoutesTest, AWishThatChangesBeforeItWasSentLeavesTheLastOneAlone) {
  join("(S1,G1)", "N1");
  join("(*,G1)", "N1");
  leave("(S1,G1)");
  leave("(*,G1)");
  EXPECT_THAT(sentUntil(1), ElementsAre("N1: prune (*,G1) R1, prune (S1,G1)"));
  join("(S1,G1)", "N1");
  join("(*,G1)", "N1");
  leave("(S1,G1)");
  leave("(*,G1)");
  join("(S1,G1)", "N1");
  join("(*,G1)", "N1");
  EXPECT_THAT(sentUntil(2), ElementsAre("N1: join (*,G1) R1, join (S1,G1)"));
}

TEST_P(UpstreamRoutesTest, AWishThatIsRepeatedIsNothingAndAnotherRpIsJoinedAtOnce) {
  join("(*,G1)", "N1");
  sentUntil(1);
  join("(*,G1)", "N1");
  EXPECT_THAT(sentUntil(2), IsEmpty());
  join("(*,G1)", "N1", "R2");
  EXPECT_THAT(sentUntil(3), ElementsAre("N1: join (*,G1) R2"));
  EXPECT_THAT(sentUntil(60), ElementsAre("N1: join (*,G1) R2"));
}

TEST_P(UpstreamRoutesTest, ARouteWithAnotherUpstreamNeighborIsPrunedAtTheOldOneAndJoinedAtTheNewOne) {
  join("(S1,G1)", "N1");
  join("(*,G1)", "N1");
  sentUntil(1);
  join("(S1,G1)", "N2");
  join("(*,G1)", "N2", "R2");
  EXPECT_THAT(sentUntil(2),
              UnorderedElementsAre("N1: prune (*,G1) R1, prune (S1,G1)", "N2: join (*,G1) R2, join (S1,G1)"));
  EXPECT_THAT(sentUntil(61.05), ElementsAre("N2: join (*,G1) R2, join (S1,G1)"));
}

TEST_P(UpstreamRoutesTest, ARouteMovesToAnotherInterface) {
  neighborUp("N1", &eth1);
  join("(S1,G1)", "N1");
  sentUntil(1);
  upstream->joinIs(key("(S1,G1)"), at("N1", "eth1"));
  EXPECT_THAT(sentUntil(2), UnorderedElementsAre("N1: prune (S1,G1)", "eth1 N1: join (S1,G1)"));
}

TEST_P(UpstreamRoutesTest, ARouteThatMovesByAnAssertIsJoinedWithinTheOverrideIntervalAndNotPruned) {
  join("(S1,G1)", "N1");
  join("(*,G1)", "N1");
  prune("(S2,G1)");
  sentUntil(1);
  join("(S1,G1)", "N2", "R1", UpstreamMove::assert);
  join("(*,G1)", "N2", "R1", UpstreamMove::assert);
  EXPECT_THAT(sentUntil(1.24), IsEmpty());
  EXPECT_THAT(sentUntil(3.6), ElementsAre("N2: join (*,G1) R1, join (S1,G1), prune (S2,G1,rpt)"));
  EXPECT_THAT(sentUntil(61.05), ElementsAre("N2: join (*,G1) R1, join (S1,G1), prune (S2,G1,rpt)"));
}

TEST_P(UpstreamRoutesTest, AllRoutesOfANeighborMove) {
  for (std::string const route : {"(S1,G1)", "(*,G1)", "(S1,G2)"}) join(route, "N1");
  join("(S1,G3)", "N2");
  prune("(S2,G1)");
  sentUntil(1);
  EXPECT_EQ(upstream->moveAll(at("N1"), at("N2")), 3u);
  EXPECT_EQ(upstream->joinedTowards(at("N1")), 0u);
  EXPECT_EQ(upstream->joinedTowards(at("N2")), 4u);
  EXPECT_THAT(sentUntil(2),
              UnorderedElementsAre("N1: prune (*,G1) R1, prune (S1,G1), prune (S1,G2)",
                                   "N2: join (*,G1) R1, join (S1,G1), join (S1,G2), prune (S2,G1,rpt)"));
  EXPECT_EQ(upstream->moveAll(at("N1"), at("N2")), 0u);
}

TEST_P(UpstreamRoutesTest, ANeighborThatRestartsIsToldOfItsRoutesWithinTheOverrideInterval) {
  join("(S1,G1)", "N1");
  join("(*,G1)", "N1");
  join("(S1,G2)", "N2");
  sentUntil(1);
  eth0.observer->neighborRestarted(names.address("N1"));
  EXPECT_THAT(sentUntil(1.24), IsEmpty());
  EXPECT_THAT(sentUntil(3.6), ElementsAre("N1: join (*,G1) R1, join (S1,G1)"));
  EXPECT_THAT(sentUntil(59), IsEmpty());
}

TEST_P(UpstreamRoutesTest, ANeighborThatRestartsAgainAndAgainIsToldOncePerOverrideInterval) {
  join("(S1,G1)", "N1");
  sentUntil(1);
  Lines sent;
  for (int i = 0; i < 1000; ++i) {
    eth0.observer->neighborRestarted(names.address("N1"));
    auto const more = sentUntil(1 + i * 0.01);
    sent.insert(sent.end(), more.begin(), more.end());
  }
  auto const more = sentUntil(20);
  sent.insert(sent.end(), more.begin(), more.end());
  EXPECT_GE(sent.size(), 4u);
  EXPECT_LE(sent.size(), 6u);
}

TEST_P(UpstreamRoutesTest, RoutesTowardsANeighborThatIsNotThereAreJoinedWhenItComes) {
  join("(S1,G1)", "N3");
  EXPECT_EQ(sending("(S1,G1)"), "neighbor down");
  EXPECT_THAT(sentUntil(100), IsEmpty());
  neighborUp("N3");
  EXPECT_THAT(sentUntil(101), ElementsAre("N3: join (S1,G1)"));
  EXPECT_EQ(sending("(S1,G1)"), "sent");
}

TEST_P(UpstreamRoutesTest, WhatIsStillWantedIsJoinedAgainWhenANeighborReturnsAndNothingElse) {
  for (std::string const route : {"(S1,G1)", "(S2,G1)", "(*,G1)", "(*,G2)"}) join(route, "N1");
  prune("(S3,G1)");
  sentUntil(1);
  leave("(S1,G1)");
  neighborDown("N1");
  EXPECT_THAT(sentUntil(2), IsEmpty());
  EXPECT_FALSE(eth0.machine->joinPruneNeighborSm(names.address("N1")));
  leave("(S2,G1)");
  leave("(*,G2)");
  join("(S4,G1)", "N1");
  EXPECT_THAT(sentUntil(200), IsEmpty());
  neighborUp("N1");
  EXPECT_THAT(sentUntil(201), ElementsAre("N1: join (*,G1) R1, join (S4,G1), prune (S3,G1,rpt)"));
  EXPECT_THAT(sentUntil(261), ElementsAre("N1: join (*,G1) R1, join (S4,G1), prune (S3,G1,rpt)"));
}

TEST_P(UpstreamRoutesTest, ARouteMayNameItsNeighborByASecondaryAddress) {
  eth0.link.secondary[names.address("N51")] = names.address("N1");
  eth0.link.secondary[names.address("N53")] = names.address("N3");
  join("(S1,G1)", "N51");
  EXPECT_THAT(sentUntil(1), ElementsAre("N1: join (S1,G1)"));
  join("(S2,G1)", "N53");
  neighborUp("N3");
  EXPECT_THAT(sentUntil(2), ElementsAre("N3: join (S2,G1)"));
  hear("N1", "prune (S1,G1)");
  EXPECT_THAT(sentUntil(5), ElementsAre("N1: join (S1,G1)"));
  neighborDown("N1");
  EXPECT_EQ(sending("(S1,G1)"), "neighbor down");
}

TEST_P(UpstreamRoutesTest, AnotherAddressOfTheSameNeighborIsNoMove) {
  eth0.link.secondary[names.address("N77")] = names.address("N1");
  join("(S1,G1)", "N1");
  join("(*,G1)", "N1");
  EXPECT_THAT(sentUntil(1), ElementsAre("N1: join (*,G1) R1, join (S1,G1)"));
  join("(S1,G1)", "N77");
  join("(*,G1)", "N77");
  EXPECT_THAT(sentUntil(2), IsEmpty());
  EXPECT_THAT(sentUntil(62), ElementsAre("N1: join (*,G1) R1, join (S1,G1)"));
  // It is the address that counts from now on.
  eth0.link.secondary[names.address("N77")] = names.address("N2");
  eth0.observer->neighborAddressesChanged(names.address("N2"));
  EXPECT_THAT(sentUntil(63),
              UnorderedElementsAre("N1: prune (*,G1) R1, prune (S1,G1)", "N2: join (*,G1) R1, join (S1,G1)"));
  join("(S1,G1)", "N1");
  EXPECT_THAT(sentUntil(64), UnorderedElementsAre("N2: prune (S1,G1)", "N1: join (S1,G1)"));
}

TEST_P(UpstreamRoutesTest, AMoveOfAllRoutesToAnotherAddressOfTheSameNeighborSendsNothing) {
  eth0.link.secondary[names.address("N77")] = names.address("N1");
  join("(S1,G1)", "N1");
  join("(S2,G1)", "N1");
  join("(*,G1)", "N1");
  EXPECT_THAT(sentUntil(1), SizeIs(1));
  EXPECT_EQ(upstream->moveAll(at("N1"), at("N77")), 3u);
  EXPECT_THAT(sentUntil(2), IsEmpty());
}

TEST_P(UpstreamRoutesTest, ARouteFollowsTheAddressThatItNamesToTheNeighborThatHasIt) {
  eth0.link.secondary[names.address("N77")] = names.address("N1");
  join("(S1,G1)", "N77");
  join("(*,G1)", "N77");
  join("(S2,G1)", "N1");
  EXPECT_THAT(sentUntil(1), ElementsAre("N1: join (*,G1) R1, join (S1,G1), join (S2,G1)"));
  eth0.link.secondary[names.address("N77")] = names.address("N2");
  eth0.observer->neighborAddressesChanged(names.address("N2"));
  EXPECT_THAT(sentUntil(2),
              UnorderedElementsAre("N1: prune (*,G1) R1, prune (S1,G1)", "N2: join (*,G1) R1, join (S1,G1)"));
  EXPECT_THAT(sentUntil(62), UnorderedElementsAre("N1: join (S2,G1)", "N2: join (*,G1) R1, join (S1,G1)"));
}

TEST_P(UpstreamRoutesTest, ARouteWhoseAddressNoNeighborListsAnyMoreIsPrunedAndWaits) {
  eth0.link.secondary[names.address("N77")] = names.address("N1");
  join("(S1,G1)", "N77");
  sentUntil(1);
  eth0.link.secondary.clear();
  eth0.observer->neighborAddressesChanged(names.address("N1"));
  EXPECT_EQ(sending("(S1,G1)"), "neighbor down");
  EXPECT_THAT(sentUntil(2), ElementsAre("N1: prune (S1,G1)"));
  EXPECT_THAT(sentUntil(200), IsEmpty());
  eth0.link.secondary[names.address("N77")] = names.address("N1");
  eth0.observer->neighborAddressesChanged(names.address("N1"));
  EXPECT_THAT(sentUntil(201), ElementsAre("N1: join (S1,G1)"));
}

TEST_P(UpstreamRoutesTest, ARouteMovesToTheNeighborWhoseOwnAddressItNamesAndBackWhenThatHasEnded) {
  eth0.link.secondary[names.address("N3")] = names.address("N1");
  join("(S1,G1)", "N3");
  EXPECT_THAT(sentUntil(1), ElementsAre("N1: join (S1,G1)"));
  eth0.link.secondary.clear();  // N3 is its own address first
  neighborUp("N3");
  EXPECT_THAT(sentUntil(2), UnorderedElementsAre("N1: prune (S1,G1)", "N3: join (S1,G1)"));
  eth0.link.secondary[names.address("N3")] = names.address("N1");
  neighborDown("N3");
  EXPECT_THAT(sentUntil(3), ElementsAre("N1: join (S1,G1)"));
  EXPECT_THAT(sentUntil(200), testing::Each("N1: join (S1,G1)"));
}

TEST_P(UpstreamRoutesTest, ALinkThatComesLaterIsTakenUpWithTheNeighborsThatItHas) {
  upstream->linkDel(eth1.link);
  upstream->joinIs(key("(S1,G1)"), at("N4", "eth1"));
  EXPECT_EQ(sending("(S1,G1)"), "no interface");
  eth1.link.neighbors.insert(names.address("N4"));
  eth1.pim->pimNeighborIs(names.address("N4"), eth1.intf);
  EXPECT_THAT(sentUntil(1), IsEmpty());
  upstream->linkIs(eth1.link);
  EXPECT_THAT(sentUntil(2), ElementsAre("eth1 N4: join (S1,G1)"));
}

TEST_P(UpstreamRoutesTest, APruneEchoIsSentToTheInterfacesOwnAddress) {
  upstream->pruneEchoIs(eth0.link, names.route("(S1,G1)"), {});
  upstream->pruneEchoIs(eth0.link, names.route("(*,G2)"), names.address("R2"));
  EXPECT_THAT(sentUntil(1), ElementsAre("ME: prune (*,G2) R2, prune (S1,G1)"));
}

TEST_P(UpstreamRoutesTest, AllWishesAndTheirNeighborsAreShown) {
  join("(S1,G1)", "N1");
  join("(*,G1)", "N3");
  prune("(S2,G1)");
  prune("(S1,G2)");
  upstream->joinIs(key("(S1,G3)"), at("N1", "eth9"));
  Lines shown;
  for (auto const& route : upstream->routes())
    shown.push_back(
        names.name(route.route) + " " +
        (route.upstream ? names.name(route.upstream->address) + "%" + route.upstream->intf.name() : "-") +
        (route.route.kind == RouteKind::wildcard ? " " + names.name(route.rp) : "") + " " +
        std::string(text(route.sending)));
  EXPECT_THAT(shown, ElementsAre("(S1,G1) N1%eth0 sent", "(*,G1) N3%eth0 R1 neighbor down",
                                 "(S2,G1,rpt) N3%eth0 neighbor down", "(S1,G2,rpt) - no shared tree",
                                 "(S1,G3) N1%eth9 no interface"));
  shown.clear();
  for (auto const& target : upstream->targets())
    shown.push_back(names.name(target.upstream.address) + "%" + target.upstream.intf.name() +
                    (target.isUp ? " up " : " down ") + std::to_string(target.joined));
  EXPECT_THAT(shown, ElementsAre("N1%eth0 up 1", "N3%eth0 down 1", "N1%eth9 down 1"));
  EXPECT_EQ(sending("(S9,G1)"), "not wanted");
  EXPECT_EQ(sending("(S9,G1,rpt)"), "not wanted");
}

TEST_P(UpstreamRoutesTest, AWishThatNoMessageCanHaveIsRefusedWithItsReasonAndChangesNothing) {
  IpGenAddr const other(GetParam() == AddressFamily::ipv4 ? "2001:db8::1" : "10.9.9.9");
  IpGenAddr const source = names.address("S1"), group = names.address("G1");
  auto const refusal = [&](auto const& call) {
    try {
      call();
      return std::string("not refused");
    } catch (Vel::RangeException const& error) {
      return std::string(error.what());
    }
  };
  using testing::HasSubstr;
  EXPECT_THAT(refusal([&] {
                upstream->joinIs({other, group}, at("N1"));
              }),
              HasSubstr("source " + toText(other)));
  EXPECT_THAT(refusal([&] { upstream->joinIs({source, source}, at("N1")); }), HasSubstr("group: "));
  EXPECT_THAT(refusal([&] { upstream->joinIs(anySource(group), at("N1")); }), HasSubstr("RP unknown"));
  EXPECT_THAT(refusal([&] { upstream->joinIs({source, group}, at("G1")); }), HasSubstr("upstream neighbor "));
  EXPECT_THAT(refusal([&] {
                upstream->joinIs({source, group}, {Dova::IntfId("eth0"), other});
              }),
              HasSubstr("group: "));
  EXPECT_THAT(refusal([&] {
                upstream->joinIs({source, group}, {{}, names.address("N1")});
              }),
              HasSubstr("no interface"));
  EXPECT_THAT(refusal([&] { upstream->pruneIs({group, group}); }), HasSubstr("source "));
  EXPECT_EQ(upstream->count(), 0u);
  EXPECT_THAT(upstream->routes(), IsEmpty());
  EXPECT_THAT(sentUntil(1), IsEmpty());
}

}  // namespace
}  // namespace Routing::Pim::Speaker::Test
