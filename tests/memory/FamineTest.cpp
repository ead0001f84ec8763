// Every request for memory fails once, and then that one and all that follow it: nobody may lose what he has, and with
// memory again everything goes on.
#include "tests/Thorough.h"
#include "tests/memory/Scene.h"

namespace Routing::Pim {
namespace {

using CountedHeap::Famine;
using CountedHeap::Relief;

struct Stage {
  char const* name;
  bool traces;
  std::size_t length;      // of the famine
  std::size_t stride = 1;  // from one request that fails to the next
};

void PrintTo(Stage const& stage, std::ostream* os) { *os << stage.name; }

// So that the many lives can be lived side by side: each share takes every fourth request. Every request fails by
// itself; a longer famine begins at every third, and with traces, where a line alone makes a dozen requests that are
// alike, a seventh of them fails.
constexpr std::size_t shares = 4;

class FamineTest : public testing::TestWithParam<std::tuple<Stage, std::size_t>> {
 protected:
  Stage const stage = std::get<0>(GetParam());

  // A whole life, in which the n-th request fails. Whether there was such a request.
  bool live(std::size_t n) {
    std::optional<AllTraces> traces;
    if (stage.traces) traces.emplace();
    bool failed = false;
    Scene scene;
    {
      Famine const famine(n, stage.length);
      Scene::whateverHappens([&] { scene.start(); });
      if (scene.machine) scene.machine->diagUpJoinCountIs(true);
      scene.trafficWhateverHappens();
      failed = famine.failures() != 0;
    }
    scene.pass(1);
    EXPECT_EQ(scene.audit(), "");
    scene.mend();
    scene.traffic();
    EXPECT_EQ(scene.audit(), "");
    EXPECT_TRUE(scene.sendsAFreshJoin());
    {
      Famine const famine(n, stage.length);
      scene.end();
    }
    return failed;
  }
};

TEST_P(FamineTest, NothingIsLostForGoodWhicheverRequestFails) {
  EXPECT_FALSE(live(1'000'000));  // once before, for what stays anyway
  std::size_t n = 1 + std::get<1>(GetParam());
  for (bool failed = true; failed; n += shares * stage.stride * (thorough() ? 1 : 17)) {
    SCOPED_TRACE(n);
    std::size_t const blocks = CountedHeap::liveBlocks, bytes = CountedHeap::liveBytes;
    failed = live(n);
    if (HasFailure()) return;
    EXPECT_EQ(CountedHeap::liveBlocks, blocks);
    EXPECT_EQ(CountedHeap::liveBytes, bytes);
  }
  EXPECT_GT(n, 1000u);
}

TEST(FamineDeathTest, AMachineThatHasCaughtUpValidatesItsCountAgain) {
  bool wasBehind = false, failed = true;
  for (std::size_t n = 1; failed && !wasBehind; ++n) {
    Scene scene;
    scene.start();
    scene.machine->diagUpJoinCountIs(true);
    scene.pass(5);  // nothing is pending any more
    ASSERT_FALSE(scene.sm()->triggeredTimer()->armed());
    auto const added = addr("239.9.9.9");
    {
      Famine const famine(n);
      Scene::whateverHappens([&] { scene.periodic()->joinPruneGroupDataIs(added); });
      failed = famine.failures() != 0;
    }
    auto const data = scene.periodic();
    auto const sm = scene.sm();
    wasBehind = data->joinPruneGroupData(added) && !sm->periodicGroupData(added);
    if (!wasBehind) continue;
    EXPECT_TRUE(sm->triggeredTimer()->armed());
    data->joinPruneGroupData(added)->joinedSourceIs(addr("10.9.0.1"));
    EXPECT_EQ(sm->numPeriodicRoutes(), 12u);  // not counted yet, and nobody complains of it
    sm->numPeriodicRoutesIs(99);
    {
      Famine const still(1, ~std::size_t{0} / 2);
      data->joinPruneGroupDataNotifyImmediate();
      scene.pass(0.3);
    }
    EXPECT_NE(scene.audit(), "");  // neither a notification of all nor an expiry has helped yet
    scene.pass(1);
    EXPECT_EQ(scene.audit(), "");
    EXPECT_EQ(sm->numPeriodicRoutes(), 13u);
    EXPECT_DEATH(sm->numPeriodicRoutesIs(99), "Assertion `false' failed");
  }
  EXPECT_TRUE(wasBehind);
}

// --- After a famine ------------------------------------------------------------------------------

class AfterFamineTest : public testing::Test {
 protected:
  using Prepare = std::function<void(World&)>;

