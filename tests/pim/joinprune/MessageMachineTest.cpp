// SPDX-License-Identifier: Apache-2.0
// The message machine at the edges: what is changed inside its lines and callbacks, and what is missing.
#include "pim/joinprune/private/RecordAccess.h"
#include "tests/pim/joinprune/FailingHeap.h"
#include "tests/pim/joinprune/World.h"

namespace Routing::Pim {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class MessageMachineTest : public testing::Test, protected World {
 protected:
  /// Runs `act` inside the first line that contains `part`.
  void inLine(std::string part, std::function<void()> act) {
    log.hook = [this, part = std::move(part), act = std::move(act)](Vel::TraceLine const& line) {
      if (line.text.find(part) == line.text.npos) return;
      auto const once = act;
      log.hook = nullptr;
      once();
    };
  }
  void addressIs(Vel::Ptr<Intf> const& intf, char const* address) {
    intf->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText(address));
  }

  TraceLog log;
};

/// Notes what a message machine tells of, and acts.
class MachineLog final : public JoinPruneMessageSm::NotifieeConst {
 public:
  explicit MachineLog(Vel::Ptr<JoinPruneMessageSm> const& sm) { notifierIs(sm); }
  void onJoinPruneNeighborSm(Dova::IpGenAddr a) override { note("machine " + text(a)); }
  void onPimIntf(Dova::IntfId i) override { note("intf " + i.name()); }
  Lines lines;
  std::function<void()> act;

 private:
  void note(std::string const& line) {
    lines.push_back(line);
    if (act) std::exchange(act, nullptr)();
  }
};

TEST_F(MessageMachineTest, ThatIsRetiredTracesNothingForANeighbor) {
  neighbor("10.0.0.2", intf("eth0", "10.0.0.1/24"));
  start();
  inLine("handleRxMessage()", [&] {
    auto* const old = machine.get();
    machine = nullptr;
    log.clear();
    old->handleNeighbor(addr("10.0.0.2"));
    old->handleNeighbor(addr("10.0.0.3"));
    EXPECT_THAT(log.take(), IsEmpty());
  });
  channel->countInc(1);
  EXPECT_FALSE(machine);
}

TEST_F(MessageMachineTest, SaysNothingOfANeighborThatLeavesInTheLineOfItsReturn) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.2", eth0);
  start();
  group(periodic("10.0.0.2"), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  pim->pimNeighborDel(addr("10.0.0.2"));
  log.clear();
  inLine("Neighbor up", [&] { pim->pimNeighborDel(addr("10.0.0.2")); });
  neighbor("10.0.0.2", eth0);
  EXPECT_THAT(log.take(), Not(Contains(HasSubstr("Not creating"))));
  EXPECT_TRUE(sm("10.0.0.2"));  // kept for its periodic group
}

TEST_F(MessageMachineTest, GivesATargetWithoutAnInterfaceNoOverrideDelay) {
  start();
  pim->pimNeighborIs(addr("10.0.0.2"), Vel::Ptr<Intf>());
  ASSERT_TRUE(sm("10.0.0.2"));
  EXPECT_EQ(sm("10.0.0.2")->overrideInterval(), 0);
}

TEST_F(MessageMachineTest, TellsOfNoMachineThatWasTakenAwayInItsStart) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  start();
  auto const watcher = Vel::create<MachineLog>(machine);
  inLine("total number of periodic", [&] { machine->joinPruneNeighborSmDel(addr("10.0.0.2")); });
  neighbor("10.0.0.2", eth0);
  EXPECT_FALSE(sm("10.0.0.2"));
  EXPECT_THAT(watcher->lines, testing::ElementsAre("machine 10.0.0.2"));  // that it was removed
  watcher->lines.clear();
  inLine("total number of periodic", [&] { machine->joinPruneNeighborSmDel(addr("10.0.0.3")); });
  machine->joinPruneNeighborSmIs(machine.get(), addr("10.0.0.3"), nullptr, eth0, nullptr, nullptr, nullptr,
                                 wheel, 2.5, manager, machine->txMessage());
  EXPECT_THAT(watcher->lines, testing::ElementsAre("machine 10.0.0.3"));
}

