// SPDX-License-Identifier: Apache-2.0
// The neighbor machine at the edges: reactors and timers that watch nothing, callbacks that retire it, traces
// switched off.
#include <unordered_map>

#include "tests/pim/joinprune/OnMessageData.h"

namespace Routing::Pim {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class NeighborMachineTest : public testing::Test, protected World {
 protected:
  NeighborMachineTest() {
    neighbor(N, eth0);
    start();
    own = sm(N);
    log.clear();
  }
  /// Retires the machine inside the first line that contains `part`.
  void retireInLine(std::string part) {
    log.hook = [this, part = std::move(part)](Vel::TraceLine const& line) {
      if (line.text.find(part) != line.text.npos) machine->joinPruneNeighborSmDel(addr(N));
    };
  }

  Vel::Ptr<Intf> eth0 = intf("eth0", "10.0.0.1/24");
  TraceLog log;
  Vel::Ptr<JoinPruneNeighborSm> own;
};

/// Notes what a neighbor machine tells of.
class NeighborLog final : public JoinPruneNeighborSm::NotifieeConst {
 public:
  explicit NeighborLog(Vel::Ptr<JoinPruneNeighborSm> const& sm) { notifierIs(sm); }
  void onNumPeriodicRoutes() override {
    lines.push_back("routes " + text(notifier()->numPeriodicRoutes()));
    if (atCount) atCount();
  }
  void onTriggeredGroupData(Dova::IpGenAddr g) override { note("triggered " + text(g), g); }
  void onOverrideGroupData(Dova::IpGenAddr g) override { note("override " + text(g), g); }
  void onPeriodicGroupData(Dova::IpGenAddr g) override { note("periodic " + text(g), g); }
  Lines lines;
  std::function<void(Dova::IpGenAddr)> act;
  std::function<void()> atCount;

