// SPDX-License-Identifier: Apache-2.0
// What docs/guide.md shows: each piece between two marks like `// [inputs]` is there as it is here, and the
// tests around it check what is said about it. docs/snippets.py --write takes changes over into the guide.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pim/joinprune/JoinPruneMessageSm.h"
#include "runtime/vel/Trace.h"

using namespace Routing::Pim;
using Dova::IntfId;
using Dova::IpGenAddr;
using Dova::IpGenPrefix;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// [filter]
// Denies the (*,G) and (S,G,rpt) entries of administratively scoped groups.
class NoScopedGroups final : public JoinPruneFilter {
  bool deny(IpGenAddr const& group) const override { return scoped.contains(group); }
  IpGenPrefix const scoped{IpGenAddr("239.255.0.0"), 16};
};
// [filter]

// [rp]
// One RP for all groups. With several RPs, this computes the hash of RFC 7761, 4.7.2.
class OneRp final : public RpHashComputeStatus {
  IpGenAddr rpHashCompute(IpGenAddr const&, IpGenAddr const&) override { return IpGenAddr("10.0.0.9"); }
};
// [rp]

// [received]
// How a router reads received joins; prunes are the same on the other record.
class Joins final : public JoinPruneMessageInfo::NotifieeConst {
 public:
  std::vector<std::string> all;

 private:
  void onRxCount() override {  // the last of an entry's fields: the others are in place
    auto const& entry = *notifier();
    char const* kind = entry.sourceFlags() == Packet::sgFlags         ? "(S,G)"
                       : entry.sourceFlags() == Packet::wildcardFlags ? "(*,G)"
                                                                      : "(S,G,rpt)";
    std::ostringstream text;
    text << kind << ' ' << entry.riKey() << " at " << entry.upstreamNeighbor() << " for " << entry.holdTime()
         << " s";
    all.push_back(text.str());
  }
};
// [received]

// Takes everything out of data that is sent once, and says what it took.
class Drain final : public IO::MessageInfo::Notifiee {
 public:
  std::vector<std::string> sent;
  U32 messages = 0;
  bool honest = true;

 private:
  void onCount() override {
    ++messages;
    auto const message = notifier()->joinPruneMessage();
    auto const data = message->joinPruneData();
    Packet::JoinPruneMessage::Report report;
    for (auto group = data->joinPruneGroupDataIterator(); group; ++group) {
      auto const held = group.ptr();
      note(held->joinedSourceIterator(), "join", *held, *data, report);
      note(held->prunedSourceIterator(), "prune", *held, *data, report);
      if (held->wcSourceData()) {
        ++report.sources;
        sent.push_back("(*,G) " + std::string(held->wcSourceData()->join() ? "join" : "prune") + " to " +
                       Dova::toText(data->upstreamNeighbor()));
        if (!data->periodic() && honest) held->wcSourceDataDel();
      }
    }
    message->reportIs(report);
  }

  template <class Sources>
  void note(Sources source, char const* kind, Packet::JoinPruneGroupData& group,
            Packet::JoinPruneData const& data, Packet::JoinPruneMessage::Report& report) {
    for (; source; ++source) {
      ++report.sources;
      if (honest)
        sent.push_back(std::string(kind) + " " + Dova::toText(*source) + " to " +
                       Dova::toText(data.upstreamNeighbor()));
      if (data.periodic() || !honest) continue;
      if (kind == std::string("join"))
        group.joinedSourceDel(*source);
      else
        group.prunedSourceDel(*source);
    }
  }
};

