// SPDX-License-Identifier: Apache-2.0
// The smallest agent: it builds the engine, gives it one received message, and prints the record.
#include <iostream>

#include "pim/joinprune/JoinPruneMessageSm.h"

using namespace Routing::Pim;

class Printer final : public JoinPruneMessageInfo::NotifieeConst {
  void onRxCount() override { std::cout << notifier().get() << std::endl; }  // last of an entry's fields
};

int main() {
  // The inputs. A router fills Status from its Hellos and JoinPruneStatus from its routes.
  auto const wheel = Vel::create<Zanth::TimerWheel>();
  auto const pim = Vel::create<Status>();
  auto const status = joinPruneStatusFactory();
  status->periodicGroupStatusIs(Vel::create<Packet::JoinPruneStatus>());
  auto const rxJoin = joinPruneMessageInfoFactory(), rxPrune = joinPruneMessageInfoFactory();
  auto const channel = Vel::create<IO::MessageInfo>();
  auto const manager = Vel::create<IO::PamManager>();
  manager->txMessageInfoIs();  // before the first timer fires
  auto const machine =
      joinPruneMessageSmFactory(status, joinPruneFilterFactory(), pim, Vel::create<RpHashComputeStatus>(),
                                rxJoin, rxPrune, channel, manager, wheel);
  auto const eth0 = Vel::create<Intf>(Dova::IntfId("eth0"));
  eth0->usedAddressWithMaskIs(Dova::IpGenPrefix(Dova::IpGenAddr("10.0.0.1"), 24));
  pim->pimIntfIs(eth0);
  pim->pimNeighborIs(Dova::IpGenAddr("10.0.0.2"), eth0);

  auto const printer = Vel::create<Printer>();
  printer->notifierIs(rxJoin);

  // A message, as the packet layer decodes it: 10.0.0.2 joins (10.9.0.1,239.1.1.1) here.
  auto const message = Vel::create<Packet::JoinPruneMessage>();
  message->joinPruneDataIs(Vel::create<Packet::JoinPruneData>(Dova::IpGenAddr("10.0.0.1")));
  message->joinPruneData()->holdTimeIs(210);
  auto const group = message->joinPruneData()->joinPruneGroupDataIs(Dova::IpGenAddr("239.1.1.1"));
  group->joinedSourceIs(Dova::IpGenAddr("10.9.0.1"));
  channel->joinPruneMessageIs(message);
  channel->countInc(1);  // prints (10.9.0.1,239.1.1.1), Flags: S, Intf: , Neighbor: 10.0.0.1, Holdtime: 210

  wheel->expire();  // an agent polls until wheel->timeMin() and calls this, in its loop
}
