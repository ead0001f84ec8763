// SPDX-License-Identifier: Apache-2.0
// The triggered and override channels, from the first change to the last message.
#include <cmath>

#include "tests/pim/joinprune/OnMessageData.h"
#include "tests/pim/joinprune/RingTrace.h"
#include "tests/pim/joinprune/World.h"

namespace Routing::Pim {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using Report = Packet::JoinPruneMessage::Report;

/// What differs between the two channels.
struct Channel {
  char const* name;
  char const* word;
};

class SendingTest : public testing::TestWithParam<Channel>, protected World {
 protected:
  SendingTest() {
    neighbor(N, eth0);
    start();
    neighborSm = sm(N);
    srand48(1);
    log.clear();
  }
  bool overriding() const { return GetParam().name == std::string("Override"); }
  Vel::Ptr<Packet::JoinPruneData> data() { return overriding() ? override_(N) : triggered(N); }
  Seconds timeMin() const {
    return overriding() ? neighborSm->overrideTimer()->timeMin() : neighborSm->triggeredTimer()->timeMin();
  }
  /// The delay that the next arming will take.
  Seconds nextDelay() const {
    if (!overriding()) return neighborSm->triggeredInterval();
    unsigned short state[3];
    unsigned short const* const now = seed48(state);  // reads the state,
    std::copy(now, now + 3, state);
    seed48(state);  // and puts it back
    double const r = erand48(state);
    return (r < 0.1 ? r + 0.1 : r) * neighborSm->overrideInterval();
  }
  /// Adds so many groups with one source each.
  void addGroups(U32 count) {
    for (U32 i = 1; i <= count; ++i)
      group(data(), "239.1.1." + std::to_string(i))->joinedSourceIs(addr("10.9.0.1"));
  }
  void fire() {
    time = timeMin();
    wheel->expire();
  }
  /// Runs the handler of an expiry, whatever the timer says.
  void expire() {
    overriding() ? neighborSm->handleOverrideTimerExpiry() : neighborSm->handleTriggeredTimerExpiry();
  }
  std::string line(std::string const& rest) const {
    return "[7] " + text(static_cast<JoinPruneNeighborSm const*>(neighborSm.get())) + rest;
  }
  std::string expiry(std::string const& rest) const {
    return line(std::string("handle") + GetParam().name + "TimerExpiry" + rest);
  }
  std::string update(std::string const& rest) const {
    return line(std::string("doUpdate") + GetParam().name + "Timer" + rest);
  }
  std::string ring(char const* what, char const* groups, int count) const {
    return std::string("JoinPruneNeighborSm: ") + what + GetParam().word +
           " joins/prunes to 10.0.0.2, Intf: eth0, " + groups + ": " + std::to_string(count);
  }

