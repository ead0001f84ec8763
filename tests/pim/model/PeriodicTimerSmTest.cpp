// SPDX-License-Identifier: Apache-2.0
#include "pim/model/PeriodicTimerSm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "runtime/vel/Trace.h"
#include "tests/pim/model/Recorder.h"

namespace Routing::Pim {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Refreshes routes that exist only as a number, `perExpiry` of them at a time.
class Refresher final : public PeriodicTimerSm {
 public:
  Refresher(Vel::Ptr<Zanth::TimerWheel> const& wheel, Log& log) : PeriodicTimerSm(wheel), log_(log) {}

  ~Refresher() override {
    if (atTheEnd) atTheEnd(*this);
  }

  U32 interval() const override {
    ++asked;
    if (atInterval) atInterval();
    return seconds;
  }
  U16 holdTime() const override { return 210; }
  U32 numberOfMessages() const override {
    ++asked;
    return routes;
  }
  bool initialized() const override { return true; }
  void doResetHoldTime() override {
    log_.push_back("hold time");
    if (atHoldTime) atHoldTime();
  }
  void handlePeriodicTimerExpiry() override {
    U64 const wanted = routesLeftInSlice(), sent = std::min<U64>(wanted, perExpiry);
    {
      Sending const sending(*this);
      if (whileSending) whileSending();
      routesDoneInc(sent);
    }
    log_.push_back("sent " + std::to_string(sent) + " of " + std::to_string(wanted));
    if (wanted > perExpiry)
      doReschedulePeriodicTimer();
    else
      doUpdatePeriodicTimer();
    if (afterwards) afterwards();
  }

  void sentMore(U64 more) { routesDoneInc(more); }

  U32 seconds = 60;
  U32 routes = 0;
  U64 perExpiry = ~U64{0};
  std::function<void()> atHoldTime, whileSending, atInterval, afterwards;
  std::function<void(Refresher&)> atTheEnd;
  mutable int asked = 0;  // how often for the interval or the number of routes

 private:
  Log& log_;
};

class PeriodicTimerSmTest : public testing::Test {
 protected:
  Seconds armedFor() const { return sm->periodicTimer()->timeMin(); }
  void routesAre(U32 routes) {
    sm->routes = routes;
    sm->doUpdatePeriodicTimer();
  }
  void expireAt(Seconds now) {
    time = now;
    wheel->expire();
  }
  // Lets the wheel run as an agent would, until a time.
  void runUntil(Seconds end) {
    while (wheel->timeMin() <= end) expireAt(wheel->timeMin());
    time = end;
  }

