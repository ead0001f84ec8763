// SPDX-License-Identifier: Apache-2.0
#include <cmath>
#include <cstring>

#include "tests/pim/joinprune/OnMessageData.h"

namespace Routing::Pim {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using Report = Packet::JoinPruneMessage::Report;

class JoinPrunePeriodicTimerSmTest : public testing::Test, protected World {
 protected:
  JoinPrunePeriodicTimerSmTest() {
    neighbor(N, eth0);
    start();
    periodicSm = sm(N)->joinPrunePeriodicTimerSm();
    log.clear();
  }
  static Dova::IpGenAddr source(U32 i) { return Dova::IpGenAddr::ipv4(0x0a090000u + i); }
  void addRoutes(U32 count) {
    auto const g = group(periodic(N), "239.1.1.1");
    for (U32 i = 1; i <= count; ++i) g->joinedSourceIs(source(i));
  }
  void delRoutes(U32 from, U32 to) {
    auto const g = group(periodic(N), "239.1.1.1");
    for (U32 i = from; i <= to; ++i) g->joinedSourceDel(source(i));
  }
  Seconds timeMin() const { return periodicSm->periodicTimer()->timeMin(); }
  void fire() {
    time = timeMin();
    wheel->expire();
  }
  // An expiry during which the machine is retired when its clock is read for the `which`th time, which takes
  // long.
  void expireAndRetireAtReading(int which) {
    addRoutes(10);
    manager->perMessage = 1;
    machine->txMessage()->joinPruneDataIs(nullptr);
    int readings = -1000;
    auto const clock = Vel::create<Zanth::TimerWheel>([&] {
      if (++readings == which) {
        machine->joinPruneNeighborSmDel(addr(N));
        time += 1;
        log.clear();
      }
      return time;
    });
    periodicSm->periodicTimerIs(clock);
    readings = 0;
    periodicSm->handlePeriodicTimerExpiry();
    EXPECT_GE(readings, which);
    EXPECT_THAT(log.take(), IsEmpty());
  }
  std::string line(int level, std::string const& rest) const {
    std::ostringstream os;
    os << "[" << level << "] " << static_cast<void const*>(periodicSm.get()) << rest;
    return os.str();
  }