  Vel::Ptr<Intf> eth0 = intf("eth0", "10.0.0.1/24");
  TraceLog log;
  Vel::Ptr<JoinPruneNeighborSm> neighborSm;
};

INSTANTIATE_TEST_SUITE_P(Channels, SendingTest,
                         testing::Values(Channel{"Triggered", "triggered"}, Channel{"Override", "override"}),
                         [](auto const& tested) { return std::string(tested.param.name); });

TEST_P(SendingTest, TheFirstSourceArmsTheTimerAndWritesTheHoldTime) {
  eth0->joinPruneHoldTimeIs(210);
  Seconds const delay = nextDelay();
  addGroups(1);
  EXPECT_EQ(timeMin(), time + delay);
  EXPECT_EQ(data()->holdTime(), 210);
  EXPECT_THAT(log.take(), Contains(update("(): Arming timer, setting holdtime to 210")));
}

TEST_P(SendingTest, AnArmedTimerIsNeverMoved) {
  addGroups(1);
  Seconds const armed = timeMin();
  time += 0.05;
  log.clear();
  data()->joinPruneGroupData(addr("239.1.1.1"))->joinedSourceIs(addr("10.9.0.2"));
  EXPECT_THAT(log.take(), Contains(update("(): Timer running")));
  EXPECT_EQ(timeMin(), armed);
}

TEST_P(SendingTest, WithoutGroupsAnIdleTimerIsDisarmed) {
  if (overriding())
    neighborSm->doUpdateOverrideTimer();
  else
    neighborSm->doUpdateTriggeredTimer();
  EXPECT_THAT(log.take(), ElementsAre(update("(): Disarming timer")));
  EXPECT_EQ(timeMin(), Vel::never);
}

TEST_P(SendingTest, AChangeOfTheHoldTimeReachesTheDataWhenTheTimerIsArmedNext) {
  addGroups(1);
  eth0->joinPruneHoldTimeIs(105);
  EXPECT_EQ(data()->holdTime(), 210);
  fire();
  addGroups(1);
  EXPECT_EQ(data()->holdTime(), 105);
}

TEST_P(SendingTest, AllGroupsGoOutInOneExpiryAndTheTimerIsIdleAfterwards) {
  RingTrace ringTrace;
  manager->perMessage = 1;
  addGroups(3);
  log.clear();
  manager->before = [&](PacketManager& m) {
    EXPECT_TRUE(m.txMessageInfo()->joinPruneMessage() == machine->txMessage());
    EXPECT_EQ(m.txMessageInfo()->intfId(), Dova::IntfId("eth0"));
    EXPECT_TRUE(machine->txMessage()->joinPruneData() == data());
  };
  fire();
  EXPECT_EQ(manager->messages, 3u);
  EXPECT_THAT(manager->reportsBefore, ElementsAre(Report{}, Report{}, Report{}));
  EXPECT_EQ(timeMin(), Vel::never);
  EXPECT_EQ(data()->joinPruneGroupDataCount(), 0u);
  EXPECT_EQ(neighborSm->triggeredGroupDataCount() + neighborSm->overrideGroupDataCount(), 0u);
  Lines const lines = log.take();
  EXPECT_EQ(lines.front(), expiry("()"));
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](auto const& l) { return l.ends_with(", Sent"); }),
            3);
  EXPECT_EQ(lines.back(), update("(): Disarming timer"));
  EXPECT_THAT(ringTrace.messages(),
              ElementsAre(ring("Sending ", "Groups", 3), ring("Finished sending ", "Groups remaining", 0)));
  EXPECT_THAT(ringTrace.timers(), Contains(std::string("void Routing::Pim::JoinPruneNeighborSm::handle") +
                                           GetParam().name + "TimerExpiry()"));
}

TEST_P(SendingTest, ASpentQuantumSuspendsTheSendingWithTheNumbersOfTheLastStep) {
  RingTrace ringTrace;
  manager->perMessage = 1;
  manager->after = [&](PacketManager& m) {
    if (m.messages == 2) time += 0.1;
  };
  addGroups(5);
  log.clear();
  time = timeMin();
  Seconds delay = 0;
  manager->before = [&](PacketManager&) { delay = nextDelay(); };
  wheel->expire();
  EXPECT_EQ(manager->messages, 2u);
  EXPECT_EQ(data()->joinPruneGroupDataCount(), 3u);
  EXPECT_THAT(log.take(), Contains(expiry("(): Suspending TX after 1 sources, 0 filtered sources")));
  EXPECT_THAT(ringTrace.messages(),
              ElementsAre(ring("Sending ", "Groups", 5), ring("Suspending sending ", "Groups remaining", 3)));
  EXPECT_EQ(timeMin(), time + delay);
  fire();
  EXPECT_EQ(manager->messages, 5u);
  EXPECT_EQ(timeMin(), Vel::never);
}

TEST_P(SendingTest, AMessageThatEndsAtTheVeryDeadlineIsTheLast) {
  for (bool const meets : {false, true}) {
    SCOPED_TRACE(meets);
    addGroups(5);
    manager->perMessage = 1;
    manager->messages = 0;
    manager->after = [&](PacketManager&) {
      if (manager->messages != 2) return;
      Seconds const deadline = time + neighborSm->loopQuantum();
      time = meets ? deadline : std::nextafter(deadline, 0);
    };
    fire();
    EXPECT_EQ(manager->messages, meets ? 2u : 5u);
  }
}

TEST_P(SendingTest, WithAQuantumOfZeroEachExpirySendsOneMessage) {
  neighborSm->loopQuantumIs(0);
  manager->perMessage = 1;
  addGroups(3);
  for (U32 sent = 1; sent <= 3; ++sent) {
    log.clear();
    fire();
    EXPECT_EQ(manager->messages, sent);
    EXPECT_EQ(log.takeWith("Suspending").size(), sent < 3 ? 1u : 0u);
  }
  EXPECT_EQ(timeMin(), Vel::never);
}

