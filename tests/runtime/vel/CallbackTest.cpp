// SPDX-License-Identifier: Apache-2.0
// What callbacks do to the entity that calls them, for every kind of attribute: each kind meets each misdeed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/runtime/vel/Lamp.h"

namespace Vel {
namespace {

using testing::ElementsAreArray;
using testing::IsEmpty;

// Three watchers; the middle one misbehaves.
struct Scene : LampWorld {
  explicit Scene(Kind const& k) : kind(k) {
    for (auto const* reactor : {&a, &b, &c}) (*reactor)->isNondestructingIs(true);
  }

  void change() { kind.change(*lamp, ++changes); }

  // What one change makes the listed watchers hear.
  Log heardBy(std::string const& names) {
    Log expected;
    for (char const name : names)
      for (std::string line : kind.heard(changes)) {
        line[0] = name;
        expected.push_back(std::move(line));
      }
    return expected;
  }

  Kind const& kind;
  U32 changes = 0;
  Ptr<Recorder> a = recorder("a"), b = recorder("b"), c = recorder("c");
};

struct Misdeed {
  char const* name;
  // Done in each callback of "b".
  void (*act)(Scene& scene, Recorder& self);
  // Who hears of the change, and who of the next one; an upper-case letter throws.
  char const* now;
  char const* next;
};

std::vector<Misdeed> const misdeeds{
    {"ThrowsAnException", [](Scene&, Recorder&) { throw std::runtime_error("no"); }, "aBc", "aBc"},
    {"ThrowsSomethingElse", [](Scene&, Recorder&) { throw "no"; }, "aBc", "aBc"},
    {"UnregistersItself", [](Scene&, Recorder& self) { self.isRegisteredNotifieeIs(false); }, "abc", "ac"},
    {"UnbindsItself", [](Scene&, Recorder& self) { self.notifierIs(nullptr); }, "abc", "ac"},
    {"DropsItself", [](Scene& scene, Recorder&) { scene.b = nullptr; }, "abc", "ac"},
    {"UnregistersAllOthers",
     [](Scene& scene, Recorder&) {
       scene.a->isRegisteredNotifieeIs(false);
       scene.c->isRegisteredNotifieeIs(false);
     },
     "abc", "b"},
    {"DropsAllOthers", [](Scene& scene, Recorder&) { scene.a = scene.c = nullptr; }, "abc", "b"},
    {"RetiresAllOthers",
     [](Scene& scene, Recorder&) {
       scene.a->velDoZombieReactors(true);
       scene.c->velDoZombieReactors(true);
     },
     "ab", "b"},
    {"DropsEverybody", [](Scene& scene, Recorder&) { scene.a = scene.b = scene.c = nullptr; }, "abc", ""},
};

class CallbackTest : public testing::TestWithParam<std::tuple<Kind, Misdeed>> {
 protected:
  // "aBc" spelled out: what the lower-case ones hear, and in between what the upper-case one hears and
  // throws.
  static Log spelledOut(Scene& scene, std::string const& names) {
    Log expected;
    for (char const name : names) {
      bool const throws = name < 'a';
      for (std::string const& line : scene.heardBy(std::string(1, static_cast<char>(name | 0x20)))) {
        expected.push_back(line);
        if (throws) expected.push_back("b: exception " + std::to_string(scene.kind.id));
      }
    }
    return expected;
  }
};

TEST_P(CallbackTest, AMisdeedHurtsNobodyElse) {
  auto const& [kind, misdeed] = GetParam();
  {
    Scene scene(kind);
    scene.b->then = [&, act = misdeed.act](Recorder& self) { act(scene, self); };
    scene.change();
    EXPECT_THAT(taken(scene.log), ElementsAreArray(spelledOut(scene, misdeed.now)));
    scene.change();
    EXPECT_THAT(taken(scene.log), ElementsAreArray(spelledOut(scene, misdeed.next)));
  }
  EXPECT_EQ(Lamp::alive, 0);
  EXPECT_EQ(Recorder::alive, 0);
  EXPECT_EQ(Bulb::alive, 0);
}

INSTANTIATE_TEST_SUITE_P(OfAll, CallbackTest,
                         testing::Combine(testing::ValuesIn(kinds()), testing::ValuesIn(misdeeds)),
                         [](auto const& row) {
                           return std::string(std::get<0>(row.param).name) + std::get<1>(row.param).name;
                         });

class KindTest : public testing::TestWithParam<Kind> {};

TEST_P(KindTest, TheEntityMayBeDroppedInsideTheDelivery) {
  Scene scene(GetParam());
  scene.b->then = [&](Recorder& self) {
    scene.lamp = nullptr;
    self.then = nullptr;
  };
  scene.change();  // the scene's pointer is the only one
  // In the middle of the pass the reactors hear of the lamp's end, its emptied collections included; then it
  // continues.
  Log const heard = taken(scene.log), expected = scene.heardBy("abc");
  auto next = expected.begin();
  for (auto const& line : heard)
    if (next != expected.end() && line == *next) ++next;
  EXPECT_TRUE(next == expected.end()) << testing::PrintToString(heard);
  EXPECT_EQ(heard.back(), expected.back());
  EXPECT_EQ(Lamp::alive, 0);
  EXPECT_EQ(Bulb::alive, 0);
  EXPECT_FALSE(scene.a->notifier());
}

TEST_P(KindTest, AChangeInsideTheDeliveryIsDeliveredToAllAndTheOuterPassGoesOn) {
  Scene scene(GetParam());
  scene.b->then = [&](Recorder& self) {
    self.then = nullptr;
    scene.change();
  };
  scene.change();
  scene.changes = 1;
  Log expected = scene.heardBy("a");
  Log const outerB = scene.heardBy("b"), outerC = scene.heardBy("c");
  scene.changes = 2;
  Log const inner = scene.heardBy("abc");
  expected.push_back(outerB.front());
  expected.insert(expected.end(), inner.begin(), inner.end());
  expected.insert(expected.end(), outerB.begin() + 1, outerB.end());
  expected.insert(expected.end(), outerC.begin(), outerC.end());
  EXPECT_THAT(scene.log, ElementsAreArray(expected));
}

TEST_P(KindTest, NobodyIsCalledOnAnEntityWithoutWatchers) {
  Log log;
  auto const stranger = create<Recorder>("b", log);
  auto const lamp = create<Lamp>();
  GetParam().change(*lamp, 1);
  EXPECT_THAT(log, IsEmpty());
  stranger->notifierIs(lamp);
  GetParam().change(*lamp, 2);
  EXPECT_THAT(log, ElementsAreArray(GetParam().heard(2)));
}

INSTANTIATE_TEST_SUITE_P(Of, KindTest, testing::ValuesIn(kinds()),
                         [](auto const& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace Vel
