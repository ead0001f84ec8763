// SPDX-License-Identifier: Apache-2.0
#include "tests/pim/joinprune/World.h"

namespace Routing::Pim {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

class JoinPruneMessageSmTest : public testing::Test, protected World {
 protected:
  TraceLog log;
  std::string const notCreating(std::string_view n) {
    return "[2] JoinPruneMessageSm::handleNeighbor, Not creating SM for neighbor " + std::string(n) +
           " because one already exists.  This could be due to the interface having the same interface.";
  }
};

TEST_F(JoinPruneMessageSmTest, WithAnEmptyStatusItIsInitializedAtOnceAndHasNoMachines) {
  start();
  EXPECT_TRUE(machine->initialized());
  EXPECT_EQ(machine->joinPruneNeighborSmCount(), 0u);
  EXPECT_TRUE(machine->txMessage());
  EXPECT_EQ(machine->references(), 1u);
  EXPECT_THAT(log.take(), ElementsAre("[8] JoinPruneMessageSm::handleInitialized()",
                                      "[2] JoinPruneMessageSm::handleNeighbor()"));
}

TEST_F(JoinPruneMessageSmTest, WithNothingButNullArgumentsItLivesAndDies) {
  auto sm = joinPruneMessageSmFactory({}, {}, {}, {}, {}, {}, {}, {}, {});
  EXPECT_TRUE(sm->initialized());
  sm->handleRxMessage();
  sm->handleNeighbor(addr("10.0.0.2"));
  EXPECT_THAT(
      log.take(),
      ElementsAre("[8] JoinPruneMessageSm::handleInitialized()", "[2] JoinPruneMessageSm::handleNeighbor()",
                  "[8] JoinPruneMessageSm::handleRxMessage()",
                  "[8] JoinPruneMessageSm::handleNeighbor(10.0.0.2)",
                  "[2] JoinPruneMessageSm::handleNeighbor(10.0.0.2), Neighbor down",
                  "[8] JoinPruneMessageSm::doMaybeDeleteNeighbor(10.0.0.2)",
                  "[2] JoinPruneMessageSm::doMaybeDeleteNeighbor(10.0.0.2), deleting neighbor"));
  sm = nullptr;
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(JoinPruneMessageSmTest, EveryArgumentMayBeMissingByItself) {
  for (int missing = 0; missing < 9; ++missing) {
    SCOPED_TRACE(missing);
    World w;
    auto const eth0 = w.intf("eth0", "10.0.0.1/24");
    w.neighbor("10.0.0.2", eth0);
    auto const has = [&](int argument) { return argument != missing; };
    auto sm = joinPruneMessageSmFactory(
        has(0) ? w.status : nullptr, has(1) ? w.filter : nullptr, has(2) ? w.pim : nullptr,
        has(3) ? w.rpHash : nullptr, has(4) ? w.rxJoin : nullptr, has(5) ? w.rxPrune : nullptr,
        has(6) ? w.channel : nullptr, has(7) ? w.manager : nullptr, has(8) ? w.wheel : nullptr);
    EXPECT_EQ(sm->joinPruneNeighborSmCount(), missing == 2 ? 0u : 2u);
    if (auto const data = w.triggered("10.0.0.2")) group(data, "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
    if (auto const data = w.periodic("10.0.0.2")) group(data, "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
    w.runUntil(w.time + 200);
    w.pim->pimIntfDelAll();
    w.pim->pimNeighborDelAll();
    sm = nullptr;
  }
}

TEST_F(JoinPruneMessageSmTest, AnInterfaceHasAMachineForItsOwnAddressAndThreeStatusEntries) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  start();
  auto const own = sm("10.0.0.1");
  ASSERT_TRUE(own);
  EXPECT_FALSE(own->neighbor());
  EXPECT_TRUE(own->intf() == eth0.get());
  EXPECT_EQ(own->parentSm(), machine.get());
  EXPECT_TRUE(own->txMessage() == machine->txMessage());
  EXPECT_EQ(sets("10.0.0.1"), "top");
  EXPECT_EQ(machine->pimIntf(Dova::IntfId("eth0"))->address(), addr("10.0.0.1"));
}

TEST_F(JoinPruneMessageSmTest, AnInterfacesOwnEntryIsNotTakenForAVanishedNeighbors) {
  intf("eth0", "10.0.0.1/24");
  start();
  EXPECT_THAT(log.takeWith("Deleting any pending"), IsEmpty());
  EXPECT_EQ(sets("10.0.0.1"), "top");
}

TEST_F(JoinPruneMessageSmTest, TheOutgoingMessageIsMadeOnce) {
  start();
  auto const message = machine->txMessage();
  EXPECT_TRUE(machine->txMessageIs() == message);
  EXPECT_TRUE(machine->txMessageIs() == message);
}

TEST_F(JoinPruneMessageSmTest, NeighborsThatAreThereAreTakenUpInTheOrderOfTheCollection) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.2", eth0);
  neighbor("10.0.0.3", eth0);
  Lines expected;
  for (auto i = pim->pimNeighborIterator(); i; ++i) {
    expected.push_back("[8] JoinPruneMessageSm::handleNeighbor(" + text(i.key()) + ")");
    expected.push_back("[2] JoinPruneMessageSm::handleNeighbor(" + text(i.key()) + "), Neighbor up");
  }
  start();
  EXPECT_EQ(log.takeWith("handleNeighbor("), [&] {
    Lines all = expected;
    all.insert(all.begin(), "[2] JoinPruneMessageSm::handleNeighbor()");
    return all;
  }());
  EXPECT_EQ(machine->joinPruneNeighborSmCount(), 3u);
}

TEST_F(JoinPruneMessageSmTest, ANeighborThatComesUpLaterGetsAMachineOnItsStatusEntries) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  eth0->usedOverrideIntervalInSecondsIs(4.5);
  start();
  auto const n = neighbor("10.0.0.2", eth0);
  auto const made = sm("10.0.0.2");
  ASSERT_TRUE(made);
  EXPECT_TRUE(made->neighbor() == n.get());
  EXPECT_TRUE(made->intf() == eth0.get());
  EXPECT_EQ(made->overrideInterval(), 4.5);
  EXPECT_TRUE(made->triggeredGroup()->notifier() == triggered("10.0.0.2"));
  EXPECT_TRUE(made->overrideGroup()->notifier() == override_("10.0.0.2"));
  EXPECT_TRUE(made->periodicGroup()->notifier() == periodic("10.0.0.2"));
  eth0->usedOverrideIntervalInSecondsIs(9);
  EXPECT_EQ(made->overrideInterval(), 4.5);
}

TEST_F(JoinPruneMessageSmTest, ANeighborThatIsAnnouncedAgainKeepsItsMachine) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.2", eth0);
  start();
  auto const before = sm("10.0.0.2");
  log.clear();
  pim->pimNeighborNotify(addr("10.0.0.2"));
  EXPECT_THAT(log.take(), ElementsAre("[8] JoinPruneMessageSm::handleNeighbor(10.0.0.2)",
                                      "[2] JoinPruneMessageSm::handleNeighbor(10.0.0.2), Neighbor up",
                                      notCreating("10.0.0.2")));
  EXPECT_TRUE(sm("10.0.0.2") == before);
}

