// SPDX-License-Identifier: Apache-2.0
// What could not be followed while memory was short is followed afterwards, without a notification.
#include "pim/model/private/ModelAccess.h"
#include "tests/pim/joinprune/FailingHeap.h"
#include "tests/pim/joinprune/World.h"

namespace Routing::Pim {
namespace {

template <class Act>
void whateverHappens(Act const& act) {
  try {
    act();
  } catch (std::bad_alloc const&) {
  }
}

class AfterFamineTest : public testing::Test {
 protected:
  using Prepare = std::function<void(World&)>;

  /// Performs `act` in a fresh world with the n-th request failing, for each n up to the last, and then
  /// `judge`, which says whether the failure had the consequence that the test is about. How often it had.
  static U32 consequences(Prepare const& prepare, Prepare const& act,
                          std::function<bool(World&)> const& judge) {
    U32 found = 0;
    bool failed = true;
    for (std::size_t n = 1; failed && !HasFatalFailure(); ++n) {
      SCOPED_TRACE(n);
      World world;
      prepare(world);
      {
        FailingHeap::Failure const failure(n);
        whateverHappens([&] { act(world); });
        failed = failure.happened();
      }
      found += judge(world);
      world.manager->stop();
      world.machine = nullptr;
    }
    return found;
  }
  static void withNeighbor(World& w) {
    w.neighbor("10.0.0.2", w.intf("eth0", "10.0.0.1/24"));
    w.start();
  }
};

TEST_F(AfterFamineTest, TheMachineOfANeighborIsMadeWithoutAnotherNotificationAboutTheNeighbor) {
  U32 const found = consequences(
      withNeighbor,
      [](World& w) { w.pim->pimNeighborIs(addr("10.0.0.3"), w.pim->pimIntf(Dova::IntfId("eth0"))); },
      [](World& w) {
        if (!w.pim->pimNeighbor(addr("10.0.0.3")) || w.sm("10.0.0.3")) return false;
        w.runUntil(w.time + 0.2);
        EXPECT_TRUE(w.sm("10.0.0.3"));
        EXPECT_EQ(w.sets("10.0.0.3"), "top");
        EXPECT_EQ(w.wheel->armedCount(), 0u);
        return true;
      });
  EXPECT_GT(found, 3u);
}

TEST_F(AfterFamineTest, TheMachineIsMadeEarlierWhenAnotherNeighborIsHeardOf) {
  U32 const found = consequences(
      withNeighbor,
      [](World& w) { w.pim->pimNeighborIs(addr("10.0.0.3"), w.pim->pimIntf(Dova::IntfId("eth0"))); },
      [](World& w) {
        if (!w.pim->pimNeighbor(addr("10.0.0.3")) || w.sm("10.0.0.3")) return false;
        w.pim->pimNeighborNotify(addr("10.0.0.2"));
        EXPECT_TRUE(w.sm("10.0.0.3"));
        return true;
      });
  EXPECT_GT(found, 3u);
}

TEST_F(AfterFamineTest, TheMachineOfAnInterfaceIsMadeWithoutAnotherNotificationAboutTheInterface) {
  auto const eth1 = Vel::create<Intf>(Dova::IntfId("eth1"));
  eth1->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText("10.1.0.1/24"));
  U32 const found = consequences(
      withNeighbor, [&](World& w) { w.pim->pimIntfIs(eth1); },
      [](World& w) {
        if (!w.pim->pimIntf(Dova::IntfId("eth1")) || w.sm("10.1.0.1")) return false;
        w.runUntil(w.time + 0.2);
        EXPECT_TRUE(w.machine->pimIntf(Dova::IntfId("eth1")));
        EXPECT_TRUE(w.sm("10.1.0.1"));
        return true;
      });
  EXPECT_GT(found, 3u);
}

TEST_F(AfterFamineTest, TheMachineOfANewAddressIsMadeWithoutAnotherNotificationAboutTheAddress) {
  U32 const found = consequences(
      [](World& w) {
        withNeighbor(w);
        w.status->triggeredGroupIs(addr("10.0.0.9"));
      },
      [](World& w) {
        w.pim->pimIntf(Dova::IntfId("eth0"))
            ->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText("10.0.0.9/24"));
      },
      [](World& w) {
        bool const without = !w.sm("10.0.0.9");
        w.runUntil(w.time + 0.2);
        EXPECT_TRUE(w.sm("10.0.0.9"));
        EXPECT_EQ(w.sets("10.0.0.9"), "top");
        EXPECT_FALSE(w.sm("10.0.0.1"));
        return without;
      });
  EXPECT_GT(found, 3u);
}

