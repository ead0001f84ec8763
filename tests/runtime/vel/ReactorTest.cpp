// SPDX-License-Identifier: Apache-2.0
#include "runtime/vel/Reactor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "runtime/vel/Trace.h"
#include "tests/runtime/vel/Lamp.h"

namespace Vel {

// Overrides no callback of an attribute: everything ends in the general ones.
class Funnel : public Lamp::NotifieeConst {
 public:
  explicit Funnel(Log& log) : log_(log) {}
  void onAttribute(AttributeId id) override {
    log_.push_back("attribute " + std::to_string(id));
    Lamp::NotifieeConst::onAttribute(id);
  }
  void onCollectionNotification(std::string_view name) override {
    log_.push_back("collection " + std::string(name));
    Lamp::NotifieeConst::onCollectionNotification(name);
  }
  void onNotification() override { log_.push_back("something"); }

 private:
  Log& log_;
};

// Keeps the framework's own reaction to an error.
class Flickering : public Lamp::NotifieeConst {
 public:
  void onBrightness() override { throw std::runtime_error("short circuit"); }
  void onWarmth() override { throw 1; }
};

// Fails again when it is told that it failed.
class Hopeless : public Lamp::NotifieeConst {
 public:
  void onBrightness() override { throw std::runtime_error("once"); }
  void onNotificationException(AttributeId) override {
    ++told;
    throw std::runtime_error("twice");
  }
  void onNotificationException() override {
    ++told;
    throw 2;
  }
  int told = 0;
};

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;

class ReactorTest : public testing::Test, protected LampWorld {
 protected:
  ~ReactorTest() override { traceSinkIs(nullptr); }
};

TEST_F(ReactorTest, ReactorsAreCalledInTheOrderOfRegistration) {
  auto const b = recorder("b"), a = recorder("a"), c = recorder("c");
  lamp->brightnessIs(1);
  EXPECT_THAT(taken(log), ElementsAre("b: brightness", "a: brightness", "c: brightness"));
  b->isRegisteredNotifieeIs(false);
  b->isRegisteredNotifieeIs(true);  // now last
  lamp->brightnessIs(2);
  EXPECT_THAT(taken(log), ElementsAre("a: brightness", "c: brightness", "b: brightness"));
}

TEST_F(ReactorTest, AnyNumberOfReactorsIsCalledOnceEachAndInOrder) {
  for (U32 const count : {1u, 2u, 15u, 16u, 17u, 64u, 1000u}) {
    std::vector<Ptr<Recorder>> reactors;
    Log expected;
    for (U32 i = 0; i < count; ++i) {
      reactors.push_back(recorder(std::to_string(i)));
      expected.push_back(std::to_string(i) + ": flashes");
    }
    lamp->flashesInc(1);
    ASSERT_THAT(taken(log), ElementsAreArray(expected));
    for (U32 i = 0; i < count; ++i) ASSERT_EQ(reactors[i]->references(), 1u) << "of " << count;
  }
}

TEST_F(ReactorTest, TheNewValueIsReadableInsideTheCallback) {
  auto const a = recorder("a");
  U32 seen = 0;
  a->then = [&](Recorder& self) { seen = self.notifier()->brightness(); };
  lamp->brightnessIs(7);
  EXPECT_EQ(seen, 7u);
}

TEST_F(ReactorTest, AValueWithoutReactorsIsStored) {
  lamp->brightnessIs(7);
  EXPECT_EQ(lamp->brightness(), 7u);
}

TEST_F(ReactorTest, AReactorKeepsItsNotifierAliveUntilItLetsGo) {
  auto const a = recorder("a");
  EXPECT_EQ(lamp->references(), 2u);
  lamp = nullptr;
  EXPECT_EQ(Lamp::alive, 1);
  EXPECT_EQ(a->notifier()->brightness(), 100u);
  EXPECT_THAT(log, IsEmpty());
  a->notifierIs(nullptr);
  EXPECT_EQ(Lamp::alive, 0);
}

TEST_F(ReactorTest, TheSameNotifierAgainChangesNeitherPlaceNorCount) {
  auto const a = recorder("a"), b = recorder("b");
  a->notifierIs(lamp);
  EXPECT_EQ(lamp->references(), 3u);
  lamp->brightnessIs(1);
  EXPECT_THAT(log, ElementsAre("a: brightness", "b: brightness"));
}

TEST_F(ReactorTest, AReactorThatIsPointedElsewhereHearsOnlyOfTheNewOne) {
  auto const other = create<Lamp>();
  auto const a = recorder("a");
  a->notifierIs(other);
  EXPECT_EQ(lamp->references(), 1u);
  EXPECT_EQ(other->references(), 2u);
  lamp->brightnessIs(1);
  EXPECT_THAT(log, IsEmpty());
  other->brightnessIs(1);
  EXPECT_THAT(log, ElementsAre("a: brightness"));
}

TEST_F(ReactorTest, AnUnregisteredReactorKeepsItsNotifierAndHearsNothing) {
  auto const a = recorder("a");
  a->isRegisteredNotifieeIs(false);
  EXPECT_FALSE(a->isRegisteredNotifiee());
  lamp->brightnessIs(1);
  EXPECT_THAT(log, IsEmpty());
  EXPECT_TRUE(a->notifier() == lamp.get());
  a->isRegisteredNotifieeIs(true);
  EXPECT_TRUE(a->isRegisteredNotifiee());
  lamp->brightnessIs(2);
  EXPECT_THAT(log, ElementsAre("a: brightness"));
}

TEST_F(ReactorTest, RegisteringWithoutANotifierDoesNothing) {
  auto const a = create<Recorder>("a", log);
  a->isRegisteredNotifieeIs(true);
  EXPECT_FALSE(a->isRegisteredNotifiee());
  EXPECT_EQ(a->auditErrors(), 0u);
}

TEST_F(ReactorTest, AnAuditOfHealthyReactorsFindsNothing) {
  auto const a = recorder("a"), b = recorder("b");
  auto c = recorder("c");
  EXPECT_EQ(a->auditErrors() + b->auditErrors() + c->auditErrors(), 0u);
  c = nullptr;
  a->isRegisteredNotifieeIs(false);
  EXPECT_EQ(a->auditErrors() + b->auditErrors(), 0u);
}

TEST_F(ReactorTest, AReactorThatGoesIsTakenOutOfTheList) {
  auto const a = recorder("a");
  auto b = recorder("b");
  auto const c = recorder("c");
  b = nullptr;
  EXPECT_EQ(Recorder::alive, 2);
  lamp->brightnessIs(1);
  EXPECT_THAT(log, ElementsAre("a: brightness", "c: brightness"));
}

TEST_F(ReactorTest, AnInactiveReactorMissesWhatHappensAndNothingIsMadeUpFor) {
  auto const a = recorder("a");
  a->hasNotificationActiveIs(false);
  EXPECT_FALSE(a->hasNotificationActive());
  lamp->brightnessIs(1);
  lamp->bulbIs(address(1));
  a->hasNotificationActiveIs(true);
  EXPECT_THAT(log, IsEmpty());
  lamp->brightnessIs(2);
  EXPECT_THAT(log, ElementsAre("a: brightness"));
}

// Watches its own switch.
class Switched final : public Recorder {
 public:
  using Recorder::Recorder;
  void hasNotificationActiveIs(bool active) override {
    switched.push_back(active);
    Recorder::hasNotificationActiveIs(active);
  }
  std::vector<bool> switched;
};

TEST_F(ReactorTest, AZombieIsSilentUntilItIsRevived) {
  auto const a = create<Switched>("a", log);
  a->notifierIs(lamp);
  a->velDoZombieReactors(true);
  a->velDoZombieReactors(true);
  EXPECT_THAT(a->switched, ElementsAre(false));
  EXPECT_TRUE(a->isZombie());
  EXPECT_TRUE(a->notifier() == lamp.get());
  lamp->brightnessIs(1);
  EXPECT_THAT(log, IsEmpty());
  a->velDoZombieReactors(false);
  a->velDoZombieReactors(false);
  EXPECT_THAT(a->switched, ElementsAre(false, true));
  lamp->brightnessIs(2);
  EXPECT_THAT(log, ElementsAre("a: brightness"));
}

TEST_F(ReactorTest, AZombieWithoutANotifierIsNotSwitched) {
  auto const a = create<Switched>("a", log);
  a->velDoZombieReactors(true);
  EXPECT_TRUE(a->isZombie());
  EXPECT_THAT(a->switched, IsEmpty());
  a->notifierIs(lamp);
  lamp->brightnessIs(1);
  EXPECT_THAT(log, IsEmpty());
}

TEST_F(ReactorTest, AZombieIsSilentEvenIfSomebodySwitchesItOn) {
  auto const a = recorder("a");
  a->velDoZombieReactors(true);
  a->hasNotificationActiveIs(true);
  lamp->brightnessIs(1);
  EXPECT_THAT(log, IsEmpty());
}

// --- What happens to the list inside a pass

TEST_F(ReactorTest, OneThatUnregistersItselfIsNotCalledInTheNextPass) {
  auto const a = recorder("a"), b = recorder("b");
  a->then = [](Recorder& self) { self.isRegisteredNotifieeIs(false); };
  lamp->brightnessIs(1);
  EXPECT_THAT(taken(log), ElementsAre("a: brightness", "b: brightness"));
  lamp->brightnessIs(2);
  EXPECT_THAT(log, ElementsAre("b: brightness"));
}

TEST_F(ReactorTest, OneThatAnotherUnregistersIsStillCalledInThisPass) {
  auto const a = recorder("a"), b = recorder("b");
  a->then = [&](Recorder&) { b->isRegisteredNotifieeIs(false); };
  lamp->brightnessIs(1);
  EXPECT_THAT(taken(log), ElementsAre("a: brightness", "b: brightness"));
  lamp->brightnessIs(2);
  EXPECT_THAT(log, ElementsAre("a: brightness"));
}

TEST_F(ReactorTest, OneThatIsUnboundIsStillCalledInThisPass) {
  auto const a = recorder("a"), b = recorder("b");
  bool unbound = false;
  a->then = [&](Recorder&) { b->notifierIs(nullptr); };
  b->then = [&](Recorder& self) { unbound = !self.notifier(); };
  lamp->brightnessIs(1);
  EXPECT_THAT(log, ElementsAre("a: brightness", "b: brightness"));
  EXPECT_TRUE(unbound);
}

TEST_F(ReactorTest, OneThatIsAddedWaitsForTheNextPass) {
  auto const a = recorder("a");
  Ptr<Recorder> c;
  a->then = [&](Recorder&) {
    if (!c) c = recorder("c");
  };
  lamp->brightnessIs(1);
  EXPECT_THAT(taken(log), ElementsAre("a: brightness"));
  lamp->brightnessIs(2);
  EXPECT_THAT(log, ElementsAre("a: brightness", "c: brightness"));
}

TEST_F(ReactorTest, OneThatIsSwitchedOffRetiredOrReboundIsNotCalledAnyMore) {
  auto const other = create<Lamp>();
  struct Row {
    char const* name;
    std::function<void(Recorder&)> happens;
  } const rows[] = {
      {"off", [](Recorder& b) { b.hasNotificationActiveIs(false); }},
      {"retired", [](Recorder& b) { b.velDoZombieReactors(true); }},
      {"rebound", [&](Recorder& b) { b.notifierIs(other); }},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.name);
    auto const a = recorder("a"), b = recorder("b"), c = recorder("c");
    a->then = [&](Recorder&) { row.happens(*b); };
    lamp->flashesInc(1);
    EXPECT_THAT(taken(log), ElementsAre("a: flashes", "c: flashes"));
  }
}

