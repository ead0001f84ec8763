// SPDX-License-Identifier: Apache-2.0
// What a packet manager cannot send stays in the data.
#include "tests/pim/speaker/PacketManagerScene.h"

namespace Routing::Pim::Speaker {
namespace {

TEST_F(PacketManagerTest, KeepsEverythingAndSaysWhyIfThereCanBeNoMessage) {
  intfIs("bare");
  struct {
    std::string_view intf, upstream;
    U32 mtu;
    std::string_view why;
  } const cases[] = {
      {"eth9", "10.0.0.2", 1500, "eth9 to 10.0.0.2: not sent: no such interface"},
      {"bare", "10.0.0.2", 1500, "bare to 10.0.0.2: not sent: the interface has no address"},
      {"eth6", "10.0.0.2", 1500, "eth6 to 10.0.0.2: not sent: the interface's address is of another family"},
      {"eth0", "fe80::2", 1500, "eth0 to fe80::2: not sent: the interface's address is of another family"},
      {"eth0", "unknown", 1500, "eth0 to unknown: not sent: the upstream neighbor has no address"},
      {"eth0", "0.0.0.0", 1500, "eth0 to 0.0.0.0: not sent: the upstream neighbor has no address"},
      {"eth0", "224.0.0.13", 1500, "eth0 to 224.0.0.13: not sent: upstream neighbor not unicast"},
      {"eth0", "10.0.0.2", 53, "eth0 to 10.0.0.2: not sent: the MTU has no room for one entry"},
      {"eth0", "10.0.0.2", 0, "eth0 to 10.0.0.2: not sent: the MTU has no room for one entry"},
      {"eth6", "fe80::2", 109, "eth6 to fe80::2: not sent: the MTU has no room for one entry"},
  };
  for (auto const& unsendable : cases) {
    for (bool const periodic : {false, true}) {
      traces.clear();
      mtuIs(unsendable.intf, unsendable.mtu);
      auto const data = dataIs(unsendable.upstream, periodic);
      bool const four = data->upstreamNeighbor().af() != AddressFamily::ipv6;
      groupIs(data, four ? "239.1.1.1" : "ff0e::1")
          ->joinedSourceIs(IpGenAddr(four ? "10.9.0.1" : "2001:db8::1"));
      auto const pending = entriesOf(data);
      EXPECT_EQ(ask(data, unsendable.intf), MessageReport());
      EXPECT_EQ(entriesOf(data), pending);
      EXPECT_THAT(traces, ElementsAre(unsendable.why));
    }
  }
  EXPECT_THAT(packets(), IsEmpty());
  mtuIs("eth0", 54);
  mtuIs("eth6", 110);
  for (bool const four : {true, false}) {
    auto const data = dataIs(four ? "10.0.0.2" : "fe80::2");
    groupIs(data, four ? "239.1.1.1" : "ff0e::1")
        ->joinedSourceIs(IpGenAddr(four ? "10.9.0.1" : "2001:db8::1"));
    EXPECT_EQ(ask(data, four ? "eth0" : "eth6"), (MessageReport{1, 0, 0}));
  }
  for (auto const& packet : captured.take()) expectRules(packet, manager->mtu(packet.intf));
}

TEST_F(PacketManagerTest, SendsAroundWhatCannotBeEncodedAndKeepsIt) {
  mtuFor(1, 1);
  auto const data = dataIs("10.0.0.2");
  for (auto const* g : {"10.1.1.1", "ff0e::1", "0.0.0.0", "unknown"})
    groupIs(data, g)->joinedSourceIs(IpGenAddr("10.9.0.1"));
  for (auto const* g : {"239.1.1.1", "239.1.1.2", "239.1.1.3"}) {
    auto const group = groupIs(data, g);
    group->wcSourceDataIs(wildcardOf(IpGenAddr("2001:db8::1")));
    for (auto const* s : {"0.0.0.0", "2001:db8::1", "224.0.0.1", "unknown", "10.9.0.1"}) {
      group->joinedSourceIs(IpGenAddr(s));
      group->prunedRptSourceIs(IpGenAddr(s));
    }
  }
  auto left = entriesOf(data);
  Lines good;
  for (auto const* g : {"239.1.1.1", "239.1.1.2", "239.1.1.3"})
    for (auto const* e : {"join (S,G) 10.9.0.1 ", "prune (S,G,rpt) 10.9.0.1 "})
      good.push_back(e + std::string(g));
  std::erase_if(left, [&](std::string const& e) { return std::count(good.begin(), good.end(), e) != 0; });

  askForAll(data);
  EXPECT_THAT(packets(), SizeIs(6));
  EXPECT_EQ(entriesOf(packets()), sorted(good));
  EXPECT_EQ(entriesOf(data), left);
  EXPECT_THAT(traces, testing::Contains("eth0 to 10.0.0.2: (10.9.0.1,10.1.1.1) (S,G) join cannot be encoded: "
                                        "group not multicast"));
  EXPECT_THAT(traces, testing::Contains("eth0 to 10.0.0.2: (*,239.1.1.1) (*,G) join cannot be encoded: "
                                        "address families differ"));
  EXPECT_EQ(ask(data), MessageReport());
  taken();

  // Something good that comes later finds its way.
  groupIs(data, "239.1.1.2")->prunedSourceIs(IpGenAddr("10.9.0.9"));
  EXPECT_EQ(ask(data), (MessageReport{1, 0, 0}));
  EXPECT_EQ(entriesOf(data), left);
}

TEST_F(PacketManagerTest, CountsWhatCannotBeEncodedInPeriodicDataAsFiltered) {
  auto const data = dataIs("10.0.0.2", true);
  groupIs(data, "10.1.1.1")->joinedSourceIs(IpGenAddr("10.9.0.1"));
  auto const group = groupIs(data, "239.1.1.1");
  group->wcSourceDataIs(wildcardOf(IpGenAddr("10.255.0.1")));
  group->prunedRptSourceIs(IpGenAddr("10.9.0.1"));
  group->prunedRptSourceIs(IpGenAddr("2001:db8::1"));
  for (int n = 0; n < 2; ++n) EXPECT_EQ(ask(data), (MessageReport{2, 0, 2}));
  EXPECT_THAT(taken(), SizeIs(2));
}

TEST_F(PacketManagerTest, EncodableEntriesBehindVeryManyOthersAreReached) {
  mtuFor(1, 1);
  auto const data = dataIs("10.0.0.2");
  for (U32 n = 0; n < 2 * PacketManager::maxPassedOver + 100; ++n)
    data->joinPruneGroupDataIs(behind("10.0.0.0", n))->joinedSourceIs(IpGenAddr("10.9.0.1"));
  for (U32 n = 0; n < 10; ++n)
    data->joinPruneGroupDataIs(behind("239.1.1.0", n))->joinedSourceIs(IpGenAddr("10.9.0.1"));
  U32 sent = 0, expiries = 0;
  for (; sent < 10 && expiries < 10; ++expiries) {
    while (U32 const sources = ask(data).sources) sent += sources;
  }
  EXPECT_EQ(sent, 10u);
  EXPECT_LE(expiries, 5u);
  EXPECT_EQ(data->joinPruneGroupDataCount(), 2 * PacketManager::maxPassedOver + 100);
}

TEST_F(PacketManagerTest, AWildcardJoinThatCannotBeEncodedHoldsUpNothingBehindItsPrunes) {
  auto const data = dataIs("10.0.0.2");
  auto const group = groupIs(data, "239.1.1.1");
  group->wcSourceDataIs(wildcardOf(IpGenAddr("0.0.0.0")));
  for (U32 n = 0; n < PacketManager::maxPassedOver + 100; ++n)
    group->prunedRptSourceIs(behind("2001:db8::1:0", n));
  group->joinedSourceIs(IpGenAddr("10.9.0.1"));
  U32 sent = 0;
  for (int step = 0; step < 5; ++step) sent += ask(data).sources;
  EXPECT_EQ(sent, 1u);
}

TEST_F(PacketManagerTest, EndsAStepInALongRowOfEmptyGroupsToo) {
  auto const data = dataIs("10.0.0.2");
  for (U32 n = 0; n < 2 * PacketManager::maxPassedOver + 100; ++n)
    data->joinPruneGroupDataIs(behind("239.0.0.0", n));
  Group last;
  for (auto i = data->joinPruneGroupDataIterator(); i; ++i) last = i.ptr();
  last->joinedSourceIs(IpGenAddr("10.9.0.1"));
  EXPECT_EQ(ask(data), MessageReport());
  EXPECT_EQ(ask(data), MessageReport());
  EXPECT_EQ(ask(data), (MessageReport{1, 0, 0}));
}

TEST_F(PacketManagerTest, KeepsEverythingIfTheSinkThrows) {
  for (bool const periodic : {false, true}) {
    mtuFor(1, 2);
    auto const data = dataIs("10.0.0.2", periodic);
    for (U32 n = 1; n <= 3; ++n) groupIs(data, "239.1.1.1")->prunedRptSourceIs(behind("10.9.0.0", n));
    auto const pending = entriesOf(data);
    traces.clear();
    onSend = [](auto const&) { throw std::runtime_error("no buffer space"); };
    EXPECT_EQ(ask(data), MessageReport());
    onSend = [](auto const&) { throw 42; };
    EXPECT_EQ(ask(data), MessageReport());
    onSend = nullptr;
    EXPECT_EQ(entriesOf(data), pending);
    EXPECT_THAT(traces,
                ElementsAre("eth0 to 10.0.0.2: not sent: no buffer space", "eth0 to 10.0.0.2: not sent"));
    EXPECT_THAT(packets(), IsEmpty());
    ask(data);
    ask(data);
    EXPECT_THAT(taken(),
                ElementsAre(Lines{"prune (S,G,rpt) 10.9.0.1 239.1.1.1", "prune (S,G,rpt) 10.9.0.2 239.1.1.1"},
                            Lines{"prune (S,G,rpt) 10.9.0.3 239.1.1.1"}));
  }
}

TEST_F(PacketManagerTest, KeepsEverythingIfTheFilterOrTheHookThrows) {
  auto const filter = Vel::create<Filter>();
  filter->hook = [] { throw std::runtime_error("no policy"); };
  auto const data = dataIs("10.0.0.2");
  groupIs(data, "239.1.1.1")->joinedSourceIs(IpGenAddr("10.9.0.1"));
  managerIs(filter);
  EXPECT_EQ(ask(data), MessageReport());
  managerIs(nullptr, [](auto const&...) -> bool { throw std::runtime_error("no memory"); });
  EXPECT_EQ(ask(data), MessageReport());
  EXPECT_THAT(traces,
              ElementsAre("eth0 to 10.0.0.2: not sent: no policy", "eth0 to 10.0.0.2: not sent: no memory"));
  EXPECT_EQ(entriesOf(data), Lines{"join (S,G) 10.9.0.1 239.1.1.1"});
  EXPECT_THAT(packets(), IsEmpty());
}

TEST_F(PacketManagerTest, AnswersARecordWithoutAMessageOrDataWithATrace) {
  auto const record = manager->txMessageInfo();
  record->intfIdIs(Dova::IntfId("eth0"));
  record->countInc(1);
  auto const message = Vel::create<Packet::JoinPruneMessage>();
  message->reportIs({7, 7, 7});
  record->joinPruneMessageIs(message);
  record->countInc(1);
  EXPECT_EQ(message->report(), MessageReport());
  EXPECT_THAT(traces, ElementsAre("eth0: no message in the transmit record", "eth0: no data in the message"));
}

TEST_F(PacketManagerTest, ServesTheRecordThatIsThereWhenItIsStartedAgain) {
  auto const data = dataIs("10.0.0.2", true);
  groupIs(data, "239.1.1.1")->joinedSourceIs(IpGenAddr("10.9.0.1"));
  manager->txMessageInfoDel();
  manager->start();
  EXPECT_EQ(ask(data), (MessageReport{1, 0, 0}));
  manager->start();
  EXPECT_EQ(ask(data), (MessageReport{1, 0, 0}));
  EXPECT_THAT(packets(), SizeIs(2)) << "one packet for one count";
  manager->stop();
  EXPECT_EQ(ask(data), MessageReport());
}

}  // namespace
}  // namespace Routing::Pim::Speaker
