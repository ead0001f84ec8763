// SPDX-License-Identifier: Apache-2.0
#include "runtime/zanth/TimerWheel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <vector>

namespace Zanth {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Vel::never;

class Timer final : public TimerWheel::Notifiee {
 public:
  explicit Timer(std::function<void(Timer&)> call) : call_(std::move(call)) {}
  void onTime() override { call_(*this); }
  void onNotificationException() override { ++exceptions; }
  int exceptions = 0;

 private:
  std::function<void(Timer&)> call_;
};

class TimerWheelTest : public testing::Test {
 protected:
  // A timer that notes its number when it fires.
  Vel::Ptr<Timer> timer(int number, Seconds at = never) {
    return timer([this, number](Timer&) { fired.push_back(number); }, at);
  }
  Vel::Ptr<Timer> timer(std::function<void(Timer&)> call, Seconds at = never) {
    auto made = Vel::create<Timer>(std::move(call));
    made->notifierIs(wheel);
    made->timeMinIs(at);
    return made;
  }
  void expireAt(Seconds now) {
    time = now;
    wheel->expire();
  }

  Seconds time = 100;
  Vel::Ptr<TimerWheel> wheel = Vel::create<TimerWheel>([this] { return time; });
  std::vector<int> fired;
};

TEST_F(TimerWheelTest, WithoutAClockOfItsOwnAWheelGoesByTheMonotonicOne) {
  using Clock = std::chrono::steady_clock;
  auto const seconds = [] { return std::chrono::duration<Seconds>(Clock::now().time_since_epoch()).count(); };
  wheel = Vel::create<TimerWheel>();
  Seconds const before = seconds(), now = wheel->now(), after = seconds();
  EXPECT_LE(before, now);
  EXPECT_LE(now, after);
  auto const due = timer(1, before), later = timer(2, after + 3600);
  wheel->expire();
  EXPECT_THAT(fired, ElementsAre(1));
}

TEST_F(TimerWheelTest, ATimerIsCalledAtItsTimeAndNotBefore) {
  auto const one = timer(1, 160);
  expireAt(std::nextafter(160, 0));
  EXPECT_THAT(fired, IsEmpty());
  expireAt(160);
  EXPECT_THAT(fired, ElementsAre(1));
}

TEST_F(TimerWheelTest, AFiredTimerReadsAsUnarmedInsideItsCallback) {
  Seconds seen = 0;
  auto const one = timer([&](Timer& self) { seen = self.timeMin(); }, 101);
  expireAt(101);
  EXPECT_EQ(seen, never);
}

TEST_F(TimerWheelTest, InfinityDisarmsAndTheLargestFiniteTimeCountsAsArmed) {
  auto const one = timer(1, 101);
  one->timeMinIs(never);
  EXPECT_FALSE(one->armed());
  EXPECT_EQ(wheel->armedCount(), 0u);
  expireAt(102);
  EXPECT_THAT(fired, IsEmpty());
  one->timeMinIs(std::numeric_limits<double>::max());
  EXPECT_TRUE(one->armed());
  EXPECT_EQ(wheel->timeMin(), std::numeric_limits<double>::max());
  expireAt(1e15);
  EXPECT_THAT(fired, IsEmpty());
}

TEST_F(TimerWheelTest, NaNIsRefusedAndTheTimerKeepsWhatItHad) {
  auto const one = timer(1, 101);
  EXPECT_THROW(one->timeMinIs(std::nan("")), Vel::InvalidArgumentException);
  EXPECT_EQ(one->timeMin(), 101);
  expireAt(101);
  EXPECT_THAT(fired, ElementsAre(1));
}

TEST_F(TimerWheelTest, ATimerReArmedForNowOrEarlierWaitsForTheNextExpire) {
  int calls = 0;
  auto const one = timer([&](Timer& self) { self.timeMinIs(++calls == 1 ? time : time - 50); }, 101);
  expireAt(101);
  EXPECT_EQ(calls, 1);
  expireAt(101);
  EXPECT_EQ(calls, 2);
  expireAt(101);
  EXPECT_EQ(calls, 3);
}

TEST_F(TimerWheelTest, TimersFireInTheOrderOfTimeAndThenOfArming) {
  auto const c = timer(3, 103), a = timer(1, 101), b2 = timer(22, 102), b1 = timer(21, 102);
  a->timeMinIs(102);  // armed last of those at 102
  expireAt(110);
  EXPECT_THAT(fired, ElementsAre(22, 21, 1, 3));
}

TEST_F(TimerWheelTest, TimesThatDifferInTheLastBitFireInOrderAndSeparately) {
  Seconds const later = std::nextafter(101, 200);
  auto const b = timer(2, later), a = timer(1, 101);
  expireAt(101);
  EXPECT_THAT(fired, ElementsAre(1));
  expireAt(later);
  EXPECT_THAT(fired, ElementsAre(1, 2));
}

TEST_F(TimerWheelTest, HoweverOftenALoopComesByATimerIsCalledAtItsVeryTime) {
  // In the same tick, in the next one, and where the wheel's levels meet.
  for (Seconds const delay : {0.0001, 0.001, 0.0625, 4.0, 256.0, 20000.5}) {
    Seconds const start = time;
    auto const one = timer(1, start + delay);
    Seconds const at = one->timeMin();
    for (int i = 0; i < 1000; ++i) expireAt(start + (at - start) * i / 1000);
    expireAt(std::nextafter(at, 0));
    EXPECT_THAT(fired, IsEmpty()) << delay;
    expireAt(at);
    EXPECT_THAT(fired, ElementsAre(1)) << delay;
    fired.clear();
  }
}

TEST_F(TimerWheelTest, AfterAClockThatWentBackATimerIsCalledAtItsTime) {
  expireAt(200);
  auto const ahead = timer(2, 300), late = timer(1, 150);
  expireAt(140);
  expireAt(149);
  EXPECT_THAT(fired, IsEmpty());
  expireAt(150);
  EXPECT_THAT(fired, ElementsAre(1));
  expireAt(300);
  EXPECT_THAT(fired, ElementsAre(1, 2));
}

TEST_F(TimerWheelTest, NowMovesOnWithTheClockDuringAPass) {
  std::vector<Seconds> seen;
  auto const one = timer(
      [&](Timer&) {
        time += 5;
        seen.push_back(wheel->now());
      },
      101);
  auto const two = timer([&](Timer&) { seen.push_back(wheel->now()); }, 101);
  expireAt(101);
  EXPECT_THAT(seen, ElementsAre(106, 106));
}

TEST_F(TimerWheelTest, WhatBecomesDueDuringAPassWaitsForTheNext) {
  auto const one = timer([&](Timer&) { time = 105; }, 101);
  auto const two = timer(2, 104);
  expireAt(101);
  EXPECT_THAT(fired, IsEmpty());
  wheel->expire();
  EXPECT_THAT(fired, ElementsAre(2));
}

TEST_F(TimerWheelTest, ATimerThatAnotherOneDestroysMovesOrDisarmsIsNotCalled) {
  Vel::Ptr<Timer> destroyed, moved, disarmed;
  auto const first = timer(
      [&](Timer&) {
        destroyed = nullptr;
        moved->timeMinIs(200);
        disarmed->timeMinIs(never);
      },
      101);
  destroyed = timer(1, 101);
  moved = timer(2, 101);
  disarmed = timer(3, 101);
  auto const last = timer(4, 101);
  expireAt(101);
  EXPECT_THAT(fired, ElementsAre(4));
  expireAt(200);
  EXPECT_THAT(fired, ElementsAre(4, 2));
}

TEST_F(TimerWheelTest, ATimerMayDropItsOwnLastReferenceInItsCallback) {
  Vel::Ptr<Timer> one;
  one = timer(
      [&](Timer&) {
        one = nullptr;
        fired.push_back(1);
      },
      101);
  expireAt(101);
  EXPECT_THAT(fired, ElementsAre(1));
  EXPECT_FALSE(one);
}

TEST_F(TimerWheelTest, AZombieOrInactiveTimerIsNotCalled) {
  auto const zombie = timer(1, 101), inactive = timer(2, 101), live = timer(3, 101);
  zombie->velDoZombieReactors(true);
  inactive->hasNotificationActiveIs(false);
  expireAt(101);
  EXPECT_THAT(fired, ElementsAre(3));
  EXPECT_FALSE(zombie->armed());
}

TEST_F(TimerWheelTest, AnExpiryThatIsLostIsKnownUntilTheTimerIsArmedOrDisarmed) {
  auto const zombie = timer(1, 101), inactive = timer(2, 101), live = timer(3, 101);
  zombie->velDoZombieReactors(true);
  inactive->hasNotificationActiveIs(false);
  for (auto const& each : {zombie, inactive, live}) EXPECT_FALSE(each->missed());
  expireAt(101);
  EXPECT_FALSE(live->missed());
  for (auto const& each : {zombie, inactive}) {
    EXPECT_TRUE(each->missed());
    EXPECT_THROW(each->timeMinIs(std::nan("")), Vel::InvalidArgumentException);
    each->notifierIs(nullptr);
    each->notifierIs(wheel);
    EXPECT_TRUE(each->missed());
  }
  zombie->timeMinIs(never);
  EXPECT_FALSE(zombie->missed());
  inactive->timeMinIs(102);
  EXPECT_FALSE(inactive->missed());
  expireAt(102);
  EXPECT_TRUE(inactive->missed());
  inactive->hasNotificationActiveIs(true);
  EXPECT_TRUE(inactive->missed());
  inactive->timeMinIs(103);
  expireAt(103);
  EXPECT_FALSE(inactive->missed());
  EXPECT_THAT(fired, ElementsAre(3, 2));
}

TEST_F(TimerWheelTest, AThrowingTimerIsToldSoAndTheOthersAreStillCalled) {
  auto const bad = timer([](Timer&) { throw 1; }, 101);
  auto const good = timer(2, 101);
  expireAt(101);
  EXPECT_EQ(bad->exceptions, 1);
  EXPECT_THAT(fired, ElementsAre(2));
}

TEST_F(TimerWheelTest, TimeMinIsTheEarliestArmedTimeAtEveryMoment) {
  EXPECT_EQ(wheel->timeMin(), never);
  auto const a = timer(1, 5000), b = timer(2, 110.25);
  EXPECT_EQ(wheel->timeMin(), 110.25);
  b->timeMinIs(9000);
  EXPECT_EQ(wheel->timeMin(), 5000);
  a->timeMinIs(never);
  EXPECT_EQ(wheel->timeMin(), 9000);
  b->timeMinIs(50);  // in the past
  EXPECT_EQ(wheel->timeMin(), 50);
}

TEST_F(TimerWheelTest, AnExpireFromInsideACallbackDoesNothing) {
  auto const one = timer(
      [&](Timer&) {
        fired.push_back(1);
        wheel->expire();
        fired.push_back(2);
      },
      101);
  auto const two = timer(3, 101);
  expireAt(101);
  EXPECT_THAT(fired, ElementsAre(1, 2, 3));
}

TEST_F(TimerWheelTest, TheWheelMayBeDroppedInsideACallback) {
  Vel::Ptr<Timer> one = timer(
      [&](Timer& self) {
        wheel = nullptr;
        self.notifierIs(nullptr);
        fired.push_back(1);
      },
      101);
  time = 101;
  wheel->expire();
  EXPECT_THAT(fired, ElementsAre(1));
}

TEST_F(TimerWheelTest, AnArmedTimerThatDoesNotHoldTheWheelOutlivesIt) {
  auto const one = timer(1, 101);
  one->isNondestructingIs(true);
  wheel = nullptr;
  EXPECT_FALSE(one->notifier());
  one->timeMinIs(102);
  one->timeMinIs(never);
  EXPECT_THAT(fired, IsEmpty());
}

TEST_F(TimerWheelTest, ATimerTakesItsTimeAlongToAnotherWheel) {
  auto const other = Vel::create<TimerWheel>([this] { return time; });
  auto const one = timer(1, 101);
  one->notifierIs(other);
  expireAt(101);
  EXPECT_THAT(fired, IsEmpty());
  other->expire();
  EXPECT_THAT(fired, ElementsAre(1));
}

// Acts when its wheel has no references left.
class AtTheEnd final : public TimerWheel::NotifieeConst {
 public:
  AtTheEnd(Vel::Ptr<TimerWheel> const& wheel, std::function<void()> act) : act_(std::move(act)) {
    isNondestructingIs(true);
    notifierIs(wheel);
  }
  void onZeroReferences() override { act_(); }