TEST_F(AfterFamineTest, TheMachineIsMadeEarlierWhenAnInterfaceAnAddressOrAMessageIsHeardOf) {
  std::function<void(World&)> const hints[] = {
      [](World& w) { w.pim->pimIntfNotify(Dova::IntfId("eth0")); },
      [](World& w) { w.pim->pimIntf(Dova::IntfId("eth0"))->usedAddressWithMaskNotify(); },
      [](World& w) { w.channel->countInc(1); }};
  for (auto const& hint : hints) {
    U32 const found = consequences(
        withNeighbor,
        [](World& w) { w.pim->pimNeighborIs(addr("10.0.0.3"), w.pim->pimIntf(Dova::IntfId("eth0"))); },
        [&](World& w) {
          if (!w.pim->pimNeighbor(addr("10.0.0.3")) || w.sm("10.0.0.3")) return false;
          EXPECT_EQ(w.wheel->timeMin(), w.time + 0.1);
          hint(w);
          EXPECT_TRUE(w.sm("10.0.0.3"));
          // And that was all: what is removed by hand stays removed.
          w.machine->joinPruneNeighborSmDel(addr("10.0.0.3"));
          hint(w);
          EXPECT_FALSE(w.sm("10.0.0.3"));
          return true;
        });
    EXPECT_GT(found, 3u);
  }
}

TEST_F(AfterFamineTest, WhatIsOwedIsMadeBeforeWhatIsHeardOf) {
  class MachineLog final : public JoinPruneMessageSm::NotifieeConst {
   public:
    void onJoinPruneNeighborSm(Dova::IpGenAddr a) override { made.push_back(text(a)); }
    Lines made;
  };
  auto const message = Vel::create<Packet::JoinPruneMessage>();
  message->joinPruneDataIs(Vel::create<Packet::JoinPruneData>(addr("10.0.0.1")));
  group(message->joinPruneData(), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  std::function<void(World&)> const hints[] = {
      [](World& w) { w.neighbor("10.0.0.4", w.pim->pimIntf(Dova::IntfId("eth0"))); },
      [](World& w) {
        w.pim->pimIntf(Dova::IntfId("eth0"))
            ->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText("10.0.0.9/24"));
      },
      [&](World& w) {
        w.channel->joinPruneMessageIs(message);
        w.channel->countInc(1);
      }};
  for (auto const& hint : hints) {
    U32 const found = consequences(
        withNeighbor,
        [](World& w) { w.pim->pimNeighborIs(addr("10.0.0.3"), w.pim->pimIntf(Dova::IntfId("eth0"))); },
        [&](World& w) {
          if (!w.pim->pimNeighbor(addr("10.0.0.3")) || w.sm("10.0.0.3")) return false;
          auto const machines = Vel::create<MachineLog>();
          machines->notifierIs(w.machine);
          auto const joins = Vel::create<RecordLog>("join", machines->made);
          joins->notifierIs(w.rxJoin);
          hint(w);
          EXPECT_GT(machines->made.size(), 1u);
          EXPECT_EQ(machines->made.front(), "10.0.0.3");
          joins->notifierIs(nullptr);
          machines->notifierIs(nullptr);
          return true;
        });
    EXPECT_GT(found, 3u);
  }
}

TEST_F(AfterFamineTest, AMachineWhoseClockFailsWhileItCatchesUpIsCalledAgain) {
  U32 reading = 0, failing = 0;
  U32 const found = consequences(
      [&](World& w) {
        w.wheel = Vel::create<Zanth::TimerWheel>([&] {
          if (++reading == failing) throw std::runtime_error("no time");
          return w.time;
        });
        withNeighbor(w);
      },
      [](World& w) { w.pim->pimNeighborIs(addr("10.0.0.3"), w.pim->pimIntf(Dova::IntfId("eth0"))); },
      [&](World& w) {
        if (!w.pim->pimNeighbor(addr("10.0.0.3")) || w.sm("10.0.0.3")) return false;
        w.time = w.wheel->timeMin();
        reading = 0;
        failing = 2;  // the first is that of the wheel itself
        w.wheel->expire();
        failing = 0;
        EXPECT_FALSE(w.sm("10.0.0.3"));
        w.runUntil(w.time + 0.2);
        EXPECT_TRUE(w.sm("10.0.0.3"));
        return true;
      });
  EXPECT_GT(found, 3u);
}