TEST_F(MessageMachineTest, TellsOfNoInterfaceThatWasTakenAwayWhileItsMachineWasMade) {
  start();
  auto const watcher = Vel::create<MachineLog>(machine);
  inLine("(eth0), Intf up", [&] { pim->pimIntfDel(Dova::IntfId("eth0")); });
  intf("eth0", "10.0.0.1/24");
  EXPECT_EQ(machine->pimIntfCount(), 0u);
  EXPECT_THAT(watcher->lines, testing::ElementsAre("intf eth0"));  // that it was removed
}

TEST_F(MessageMachineTest, KeepsAMachineOrReactorThatIsMadeAnewWhileAllAreDeleted) {
  auto const eth0 = intf("eth0", "10.0.0.1/24"), eth1 = intf("eth1", "10.1.0.1/24");
  start();
  auto const watcher = Vel::create<MachineLog>(machine);
  watcher->act = [&] {
    machine->joinPruneNeighborSmDelAll();
    for (auto const* const a : {"10.0.0.1", "10.1.0.1"})
      machine->newJoinPruneNeighborSm(machine.get(), addr(a), nullptr, eth0, nullptr, nullptr, nullptr, wheel,
                                      2.5, manager, machine->txMessage());
  };
  machine->joinPruneNeighborSmDelAll();
  EXPECT_EQ(machine->joinPruneNeighborSmCount(), 2u);
  watcher->act = [&] {
    machine->pimIntfDelAll();
    machine->pimIntfIs(eth0);
    machine->pimIntfIs(eth1);
  };
  machine->pimIntfDelAll();
  EXPECT_EQ(machine->pimIntfCount(), 2u);
}

TEST_F(MessageMachineTest, LeavesTheNeighborAloneWhoseAddressAnInterfaceGivesUpInTheLineOfTakingIt) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.9", eth0);
  start();
  auto const neighbors = sm("10.0.0.9");
  auto const eth1 = Vel::create<Intf>(Dova::IntfId("eth1"));
  addressIs(eth1, "10.0.0.9/24");
  inLine("Deleting existing SM for 10.0.0.9", [&] { addressIs(eth1, "10.1.0.1/24"); });
  pim->pimIntfIs(eth1);
  ASSERT_TRUE(sm("10.1.0.1"));
  EXPECT_TRUE(sm("10.1.0.1")->intf() == eth1.get());
  EXPECT_FALSE(sm("10.0.0.9") && !sm("10.0.0.9")->neighbor());
}

TEST_F(MessageMachineTest, MakesNoMachineOfAnAddressThatAnInterfaceGaveUpWhileItTookIt) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.9", eth0);
  start();
  auto const eth1 = Vel::create<Intf>(Dova::IntfId("eth1"));
  addressIs(eth1, "10.0.0.9/24");
  auto const watcher = Vel::create<MachineLog>(machine);
  watcher->act = [&] {
    pim->pimNeighborDel(addr("10.0.0.9"));
    addressIs(eth1, "10.1.0.1/24");
  };
  pim->pimIntfIs(eth1);
  EXPECT_FALSE(sm("10.0.0.9"));
  EXPECT_EQ(sets("10.0.0.9"), "-");
  ASSERT_TRUE(sm("10.1.0.1"));
}

TEST_F(MessageMachineTest, ThatIsDroppedByAnObserverOfAPruneAsksNoFilterAnyMore) {
  auto const message = Vel::create<Packet::JoinPruneMessage>();
  message->joinPruneDataIs(Vel::create<Packet::JoinPruneData>(addr("10.0.0.1")));
  auto const entries = group(message->joinPruneData(), "239.1.1.1");
  entries->prunedSourceIs(addr("10.9.0.1"));
  entries->wcSourceDataIs(wildcard("10.5.0.1"));
  entries->prunedRptSourceIs(addr("10.9.0.2"));
  channel->joinPruneMessageIs(message);
  start();
  Lines writes;
  auto const prunes = Vel::create<RecordLog>("prune", writes);
  prunes->notifierIs(rxPrune);
  prunes->hook = [&] { machine = nullptr; };
  channel->countInc(1);
  EXPECT_FALSE(machine);
  EXPECT_THAT(filter->asked, IsEmpty());
  EXPECT_THAT(rpHash->asked, IsEmpty());
  EXPECT_EQ(rxPrune->rxCount(), 1u);
}

