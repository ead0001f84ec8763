// SPDX-License-Identifier: Apache-2.0
// The operations of collection attributes, and what they deliver.
#include "runtime/vel/Collection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <stdexcept>

#include "tests/runtime/vel/Lamp.h"

namespace Vel {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

class CollectionTest : public testing::Test, protected LampWorld {
 protected:
  Dova::IpGenAddr const one = address(1), two = address(2), three = address(3);
};

// --- Entities that are put

TEST_F(CollectionTest, PuttingHasFiveCases) {
  auto const a = recorder("a");
  auto const bulb = create<Bulb>(one), other = create<Bulb>(one);

  lamp->fittedIs(one, nullptr);  // absent and null
  EXPECT_THAT(taken(log), IsEmpty());
  EXPECT_EQ(lamp->fittedCount(), 0u);

  lamp->fittedIs(one, bulb);  // absent and an element
  EXPECT_THAT(taken(log), ElementsAre("a: fitted 10.0.0.1", "a: fitted"));
  EXPECT_TRUE(lamp->fitted(one) == bulb);

  lamp->fittedIs(one, bulb);  // the same
  EXPECT_THAT(taken(log), IsEmpty());

  lamp->fittedIs(one, other);  // another
  EXPECT_THAT(taken(log), ElementsAre("a: fitted 10.0.0.1", "a: fitted"));
  EXPECT_TRUE(lamp->fitted(one) == other);
  EXPECT_EQ(lamp->fittedCount(), 1u);
  EXPECT_EQ(bulb->references(), 1u);
  EXPECT_EQ(other->references(), 2u);

  lamp->fittedIs(one, nullptr);  // present and null
  EXPECT_THAT(taken(log), ElementsAre("a: fitted 10.0.0.1", "a: fitted"));
  EXPECT_TRUE(lamp->fitted(one) == nullptr);
  EXPECT_EQ(other->references(), 1u);
}

TEST_F(CollectionTest, AReplacedElementLivesUntilItsNotificationIsOver) {
  lamp->fittedIs(create<Bulb>(one));
  auto const a = recorder("a");
  int alive = 0;
  a->then = [&](Recorder&) { alive = Bulb::alive; };
  lamp->fittedIs(create<Bulb>(one));
  EXPECT_EQ(alive, 2);
  EXPECT_EQ(Bulb::alive, 1);
}

TEST_F(CollectionTest, PuttingNullOrUnderAnotherKeyIsRefusedAndChangesNothing) {
  auto const a = recorder("a");
  auto const textOf = [](auto const& refused) -> std::string {
    try {
      refused();
    } catch (InvalidArgumentException const& error) {
      return error.what();
    }
    return "nothing was thrown";
  };
  EXPECT_EQ(textOf([&] { lamp->fittedIs(nullptr); }),
            "null _fitted parameter to mutator for Vel::Lamp::fitted not allowed\"");
  EXPECT_EQ(textOf([&] { lamp->fittedIs(two, create<Bulb>(one)); }),
            "_fitted has another key than it is put under in Vel::Lamp::fitted");
  EXPECT_EQ(lamp->fittedCount(), 0u);
  EXPECT_THAT(log, IsEmpty());
}

// --- Entities that are made from their key

TEST_F(CollectionTest, CreatingTwiceGivesTheSameElementAndOneNotification) {
  auto const a = recorder("a");
  auto const made = lamp->bulbIs(one);
  EXPECT_THAT(taken(log), ElementsAre("a: bulb 10.0.0.1", "a: bulb"));
  EXPECT_EQ(made->velKey(), one);
  EXPECT_TRUE(lamp->bulbIs(one) == made);
  EXPECT_THAT(log, IsEmpty());
  EXPECT_EQ(lamp->bulbCount(), 1u);
  EXPECT_EQ(made->references(), 2u);
}

TEST_F(CollectionTest, NewIsSilent) {
  auto const a = recorder("a");
  auto const made = lamp->newBulb(one);
  EXPECT_TRUE(lamp->bulb(one) == made);
  EXPECT_THAT(log, IsEmpty());
  lamp->bulbNotify(one);
  EXPECT_THAT(log, ElementsAre("a: bulb 10.0.0.1", "a: bulb"));
}

TEST_F(CollectionTest, NewOfAKeyThatIsThereIsRefusedAndChangesNothing) {
  auto const made = lamp->newBulb(one);
  auto const a = recorder("a");
  try {
    lamp->newBulb(one);
    ADD_FAILURE() << "nothing was thrown";
  } catch (RangeException const& error) {
    EXPECT_STREQ(error.what(), "newBulb of Vel::Lamp: 10.0.0.1 is there already");
  }
  EXPECT_TRUE(lamp->bulb(one) == made);
  EXPECT_EQ(made->references(), 2u);
  EXPECT_EQ(Bulb::alive, 1);
  EXPECT_THAT(log, IsEmpty());
}

TEST_F(CollectionTest, AMapRefusesAnElementWhoseKeyIsThere) {
  EntityMap<Dova::IpGenAddr, Bulb> map;
  for (Dova::IpGenAddr const& key : {one, two}) map.insert(create<Bulb>(key));
  auto const another = create<Bulb>(one);
  EXPECT_THROW(map.insert(another), RangeException);
  EXPECT_EQ(another->references(), 1u);
  EXPECT_FALSE(map.find(one) == another.get());
  EXPECT_EQ(map.size(), 2u);
}

TEST_F(CollectionTest, ANewElementIsThereInsideItsNotificationAndARemovedOneIsNot) {
  auto const a = recorder("a");
  std::vector<bool> there;
  a->then = [&](Recorder&) { there.push_back(lamp->bulb(one) != nullptr); };
  lamp->bulbIs(one);
  lamp->bulbDel(one);
  EXPECT_THAT(there, ElementsAre(true, true, false, false));
}

TEST_F(CollectionTest, NotifyDeliversBothFormsWithoutAnyChange) {
  auto const a = recorder("a"), b = recorder("b");
  lamp->bulbNotify(three);
  EXPECT_THAT(taken(log), ElementsAre("a: bulb 10.0.0.3", "a: bulb", "b: bulb 10.0.0.3", "b: bulb"));
  lamp->bulbNotifyImmediate();
  EXPECT_THAT(log, ElementsAre("a: bulb at once", "b: bulb at once"));
  EXPECT_EQ(lamp->bulbCount(), 0u);
}

TEST_F(CollectionTest, AThrowInTheKeyedFormDoesNotKeepTheOtherFromBeingCalled) {
  auto const a = recorder("a");
  a->then = [](Recorder& self) {
    self.then = nullptr;
    throw 1;
  };
  lamp->guestIs(one);
  EXPECT_THAT(log, ElementsAre("a: guest 10.0.0.1", "a: exception 137", "a: guest"));
}

TEST_F(CollectionTest, DeletingAnAbsentKeyGivesNullAndNotifiesNobody) {
  auto const a = recorder("a");
  EXPECT_TRUE(lamp->bulbDel(one) == nullptr);
  EXPECT_FALSE(lamp->guestDel(one));
  EXPECT_FALSE(lamp->seatDel(one));
  EXPECT_THAT(log, IsEmpty());
}

TEST_F(CollectionTest, DeletingGivesTheElementWhichIsUsableOnceMore) {
  auto const made = lamp->bulbIs(one).get();
  auto const a = recorder("a");
  auto const removed = lamp->bulbDel(one);
  EXPECT_EQ(removed.get(), made);
  EXPECT_EQ(removed->velKey(), one);
  EXPECT_EQ(removed->references(), 1u);
  EXPECT_THAT(log, ElementsAre("a: bulb 10.0.0.1", "a: bulb"));
}

TEST_F(CollectionTest, AnElementMayBeDeletedByAReferenceToItsOwnKey) {
  lamp->bulbIs(one);
  lamp->bulbDel(lamp->bulb(one)->velKey());
  EXPECT_EQ(lamp->bulbCount(), 0u);
  EXPECT_EQ(Bulb::alive, 0);
}

TEST_F(CollectionTest, DeletingEverySecondElementOfAWalkVisitsEachOnce) {
  for (U32 n = 0; n < 1000; ++n) lamp->bulbIs(address(n));
  auto const a = recorder("a");
  std::multiset<U32> visited;
  bool second = false;
  for (auto i = lamp->bulbIterator(); i; ++i, second = !second) {
    visited.insert(i->velKey().bytes()[2] * 256u + i->velKey().bytes()[3]);
    if (second) {
      EXPECT_TRUE(lamp->bulbDel(i) != nullptr);
    }
  }
  ASSERT_THAT(visited, SizeIs(1000));
  for (U32 n = 0; n < 1000; ++n) ASSERT_EQ(visited.count(n), 1u) << n;
  EXPECT_EQ(lamp->bulbCount(), 500u);
  EXPECT_THAT(log, SizeIs(2 * 500));
}

TEST_F(CollectionTest, DeletingAllNotifiesEachKeyOnceAndNothingAtOnce) {
  std::vector<std::pair<void (*)(Lamp&, U32), void (*)(Lamp&)>> const all{
      {[](Lamp& l, U32 n) { l.bulbIs(address(n)); }, [](Lamp& l) { l.bulbDelAll(); }},
      {[](Lamp& l, U32 n) { l.fittedIs(create<Bulb>(address(n))); }, [](Lamp& l) { l.fittedDelAll(); }},
      {[](Lamp& l, U32 n) { l.guestIs(address(n)); }, [](Lamp& l) { l.guestDelAll(); }},
      {[](Lamp& l, U32 n) { l.seatIs(address(n)); }, [](Lamp& l) { l.seatDelAll(); }},
  };
  auto const a = recorder("a");
  for (auto const& [add, deleteAll] : all) {
    for (U32 n = 1; n <= 3; ++n) add(*lamp, n);
    (void)taken(log);
    deleteAll(*lamp);
    ASSERT_THAT(log, SizeIs(6));
    std::string const name = log[1];
    EXPECT_THAT(taken(log), UnorderedElementsAre(name, name, name, name + " 10.0.0.1", name + " 10.0.0.2",
                                                 name + " 10.0.0.3"));
    deleteAll(*lamp);
    EXPECT_THAT(log, IsEmpty());
  }
}

TEST_F(CollectionTest, DeletingAllDeletesWhatWasThereAtItsStart) {
  auto const a = recorder("a");
  for (U32 n = 1; n <= 3; ++n) lamp->bulbIs(address(n));
  (void)taken(log);
  int calls = 0;
  a->then = [&](Recorder& self) {
    if (++calls > 6) return;
    auto const then = std::exchange(self.then, nullptr);
    lamp->bulbIs(address(10 + static_cast<U32>(calls)));
    self.then = then;
  };
  lamp->bulbDelAll();
  EXPECT_EQ(lamp->bulbCount(), 6u);  // three deletions of two callbacks, each adding one
  EXPECT_TRUE(lamp->bulb(one) == nullptr);
  EXPECT_TRUE(lamp->bulb(address(16)) != nullptr);
}

TEST_F(CollectionTest, ACallbackThatPutsItsKeyBackDoesNotMakeDeletingAllRunForEver) {
  class Stubborn final : public Lamp::Notifiee {
   public:
    using Lamp::Notifiee::notifierIs;
    void onBulb(Dova::IpGenAddr key) override {
      if (++calls < 1000 && !notifier()->bulb(key)) notifier()->bulbIs(key);
    }
    void onGuest(Dova::IpGenAddr key) override {
      if (++calls < 1000) notifier()->guestIs(key);
    }
    void onSeat(Dova::IpGenAddr key) override {
      if (++calls < 1000) notifier()->seatIs(key);
    }
    int calls = 0;
  };
  for (U32 n = 1; n <= 3; ++n) lamp->bulbIs(address(n)), lamp->guestIs(address(n)), lamp->seatIs(address(n));
  auto const stubborn = create<Stubborn>();
  stubborn->notifierIs(lamp);
  lamp->bulbDelAll();
  EXPECT_EQ(stubborn->calls, 6);  // a removal and an addition for each of the three
  EXPECT_EQ(lamp->bulbCount(), 3u);
  stubborn->calls = 0;
  lamp->guestDelAll();
  EXPECT_EQ(stubborn->calls, 6);
  EXPECT_EQ(lamp->guestCount(), 3u);
  stubborn->calls = 0;
  lamp->seatDelAll();
  EXPECT_EQ(stubborn->calls, 6);
  EXPECT_EQ(lamp->seatCount(), 3u);
  stubborn->notifierIs(nullptr);
}

TEST_F(CollectionTest, AnElementThatReplacesADoomedOneMeanwhileStays) {
  for (U32 n = 1; n <= 2; ++n) lamp->fittedIs(create<Bulb>(address(n)));
  auto const a = recorder("a");
  Ptr<Bulb> const fresh1 = create<Bulb>(one), fresh2 = create<Bulb>(two);
  a->then = [&](Recorder& self) {
    self.then = nullptr;
    // Inside the first removal, both keys get new elements.
    lamp->fittedIs(fresh1);
    lamp->fittedIs(fresh2);
  };
  lamp->fittedDelAll();
  EXPECT_TRUE(lamp->fitted(one) == fresh1);
  EXPECT_TRUE(lamp->fitted(two) == fresh2);
}

// --- Keys

TEST_F(CollectionTest, KeysSayWhetherAnythingChanged) {
  auto const a = recorder("a");
  EXPECT_TRUE(lamp->guestIs(one));
  EXPECT_FALSE(lamp->guestIs(one));
  EXPECT_TRUE(lamp->guest(one));
  EXPECT_FALSE(lamp->guest(two));
  EXPECT_EQ(lamp->guestCount(), 1u);
  EXPECT_TRUE(lamp->guestDel(one));
  EXPECT_FALSE(lamp->guest(one));
  EXPECT_THAT(taken(log), ElementsAre("a: guest 10.0.0.1", "a: guest", "a: guest 10.0.0.1", "a: guest"));
  EXPECT_TRUE(lamp->seatIs(two));
  EXPECT_FALSE(lamp->seatIs(two));
  EXPECT_TRUE(lamp->seat(two));
  EXPECT_TRUE(lamp->seatDel(two));
  EXPECT_EQ(lamp->seatCount(), 0u);
  EXPECT_THAT(log, ElementsAre("a: seat 10.0.0.2", "a: seat", "a: seat 10.0.0.2", "a: seat"));
}

TEST_F(CollectionTest, AnOrderedSetIsWalkedInAscendingOrderOfNumbersNotOfTexts) {
  for (char const* text : {"192.168.0.1", "10.0.0.10", "10.0.0.2", "::1", "10.0.0.1"})
    lamp->seatIs(Dova::IpGenAddr(text));
  EXPECT_EQ(lamp->attribute("seat"), "10.0.0.1, 10.0.0.2, 10.0.0.10, 192.168.0.1, ::1");
}

TEST_F(CollectionTest, ASetIsWalkedWhileItsKeysAreDeletedUnderTheIterator) {
  for (U32 n = 0; n < 100; ++n) lamp->guestIs(address(n)), lamp->seatIs(address(n));
  U32 guests = 0, seats = 0;
  for (auto i = lamp->guestIterator(); i; ++i, ++guests) EXPECT_TRUE(lamp->guestDel(i));
  for (auto i = lamp->seatIterator(); i; ++i, ++seats) EXPECT_TRUE(lamp->seatDel(i));
  EXPECT_EQ(guests, 100u);
  EXPECT_EQ(seats, 100u);
  EXPECT_EQ(lamp->guestCount() + lamp->seatCount(), 0u);
}

TEST_F(CollectionTest, ACallbackMayDeleteWhatAWalkWillComeToNext) {
  for (U32 n = 0; n < 100; ++n) lamp->bulbIs(address(n));
  // The whole order first; then the second walk's successor of each visited element is removed inside a
  // callback.
  std::vector<Dova::IpGenAddr> order;
  for (auto i = lamp->bulbIterator(); i; ++i) order.push_back(i.key());
  std::size_t at = 0;
  auto const a = recorder("a");
  a->then = [&](Recorder& self) {
    self.then = nullptr;
    if (at + 1 < order.size()) lamp->bulbDel(order[at + 1]);
  };
  auto const misdeed = a->then;
  std::vector<Dova::IpGenAddr> visited, expected;
  for (auto i = lamp->bulbIterator(); i; ++i) {
    visited.push_back(i.key());
    a->then = misdeed;
    lamp->bulbNotify(i.key());
    at += 2;
  }
  for (std::size_t k = 0; k < order.size(); k += 2) expected.push_back(order[k]);
  EXPECT_EQ(visited, expected);
}

TEST_F(CollectionTest, AnIteratorKeepsItsElementAndItsOwner) {
  lamp->bulbIs(one);
  auto i = lamp->bulbIterator();
  lamp->bulbDelAll();
  EXPECT_EQ(i->velKey(), one);
  EXPECT_TRUE(i.ptr() == &*i);
  lamp = nullptr;
  EXPECT_EQ(Lamp::alive, 1);
  ++i;
  EXPECT_FALSE(i);
  i = {};
  EXPECT_EQ(Lamp::alive, 0);
  EXPECT_EQ(Bulb::alive, 0);
}

TEST_F(CollectionTest, AnElementWhoseEndChangesTheCollectionDoesNotDisturbTheWalk) {
  // The last reference to a removed bulb is the iterator's; when it steps on, a watcher of the bulb adds
  // others.
  class Mourner final : public ReactorOn<Bulb> {
   public:
    explicit Mourner(std::function<void()> call) : call_(std::move(call)) { isNondestructingIs(true); }
    void onZeroReferences() override { call_(); }

   private:
    std::function<void()> call_;
  };
  for (U32 n = 0; n < 8; ++n) lamp->bulbIs(address(n));
  auto i = lamp->bulbIterator();
  auto const first = i.key();
  auto const mourner = create<Mourner>([&] {
    for (U32 n = 100; n < 200; ++n) lamp->bulbIs(address(n));
  });
  mourner->notifierIs(i.ptr());
  lamp->bulbDel(i);
  std::multiset<std::string> visited;
  for (++i; i; ++i) visited.insert(toText(i.key()));
  EXPECT_EQ(lamp->bulbCount(), 107u);
  for (U32 n = 0; n < 8; ++n)
    if (!(address(n) == first)) {
      EXPECT_EQ(visited.count(toText(address(n))), 1u) << n;
    }
}

TEST_F(CollectionTest, IteratorsAreRanges) {
  for (U32 n = 1; n <= 3; ++n) lamp->bulbIs(address(n)), lamp->seatIs(address(n));
  std::set<std::string> bulbs;
  for (Bulb& bulb : lamp->bulbIterator()) bulbs.insert(toText(bulb.velKey()));
  EXPECT_THAT(bulbs, ElementsAre("10.0.0.1", "10.0.0.2", "10.0.0.3"));
  std::vector<std::string> seats;
  for (Dova::IpGenAddr const& seat : lamp->seatIterator()) seats.push_back(toText(seat));
  EXPECT_THAT(seats, ElementsAre("10.0.0.1", "10.0.0.2", "10.0.0.3"));
  Ptr<Lamp const> const view = lamp;
  U32 count = 0;
  for (Bulb const& bulb : view->bulbIterator()) count += bulb.references() > 0;
  EXPECT_EQ(count, 3u);
}

TEST_F(CollectionTest, AWalkMayBeginBehindAKeyThatSomebodyRemembers) {
  for (U32 n = 1; n <= 9; ++n) lamp->bulbIs(address(n)), lamp->guestIs(address(n)), lamp->seatIs(address(n));
  auto const whole = [](auto i) {
    std::vector<Dova::IpGenAddr> keys;
    for (; i; ++i) keys.push_back(i.key());
    return keys;
  };
  auto const behind = [](std::vector<Dova::IpGenAddr> const& keys) {
    return std::vector<Dova::IpGenAddr>(keys.begin() + 4, keys.end());
  };
  auto const bulbs = whole(lamp->bulbIterator()), guests = whole(lamp->guestIterator()),
             seats = whole(lamp->seatIterator());
  // The fourth was the last; meanwhile it was removed.
  lamp->bulbDel(bulbs[3]);
  lamp->guestDel(guests[3]);
  lamp->seatDel(seats[3]);
  EXPECT_EQ(whole(lamp->bulbIteratorAfter(bulbs[3])), behind(bulbs));
  EXPECT_EQ(whole(lamp->guestIteratorAfter(guests[3])), behind(guests));
  EXPECT_EQ(whole(lamp->seatIteratorAfter(seats[3])), behind(seats));
}

TEST_F(CollectionTest, AnEmptyCollectionHasNothingToWalk) {
  EXPECT_FALSE(lamp->bulbIterator());
  EXPECT_FALSE(lamp->guestIterator());
  EXPECT_FALSE(lamp->seatIterator());
  EXPECT_FALSE(Lamp::BulbIterator());
  EXPECT_FALSE(Lamp::SeatIterator());
  lamp->seatIs(one);
  lamp->seatDel(one);
  EXPECT_FALSE(lamp->seatIterator());
}

TEST_F(CollectionTest, ElementsAreReleasedWithTheirEntity) {
  for (U32 n = 0; n < 100; ++n) lamp->newBulb(address(n));
  EXPECT_EQ(Bulb::alive, 100);
  lamp = nullptr;
  EXPECT_EQ(Bulb::alive, 0);
}

// --- Values, pointers, counters

TEST_F(CollectionTest, AnEqualValueIsNoChange) {
  auto const a = recorder("a");
  lamp->brightnessIs(100);
  lamp->warmthIs(0.5);
  lamp->dimmedIs(false);
  lamp->spareIs(nullptr);
  EXPECT_EQ(lamp->flashesInc(0), 0u);
  EXPECT_THAT(log, IsEmpty());
}

TEST_F(CollectionTest, ACounterCountsModulo2To32AndReturnsTheNewValue) {
  auto const a = recorder("a");
  EXPECT_EQ(lamp->flashesInc(5), 5u);
  EXPECT_EQ(lamp->flashesDec(6), 4294967295u);
  EXPECT_EQ(lamp->flashes(), 4294967295u);
  EXPECT_EQ(lamp->flashesInc(1), 0u);
  EXPECT_EQ(lamp->flashesDec(0), 0u);
  EXPECT_THAT(log, ElementsAre("a: flashes", "a: flashes", "a: flashes"));
}

TEST_F(CollectionTest, APointerIsHeldAndTheOldOneLivesUntilEverybodyHasBeenTold) {
  auto const a = recorder("a");
  auto bulb = create<Bulb>(one);
  lamp->spareIs(bulb);
  EXPECT_EQ(bulb->references(), 2u);
  lamp->spareIs(bulb);
  EXPECT_THAT(taken(log), ElementsAre("a: spare"));
  bulb = nullptr;
  int alive = 0;
  a->then = [&](Recorder&) { alive = Bulb::alive; };
  lamp->spareIs(nullptr);
  EXPECT_EQ(alive, 1);
  EXPECT_EQ(Bulb::alive, 0);
  EXPECT_THAT(log, ElementsAre("a: spare"));
}

// --- Const views

TEST_F(CollectionTest, EveryMutatorThroughAConstViewThrowsAndChangesNothing) {
  lamp->bulbIs(one);
  lamp->fittedIs(create<Bulb>(one));
  lamp->guestIs(one);
  lamp->seatIs(one);
  auto const a = recorder("a");
  Ptr<Lamp const> const view = lamp;
  auto const bulbAt = lamp->bulbIterator(), fittedAt = lamp->fittedIterator();
  auto const guestAt = lamp->guestIterator();
  auto const seatAt = lamp->seatIterator();
  std::vector<std::pair<char const*, std::function<void()>>> const mutators{
      {"brightnessIs", [&] { view->brightnessIs(1); }},
      {"warmthIs", [&] { view->warmthIs(1); }},
      {"dimmedIs", [&] { view->dimmedIs(true); }},
      {"flashesIs", [&] { view->flashesIs(1); }},
      {"flashesInc", [&] { view->flashesInc(1); }},
      {"flashesInc of nothing", [&] { view->flashesInc(0); }},
      {"flashesDec", [&] { view->flashesDec(1); }},
      {"spareIs", [&] { view->spareIs(create<Bulb>(one)); }},
      {"spareIs of the same", [&] { view->spareIs(nullptr); }},
      {"bulbIs", [&] { view->bulbIs(two); }},
      {"newBulb", [&] { view->newBulb(two); }},
      {"bulbDel", [&] { view->bulbDel(one); }},
      {"bulbDel of an absent one", [&] { view->bulbDel(two); }},
      {"bulbDel of an iterator", [&] { view->bulbDel(bulbAt); }},
      {"bulbDelAll", [&] { view->bulbDelAll(); }},
      {"bulbNotify", [&] { view->bulbNotify(one); }},
      {"bulbNotifyImmediate", [&] { view->bulbNotifyImmediate(); }},
      {"fittedIs", [&] { view->fittedIs(create<Bulb>(two)); }},
      {"fittedIs under a key", [&] { view->fittedIs(two, create<Bulb>(two)); }},
      {"fittedIs of null", [&] { view->fittedIs(one, nullptr); }},
      {"fittedDel", [&] { view->fittedDel(one); }},
      {"fittedDel of an iterator", [&] { view->fittedDel(fittedAt); }},
      {"fittedDelAll", [&] { view->fittedDelAll(); }},
      {"fittedNotify", [&] { view->fittedNotify(one); }},
      {"fittedNotifyImmediate", [&] { view->fittedNotifyImmediate(); }},
      {"guestIs", [&] { view->guestIs(two); }},
      {"guestDel", [&] { view->guestDel(one); }},
      {"guestDel of an iterator", [&] { view->guestDel(guestAt); }},
      {"guestDelAll", [&] { view->guestDelAll(); }},
      {"guestNotify", [&] { view->guestNotify(one); }},
      {"guestNotifyImmediate", [&] { view->guestNotifyImmediate(); }},
      {"seatIs", [&] { view->seatIs(two); }},
      {"seatDel", [&] { view->seatDel(one); }},
      {"seatDel of an iterator", [&] { view->seatDel(seatAt); }},
      {"seatDelAll", [&] { view->seatDelAll(); }},
      {"seatNotify", [&] { view->seatNotify(one); }},
      {"attributeIs", [&] { view->attributeIs("brightness", "1"); }},
      {"attributeIs of an unknown one", [&] { view->attributeIs("?", "1"); }},
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
  EXPECT_THAT(log, IsEmpty());
  EXPECT_EQ(lamp->brightness(), 100u);
  EXPECT_EQ(lamp->flashes(), 0u);
  EXPECT_TRUE(lamp->spare() == nullptr);
  for (char const* collection : {"bulb", "guest", "seat"})
    EXPECT_EQ(lamp->attribute(collection), "10.0.0.1") << collection;
  EXPECT_EQ(lamp->fittedCount(), 1u);
}

}  // namespace
}  // namespace Vel