TEST_F(ReactorTest, OneThatComesBackIntoTheListInsideThePassIsCalledOnce) {
  auto const a = recorder("a"), b = recorder("b");
  a->then = [&](Recorder&) {
    b->notifierIs(nullptr);
    b->notifierIs(lamp);
  };
  lamp->brightnessIs(1);
  EXPECT_THAT(log, ElementsAre("a: brightness", "b: brightness"));
}

TEST_F(ReactorTest, ANestedChangeIsDeliveredBeforeTheOuterPassGoesOn) {
  auto const a = recorder("a"), b = recorder("b");
  a->then = [&](Recorder&) {
    a->then = nullptr;
    lamp->warmthIs(9);
  };
  lamp->brightnessIs(1);
  EXPECT_THAT(log, ElementsAre("a: brightness", "a: warmth", "b: warmth", "b: brightness"));
}

TEST_F(ReactorTest, TheSnapshotReleasesEachReactorAsItPasses) {
  auto a = recorder("a");
  auto const b = recorder("b");
  int aliveAtB = 0;
  a->then = [&](Recorder&) { a = nullptr; };
  b->then = [&](Recorder&) { aliveAtB = Recorder::alive; };
  lamp->brightnessIs(1);
  EXPECT_EQ(aliveAtB, 1);
  EXPECT_THAT(log, ElementsAre("a: brightness", "b: brightness"));
}