TEST_F(JoinPruneMessageSmTest, ANeighborDoesNotDisplaceTheMachineOfAnInterfacesAddress) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  start();
  log.clear();
  neighbor("10.0.0.1", eth0);
  EXPECT_THAT(log.take(), Contains(notCreating("10.0.0.1")));
  EXPECT_FALSE(sm("10.0.0.1")->neighbor());
}

TEST_F(JoinPruneMessageSmTest, AnInterfaceDisplacesANeighborsMachineWithItsData) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.9", eth0);
  start();
  auto const old = triggered("10.0.0.9");
  auto const oldSm = sm("10.0.0.9");
  log.clear();
  auto const eth1 = intf("eth1", "10.0.0.9/24");
  Lines const lines = log.take();
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(lines[0], "[8] handleNew(eth1)");
  EXPECT_EQ(lines[1], "[2] handleNew(eth1), Intf up");
  EXPECT_EQ(lines[2], "[2] handleNew, Deleting existing SM for 10.0.0.9");
  EXPECT_FALSE(sm("10.0.0.9")->neighbor());
  EXPECT_TRUE(sm("10.0.0.9")->intf() == eth1.get());
  EXPECT_FALSE(triggered("10.0.0.9") == old);
  EXPECT_EQ(oldSm->parentSm(), nullptr);
}

TEST_F(JoinPruneMessageSmTest, ANeighborThatGoesDownTakesItsMachineAndEntriesInThisOrder) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.2", eth0);
  start();
  Lines order;
  class MachineLog final : public JoinPruneMessageSm::NotifieeConst {
   public:
    explicit MachineLog(Lines& l) : lines(l) {}
    void onJoinPruneNeighborSm(Dova::IpGenAddr) override { lines.push_back("machine"); }
    Lines& lines;
  };
  class StatusLog final : public JoinPruneStatus::NotifieeConst {
   public:
    explicit StatusLog(Lines& l) : lines(l) {}
    void onTriggeredGroup(Dova::IpGenAddr) override { lines.push_back("triggered"); }
    void onOverrideGroup(Dova::IpGenAddr) override { lines.push_back("override"); }
    Lines& lines;
  };
  class PeriodicLog final : public Packet::JoinPruneStatus::NotifieeConst {
   public:
    explicit PeriodicLog(Lines& l) : lines(l) {}
    void onUpJoinPrune(Dova::IpGenAddr) override { lines.push_back("periodic"); }
    Lines& lines;
  };
  auto const machineLog = Vel::create<MachineLog>(order);
  machineLog->notifierIs(machine);
  auto const statusLog = Vel::create<StatusLog>(order);
  statusLog->notifierIs(status);
  auto const periodicLog = Vel::create<PeriodicLog>(order);
  periodicLog->notifierIs(periodicStatus());
  log.clear();
  pim->pimNeighborDel(addr("10.0.0.2"));
  EXPECT_THAT(log.take(),
              ElementsAre("[8] JoinPruneMessageSm::handleNeighbor(10.0.0.2)",
                          "[2] JoinPruneMessageSm::handleNeighbor(10.0.0.2), Neighbor down",
                          "[8] JoinPruneMessageSm::doMaybeDeleteNeighbor(10.0.0.2)",
                          "[2] JoinPruneMessageSm::doMaybeDeleteNeighbor(10.0.0.2), deleting neighbor"));
  EXPECT_FALSE(sm("10.0.0.2"));
  EXPECT_EQ(sets("10.0.0.2"), "-");
  EXPECT_THAT(order, ElementsAre("machine", "triggered", "override", "periodic"));
}

TEST_F(JoinPruneMessageSmTest, AVanishedNeighborKeepsItsMachineWhileItsPeriodicDataHasGroups) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.2", eth0);
  start();
  group(periodic("10.0.0.2"), "239.1.1.1");
  log.clear();
  pim->pimNeighborDel(addr("10.0.0.2"));
  EXPECT_THAT(log.take(), ElementsAre("[8] JoinPruneMessageSm::handleNeighbor(10.0.0.2)",
                                      "[2] JoinPruneMessageSm::handleNeighbor(10.0.0.2), Neighbor down",
                                      "[8] JoinPruneMessageSm::doMaybeDeleteNeighbor(10.0.0.2)"));
  EXPECT_TRUE(sm("10.0.0.2"));
  EXPECT_EQ(sets("10.0.0.2"), "top");
}

TEST_F(JoinPruneMessageSmTest, PendingTriggeredDataDoesNotKeepAVanishedNeighborsMachine) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.2", eth0);
  start();
  group(triggered("10.0.0.2"), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  pim->pimNeighborDel(addr("10.0.0.2"));
  EXPECT_FALSE(sm("10.0.0.2"));
  runUntil(time + 10);
  EXPECT_EQ(manager->messages, 0u);
}

TEST_F(JoinPruneMessageSmTest, AMachineThatWasKeptGoesWithTheLastOfItsPeriodicSources) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.2", eth0);
  start();
  auto const data = periodic("10.0.0.2");
  group(data, "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  group(data, "239.1.1.2")->prunedSourceIs(addr("10.9.0.2"));
  pim->pimNeighborDel(addr("10.0.0.2"));
  group(data, "239.1.1.1")->joinedSourceDel(addr("10.9.0.1"));
  EXPECT_TRUE(sm("10.0.0.2"));
  data->joinPruneGroupData(addr("239.1.1.2"))->prunedSourceDel(addr("10.9.0.2"));
  EXPECT_FALSE(sm("10.0.0.2"));
  EXPECT_EQ(sets("10.0.0.2"), "-");
}

TEST_F(JoinPruneMessageSmTest, AnInterfacesMachineStaysWhenItsPeriodicDataRunsEmpty) {
  intf("eth0", "10.0.0.1/24");
  start();
  auto const own = sm("10.0.0.1");
  auto const g = group(periodic("10.0.0.1"), "239.1.1.1");
  g->joinedSourceIs(addr("10.9.0.1"));
  log.clear();
  g->joinedSourceDel(addr("10.9.0.1"));
  EXPECT_THAT(log.takeWith("doMaybeDeleteNeighbor"),
              ElementsAre("[8] JoinPruneMessageSm::doMaybeDeleteNeighbor(10.0.0.1)"));
  EXPECT_TRUE(sm("10.0.0.1") == own);
  EXPECT_EQ(sets("10.0.0.1"), "top");
}

