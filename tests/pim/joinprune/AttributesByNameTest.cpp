// SPDX-License-Identifier: Apache-2.0
// The attributes of each class in order, by number and name. "=" is one that can only be read, ":=" one that
// can be set by name as well; "0x" is an address in this process.
#include <regex>

#include "tests/pim/joinprune/World.h"

namespace Routing::Pim {
namespace {

Lines attributesOf(Vel::Entity const& entity) {
  Lines lines;
  for (Vel::AttributeRow const& row : entity.attributeTable())
    lines.push_back(std::to_string(row.id) + " " + std::string(row.name) + (row.textIs ? " := " : " = ") +
                    std::regex_replace(entity.attribute(row.name), std::regex("0x[0-9a-f]+"), "0x"));
  return lines;
}

class AttributesByNameTest : public testing::Test, protected World {
 protected:
  Vel::Ptr<Intf> eth0 = intf("eth0", "10.0.0.1/24");
};

TEST_F(AttributesByNameTest, OfAReceivedEntry) {
  EXPECT_EQ(attributesOf(*rxJoin), (Lines{"130 riKey = (unknown,unknown)", "131 upstreamNeighbor := unknown",
                                          "132 sourceFlags := none", "133 holdTime := 210",
                                          "134 wcSource := unknown", "135 rxCount := 0"}));
  rxJoin->riKeyIs(RouteIntfKey(addr("10.9.0.1"), addr("239.1.1.1"), Dova::IntfId("eth0")));
  rxJoin->attributeIs("upstreamNeighbor", "10.0.0.2");
  rxJoin->attributeIs("sourceFlags", "SR");
  rxJoin->attributeIs("holdTime", "0.5");
  rxJoin->attributeIs("wcSource", "2001:db8::1");
  rxJoin->attributeIs("rxCount", "4294967295");
  EXPECT_EQ(attributesOf(*rxJoin),
            (Lines{"130 riKey = (10.9.0.1,239.1.1.1)@eth0", "131 upstreamNeighbor := 10.0.0.2",
                   "132 sourceFlags := SR", "133 holdTime := 0.5", "134 wcSource := 2001:db8::1",
                   "135 rxCount := 4294967295"}));
  for (auto const& [name, bad] : {std::pair("upstreamNeighbor", "10.0.0"),
                                  {"sourceFlags", "X"},
                                  {"holdTime", "nan"},
                                  {"rxCount", "-1"}})
    EXPECT_THROW(rxJoin->attributeIs(name, bad), Vel::RangeException) << name;
}

TEST_F(AttributesByNameTest, OfTheStatus) {
  start();
  status->rxPruneIs(RouteIntfKey(addr("10.9.0.1"), addr("239.1.1.1"), Dova::IntfId("eth0")), rxPrune);
  EXPECT_EQ(attributesOf(*status),
            (Lines{"130 triggeredGroup = 10.0.0.1", "131 overrideGroup = 10.0.0.1",
                   "132 periodicGroupStatus = 0x", "133 rxPrune = (10.9.0.1,239.1.1.1)@eth0"}));
}

TEST_F(AttributesByNameTest, OfAPeriodicMachine) {
  neighbor("10.0.0.2", eth0);
  start();
  auto const sm = this->sm("10.0.0.2")->joinPrunePeriodicTimerSm();
  sm->attributeIs("interval", "60");
  sm->attributeIs("holdTime", "65535");
  sm->attributeIs("numberOfMessages", "7");
  sm->attributeIs("initialized", "false");
  EXPECT_EQ(
      attributesOf(*sm),
      (Lines{"130 periodicParams = Interval: 0, Routes/Interval: 0", "131 interval := 60",
             "132 holdTime := 65535", "133 numberOfMessages := 7", "134 initialized := false",
             "135 parentSm = JoinPruneNeighborSm(eth0::10.0.0.2)::@0x::", "136 loopQuantum = 0.1",
             "137 periodicGroup = 0x", "138 intf = 0x", "139 pimPamManager = 0x", "140 txMessage = 0x"}));
  EXPECT_THROW(sm->attributeIs("holdTime", "65536"), Vel::RangeException);
}

TEST_F(AttributesByNameTest, OfANeighborMachine) {
  neighbor("10.0.0.2", eth0);
  start();
  auto const sm = this->sm("10.0.0.2");
  group(triggered("10.0.0.2"), "239.1.1.1");
  group(override_("10.0.0.2"), "239.1.1.2");
  group(periodic("10.0.0.2"), "239.1.1.3")->joinedSourceIs(addr("10.9.0.1"));
  sm->attributeIs("loopQuantum", "1");
  sm->attributeIs("triggeredInterval", "2");
  sm->attributeIs("initialized", "false");
  EXPECT_EQ(attributesOf(*sm), (Lines{"130 parentSm = JoinPruneMessageSm::",
                                      "131 neighborAddr = 10.0.0.2",
                                      "132 neighbor = 0x",
                                      "133 intf = 0x",
                                      "134 triggeredGroup = 0x",
                                      "135 overrideGroup = 0x",
                                      "136 periodicGroup = 0x",
                                      "137 timerWheel = 0x",
                                      "138 overrideInterval = 2.5",
                                      "139 pimPamManager = 0x",
                                      "140 txMessage = 0x",
                                      "141 triggeredTimer = 0x",
                                      "142 overrideTimer = 0x",
                                      "143 loopQuantum := 1",
                                      "144 triggeredInterval := 2",
                                      "145 joinPrunePeriodicTimerSm = 0x",
                                      "146 triggeredGroupData = 239.1.1.1",
                                      "147 overrideGroupData = 239.1.1.2",
                                      "148 numPeriodicRoutes = 1",
                                      "149 periodicGroupData = 239.1.1.3",
                                      "150 initialized := false"}));
}

TEST_F(AttributesByNameTest, OfTheMessageMachine) {
  start();
  machine->attributeIs("diagUpJoinCount", "true");
  machine->attributeIs("initialized", "false");
  EXPECT_EQ(attributesOf(*machine),
            (Lines{"130 joinPruneStatus = 0x", "131 joinPruneFilter = 0x", "132 pimStatus = 0x",
                   "133 rpHashComputeStatus = 0x", "134 rxJoin = 0x", "135 rxPrune = 0x",
                   "136 rxMessageInfo = 0x", "137 txMessage = 0x", "138 pimPamManager = 0x",
                   "139 timerWheel = 0x", "140 diagUpJoinCount := true", "141 joinPruneNeighborSm = 10.0.0.1",
                   "142 pimIntf = eth0", "143 initialized := false"}));
}

TEST_F(AttributesByNameTest, OfTheMessageAndItsData) {
  auto const message = Vel::create<Packet::JoinPruneMessage>();
  message->joinPruneDataIs(Vel::create<Packet::JoinPruneData>(addr("10.0.0.2")));
  auto const one = group(message->joinPruneData(), "239.1.1.1");
  one->joinedSourceIs(addr("10.9.0.1"));
  one->prunedSourceIs(addr("10.9.0.2"));
  one->joinedRptSourceIs(addr("10.9.0.3"));
  one->prunedRptSourceIs(addr("10.9.0.4"));
  message->joinPruneData()->attributeIs("holdTime", "65535");
  message->joinPruneData()->attributeIs("periodic", "true");
  message->reportIs({1, 2, 3});
  EXPECT_EQ(attributesOf(*message),
            (Lines{"130 joinPruneData = 0x", "131 report = Sources: 1, Suppressed: 2, Filtered: 3"}));
  EXPECT_EQ(attributesOf(*message->joinPruneData()),
            (Lines{"130 upstreamNeighbor = 10.0.0.2", "131 holdTime := 65535", "132 periodic := true",
                   "133 joinPruneGroupData = 239.1.1.1"}));
  EXPECT_EQ(attributesOf(*one), (Lines{"130 group = 239.1.1.1", "131 joinedSource = 10.9.0.1",
                                       "132 prunedSource = 10.9.0.2", "133 joinedRptSource = 10.9.0.3",
                                       "134 prunedRptSource = 10.9.0.4", "135 wcSourceData = 0"}));
}

TEST_F(AttributesByNameTest, OfThePacketManagersRecords) {
  EXPECT_EQ(attributesOf(*manager), (Lines{"130 txMessageInfo = 0"}));
  auto const record = manager->txMessageInfoIs();
  EXPECT_EQ(attributesOf(*manager), (Lines{"130 txMessageInfo = 0x"}));
  record->attributeIs("intfId", "eth0");
  record->attributeIs("count", "3");
  EXPECT_EQ(attributesOf(*record),
            (Lines{"130 joinPruneMessage = 0", "131 intfId := eth0", "132 count := 3"}));
}

}  // namespace
}  // namespace Routing::Pim