  /// Performs `act` in a fresh world with the n-th request failing, for each n up to the last, and then
  /// `judge`, which says whether the failure had the consequence that the test is about. How often it had.
  static U32 consequences(Prepare const& prepare, Prepare const& act,
                          std::function<bool(World&)> const& judge) {
    U32 found = 0;
    bool failed = true;
    for (std::size_t n = 1; failed && !HasFatalFailure(); ++n) {
      SCOPED_TRACE(n);
      World world;
      prepare(world);
      {
        Famine const famine(n);
        Scene::whateverHappens([&] { act(world); });
        failed = famine.failures() != 0;
      }
      found += judge(world);
      world.manager->stop();
      world.machine = nullptr;
    }
    return found;
  }
  static void withNeighbor(World& w) {
    w.neighbor("10.0.0.2", w.intf("eth0", "10.0.0.1/24"));
    w.start();
  }
};

TEST_F(AfterFamineTest, TheMachineOfANeighborIsMadeWithoutAnotherNotificationAboutTheNeighbor) {
  U32 const found = consequences(
      withNeighbor,
      [](World& w) { w.pim->pimNeighborIs(addr("10.0.0.3"), w.pim->pimIntf(Dova::IntfId("eth0"))); },
      [](World& w) {
        if (!w.pim->pimNeighbor(addr("10.0.0.3")) || w.sm("10.0.0.3")) return false;
        w.runUntil(w.time + 0.2);
        EXPECT_TRUE(w.sm("10.0.0.3"));
        EXPECT_EQ(w.sets("10.0.0.3"), "top");
        EXPECT_EQ(w.wheel->armedCount(), 0u);
        return true;
      });
  EXPECT_GT(found, 3u);
}

TEST_F(AfterFamineTest, TheMachineIsMadeEarlierWhenAnotherNeighborIsHeardOf) {
  U32 const found = consequences(
      withNeighbor,
      [](World& w) { w.pim->pimNeighborIs(addr("10.0.0.3"), w.pim->pimIntf(Dova::IntfId("eth0"))); },
      [](World& w) {
        if (!w.pim->pimNeighbor(addr("10.0.0.3")) || w.sm("10.0.0.3")) return false;
        w.pim->pimNeighborNotify(addr("10.0.0.2"));
        EXPECT_TRUE(w.sm("10.0.0.3"));
        return true;
      });
  EXPECT_GT(found, 3u);
}

TEST_F(AfterFamineTest, TheMachineOfAnInterfaceIsMadeWithoutAnotherNotificationAboutTheInterface) {
  auto const eth1 = Vel::create<Intf>(Dova::IntfId("eth1"));
  eth1->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText("10.1.0.1/24"));
  U32 const found = consequences(
      withNeighbor, [&](World& w) { w.pim->pimIntfIs(eth1); },
      [](World& w) {
        if (!w.pim->pimIntf(Dova::IntfId("eth1")) || w.sm("10.1.0.1")) return false;
        w.runUntil(w.time + 0.2);
        EXPECT_TRUE(w.machine->pimIntf(Dova::IntfId("eth1")));
        EXPECT_TRUE(w.sm("10.1.0.1"));
        return true;
      });
  EXPECT_GT(found, 3u);
}

TEST_F(AfterFamineTest, TheMachineOfANewAddressIsMadeWithoutAnotherNotificationAboutTheAddress) {
  U32 const found = consequences(
      [](World& w) {
        withNeighbor(w);
        w.status->triggeredGroupIs(addr("10.0.0.9"));
      },
      [](World& w) {
        w.pim->pimIntf(Dova::IntfId("eth0"))
            ->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText("10.0.0.9/24"));
      },
      [](World& w) {
        bool const without = !w.sm("10.0.0.9");
        w.runUntil(w.time + 0.2);
        EXPECT_TRUE(w.sm("10.0.0.9"));
        EXPECT_EQ(w.sets("10.0.0.9"), "top");
        EXPECT_FALSE(w.sm("10.0.0.1"));
        return without;
      });
  EXPECT_GT(found, 3u);
}