  Seconds time = 1000;
  Log log;
  Vel::Ptr<Zanth::TimerWheel> wheel = Vel::create<Zanth::TimerWheel>([this] { return time; });
  Vel::Ptr<Refresher> sm = Vel::create<Refresher>(wheel, log);
};

TEST_F(PeriodicTimerSmTest, ItsParametersCanBeReadByNameAndInitializationIsUpToWhoDerives) {
  sm->handleInitialized();
  EXPECT_THAT(log, IsEmpty());
  EXPECT_EQ(sm->attribute("periodicParams"), "Interval: 0, Routes/Interval: 0");
  routesAre(7);
  EXPECT_EQ(sm->attribute("periodicParams"), "Interval: 60, Routes/Interval: 7");
  EXPECT_THROW(sm->attributeIs("periodicParams", "1"), Vel::RangeException);
}

TEST_F(PeriodicTimerSmTest, ParametersWhoseIntervalIsNoDurationAreRefused) {
  auto const before = sm->periodicParams();
  EXPECT_THROW(sm->periodicParamsIs({std::numeric_limits<double>::quiet_NaN(), 5}),
               Vel::InvalidArgumentException);
  EXPECT_THROW(sm->periodicParamsIs({-1, 5}), Vel::InvalidArgumentException);
  EXPECT_EQ(sm->periodicParams(), before);
  sm->periodicParamsIs({0, 5});
  EXPECT_EQ(sm->periodicParams(), (PeriodicTimerSm::PeriodicParams{0, 5}));
}

TEST_F(PeriodicTimerSmTest, AnIdleMachineHasATimerThatIsNotArmed) {
  ASSERT_TRUE(sm->periodicTimer());
  EXPECT_EQ(armedFor(), Vel::never);
  EXPECT_TRUE(sm->periodicTimer()->periodicTimerSm() == sm.get());
  routesAre(0);
  EXPECT_EQ(armedFor(), Vel::never);
  EXPECT_EQ(sm->periodicParams(), (PeriodicTimerSm::PeriodicParams{60, 0}));
}

TEST_F(PeriodicTimerSmTest, TheFirstRouteArmsTheTimerOneIntervalAhead) {
  routesAre(1);
  EXPECT_EQ(armedFor(), 1060);
  expireAt(1059.9);
  EXPECT_THAT(log, IsEmpty());
  expireAt(1060);
  EXPECT_THAT(log, ElementsAre("hold time", "sent 1 of 1"));
  EXPECT_EQ(armedFor(), 1120);
}

TEST_F(PeriodicTimerSmTest, ARunningTimerIsNeverMovedNorDisarmed) {
  routesAre(1);
  for (U32 i = 0; i < 1000; ++i) {
    time += 0.059;
    routesAre(i * 7 % 3000);
    sm->seconds = 30 + i % 60;
    ASSERT_EQ(armedFor(), 1060);
  }
  routesAre(0);
  EXPECT_EQ(armedFor(), 1060);
  sm->seconds = 60;
  expireAt(1060);
  EXPECT_THAT(log, ElementsAre("hold time", "sent 0 of 0"));
  EXPECT_EQ(armedFor(), Vel::never);
}

TEST_F(PeriodicTimerSmTest, RoutesAreCutIntoSlicesOfAThousandAtLeastATenthOfASecondApart) {
  struct Row {
    U32 seconds, routes;
    U32 slices;
    U32 perSlice;
  } const rows[] = {
      {60, 0, 1, 0},
      {60, 1, 1, 1},
      {60, 999, 1, 999},
      {60, 1000, 1, 1000},
      {60, 1001, 2, 501},
      {60, 2000, 2, 1000},
      {60, 2001, 3, 667},
      {60, 600'000, 600, 1000},
      {60, 600'001, 600, 1001},
      {60, 1'000'000, 600, 1667},
      {1, 10'000, 10, 1000},
      {1, 10'001, 10, 1001},
      {1, 4'294'967'295, 10, 429'496'730},
      {0, 2'500, 1, 2'500},
      {4'294'967'295, 4'294'967'295, 4'294'968, 1000},
  };
  for (Row const& row : rows) {
    sm->seconds = row.seconds;
    routesAre(row.routes);
    auto const params = sm->periodicParams();
    EXPECT_DOUBLE_EQ(params.interval, static_cast<Seconds>(row.seconds) / row.slices) << row.routes;
    EXPECT_EQ(params.routes, row.perSlice) << row.routes << " routes in " << row.seconds << " s";
    // All routes are refreshed within the interval.
    EXPECT_GE(U64{params.routes} * row.slices, row.routes);
  }
}

TEST_F(PeriodicTimerSmTest, ALargeTableIsRefreshedSliceBySliceOnceAnInterval) {
  routesAre(6000);
  EXPECT_DOUBLE_EQ(armedFor(), 1010);
  runUntil(1060);
  EXPECT_THAT(taken(log), ElementsAre("hold time", "sent 1000 of 1000", "hold time", "sent 1000 of 1000",
                                      "hold time", "sent 1000 of 1000", "hold time", "sent 1000 of 1000",
                                      "hold time", "sent 1000 of 1000", "hold time", "sent 1000 of 1000"));
  EXPECT_DOUBLE_EQ(armedFor(), 1070);
}

TEST_F(PeriodicTimerSmTest, TheNextSliceComesOneIntervalAfterTheDeadlineNotAfterTheEndOfTheSending) {
  routesAre(1);
  sm->whileSending = [this] { time += 3; };
  expireAt(1060.5);  // a little late, and slow
  EXPECT_EQ(armedFor(), 1120);
}

TEST_F(PeriodicTimerSmTest, ASliceThatOutlastsItsIntervalIsFollowedByTheNextOneAtOnce) {
  routesAre(1);
  sm->whileSending = [this] { time += 70; };
  expireAt(1060);
  EXPECT_EQ(armedFor(), 1130);
  expireAt(1130);
  EXPECT_EQ(armedFor(), 1200);
  sm->whileSending = nullptr;
  expireAt(1200);
  EXPECT_EQ(armedFor(), 1260);  // nothing is made up for
  EXPECT_THAT(
      log, ElementsAre("hold time", "sent 1 of 1", "hold time", "sent 1 of 1", "hold time", "sent 1 of 1"));
}

TEST_F(PeriodicTimerSmTest, AfterADeadlineThatWasMissedAltogetherOneMoreSliceComesAtOnceAndThenTheUsualPace) {
  routesAre(1);
  expireAt(1300);
  EXPECT_EQ(armedFor(), 1300);
  expireAt(1300);
  EXPECT_EQ(armedFor(), 1360);
}

TEST_F(PeriodicTimerSmTest, AMachineThatWasEmptyForAWhileStartsAnew) {
  routesAre(1);
  sm->routes = 0;
  expireAt(1060);
  EXPECT_EQ(armedFor(), Vel::never);
  time = 1500;
  routesAre(5);
  EXPECT_EQ(armedFor(), 1560);
}

TEST_F(PeriodicTimerSmTest, AMachineThatWasEmptyForAMomentKeepsItsRhythm) {
  routesAre(1);
  sm->routes = 0;
  expireAt(1060);
  time = 1061;
  routesAre(5);
  EXPECT_EQ(armedFor(), 1120);
}

TEST_F(PeriodicTimerSmTest, ASliceThatWasCutShortGoesOnATenthOfASecondLaterWithWhatIsLeft) {
  routesAre(100);
  sm->perExpiry = 30;
  expireAt(1060);
  EXPECT_DOUBLE_EQ(armedFor(), 1060.1);
  runUntil(1061);
  EXPECT_THAT(log, ElementsAre("hold time", "sent 30 of 100", "hold time", "sent 30 of 70", "hold time",
                               "sent 30 of 40", "hold time", "sent 10 of 10"));
  EXPECT_EQ(armedFor(), 1120);
  (void)taken(log);
  sm->perExpiry = 200;
  runUntil(1120);
  EXPECT_THAT(log, ElementsAre("hold time", "sent 100 of 100"));  // a whole slice again
}

TEST_F(PeriodicTimerSmTest, ASliceThatSentMoreThanItHadAndIsCutShortHasNothingLeft) {
  routesAre(100);
  sm->perExpiry = 30;
  sm->whileSending = [this] { sm->sentMore(200); };
  expireAt(1060);
  sm->whileSending = nullptr;
  runUntil(1060.1);
  EXPECT_THAT(log, ElementsAre("hold time", "sent 30 of 100", "hold time", "sent 0 of 0"));
  EXPECT_EQ(armedFor(), 1120);
}

TEST_F(PeriodicTimerSmTest, AChangedCountNeitherRestartsNorPostponesASliceThatIsUnderWay) {
  routesAre(100);
  sm->perExpiry = 30;
  expireAt(1060);
  routesAre(1'000);
  EXPECT_DOUBLE_EQ(armedFor(), 1060.1);
  expireAt(1060.2);
  routesAre(20);  // fewer than are left
  expireAt(1060.4);
  EXPECT_THAT(log, ElementsAre("hold time", "sent 30 of 100", "hold time", "sent 30 of 70", "hold time",
                               "sent 20 of 20"));
  EXPECT_EQ(armedFor(), 1120);
}

TEST_F(PeriodicTimerSmTest, AnExpiryThatSendsNothingIsRepeatedWithTheSameSlice) {
  routesAre(10);
  sm->perExpiry = 0;
  expireAt(1060);
  expireAt(1061);
  sm->perExpiry = 10;
  expireAt(1062);
  EXPECT_THAT(log, ElementsAre("hold time", "sent 0 of 10", "hold time", "sent 0 of 10", "hold time",
                               "sent 10 of 10"));
}

TEST_F(PeriodicTimerSmTest, ChangesOfTheCountWhileASliceIsBeingSentArmNothing) {
  routesAre(10);
  Seconds inside = 0;
  sm->whileSending = [&] {
    routesAre(2000);
    inside = armedFor();
  };
  expireAt(1060);
  EXPECT_EQ(inside, Vel::never);
  EXPECT_EQ(sm->periodicParams(), (PeriodicTimerSm::PeriodicParams{30, 1000}));
  EXPECT_EQ(armedFor(), 1090);
}

TEST_F(PeriodicTimerSmTest, AnExpiryThatThrowsIsReportedAndTriedAgainSoon) {
  Log traced;
  Vel::traceSinkIs([&](Vel::TraceLine const& line) { traced.push_back(line.text); });
  routesAre(10);
  sm->whileSending = [] { throw std::runtime_error("no buffer"); };
  expireAt(1060);
  EXPECT_DOUBLE_EQ(armedFor(), 1060.1);
  sm->whileSending = nullptr;
  sm->atHoldTime = [] { throw 1; };
  expireAt(1061);
  EXPECT_DOUBLE_EQ(armedFor(), 1061.1);
  Vel::traceSinkIs(nullptr);
  EXPECT_THAT(traced, ElementsAre("Routing::Pim::PeriodicTimerSm::VelPeriodicTimer: no buffer",
                                  "Routing::Pim::PeriodicTimerSm::VelPeriodicTimer: not a std::exception"));
  sm->atHoldTime = nullptr;
  expireAt(1062);
  EXPECT_EQ(taken(log).back(), "sent 10 of 10");
  EXPECT_EQ(armedFor(), 1120);
}

TEST_F(PeriodicTimerSmTest, WithoutAWheelTheParametersAreTakenAndNothingIsArmed) {
  sm = Vel::create<Refresher>(nullptr, log);
  EXPECT_TRUE(sm->periodicTimer() == nullptr);
  routesAre(2000);
  sm->doReschedulePeriodicTimer();
  sm->periodicTimerDel();
  EXPECT_EQ(sm->periodicParams(), (PeriodicTimerSm::PeriodicParams{30, 1000}));
  sm->hasNotificationActiveIs(false);
  sm->velDoZombieReactors(true);
  EXPECT_TRUE(sm->periodicTimer() == nullptr);
}

TEST_F(PeriodicTimerSmTest, ATimerCanBePutOnAnotherWheelAndTakenOff) {
  auto const timer = sm->periodicTimer();
  sm->periodicTimerIs(wheel);
  EXPECT_TRUE(sm->periodicTimer() == timer);
  auto const other = Vel::create<Zanth::TimerWheel>([this] { return time; });
  routesAre(1);
  sm->periodicTimerIs(other);
  EXPECT_FALSE(sm->periodicTimer() == timer);
  EXPECT_EQ(wheel->armedCount(), 0u);
  EXPECT_TRUE(timer->periodicTimerSm() == nullptr);
  sm->doUpdatePeriodicTimer();
  EXPECT_EQ(other->armedCount(), 1u);
  sm->periodicTimerIs(nullptr);
  EXPECT_TRUE(sm->periodicTimer() == nullptr);
  EXPECT_EQ(other->armedCount(), 0u);
}

TEST_F(PeriodicTimerSmTest, ATimerThatSomebodyStillHoldsIsSilentOnceItIsReplacedOrItsMachineIsGone) {
  auto const first = sm->periodicTimer();
  routesAre(1);
  auto const second = sm->newPeriodicTimer(wheel);
  sm->doUpdatePeriodicTimer();
  sm = nullptr;
  expireAt(2000);
  EXPECT_THAT(log, IsEmpty());
  EXPECT_TRUE(first->periodicTimerSm() == nullptr);
  EXPECT_TRUE(second->periodicTimerSm() == nullptr);
  EXPECT_EQ(wheel->armedCount(), 0u);
}

TEST_F(PeriodicTimerSmTest, AMachineMayGoInsideItsOwnExpiry) {
  routesAre(1);
  sm->atHoldTime = [this] { sm = nullptr; };
  expireAt(1060);
  EXPECT_FALSE(sm);
  EXPECT_EQ(log.front(), "hold time");
  EXPECT_EQ(wheel->armedCount(), 0u);
}

TEST_F(PeriodicTimerSmTest, ARouteThatComesAtTheVeryDeadlineWaitsForAWholeInterval) {
  routesAre(1);
  sm->routes = 0;
  expireAt(1060);
  time = 1120;
  routesAre(5);
  EXPECT_EQ(armedFor(), 1180);
}

TEST_F(PeriodicTimerSmTest, AnExpiryThatThrowsAfterItHasArmedTheTimerLeavesItArmed) {
  Vel::traceSinkIs([](Vel::TraceLine const&) {});
  routesAre(10);
  sm->afterwards = [] { throw std::runtime_error("no buffer"); };
  expireAt(1060);
  EXPECT_EQ(armedFor(), 1120);
  // Nor does a failure move another timer that has taken its place.
  sm->afterwards = [&] {
    sm->newPeriodicTimer(wheel)->timeMinIs(1500);
    throw std::runtime_error("no buffer");
  };
  expireAt(1120);
  EXPECT_EQ(armedFor(), 1500);
  Vel::traceSinkIs(nullptr);
}

TEST_F(PeriodicTimerSmTest, AMachineThatHasGoneIsAskedForNothing) {
  routesAre(1);
  Refresher* const machine = sm.get();
  int before = 0, after = -1;
  machine->whileSending = [&, machine] {
    sm = nullptr;
    before = machine->asked;
  };
  machine->afterwards = [&, machine] { after = machine->asked; };
  expireAt(1060);
  EXPECT_EQ(after, before);

  auto another = Vel::create<Refresher>(wheel, log);
  int asked = 0;
  another->atTheEnd = [&](Refresher& ended) { asked = ended.asked; };
  another->atInterval = [&] { another = nullptr; };
  another->routes = 1;
  Refresher* const raw = another.get();
  raw->doUpdatePeriodicTimer();
  EXPECT_EQ(asked, 1);  // for the interval alone
  EXPECT_EQ(wheel->armedCount(), 0u);
}

TEST_F(PeriodicTimerSmTest, ATimerGoesBeforeItsMachinesDerivedPartsAndIsAZombieFromThenOn) {
  auto const timer = sm->periodicTimer();
  routesAre(1);
  bool hadNone = false;
  sm->atTheEnd = [&](Refresher& ended) { hadNone = ended.periodicTimer() == nullptr && !timer->armed(); };
  EXPECT_FALSE(timer->isZombie());
  sm = nullptr;
  EXPECT_TRUE(hadNone);
  EXPECT_TRUE(timer->isZombie());
}

TEST_F(PeriodicTimerSmTest, AMachineThatCouldNotBeMadeLeavesItsTimerWithoutAMachine) {
  using Timer = Vel::Ptr<PeriodicTimerSm::VelPeriodicTimer>;
  class Failing final : public PeriodicTimerSm {
   public:
    Failing(Vel::Ptr<Zanth::TimerWheel> const& wheel, Timer& timer) : PeriodicTimerSm(wheel) {
      timer = periodicTimer();
      timer->timeMinIs(1060);
      throw std::runtime_error("no memory");
    }
    U32 interval() const override { return 60; }
    U16 holdTime() const override { return 210; }
    U32 numberOfMessages() const override { return 1; }
    bool initialized() const override { return true; }
    void doResetHoldTime() override {}
    void handlePeriodicTimerExpiry() override {}
  };
  Timer timer;
  EXPECT_THROW(Vel::create<Failing>(wheel, timer), std::runtime_error);
  ASSERT_TRUE(timer);
  EXPECT_TRUE(timer->periodicTimerSm() == nullptr);
  EXPECT_EQ(wheel->armedCount(), 0u);
}

TEST_F(PeriodicTimerSmTest, AMachineWhoseNotificationsAreOffIsNotCalled) {
  routesAre(1);
  sm->hasNotificationActiveIs(false);
  expireAt(1060);
  EXPECT_THAT(log, IsEmpty());
  sm->hasNotificationActiveIs(true);
  sm->doUpdatePeriodicTimer();
  expireAt(1120);
  EXPECT_THAT(log, ElementsAre("hold time", "sent 1 of 1"));
  sm->velDoZombieReactors(true);
  expireAt(1180);
  EXPECT_THAT(log, ElementsAre("hold time", "sent 1 of 1"));
}

TEST_F(PeriodicTimerSmTest, AnExpiryThatComesWhileNotificationsAreOffIsDueOnceTheyAreOnAgain) {
  using Switch = void (*)(Refresher&, bool on);
  for (Switch const turn : {Switch([](Refresher&r, bool on) { r.hasNotificationActiveIs(on); }),
                            Switch([](Refresher&r, bool on) { r.velDoZombieReactors(!on); })}) {
    time = 1000;
    sm = Vel::create<Refresher>(wheel, log);
    routesAre(1);
    turn(*sm, false);
    expireAt(1060);
    EXPECT_EQ(armedFor(), Vel::never);
    time = 1400;
    turn(*sm, true);
    EXPECT_THAT(taken(log), IsEmpty());
    EXPECT_EQ(armedFor(), 1400);
    turn(*sm, true);
    EXPECT_EQ(armedFor(), 1400);
    expireAt(1400);
    EXPECT_THAT(taken(log), ElementsAre("hold time", "sent 1 of 1"));
    EXPECT_EQ(armedFor(), 1460);
  }
}

TEST_F(PeriodicTimerSmTest, SwitchingOnLeavesAloneWhatIsNotDueYet) {
  sm->hasNotificationActiveIs(false);
  sm->hasNotificationActiveIs(true);
  EXPECT_EQ(armedFor(), Vel::never);
  routesAre(1);
  sm->hasNotificationActiveIs(false);
  time = 1030;
  sm->hasNotificationActiveIs(true);
  EXPECT_EQ(armedFor(), 1060);
  sm->hasNotificationActiveIs(false);
  time = 1070;  // due, but the wheel has not been there yet
  sm->hasNotificationActiveIs(true);
  EXPECT_EQ(armedFor(), 1060);
  sm->periodicTimer()->timeMinIs(Vel::never);  // by hand
  sm->hasNotificationActiveIs(false);
  sm->hasNotificationActiveIs(true);
  EXPECT_EQ(armedFor(), Vel::never);
  EXPECT_THAT(log, IsEmpty());
}

TEST_F(PeriodicTimerSmTest, SwitchingOnInsideAnExpiryChangesNothing) {
  routesAre(1);
  sm->whileSending = [this] {
    sm->hasNotificationActiveIs(false);
    sm->hasNotificationActiveIs(true);
    sm->velDoZombieReactors(true);
    sm->velDoZombieReactors(false);
    EXPECT_EQ(armedFor(), Vel::never);
  };
  expireAt(1060);
  EXPECT_EQ(armedFor(), 1120);
}

TEST_F(PeriodicTimerSmTest, WhatWasDueWhileNotificationsWereOffIsNotPostponedByAChangeOfTheCount) {
  routesAre(1);
  sm->hasNotificationActiveIs(false);
  expireAt(1060);
  time = 1065;
  routesAre(2);
  EXPECT_EQ(armedFor(), Vel::never);
  time = 1070;
  sm->hasNotificationActiveIs(true);
  EXPECT_EQ(armedFor(), 1070);
}

TEST_F(PeriodicTimerSmTest, WithTheLastRouteGoneNothingIsDueWhenNotificationsAreOnAgain) {
  for (bool const countedBefore : {false, true}) {
    time = 1000;
    sm = Vel::create<Refresher>(wheel, log);
    routesAre(1);
    if (countedBefore) routesAre(0);
    sm->hasNotificationActiveIs(false);
    expireAt(1060);
    if (!countedBefore) routesAre(0);
    sm->hasNotificationActiveIs(true);
    EXPECT_EQ(armedFor(), Vel::never);
    time = 1300;
    routesAre(1);
    EXPECT_EQ(armedFor(), 1360);
  }
}

TEST_F(PeriodicTimerSmTest, WithTheLastRouteGoneForAMomentTheRhythmIsKeptAndNothingIsDueAtOnce) {
  routesAre(1);
  sm->hasNotificationActiveIs(false);
  expireAt(1060);
  routesAre(0);
  time = 1070;
  routesAre(2);
  EXPECT_EQ(armedFor(), 1120);
  sm->hasNotificationActiveIs(true);
  EXPECT_EQ(armedFor(), 1120);
}

TEST_F(PeriodicTimerSmTest, ASliceWhoseRestWasDueWhileNotificationsWereOffIsContinuedNotRepeated) {
  routesAre(100);
  sm->perExpiry = 30;
  expireAt(1060);
  sm->hasNotificationActiveIs(false);
  expireAt(1061);
  sm->hasNotificationActiveIs(true);
  expireAt(1061);
  EXPECT_THAT(log, ElementsAre("hold time", "sent 30 of 100", "hold time", "sent 30 of 70"));
}

TEST_F(PeriodicTimerSmTest, AZombieTimerIsNotArmedByActiveNotifications) {
  routesAre(1);
  sm->velDoZombieReactors(true);
  expireAt(1060);
  sm->hasNotificationActiveIs(true);
  EXPECT_EQ(armedFor(), Vel::never);
  sm->velDoZombieReactors(false);
  EXPECT_EQ(armedFor(), 1060);
}

TEST_F(PeriodicTimerSmTest, AClockThatIsSetBackBringsARunningTimerWithinItsInterval) {
  struct Row {
    char const* what;
    std::function<void()> notice;
  } const rows[] = {{"a change of the count", [this] { routesAre(2); }},
                    {"switching on", [this] { sm->hasNotificationActiveIs(true); }},
                    {"revival", [this] { sm->velDoZombieReactors(false); }}};
  for (Row const& row : rows) {
    SCOPED_TRACE(row.what);
    time = 1000;
    sm = Vel::create<Refresher>(wheel, log);
    routesAre(1);
    time = 1050;
    row.notice();
    time = 1000;  // not behind the moment at which it was armed
    row.notice();
    EXPECT_EQ(armedFor(), 1060);
    time = 999;
    row.notice();
    EXPECT_EQ(armedFor(), 1059);
    time = 100;
    row.notice();
    EXPECT_EQ(armedFor(), 160);
    time = 120;
    row.notice();
    EXPECT_EQ(armedFor(), 160);
    expireAt(160);
    EXPECT_EQ(armedFor(), 220);
  }
}

TEST_F(PeriodicTimerSmTest, AClockThatIsSetBackDoesNotHoldUpTheRestOfASlice) {
  routesAre(100);
  sm->perExpiry = 60;
  expireAt(1060);
  time = 10;
  routesAre(101);
  EXPECT_DOUBLE_EQ(armedFor(), 10.1);
  expireAt(10.2);
  EXPECT_EQ(taken(log).back(), "sent 40 of 40");
  EXPECT_GT(armedFor(), 70);
  EXPECT_LE(armedFor(), 70.2);
}

TEST_F(PeriodicTimerSmTest, AnIdleTimerIsArmedByTheClockAsItIsNow) {
  routesAre(1);
  sm->whileSending = [this] { time = 500; };
  expireAt(1060);
  EXPECT_EQ(armedFor(), 560);
  sm->whileSending = nullptr;
  sm->routes = 0;
  expireAt(560);
  ASSERT_EQ(armedFor(), Vel::never);
  time = 10;
  routesAre(1);
  EXPECT_EQ(armedFor(), 70);
}

TEST_F(PeriodicTimerSmTest, OnAnotherWheelARunningTimerKeepsItsTimeUpToItsInterval) {
  struct Row {
    char const* what;
    Seconds otherNow, armedFor, next;
  } const rows[] = {{"the same clock", 1010, 1060, 1120},
                    {"a clock that is behind", 200, 260, 320},
                    {"a clock that is a little ahead", 1020, 1060, 1120},
                    {"a clock that is far ahead", 9000, 9000, 9060}};
  for (Row const& row : rows) {
    SCOPED_TRACE(row.what);
    time = 1000;
    sm = Vel::create<Refresher>(wheel, log);
    routesAre(1);
    time = 1010;
    Seconds otherTime = row.otherNow;
    auto const other = Vel::create<Zanth::TimerWheel>([&otherTime] { return otherTime; });
    sm->periodicTimerIs(other);
    EXPECT_EQ(wheel->armedCount(), 0u);
    EXPECT_EQ(armedFor(), row.armedFor);
    sm->doUpdatePeriodicTimer();
    EXPECT_EQ(armedFor(), row.armedFor);
    otherTime = row.armedFor;
    other->expire();
    EXPECT_EQ(armedFor(), row.next);
    sm = nullptr;
  }
}

TEST_F(PeriodicTimerSmTest, OnAnotherWheelTheRestOfASliceIsSentSoon) {
  routesAre(100);
  sm->perExpiry = 60;
  expireAt(1060);
  Seconds otherTime = 10;
  auto const other = Vel::create<Zanth::TimerWheel>([&otherTime] { return otherTime; });
  sm->periodicTimerIs(other);
  EXPECT_DOUBLE_EQ(armedFor(), 10.1);
  otherTime = 10.1;
  other->expire();
  EXPECT_EQ(log.back(), "sent 40 of 40");
  EXPECT_DOUBLE_EQ(armedFor(), 70.1);
  sm = nullptr;
}

TEST_F(PeriodicTimerSmTest, ATimerThatIsMadeAnewOnTheSameWheelKeepsTheRhythm) {
  routesAre(1);
  time = 1030;
  sm->newPeriodicTimer(wheel);
  EXPECT_EQ(armedFor(), 1060);
  sm->routes = 0;
  expireAt(1060);
  sm->newPeriodicTimer(wheel);
  EXPECT_EQ(armedFor(), Vel::never);
  time = 1070;
  routesAre(1);
  EXPECT_EQ(armedFor(), 1120);
}

TEST_F(PeriodicTimerSmTest, AnIdleTimerOnAnotherWheelKnowsNoEarlierDeadline) {
  routesAre(1);
  sm->routes = 0;
  expireAt(1060);
  auto const other = Vel::create<Zanth::TimerWheel>([this] { return time; });
  sm->periodicTimerIs(other);
  EXPECT_EQ(armedFor(), Vel::never);
  time = 1070;
  routesAre(1);
  EXPECT_EQ(armedFor(), 1130);
}

TEST_F(PeriodicTimerSmTest, AMachineThatIsGivenAWheelRefreshesTheRoutesThatItHas) {
  routesAre(1);
  time = 1050;
  sm->periodicTimerIs(nullptr);
  routesAre(2);
  sm->periodicTimerIs(wheel);
  EXPECT_EQ(armedFor(), 1110);
  sm->periodicTimerIs(nullptr);
  routesAre(0);
  sm->periodicTimerIs(wheel);
  EXPECT_EQ(armedFor(), Vel::never);
}

TEST_F(PeriodicTimerSmTest, AMachineWithoutRoutesIsAskedForNothingWhenItIsGivenAWheel) {
  sm->periodicTimerIs(nullptr);
  sm->periodicTimerIs(wheel);
  EXPECT_EQ(sm->asked, 0);
}

TEST_F(PeriodicTimerSmTest, ATimerThatWasDisarmedByHandIsNotArmedByAnotherWheel) {
  routesAre(1);
  sm->periodicTimer()->timeMinIs(Vel::never);
  sm->periodicTimerIs(Vel::create<Zanth::TimerWheel>([this] { return time; }));
  EXPECT_EQ(armedFor(), Vel::never);
}

TEST_F(PeriodicTimerSmTest, AMachineThatWasWithoutAWheelForAMomentStartsAnew) {
  routesAre(1);
  sm->routes = 0;
  expireAt(1060);
  sm->periodicTimerIs(nullptr);
  routesAre(1);
  time = 1075;
  sm->periodicTimerIs(wheel);
  EXPECT_EQ(armedFor(), 1135);
}

// Acts when a wheel has no references left.
class AtTheEnd final : public Zanth::TimerWheel::NotifieeConst {
 public:
  AtTheEnd(Vel::Ptr<Zanth::TimerWheel> const& wheel, std::function<void()> act) : act_(std::move(act)) {
    isNondestructingIs(true);
    notifierIs(wheel);
  }
  void onZeroReferences() override { act_(); }

 private:
  std::function<void()> act_;
};

TEST_F(PeriodicTimerSmTest, AWheelThatEndsWithItsTimerMayBeReplacedAtThatMoment) {
  auto const other = Vel::create<Zanth::TimerWheel>([this] { return time; });
  auto const watcher = Vel::create<AtTheEnd>(wheel, [&] { sm->periodicTimerIs(other); });
  routesAre(1);
  wheel = nullptr;
  time = 1030;
  sm->periodicTimerIs(nullptr);
  EXPECT_EQ(armedFor(), 1090);
  time = 1095;
  other->expire();
  EXPECT_EQ(armedFor(), 1150);  // after the deadline, which is known
  sm = nullptr;
}

TEST_F(PeriodicTimerSmTest, AMachineThatEndsWithItsWheelIsNotGivenAnotherOne) {
  auto const other = Vel::create<Zanth::TimerWheel>([this] { return time; });
  bool hadTimer = true;
  auto* const machine = sm.get();
  auto const watcher = Vel::create<AtTheEnd>(wheel, [&] {
    machine->periodicTimerIs(other);
    hadTimer = machine->newPeriodicTimer(other) != nullptr;
  });
  routesAre(1);
  wheel = nullptr;
  sm = nullptr;
  EXPECT_FALSE(hadTimer);
}

TEST_F(PeriodicTimerSmTest, AfterAnExpiryThatCouldNotEvenBeRepeatedTheMachineStartsAnew) {
  Vel::traceSinkIs([](Vel::TraceLine const&) {});
  bool failing = false;
  wheel = Vel::create<Zanth::TimerWheel>([&] {
    if (failing) throw std::runtime_error("no clock");
    return time;
  });
  sm->periodicTimerIs(wheel);
  routesAre(1);
  sm->whileSending = [&] {
    failing = true;
    throw std::runtime_error("no buffer");
  };
  expireAt(1060);
  Vel::traceSinkIs(nullptr);
  EXPECT_EQ(armedFor(), Vel::never);
  failing = false;
  time = 1500;
  routesAre(2);
  EXPECT_EQ(armedFor(), 1560);
  sm = nullptr;
}

TEST_F(PeriodicTimerSmTest, TheWheelMayBeReplacedInsideAnExpiry) {
  Seconds otherTime = 5000;
  auto const other = Vel::create<Zanth::TimerWheel>([&otherTime] { return otherTime; });
  for (auto Refresher::*const when : {&Refresher::atHoldTime, &Refresher::whileSending}) {
    sm = Vel::create<Refresher>(wheel, log);
    routesAre(1);
    (*sm).*when = [&] { sm->periodicTimerIs(other); };
    expireAt(armedFor());
    EXPECT_THAT(taken(log), ElementsAre("hold time", "sent 1 of 1"));
    EXPECT_EQ(wheel->armedCount(), 0u);
    EXPECT_EQ(armedFor(), 5060);
    (*sm).*when = [&] {
      sm->periodicTimerIs(nullptr);
      sm->periodicTimerIs(other);
      throw std::runtime_error("after all that");
    };
    otherTime = 5060;
    other->expire();
    EXPECT_DOUBLE_EQ(armedFor(), 5060.1);
    otherTime = 5000;
    (void)taken(log);
  }
  sm = nullptr;
}

TEST_F(PeriodicTimerSmTest, OnAnotherWheelATimerIsAsSilentAsItWas) {
  auto const other = Vel::create<Zanth::TimerWheel>([this] { return time; });
  routesAre(1);
  sm->velDoZombieReactors(true);
  sm->periodicTimerIs(other);
  EXPECT_TRUE(sm->periodicTimer()->isZombie());
  time = 1060;
  other->expire();
  EXPECT_THAT(log, IsEmpty());
  sm->periodicTimerIs(wheel);  // what was due is due on any wheel
  sm->velDoZombieReactors(false);
  expireAt(1060);
  EXPECT_THAT(log, ElementsAre("hold time", "sent 1 of 1"));
}

TEST_F(PeriodicTimerSmTest, ATimerThatWasTakenOffItsWheelByHandIsLeftAlone) {
  routesAre(1);
  sm->periodicTimer()->notifierIs(nullptr);
  routesAre(2);
  sm->hasNotificationActiveIs(true);
  EXPECT_EQ(armedFor(), 1060);
}

TEST_F(PeriodicTimerSmTest, AMachineMayGoWhileItsClockIsRead) {
  std::function<void()> atClock;
  auto const called = Vel::create<Zanth::TimerWheel>([&] {
    if (auto const act = std::exchange(atClock, nullptr)) act();
    return time;
  });
  struct Row {
    char const* what;
    std::function<void()> prepare, act;
  } const rows[] = {{"arming", [] {}, [this] { routesAre(1); }},
                    {"a running timer", [this] { routesAre(1), time = 10; }, [this] { routesAre(2); }},
                    {"rescheduling", [this] { routesAre(1); }, [this] { sm->doReschedulePeriodicTimer(); }},
                    {"another wheel", [this] { sm->periodicTimerIs(wheel), routesAre(1); },
                     [&] { sm->periodicTimerIs(called); }},
                    {"switching on",
                     [this] {
                       routesAre(1);
                       sm->hasNotificationActiveIs(false);
                       time = 1060;
                       sm->periodicTimer()->notifier()->expire();
                     },
                     [this] { sm->hasNotificationActiveIs(true); }}};
  for (Row const& row : rows) {
    SCOPED_TRACE(row.what);
    time = 1000;
    sm = Vel::create<Refresher>(called, log);
    row.prepare();
    auto* const machine = sm.get();
    auto const timer = sm->periodicTimer();
    bool wasCalled = false;
    atClock = [&] {
      wasCalled = true;
      machine->periodicTimerDel();
      sm = nullptr;
    };
    row.act();
    EXPECT_TRUE(wasCalled);
    EXPECT_FALSE(sm);
    EXPECT_FALSE(timer->armed());
    EXPECT_EQ(called->armedCount(), 0u);
  }
}

TEST_F(PeriodicTimerSmTest, WhatADerivedMachineDoesNotShowNeedNotBeSet) {
  sm->intervalIs(1);
  sm->holdTimeIs(2);
  sm->numberOfMessagesIs(3);
  sm->initializedIs(false);
  EXPECT_EQ(sm->interval(), 60u);
  EXPECT_EQ(sm->holdTime(), 210u);
  EXPECT_EQ(sm->numberOfMessages(), 0u);
  EXPECT_TRUE(sm->initialized());
}

TEST_F(PeriodicTimerSmTest, ATimerThatIsMadeWhileNotificationsAreOffIsOffToo) {
  sm->hasNotificationActiveIs(false);
  auto const timer = sm->newPeriodicTimer(wheel);
  EXPECT_FALSE(timer->hasNotificationActive());
}

TEST_F(PeriodicTimerSmTest, TheParametersHaveATextAndCanBeWatched) {
  class Watcher final : public PeriodicTimerSm::NotifieeConst {
   public:
    explicit Watcher(Log& log) : log_(log) {}
    void onPeriodicParams() override { log_.push_back(inText(notifier()->periodicParams())); }

   private:
    Log& log_;
  };
  auto const watcher = Vel::create<Watcher>(log);
  watcher->notifierIs(sm);
  sm->periodicParamsIs({60, 12});
  sm->periodicParamsIs({60, 12});
  EXPECT_THAT(log, ElementsAre("Interval: 60, Routes/Interval: 12"));
  PeriodicTimerSm::PeriodicParams const params{0.5, 4294967295};
  EXPECT_EQ(inText(&params), "Interval: 0.5, Routes/Interval: 4294967295");
  EXPECT_EQ(inText(static_cast<PeriodicTimerSm::PeriodicParams const*>(nullptr)), "null");
  Vel::Ptr<PeriodicTimerSm const> const view = sm;
  auto const timer = sm->periodicTimer();
  expectRefused({
      {"periodicParamsIs",
       [&] {
         view->periodicParamsIs({1, 1});
       }},
      {"intervalIs", [&] { view->intervalIs(1); }},
      {"holdTimeIs", [&] { view->holdTimeIs(1); }},
      {"numberOfMessagesIs", [&] { view->numberOfMessagesIs(1); }},
      {"initializedIs", [&] { view->initializedIs(true); }},
      {"periodicTimerIs", [&] { view->periodicTimerIs(nullptr); }},
      {"periodicTimerDel", [&] { view->periodicTimerDel(); }},
      {"newPeriodicTimer", [&] { view->newPeriodicTimer(wheel); }},
  });
  EXPECT_TRUE(sm->periodicTimer() == timer);
  EXPECT_EQ(sm->periodicParams(), (PeriodicTimerSm::PeriodicParams{60, 12}));
}

}  // namespace
}  // namespace Routing::Pim
