// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cmath>

#include "tests/pim/joinprune/FailingHeap.h"
#include "tests/pim/joinprune/RingTrace.h"
#include "tests/pim/joinprune/World.h"

namespace Routing::Pim {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

/// A machine of its own, without a parent unless a test makes one.
class JoinPruneNeighborSmTest : public testing::Test, protected World {
 protected:
  JoinPruneNeighborSmTest() { eth0->usedAddressWithMaskIs(Dova::IpGenPrefix(addr("10.0.0.1"), 24)); }

  Vel::Ptr<JoinPruneNeighborSm> make(JoinPruneMessageSm* parent = nullptr) {
    neighborSm =
        joinPruneNeighborSmFactory(parent, addr(N), nullptr, eth0, t, o, p, wheel, 2.5, manager, message);
    return neighborSm;
  }
  /// One that belongs to a message machine, with its data in t, o, p.
  Vel::Ptr<JoinPruneNeighborSm> makeOwned() {
    pim->pimIntfIs(eth0);
    neighbor(N, eth0);
    start();
    neighborSm = sm(N);
    t = triggered(N);
    o = override_(N);
    p = periodic(N);
    log.clear();
    return neighborSm;
  }
  std::string form() const { return text(static_cast<JoinPruneNeighborSm const*>(neighborSm.get())); }
  std::string line(int level, std::string const& rest) const {
    return "[" + std::to_string(level) + "] " + form() + rest;
  }