TEST_F(JoinPruneMessageSmTest, ATargetWhoseSetsAreReplacedWhileItIsMadeIsMadeOnTheNewOnes) {
  class Replacer final : public Packet::JoinPruneStatus::NotifieeConst {
   public:
    explicit Replacer(Vel::Ptr<JoinPruneStatus> s) : status(std::move(s)) {}
    void onUpJoinPrune(Dova::IpGenAddr n) override {
      if (std::exchange(done, true)) return;
      status->overrideGroupDel(n);
      status->overrideGroupIs(n);
    }
    Vel::Ptr<JoinPruneStatus> status;
    bool done = false;
  };
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  start();
  auto const replacer = Vel::create<Replacer>(status);
  replacer->notifierIs(periodicStatus());
  neighbor("10.0.0.2", eth0);
  EXPECT_TRUE(replacer->done);
  EXPECT_TRUE(sm("10.0.0.2")->overrideGroup()->notifier() == override_("10.0.0.2"));
}

// Acts once, when the first set of a target is made.
class OnFirstSet final : public JoinPruneStatus::NotifieeConst {
 public:
  OnFirstSet(Vel::Ptr<JoinPruneStatus> const& on, Dova::IpGenAddr const& target) : target_(target) {
    notifierIs(on);
  }
  void onTriggeredGroup(Dova::IpGenAddr address) override {
    if (address == target_ && notifier()->triggeredGroup(address) && act) std::exchange(act, nullptr)();
  }
  std::function<void()> act;

 private:
  Dova::IpGenAddr const target_;
};

TEST_F(JoinPruneMessageSmTest, AnInterfaceTakesItsAddressFromANeighborThatCameUpWhileItsSetsWereMade) {
  auto const eth0 = intf("eth0");
  start();
  auto const meanwhile = Vel::create<OnFirstSet>(status, addr("10.0.0.1"));
  bool neighborHadIt = false;
  meanwhile->act = [&] {
    neighbor("10.0.0.1", eth0);
    neighborHadIt = sm("10.0.0.1") && sm("10.0.0.1")->neighbor();
  };
  eth0->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText("10.0.0.1/24"));
  EXPECT_TRUE(neighborHadIt);
  ASSERT_TRUE(sm("10.0.0.1"));
  EXPECT_FALSE(sm("10.0.0.1")->neighbor());
  EXPECT_TRUE(sm("10.0.0.1")->triggeredGroup()->notifier() == triggered("10.0.0.1"));
}

TEST_F(JoinPruneMessageSmTest, AnInterfaceThatGetsItsAddressTwiceWhileItsSetsAreMadeHasOneMachine) {
  auto const eth0 = intf("eth0");
  start();
  auto const meanwhile = Vel::create<OnFirstSet>(status, addr("10.0.0.1"));
  Vel::Ptr<JoinPruneNeighborSm> inner;
  meanwhile->act = [&] {
    eth0->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText("10.0.0.9/24"));
    eth0->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText("10.0.0.1/24"));
    inner = sm("10.0.0.1");
  };
  eth0->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText("10.0.0.1/24"));
  ASSERT_TRUE(inner);
  EXPECT_TRUE(sm("10.0.0.1") == inner);
  EXPECT_FALSE(sm("10.0.0.9"));
  EXPECT_EQ(sets("10.0.0.1"), "top");
  EXPECT_TRUE(inner->triggeredGroup()->notifier() == triggered("10.0.0.1"));
}

TEST_F(JoinPruneMessageSmTest, AnInterfaceThatGoesWhileItDisplacesANeighborGetsNoMachine) {
  auto const eth0 = intf("eth0");
  start();
  auto const meanwhile = Vel::create<OnFirstSet>(status, addr("10.0.0.1"));
  class Witness final : public JoinPruneMessageSm::NotifieeConst {
   public:
    void onJoinPruneNeighborSm(Dova::IpGenAddr address) override {
      if (!notifier()->joinPruneNeighborSm(address)) call();
    }
    std::function<void()> call;
  };
  auto const witness = Vel::create<Witness>();
  witness->call = [&] {
    pim->pimNeighborDel(addr("10.0.0.1"));
    pim->pimIntfDel(Dova::IntfId("eth0"));
  };
  witness->notifierIs(machine);
  meanwhile->act = [&] { neighbor("10.0.0.1", eth0); };
  eth0->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText("10.0.0.1/24"));
  EXPECT_FALSE(sm("10.0.0.1"));
  EXPECT_EQ(machine->pimIntfCount(), 0u);
}

TEST_F(JoinPruneMessageSmTest, ASecondAnnouncementAfterTheGroupsAreGoneDeletesAKeptMachine) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.2", eth0);
  start();
  auto const data = periodic("10.0.0.2");
  group(data, "239.1.1.1");
  pim->pimNeighborDel(addr("10.0.0.2"));
  sm("10.0.0.2")->hasNotificationActiveIs(false);  // so that the removal is not seen
  data->joinPruneGroupDataDel(addr("239.1.1.1"));
  EXPECT_TRUE(sm("10.0.0.2"));
  machine->handleNeighbor(addr("10.0.0.2"));
  EXPECT_FALSE(sm("10.0.0.2"));
}

TEST_F(JoinPruneMessageSmTest, ANeighborThatReturnsWhileItsMachineIsKeptDoesNotRefreshIt) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  auto const first = neighbor("10.0.0.2", eth0);
  start();
  group(periodic("10.0.0.2"), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  pim->pimNeighborDel(addr("10.0.0.2"));
  log.clear();
  neighbor("10.0.0.2", eth0);
  EXPECT_THAT(log.take(), Contains(notCreating("10.0.0.2")));
  EXPECT_TRUE(sm("10.0.0.2")->neighbor() == first.get());
}

TEST_F(JoinPruneMessageSmTest, AListedNeighborIsNotDeleted) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.2", eth0);
  start();
  log.clear();
  machine->doMaybeDeleteNeighbor(addr("10.0.0.2"));
  EXPECT_THAT(log.take(), ElementsAre("[8] JoinPruneMessageSm::doMaybeDeleteNeighbor(10.0.0.2)"));
  EXPECT_TRUE(sm("10.0.0.2"));
}

TEST_F(JoinPruneMessageSmTest, WhatIsLeftOfNeighborsThatVanishedBeforehandIsRemoved) {
  for (auto const* n : {"10.0.0.5", "10.0.0.6", "10.0.0.7"}) {
    periodicStatus()->upJoinPruneIs(addr(n));
    status->triggeredGroupIs(addr(n));
  }
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.2", eth0);
  start();
  EXPECT_THAT(log.takeWith("Deleting any pending"),
              UnorderedElementsAre("[2] JoinPruneMessageSm::handleInitialized(), Deleting any pending joins "
                                   "and prunes for deleted neighbor "
                                   "10.0.0.5",
                                   "[2] JoinPruneMessageSm::handleInitialized(), Deleting any pending joins "
                                   "and prunes for deleted neighbor "
                                   "10.0.0.6",
                                   "[2] JoinPruneMessageSm::handleInitialized(), Deleting any pending joins "
                                   "and prunes for deleted neighbor "
                                   "10.0.0.7"));
  for (auto const* n : {"10.0.0.5", "10.0.0.6", "10.0.0.7"}) EXPECT_EQ(sets(n), "-");
  EXPECT_EQ(sets("10.0.0.2"), "top");
}

