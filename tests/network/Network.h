// SPDX-License-Identifier: Apache-2.0
// A network of speakers in one process, on a virtual clock: routers on LANs that lose, delay, duplicate
// and reorder packets and are cut in two, routers that restart and routers that vanish. All random values
// come from one seed.
//
//     Network network(seed, [](U32 router) { return Speaker::InterfaceSettings{}; });
//     network.lanIs({0, 1, 2});                      // routers 0, 1 and 2 are on LAN 0
//     network.faultsAre({.loss = 0.3, .delay = 0.2});
//     network.want(0, {route, 0, 1});                // router 0 wants it from router 1 on LAN 0
//     network.runFor(300);
//     EXPECT_THAT(network.differences(), IsEmpty()); // of what is stored from what is wanted
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <queue>
#include <set>
#include <string>
#include <vector>

#include "pim/speaker/Speaker.h"

namespace Routing::Pim::Networks {

using Dova::IpGenAddr;
using Speaker::Route;
using Vel::Seconds;
using Vel::U32;
using Vel::U64;
using Vel::U8;

/// What happens to packets, decided for each receiver of a packet by itself.
struct Faults {
  double loss = 0;     ///< The probability that a receiver does not get it.
  double unheard = 0;  ///< The same for a Join/Prune from one router to another that a third one would hear.
  double duplicate = 0;  ///< The probability that a receiver gets it twice.
  Seconds delay = 0;     ///< The longest delay.
  bool reorder = false;  ///< Whether packets from one router to another overtake one another.
  double cut = 0;        ///< The probability that a packet cuts its LAN in two for the next 20 s.
};

/// What a router wants: a (*,G) or (S,G) from another router of a LAN, or an (S,G,rpt) pruned.
struct Wish {
  Route route;
  U32 lan = 0, upstream = 0;  ///< Not of an (S,G,rpt), which has those of its (*,G).

  friend bool operator<(Wish const& a, Wish const& b) { return a.route < b.route; }
};

/// How often something happened.
struct Totals {
  U64 hellos = 0;      ///< Hellos that were sent.
  U64 joinPrunes = 0;  ///< Join/Prunes that were sent.
  U64 lost = 0;        ///< Packets that a receiver did not get.
  U64 expired = 0;     ///< Routes that expired.
};

class Network {
 public:
  /// With these settings of each router on all of its interfaces, and addresses of these families.
  using Settings = std::function<Speaker::InterfaceSettings(U32 router)>;
  using Families = std::vector<Dova::AddressFamily>;
  Network(U64 seed, Settings settings,
          Families families = {Dova::AddressFamily::ipv4, Dova::AddressFamily::ipv6});
  ~Network();
  Network(Network const&) = delete;

  /// Makes a LAN of these routers, which are made with it. Its number.
  U32 lanIs(std::set<U32> const& routers);
  /// From now on.
  void faultsAre(Faults const& faults) { faults_ = faults; }
  Faults const& faults() const { return faults_; }

  /// A router wants a route, from another router than before if it is another one.
  void want(U32 router, Wish const& wish);
  /// It no longer does.
  void leave(U32 router, Route route);
  /// It begins again with what it wants, without a goodbye.
  void restart(U32 router);
  /// It ends without a word. restart() brings it back.
  void vanish(U32 router);
  /// It says goodbye on all LANs, and ends.
  void end(U32 router);
  bool isThere(U32 router) const { return routers_.at(router)->speaker != nullptr; }

  /// Called with each packet that is sent from now on.
  void packetsAlsoGoTo(std::function<void(Speaker::Outgoing const&)> call) { alsoTo_ = std::move(call); }

  void runFor(Seconds time);
  Seconds now() const { return now_; }

  /// What neighbors and what downstream state differ from what should be there, a line each. A prune of a
  /// source that is stored without the shared tree does nothing, and counts for leftovers() alone.
  std::vector<std::string> differences() const;
  /// Prunes of sources that are stored without the shared tree, a line each.
  std::vector<std::string> leftovers() const;
  /// States that expired though a join for them had been delivered within its hold time, and joins that were
  /// delivered without effect, a line each.
  std::vector<std::string> const& wrongLosses() const { return wrongLosses_; }
  /// Whether to note each route that ends though it is wanted, and each source that is pruned though a router
  /// wants it.
  void wantedLossesAreNoted(bool noted) { areWantedLossesNoted_ = noted; }
  std::vector<std::string> const& wantedLosses() const { return wantedLosses_; }
  Totals const& totals() const { return totals_; }