  TraceLog log;
  Vel::Ptr<Intf> eth0 = Vel::create<Intf>(Dova::IntfId("eth0"));
  Vel::Ptr<Packet::JoinPruneData> t = Vel::create<Packet::JoinPruneData>(addr(N));
  Vel::Ptr<Packet::JoinPruneData> o = Vel::create<Packet::JoinPruneData>(addr(N));
  Vel::Ptr<Packet::JoinPruneData> p = Vel::create<Packet::JoinPruneData>(addr(N));
  Vel::Ptr<Packet::JoinPruneMessage> message = Vel::create<Packet::JoinPruneMessage>();
  Vel::Ptr<JoinPruneNeighborSm> neighborSm;
};

TEST_F(JoinPruneNeighborSmTest, WithEmptyDataItIsInitializedWithNothingCountedAndNothingArmed) {
  make();
  EXPECT_TRUE(neighborSm->initialized());
  EXPECT_EQ(neighborSm->numPeriodicRoutes(), 0u);
  EXPECT_EQ(neighborSm->triggeredTimer()->timeMin(), Vel::never);
  EXPECT_EQ(neighborSm->overrideTimer()->timeMin(), Vel::never);
  EXPECT_EQ(neighborSm->loopQuantum(), 0.1);
  EXPECT_EQ(neighborSm->triggeredInterval(), 0.1);
  EXPECT_EQ(neighborSm->references(), 1u);
  EXPECT_TRUE(p->periodic());
  EXPECT_THAT(log.take(),
              ElementsAre(line(7, "doUpdateTriggeredTimer(): Disarming timer"),
                          line(7, "doUpdateOverrideTimer(): Disarming timer"),
                          line(2, "handleInitialized(), total number of periodic joins and prunes is 0")));
}

TEST_F(JoinPruneNeighborSmTest, ItsTextFormNamesInterfaceAddressAndObject) {
  make();
  std::ostringstream pointer;
  pointer << static_cast<void const*>(neighborSm.get());
  EXPECT_EQ(form(), "JoinPruneNeighborSm(eth0::10.0.0.2)::@" + pointer.str() + "::");
  EXPECT_EQ(pointer.str().substr(0, 2), "0x");
}

TEST_F(JoinPruneNeighborSmTest, WithoutAnInterfaceOrAnythingElseItCanStillBePrinted) {
  neighborSm = joinPruneNeighborSmFactory(nullptr, addr(N), {}, {}, {}, {}, {}, {}, 0.0, {}, {});
  EXPECT_THAT(form(), testing::StartsWith("JoinPruneNeighborSm(::10.0.0.2)::@0x"));
  EXPECT_EQ(text(static_cast<JoinPruneNeighborSm const*>(nullptr)), "null");
  EXPECT_EQ(text(static_cast<JoinPruneNeighborSm::VelTriggeredGroupData const*>(nullptr)), "null");
  neighborSm->handleTriggeredTimerExpiry();
  neighborSm->handleOverrideTimerExpiry();
  neighborSm->handlePeriodicGroup(addr(G));
  EXPECT_THROW(neighborSm->txMessageInfoIs(), Vel::RangeException);
}

TEST_F(JoinPruneNeighborSmTest, FilledDataGetsAReactorForEachGroupAndIsCountedOnce) {
  group(t, "239.1.1.1");
  group(t, "239.1.1.2");
  group(o, "239.1.1.1");
  group(o, "239.1.1.2");
  group(o, "239.1.1.3");
  auto const g = group(p, G);
  g->joinedSourceIs(addr("10.9.0.1"));
  g->joinedSourceIs(addr("10.9.0.2"));
  g->prunedSourceIs(addr("10.9.0.3"));
  g->joinedRptSourceIs(addr("10.9.0.4"));
  g->prunedRptSourceIs(addr("10.9.0.5"));
  g->wcSourceDataIs(wildcard("10.5.0.1"));
  make();
  EXPECT_EQ(neighborSm->triggeredGroupDataCount(), 2u);
  EXPECT_EQ(neighborSm->overrideGroupDataCount(), 3u);
  EXPECT_EQ(neighborSm->periodicGroupDataCount(), 1u);
  EXPECT_EQ(neighborSm->numPeriodicRoutes(), 6u);
  EXPECT_TRUE(neighborSm->periodicGroupData(addr(G))->wcSourceSet());
}

TEST_F(JoinPruneNeighborSmTest, TriggeredDataThatIsThereAtTheStartIsSentSoon) {
  group(t, G)->joinedSourceIs(addr(S));
  group(o, G)->joinedSourceIs(addr(S));
  srand48(7);
  make();
  EXPECT_EQ(neighborSm->triggeredTimer()->timeMin(), time + 0.1);
  srand48(7);
  EXPECT_EQ(neighborSm->overrideTimer()->timeMin(), time + randomDelay(2.5));
}

TEST_F(JoinPruneNeighborSmTest, TheStartUpCountIsNotValidatedWhileItIsPartial) {
  group(p, "239.1.1.1")->joinedSourceIs(addr(S));
  group(p, "239.1.1.2")->joinedSourceIs(addr(S));
  make();  // without a parent every complete count is validated
  EXPECT_EQ(neighborSm->numPeriodicRoutes(), 2u);
  EXPECT_THAT(log.takeWith("[8] " + form()),
              ElementsAre(line(8, "validateNumPeriodicRoutes(1)"), line(8, "validateNumPeriodicRoutes(2)")));
}

TEST_F(JoinPruneNeighborSmTest, TheStartUpCountIsToldStepByStepToWhoeverHearsOnlyOneOfItsLevelsOrTheRing) {
  auto const fill = [&] {
    p = Vel::create<Packet::JoinPruneData>(addr(N));
    for (char const* const g : {"239.1.1.1", "239.1.1.2", "239.1.1.3"}) group(p, g)->joinedSourceIs(addr(S));
  };
  log.levels({8});
  fill();
  make();
  EXPECT_THAT(log.takeWith("validate"),
              ElementsAre(line(8, "validateNumPeriodicRoutes(1)"), line(8, "validateNumPeriodicRoutes(2)"),
                          line(8, "validateNumPeriodicRoutes(3)")));
  log.levels({});
  fill();
  RingTrace const ring;
  make();
  Lines const timers = ring.timers();
  EXPECT_EQ(std::count(timers.begin(), timers.end(),
                       "void Routing::Pim::JoinPruneNeighborSm::validateNumPeriodicRoutes()"),
            3);
}

// A callback during the start-up may change what is being counted.
TEST_F(JoinPruneNeighborSmTest, TheStartUpCountIsRightWhateverChangesMeanwhile) {
  class Hook final : public Packet::JoinPruneData::NotifieeConst {
   public:
    explicit Hook(std::function<void()> act) : act_(std::move(act)) {}
    void onPeriodic() override { act_(); }

   private:
    std::function<void()> act_;
  };
  struct Row {
    char const* name;
    std::function<void(Packet::JoinPruneData&)> act;
    U32 count;
  };
  Row const rows[] = {
      {"a source more",
       [](auto& data) { data.joinPruneGroupData(addr(G))->joinedSourceIs(addr("10.9.0.9")); }, 3},
      {"a group more",
       [](auto& data) { data.joinPruneGroupDataIs(addr("239.9.9.9"))->joinedSourceIs(addr(S)); }, 3},
      {"another wildcard",
       [](auto& data) { data.joinPruneGroupData(addr(G))->wcSourceDataIs(wildcard("10.5.0.9")); }, 2},
      {"no wildcard", [](auto& data) { data.joinPruneGroupData(addr(G))->wcSourceDataDel(); }, 1},
      {"nothing left",
       [](auto& data) {
         auto const g = data.joinPruneGroupData(addr(G));
         g->wcSourceDataDel();
         g->joinedSourceDelAll();
       },
       0}};
  for (Row const& row : rows) {
    SCOPED_TRACE(row.name);
    p = Vel::create<Packet::JoinPruneData>(addr(N));
    group(p, G)->joinedSourceIs(addr(S));
    p->joinPruneGroupData(addr(G))->wcSourceDataIs(wildcard("10.5.0.1"));
    auto const hook = Vel::create<Hook>([&] { row.act(*p); });
    hook->notifierIs(p);
    make();
    EXPECT_EQ(neighborSm->numPeriodicRoutes(), row.count);
    // Drained source by source it ends at zero; without a parent each count is validated on the way.
    for (auto g = p->joinPruneGroupDataIterator(); g; ++g) {
      if (g->wcSourceData()) g->wcSourceDataDel();
      g->joinedSourceDelAll();
    }
    EXPECT_EQ(neighborSm->numPeriodicRoutes(), 0u);
    EXPECT_EQ(p->joinPruneGroupDataCount(), 0u);
    neighborSm = nullptr;
  }
}

TEST_F(JoinPruneNeighborSmTest, TheSameWheelAgainLeavesAnArmedTimerAlone) {
  make();
  group(t, G)->joinedSourceIs(addr(S));
  auto const timer = neighborSm->triggeredTimer();
  neighborSm->triggeredTimerIs(wheel);
  EXPECT_TRUE(neighborSm->triggeredTimer() == timer);
  EXPECT_EQ(timer->timeMin(), time + 0.1);
  neighborSm->triggeredTimerIs(nullptr);
  EXPECT_FALSE(neighborSm->triggeredTimer());
  EXPECT_EQ(wheel->armedCount(), 0u);
}

TEST_F(JoinPruneNeighborSmTest, TimesThatAreNoNumbersAreRefused) {
  make();
  EXPECT_THROW(neighborSm->loopQuantumIs(std::nan("")), Vel::InvalidArgumentException);
  EXPECT_THROW(neighborSm->triggeredIntervalIs(std::nan("")), Vel::InvalidArgumentException);
  EXPECT_EQ(neighborSm->triggeredInterval(), 0.1);
}

TEST_F(JoinPruneNeighborSmTest, AConstMachineCannotBeChanged) {
  make();
  Vel::Ptr<JoinPruneNeighborSm const> const view = neighborSm;
  std::vector<std::function<void()>> const mutators = {[&] { view->loopQuantumIs(1); },
                                                       [&] { view->triggeredIntervalIs(1); },
                                                       [&] { view->numPeriodicRoutesIs(1); },
                                                       [&] { view->numPeriodicRoutesInc(1); },
                                                       [&] { view->triggeredGroupDataIs(nullptr); },
                                                       [&] { view->overrideGroupDataDel(addr(G)); },
                                                       [&] { view->periodicGroupDataDelAll(); },
                                                       [&] { view->triggeredTimerIs(wheel); },
                                                       [&] { view->joinPrunePeriodicTimerSmDel(); },
                                                       [&] { view->txMessageInfoIs(); },
                                                       [&] { view->initializedIs(false); }};
  for (auto const& mutate : mutators) EXPECT_THROW(mutate(), Vel::RangeException);
  EXPECT_TRUE(view->initialized());
}

TEST_F(JoinPruneNeighborSmTest, AGroupThatComesGetsAReactorAndIsTracedUnderTheNeighborsAddress) {
  makeOwned();
  struct Row {
    Vel::Ptr<Packet::JoinPruneData> data;
    char const* handler;
    std::function<U32()> count;
  };
  Row const rows[] = {{t, "handleTriggeredGroup", [&] { return neighborSm->triggeredGroupDataCount(); }},
                      {o, "handleOverrideGroup", [&] { return neighborSm->overrideGroupDataCount(); }}};
  for (Row const& row : rows) {
    std::string const handler = row.handler;
    group(row.data, G);
    EXPECT_EQ(row.count(), 1u);
    EXPECT_THAT(log.take(),
                ElementsAre(line(7, handler + "(10.0.0.2)"), line(7, handler + "(10.0.0.2): Deleted")));
    row.data->joinPruneGroupDataDel(addr(G));
    EXPECT_EQ(row.count(), 0u);
    EXPECT_THAT(log.take(),
                ElementsAre(line(7, handler + "(10.0.0.2)"), line(7, handler + "(10.0.0.2): Deleted")));
  }
}

TEST_F(JoinPruneNeighborSmTest, APeriodicGroupDoesNotAskTheParentWhileThereAreGroups) {
  makeOwned();
  group(p, "239.1.1.1");
  group(p, "239.1.1.2");
  EXPECT_EQ(neighborSm->periodicGroupDataCount(), 2u);
  p->joinPruneGroupDataDel(addr("239.1.1.1"));
  EXPECT_THAT(log.takeWith("doMaybeDeleteNeighbor"), IsEmpty());
  p->joinPruneGroupDataDel(addr("239.1.1.2"));
  EXPECT_THAT(log.take(), ElementsAre(line(7, "handlePeriodicGroup(10.0.0.2)"),
                                      line(7, "handlePeriodicGroup(10.0.0.2): Deleted"),
                                      "[8] JoinPruneMessageSm::doMaybeDeleteNeighbor(10.0.0.2)"));
}

TEST_F(JoinPruneNeighborSmTest, ARemovedGroupsReactorHasNoMachineAnyMore) {
  make();
  group(t, G);
  auto const reactor = neighborSm->triggeredGroupData(addr(G));
  t->joinPruneGroupDataDel(addr(G));
  EXPECT_EQ(reactor->joinPruneNeighborSm(), nullptr);
  EXPECT_FALSE(neighborSm->triggeredGroupData(addr(G)));
  log.clear();
  reactor->handleJoinedSource(addr(S));
  reactor->handleWcSource();
  EXPECT_THAT(log.take(), IsEmpty());
}

using JoinPruneNeighborSmDeathTest = JoinPruneNeighborSmTest;
TEST_F(JoinPruneNeighborSmDeathTest, RemovingTheLastGroupWhileItIsFilledStopsTheProcess) {
  makeOwned();
  Vel::traceSinkIs({});  // the death test reads standard error
  group(p, G)->joinedSourceIs(addr(S));
  EXPECT_DEATH(
      p->joinPruneGroupDataDel(addr(G)),
      "handlePeriodicGroup\\(10.0.0.2\\), Num routes: 1(.|\n)*JoinPruneSm:.*handlePeriodicGroup.*Assertion "
      "`false' failed");
}

TEST_F(JoinPruneNeighborSmTest, WithoutAParentTheLastGroupGoesWithoutAsking) {
  make();
  group(p, G);
  p->joinPruneGroupDataDel(addr(G));
  EXPECT_THAT(log.takeWith("doMaybe"), IsEmpty());
}

TEST_F(JoinPruneNeighborSmTest, TheRouteCountWrapsBelowZeroAndRunsItsHandler) {
  makeOwned();
  EXPECT_EQ(neighborSm->numPeriodicRoutesDec(1), 4294967295u);
  EXPECT_THAT(log.take(), Contains(line(8, "validateNumPeriodicRoutes(4294967295)")));
  EXPECT_EQ(neighborSm->numPeriodicRoutesInc(1), 0u);
}

TEST_F(JoinPruneNeighborSmTest, TheCurrentRouteCountAgainDoesNothing) {
  makeOwned();
  neighborSm->numPeriodicRoutesIs(0);
  neighborSm->numPeriodicRoutesInc(0);
  neighborSm->numPeriodicRoutesDec(0);
  EXPECT_THAT(log.take(), IsEmpty());
  EXPECT_EQ(neighborSm->numPeriodicRoutesInc(2), 2u);
  EXPECT_THAT(log.take(), Not(IsEmpty()));
}

TEST_F(JoinPruneNeighborSmTest, WithTheDiagnosticOffAWrongCountIsOnlyTraced) {
  makeOwned();
  neighborSm->numPeriodicRoutesIs(2);
  EXPECT_THAT(log.takeWith("validate"), ElementsAre(line(8, "validateNumPeriodicRoutes(2)")));
}

TEST_F(JoinPruneNeighborSmDeathTest, WithTheDiagnosticOnAWrongCountStopsTheProcess) {
  makeOwned();
  machine->diagUpJoinCountIs(true);
  group(p, G)->joinedSourceIs(addr(S));
  Vel::traceSinkIs({});
  EXPECT_DEATH(neighborSm->numPeriodicRoutesIs(2),
               "validateNumPeriodicRoutes, expected: 1, got: 2(.|\n)*Assertion `false' failed");
}

TEST_F(JoinPruneNeighborSmDeathTest, WithoutAParentAWrongCountStopsTheProcessToo) {
  make();
  Vel::traceSinkIs({});
  EXPECT_DEATH(neighborSm->joinPrunePeriodicTimerSmDel();
               neighborSm->numPeriodicRoutesIs(2), "expected: 0, got: 2(.|\n)*Assertion `false' failed");
}

TEST_F(JoinPruneNeighborSmTest, NullGroupDataIsRefusedByEachMutator) {
  make();
  struct Row {
    char const* name;
    std::function<void()> set;
  };
  Row const rows[] = {{"triggeredGroupData", [&] { neighborSm->triggeredGroupDataIs(nullptr); }},
                      {"overrideGroupData", [&] { neighborSm->overrideGroupDataIs(nullptr); }},
                      {"periodicGroupData", [&] { neighborSm->periodicGroupDataIs(nullptr); }}};
  for (Row const& row : rows) {
    try {
      row.set();
      ADD_FAILURE() << row.name;
    } catch (Vel::InvalidArgumentException const& error) {
      EXPECT_EQ(error.what(), std::string("null _") + row.name +
                                  " parameter to mutator for Routing::Pim::JoinPruneNeighborSm::" + row.name +
                                  " not allowed\"");
    }
  }
  EXPECT_EQ(neighborSm->triggeredGroupDataCount(), 0u);
}

TEST_F(JoinPruneNeighborSmTest, TheSameGroupDataAgainKeepsItsReactorAndAnotherObjectIsWatchedInstead) {
  make();
  auto const first = group(t, G);
  auto const reactor = neighborSm->triggeredGroupData(addr(G));
  EXPECT_TRUE(neighborSm->triggeredGroupDataIs(first) == reactor);
  auto const second = Vel::create<Packet::JoinPruneGroupData>(addr(G));
  reactor->hasNotificationActiveIs(false);
  EXPECT_TRUE(neighborSm->triggeredGroupDataIs(second) == reactor);
  EXPECT_TRUE(reactor->hasNotificationActive());
  log.clear();
  first->joinedSourceIs(addr(S));
  EXPECT_THAT(log.take(), IsEmpty());
  second->joinedSourceIs(addr(S));
  EXPECT_THAT(log.take(), Not(IsEmpty()));
}

TEST_F(JoinPruneNeighborSmTest, AWholeCollectionNotificationBringsTheReactorsIntoLine) {
  make();
  group(t, "239.1.1.1");
  group(p, "239.1.1.1");
  neighborSm->triggeredGroup()->hasNotificationActiveIs(false);
  neighborSm->periodicGroup()->hasNotificationActiveIs(false);
  for (auto const& data : {t, p}) {
    group(data, "239.1.1.2");
    data->joinPruneGroupDataDel(addr("239.1.1.1"));
  }
  neighborSm->triggeredGroup()->hasNotificationActiveIs(true);
  neighborSm->periodicGroup()->hasNotificationActiveIs(true);
  log.clear();
  t->joinPruneGroupDataNotifyImmediate();
  EXPECT_THAT(log.take(), IsEmpty());
  EXPECT_EQ(neighborSm->attribute("triggeredGroupData"), "239.1.1.2");
  p->joinPruneGroupDataNotifyImmediate();
  EXPECT_THAT(log.take(), ElementsAre(line(7, "handlePeriodicGroup()")));
  EXPECT_EQ(neighborSm->attribute("periodicGroupData"), "239.1.1.2");
}

TEST_F(JoinPruneNeighborSmTest, AGroupReactorPointedAtOtherDataFollowsItsGroups) {
  make();
  group(t, "239.1.1.1");
  auto const other = Vel::create<Packet::JoinPruneData>(addr(N));
  group(other, "239.1.1.2");
  neighborSm->triggeredGroup()->notifierIs(other);
  EXPECT_EQ(neighborSm->attribute("triggeredGroupData"), "239.1.1.2");
  log.clear();
  neighborSm->triggeredGroup()->notifierIs(other);
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(JoinPruneNeighborSmTest, AReactorWithoutAnOwnerDoesNothingAndOneWithoutANotifierStillForwards) {
  make();
  auto const reactor = neighborSm->triggeredGroup();
  reactor->notifierIs(nullptr);
  log.clear();
  reactor->onJoinPruneGroupData(addr(G));
  EXPECT_THAT(log.take(), ElementsAre(line(7, "handleTriggeredGroup(10.0.0.2)"),
                                      line(7, "handleTriggeredGroup(10.0.0.2): Deleted")));
  reactor->joinPruneNeighborSmIs(nullptr);
  reactor->onJoinPruneGroupData(addr(G));
  reactor->onJoinPruneGroupDatavelImmediate();
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(JoinPruneNeighborSmTest, AFilledGroupThatComesLaterCountsNothingAndArmsNothing) {
  make();
  auto const source = Vel::create<Packet::JoinPruneData>(addr(N));
  group(source, G)->joinedSourceIs(addr(S));
  auto const filled = source->joinPruneGroupData(addr(G));
  neighborSm->periodicGroupDataIs(filled);
  neighborSm->triggeredGroupDataIs(filled);
  EXPECT_EQ(neighborSm->numPeriodicRoutes(), 0u);
  EXPECT_EQ(neighborSm->triggeredTimer()->timeMin(), Vel::never);
}

TEST_F(JoinPruneNeighborSmTest, DeletingAReactorLeavesTheRouteCountAlone) {
  makeOwned();
  group(p, G)->joinedSourceIs(addr(S));
  EXPECT_EQ(neighborSm->numPeriodicRoutes(), 1u);
  neighborSm->periodicGroupDataDel(addr(G));
  EXPECT_EQ(neighborSm->numPeriodicRoutes(), 1u);
  EXPECT_EQ(neighborSm->periodicGroupDataCount(), 0u);
}

TEST_F(JoinPruneNeighborSmTest, AfterItsDestructionChangesReachNobodyAndNoTimerIsLeft) {
  group(t, G)->joinedSourceIs(addr(S));
  group(o, G)->joinedSourceIs(addr(S));
  group(p, G)->joinedSourceIs(addr(S));
  make();
  EXPECT_EQ(wheel->armedCount(), 3u);
  neighborSm = nullptr;
  EXPECT_EQ(wheel->armedCount(), 0u);
  log.clear();
  for (auto const& data : {t, o, p}) {
    data->joinPruneGroupData(addr(G))->joinedSourceDel(addr(S));
    data->joinPruneGroupDataDel(addr(G));
  }
  EXPECT_THAT(log.take(), IsEmpty());
  EXPECT_EQ(wheel->references(), 1u);
  EXPECT_EQ(t->references(), 1u);
}

TEST_F(JoinPruneNeighborSmTest, SwitchedOffItsReactorsIgnoreEverythingThoseOfLaterGroupsIncluded) {
  makeOwned();
  auto const g = group(t, "239.1.1.1");
  log.clear();
  neighborSm->hasNotificationActiveIs(false);
  g->joinedSourceIs(addr(S));
  group(t, "239.1.1.2");
  EXPECT_THAT(log.take(), IsEmpty());
  auto const later = Vel::create<Packet::JoinPruneGroupData>(addr("239.1.1.3"));
  auto const reactor = neighborSm->triggeredGroupDataIs(later);
  EXPECT_FALSE(reactor->hasNotificationActive());
  neighborSm->hasNotificationActiveIs(true);
  g->joinedSourceIs(addr("10.9.0.2"));
  later->joinedSourceIs(addr(S));
  EXPECT_EQ(log.takeWith("Triggered(").size(), 2u);
}

TEST_F(JoinPruneNeighborSmTest, QuantumAndIntervalAreSetByName) {
  make();
  neighborSm->attributeIs("loopQuantum", "0.25");
  neighborSm->attributeIs("triggeredInterval", "2");
  EXPECT_EQ(neighborSm->loopQuantum(), 0.25);
  EXPECT_EQ(neighborSm->attribute("triggeredInterval"), "2");
  EXPECT_THROW(neighborSm->attributeIs("numPeriodicRoutes", "2"), Vel::RangeException);
}

// --- Source by source ----------------------------------------------------------------------------

// The five kinds of entries: what the handlers are called after, and how one is added and removed.
struct Kind {
  char const* name;
  bool join;
  std::function<void(Packet::JoinPruneGroupData&)> add, del;
};
Kind const sourceKinds[] = {{"JoinedSource", true, [](auto& g) { g.joinedSourceIs(addr(S)); },
                             [](auto& g) { g.joinedSourceDel(addr(S)); }},
                            {"PrunedSource", false, [](auto& g) { g.prunedSourceIs(addr(S)); },
                             [](auto& g) { g.prunedSourceDel(addr(S)); }},
                            {"JoinedRptSource", true, [](auto& g) { g.joinedRptSourceIs(addr(S)); },
                             [](auto& g) { g.joinedRptSourceDel(addr(S)); }},
                            {"PrunedRptSource", false, [](auto& g) { g.prunedRptSourceIs(addr(S)); },
                             [](auto& g) { g.prunedRptSourceDel(addr(S)); }}};

class SourceTest : public JoinPruneNeighborSmTest {
 protected:
  std::string groupLine(char const* prefix, std::string const& rest) const {
    return line(7, std::string(prefix) + "(239.1.1.1)::" + rest);
  }
};

TEST_F(SourceTest, ATriggeredOrOverrideSourceArmsItsTimerAndIsTracedAsSentWhenItGoes) {
  makeOwned();
  for (bool const isOverride : {false, true}) {
    char const* const kindOf = isOverride ? "Override" : "Triggered";
    auto const& data = isOverride ? o : t;
    for (Kind const& kind : sourceKinds) {
      SCOPED_TRACE(std::string(kindOf) + kind.name);
      auto const g = group(data, G);
      std::string const handler = std::string("handle") + kind.name;
      log.clear();
      kind.add(*g);
      EXPECT_THAT(log.take(),
                  ElementsAre(groupLine(kindOf, handler + "(10.9.0.1)"),
                              testing::StartsWith(line(7, std::string("doUpdate") + kindOf + "Timer(): "))));
      kind.del(*g);
      Lines expected = {groupLine(kindOf, handler + "(10.9.0.1)"),
                        groupLine(kindOf, handler + "(10.9.0.1), Sent")};
      if (isOverride || !kind.join)
        expected.push_back(groupLine(kindOf, handler + "(): Finished group 239.1.1.1"));
      expected.push_back(line(7, std::string("handle") + kindOf + "Group(10.0.0.2)"));
      expected.push_back(line(7, std::string("handle") + kindOf + "Group(10.0.0.2): Deleted"));
      EXPECT_EQ(log.take(), expected);
      EXPECT_FALSE(data->joinPruneGroupData(addr(G)));
      EXPECT_EQ(neighborSm->triggeredGroupDataCount() + neighborSm->overrideGroupDataCount(), 0u);
    }
  }
}

TEST_F(SourceTest, TheFirstOfTwoPrunesLeavesTheGroupWhereItIs) {
  makeOwned();
  auto const g = group(t, G);
  g->prunedSourceIs(addr(S));
  g->prunedSourceIs(addr("10.9.0.2"));
  log.clear();
  g->prunedSourceDel(addr(S));
  EXPECT_THAT(log.take(), ElementsAre(groupLine("Triggered", "handlePrunedSource(10.9.0.1)"),
                                      groupLine("Triggered", "handlePrunedSource(10.9.0.1), Sent")));
  EXPECT_TRUE(t->joinPruneGroupData(addr(G)));
}

TEST_F(SourceTest, AWildcardEntryArmsTheTimerWithoutALineOfItsOwnAndIsTracedAsSentWhenItGoes) {
  makeOwned();
  for (bool const isOverride : {false, true}) {
    char const* const kindOf = isOverride ? "Override" : "Triggered";
    auto const& data = isOverride ? o : t;
    auto const g = group(data, G);
    log.clear();
    g->wcSourceDataIs(wildcard("10.5.0.1"));
    EXPECT_THAT(
        log.takeWith(kindOf),
        ElementsAre(testing::StartsWith(line(7, std::string("doUpdate") + kindOf + "Timer(): Arming"))));
    g->wcSourceDataDel();
    EXPECT_THAT(log.take(),
                ElementsAre(groupLine(kindOf, "handleWcSource(*,G), Sent"),
                            groupLine(kindOf, "handleWcSource(): Finished group 239.1.1.1"),
                            line(7, std::string("handle") + kindOf + "Group(10.0.0.2)"),
                            line(7, std::string("handle") + kindOf + "Group(10.0.0.2): Deleted")));
  }
}

TEST_F(SourceTest, APeriodicSourceMovesTheCountByOneAndIsTracedWithTheMachinesTotal) {
  makeOwned();
  group(p, "239.1.1.2")->joinedSourceIs(addr(S));
  for (Kind const& kind : sourceKinds) {
    SCOPED_TRACE(kind.name);
    auto const g = group(p, G);
    std::string const handler = std::string("handle") + kind.name;
    log.clear();
    kind.add(*g);
    EXPECT_EQ(neighborSm->numPeriodicRoutes(), 2u);
    EXPECT_EQ(log.takeWith("Periodic("),
              Lines{groupLine("Periodic", handler + "(10.9.0.1), added, sources: 2")});
    kind.del(*g);
    EXPECT_EQ(neighborSm->numPeriodicRoutes(), 1u);
    Lines lines = log.take();
    std::erase_if(lines,
                  [](std::string const& l) { return l.find("[8] 0x") == 0; });  // the periodic machine's
    EXPECT_THAT(lines, ElementsAre(groupLine("Periodic", handler + "(10.9.0.1), Deleted"),
                                   line(8, "validateNumPeriodicRoutes(1)"),
                                   groupLine("Periodic", handler + "(): Deleted group 239.1.1.1"),
                                   line(7, "handlePeriodicGroup(10.0.0.2)"),
                                   line(7, "handlePeriodicGroup(10.0.0.2): Deleted")));
  }
}

TEST_F(SourceTest, APeriodicWildcardIsCountedOnceHoweverOftenItsRecordIsReplaced) {
  makeOwned();
  auto const g = group(p, G);
  log.clear();
  g->wcSourceDataIs(wildcard("10.5.0.1"));
  g->wcSourceDataIs(wildcard("10.5.0.2"));
  EXPECT_EQ(neighborSm->numPeriodicRoutes(), 1u);
  EXPECT_TRUE(neighborSm->periodicGroupData(addr(G))->wcSourceSet());
  EXPECT_THAT(log.takeWith("Periodic("),
              ElementsAre(groupLine("Periodic", "handleWcSource(10.5.0.1), added, sources: 1")));
  g->joinedSourceIs(addr(S));
  log.clear();
  g->wcSourceDataDel();
  EXPECT_EQ(neighborSm->numPeriodicRoutes(), 1u);
  EXPECT_FALSE(neighborSm->periodicGroupData(addr(G))->wcSourceSet());
  EXPECT_THAT(log.takeWith("Periodic("), ElementsAre(groupLine("Periodic", "handleWcSource(*,G), Deleted")));
}

TEST_F(SourceTest, AWildcardThatWasThereAtTheStartIsNotCountedAgainWhenItsRecordIsReplaced) {
  group(p, G)->wcSourceDataIs(wildcard("10.5.0.1"));
  make();  // without a parent, so that each count is validated
  EXPECT_EQ(neighborSm->numPeriodicRoutes(), 1u);
  auto const g = p->joinPruneGroupData(addr(G));
  g->wcSourceDataIs(wildcard("10.5.0.2"));
  EXPECT_EQ(neighborSm->numPeriodicRoutes(), 1u);
  g->wcSourceDataDel();
  EXPECT_EQ(neighborSm->numPeriodicRoutes(), 0u);
  EXPECT_EQ(p->joinPruneGroupDataCount(), 0u);
}

TEST_F(SourceTest, AWholeCollectionNotificationOfAPeriodicGroupIsOnlyTraced) {
  makeOwned();
  auto const g = group(p, G);
  g->joinedSourceIs(addr(S));
  auto const pending = group(t, G);
  log.clear();
  for (auto const& data : {g, pending}) {
    data->joinedSourceNotifyImmediate();
    data->prunedSourceNotifyImmediate();
    data->joinedRptSourceNotifyImmediate();
    data->prunedRptSourceNotifyImmediate();
  }
  EXPECT_THAT(log.take(), ElementsAre(groupLine("Periodic", "handleJoinedSource()"),
                                      groupLine("Periodic", "handlePrunedSource()"),
                                      groupLine("Periodic", "handleJoinedRptSource()"),
                                      groupLine("Periodic", "handlePrunedRptSource()")));
  EXPECT_EQ(neighborSm->numPeriodicRoutes(), 1u);
  log.levels({});
  g->joinedSourceNotifyImmediate();
  g->prunedSourceNotifyImmediate();
  g->joinedRptSourceNotifyImmediate();
  g->prunedRptSourceNotifyImmediate();
  EXPECT_THAT(log.take(), IsEmpty());
  EXPECT_EQ(neighborSm->numPeriodicRoutes(), 1u);
}

TEST_F(SourceTest, AReactorThatWatchesNothingPrintsTheDefaultAddress) {
  make();
  group(t, G);
  auto const reactor = neighborSm->triggeredGroupData(addr(G));
  using Data = JoinPruneNeighborSm::VelTriggeredGroupData const*;
  EXPECT_EQ(text(static_cast<Data>(reactor.get())), form() + "Triggered(239.1.1.1)::");
  reactor->notifierIs(nullptr);
  EXPECT_EQ(text(static_cast<Data>(reactor.get())), form() + "Triggered(unknown)::");
  reactor->joinPruneNeighborSmIs(nullptr);
  EXPECT_EQ(text(static_cast<Data>(reactor.get())), "nullTriggered(unknown)::");
}

TEST_F(SourceTest, AWholeDrainEndsAVanishedNeighborsMachineExactlyOnce) {
  pim->pimIntfIs(eth0);
  neighbor(N, eth0);
  start();
  auto const data = periodic(N);
  for (U32 g = 0; g < 1000; ++g)
    for (U32 s = 0; s < 10; ++s)
      data->joinPruneGroupDataIs(Dova::IpGenAddr::ipv4(0xef010000u + g))
          ->joinedSourceIs(Dova::IpGenAddr::ipv4(0x0a090000u + s));
  EXPECT_EQ(sm(N)->numPeriodicRoutes(), 10000u);
  pim->pimNeighborDel(addr(N));
  log.clear();
  log.levels({2, 8});
  for (auto g = data->joinPruneGroupDataIterator(); g; ++g)
    for (auto s = g->joinedSourceIterator(); s; ++s) g->joinedSourceDel(s);
  EXPECT_THAT(log.takeWith("doMaybeDeleteNeighbor"),
              ElementsAre("[8] JoinPruneMessageSm::doMaybeDeleteNeighbor(10.0.0.2)",
                          "[2] JoinPruneMessageSm::doMaybeDeleteNeighbor(10.0.0.2), deleting neighbor"));
  EXPECT_FALSE(sm(N));
}

TEST_F(SourceTest, DrainingOneNeighborDoesNotTouchAnother) {
  makeOwned();
  neighbor("10.0.0.3", eth0);
  group(p, G)->joinedSourceIs(addr(S));
  group(periodic("10.0.0.3"), G)->joinedSourceIs(addr(S));
  p->joinPruneGroupData(addr(G))->joinedSourceDel(addr(S));
  EXPECT_EQ(sm("10.0.0.3")->numPeriodicRoutes(), 1u);
  EXPECT_EQ(periodic("10.0.0.3")->joinPruneGroupDataCount(), 1u);
}

TEST_F(JoinPruneNeighborSmTest, AllGroupReactorsOfAChannelAreRemovedAtOnce) {
  make();
  for (char const* const g : {"239.1.1.1", "239.1.1.2"})
    for (auto const& data : {t, o, p}) group(data, g);
  auto const held = neighborSm->triggeredGroupData(addr("239.1.1.1"));
  neighborSm->triggeredGroupDataDelAll();
  EXPECT_EQ(neighborSm->triggeredGroupDataCount(), 0u);
  EXPECT_EQ(held->joinPruneNeighborSm(), nullptr);
  EXPECT_EQ(neighborSm->overrideGroupDataCount(), 2u);
  neighborSm->overrideGroupDataDelAll();
  neighborSm->periodicGroupDataDelAll();
  EXPECT_EQ(neighborSm->overrideGroupDataCount() + neighborSm->periodicGroupDataCount(), 0u);
  EXPECT_EQ(t->joinPruneGroupDataCount(), 2u);
}

TEST_F(JoinPruneNeighborSmTest, AsAZombieItHearsOfNothingAndItsPeriodicMachineNeither) {
  make();
  neighborSm->velDoZombieReactors(true);
  EXPECT_TRUE(neighborSm->joinPrunePeriodicTimerSm()->periodicTimer()->isZombie());
  group(t, "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  EXPECT_EQ(neighborSm->triggeredGroupDataCount(), 0u);
  EXPECT_FALSE(neighborSm->triggeredTimer()->armed());
  neighborSm->velDoZombieReactors(false);
  EXPECT_FALSE(neighborSm->joinPrunePeriodicTimerSm()->periodicTimer()->isZombie());
  group(t, "239.1.1.2")->joinedSourceIs(addr("10.9.0.1"));
  EXPECT_TRUE(neighborSm->triggeredTimer()->armed());
}

TEST_F(JoinPruneNeighborSmTest, AGroupThatIsThereAndFilledArmsTheTimerOrCounts) {
  auto const parent = start();
  make(parent.get());
  // A group that was filled before a reactor was told of it arms and counts nothing by itself.
  for (auto const& data : {t, p}) {
    data->newJoinPruneGroupData(addr("239.1.1.1"))->joinedSourceIs(addr("10.9.0.1"));
    data->joinPruneGroupDataNotify(addr("239.1.1.1"));
  }
  EXPECT_FALSE(neighborSm->triggeredTimer()->armed());
  EXPECT_EQ(neighborSm->numPeriodicRoutes(), 0u);
  neighborSm->handleTriggeredGroup(addr("239.1.1.1"));
  neighborSm->handlePeriodicGroup(addr("239.1.1.1"));
  EXPECT_TRUE(neighborSm->triggeredTimer()->armed());
  EXPECT_EQ(neighborSm->numPeriodicRoutes(), 1u);
  group(o, "239.1.1.2");
  neighborSm->handleOverrideGroup(addr("239.1.1.2"));
  EXPECT_FALSE(neighborSm->overrideTimer()->armed());
}

TEST_F(JoinPruneNeighborSmTest, WhatIsPendingIsTriedAgainIfItsExpiryFails) {
  U32 readings = 0;
  auto const clock = Vel::create<Zanth::TimerWheel>([&] {
    if (readings != 0 && --readings == 0) throw std::runtime_error("no time");
    return time;
  });
  manager->start();
  auto const made =
      joinPruneNeighborSmFactory(nullptr, addr(N), nullptr, eth0, t, o, p, clock, 2.5, manager, message);
  for (U32 failing = 1; failing <= 3; ++failing) {
    SCOPED_TRACE(failing);
    group(t, "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
    manager->perMessage = 0;
    time = made->triggeredTimer()->timeMin();
    readings = failing + 1;  // the first is the wheel's own
    clock->expire();
    EXPECT_TRUE(made->triggeredTimer()->armed());
    readings = 0;
  }
}

TEST_F(JoinPruneNeighborSmTest, WithoutInterfaceMessageAndManagerTheDatasHoldTimeStaysAndNothingIsLost) {
  auto const bare = joinPruneNeighborSmFactory(nullptr, addr(N), nullptr, nullptr, t, o, nullptr, wheel, 2.5,
                                               nullptr, nullptr);
  bare->joinPrunePeriodicTimerSmDel();
  for (auto const& data : {t, o}) {
    data->holdTimeIs(77);
    group(data, G)->joinedSourceIs(addr(S));
    EXPECT_EQ(data->holdTime(), 77);
  }
  log.clear();
  runUntil(time + 3);
  EXPECT_THAT(log.texts, testing::Contains(testing::HasSubstr("Suspending TX after 0 sources")));
  EXPECT_TRUE(bare->triggeredTimer()->armed());
  EXPECT_TRUE(bare->overrideTimer()->armed());
  EXPECT_TRUE(t->joinPruneGroupData(addr(G))->joinedSource(addr(S)));
  bare->hasNotificationActiveIs(false);
  EXPECT_FALSE(bare->hasNotificationActive());
}

TEST_F(JoinPruneNeighborSmTest, APeriodicMachineThatWasRemovedHasNoParentAndNoTimerAnyMore) {
  make();
  group(p, G)->joinedSourceIs(addr(S));
  auto const removed = neighborSm->joinPrunePeriodicTimerSm();
  ASSERT_TRUE(removed->periodicTimer()->armed());
  neighborSm->joinPrunePeriodicTimerSmDel();
  EXPECT_EQ(removed->parentSm(), nullptr);
  EXPECT_FALSE(removed->periodicTimer());
}

TEST_F(JoinPruneNeighborSmTest, ThePeriodicMachineIsMadeOnce) {
  make();
  class Counter final : public JoinPruneNeighborSm::NotifieeConst {
   public:
    void onJoinPrunePeriodicTimerSm() override { ++count; }
    int count = 0;
  };
  auto const counter = Vel::create<Counter>();
  counter->notifierIs(neighborSm);
  auto const present = neighborSm->joinPrunePeriodicTimerSm();
  auto const again = [&] {
    return neighborSm->joinPrunePeriodicTimerSmIs(wheel, neighborSm.get(), 0.5, p, eth0, manager, message);
  };
  EXPECT_TRUE(again() == present);
  EXPECT_EQ(counter->count, 0);
  neighborSm->joinPrunePeriodicTimerSmDel();
  auto const made = again();
  EXPECT_FALSE(made == present);
  EXPECT_TRUE(neighborSm->joinPrunePeriodicTimerSm() == made);
  EXPECT_EQ(made->loopQuantum(), 0.5);
  EXPECT_EQ(counter->count, 2);
}

TEST_F(JoinPruneNeighborSmTest, AGroupThatComesWhileMemoryIsShortIsTakenUpSoonAndOnlyOnce) {
  log.levels({});
  for (auto const which : {0, 1, 2}) {
    bool failed = true;
    for (std::size_t n = 1; failed; ++n) {
      SCOPED_TRACE("channel " + std::to_string(which) + ", request " + std::to_string(n));
      World w;
      auto const eth = w.intf("eth0", "10.0.0.1/24");
      w.neighbor(N, eth);
      w.start();
      auto const own = w.sm(N);
      Vel::Ptr<Packet::JoinPruneData> const sets[] = {w.triggered(N), w.override_(N), w.periodic(N)};
      auto const& data = sets[which];
      auto const before = group(w.periodic(N), "239.1.1.1");
      before->joinedSourceIs(addr(S));
      before->wcSourceDataIs(wildcard("10.5.0.1"));
      Dova::IpGenAddr const added = addr("239.1.1.2"), source = addr(S);
      auto const record = wildcard("10.5.0.2");
      {
        FailingHeap::Failure const failure(n);
        try {
          data->joinPruneGroupDataIs(added);
        } catch (std::bad_alloc const&) {
        }
        failed = failure.happened();
      }
      auto const g = data->joinPruneGroupDataIs(added);
      g->joinedSourceIs(source);
      g->wcSourceDataIs(record);
      w.runUntil(w.time + 0.25);
      // By now it is followed as if nothing had happened.
      EXPECT_EQ(own->numPeriodicRoutes(), which == 2 ? 4u : 2u);
      EXPECT_EQ(own->triggeredGroupDataCount(), 0u);
      EXPECT_EQ(own->overrideGroupDataCount(), which == 1 ? 1u : 0u);
      EXPECT_EQ(own->overrideTimer()->armed(), which == 1);
      EXPECT_EQ(own->periodicGroupDataCount(), which == 2 ? 2u : 1u);
      for (auto i = own->periodicGroupDataIterator(); i; ++i) EXPECT_TRUE(i->wcSourceSet());
      EXPECT_EQ(w.manager->sent.size(), which == 0 ? 2u : 0u);
      EXPECT_FALSE(own->triggeredTimer()->armed());
      w.runUntil(w.time + 5);
      EXPECT_EQ(w.manager->sent.size(), which == 2 ? 0u : 2u);
      // The record is replaced, which counts nothing, and everything is removed, which ends at 0.
      if (which == 2) {
        g->wcSourceDataIs(wildcard("10.5.0.3"));
        EXPECT_EQ(own->numPeriodicRoutes(), 4u);
        g->joinedSourceDel(source);
        g->wcSourceDataDel();
      }
      before->wcSourceDataIs(wildcard("10.5.0.3"));
      EXPECT_EQ(own->numPeriodicRoutes(), 2u);
      before->joinedSourceDel(addr(S));
      before->wcSourceDataDel();
      EXPECT_EQ(own->numPeriodicRoutes(), 0u);
      EXPECT_EQ(w.periodic(N)->joinPruneGroupDataCount(), 0u);
    }
  }
}

TEST_F(JoinPruneNeighborSmTest, WhatWasNotFollowedForWantOfMemoryIsCountedBeforeTheLastGroupGoes) {
  log.levels({});
  bool failed = true;
  for (std::size_t n = 1; failed; ++n) {
    SCOPED_TRACE(n);
    World w;
    auto const eth = w.intf("eth0", "10.0.0.1/24");
    w.neighbor(N, eth);
    w.start();
    auto const data = w.periodic(N);
    Dova::IpGenAddr const added = addr(G), source = addr(S);
    group(data, "239.1.1.9")->joinedSourceIs(source);
    {
      FailingHeap::Failure const failure(n);
      try {
        data->joinPruneGroupDataIs(added)->joinedSourceIs(source);
      } catch (std::bad_alloc const&) {
      }
      failed = failure.happened();
    }
    w.pim->pimNeighborDel(addr(N));
    ASSERT_TRUE(w.sm(N));
    // The groups are emptied and removed before any timer fires.
    for (auto const* const g : {G, "239.1.1.9"})
      if (auto const there = data->joinPruneGroupData(addr(g))) {
        there->joinedSourceDel(source);
        data->joinPruneGroupDataDel(addr(g));
      }
    EXPECT_FALSE(w.sm(N));
    EXPECT_EQ(w.sets(N), "-");
  }
}

TEST_F(JoinPruneNeighborSmTest, TimersAndThePeriodicMachineThatAreMadeWhileItIsSwitchedOffAreOffToo) {
  make();
  neighborSm->hasNotificationActiveIs(false);
  auto const other = Vel::create<Zanth::TimerWheel>([this] { return time; });
  neighborSm->triggeredTimerIs(other);
  neighborSm->overrideTimerIs(other);
  neighborSm->joinPrunePeriodicTimerSmDel();
  auto const periodicSm =
      neighborSm->joinPrunePeriodicTimerSmIs(other, neighborSm.get(), 0.1, p, eth0, manager, message);
  EXPECT_FALSE(neighborSm->triggeredTimer()->hasNotificationActive());
  EXPECT_FALSE(neighborSm->overrideTimer()->hasNotificationActive());
  EXPECT_FALSE(periodicSm->hasNotificationActive());
  EXPECT_FALSE(periodicSm->periodicTimer()->hasNotificationActive());
  for (auto const& data : {t, o, p}) data->newJoinPruneGroupData(addr(G));
  auto const g = t->joinPruneGroupData(addr(G));
  EXPECT_FALSE(neighborSm->triggeredGroupDataIs(g)->hasNotificationActive());
  EXPECT_FALSE(neighborSm->overrideGroupDataIs(o->joinPruneGroupData(addr(G)))->hasNotificationActive());
  EXPECT_FALSE(neighborSm->periodicGroupDataIs(p->joinPruneGroupData(addr(G)))->hasNotificationActive());
  neighborSm->hasNotificationActiveIs(true);
  EXPECT_TRUE(neighborSm->triggeredTimer()->hasNotificationActive());
  EXPECT_TRUE(neighborSm->overrideTimer()->hasNotificationActive());
  EXPECT_TRUE(periodicSm->periodicTimer()->hasNotificationActive());
  g->joinedSourceIs(addr(S));
  EXPECT_EQ(neighborSm->triggeredTimer()->timeMin(), time + 0.1);
  EXPECT_EQ(other->armedCount(), 1u);
  EXPECT_EQ(wheel->armedCount(), 0u);
}

TEST_F(JoinPruneNeighborSmTest, AGroupReactorThatIsSwitchedOffFollowsItsDataWithoutPassingAnythingOn) {
  make();
  group(p, "239.1.1.9");
  auto const poke = [&](auto const& reactor, Vel::Ptr<Packet::JoinPruneData> const& data) {
    reactor->hasNotificationActiveIs(false);
    data->newJoinPruneGroupData(addr(G));
    log.clear();
    reactor->onJoinPruneGroupData(addr(G));
    EXPECT_THAT(log.take(), IsEmpty());
    data->newJoinPruneGroupData(addr("239.1.1.2"));
    reactor->onJoinPruneGroupDatavelImmediate();
    EXPECT_THAT(log.take(), IsEmpty());
  };
  poke(neighborSm->triggeredGroup(), t);
  poke(neighborSm->overrideGroup(), o);
  poke(neighborSm->periodicGroup(), p);
  EXPECT_EQ(neighborSm->triggeredGroupDataCount(), 2u);
  EXPECT_EQ(neighborSm->overrideGroupDataCount(), 2u);
  EXPECT_EQ(neighborSm->periodicGroupDataCount(), 3u);
}

TEST_F(JoinPruneNeighborSmTest, AGroupReactorWhoseMachineIsRetiredWhileItFollowsPassesNothingOn) {
  class OnGroupData final : public JoinPruneNeighborSm::NotifieeConst {
   public:
    void onTriggeredGroupData(Dova::IpGenAddr) override { act(); }
    void onOverrideGroupData(Dova::IpGenAddr) override { act(); }
    void onPeriodicGroupData(Dova::IpGenAddr) override { act(); }
    std::function<void()> act;
  };
  for (auto const which : {0, 1, 2})
    for (bool const all : {false, true}) {
      World w;
      auto const eth = w.intf("eth0", "10.0.0.1/24");
      w.neighbor(N, eth);
      w.start();
      auto const own = w.sm(N);
      auto const watcher = Vel::create<OnGroupData>();
      watcher->notifierIs(own);
      watcher->act = [&] {
        if (w.sm(N)) w.machine->joinPruneNeighborSmDel(addr(N));
        log.clear();
      };
      Vel::Ptr<Packet::JoinPruneData> const sets[] = {w.triggered(N), w.override_(N), w.periodic(N)};
      if (all) {
        sets[which]->newJoinPruneGroupData(addr(G));
        sets[which]->joinPruneGroupDataNotifyImmediate();
      } else {
        group(sets[which], G);
      }
      EXPECT_FALSE(w.sm(N));
      EXPECT_THAT(log.take(), IsEmpty()) << which << all;
    }
}

TEST_F(SourceTest, AWildcardThatGoesAndComesBackIsCountedAgain) {
  make();  // without a parent, so that each count is validated
  auto const g = group(p, G);
  g->joinedSourceIs(addr(S));
  for (int i = 0; i < 2; ++i) {
    g->wcSourceDataIs(wildcard("10.5.0.1"));
    EXPECT_EQ(neighborSm->numPeriodicRoutes(), 2u);
    EXPECT_TRUE(neighborSm->periodicGroupData(addr(G))->wcSourceSet());
    g->wcSourceDataDel();
    EXPECT_EQ(neighborSm->numPeriodicRoutes(), 1u);
    EXPECT_FALSE(neighborSm->periodicGroupData(addr(G))->wcSourceSet());
  }
}

TEST_F(SourceTest, AWildcardIsMarkedAsCountedBeforeAnybodyHearsOfTheCount) {
  makeOwned();
  auto const g = group(p, G);
  class Replacer final : public JoinPruneNeighborSm::NotifieeConst {
   public:
    void onNumPeriodicRoutes() override { act(); }
    std::function<void()> act;
  };
  auto const replacer = Vel::create<Replacer>();
  bool once = false;
  replacer->act = [&] {
    if (!std::exchange(once, true)) g->wcSourceDataIs(wildcard("10.5.0.9"));
  };
  replacer->notifierIs(neighborSm);
  g->wcSourceDataIs(wildcard("10.5.0.1"));
  EXPECT_TRUE(once);
  EXPECT_EQ(neighborSm->numPeriodicRoutes(), 1u);
}

TEST_F(SourceTest, AtTheStartOnlyTheGroupsThatHaveAWildcardAreMarkedAsCounted) {
  constexpr int groups = 200;
  auto const name = [](int i) { return "239.1." + std::to_string(i / 100) + "." + std::to_string(i % 100); };
  for (int i = 0; i < groups; ++i) {
    group(p, name(i))->joinedSourceIs(addr(S));
    if (i % 3 == 0) group(p, name(i))->wcSourceDataIs(wildcard("10.5.0.1"));
  }
  make();
  EXPECT_EQ(neighborSm->numPeriodicRoutes(), 267u);
  for (int i = 0; i < groups; ++i)
    EXPECT_EQ(neighborSm->periodicGroupData(addr(name(i)))->wcSourceSet(), i % 3 == 0) << i;
}

// --- Switched off and retired, reactor by reactor

/// What is done to a machine, and the way back.
struct Silence {
  char const* name;
  void (*on)(Vel::Machine& machine);
  void (*off)(Vel::Machine& machine);
};
constexpr Silence silences[] = {
    {"SwitchedOff", [](Vel::Machine& machine) { machine.hasNotificationActiveIs(false); },
     [](Vel::Machine& machine) { machine.hasNotificationActiveIs(true); }},
    {"Retired", [](Vel::Machine& machine) { machine.velDoZombieReactors(true); },
     [](Vel::Machine& machine) { machine.velDoZombieReactors(false); }}};

/// Each nested reactor, by what it alone reacts to.
enum class Nested {
  triggeredGroup,
  overrideGroup,
  periodicGroup,
  triggeredGroupData,
  overrideGroupData,
  periodicGroupData,
  triggeredTimer,
  overrideTimer,
  periodicTimer
};
constexpr std::pair<char const*, char const*> nestedReactors[] = {
    {"TriggeredGroup", "handleTriggeredGroup("},
    {"OverrideGroup", "handleOverrideGroup("},
    {"PeriodicGroup", "handlePeriodicGroup("},
    {"TriggeredGroupData", "Triggered(239.1.1.1)::handleJoinedSource("},
    {"OverrideGroupData", "Override(239.1.1.1)::handleJoinedSource("},
    {"PeriodicGroupData", "Periodic(239.1.1.1)::handleJoinedSource("},
    {"TriggeredTimer", "handleTriggeredTimerExpiry()"},
    {"OverrideTimer", "handleOverrideTimerExpiry()"},
    {"PeriodicTimer", "handlePeriodicTimerExpiry()"}};

class NestedReactorTest : public JoinPruneNeighborSmTest,
                          public testing::WithParamInterface<std::tuple<Silence, Nested>> {
 protected:
  NestedReactorTest() {
    makeOwned();
    for (auto const& data : {t, o, p}) group(data, G)->joinedSourceIs(addr(S));
  }

  /// Gives the reactor something to react to.
  void provoke(Nested nested) {
    auto const next = Dova::IpGenAddr::ipv4(0xef020000u + ++provoked_);
    switch (nested) {
      case Nested::triggeredGroup:
        t->joinPruneGroupDataIs(next);
        break;
      case Nested::overrideGroup:
        o->joinPruneGroupDataIs(next);
        break;
      case Nested::periodicGroup:
        p->joinPruneGroupDataIs(next);
        break;
      case Nested::triggeredGroupData:
        group(t, G)->joinedSourceIs(Dova::IpGenAddr::ipv4(0x0a0a0000u + provoked_));
        break;
      case Nested::overrideGroupData:
        group(o, G)->joinedSourceIs(Dova::IpGenAddr::ipv4(0x0a0a0000u + provoked_));
        break;
      case Nested::periodicGroupData:
        group(p, G)->joinedSourceIs(Dova::IpGenAddr::ipv4(0x0a0a0000u + provoked_));
        break;
      case Nested::triggeredTimer:
        neighborSm->triggeredTimer()->timeMinIs(time + 1);
        runUntil(time + 2);
        break;
      case Nested::overrideTimer:
        neighborSm->overrideTimer()->timeMinIs(time + 1);
        runUntil(time + 2);
        break;
      case Nested::periodicTimer:
        neighborSm->joinPrunePeriodicTimerSm()->periodicTimer()->timeMinIs(time + 1);
        runUntil(time + 2);
        break;
    }
  }
  bool reacts(Nested nested) {
    log.clear();
    provoke(nested);
    return !log.takeWith(nestedReactors[static_cast<std::size_t>(nested)].second).empty();
  }

 private:
  U32 provoked_ = 0;
};

TEST_P(NestedReactorTest, ItIsDeafUntilTheMachineIsBack) {
  auto const& [silence, nested] = GetParam();
  ASSERT_TRUE(reacts(nested));
  silence.on(*neighborSm);
  EXPECT_FALSE(reacts(nested));
  silence.off(*neighborSm);
  EXPECT_TRUE(reacts(nested));
}

INSTANTIATE_TEST_SUITE_P(All, NestedReactorTest,
                         testing::Combine(testing::ValuesIn(silences),
                                          testing::Values(Nested::triggeredGroup, Nested::overrideGroup,
                                                          Nested::periodicGroup, Nested::triggeredGroupData,
                                                          Nested::overrideGroupData,
                                                          Nested::periodicGroupData, Nested::triggeredTimer,
                                                          Nested::overrideTimer, Nested::periodicTimer)),
                         [](auto const& tested) {
                           return std::string(std::get<0>(tested.param).name) +
                                  nestedReactors[static_cast<std::size_t>(std::get<1>(tested.param))].first;
                         });

TEST_F(JoinPruneNeighborSmTest, ReactorsWithoutCallbacksAreSwitchedOffAndRetiredWithTheOthers) {
  makeOwned();
  auto const isSilent = [this](bool silent) {
    for (Vel::Reactor const* const reactor :
         {static_cast<Vel::Reactor const*>(neighborSm->timerWheel().get()),
          static_cast<Vel::Reactor const*>(neighborSm->pimPamManager().get())})
      EXPECT_EQ(reactor->hasNotificationActive(), !silent);
  };
  neighborSm->hasNotificationActiveIs(false);
  isSilent(true);
  neighborSm->hasNotificationActiveIs(true);
  isSilent(false);
  neighborSm->velDoZombieReactors(true);
  EXPECT_TRUE(neighborSm->timerWheel()->isZombie());
  EXPECT_TRUE(neighborSm->pimPamManager()->isZombie());
  isSilent(true);
  neighborSm->velDoZombieReactors(false);
  isSilent(false);
}

TEST_F(JoinPruneNeighborSmTest, SourcesThatChangeWhileItIsSwitchedOffAreMissedAndLaterOnesAreSeen) {
  makeOwned();
  for (auto const& data : {t, o, p}) group(data, G)->joinedSourceIs(addr(S));
  EXPECT_EQ(neighborSm->numPeriodicRoutes(), 1u);
  log.clear();
  neighborSm->hasNotificationActiveIs(false);
  for (auto const& data : {t, o, p}) {
    group(data, G)->joinedSourceIs(addr("10.9.0.2"));
    group(data, G)->prunedSourceIs(addr("10.9.0.3"));
    group(data, G)->wcSourceDataIs(wildcard("10.5.0.1"));
    group(data, G)->joinedSourceDel(addr("10.9.0.2"));
  }
  EXPECT_THAT(log.take(), IsEmpty());
  EXPECT_EQ(neighborSm->numPeriodicRoutes(), 1u);
  neighborSm->hasNotificationActiveIs(true);
  EXPECT_EQ(neighborSm->numPeriodicRoutes(), 1u);
  log.clear();
  for (auto const& data : {t, o, p}) group(data, G)->joinedRptSourceIs(addr("10.9.0.4"));
  auto const lines = log.take();
  for (auto const* const reactor : {"Triggered(", "Override(", "Periodic("})
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [reactor](auto const& line) {
                              return line.find(reactor + std::string(G) +
                                               ")::handleJoinedRptSource(10.9.0.4)") != line.npos;
                            }),
              1)
        << reactor;
  EXPECT_EQ(neighborSm->numPeriodicRoutes(), 2u);
}

TEST_F(JoinPruneNeighborSmTest, GroupsThatComeWhileItIsSwitchedOffHaveNoReactorAndLaterOnesHave) {
  makeOwned();
  neighborSm->hasNotificationActiveIs(false);
  for (auto const& data : {t, o, p}) group(data, "239.1.1.2")->joinedSourceIs(addr(S));
  neighborSm->hasNotificationActiveIs(true);
  for (auto const* const collection : {"triggeredGroupData", "overrideGroupData", "periodicGroupData"})
    EXPECT_EQ(neighborSm->attribute(collection), "") << collection;
  log.clear();
  for (auto const& data : {t, o, p}) group(data, "239.1.1.2")->joinedSourceIs(addr("10.9.0.2"));
  EXPECT_THAT(log.take(), IsEmpty());
  EXPECT_EQ(neighborSm->numPeriodicRoutes(), 0u);
  for (auto const& data : {t, o, p}) group(data, "239.1.1.3")->joinedSourceIs(addr(S));
  for (auto const* const collection : {"triggeredGroupData", "overrideGroupData", "periodicGroupData"})
    EXPECT_EQ(neighborSm->attribute(collection), "239.1.1.3") << collection;
  EXPECT_EQ(neighborSm->numPeriodicRoutes(), 1u);
  // Until the collection as a whole is said to have changed.
  t->joinPruneGroupDataNotifyImmediate();
  EXPECT_EQ(neighborSm->triggeredGroupDataCount(), 2u);
}

TEST_F(JoinPruneNeighborSmTest, ASourceThatComesOnceItIsSwitchedOnAgainArmsTheTimer) {
  makeOwned();
  for (auto const& data : {t, o, p}) group(data, G);
  neighborSm->hasNotificationActiveIs(false);
  neighborSm->hasNotificationActiveIs(true);
  EXPECT_EQ(wheel->armedCount(), 0u);
  group(t, G)->joinedSourceIs(addr(S));
  EXPECT_EQ(neighborSm->triggeredTimer()->timeMin(), time + 0.1);
  group(o, G)->joinedSourceIs(addr(S));
  EXPECT_TRUE(neighborSm->overrideTimer()->armed());
  group(p, G)->joinedSourceIs(addr(S));
  EXPECT_EQ(neighborSm->joinPrunePeriodicTimerSm()->periodicTimer()->timeMin(), time + 60);
  manager->perMessage = 1;
  runUntil(time + 61);
  EXPECT_THAT(manager->sent, testing::SizeIs(3));
}

}  // namespace
}  // namespace Routing::Pim