 private:
  std::function<void()> act_;
};

TEST_F(TimerWheelTest, WhatHappensToATimerAtTheEndOfTheWheelThatItLeavesHolds) {
  auto const other = Vel::create<TimerWheel>([this] { return time; });
  auto one = timer(1, 101);
  auto watcher = Vel::create<AtTheEnd>(wheel, [&] { one->timeMinIs(500); });
  wheel = nullptr;
  one->notifierIs(other);
  EXPECT_EQ(one->timeMin(), 500);
  EXPECT_EQ(other->timeMin(), 500);

  wheel = Vel::create<TimerWheel>([this] { return time; });
  watcher = Vel::create<AtTheEnd>(wheel, [&] { one = nullptr; });
  one->notifierIs(std::exchange(wheel, nullptr));
  one->notifierIs(other);
  EXPECT_FALSE(one);
  EXPECT_EQ(other->armedCount(), 0u);
}

TEST_F(TimerWheelTest, AClockAtInfinityFiresWhateverIsArmed) {
  expireAt(never);
  EXPECT_THAT(fired, IsEmpty());
  auto const last = timer(2, std::numeric_limits<double>::max()), first = timer(1, 101), off = timer(3);
  expireAt(never);
  EXPECT_THAT(fired, ElementsAre(1, 2));
  EXPECT_EQ(wheel->timeMin(), never);
}

TEST_F(TimerWheelTest, ATimerThatCouldNotBeMadeIsOffItsWheel) {
  class Failing final : public TimerWheel::Notifiee {
   public:
    explicit Failing(Vel::Ptr<TimerWheel> const& wheel) {
      notifierIs(wheel);
      timeMinIs(101);
      throw std::runtime_error("no memory");
    }
  };
  EXPECT_THROW(Vel::create<Failing>(wheel), std::runtime_error);
  EXPECT_EQ(wheel->armedCount(), 0u);
  EXPECT_EQ(wheel->timeMin(), never);
  expireAt(101);
}

TEST_F(TimerWheelTest, ATimerIsOffItsWheelBeforeItsDerivedPartsAreDestroyed) {
  class Ending final : public TimerWheel::Notifiee {
   public:
    Ending(U32& left, bool& hasWheel) : left_(left), hasWheel_(hasWheel) {}
    ~Ending() override {
      left_ = wheel->armedCount();
      hasWheel_ = notifier() != nullptr;
    }
    Vel::Ptr<TimerWheel> wheel;

   private:
    U32& left_;
    bool& hasWheel_;
  };
  U32 left = 1;
  bool hasWheel = true;
  auto ending = Vel::create<Ending>(left, hasWheel);
  ending->wheel = wheel;
  ending->notifierIs(wheel);
  ending->timeMinIs(101);
  ending = nullptr;
  EXPECT_EQ(left, 0u);
  EXPECT_FALSE(hasWheel);
}

TEST_F(TimerWheelTest, AConstTimerCannotBeArmed) {
  Vel::Ptr<Timer const> const one = timer(1);
  EXPECT_THROW(one->timeMinIs(1), Vel::RangeException);
}

TEST_F(TimerWheelTest, RandomOperationsAgreeWithASortedList) {
  for (unsigned seed = 1; seed <= 30; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    struct Model {
      Seconds at = never;
      U64 order = 0;
    };
    constexpr int count = 200;
    std::vector<Model> model(count);
    std::vector<Vel::Ptr<Timer>> timers;
    U64 order = 0;
    fired.clear();
    time = seed * 1000;
    wheel = Vel::create<TimerWheel>([this] { return time; });
    for (int i = 0; i < count; ++i) timers.push_back(timer(i));
    for (int step = 0; step < 2000; ++step) {
      int const i = static_cast<int>(random() % count);
      Seconds const scales[] = {1e-6, 1e-3, 0.1, 60, 5000, 1e7};
      Seconds const at = random() % 8 == 0 ? never
                         : random() % 8 == 0
                             ? time - 1
                             : time + scales[random() % 6] * static_cast<Seconds>(random() % 1000) / 500;
      timers[i]->timeMinIs(at);
      model[i] = {at, ++order};
      Seconds earliest = never;
      for (Model const& m : model) earliest = std::min(earliest, m.at);
      ASSERT_EQ(wheel->timeMin(), earliest);
      if (random() % 5 != 0) continue;
      time += scales[random() % 5] * static_cast<Seconds>(random() % 1000) / 1000;
      std::vector<int> due;
      for (int k = 0; k < count; ++k)
        if (model[k].at <= time) due.push_back(k);
      std::sort(due.begin(), due.end(), [&](int a, int b) {
        return std::tie(model[a].at, model[a].order) < std::tie(model[b].at, model[b].order);
      });
      for (int const k : due) model[k].at = never;
      fired.clear();
      wheel->expire();
      ASSERT_EQ(fired, due);
      U32 armed = 0;
      for (Model const& m : model) armed += m.at != never;
      ASSERT_EQ(wheel->armedCount(), armed);
    }
  }
}

TEST_F(TimerWheelTest, InsideAnExpiryTheEarliestTimeIsOfWhatIsStillToBeCalled) {
  Seconds seen = 0;
  auto const first = timer([&](Timer&) { seen = wheel->timeMin(); }, 1001);
  auto const second = timer(2, 1002);
  auto const later = timer(3, 2000);
  expireAt(1003);
  EXPECT_EQ(seen, 1002);
  EXPECT_EQ(wheel->timeMin(), 2000);
}

// Notes what is told, and does with it what it is made for.
class ExpiryWatch final : public TimerExpiry::NotifieeConst {
 public:
  explicit ExpiryWatch(std::function<void(TimerWheel::Notifiee const&)> tell) : tell_(std::move(tell)) {}
  void onTimer() override { tell_(*notifier()->timer()); }