TEST_F(MessageMachineTest, WithoutAStatusKeepsTheInterfacesThatItWasGivenWhenItCatchesUp) {
  auto const eth0 = Vel::create<Intf>(Dova::IntfId("eth0")), eth1 = Vel::create<Intf>(Dova::IntfId("eth1"));
  addressIs(eth0, "10.0.0.1/24");
  addressIs(eth1, "10.1.0.1/24");
  log.levels({});
  U32 caughtUp = 0;
  bool failed = true;
  for (std::size_t n = 1; failed; ++n) {
    SCOPED_TRACE(n);
    status = joinPruneStatusFactory();
    periodicStatus();
    auto const lone = joinPruneMessageSmFactory(status, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                                nullptr, wheel);
    lone->pimIntfIs(eth0);
    {
      FailingHeap::Failure const failure(n);
      try {
        lone->pimIntfIs(eth1);
      } catch (std::bad_alloc const&) {
      }
      failed = failure.happened();
    }
    caughtUp += wheel->armedCount();
    runUntil(time + 0.2);
    EXPECT_TRUE(lone->pimIntf(Dova::IntfId("eth0")));
    EXPECT_TRUE(lone->joinPruneNeighborSm(addr("10.0.0.1")));
    EXPECT_EQ(wheel->armedCount(), 0u);
  }
  EXPECT_GT(caughtUp, 0u);
}

TEST_F(MessageMachineTest, MakesANeighborMachineOfTheSetsThatItIsGiven) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  start();
  auto const set = [](char const* a) { return Vel::create<Packet::JoinPruneData>(addr(a)); };
  auto const t = set("10.0.0.2"), o = set("10.0.0.2"), p = set("10.0.0.2");
  auto const is = [&](JoinPruneNeighborSm& made) {
    EXPECT_TRUE(made.triggeredGroup()->notifier() == t);
    EXPECT_TRUE(made.overrideGroup()->notifier() == o);
    EXPECT_TRUE(made.periodicGroup()->notifier() == p);
    EXPECT_TRUE(sm("10.0.0.2").get() == &made);
    EXPECT_EQ(made.overrideInterval(), 2.5);
  };
  bool inItsPlace = false;
  inLine("total number of periodic", [&] { inItsPlace = sm("10.0.0.2") != nullptr; });
  is(*machine->newJoinPruneNeighborSm(machine.get(), addr("10.0.0.2"), nullptr, eth0, t, o, p, wheel, 2.5,
                                      manager, machine->txMessage()));
  EXPECT_TRUE(inItsPlace);
  machine->joinPruneNeighborSmDel(addr("10.0.0.2"));
  auto const watcher = Vel::create<MachineLog>(machine);
  is(*machine->joinPruneNeighborSmIs(machine.get(), addr("10.0.0.2"), nullptr, eth0, t, o, p, wheel, 2.5,
                                     manager, machine->txMessage()));
  EXPECT_THAT(watcher->lines, testing::ElementsAre("machine 10.0.0.2"));
}

TEST_F(MessageMachineTest, RetiresTheMachineThatItReplacesAndTheOneThatItRemovesBeforeItTellsOfThem) {
  neighbor("10.0.0.2", intf("eth0", "10.0.0.1/24"));
  start();
  auto const first = sm("10.0.0.2");
  machine->pimIntf(Dova::IntfId("eth0"))->createJoinPruneSm(addr("10.0.0.2"));
  EXPECT_FALSE(sm("10.0.0.2") == first);
  EXPECT_TRUE(first->retired());
  auto const second = sm("10.0.0.2");
  auto const watcher = Vel::create<MachineLog>(machine);
  bool retired = false;
  watcher->act = [&] { retired = second->retired(); };
  machine->joinPruneNeighborSmDel(addr("10.0.0.2"));
  EXPECT_TRUE(retired);
}

TEST_F(MessageMachineTest, MakesNothingAnewWhenAReactorIsPointedAtWhatItWatches) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  intf("eth1", "10.1.0.1/24");
  start();
  log.clear();
  machine->pimIntf(Dova::IntfId("eth0"))->notifierIs(eth0);
  EXPECT_THAT(log.take(), IsEmpty());
  machine->pimIntfDel(Dova::IntfId("eth1"));
  machine->pimStatus()->notifierIs(pim);
  EXPECT_FALSE(machine->pimIntf(Dova::IntfId("eth1")));
  EXPECT_FALSE(machine->pimIntfDel(Dova::IntfId("eth1")));
}