TEST_P(SendingTest, AStepWithoutProgressEndsTheExpiryAndTheSameDataIsTriedAgain) {
  struct Row {
    Report report;
    bool ends;
  };
  for (Row const& row :
       {Row{{0, 0, 0}, true}, Row{{0, 5, 0}, true}, Row{{0, 0, 1}, false}, Row{{1, 0, 0}, false}}) {
    SCOPED_TRACE(text(row.report));
    addGroups(2);
    manager->messages = 0;
    manager->instead = [&](Report& report) {
      report = row.report;
      return manager->messages < 3;
    };
    log.clear();
    fire();
    EXPECT_EQ(manager->messages, row.ends ? 1u : 3u);
    EXPECT_EQ(log.takeWith("Suspending").size(), row.ends ? 1u : 0u);
    EXPECT_EQ(timeMin() != Vel::never, row.ends);
    manager->instead = nullptr;
    if (row.ends) fire();
    EXPECT_EQ(data()->joinPruneGroupDataCount(), 0u);
  }
}

TEST_P(SendingTest, DataThatRanEmptyWhileArmedSendsNothing) {
  RingTrace ringTrace;
  addGroups(1);
  data()->joinPruneGroupData(addr("239.1.1.1"))->joinedSourceDel(addr("10.9.0.1"));
  EXPECT_NE(timeMin(), Vel::never);
  fire();
  EXPECT_EQ(manager->messages, 0u);
  EXPECT_EQ(timeMin(), Vel::never);
  EXPECT_THAT(ringTrace.messages(),
              ElementsAre(ring("Sending ", "Groups", 0), ring("Finished sending ", "Groups remaining", 0)));
}

TEST_P(SendingTest, AnExpiryBeforeInitializationDoesNothing) {
  addGroups(1);
  neighborSm->initializedIs(false);
  log.clear();
  fire();
  EXPECT_THAT(log.take(), ElementsAre(expiry("()")));
  EXPECT_EQ(manager->messages, 0u);
  EXPECT_EQ(timeMin(), Vel::never);
}

TEST_P(SendingTest, WithoutATransmitRecordNothingIsMadeAndItIsTriedAgain) {
  addGroups(1);
  manager->stop();
  manager->txMessageInfoDel();
  fire();
  EXPECT_FALSE(manager->txMessageInfo());
  EXPECT_NE(timeMin(), Vel::never);
  manager->start();
  fire();
  EXPECT_EQ(manager->messages, 1u);
  EXPECT_EQ(timeMin(), Vel::never);
}

TEST_P(SendingTest, ATimerReadsAsArmedWhatItWasGivenWhenNaNIsRefused) {
  addGroups(1);
  Seconds const armed = timeMin();
  auto const set = [&](Seconds to) {
    overriding() ? neighborSm->overrideTimer()->timeMinIs(to) : neighborSm->triggeredTimer()->timeMinIs(to);
  };
  EXPECT_THROW(set(std::nan("")), Vel::InvalidArgumentException);
  EXPECT_EQ(timeMin(), armed);
}

// Whatever a packet manager does from inside the send, the machine comes back from it.
TEST_P(SendingTest, AManagerMayTakeTheWorldDownFromInsideTheSend) {
  auto const dataOf = [&](World& w) { return overriding() ? w.override_(N) : w.triggered(N); };
  struct Row {
    char const* name;
    std::function<void(World&)> act;
    U32 messages;
  };
  Row const rows[] = {{"neighbor", [](World& w) { w.pim->pimNeighborDel(addr(N)); }, 1},
                      {"interface", [](World& w) { w.pim->pimIntfDel(Dova::IntfId("eth0")); }, 3},
                      {"machine", [](World& w) { w.machine = nullptr; }, 1},
                      {"neighbor machines", [](World& w) { w.machine->joinPruneNeighborSmDelAll(); }, 1},
                      {"everything",
                       [](World& w) {
                         w.machine = nullptr;
                         w.pim = nullptr;
                         w.status = nullptr;
                         w.wheel = nullptr;
                       },
                       1},
                      {"data",
                       [&](World& w) {
                         auto const pending = dataOf(w);
                         for (auto g = pending->joinPruneGroupDataIterator(); g; ++g) g->joinedSourceDelAll();
                       },
                       1},
                      {"record", [](World& w) { w.manager->txMessageInfoDel(); }, 1},
                      // A manager that fails has sent nothing: a step without progress.
                      {"throw", [](World&) { throw std::runtime_error("no buffer"); }, 1}};
  for (Row const& row : rows) {
    SCOPED_TRACE(row.name);
    World w;
    w.neighbor(N, w.intf("eth0", "10.0.0.1/24"));
    w.start();
    w.manager->perMessage = 1;
    for (auto const* g : {"239.1.1.1", "239.1.1.2", "239.1.1.3"})
      group(dataOf(w), g)->joinedSourceIs(addr("10.9.0.1"));
    auto const wheelHeld = w.wheel;
    bool once = false;
    w.manager->before = [&](PacketManager&) {
      if (!std::exchange(once, true)) row.act(w);
    };
    w.time += 2.5;
    wheelHeld->expire();
    EXPECT_EQ(w.manager->messages, row.messages);
    w.manager->before = nullptr;
    w.manager->stop();
  }
}

