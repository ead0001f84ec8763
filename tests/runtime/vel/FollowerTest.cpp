// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/runtime/vel/Lamp.h"

namespace Vel {

/// One of many on a string.
class Bead final : public FollowedEntity {
 public:
  enum Attribute : AttributeId { sizeId = firstAttributeId, knotId };

  class NotifieeConst : public ReactorOn<Bead> {
   public:
    virtual void onSize() { handleNotification(sizeId); }
    virtual void onKnot(Dova::IpGenAddr) {}
    virtual void onKnotvelImmediate() {}
    virtual void onKnot() { handleDefault("knot"); }
  };
  using Notifiee = WritableReactor<NotifieeConst, Bead>;

  explicit Bead(Dova::IpGenAddr const& key) : key_(key) { ++alive; }
  Dova::IpGenAddr const& velKey() const { return key_; }
  static inline int alive = 0;

  VEL_COUNTER(size, Size);
  VEL_SET(HashSet<Dova::IpGenAddr>, knot, Knot);

 protected:
  ~Bead() override { --alive; }

 private:
  Dova::IpGenAddr const key_;
};

class BeadString final : public Entity {
 public:
  enum Attribute : AttributeId { beadId = firstAttributeId };

  class NotifieeConst : public ReactorOn<BeadString> {
   public:
    virtual void onBead(Dova::IpGenAddr) {}
    virtual void onBeadvelImmediate() {}
    virtual void onBead() { handleDefault("bead"); }
  };
  using Notifiee = WritableReactor<NotifieeConst, BeadString>;

  VEL_ENTITIES_PUT(Dova::IpGenAddr, Bead, bead, Bead, Vel::BeadString)
  VEL_ENTITIES(Dova::IpGenAddr, Bead, bead, Bead);

 public:
  Bead* leaving() const { return bead_.leaving(); }

 protected:
  void doTeardown() override { beadDelAll(); }
};

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// Notes "<name>: <event> of <bead>", then does what it is told to.
class Listener : public Bead::Notifiee {
 public:
  Listener(std::string name, Log& log) : name_(std::move(name)), log_(log) { ++alive; }
  static inline int alive = 0;
  using Reactor::velBecomeFirst;
  using Reactor::velFollowNoMore;

  std::function<void(Listener& self)> then;

  void onSize() override { heard("size"); }
  void onKnot(Dova::IpGenAddr key) override { heard("knot " + toText(key)); }
  void onKnotvelImmediate() override { heard("knots"); }
  void onNotificationException(AttributeId id) override {
    log_.push_back(name_ + ": exception " + std::to_string(id));
  }

 protected:
  ~Listener() override { --alive; }

 private:
  void heard(std::string const& event) {
    log_.push_back(name_ + ": " + event + " of " + (notifier() ? toText(notifier()->velKey()) : "none"));
    if (auto const now = then) now(*this);
  }

  std::string const name_;
  Log& log_;
};

class StringListener : public BeadString::Notifiee {
 public:
  void onBead(Dova::IpGenAddr key) override {
    if (auto const now = then) now(key);
  }
  std::function<void(Dova::IpGenAddr key)> then;
};

class FollowerTest : public testing::Test {
 protected:
  void TearDown() override {
    follower = nullptr;
    one = other = nullptr;
    string = nullptr;
    EXPECT_EQ(Bead::alive, 0);
    EXPECT_EQ(Listener::alive, 0);
  }

  Ptr<Listener> listener(std::string const& name, Ptr<Bead> const& bead) {
    auto const made = create<Listener>(name, log);
    made->notifierIs(bead);
    return made;
  }
  Ptr<StringListener> watch() {
    auto const made = create<StringListener>();
    made->notifierIs(string);
    return made;
  }

