// SPDX-License-Identifier: Apache-2.0
// In which order a neighbor machine starts and tells of what it does: its trace lines, its data
// sets and its attributes, in one record.
#include <regex>
#include <tuple>

#include "tests/pim/joinprune/FailingHeap.h"
#include "tests/pim/joinprune/World.h"

namespace Routing::Pim {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char const* H = "239.1.1.2";

class NeighborOrderTest : public testing::Test, protected World {
 protected:
  class MachineLog final : public JoinPruneNeighborSm::NotifieeConst {
   public:
    explicit MachineLog(Lines& story) : story_(story) {}
    void onTriggeredTimer() override { tell("triggered timer"); }
    void onOverrideTimer() override { tell("override timer"); }
    void onJoinPrunePeriodicTimerSm() override { tell("periodic machine"); }
    void onTriggeredGroupData(Dova::IpGenAddr g) override {
      tell("triggered reactor of " + text(g) + (notifier()->triggeredGroupData(g) ? "" : " removed"));
    }
    void onOverrideGroupData(Dova::IpGenAddr g) override {
      tell("override reactor of " + text(g) + (notifier()->overrideGroupData(g) ? "" : " removed"));
    }
    void onPeriodicGroupData(Dova::IpGenAddr g) override {
      tell("periodic reactor of " + text(g) + (notifier()->periodicGroupData(g) ? "" : " removed"));
    }
    void onNumPeriodicRoutes() override { tell("routes " + text(notifier()->numPeriodicRoutes())); }
    void onInitialized() override { tell("initialized"); }
    std::function<void(std::string const&)> act;

   private:
    void tell(std::string const& line) {
      story_.push_back(line);
      if (act) act(line);
    }
    Lines& story_;
  };
  class DataLog final : public Packet::JoinPruneData::NotifieeConst {
   public:
    DataLog(std::string name, Lines& story) : name_(std::move(name)), story_(story) {}
    void onPeriodic() override {
      if (act) act();
    }
    void onJoinPruneGroupData(Dova::IpGenAddr g) override {
      story_.push_back(name_ + " group " + text(g) + (notifier()->joinPruneGroupData(g) ? "" : " removed"));
    }
    std::function<void()> act;

   private:
    std::string const name_;
    Lines& story_;
  };

  ~NeighborOrderTest() override { trace.hook = {}; }

