// SPDX-License-Identifier: Apache-2.0
// The reactor of a group is made when somebody asks for it, and nobody can tell.
#include "tests/pim/joinprune/World.h"

namespace Routing::Pim {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ReactorOnDemandTest : public testing::TestWithParam<int>, protected World {
 protected:
  /// Does what it is told to when a source of its group changes.
  class GroupListener final : public Packet::JoinPruneGroupData::Notifiee {
   public:
    void onJoinedSource(Dova::IpGenAddr) override { act(); }
    void onWcSourceData() override { act(); }
    std::function<void()> act;
  };
  /// Does once what it is told to when a group is added or removed.
  class DataListener final : public Packet::JoinPruneData::Notifiee {
   public:
    void onJoinPruneGroupData(Dova::IpGenAddr g) override {
      if (auto const once = std::exchange(act, nullptr)) once(g);
    }
    std::function<void(Dova::IpGenAddr)> act;
  };
  class MachineListener final : public JoinPruneNeighborSm::NotifieeConst {
   public:
    void onTriggeredGroupData(Dova::IpGenAddr g) override { told.push_back(text(g)); }
    void onOverrideGroupData(Dova::IpGenAddr g) override { told.push_back(text(g)); }
    void onPeriodicGroupData(Dova::IpGenAddr g) override { told.push_back(text(g)); }
    std::vector<std::string> told;
  };

  void SetUp() override {
    log.levels({});
    neighbor(N, intf("eth0", "10.0.0.1/24"));
    start();
    own = sm(N);
    data = way() == 0 ? triggered(N) : way() == 1 ? override_(N) : periodic(N);
    group_ = data->joinPruneGroupDataIs(addr(G));
  }
  void TearDown() override {
    log.hook = nullptr;
    listener->notifierIs(nullptr);
  }

  int way() const { return GetParam(); }
  Vel::Ptr<JoinPruneGroupReactor> reactor(char const* g = G) { return reactorOf(*own, g); }
  Vel::Ptr<JoinPruneGroupReactor> reactorOf(JoinPruneNeighborSm& of, char const* g) {
    if (way() == 0) return of.triggeredGroupData(addr(g));
    if (way() == 1) return of.overrideGroupData(addr(g));
    return of.periodicGroupData(addr(g));
  }
  Vel::Ptr<JoinPruneGroupReactor> reactorDel(char const* g = G) {
    if (way() == 0) return own->triggeredGroupDataDel(addr(g));
    if (way() == 1) return own->overrideGroupDataDel(addr(g));
    return own->periodicGroupDataDel(addr(g));
  }
  U32 count() { return countOf(*own); }
  U32 countOf(JoinPruneNeighborSm& of) {
    return way() == 0   ? of.triggeredGroupDataCount()
           : way() == 1 ? of.overrideGroupDataCount()
                        : of.periodicGroupDataCount();
  }
  U32 walked(JoinPruneNeighborSm& of) {
    U32 sum = 0;
    auto const walk = [&](auto i) {
      for (; i; ++i) ++sum;
    };
    if (way() == 0)
      walk(of.triggeredGroupDataIterator());
    else if (way() == 1)
      walk(of.overrideGroupDataIterator());
    else
      walk(of.periodicGroupDataIterator());
    return sum;
  }
  /// Whether there is a reactor already: nothing is asked that would make it.
  bool made() { return group_->references() == 3; }  // the data set's, the test's and its
  /// What a source or a (*,G) entry that was added or removed must have led to.
  void expectFollowed(U32 routes) {
    if (way() == 2) {
      EXPECT_EQ(own->numPeriodicRoutes(), routes);
    } else {
      bool const armed = way() == 0 ? own->triggeredTimer()->armed() : own->overrideTimer()->armed();
      EXPECT_TRUE(armed || routes == 0);
    }
  }
  void addsAgain(bool asks);
  void listen(std::function<void()> act) {
    listener->act = std::move(act);
    listener->notifierIs(group_);
  }