TEST_P(SendingTest, AMachineThatIsRetiredInsideTheSendSaysNothingMore) {
  addGroups(3);
  manager->perMessage = 1;
  manager->before = [&](PacketManager&) {
    pim->pimNeighborDel(addr(N));
    log.clear();
  };
  fire();
  EXPECT_THAT(log.take(), IsEmpty());
  EXPECT_EQ(wheel->armedCount(), 0u);
}

TEST_P(SendingTest, AnExpiryWithNothingToSendPointsTheTransmitRecordAtItsDataAllTheSame) {
  auto const message = machine->txMessage();
  manager->txMessageInfo()->joinPruneMessageIs(nullptr);
  message->joinPruneDataIs(nullptr);
  expire();
  EXPECT_TRUE(manager->txMessageInfo()->joinPruneMessage() == message);
  EXPECT_TRUE(message->joinPruneData() == data());
  EXPECT_EQ(manager->txMessageInfo()->intfId(), Dova::IntfId("eth0"));
  EXPECT_EQ(manager->messages, 0u);
}

TEST_P(SendingTest, AMachineThatIsRetiredWhileTheRecordIsPointedAtItsDataSaysNothingMore) {
  for (U32 const groups : {0u, 1u}) {
    SCOPED_TRACE(groups);
    addGroups(groups);
    neighborSm = sm(N);
    machine->txMessage()->joinPruneDataIs(nullptr);
    RingTrace const ringTrace;
    auto const hook = Vel::create<OnMessageData>(machine->txMessage(), [&] {
      machine->joinPruneNeighborSmDel(addr(N));
      log.clear();
    });
    expire();
    EXPECT_FALSE(sm(N));
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_THAT(ringTrace.messages(), testing::SizeIs(1));
    EXPECT_EQ(wheel->armedCount(), 0u);
    machine->handleNeighbor(addr(N));
  }
}

// Writing the hold time calls out, and the callback may act first.
class HoldTimeHook final : public Packet::JoinPruneData::NotifieeConst {
 public:
  explicit HoldTimeHook(std::function<void()> act) : act_(std::move(act)) {}
  void onHoldTime() override { act_(); }

 private:
  std::function<void()> act_;
};

TEST_P(SendingTest, ATimerThatIsArmedWhileTheHoldTimeIsWrittenIsNotMoved) {
  Seconds armed = 0;
  auto const hook = Vel::create<HoldTimeHook>([&] {
    addGroups(2);  // arms it
    armed = timeMin();
    time += 0.01;
  });
  hook->notifierIs(data());
  addGroups(1);
  EXPECT_NE(armed, Vel::never);
  EXPECT_EQ(timeMin(), armed);
}