TEST_F(AfterFamineTest, AMachineThatFallsBehindAgainCatchesUpAtTheTimeOfTheFirst) {
  auto const eth1 = Vel::create<Intf>(Dova::IntfId("eth1"));
  eth1->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText("10.1.0.1/24"));
  U32 const found = consequences(
      withNeighbor,
      [](World& w) { w.pim->pimNeighborIs(addr("10.0.0.3"), w.pim->pimIntf(Dova::IntfId("eth0"))); },
      [&](World& w) {
        if (!w.pim->pimNeighbor(addr("10.0.0.3")) || w.sm("10.0.0.3")) return false;
        Seconds const due = w.time + 0.1;
        w.time += 0.05;
        {
          FailingHeap::Failure const still(1, ~std::size_t{0} / 2);
          whateverHappens([&] { w.machine->handleNeighbor(addr("10.0.0.3")); });
        }
        EXPECT_EQ(w.wheel->timeMin(), due);
        w.time = due;
        {
          FailingHeap::Failure const still(1, ~std::size_t{0} / 2);
          w.wheel->expire();
        }
        EXPECT_FALSE(w.sm("10.0.0.3"));
        EXPECT_EQ(w.wheel->timeMin(), due + 0.1);  // it failed again
        w.runUntil(due + 0.1);
        EXPECT_TRUE(w.sm("10.0.0.3"));
        return true;
      });
  EXPECT_GT(found, 3u);
}

TEST_F(AfterFamineTest, AMachineWithoutAWheelCatchesUpWhenANeighborIsHeardOf) {
  U32 found = 0;
  bool failed = true;
  for (std::size_t n = 1; failed; ++n) {
    SCOPED_TRACE(n);
    World w;
    auto const eth0 = w.intf("eth0", "10.0.0.1/24");
    w.neighbor("10.0.0.2", eth0);
    w.wheel = nullptr;
    w.start();
    {
      FailingHeap::Failure const failure(n);
      whateverHappens([&] { w.pim->pimNeighborIs(addr("10.0.0.3"), eth0); });
      failed = failure.happened();
    }
    if (w.pim->pimNeighbor(addr("10.0.0.3")) && !w.sm("10.0.0.3")) {
      ++found;
      w.pim->pimNeighborNotify(addr("10.0.0.2"));
      EXPECT_TRUE(w.sm("10.0.0.3"));
    }
    w.manager->stop();
  }
  EXPECT_GT(found, 3u);
}

TEST_F(AfterFamineTest, WhatIsLeftOfANeighborThatWentIsRemovedAndTheOthersAreLeftAlone) {
  TraceLog log;
  log.levels({});
  U32 const found = consequences(
      [](World& w) {
        withNeighbor(w);
        w.neighbor("10.0.0.3", w.pim->pimIntf(Dova::IntfId("eth0")));
        w.periodicStatus()->upJoinPruneDel(addr("10.0.0.2"));  // it is made to see whether it is empty
      },
      [](World& w) { w.pim->pimNeighborDel(addr("10.0.0.2")); },
      [&](World& w) {
        if (w.pim->pimNeighbor(addr("10.0.0.2")) || !w.sm("10.0.0.2")) return false;
        log.levels({8});
        log.clear();
        w.runUntil(w.time + 0.15);
        EXPECT_FALSE(w.sm("10.0.0.2"));
        EXPECT_EQ(w.sets("10.0.0.2"), "-");
        EXPECT_TRUE(w.sm("10.0.0.3"));
        EXPECT_THAT(log.takeWith("doMaybeDeleteNeighbor(10.0.0.3)"), testing::IsEmpty());
        log.levels({});
        return true;
      });
  EXPECT_GT(found, 0u);
}

TEST_F(AfterFamineTest, AMachineThatIsDroppedWhileItIsBehindLeavesNoTimer) {
  U32 const found = consequences(
      withNeighbor,
      [](World& w) { w.pim->pimNeighborIs(addr("10.0.0.3"), w.pim->pimIntf(Dova::IntfId("eth0"))); },
      [](World& w) {
        if (!w.pim->pimNeighbor(addr("10.0.0.3")) || w.sm("10.0.0.3")) return false;
        EXPECT_EQ(w.wheel->armedCount(), 1u);
        TraceLog log;
        log.hook = [&](Vel::TraceLine const& line) {
          if (line.text.find("handleRxMessage()") == line.text.npos) return;
          w.machine = nullptr;
          EXPECT_EQ(w.wheel->armedCount(), 0u);
        };
        w.machine->handleRxMessage();
        EXPECT_FALSE(w.machine);
        return true;
      });
  EXPECT_GT(found, 3u);
}