TEST_F(MessageMachineTest, LeavesAReactorThatDoesNothingBehind) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  start();
  auto const reactor = machine->pimIntf(Dova::IntfId("eth0"));
  machine = nullptr;
  log.clear();
  reactor->onUsedAddressWithMask();
  reactor->handleNew();
  reactor->handleDel();
  reactor->handleUsedAddress();
  reactor->createJoinPruneSm(addr("10.0.0.1"));
  reactor->deleteJoinPruneSm(addr("10.0.0.1"));
  EXPECT_THAT(log.take(), IsEmpty());
  EXPECT_EQ(sets("10.0.0.1"), "-");
}

TEST_F(MessageMachineTest, LeavesNothingThatPointsBackAtItHoweverItsEndFails) {
  bool failed = true;
  for (std::size_t n = 1; failed; ++n) {
    SCOPED_TRACE(n);
    World w;
    auto const eth0 = w.intf("eth0", "10.0.0.1/24");
    w.neighbor("10.0.0.2", eth0);
    w.start();
    auto const reactor = w.machine->pimIntf(Dova::IntfId("eth0"));
    auto const follower = w.machine->pimStatus();
    auto const receiver = w.machine->rxMessageInfo();
    auto const own = w.sm("10.0.0.1"), neighbors = w.sm("10.0.0.2");
    {
      FailingHeap::Failure const failure(n, ~std::size_t{0} / 2);
      try {
        w.machine = nullptr;
      } catch (std::bad_alloc const&) {
      }
      failed = failure.happened();
    }
    EXPECT_FALSE(reactor->joinPruneMessageSm());
    EXPECT_FALSE(follower->joinPruneMessageSm());
    EXPECT_FALSE(receiver->joinPruneMessageSm());
    EXPECT_FALSE(own->parentSm());
    EXPECT_FALSE(neighbors->parentSm());
    w.manager->stop();
  }
}

TEST_F(MessageMachineTest, TakesTheMessageOfAnotherChannelAndNotThatOfItsOwn) {
  auto const message = [](char const* s) {
    auto const made = Vel::create<Packet::JoinPruneMessage>();
    made->joinPruneDataIs(Vel::create<Packet::JoinPruneData>(addr("10.0.0.1")));
    group(made->joinPruneData(), "239.1.1.1")->joinedSourceIs(addr(s));
    return made;
  };
  channel->joinPruneMessageIs(message("10.9.0.1"));
  start();
  auto const other = Vel::create<IO::MessageInfo>();
  other->joinPruneMessageIs(message("10.9.0.2"));
  machine->rxMessageInfo()->notifierIs(other);
  EXPECT_EQ(text(rxJoin->riKey()), "(10.9.0.2,239.1.1.1)");
  EXPECT_EQ(rxJoin->rxCount(), 1u);
}

TEST_F(MessageMachineTest, TellsOfEachEntryAlsoWithoutTraces) {
  auto const message = Vel::create<Packet::JoinPruneMessage>();
  message->joinPruneDataIs(Vel::create<Packet::JoinPruneData>(addr("10.0.0.1")));
  for (char const* const s : {"10.9.0.1", "10.9.0.2"})
    group(message->joinPruneData(), "239.1.1.1")->joinedSourceIs(addr(s));
  channel->joinPruneMessageIs(message);
  start();
  log.levels({});
  Lines writes;
  auto const joins = Vel::create<RecordLog>("join", writes);
  joins->notifierIs(rxJoin);
  channel->countInc(1);
  EXPECT_THAT(writes, Contains("join.rxCount=1"));
  EXPECT_THAT(writes, Contains("join.rxCount=2"));
}

TEST_F(MessageMachineTest, ThatIsDroppedWhileItRemovesANeighborLeavesTheOtherSetsToItsSuccessor) {
  class SetLog final : public JoinPruneStatus::NotifieeConst {
   public:
    void onTriggeredGroup(Dova::IpGenAddr) override { drop(); }
    std::function<void()> drop;
  };
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.2", eth0);
  start();
  auto const watcher = Vel::create<MachineLog>(nullptr);
  watcher->isNondestructingIs(true);
  watcher->notifierIs(machine);
  watcher->act = [&] { machine = nullptr; };
  pim->pimNeighborDel(addr("10.0.0.2"));
  EXPECT_FALSE(machine);
  EXPECT_EQ(sets("10.0.0.2"), "top");
  watcher->notifierIs(nullptr);

  neighbor("10.0.0.2", eth0);
  start();
  auto const follower = Vel::create<SetLog>();
  follower->drop = [&] { machine = nullptr; };
  follower->notifierIs(status);
  pim->pimNeighborDel(addr("10.0.0.2"));
  EXPECT_FALSE(machine);
  EXPECT_EQ(sets("10.0.0.2"), "op");
}