// --- Errors

TEST_F(ReactorTest, AThrowingCallbackStopsNobodyElse) {
  auto const a = recorder("a"), b = recorder("b"), c = recorder("c");
  b->then = [](Recorder&) { throw std::runtime_error("no"); };
  lamp->flashesInc(1);
  EXPECT_THAT(taken(log), ElementsAre("a: flashes", "b: flashes", "b: exception 133", "c: flashes"));
  b->then = [](Recorder&) { throw 1; };
  lamp->flashesInc(1);
  EXPECT_THAT(log, ElementsAre("a: flashes", "b: flashes", "b: exception 133", "c: flashes"));
}

TEST_F(ReactorTest, AThrowFromTheErrorHandlerIsSwallowed) {
  auto const hopeless = create<Hopeless>();
  hopeless->notifierIs(lamp);
  auto const b = recorder("b");
  lamp->brightnessIs(1);
  EXPECT_EQ(hopeless->told, 1);
  EXPECT_THAT(log, ElementsAre("b: brightness"));
  hopeless->handleNotificationException();
  EXPECT_EQ(hopeless->told, 2);
}

TEST_F(ReactorTest, AnErrorThatNobodyHandlesIsWrittenToTheTrace) {
  traceSinkIs([this](TraceLine const& line) {
    log.push_back(std::string(line.handle) + "[" + std::to_string(line.level) + "] " + line.text);
  });
  auto const flickering = create<Flickering>();
  flickering->notifierIs(lamp);
  lamp->brightnessIs(1);
  EXPECT_THAT(taken(log), ElementsAre("Vel[1] Vel::Flickering, attribute 130: short circuit"));
  lamp->warmthIs(1);
  EXPECT_THAT(taken(log), ElementsAre("Vel[1] Vel::Flickering, attribute 131: not a std::exception"));
  try {
    throw std::runtime_error("late");
  } catch (...) {
    flickering->handleNotificationException();
  }
  EXPECT_THAT(log, ElementsAre("Vel[1] Vel::Flickering: late"));
}