TEST_F(JoinPruneMessageSmTest, AnInterfaceThatGoesTakesItsMachineEvenWithPendingGroups) {
  intf("eth0", "10.0.0.1/24");
  start();
  group(periodic("10.0.0.1"), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  group(triggered("10.0.0.1"), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  log.clear();
  pim->pimIntfDel(Dova::IntfId("eth0"));
  EXPECT_THAT(log.take(), ElementsAre("[2] handleDel(eth0), Intf down"));
  EXPECT_FALSE(sm("10.0.0.1"));
  EXPECT_EQ(sets("10.0.0.1"), "-");
  EXPECT_FALSE(machine->pimIntf(Dova::IntfId("eth0")));
  runUntil(time + 100);
  EXPECT_EQ(manager->messages, 0u);
}

TEST_F(JoinPruneMessageSmTest, AnAddressNotificationWithoutAChangeIsOnlyTraced) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  start();
  auto const before = sm("10.0.0.1");
  log.clear();
  eth0->usedAddressWithMaskNotify();
  eth0->usedAddressWithMaskIs(Dova::IpGenPrefix(addr("10.0.0.1"), 16));
  EXPECT_THAT(log.take(), ElementsAre("[2] handleUsedAddress(eth0), Address changed",
                                      "[2] handleUsedAddress(eth0), Address changed"));
  EXPECT_TRUE(sm("10.0.0.1") == before);
}

TEST_F(JoinPruneMessageSmTest, ANewAddressRebuildsTheInterfacesMachine) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  start();
  log.clear();
  eth0->usedAddressWithMaskIs(Dova::IpGenPrefix(addr("10.0.0.77"), 24));
  Lines const lines = log.take();
  ASSERT_GE(lines.size(), 5u);
  EXPECT_THAT(
      Lines(lines.begin(), lines.begin() + 5),
      ElementsAre("[2] handleUsedAddress(eth0), Address changed",
                  "[4] handleUsedAddress(eth0), Previous address: 10.0.0.1, New address: 10.0.0.77",
                  "[2] handleDel(eth0), Intf down", "[8] handleNew(eth0)", "[2] handleNew(eth0), Intf up"));
  EXPECT_FALSE(sm("10.0.0.1"));
  EXPECT_EQ(sets("10.0.0.1"), "-");
  EXPECT_TRUE(sm("10.0.0.77"));
  EXPECT_EQ(machine->pimIntf(Dova::IntfId("eth0"))->address(), addr("10.0.0.77"));
}

TEST_F(JoinPruneMessageSmTest, InterfacesWithoutAnAddressDisplaceEachOtherUnderTheUnspecifiedOne) {
  auto const eth0 = intf("eth0");
  start();
  ASSERT_TRUE(machine->joinPruneNeighborSm(Dova::IpGenAddr()));
  EXPECT_TRUE(machine->joinPruneNeighborSm(Dova::IpGenAddr())->intf() == eth0.get());
  auto const eth1 = intf("eth1");
  EXPECT_EQ(machine->joinPruneNeighborSmCount(), 1u);
  EXPECT_TRUE(machine->joinPruneNeighborSm(Dova::IpGenAddr())->intf() == eth1.get());
}

TEST_F(JoinPruneMessageSmTest, AWholeCollectionNotificationBringsTheInterfacesIntoLine) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  start();
  machine->pimStatus()->hasNotificationActiveIs(false);
  intf("eth1", "10.1.0.1/24");
  pim->pimIntfDel(Dova::IntfId("eth0"));
  machine->pimStatus()->hasNotificationActiveIs(true);
  EXPECT_FALSE(sm("10.1.0.1"));
  pim->pimIntfNotifyImmediate();
  EXPECT_TRUE(sm("10.1.0.1"));
  EXPECT_FALSE(sm("10.0.0.1"));
}

TEST_F(JoinPruneMessageSmTest, AnotherStatusBringsTheInterfacesIntoLineAndLeavesTheNeighbors) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.2", eth0);
  start();
  auto const other = Vel::create<Status>();
  auto const eth1 = other->pimIntfIs(Dova::IntfId("eth1"));
  eth1->usedAddressWithMaskIs(Dova::IpGenPrefix(addr("10.1.0.1"), 24));
  other->pimNeighborIs(addr("10.1.0.2"), eth1);
  log.clear();
  machine->pimStatus()->notifierIs(other);
  EXPECT_THAT(log.takeWith("handleNeighbor"), IsEmpty());
  EXPECT_TRUE(sm("10.1.0.1"));
  EXPECT_FALSE(sm("10.0.0.1"));
  EXPECT_TRUE(sm("10.0.0.2"));
}

TEST_F(JoinPruneMessageSmTest, AnotherObjectForAnInterfaceRebuildsItsMachineOnIt) {
  intf("eth0", "10.0.0.1/24");
  start();
  auto const reactor = machine->pimIntf(Dova::IntfId("eth0"));
  log.clear();
  auto const again = intf("eth0", "10.0.0.9/24");
  EXPECT_THAT(log.takeWith("(eth0)"), ElementsAre("[2] handleDel(eth0), Intf down", "[8] handleNew(eth0)",
                                                  "[2] handleNew(eth0), Intf up"));
  EXPECT_TRUE(machine->pimIntf(Dova::IntfId("eth0")) == reactor);
  EXPECT_TRUE(sm("10.0.0.9")->intf() == again.get());
  EXPECT_FALSE(sm("10.0.0.1"));
}

TEST_F(JoinPruneMessageSmTest, ANullInterfaceIsRefusedAndNothingChanges) {
  start();
  log.clear();
  std::string const expected =
      "null _pimIntf parameter to mutator for Routing::Pim::JoinPruneMessageSm::pimIntf not allowed\"";
  try {
    machine->pimIntfIs(nullptr);
    FAIL();
  } catch (Vel::InvalidArgumentException const& error) {
    EXPECT_EQ(error.what(), expected);
  }
  EXPECT_THROW(machine->pimIntfIs(nullptr), Vel::RangeException);
  EXPECT_EQ(machine->pimIntfCount(), 0u);
}

