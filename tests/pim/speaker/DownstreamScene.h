// SPDX-License-Identifier: Apache-2.0
// Downstream routes on a link, on a clock that the test moves, and what is told of them.
#pragma once

#include <memory>

#include "pim/speaker/DownstreamRoutes.h"
#include "tests/pim/speaker/RouteWords.h"

namespace Routing::Pim::Speaker::Test {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Lines = std::vector<std::string>;

class DownstreamScene : public testing::TestWithParam<AddressFamily>,
                        public DownstreamObserver,
                        public PruneEchoes {
 protected:
  DownstreamScene() { neighborsAre({"N1", "N2"}); }

  void downstreamChanged(DownstreamEvent const& event) override {
    EXPECT_EQ(event.intf, Dova::IntfId("eth0"));
    std::string line(text(event.change));
    line += " " + names.name(event.route) + (event.rp ? " " + names.name(*event.rp) : "") + " by " +
            names.name(event.sender);
    events.push_back(line);
    if (auto const call = onEvent) call(event);
  }
  void downstreamLimited(DownstreamLimitEvent const& event) override {
    events.push_back(std::string("limit of ") + (event.ofNeighbor ? "neighbor " : "interface ") +
                     names.name(event.route) + (event.rp ? " " + names.name(*event.rp) : "") + " by " +
                     names.name(event.sender) + ", left out " + std::to_string(event.leftOut));
    if (auto const call = onLimit) call();
  }
  void pruneEchoIs(Link& on, Route const& route, IpGenAddr const& rp) override {
    EXPECT_EQ(&on, &link);
    bool const isWildcard = route.kind == RouteKind::wildcard;
    events.push_back("echo " + names.name(route) + (isWildcard ? " " + names.name(rp) : ""));
    if (auto const call = onEcho) call();
  }

  void neighborsAre(std::vector<std::string> const& all) {
    link.neighbors.clear();
    for (auto const& name : all) link.neighbors.insert(names.address(name));
  }
  void receive(std::string_view entries, U16 hold = 210, std::string_view from = "N1", bool isForUs = true) {
    routes->joinPruneReceived({names.address(from), isForUs, names.message(link.address, hold, entries)});
  }
  /// Each timer at its own time.
  void runUntil(Seconds end) {
    while (wheel->timeMin() <= end) {
      time = std::max(time, wheel->timeMin());
      wheel->expire();
    }
    time = end;
  }
  Lines take() { return std::exchange(events, {}); }
  /// "joined until 210" or "prune-pending until 210, 3", "none".
  std::string state(std::string_view route) const {
    auto const found = routes->route(names.route(route));
    if (!found) return "none";
    std::ostringstream os;
    os << text(found->state) << " until " << found->expires;
    if (found->pruneEnds != Vel::never) os << ", " << found->pruneEnds;
    return os.str();
  }

  Seconds time = 0;
  Names const names{GetParam()};
  Vel::Ptr<Zanth::TimerWheel> wheel = Vel::create<Zanth::TimerWheel>([this] { return time; });
  TestLink link{GetParam(), wheel};
  Lines events;
  std::function<void(DownstreamEvent const&)> onEvent;
  std::function<void()> onLimit, onEcho;
  std::unique_ptr<DownstreamRoutes> routes = std::make_unique<DownstreamRoutes>(link, *this, *this);
};

}  // namespace Routing::Pim::Speaker::Test
