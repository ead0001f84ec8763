// SPDX-License-Identifier: Apache-2.0
#include "runtime/vel/Ptr.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <unordered_set>
#include <vector>

#include "tests/runtime/vel/Lamp.h"

namespace Vel {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// A counted object that notes what the framework does to it.
class Thing : public Counted {
 public:
  explicit Thing(Log& log) : log_(log) {}

  using Counted::zombie;
  using Counted::zombieIs;

  void zeroReferencesIs(bool zero) override {
    log_.push_back(zero ? "zero" : "revived");
    if (atZero && zero) atZero(*this);
  }

  std::function<void(Thing&)> atZero;
  std::function<void(Thing&)> atTeardown;

 protected:
  ~Thing() override { log_.push_back("destroyed"); }
  void doTeardown() override {
    log_.push_back("torn down");
    if (atTeardown) atTeardown(*this);
  }

 private:
  Log& log_;
};

class PtrTest : public testing::Test {
 protected:
  Log log;
};

TEST_F(PtrTest, AReferenceThatHasBeenCountedIsTakenOver) {
  auto* const thing = new Thing(log);
  {
    auto const ptr = Ptr<Thing>::owning(thing);
    EXPECT_EQ(ptr.get(), thing);
    EXPECT_EQ(thing->references(), 1u);
  }
  EXPECT_THAT(log, ElementsAre("zero", "torn down", "destroyed"));
}

TEST_F(PtrTest, ANewObjectHasACountOfOneThatBelongsToItsCreator) {
  auto* const thing = new Thing(log);
  EXPECT_EQ(thing->references(), 1u);
  {
    Ptr<Thing> const ptr(thing);
    EXPECT_EQ(thing->references(), 2u);
  }
  EXPECT_EQ(thing->references(), 1u);
  EXPECT_THAT(log, IsEmpty());
  thing->deleteRef();
  EXPECT_THAT(log, ElementsAre("zero", "torn down", "destroyed"));
}

TEST_F(PtrTest, CreateHandsOverACountOfExactlyOne) {
  auto const thing = create<Thing>(log);
  EXPECT_EQ(thing->references(), 1u);
}

TEST_F(PtrTest, CopiesCountMovesDoNotAndAssignmentReleases) {
  auto one = create<Thing>(log);
  Ptr<Thing> two = one;
  EXPECT_EQ(one->references(), 2u);
  Ptr<Thing> three = std::move(two);
  EXPECT_EQ(one->references(), 2u);
  EXPECT_FALSE(two);
  three = create<Thing>(log);
  EXPECT_EQ(one->references(), 1u);
  Ptr<Thing> const& alias = one;
  one = alias;
  EXPECT_EQ(one->references(), 1u);
  EXPECT_THAT(log, IsEmpty());
}

TEST_F(PtrTest, TheDestructorRunsOnceWhenTheLastReferenceGoes) {
  auto one = create<Thing>(log);
  Ptr<Thing const> view = one;
  one = nullptr;
  EXPECT_THAT(log, IsEmpty());
  view = nullptr;
  EXPECT_THAT(log, ElementsAre("zero", "torn down", "destroyed"));
}

TEST_F(PtrTest, TheZombieBitDoesNotDisturbTheCount) {
  auto thing = create<Thing>(log);
  thing->zombieIs(true);
  EXPECT_TRUE(thing->zombie());
  EXPECT_EQ(thing->references(), 1u);
  {
    Ptr<Thing> const other = thing;
    EXPECT_EQ(thing->references(), 2u);
  }
  EXPECT_TRUE(thing->zombie());
  thing = nullptr;
  EXPECT_THAT(log, ElementsAre("zero", "torn down", "destroyed"));
}

TEST_F(PtrTest, AReferenceTakenAndDroppedWhileZeroIsHandledChangesNothing) {
  auto thing = create<Thing>(log);
  std::vector<U32> counts;
  auto const touch = [&](Thing& self) {
    counts.push_back(self.references());
    {
      Ptr<Thing> const passing(&self);
      counts.push_back(self.references());
    }
    counts.push_back(self.references());
  };
  thing->atZero = thing->atTeardown = touch;
  thing = nullptr;
  EXPECT_THAT(counts, ElementsAre(0, 1, 0, 0, 1, 0));
  EXPECT_THAT(log, ElementsAre("zero", "torn down", "destroyed"));
}

TEST_F(PtrTest, AReferenceKeptAtZeroRevivesTheObjectBeforeItsTeardown) {
  Ptr<Thing> rescued;
  auto thing = create<Thing>(log);
  thing->atZero = [&](Thing& self) { rescued = &self; };
  thing = nullptr;
  EXPECT_THAT(taken(log), ElementsAre("zero", "revived"));
  EXPECT_EQ(rescued->references(), 1u);
  rescued->atZero = nullptr;
  rescued = nullptr;
  EXPECT_THAT(log, ElementsAre("zero", "torn down", "destroyed"));
}

TEST_F(PtrTest, AReferenceKeptInTheTeardownRevivesTheObjectToo) {
  Ptr<Thing> rescued;
  auto thing = create<Thing>(log);
  thing->atTeardown = [&](Thing& self) { rescued = &self; };
  thing = nullptr;
  EXPECT_THAT(taken(log), ElementsAre("zero", "torn down", "revived"));
  rescued->atTeardown = nullptr;
  rescued = nullptr;
  EXPECT_THAT(log, ElementsAre("zero", "torn down", "destroyed"));
}

TEST_F(PtrTest, WhatTheTeardownThrowsDoesNotKeepTheObject) {
  auto thing = create<Thing>(log);
  thing->atTeardown = [](Thing&) { throw std::bad_alloc(); };
  thing = nullptr;
  EXPECT_THAT(log, ElementsAre("zero", "torn down", "destroyed"));
}

TEST_F(PtrTest, DereferencingNullThrows) {
  Ptr<Thing> const null;
  for (auto const& use :
       std::vector<std::function<void()>>{[&] { (void)null->references(); },
                                          [&] { (void)(*null).references(); }, [&] { (void)valid(null); }}) {
    try {
      use();
      ADD_FAILURE() << "nothing was thrown";
    } catch (RangeException const& error) {
      EXPECT_STREQ(error.what(), "null ValidPtr");
    }
  }
  EXPECT_EQ(null.get(), nullptr);
}

TEST_F(PtrTest, PointersCompareByIdentityAndPrintTheirAddress) {
  auto const one = create<Thing>(log), two = create<Thing>(log);
  Ptr<Thing const> const view = one;
  EXPECT_TRUE(view == one);
  EXPECT_TRUE(one == one.get());
  EXPECT_FALSE(one == two);
  EXPECT_FALSE(one == nullptr);
  EXPECT_TRUE(Ptr<Thing>() == nullptr);
  std::ostringstream address;
  address << static_cast<void const*>(one.get());
  EXPECT_EQ(inText(one), address.str());
  EXPECT_EQ(inText(Ptr<Thing>()), "0");
}

TEST_F(PtrTest, TheContainersOfTheStandardLibraryTakePointers) {
  auto const a = create<Lamp>(), b = create<Lamp>();
  std::unordered_set<Ptr<Lamp>> const some{a, b, a, nullptr};
  EXPECT_EQ(some.size(), 3u);
  EXPECT_TRUE(some.contains(b));
  EXPECT_FALSE(some.contains(create<Lamp>()));
  EXPECT_EQ(std::hash<Ptr<Lamp const>>()(a), std::hash<Ptr<Lamp>>()(a));
}

TEST_F(PtrTest, CastingDownFindsTheDerivedObjectOrNull) {
  Ptr<Counted> const lamp = create<Lamp>();
  EXPECT_TRUE(Ptr<Counted>(dynamicCast<Lamp>(lamp)) == lamp);
  EXPECT_EQ(lamp->references(), 1u);
  EXPECT_TRUE(dynamicCast<Bulb>(lamp) == nullptr);
  EXPECT_TRUE(dynamicCast<Lamp>(Ptr<Counted>()) == nullptr);
}

TEST_F(PtrTest, AnObjectNamesItsOwnTypeInFull) {
  Ptr<Counted> const lamp = create<Lamp>();
  EXPECT_EQ(lamp->fwkType(), "Vel::Lamp");
}

}  // namespace
}  // namespace Vel