TEST_F(JoinPruneMessageSmTest, AnExistingNeighborMachineIsFoundByEqualParametersAlone) {
  auto const eth0 = intf("eth0", "10.0.0.1/24"), eth1 = intf("eth1", "10.1.0.1/24");
  neighbor("10.0.0.2", eth0);
  start();
  auto const present = sm("10.0.0.2");
  auto const instantiate = [&](Vel::Ptr<Intf const> on, double overrideInterval, auto message) {
    return machine->joinPruneNeighborSmIs(machine.get(), addr("10.0.0.2"), present->neighbor(), on,
                                          triggered("10.0.0.2"), override_("10.0.0.2"), periodic("10.0.0.2"),
                                          wheel, overrideInterval, manager, message);
  };
  EXPECT_TRUE(instantiate(eth0, 2.5, machine->txMessage()) == present);
  auto const whatIsSaid = [&](Vel::Ptr<Intf const> on, double overrideInterval) -> std::string {
    try {
      instantiate(on, overrideInterval, machine->txMessage());
    } catch (Vel::RangeException const& error) {
      return error.what();
    }
    return "nothing";
  };
  EXPECT_EQ(
      whatIsSaid(eth1, 7),
      "Reinstantiating the pointer interface where constructor parameter attribute _intf has a different "
      "value of " +
          text(eth1) + " than the current value of " + text(eth0));
  EXPECT_EQ(
      whatIsSaid(eth0, 7),
      "Reinstantiating the pointer interface where constructor parameter attribute _overrideInterval has a "
      "different value of 7 than the current value of 2.5");
}

TEST_F(JoinPruneMessageSmTest, DeletingAllNeighborMachinesDisarmsTheirTimersAndLeavesTheData) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.2", eth0);
  start();
  group(triggered("10.0.0.2"), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  EXPECT_EQ(wheel->armedCount(), 1u);
  machine->joinPruneNeighborSmDelAll();
  EXPECT_EQ(machine->joinPruneNeighborSmCount(), 0u);
  EXPECT_EQ(wheel->armedCount(), 0u);
  EXPECT_EQ(sets("10.0.0.2"), "top");
  EXPECT_EQ(sets("10.0.0.1"), "top");
}

TEST_F(JoinPruneMessageSmTest, ARetiredNeighborMachineThatTheAgentHoldsIsSilent) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.2", eth0);
  start();
  auto const held = sm("10.0.0.2");
  auto const t = triggered("10.0.0.2"), p = periodic("10.0.0.2");
  group(t, "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  auto const g = group(p, "239.1.1.1");
  machine->joinPruneNeighborSmDel(addr("10.0.0.2"));
  log.clear();
  g->joinedSourceIs(addr("10.9.0.1"));
  group(t, "239.1.1.2")->joinedSourceIs(addr("10.9.0.1"));
  held->numPeriodicRoutesInc(1);
  runUntil(time + 200);
  EXPECT_THAT(log.take(), IsEmpty());
  EXPECT_EQ(manager->messages, 0u);
  EXPECT_EQ(held->parentSm(), nullptr);
  EXPECT_EQ(held->joinPrunePeriodicTimerSm()->parentSm(), nullptr);
}

TEST_F(JoinPruneMessageSmTest, AnInterfaceAnnouncedAgainWhileItsMachineIsMadeGetsOneReactorAndOneMachine) {
  start();
  class Again final : public JoinPruneStatus::NotifieeConst {
   public:
    explicit Again(Vel::Ptr<Status> s) : pim(std::move(s)) {}
    void onTriggeredGroup(Dova::IpGenAddr) override { pim->pimIntfNotify(Dova::IntfId("eth0")); }
    Vel::Ptr<Status> pim;
  };
  auto const again = Vel::create<Again>(pim);
  again->notifierIs(status);
  intf("eth0", "10.0.0.1/24");
  EXPECT_EQ(machine->pimIntfCount(), 1u);
  EXPECT_EQ(machine->joinPruneNeighborSmCount(), 1u);
  EXPECT_EQ(sets("10.0.0.1"), "top");
}

// A callback while a target's sets are made may change everything; afterwards status and machine
// agree.
TEST_F(JoinPruneMessageSmTest, ATargetThatIsTakenAwayWhileItIsMadeLeavesNothingBehind) {
  class Meddler final : public JoinPruneStatus::NotifieeConst {
   public:
    explicit Meddler(std::function<void(int)> act) : act_(std::move(act)) {}
    void onTriggeredGroup(Dova::IpGenAddr) override { act(0); }
    void onOverrideGroup(Dova::IpGenAddr) override { act(1); }

   private:
    void act(int at) {
      if (!std::exchange(busy_, true)) {
        act_(at);
        busy_ = false;
      }
    }
    std::function<void(int)> act_;
    bool busy_ = false;
  };
  for (int at = 0; at < 2; ++at) {
    SCOPED_TRACE(at);
    World w;
    auto const eth0 = w.intf("eth0", "10.0.0.1/24");
    w.start();
    std::function<void()> act;
    auto const meddler = Vel::create<Meddler>([&](int now) {
      if (now == at) act();
    });
    meddler->notifierIs(w.status);

    act = [&] { w.pim->pimNeighborDel(addr("10.0.0.2")); };
    w.neighbor("10.0.0.2", eth0);
    EXPECT_FALSE(w.sm("10.0.0.2"));
    EXPECT_EQ(w.sets("10.0.0.2"), "-");

    act = [&] { w.pim->pimIntfDel(Dova::IntfId("eth1")); };
    w.intf("eth1", "10.1.0.1/24");
    EXPECT_FALSE(w.sm("10.1.0.1"));
    EXPECT_EQ(w.sets("10.1.0.1"), "-");

    Vel::Ptr<Intf> const eth2 = Vel::create<Intf>(Dova::IntfId("eth2"));
    eth2->usedAddressWithMaskIs(Dova::IpGenPrefix(addr("10.2.0.1"), 24));
    act = [&] { eth2->usedAddressWithMaskIs(Dova::IpGenPrefix(addr("10.2.0.2"), 24)); };
    w.pim->pimIntfIs(eth2);
    EXPECT_FALSE(w.sm("10.2.0.1"));
    EXPECT_EQ(w.sets("10.2.0.1"), "-");
    EXPECT_TRUE(w.sm("10.2.0.2"));
    EXPECT_EQ(w.sets("10.2.0.2"), "top");

    act = [&] { w.machine = nullptr; };
    w.neighbor("10.0.0.3", eth0);
    EXPECT_EQ(w.sets("10.0.0.1"), "-");
  }
}