 private:
  std::function<void(TimerWheel::Notifiee const&)> tell_;
};

class TimerExpiryTest : public TimerWheelTest {
 protected:
  Vel::Ptr<ExpiryWatch> watch(std::function<void(TimerWheel::Notifiee const&)> tell) {
    auto made = Vel::create<ExpiryWatch>(std::move(tell));
    made->notifierIs(wheel->expiry());
    return made;
  }
  // One that notes the time of each timer as a negative number, among the numbers of those that fire; 0 if
  // there is none any more.
  Vel::Ptr<ExpiryWatch> watch() {
    return watch(
        [this](auto const& told) { fired.push_back(told.armed() ? -static_cast<int>(told.timeMin()) : 0); });
  }
};

TEST_F(TimerExpiryTest, TellsOfEachTimerBeforeItsCallInTheOrderOfTheCalls) {
  auto const b = timer(2, 102), a = timer(1, 101), later = timer(3, 103);
  auto const watcher = watch();
  expireAt(102);
  EXPECT_THAT(fired, ElementsAre(-101, 1, -102, 2));
  EXPECT_FALSE(wheel->expiry()->timer());
  fired.clear();
  watcher->notifierIs(nullptr);
  expireAt(103);
  EXPECT_THAT(fired, ElementsAre(3));
}

TEST_F(TimerExpiryTest, DoesNotTellOfTimersThatCannotBeCalled) {
  auto const off = timer(1, 101), zombie = timer(2, 101), on = timer(3, 101);
  off->hasNotificationActiveIs(false);
  zombie->velDoZombieReactors(true);
  auto const watcher = watch();
  expireAt(101);
  EXPECT_THAT(fired, ElementsAre(-101, 3));
  EXPECT_TRUE(off->missed());
  EXPECT_TRUE(zombie->missed());
}

TEST_F(TimerExpiryTest, LetsAReactorMoveDisarmSwitchOffAndDestroyTheTimer) {
  auto const moved = timer(1, 101), disarmed = timer(2, 102), off = timer(3, 103), last = timer(5, 105);
  Vel::Ptr<Timer> destroyed = timer(4, 104);
  auto const meddler = watch([&](TimerWheel::Notifiee const& told) {
    if (&told == moved.get()) moved->timeMinIs(100);
    if (&told == disarmed.get()) disarmed->timeMinIs(never);
    if (&told == off.get()) off->hasNotificationActiveIs(false);
    if (&told == destroyed.get()) destroyed = nullptr;
  });
  auto const watcher = watch();  // is told of the one that is destroyed, too
  expireAt(110);
  EXPECT_THAT(fired, ElementsAre(-100, 0, -103, -104, -105, 5));
  EXPECT_EQ(moved->timeMin(), 100);
  EXPECT_TRUE(off->missed());
  EXPECT_EQ(wheel->armedCount(), 1u);
}

TEST_F(TimerExpiryTest, LetsAReactorDropTheWheel) {
  auto const one = timer(1, 101), two = timer(2, 102);
  for (auto const& each : {one, two}) each->isNondestructingIs(true);
  auto const dropper = watch([this](auto const&) { wheel = nullptr; });
  expireAt(102);
  EXPECT_FALSE(wheel);
  EXPECT_FALSE(one->notifier());
}

TEST_F(TimerExpiryTest, ContainsWhatAReactorThrows) {
  auto const one = timer(1, 101);
  auto const thrower = watch([](auto const&) { throw std::runtime_error("refused"); });
  auto const watcher = watch();
  testing::internal::CaptureStderr();
  expireAt(101);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("refused"));
  EXPECT_THAT(fired, ElementsAre(-101, 1));
}