// --- General callbacks

TEST_F(ReactorTest, AnAttributeWithoutACallbackReachesTheGeneralOnes) {
  auto const funnel = create<Funnel>(log);
  funnel->notifierIs(lamp);
  lamp->brightnessIs(1);
  EXPECT_THAT(taken(log), ElementsAre("attribute 130", "something"));
  lamp->flashesInc(1);
  EXPECT_THAT(taken(log), ElementsAre("attribute 133", "something"));
  lamp->spareIs(create<Bulb>(address(1)));
  EXPECT_THAT(taken(log), ElementsAre("attribute 134", "something"));
}

TEST_F(ReactorTest, ACollectionWithoutACallbackReachesTheGeneralOnes) {
  auto const funnel = create<Funnel>(log);
  funnel->notifierIs(lamp);
  lamp->bulbIs(address(1));
  EXPECT_THAT(taken(log), ElementsAre("collection bulb", "something"));
  lamp->fittedIs(create<Bulb>(address(1)));
  EXPECT_THAT(taken(log), ElementsAre("collection fitted", "something"));
  lamp->guestIs(address(1));
  EXPECT_THAT(taken(log), ElementsAre("collection guest", "something"));
  lamp->seatIs(address(1));
  EXPECT_THAT(taken(log), ElementsAre("collection seat", "something"));
}