TEST_F(JoinPruneMessageSmTest, ATraceSinkMayDropTheMachineAtEveryLine) {
  // Counts the lines of a story first, then tells it again once for each line.
  auto const story = [&](int dropAt) {
    World w;
    int line = 0;
    log.hook = [&](Vel::TraceLine const&) {
      if (++line == dropAt) w.machine = nullptr;
    };
    auto const eth0 = w.intf("eth0", "10.0.0.1/24");
    w.neighbor("10.0.0.2", eth0);
    w.start();
    if (auto const data = w.triggered("10.0.0.2")) group(data, "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
    if (auto const data = w.override_("10.0.0.2"))
      group(data, "239.1.1.1")->wcSourceDataIs(wildcard("10.5.0.1"));
    if (auto const data = w.periodic("10.0.0.2")) group(data, "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
    w.runUntil(w.time + 70);
    eth0->usedAddressWithMaskIs(Dova::IpGenPrefix(addr("10.0.0.9"), 24));
    w.pim->pimNeighborDel(addr("10.0.0.2"));
    if (auto const data = w.periodic("10.0.0.2"))
      if (auto const g = data->joinPruneGroupData(addr("239.1.1.1"))) g->joinedSourceDel(addr("10.9.0.1"));
    w.machine = nullptr;
    log.hook = nullptr;
    return line;
  };
  int const lines = story(0);
  EXPECT_GT(lines, 40);
  for (int at = 1; at <= lines; ++at) story(at);
}

TEST_F(JoinPruneMessageSmTest, DroppingTheMachineRemovesTheInterfacesEntriesAndLeavesTheNeighbors) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.2", eth0);
  start();
  log.clear();
  machine = nullptr;
  EXPECT_THAT(log.take(), ElementsAre("[2] handleDel(eth0), Intf down"));
  EXPECT_EQ(sets("10.0.0.1"), "-");
  EXPECT_EQ(sets("10.0.0.2"), "top");
  EXPECT_EQ(eth0->references(), 3u);  // this test, Status and the Neighbor
}

TEST_F(JoinPruneMessageSmTest, AMachineThatIsReplacedInItsOwnCallbackLeavesTheDataSetsToItsSuccessor) {
  for (char const* const moment : {"handleNeighbor(10.0.0.2), Neighbor up", "handleDel(eth0), Intf down"}) {
    SCOPED_TRACE(moment);
    World w;
    auto const eth0 = w.intf("eth0", "10.0.0.1/24");
    w.start();
    bool replaced = false;
    log.hook = [&](Vel::TraceLine const& line) {
      if (replaced || line.text.find(moment) == line.text.npos) return;
      replaced = true;
      auto const old = std::exchange(w.machine, nullptr);
      w.start();
    };
    w.neighbor("10.0.0.2", eth0);
    if (!replaced) w.machine = nullptr;
    ASSERT_TRUE(replaced);
    for (char const* const target : {"10.0.0.1", "10.0.0.2"}) {
      EXPECT_EQ(w.sets(target), "top") << target;
      ASSERT_TRUE(w.sm(target)) << target;
      EXPECT_EQ(w.sm(target)->triggeredGroup()->notifier(), w.triggered(target)) << target;
    }
    log.hook = {};
    w.machine = nullptr;
    EXPECT_EQ(w.sets("10.0.0.1"), "-");
  }
}

TEST_F(JoinPruneMessageSmTest, AReactorThatIsAZombieOrHasLostItsMachineDoesNothing) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.2", eth0);
  start();
  auto const watcher = machine->pimStatus();
  auto const rx = machine->rxMessageInfo();
  auto const poke = [&] {
    log.clear();
    watcher->onPimIntf(Dova::IntfId("eth0"));
    watcher->onPimIntfvelImmediate();
    watcher->onPimNeighbor(addr("10.0.0.2"));
    rx->onCount();
    return log.take();
  };
  EXPECT_FALSE(poke().empty());
  machine->velDoZombieReactors(true);
  auto const eth1 = intf("eth1", "10.0.1.1/24");
  EXPECT_THAT(poke(), IsEmpty());
  watcher->onPimIntf(eth1->intfId());
  EXPECT_THAT(log.take(), IsEmpty());
  EXPECT_EQ(sets("10.0.1.1"), "-");
  machine->velDoZombieReactors(false);
  EXPECT_FALSE(poke().empty());
  machine = nullptr;
  EXPECT_THAT(poke(), IsEmpty());
}

TEST_F(JoinPruneMessageSmTest, AReceiveChannelThatIsTakenAwayOrNotListenedToHandsOverNothing) {
  start();
  auto const rx = machine->rxMessageInfo();
  log.clear();
  rx->notifierIs(nullptr);
  EXPECT_THAT(log.takeWith("handleRxMessage"), IsEmpty());
  rx->hasNotificationActiveIs(false);
  rx->notifierIs(channel);
  EXPECT_THAT(log.takeWith("handleRxMessage"), IsEmpty());
}

TEST_F(JoinPruneMessageSmTest, AMachineWhoseSuccessorHasGoneRemovesDataSetsAgain) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.2", eth0);
  neighbor("10.0.0.3", eth0);
  auto const first = start();
  start();
  pim->pimNeighborDel(
      addr("10.0.0.2"));  // the first machine leaves the sets to the second, which removes them
  EXPECT_EQ(sets("10.0.0.2"), "-");
  machine = nullptr;
  EXPECT_EQ(sets("10.0.0.3"), "top");
  pim->pimNeighborDel(addr("10.0.0.3"));
  EXPECT_EQ(sets("10.0.0.3"), "-");
}

TEST_F(JoinPruneMessageSmTest, WhoRemovesADataSetMoreThanThreeTimesGetsNoMachine) {
  class Remover final : public JoinPruneStatus::NotifieeConst {
   public:
    explicit Remover(Vel::Ptr<JoinPruneStatus> status) : status_(std::move(status)) {}
    void onOverrideGroup(Dova::IpGenAddr target) override {
      if (left == 0 || !status_->overrideGroup(target)) return;
      --left;
      status_->overrideGroupDel(target);
    }
    int left = 1'000'000;

   private:
    Vel::Ptr<JoinPruneStatus> const status_;
  };
  auto const remover = Vel::create<Remover>(status);
  remover->notifierIs(status);
  start();
  intf("eth0", "10.0.0.1/24");
  EXPECT_EQ(machine->joinPruneNeighborSmCount(), 0u);
  remover->left = 4;
  intf("eth1", "10.1.0.1/24");
  EXPECT_FALSE(sm("10.1.0.1"));
  remover->left = 3;
  intf("eth2", "10.2.0.1/24");
  EXPECT_TRUE(sm("10.2.0.1"));
}

TEST_F(JoinPruneMessageSmTest, AMachineThatCannotArmItsTimersIsNotLeftHalfMade) {
  auto const eth0 = Vel::create<Intf>(Dova::IntfId("eth0"));
  eth0->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText("10.0.0.1/24"));
  for (char const* const target : {"10.0.0.1", "10.0.0.2"})
    group(status->overrideGroupIs(addr(target)), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  start();
  time = std::numeric_limits<double>::quiet_NaN();  // no timer can be armed by such a clock
  pim->pimIntfIs(eth0);
  EXPECT_FALSE(machine->pimIntf(Dova::IntfId("eth0")));
  neighbor("10.0.0.2", eth0);
  EXPECT_EQ(machine->joinPruneNeighborSmCount(), 0u);
  time = 1000;
  pim->pimIntfNotify(Dova::IntfId("eth0"));
  pim->pimNeighborNotify(addr("10.0.0.2"));
  EXPECT_TRUE(sm("10.0.0.1"));  // its data went with the interface
  ASSERT_TRUE(sm("10.0.0.2"));
  EXPECT_TRUE(sm("10.0.0.2")->overrideTimer()->armed());
}

