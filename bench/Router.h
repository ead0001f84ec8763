// The engine between an interface and a neighbor, on a clock that the benchmark moves.
//
//   Bench::Router router;
//   router.start(manager);
//   router.add(*router.periodic, 0);
#pragma once

#include <algorithm>

#include "pim/joinprune/JoinPruneMessageSm.h"

namespace Bench {

using Dova::IpGenAddr;
using Vel::U32;

/// The groups of the routes, one after the other; each has one source.
inline IpGenAddr groupOf(U32 route) { return IpGenAddr::ipv4(0xe1000000u + route); }

struct Router {
  Router() {
    auto const eth0 = Vel::create<Routing::Pim::Intf>(Dova::IntfId("eth0"));
    eth0->usedAddressWithMaskIs(Dova::IpGenPrefix(IpGenAddr("10.0.0.1"), 24));
    pim->pimIntfIs(eth0);
    pim->pimNeighborIs(neighbor, eth0);
    status->periodicGroupStatusIs(Vel::create<Routing::Pim::Packet::JoinPruneStatus>());
  }

  /// Makes the machine, over a manager that is ready or none; `triggered` and `periodic` are there from now on.
  void start(Vel::Ptr<Routing::Pim::IO::PamManager> const& manager) {
    machine =
        joinPruneMessageSmFactory(status, nullptr, pim, nullptr, nullptr, nullptr, nullptr, manager, wheel);
    triggered = status->triggeredGroup(neighbor);
    periodic = status->periodicGroupStatus()->upJoinPrune(neighbor);
  }

  void add(Routing::Pim::Packet::JoinPruneData& data, U32 route) const {
    data.joinPruneGroupDataIs(groupOf(route))->joinedSourceIs(source);
  }
  void remove(Routing::Pim::Packet::JoinPruneData& data, U32 route) const {
    data.joinPruneGroupData(groupOf(route))->joinedSourceDel(source);
  }

  /// Moves the clock to the wheel's next deadline and lets it come.
  void fireNext() {
    time = std::max(time, wheel->timeMin());
    wheel->expire();
  }

  Vel::Seconds time = 0;
  IpGenAddr const neighbor{"10.0.0.2"}, source{"10.9.0.1"};
  Vel::Ptr<Zanth::TimerWheel> wheel = Vel::create<Zanth::TimerWheel>([this] { return time; });
  Vel::Ptr<Routing::Pim::Status> pim = Vel::create<Routing::Pim::Status>();
  Vel::Ptr<Routing::Pim::JoinPruneStatus> status = Routing::Pim::joinPruneStatusFactory();
  Vel::Ptr<Routing::Pim::JoinPruneMessageSm> machine;
  Vel::Ptr<Routing::Pim::Packet::JoinPruneData> triggered, periodic;
};

}  // namespace Bench
