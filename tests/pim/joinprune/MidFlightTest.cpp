// SPDX-License-Identifier: Apache-2.0
// What callbacks do at the worst moment: they replace the machine under its own handler, change data inside a
// trace line, make machines that are being removed, and call handlers by hand.
#include <type_traits>

#include "tests/pim/joinprune/World.h"

namespace Routing::Pim {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class MidFlightTest : public testing::Test, public World {
 protected:
  // One neighbor on one interface.
  void startWithNeighbor() {
    eth0 = intf("eth0", "10.0.0.1/24");
    neighbor("10.0.0.2", eth0);
    start();
  }

  /// Delivers a message with one join.
  void receiveAJoin() {
    auto const message = Vel::create<Packet::JoinPruneMessage>();
    message->joinPruneDataIs(Vel::create<Packet::JoinPruneData>(addr("10.0.0.1")));
    message->joinPruneData()->joinPruneGroupDataIs(addr("239.9.9.9"))->joinedSourceIs(addr("10.9.9.9"));
    channel->joinPruneMessageIs(message);
    channel->countInc(1);
  }

  /// Runs `act` inside the first trace line that contains `part`.
  void inLine(std::string part, std::function<void()> act) {
    log.hook = [this, part = std::move(part), act = std::move(act)](Vel::TraceLine const& line) {
      if (line.text.find(part) == line.text.npos) return;
      auto const once = act;
      log.hook = nullptr;
      once();
    };
  }

