// SPDX-License-Identifier: Apache-2.0
// Upstream routes over an engine and a packet manager, on a clock that the test moves.
#pragma once

#include <algorithm>
#include <memory>
#include <optional>

#include "pim/joinprune/JoinPruneMessageSm.h"
#include "pim/speaker/PacketManager.h"
#include "pim/speaker/PacketSinks.h"
#include "pim/speaker/UpstreamRoutes.h"
#include "tests/pim/speaker/RouteWords.h"

namespace Routing::Pim::Speaker::Test {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;
using Lines = std::vector<std::string>;

/// A link with its engine.
struct EngineLink {
  EngineLink(AddressFamily family, Vel::Ptr<Zanth::TimerWheel> const& wheel, PacketSink& sink,
             std::string_view name)
      : link(family, wheel, name), intf(Vel::create<Intf>(link.intf())) {
    status->periodicGroupStatusIs(Vel::create<Packet::JoinPruneStatus>());
    intf->usedAddressWithMaskIs(Dova::IpGenPrefix(link.address, 24));
    pim->pimIntfIs(intf);
    manager = Vel::create<PacketManager>(sink, pim);
    manager->dataSetsAre(status);
    manager->start();
    machine =
        joinPruneMessageSmFactory(status, nullptr, pim, nullptr, nullptr, nullptr, nullptr, manager, wheel);
    link.data = status;
  }

  TestLink link;
  Vel::Ptr<Intf> intf;
  Vel::Ptr<Status> pim = Vel::create<Status>();
  Vel::Ptr<JoinPruneStatus> status = joinPruneStatusFactory();
  Vel::Ptr<PacketManager> manager;
  Vel::Ptr<JoinPruneMessageSm> machine;
  LinkObserver* observer = nullptr;
};

class UpstreamScene : public testing::TestWithParam<AddressFamily> {
 protected:
  UpstreamScene() {
    for (EngineLink* one : {&eth0, &eth1}) {
      one->manager->heardJoinsAre(upstream.get());
      one->observer = &upstream->linkIs(one->link);
    }
    neighborUp("N1");
    neighborUp("N2");
  }
  ~UpstreamScene() override {
    for (EngineLink* one : {&eth0, &eth1}) one->manager->heardJoinsAre(nullptr);
  }

  void neighborUp(std::string_view name, EngineLink* on = nullptr) {
    EngineLink& to = on ? *on : eth0;
    to.link.neighbors.insert(names.address(name));
    to.pim->pimNeighborIs(names.address(name), to.intf);
    if (upstream) to.observer->neighborUp(names.address(name));
  }
  void neighborDown(std::string_view name) {
    eth0.link.neighbors.erase(names.address(name));
    eth0.pim->pimNeighborDel(names.address(name));
    if (upstream) eth0.observer->neighborDown(names.address(name));
  }
  void hear(std::string_view to, std::string_view entries, U16 hold = 210) {
    eth0.observer->joinPruneReceived(
        {names.address("N9"), false, names.message(names.address(to), hold, entries)});
  }

  RouteKey key(std::string_view text) const {
    Route const route = names.route(text);
    return {route.source, route.group};
  }
  UpstreamNeighbor at(std::string_view neighbor, std::string_view intf = "eth0") const {
    return {Dova::IntfId(intf), names.address(neighbor)};
  }
  void join(std::string_view route, std::string_view neighbor, std::string_view rp = "R1",
            UpstreamMove move = UpstreamMove::routing) {
    upstream->joinIs(key(route), at(neighbor), names.address(rp), move);
  }
  void leave(std::string_view route) { upstream->joinDel(key(route)); }
  void prune(std::string_view route) { upstream->pruneIs(key(route)); }
  void unprune(std::string_view route) { upstream->pruneDel(key(route)); }

  /// Each timer at its own time, and what is sent meanwhile: a line for each message.
  Lines sentUntil(Seconds end) {
    while (wheel->timeMin() <= end) {
      time = std::max(time, wheel->timeMin());
      wheel->expire();
    }
    time = end;
    Lines lines;
    for (auto const& packet : packets.take()) lines.push_back(lineOf(packet));
    return lines;
  }
  std::string lineOf(OutgoingPacket const& packet) const {
    Lines entries;
    for (auto const& group : packet.message.groups()) {
      std::size_t left = group.joins().size();
      for (auto const& source : group.sources()) {
        bool const isJoin = left != 0;
        if (isJoin) --left;
        RouteKind const kind = routeKindOf(source.kind);
        bool const isWildcard = kind == RouteKind::wildcard;
        Route const route{kind, source.address, group.group()};
        entries.push_back((isJoin ? "join " : "prune ") + names.name(route) +
                          (isWildcard ? " " + names.name(source.address) : ""));
      }
    }
    std::sort(entries.begin(), entries.end());
    std::string line = (packet.intf == Dova::IntfId("eth0") ? "" : packet.intf.name() + " ") +
                       names.name(packet.message.upstreamNeighbor()) + ":";
    for (auto const& entry : entries) line += (line.back() == ':' ? " " : ", ") + entry;
    return line;
  }
  std::string sending(std::string_view route) const {
    return std::string(text(upstream->sending(names.route(route))));
  }

  Seconds time = 0;
  Names const names{GetParam()};
  Vel::Ptr<Zanth::TimerWheel> wheel = Vel::create<Zanth::TimerWheel>([this] { return time; });
  CapturedPackets packets;
  EngineLink eth0{GetParam(), wheel, packets, "eth0"}, eth1{GetParam(), wheel, packets, "eth1"};
  std::unique_ptr<UpstreamRoutes> upstream = std::make_unique<UpstreamRoutes>();
};

}  // namespace Routing::Pim::Speaker::Test
