// SPDX-License-Identifier: Apache-2.0
// What a packet manager puts into a packet.
#include "pim/speaker/PacketManager.h"

#include "tests/pim/speaker/PacketManagerScene.h"

namespace Routing::Pim::Speaker {
namespace {

// --- What is in a packet

TEST_F(PacketManagerTest, SendsOneOfEachKindInOnePacketAndTakesThemOut) {
  auto const data = dataIs("10.0.0.2");
  auto const group = groupIs(data, "239.1.1.1");
  group->prunedSourceIs(IpGenAddr("10.9.0.4"));
  group->joinedSourceIs(IpGenAddr("10.9.0.1"));
  group->prunedRptSourceIs(IpGenAddr("10.9.0.3"));
  group->joinedRptSourceIs(IpGenAddr("10.9.0.2"));
  group->wcSourceDataIs(wildcardOf(IpGenAddr("10.255.0.1")));

  EXPECT_EQ(ask(data), (MessageReport{5, 0, 0}));

  ASSERT_THAT(packets(), SizeIs(1));
  auto const& packet = packets()[0];
  EXPECT_EQ(packet.intf, Dova::IntfId("eth0"));
  EXPECT_EQ(packet.source, IpGenAddr("10.0.0.1"));
  EXPECT_EQ(packet.destination, IpGenAddr("224.0.0.13"));
  EXPECT_EQ(packet.message.upstreamNeighbor(), IpGenAddr("10.0.0.2"));
  EXPECT_EQ(packet.message.holdTime(), 210);
  EXPECT_THAT(taken(),
              ElementsAre(Lines{"join (*,G) 10.255.0.1 239.1.1.1", "join (S,G) 10.9.0.1 239.1.1.1",
                                "join (S,G,rpt) 10.9.0.2 239.1.1.1", "prune (S,G,rpt) 10.9.0.3 239.1.1.1",
                                "prune (S,G) 10.9.0.4 239.1.1.1"}));
  EXPECT_EQ(data->joinPruneGroupDataCount(), 0u);
}

TEST_F(PacketManagerTest, PutsJoinsBeforePrunesOnTheWireWithTheirCounts) {
  auto const data = dataIs("10.0.0.2");
  auto const group = groupIs(data, "239.1.1.1");
  group->prunedSourceIs(IpGenAddr("10.9.0.3"));
  group->prunedRptSourceIs(IpGenAddr("10.9.0.2"));
  group->joinedSourceIs(IpGenAddr("10.9.0.1"));
  ask(data);
  ASSERT_THAT(packets(), SizeIs(1));
  EXPECT_EQ(packets()[0].bytes, withChecksum(hex("23 00 0000  01 00 0a000002  00 01 00d2"
                                                 "01 00 00 20 ef010101  0001 0002"
                                                 "01 00 04 20 0a090001"
                                                 "01 00 05 20 0a090002"
                                                 "01 00 04 20 0a090003"),
                                             IpGenAddr("10.0.0.1"), IpGenAddr("224.0.0.13")));
}

TEST_F(PacketManagerTest, SendsIpv6FromTheInterfacesAddressToAllPimRouters) {
  auto const data = dataIs("fe80::2");
  groupIs(data, "ff0e::1")->joinedSourceIs(IpGenAddr("2001:db8::1"));
  EXPECT_EQ(ask(data, "eth6"), (MessageReport{1, 0, 0}));
  ASSERT_THAT(packets(), SizeIs(1));
  EXPECT_EQ(packets()[0].source, IpGenAddr("fe80::1"));
  EXPECT_EQ(packets()[0].destination, IpGenAddr("ff02::d"));
  EXPECT_THAT(taken(), ElementsAre(Lines{"join (S,G) 2001:db8::1 ff0e::1"}));
}

TEST_F(PacketManagerTest, SendsTenThousandSingleSourceGroupsInAsFewPacketsAsTheyNeed) {
  struct {
    std::string_view intf, upstream, group, source;
    std::size_t packets;
  } const families[] = {{"eth0", "10.0.0.2", "239.1.0.0", "10.9.0.1", 137},
                        {"eth6", "fe80::2", "ff0e::", "2001:db8::1", 313}};
  for (auto const& family : families) {
    for (bool const periodic : {false, true}) {
      auto const data = dataIs(family.upstream, periodic);
      for (U32 n = 0; n < 10'000; ++n)
        data->joinPruneGroupDataIs(behind(family.group, n))->joinedSourceIs(IpGenAddr(family.source));
      auto const pending = entriesOf(data);
      if (periodic) {
        for (U32 done = 0; done < 10'000;) done += ask(data, family.intf).sources;
      } else {
        askForAll(data, family.intf);
      }
      EXPECT_EQ(packets().size(), family.packets) << family.intf << " periodic " << periodic;
      EXPECT_EQ(entriesOf(packets()), pending);
      for (auto const& packet : captured.take()) expectRules(packet, 1500);
    }
  }
}

TEST_F(PacketManagerTest, PutsNoMoreThan255GroupsIntoAMessage) {
  mtuIs("eth0", 65535);
  auto const data = dataIs("10.0.0.2");
  for (U32 n = 0; n < 300; ++n)
    data->joinPruneGroupDataIs(behind("239.1.0.0", n))->joinedSourceIs(IpGenAddr("10.9.0.1"));
  EXPECT_EQ(ask(data), (MessageReport{255, 0, 0}));
  EXPECT_EQ(ask(data), (MessageReport{45, 0, 0}));
  taken();
}

TEST_F(PacketManagerTest, FillsTheLargestPacketAndNoMore) {
  for (U32 const mtu : {65535u, 0xffffffffu}) {
    mtuIs("eth0", mtu);
    auto const data = dataIs("10.0.0.2");
    for (U32 n = 1; n <= 9'000; ++n) groupIs(data, "239.1.1.1")->prunedSourceIs(behind("10.9.0.0", n));
    EXPECT_EQ(ask(data).sources, (65535u - 34 - 12) / 8) << mtu;
    ASSERT_THAT(packets(), SizeIs(1));
    expectRules(captured.take()[0], 65535);
  }
}

TEST_F(PacketManagerTest, SplitsALongGroupIntoOneSetAMessage) {
  mtuFor(1, 3);
  auto const data = dataIs("10.0.0.2");
  auto const group = groupIs(data, "239.1.1.1");
  for (U32 n = 1; n <= 4; ++n) group->joinedSourceIs(behind("10.9.0.0", n));
  for (U32 n = 5; n <= 7; ++n) group->prunedSourceIs(behind("10.9.0.0", n));
  auto const pending = entriesOf(data);
  askForAll(data);
  EXPECT_THAT(packets(), SizeIs(3));
  EXPECT_EQ(entriesOf(packets()), pending);
  EXPECT_EQ(data->joinPruneGroupDataCount(), 0u);
  taken();
}

TEST_F(PacketManagerTest, HasNoSetForAGroupWithoutEntriesAndLeavesItToWhoeverFillsIt) {
  auto const data = dataIs("10.0.0.2");
  auto const empty = groupIs(data, "239.1.1.1");
  groupIs(data, "239.1.1.2")->joinedSourceIs(IpGenAddr("10.9.0.1"));
  EXPECT_EQ(ask(data), (MessageReport{1, 0, 0}));
  EXPECT_THAT(taken(), ElementsAre(Lines{"join (S,G) 10.9.0.1 239.1.1.2"}));
  EXPECT_EQ(ask(data), MessageReport());
  EXPECT_THAT(taken(), IsEmpty());
  EXPECT_EQ(data->joinPruneGroupData(IpGenAddr("239.1.1.1")), empty);
  empty->joinedSourceIs(IpGenAddr("10.9.0.1"));
  EXPECT_EQ(ask(data), (MessageReport{1, 0, 0}));
  EXPECT_EQ(data->joinPruneGroupDataCount(), 0u);
}

// --- The (*,G) join and its prunes

TEST_F(PacketManagerTest, BeginsAnotherMessageRatherThanPartAWildcardJoinFromItsPrunes) {
  for (bool const periodic : {false, true}) {
    // Whichever comes first in the walk: two groups with three entries each do not fit together.
    mtuFor(2, 5);
    auto const data = dataIs("10.0.0.2", periodic);
    for (auto const* g : {"239.1.1.1", "239.1.1.2"}) {
      groupIs(data, g)->wcSourceDataIs(wildcardOf(IpGenAddr("10.255.0.1")));
      for (U32 n = 1; n <= 2; ++n) groupIs(data, g)->prunedRptSourceIs(behind("10.9.0.0", n));
    }
    EXPECT_EQ(ask(data), (MessageReport{3, 0, 0}));
    EXPECT_EQ(ask(data), (MessageReport{3, 0, 0}));
    auto all = taken();
    std::sort(all.begin(), all.end());
    EXPECT_THAT(all,
                ElementsAre(Lines{"join (*,G) 10.255.0.1 239.1.1.1", "prune (S,G,rpt) 10.9.0.1 239.1.1.1",
                                  "prune (S,G,rpt) 10.9.0.2 239.1.1.1"},
                            Lines{"join (*,G) 10.255.0.1 239.1.1.2", "prune (S,G,rpt) 10.9.0.1 239.1.1.2",
                                  "prune (S,G,rpt) 10.9.0.2 239.1.1.2"}));
  }
}

TEST_F(PacketManagerTest, SendsTheSmallestPrunesBesideAWildcardJoinIfTheyCannotAllGo) {
  for (bool const periodic : {false, true}) {
    traces.clear();
    mtuFor(1, 4);
    auto const data = dataIs("10.0.0.2", periodic);
    auto const group = groupIs(data, "239.1.1.1");
    group->wcSourceDataIs(wildcardOf(IpGenAddr("10.255.0.1")));
    for (auto const* s : {"10.9.1.0", "10.9.0.200", "9.255.255.255", "10.9.0.3", "192.0.2.1"})
      group->prunedRptSourceIs(IpGenAddr(s));
    EXPECT_EQ(ask(data), (MessageReport{4, 2, 0}));
    EXPECT_THAT(taken(), ElementsAre(Lines{
                             "join (*,G) 10.255.0.1 239.1.1.1", "prune (S,G,rpt) 9.255.255.255 239.1.1.1",
                             "prune (S,G,rpt) 10.9.0.3 239.1.1.1", "prune (S,G,rpt) 10.9.0.200 239.1.1.1"}));
    EXPECT_THAT(traces, ElementsAre("eth0 to 10.0.0.2: no room beside the (*,G) join of 239.1.1.1 for 2 "
                                    "(S,G,rpt) prunes, left out"));
    // Nothing of it comes in a message of its own.
    EXPECT_EQ(data->joinPruneGroupDataCount(), periodic ? 1u : 0u);
    EXPECT_EQ(ask(data), periodic ? (MessageReport{4, 2, 0}) : MessageReport());
    captured.take();
  }
}

TEST_F(PacketManagerTest, SendsAWildcardJoinThatLeavesNoRoomForAnyPrune) {
  mtuFor(1, 1);
  auto const data = dataIs("10.0.0.2");
  auto const group = groupIs(data, "239.1.1.1");
  group->wcSourceDataIs(wildcardOf(IpGenAddr("10.255.0.1")));
  group->prunedRptSourceIs(IpGenAddr("10.9.0.1"));
  EXPECT_EQ(ask(data), (MessageReport{1, 1, 0}));
  EXPECT_THAT(taken(), ElementsAre(Lines{"join (*,G) 10.255.0.1 239.1.1.1"}));
  EXPECT_EQ(data->joinPruneGroupDataCount(), 0u);
}

TEST_F(PacketManagerTest, SpreadsThePrunesOfAGroupWithoutAWildcardJoin) {
  for (bool const prune : {false, true}) {
    mtuFor(1, 2);
    auto const data = dataIs("10.0.0.2");
    auto const group = groupIs(data, "239.1.1.1");
    if (prune) group->wcSourceDataIs(wildcardOf(IpGenAddr("10.255.0.1"), false));
    for (U32 n = 1; n <= 4; ++n) group->prunedRptSourceIs(behind("10.9.0.0", n));
    auto const pending = entriesOf(data);
    askForAll(data);
    EXPECT_THAT(packets(), SizeIs(prune ? 3 : 2));
    EXPECT_EQ(entriesOf(packets()), pending);
    taken();
  }
}

TEST_F(PacketManagerTest, PutsTheOtherEntriesOfAGroupWhereThereIsRoom) {
  mtuFor(1, 3);
  auto const data = dataIs("10.0.0.2");
  auto const group = groupIs(data, "239.1.1.1");
  group->wcSourceDataIs(wildcardOf(IpGenAddr("10.255.0.1")));
  group->prunedRptSourceIs(IpGenAddr("10.9.0.1"));
  group->joinedSourceIs(IpGenAddr("10.9.0.2"));
  group->prunedSourceIs(IpGenAddr("10.9.0.3"));
  askForAll(data);
  EXPECT_THAT(taken(), ElementsAre(Lines{"join (*,G) 10.255.0.1 239.1.1.1", "join (S,G) 10.9.0.2 239.1.1.1",
                                         "prune (S,G,rpt) 10.9.0.1 239.1.1.1"},
                                   Lines{"prune (S,G) 10.9.0.3 239.1.1.1"}));
}

TEST_F(PacketManagerTest, AWildcardJoinThatComesBetweenTwoMessagesTakesTheRemainingPrunesAlong) {
  mtuFor(1, 3);
  auto const data = dataIs("10.0.0.2");
  auto const group = groupIs(data, "239.1.1.1");
  for (U32 n = 1; n <= 5; ++n) group->prunedRptSourceIs(behind("10.9.0.0", n));
  ask(data);
  taken();
  group->wcSourceDataIs(wildcardOf(IpGenAddr("10.255.0.1")));
  ask(data);
  EXPECT_THAT(taken(),
              ElementsAre(Lines{"join (*,G) 10.255.0.1 239.1.1.1", "prune (S,G,rpt) 10.9.0.4 239.1.1.1",
                                "prune (S,G,rpt) 10.9.0.5 239.1.1.1"}));
}

// --- A join and a prune of the same entry

TEST_F(PacketManagerTest, SendsAPruneAfterTheJoinOfTheSameAndNotWithIt) {
  auto const data = dataIs("10.0.0.2");
  auto const group = groupIs(data, "239.1.1.1");
  IpGenAddr const s1("10.9.0.1"), s2("10.9.0.2"), s3("10.9.0.3");
  group->joinedSourceIs(s1);
  group->prunedSourceIs(s1);
  group->joinedRptSourceIs(s2);
  group->prunedRptSourceIs(s2);
  group->joinedSourceIs(s3);
  group->prunedRptSourceIs(s3);  // Two entries, (S,G) and (S,G,rpt): no contradiction.
  EXPECT_EQ(ask(data), (MessageReport{4, 0, 0}));
  EXPECT_EQ(ask(data), (MessageReport{2, 0, 0}));
  auto all = taken();
  ASSERT_THAT(all, SizeIs(2));
  EXPECT_EQ(sorted(all[0]),
            (Lines{"join (S,G) 10.9.0.1 239.1.1.1", "join (S,G) 10.9.0.3 239.1.1.1",
                   "join (S,G,rpt) 10.9.0.2 239.1.1.1", "prune (S,G,rpt) 10.9.0.3 239.1.1.1"}));
  EXPECT_EQ(sorted(all[1]), (Lines{"prune (S,G) 10.9.0.1 239.1.1.1", "prune (S,G,rpt) 10.9.0.2 239.1.1.1"}));
  EXPECT_EQ(data->joinPruneGroupDataCount(), 0u);
}

TEST_F(PacketManagerTest, APruneAlsoWaitsBesideAWildcardJoin) {
  auto const data = dataIs("10.0.0.2");
  auto const group = groupIs(data, "239.1.1.1");
  group->wcSourceDataIs(wildcardOf(IpGenAddr("10.255.0.1")));
  group->joinedRptSourceIs(IpGenAddr("10.9.0.1"));
  group->prunedRptSourceIs(IpGenAddr("10.9.0.1"));
  askForAll(data);
  EXPECT_THAT(taken(),
              ElementsAre(Lines{"join (*,G) 10.255.0.1 239.1.1.1", "join (S,G,rpt) 10.9.0.1 239.1.1.1"},
                          Lines{"prune (S,G,rpt) 10.9.0.1 239.1.1.1"}));
}

TEST_F(PacketManagerTest, InPeriodicDataAJoinSuppressesThePruneOfTheSameWhileItStands) {
  auto const data = dataIs("10.0.0.2", true);
  auto const group = groupIs(data, "239.1.1.1");
  group->joinedSourceIs(IpGenAddr("10.9.0.1"));
  group->prunedSourceIs(IpGenAddr("10.9.0.1"));
  for (int round = 0; round < 2; ++round) EXPECT_EQ(ask(data), (MessageReport{1, 1, 0}));
  group->joinedSourceDel(IpGenAddr("10.9.0.1"));
  EXPECT_EQ(ask(data), (MessageReport{1, 0, 0}));
  EXPECT_THAT(taken(),
              ElementsAre(Lines{"join (S,G) 10.9.0.1 239.1.1.1"}, Lines{"join (S,G) 10.9.0.1 239.1.1.1"},
                          Lines{"prune (S,G) 10.9.0.1 239.1.1.1"}));
}

}  // namespace
}  // namespace Routing::Pim::Speaker
