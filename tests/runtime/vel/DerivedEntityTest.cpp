// SPDX-License-Identifier: Apache-2.0
// An entity class that others derive from, and one that derives from it as Attribute.h shows.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/runtime/vel/Lamp.h"

namespace Vel {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class OpenLamp : public Entity {
 public:
  enum Attribute : AttributeId { brightnessId = firstAttributeId, guestId };

  class NotifieeConst : public ReactorOn<OpenLamp> {
   public:
    virtual void onBrightness() { handleNotification(brightnessId); }
    virtual void onGuest(Dova::IpGenAddr) {}
    virtual void onGuestvelImmediate() {}
    virtual void onGuest() { handleDefault("guest"); }
  };
  using Notifiee = WritableReactor<NotifieeConst, OpenLamp>;

  VEL_VALUE(U32, brightness, Brightness, 100);
  VEL_SET(HashSet<Dova::IpGenAddr>, guest, Guest);
};

class DimmableLamp final : public OpenLamp {
 public:
  enum Attribute : AttributeId { dimmingId = guestId + 1, socketId };

  class NotifieeConst : public ReactorOn<DimmableLamp> {
   public:
    virtual void onDimming() { handleNotification(dimmingId); }
    virtual void onSocket(Dova::IpGenAddr) {}
    virtual void onSocketvelImmediate() {}
    virtual void onSocket() { handleDefault("socket"); }
  };
  using Notifiee = WritableReactor<NotifieeConst, DimmableLamp>;

  VEL_VALUE(bool, dimming, Dimming, false);
  VEL_SET(OrderedSet<Dova::IpGenAddr>, socket, Socket);
};

// Between the two, and not the last.
class OpenDimmer : public OpenLamp {
 public:
  enum Attribute : AttributeId { dimmingId = guestId + 1 };
  class NotifieeConst : public ReactorOn<OpenDimmer> {
   public:
    virtual void onDimming() { handleNotification(dimmingId); }
  };
  using Notifiee = WritableReactor<NotifieeConst, OpenDimmer>;
  VEL_VALUE(bool, dimming, Dimming, false);
};

class TimedDimmer final : public OpenDimmer {
 public:
  enum Attribute : AttributeId { delayId = OpenDimmer::dimmingId + 1 };
  class NotifieeConst : public ReactorOn<TimedDimmer> {
   public:
    virtual void onDelay() { handleNotification(delayId); }
  };
  using Notifiee = WritableReactor<NotifieeConst, TimedDimmer>;
  VEL_SECONDS(delay, Delay, 0);
};

template <class Base>
class Noting : public Base {
 public:
  Noting(std::string name, Log& log) : name_(std::move(name)), log_(log) {}
  void onZeroReferences() override { heard("zero references"); }
  void onNotificationException(AttributeId id) override { heard("exception " + std::to_string(id)); }

 protected:
  void heard(std::string const& event) { log_.push_back(name_ + ": " + event); }

