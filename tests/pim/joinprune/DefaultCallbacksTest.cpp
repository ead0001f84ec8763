// SPDX-License-Identifier: Apache-2.0
// Reactors that override no callback: they hear of every attribute by its number and of every collection by
// its name.
#include "tests/pim/joinprune/World.h"

namespace Routing::Pim {
namespace {

using testing::ElementsAre;

template <class Base>
class Listener final : public Base {
 public:
  void onAttribute(Vel::AttributeId id) override { heard.push_back(std::to_string(id)); }
  void onCollectionNotification(std::string_view name) override { heard.emplace_back(name); }

  Lines take() { return std::exchange(heard, {}); }
  Lines heard;
};

template <class Entity>
auto listenerOn(Vel::Ptr<Entity> const& entity) {
  auto const made = Vel::create<Listener<typename Entity::NotifieeConst>>();
  made->notifierIs(entity);
  return made;
}

std::string number(Vel::AttributeId id) { return std::to_string(id); }

class DefaultCallbacksTest : public testing::Test, protected World {
 protected:
  DefaultCallbacksTest() {
    Vel::traceSinkIs([](Vel::TraceLine const&) {});
    neighbor("10.0.0.2", eth0);
    start();
  }
  ~DefaultCallbacksTest() override { Vel::traceSinkIs({}); }