TEST_F(MessageMachineTest, LeavesTheSetsOfANeighborThatIsListedAgainWhileItsMachineIsRemoved) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.2", eth0);
  start();
  machine->hasNotificationActiveIs(false);  // so that it makes no machine meanwhile
  pim->pimNeighborDel(addr("10.0.0.2"));
  auto const watcher = Vel::create<MachineLog>(machine);
  watcher->act = [&] { neighbor("10.0.0.2", eth0); };
  machine->doMaybeDeleteNeighbor(addr("10.0.0.2"));
  EXPECT_FALSE(sm("10.0.0.2"));
  EXPECT_EQ(sets("10.0.0.2"), "top");
}

TEST_F(MessageMachineTest, AnnouncesNoDeletionOfANeighborThatReturnsWhileItIsSeenWhetherAnythingIsPending) {
  class SetLog final : public Packet::JoinPruneStatus::NotifieeConst {
   public:
    void onUpJoinPrune(Dova::IpGenAddr) override {
      if (act) std::exchange(act, nullptr)();
    }
    std::function<void()> act;
  };
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.2", eth0);
  start();
  periodicStatus()->upJoinPruneDel(addr("10.0.0.2"));  // it is made to see whether it is empty
  auto const follower = Vel::create<SetLog>();
  follower->act = [&] { neighbor("10.0.0.2", eth0); };
  follower->notifierIs(periodicStatus());
  log.clear();
  pim->pimNeighborDel(addr("10.0.0.2"));
  EXPECT_FALSE(follower->act);
  EXPECT_THAT(log.take(), Not(Contains(HasSubstr("deleting neighbor"))));
  EXPECT_TRUE(sm("10.0.0.2"));
}

TEST_F(MessageMachineTest, LeavesTheMachineThatReplacesANeighborsInTheLineOfItsDeletion) {
  neighbor("10.0.0.2", intf("eth0", "10.0.0.1/24"));
  start();
  inLine("deleting neighbor",
         [&] { machine->pimIntf(Dova::IntfId("eth0"))->createJoinPruneSm(addr("10.0.0.2")); });
  pim->pimNeighborDel(addr("10.0.0.2"));
  ASSERT_TRUE(sm("10.0.0.2"));
  EXPECT_FALSE(sm("10.0.0.2")->neighbor());
  EXPECT_EQ(sets("10.0.0.2"), "top");
}

TEST_F(MessageMachineTest, LeavesANeighborAloneThatIsTakenUpInTheLineInWhichAnInterfaceGivesUpItsAddress) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.9", eth0);
  start();
  auto const eth1 = Vel::create<Intf>(Dova::IntfId("eth1"));
  addressIs(eth1, "10.0.0.9/24");
  Vel::Ptr<JoinPruneNeighborSm> takenUp;
  inLine("Deleting existing SM for 10.0.0.9", [&] {
    addressIs(eth1, "10.1.0.1/24");
    pim->pimNeighborNotify(addr("10.0.0.9"));
    takenUp = sm("10.0.0.9");
  });
  pim->pimIntfIs(eth1);
  ASSERT_TRUE(takenUp);
  EXPECT_TRUE(sm("10.0.0.9") == takenUp);
  EXPECT_FALSE(takenUp->retired());
}

TEST_F(MessageMachineTest, KeepsTheMachineOfAnAddressThatChangesAgainInTheLineOfItsChange) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  start();
  for (char const* const part : {"Address changed", "Previous address", "Intf down"}) {
    SCOPED_TRACE(part);
    Vel::Ptr<JoinPruneNeighborSm> made;
    inLine(part, [&] {
      addressIs(eth0, "10.0.0.77/24");
      made = sm("10.0.0.77");
    });
    addressIs(eth0, "10.0.0.66/24");
    ASSERT_TRUE(made);
    EXPECT_TRUE(sm("10.0.0.77") == made);
    addressIs(eth0, "10.0.0.1/24");
  }
}