TEST_F(ReactorTest, ANameIsTheTypesUnlessTheReactorHasOneOfItsOwn) {
  EXPECT_EQ(create<Flickering>()->name(), "Vel::Flickering");
}

// --- The end of a notifier

TEST_F(ReactorTest, ANondestructingReactorDoesNotKeepItsNotifier) {
  auto const a = recorder("a");
  a->isNondestructingIs(true);
  a->isNondestructingIs(true);
  EXPECT_EQ(lamp->references(), 1u);
  a->isNondestructingIs(false);
  EXPECT_EQ(lamp->references(), 2u);
  a->isNondestructingIs(true);
  lamp = nullptr;
  EXPECT_EQ(Lamp::alive, 0);
  EXPECT_THAT(log, ElementsAre("a: zero references"));
  EXPECT_FALSE(a->notifier());
  EXPECT_FALSE(a->isRegisteredNotifiee());
}

TEST_F(ReactorTest, ANotifierMayBeDroppedByTurningItsLastHolderNondestructing) {
  auto const a = recorder("a");
  lamp = nullptr;
  a->isNondestructingIs(true);
  EXPECT_THAT(log, ElementsAre("a: zero references"));
  EXPECT_EQ(Lamp::alive, 0);
  EXPECT_FALSE(a->notifier());
}

TEST_F(ReactorTest, InsideZeroReferencesTheNotifierIsStillWhole) {
  auto const a = recorder("a");
  a->isNondestructingIs(true);
  lamp->bulbIs(address(3));
  (void)taken(log);
  U32 bulbs = 0;
  a->then = [&](Recorder& self) {
    if (log.size() == 1) bulbs = self.notifier()->bulbCount();
  };
  lamp = nullptr;
  EXPECT_EQ(bulbs, 1u);
}

TEST_F(ReactorTest, TheOrderAtTheEndIsZeroReferencesThenEmptiedCollectionsThenDetachment) {
  auto const a = recorder("a"), b = recorder("b");
  a->isNondestructingIs(true);
  b->isNondestructingIs(true);
  lamp->bulbIs(address(3));
  lamp->fittedIs(create<Bulb>(address(4)));
  (void)taken(log);
  bool whole = true;
  b->then = [&](Recorder& self) { whole = whole && self.notifier() && Lamp::alive == 1; };
  lamp = nullptr;
  EXPECT_THAT(log, ElementsAre("a: zero references", "b: zero references", "a: bulb 10.0.0.3", "a: bulb",
                               "b: bulb 10.0.0.3", "b: bulb", "a: fitted 10.0.0.4", "a: fitted",
                               "b: fitted 10.0.0.4", "b: fitted"));
  EXPECT_TRUE(whole);
  EXPECT_FALSE(a->notifier());
  EXPECT_FALSE(b->notifier());
  EXPECT_EQ(Lamp::alive, 0);
  EXPECT_EQ(Bulb::alive, 0);
}

TEST_F(ReactorTest, ZeroReferencesAreDeliveredOverASnapshotAndUnderTheGuard) {
  std::vector<Ptr<Recorder>> all;
  for (int i = 0; i < 20; ++i) {
    all.push_back(recorder(std::to_string(i)));
    all.back()->isNondestructingIs(true);
  }
  all[0]->then = [&](Recorder&) {
    all[1]->isRegisteredNotifieeIs(false);   // is still called
    all[2]->hasNotificationActiveIs(false);  // is not
    throw 1;
  };
  all[1]->then = [&](Recorder& self) { self.notifierIs(nullptr); };
  Log expected{"0: zero references", "0: exception 5", "1: zero references"};
  for (int i = 3; i < 20; ++i) expected.push_back(std::to_string(i) + ": zero references");
  lamp = nullptr;
  EXPECT_THAT(log, ElementsAreArray(expected));
  EXPECT_EQ(Lamp::alive, 0);
  for (auto const& one : all) EXPECT_FALSE(one->notifier());
}