  Log log;
  Ptr<BeadString> string = create<BeadString>();
  Ptr<Bead> one = string->beadIs(address(1)), other = string->beadIs(address(2));
  Ptr<Listener> follower = create<Listener>("f", log);
};

TEST_F(FollowerTest, IsToldOfManyEntitiesAndWhichOneChanged) {
  EXPECT_TRUE(one->velFollowerIs(follower));
  EXPECT_TRUE(other->velFollowerIs(follower));
  one->sizeIs(7);
  other->knotIs(address(9));
  one->knotNotifyImmediate();
  EXPECT_THAT(taken(log),
              ElementsAre("f: size of 10.0.0.1", "f: knot 10.0.0.9 of 10.0.0.2", "f: knots of 10.0.0.1"));
  EXPECT_FALSE(follower->notifier());
}

TEST_F(FollowerTest, IsCountedByWhatItFollowsAndCountsNothing) {
  U32 const before = one->references();
  one->velFollowerIs(follower);
  EXPECT_EQ(one->references(), before);
  EXPECT_EQ(follower->references(), 2u);
  EXPECT_EQ(follower->auditErrors(), 0u);
  one->velFollowerIs(follower);
  EXPECT_EQ(follower->references(), 2u);
  EXPECT_TRUE(one->velFollowerIs(nullptr));
  EXPECT_EQ(follower->references(), 1u);
  one->sizeIs(7);
  EXPECT_THAT(log, IsEmpty());
}

TEST_F(FollowerTest, ComesBeforeTheReactorsHoweverManyThereAre) {
  std::vector<Ptr<Listener>> listeners;
  for (U32 count = 0; count <= 40; ++count) {
    taken(log);
    one->velFollowerIs(follower);
    one->sizeIs(count + 1);
    ASSERT_THAT(log, SizeIs(count + 1));
    EXPECT_EQ(log.front(), "f: size of 10.0.0.1");
    for (U32 i = 1; i <= count; ++i) EXPECT_EQ(log[i], "r" + std::to_string(i) + ": size of 10.0.0.1");
    listeners.push_back(listener("r" + std::to_string(count + 1), one));
  }
}

TEST_F(FollowerTest, KnowsAgainWhichEntityChangedWhenAnotherChangedMeanwhile) {
  one->velFollowerIs(follower);
  other->velFollowerIs(follower);
  follower->then = [&](Listener& self) {
    self.then = nullptr;
    other->sizeIs(1);
    one->sizeIs(8);
    EXPECT_EQ(self.notifier(), one);
  };
  one->sizeIs(7);
  EXPECT_THAT(taken(log), ElementsAre("f: size of 10.0.0.1", "f: size of 10.0.0.2", "f: size of 10.0.0.1"));
  EXPECT_FALSE(follower->notifier());
}

TEST_F(FollowerTest, MakesWayForAReactorInItsPlaceThatHearsOfNothingTwice) {
  for (bool const watched : {false, true}) {
    auto const last = watched ? listener("l", one) : nullptr;
    Ptr<Listener> own;
    one->velFollowerIs(follower);
    follower->then = [&](Listener&) {
      own = listener("own", one);
      own->velBecomeFirst();
      one->velFollowerIs(nullptr);
    };
    one->sizeInc(1);
    Log expected{"f: size of 10.0.0.1"};
    if (watched) expected.push_back("l: size of 10.0.0.1");
    EXPECT_EQ(taken(log), expected);
    one->sizeInc(1);
    expected.front() = "own: size of 10.0.0.1";
    EXPECT_EQ(taken(log), expected);
  }
}

TEST_F(FollowerTest, MakesWayInAReactorsCallbackForOneThatHearsOfTheNextChange) {
  for (U32 const others : {0u, 30u}) {
    Ptr<Listener> own;
    one->velFollowerIs(follower);
    auto const last = listener("l", one);
    std::vector<Ptr<Listener>> more;
    for (U32 i = 0; i < others; ++i) more.push_back(listener("m", one));
    last->then = [&](Listener& self) {
      self.then = nullptr;
      own = listener("own", one);
      own->velBecomeFirst();
      one->velFollowerIs(nullptr);
    };
    one->sizeInc(1);
    EXPECT_THAT(log, SizeIs(2 + others));
    EXPECT_EQ(taken(log).front(), "f: size of 10.0.0.1");
    one->sizeInc(1);
    EXPECT_THAT(log, SizeIs(2 + others));
    EXPECT_EQ(taken(log).front(), "own: size of 10.0.0.1");
  }
}

TEST_F(FollowerTest, AReactorThatMovesToTheFrontInAPassIsCalledInItAsBefore) {
  auto const first = listener("a", one), last = listener("b", one);
  Ptr<Listener> added;
  first->then = [&](Listener& self) {
    self.then = nullptr;
    added = listener("c", one);
    added->velBecomeFirst();
  };
  one->sizeIs(1);
  EXPECT_THAT(taken(log), ElementsAre("a: size of 10.0.0.1", "b: size of 10.0.0.1"));
  one->sizeIs(2);
  EXPECT_THAT(taken(log), ElementsAre("c: size of 10.0.0.1", "a: size of 10.0.0.1", "b: size of 10.0.0.1"));
}

TEST_F(FollowerTest, AndTheEntityLastUntilTheCallbackEnds) {
  one->velFollowerIs(follower);
  Bead& bead = *one;
  follower->then = [&](Listener&) {
    string->beadDel(address(1));
    one = nullptr;
    follower = nullptr;
    EXPECT_EQ(Listener::alive, 1);
    EXPECT_EQ(Bead::alive, 2);
  };
  bead.knotIs(address(3));
  EXPECT_EQ(Listener::alive, 0);
  EXPECT_EQ(Bead::alive, 1);
}

TEST_F(FollowerTest, ThatThrowsIsToldSoAndTheOthersAreCalled) {
  one->velFollowerIs(follower);
  follower->then = [](Listener&) { throw std::runtime_error("broken"); };
  auto const last = listener("l", one);
  one->sizeIs(1);
  EXPECT_THAT(taken(log), ElementsAre("f: size of 10.0.0.1", "f: exception " + std::to_string(Bead::sizeId),
                                      "l: size of 10.0.0.1"));
}

TEST_F(FollowerTest, DoesNotGiveWayUntilItFollowsNoMore) {
  auto const second = create<Listener>("g", log);
  EXPECT_TRUE(one->velFollowerIs(follower));
  EXPECT_FALSE(one->velFollowerIs(second));
  one->sizeIs(1);
  EXPECT_THAT(taken(log), ElementsAre("f: size of 10.0.0.1"));
  follower->velDoZombieReactors(true);
  one->sizeIs(2);
  EXPECT_THAT(taken(log), IsEmpty());
  EXPECT_FALSE(one->velFollowerIs(second)) << "a zombie may be revived";
  follower->velFollowNoMore();
  EXPECT_TRUE(one->velFollowerIs(second));
  one->sizeIs(3);
  EXPECT_THAT(taken(log), ElementsAre("g: size of 10.0.0.1"));
}

TEST_F(FollowerTest, IsSwitchedOffAndOnAsAReactorThatHasANotifier) {
  one->velFollowerIs(follower);
  follower->hasNotificationActiveIs(false);
  one->sizeIs(1);
  EXPECT_THAT(taken(log), IsEmpty());
  follower->velDoZombieReactors(true);
  follower->velDoZombieReactors(false);
  EXPECT_TRUE(follower->hasNotificationActive());
  one->sizeIs(2);
  EXPECT_THAT(taken(log), ElementsAre("f: size of 10.0.0.1"));
}

TEST_F(FollowerTest, FollowsAnElementUntilTheReactorsHaveBeenToldThatItLeft) {
  for (bool const replaced : {false, true}) {
    Ptr<Bead> const left = one;
    left->velFollowerIs(follower);
    auto const watcher = watch();
    U32 told = 0;
    watcher->then = [&](Dova::IpGenAddr key) {
      ++told;
      EXPECT_EQ(key, address(1));
      EXPECT_EQ(string->leaving(), left.get());
      EXPECT_TRUE(left->velFollower() == follower.get());
      left->sizeInc(1);
    };
    if (replaced)
      string->beadIs(create<Bead>(address(1)));
    else
      string->beadDel(address(1));
    EXPECT_EQ(told, 1u);
    EXPECT_FALSE(string->leaving());
    EXPECT_FALSE(left->velFollower());
    left->sizeInc(1);
    EXPECT_THAT(taken(log), SizeIs(1));
    watcher->then = nullptr;
    one = string->beadIs(address(1));
  }
}

TEST_F(FollowerTest, OfElementsThatLeaveOneInsideTheOtherIsFoundForEach) {
  one->velFollowerIs(follower);
  other->velFollowerIs(follower);
  auto const watcher = watch();
  std::vector<Bead*> found;
  watcher->then = [&](Dova::IpGenAddr key) {
    if (key == address(1)) string->beadDel(address(2));
    found.push_back(string->leaving());
  };
  string->beadDel(address(1));
  EXPECT_THAT(found, ElementsAre(other.get(), one.get()));
  EXPECT_FALSE(one->velFollower() || other->velFollower());
}

TEST_F(FollowerTest, TheOwnerMayEndWhileItTellsThatAnElementLeft) {
  one->velFollowerIs(follower);
  auto const watcher = watch();
  watcher->then = [&](Dova::IpGenAddr) {
    watcher->then = nullptr;
    watcher->notifierIs(nullptr);
    string = nullptr;
  };
  string->beadDel(address(1));
  EXPECT_FALSE(string);
  EXPECT_FALSE(one->velFollower());
}

}  // namespace
}  // namespace Vel