TEST_F(AfterFamineTest, TheMachineOfAnAddressThatChangesWhileTheMachineOfTheOneBeforeIsMadeIsMade) {
  class Mover final : public JoinPruneStatus::NotifieeConst {
   public:
    void onTriggeredGroup(Dova::IpGenAddr address) override {
      if (address != addr("10.0.0.9")) return;
      if (auto const once = std::exchange(act, nullptr)) once();
    }
    std::function<void()> act;
  };
  U32 found = 0;
  bool failed = true;
  for (std::size_t n = 1; failed; ++n) {
    SCOPED_TRACE(n);
    World w;
    withNeighbor(w);
    w.status->triggeredGroupIs(addr("10.0.0.8"));
    auto const eth0 = w.pim->pimIntf(Dova::IntfId("eth0"));
    auto const move = [&](char const* to) { eth0->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText(to)); };
    auto const mover = Vel::create<Mover>();
    mover->act = [&] {
      Famine const famine(n);
      Scene::whateverHappens([&] { move("10.0.0.8/24"); });
      failed = famine.failures() != 0;
    };
    mover->notifierIs(w.status);
    move("10.0.0.9/24");
    EXPECT_FALSE(mover->act);
    found += !w.sm("10.0.0.8");
    w.runUntil(w.time + 0.2);
    EXPECT_TRUE(w.sm("10.0.0.8"));
    EXPECT_FALSE(w.sm("10.0.0.9"));
    mover->notifierIs(nullptr);
    w.manager->stop();
    w.machine = nullptr;
  }
  EXPECT_GT(found, 3u);
}

TEST_F(AfterFamineTest, AMachineThatIsDroppedByTheClockWhileItFallsBehindArmsNothing) {
  std::vector<std::function<void(World&)>> const acts = {
      [](World& w) { group(w.periodic("10.0.0.2"), "239.1.1.1"); },
      [](World& w) { w.pim->pimNeighborIs(addr("10.0.0.3"), w.pim->pimIntf(Dova::IntfId("eth0"))); }};
  for (auto const& act : acts) {
    bool failed = true;
    U32 asked = 0;
    for (std::size_t n = 1; failed; ++n) {
      SCOPED_TRACE(n);
      World w;
      std::function<void()> onClock;
      w.wheel = Vel::create<Zanth::TimerWheel>([&] {
        if (auto const drop = onClock) drop();
        return w.time;
      });
      withNeighbor(w);
      // So that the timers outlive the drop: an iterator holds its entity's memory.
      auto const timer = w.sm("10.0.0.2")->triggeredTimer();
      auto const walk = w.machine->pimIntfIterator();
      onClock = [&] {
        ++asked;
        w.machine = nullptr;
      };
      {
        Famine const famine(n);
        Scene::whateverHappens([&] { act(w); });
        failed = famine.failures() != 0;
      }
      onClock = nullptr;
      if (!w.machine) {
        EXPECT_EQ(w.wheel->armedCount(), 0u);
      }
      w.manager->stop();
      w.machine = nullptr;
    }
    EXPECT_GT(asked, 0u);
  }
}

// Which data set, and what fills a group in it.
struct Filling {
  char const* name;
  std::function<Vel::Ptr<Packet::JoinPruneData>(World&)> data;
  std::function<void(Packet::JoinPruneGroupData&)> fill, empty;
};

class BehindTest : public AfterFamineTest, public testing::WithParamInterface<Filling> {};