TEST_F(ReactorTest, AReactorMayReviveItsNotifierByKeepingIt) {
  Ptr<Lamp const> rescued;
  auto const a = recorder("a");
  a->isNondestructingIs(true);
  lamp->bulbIs(address(3));
  (void)taken(log);
  a->then = [&](Recorder& self) { rescued = self.notifier(); };
  lamp = nullptr;
  EXPECT_THAT(taken(log), ElementsAre("a: zero references"));
  EXPECT_EQ(rescued->references(), 1u);
  EXPECT_EQ(rescued->bulbCount(), 1u);
  EXPECT_TRUE(a->notifier() == rescued.get());
  a->then = nullptr;
  rescued = nullptr;
  EXPECT_THAT(log, ElementsAre("a: zero references", "a: bulb 10.0.0.3", "a: bulb"));
  EXPECT_EQ(Lamp::alive, 0);
}

TEST_F(ReactorTest, AReactorMayReviveItsNotifierByCountingFromNowOn) {
  auto const a = recorder("a");
  a->isNondestructingIs(true);
  a->then = [](Recorder& self) { self.isNondestructingIs(false); };
  lamp = nullptr;
  EXPECT_EQ(Lamp::alive, 1);
  a->notifierIs(nullptr);
  EXPECT_EQ(Lamp::alive, 0);
}

TEST_F(ReactorTest, ANotifierMayGoInTheMiddleOfItsOwnDelivery) {
  for (U32 const count : {1u, 3u, 20u}) {
    SCOPED_TRACE(count);
    lamp = create<Lamp>();
    std::vector<Ptr<Recorder>> all;
    for (U32 i = 0; i < count; ++i) {
      all.push_back(recorder("x"));
      all.back()->isNondestructingIs(true);
    }
    bool whole = true;
    all.front()->then = [&](Recorder&) { lamp = nullptr; };
    all.back()->then = [&](Recorder& self) {
      if (&self == all.front().get()) lamp = nullptr;
      whole = whole && Lamp::alive == 1 && self.notifier();
    };
    lamp->brightnessIs(5);
    EXPECT_TRUE(whole);
    EXPECT_THAT(log, SizeIs(2 * count));
    EXPECT_EQ(Lamp::alive, 0);
    Log expected(count, "x: zero references");
    expected.insert(expected.begin(), "x: brightness");
    expected.insert(expected.end(), count - 1, "x: brightness");
    EXPECT_EQ(taken(log), expected);
  }
}

TEST_F(ReactorTest, AnUnregisteredReactorThatDoesNotHoldItsNotifierIsNotLeftWithAStalePointer) {
  auto const a = recorder("a");
  a->isNondestructingIs(true);
  a->isRegisteredNotifieeIs(false);
  auto const b = recorder("b");
  b->isRegisteredNotifieeIs(false);
  b->isNondestructingIs(true);
  lamp = nullptr;
  // Whatever they know of it is true.
  for (auto const& one : {a, b})
    if (one->notifier()) {
      EXPECT_EQ(Lamp::alive, 1);
    }
  for (auto const& one : {a, b}) {
    one->isRegisteredNotifieeIs(true);
    one->isNondestructingIs(false);
    one->notifierIs(nullptr);
  }
  EXPECT_EQ(Lamp::alive, 0);
}

TEST_F(ReactorTest, AnUnregisteredReactorCanHoldItsNotifierAgain) {
  auto const a = recorder("a");
  a->isRegisteredNotifieeIs(false);
  a->isNondestructingIs(true);
  EXPECT_EQ(lamp->references(), 1u);
  a->isNondestructingIs(false);
  EXPECT_EQ(lamp->references(), 2u);
  EXPECT_FALSE(a->isRegisteredNotifiee());
  EXPECT_EQ(a->auditErrors(), 0u);
  lamp->brightnessIs(7);
  EXPECT_THAT(log, IsEmpty());
  lamp = nullptr;
  EXPECT_EQ(Lamp::alive, 1);
  EXPECT_EQ(a->notifier()->brightness(), 7u);
}

