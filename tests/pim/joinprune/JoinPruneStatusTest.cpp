// SPDX-License-Identifier: Apache-2.0
#include "pim/joinprune/JoinPruneStatus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/pim/model/Recorder.h"

namespace Routing::Pim {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class StatusWatcher final : public JoinPruneStatus::NotifieeConst {
 public:
  explicit StatusWatcher(Log& log) : log_(log) {}
  std::function<void(StatusWatcher&)> then;

  void onTriggeredGroup(Dova::IpGenAddr key) override { heard("triggered " + toText(key)); }
  void onTriggeredGroupvelImmediate() override { heard("triggered at once"); }
  void onTriggeredGroup() override { heard("triggered"); }
  void onOverrideGroup(Dova::IpGenAddr key) override { heard("override " + toText(key)); }
  void onOverrideGroupvelImmediate() override { heard("override at once"); }
  void onOverrideGroup() override { heard("override"); }
  void onPeriodicGroupStatus() override { heard("periodic"); }
  void onRxPrune(RouteIntfKey key) override { heard("prune " + inText(key)); }
  void onRxPrunevelImmediate() override { heard("prune at once"); }
  void onRxPrune() override { heard("prune"); }
  void onZeroReferences() override { heard("zero references"); }
  void onNotificationException(Vel::AttributeId id) override {
    log_.push_back("exception " + std::to_string(id));
  }

 private:
  void heard(std::string const& what) {
    log_.push_back(what);
    if (auto const now = then) now(*this);  // which may set another one
  }
  Log& log_;
};

class JoinPruneStatusTest : public testing::Test {
 protected:
  JoinPruneStatusTest() { watcher->notifierIs(status); }