 private:
  void note(std::string const& line, Dova::IpGenAddr const& g) {
    lines.push_back(line);
    if (act) act(g);
  }
};

TEST_F(NeighborMachineTest, ThatIsRetiredInTheLineOfADeletedSourceTellsNobodyOfItsCount) {
  group(periodic(N), G)->joinedSourceIs(addr(S));
  group(periodic(N), G)->joinedSourceIs(addr("10.9.0.2"));
  auto const watcher = Vel::create<NeighborLog>(own);
  retireInLine("handleJoinedSource(10.9.0.2), Deleted");
  group(periodic(N), G)->joinedSourceDel(addr("10.9.0.2"));
  EXPECT_TRUE(own->retired());
  EXPECT_THAT(watcher->lines, IsEmpty());
}

TEST_F(NeighborMachineTest, ThatIsRetiredInTheLineOfItsValidationIsNotValidated) {
  machine->diagUpJoinCountIs(false);
  retireInLine("validateNumPeriodicRoutes(7)");
  own->numPeriodicRoutesIs(7);  // there are none, and without a parent that would end the process
  EXPECT_TRUE(own->retired());
}

TEST_F(NeighborMachineTest, ThatIsRetiredInTheLineOfItsArmingWritesNoHoldTime) {
  for (bool const overriding : {false, true}) {
    machine->handleNeighbor(addr(N));
    own = sm(N);
    auto const data = overriding ? override_(N) : triggered(N);
    data->holdTimeIs(77);
    retireInLine("Arming timer");
    group(data, G)->joinedSourceIs(addr(S));
    EXPECT_TRUE(own->retired());
    EXPECT_EQ(data->holdTime(), 77);
    data->joinPruneGroupDataDelAll();
  }
}

TEST_F(NeighborMachineTest, ThatIsRetiredWhileItsNextMessageIsPreparedSendsNoMore) {
  for (int const which : {0, 1, 2}) {
    SCOPED_TRACE(which);
    machine->handleNeighbor(addr(N));
    own = sm(N);
    manager->messages = 0;
    Vel::Ptr<Packet::JoinPruneData> const sets[] = {triggered(N), override_(N), periodic(N)};
    for (char const* const g : {"239.1.1.1", "239.1.1.2", "239.1.1.3"})
      group(sets[which], g)->joinedSourceIs(addr(S));
    manager->perMessage = 1;
    manager->after = [&](PacketManager&) { machine->txMessage()->joinPruneDataIs(nullptr); };
    auto const hook = Vel::create<OnMessageData>(machine->txMessage(), [&] {
      if (manager->messages == 0 || !machine->txMessage()->joinPruneData()) return;
      machine->joinPruneNeighborSmDel(addr(N));
      log.clear();
    });
    if (which == 0) own->handleTriggeredTimerExpiry();
    if (which == 1) own->handleOverrideTimerExpiry();
    if (which == 2) own->joinPrunePeriodicTimerSm()->handlePeriodicTimerExpiry();
    EXPECT_TRUE(own->retired());
    EXPECT_EQ(manager->messages, 1u);
    EXPECT_THAT(log.take(), IsEmpty());
    sets[which]->joinPruneGroupDataDelAll();
  }
}

TEST_F(NeighborMachineTest, WhoseGroupReactorWatchesNothingDoesNothingForItsSources) {
  log.levels({});
  for (char const* const g : {G, "239.1.1.2"})
    for (auto const& data : {triggered(N), override_(N)}) group(data, g)->joinedSourceIs(addr(S));
  auto const poke = [](auto const& reactor) {
    reactor->notifierIs(nullptr);
    reactor->handleJoinedSource(addr(S));
    reactor->handlePrunedRptSource(addr(S));
    reactor->handleWcSource();
  };
  poke(own->triggeredGroupData(addr(G)));
  poke(own->overrideGroupData(addr(G)));
  EXPECT_EQ(triggered(N)->joinPruneGroupDataCount(), 2u);
  EXPECT_EQ(wheel->armedCount(), 2u);
}

TEST_F(NeighborMachineTest, WhoseDataWasTakenAwayLeavesAnEmptyGroupWhereItIs) {
  Vel::Ptr<Packet::JoinPruneData> const sets[] = {triggered(N), override_(N), periodic(N)};
  for (auto const& data : sets) group(data, G)->joinedSourceIs(addr(S));
  own->triggeredGroup()->notifierIs(nullptr);
  own->overrideGroup()->notifierIs(nullptr);
  own->periodicGroup()->notifierIs(nullptr);
  for (auto const& data : sets) {
    group(data, G)->joinedSourceDel(addr(S));
    EXPECT_TRUE(data->joinPruneGroupData(addr(G)));
  }
}

TEST_F(NeighborMachineTest, ArmsATimerWithoutAWheelByItsOwnWheelOrByNone) {
  own->triggeredTimer()->notifierIs(nullptr);
  group(triggered(N), G)->joinedSourceIs(addr(S));
  EXPECT_EQ(own->triggeredTimer()->timeMin(), time + 0.1);
  auto const data = Vel::create<Packet::JoinPruneData>(addr(N));
  auto const bare = joinPruneNeighborSmFactory(nullptr, addr(N), nullptr, nullptr, data, nullptr, nullptr,
                                               nullptr, 2.5, nullptr, nullptr);
  bare->triggeredTimerIs(wheel);
  bare->triggeredTimer()->notifierIs(nullptr);
  group(data, G)->joinedSourceIs(addr(S));
  EXPECT_EQ(bare->triggeredTimer()->timeMin(), 0.1);
}

TEST_F(NeighborMachineTest, HandlesAGroupByHandTheSameWayWithoutTraces) {
  log.levels({});
  for (auto const& data : {triggered(N), override_(N), periodic(N)}) {
    data->newJoinPruneGroupData(addr("239.1.1.2"));
    for (char const* const g : {"239.1.1.2", "239.1.1.3"}) {
      own->handleTriggeredGroup(addr(g));
      own->handleOverrideGroup(addr(g));
      own->handlePeriodicGroup(addr(g));
    }
    data->joinPruneGroupDataDel(addr("239.1.1.2"));
  }
  EXPECT_EQ(wheel->armedCount(), 0u);
  EXPECT_EQ(own->numPeriodicRoutes(), 0u);
  // One that was filled before a reactor was told of it.
  for (auto const& data : {triggered(N), override_(N), periodic(N)})
    data->newJoinPruneGroupData(addr(G))->joinedSourceIs(addr(S));
  own->handlePeriodicGroup(addr("239.1.1.3"));
  EXPECT_EQ(own->numPeriodicRoutes(), 0u);
  own->handleTriggeredGroup(addr(G));
  EXPECT_EQ(own->triggeredTimer()->timeMin(), time + 0.1);
  EXPECT_FALSE(own->overrideTimer()->armed());
  own->handleOverrideGroup(addr(G));
  EXPECT_TRUE(own->overrideTimer()->armed());
  own->handlePeriodicGroup(addr(G));
  EXPECT_EQ(own->numPeriodicRoutes(), 1u);
}

TEST_F(NeighborMachineTest, TellsOfEachReactorThatAWholeNotificationMakes) {
  auto const watcher = Vel::create<NeighborLog>(own);
  for (auto const& data : {triggered(N), override_(N), periodic(N)}) {
    data->newJoinPruneGroupData(addr(G));
    data->joinPruneGroupDataNotifyImmediate();
  }
  EXPECT_THAT(watcher->lines, ElementsAre("triggered 239.1.1.1", "override 239.1.1.1", "periodic 239.1.1.1"));
}

TEST_F(NeighborMachineTest, SwitchesAReactorOnAgainThatItPointsAtAnotherObject) {
  for (auto const& data : {triggered(N), override_(N), periodic(N)}) group(data, G);
  auto const another = [] { return Vel::create<Packet::JoinPruneGroupData>(addr(G)); };
  auto const repoint = [&](auto const& reactor, auto const& point) {
    reactor->hasNotificationActiveIs(false);
    EXPECT_TRUE(point(another()) == reactor);
    EXPECT_TRUE(reactor->hasNotificationActive());
  };
  repoint(own->triggeredGroupData(addr(G)), [&](auto const& g) { return own->triggeredGroupDataIs(g); });
  repoint(own->overrideGroupData(addr(G)), [&](auto const& g) { return own->overrideGroupDataIs(g); });
  repoint(own->periodicGroupData(addr(G)), [&](auto const& g) { return own->periodicGroupDataIs(g); });
}

TEST_F(NeighborMachineTest, KeepsAReactorThatIsMadeAnewWhileAllAreDeleted) {
  for (char const* const g : {G, "239.1.1.2", "239.1.1.3"}) group(triggered(N), g);
  auto const watcher = Vel::create<NeighborLog>(own);
  watcher->act = [&](Dova::IpGenAddr) {
    watcher->act = nullptr;
    own->triggeredGroupDataDelAll();
    for (char const* const g : {G, "239.1.1.2", "239.1.1.3"})
      own->newTriggeredGroupData(triggered(N)->joinPruneGroupData(addr(g)));
  };
  own->triggeredGroupDataDelAll();
  EXPECT_EQ(own->triggeredGroupDataCount(), 3u);
}

TEST_F(NeighborMachineTest, LeavesWhatItMissedMissedWhenItIsSwitchedOffOrRetiredTwice) {
  for (auto const& data : {triggered(N), override_(N)}) group(data, G)->joinedSourceIs(addr(S));
  own->hasNotificationActiveIs(false);
  runUntil(time + 10);
  own->hasNotificationActiveIs(false);
  EXPECT_EQ(wheel->armedCount(), 0u);
  own->velDoZombieReactors(true);
  own->velDoZombieReactors(true);
  EXPECT_EQ(wheel->armedCount(), 0u);
}

TEST_F(NeighborMachineTest, ForgetsWhatATimerMissedWhenNothingIsPendingAnyMore) {
  for (auto const& data : {triggered(N), override_(N)}) group(data, G)->joinedSourceIs(addr(S));
  own->hasNotificationActiveIs(false);
  runUntil(time + 10);
  for (auto const& data : {triggered(N), override_(N)}) data->joinPruneGroupDataDelAll();
  own->doUpdateTriggeredTimer();
  own->doUpdateOverrideTimer();
  own->hasNotificationActiveIs(true);
  EXPECT_EQ(wheel->armedCount(), 0u);
}

TEST_F(NeighborMachineTest, TracesNothingWhenAGroupReactorIsPointedAtItsOwnDataAgain) {
  own->periodicGroup()->notifierIs(periodic(N));
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(NeighborMachineTest, TellsNobodyOfAGroupThatIsTheSameAgain) {
  for (auto const& data : {triggered(N), override_(N), periodic(N)}) group(data, G);
  auto const watcher = Vel::create<NeighborLog>(own);
  own->triggeredGroupDataIs(triggered(N)->joinPruneGroupData(addr(G)));
  own->overrideGroupDataIs(override_(N)->joinPruneGroupData(addr(G)));
  own->periodicGroupDataIs(periodic(N)->joinPruneGroupData(addr(G)));
  EXPECT_THAT(watcher->lines, IsEmpty());
}

TEST_F(NeighborMachineTest, CountsAGroupByHandThatOnlyThePeriodicDataHas) {
  log.levels({});
  periodic(N)->newJoinPruneGroupData(addr(G))->joinedSourceIs(addr(S));
  own->handlePeriodicGroup(addr(G));
  EXPECT_EQ(own->numPeriodicRoutes(), 1u);
}

/// Pairs of groups that have one place in the order of a collection, so that their addresses decide.
std::vector<std::pair<Dova::IpGenAddr, Dova::IpGenAddr>> groupsThatCollide() {
  std::unordered_map<U32, Dova::IpGenAddr> seen;
  std::vector<std::pair<Dova::IpGenAddr, Dova::IpGenAddr>> pairs;
  for (U32 i = 0; pairs.size() < 4 && i < 1'000'000; ++i) {
    Dova::IpGenAddr const address = Dova::IpGenAddr::ipv4(0xef000000u + i);
    auto const [at, first] = seen.emplace(Vel::orderOf(address), address);
    if (!first) pairs.emplace_back(at->second, address);
  }
  return pairs;
}

TEST_F(NeighborMachineTest, MarksTheWildcardsAtTheStartAlsoOfGroupsThatCollideOrHaveNoReactor) {
  auto const pairs = groupsThatCollide();
  ASSERT_EQ(pairs.size(), 4u);
  // Each group has no entry in the data, an entry that the machine follows, or one that it has not heard of.
  for (U32 combination = 0; combination < 6561; combination += 7) {
    SCOPED_TRACE(combination);
    log.levels(combination % 5 == 0 ? std::vector<U32>{8} : std::vector<U32>{});
    auto const data = Vel::create<Packet::JoinPruneData>(addr("10.0.0.9"));
    std::vector<Dova::IpGenAddr> followed, late;
    U32 rest = combination;
    for (auto const& [one, other] : pairs)
      for (auto const& g : {one, other}) {
        if (rest % 3 == 1) followed.push_back(g);
        if (rest % 3 == 2) late.push_back(g);
        rest /= 3;
      }
    for (auto const& g : followed) data->joinPruneGroupDataIs(g)->wcSourceDataIs(wildcard("10.5.0.1"));
    bool added = false;
    log.hook = [&](Vel::TraceLine const&) {
      if (std::exchange(added, true)) return;
      for (auto const& g : late) data->newJoinPruneGroupData(g)->wcSourceDataIs(wildcard("10.5.0.1"));
    };
    auto const made = joinPruneNeighborSmFactory(nullptr, addr("10.0.0.9"), nullptr, eth0, nullptr, nullptr,
                                                 data, wheel, 2.5, manager, nullptr);
    log.hook = nullptr;
    EXPECT_EQ(made->numPeriodicRoutes(), followed.size() + (added ? late.size() : 0));
    for (auto const& g : followed) EXPECT_TRUE(made->periodicGroupData(g)->wcSourceSet());
  }
}

TEST_F(NeighborMachineTest, WhatItsTimersMissedIsSentInTheOrderTriggeredOverride) {
  group(triggered(N), G)->joinedSourceIs(addr(S));
  group(override_(N), G)->joinedSourceIs(addr(S));
  own->hasNotificationActiveIs(false);
  time += 10;
  wheel->expire();
  log.clear();
  own->hasNotificationActiveIs(true);
  wheel->expire();
  Lines expiries;
  for (auto const& line : log.texts)
    if (line.ends_with("TimerExpiry()")) expiries.push_back(line.substr(line.rfind("handle")));
  EXPECT_THAT(expiries, ElementsAre("handleTriggeredTimerExpiry()", "handleOverrideTimerExpiry()"));
}

TEST_F(NeighborMachineTest, TheReactorOfAGroupSaysInWhichDataItIs) {
  for (auto const& data : {triggered(N), override_(N), periodic(N)}) group(data, G);
  auto const form = [this](auto const& reactor) {
    std::string const owner = text(own.get()), whole = text(reactor.get());
    EXPECT_TRUE(whole.starts_with(owner)) << whole;
    return whole.substr(owner.size());
  };
  EXPECT_EQ(form(own->triggeredGroupData(addr(G))), "Triggered(239.1.1.1)::");
  EXPECT_EQ(form(own->overrideGroupData(addr(G))), "Override(239.1.1.1)::");
  EXPECT_EQ(form(own->periodicGroupData(addr(G))), "Periodic(239.1.1.1)::");
}

TEST_F(NeighborMachineTest, ATimerThatIsReplacedIsSilentWhereSomebodyHoldsIt) {
  auto const held = own->triggeredTimer();
  own->triggeredTimerIs(Vel::create<Zanth::TimerWheel>([] { return 0; }));
  EXPECT_TRUE(held->isZombie());
  EXPECT_FALSE(held->joinPruneNeighborSm());
  group(triggered(N), G)->joinedSourceIs(addr(S));
  held->timeMinIs(time);
  wheel->expire();
  EXPECT_THAT(manager->sent, IsEmpty());
}

TEST_F(NeighborMachineTest, WhatATimerMissedIsDueAtOnceOnAnotherWheel) {
  group(triggered(N), G)->joinedSourceIs(addr(S));
  own->hasNotificationActiveIs(false);
  time += 10;
  wheel->expire();
  own->triggeredTimerIs(Vel::create<Zanth::TimerWheel>([] { return 500; }));
  EXPECT_EQ(own->triggeredTimer()->timeMin(), 500);
}

TEST_F(NeighborMachineTest, ThatIsRetiredWhileItReadsTheTimeAtTheBeginningOfAnExpirySendsNothing) {
  bool ends = false;
  own->triggeredTimerIs(Vel::create<Zanth::TimerWheel>([&] {
    if (std::exchange(ends, false)) machine->joinPruneNeighborSmDel(addr(N));
    return time;
  }));
  group(triggered(N), G)->joinedSourceIs(addr(S));
  machine->txMessage()->joinPruneDataIs(nullptr);
  ends = true;
  own->handleTriggeredTimerExpiry();
  EXPECT_TRUE(own->retired());
  EXPECT_FALSE(machine->txMessage()->joinPruneData());
}

TEST_F(NeighborMachineTest, ThatIsRetiredByTheCountOfAWildcardSaysNothingMore) {
  auto const ending = Vel::create<NeighborLog>(own);
  ending->atCount = [&] {
    machine->joinPruneNeighborSmDel(addr(N));
    log.clear();
  };
  group(periodic(N), G)->wcSourceDataIs(wildcard("10.255.0.1"));
  EXPECT_TRUE(own->retired());
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(NeighborMachineTest, ThatIsRetiredByTheHoldTimeOfItsDataArmsNothing) {
  class AtTheHoldTime final : public Packet::JoinPruneData::NotifieeConst {
   public:
    AtTheHoldTime(Vel::Ptr<Packet::JoinPruneData> const& data, std::function<void()> const& act) : act_(act) {
      notifierIs(data);
    }
    void onHoldTime() override { act_(); }

   private:
    std::function<void()> const act_;
  };
  auto const ending =
      Vel::create<AtTheHoldTime>(triggered(N), [&] { machine->joinPruneNeighborSmDel(addr(N)); });
  triggered(N)->holdTimeIs(77);
  machine->handleNeighbor(addr(N));
  own = sm(N);
  group(triggered(N), G)->joinedSourceIs(addr(S));
  EXPECT_TRUE(own->retired());
  EXPECT_EQ(wheel->armedCount(), 0u);
}

}  // namespace
}  // namespace Routing::Pim