  /// With one neighbor. Nothing is traced.
  void startWithNeighbor() {
    trace.levels({});
    neighbor(N, eth0);
    start();
    own = sm(N);
  }
  void record() {
    trace.levels({1, 2, 7});
    trace.hook = [this](Vel::TraceLine const& line) {
      story.push_back(std::regex_replace(
          line.text, std::regex("(JoinPruneNeighborSm\\(eth0::10.0.0.2\\)::)?@0x[0-9a-f]+:*"), ""));
    };
  }
  void watch() {
    watcher->isNondestructingIs(true);
    watcher->notifierIs(own);
  }
  Vel::Ptr<Packet::JoinPruneData> dataOf(int way) {
    return way == 0 ? triggered(N) : way == 1 ? override_(N) : periodic(N);
  }
  TraceLog trace;
  Lines story;
  Vel::Ptr<Intf> eth0 = intf("eth0", "10.0.0.1/24");
  Vel::Ptr<JoinPruneNeighborSm> own;
  Vel::Ptr<MachineLog> watcher = Vel::create<MachineLog>(story);
};

TEST_F(NeighborOrderTest, AMachineStartsWithItsTimersInTheOrderOfTheChannelsAndCountsThen) {
  trace.levels({});
  start();
  auto const add = [](Vel::Ptr<Packet::JoinPruneData> const& data) {
    group(data, G)->joinedSourceIs(addr(S));
  };
  add(status->triggeredGroupIs(addr(N)));
  add(status->overrideGroupIs(addr(N)));
  add(periodicStatus()->upJoinPruneIs(addr(N)));
  auto const refresh = Vel::create<DataLog>("periodic", story);
  refresh->act = [&] {
    own = sm(N);
    watch();
  };
  refresh->notifierIs(periodic(N));
  record();
  neighbor(N, eth0);
  EXPECT_THAT(
      story, ElementsAre("JoinPruneMessageSm::handleNeighbor(10.0.0.2), Neighbor up", "triggered timer",
                         "override timer", "doUpdateTriggeredTimer(): Arming timer, setting holdtime to 210",
                         "doUpdateOverrideTimer(): Arming timer, setting holdtime to 210", "periodic machine",
                         "routes 1", "handleInitialized(), total number of periodic joins and prunes is 1",
                         "initialized"));
}

TEST_F(NeighborOrderTest, AMachineThatIsRetiredWhenItIsToldOfItsLastGroupIsNotAskedAboutAnyMore) {
  startWithNeighbor();
  group(periodic(N), G);
  watch();
  watcher->act = [&](std::string const&) { machine->joinPruneNeighborSmDel(addr(N)); };
  record();
  trace.levels({1, 2, 7, 8});
  periodic(N)->joinPruneGroupDataDel(addr(G));
  EXPECT_TRUE(own->retired());
  EXPECT_THAT(story, Not(Contains(HasSubstr("doMaybeDeleteNeighbor"))));
}

TEST_F(NeighborOrderTest, AMachineWhoseDataRunsEmptyWhileThereIsNoMemoryIsRemovedAllTheSame) {
  startWithNeighbor();
  auto const last = group(periodic(N), G);
  last->joinedSourceIs(addr(S));
  pim->pimNeighborDel(addr(N));
  {
    FailingHeap::Failure const failure(1, ~std::size_t{0} / 2);
    last->joinedSourceDel(addr(S));
  }
  runUntil(time + 1);
  EXPECT_FALSE(sm(N));
  EXPECT_EQ(sets(N), "-");
}

TEST_F(NeighborOrderTest, OfTwoTimersOnlyTheOneThatMissedItsTimeIsDueAtOnce) {
  startWithNeighbor();
  for (bool const reviving : {false, true})
    for (int const way : {0, 1}) {
      SCOPED_TRACE(way);
      group(dataOf(way), G)->joinedSourceIs(addr(S));
      auto const off = [&](bool value) {
        reviving ? own->velDoZombieReactors(value) : own->hasNotificationActiveIs(!value);
      };
      off(true);
      runUntil(time + 10);
      off(false);
      EXPECT_EQ(own->triggeredTimer()->timeMin(), way == 0 ? time : Vel::never);
      EXPECT_EQ(own->overrideTimer()->timeMin(), way == 1 ? time : Vel::never);
      runUntil(time + 10);
      EXPECT_EQ(wheel->armedCount(), 0u);
    }
}

TEST_F(NeighborOrderTest, AWildcardThatComesAndLeavesIsToldOfAndItsGroupIsRemoved) {
  startWithNeighbor();
  watch();
  record();
  auto const g = group(periodic(N), G);
  story.clear();
  g->wcSourceDataIs(wildcard("10.5.0.1"));
  EXPECT_THAT(story,
              ElementsAre("routes 1", "Periodic(239.1.1.1)::handleWcSource(10.5.0.1), added, sources: 1"));
  story.clear();
  g->wcSourceDataDel();
  EXPECT_THAT(story, ElementsAre("Periodic(239.1.1.1)::handleWcSource(*,G), Deleted", "routes 0",
                                 "Periodic(239.1.1.1)::handleWcSource(): Deleted group 239.1.1.1",
                                 "periodic reactor of 239.1.1.1 removed", "handlePeriodicGroup(10.0.0.2)",
                                 "handlePeriodicGroup(10.0.0.2): Deleted"));
}

TEST_F(NeighborOrderTest, ATimerThatItsMachineHasLetGoDoesNothing) {
  startWithNeighbor();
  for (int const way : {0, 1}) group(dataOf(way), G)->joinedSourceIs(addr(S));
  auto const one = own->triggeredTimer();
  auto const other = own->overrideTimer();
  machine->joinPruneNeighborSmDel(addr(N));
  record();
  one->onTime();
  other->onTime();
  EXPECT_THAT(story, IsEmpty());
  EXPECT_EQ(manager->messages, 0u);
}

TEST_F(NeighborOrderTest, NoReactorIsMadeOfNoGroup) {
  startWithNeighbor();
  auto const said = [](auto const& make) -> std::string {
    try {
      make();
    } catch (Vel::InvalidArgumentException const& error) {
      return error.what();
    }
    return "made";
  };
  std::string const before = "null _",
                    between = " parameter to mutator for Routing::Pim::JoinPruneNeighborSm::";
  EXPECT_EQ(said([&] { own->newTriggeredGroupData(nullptr); }),
            before + "triggeredGroupData" + between + "triggeredGroupData not allowed\"");
  EXPECT_EQ(said([&] { own->newOverrideGroupData(nullptr); }),
            before + "overrideGroupData" + between + "overrideGroupData not allowed\"");
  EXPECT_EQ(said([&] { own->newPeriodicGroupData(nullptr); }),
            before + "periodicGroupData" + between + "periodicGroupData not allowed\"");
}

TEST_F(NeighborOrderTest, AMachineThatIsRemovedLetsGoOfEachReactorThatSomebodyHolds) {
  startWithNeighbor();
  for (int const way : {0, 1, 2}) group(dataOf(way), G);
  auto const held = std::tuple(own->triggeredGroup(), own->overrideGroup(), own->periodicGroup(),
                               own->timerWheel(), own->pimPamManager(), own->triggeredTimer(),
                               own->overrideTimer(), own->triggeredGroupData(addr(G)),
                               own->overrideGroupData(addr(G)), own->periodicGroupData(addr(G)));
  machine->joinPruneNeighborSmDel(addr(N));
  std::apply(
      [](auto const&... reactors) {
        auto const isLetGo = [](auto const& reactor) {
          EXPECT_TRUE(reactor->isZombie()) << reactor->name();
          EXPECT_FALSE(reactor->joinPruneNeighborSm()) << reactor->name();
        };
        (isLetGo(reactors), ...);
      },
      held);
}

TEST_F(NeighborOrderTest, ATimerThatMissedItsTimeAndIsRemovedIsNotDueAnyMore) {
  startWithNeighbor();
  for (int const way : {0, 1}) {
    SCOPED_TRACE(way);
    for (int const c : {0, 1}) group(dataOf(c), G)->joinedSourceIs(addr(S));
    own->hasNotificationActiveIs(false);
    runUntil(time + 10);
    auto const is = [&](Vel::Ptr<Zanth::TimerWheel> const& w) {
      way == 0 ? own->triggeredTimerIs(w) : own->overrideTimerIs(w);
    };
    EXPECT_NO_THROW(is(nullptr));
    EXPECT_NO_THROW(own->hasNotificationActiveIs(true));
    EXPECT_EQ(wheel->armedCount(), 1u);  // the other one
    runUntil(time + 10);
    EXPECT_EQ(dataOf(way)->joinPruneGroupDataCount(), 1u);
    dataOf(way)->joinPruneGroupDataDel(addr(G));
    is(wheel);
  }
}

TEST_F(NeighborOrderTest, AMachineThatHasOnlyPartOfItsDataHandlesAnyGroupByHandWithoutTraces) {
  trace.levels({});
  for (int const missing : {0, 1, 2}) {
    SCOPED_TRACE(missing);
    Vel::Ptr<Packet::JoinPruneData> sets[3];
    for (int const way : {0, 1, 2})
      if (way != missing) {
        sets[way] = Vel::create<Packet::JoinPruneData>(addr(N));
        group(sets[way], H);
      }
    auto const made = joinPruneNeighborSmFactory(nullptr, addr(N), nullptr, eth0, sets[0], sets[1], sets[2],
                                                 wheel, 2.5, nullptr, nullptr);
    for (char const* const g : {G, H}) {
      EXPECT_NO_THROW(made->handleTriggeredGroup(addr(g)));
      EXPECT_NO_THROW(made->handleOverrideGroup(addr(g)));
      EXPECT_NO_THROW(made->handlePeriodicGroup(addr(g)));
    }
  }
}

TEST_F(NeighborOrderTest, AMachineThatIsRetiredWhileItCountsAtItsStartSaysNothingMore) {
  trace.levels({});
  start();
  group(periodicStatus()->upJoinPruneIs(addr(N)), G)->joinedSourceIs(addr(S));
  auto const refresh = Vel::create<DataLog>("periodic", story);
  refresh->act = [&] {
    own = sm(N);
    watch();
  };
  refresh->notifierIs(periodic(N));
  watcher->act = [&](std::string const& line) {
    if (line == "routes 1") machine->joinPruneNeighborSmDel(addr(N));
  };
  record();
  neighbor(N, eth0);
  ASSERT_TRUE(own);
  EXPECT_TRUE(own->retired());
  EXPECT_FALSE(own->initialized());
  EXPECT_EQ(story.back(), "routes 1");
}

TEST_F(NeighborOrderTest, AMachineThatIsRetiredInTheLineOfAGroupSaysNothingMoreOfIt) {
  for (int const way : {0, 1, 2})
    for (bool const filled : {false, true}) {
      SCOPED_TRACE(way);
      machine = nullptr;
      startWithNeighbor();
      record();
      auto const note = trace.hook;
      trace.hook = [&](Vel::TraceLine const& line) {
        note(line);
        if (line.text.find("Group(") != line.text.npos) machine->joinPruneNeighborSmDel(addr(N));
      };
      auto const data = dataOf(way);
      story.clear();
      if (filled) data->newJoinPruneGroupData(addr(N))->joinedSourceIs(addr(S));
      way == 0   ? own->handleTriggeredGroup(addr(N))
      : way == 1 ? own->handleOverrideGroup(addr(N))
                 : own->handlePeriodicGroup(addr(N));
      trace.hook = {};
      EXPECT_TRUE(own->retired());
      EXPECT_EQ(story.size(), 1u);
      EXPECT_EQ(own->numPeriodicRoutes(), 0u);
      data->joinPruneGroupDataDelAll();
    }
}

/// Acts when a wheel loses its last reference.
class WheelEnd final : public Zanth::TimerWheel::NotifieeConst {
 public:
  WheelEnd(Vel::Ptr<Zanth::TimerWheel> const& wheel, std::function<void()> act) : act_(std::move(act)) {
    isNondestructingIs(true);
    notifierIs(Vel::Ptr<Zanth::TimerWheel const>(wheel));
  }
  void onZeroReferences() override { act_(); }

