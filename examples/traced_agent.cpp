// SPDX-License-Identifier: Apache-2.0
// An agent that traces: trace lines to its own log, and a ring trace file to read later.
#include <iostream>

#include "pim/joinprune/JoinPruneMessageSm.h"
#include "runtime/scrivo/Scrivo.h"
#include "runtime/vel/Trace.h"

using namespace Routing::Pim;

int main(int argc, char** argv) {
  // Lines: levels are switched on one by one, at any time, and off again in the same way.
  Vel::TraceHandle::find("Pim::JoinPrune").levelIs(2, true);
  Vel::TraceHandle::find("Pim::JoinPrune").levelIs(7, true);
  Vel::traceSinkIs([](Vel::TraceLine const& line) { std::cout << line.level << ' ' << line.text << '\n'; });

  // The ring: from here on every statement that traces writes into this file, until close().
  Scrivo::TraceFile::open(argc > 1 ? argv[1] : "traced_agent.trace", {.messageBytes = 1 << 20});

  // An engine with one upstream neighbor, on a clock of its own.
  Vel::Seconds now = 0;
  auto const wheel = Vel::create<Zanth::TimerWheel>([&now] { return now; });
  auto const pim = Vel::create<Status>();
  auto const status = joinPruneStatusFactory();
  status->periodicGroupStatusIs(Vel::create<Packet::JoinPruneStatus>());
  auto const manager = Vel::create<IO::PamManager>();
  manager->txMessageInfoIs();
  auto const machine =
      joinPruneMessageSmFactory(status, joinPruneFilterFactory(), pim, Vel::create<RpHashComputeStatus>(),
                                joinPruneMessageInfoFactory(), joinPruneMessageInfoFactory(),
                                Vel::create<IO::MessageInfo>(), manager, wheel);
  auto const eth0 = Vel::create<Intf>(Dova::IntfId("eth0"));
  eth0->usedAddressWithMaskIs(Dova::IpGenPrefix(Dova::IpGenAddr("10.0.0.1"), 24));
  pim->pimIntfIs(eth0);
  Dova::IpGenAddr const neighbor("10.0.0.2");
  pim->pimNeighborIs(neighbor, eth0);

  // The agent's own messages appear among the engine's. Arguments are not evaluated while no file is open.
  SCRIVO_MESSAGE("Agent", "Route change for ", neighbor, ", Routes: ", 1);
  status->triggeredGroup(neighbor)
      ->joinPruneGroupDataIs(Dova::IpGenAddr("239.1.1.1"))
      ->joinedSourceIs(Dova::IpGenAddr("10.9.0.1"));
  {
    SCRIVO_BLOCK_TIMER("Agent", "timers");
    now = 0.1;
    wheel->expire();  // no reactor serves the packet manager, so sending is suspended and tried again
  }
  Scrivo::TraceFile::close();
}