class Guide : public testing::Test {
 protected:
  Guide() {
    // [inputs]
    // The inputs, which the agent creates and holds, and the machine watches.
    pim = Vel::create<Status>();                                            // interfaces and neighbors
    status = joinPruneStatusFactory();                                      // what is to be sent
    status->periodicGroupStatusIs(Vel::create<Packet::JoinPruneStatus>());  // and what is to be refreshed
    filter = Vel::create<NoScopedGroups>();                                 // policy on what is received
    rp = Vel::create<OneRp>();                                              // which RP serves a group
    channel = Vel::create<IO::MessageInfo>();                               // takes received messages
    manager = Vel::create<IO::PamManager>();                                // has the messages to send
    // The outputs: the latest received join, the latest received prune.
    rxJoin = joinPruneMessageInfoFactory();
    rxPrune = joinPruneMessageInfoFactory();
    // [inputs]

    drain->notifierIs(manager->txMessageInfoIs());
    start();

    // [interface-up]
    // Configured first and then put in, or there would be a machine for it without an address in between.
    auto const up = Vel::create<Intf>(IntfId("eth0"));
    up->usedAddressWithMaskIs(IpGenPrefix(IpGenAddr("10.0.0.1"), 24));
    up->joinPruneIntervalIs(60);               // t_periodic, seconds
    up->joinPruneHoldTimeIs(210);              // J/P_HoldTime, seconds: 3.5 times t_periodic
    up->usedOverrideIntervalInSecondsIs(2.5);  // the upper bound of t_override
    pim->pimIntfIs(up);
    // [interface-up]
    eth0 = up;

    // [neighbor-up]
    // A Hello of a new neighbor. The interface first, since a neighbor is on it for its life.
    pim->pimNeighborIs(IpGenAddr("10.0.0.2"), eth0);
    // [neighbor-up]
  }
  ~Guide() override { machine = nullptr; }

  void start() {
    // [machine]
    machine = joinPruneMessageSmFactory(status, filter, pim, rp, rxJoin, rxPrune, channel, manager, wheel);
    // [machine]
  }

  void wait(Vel::Seconds seconds) {
    for (now += seconds; wheel->timeMin() <= now;) wheel->expire();
  }
  std::vector<std::string> sent() { return std::exchange(drain->sent, {}); }

  Vel::Seconds now = 0;
  Vel::Ptr<Zanth::TimerWheel> wheel = Vel::create<Zanth::TimerWheel>([this] { return now; });
  Vel::Ptr<Status> pim;
  Vel::Ptr<JoinPruneStatus> status;
  Vel::Ptr<JoinPruneFilter> filter;
  Vel::Ptr<RpHashComputeStatus> rp;
  Vel::Ptr<IO::MessageInfo> channel;
  Vel::Ptr<IO::PamManager> manager;
  Vel::Ptr<JoinPruneMessageInfo> rxJoin, rxPrune;
  Vel::Ptr<Drain> drain = Vel::create<Drain>();
  Vel::Ptr<JoinPruneMessageSm> machine;
  Vel::Ptr<Intf> eth0;
  IpGenAddr const upstream{"10.0.0.2"}, group{"239.1.1.1"}, source{"10.9.0.1"};
};

TEST_F(Guide, MachinesComeForAnInterfaceAddressAndForANeighbor) {
  EXPECT_EQ(machine->joinPruneNeighborSmCount(), 2u);
  EXPECT_FALSE(machine->joinPruneNeighborSm(IpGenAddr("10.0.0.1"))->neighbor());
  EXPECT_TRUE(machine->joinPruneNeighborSm(upstream)->neighbor());
}