// Another address than the interface's own is asked for by hand, and who asks is told of the failure.
TEST_F(AfterFamineTest, TheMachineOfAnInterfaceStaysIfOneForAnotherAddressCouldNotBeMade) {
  auto const reactor = [](World& w) { return w.machine->pimIntf(Dova::IntfId("eth0")); };
  Vel::Ptr<JoinPruneNeighborSm> own;
  U32 const found = consequences(
      [&](World& w) {
        withNeighbor(w);
        own = w.sm("10.0.0.1");
      },
      [&](World& w) { reactor(w)->createJoinPruneSm(addr("10.0.0.9")); },
      [&](World& w) {
        bool const without = !w.sm("10.0.0.9");
        w.runUntil(w.time + 0.2);
        EXPECT_TRUE(w.sm("10.0.0.1") == own);
        EXPECT_TRUE(own->triggeredGroup()->notifier() == w.triggered("10.0.0.1"));
        EXPECT_EQ(w.sm("10.0.0.9") == nullptr, without);
        own = nullptr;
        return without;
      });
  EXPECT_GT(found, 3u);
}

TEST_F(AfterFamineTest, TheMachineOfANewAddressIsOwedAlsoIfOneForAnotherAddressIsMadeMeanwhile) {
  U32 const found = consequences(
      withNeighbor,
      [](World& w) {
        w.pim->pimIntf(Dova::IntfId("eth0"))
            ->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText("10.0.0.9/24"));
      },
      [](World& w) {
        if (w.sm("10.0.0.9")) return false;
        w.machine->pimIntf(Dova::IntfId("eth0"))->createJoinPruneSm(addr("10.0.0.8"));
        w.runUntil(w.time + 0.2);
        EXPECT_TRUE(w.sm("10.0.0.8"));
        EXPECT_TRUE(w.sm("10.0.0.9"));
        return true;
      });
  EXPECT_GT(found, 3u);
}

Vel::Ptr<Packet::JoinPruneData> dataOf(World& w, int channel) {
  return channel == 0   ? w.triggered("10.0.0.2")
         : channel == 1 ? w.override_("10.0.0.2")
                        : w.periodic("10.0.0.2");
}
U32 groupsOf(World& w, int channel) {
  auto const sm = w.sm("10.0.0.2");
  return channel == 0   ? sm->triggeredGroupDataCount()
         : channel == 1 ? sm->overrideGroupDataCount()
                        : sm->periodicGroupDataCount();
}

// Watches each group that is added, before the machine takes notice of it.
class GroupWatcher final : public Packet::JoinPruneData::Notifiee {
 public:
  void onJoinPruneGroupData(Dova::IpGenAddr g) override {
    if (!reactor || !notifier()->joinPruneGroupData(g)) return;
    std::exchange(reactor, nullptr)->notifierIs(notifier()->joinPruneGroupData(g));
  }
  Vel::Ptr<Packet::JoinPruneGroupData::Notifiee> reactor;
};

TEST_F(AfterFamineTest, AGroupThatWasAddedIsFollowedAlsoIfOthersWatchIt) {
  auto const added = addr("239.9.9.9");
  for (int const channel : {0, 1, 2})
    for (bool const watched : {false, true}) {
      SCOPED_TRACE(text(channel) + text(watched));
      auto const reactor = Vel::create<Packet::JoinPruneGroupData::Notifiee>();
      auto const watcher = Vel::create<GroupWatcher>();
      consequences(
          [&](World& w) {
            w.status->triggeredGroupIs(addr("10.0.0.2"));
            w.status->overrideGroupIs(addr("10.0.0.2"));
            w.status->periodicGroupStatus()->upJoinPruneIs(addr("10.0.0.2"));
            if (watched) watcher->reactor = reactor;
            watcher->notifierIs(dataOf(w, channel));
            withNeighbor(w);
          },
          [&](World& w) { dataOf(w, channel)->joinPruneGroupDataIs(added); },
          [&](World& w) {
            auto const data = dataOf(w, channel);
            if (auto const g = data->joinPruneGroupData(added)) {
              EXPECT_EQ(groupsOf(w, channel), 1u);
              U32 const sent = w.manager->messages;
              g->prunedSourceIs(addr("10.9.0.1"));
              EXPECT_EQ(w.sm("10.0.0.2")->numPeriodicRoutes(), channel == 2);
              if (channel != 2) {
                w.runUntil(w.time + 10);
                EXPECT_GT(w.manager->messages, sent);
                EXPECT_EQ(w.wheel->armedCount(), 0u);
              }
              g->prunedSourceDel(addr("10.9.0.1"));
              EXPECT_EQ(data->joinPruneGroupDataCount(), 0u);
              EXPECT_EQ(w.sm("10.0.0.2")->numPeriodicRoutes(), 0u);
            }
            watcher->notifierIs(nullptr);
            reactor->notifierIs(nullptr);
            return false;
          });
    }
}