TEST_F(JoinPruneMessageSmTest, ANeighborMachineIsRemovedByIteratorToo) {
  intf("eth0", "10.0.0.1/24");
  start();
  auto const removed = machine->joinPruneNeighborSmDel(machine->joinPruneNeighborSmIterator());
  ASSERT_TRUE(removed);
  EXPECT_EQ(removed->neighborAddr(), addr("10.0.0.1"));
  EXPECT_EQ(machine->joinPruneNeighborSmCount(), 0u);
}

TEST_F(JoinPruneMessageSmTest, AnInterfaceReactorCannotWatchAnotherInterface) {
  intf("eth0", "10.0.0.1/24");
  auto const eth1 = intf("eth1", "10.1.0.1/24");
  start();
  auto const reactor = machine->pimIntf(Dova::IntfId("eth0"));
  try {
    reactor->notifierIs(eth1);
    ADD_FAILURE() << "nothing was thrown";
  } catch (Vel::InvalidArgumentException const& error) {
    EXPECT_STREQ(error.what(), "the reactor of interface eth0 cannot watch interface eth1");
  }
  EXPECT_EQ(reactor->notifier()->intfId(), Dova::IntfId("eth0"));
}

TEST_F(JoinPruneMessageSmTest, AMachineThatIsGoingTakesUpNothingNew) {
  class Adder final : public JoinPruneStatus::NotifieeConst {
   public:
    explicit Adder(std::function<void()> act) : act_(std::move(act)) {}
    void onTriggeredGroup(Dova::IpGenAddr) override { act_(); }

   private:
    std::function<void()> act_;
  };
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  start();
  bool once = false;
  auto const adder = Vel::create<Adder>([&] {
    if (std::exchange(once, true)) return;
    intf("eth1", "10.1.0.1/24");
    neighbor("10.0.0.2", eth0);
  });
  adder->notifierIs(status);
  machine = nullptr;
  EXPECT_TRUE(once);
  for (auto const* target : {"10.0.0.1", "10.1.0.1", "10.0.0.2"}) EXPECT_EQ(sets(target), "-") << target;
}

TEST_F(JoinPruneMessageSmTest, AMachineThatWasDroppedInACallbackTakesUpNothingNewInItsRest) {
  class Dropper final : public JoinPruneStatus::NotifieeConst {
   public:
    explicit Dropper(std::function<void()> act) : act_(std::move(act)) {}
    void onTriggeredGroup(Dova::IpGenAddr) override { act_(); }

   private:
    std::function<void()> act_;
  };
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  start();
  auto const dropper = Vel::create<Dropper>([&] {
    if (!machine) return;
    machine = nullptr;
    intf("eth1", "10.1.0.1/24");
    neighbor("10.0.0.3", eth0);
  });
  dropper->notifierIs(status);
  neighbor("10.0.0.2", eth0);
  for (auto const* target : {"10.0.0.1", "10.1.0.1", "10.0.0.3"}) EXPECT_EQ(sets(target), "-") << target;
}

TEST_F(JoinPruneMessageSmTest, TargetsThatAreMadeWhileTheMachineIsSwitchedOffAreActive) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  start();
  machine->hasNotificationActiveIs(false);
  auto const other = Vel::create<Status>();
  auto const eth1 = Vel::create<Intf>(Dova::IntfId("eth1"));
  eth1->usedAddressWithMaskIs(Dova::IpGenPrefix(addr("10.1.0.1"), 24));
  other->pimIntfIs(eth1);
  machine->pimStatus()->notifierIs(other);
  machine->hasNotificationActiveIs(true);
  group(triggered("10.1.0.1"), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  EXPECT_EQ(wheel->armedCount(), 1u);
}

TEST_F(JoinPruneMessageSmTest, AnInterfaceThatIsHandedOverWhileTheMachineIsSwitchedOffWaitsWithIt) {
  start();
  machine->hasNotificationActiveIs(false);
  auto const eth1 = Vel::create<Intf>(Dova::IntfId("eth1"));
  auto const reactor = machine->pimIntfIs(eth1);
  EXPECT_FALSE(reactor->hasNotificationActive());
  eth1->usedAddressWithMaskIs(Dova::IpGenPrefix(addr("10.1.0.1"), 24));
  EXPECT_FALSE(machine->joinPruneNeighborSm(addr("10.1.0.1")));
  machine->hasNotificationActiveIs(true);
  EXPECT_TRUE(reactor->hasNotificationActive());
}

TEST_F(JoinPruneMessageSmTest, AMachineMayBeDroppedWhileAllItsInterfacesAreDeleted) {
  class Dropper final : public JoinPruneStatus::NotifieeConst {
   public:
    explicit Dropper(Vel::Ptr<JoinPruneMessageSm>& m) : machine(m) {}
    void onTriggeredGroup(Dova::IpGenAddr) override { machine = nullptr; }
    Vel::Ptr<JoinPruneMessageSm>& machine;
  };
  for (bool const machines : {false, true}) {
    World w;
    auto const eth0 = w.intf("eth0", "10.0.0.1/24");
    w.intf("eth1", "10.1.0.1/24");
    w.neighbor("10.0.0.2", eth0);
    w.start();
    auto const dropper = Vel::create<Dropper>(w.machine);
    dropper->notifierIs(w.status);
    JoinPruneMessageSm* const sm = w.machine.get();
    if (machines) sm->joinPruneNeighborSmDelAll();
    sm->pimIntfDelAll();
    EXPECT_FALSE(w.machine);
    EXPECT_EQ(w.sets("10.0.0.1"), "-");
    EXPECT_EQ(w.sets("10.1.0.1"), "-");
  }
}

TEST_F(JoinPruneMessageSmTest, AConstMachineCannotBeChanged) {
  start();
  Vel::Ptr<JoinPruneMessageSm const> const view = machine;
  std::vector<std::function<void()>> const mutators = {
      [&] { view->diagUpJoinCountIs(true); },
      [&] { view->txMessageIs(); },
      [&] { view->joinPruneNeighborSmDel(addr("10.0.0.1")); },
      [&] { view->joinPruneNeighborSmDelAll(); },
      [&] { view->pimIntfIs(nullptr); },
      [&] { view->pimIntfDel(Dova::IntfId("eth0")); },
      [&] { view->pimIntfDelAll(); },
      [&] { view->attributeIs("diagUpJoinCount", "true"); }};
  for (auto const& mutate : mutators) EXPECT_THROW(mutate(), Vel::RangeException);
  EXPECT_FALSE(view->diagUpJoinCount());
}

TEST_F(JoinPruneMessageSmTest, TheMachineKeepsItsInputsAlive) {
  start();
  Vel::Ptr<JoinPruneMessageInfo> const record = rxJoin;
  rxJoin = nullptr;
  EXPECT_EQ(record->references(), 2u);
  machine = nullptr;
  EXPECT_EQ(record->references(), 1u);
}