  Log log;
  Vel::Ptr<JoinPruneStatus> status = joinPruneStatusFactory();
  Vel::Ptr<StatusWatcher> watcher = Vel::create<StatusWatcher>(log);
  Dova::IpGenAddr const neighbor = "10.0.0.2"_ip, other = "10.0.0.3"_ip;
  RouteIntfKey const route{"10.0.0.1"_ip, "239.1.1.1"_ip, Dova::IntfId("eth0")};
  RouteIntfKey const sameRouteElsewhere{"10.0.0.1"_ip, "239.1.1.1"_ip, Dova::IntfId("eth1")};
};

TEST_F(JoinPruneStatusTest, ANewStatusIsEmpty) {
  auto const fresh = joinPruneStatusFactory();
  EXPECT_EQ(fresh->references(), 1u);
  EXPECT_EQ(fresh->triggeredGroupCount(), 0u);
  EXPECT_EQ(fresh->overrideGroupCount(), 0u);
  EXPECT_EQ(fresh->rxPruneCount(), 0u);
  EXPECT_TRUE(fresh->periodicGroupStatus() == nullptr);
}

TEST_F(JoinPruneStatusTest, AnEntryIsMadeOnceUnderTheNeighborsAddress) {
  auto const made = status->triggeredGroupIs(neighbor);
  EXPECT_TRUE(status->triggeredGroupIs(neighbor) == made);
  EXPECT_EQ(made->upstreamNeighbor(), neighbor);
  EXPECT_THAT(taken(log), ElementsAre("triggered 10.0.0.2", "triggered"));
  auto const overriding = status->overrideGroupIs(neighbor);
  EXPECT_TRUE(status->overrideGroupIs(neighbor) == overriding);
  EXPECT_EQ(overriding->upstreamNeighbor(), neighbor);
  EXPECT_THAT(log, ElementsAre("override 10.0.0.2", "override"));
  EXPECT_FALSE(made == overriding);
}

TEST_F(JoinPruneStatusTest, TheTwoCollectionsAreIndependent) {
  status->triggeredGroupIs(neighbor);
  EXPECT_TRUE(status->overrideGroup(neighbor) == nullptr);
  status->overrideGroupIs(neighbor);
  status->triggeredGroupDel(neighbor);
  EXPECT_TRUE(status->triggeredGroup(neighbor) == nullptr);
  EXPECT_TRUE(status->overrideGroup(neighbor) != nullptr);
}

TEST_F(JoinPruneStatusTest, ARemovedEntryIsReturnedAndGoneInsideItsNotification) {
  EXPECT_TRUE(status->triggeredGroupDel(neighbor) == nullptr);
  EXPECT_TRUE(status->overrideGroupDel(neighbor) == nullptr);
  EXPECT_THAT(log, IsEmpty());
  auto const made = status->triggeredGroupIs(neighbor);
  auto const overriding = status->overrideGroupIs(neighbor);
  (void)taken(log);
  bool gone = true;
  watcher->then = [&](StatusWatcher& self) { gone = gone && !self.notifier()->triggeredGroup(neighbor); };
  EXPECT_TRUE(status->triggeredGroupDel(neighbor) == made);
  EXPECT_TRUE(gone);
  watcher->then = nullptr;
  EXPECT_TRUE(status->overrideGroupDel(neighbor) == overriding);
  EXPECT_THAT(log, ElementsAre("triggered 10.0.0.2", "triggered", "override 10.0.0.2", "override"));
}

TEST_F(JoinPruneStatusTest, EntriesAreRemovedUnderAnIteratorAndAllAtOnce) {
  for (auto const& address : {neighbor, other}) {
    status->triggeredGroupIs(address);
    status->overrideGroupIs(address);
  }
  (void)taken(log);
  for (auto i = status->triggeredGroupIterator(); i; ++i)
    if (i.key() == neighbor) status->triggeredGroupDel(i);
  for (auto i = status->overrideGroupIterator(); i; ++i)
    if (i.key() == other) status->overrideGroupDel(i);
  EXPECT_THAT(taken(log), ElementsAre("triggered 10.0.0.2", "triggered", "override 10.0.0.3", "override"));
  status->triggeredGroupIs(neighbor);
  (void)taken(log);
  status->triggeredGroupDelAll();
  status->overrideGroupDelAll();
  EXPECT_THAT(taken(log), UnorderedElementsAre("triggered 10.0.0.2", "triggered", "triggered 10.0.0.3",
                                               "triggered", "override 10.0.0.2", "override"));
  EXPECT_EQ(status->triggeredGroupCount() + status->overrideGroupCount(), 0u);
}

TEST_F(JoinPruneStatusTest, AnEntryThatIsPutBackWhileAllAreDeletedStays) {
  status->triggeredGroupIs(neighbor);
  status->triggeredGroupIs(other);
  (void)taken(log);
  watcher->then = [&](StatusWatcher& self) {
    self.then = nullptr;
    status->triggeredGroupIs(neighbor);
    status->triggeredGroupIs(other);
  };
  status->triggeredGroupDelAll();
  EXPECT_EQ(status->triggeredGroupCount(), 1u);  // the one that was deleted first
}

TEST_F(JoinPruneStatusTest, ThePeriodicStatusNotifiesWhenItIsAnother) {
  status->periodicGroupStatusIs(nullptr);
  EXPECT_THAT(log, IsEmpty());
  auto const periodic = Vel::create<Packet::JoinPruneStatus>();
  status->periodicGroupStatusIs(periodic);
  status->periodicGroupStatusIs(periodic);
  EXPECT_THAT(taken(log), ElementsAre("periodic"));
  EXPECT_EQ(periodic->references(), 2u);
  status->periodicGroupStatusIs(Vel::create<Packet::JoinPruneStatus>());
  EXPECT_THAT(taken(log), ElementsAre("periodic"));
  EXPECT_EQ(periodic->references(), 1u);
  status->periodicGroupStatusIs(nullptr);
  EXPECT_THAT(taken(log), ElementsAre("periodic"));
  EXPECT_TRUE(status->periodicGroupStatus() == nullptr);
}

TEST_F(JoinPruneStatusTest, PuttingAReceivedPruneHasFiveCases) {
  auto const record = joinPruneMessageInfoFactory(), another = joinPruneMessageInfoFactory();
  std::string const keyed = "prune (10.0.0.1,239.1.1.1)@eth0";
  status->rxPruneIs(route, nullptr);
  EXPECT_THAT(taken(log), IsEmpty());
  EXPECT_TRUE(status->rxPrune(route) == nullptr);
  status->rxPruneIs(route, record);
  EXPECT_THAT(taken(log), ElementsAre(keyed, "prune"));
  EXPECT_TRUE(status->rxPrune(route) == record);
  EXPECT_TRUE(status->rxPrune(sameRouteElsewhere) == nullptr);
  status->rxPruneIs(route, record);
  EXPECT_THAT(taken(log), IsEmpty());
  status->rxPruneIs(route, another);
  EXPECT_THAT(taken(log), ElementsAre(keyed, "prune"));
  EXPECT_TRUE(status->rxPrune(route) == another);
  EXPECT_EQ(record->references(), 1u);
  EXPECT_EQ(another->references(), 2u);
  EXPECT_EQ(status->rxPruneCount(), 1u);
  status->rxPruneIs(route, nullptr);
  EXPECT_THAT(taken(log), ElementsAre(keyed, "prune"));
  EXPECT_TRUE(status->rxPrune(route) == nullptr);
  EXPECT_EQ(another->references(), 1u);
}

TEST_F(JoinPruneStatusTest, OneRecordMayStandUnderSeveralKeys) {
  auto const record = joinPruneMessageInfoFactory();
  status->rxPruneIs(route, record);
  status->rxPruneIs(sameRouteElsewhere, record);
  EXPECT_EQ(record->references(), 3u);
  EXPECT_TRUE(status->rxPruneDel(route) == record);
  EXPECT_TRUE(status->rxPrune(sameRouteElsewhere) == record);
}

TEST_F(JoinPruneStatusTest, NewReceivedPrunesAreSilent) {
  auto const record = joinPruneMessageInfoFactory();
  status->newRxPrune(route, record);
  EXPECT_TRUE(status->rxPrune(route) == record);
  EXPECT_THAT(log, IsEmpty());
}

TEST_F(JoinPruneStatusTest, ReceivedPrunesAreRemovedByKeyUnderAnIteratorAndAllAtOnce) {
  auto const record = joinPruneMessageInfoFactory();
  EXPECT_TRUE(status->rxPruneDel(route) == nullptr);
  EXPECT_THAT(log, IsEmpty());
  status->rxPruneIs(route, record);
  status->rxPruneIs(sameRouteElsewhere, record);
  (void)taken(log);
  for (auto i = status->rxPruneIterator(); i; ++i) {
    EXPECT_TRUE(i->ptr() == record);
    EXPECT_TRUE(status->rxPruneDel(i) == record);
  }
  EXPECT_THAT(taken(log), UnorderedElementsAre("prune (10.0.0.1,239.1.1.1)@eth0", "prune",
                                               "prune (10.0.0.1,239.1.1.1)@eth1", "prune"));
  EXPECT_EQ(record->references(), 1u);
  status->rxPruneIs(route, record);
  status->rxPruneIs(sameRouteElsewhere, record);
  (void)taken(log);
  status->rxPruneDelAll();
  EXPECT_EQ(status->rxPruneCount(), 0u);
  EXPECT_THAT(log, UnorderedElementsAre("prune (10.0.0.1,239.1.1.1)@eth0", "prune",
                                        "prune (10.0.0.1,239.1.1.1)@eth1", "prune"));
}

TEST_F(JoinPruneStatusTest, ACallbackThatPutsItsKeyBackDoesNotMakeDeletingAllRunForEver) {
  status->rxPruneIs(route, joinPruneMessageInfoFactory());
  auto const back = joinPruneMessageInfoFactory();
  (void)taken(log);
  watcher->then = [&](StatusWatcher&) {
    if (log.size() < 1000) status->rxPruneIs(route, back);
  };
  status->rxPruneDelAll();
  EXPECT_TRUE(status->rxPrune(route) == back);
  EXPECT_LT(log.size(), 1000u);
}

TEST_F(JoinPruneStatusTest, NotificationsCanBeDeliveredWithoutAnyChange) {
  status->triggeredGroupNotify(neighbor);
  status->overrideGroupNotify(neighbor);
  status->rxPruneNotify(route);
  EXPECT_THAT(taken(log), ElementsAre("triggered 10.0.0.2", "triggered", "override 10.0.0.2", "override",
                                      "prune (10.0.0.1,239.1.1.1)@eth0", "prune"));
  status->triggeredGroupNotifyImmediate();
  status->overrideGroupNotifyImmediate();
  status->rxPruneNotifyImmediate();
  EXPECT_THAT(log, ElementsAre("triggered at once", "override at once", "prune at once"));
}

TEST_F(JoinPruneStatusTest, AFaultyWatcherIsToldTheAttributesNumber) {
  watcher->then = [](StatusWatcher&) { throw 1; };
  status->triggeredGroupNotifyImmediate();
  status->overrideGroupNotifyImmediate();
  status->periodicGroupStatusIs(Vel::create<Packet::JoinPruneStatus>());
  status->rxPruneNotifyImmediate();
  EXPECT_THAT(log, ElementsAre("triggered at once", "exception 130", "override at once", "exception 131",
                               "periodic", "exception 132", "prune at once", "exception 133"));
}

TEST_F(JoinPruneStatusTest, WhenTheStatusGoesItsDataGoesLoudlyAndTheRestInSilence) {
  auto const record = joinPruneMessageInfoFactory();
  auto const periodic = Vel::create<Packet::JoinPruneStatus>();
  status->overrideGroupIs(neighbor);
  status->triggeredGroupIs(neighbor);
  status->rxPruneIs(route, record);
  status->periodicGroupStatusIs(periodic);
  watcher->isNondestructingIs(true);
  (void)taken(log);
  status = nullptr;
  EXPECT_THAT(log, ElementsAre("zero references", "triggered 10.0.0.2", "triggered", "override 10.0.0.2",
                               "override"));
  EXPECT_FALSE(watcher->notifier());
  EXPECT_EQ(record->references(), 1u);
  EXPECT_EQ(periodic->references(), 1u);
}

TEST_F(JoinPruneStatusTest, AConstStatusChangesNothing) {
  auto const record = joinPruneMessageInfoFactory();
  status->triggeredGroupIs(neighbor);
  status->overrideGroupIs(neighbor);
  status->rxPruneIs(route, record);
  auto const triggeredAt = status->triggeredGroupIterator();
  auto const overrideAt = status->overrideGroupIterator();
  auto rxPruneAt = status->rxPruneIterator();
  (void)taken(log);
  Vel::Ptr<JoinPruneStatus const> const view = status;
  expectRefused({
      {"triggeredGroupIs", [&] { view->triggeredGroupIs(other); }},
      {"newTriggeredGroup", [&] { view->newTriggeredGroup(other); }},
      {"triggeredGroupDel", [&] { view->triggeredGroupDel(neighbor); }},
      {"triggeredGroupDel of an iterator", [&] { view->triggeredGroupDel(triggeredAt); }},
      {"triggeredGroupDelAll", [&] { view->triggeredGroupDelAll(); }},
      {"triggeredGroupNotify", [&] { view->triggeredGroupNotify(neighbor); }},
      {"triggeredGroupNotifyImmediate", [&] { view->triggeredGroupNotifyImmediate(); }},
      {"overrideGroupIs", [&] { view->overrideGroupIs(other); }},
      {"newOverrideGroup", [&] { view->newOverrideGroup(other); }},
      {"overrideGroupDel", [&] { view->overrideGroupDel(neighbor); }},
      {"overrideGroupDel of an iterator", [&] { view->overrideGroupDel(overrideAt); }},
      {"overrideGroupDelAll", [&] { view->overrideGroupDelAll(); }},
      {"overrideGroupNotify", [&] { view->overrideGroupNotify(neighbor); }},
      {"overrideGroupNotifyImmediate", [&] { view->overrideGroupNotifyImmediate(); }},
      {"periodicGroupStatusIs", [&] { view->periodicGroupStatusIs(nullptr); }},
      {"rxPruneIs", [&] { view->rxPruneIs(sameRouteElsewhere, record); }},
      {"rxPruneIs of null", [&] { view->rxPruneIs(route, nullptr); }},
      {"newRxPrune", [&] { view->newRxPrune(sameRouteElsewhere, record); }},
      {"rxPruneDel", [&] { view->rxPruneDel(route); }},
      {"rxPruneDel of an iterator", [&] { view->rxPruneDel(rxPruneAt); }},
      {"rxPruneDelAll", [&] { view->rxPruneDelAll(); }},
      {"rxPruneNotify", [&] { view->rxPruneNotify(route); }},
      {"rxPruneNotifyImmediate", [&] { view->rxPruneNotifyImmediate(); }},
  });
  EXPECT_EQ(view->attribute("triggeredGroup"), "10.0.0.2");
  EXPECT_EQ(view->attribute("overrideGroup"), "10.0.0.2");
  EXPECT_EQ(view->attribute("rxPrune"), "(10.0.0.1,239.1.1.1)@eth0");
  EXPECT_THAT(log, IsEmpty());
}

}  // namespace
}  // namespace Routing::Pim