  Vel::Ptr<Intf> eth0 = intf("eth0", "10.0.0.1/24");
  TraceLog log;
  Vel::Ptr<JoinPrunePeriodicTimerSm> periodicSm;
};

TEST_F(JoinPrunePeriodicTimerSmTest, TheFirstRouteArmsTheTimerAndFurtherOnesDoNotMoveIt) {
  Seconds const start = time;
  addRoutes(1);
  EXPECT_EQ(timeMin(), start + 60);
  for (int i = 0; i < 1000; ++i) {
    time = start + 59.0 * i / 1000;
    auto const g = group(periodic(N), "239.1.1.2");
    g->joinedSourceIs(source(1));
    g->joinedSourceDel(source(1));
  }
  EXPECT_EQ(timeMin(), start + 60);
  runUntil(start + 60);
  EXPECT_GT(manager->messages, 0u);
}

TEST_F(JoinPrunePeriodicTimerSmTest, AnExpiryWritesTheInterfacesHoldTimeBeforeTheFirstMessage) {
  addRoutes(1);
  manager->perMessage = 1;
  eth0->joinPruneHoldTimeIs(105);
  fire();
  EXPECT_THAT(manager->sent, ElementsAre("eth0 to 10.0.0.2: (10.9.0.1,239.1.1.1) join, hold 105"));
}

TEST_F(JoinPrunePeriodicTimerSmTest, ASliceTakesAsManyMessagesAsItsRoutesNeed) {
  addRoutes(10);
  manager->perMessage = 4;
  log.clear();
  fire();
  EXPECT_EQ(manager->messages, 3u);
  Lines const lines = log.take();
  EXPECT_THAT(lines, Contains(line(7, "handlePeriodicTimerExpiry(): Finished TX")));
  EXPECT_EQ(timeMin(), time + 60);
  EXPECT_EQ(periodicSm->periodicParams(), (PeriodicTimerSm::PeriodicParams{60, 10}));
}

TEST_F(JoinPrunePeriodicTimerSmTest, AnExpiryIsTracedStepByStep) {
  addRoutes(1);
  log.clear();
  fire();
  EXPECT_THAT(log.take(), ElementsAre(line(8, "doResetHoldTime()"), line(8, "handlePeriodicTimerExpiry()"),
                                      line(7, "handlePeriodicTimerExpiry(): Finished TX"),
                                      line(8, "interval()"), line(8, "numberOfMessages()")));
  periodicSm->holdTime();
  EXPECT_THAT(log.take(), ElementsAre(line(8, "holdTime()")));
}

TEST_F(JoinPrunePeriodicTimerSmTest, WithoutRoutesAnExpirySendsNothingAndTheTimerStaysIdle) {
  addRoutes(1);
  delRoutes(1, 1);
  log.clear();
  fire();
  EXPECT_EQ(manager->messages, 0u);
  EXPECT_THAT(log.take(), Contains(line(7, "handlePeriodicTimerExpiry(): Finished TX")));
  EXPECT_EQ(timeMin(), Vel::never);
}

TEST_F(JoinPrunePeriodicTimerSmTest, AFirstStepWithoutProgressIsTracedAndEndsTheSlice) {
  addRoutes(5);
  manager->instead = [](Report&) { return true; };
  log.clear();
  fire();
  EXPECT_THAT(
      log.takeWith("TX"),
      ElementsAre(line(7,
                       "handlePeriodicTimerExpiry(): Suspending TX after 0 groups, 0 sources, 0 suppressed "
                       "sources, 0 filtered sources"),
                  line(7, "handlePeriodicTimerExpiry(): Finished TX")));
  EXPECT_EQ(timeMin(), time + 60);
}

TEST_F(JoinPrunePeriodicTimerSmTest, ASpentQuantumIsTracedWithTheStepsBeforeItAndTheSliceGoesOnSoon) {
  addRoutes(100);
  manager->instead = [&](Report& report) {
    report = {4, 3, 2};
    if (manager->messages == 3) time += 0.1;
    return true;
  };
  log.clear();
  fire();
  EXPECT_EQ(manager->messages, 3u);
  EXPECT_THAT(
      log.takeWith("TX"),
      ElementsAre(line(7,
                       "handlePeriodicTimerExpiry(): Suspending TX after 18 groups, 4 sources, 3 suppressed "
                       "sources, 2 filtered sources")));
  EXPECT_DOUBLE_EQ(timeMin(), time + 0.1);
}

TEST_F(JoinPrunePeriodicTimerSmTest, AStepThatEndsAtTheVeryDeadlineIsTheLast) {
  addRoutes(100);
  Seconds const quantum = periodicSm->loopQuantum();
  for (bool const meets : {false, true}) {
    SCOPED_TRACE(meets);
    manager->instead = [&](Report& report) {
      report = {10, 0, 0};
      if (manager->messages == 2) {
        Seconds const deadline = time + quantum;
        time = meets ? deadline : std::nextafter(deadline, 0);
      }
      return true;
    };
    manager->messages = 0;
    fire();
    EXPECT_EQ(manager->messages, meets ? 2u : 10u);
  }
}

TEST_F(JoinPrunePeriodicTimerSmTest, WhatAManagerReportsIsAddedUpBeyondThirtyTwoBits) {
  addRoutes(5);
  constexpr U32 most = ~U32{0};
  // Added up in 32 bits these would be nothing, and the step one without progress.
  manager->instead = [&](Report& report) {
    report = {1, most, 0};
    return true;
  };
  fire();
  EXPECT_EQ(manager->messages, 1u);
  EXPECT_THAT(log.takeWith("TX"), ElementsAre(line(7, "handlePeriodicTimerExpiry(): Finished TX")));
  manager->instead = [&](Report& report) {
    report = {0, most, 1};
    return true;
  };
  fire();
  EXPECT_EQ(manager->messages, 2u);
  EXPECT_THAT(log.takeWith("TX"), ElementsAre(line(7, "handlePeriodicTimerExpiry(): Finished TX")));
  // Nor does the sum over the steps of one expiry wrap.
  periodicSm->periodicParamsIs({60, most});
  manager->instead = [&](Report& report) {
    report = {most - 1, 0, 0};
    return true;
  };
  manager->messages = 0;
  periodicSm->handlePeriodicTimerExpiry();
  EXPECT_EQ(manager->messages, 2u);
}

TEST_F(JoinPrunePeriodicTimerSmTest, SuppressedSourcesCountAsProgress) {
  addRoutes(10);
  manager->instead = [](Report& report) {
    report = {0, 5, 0};
    return true;
  };
  fire();
  EXPECT_EQ(manager->messages, 2u);
}

TEST_F(JoinPrunePeriodicTimerSmTest, ASliceThatIsCutShortEndsAfterItsRoutesAndThenWaitsForTheInterval) {
  addRoutes(100);
  Seconds const first = timeMin();
  manager->perMessage = 10;
  manager->after = [&](PacketManager& m) {
    if (m.messages % 2 == 0) time += 0.1;  // two messages in each quantum
  };
  while (manager->messages == 0 || timeMin() < first + 59) fire();
  EXPECT_EQ(timeMin(), first + 60);
  EXPECT_EQ(manager->messages, 10u);
  // The next slice is a whole one again.
  manager->after = nullptr;
  U32 const before = manager->messages;
  fire();
  EXPECT_EQ(manager->messages - before, 10u);
}

TEST_F(JoinPrunePeriodicTimerSmTest, ChangesBetweenThePartsOfASliceNeitherRestartNorPostponeIt) {
  addRoutes(100);
  Seconds const first = timeMin();
  manager->perMessage = 30;
  manager->after = [&](PacketManager& m) {
    if (m.messages == 2) time += 0.1;
  };
  fire();  // 60 routes, the message that met the deadline included
  Seconds const next = timeMin();
  EXPECT_DOUBLE_EQ(next, time + 0.1);
  time += 0.05;
  auto const g = group(periodic(N), "239.1.1.2");
  for (U32 i = 1; i <= 50; ++i) g->joinedSourceIs(source(i));
  EXPECT_EQ(timeMin(), next);
  EXPECT_EQ(periodicSm->periodicParams().routes, 150u);
  fire();  // the other 40, not 150
  EXPECT_EQ(manager->messages, 2u + 2u);
  EXPECT_EQ(timeMin(), first + 60);
}

TEST_F(JoinPrunePeriodicTimerSmTest, ARouteThatChangesInsideASendArmsNothing) {
  addRoutes(10);
  manager->before = [&](PacketManager&) {
    group(periodic(N), "239.1.1.2")->joinedSourceIs(source(1));
    EXPECT_EQ(timeMin(), Vel::never);
  };
  fire();
  EXPECT_EQ(timeMin(), time + 60);
}

TEST_F(JoinPrunePeriodicTimerSmTest, ASliceWhoseLastMessageMetTheDeadlineOnlyEnds) {
  addRoutes(20);
  Seconds const first = timeMin();
  manager->perMessage = 10;
  manager->after = [&](PacketManager& m) {
    if (m.messages == 2) time += 0.1;
  };
  fire();
  EXPECT_EQ(manager->messages, 2u);
  fire();
  EXPECT_EQ(manager->messages, 2u);
  EXPECT_EQ(timeMin(), first + 60);
}

TEST_F(JoinPrunePeriodicTimerSmTest, ARouteThatChangesWhileTheHoldTimeIsWrittenArmsNothing) {
  class Hook final : public Packet::JoinPruneData::NotifieeConst {
   public:
    explicit Hook(std::function<void()> act) : act_(std::move(act)) {}
    void onHoldTime() override { act_(); }

   private:
    std::function<void()> act_;
  };
  addRoutes(100);
  Seconds const first = timeMin();
  auto const hook = Vel::create<Hook>([&] { group(periodic(N), "239.1.1.2")->joinedSourceIs(source(1)); });
  hook->notifierIs(periodic(N));
  manager->perMessage = 50;
  manager->after = [&](PacketManager& m) {
    if (m.messages == 2) time += 0.1;
  };
  fire();
  EXPECT_EQ(manager->messages, 2u);
  EXPECT_DOUBLE_EQ(timeMin(), time + 0.1);
  fire();
  EXPECT_EQ(timeMin(), first + 60);
}

TEST_F(JoinPrunePeriodicTimerSmTest, ManyRoutesAreSpreadOverTheInterval) {
  log.levels({});
  Seconds const begin = time;
  addRoutes(3000);
  EXPECT_EQ(periodicSm->periodicParams(), (PeriodicTimerSm::PeriodicParams{20, 1000}));
  // The timer was armed when there was one route; from then on a slice every 20 s.
  std::vector<std::pair<Seconds, std::size_t>> slices;
  manager->after = [&](PacketManager& m) { slices.emplace_back(time - begin, m.sent.size()); };
  runUntil(begin + 110);
  EXPECT_THAT(slices,
              ElementsAre(testing::Pair(60, 1000), testing::Pair(80, 2000), testing::Pair(100, 3000)));
}

TEST_F(JoinPrunePeriodicTimerSmTest, EveryRouteIsRefreshedInEachIntervalAndTheDataIsNotEmptied) {
  log.levels({});
  addRoutes(10);
  manager->perMessage = 4;
  runUntil(time + 125);
  std::map<std::string, int> seen;
  for (auto const& sent : manager->sent) ++seen[sent];
  EXPECT_EQ(seen.size(), 10u);
  for (auto const& [sent, count] : seen) EXPECT_GE(count, 2) << sent;
  EXPECT_EQ(periodic(N)->joinPruneGroupData(addr("239.1.1.1"))->joinedSourceCount(), 10u);
}

TEST_F(JoinPrunePeriodicTimerSmTest, AChangeOfTheIntervalAppliesToTheNextArming) {
  addRoutes(1);
  Seconds const first = timeMin();
  eth0->joinPruneIntervalIs(30);
  EXPECT_EQ(timeMin(), first);
  fire();
  EXPECT_EQ(timeMin(), first + 30);
}

TEST_F(JoinPrunePeriodicTimerSmTest, AnExpiryBeforeInitializationTouchesNoTimer) {
  addRoutes(1);
  periodicSm->initializedIs(false);
  log.clear();
  fire();
  EXPECT_EQ(manager->messages, 0u);
  EXPECT_EQ(timeMin(), Vel::never);
  EXPECT_THAT(log.take(), ElementsAre(line(8, "doResetHoldTime()"), line(8, "handlePeriodicTimerExpiry()")));
}

TEST_F(JoinPrunePeriodicTimerSmTest, AnExpiryWithNothingToSendPointsTheTransmitRecordAtItsDataAllTheSame) {
  auto const message = machine->txMessage();
  manager->txMessageInfo()->joinPruneMessageIs(nullptr);
  message->joinPruneDataIs(nullptr);
  periodicSm->handlePeriodicTimerExpiry();
  EXPECT_TRUE(manager->txMessageInfo()->joinPruneMessage() == message);
  EXPECT_TRUE(message->joinPruneData() == periodic(N));
  EXPECT_EQ(manager->txMessageInfo()->intfId(), Dova::IntfId("eth0"));
  EXPECT_EQ(manager->messages, 0u);
}

TEST_F(JoinPrunePeriodicTimerSmTest, AMachineThatIsRetiredWhileTheRecordIsPointedAtItsDataSaysNothingMore) {
  machine->txMessage()->joinPruneDataIs(nullptr);
  auto const hook = Vel::create<OnMessageData>(machine->txMessage(), [&] {
    machine->joinPruneNeighborSmDel(addr(N));
    log.clear();
  });
  periodicSm->handlePeriodicTimerExpiry();
  EXPECT_FALSE(sm(N));
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(JoinPrunePeriodicTimerSmTest, AMachineThatIsRetiredWhileItReadsTheTimeAtTheBeginningSendsNothing) {
  expireAndRetireAtReading(1);
  EXPECT_FALSE(machine->txMessage()->joinPruneData());
  EXPECT_EQ(manager->messages, 0u);
}

TEST_F(JoinPrunePeriodicTimerSmTest, AMachineThatIsRetiredWhileItReadsTheTimeAfterAMessageSaysNothingMore) {
  expireAndRetireAtReading(2);
  EXPECT_EQ(manager->messages, 1u);
}

TEST_F(JoinPrunePeriodicTimerSmTest, AMachineThatIsRetiredInsideTheSendSaysNothingMore) {
  addRoutes(10);
  manager->perMessage = 1;
  manager->before = [&](PacketManager&) {
    machine->joinPruneNeighborSmDel(addr(N));
    log.clear();
  };
  fire();
  EXPECT_EQ(manager->messages, 1u);
  EXPECT_THAT(log.take(), IsEmpty());
  EXPECT_EQ(wheel->armedCount(), 0u);
}

TEST_F(JoinPrunePeriodicTimerSmTest, TheHoldTimeIsWrittenIfThereAreBothAnInterfaceAndData) {
  auto const data = Vel::create<Packet::JoinPruneData>(addr(N));
  data->holdTimeIs(77);
  eth0->joinPruneHoldTimeIs(105);
  auto const make = [&](Vel::Ptr<Packet::JoinPruneData> const& on, Vel::Ptr<Intf const> const& towards) {
    return joinPrunePeriodicTimerSmFactory(wheel, nullptr, 0.1, on, towards, manager, nullptr);
  };
  make(data, nullptr)->doResetHoldTime();
  EXPECT_EQ(data->holdTime(), 77);
  make(nullptr, eth0)->doResetHoldTime();
  make(data, eth0)->doResetHoldTime();
  EXPECT_EQ(data->holdTime(), 105);
}

TEST_F(JoinPrunePeriodicTimerSmTest, AManagerMayTakeTheWorldDownFromInsideTheRefresh) {
  struct Row {
    char const* name;
    std::function<void(World&)> act;
    U32 messages;
  };
  Row const rows[] = {
      {"machine", [](World& w) { w.machine = nullptr; }, 1},
      {"neighbor machine", [](World& w) { w.machine->joinPruneNeighborSmDel(addr(N)); }, 1},
      {"drained neighbor",
       [](World& w) {
         w.pim->pimNeighborDel(addr(N));
         w.periodic(N)->joinPruneGroupData(addr("239.1.1.1"))->joinedSourceDelAll();
       },
       1},
      {"drained data",
       [](World& w) { w.periodic(N)->joinPruneGroupData(addr("239.1.1.1"))->joinedSourceDelAll(); }, 1},
      {"status",
       [](World& w) {
         w.pim = nullptr;
         w.status = nullptr;
         w.machine = nullptr;
         w.wheel = nullptr;
       },
       1}};
  for (Row const& row : rows) {
    SCOPED_TRACE(row.name);
    World w;
    w.neighbor(N, w.intf("eth0", "10.0.0.1/24"));
    w.start();
    for (U32 i = 1; i <= 10; ++i) group(w.periodic(N), "239.1.1.1")->joinedSourceIs(source(i));
    w.manager->perMessage = 2;
    auto const wheelHeld = w.wheel;
    bool once = false;
    w.manager->before = [&](PacketManager&) {
      if (!std::exchange(once, true)) row.act(w);
    };
    w.time += 60;
    wheelHeld->expire();
    EXPECT_EQ(w.manager->messages, row.messages);
    w.manager->before = nullptr;
    w.manager->stop();
  }
}

TEST_F(JoinPrunePeriodicTimerSmTest, ItsFactoryTakesFourReferencesAndItsEndGivesThemBack) {
  auto const data = Vel::create<Packet::JoinPruneData>(addr(N));
  auto const message = Vel::create<Packet::JoinPruneMessage>();
  U32 const intfBefore = eth0->references(), managerBefore = manager->references(),
            wheelBefore = wheel->references();
  auto made = joinPrunePeriodicTimerSmFactory(wheel, nullptr, 0.1, data, eth0, manager, message);
  EXPECT_TRUE(made->initialized());
  EXPECT_TRUE(made->hasNotificationActive());
  EXPECT_EQ(made->references(), 1u);
  EXPECT_EQ(data->references(), 2u);
  EXPECT_EQ(message->references(), 2u);
  EXPECT_EQ(eth0->references(), intfBefore + 1);
  EXPECT_EQ(manager->references(), managerBefore + 1);
  EXPECT_EQ(wheel->references(), wheelBefore + 1);
  made = nullptr;
  EXPECT_EQ(data->references(), 1u);
  EXPECT_EQ(message->references(), 1u);
  EXPECT_EQ(eth0->references(), intfBefore);
  EXPECT_EQ(manager->references(), managerBefore);
  EXPECT_EQ(wheel->references(), wheelBefore);
}

TEST_F(JoinPrunePeriodicTimerSmTest, ItsCachedValuesCanBeSetAndWatchedAndAreNotWhatItComputes) {
  class Watcher final : public JoinPrunePeriodicTimerSm::NotifieeConst {
   public:
    void onInterval() override { ++calls; }
    void onHoldTime() override { ++calls; }
    void onNumberOfMessages() override { ++calls; }
    int calls = 0;
  };
  class BaseWatcher final : public PeriodicTimerSm::NotifieeConst {
   public:
    void onPeriodicParams() override { ++calls; }
    int calls = 0;
  };
  auto const watcher = Vel::create<Watcher>();
  watcher->notifierIs(periodicSm);
  auto const baseWatcher = Vel::create<BaseWatcher>();
  baseWatcher->notifierIs(periodicSm);
  periodicSm->intervalIs(7);
  periodicSm->intervalIs(7);
  periodicSm->holdTimeIs(8);
  periodicSm->numberOfMessagesIs(9);
  EXPECT_EQ(watcher->calls, 3);
  EXPECT_EQ(baseWatcher->calls, 0);
  EXPECT_EQ(periodicSm->interval(), 60u);
  EXPECT_EQ(periodicSm->attribute("interval"), "7");
  periodicSm->periodicParamsIs({1, 2});
  EXPECT_EQ(baseWatcher->calls, 1);
  EXPECT_TRUE(watcher->notifier() == periodicSm.get());
  class Writer final : public JoinPrunePeriodicTimerSm::Notifiee {
    void onInterval() override { notifier()->holdTimeIs(99); }
  };
  auto const writer = Vel::create<Writer>();
  writer->notifierIs(periodicSm);
  periodicSm->intervalIs(8);
  EXPECT_EQ(periodicSm->attribute("holdTime"), "99");
  EXPECT_EQ(periodicSm->attribute("periodicParams"), "Interval: 1, Routes/Interval: 2");
  Vel::AttributeId id = Vel::firstAttributeId;
  for (auto const& row : periodicSm->attributeTable()) {
    EXPECT_EQ(row.id, id++) << row.name;
    periodicSm->attribute(row.name);
  }
}

TEST_F(JoinPrunePeriodicTimerSmTest, AWritableReactorTakesNothingFromAConstViewButItsRelease) {
  auto const made = joinPrunePeriodicTimerSmFactory(wheel, nullptr, 0.1, nullptr, eth0, nullptr, nullptr);
  auto const writer = Vel::create<JoinPrunePeriodicTimerSm::Notifiee>();
  PeriodicTimerSm::NotifieeConst& seenFromBelow = *writer;
  EXPECT_THROW(seenFromBelow.notifierIs(Vel::Ptr<PeriodicTimerSm const>(made)), Vel::RangeException);
  EXPECT_FALSE(writer->notifier());
  writer->notifierIs(made);
  seenFromBelow.notifierIs(Vel::Ptr<PeriodicTimerSm const>());
  EXPECT_FALSE(writer->notifier());
}

TEST_F(JoinPrunePeriodicTimerSmTest, WithoutAWheelNoTimePassesHoweverShortTheQuantum) {
  addRoutes(3);
  manager->perMessage = 1;
  auto const bare = joinPrunePeriodicTimerSmFactory(nullptr, sm(N).get(), 1e-30, periodic(N), eth0, manager,
                                                    machine->txMessage());
  bare->doUpdatePeriodicTimer();
  bare->handlePeriodicTimerExpiry();
  EXPECT_EQ(manager->messages, 3u);
}

TEST_F(JoinPrunePeriodicTimerSmTest, ARetiredMachineHasNoParentAnyMoreWhenItsWheelEndsWithIt) {
  class AtTheEnd final : public Zanth::TimerWheel::NotifieeConst {
   public:
    AtTheEnd(Vel::Ptr<Zanth::TimerWheel const> const& watched, std::function<void()> const& call)
        : call_(call) {
      isNondestructingIs(true);
      notifierIs(watched);
    }
    void onZeroReferences() override { call_(); }

   private:
    std::function<void()> const call_;
  };
  auto another = Vel::create<Zanth::TimerWheel>([] { return 0; });
  periodicSm->periodicTimerIs(another);
  bool isAsked = false;
  auto const ending = Vel::create<AtTheEnd>(another, [&] {
    isAsked = true;
    EXPECT_FALSE(periodicSm->parentSm());
  });
  another = nullptr;
  sm(N)->joinPrunePeriodicTimerSmDel();
  EXPECT_TRUE(isAsked);
}

TEST_F(JoinPrunePeriodicTimerSmTest, ParametersPrintAsIntervalAndRoutes) {
  PeriodicTimerSm::PeriodicParams const params{60, 12};
  EXPECT_EQ(text(&params), "Interval: 60, Routes/Interval: 12");
}

TEST_F(JoinPrunePeriodicTimerSmTest, WithoutAMessageARefreshIsAStepWithoutProgress) {
  addRoutes(3);
  manager->stop();
  for (Vel::Ptr<IO::PamManager> const& with :
       {Vel::Ptr<IO::PamManager>(manager), Vel::Ptr<IO::PamManager>()}) {
    auto const bare =
        joinPrunePeriodicTimerSmFactory(wheel, sm(N).get(), 0.1, periodic(N), eth0, with, nullptr);
    bare->doUpdatePeriodicTimer();
    ASSERT_TRUE(bare->periodicTimer()->armed());
    log.clear();
    bare->handlePeriodicTimerExpiry();
    EXPECT_THAT(log.texts, Contains(testing::HasSubstr("Suspending TX after 0 groups, 0 sources")));
    EXPECT_TRUE(bare->periodicTimer()->armed());
  }
}

TEST_F(JoinPrunePeriodicTimerSmTest,
       ARefreshThatWasDueWhileItsNeighborMachineWasSwitchedOffIsDueOnceItIsOnAgain) {
  using Switch = void (*)(JoinPruneNeighborSm&, bool on);
  addRoutes(3);
  manager->perMessage = 3;
  for (Switch const turn : {Switch([](JoinPruneNeighborSm&n, bool on) { n.hasNotificationActiveIs(on); }),
                            Switch([](JoinPruneNeighborSm&n, bool on) { n.velDoZombieReactors(!on); })}) {
    manager->messages = 0;
    turn(*sm(N), false);
    fire();
    EXPECT_EQ(timeMin(), Vel::never);
    time += 600;
    turn(*sm(N), true);
    EXPECT_EQ(timeMin(), time);
    EXPECT_EQ(manager->messages, 0u);
    fire();
    EXPECT_EQ(manager->messages, 1u);
    EXPECT_EQ(timeMin(), time + 60);
  }
}

TEST_F(JoinPrunePeriodicTimerSmTest, ARetiredMachineIsNotBroughtBackByASwitchNorByAWheel) {
  addRoutes(1);
  sm(N)->hasNotificationActiveIs(false);
  fire();
  sm(N)->joinPrunePeriodicTimerSmDel();
  periodicSm->hasNotificationActiveIs(true);
  periodicSm->velDoZombieReactors(false);
  EXPECT_FALSE(periodicSm->periodicTimer());
  periodicSm->periodicTimerIs(wheel);
  EXPECT_FALSE(periodicSm->periodicTimer());
  EXPECT_FALSE(periodicSm->newPeriodicTimer(wheel));
  EXPECT_FALSE(periodicSm->periodicTimer());
}

TEST_F(JoinPrunePeriodicTimerSmTest, OnAnotherWheelTheRefreshGoesOn) {
  addRoutes(3);
  manager->perMessage = 3;
  Seconds otherTime = 5;
  auto const other = Vel::create<Zanth::TimerWheel>([&otherTime] { return otherTime; });
  periodicSm->periodicTimerIs(other);
  EXPECT_EQ(timeMin(), 65);
  otherTime = 65;
  other->expire();
  EXPECT_EQ(manager->messages, 1u);
  EXPECT_EQ(timeMin(), 125);
  machine = nullptr;
  periodicSm = nullptr;
}

#ifdef __GNUC__
// The place of a virtual function in its table, as the C++ ABI of g++ and clang has it in a pointer to
// member.
template <class Function>
std::ptrdiff_t slot(Function function) {
  std::ptrdiff_t words[2];
  static_assert(sizeof function == sizeof words);
  std::memcpy(words, &function, sizeof words);
  return words[0] & ~std::ptrdiff_t{1};
}

TEST_F(JoinPrunePeriodicTimerSmTest, ItsVirtualOperationsHaveTheirSlotsInTheOrderInWhichTheyAreDeclared) {
  using T = JoinPrunePeriodicTimerSm;
  std::ptrdiff_t const slots[] = {
      slot(&T::interval), slot(&T::holdTime), slot(&T::numberOfMessages), slot(&T::doResetHoldTime),
      slot(&T::handlePeriodicTimerExpiry), slot(&T::initialized),
      // handleInitialized() has the slot of every machine.
      slot(static_cast<void (T::*)(PeriodicTimerSm::PeriodicParams const&)>(&T::periodicParamsIs)),
      slot(static_cast<void (T::*)(U32)>(&T::intervalIs)),
      slot(static_cast<void (T::*)(U16)>(&T::holdTimeIs)),
      slot(static_cast<void (T::*)(U32)>(&T::numberOfMessagesIs)),
      slot(static_cast<void (T::*)(bool)>(&T::initializedIs)),
      // velDoZombieReactors() likewise.
      slot(static_cast<void (T::*)()>(&T::periodicTimerDel)),
      slot(static_cast<void (T::*)(Vel::Ptr<Zanth::TimerWheel> const&)>(&T::periodicTimerIs))};
  for (std::size_t i = 1; i < std::size(slots); ++i)
    EXPECT_EQ(slots[i], slots[i - 1] + static_cast<std::ptrdiff_t>(sizeof(void*))) << "operation " << i;
}
#endif

using JoinPrunePeriodicTimerSmDeathTest = JoinPrunePeriodicTimerSmTest;
TEST_F(JoinPrunePeriodicTimerSmDeathTest, WithoutAnInterfaceOrAParentTheFirstRouteEndsTheProcess) {
  Vel::traceSinkIs({});
  auto const withoutIntf =
      joinPrunePeriodicTimerSmFactory(wheel, sm(N).get(), 0.1, nullptr, nullptr, nullptr, nullptr);
  EXPECT_DEATH(withoutIntf->doUpdatePeriodicTimer(), "interval null intf \n.*Assertion `false' failed");
  auto const orphan = joinPrunePeriodicTimerSmFactory(wheel, nullptr, 0.1, nullptr, eth0, nullptr, nullptr);
  EXPECT_DEATH(orphan->doUpdatePeriodicTimer(), "numberOfMessagesnull parentSm \n.*Assertion `false' failed");
  // Until then it is a machine like any other.
  withoutIntf->hasNotificationActiveIs(true);
  withoutIntf->periodicTimerIs(nullptr);
  withoutIntf->periodicTimerIs(wheel);
  EXPECT_FALSE(withoutIntf->periodicTimer()->armed());
}

TEST_F(JoinPrunePeriodicTimerSmDeathTest, WhatHasNoPeriodCannotBePaced) {
  Vel::traceSinkIs({});
  auto const make = [&](Vel::Ptr<Intf const> on) {
    return joinPrunePeriodicTimerSmFactory(wheel, nullptr, 0.1, nullptr, on, nullptr, nullptr);
  };
  EXPECT_DEATH(make(nullptr)->interval(),
               "\\[1\\] 0x[0-9a-f]+interval null intf \n.*Assertion `false' failed");
  EXPECT_DEATH(make(nullptr)->holdTime(),
               "\\[1\\] 0x[0-9a-f]+holdTime null intf \n.*Assertion `false' failed");
  EXPECT_DEATH(make(eth0)->numberOfMessages(),
               "\\[1\\] 0x[0-9a-f]+numberOfMessagesnull parentSm \n.*Assertion `false' failed");
  eth0->joinPruneIntervalIs(0);
  EXPECT_DEATH(make(eth0)->interval(), "Assertion `interval > 0' failed");
}

TEST_F(JoinPrunePeriodicTimerSmTest, SwitchedOffOrRetiredByItselfItsTimerExpiresUnheard) {
  addRoutes(1);
  auto const expiries = [this] {
    log.clear();
    periodicSm->periodicTimer()->timeMinIs(time + 1);
    runUntil(time + 2);
    return log.takeWith("handlePeriodicTimerExpiry(): Finished TX").size();
  };
  EXPECT_EQ(expiries(), 1u);
  periodicSm->hasNotificationActiveIs(false);
  EXPECT_EQ(expiries(), 0u);
  periodicSm->hasNotificationActiveIs(true);
  EXPECT_EQ(expiries(), 1u);
  periodicSm->velDoZombieReactors(true);
  EXPECT_EQ(expiries(), 0u);
  periodicSm->velDoZombieReactors(false);
  EXPECT_EQ(expiries(), 1u);
}

}  // namespace
}  // namespace Routing::Pim