TEST_F(Guide, ARouteJoinsIsRefreshedAndLeaves) {
  // [join]
  // The route (10.9.0.1,239.1.1.1) wants its source from 10.0.0.2: now, and from now on.
  auto const once = status->triggeredGroup(upstream);
  auto const standing = status->periodicGroupStatus()->upJoinPrune(upstream);
  once->joinPruneGroupDataIs(group)->joinedSourceIs(source);
  standing->joinPruneGroupDataIs(group)->joinedSourceIs(source);
  // [join]
  EXPECT_THAT(sent(), IsEmpty());
  wait(0.1);
  EXPECT_THAT(sent(), ElementsAre("join 10.9.0.1 to 10.0.0.2"));
  EXPECT_EQ(once->joinPruneGroupDataCount(), 0u);
  EXPECT_EQ(once->holdTime(), 210);
  wait(60);
  EXPECT_THAT(sent(), ElementsAre("join 10.9.0.1 to 10.0.0.2"));

  // [leave]
  // The source is no longer wanted: one prune, and no more refreshes. A join that is pending is removed.
  if (auto const joins = once->joinPruneGroupData(group)) joins->joinedSourceDel(source);
  once->joinPruneGroupDataIs(group)->prunedSourceIs(source);
  if (auto const joins = standing->joinPruneGroupData(group)) joins->joinedSourceDel(source);
  // [leave]
  EXPECT_FALSE(standing->joinPruneGroupData(group)) << "the library removes the empty group";
  wait(0.1);
  EXPECT_THAT(sent(), ElementsAre("prune 10.9.0.1 to 10.0.0.2"));
  wait(120);
  EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(Guide, AnAddressWithoutAMachineHasNoDataSets) {
  EXPECT_FALSE(status->triggeredGroup(IpGenAddr("10.0.0.99")));
  EXPECT_THROW(status->triggeredGroup(IpGenAddr("10.0.0.99"))->joinPruneGroupDataIs(group),
               Vel::RangeException);
}

TEST_F(Guide, AnOverrideGoesOutWithinItsInterval) {
  // [override]
  // Another router on the LAN has pruned what this one still wants (RFC 7761, 4.5.4).
  status->overrideGroup(upstream)->joinPruneGroupDataIs(group)->joinedSourceIs(source);
  // [override]
  wait(0.2);
  EXPECT_THAT(sent(), IsEmpty());
  wait(2.3);
  EXPECT_THAT(sent(), ElementsAre("join 10.9.0.1 to 10.0.0.2"));
}

TEST_F(Guide, AWildcardEntryNamesTheRp) {
  // [wildcard]
  // (*,G): the entry holds the RP. It does not change; for another one, set another one.
  auto const entry = Vel::create<Packet::WcSourceData>(IpGenAddr("10.0.0.9"), true);
  status->triggeredGroup(upstream)->joinPruneGroupDataIs(group)->wcSourceDataIs(entry);
  // [wildcard]
  wait(0.1);
  EXPECT_THAT(sent(), ElementsAre("(*,G) join to 10.0.0.2"));
}

TEST_F(Guide, AReceivedMessageComesOutEntryByEntry) {
  auto const joins = Vel::create<Joins>();
  joins->notifierIs(rxJoin);

  // [receive]
  // The decoded form of a packet that was received on eth0.
  auto const message = Vel::create<Packet::JoinPruneMessage>();
  auto const data = Vel::create<Packet::JoinPruneData>(IpGenAddr("10.0.0.1"));  // to whom it is addressed
  data->holdTimeIs(210);
  data->joinPruneGroupDataIs(group)->joinedSourceIs(source);
  message->joinPruneDataIs(data);

  channel->joinPruneMessageIs(message);
  channel->intfIdIs(IntfId("eth0"));
  channel->countInc(1);  // the message is processed when this returns
  // [receive]
  EXPECT_THAT(joins->all, ElementsAre("(S,G) (10.9.0.1,239.1.1.1) at 10.0.0.1 for 210 s"));

  data->joinPruneGroupData(group)->wcSourceDataIs(
      Vel::create<Packet::WcSourceData>(IpGenAddr("10.0.0.8"), true));
  channel->countInc(1);
  EXPECT_EQ(joins->all.size(), 2u) << "another RP than ours: the (*,G) join is left out";
  data->joinPruneGroupDataIs(IpGenAddr("239.255.0.1"))
      ->wcSourceDataIs(Vel::create<Packet::WcSourceData>(IpGenAddr("10.0.0.9"), true));
  channel->countInc(1);
  EXPECT_EQ(joins->all.size(), 3u) << "denied by the filter";
}

TEST_F(Guide, AnAddressThatChangesTakesItsMachineAlong) {
  // [address]
  eth0->usedAddressWithMaskIs(IpGenPrefix(IpGenAddr("10.0.0.7"), 24));
  // [address]
  EXPECT_FALSE(machine->joinPruneNeighborSm(IpGenAddr("10.0.0.1")));
  EXPECT_TRUE(machine->joinPruneNeighborSm(IpGenAddr("10.0.0.7")));
}

TEST_F(Guide, ANeighborThatGoesKeepsItsMachineWhileThereIsPeriodicData) {
  auto const standing = status->periodicGroupStatus()->upJoinPrune(upstream);
  standing->joinPruneGroupDataIs(group)->joinedSourceIs(source);
  // [neighbor-down]
  // The neighbor has expired. Its routes move to another upstream neighbor: remove them from its periodic
  // data, source by source (all of them joins here). The machine is removed with the last one, and its data
  // sets with it.
  pim->pimNeighborDel(upstream);
  for (auto g = standing->joinPruneGroupDataIterator(); g; ++g) g->joinedSourceDelAll();
  // [neighbor-down]
  EXPECT_FALSE(machine->joinPruneNeighborSm(upstream));
  EXPECT_FALSE(status->triggeredGroup(upstream));
}

TEST_F(Guide, ANeighborThatMovesIsAnotherOne) {
  auto const eth1 = pim->pimIntfIs(IntfId("eth1"));
  EXPECT_THROW(pim->pimNeighborIs(upstream, eth1), Vel::RangeException);
  // [neighbor-moves]
  pim->pimNeighborDel(upstream);
  pim->pimNeighborIs(upstream, eth1);
  // [neighbor-moves]
  EXPECT_EQ(machine->joinPruneNeighborSm(upstream)->intf(), eth1.get());
}

TEST_F(Guide, AnInterfaceThatGoesTakesItsOwnMachineAtOnce) {
  // [interface-down]
  // First the neighbors on the interface.
  for (auto neighbor = pim->pimNeighborIterator(); neighbor; ++neighbor)
    if (neighbor->intf() == eth0.get()) pim->pimNeighborDel(neighbor);
  pim->pimIntfDel(IntfId("eth0"));
  // [interface-down]
  EXPECT_EQ(machine->joinPruneNeighborSmCount(), 0u);
}

TEST_F(Guide, ANeighborWhoseAddressAnInterfaceTookHasNoMachineAfterwardsUntilItIsTold) {
  auto const eth1 = Vel::create<Intf>(IntfId("eth1"));
  eth1->usedAddressWithMaskIs(IpGenPrefix(upstream, 24));
  pim->pimIntfIs(eth1);
  EXPECT_FALSE(machine->joinPruneNeighborSm(upstream)->neighbor());
  // [taken-over]
  // eth1 had the address of a neighbor by mistake and was removed. The neighbor has no machine: notify again.
  pim->pimIntfDel(IntfId("eth1"));
  if (!machine->joinPruneNeighborSm(upstream)) pim->pimNeighborNotify(upstream);
  // [taken-over]
  EXPECT_TRUE(machine->joinPruneNeighborSm(upstream)->neighbor());
}

TEST_F(Guide, ASuccessorTakesOverWhatIsToBeSent) {
  status->periodicGroupStatus()->upJoinPrune(upstream)->joinPruneGroupDataIs(group)->joinedSourceIs(source);
  // [successor]
  machine = nullptr;  // before the successor is created
  machine = joinPruneMessageSmFactory(status, filter, pim, rp, rxJoin, rxPrune, channel, manager, wheel);
  // [successor]
  EXPECT_EQ(machine->joinPruneNeighborSm(upstream)->numPeriodicRoutes(), 1u);
  wait(60);
  EXPECT_THAT(sent(), ElementsAre("join 10.9.0.1 to 10.0.0.2"));
}

TEST_F(Guide, AFilledGroupThatIsAddedIsNotCounted) {
  auto const standing = status->periodicGroupStatus()->upJoinPrune(upstream);
  standing->newJoinPruneGroupData(group)->joinedSourceIs(source);
  standing->joinPruneGroupDataNotify(group);
  EXPECT_EQ(machine->joinPruneNeighborSm(upstream)->numPeriodicRoutes(), 0u);
  wait(120);
  EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(Guide, AFilledGroupThatIsRemovedEndsTheProcess) {
  auto const standing = status->periodicGroupStatus()->upJoinPrune(upstream);
  standing->joinPruneGroupDataIs(group)->joinedSourceIs(source);
  EXPECT_DEATH(standing->joinPruneGroupDataDel(group), "Assertion `false' failed");
}

TEST_F(Guide, AWrongCountIsFoundWhereItHappensIfOneLooks) {
  // [hunt]
  machine->attributeIs("diagUpJoinCount", "true");
  // [hunt]
  auto const standing = status->periodicGroupStatus()->upJoinPrune(upstream);
  standing->newJoinPruneGroupData(group)->joinedSourceIs(source);
  standing->joinPruneGroupDataNotify(group);
  EXPECT_DEATH(standing->joinPruneGroupData(group)->joinedSourceIs(IpGenAddr("10.9.0.2")),
               "Assertion `false' failed");
}

// Takes every source out again as soon as it is added.
class Undo final : public Packet::JoinPruneGroupData::Notifiee {
  void onJoinedSource(IpGenAddr source) override { notifier()->joinedSourceDel(source); }
};

TEST_F(Guide, AChangeThatIsUndoneBeforeTheLibraryHasSeenItEndsTheProcess) {
  auto const standing = status->periodicGroupStatus()->upJoinPrune(upstream);
  auto const undo = Vel::create<Undo>();
  undo->notifierIs(standing->newJoinPruneGroupData(group));  // before the library's reactor
  standing->joinPruneGroupDataNotify(group);
  EXPECT_DEATH(standing->joinPruneGroupData(group)->joinedSourceIs(source), "Assertion `false' failed");
}

TEST_F(Guide, AnIntervalOfZeroEndsTheProcess) {
  eth0->joinPruneIntervalIs(0);
  auto const standing = status->periodicGroupStatus()->upJoinPrune(upstream);
  EXPECT_DEATH(standing->joinPruneGroupDataIs(group)->joinedSourceIs(source),
               "Assertion `interval > 0' failed");
}

TEST_F(Guide, AMachineWithoutAnInterfaceEndsTheProcessAtItsFirstPeriodicRoute) {
  auto const data = [this] { return Vel::create<Packet::JoinPruneData>(upstream); };
  auto const standing = data();
  auto const bare = joinPruneNeighborSmFactory(nullptr, upstream, nullptr, nullptr, data(), data(), standing,
                                               wheel, 2.5, manager, nullptr);
  auto const added = standing->joinPruneGroupDataIs(group);
  EXPECT_DEATH(added->joinedSourceIs(source), "Assertion `false' failed");
}

TEST_F(Guide, AMachineThatIsSwitchedOffWhileItsDataChangesEndsTheProcessWithTheLastGroup) {
  auto const standing = status->periodicGroupStatus()->upJoinPrune(upstream);
  auto const sm = machine->joinPruneNeighborSm(upstream);
  auto const added = standing->joinPruneGroupDataIs(group);
  added->joinedSourceIs(source);
  using Switch = void (*)(JoinPruneNeighborSm&, bool on);
  for (Switch const turn : {Switch([](JoinPruneNeighborSm&n, bool on) { n.hasNotificationActiveIs(on); }),
                            Switch([](JoinPruneNeighborSm&n, bool on) { n.velDoZombieReactors(!on); })}) {
    EXPECT_DEATH(
        {
          turn(*sm, false);
          added->joinedSourceDel(source);
          turn(*sm, true);
          standing->joinPruneGroupDataDel(group);
        },
        "Assertion `false' failed");
  }
}

TEST_F(Guide, AMachineThatIsSwitchedOnAgainRefreshesWhatBecameDueMeanwhile) {
  status->periodicGroupStatus()->upJoinPrune(upstream)->joinPruneGroupDataIs(group)->joinedSourceIs(source);
  auto const sm = machine->joinPruneNeighborSm(upstream);
  sm->hasNotificationActiveIs(false);
  wait(100);
  EXPECT_THAT(sent(), IsEmpty());
  sm->hasNotificationActiveIs(true);
  wait(0);
  EXPECT_THAT(sent(), ElementsAre("join 10.9.0.1 to 10.0.0.2"));
  wait(60);
  EXPECT_THAT(sent(), ElementsAre("join 10.9.0.1 to 10.0.0.2"));
}

TEST_F(Guide, AGroupThatWasAddedEmptyAndStaysEmptyKeepsTheTimerGoing) {
  auto const triggered = status->triggeredGroup(upstream);
  auto const timer = machine->joinPruneNeighborSm(upstream)->triggeredTimer();
  triggered->joinPruneGroupDataIs(IpGenAddr("239.1.1.9"));
  EXPECT_FALSE(timer->armed());
  triggered->joinPruneGroupDataIs(group)->joinedSourceIs(source);
  wait(0.1);
  EXPECT_THAT(sent(), ElementsAre("join 10.9.0.1 to 10.0.0.2"));
  for (int i = 0; i < 10; ++i) {
    EXPECT_TRUE(timer->armed());
    U32 const before = drain->messages;
    wait(timer->timeMin() - now);
    EXPECT_EQ(drain->messages, before + 1);
  }
  EXPECT_THAT(sent(), IsEmpty());
  triggered->joinPruneGroupDataDel(IpGenAddr("239.1.1.9"));
  wait(0.2);
  EXPECT_FALSE(timer->armed());
}

TEST_F(Guide, TwoMachinesOnOneStatusRefreshTwice) {
  status->periodicGroupStatus()->upJoinPrune(upstream)->joinPruneGroupDataIs(group)->joinedSourceIs(source);
  auto const predecessor = machine;
  start();
  wait(60);
  EXPECT_EQ(sent().size(), 2u);
}

TEST_F(Guide, WithoutATransmitRecordNothingIsSentUntilThereIsOne) {
  manager->txMessageInfoDel();
  status->triggeredGroup(upstream)->joinPruneGroupDataIs(group)->joinedSourceIs(source);
  wait(0.5);
  EXPECT_THAT(sent(), IsEmpty());
  drain->notifierIs(manager->txMessageInfoIs());
  wait(0.1);
  EXPECT_THAT(sent(), ElementsAre("join 10.9.0.1 to 10.0.0.2"));
}

TEST_F(Guide, AManagerThatClaimsProgressItDoesNotMakeSendsForAWholeQuantumAgainAndAgain) {
  now = 0;
  wheel = Vel::create<Zanth::TimerWheel>([this] { return now += 0.001; });  // time passes
  machine = nullptr;
  start();
  drain->honest = false;
  status->triggeredGroup(upstream)->joinPruneGroupDataIs(group)->joinedSourceIs(source);
  now = 0.2;
  wheel->expire();
  EXPECT_GT(drain->messages, 50u);
  EXPECT_EQ(status->triggeredGroup(upstream)->joinPruneGroupDataCount(), 1u);
}

// [stop]
// Stops the engine from inside one of its own notifications.
class Stop final : public JoinPruneMessageInfo::NotifieeConst {
 public:
  explicit Stop(Vel::Ptr<JoinPruneMessageSm>& machine) : machine_(machine) {}

 private:
  void onRxCount() override { machine_ = nullptr; }
  Vel::Ptr<JoinPruneMessageSm>& machine_;
};
// [stop]

TEST_F(Guide, ACallbackMayDropTheMachineThatCalledIt) {
  auto const stop = Vel::create<Stop>(machine);
  stop->notifierIs(rxJoin);
  auto const message = Vel::create<Packet::JoinPruneMessage>();
  message->joinPruneDataIs(Vel::create<Packet::JoinPruneData>(IpGenAddr("10.0.0.1")));
  message->joinPruneData()->joinPruneGroupDataIs(group)->joinedSourceIs(source);
  message->joinPruneData()->joinPruneGroupDataIs(group)->joinedSourceIs(IpGenAddr("10.9.0.2"));
  channel->joinPruneMessageIs(message);
  channel->countInc(1);
  EXPECT_FALSE(machine);
  EXPECT_EQ(rxJoin->rxCount(), 1u);
}

// [tuning]
// Sets every new neighbor machine: half the delay of a triggered message, a tenth of the time in a turn.
class Tuner final : public JoinPruneMessageSm::Notifiee {
  void onJoinPruneNeighborSm(IpGenAddr address) override {
    auto const neighborSm = notifier()->joinPruneNeighborSm(address);
    if (!neighborSm) return;  // it was removed
    neighborSm->triggeredIntervalIs(0.05);
    neighborSm->loopQuantumIs(0.01);
  }
};
// [tuning]

TEST_F(Guide, EveryMachineIsTunedAsItComes) {
  auto const tuner = Vel::create<Tuner>();
  tuner->notifierIs(machine);
  IpGenAddr const other("10.0.0.3");
  pim->pimNeighborIs(other, eth0);
  EXPECT_EQ(machine->joinPruneNeighborSm(other)->triggeredInterval(), 0.05);
  status->triggeredGroup(other)->joinPruneGroupDataIs(group)->joinedSourceIs(source);
  wait(0.05);
  EXPECT_THAT(sent(), ElementsAre("join 10.9.0.1 to 10.0.0.3"));
  tuner->notifierIs(nullptr);
}

TEST_F(Guide, AnotherIntervalCountsFromTheNextRefreshOn) {
  status->periodicGroupStatus()->upJoinPrune(upstream)->joinPruneGroupDataIs(group)->joinedSourceIs(source);
  // [interval]
  eth0->joinPruneIntervalIs(30);
  eth0->joinPruneHoldTimeIs(105);
  // [interval]
  wait(59);
  EXPECT_THAT(sent(), IsEmpty()) << "the timer that runs is left alone";
  wait(1);
  EXPECT_EQ(sent().size(), 1u);
  wait(30);
  EXPECT_EQ(sent().size(), 1u);
}

TEST_F(Guide, TracesGoWhereTheSinkSays) {
  std::vector<std::string> lines;
  // [traces]
  Vel::TraceHandle::find("Pim::JoinPrune").levelIs(2, true);
  Vel::traceSinkIs([&](Vel::TraceLine const& line) { lines.push_back(line.text); });
  // [traces]
  pim->pimNeighborDel(upstream);
  Vel::traceSinkIs({});
  Vel::TraceHandle::find("Pim::JoinPrune").levelsDel();
  EXPECT_THAT(lines, ElementsAre("JoinPruneMessageSm::handleNeighbor(10.0.0.2), Neighbor down",
                                 "JoinPruneMessageSm::doMaybeDeleteNeighbor(10.0.0.2), deleting neighbor"));
}

// The lines of level 7 that name a handler of groups, without the name of the machine.
std::vector<std::string> groupLines(std::vector<std::string> const& lines) {
  std::vector<std::string> result;
  for (auto const& line : lines)
    if (auto const at = line.find("::handleTriggeredGroup("); at != line.npos)
      result.push_back(line.substr(at + 2));
  return result;
}

// docs/tracing.md explains it.
TEST_F(Guide, AGroupThatIsAddedIsTracedLikeOneThatIsRemovedUnderTheNeighborsAddress) {
  std::vector<std::string> lines;
  Vel::TraceHandle::find("Pim::JoinPrune").levelIs(7, true);
  Vel::traceSinkIs([&](Vel::TraceLine const& line) { lines.push_back(line.text); });
  auto const triggered = status->triggeredGroup(upstream);
  triggered->joinPruneGroupDataIs(group);
  auto const added = groupLines(std::exchange(lines, {}));
  triggered->joinPruneGroupDataDel(group);
  auto const removed = groupLines(lines);
  Vel::traceSinkIs({});
  Vel::TraceHandle::find("Pim::JoinPrune").levelsDel();
  EXPECT_THAT(added,
              ElementsAre("handleTriggeredGroup(10.0.0.2)", "handleTriggeredGroup(10.0.0.2): Deleted"));
  EXPECT_EQ(added, removed);
}

}  // namespace