TEST_P(BehindTest, AGroupThatIsFilledAndEmptiedMeanwhileIsRemovedAndOneThatWasNeverFilledStays) {
  for (bool const fill : {true, false}) {
    SCOPED_TRACE(fill);
    auto const added = addr("239.9.9.9");
    auto const hasNoReactor = [&](World& w) {
      auto const sm = w.sm("10.0.0.2");
      return !sm->triggeredGroupData(added) && !sm->overrideGroupData(added) && !sm->periodicGroupData(added);
    };
    U32 const found = consequences(
        withNeighbor, [&](World& w) { GetParam().data(w)->joinPruneGroupDataIs(added); },
        [&](World& w) {
          auto const data = GetParam().data(w);
          auto const lost = data->joinPruneGroupData(added);
          if (!lost || !hasNoReactor(w)) return false;
          if (fill) {
            GetParam().fill(*lost);
            GetParam().empty(*lost);
          }
          U32 const messages = w.manager->messages;
          w.runUntil(w.time + 10);
          EXPECT_EQ(data->joinPruneGroupData(added) != nullptr, !fill);
          EXPECT_EQ(hasNoReactor(w), fill);
          EXPECT_EQ(w.sm("10.0.0.2")->numPeriodicRoutes(), 0u);
          if (fill) {
            EXPECT_LE(w.manager->messages, messages + 1);
            EXPECT_EQ(w.wheel->armedCount(), 0u);
          }
          return true;
        });
    EXPECT_GT(found, 0u);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Of, BehindTest,
    testing::Values(Filling{"TriggeredJoin", [](World& w) { return w.triggered("10.0.0.2"); },
                            [](auto& g) { g.joinedSourceIs(addr("10.9.0.1")); },
                            [](auto& g) { g.joinedSourceDel(addr("10.9.0.1")); }},
                    Filling{"OverrideJoin", [](World& w) { return w.override_("10.0.0.2"); },
                            [](auto& g) { g.joinedRptSourceIs(addr("10.9.0.1")); },
                            [](auto& g) { g.joinedRptSourceDel(addr("10.9.0.1")); }},
                    Filling{"PeriodicPrune", [](World& w) { return w.periodic("10.0.0.2"); },
                            [](auto& g) { g.prunedSourceIs(addr("10.9.0.1")); },
                            [](auto& g) { g.prunedSourceDel(addr("10.9.0.1")); }},
                    Filling{"PeriodicRptPrune", [](World& w) { return w.periodic("10.0.0.2"); },
                            [](auto& g) { g.prunedRptSourceIs(addr("10.9.0.1")); },
                            [](auto& g) { g.prunedRptSourceDel(addr("10.9.0.1")); }},
                    Filling{"PeriodicWildcard", [](World& w) { return w.periodic("10.0.0.2"); },
                            [](auto& g) { g.wcSourceDataIs(wildcard("10.5.5.5")); },
                            [](auto& g) { g.wcSourceDataDel(); }}),
    [](auto const& row) { return std::string(row.param.name); });

// Falls behind with one group, and while it takes that up, with another.
TEST_F(AfterFamineTest, AMachineThatFallsBehindAgainWhileItCatchesUpCatchesUpOnceMore) {
  class Adder final : public JoinPruneNeighborSm::NotifieeConst {
   public:
    void onPeriodicGroupData(Dova::IpGenAddr) override {
      if (auto const once = std::exchange(act, nullptr)) once();
    }
    std::function<void()> act;
  };
  auto const unfollowed = [](World& w, Dova::IpGenAddr const& g) {
    return w.periodic("10.0.0.2")->joinPruneGroupData(g) && !w.sm("10.0.0.2")->periodicGroupData(g);
  };
  for (auto const& [first, second] :
       {std::pair("239.1.1.1", "239.1.1.2"), std::pair("239.1.1.2", "239.1.1.1")}) {
    U32 found = 0;
    bool failed = true, failedAgain = false;
    for (std::size_t n = 1, m = 1; failed || failedAgain; failedAgain ? ++m : (m = 1, ++n)) {
      SCOPED_TRACE(std::string(first) + ", " + std::to_string(n) + ", " + std::to_string(m));
      World w;
      withNeighbor(w);
      auto const data = w.periodic("10.0.0.2");
      auto const sm = w.sm("10.0.0.2");
      {
        Famine const famine(n);
        Scene::whateverHappens([&] { group(data, first); });
        failed = famine.failures() != 0;
      }
      failedAgain = false;
      if (unfollowed(w, addr(first))) {
        auto const adder = Vel::create<Adder>();
        adder->notifierIs(sm);
        bool behindAgain = false;
        adder->act = [&] {
          {
            Famine const famine(m);
            Scene::whateverHappens([&] { group(data, second); });
            failedAgain = famine.failures() != 0;
          }
          behindAgain = unfollowed(w, addr(second));
          group(data, second)->joinedSourceIs(addr("10.9.0.1"));
        };
        group(data, first)->joinedSourceIs(addr("10.9.0.1"));
        w.runUntil(w.time + 1);
        EXPECT_FALSE(adder->act);
        found += behindAgain;
        EXPECT_TRUE(sm->periodicGroupData(addr(first)));
        EXPECT_TRUE(sm->periodicGroupData(addr(second)));
        EXPECT_EQ(sm->numPeriodicRoutes(), 2u);
        for (char const* const g : {first, second}) {
          data->joinPruneGroupData(addr(g))->joinedSourceDel(addr("10.9.0.1"));
          EXPECT_FALSE(data->joinPruneGroupData(addr(g)));
        }
        EXPECT_EQ(sm->numPeriodicRoutes(), 0u);
        adder->notifierIs(nullptr);
      }
      w.manager->stop();
      w.machine = nullptr;
    }
    EXPECT_GT(found, 0u);
  }
}

// The last group is removed by the catching up itself, while the count is still the old one.
TEST_F(AfterFamineTest, AMachineWhoseDataRunsEmptyWhileItCatchesUpDoesNotCheckItsCountInTheMiddle) {
  U32 const found = consequences(
      [](World& w) {
        withNeighbor(w);
        w.machine->diagUpJoinCountIs(true);
      },
      [](World& w) { group(w.periodic("10.0.0.2"), "239.1.1.1"); },
      [](World& w) {
        auto const data = w.periodic("10.0.0.2");
        auto const sm = w.sm("10.0.0.2");
        auto const lost = data->joinPruneGroupData(addr("239.1.1.1"));
        if (!lost || sm->periodicGroupData(addr("239.1.1.1"))) return false;
        lost->joinedSourceIs(addr("10.9.0.1"));
        lost->joinedSourceDel(addr("10.9.0.1"));
        sm->numPeriodicRoutesIs(1);  // as if the source had been counted
        w.runUntil(w.time + 1);
        EXPECT_EQ(data->joinPruneGroupDataCount(), 0u);
        EXPECT_EQ(sm->numPeriodicRoutes(), 0u);
        return true;
      });
  EXPECT_GT(found, 0u);
}

TEST_F(AfterFamineTest, AMachineThatWasKeptForAPeriodicGroupAsksItsOwnerWhenItHasCaughtUp) {
  for (std::size_t const length : {std::size_t{1}, ~std::size_t{0} / 2}) {
    SCOPED_TRACE(length);
    bool failed = true;
    for (std::size_t n = 1; failed; ++n) {
      SCOPED_TRACE(n);
      World w;
      withNeighbor(w);
      auto const data = w.periodic("10.0.0.2");
      auto const followed = group(data, "239.1.1.1");
      followed->joinedSourceIs(addr("10.9.0.1"));
      w.pim->pimNeighborDel(addr("10.0.0.2"));
      ASSERT_TRUE(w.sm("10.0.0.2"));
      {
        Famine const famine(n, length);
        // The machine falls behind with another group, and then the last source leaves.
        Scene::whateverHappens([&] { group(data, "239.1.1.2")->joinedSourceIs(addr("10.9.0.2")); });
        Scene::whateverHappens([&] {
          if (auto const other = data->joinPruneGroupData(addr("239.1.1.2")))
            other->joinedSourceDel(addr("10.9.0.2"));
        });
        Scene::whateverHappens([&] { followed->joinedSourceDel(addr("10.9.0.1")); });
        failed = famine.failures() != 0;
      }
      if (auto const other = data->joinPruneGroupData(addr("239.1.1.2")); other && !other->velWasFilled())
        data->joinPruneGroupDataDel(addr("239.1.1.2"));  // added, never filled: the agent's to remove
      w.runUntil(w.time + 10);
      EXPECT_FALSE(w.sm("10.0.0.2"));
      EXPECT_EQ(w.sets("10.0.0.2"), "-");
      w.manager->stop();
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Of, FamineTest,
    testing::Combine(testing::Values(Stage{"OneRequest", false, 1}, Stage{"AFew", false, 5, 3},
                                     Stage{"OneRequestWithTraces", true, 1, 7},
                                     Stage{"AllThatFollow", false, ~std::size_t{0} / 2, 3}),
                     testing::Range<std::size_t>(0, shares)),
    [](auto const& row) {
      return std::string(std::get<0>(row.param).name) + "_" + std::to_string(std::get<1>(row.param) + 1);
    });

}  // namespace
}  // namespace Routing::Pim