 private:
  std::string const name_;
  Log& log_;
};

// Base is NotifieeConst or Notifiee.
template <class Base>
class OnOpenLamp final : public Noting<Base> {
  using Noting<Base>::Noting;
  using Base::onGuest;
  void onBrightness() override { this->heard("brightness"); }
  void onGuest(Dova::IpGenAddr key) override { this->heard("guest " + toText(key)); }
};
template <class Base>
class OnDimmable final : public Noting<Base> {
  using Noting<Base>::Noting;
  using Base::onSocket;
  void onDimming() override { this->heard("dimming"); }
  void onSocket(Dova::IpGenAddr key) override { this->heard("socket " + toText(key)); }
};
class OnOpenDimmer final : public Noting<OpenDimmer::NotifieeConst> {
  using Noting::Noting;
  void onDimming() override { heard("dimming"); }
};
class OnTimedDimmer final : public Noting<TimedDimmer::NotifieeConst> {
  using Noting::Noting;
  void onDelay() override { heard("delay"); }
};

class DerivedEntityTest : public testing::Test {
 protected:
  template <class Reactor, class T>
  Ptr<Reactor> on(Ptr<T> const& entity, char const* name) {
    auto const made = create<Reactor>(name, log);
    made->notifierIs(entity);
    return made;
  }
  Log log;
};

TEST_F(DerivedEntityTest, ReactorsOnTheBaseAndOnTheDerivedClassEachHearOfTheirOwnAttributes) {
  auto const lamp = create<DimmableLamp>();
  auto const a = on<OnOpenLamp<OpenLamp::NotifieeConst>>(lamp, "a");
  auto const b = on<OnDimmable<DimmableLamp::NotifieeConst>>(lamp, "b");
  auto const c = on<OnOpenLamp<OpenLamp::Notifiee>>(lamp, "c");
  auto const d = on<OnDimmable<DimmableLamp::Notifiee>>(lamp, "d");
  lamp->brightnessIs(1);
  EXPECT_THAT(taken(log), ElementsAre("a: brightness", "c: brightness"));
  lamp->dimmingIs(true);
  EXPECT_THAT(taken(log), ElementsAre("b: dimming", "d: dimming"));
  lamp->guestIs(address(1));
  EXPECT_THAT(taken(log), ElementsAre("a: guest 10.0.0.1", "c: guest 10.0.0.1"));
  lamp->socketIs(address(2));
  EXPECT_THAT(taken(log), ElementsAre("b: socket 10.0.0.2", "d: socket 10.0.0.2"));
}

TEST_F(DerivedEntityTest, AReactorOfOneClassAloneIsNotCalledForTheOther) {
  auto const lamp = create<DimmableLamp>();
  auto a = on<OnOpenLamp<OpenLamp::NotifieeConst>>(lamp, "a");
  lamp->dimmingIs(true);
  EXPECT_THAT(taken(log), IsEmpty());
  a = nullptr;
  auto const b = on<OnDimmable<DimmableLamp::NotifieeConst>>(lamp, "b");
  lamp->brightnessIs(1);
  EXPECT_THAT(taken(log), IsEmpty());
}

TEST_F(DerivedEntityTest, SoItIsAmongMoreReactorsThanADeliveryWalksInPlace) {
  auto const lamp = create<DimmableLamp>();
  std::vector<Ptr<Reactor>> many;
  for (U32 i = 0; i < 2 * Delivery::capacity; ++i) {
    many.push_back(on<OnOpenLamp<OpenLamp::NotifieeConst>>(lamp, "a"));
    many.push_back(on<OnDimmable<DimmableLamp::NotifieeConst>>(lamp, "b"));
  }
  lamp->dimmingIs(true);
  EXPECT_EQ(taken(log), Log(2 * Delivery::capacity, "b: dimming"));
  lamp->brightnessIs(1);
  EXPECT_EQ(taken(log), Log(2 * Delivery::capacity, "a: brightness"));
}

TEST_F(DerivedEntityTest, AReactorOnEachOfThreeClassesHearsOfItsOwn) {
  auto const dimmer = create<TimedDimmer>();
  auto const a = on<OnOpenLamp<OpenLamp::NotifieeConst>>(dimmer, "a");
  auto const b = on<OnOpenDimmer>(dimmer, "b");
  auto const c = on<OnTimedDimmer>(dimmer, "c");
  dimmer->delayIs(1);
  dimmer->dimmingIs(true);
  dimmer->brightnessIs(1);
  EXPECT_THAT(log, ElementsAre("c: delay", "b: dimming", "a: brightness"));
}

TEST_F(DerivedEntityTest, AllOfThemHearOfTheEnd) {
  auto lamp = create<DimmableLamp>();
  auto const a = on<OnOpenLamp<OpenLamp::NotifieeConst>>(lamp, "a");
  auto const b = on<OnDimmable<DimmableLamp::NotifieeConst>>(lamp, "b");
  a->isNondestructingIs(true);
  b->isNondestructingIs(true);
  lamp = nullptr;
  EXPECT_THAT(log, ElementsAre("a: zero references", "b: zero references"));
}

TEST_F(DerivedEntityTest, TheBaseByItselfWorksAsAnyOther) {
  auto const lamp = create<OpenLamp>();
  auto const a = on<OnOpenLamp<OpenLamp::NotifieeConst>>(lamp, "a");
  lamp->brightnessIs(1);
  EXPECT_THAT(log, ElementsAre("a: brightness"));
}

}  // namespace
}  // namespace Vel