// Arms timers for times of one kind after another, asks for the earliest in between, and lets them fire one
// time after another: in order, and of equal time in the order of arming.
class ManyTimersTest : public TimerWheelTest {
 protected:
  void arm(Seconds at) {
    int const number = static_cast<int>(timers.size());
    timers.push_back(timer(number, at));
    expected.emplace(std::pair(at, ++armings), number);
    ASSERT_EQ(wheel->timeMin(), expected.begin()->first.first);
  }
  // So that the wheel has to look for the earliest.
  void ask() {
    probe->timeMinIs(-never);
    probe->timeMinIs(never);
    ASSERT_EQ(wheel->timeMin(), expected.begin()->first.first);
  }
  void disarmFirst() {
    timers[static_cast<std::size_t>(expected.begin()->second)]->timeMinIs(never);
    expected.erase(expected.begin());
  }
  void fireAll() {
    ask();
    while (!expected.empty()) {
      Seconds const next = expected.begin()->first.first;
      ASSERT_EQ(wheel->timeMin(), next);
      std::vector<int> due;
      for (; !expected.empty() && expected.begin()->first.first == next; expected.erase(expected.begin()))
        due.push_back(expected.begin()->second);
      fired.clear();
      expireAt(next);
      ASSERT_EQ(fired, due);
    }
    EXPECT_EQ(wheel->timeMin(), never);
    EXPECT_EQ(wheel->armedCount(), 0u);
  }
  Vel::Ptr<Timer> const probe = timer(-1);
  std::vector<Vel::Ptr<Timer>> timers;
  std::map<std::pair<Seconds, int>, int> expected;
  int armings = 0;
};

