// SPDX-License-Identifier: Apache-2.0
// Ends in the middle of things, and collections that are filled and emptied in their own order.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "pim/joinprune/JoinPruneStatus.h"
#include "runtime/scrivo/CycleCounter.h"
#include "runtime/zanth/TimerWheel.h"
#include "tests/Thorough.h"

namespace Vel {
namespace {

using Dova::IpGenAddr;
using Routing::Pim::JoinPruneMessageInfo;
using Routing::Pim::JoinPruneStatus;
using Routing::Pim::RouteIntfKey;
using testing::ElementsAre;
using testing::IsEmpty;
using Group = Routing::Pim::Packet::JoinPruneGroupData;

IpGenAddr source(U32 i) { return IpGenAddr::ipv4(0x0a000000u + i); }

TEST(LifetimeTest, ATimerThatIsUnboundAsAConstReactorIsOffTheWheel) {
  Seconds time = 1;
  auto const wheel = create<Zanth::TimerWheel>([&] { return time; });
  auto timer = create<Zanth::TimerWheel::Notifiee>();
  timer->notifierIs(wheel);
  timer->timeMinIs(5);
  static_cast<Zanth::TimerWheel::NotifieeConst&>(*timer).notifierIs(nullptr);
  timer = nullptr;
  time = 10;
  wheel->expire();
  EXPECT_EQ(wheel->armedCount(), 0u);
}

TEST(LifetimeTest, AClockThatThrowsOnceDoesNotStopTheTimers) {
  class Timer final : public Zanth::TimerWheel::Notifiee {
   public:
    void onTime() override { ++calls; }
    int calls = 0;
  };
  bool broken = false;
  auto const wheel =
      create<Zanth::TimerWheel>([&] { return broken ? throw std::runtime_error("clock") : 10.0; });
  auto const timer = create<Timer>();
  timer->notifierIs(wheel);
  timer->timeMinIs(5);
  broken = true;
  EXPECT_THROW(wheel->expire(), std::runtime_error);
  broken = false;
  wheel->expire();
  EXPECT_EQ(timer->calls, 1);
}

// An entity may be dropped while all its elements are deleted, whatever kind they are of.
TEST(LifetimeTest, AnEntityMayBeDroppedWhileItsCollectionIsEmptied) {
  class Dropper final : public Group::NotifieeConst {
   public:
    explicit Dropper(Ptr<Group>& g) : group(g) {}
    void onJoinedSource(IpGenAddr) override { drop(); }
    void onPrunedRptSource(IpGenAddr) override { drop(); }
    void drop() {
      group = nullptr;
      notifierIs(nullptr);
    }
    Ptr<Group>& group;
  };
  for (bool const ordered : {false, true}) {
    auto group = create<Group>(IpGenAddr("239.1.1.1"));
    for (U32 i = 1; i <= 3; ++i)
      ordered ? group->prunedRptSourceIs(source(i)) : group->joinedSourceIs(source(i));
    auto const dropper = create<Dropper>(group);
    dropper->notifierIs(group);
    Group* const raw = group.get();
    ordered ? raw->prunedRptSourceDelAll() : raw->joinedSourceDelAll();
    EXPECT_FALSE(group);
  }
  class StatusDropper final : public JoinPruneStatus::NotifieeConst {
   public:
    explicit StatusDropper(Ptr<JoinPruneStatus>& s) : status(s) {}
    void onTriggeredGroup(IpGenAddr) override { drop(); }
    void onRxPrune(RouteIntfKey) override { drop(); }
    void drop() {
      status = nullptr;
      notifierIs(nullptr);
    }
    Ptr<JoinPruneStatus>& status;
  };
  for (bool const pointers : {false, true}) {
    auto status = Routing::Pim::joinPruneStatusFactory();
    for (U32 i = 1; i <= 3; ++i) {
      status->triggeredGroupIs(source(i));
      status->rxPruneIs(RouteIntfKey(source(i), source(i), {}), Routing::Pim::joinPruneMessageInfoFactory());
    }
    auto const dropper = create<StatusDropper>(status);
    dropper->notifierIs(status);
    JoinPruneStatus* const raw = status.get();
    pointers ? raw->rxPruneDelAll() : raw->triggeredGroupDelAll();
    EXPECT_FALSE(status);
  }
}

TEST(LifetimeTest, WhatEndsWithItsEntityDoesNotFindTheEntityAnyMore) {
  class Watcher final : public JoinPruneStatus::NotifieeConst {};
  class Looker final : public JoinPruneMessageInfo::NotifieeConst {
   public:
    explicit Looker(Ptr<Watcher> w) : watcher(std::move(w)) {}
    void onZeroReferences() override { found += watcher->notifier() ? 1 : 0; }
    Ptr<Watcher> watcher;
    int found = 0;
  };
  auto status = Routing::Pim::joinPruneStatusFactory();
  auto const watcher = create<Watcher>();
  watcher->isNondestructingIs(true);
  watcher->notifierIs(status);
  std::vector<Ptr<Looker>> lookers;
  for (U32 i = 1; i <= 3; ++i) {
    auto const record = Routing::Pim::joinPruneMessageInfoFactory();
    status->rxPruneIs(RouteIntfKey(source(i), source(i), {}), record);
    lookers.push_back(create<Looker>(watcher));
    lookers.back()->isNondestructingIs(true);
    lookers.back()->notifierIs(record);
  }
  status = nullptr;
  for (auto const& looker : lookers) {
    EXPECT_EQ(looker->found, 0);
    EXPECT_FALSE(looker->notifier());
  }
}

TEST(LifetimeTest, AnErrorInZeroReferenceHandlingDoesNotEscapeFromADroppedReference) {
  class Failing final : public Entity {
   public:
    explicit Failing(int& d) : destroyed(d) {}
    ~Failing() override { ++destroyed; }
    void zeroReferencesIs(bool) override { throw std::runtime_error("zero"); }
    int& destroyed;
  };
  int destroyed = 0;
  create<Failing>(destroyed);
  EXPECT_EQ(destroyed, 1);
}

class Held final : public Entity {
 public:
  explicit Held(std::vector<std::string>& l) : log(l) {}
  ~Held() override { log.push_back("destroyed"); }
  void zeroReferencesIs(bool zero) override { log.push_back(zero ? "no references" : "revived"); }
  void doTeardown() override { log.push_back("torn down"); }
  std::vector<std::string>& log;
};

class MemoryHoldTest : public testing::Test {
 protected:
  std::vector<std::string> taken() { return std::exchange(log, {}); }
  std::vector<std::string> log;
  Ptr<Held> held = create<Held>(log);
  Held* const raw = held.get();
};

TEST_F(MemoryHoldTest, AHoldIsNoReference) {
  {
    MemoryHold const hold(raw);
    MemoryHold const copy = hold;
    EXPECT_EQ(raw->references(), 1u);
  }
  EXPECT_THAT(taken(), IsEmpty());
}

TEST_F(MemoryHoldTest, TheLastReferenceEndsTheObjectImmediatelyAndOnlyItsDestructionWaitsForTheHolds) {
  {
    MemoryHold const outer(raw);
    {
      MemoryHold inner(raw);
      held = nullptr;
      EXPECT_THAT(taken(), ElementsAre("no references", "torn down"));
      MemoryHold const moved = std::move(inner);
    }
    EXPECT_THAT(taken(), IsEmpty());
  }
  EXPECT_THAT(taken(), ElementsAre("destroyed"));
}

TEST_F(MemoryHoldTest, AReferenceThatIsTakenAndDroppedMeanwhileChangesNothing) {
  {
    MemoryHold const hold(raw);
    held = nullptr;
    taken();
    Ptr<Held>{raw};
    EXPECT_THAT(taken(), IsEmpty());
  }
  EXPECT_THAT(taken(), ElementsAre("destroyed"));
}

TEST_F(MemoryHoldTest, AReferenceThatIsKeptRevivesTheObjectWhenTheLastHoldEnds) {
  Ptr<Held> kept;
  {
    MemoryHold const hold(raw);
    held = nullptr;
    taken();
    kept = Ptr<Held>(raw);
  }
  EXPECT_THAT(taken(), ElementsAre("revived"));
  kept = nullptr;
  EXPECT_THAT(taken(), ElementsAre("no references", "torn down", "destroyed"));
}

TEST_F(MemoryHoldTest, AHoldThatBeginsAndEndsInTheZeroReferenceHandlingDoesNotDestroyTheObjectInIt) {
  class Holding final : public Entity {
   public:
    explicit Holding(std::vector<std::string>& l) : log(l) {}
    ~Holding() override {
      MemoryHold const hold(this);
      log.push_back("destroyed");
    }
    void zeroReferencesIs(bool) override {
      MemoryHold const hold(this);
      log.push_back("no references");
    }
    void doTeardown() override {
      { MemoryHold const hold(this); }
      log.push_back("torn down");
    }
    std::vector<std::string>& log;
  };
  create<Holding>(log);
  EXPECT_THAT(taken(), ElementsAre("no references", "torn down", "destroyed"));
}

// Revived before anything was taken down, while something else holds the memory.
TEST_F(MemoryHoldTest, AnObjectThatIsRevivedInItsZeroReferenceHandlingEndsWhenItIsDroppedAgain) {
  class Reviving final : public Entity {
   public:
    explicit Reviving(std::vector<std::string>& l) : log(l) {}
    ~Reviving() override { log.push_back("destroyed"); }
    void zeroReferencesIs(bool zero) override {
      log.push_back(zero ? "no references" : "revived");
      if (zero && !std::exchange(was, true)) kept = Ptr<Reviving>(this);
      if (throws && !zero) throw std::runtime_error("revived");
    }
    void doTeardown() override { log.push_back("torn down"); }
    std::vector<std::string>& log;
    Ptr<Reviving> kept;
    bool was = false, throws = false;
  };
  for (bool const throws : {false, true}) {
    SCOPED_TRACE(throws);
    auto reviving = create<Reviving>(log);
    Reviving* const object = reviving.get();
    object->throws = throws;
    {
      MemoryHold const hold(object);
      reviving = nullptr;
      EXPECT_THAT(taken(), ElementsAre("no references", "revived"));
      object->kept = nullptr;
      EXPECT_THAT(taken(), ElementsAre("no references", "torn down"));
    }
    EXPECT_THAT(taken(), ElementsAre("destroyed"));
  }
}

TEST_F(MemoryHoldTest, AnObjectMayBeDroppedAndMayThrowWhileItIsToldThatItWasRevived) {
  class Faint final : public Entity {
   public:
    explicit Faint(std::vector<std::string>& l) : log(l) {}
    ~Faint() override { log.push_back("destroyed"); }
    void zeroReferencesIs(bool zero) override {
      log.push_back(zero ? "no references" : "revived");
      if (zero) return;
      kept = nullptr;
      log.push_back("dropped");
      throw std::runtime_error("revived");
    }
    void doTeardown() override {
      if (!std::exchange(was, true)) kept = Ptr<Faint>(this);
      log.push_back("torn down");
    }
    std::vector<std::string>& log;
    Ptr<Faint> kept;
    bool was = false;
  };
  create<Faint>(log);
  EXPECT_THAT(taken(), ElementsAre("no references", "torn down", "revived", "no references", "torn down",
                                   "dropped", "destroyed"));
}

TEST_F(MemoryHoldTest, AnotherObjectIsHeldByAssignment) {
  auto other = create<Held>(log);
  MemoryHold hold(raw);
  hold = MemoryHold(other.get());
  held = nullptr;
  EXPECT_THAT(taken(), ElementsAre("no references", "torn down", "destroyed"));
  other = nullptr;
  EXPECT_THAT(taken(), ElementsAre("no references", "torn down"));
  hold = MemoryHold();
  EXPECT_THAT(taken(), ElementsAre("destroyed"));
}

TEST(LifetimeTest, AnEntityThatIsDroppedInItsOwnDeliveryHasNoReferencesThenAndThereAndTheDeliveryEnds) {
  class Dropper final : public JoinPruneMessageInfo::NotifieeConst {
   public:
    Dropper(std::vector<std::string>& l, char const* n, Ptr<JoinPruneMessageInfo>* r)
        : log(l), me(n), record(r) {}
    void onRxCount() override {
      log.push_back(me + " is called");
      if (record) *record = nullptr;
      log.push_back(me + " returns");
    }
    void onZeroReferences() override { log.push_back(me + " hears of no references"); }
    std::vector<std::string>& log;
    std::string const me;
    Ptr<JoinPruneMessageInfo>* const record;
  };
  std::vector<std::string> log;
  auto record = Routing::Pim::joinPruneMessageInfoFactory();
  auto const first = create<Dropper>(log, "first", &record), second = create<Dropper>(log, "second", nullptr);
  for (auto const& reactor : {first, second}) {
    reactor->isNondestructingIs(true);
    reactor->notifierIs(record);
  }
  JoinPruneMessageInfo* const raw = record.get();
  raw->rxCountInc(1);
  EXPECT_THAT(log,
              ElementsAre("first is called", "first hears of no references", "second hears of no references",
                          "first returns", "second is called", "second returns"));
  EXPECT_FALSE(first->notifier());
}

// The least of several measurements: the others were disturbed.
template <class Measure>
double least(Measure const& measure) {
  double best = measure();
  for (int i = 0; i < 8; ++i) best = std::min(best, measure());
  return best;
}

// Nanoseconds for each of n elements, in processor time: what others do meanwhile does not count.
double nanoseconds(U32 n, std::function<void()> const& act) {
  auto const begin = Scrivo::clockNanoseconds(CLOCK_THREAD_CPUTIME_ID);
  act();
  return static_cast<double>(Scrivo::clockNanoseconds(CLOCK_THREAD_CPUTIME_ID) - begin) / n;
}

// A table is sorted by hash, so filling or emptying one in the order of another is its hardest case: it must
// cost for each source what it costs with few, and not what the table holds.
TEST(LifetimeTest, CopyingAndDrainingInTheOrderOfTheWalkCostsForEachSourceTheSame) {
  struct Cost {
    double copy, drain, part;
  };
  auto const measure = [](U32 n) {
    auto const from = create<Group>(IpGenAddr("239.1.1.1")), to = create<Group>(IpGenAddr("239.1.1.1"));
    for (U32 i = 0; i < n; ++i) from->joinedSourceIs(source(i));
    Cost cost{};
    cost.copy = nanoseconds(n, [&] {
      for (auto i = from->joinedSourceIterator(); i; ++i) to->joinedSourceIs(i.key());
    });
    EXPECT_EQ(to->joinedSourceCount(), n);
    cost.drain = nanoseconds(n, [&] {
      while (auto const i = to->joinedSourceIterator()) to->joinedSourceDel(i);
    });
    cost.part = nanoseconds(n, [&] {
      U32 copied = 0;
      for (auto i = from->joinedSourceIterator(); i && ++copied < n / 3; ++i) to->joinedSourceIs(i.key());
      while (auto const i = to->joinedSourceIterator()) to->joinedSourceDel(i);
    });
    EXPECT_EQ(to->joinedSourceCount(), 0u);
    return cost;
  };
  for (double Cost::*cost : {&Cost::copy, &Cost::drain, &Cost::part}) {
    double const few = least([&] { return measure(2000).*cost; });
    U32 const most = Routing::thorough() ? 200000 : 30000;
    double const many = std::min(measure(most).*cost, measure(most).*cost);
    EXPECT_LT(many, 10 * few);
  }
}

TEST(LifetimeTest, WhatIsLeftAfterAMassRemovalIsWalkedWithoutSearchingTheEmptiedTable) {
  U32 constexpr n = 200000;
  auto const group = create<Group>(IpGenAddr("239.1.1.1"));
  for (U32 i = 0; i < n; ++i) group->joinedSourceIs(source(i));
  for (U32 i = 20; i < n; ++i) group->joinedSourceDel(source(i));
  auto const walk = [&](Group const& g) {
    return nanoseconds(20, [&] {
      U32 seen = 0;
      for (auto i = g.joinedSourceIterator(); i; ++i) ++seen;
      EXPECT_EQ(seen, 20u);
    });
  };
  auto const fresh = create<Group>(IpGenAddr("239.1.1.1"));
  for (U32 i = 0; i < 20; ++i) fresh->joinedSourceIs(source(i));
  EXPECT_LT(least([&] { return walk(*group); }), 50 * least([&] { return walk(*fresh); }));
}

}  // namespace
}  // namespace Vel