  Vel::Ptr<Intf> eth0;
  TraceLog log;
};

// --- Silent from the moment of the retirement ----------------------------------------------------

TEST_F(MidFlightTest, AMachineThatIsReplacedUnderItsHandlerDoesNotReactToWhatChangesInTheSameCallback) {
  startWithNeighbor();
  auto const old = sm("10.0.0.2");
  std::vector<std::string> written;
  auto const record = Vel::create<RecordLog>("join", written);
  record->notifierIs(rxJoin);
  record->hook = [&, done = false]() mutable {
    if (std::exchange(done, true)) return;
    start();
    EXPECT_TRUE(old->retired());
    auto const data = group(periodic("10.0.0.2"), "239.1.1.1");
    data->joinedSourceIs(addr("10.9.0.1"));
    data->joinedSourceIs(addr("10.9.0.2"));
    data->joinedSourceDel(addr("10.9.0.1"));
  };
  receiveAJoin();
  EXPECT_EQ(old->numPeriodicRoutes(), 0u);
  EXPECT_EQ(sm("10.0.0.2")->numPeriodicRoutes(), 1u);
  machine->diagUpJoinCountIs(true);
  group(periodic("10.0.0.2"), "239.1.1.1")->joinedSourceDel(addr("10.9.0.2"));
  EXPECT_EQ(sm("10.0.0.2")->numPeriodicRoutes(), 0u);
}

TEST_F(MidFlightTest, AMachineThatIsReplacedInsideASendSendsNoMoreAndItsSuccessorSendsTheRest) {
  startWithNeighbor();
  for (char const* const g : {"239.1.1.1", "239.1.1.2", "239.1.1.3"})
    group(triggered("10.0.0.2"), g)->joinedSourceIs(addr("10.9.0.1"));
  auto const old = sm("10.0.0.2");
  manager->perMessage = 1;
  manager->after = [&, done = false](PacketManager&) mutable {
    if (std::exchange(done, true)) return;
    start();
    EXPECT_TRUE(old->retired());
    EXPECT_FALSE(old->triggeredTimer()->armed());
  };
  time += 0.1;
  wheel->expire();
  EXPECT_EQ(manager->messages, 1u);
  runUntil(time + 1);
  EXPECT_EQ(manager->messages, 3u);
}

TEST_F(MidFlightTest, AMachineThatIsDroppedUnderItsHandlerIsRetiredBeforeTheHandlerReturns) {
  startWithNeighbor();
  auto const old = sm("10.0.0.2");
  inLine("handleRxMessage()", [&] {
    machine = nullptr;
    EXPECT_TRUE(old->retired());
    EXPECT_FALSE(old->parentSm());
    EXPECT_EQ(sets("10.0.0.1"), "-");
    EXPECT_EQ(sets("10.0.0.2"), "top");
  });
  receiveAJoin();
  EXPECT_FALSE(machine);
  EXPECT_EQ(rxJoin->rxCount(), 0u);
}

TEST_F(MidFlightTest, AMachineThatIsRevivedUnderItsHandlerIsRetiredWhenItIsDroppedAgainInTheSameHandler) {
  startWithNeighbor();
  class Reviver final : public JoinPruneMessageSm::NotifieeConst {
   public:
    void onZeroReferences() override {
      if (++zeros == 1) kept = notifier();
    }
    int zeros = 0;
    Vel::Ptr<JoinPruneMessageSm const> kept;
  };
  auto const reviver = Vel::create<Reviver>();
  reviver->isNondestructingIs(true);
  reviver->notifierIs(machine);
  JoinPruneMessageSm const* const raw = machine.get();
  inLine("handleRxMessage()", [&] {
    machine = nullptr;
    EXPECT_FALSE(raw->retired());
    reviver->kept = nullptr;
    EXPECT_TRUE(raw->retired());
    EXPECT_EQ(reviver->zeros, 2);
    neighbor("10.0.0.3", eth0);
    EXPECT_EQ(sets("10.0.0.1"), "-");
    EXPECT_EQ(sets("10.0.0.3"), "-");
    log.clear();
  });
  receiveAJoin();
  EXPECT_THAT(log.take(), IsEmpty());
  EXPECT_EQ(rxJoin->rxCount(), 0u);
  EXPECT_FALSE(reviver->notifier());
}

TEST_F(MidFlightTest, ANeighborMachineOfNobodysThatIsDroppedInsideItsOwnSendDoesNotReactAnyMore) {
  auto const data = Vel::create<Packet::JoinPruneData>(addr("10.0.0.2"));
  manager->start();
  auto lone = joinPruneNeighborSmFactory(nullptr, addr("10.0.0.2"), nullptr, nullptr, data, nullptr, nullptr,
                                         wheel, 2.5, manager, Vel::create<Packet::JoinPruneMessage>());
  group(data, "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  group(data, "239.1.1.2")->joinedSourceIs(addr("10.9.0.1"));
  manager->perMessage = 1;
  manager->after = [&](PacketManager&) {
    lone = nullptr;
    log.clear();
    group(data, "239.1.1.3")->joinedSourceIs(addr("10.9.0.1"));
    EXPECT_THAT(log.take(), IsEmpty());
  };
  runUntil(time + 5);
  EXPECT_EQ(manager->messages, 1u);
  EXPECT_EQ(wheel->armedCount(), 0u);
}

// --- What a retired machine still does -----------------------------------------------------------

TEST_F(MidFlightTest, TheMutatorsOfARetiredNeighborMachineDoNothing) {
  startWithNeighbor();
  auto const old = sm("10.0.0.2");
  auto const data = group(periodic("10.0.0.2"), "239.1.1.1");
  data->joinedSourceIs(addr("10.9.0.1"));
  auto const pending = group(triggered("10.0.0.2"), "239.1.1.1");
  pending->joinedSourceIs(addr("10.9.0.1"));
  machine->joinPruneNeighborSmDel(addr("10.0.0.2"));
  U32 const armed = wheel->armedCount();
  log.clear();
  EXPECT_FALSE(old->triggeredGroupDataIs(pending));
  EXPECT_FALSE(old->overrideGroupDataIs(pending));
  EXPECT_FALSE(old->periodicGroupDataIs(data));
  auto const other = Vel::create<Packet::JoinPruneGroupData>(addr("239.2.2.2"));
  EXPECT_FALSE(old->newTriggeredGroupData(other));
  EXPECT_FALSE(old->newOverrideGroupData(other));
  EXPECT_FALSE(old->newPeriodicGroupData(other));
  EXPECT_FALSE(old->triggeredGroupDataDel(addr("239.1.1.1")));
  old->periodicGroupDataDelAll();
  EXPECT_EQ(old->periodicGroupDataCount(), 1u);
  old->numPeriodicRoutesIs(7);
  EXPECT_EQ(old->numPeriodicRoutes(), 1u);
  EXPECT_EQ(old->numPeriodicRoutesInc(2), 1u);
  EXPECT_EQ(old->numPeriodicRoutesDec(2), 1u);
  auto const timer = old->triggeredTimer();
  old->triggeredTimerIs(Vel::create<Zanth::TimerWheel>([] { return 0.0; }));
  old->overrideTimerIs(nullptr);
  EXPECT_EQ(old->triggeredTimer(), timer);
  EXPECT_TRUE(old->overrideTimer());
  auto const refresh = old->joinPrunePeriodicTimerSm();
  old->joinPrunePeriodicTimerSmDel();
  EXPECT_EQ(old->joinPrunePeriodicTimerSm(), refresh);
  EXPECT_FALSE(old->newJoinPrunePeriodicTimerSm(wheel, old.get(), 0.1, nullptr, nullptr, nullptr, nullptr));
  old->doUpdateTriggeredTimer();
  old->handleInitialized();
  old->hasNotificationActiveIs(false);
  old->hasNotificationActiveIs(true);
  EXPECT_EQ(wheel->armedCount(), armed);
  EXPECT_THAT(log.take(), IsEmpty());
  pending->joinedSourceDel(addr("10.9.0.1"));
  EXPECT_TRUE(triggered("10.0.0.2")->joinPruneGroupData(addr("239.1.1.1")));  // left to the next machine
}

TEST_F(MidFlightTest, TheMutatorsOfARetiredMessageMachineDoNothing) {
  startWithNeighbor();
  auto const eth1 = Vel::create<Intf>(Dova::IntfId("eth1"));
  inLine("handleRxMessage()", [&] {
    auto* const old = machine.get();
    auto const message = old->txMessage();
    machine = nullptr;
    EXPECT_TRUE(old->retired());
    EXPECT_FALSE(old->pimIntfIs(eth1));
    EXPECT_FALSE(old->pimIntfDel(Dova::IntfId("eth1")));
    old->pimIntfDelAll();
    EXPECT_FALSE(old->joinPruneNeighborSmIs(old, addr("10.3.3.3"), nullptr, nullptr, nullptr, nullptr,
                                            nullptr, wheel, 2.5, manager, message));
    EXPECT_FALSE(old->newJoinPruneNeighborSm(old, addr("10.3.3.3"), nullptr, nullptr, nullptr, nullptr,
                                             nullptr, wheel, 2.5, manager, message));
    EXPECT_FALSE(old->joinPruneNeighborSmDel(addr("10.3.3.3")));
    EXPECT_EQ(old->newTxMessage(), message);
    old->handleInitialized();
    old->handleNeighbor();
    old->handleNeighbor(addr("10.0.0.2"));
    old->doMaybeDeleteNeighbor(addr("10.0.0.2"));
    EXPECT_EQ(old->joinPruneNeighborSmCount(), 0u);
    EXPECT_EQ(old->pimIntfCount(), 0u);
  });
  receiveAJoin();
  EXPECT_EQ(sets("10.0.0.2"), "top");
  EXPECT_EQ(wheel->armedCount(), 0u);
}

// --- Machines that are made while they are removed -----------------------------------------------

TEST_F(MidFlightTest, AnInterfaceGetsItsMachineHoweverOftenACallbackMakesTheOneThatIsInItsPlaceAgain) {
  class Remaker final : public JoinPruneMessageSm::NotifieeConst {
   public:
    Remaker(World& w, Vel::Ptr<Intf const> i) : world(w), on(std::move(i)) {}
    void onJoinPruneNeighborSm(Dova::IpGenAddr address) override {
      if (left == 0 || world.machine->joinPruneNeighborSm(address)) return;
      --left;
      world.machine->joinPruneNeighborSmIs(world.machine.get(), address, world.pim->pimNeighbor(address), on,
                                           nullptr, nullptr, nullptr, nullptr, 1.0, nullptr, nullptr);
    }
    World& world;
    Vel::Ptr<Intf const> const on;
    int left = 0;
  };
  for (int const times : {1, 2, 1000}) {
    SCOPED_TRACE(times);
    eth0 = intf("eth0", "10.0.0.1/24");
    neighbor("10.0.0.9", eth0);
    start();
    auto const remaker = Vel::create<Remaker>(*this, eth0);
    remaker->notifierIs(machine);
    remaker->left = times;
    auto const eth1 = intf("eth1", "10.0.0.9/24");
    ASSERT_TRUE(machine->pimIntf(Dova::IntfId("eth1")));
    ASSERT_TRUE(sm("10.0.0.9"));
    EXPECT_FALSE(sm("10.0.0.9")->neighbor());
    EXPECT_EQ(sm("10.0.0.9")->intf(), eth1);
    EXPECT_EQ(sets("10.0.0.9"), "top");
    remaker->left = 0;
    remaker->notifierIs(nullptr);
    machine = nullptr;
    pim->pimIntfDelAll();
    pim->pimNeighborDelAll();
  }
}

TEST_F(MidFlightTest, AnInterfaceReactorMakesTheMachineOfAnyAddress) {
  startWithNeighbor();
  machine->pimIntf(Dova::IntfId("eth0"))->createJoinPruneSm(addr("10.7.7.7"));
  ASSERT_TRUE(sm("10.7.7.7"));
  EXPECT_EQ(sm("10.7.7.7")->intf(), eth0);
  EXPECT_EQ(sets("10.7.7.7"), "top");
  EXPECT_EQ(machine->pimIntf(Dova::IntfId("eth0"))->address(), addr("10.0.0.1"));
}

// --- Trace lines ---------------------------------------------------------------------------------

TEST_F(MidFlightTest, ASourceThatIsAddedInTheLineOfADeletedGroupKeepsTheGroup) {
  startWithNeighbor();
  auto const data = group(periodic("10.0.0.2"), "239.1.1.1");
  data->joinedSourceIs(addr("10.9.0.1"));
  inLine("Deleted group", [&] { data->joinedSourceIs(addr("10.9.0.2")); });
  data->joinedSourceDel(addr("10.9.0.1"));
  EXPECT_EQ(periodic("10.0.0.2")->joinPruneGroupData(addr("239.1.1.1")), data);
  EXPECT_EQ(sm("10.0.0.2")->numPeriodicRoutes(), 1u);
  data->joinedSourceDel(addr("10.9.0.2"));
  EXPECT_FALSE(periodic("10.0.0.2")->joinPruneGroupData(addr("239.1.1.1")));
  EXPECT_EQ(sm("10.0.0.2")->numPeriodicRoutes(), 0u);
}

TEST_F(MidFlightTest, AJoinThatIsAddedInTheLineOfAFinishedGroupIsSent) {
  startWithNeighbor();
  auto const data = group(triggered("10.0.0.2"), "239.1.1.1");
  data->prunedSourceIs(addr("10.9.0.1"));
  inLine("Finished group", [&] { data->joinedSourceIs(addr("10.9.0.2")); });
  runUntil(time + 1);
  EXPECT_THAT(manager->sent, ElementsAre("eth0 to 10.0.0.2: (10.9.0.1,239.1.1.1) prune, hold 210",
                                         "eth0 to 10.0.0.2: (10.9.0.2,239.1.1.1) join, hold 210"));
}

TEST_F(MidFlightTest, AnotherGroupThatIsPutInTheLineOfADeletedGroupStays) {
  startWithNeighbor();
  auto const data = group(periodic("10.0.0.2"), "239.1.1.1");
  data->joinedSourceIs(addr("10.9.0.1"));
  inLine("Deleted group", [&] {
    periodic("10.0.0.2")->joinPruneGroupDataDel(addr("239.1.1.1"));
    group(periodic("10.0.0.2"), "239.1.1.1");
  });
  data->joinedSourceDel(addr("10.9.0.1"));
  EXPECT_TRUE(periodic("10.0.0.2")->joinPruneGroupData(addr("239.1.1.1")));
}

TEST_F(MidFlightTest, ASourceThatComesAndLeavesInTheLineOfADeletedOneIsCountedOutBeforeTheGroupIsRemoved) {
  startWithNeighbor();
  machine->diagUpJoinCountIs(true);
  auto const data = group(periodic("10.0.0.2"), "239.1.1.1");
  data->joinedSourceIs(addr("10.9.0.1"));
  inLine("handleJoinedSource(10.9.0.1), Deleted", [&] {
    data->joinedSourceIs(addr("10.9.0.2"));
    data->joinedSourceDel(addr("10.9.0.2"));
  });
  data->joinedSourceDel(addr("10.9.0.1"));
  EXPECT_EQ(sm("10.0.0.2")->numPeriodicRoutes(), 0u);
  EXPECT_EQ(periodic("10.0.0.2")->joinPruneGroupDataCount(), 0u);
}

TEST_F(MidFlightTest, AWildcardThatReturnsInTheLineOfItsDeletionIsCounted) {
  startWithNeighbor();
  machine->diagUpJoinCountIs(true);
  auto const data = group(periodic("10.0.0.2"), "239.1.1.1");
  data->wcSourceDataIs(wildcard("10.5.5.5"));
  inLine("handleWcSource(*,G), Deleted", [&] { data->wcSourceDataIs(wildcard("10.5.5.6")); });
  data->wcSourceDataDel();
  EXPECT_EQ(sm("10.0.0.2")->numPeriodicRoutes(), 1u);
  EXPECT_TRUE(sm("10.0.0.2")->periodicGroupData(addr("239.1.1.1"))->wcSourceSet());
  data->wcSourceDataDel();
  EXPECT_EQ(sm("10.0.0.2")->numPeriodicRoutes(), 0u);
}

TEST_F(MidFlightTest, ANeighborThatReturnsInTheLineOfItsDeletionKeepsItsMachine) {
  startWithNeighbor();
  auto const before = sm("10.0.0.2");
  inLine("deleting neighbor", [&] { neighbor("10.0.0.2", eth0); });
  pim->pimNeighborDel(addr("10.0.0.2"));
  EXPECT_EQ(sm("10.0.0.2"), before);
  EXPECT_EQ(sets("10.0.0.2"), "top");
}

TEST_F(MidFlightTest, APeriodicGroupThatIsAddedInTheLineOfANeighborsDeletionKeepsTheMachine) {
  startWithNeighbor();
  inLine("deleting neighbor",
         [&] { group(periodic("10.0.0.2"), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1")); });
  pim->pimNeighborDel(addr("10.0.0.2"));
  ASSERT_TRUE(sm("10.0.0.2"));
  EXPECT_EQ(sm("10.0.0.2")->numPeriodicRoutes(), 1u);
  group(periodic("10.0.0.2"), "239.1.1.1")->joinedSourceDel(addr("10.9.0.1"));
  EXPECT_FALSE(sm("10.0.0.2"));
}

TEST_F(MidFlightTest, AnInterfaceThatReturnsInTheLineOfItsRemovalHasItsMachine) {
  startWithNeighbor();
  inLine("Intf down", [&] { pim->pimIntfIs(eth0); });
  pim->pimIntfDel(Dova::IntfId("eth0"));
  ASSERT_TRUE(sm("10.0.0.1"));
  EXPECT_FALSE(sm("10.0.0.1")->retired());
  EXPECT_EQ(sets("10.0.0.1"), "top");
  EXPECT_TRUE(machine->pimIntf(Dova::IntfId("eth0")));
}

// The machine under the unspecified address is that of eth1, which has no address.
TEST_F(MidFlightTest, AnInterfaceThatLeavesInTheLineOfItsArrivalLeavesTheMachinesOfOthersAlone) {
  startWithNeighbor();
  intf("eth1");
  auto const ofEth1 = machine->joinPruneNeighborSm(Dova::IpGenAddr());
  ASSERT_TRUE(ofEth1);
  for (char const* const part : {"handleNew(eth2)", "Intf up"}) {
    SCOPED_TRACE(part);
    inLine(part, [&] { pim->pimIntfDel(Dova::IntfId("eth2")); });
    log.clear();
    intf("eth2", "10.0.2.1/24");
    EXPECT_THAT(log.takeWith("Intf down"), ElementsAre("[2] handleDel(eth2), Intf down"));
    EXPECT_FALSE(machine->pimIntf(Dova::IntfId("eth2")));
    EXPECT_EQ(machine->joinPruneNeighborSm(Dova::IpGenAddr()), ofEth1);
    EXPECT_FALSE(ofEth1->retired());
  }
  pim->pimIntfDel(Dova::IntfId("eth1"));
  EXPECT_FALSE(machine->joinPruneNeighborSm(Dova::IpGenAddr()));
}

TEST_F(MidFlightTest, AnAddressThatChangesAgainInTheLineOfItsChangeIsTheOneThatHasTheMachine) {
  startWithNeighbor();
  for (char const* const part :
       {"Address changed", "Previous address", "Intf down", "Intf up", "handleNew(eth0)"}) {
    SCOPED_TRACE(part);
    inLine(part, [&] { eth0->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText("10.0.0.77/24")); });
    eth0->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText("10.0.0.66/24"));
    EXPECT_FALSE(sm("10.0.0.66"));
    EXPECT_EQ(sets("10.0.0.66"), "-");
    ASSERT_TRUE(sm("10.0.0.77"));
    EXPECT_EQ(sets("10.0.0.77"), "top");
    EXPECT_EQ(machine->joinPruneNeighborSmCount(), 2u);
    eth0->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText("10.0.0.1/24"));
    EXPECT_EQ(machine->joinPruneNeighborSmCount(), 2u);
  }
}

TEST_F(MidFlightTest, ATimerThatIsReplacedInTheLineOfItsArmingIsNotArmed) {
  startWithNeighbor();
  auto const timer = sm("10.0.0.2")->triggeredTimer();
  inLine("Arming timer", [&] { sm("10.0.0.2")->triggeredTimerIs(nullptr); });
  group(triggered("10.0.0.2"), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  EXPECT_FALSE(timer->armed());
  EXPECT_EQ(wheel->armedCount(), 0u);
}

// Every line in turn drops the machine, for each change that an agent can make: nothing may be touched after
// its end.
TEST_F(MidFlightTest, AMachineThatIsDroppedInAnyLineDoesNothingMore) {
  std::vector<std::pair<char const*, std::function<void()>>> const changes = {
      {"a source comes", [&] { group(periodic("10.0.0.2"), "239.1.1.1")->joinedSourceIs(addr("10.9.0.9")); }},
      {"a triggered source comes",
       [&] { group(triggered("10.0.0.2"), "239.1.1.3")->joinedSourceIs(addr("10.9.0.1")); }},
      {"the last source leaves",
       [&] { group(periodic("10.0.0.2"), "239.1.1.1")->joinedSourceDel(addr("10.9.0.1")); }},
      {"the wildcard leaves", [&] { group(periodic("10.0.0.2"), "239.1.1.2")->wcSourceDataDel(); }},
      {"the neighbor leaves", [&] { pim->pimNeighborDel(addr("10.0.0.3")); }},
      {"a neighbor comes", [&] { neighbor("10.0.0.4", eth0); }},
      {"the interface leaves", [&] { pim->pimIntfDel(Dova::IntfId("eth0")); }},
      {"an interface comes", [&] { intf("eth1", "10.0.0.3/24"); }},
      {"the address changes",
       [&] { eth0->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText("10.0.0.66/24")); }},
      {"a message comes", [&] { receiveAJoin(); }},
      {"a timer expires", [&] { runUntil(time + 61); }},
  };
  for (auto const& [name, change] : changes) {
    U32 lines = 0;
    for (U32 at = 1; at == 1 || lines >= at - 1; ++at) {
      SCOPED_TRACE(std::string(name) + ", line " + std::to_string(at));
      pim->pimIntfDelAll();
      pim->pimNeighborDelAll();
      status = joinPruneStatusFactory();
      periodicStatus();
      startWithNeighbor();
      neighbor("10.0.0.3", eth0);
      group(periodic("10.0.0.2"), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
      group(periodic("10.0.0.2"), "239.1.1.2")->wcSourceDataIs(wildcard("10.5.5.5"));
      group(triggered("10.0.0.2"), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
      lines = 0;
      log.hook = [&](Vel::TraceLine const&) {
        if (++lines != at) return;
        machine = nullptr;
        log.clear();
      };
      change();
      log.hook = nullptr;
      if (lines >= at) {
        EXPECT_FALSE(machine);
        EXPECT_EQ(wheel->armedCount(), 0u);
        for (auto const& line : log.take())
          for (auto const* const of : {"JoinPruneMessageSm::", "(eth0)", "(eth1)"})
            EXPECT_EQ(line.find(of), line.npos) << line;
        group(periodic("10.0.0.2"), "239.7.7.7");
        EXPECT_THAT(log.take(), IsEmpty());
      }
      machine = nullptr;
      if (lines < at) break;
    }
    EXPECT_GT(lines, 0u) << name;
  }
}

// What was watched before ends in the call, and a reactor that hears of it drops the machine.
TEST_F(MidFlightTest, AReactorWhoseFormerNotifierTakesTheMachineWithItIsNotUsedAnyMore) {
  Vel::Ptr<JoinPruneNeighborSm> lone;
  std::function<void()> const drop = [&] {
    machine = nullptr;
    lone = nullptr;
    log.clear();
  };
  auto const dropAtTheEndOf = [&]<class Watched>(Watched& watched) {
    class Dropper final : public Watched::NotifieeConst {
     public:
      explicit Dropper(std::function<void()> d) : drop(std::move(d)) {}
      void onZeroReferences() override { drop(); }
      std::function<void()> const drop;
    };
    auto const dropper = Vel::create<Dropper>(drop);
    dropper->isNondestructingIs(true);
    dropper->notifierIs(Vel::Ptr<Watched>(&watched));
    return dropper;
  };
  startWithNeighbor();
  auto const endOfStatus = dropAtTheEndOf(*pim);
  pim = nullptr;
  machine->pimStatus()->notifierIs(Vel::create<Status>());
  EXPECT_FALSE(machine);
  EXPECT_THAT(log.take(), IsEmpty());

  pim = Vel::create<Status>();
  startWithNeighbor();
  auto const endOfChannel = dropAtTheEndOf(*channel);
  channel = nullptr;
  auto const other = Vel::create<IO::MessageInfo>();
  machine->rxMessageInfo()->notifierIs(other);
  EXPECT_FALSE(machine);
  EXPECT_THAT(log.take(), IsEmpty());

  auto data = Vel::create<Packet::JoinPruneData>(addr("10.0.0.2"));
  lone = joinPruneNeighborSmFactory(nullptr, addr("10.0.0.2"), nullptr, nullptr, data, nullptr, nullptr,
                                    wheel, 2.5, manager, nullptr);
  auto const endOfData = dropAtTheEndOf(*data);
  data = nullptr;
  lone->triggeredGroup()->notifierIs(Vel::create<Packet::JoinPruneData>(addr("10.0.0.2")));
  EXPECT_FALSE(lone);
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(MidFlightTest, APeriodicMachineThatIsDroppedInTheLineOfADirectCallIsNotUsedAnyMore) {
  startWithNeighbor();
  auto const data = Vel::create<Packet::JoinPruneData>(addr("10.0.0.2"));
  U16 const before = data->holdTime();
  eth0->joinPruneIntervalIs(45);
  eth0->joinPruneHoldTimeIs(99);
  auto const parent = sm("10.0.0.2");
  auto const call = [&](char const* line, auto const& act) {
    SCOPED_TRACE(line);
    auto lone =
        joinPrunePeriodicTimerSmFactory(wheel, parent.get(), 0.1, data, eth0, manager, machine->txMessage());
    inLine(line, [&lone] { lone = nullptr; });
    act(*lone.get());
    EXPECT_FALSE(lone);
    EXPECT_EQ(data->holdTime(), before);
  };
  call("interval()", [](auto& m) { EXPECT_EQ(m.interval(), 45u); });
  call("holdTime()", [](auto& m) { EXPECT_EQ(m.holdTime(), 99u); });
  call("numberOfMessages()", [](auto& m) { EXPECT_EQ(m.numberOfMessages(), 0u); });
  call("doResetHoldTime()", [](auto& m) { m.doResetHoldTime(); });
  call("handlePeriodicTimerExpiry()", [](auto& m) { m.handlePeriodicTimerExpiry(); });
  call("interval()", [](auto& m) { m.doUpdatePeriodicTimer(); });
  EXPECT_EQ(manager->messages, 0u);
}

// As with the lines: every reading in turn drops a machine without an owner, for each call that reads a
// clock.
TEST_F(MidFlightTest, AMachineThatIsDroppedInAnyReadingOfTheClockDoesNothingMore) {
  Vel::Ptr<JoinPruneNeighborSm> lone;
  JoinPruneNeighborSm* raw = nullptr;
  std::function<void()> onClock;
  auto const newWheel = [&] {
    return Vel::create<Zanth::TimerWheel>([&] {
      if (auto const act = onClock) act();
      return time;
    });
  };
  auto own = newWheel(), other = newWheel();
  Vel::Ptr<Packet::JoinPruneData> pending, overriding, refreshed;
  auto const everyTimerIsArmed = [&] {
    for (auto const& data : {pending, overriding, refreshed})
      for (char const* const g : {"239.1.1.1", "239.1.1.2"}) group(data, g)->joinedSourceIs(addr("10.9.0.1"));
  };
  auto const everyTimerIsMissed = [&] {
    everyTimerIsArmed();
    raw->hasNotificationActiveIs(false);
    time += 100;
    own->expire();
  };
  struct Change {
    char const* name;
    std::function<void()> prepare, act;
  };
  std::vector<Change> const changes = {
      {"is switched on", everyTimerIsMissed, [&] { raw->hasNotificationActiveIs(true); }},
      {"is revived",
       [&] {
         everyTimerIsArmed();
         raw->velDoZombieReactors(true);
         time += 100;
         own->expire();
       },
       [&] { raw->velDoZombieReactors(false); }},
      {"a triggered source comes", [] {},
       [&] { group(pending, "239.1.1.1")->joinedSourceIs(addr("10.9.0.1")); }},
      {"an override source comes", [] {},
       [&] { group(overriding, "239.1.1.1")->joinedSourceIs(addr("10.9.0.1")); }},
      {"a periodic source comes", [] {},
       [&] { group(refreshed, "239.1.1.1")->joinedSourceIs(addr("10.9.0.1")); }},
      {"the triggered timer has expired", everyTimerIsArmed, [&] { raw->handleTriggeredTimerExpiry(); }},
      {"the override timer has expired", everyTimerIsArmed, [&] { raw->handleOverrideTimerExpiry(); }},
      {"the periodic timer has expired", everyTimerIsArmed,
       [&] { raw->joinPrunePeriodicTimerSm()->handlePeriodicTimerExpiry(); }},
      {"the triggered timer is put on another wheel", everyTimerIsArmed,
       [&] { raw->triggeredTimerIs(other); }},
      {"the override timer is put on another wheel", everyTimerIsArmed, [&] { raw->overrideTimerIs(other); }},
      {"a missed timer is put on another wheel", everyTimerIsMissed, [&] { raw->triggeredTimerIs(other); }},
      {"the periodic timer is put on another wheel", everyTimerIsArmed,
       [&] { raw->joinPrunePeriodicTimerSm()->periodicTimerIs(other); }},
      {"a timer expires", everyTimerIsArmed,
       [&] {
         time += 100;
         own->expire();
       }},
  };
  eth0 = intf("eth0", "10.0.0.1/24");
  manager->start();
  manager->perMessage = 1;
  for (auto const& [name, prepare, act] : changes) {
    U32 readings = 0;
    for (U32 at = 1; at == 1 || readings >= at - 1; ++at) {
      SCOPED_TRACE(std::string(name) + ", reading " + std::to_string(at));
      pending = Vel::create<Packet::JoinPruneData>(addr("10.0.0.2"));
      overriding = Vel::create<Packet::JoinPruneData>(addr("10.0.0.2"));
      refreshed = Vel::create<Packet::JoinPruneData>(addr("10.0.0.2"));
      auto const message = Vel::create<Packet::JoinPruneMessage>();
      lone = joinPruneNeighborSmFactory(nullptr, addr("10.0.0.2"), nullptr, eth0, pending, overriding,
                                        refreshed, own, 2.5, manager, message);
      raw = lone.get();
      prepare();
      readings = 0;
      U32 messages = 0;
      onClock = [&] {
        if (++readings != at) return;
        lone = nullptr;
        messages = manager->messages;
        log.clear();
      };
      act();
      onClock = nullptr;
      if (readings < at) break;
      EXPECT_FALSE(lone);
      EXPECT_THAT(log.take(), IsEmpty());
      EXPECT_EQ(manager->messages, messages);
      EXPECT_EQ(own->armedCount(), 0u);
      EXPECT_EQ(other->armedCount(), 0u);
    }
    lone = nullptr;
    EXPECT_GT(readings, 0u) << name;
  }
}

// Every write of every entry in turn drops the machine.
TEST_F(MidFlightTest, AMachineThatIsDroppedWhileItWritesAnEntryWritesNothingMore) {
  class Counter final : public JoinPruneMessageInfo::NotifieeConst {
   public:
    explicit Counter(std::function<void()> h) : hook(std::move(h)) {}
    void onNotification() override { hook(); }
    std::function<void()> const hook;
  };
  auto const message = Vel::create<Packet::JoinPruneMessage>();
  message->joinPruneDataIs(Vel::create<Packet::JoinPruneData>(addr("10.0.0.1")));
  message->joinPruneData()->holdTimeIs(99);
  auto const received = group(message->joinPruneData(), "239.9.9.9");
  received->joinedSourceIs(addr("10.9.9.9"));
  received->prunedSourceIs(addr("10.9.9.8"));
  received->wcSourceDataIs(wildcard("10.5.5.5"));
  received->joinedRptSourceIs(addr("10.9.9.7"));
  startWithNeighbor();
  U32 writes = 0;
  for (U32 at = 1; at == 1 || writes >= at - 1; ++at) {
    SCOPED_TRACE(at);
    rxJoin = joinPruneMessageInfoFactory();
    rxPrune = joinPruneMessageInfoFactory();
    start();
    writes = 0;
    auto const counter = Vel::create<Counter>([&] {
      if (++writes != at) return;
      machine = nullptr;
      log.clear();
    });
    auto const other = Vel::create<Counter>(counter->hook);
    counter->notifierIs(rxJoin);
    other->notifierIs(rxPrune);
    channel->joinPruneMessageIs(message);
    channel->countInc(1);
    channel->joinPruneMessageIs(nullptr);
    if (writes < at) break;
    EXPECT_FALSE(machine);
    EXPECT_EQ(writes, at);
    EXPECT_THAT(log.take(), IsEmpty());
  }
  EXPECT_GE(writes, 15u);
}

TEST_F(MidFlightTest, AMachineThatIsDroppedByTheRpHashDoesNotComplainOfTheRp) {
  startWithNeighbor();
  auto const message = Vel::create<Packet::JoinPruneMessage>();
  message->joinPruneDataIs(Vel::create<Packet::JoinPruneData>(addr("10.0.0.1")));
  group(message->joinPruneData(), "239.9.9.9")->wcSourceDataIs(wildcard("10.5.5.5"));
  rpHash->answer = addr("10.5.5.6");
  rpHash->hook = [&] {
    machine = nullptr;
    log.clear();
  };
  channel->joinPruneMessageIs(message);
  channel->countInc(1);
  EXPECT_FALSE(machine);
  EXPECT_THAT(log.take(), IsEmpty());
}

// --- Timers --------------------------------------------------------------------------------------

TEST_F(MidFlightTest, TheTimersAreArmedOnTheClockOfTheirOwnWheel) {
  startWithNeighbor();
  Seconds otherTime = 5;
  auto const other = Vel::create<Zanth::TimerWheel>([&] { return otherTime; });
  auto const machineOfNeighbor = sm("10.0.0.2");
  machineOfNeighbor->triggeredTimerIs(other);
  machineOfNeighbor->overrideTimerIs(other);
  group(triggered("10.0.0.2"), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  group(override_("10.0.0.2"), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  EXPECT_EQ(machineOfNeighbor->triggeredTimer()->timeMin(), 5.1);
  EXPECT_GE(machineOfNeighbor->overrideTimer()->timeMin(), 5.25);
  EXPECT_LT(machineOfNeighbor->overrideTimer()->timeMin(), 7.5);
  otherTime = 8;
  other->expire();
  EXPECT_EQ(manager->messages, 2u);
}

TEST_F(MidFlightTest, AMachineThatWasMadeWithoutAWheelKeepsTheQuantumOnTheWheelOfItsTimer) {
  auto const data = Vel::create<Packet::JoinPruneData>(addr("10.0.0.2"));
  manager->start();
  auto const lone =
      joinPruneNeighborSmFactory(nullptr, addr("10.0.0.2"), nullptr, nullptr, data, nullptr, nullptr, nullptr,
                                 2.5, manager, Vel::create<Packet::JoinPruneMessage>());
  lone->triggeredTimerIs(wheel);
  for (int g = 1; g <= 9; ++g) group(data, "239.1.1." + std::to_string(g))->joinedSourceIs(addr("10.9.0.1"));
  manager->perMessage = 1;
  manager->after = [&](PacketManager&) { time += 0.04; };
  time += 0.1;
  wheel->expire();
  EXPECT_EQ(manager->messages, 3u);
}

TEST_F(MidFlightTest, ATimerThatIsGivenAnotherWheelWhileItIsArmedIsArmedThere) {
  startWithNeighbor();
  group(triggered("10.0.0.2"), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  auto const other = Vel::create<Zanth::TimerWheel>([] { return 7.0; });
  sm("10.0.0.2")->triggeredTimerIs(other);
  EXPECT_EQ(sm("10.0.0.2")->triggeredTimer()->timeMin(), 7.1);
}

TEST_F(MidFlightTest, WhatBecameDueWhileAMachineWasSwitchedOffIsDueWhenItIsSwitchedOn) {
  startWithNeighbor();
  group(triggered("10.0.0.2"), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  group(override_("10.0.0.2"), "239.1.1.2")->joinedSourceIs(addr("10.9.0.1"));
  group(periodic("10.0.0.2"), "239.1.1.3")->joinedSourceIs(addr("10.9.0.1"));
  manager->perMessage = 1;
  sm("10.0.0.2")->hasNotificationActiveIs(false);
  runUntil(time + 100);
  EXPECT_THAT(manager->sent, IsEmpty());
  sm("10.0.0.2")->hasNotificationActiveIs(true);
  EXPECT_EQ(sm("10.0.0.2")->triggeredTimer()->timeMin(), time);
  EXPECT_EQ(sm("10.0.0.2")->overrideTimer()->timeMin(), time);
  wheel->expire();
  EXPECT_THAT(manager->sent,
              testing::UnorderedElementsAre("eth0 to 10.0.0.2: (10.9.0.1,239.1.1.1) join, hold 210",
                                            "eth0 to 10.0.0.2: (10.9.0.1,239.1.1.2) join, hold 210",
                                            "eth0 to 10.0.0.2: (10.9.0.1,239.1.1.3) join, hold 210"));
}

TEST_F(MidFlightTest, ATimerThatExpiredWhileItsMachineWasOffIsDueOnTheWheelThatItIsGivenMeanwhile) {
  startWithNeighbor();
  group(triggered("10.0.0.2"), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  group(override_("10.0.0.2"), "239.1.1.2")->joinedSourceIs(addr("10.9.0.1"));
  auto const machineOfNeighbor = sm("10.0.0.2");
  machineOfNeighbor->hasNotificationActiveIs(false);
  runUntil(time + 100);
  Seconds otherTime = 7;
  auto const other = Vel::create<Zanth::TimerWheel>([&] { return otherTime; });
  machineOfNeighbor->triggeredTimerIs(other);
  machineOfNeighbor->overrideTimerIs(other);
  other->expire();
  EXPECT_THAT(manager->sent, IsEmpty());
  otherTime = 8;
  machineOfNeighbor->hasNotificationActiveIs(true);
  other->expire();
  EXPECT_THAT(manager->sent,
              testing::UnorderedElementsAre("eth0 to 10.0.0.2: (10.9.0.1,239.1.1.1) join, hold 210",
                                            "eth0 to 10.0.0.2: (10.9.0.1,239.1.1.2) join, hold 210"));
}

TEST_F(MidFlightTest, ATimerThatIsPutOnAnotherWheelWhileItsMachinesReactorsAreRetiredIsRetiredToo) {
  startWithNeighbor();
  group(triggered("10.0.0.2"), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  auto const machineOfNeighbor = sm("10.0.0.2");
  machineOfNeighbor->velDoZombieReactors(true);
  auto const other = Vel::create<Zanth::TimerWheel>([&] { return time; });
  machineOfNeighbor->triggeredTimerIs(other);
  machineOfNeighbor->overrideTimerIs(other);
  EXPECT_TRUE(machineOfNeighbor->triggeredTimer()->isZombie());
  EXPECT_TRUE(machineOfNeighbor->overrideTimer()->isZombie());
  runUntil(time + 1);
  other->expire();
  EXPECT_THAT(manager->sent, IsEmpty());
  machineOfNeighbor->velDoZombieReactors(false);
  other->expire();
  EXPECT_THAT(manager->sent, ElementsAre("eth0 to 10.0.0.2: (10.9.0.1,239.1.1.1) join, hold 210"));
}

TEST_F(MidFlightTest, SwitchingAMachineOnBringsItsTimersUpToDateAndNothingElse) {
  startWithNeighbor();
  auto const data = group(triggered("10.0.0.2"), "239.1.1.1");
  sm("10.0.0.2")->hasNotificationActiveIs(false);
  data->joinedSourceIs(addr("10.9.0.1"));
  log.clear();
  sm("10.0.0.2")->hasNotificationActiveIs(true);
  EXPECT_THAT(log.take(), IsEmpty());
  EXPECT_FALSE(sm("10.0.0.2")->triggeredTimer()->armed());
  data->joinedSourceIs(addr("10.9.0.2"));  // this one is seen
  Seconds const due = sm("10.0.0.2")->triggeredTimer()->timeMin();
  EXPECT_EQ(due, time + 0.1);
  sm("10.0.0.2")->hasNotificationActiveIs(false);
  sm("10.0.0.2")->hasNotificationActiveIs(true);
  EXPECT_EQ(sm("10.0.0.2")->triggeredTimer()->timeMin(), due);
}

TEST_F(MidFlightTest, AMachineWhoseReactorsAreRevivedBringsItsTimersUpToDateToo) {
  startWithNeighbor();
  group(triggered("10.0.0.2"), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  sm("10.0.0.2")->velDoZombieReactors(true);
  runUntil(time + 1);
  sm("10.0.0.2")->velDoZombieReactors(false);
  EXPECT_EQ(sm("10.0.0.2")->triggeredTimer()->timeMin(), time);
}

TEST_F(MidFlightTest, ASecondInitializationDoesNothingWhetherOrNotTracesAreOn) {
  startWithNeighbor();
  group(periodic("10.0.0.2"), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  for (bool const traced : {true, false}) {
    if (!traced) log.levels({});
    log.clear();
    sm("10.0.0.2")->handleInitialized();
    machine->handleInitialized();
    EXPECT_EQ(sm("10.0.0.2")->numPeriodicRoutes(), 1u);
    EXPECT_THAT(log.take(), IsEmpty());
  }
}

// --- Made by the factories alone -----------------------------------------------------------------

static_assert(!std::is_constructible_v<JoinPruneMessageSm, Vel::Ptr<JoinPruneStatus>,
                                       Vel::Ptr<JoinPruneFilter const>, Vel::Ptr<Status const>,
                                       Vel::Ptr<RpHashComputeStatus>, Vel::Ptr<JoinPruneMessageInfo>,
                                       Vel::Ptr<JoinPruneMessageInfo>, Vel::Ptr<IO::MessageInfo>,
                                       Vel::Ptr<IO::PamManager>, Vel::Ptr<Zanth::TimerWheel>>);
static_assert(!std::is_constructible_v<JoinPruneNeighborSm, JoinPruneMessageSm*, Dova::IpGenAddr,
                                       Vel::Ptr<Neighbor const>, Vel::Ptr<Intf const>,
                                       Vel::Ptr<Packet::JoinPruneData>, Vel::Ptr<Packet::JoinPruneData>,
                                       Vel::Ptr<Packet::JoinPruneData>, Vel::Ptr<Zanth::TimerWheel>, Seconds,
                                       Vel::Ptr<IO::PamManager>, Vel::Ptr<Packet::JoinPruneMessage>>);
static_assert(
    !std::is_constructible_v<JoinPrunePeriodicTimerSm, Vel::Ptr<Zanth::TimerWheel>, JoinPruneNeighborSm*,
                             Seconds, Vel::Ptr<Packet::JoinPruneData>, Vel::Ptr<Intf const>,
                             Vel::Ptr<IO::PamManager>, Vel::Ptr<Packet::JoinPruneMessage>>);

TEST_F(MidFlightTest, AMachineThatIsMadeSilentlyIsStarted) {
  startWithNeighbor();
  auto const data = Vel::create<Packet::JoinPruneData>(addr("10.3.3.3"));
  group(data, "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  auto const made =
      machine->newJoinPruneNeighborSm(machine.get(), addr("10.3.3.3"), nullptr, eth0, data, nullptr, nullptr,
                                      wheel, 2.5, manager, machine->txMessage());
  EXPECT_TRUE(made->initialized());
  EXPECT_TRUE(made->triggeredTimer()->armed());
}

TEST_F(MidFlightTest, AnOverrideIntervalThatIsNoDurationIsRefused) {
  auto const make = [&](Seconds interval) {
    return joinPruneNeighborSmFactory(nullptr, addr("10.0.0.2"), nullptr, nullptr, nullptr, nullptr, nullptr,
                                      wheel, interval, manager, nullptr);
  };
  auto const what = [&](auto const& act) -> std::string {
    try {
      act();
    } catch (Vel::InvalidArgumentException const& error) {
      return error.what();
    }
    return "accepted";
  };
  double const nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(what([&] { make(nan); }), "overrideInterval cannot be NaN");
  EXPECT_EQ(what([&] { make(-0.1); }), "overrideInterval cannot be negative");
  EXPECT_EQ(what([&] { make(0); }), "accepted");
  auto const eth = Vel::create<Intf>(Dova::IntfId("eth0"));
  EXPECT_EQ(what([&] { eth->usedOverrideIntervalInSecondsIs(nan); }),
            "usedOverrideIntervalInSeconds cannot be NaN");
  EXPECT_EQ(what([&] { eth->usedOverrideIntervalInSecondsIs(-1); }),
            "usedOverrideIntervalInSeconds cannot be negative");
  auto const made = make(2.5);
  EXPECT_EQ(what([&] { made->loopQuantumIs(-1); }), "loopQuantum cannot be negative");
  EXPECT_EQ(what([&] { made->triggeredIntervalIs(-1); }), "triggeredInterval cannot be negative");
  EXPECT_EQ(made->loopQuantum(), 0.1);
  EXPECT_EQ(
      what([&] { joinPrunePeriodicTimerSmFactory(wheel, made.get(), nan, nullptr, eth, manager, nullptr); }),
      "loopQuantum cannot be NaN");
}

// --- The shared message and the transmit record --------------------------------------------------

TEST_F(MidFlightTest, AnExpiryThatIsCalledByHandInsideASendDoesNotTakeTheMessageAway) {
  startWithNeighbor();
  neighbor("10.0.0.3", eth0);
  for (char const* const n : {"10.0.0.2", "10.0.0.3"})
    for (char const* const g : {"239.1.1.1", "239.1.1.2"})
      group(triggered(n), g)->joinedSourceIs(addr("10.9.0.1"));
  manager->perMessage = 1;
  manager->after = [&, done = false](PacketManager&) mutable {
    if (std::exchange(done, true)) return;
    sm("10.0.0.3")->handleTriggeredTimerExpiry();
  };
  sm("10.0.0.2")->handleTriggeredTimerExpiry();
  EXPECT_EQ(triggered("10.0.0.2")->joinPruneGroupDataCount(), 0u);
  EXPECT_EQ(triggered("10.0.0.3")->joinPruneGroupDataCount(), 0u);
  EXPECT_EQ(manager->messages, 4u);
}

TEST_F(MidFlightTest, ARefreshDuringWhichAnotherMachineSendsGoesOnWithItsOwnData) {
  startWithNeighbor();
  neighbor("10.0.0.3", eth0);
  for (char const* const g : {"239.1.1.1", "239.1.1.2", "239.1.1.3"})
    group(periodic("10.0.0.2"), g)->joinedSourceIs(addr("10.9.0.1"));
  group(triggered("10.0.0.3"), "239.1.1.9")->joinedSourceIs(addr("10.9.0.1"));
  manager->perMessage = 1;
  manager->after = [&, done = false](PacketManager&) mutable {
    if (std::exchange(done, true)) return;
    sm("10.0.0.3")->handleTriggeredTimerExpiry();
  };
  sm("10.0.0.2")->joinPrunePeriodicTimerSm()->handlePeriodicTimerExpiry();
  std::vector<std::string> upstream;
  for (auto const& line : manager->sent) upstream.push_back(line.substr(8, 8));
  EXPECT_THAT(upstream, ElementsAre("10.0.0.2", "10.0.0.3", "10.0.0.2", "10.0.0.2"));
}

TEST_F(MidFlightTest, AMessageThatACallbackPointsElsewhereIsNotSent) {
  startWithNeighbor();
  auto const others = Vel::create<Packet::JoinPruneData>(addr("10.8.8.8"));
  class Thief final : public Packet::JoinPruneMessage::Notifiee {
   public:
    explicit Thief(Vel::Ptr<Packet::JoinPruneData> d) : data(std::move(d)) {}
    void onJoinPruneData() override { notifier()->joinPruneDataIs(data); }
    Vel::Ptr<Packet::JoinPruneData> const data;
  };
  auto const thief = Vel::create<Thief>(others);
  thief->notifierIs(machine->txMessage());
  group(triggered("10.0.0.2"), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  runUntil(time + 1);
  EXPECT_EQ(manager->messages, 0u);
  thief->notifierIs(nullptr);
  runUntil(time + 1);
  EXPECT_EQ(manager->messages, 1u);
}

TEST_F(MidFlightTest, NothingIsSentThroughATransmitRecordThatWasRemovedInTheBurst) {
  startWithNeighbor();
  for (char const* const g : {"239.1.1.1", "239.1.1.2", "239.1.1.3"}) {
    group(triggered("10.0.0.2"), g)->joinedSourceIs(addr("10.9.0.1"));
    group(periodic("10.0.0.2"), g)->joinedSourceIs(addr("10.9.0.1"));
  }
  manager->perMessage = 1;
  auto const removed = manager->txMessageInfo();
  manager->after = [&](PacketManager& m) { m.txMessageInfoDel(); };
  sm("10.0.0.2")->handleTriggeredTimerExpiry();
  EXPECT_EQ(removed->count(), 1u);
  EXPECT_EQ(triggered("10.0.0.2")->joinPruneGroupDataCount(), 2u);
  manager->txMessageInfoIs(removed);
  sm("10.0.0.2")->joinPrunePeriodicTimerSm()->handlePeriodicTimerExpiry();
  EXPECT_EQ(removed->count(), 2u);
}

}  // namespace
}  // namespace Routing::Pim