 private:
  std::function<void()> const act_;
};

// The wheel ends with the periodic timer, which alone holds it.
TEST_F(NeighborOrderTest, AMachineThatIsRemovedHasStoppedItsTimersBeforeAWheelEndsWithIt) {
  startWithNeighbor();
  for (int const way : {0, 1}) group(dataOf(way), G)->joinedSourceIs(addr(S));
  auto other = Vel::create<Zanth::TimerWheel>([this] { return time; });
  own->joinPrunePeriodicTimerSm()->periodicTimerIs(other);
  U32 ends = 0;
  auto const end = Vel::create<WheelEnd>(other, [&] {
    ++ends;
    EXPECT_EQ(wheel->armedCount(), 0u);
    EXPECT_TRUE(own->retired());
  });
  other = nullptr;
  EXPECT_EQ(wheel->armedCount(), 2u);
  machine->joinPruneNeighborSmDel(addr(N));
  EXPECT_EQ(ends, 1u);
}

TEST_F(NeighborOrderTest, AMachineThatIsReplacedIsInItsPlaceNoMoreWhenAWheelEndsWithIt) {
  startWithNeighbor();
  auto other = Vel::create<Zanth::TimerWheel>([this] { return time; });
  own->joinPrunePeriodicTimerSm()->periodicTimerIs(other);
  U32 ends = 0;
  auto const end = Vel::create<WheelEnd>(other, [&] {
    ++ends;
    EXPECT_FALSE(sm(N) == own);
    EXPECT_TRUE(sm(N));
  });
  other = nullptr;
  machine->pimIntf(Dova::IntfId("eth0"))->createJoinPruneSm(addr(N));
  EXPECT_EQ(ends, 1u);
}

TEST_F(NeighborOrderTest, TheClockIsNotReadForEachGroupThatAMachineCountsAtItsStart) {
  trace.levels({});
  U32 readings = 0;
  wheel = Vel::create<Zanth::TimerWheel>([&] {
    ++readings;
    return time;
  });
  start();
  auto const data = periodicStatus()->upJoinPruneIs(addr(N));
  for (int g = 1; g <= 200; ++g) group(data, "239.1.2." + std::to_string(g))->joinedSourceIs(addr(S));
  readings = 0;
  neighbor(N, eth0);
  EXPECT_EQ(sm(N)->numPeriodicRoutes(), 200u);
  EXPECT_LT(readings, 10u);
}

TEST_F(NeighborOrderTest, AGroupThatIsEmptiedWhileItsTimerIsArmedIsRemovedAlsoWithoutTraces) {
  startWithNeighbor();
  for (int const way : {0, 1}) {
    auto const g = group(dataOf(way), G);
    g->joinedSourceIs(addr(S));
    g->joinedSourceIs(addr("10.9.0.2"));
    g->joinedSourceDel(addr(S));
    EXPECT_TRUE(dataOf(way)->joinPruneGroupData(addr(G)));
    g->joinedSourceDel(addr("10.9.0.2"));
    EXPECT_FALSE(dataOf(way)->joinPruneGroupData(addr(G)));
  }
}

TEST_F(NeighborOrderTest, AMachineThatIsRetiredInTheLineOfItsLastSourceSaysNothingOfTheGroup) {
  for (int const way : {0, 1, 2}) {
    SCOPED_TRACE(way);
    machine = nullptr;
    startWithNeighbor();
    auto const g = group(dataOf(way), G);
    g->prunedSourceIs(addr(S));
    record();
    auto const note = trace.hook;
    trace.hook = [&](Vel::TraceLine const& line) {
      note(line);
      if (line.text.find(way == 2 ? ", Deleted" : ", Sent") != line.text.npos)
        machine->joinPruneNeighborSmDel(addr(N));
    };
    story.clear();
    g->prunedSourceDel(addr(S));
    trace.hook = {};
    EXPECT_TRUE(own->retired());
    EXPECT_THAT(story, Not(Contains(HasSubstr("group"))));
    EXPECT_TRUE(dataOf(way)->joinPruneGroupData(addr(G)));  // left to the next machine
    dataOf(way)->joinPruneGroupDataDelAll();
  }
}

TEST_F(NeighborOrderTest, AMachineWithoutDataSendsNothingWhenItsHandlersAreCalled) {
  trace.levels({});
  manager->start();
  auto const bare = joinPruneNeighborSmFactory(nullptr, addr(N), nullptr, eth0, nullptr, nullptr, nullptr,
                                               wheel, 2.5, manager, Vel::create<Packet::JoinPruneMessage>());
  bare->handleTriggeredTimerExpiry();
  bare->handleOverrideTimerExpiry();
  EXPECT_EQ(manager->messages, 0u);
  EXPECT_EQ(wheel->armedCount(), 0u);
}

TEST_F(NeighborOrderTest, AMachineThatIsSwitchedOnOrRevivedIsSoAsAWholeBeforeItReadsAClock) {
  trace.levels({});
  std::function<void()> onClock;
  wheel = Vel::create<Zanth::TimerWheel>([&] {
    if (onClock) onClock();
    return time;
  });
  startWithNeighbor();
  U32 readings = 0;
  auto const refresh = own->joinPrunePeriodicTimerSm();
  auto const check = [&] {
    ++readings;
    EXPECT_TRUE(own->triggeredTimer()->hasNotificationActive());
    EXPECT_TRUE(refresh->periodicTimer()->hasNotificationActive());
    EXPECT_FALSE(own->triggeredTimer()->isZombie());
    EXPECT_FALSE(refresh->periodicTimer()->isZombie());
  };
  for (bool const reviving : {false, true}) {
    for (int const way : {0, 1, 2}) group(dataOf(way), G)->joinedSourceIs(addr(S));
    reviving ? own->velDoZombieReactors(true) : own->hasNotificationActiveIs(false);
    runUntil(time + 100);
    readings = 0;
    onClock = check;
    reviving ? own->velDoZombieReactors(false) : own->hasNotificationActiveIs(true);
    onClock = nullptr;
    EXPECT_GE(readings, 3u);
    runUntil(time + 1);
  }
}

TEST_F(NeighborOrderTest, AReactorIsLetGoBeforeItsRemovalIsToldOf) {
  startWithNeighbor();
  for (int const way : {0, 1, 2}) group(dataOf(way), G);
  auto const one = own->triggeredGroupData(addr(G));
  auto const two = own->overrideGroupData(addr(G));
  auto const three = own->periodicGroupData(addr(G));
  watch();
  watcher->act = [&](std::string const& line) {
    bool const isZombie = line.starts_with("triggered")  ? one->isZombie()
                          : line.starts_with("override") ? two->isZombie()
                                                         : three->isZombie();
    EXPECT_TRUE(isZombie) << line;
  };
  for (int const way : {0, 1, 2}) dataOf(way)->joinPruneGroupDataDel(addr(G));
  EXPECT_THAT(story,
              ElementsAre("triggered reactor of 239.1.1.1 removed", "override reactor of 239.1.1.1 removed",
                          "periodic reactor of 239.1.1.1 removed"));
}

TEST_F(NeighborOrderTest, TheTimerFollowsTheCountBeforeTheCountIsValidated) {
  startWithNeighbor();
  auto const g = group(periodic(N), G);
  record();
  trace.levels({8});
  g->joinedSourceIs(addr(S));
  std::erase_if(story, [](std::string const& line) {
    return line.find("interval()") == line.npos && line.find("validate") == line.npos;
  });
  EXPECT_THAT(story, ElementsAre(HasSubstr("interval()"), "validateNumPeriodicRoutes(1)"));
}

}  // namespace
}  // namespace Routing::Pim