// --- Writable reactors

class Dimmer final : public Lamp::Notifiee {
 public:
  using Lamp::Notifiee::notifierIs;
  void onBrightness() override {
    if (notifier()->brightness() > 10) notifier()->brightnessIs(10);
  }
};

TEST_F(ReactorTest, AWritableReactorMayChangeWhatItWatches) {
  auto const dimmer = create<Dimmer>();
  dimmer->notifierIs(lamp);
  auto const b = recorder("b");
  lamp->brightnessIs(50);
  EXPECT_EQ(lamp->brightness(), 10u);
  EXPECT_THAT(log, ElementsAre("b: brightness", "b: brightness"));
  dimmer->notifierIs(nullptr);
  EXPECT_EQ(lamp->references(), 2u);
}

TEST_F(ReactorTest, AConstViewCannotBecomeAWritableNotifier) {
  auto const dimmer = create<Dimmer>();
  dimmer->notifierIs(lamp);
  Lamp::NotifieeConst& readOnly = *dimmer;
  try {
    readOnly.notifierIs(Ptr<Lamp const>(create<Lamp>()));
    ADD_FAILURE() << "nothing was thrown";
  } catch (RangeException const& error) {
    EXPECT_STREQ(error.what(), "attempting to modify a const instance");
  }
  EXPECT_TRUE(dimmer->notifier() == lamp.get());
  readOnly.notifierIs(nullptr);
  EXPECT_FALSE(dimmer->notifier());
}

TEST_F(ReactorTest, AConstReactorRefusesEveryMutator) {
  auto const dimmer = create<Dimmer>();
  dimmer->notifierIs(lamp);
  auto const a = recorder("a");
  Ptr<Dimmer const> const writable = dimmer;
  Ptr<Recorder const> const view = a;
  std::vector<std::pair<char const*, std::function<void()>>> const mutators{
      {"hasNotificationActiveIs", [&] { view->hasNotificationActiveIs(false); }},
      {"isNondestructingIs", [&] { view->isNondestructingIs(true); }},
      {"isRegisteredNotifieeIs", [&] { view->isRegisteredNotifieeIs(false); }},
      {"velDoZombieReactors", [&] { view->velDoZombieReactors(true); }},
      {"zeroReferencesIs", [&] { view->zeroReferencesIs(true); }},
      {"notifierIs", [&] { view->notifierIs(nullptr); }},
      {"notifierIs of a writable one", [&] { writable->notifierIs(create<Lamp>()); }},
      {"notifierIs of a const one", [&] { writable->notifierIs(Ptr<Lamp const>(lamp)); }},
      {"notifierIs of none", [&] { writable->notifierIs(nullptr); }},
  };
  for (auto const& [name, mutate] : mutators) {
    SCOPED_TRACE(name);
    try {
      mutate();
      ADD_FAILURE() << "nothing was thrown";
    } catch (RangeException const& error) {
      EXPECT_STREQ(error.what(), "attempting to modify a const instance");
    }
  }
  EXPECT_TRUE(a->hasNotificationActive());
  EXPECT_TRUE(a->isRegisteredNotifiee());
  EXPECT_FALSE(a->isNondestructing());
  EXPECT_FALSE(a->isZombie());
  EXPECT_TRUE(a->notifier() == lamp.get());
  EXPECT_TRUE(dimmer->notifier() == lamp.get());
}

TEST_F(ReactorTest, NothingIsLeftOver) {
  {
    auto const a = recorder("a");
    lamp->bulbIs(address(1));
    lamp->spareIs(lamp->bulb(address(1)));
    lamp = nullptr;
  }
  EXPECT_EQ(Lamp::alive, 0);
  EXPECT_EQ(Bulb::alive, 0);
  EXPECT_EQ(Recorder::alive, 0);
}

}  // namespace
}  // namespace Vel