  U32 routerCount() const { return static_cast<U32>(routers_.size()); }
  U32 lanCount() const { return static_cast<U32>(lans_.size()); }
  std::set<U32> const& routersOf(U32 lan) const { return lans_.at(lan).routers; }
  std::set<Wish> const& wishesOf(U32 router) const { return routers_.at(router)->wishes; }
  Speaker::Speaker* speaker(U32 router) const { return routers_.at(router)->speaker.get(); }
  /// How many joins of a route were sent so far, on all LANs; of an (S,G,rpt): how many were no prunes.
  U64 joinsSent(Route const& route) const;
  /// How many joins of all routes.
  U64 joinsSent() const { return joinsSent_; }
  /// How many routers want a route from that router.
  U32 wantedBy(Wish const& wish) const;
  /// For what a test decides by chance.
  Speaker::Random& random() { return random_; }
  U32 below(U32 n) { return static_cast<U32>(random_.bits() % n); }

  static std::string nameOf(U32 lan) { return "lan" + std::to_string(lan); }
  /// IPv6: link-local, and the same on each LAN.
  static IpGenAddr addressOf(U32 lan, U32 router, Dova::AddressFamily family);

 private:
  struct Lan {
    std::set<U32> routers;
    std::map<std::pair<U32, U32>, Seconds> latest;  // when the last packet from one to another arrives
    Seconds cutUntil = 0;
    U32 cutAt = 0;  // routers below it, and the others
  };

  struct Router final : Speaker::Sink, Speaker::SpeakerObserver {
    Router(Network& in, U32 n) : network(in), number(n) {}
    Speaker::Sent send(Speaker::Outgoing const& packet) override;
    void downstreamChanged(Speaker::DownstreamEvent const& event) override;

    Network& network;
    U32 const number;
    std::set<Wish> wishes;
    std::unique_ptr<Speaker::Speaker> speaker;
    // When the last join for a route was delivered, and what its hold time is.
    std::map<std::pair<std::string, Route>, std::pair<Seconds, Seconds>> delivered;
  };

  struct Packet {
    U32 lan = 0;
    std::string intf;
    IpGenAddr source, destination;
    std::vector<U8> bytes;
    std::optional<Wire::JoinPrune> joinPrune{};  // nothing for a Hello
  };
  struct Delivery {
    Seconds arrival;
    U64 number;  // Of equal times the first that was sent comes first.
    U32 router;
    std::shared_ptr<Packet const> packet;

    bool operator<(Delivery const& other) const {
      return arrival > other.arrival || (arrival == other.arrival && number > other.number);
    }
  };

  void start(Router& router);
  void interfaceIs(Router& router, U32 lan);
  void tell(Router& router, Wish const& wish);
  void deliver(U32 lan, U32 from, Speaker::Outgoing const& packet);
  void receive(Delivery const& delivery);
  void noteSent(Wire::JoinPrune const& message);
  void noteDelivered(Router& router, Packet const& packet);
  void noteLoss(Router const& router, Speaker::DownstreamEvent const& event);
  std::set<Route> wantedFrom(U32 lan, U32 upstream) const;
  std::set<U32> upstreamsOn(U32 lan) const;
  std::set<Route> storedBy(U32 lan, U32 upstream) const;
  bool happens(double probability) { return random_.between(0, 1) < probability; }

  Settings const settings_;
  Families const families_;
  Speaker::Random random_;
  Faults faults_;
  Totals totals_;
  std::function<void(Speaker::Outgoing const&)> alsoTo_;
  Seconds now_ = 1000;
  U64 packets_ = 0;
  Vel::Ptr<Zanth::TimerWheel> const wheel_;
  std::vector<Lan> lans_;
  std::vector<std::unique_ptr<Router>> routers_;
  std::priority_queue<Delivery> underway_;
  std::vector<std::string> wrongLosses_, wantedLosses_;
  bool areWantedLossesNoted_ = false;
  std::map<Route, U64> joinsSentOf_;
  U64 joinsSent_ = 0;
};

}  // namespace Routing::Pim::Networks