TEST_F(ManyTimersTest, OfOneMillisecondFireInOrder) {
  std::mt19937 random(1);
  for (int i = 0; i < 3000; ++i) arm(1000 + (random() % 1000) * 1e-6);
  fireAll();
}

TEST_F(ManyTimersTest, OfAFewTimesFireInTheOrderOfArming) {
  std::mt19937 random(2);
  for (int i = 0; i < 3000; ++i) arm(1000 + random() % 3);
  fireAll();
}

TEST_F(ManyTimersTest, WhoseTimesAreAsFarApartAsDoublesCanBeFireInOrder) {
  std::mt19937_64 random(3);
  arm(-never);
  for (int i = 0; i < 20; ++i) arm(i % 2 == 0 ? 0.0 : -0.0);
  for (int i = 0; i < 3000; ++i)
    if (Seconds const at = std::bit_cast<Seconds>(random()); at <= std::numeric_limits<Seconds>::max())
      arm(at);
  for (int i = 0; i < 100; ++i) arm(std::ldexp(1.0, -i * 10));
  fireAll();
}

TEST_F(ManyTimersTest, BeforeAndBehindOthersThatAreAlmostOfOneTimeFireInOrder) {
  Seconds at = 1000;
  for (int i = 0; i < 20; ++i, at = std::nextafter(at, never)) arm(at);
  ask();
  for (int i = 0; i < 20; ++i) arm(2000 - i);
  for (int i = 0; i < 20; ++i) arm(900 - i);
  ask();
  fireAll();
}

