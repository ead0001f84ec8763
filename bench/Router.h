// SPDX-License-Identifier: Apache-2.0
// The engine between an interface and a neighbor, on a clock that the benchmark moves; and the same with a
// packet manager, for what is sent.
//
//   Bench::Router router;
//   router.start(manager);
//   router.add(*router.periodic, 0);
#pragma once

#include <algorithm>

#include "pim/joinprune/JoinPruneMessageSm.h"
#include "pim/speaker/PacketManager.h"
#include "pim/speaker/PacketSinks.h"

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

  /// Makes the machine, over a manager that is ready or none; `triggered` and `periodic` are there from now
  /// on.
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

/// Takes all that is pending out of the data, as if it fitted one message.
class Taker final : public Routing::Pim::IO::MessageInfo::Notifiee {
 public:
  void onCount() override {
    auto const message = notifier()->joinPruneMessage();
    auto const data = message->joinPruneData();
    Routing::Pim::Packet::JoinPruneMessage::Report report;
    for (auto group = data->joinPruneGroupDataIterator(); group; ++group) {
      for (auto source = group->joinedSourceIterator(); source; ++source) {
        group->joinedSourceDel(source.key());
        ++report.sources;
      }
    }
    message->reportIs(report);
  }
};

/// With a packet manager that does nothing but take.
struct TakingRouter : Router {
  TakingRouter() {
    auto const manager = Vel::create<Routing::Pim::IO::PamManager>();
    taker->notifierIs(manager->txMessageInfoIs());
    start(manager);
  }

  Vel::Ptr<Taker> const taker = Vel::create<Taker>();
};

/// With periodic routes, and the agent's packet manager, whose packets are counted and dropped.
struct RefreshingRouter : Router {
  explicit RefreshingRouter(U32 size) : routes(size) {
    auto const manager = Vel::create<Routing::Pim::Speaker::PacketManager>(sink, pim);
    manager->start();
    start(manager);
    for (U32 i = 0; i < routes; ++i) add(*periodic, i);
  }

  /// Until every route has been sent once more.
  void round() {
    for (std::size_t const end = sent + routes; sent < end;) fireNext();
  }

  U32 const routes;
  std::size_t sent = 0;
  Routing::Pim::Speaker::ForwardedPackets sink{[this](Routing::Pim::Speaker::OutgoingPacket const& packet) {
    sent += packet.message.groups().size();
  }};
};

inline IpGenAddr neighborOf(U32 i) { return IpGenAddr::ipv4(0x0a000100u + i); }

/// All that a machine finds when it starts: neighbors, and the same periodic routes for each.
struct StartingRouter {
  StartingRouter(U32 neighbors, U32 routes) {
    auto const eth0 = Vel::create<Routing::Pim::Intf>(Dova::IntfId("eth0"));
    pim->pimIntfIs(eth0);
    auto const periodic = Vel::create<Routing::Pim::Packet::JoinPruneStatus>();
    status->periodicGroupStatusIs(periodic);
    for (U32 n = 0; n < neighbors; ++n) {
      pim->pimNeighborIs(neighborOf(n), eth0);
      auto const data = periodic->upJoinPruneIs(neighborOf(n));
      for (U32 g = 0; g < routes; ++g)
        data->joinPruneGroupDataIs(groupOf(g))->joinedSourceIs(IpGenAddr("10.9.0.1"));
    }
  }
  Vel::Ptr<Routing::Pim::JoinPruneMessageSm> newMachine() const {
    return joinPruneMessageSmFactory(status, nullptr, pim, nullptr, nullptr, nullptr, nullptr, nullptr,
                                     wheel);
  }

  Vel::Ptr<Zanth::TimerWheel> wheel = Vel::create<Zanth::TimerWheel>([] { return 0.0; });
  Vel::Ptr<Routing::Pim::Status> pim = Vel::create<Routing::Pim::Status>();
  Vel::Ptr<Routing::Pim::JoinPruneStatus> status = Routing::Pim::joinPruneStatusFactory();
};

}  // namespace Bench