  Vel::Ptr<Intf> eth0 = intf("eth0", "10.0.0.1/24");
};

TEST_F(DefaultCallbacksTest, OfTheMessageMachine) {
  using Sm = JoinPruneMessageSm;
  auto const listener = listenerOn(machine);
  machine->diagUpJoinCountIs(true);
  machine->newTxMessage();
  machine->initializedIs(false);
  EXPECT_THAT(listener->take(),
              ElementsAre(number(Sm::diagUpJoinCountId), number(Sm::txMessageId), number(Sm::initializedId)));
  intf("eth1", "10.1.0.1/24");
  EXPECT_THAT(listener->take(), ElementsAre("joinPruneNeighborSm", "pimIntf"));
  machine->joinPruneNeighborSmNotifyImmediate();
  machine->pimIntfNotifyImmediate();
  EXPECT_THAT(listener->take(), ElementsAre());
}

TEST_F(DefaultCallbacksTest, OfTheNeighborMachine) {
  using Sm = JoinPruneNeighborSm;
  auto const neighborSm = sm("10.0.0.2");
  auto const listener = listenerOn(neighborSm);
  neighborSm->loopQuantumIs(0.5);
  neighborSm->triggeredIntervalIs(0.5);
  EXPECT_THAT(listener->take(), ElementsAre(number(Sm::loopQuantumId), number(Sm::triggeredIntervalId)));
  group(triggered("10.0.0.2"), "239.1.1.1");
  group(override_("10.0.0.2"), "239.1.1.1");
  group(periodic("10.0.0.2"), "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  EXPECT_THAT(listener->take(), ElementsAre("triggeredGroupData", "overrideGroupData", "periodicGroupData",
                                            number(Sm::numPeriodicRoutesId)));
  neighborSm->triggeredGroupDataNotifyImmediate();
  neighborSm->overrideGroupDataNotifyImmediate();
  neighborSm->periodicGroupDataNotifyImmediate();
  EXPECT_THAT(listener->take(), ElementsAre());
  neighborSm->triggeredTimerIs(nullptr);
  neighborSm->overrideTimerIs(nullptr);
  neighborSm->joinPrunePeriodicTimerSmDel();
  neighborSm->joinPrunePeriodicTimerSmDel();
  neighborSm->initializedIs(false);
  EXPECT_THAT(listener->take(),
              ElementsAre(number(Sm::triggeredTimerId), number(Sm::overrideTimerId),
                          number(Sm::joinPrunePeriodicTimerSmId), number(Sm::initializedId)));
}

TEST_F(DefaultCallbacksTest, OfThePeriodicMachine) {
  using Sm = JoinPrunePeriodicTimerSm;
  auto const periodicSm = sm("10.0.0.2")->joinPrunePeriodicTimerSm();
  auto const listener = listenerOn(periodicSm);
  periodicSm->intervalIs(17);
  periodicSm->holdTimeIs(17);
  periodicSm->numberOfMessagesIs(17);
  periodicSm->initializedIs(false);
  periodicSm->periodicParamsIs({17, 17});
  EXPECT_THAT(listener->take(),
              ElementsAre(number(Sm::intervalId), number(Sm::holdTimeId), number(Sm::numberOfMessagesId),
                          number(Sm::initializedId), number(Sm::periodicParamsId)));
}

TEST_F(DefaultCallbacksTest, OfTheJoinPruneStatus) {
  auto const listener = listenerOn(status);
  status->triggeredGroupIs(addr("10.0.0.9"));
  status->overrideGroupIs(addr("10.0.0.9"));
  status->periodicGroupStatusIs(nullptr);
  status->rxPruneIs({}, rxPrune);
  EXPECT_THAT(listener->take(), ElementsAre("triggeredGroup", "overrideGroup",
                                            number(JoinPruneStatus::periodicGroupStatusId), "rxPrune"));
  status->triggeredGroupNotifyImmediate();
  status->overrideGroupNotifyImmediate();
  status->rxPruneNotifyImmediate();
  EXPECT_THAT(listener->take(), ElementsAre());
}

TEST_F(DefaultCallbacksTest, OfTheModel) {
  auto const onPim = listenerOn(pim);
  auto const onIntf = listenerOn(eth0);
  auto const onChannel = listenerOn(channel);
  auto const onRecord = listenerOn(rxJoin);
  auto const message = machine->newTxMessage();
  auto const onMessage = listenerOn(message);
  auto const onPeriodic = listenerOn(periodicStatus());
  auto const data = Vel::create<Packet::JoinPruneData>(addr("10.0.0.9"));
  auto const onData = listenerOn(data);
  auto const groupData = group(data, "239.1.1.1");
  auto const onGroup = listenerOn(groupData);

  intf("eth1");
  neighbor("10.0.0.3", eth0);
  pim->pimIntfNotifyImmediate();
  pim->pimNeighborNotifyImmediate();
  EXPECT_THAT(onPim->take(), ElementsAre("pimIntf", "pimNeighbor"));
  EXPECT_THAT(onPeriodic->take(), ElementsAre("upJoinPrune", "upJoinPrune"));
  periodicStatus()->upJoinPruneNotifyImmediate();
  EXPECT_THAT(onPeriodic->take(), ElementsAre());

  eth0->usedAddressWithMaskNotify();
  EXPECT_THAT(onIntf->take(), ElementsAre(number(Intf::usedAddressWithMaskId)));
  channel->countInc(1);
  EXPECT_THAT(onChannel->take(), ElementsAre(number(IO::MessageInfo::countId)));
  using Record = JoinPruneMessageInfo;
  rxJoin->riKeyIs(RouteIntfKey(addr("10.9.0.1"), addr("239.1.1.1"), {}));
  rxJoin->upstreamNeighborIs(addr("10.0.0.1"));
  rxJoin->sourceFlagsIs(Packet::sgFlags);
  rxJoin->holdTimeIs(17);
  rxJoin->wcSourceIs(addr("10.0.0.9"));
  rxJoin->rxCountInc(1);
  EXPECT_THAT(onRecord->take(), ElementsAre(number(Record::riKeyId), number(Record::upstreamNeighborId),
                                            number(Record::sourceFlagsId), number(Record::holdTimeId),
                                            number(Record::wcSourceId), number(Record::rxCountId)));
  auto const onManager = listenerOn<IO::PamManager>(manager);
  manager->txMessageInfoDel();
  EXPECT_THAT(onManager->take(), ElementsAre(number(IO::PamManager::txMessageInfoId)));
  message->joinPruneDataIs(data);
  message->reportIs({1, 2, 3});
  EXPECT_THAT(onMessage->take(), ElementsAre(number(Packet::JoinPruneMessage::joinPruneDataId),
                                             number(Packet::JoinPruneMessage::reportId)));

  group(data, "239.1.1.2");
  data->joinPruneGroupDataNotifyImmediate();
  EXPECT_THAT(onData->take(), ElementsAre("joinPruneGroupData", "joinPruneGroupData"));  // two groups
  groupData->joinedSourceIs(addr("10.9.0.1"));
  groupData->prunedSourceIs(addr("10.9.0.1"));
  groupData->joinedRptSourceIs(addr("10.9.0.1"));
  groupData->prunedRptSourceIs(addr("10.9.0.1"));
  groupData->wcSourceDataIs(wildcard("10.0.0.9"));
  EXPECT_THAT(onGroup->take(),
              ElementsAre("joinedSource", "prunedSource", "joinedRptSource", "prunedRptSource",
                          number(Packet::JoinPruneGroupData::wcSourceDataId)));
}

}  // namespace
}  // namespace Routing::Pim