  TraceLog log;
  Vel::Ptr<JoinPruneNeighborSm> own;
  Vel::Ptr<Packet::JoinPruneData> data;
  Vel::Ptr<Packet::JoinPruneGroupData> group_;
  Vel::Ptr<GroupListener> const listener = Vel::create<GroupListener>();
};

INSTANTIATE_TEST_SUITE_P(Of, ReactorOnDemandTest, testing::Values(0, 1, 2), [](auto const& row) {
  return std::string(row.param == 0 ? "Triggered" : row.param == 1 ? "Override" : "Periodic");
});

TEST_P(ReactorOnDemandTest, IsThereOnceItIsAskedForAndStays) {
  EXPECT_EQ(count(), 1u);
  EXPECT_FALSE(made());
  group_->joinedSourceIs(addr(S));
  expectFollowed(1);
  EXPECT_FALSE(made());
  auto const found = reactor();
  ASSERT_TRUE(found);
  EXPECT_TRUE(made());
  EXPECT_EQ(count(), 1u);
  EXPECT_EQ(reactor(), found);
  EXPECT_EQ(found->notifier(), group_);
  EXPECT_EQ(found->joinPruneNeighborSm(), own.get());
  group_->prunedSourceIs(addr(S));
  expectFollowed(2);
  EXPECT_FALSE(reactor("239.1.1.2"));
}

TEST_P(ReactorOnDemandTest, OfEachGroupIsFoundInAWalkAndByName) {
  for (char const* const g : {"239.1.1.2", "239.1.1.3"}) group(data, g);
  EXPECT_TRUE(reactor("239.1.1.2"));
  std::string const name = way() == 0   ? "triggeredGroupData"
                           : way() == 1 ? "overrideGroupData"
                                        : "periodicGroupData";
  std::string const byName = own->attribute(name);
  for (char const* const g : {G, "239.1.1.2", "239.1.1.3"}) EXPECT_NE(byName.find(g), byName.npos);
  group(data, "239.1.1.4");
  U32 walked = 0;
  auto const walk = [&](auto i) {
    for (; i; ++i) walked += i->notifier() == data->joinPruneGroupData(i.key());
  };
  JoinPruneNeighborSm const& view = *own;
  if (way() == 0) walk(view.triggeredGroupDataIterator());
  if (way() == 1) walk(view.overrideGroupDataIterator());
  if (way() == 2) walk(view.periodicGroupDataIterator());
  EXPECT_EQ(walked, 4u);
  EXPECT_EQ(count(), 4u);
}

// In the lines of the handler, and in the callback of another reactor of the group.
TEST_P(ReactorOnDemandTest, ThatIsAskedForDuringAChangeTakesItNeitherTwiceNorNotAtAll) {
  for (bool const wildcards : {false, true})
    for (int const entry : {0, 1, 2}) {
      SCOPED_TRACE(text(entry) + text(wildcards));
      auto const& g = group_ = data->joinPruneGroupDataIs(addr(G));
      auto const change = [&](bool add) {
        if (!wildcards)
          add ? g->joinedSourceIs(addr(S)) : g->joinedSourceDel(addr(S));
        else
          g->wcSourceDataIs(add ? wildcard("10.5.5.5") : nullptr);
      };
      g->prunedSourceIs(addr(S));
      for (bool const add : {true, false}) {
        EXPECT_FALSE(add && made());
        auto const ask = [&] { EXPECT_TRUE(reactor()); };
        if (entry == 0) {
          log.levels({7, 8});
          log.hook = [&](Vel::TraceLine const&) { ask(); };
        } else if (entry == 1) {
          listen(ask);
        } else {
          listen([&] {
            log.levels({});
            ask();
            g->prunedRptSourceIs(addr(S));
          });
        }
        change(add);
        log.hook = nullptr;
        log.levels({});
        listener->notifierIs(nullptr);
        if (way() == 2) {
          EXPECT_EQ(own->numPeriodicRoutes(), g->routes());
        }
        EXPECT_TRUE(data->joinPruneGroupData(addr(G)));
        if (entry == 2) g->prunedRptSourceDel(addr(S));
      }
      g->prunedSourceDel(addr(S));
      EXPECT_FALSE(data->joinPruneGroupData(addr(G)));
      EXPECT_EQ(count(), 0u);
      expectFollowed(0);
    }
}

TEST_P(ReactorOnDemandTest, IsCalledWhereItWouldHaveBeenCalledFromTheStart) {
  // Registered before the machine took notice of the group, and afterwards.
  for (bool const before : {true, false}) {
    data->joinPruneGroupDataDel(addr(G));
    auto const silent = data->newJoinPruneGroupData(addr(G));
    group_ = silent;
    U32 counted = 0;
    if (!before) data->joinPruneGroupDataNotify(addr(G));
    listen([&] {
      counted = way() == 2 ? own->numPeriodicRoutes()
                           : own->triggeredTimer()->armed() + own->overrideTimer()->armed();
    });
    if (before) data->joinPruneGroupDataNotify(addr(G));
    silent->joinedSourceIs(addr(S));
    EXPECT_EQ(counted, before ? 0u : 1u);
    reactor();
    silent->joinedSourceIs(addr("10.9.0.2"));
    EXPECT_EQ(counted, way() != 2 ? 1u : before ? 1u : 2u);
    listener->notifierIs(nullptr);
    silent->joinedSourceDelAll();
    own->triggeredTimer()->timeMinIs(Vel::never);
    own->overrideTimer()->timeMinIs(Vel::never);
    data->joinPruneGroupDataIs(addr(G));
  }
}

TEST_P(ReactorOnDemandTest, ThatIsRemovedInALineOfItsGroupHasHandledItsLastChange) {
  group_->joinedSourceIs(addr(S));
  log.levels({7});
  bool removed = false;
  log.hook = [&](Vel::TraceLine const&) {
    if (!std::exchange(removed, true)) {
      EXPECT_TRUE(reactorDel());
    }
  };
  group_->joinedSourceDel(addr(S));
  EXPECT_TRUE(removed);
  EXPECT_TRUE(data->joinPruneGroupData(addr(G)));  // it did not come so far as to remove it
  EXPECT_EQ(count(), 0u);
  EXPECT_FALSE(reactor());
}

TEST_P(ReactorOnDemandTest, ThatIsRemovedByHandLeavesItsGroupUnfollowed) {
  auto const watcher = Vel::create<MachineListener>();
  watcher->notifierIs(own);
  auto const removed = reactorDel();
  ASSERT_TRUE(removed);
  EXPECT_FALSE(removed->joinPruneNeighborSm());
  EXPECT_TRUE(removed->isZombie());
  EXPECT_FALSE(reactorDel());
  group_->joinedSourceIs(addr(S));
  expectFollowed(0);
  EXPECT_EQ(wheel->armedCount(), 0u);
  data->joinPruneGroupDataDel(addr(G));
  EXPECT_THAT(watcher->told, ElementsAre(G));
  watcher->notifierIs(nullptr);
}

TEST_P(ReactorOnDemandTest, OfAGroupThatWasAddedSilentlyIsNotThere) {
  auto const watcher = Vel::create<MachineListener>();
  watcher->notifierIs(own);
  auto const silent = data->newJoinPruneGroupData(addr("239.1.1.2"));
  silent->joinedSourceIs(addr(S));
  EXPECT_EQ(count(), 1u);
  EXPECT_FALSE(reactor("239.1.1.2"));
  data->joinPruneGroupDataDel(addr("239.1.1.2"));
  EXPECT_THAT(watcher->told, IsEmpty());
  data->joinPruneGroupDataDel(addr(G));
  EXPECT_THAT(watcher->told, ElementsAre(G));
  watcher->notifierIs(nullptr);
}

TEST_P(ReactorOnDemandTest, OfAGroupThatLeftUnseenIsNotThereAnyMore) {
  own->hasNotificationActiveIs(false);
  data->joinPruneGroupDataDel(addr(G));
  own->hasNotificationActiveIs(true);
  EXPECT_EQ(count(), 0u);
  group_->joinedSourceIs(addr(S));
  EXPECT_EQ(wheel->armedCount(), 0u);
  EXPECT_EQ(own->numPeriodicRoutes(), 0u);
}

TEST_P(ReactorOnDemandTest, HasTheStateOfTheMachineThatWasSwitchedOffOrRevived) {
  own->hasNotificationActiveIs(false);
  group_->joinedSourceIs(addr(S));
  EXPECT_EQ(wheel->armedCount(), 0u);
  EXPECT_FALSE(reactor()->hasNotificationActive());
  group(data, "239.1.1.2");  // unseen
  EXPECT_FALSE(reactor("239.1.1.2"));
  own->hasNotificationActiveIs(true);
  group(data, "239.1.1.3");
  own->hasNotificationActiveIs(false);
  own->velDoZombieReactors(true);
  EXPECT_TRUE(reactor("239.1.1.3")->isZombie());
  own->velDoZombieReactors(false);
  EXPECT_TRUE(reactor()->hasNotificationActive());
  group(data, "239.1.1.4");  // the revived are on, but not the machine
  EXPECT_TRUE(reactor("239.1.1.3")->hasNotificationActive());
  EXPECT_FALSE(reactor("239.1.1.4")->hasNotificationActive());
}

TEST_P(ReactorOnDemandTest, StaysWithWhoHoldsTheMachineAfterItsEnd) {
  group(data, "239.1.1.2");
  machine->joinPruneNeighborSmDel(addr(N));
  EXPECT_TRUE(own->retired());
  EXPECT_EQ(count(), 2u);
  data->joinPruneGroupDataDelAll();
  EXPECT_EQ(count(), 2u);
  ASSERT_TRUE(reactor());
  EXPECT_FALSE(reactor()->joinPruneNeighborSm());
  EXPECT_EQ(reactor()->notifier(), group_);
}

TEST_P(ReactorOnDemandTest, IsWalkedWhileItsGroupIsLeaving) {
  machine->joinPruneNeighborSmDel(addr(N));
  own = nullptr;
  auto const first = Vel::create<DataListener>();  // is called before the next machine, which registers later
  first->notifierIs(data);
  machine->handleNeighbor(addr(N));
  own = sm(N);
  U32 walks = 0;
  first->act = [&](Dova::IpGenAddr) {
    EXPECT_EQ(count(), 1u);
    walks = walked(*own);
  };
  data->joinPruneGroupDataDel(addr(G));
  EXPECT_EQ(walks, 1u);
  EXPECT_EQ(count(), 0u);
}

TEST_P(ReactorOnDemandTest, IsMadeAtNoEndOfAMachineThatNobodyHolds) {
  for (int i = 2; i < 100; ++i) group(data, ("239.1.2." + std::to_string(i)).c_str());
  ASSERT_TRUE(group_->velFollower());
  U32 const references = group_->references();
  own = nullptr;
  machine->joinPruneNeighborSmDelAll();
  EXPECT_EQ(group_->references(), references);
  machine->handleNeighbor(addr(N));
  machine = nullptr;
  EXPECT_EQ(group_->references(), references);
}

TEST_P(ReactorOnDemandTest, OfTheNextMachineFollowsTheSameGroup) {
  own = nullptr;
  machine->joinPruneNeighborSmDel(addr(N));
  group_->joinedSourceIs(addr(S));
  machine->handleNeighbor(addr(N));
  own = sm(N);
  ASSERT_TRUE(own);
  EXPECT_EQ(count(), 1u);
  group_->joinedSourceIs(addr("10.9.0.2"));
  expectFollowed(2);
  EXPECT_TRUE(reactor());
}

TEST_P(ReactorOnDemandTest, OfEachOfTwoMachinesOnOneDataSetIsItsOwn) {
  Vel::Ptr<Packet::JoinPruneData> const sets[] = {way() == 0 ? data : nullptr, way() == 1 ? data : nullptr,
                                                  way() == 2 ? data : nullptr};
  auto const other = joinPruneNeighborSmFactory(nullptr, addr(N), nullptr, own->intf(), sets[0], sets[1],
                                                sets[2], wheel, 2.5, manager, nullptr);
  EXPECT_EQ(countOf(*other), 1u);
  EXPECT_EQ(count(), 1u);
  EXPECT_NE(reactorOf(*other, G), reactor());
  auto const g = group(data, "239.1.1.2");
  g->wcSourceDataIs(wildcard("10.5.5.5"));
  g->joinedSourceIs(addr(S));
  expectFollowed(2);
  EXPECT_EQ(other->numPeriodicRoutes(), own->numPeriodicRoutes());
  g->wcSourceDataDel();
  g->joinedSourceDel(addr(S));
  EXPECT_FALSE(data->joinPruneGroupData(addr("239.1.1.2")));
  EXPECT_EQ(count() + countOf(*other), 2u);
}

TEST_P(ReactorOnDemandTest, OfAGroupOfTheDataBeforeIsRemovedWithIt) {
  group(data, "239.1.1.2");
  auto const another = Vel::create<Packet::JoinPruneData>(addr(N));
  group(another, "239.1.1.2");
  auto const watcher = Vel::create<MachineListener>();
  watcher->notifierIs(own);
  if (way() == 0) own->triggeredGroup()->notifierIs(another);
  if (way() == 1) own->overrideGroup()->notifierIs(another);
  if (way() == 2) own->periodicGroup()->notifierIs(another);
  EXPECT_THAT(watcher->told, ElementsAre("239.1.1.2", G));
  EXPECT_EQ(count(), 1u);
  EXPECT_EQ(reactor("239.1.1.2")->notifier(), another->joinPruneGroupData(addr("239.1.1.2")));
  watcher->notifierIs(nullptr);
}

// A reactor of the data set that was there before the machine adds a group again that is leaving.
TEST_P(ReactorOnDemandTest, FollowsAGroupThatIsAddedAgainWhileItLeaves) { addsAgain(false); }
TEST_P(ReactorOnDemandTest, OfAGroupThatIsAddedAgainWhileItLeavesIsTheSame) { addsAgain(true); }

void ReactorOnDemandTest::addsAgain(bool asks) {
  own = nullptr;  // which would keep the reactors of the machine before
  machine->joinPruneNeighborSmDel(addr(N));
  auto const earlier = Vel::create<DataListener>();
  earlier->notifierIs(data);
  machine->handleNeighbor(addr(N));
  own = sm(N);
  group_->wcSourceDataIs(wildcard("10.5.5.5"));
  expectFollowed(1);
  auto const watcher = Vel::create<MachineListener>();
  watcher->notifierIs(own);
  Vel::Ptr<Packet::JoinPruneGroupData> again;
  earlier->act = [&](Dova::IpGenAddr g) {
    EXPECT_EQ(count(), 1u);
    // The machine has not been told.
    Vel::Ptr<JoinPruneGroupReactor> const before = asks ? reactor() : nullptr;
    if (asks) {
      EXPECT_EQ(before->notifier(), group_);
    }
    again = data->joinPruneGroupDataIs(g);
    if (asks) {
      EXPECT_EQ(reactor(), before);
    }
  };
  data->joinPruneGroupDataDel(addr(G));
  EXPECT_EQ(count(), 1u);
  EXPECT_EQ(reactor()->notifier(), again);
  EXPECT_THAT(watcher->told, ElementsAre(G));
  if (way() == 2) {
    EXPECT_TRUE(own->periodicGroupData(addr(G))->wcSourceSet());  // what it watches has changed, no more
  }
  own->numPeriodicRoutesIs(0);
  watcher->notifierIs(nullptr);
  earlier->notifierIs(nullptr);
}

}  // namespace
}  // namespace Routing::Pim