TEST_F(ManyTimersTest, ThatCloseInOnATimeFireInOrder) {
  for (int i = 0; i < 40; ++i) {
    for (int k = 0; k < 20; ++k) arm(1000 + std::ldexp(1 + k * 0.01, -i));
    ask();
  }
  fireAll();
}

// Each burst comes before all others: those that were in line before have to wait, in order as far as there
// is room.
TEST_F(ManyTimersTest, OfEarlierAndEarlierBurstsFireInOrder) {
  std::mt19937 random(4);
  for (int burst = 0; burst < 60; ++burst) {
    for (int k = 0; k < 40; ++k) arm(100'000 - burst * 1000 + random() % 500 * 0.1);
    ask();
  }
  fireAll();
}

TEST_F(ManyTimersTest, ThatAreDisarmedAllAtOnceLeaveTheWheelAsItWas) {
  for (int i = 0; i < 3; ++i) {
    for (int k = 0; k < 20; ++k) arm(1000 + k * 1e-3);
    for (int k = 0; k < 20; ++k) arm(2000 + k);
    ask();
    while (!expected.empty()) disarmFirst();
    EXPECT_EQ(wheel->timeMin(), never);
  }
  arm(1000);
  fireAll();
}

// Each burst comes behind all others, and those go away.
TEST_F(ManyTimersTest, OfLaterAndLaterBurstsFireInOrder) {
  for (int burst = 0; burst < 40; ++burst) {
    for (int k = 0; k < 20; ++k) arm(1000 + burst * 1000 + k);
    while (expected.size() > 20) disarmFirst();
    ask();
  }
  fireAll();
}

// Each burst lies between the first timer and all others of the one before.
TEST_F(ManyTimersTest, OfBurstsInTheGapsOfOthersFireInOrder) {
  std::mt19937 random(5);
  Seconds width = 1e6;
  for (int burst = 0; burst < 60; ++burst, width *= 0.7) {
    for (int k = 0; k < 40; ++k) arm(1000 + width * (1 + random() % 1000 * 1e-3));
    ask();
    for (int k = 0; k < 3; ++k) arm(2e6 + burst);
    arm(4e6 - burst);
  }
  fireAll();
}

// The first burst spans all others, which come one before another.
TEST_F(ManyTimersTest, OfBurstsInOneSpanFireInOrder) {
  for (int k = 0; k <= 100; ++k) arm(1000 + k * 10);
  ask();
  for (int burst = 60; burst > 0; --burst) {
    while (expected.begin()->first.first < 1000 + burst * 16) disarmFirst();
    for (int k = 0; k < 40; ++k) arm(1000 + burst * 16 + k % 17 * 0.1);
    ask();
  }
  fireAll();
}

// What lies behind a span has been first in line, and then more and more comes before it.
TEST_F(ManyTimersTest, OfBurstsInASpanWhoseEndWasFirstOnceFireInOrder) {
  for (int k = 0; k < 20; ++k) arm(1e6 + k * 1e5);
  for (int k = 0; k < 20; ++k) arm(1000 + k * 5);
  ask();
  for (int k = 0; k < 30; ++k) arm(1200 + k);
  for (int k = 0; k < 20; ++k) disarmFirst();
  ask();
  arm(1050);
  for (int burst = 1; burst <= 20; ++burst) {
    for (int k = 0; k < 20; ++k) arm(1050 - burst * 2 + k % 7 * 0.01);
    ask();
  }
  fireAll();
}

// Bursts are armed before and behind one another, and the first timer is stopped from time to time.
TEST_F(ManyTimersTest, OfBurstsAnywhereFireInOrder) {
  for (unsigned seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    arm(1e6);
    for (int burst = 0; burst < 150; ++burst) {
      Seconds const distance = std::ldexp(1.0, static_cast<int>(random() % 24) - 4);
      Seconds const begin = expected.begin()->first.first + (random() % 3 == 0 ? distance : -distance);
      for (int k = 0; k < 30; ++k) arm(begin + random() % 1000 * distance / 3000);
      ask();
      for (U32 k = random() % 4 == 0 ? random() % 60 : 0; k > 0 && expected.size() > 1; --k) disarmFirst();
      ASSERT_EQ(wheel->timeMin(), expected.begin()->first.first);
    }
    fireAll();
  }
}

TEST_F(ManyTimersTest, ThatAreMovedWheneverTheyAreTheEarliestAgreeWithASortedList) {
  std::mt19937 random(7);
  Seconds const scales[] = {0, 1e-9, 1e-4, 1e-2, 1, 60, 3600};
  for (int i = 0; i < 1000; ++i) arm(1000 + random() % 1000 * 1e-5);
  for (int step = 0; step < 30'000; ++step) {
    auto const first = expected.begin();
    int const number = first->second;
    Seconds const at = first->first.first + scales[random() % 7] * static_cast<Seconds>(random() % 1000);
    expected.erase(first);
    timers[static_cast<std::size_t>(number)]->timeMinIs(at);
    expected.emplace(std::pair(at, ++armings), number);
    ASSERT_EQ(wheel->timeMin(), expected.begin()->first.first) << step;
  }
  fireAll();
}

TEST_F(ManyTimersTest, ThatDoNotHoldTheWheelOutliveIt) {
  for (int i = 0; i < 1000; ++i) {
    arm(1000 + i % 100);
    timers.back()->isNondestructingIs(true);
  }
  ask();
  probe->notifierIs(nullptr);
  wheel = nullptr;
  for (auto const& timer : timers) {
    EXPECT_FALSE(timer->notifier());
    timer->timeMinIs(never);
  }
}

}  // namespace
}  // namespace Zanth
