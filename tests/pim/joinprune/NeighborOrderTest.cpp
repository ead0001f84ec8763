// In which order a neighbor machine starts, catches up and tells of what it does: its trace lines, its data
// sets and its attributes, in one record.
#include <regex>

#include "tests/pim/joinprune/FailingHeap.h"
#include "tests/pim/joinprune/World.h"

namespace Routing::Pim {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char const* N = "10.0.0.2";
constexpr char const* G = "239.1.1.1";
constexpr char const* H = "239.1.1.2";
constexpr char const* S = "10.9.0.1";

class NeighborOrderTest : public testing::Test, protected World {
 protected:
  class MachineLog final : public JoinPruneNeighborSm::NotifieeConst {
   public:
    explicit MachineLog(Lines& story) : story_(story) {}
    void onTriggeredTimer() override { tell("triggered timer"); }
    void onOverrideTimer() override { tell("override timer"); }
    void onJoinPrunePeriodicTimerSm() override { tell("periodic machine"); }
    void onTriggeredGroupData(Dova::IpGenAddr g) override {
      tell("triggered reactor of " + text(g) + (notifier()->triggeredGroupData(g) ? "" : " gone"));
    }
    void onOverrideGroupData(Dova::IpGenAddr g) override {
      tell("override reactor of " + text(g) + (notifier()->overrideGroupData(g) ? "" : " gone"));
    }
    void onPeriodicGroupData(Dova::IpGenAddr g) override {
      tell("periodic reactor of " + text(g) + (notifier()->periodicGroupData(g) ? "" : " gone"));
    }
    void onNumPeriodicRoutes() override { tell("routes " + text(notifier()->numPeriodicRoutes())); }
    void onInitialized() override { tell("initialized"); }
    std::function<void(std::string const&)> act;

   private:
    void tell(std::string const& line) {
      story_.push_back(line);
      if (act) act(line);
    }
    Lines& story_;
  };
  class DataLog final : public Packet::JoinPruneData::NotifieeConst {
   public:
    DataLog(std::string name, Lines& story) : name_(std::move(name)), story_(story) {}
    void onPeriodic() override {
      if (act) act();
    }
    void onJoinPruneGroupData(Dova::IpGenAddr g) override {
      story_.push_back(name_ + " group " + text(g) + (notifier()->joinPruneGroupData(g) ? "" : " gone"));
    }
    std::function<void()> act;

   private:
    std::string const name_;
    Lines& story_;
  };

  ~NeighborOrderTest() override { trace.hook = {}; }

  /// With one neighbor. Nothing is traced.
  void startWithNeighbor() {
    trace.levels({});
    neighbor(N, eth0);
    start();
    own = sm(N);
  }
  void record() {
    trace.levels({1, 2, 7});
    trace.hook = [this](Vel::TraceLine const& line) {
      story.push_back(std::regex_replace(
          line.text, std::regex("(JoinPruneNeighborSm\\(eth0::10.0.0.2\\)::)?@0x[0-9a-f]+:*"), ""));
    };
  }
  void watch() {
    watcher->isNondestructingIs(true);
    watcher->notifierIs(own);
  }
  Vel::Ptr<Packet::JoinPruneData> dataOf(int channel) {
    return channel == 0 ? triggered(N) : channel == 1 ? override_(N) : periodic(N);
  }
  bool follows(int channel, char const* g) {
    return channel == 0   ? own->triggeredGroupData(addr(g)) != nullptr
           : channel == 1 ? own->overrideGroupData(addr(g)) != nullptr
                          : own->periodicGroupData(addr(g)) != nullptr;
  }
  /// Adds a group of which the machine could not take notice for want of memory.
  Vel::Ptr<Packet::JoinPruneGroupData> addUnfollowed(int channel, char const* g) {
    for (std::size_t n = 1; n < 100; ++n) {
      {
        FailingHeap::Failure const failure(n);
        try {
          dataOf(channel)->joinPruneGroupDataIs(addr(g));
        } catch (std::bad_alloc const&) {
        }
      }
      auto const added = dataOf(channel)->joinPruneGroupData(addr(g));
      if (added && !follows(channel, g)) return added;
      dataOf(channel)->joinPruneGroupDataDel(addr(g));
    }
    throw std::logic_error("no request was that of the reactor");
  }