TEST_F(JoinPruneMessageSmTest, RevivingARetiredInterfaceReactorTakesItsMachineDownAndMakesNone) {
  intf("eth0", "10.0.0.1/24");
  start();
  auto const reactor = machine->pimIntf(Dova::IntfId("eth0"));
  log.clear();
  reactor->velDoZombieReactors(true);
  reactor->velDoZombieReactors(true);
  EXPECT_THAT(log.take(), ElementsAre("[2] handleDel(eth0), Intf down"));
  reactor->velDoZombieReactors(false);
  EXPECT_THAT(log.take(), ElementsAre("[2] handleDel(eth0), Intf down"));
  EXPECT_FALSE(sm("10.0.0.1"));
}

TEST_F(JoinPruneMessageSmTest, ZombieReactorsOfTheMachineDoNotReachTheNeighborMachines) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.2", eth0);
  start();
  machine->velDoZombieReactors(true);
  neighbor("10.0.0.3", eth0);
  EXPECT_FALSE(sm("10.0.0.3"));
  log.clear();
  group(triggered("10.0.0.2"), "239.1.1.1");
  EXPECT_THAT(log.take(), Not(IsEmpty()));
}

TEST_F(JoinPruneMessageSmTest, SwitchedOffItIgnoresItsInputsUntilItIsSwitchedOn) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  start();
  machine->hasNotificationActiveIs(false);
  neighbor("10.0.0.2", eth0);
  eth0->usedAddressWithMaskIs(Dova::IpGenPrefix(addr("10.0.0.9"), 24));
  EXPECT_FALSE(sm("10.0.0.2"));
  EXPECT_TRUE(sm("10.0.0.1"));
  machine->hasNotificationActiveIs(true);
  EXPECT_FALSE(sm("10.0.0.2"));
  neighbor("10.0.0.3", eth0);
  EXPECT_TRUE(sm("10.0.0.3"));
}

TEST_F(JoinPruneMessageSmTest, TheDiagnosticSwitchIsSetByName) {
  start();
  EXPECT_EQ(machine->attribute("diagUpJoinCount"), "false");
  machine->attributeIs("diagUpJoinCount", "true");
  EXPECT_TRUE(machine->diagUpJoinCount());
  EXPECT_THROW(machine->attributeIs("diagUpJoinCount", "maybe"), Vel::RangeException);
  EXPECT_THROW(machine->attribute("nothing"), Vel::RangeException);
}

TEST_F(JoinPruneMessageSmTest, EveryAttributeCanBeReadByName) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  start();
  for (auto const& row : machine->attributeTable()) machine->attribute(row.name);
  EXPECT_EQ(machine->attribute("joinPruneNeighborSm"), "10.0.0.1");
  EXPECT_EQ(machine->attribute("pimIntf"), "eth0");
  Vel::AttributeId id = Vel::firstAttributeId;
  for (auto const& row : machine->attributeTable()) EXPECT_EQ(row.id, id++) << row.name;
  id = Vel::firstAttributeId;
  for (auto const& row : sm("10.0.0.1")->attributeTable()) {
    EXPECT_EQ(row.id, id++) << row.name;
    sm("10.0.0.1")->attribute(row.name);
  }
}

TEST_F(JoinPruneMessageSmTest, ItsTextFormIsItsName) {
  start();
  EXPECT_EQ(text(static_cast<JoinPruneMessageSm const*>(machine.get())), "JoinPruneMessageSm::");
  EXPECT_EQ(machine->fwkType(), "Routing::Pim::JoinPruneMessageSm");
}

TEST_F(JoinPruneMessageSmTest, TraceLinesCarryTheHandleSourceFunctionAndLevel) {
  start();
  ASSERT_FALSE(log.all.empty());
  Vel::TraceLine const& line = log.all.front();
  EXPECT_EQ(line.handle, "Pim::JoinPrune");
  EXPECT_EQ(line.context, "<unknown>");
  EXPECT_EQ(line.source, "JoinPruneSm");
  EXPECT_EQ(line.function, "handleInitialized");
  EXPECT_EQ(line.level, 8u);
  EXPECT_TRUE(line.enabled);
  EXPECT_GT(line.line, 0);
}

TEST_F(JoinPruneMessageSmTest, AHundredThousandFlapsOfANeighborLeaveNothingBehind) {
  log.levels({});
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  start();
  U32 const before = eth0->references(), wheelBefore = wheel->references();
  for (int i = 0; i < 100000; ++i) {
    neighbor("10.0.0.2", eth0);
    pim->pimNeighborDel(addr("10.0.0.2"));
  }
  EXPECT_EQ(eth0->references(), before);
  EXPECT_EQ(machine->joinPruneNeighborSmCount(), 1u);
  EXPECT_EQ(status->triggeredGroupCount(), 1u);
  EXPECT_EQ(wheel->references(), wheelBefore);
}

TEST_F(JoinPruneMessageSmTest, EachNestedReactorIsDeafWhileTheMachineIsSwitchedOffOrRetired) {
  struct Row {
    char const* name;
    char const* reaction;
    std::function<void(U32)> provoke;  // with another number each time
  };
  auto const eth0 = intf("eth0", "10.0.0.1/24"), eth1 = intf("eth1", "10.1.0.1/24");
  auto const address = [](U32 net, U32 host) { return Dova::IpGenAddr::ipv4(net + 2 + host); };
  channel->joinPruneMessageIs(Vel::create<Packet::JoinPruneMessage>());
  start();
  Row const rows[] = {
      {"a neighbor", "handleNeighbor(", [&](U32 n) { pim->pimNeighborIs(address(0x0a000100, n), eth0); }},
      {"an interface", "Intf up",
       [&](U32 n) { pim->pimIntfIs(Vel::create<Intf>(Dova::IntfId("eth" + std::to_string(10 + n)))); }},
      {"eth0", "(eth0), Address changed",
       [&](U32 n) { eth0->usedAddressWithMaskIs(Dova::IpGenPrefix(address(0x0a000000, n), 24)); }},
      {"eth1", "(eth1), Address changed",
       [&](U32 n) { eth1->usedAddressWithMaskIs(Dova::IpGenPrefix(address(0x0a010000, n), 24)); }},
      {"a message", "handleRxMessage()", [&](U32) { channel->countInc(1); }}};
  U32 provoked = 0;
  auto const reacts = [&](Row const& row) {
    log.clear();
    row.provoke(++provoked);
    return !log.takeWith(row.reaction).empty();
  };
  auto const allReact = [&](bool react) {
    for (auto const& row : rows) EXPECT_EQ(reacts(row), react) << row.name;
    EXPECT_EQ(machine->timerWheel()->hasNotificationActive(), react);
    EXPECT_EQ(machine->pimPamManager()->hasNotificationActive(), react);
  };
  allReact(true);
  machine->hasNotificationActiveIs(false);
  allReact(false);
  machine->hasNotificationActiveIs(true);
  allReact(true);
  machine->velDoZombieReactors(true);
  EXPECT_TRUE(machine->timerWheel()->isZombie());
  EXPECT_TRUE(machine->pimPamManager()->isZombie());
  allReact(false);
  machine->velDoZombieReactors(false);
  allReact(true);
}

}  // namespace
}  // namespace Routing::Pim