TEST_P(SendingTest, AMachineThatIsRetiredWhileTheHoldTimeIsWrittenArmsNothing) {
  auto const hook = Vel::create<HoldTimeHook>([&] { pim->pimNeighborDel(addr(N)); });
  hook->notifierIs(data());
  group(data(), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  EXPECT_EQ(wheel->armedCount(), 0u);
  EXPECT_EQ(timeMin(), Vel::never);
}

TEST_P(SendingTest, EachSourceIsHandedOverOnceWithTheDatasHoldTime) {
  auto const g = group(data(), "239.1.1.1");
  g->joinedSourceIs(addr("10.9.0.1"));
  g->prunedSourceIs(addr("10.9.0.2"));
  g->joinedRptSourceIs(addr("10.9.0.3"));
  g->prunedRptSourceIs(addr("10.9.0.4"));
  g->wcSourceDataIs(wildcard("10.5.0.1"));
  fire();
  EXPECT_THAT(manager->sent, ElementsAre("eth0 to 10.0.0.2: (*,239.1.1.1) join, hold 210",
                                         "eth0 to 10.0.0.2: (10.9.0.1,239.1.1.1) join, hold 210",
                                         "eth0 to 10.0.0.2: (10.9.0.2,239.1.1.1) prune, hold 210",
                                         "eth0 to 10.0.0.2: (10.9.0.3,239.1.1.1) rpt join, hold 210",
                                         "eth0 to 10.0.0.2: (10.9.0.4,239.1.1.1) rpt prune, hold 210"));
}

// --- What belongs to one channel, or to both together --------------------------------------------

class ChannelsTest : public testing::Test, protected World {
 protected:
  ChannelsTest() {
    neighbor(N, eth0);
    start();
    log.clear();
  }
  Vel::Ptr<Intf> eth0 = intf("eth0", "10.0.0.1/24");
  TraceLog log;
};

TEST_F(ChannelsTest, BothChannelsDueInOneExpireSendTheirOwnData) {
  sm(N)->triggeredIntervalIs(1);
  group(triggered(N), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  group(override_(N), "239.1.1.2")->joinedSourceIs(addr("10.9.0.2"));
  time += 10;
  wheel->expire();
  EXPECT_THAT(manager->sent,
              testing::UnorderedElementsAre("eth0 to 10.0.0.2: (10.9.0.1,239.1.1.1) join, hold 210",
                                            "eth0 to 10.0.0.2: (10.9.0.2,239.1.1.2) join, hold 210"));
}

TEST_F(ChannelsTest, TheTriggeredIntervalAppliesToTheNextArming) {
  group(triggered(N), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  sm(N)->triggeredIntervalIs(2);
  EXPECT_EQ(sm(N)->triggeredTimer()->timeMin(), time + 0.1);
  runUntil(time + 1);
  group(triggered(N), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  EXPECT_EQ(sm(N)->triggeredTimer()->timeMin(), time + 2);
}

TEST_F(ChannelsTest, AnOverrideArmingDrawsOneRandomNumberAndATriggeredOneNone) {
  auto const drawn = [](std::function<void()> const& act) {
    srand48(42);
    act();
    double const next = drand48();
    srand48(42);
    for (int count = 0; count < 5; ++count)
      if (drand48() == next) return count;
    return -1;
  };
  EXPECT_EQ(drawn([&] { group(triggered(N), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1")); }), 0);
  EXPECT_EQ(drawn([&] { group(override_(N), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1")); }), 1);
  EXPECT_EQ(drawn([&] { group(override_(N), "239.1.1.1")->joinedSourceIs(addr("10.9.0.2")); }), 0);
}

TEST_F(ChannelsTest, TheRandomDelayHasAFloorThatIsAddedOnce) {
  int low = 0, next = 0;
  for (long seed = 0; seed < 20000; ++seed) {
    srand48(seed);
    double const r = drand48();
    srand48(seed);
    double const delay = randomDelay(3.0);
    EXPECT_EQ(delay, (r < 0.1 ? r + 0.1 : r) * 3.0);
    EXPECT_GE(delay, 0.3);
    EXPECT_LT(delay, 3.0);
    low += delay < 0.6;
    next += delay >= 0.6 && delay < 0.9;
  }
  EXPECT_GT(low, next * 3 / 2);  // twice as likely
}

TEST_F(ChannelsTest, TheTransmitRecordIsMadeOnceOnRequest) {
  manager->stop();
  manager->txMessageInfoDel();
  auto const info = sm(N)->txMessageInfoIs();
  EXPECT_TRUE(info);
  EXPECT_TRUE(sm(N)->txMessageInfoIs() == info);
}

// The whole road of a triggered join, line by line.
TEST_F(ChannelsTest, ATriggeredJoinGoesOutAndItsGroupIsRetired) {
  std::string const form = text(static_cast<JoinPruneNeighborSm const*>(sm(N).get()));
  group(triggered(N), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  EXPECT_THAT(log.take(),
              ElementsAre("[7] " + form + "handleTriggeredGroup(10.0.0.2)",
                          "[7] " + form + "handleTriggeredGroup(10.0.0.2): Deleted",
                          "[7] " + form + "Triggered(239.1.1.1)::handleJoinedSource(10.9.0.1)",
                          "[7] " + form + "doUpdateTriggeredTimer(): Arming timer, setting holdtime to 210"));
  runUntil(time + 0.1);
  EXPECT_THAT(manager->sent, ElementsAre("eth0 to 10.0.0.2: (10.9.0.1,239.1.1.1) join, hold 210"));
  EXPECT_THAT(log.take(),
              ElementsAre("[7] " + form + "handleTriggeredTimerExpiry()",
                          "[7] " + form + "Triggered(239.1.1.1)::handleJoinedSource(10.9.0.1)",
                          "[7] " + form + "Triggered(239.1.1.1)::handleJoinedSource(10.9.0.1), Sent",
                          "[7] " + form + "handleTriggeredGroup(10.0.0.2)",
                          "[7] " + form + "handleTriggeredGroup(10.0.0.2): Deleted",
                          "[7] " + form + "doUpdateTriggeredTimer(): Disarming timer"));
  EXPECT_EQ(triggered(N)->joinPruneGroupDataCount(), 0u);
}

TEST_F(ChannelsTest, BlockTimersCarryTheFullSignatures) {
  RingTrace ringTrace;
  machine->handleInitialized();
  channel->countInc(1);
  group(triggered(N), "239.1.1.1")->prunedSourceIs(addr("10.9.0.1"));
  Lines const timers = ringTrace.timers();
  for (auto const* signature :
       {"void Routing::Pim::JoinPruneMessageSm::handleInitialized()",
        "void Routing::Pim::JoinPruneMessageSm::handleRxMessage()",
        "void Routing::Pim::JoinPruneNeighborSm::doUpdateTriggeredTimer()",
        "void Routing::Pim::JoinPruneNeighborSm::handleTriggeredGroup(const Dova::IpGenAddr&)",
        "void Routing::Pim::JoinPruneNeighborSm::VelTriggeredGroupData::handlePrunedSource(const "
        "Dova::IpGenAddr&)"})
    EXPECT_THAT(timers, Contains(std::string(signature)));
}

TEST_F(ChannelsTest, EachHandlerLeavesABlockTimer) {
  RingTrace const ring;
  machine = nullptr;
  start();
  neighbor("10.0.0.3", eth0);
  pim->pimNeighborDel(addr("10.0.0.3"));
  for (auto const& data : {triggered(N), override_(N), periodic(N)}) {
    auto const g = group(data, "239.1.1.1");
    g->joinedSourceIs(addr("10.9.0.1"));
    g->prunedSourceIs(addr("10.9.0.2"));
    g->joinedRptSourceIs(addr("10.9.0.3"));
    g->prunedRptSourceIs(addr("10.9.0.4"));
    g->wcSourceDataIs(wildcard("10.5.0.1"));
  }
  auto const message = Vel::create<Packet::JoinPruneMessage>();
  message->joinPruneDataIs(Vel::create<Packet::JoinPruneData>(addr("10.0.0.1")));
  channel->joinPruneMessageIs(message);
  channel->countInc(1);
  runUntil(time + 61);
  sm(N)->joinPrunePeriodicTimerSm()->holdTime();  // nothing but an agent asks for it

  std::string const message_ = "JoinPruneMessageSm::", neighbor_ = "JoinPruneNeighborSm::",
                    periodic_ = "JoinPrunePeriodicTimerSm::";
  Lines handlers{message_ + "handleInitialized(",
                 message_ + "handleNeighbor()",
                 message_ + "handleNeighbor(const",
                 message_ + "doMaybeDeleteNeighbor(",
                 message_ + "handleRxMessage(",
                 message_ + "VelPimIntf::handleNew(",
                 neighbor_ + "handleInitialized(",
                 neighbor_ + "handleTriggeredGroup(",
                 neighbor_ + "handleOverrideGroup(",
                 neighbor_ + "handlePeriodicGroup(",
                 neighbor_ + "doUpdateTriggeredTimer(",
                 neighbor_ + "doUpdateOverrideTimer(",
                 neighbor_ + "handleTriggeredTimerExpiry(",
                 neighbor_ + "handleOverrideTimerExpiry(",
                 neighbor_ + "validateNumPeriodicRoutes(",
                 periodic_ + "interval(",
                 periodic_ + "numberOfMessages(",
                 periodic_ + "holdTime(",
                 periodic_ + "doResetHoldTime(",
                 periodic_ + "handlePeriodicTimerExpiry("};
  for (char const* const data : {"Triggered", "Override", "Periodic"})
    for (char const* const kind :
         {"JoinedSource", "PrunedSource", "JoinedRptSource", "PrunedRptSource", "WcSource"})
      handlers.push_back(neighbor_ + "Vel" + data + "GroupData::handle" + kind + "(");
  Lines const timers = ring.timers();
  for (auto const& handler : handlers)
    EXPECT_THAT(timers, testing::Contains(testing::HasSubstr(handler))) << handler;
}

}  // namespace
}  // namespace Routing::Pim
