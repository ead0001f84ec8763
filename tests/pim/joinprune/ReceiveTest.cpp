// SPDX-License-Identifier: Apache-2.0
// Received messages, from the channel into the two records.
#include "pim/model/packet/JoinPruneMessage.h"
#include "tests/pim/joinprune/World.h"

namespace Routing::Pim {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ReceiveTest : public testing::Test, protected World {
 protected:
  ReceiveTest() {
    joinLog->notifierIs(rxJoin);
    pruneLog->notifierIs(rxPrune);
    message->joinPruneDataIs(data);
    data->holdTimeIs(105);
    channel->joinPruneMessageIs(message);
  }
  Vel::Ptr<Packet::JoinPruneGroupData> add(std::string_view g) { return group(data, g); }
  void receive() {
    log.clear();
    writes.clear();
    channel->countInc(1);
  }

  TraceLog log;
  Lines writes;
  Vel::Ptr<RecordLog> joinLog = Vel::create<RecordLog>("join", writes);
  Vel::Ptr<RecordLog> pruneLog = Vel::create<RecordLog>("prune", writes);
  Vel::Ptr<Packet::JoinPruneMessage> message = Vel::create<Packet::JoinPruneMessage>();
  Vel::Ptr<Packet::JoinPruneData> data = Vel::create<Packet::JoinPruneData>(addr("10.0.0.13"));
};

TEST_F(ReceiveTest, AMessageIsTakenWhenTheChannelsCountMovesAndNotAtConstruction) {
  add("239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  start();
  EXPECT_EQ(rxJoin->rxCount(), 0u);
  EXPECT_THAT(log.takeWith("handleRxMessage"), IsEmpty());
  receive();
  EXPECT_EQ(rxJoin->rxCount(), 1u);
  EXPECT_EQ(log.texts.front(), "[8] JoinPruneMessageSm::handleRxMessage()");
}

TEST_F(ReceiveTest, AnotherChannelIsTakenAtOnceAndTheSameOrNoneIsNot) {
  start();
  auto const other = Vel::create<IO::MessageInfo>();
  add("239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  other->joinPruneMessageIs(message);
  machine->rxMessageInfo()->notifierIs(other);
  EXPECT_EQ(rxJoin->rxCount(), 1u);
  machine->rxMessageInfo()->notifierIs(other);
  machine->rxMessageInfo()->notifierIs(nullptr);
  EXPECT_EQ(rxJoin->rxCount(), 1u);
  log.clear();
  machine->rxMessageInfo()->notifierIs(Vel::create<IO::MessageInfo>());  // one without a message
  EXPECT_THAT(log.take(), ElementsAre("[8] JoinPruneMessageSm::handleRxMessage()"));
}

TEST_F(ReceiveTest, JoinsAreWrittenFieldByFieldAndTheHeaderOncePerGroup) {
  auto const g = add("239.1.1.1");
  g->joinedSourceIs(addr("10.9.0.1"));
  g->joinedSourceIs(addr("10.9.0.2"));
  Lines expected;
  for (auto i = g->joinedSourceIterator(); i; ++i) {
    if (expected.empty()) expected = {"join.upstreamNeighbor=10.0.0.13", "join.holdTime=105"};
    expected.push_back("join.riKey=" + text(RouteKey(i.key(), addr("239.1.1.1"))));
    if (expected.size() == 3) expected.push_back("join.sourceFlags=S");  // equal the second time
    expected.push_back(expected.size() == 4 ? "join.rxCount=1" : "join.rxCount=2");
  }
  start();
  receive();
  EXPECT_EQ(writes, expected);
  EXPECT_EQ(rxPrune->rxCount(), 0u);
  EXPECT_EQ(rxPrune->holdTime(), 210.0);
}

TEST_F(ReceiveTest, TheHeaderIsWrittenAnewForEachGroup) {
  add("239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  add("239.1.1.2")->joinedSourceIs(addr("10.9.0.1"));
  start();
  joinLog->hook = [&] {
    if (rxJoin->rxCount() == 1) rxJoin->upstreamNeighborIs(addr("10.0.0.99"));
  };
  receive();
  EXPECT_EQ(std::count(writes.begin(), writes.end(), "join.upstreamNeighbor=10.0.0.13"), 2);
}

TEST_F(ReceiveTest, TheHeaderOfThePrunesIsWrittenOnceForEachGroupToo) {
  for (auto const* const g : {"239.1.1.1", "239.1.1.2", "239.1.1.3"}) {
    add(g)->prunedSourceIs(addr("10.9.0.1"));
    add(g)->prunedRptSourceIs(addr("10.9.0.2"));
  }
  start();
  pruneLog->hook = [&] { rxPrune->upstreamNeighborIs(addr("10.0.0.99")); };
  receive();
  EXPECT_EQ(rxPrune->rxCount(), 6u);
  EXPECT_EQ(std::count(writes.begin(), writes.end(), "prune.upstreamNeighbor=10.0.0.13"), 3);
  EXPECT_EQ(std::count(writes.begin(), writes.end(), "prune.upstreamNeighbor=10.0.0.99"), 3);
}

TEST_F(ReceiveTest, AHoldTimeOf210OnANewRecordNotifiesNobody) {
  data->holdTimeIs(210);
  add("239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  start();
  receive();
  EXPECT_THAT(writes, ElementsAre("join.upstreamNeighbor=10.0.0.13", "join.riKey=(10.9.0.1,239.1.1.1)",
                                  "join.sourceFlags=S", "join.rxCount=1"));
}

TEST_F(ReceiveTest, TheSameEntryAgainMovesOnlyTheCount) {
  add("239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  start();
  receive();
  receive();
  EXPECT_THAT(writes, ElementsAre("join.rxCount=2"));
}

TEST_F(ReceiveTest, EachKindOfEntryHasItsRecordItsFlagsAndItsLine) {
  using G = Packet::JoinPruneGroupData;
  struct Row {
    char const* line;
    bool join;
    char const* flags;
    char const* key;
    std::function<void(G&)> fill;
  };
  Row const rows[] = {
      {"Join", true, "S", "(10.9.0.1,239.1.1.1)", [](G& g) { g.joinedSourceIs(addr("10.9.0.1")); }},
      {"Prune", false, "S", "(10.9.0.1,239.1.1.1)", [](G& g) { g.prunedSourceIs(addr("10.9.0.1")); }},
      {"Join, WC", true, "SWR", "(*,239.1.1.1)", [](G& g) { g.wcSourceDataIs(wildcard("10.5.0.1")); }},
      {"Prune, WC", false, "SWR", "(*,239.1.1.1)",
       [](G& g) { g.wcSourceDataIs(wildcard("10.5.0.1", false)); }},
      {"Join, RPT", true, "SR", "(10.9.0.1,239.1.1.1)", [](G& g) { g.joinedRptSourceIs(addr("10.9.0.1")); }},
      {"Prune, RPT", false, "SR", "(10.9.0.1,239.1.1.1)",
       [](G& g) { g.prunedRptSourceIs(addr("10.9.0.1")); }}};
  start();
  for (Row const& row : rows) {
    SCOPED_TRACE(row.line);
    data->joinPruneGroupDataDelAll();
    row.fill(*add("239.1.1.1"));
    auto const& record = row.join ? rxJoin : rxPrune;
    U32 const before = record->rxCount(), otherBefore = (row.join ? rxPrune : rxJoin)->rxCount();
    receive();
    EXPECT_EQ(text(record->sourceFlags()), row.flags);
    EXPECT_EQ(text(record->riKey().routeKey()), row.key);
    EXPECT_EQ(record->riKey().intfId(), Dova::IntfId());
    EXPECT_EQ(record->rxCount(), before + 1);
    EXPECT_EQ((row.join ? rxPrune : rxJoin)->rxCount(), otherBefore);
    EXPECT_THAT(log.take(),
                ElementsAre("[8] JoinPruneMessageSm::handleRxMessage()",
                            "[7] JoinPruneMessageSm::handleRxMessage(), " + std::string(row.line) + row.key +
                                ", Flags: " + row.flags + ", Intf: , Neighbor: 10.0.0.13, Holdtime: 105"));
  }
}

TEST_F(ReceiveTest, AWildcardEntryIsTracedBetweenItsFieldsAndTheCount) {
  add("239.1.1.1")->wcSourceDataIs(wildcard("10.5.0.1"));
  start();
  log.hook = [&](Vel::TraceLine const& line) {
    if (line.text.find("Join, WC") != line.text.npos) writes.push_back("trace");
  };
  receive();
  EXPECT_THAT(writes,
              ElementsAre("join.upstreamNeighbor=10.0.0.13", "join.holdTime=105", "join.riKey=(*,239.1.1.1)",
                          "join.sourceFlags=SWR", "join.wcSource=10.5.0.1", "trace", "join.rxCount=1"));
}

TEST_F(ReceiveTest, TheSourceOfAWildcardEntryIsTheAllZeroAddressOfItsFamily) {
  start();
  add("239.1.1.1")->wcSourceDataIs(wildcard("10.5.0.1"));
  receive();
  EXPECT_EQ(rxJoin->riKey().source(), addr("0.0.0.0"));
  data->joinPruneGroupDataDelAll();
  add("ff3e::1")->wcSourceDataIs(wildcard("2001:db8::5"));
  receive();
  EXPECT_EQ(rxJoin->riKey().source(), addr("::"));
  EXPECT_EQ(rxJoin->wcSource(), addr("2001:db8::5"));
}

TEST_F(ReceiveTest, WithinAGroupTheOrderIsJoinsPrunesFilterWildcardAndThenRpt) {
  auto const g = add("239.1.1.1");
  g->prunedRptSourceIs(addr("10.9.0.6"));
  g->joinedRptSourceIs(addr("10.9.0.5"));
  g->wcSourceDataIs(wildcard("10.5.0.1"));
  g->prunedSourceIs(addr("10.9.0.2"));
  g->joinedSourceIs(addr("10.9.0.1"));
  start();
  filter->hook = [&] { writes.push_back("filter"); };
  receive();
  Lines order;
  for (auto const& line : writes)
    if (line == "filter" || line.find("riKey") != line.npos) order.push_back(line);
  EXPECT_THAT(order, ElementsAre("join.riKey=(10.9.0.1,239.1.1.1)", "prune.riKey=(10.9.0.2,239.1.1.1)",
                                 "filter", "join.riKey=(*,239.1.1.1)", "join.riKey=(10.9.0.5,239.1.1.1)",
                                 "prune.riKey=(10.9.0.6,239.1.1.1)"));
}

TEST_F(ReceiveTest, OfADeniedGroupTheSourcesAreRecordedAndTheRestIsLeftOut) {
  auto const denied = add("239.1.1.1");
  denied->joinedSourceIs(addr("10.9.0.1"));
  denied->prunedSourceIs(addr("10.9.0.2"));
  denied->wcSourceDataIs(wildcard("10.5.0.1"));
  denied->joinedRptSourceIs(addr("10.9.0.3"));
  denied->prunedRptSourceIs(addr("10.9.0.4"));
  add("239.1.1.2")->wcSourceDataIs(wildcard("10.5.0.1"));
  filter->denied = {"239.1.1.1"};
  start();
  receive();
  EXPECT_EQ(rxJoin->rxCount(), 2u);  // (10.9.0.1,239.1.1.1) and (*,239.1.1.2)
  EXPECT_EQ(rxPrune->rxCount(), 1u);
  EXPECT_THAT(filter->asked, testing::UnorderedElementsAre("239.1.1.1", "239.1.1.2"));
}

TEST_F(ReceiveTest, AWildcardJoinIsCheckedAgainstTheRpHash) {
  auto const g = add("239.1.1.1");
  g->wcSourceDataIs(wildcard("10.5.0.1"));
  g->prunedRptSourceIs(addr("10.9.0.4"));
  start();
  receive();
  EXPECT_EQ(rxJoin->rxCount(), 1u);
  EXPECT_THAT(rpHash->asked, ElementsAre("239.1.1.1 10.5.0.1"));
  rpHash->answer = addr("10.5.0.99");
  receive();
  EXPECT_EQ(rxJoin->rxCount(), 1u);
  EXPECT_EQ(rxPrune->rxCount(), 2u);
  EXPECT_THAT(log.takeWith("[2]"),
              ElementsAre("[2] JoinPruneMessageSm::handleRxMessage(), RP (10.5.0.99) does not "
                          "match received RP (10.5.0.1) for group 239.1.1.1"));
}

TEST_F(ReceiveTest, AWildcardPruneIsNotCheckedAgainstTheRpHash) {
  add("239.1.1.1")->wcSourceDataIs(wildcard("10.5.0.1", false));
  rpHash->answer = addr("10.5.0.99");
  start();
  receive();
  EXPECT_EQ(rxPrune->rxCount(), 1u);
  EXPECT_EQ(rxPrune->wcSource(), addr("10.5.0.1"));
  EXPECT_THAT(rpHash->asked, IsEmpty());
}

TEST_F(ReceiveTest, WithoutAnRpHashAWildcardJoinDoesNotMatch) {
  add("239.1.1.1")->wcSourceDataIs(wildcard("10.5.0.1"));
  rpHash = nullptr;
  start();
  receive();
  EXPECT_EQ(rxJoin->rxCount(), 0u);
  EXPECT_THAT(log.takeWith("does not match"), testing::SizeIs(1));
}

using ReceiveDeathTest = ReceiveTest;
TEST_F(ReceiveDeathTest, AnRpOfUnknownFamilyStopsTheProcess) {
  add("239.1.1.1")->wcSourceDataIs(wildcard("10.5.0.1"));
  rpHash->answer = Dova::IpGenAddr();
  start();
  EXPECT_DEATH(receive(),
               "JoinPruneSm:[0-9]+: void Routing::Pim::JoinPruneMessageSm::handleRxMessage\\(\\): "
               "Assertion `rp.af\\(\\) != Dova::ipunknown\\(\\)' failed");
}

TEST_F(ReceiveTest, RptPrunesComeInAscendingOrder) {
  auto const g = add("239.1.1.1");
  for (auto const* source : {"192.168.0.1", "10.0.0.10", "10.0.0.2"}) g->prunedRptSourceIs(addr(source));
  start();
  receive();
  Lines keys;
  for (auto const& line : writes)
    if (line.find("riKey") != line.npos) keys.push_back(line);
  EXPECT_THAT(keys, ElementsAre("prune.riKey=(10.0.0.2,239.1.1.1)", "prune.riKey=(10.0.0.10,239.1.1.1)",
                                "prune.riKey=(192.168.0.1,239.1.1.1)"));
  EXPECT_EQ(rxPrune->riKey().source(), addr("192.168.0.1"));
}

TEST_F(ReceiveTest, AMissingRecordIsTracedAllTheSame) {
  auto const g = add("239.1.1.1");
  g->joinedSourceIs(addr("10.9.0.1"));
  g->prunedSourceIs(addr("10.9.0.2"));
  g->wcSourceDataIs(wildcard("10.5.0.1"));
  rxJoin = nullptr;
  filter = nullptr;
  start();
  receive();
  EXPECT_EQ(rxPrune->rxCount(), 1u);
  EXPECT_THAT(log.take(),
              ElementsAre("[8] JoinPruneMessageSm::handleRxMessage()",
                          "[7] JoinPruneMessageSm::handleRxMessage(), Joinnull",
                          "[7] JoinPruneMessageSm::handleRxMessage(), Prune(10.9.0.2,239.1.1.1), Flags: S, "
                          "Intf: , Neighbor: 10.0.0.13, Holdtime: 105",
                          "[7] JoinPruneMessageSm::handleRxMessage(), Join, WCnull"));
}

TEST_F(ReceiveTest, AMessageWithoutGroupsWritesNothing) {
  start();
  receive();
  EXPECT_THAT(writes, IsEmpty());
  EXPECT_THAT(log.take(), ElementsAre("[8] JoinPruneMessageSm::handleRxMessage()"));
}

TEST_F(ReceiveTest, AMessageChangesNoTransmitState) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.14", eth0);
  start();
  for (auto const* n : {"239.1.1.1", "239.1.1.2"}) {
    add(n)->joinedSourceIs(addr("10.9.0.1"));
    add(n)->wcSourceDataIs(wildcard("10.5.0.1", false));
  }
  U32 const armed = wheel->armedCount();
  receive();
  EXPECT_EQ(rxJoin->rxCount(), 2u);
  EXPECT_EQ(machine->joinPruneNeighborSmCount(), 2u);
  EXPECT_EQ(status->triggeredGroupCount(), 2u);
  EXPECT_EQ(wheel->armedCount(), armed);
}

TEST_F(ReceiveTest, AnObserverMayEmptyTheMessageThatIsBeingTakenApart) {
  auto const g = add("239.1.1.1");
  for (int i = 1; i <= 20; ++i) g->joinedSourceIs(Dova::IpGenAddr::ipv4(0x0a090000u + static_cast<U32>(i)));
  add("239.1.1.2")->joinedSourceIs(addr("10.9.0.1"));
  start();
  joinLog->hook = [&] {
    data->joinPruneGroupDataDelAll();
    g->joinedSourceDelAll();
    message->joinPruneDataIs(nullptr);
  };
  receive();
  EXPECT_EQ(rxJoin->rxCount(), 1u);
}

TEST_F(ReceiveTest, AMachineThatAnObserverDropsWritesNothingMore) {
  auto const g = add("239.1.1.1");
  g->joinedSourceIs(addr("10.9.0.1"));
  g->joinedSourceIs(addr("10.9.0.2"));
  g->prunedSourceIs(addr("10.9.0.3"));
  start();
  joinLog->hook = [&] { machine = nullptr; };
  receive();
  EXPECT_FALSE(machine);
  EXPECT_EQ(rxJoin->rxCount(), 1u);
  EXPECT_EQ(rxPrune->rxCount(), 0u);
}

TEST_F(ReceiveTest, AThrowingObserverDoesNotKeepTheOtherEntriesFromBeingWritten) {
  auto const g = add("239.1.1.1");
  g->joinedSourceIs(addr("10.9.0.1"));
  g->joinedSourceIs(addr("10.9.0.2"));
  start();
  joinLog->hook = [] { throw std::runtime_error("observer"); };
  receive();
  EXPECT_EQ(rxJoin->rxCount(), 2u);
}

TEST_F(ReceiveTest, AFilterThatThrowsDeniesItsGroupAndTheRestOfTheMessageIsTaken) {
  for (auto const* g : {"239.1.1.1", "239.1.1.2", "239.1.1.3"}) {
    add(g)->joinedSourceIs(addr("10.9.0.1"));
    add(g)->wcSourceDataIs(wildcard("10.5.0.1"));
    add(g)->prunedRptSourceIs(addr("10.9.0.2"));
  }
  start();
  filter->hook = [this] {
    if (filter->asked.size() == 1) throw std::runtime_error("no policy for " + filter->asked.back());
  };
  receive();
  ASSERT_THAT(filter->asked, testing::SizeIs(3));
  EXPECT_EQ(rxJoin->rxCount(), 5u);   // three (S,G), two (*,G)
  EXPECT_EQ(rxPrune->rxCount(), 2u);  // two (S,G,rpt)
  EXPECT_THAT(rpHash->asked, ElementsAre(filter->asked[1] + " 10.5.0.1", filter->asked[2] + " 10.5.0.1"));
  EXPECT_THAT(log.takeWith("no policy for " + filter->asked[0]), testing::SizeIs(1));
}

TEST_F(ReceiveTest, AnRpHashThatThrowsLeavesOutTheWildcardJoinAndTheRestOfTheMessageIsTaken) {
  for (auto const* g : {"239.1.1.1", "239.1.1.2"}) {
    add(g)->joinedSourceIs(addr("10.9.0.1"));
    add(g)->wcSourceDataIs(wildcard("10.5.0.1"));
    add(g)->joinedRptSourceIs(addr("10.9.0.2"));
    add(g)->prunedRptSourceIs(addr("10.9.0.3"));
  }
  start();
  rpHash->hook = [this] {
    if (rpHash->asked.size() == 1) throw std::runtime_error("no RP");
  };
  receive();
  ASSERT_THAT(rpHash->asked, testing::SizeIs(2));
  EXPECT_EQ(rxJoin->rxCount(), 5u);  // two (S,G), two (S,G,rpt), one (*,G)
  EXPECT_EQ(rxPrune->rxCount(), 2u);
  auto const lines = log.take();
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](auto const& line) { return line.find("no RP") != line.npos; }),
            1);
  // It is no mismatch: the local RP is not known.
  EXPECT_THAT(lines, testing::Each(testing::Not(testing::HasSubstr("does not match"))));
}

TEST_F(ReceiveTest, OfSeveralErrorsTheFirstIsHeardOfOnceTheWholeMessageIsTaken) {
  for (auto const* g : {"239.1.1.1", "239.1.1.2", "239.1.1.3"}) {
    add(g)->joinedSourceIs(addr("10.9.0.1"));
    add(g)->wcSourceDataIs(wildcard("10.5.0.1"));
  }
  start();
  filter->hook = [this] {
    if (filter->asked.size() == 2) throw std::runtime_error("second");
  };
  rpHash->hook = [this] {
    if (rpHash->asked.size() == 1) throw std::runtime_error("first");
    throw 3;
  };
  try {
    machine->handleRxMessage();
    FAIL() << "nothing was thrown";
  } catch (std::runtime_error const& error) {
    EXPECT_STREQ(error.what(), "first");
  }
  EXPECT_EQ(rxJoin->rxCount(), 3u);
  EXPECT_THAT(filter->asked, testing::SizeIs(3));
}

TEST_F(ReceiveTest, AFilterMayDropTheMachineAndThrow) {
  for (auto const* g : {"239.1.1.1", "239.1.1.2"}) add(g)->joinedSourceIs(addr("10.9.0.1"));
  start();
  filter->hook = [this] {
    machine = nullptr;
    throw std::runtime_error("dropped");
  };
  receive();
  EXPECT_FALSE(machine);
  EXPECT_EQ(rxJoin->rxCount(), 1u);
  EXPECT_THAT(log.takeWith("dropped"), testing::SizeIs(1));
}

// What both records are whenever the filter is asked, which is after each group's (S,G) entries, and at the
// end.
Lines recordsOnTheWay(Vel::Ptr<Packet::JoinPruneMessage> const& message, bool watched) {
  World world;
  Lines seen, writes;
  auto const look = [&] {
    for (auto const& record : {world.rxJoin, world.rxPrune})
      seen.push_back(text(record.get()) + ", count " + text(record->rxCount()));
  };
  world.filter->hook = look;
  world.rxJoin->riKeyIs(RouteIntfKey(addr("10.9.9.9"), addr("239.9.9.9"), Dova::IntfId("eth9")));
  auto const joinLog = Vel::create<RecordLog>("join", writes),
             pruneLog = Vel::create<RecordLog>("prune", writes);
  if (watched) {
    joinLog->notifierIs(world.rxJoin);
    pruneLog->notifierIs(world.rxPrune);
  }
  world.start();
  world.channel->joinPruneMessageIs(message);
  world.channel->countInc(1);
  look();
  return seen;
}

TEST(UnheardReceiveTest, ARecordThatNobodyWatchesGoesTheSameWayGroupByGroup) {
  auto const data = Vel::create<Packet::JoinPruneData>(addr("10.0.0.13"));
  data->holdTimeIs(105);
  for (U32 g = 1; g <= 40; ++g) {
    auto const group = data->joinPruneGroupDataIs(Dova::IpGenAddr::ipv4(0xef010100u + g));
    for (U32 n = 1; n <= (g % 4 == 0 ? 20 : g % 3); ++n)
      group->joinedSourceIs(Dova::IpGenAddr::ipv4(0x0a090000u + n));
    if (g % 5 == 0) group->prunedSourceIs(addr("10.9.1.1"));
    if (g % 7 == 0) group->wcSourceDataIs(Vel::create<Packet::WcSourceData>(addr("10.0.0.9"), false));
    if (g % 11 == 0) group->joinedRptSourceIs(addr("10.9.1.2"));
  }
  auto const message = Vel::create<Packet::JoinPruneMessage>();
  message->joinPruneDataIs(data);
  Lines const unheard = recordsOnTheWay(message, false);
  EXPECT_EQ(unheard.size(), 82u);
  EXPECT_EQ(unheard, recordsOnTheWay(message, true));
}

}  // namespace
}  // namespace Routing::Pim