TEST_F(MessageMachineTest, MakesNothingForAnInterfaceWhoseReactorIsAZombie) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  start();
  auto const reactor = machine->pimIntf(Dova::IntfId("eth0"));
  machine->velDoZombieReactors(true);
  log.clear();
  reactor->handleNew();
  addressIs(eth0, "10.0.0.66/24");
  reactor->handleUsedAddress();
  reactor->createJoinPruneSm(addr("10.0.0.7"));
  EXPECT_THAT(log.take(), IsEmpty());
  EXPECT_EQ(machine->joinPruneNeighborSmCount(), 0u);
  EXPECT_EQ(sets("10.0.0.7"), "-");
  machine->velDoZombieReactors(false);
  reactor->notifierIs(nullptr);
  log.clear();
  reactor->handleNew();
  reactor->handleUsedAddress();
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(MessageMachineTest, IsTheStatussLatestUntilItEndsOrAnotherOneIsStarted) {
  start();
  auto const* const first = machine.get();
  EXPECT_EQ(EngineAccess<JoinPruneStatus>::machine(*status), first);
  auto kept = machine;
  start();
  auto const* const second = machine.get();
  EXPECT_EQ(EngineAccess<JoinPruneStatus>::machine(*status), second);
  kept = nullptr;
  EXPECT_EQ(EngineAccess<JoinPruneStatus>::machine(*status), second);
  machine = nullptr;
  EXPECT_EQ(EngineAccess<JoinPruneStatus>::machine(*status), nullptr);
}

TEST_F(MessageMachineTest, ThatIsDroppedByTheRpHashWritesNothingOfAnEntryWhoseRpIsRight) {
  auto const message = Vel::create<Packet::JoinPruneMessage>();
  message->joinPruneDataIs(Vel::create<Packet::JoinPruneData>(addr("10.0.0.1")));
  group(message->joinPruneData(), "239.1.1.1")->wcSourceDataIs(wildcard("10.5.0.1"));
  channel->joinPruneMessageIs(message);
  start();
  rpHash->hook = [&] {
    machine = nullptr;
    log.clear();
  };
  channel->countInc(1);
  EXPECT_FALSE(machine);
  EXPECT_EQ(text(rxJoin->upstreamNeighbor()), text(Dova::IpGenAddr()));
  EXPECT_EQ(rxJoin->rxCount(), 0u);
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(MessageMachineTest, ThatIsDroppedInTheLineOfAnEntryDoesNotCountIt) {
  auto const message = Vel::create<Packet::JoinPruneMessage>();
  message->joinPruneDataIs(Vel::create<Packet::JoinPruneData>(addr("10.0.0.1")));
  group(message->joinPruneData(), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  channel->joinPruneMessageIs(message);
  start();
  inLine("handleRxMessage(), Join", [&] { machine = nullptr; });
  channel->countInc(1);
  EXPECT_FALSE(machine);
  EXPECT_EQ(rxJoin->rxCount(), 0u);
  EXPECT_EQ(text(rxJoin->riKey()), "(10.9.0.1,239.1.1.1)");
}

TEST_F(MessageMachineTest, RemovesAtItsStartWhatIsLeftOfEachNeighborThatIsNotListed) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  Lines unlisted;
  for (int n = 2; n < 30; ++n) {
    std::string const address = "10.0.0." + std::to_string(n);
    periodicStatus()->upJoinPruneIs(addr(address));
    if (n % 2 == 0)
      neighbor(address, eth0);
    else
      unlisted.push_back(address);
  }
  start();
  for (auto const& address : unlisted) EXPECT_EQ(sets(address), "-") << address;
  EXPECT_EQ(machine->joinPruneNeighborSmCount(), 15u);
}

TEST_F(MessageMachineTest, LetsGoOfTheManagerAndTheWheelOnlyWhenItHasToldOfTheEndOfItsNeighbors) {
  neighbor("10.0.0.2", intf("eth0", "10.0.0.1/24"));
  start();
  auto const manages = machine->pimPamManager();
  auto const clock = machine->timerWheel();
  auto const watcher = Vel::create<MachineLog>(nullptr);
  watcher->isNondestructingIs(true);
  watcher->notifierIs(machine);
  machine->pimIntfDelAll();
  watcher->lines.clear();
  watcher->act = [&] {
    EXPECT_FALSE(manages->isZombie());
    EXPECT_FALSE(clock->isZombie());
  };
  machine = nullptr;
  EXPECT_THAT(watcher->lines, testing::ElementsAre("machine 10.0.0.2"));
  EXPECT_TRUE(manages->isZombie());
  EXPECT_TRUE(clock->isZombie());
}

}  // namespace
}  // namespace Routing::Pim