TEST_F(AfterFamineTest, AReactorOfAGroupThatCouldNotBeMadeIsMadeWhenItIsAskedForAgain) {
  auto const g = addr("239.9.9.9");
  U32 const found = consequences(
      [&](World& w) {
        withNeighbor(w);
        group(w.periodic("10.0.0.2"), "239.9.9.9")->wcSourceDataIs(wildcard("10.5.5.5"));
      },
      [&](World& w) { EXPECT_TRUE(w.sm("10.0.0.2")->periodicGroupData(g)); },
      [&](World& w) {
        auto const sm = w.sm("10.0.0.2");
        // The data set's and this one; a reactor has another.
        bool const missing = w.periodic("10.0.0.2")->joinPruneGroupData(g)->references() == 2;
        EXPECT_EQ(sm->periodicGroupDataCount(), 1u);
        EXPECT_TRUE(sm->periodicGroupData(g)->wcSourceSet());
        EXPECT_EQ(sm->periodicGroupDataCount(), 1u);
        EXPECT_EQ(sm->numPeriodicRoutes(), 1u);
        return missing;
      });
  EXPECT_GT(found, 0u);
}

TEST_F(AfterFamineTest, AChangeOfAGroupIsCountedOnceAndFirstWhereManyReactorsCannotBeListed) {
  class Counter final : public Packet::JoinPruneGroupData::Notifiee {
   public:
    explicit Counter(std::function<void()> const& act) : act_(act) {}
    void onJoinedSource(Dova::IpGenAddr) override { act_(); }

   private:
    std::function<void()> const& act_;
  };
  for (U32 const count : {1u, 17u, 63u, 64u, 200u}) {
    SCOPED_TRACE(count);
    World w;
    withNeighbor(w);
    auto const g = group(w.periodic("10.0.0.2"), "239.9.9.9");
    U32 calls = 0;
    std::function<void()> const act = [&] {
      ++calls;
      EXPECT_EQ(w.sm("10.0.0.2")->numPeriodicRoutes(), 1u);
    };
    std::vector<Vel::Ptr<Counter>> counters;
    for (U32 i = 0; i < count; ++i) {
      counters.push_back(Vel::create<Counter>(act));
      counters.back()->notifierIs(g);
    }
    {
      FailingHeap::Failure const failure(1, ~std::size_t{0} / 2);
      g->joinedSourceIs(addr("10.9.0.1"));
      EXPECT_EQ(failure.happened(), count > 16);
    }
    EXPECT_EQ(calls, count);
    for (auto const& counter : counters) counter->notifierIs(nullptr);
    w.manager->stop();
    w.machine = nullptr;
  }
}

TEST_F(AfterFamineTest, AReactorThatIsMadeAfterTheEndOfItsMachineBelongsToNoMachine) {
  Vel::Ptr<JoinPruneNeighborSm> held;
  consequences(
      [&](World& w) {
        withNeighbor(w);
        group(w.periodic("10.0.0.2"), "239.9.9.9");
        held = w.sm("10.0.0.2");
      },
      [&](World& w) { w.machine->joinPruneNeighborSmDel(addr("10.0.0.2")); },
      [&](World& w) {
        w.machine->joinPruneNeighborSmDel(addr("10.0.0.2"));
        EXPECT_TRUE(held->retired());
        auto const reactor = held->periodicGroupData(addr("239.9.9.9"));
        EXPECT_TRUE(reactor && reactor->isZombie());
        EXPECT_FALSE(reactor && reactor->joinPruneNeighborSm());
        held = nullptr;
        return false;
      });
}

