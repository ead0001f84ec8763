// SPDX-License-Identifier: Apache-2.0
// newFoo() of a key that is there already.
#include "tests/pim/joinprune/World.h"

namespace Routing::Pim {
namespace {

class NewElementTest : public testing::Test, protected World {
 protected:
  NewElementTest() { start(); }

  /// Expects that making one more is refused, and that the one that is there stays as it was.
  template <class Present, class Make>
  void expectRefused(Present const& present, Make const& make, std::string const& complaint) {
    SCOPED_TRACE(complaint);
    auto const before = present();
    ASSERT_TRUE(before);
    U32 const references = before->references();
    U32 const alarms = wheel->armedCount();
    try {
      make();
      ADD_FAILURE() << "nothing was thrown";
    } catch (Vel::RangeException const& error) {
      EXPECT_EQ(error.what(), complaint);
    }
    EXPECT_TRUE(present() == before);
    EXPECT_EQ(before->references(), references);
    EXPECT_EQ(wheel->armedCount(), alarms);
  }

  static constexpr char n[] = "10.0.0.2";
  Vel::Ptr<Intf> const eth0 = intf("eth0", "10.0.0.1/24");
  Vel::Ptr<Neighbor> const neighbor_ = neighbor(n, eth0);
};

TEST_F(NewElementTest, OfAKeyThatIsThereIsRefusedByTheCollectionsOfTheData) {
  expectRefused([&] { return status->triggeredGroup(addr(n)); }, [&] { status->newTriggeredGroup(addr(n)); },
                "newTriggeredGroup of Routing::Pim::JoinPruneStatus: 10.0.0.2 is there already");
  expectRefused([&] { return status->overrideGroup(addr(n)); }, [&] { status->newOverrideGroup(addr(n)); },
                "newOverrideGroup of Routing::Pim::JoinPruneStatus: 10.0.0.2 is there already");
  expectRefused([&] { return periodic(n); }, [&] { periodicStatus()->newUpJoinPrune(addr(n)); },
                "newUpJoinPrune of Routing::Pim::Packet::JoinPruneStatus: 10.0.0.2 is there already");
  expectRefused([&] { return pim->pimIntf(eth0->intfId()); }, [&] { pim->newPimIntf(eth0->intfId()); },
                "newPimIntf of Routing::Pim::Status: eth0 is there already");
  group(triggered(n), "239.1.1.1");
  expectRefused([&] { return triggered(n)->joinPruneGroupData(addr("239.1.1.1")); },
                [&] { triggered(n)->newJoinPruneGroupData(addr("239.1.1.1")); },
                "newJoinPruneGroupData of Routing::Pim::Packet::JoinPruneData: 239.1.1.1 is there already");
}

TEST_F(NewElementTest, OfAReceivedPruneThatIsThereIsRefusedAndSoIsNull) {
  RouteIntfKey const key(addr("10.9.0.1"), addr("239.1.1.1"), Dova::IntfId("eth0"));
  status->newRxPrune(key, rxPrune);
  expectRefused([&] { return status->rxPrune(key); }, [&] { status->newRxPrune(key, rxJoin); },
                "newRxPrune of Routing::Pim::JoinPruneStatus: (10.9.0.1,239.1.1.1)@eth0 is there already");
  EXPECT_THROW(status->newRxPrune(RouteIntfKey(), nullptr), Vel::InvalidArgumentException);
  EXPECT_EQ(status->rxPruneCount(), 1u);
}

TEST_F(NewElementTest, OfAGroupReactorThatIsThereIsRefused) {
  std::string const of = " of Routing::Pim::JoinPruneNeighborSm: ";
  group(triggered(n), "239.1.1.1");
  expectRefused([&] { return sm(n)->triggeredGroupData(addr("239.1.1.1")); },
                [&] { sm(n)->newTriggeredGroupData(group(triggered(n), "239.1.1.1")); },
                "newTriggeredGroupData" + of + "239.1.1.1 is there already");
  group(override_(n), "239.1.1.1");
  expectRefused([&] { return sm(n)->overrideGroupData(addr("239.1.1.1")); },
                [&] { sm(n)->newOverrideGroupData(group(override_(n), "239.1.1.1")); },
                "newOverrideGroupData" + of + "239.1.1.1 is there already");
  group(periodic(n), "239.1.1.1");
  expectRefused([&] { return sm(n)->periodicGroupData(addr("239.1.1.1")); },
                [&] { sm(n)->newPeriodicGroupData(group(periodic(n), "239.1.1.1")); },
                "newPeriodicGroupData" + of + "239.1.1.1 is there already");
  EXPECT_THROW(sm(n)->newTriggeredGroupData(nullptr), Vel::InvalidArgumentException);
}

TEST_F(NewElementTest, OfANeighborMachineThatIsThereIsRefused) {
  expectRefused([&] { return sm(n); },
                [&] {
                  machine->newJoinPruneNeighborSm(machine.get(), addr(n), neighbor_, eth0, triggered(n),
                                                  override_(n), periodic(n), wheel, 2.5, manager,
                                                  machine->txMessage());
                },
                "newJoinPruneNeighborSm of Routing::Pim::JoinPruneMessageSm: 10.0.0.2 is there already");
  EXPECT_EQ(machine->joinPruneNeighborSmCount(), 2u);
}

TEST_F(NewElementTest, OfAPeriodicMachineThatIsThereIsRefused) {
  expectRefused([&] { return sm(n)->joinPrunePeriodicTimerSm(); },
                [&] {
                  sm(n)->newJoinPrunePeriodicTimerSm(wheel, sm(n).get(), 0.1, periodic(n), eth0, manager,
                                                     machine->txMessage());
                },
                "newJoinPrunePeriodicTimerSm of Routing::Pim::JoinPruneNeighborSm: one is there already");
}

}  // namespace
}  // namespace Routing::Pim