  TraceLog trace;
  Lines story;
  Vel::Ptr<Intf> eth0 = intf("eth0", "10.0.0.1/24");
  Vel::Ptr<JoinPruneNeighborSm> own;
  Vel::Ptr<MachineLog> watcher = Vel::create<MachineLog>(story);
};

TEST_F(NeighborOrderTest, AMachineStartsWithItsTimersInTheOrderOfTheChannelsAndCountsThen) {
  trace.levels({});
  start();
  auto const add = [](Vel::Ptr<Packet::JoinPruneData> const& data) {
    group(data, G)->joinedSourceIs(addr(S));
  };
  add(status->triggeredGroupIs(addr(N)));
  add(status->overrideGroupIs(addr(N)));
  add(periodicStatus()->upJoinPruneIs(addr(N)));
  auto const refresh = Vel::create<DataLog>("periodic", story);
  refresh->act = [&] {
    own = sm(N);
    watch();
  };
  refresh->notifierIs(periodic(N));
  record();
  neighbor(N, eth0);
  EXPECT_THAT(
      story, ElementsAre("JoinPruneMessageSm::handleNeighbor(10.0.0.2), Neighbor up", "triggered timer",
                         "override timer", "doUpdateTriggeredTimer(): Arming timer, setting holdtime to 210",
                         "doUpdateOverrideTimer(): Arming timer, setting holdtime to 210", "periodic machine",
                         "routes 1", "handleInitialized(), total number of periodic joins and prunes is 1",
                         "initialized"));
}

TEST_F(NeighborOrderTest, CatchingUpRemovesThenFollowsChannelByChannelAndCountsBeforeItArms) {
  startWithNeighbor();
  for (int const channel : {0, 1, 2}) {
    auto const emptied = addUnfollowed(channel, G);
    emptied->joinedSourceIs(addr(S));
    emptied->joinedSourceDel(addr(S));
    addUnfollowed(channel, H)->joinedSourceIs(addr(S));
  }
  std::vector<Vel::Ptr<DataLog>> logs;
  for (auto const& [channel, name] :
       {std::pair(0, "triggered"), std::pair(1, "override"), std::pair(2, "periodic")}) {
    logs.push_back(Vel::create<DataLog>(name, story));
    logs.back()->notifierIs(dataOf(channel));
  }
  watch();
  record();
  manager->perMessage = 0;
  own->handleTriggeredTimerExpiry();
  EXPECT_THAT(story,
              ElementsAre("handleTriggeredTimerExpiry()", "handleTriggeredGroup(10.0.0.2)",
                          "handleTriggeredGroup(10.0.0.2): Deleted", "triggered group 239.1.1.1 gone",
                          "handleOverrideGroup(10.0.0.2)", "handleOverrideGroup(10.0.0.2): Deleted",
                          "override group 239.1.1.1 gone", "handlePeriodicGroup(10.0.0.2)",
                          "handlePeriodicGroup(10.0.0.2): Deleted", "periodic group 239.1.1.1 gone",
                          "triggered reactor of 239.1.1.2", "override reactor of 239.1.1.2",
                          "periodic reactor of 239.1.1.2", "routes 1",
                          "doUpdateOverrideTimer(): Arming timer, setting holdtime to 210",
                          "handleTriggeredTimerExpiry(): Suspending TX after 0 sources, 0 filtered sources",
                          "doUpdateTriggeredTimer(): Timer running"));
  EXPECT_TRUE(own->overrideTimer()->armed());
}

TEST_F(NeighborOrderTest, AMachineThatFallsBehindArmsItsTriggeredTimerAlone) {
  startWithNeighbor();
  for (int const channel : {0, 1, 2}) {
    SCOPED_TRACE(channel);
    addUnfollowed(channel, G);
    EXPECT_EQ(own->triggeredTimer()->timeMin(), time + 0.1);
    EXPECT_FALSE(own->overrideTimer()->armed());
    runUntil(time + 1);
    EXPECT_TRUE(follows(channel, G));
    dataOf(channel)->joinPruneGroupDataDel(addr(G));
    runUntil(time + 10);
  }
}

TEST_F(NeighborOrderTest, AMachineThatIsBehindCatchesUpWhenItsPeriodicDataRunsEmptyAndNotBefore) {
  startWithNeighbor();
  group(periodic(N), G);
  group(periodic(N), H);
  addUnfollowed(0, G);
  periodic(N)->joinPruneGroupDataDel(addr(H));
  EXPECT_FALSE(follows(0, G));
  periodic(N)->joinPruneGroupDataDel(addr(G));
  EXPECT_TRUE(follows(0, G));
}

TEST_F(NeighborOrderTest, APeriodicGroupThatIsAddedWhileAMachineCatchesUpIsCountedAndKeepsIt) {
  startWithNeighbor();
  group(periodic(N), G)->joinedSourceIs(addr(S));
  addUnfollowed(0, G);
  pim->pimNeighborDel(addr(N));
  ASSERT_TRUE(sm(N));
  watch();
  watcher->act = [&](std::string const& line) {
    if (line == "triggered reactor of 239.1.1.1") group(periodic(N), H)->joinedSourceIs(addr(S));
  };
  periodic(N)->joinPruneGroupData(addr(G))->joinedSourceDel(addr(S));
  EXPECT_TRUE(sm(N) == own);
  EXPECT_EQ(own->numPeriodicRoutes(), 1u);
  periodic(N)->joinPruneGroupData(addr(H))->joinedSourceDel(addr(S));
  EXPECT_FALSE(sm(N));
}

TEST_F(NeighborOrderTest, AMachineThatIsRetiredWhileItCatchesUpForItsLastGroupIsNotAskedAboutAnyMore) {
  startWithNeighbor();
  group(periodic(N), G);
  addUnfollowed(0, G);
  watch();
  watcher->act = [&](std::string const&) { machine->joinPruneNeighborSmDel(addr(N)); };
  record();
  trace.levels({1, 2, 7, 8});
  periodic(N)->joinPruneGroupDataDel(addr(G));
  EXPECT_TRUE(own->retired());
  EXPECT_THAT(story, Not(Contains(HasSubstr("doMaybeDeleteNeighbor"))));
}

TEST_F(NeighborOrderTest, AnOwnerThatCouldNotBeAskedWhenTheDataRanEmptyIsAskedAfterCatchingUp) {
  startWithNeighbor();
  auto const last = group(periodic(N), G);
  last->joinedSourceIs(addr(S));
  addUnfollowed(0, G);
  pim->pimNeighborDel(addr(N));
  {
    FailingHeap::Failure const failure(1, ~std::size_t{0} / 2);
    last->joinedSourceDel(addr(S));
  }
  EXPECT_EQ(periodic(N)->joinPruneGroupDataCount(), 0u);
  EXPECT_TRUE(sm(N));
  runUntil(time + 1);
  EXPECT_FALSE(sm(N));
  EXPECT_EQ(sets(N), "-");
}

TEST_F(NeighborOrderTest, OfTwoTimersOnlyTheOneThatMissedItsTimeIsDueAtOnce) {
  startWithNeighbor();
  for (bool const reviving : {false, true})
    for (int const channel : {0, 1}) {
      SCOPED_TRACE(channel);
      group(dataOf(channel), G)->joinedSourceIs(addr(S));
      auto const off = [&](bool value) {
        reviving ? own->velDoZombieReactors(value) : own->hasNotificationActiveIs(!value);
      };
      off(true);
      runUntil(time + 10);
      off(false);
      EXPECT_EQ(own->triggeredTimer()->timeMin(), channel == 0 ? time : Vel::never);
      EXPECT_EQ(own->overrideTimer()->timeMin(), channel == 1 ? time : Vel::never);
      runUntil(time + 10);
      EXPECT_EQ(wheel->armedCount(), 0u);
    }
}

TEST_F(NeighborOrderTest, AWildcardThatComesAndLeavesIsToldOfAndItsGroupIsRemoved) {
  startWithNeighbor();
  watch();
  record();
  auto const g = group(periodic(N), G);
  story.clear();
  g->wcSourceDataIs(wildcard("10.5.0.1"));
  EXPECT_THAT(story,
              ElementsAre("routes 1", "Periodic(239.1.1.1)::handleWcSource(10.5.0.1), added, sources: 1"));
  story.clear();
  g->wcSourceDataDel();
  EXPECT_THAT(story, ElementsAre("Periodic(239.1.1.1)::handleWcSource(*,G), Deleted", "routes 0",
                                 "Periodic(239.1.1.1)::handleWcSource(): Deleted group 239.1.1.1",
                                 "periodic reactor of 239.1.1.1 gone", "handlePeriodicGroup(10.0.0.2)",
                                 "handlePeriodicGroup(10.0.0.2): Deleted"));
}

TEST_F(NeighborOrderTest, ATimerThatItsMachineHasLetGoDoesNothing) {
  startWithNeighbor();
  for (int const channel : {0, 1}) group(dataOf(channel), G)->joinedSourceIs(addr(S));
  auto const one = own->triggeredTimer();
  auto const other = own->overrideTimer();
  machine->joinPruneNeighborSmDel(addr(N));
  record();
  one->onTime();
  other->onTime();
  EXPECT_THAT(story, IsEmpty());
  EXPECT_EQ(manager->messages, 0u);
}

TEST_F(NeighborOrderTest, NoReactorIsMadeOfNoGroup) {
  startWithNeighbor();
  auto const said = [](auto const& make) -> std::string {
    try {
      make();
    } catch (Vel::InvalidArgumentException const& error) {
      return error.what();
    }
    return "made";
  };
  std::string const before = "null _",
                    between = " parameter to mutator for Routing::Pim::JoinPruneNeighborSm::";
  EXPECT_EQ(said([&] { own->newTriggeredGroupData(nullptr); }),
            before + "triggeredGroupData" + between + "triggeredGroupData not allowed\"");
  EXPECT_EQ(said([&] { own->newOverrideGroupData(nullptr); }),
            before + "overrideGroupData" + between + "overrideGroupData not allowed\"");
  EXPECT_EQ(said([&] { own->newPeriodicGroupData(nullptr); }),
            before + "periodicGroupData" + between + "periodicGroupData not allowed\"");
}

}  // namespace
}  // namespace Routing::Pim
