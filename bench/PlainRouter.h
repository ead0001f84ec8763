// SPDX-License-Identifier: Apache-2.0
// The plain engine (bench/plain) with the work that Router.h and Receiver.h give the library: the peer of
// whole jobs.
#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

#include "bench/Receiver.h"
#include "bench/Router.h"
#include "bench/plain/Engine.h"

namespace Bench {

/// Between an interface and a neighbor, on a clock that the benchmark moves; packets are counted and dropped.
struct PlainRouter {
  explicit PlainRouter(U32 size = 0) : routes(size) {
    for (U32 i = 0; i < routes; ++i) add(Plain::Way::periodic, i);
  }

  void add(Plain::Way way, U32 route) {
    engine.add(neighbor, way, Routing::Pim::EntryKind::sourceJoin, groupOf(route), source);
  }
  void remove(Plain::Way way, U32 route) {
    engine.remove(neighbor, way, Routing::Pim::EntryKind::sourceJoin, groupOf(route), source);
  }
  /// Moves the clock to the next deadline and lets it come.
  void fireNext() {
    time = std::max(time, engine.nextDeadline());
    engine.expire();
  }
  /// Until every route has been sent once more.
  void round() {
    for (std::size_t const end = sent + routes; sent < end;) fireNext();
  }

  U32 const routes;
  Vel::Seconds time = 0;
  std::size_t sent = 0;
  IpGenAddr const source{"10.9.0.1"};
  Plain::Engine engine{{.address = IpGenAddr("10.0.0.1")},
                       {.now = [this] { return time; },
                        .send =
                            [this](std::span<Vel::U8 const> bytes) {
                              constexpr std::size_t groups = 11;  // their number, behind an IPv4 neighbor
                              sent += bytes[groups];
                              return true;
                            },
                        .deny = {},
                        .suppress = {},
                        .rpOf = {}}};
  Plain::Engine::Neighbor& neighbor = engine.neighborIs(IpGenAddr("10.0.0.2"));
};

/// Neighbors, and the same routes for each, as a routing table lists them; and an engine that is told of all.
struct PlainStart {
  struct Route {
    IpGenAddr group, source;
  };

  PlainStart(U32 neighbors, U32 perNeighbor) : all(neighbors) {
    for (auto& routes : all)
      for (U32 g = 0; g < perNeighbor; ++g) routes.push_back({groupOf(g), IpGenAddr("10.9.0.1")});
  }
  std::unique_ptr<Plain::Engine> newEngine() const {
    Plain::Hooks hooks;
    hooks.now = [] { return 0.0; };
    hooks.send = [](auto const&) { return true; };
    auto engine = std::make_unique<Plain::Engine>(Plain::Settings{.address = IpGenAddr("10.0.0.1")}, hooks);
    for (U32 n = 0; n < all.size(); ++n) {
      Plain::Engine::Neighbor& neighbor = engine->neighborIs(neighborOf(n));
      for (Route const& route : all[n])
        engine->add(neighbor, Plain::Way::periodic, Routing::Pim::EntryKind::sourceJoin, route.group,
                    route.source);
    }
    return engine;
  }

  std::vector<std::vector<Route>> all;
};

inline Plain::Received plainMessageOf(Shape const& shape) {
  using Routing::Pim::EntryKind;
  Plain::Received message{IpGenAddr("10.0.0.1"), 210, {}, {}};
  for (U32 g = 0; g < shape.groups; ++g) {
    U32 const first = static_cast<U32>(message.entries.size());
    U32 source = 0x0a090000u;
    auto const add = [&](EntryKind kind, U32 count) {
      for (U32 i = 0; i < count; ++i) message.entries.push_back({IpGenAddr::ipv4(++source), kind});
    };
    add(EntryKind::sourceJoin, shape.joins);
    add(EntryKind::sourcePrune, shape.prunes);
    if (shape.wildcard) message.entries.push_back({IpGenAddr("10.0.0.9"), EntryKind::wildcardJoin});
    add(EntryKind::sourceRptPrune, shape.rptPrunes);
    message.groups.push_back(
        {IpGenAddr::ipv4(0xef000000u + g), first, static_cast<U32>(message.entries.size()) - first});
  }
  return message;
}

/// Receives the same message again and again, with a filter that denies nothing and an RP hash that agrees;
/// so many observers are told of each entry.
class PlainReceiver {
 public:
  PlainReceiver(Shape const& shape, int observers) : message_(plainMessageOf(shape)) {
    for (int i = 0; i < observers; ++i) {
      watching_.push_back(std::make_unique<Watcher>());
      engine_.observerIs(*watching_.back());
    }
  }
  void receive() { engine_.receive(message_); }

 private:
  struct Watcher final : Plain::Observer {
    void onEntry(Routing::Pim::EntryKind, Plain::Record const&) override { ++entries; }
    std::size_t entries = 0;
  };

  Plain::Received const message_;
  std::vector<std::unique_ptr<Watcher>> watching_;
  Plain::Engine engine_{{},
                        {.now = {},
                         .send = {},
                         .deny = [](IpGenAddr const&) { return false; },
                         .suppress = {},
                         .rpOf = [](IpGenAddr const&, IpGenAddr const& rp) { return rp; }}};
};

}  // namespace Bench