TEST_F(AfterFamineTest, TheMachineOfAnAddressThatChangesWhileTheMachineOfTheOneBeforeIsMadeIsMade) {
  class Mover final : public JoinPruneStatus::NotifieeConst {
   public:
    void onTriggeredGroup(Dova::IpGenAddr address) override {
      if (address != addr("10.0.0.9")) return;
      if (auto const once = std::exchange(act, nullptr)) once();
    }
    std::function<void()> act;
  };
  U32 found = 0;
  bool failed = true;
  for (std::size_t n = 1; failed; ++n) {
    SCOPED_TRACE(n);
    World w;
    withNeighbor(w);
    w.status->triggeredGroupIs(addr("10.0.0.8"));
    auto const eth0 = w.pim->pimIntf(Dova::IntfId("eth0"));
    auto const move = [&](char const* to) { eth0->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText(to)); };
    auto const mover = Vel::create<Mover>();
    mover->act = [&] {
      FailingHeap::Failure const failure(n);
      whateverHappens([&] { move("10.0.0.8/24"); });
      failed = failure.happened();
    };
    mover->notifierIs(w.status);
    move("10.0.0.9/24");
    EXPECT_FALSE(mover->act);
    found += !w.sm("10.0.0.8");
    w.runUntil(w.time + 0.2);
    EXPECT_TRUE(w.sm("10.0.0.8"));
    EXPECT_FALSE(w.sm("10.0.0.9"));
    mover->notifierIs(nullptr);
    w.manager->stop();
    w.machine = nullptr;
  }
  EXPECT_GT(found, 3u);
}

TEST_F(AfterFamineTest, AMachineThatIsDroppedByTheClockWhileItFallsBehindArmsNothing) {
  {
    bool failed = true;
    U32 asked = 0;
    for (std::size_t n = 1; failed; ++n) {
      SCOPED_TRACE(n);
      World w;
      std::function<void()> onClock;
      w.wheel = Vel::create<Zanth::TimerWheel>([&] {
        if (auto const drop = onClock) drop();
        return w.time;
      });
      withNeighbor(w);
      // So that the timers outlive the drop: an iterator holds its entity's memory.
      auto const timer = w.sm("10.0.0.2")->triggeredTimer();
      auto const walk = w.machine->pimIntfIterator();
      onClock = [&] {
        ++asked;
        w.machine = nullptr;
      };
      {
        FailingHeap::Failure const failure(n);
        whateverHappens(
            [&] { w.pim->pimNeighborIs(addr("10.0.0.3"), w.pim->pimIntf(Dova::IntfId("eth0"))); });
        failed = failure.happened();
      }
      onClock = nullptr;
      if (!w.machine) {
        EXPECT_EQ(w.wheel->armedCount(), 0u);
      }
      w.manager->stop();
      w.machine = nullptr;
    }
    EXPECT_GT(asked, 0u);
  }
}

TEST_F(AfterFamineTest, AMachineThatWasKeptForAPeriodicGroupIsRemovedWithTheLastOneWhateverFailed) {
  for (std::size_t const length : {std::size_t{1}, ~std::size_t{0} / 2}) {
    SCOPED_TRACE(length);
    bool failed = true;
    for (std::size_t n = 1; failed; ++n) {
      SCOPED_TRACE(n);
      World w;
      withNeighbor(w);
      auto const data = w.periodic("10.0.0.2");
      auto const followed = group(data, "239.1.1.1");
      followed->joinedSourceIs(addr("10.9.0.1"));
      w.pim->pimNeighborDel(addr("10.0.0.2"));
      ASSERT_TRUE(w.sm("10.0.0.2"));
      {
        FailingHeap::Failure const failure(n, length);
        whateverHappens([&] { group(data, "239.1.1.2")->joinedSourceIs(addr("10.9.0.2")); });
        whateverHappens([&] {
          if (auto const other = data->joinPruneGroupData(addr("239.1.1.2")))
            other->joinedSourceDel(addr("10.9.0.2"));
        });
        whateverHappens([&] { followed->joinedSourceDel(addr("10.9.0.1")); });
        failed = failure.happened();
      }
      if (auto const other = data->joinPruneGroupData(addr("239.1.1.2"))) {
        EXPECT_TRUE(other->empty());  // never filled, so that it is the agent's to remove
        data->joinPruneGroupDataDel(addr("239.1.1.2"));
      }
      w.runUntil(w.time + 10);
      EXPECT_FALSE(w.sm("10.0.0.2"));
      EXPECT_EQ(w.sets("10.0.0.2"), "-");
      w.manager->stop();
    }
  }
}

}  // namespace
}  // namespace Routing::Pim
