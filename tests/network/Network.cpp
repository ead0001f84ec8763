// SPDX-License-Identifier: Apache-2.0
#include "tests/network/Network.h"

#include <algorithm>

#include "pim/wire/PimMessage.h"

namespace Routing::Pim::Networks {

using Dova::AddressFamily;
using Speaker::DownstreamChange;
using Speaker::DownstreamState;
using Speaker::Sent;

namespace {

bool isPruneOfTree(Route const& route) { return route.kind == Speaker::RouteKind::sourceRpt; }

Route routeOf(Wire::Source const& source, IpGenAddr const& group) {
  Speaker::RouteKind const kind = Speaker::routeKindOf(source.kind);
  return kind == Speaker::RouteKind::wildcard ? Route::wildcard(group) : Route{kind, source.address, group};
}

bool isTree(Route const& route) { return route.kind == Speaker::RouteKind::wildcard; }

RouteKey keyOf(Route const& route) { return {route.source, route.group}; }

}  // namespace

IpGenAddr Network::addressOf(U32 lan, U32 router, AddressFamily family) {
  if (family == AddressFamily::ipv4) return IpGenAddr::ipv4(0x0a000000 + (lan << 16) + router + 1);
  return IpGenAddr("fe80::" + std::to_string(router + 1));
}

Network::Network(U64 seed, Settings settings, Families families)
    : settings_(std::move(settings)),
      families_(std::move(families)),
      random_(seed),
      wheel_(Vel::create<Zanth::TimerWheel>([this] { return now_; })) {
  srand48(static_cast<long>(random_.bits32()));
}

Network::~Network() = default;

U32 Network::lanIs(std::set<U32> const& routers) {
  U32 const lan = lanCount();
  lans_.emplace_back().routers = routers;
  for (U32 const router : routers) {
    while (routers_.size() <= router) {
      routers_.push_back(std::make_unique<Router>(*this, routerCount()));
      start(*routers_.back());
    }
    interfaceIs(*routers_[router], lan);
  }
  return lan;
}

void Network::start(Router& router) {
  router.delivered.clear();
  router.speaker = std::make_unique<Speaker::Speaker>(
      wheel_, router, Speaker::SpeakerSettings{.seed = random_.bits(), .observer = &router});
  for (U32 lan = 0; lan < lanCount(); ++lan)
    if (lans_[lan].routers.contains(router.number)) interfaceIs(router, lan);
  for (Wish const& wish : router.wishes) tell(router, wish);
}

void Network::interfaceIs(Router& router, U32 lan) {
  if (!router.speaker) return;
  std::vector<Dova::IpGenPrefix> addresses;
  for (AddressFamily const family : families_)
    addresses.emplace_back(addressOf(lan, router.number, family), family == AddressFamily::ipv4 ? 16 : 64);
  router.speaker->interfaceIs(nameOf(lan), addresses, settings_(router.number));
}

void Network::tell(Router& router, Wish const& wish) {
  if (!router.speaker) return;
  auto& upstream = router.speaker->upstream();
  if (isPruneOfTree(wish.route)) {
    upstream.pruneIs(keyOf(wish.route));
    return;
  }
  AddressFamily const family = wish.route.group.af();
  IpGenAddr const rp(family == AddressFamily::ipv4 ? "10.255.0.1" : "2001:db8::1");
  upstream.joinIs(keyOf(wish.route),
                  {Dova::IntfId(nameOf(wish.lan)), addressOf(wish.lan, wish.upstream, family)},
                  isTree(wish.route) ? rp : IpGenAddr());
}

void Network::want(U32 router, Wish const& wish) {
  Router& who = *routers_.at(router);
  who.wishes.erase(wish);
  who.wishes.insert(wish);
  tell(who, wish);
}

void Network::leave(U32 router, Route route) {
  Router& who = *routers_.at(router);
  who.wishes.erase(Wish{route});
  if (!who.speaker) return;
  if (isPruneOfTree(route))
    who.speaker->upstream().pruneDel(keyOf(route));
  else
    who.speaker->upstream().joinDel(keyOf(route));
}

void Network::restart(U32 router) {
  vanish(router);
  start(*routers_.at(router));
}

void Network::vanish(U32 router) {
  routers_.at(router)->speaker = nullptr;
  routers_.at(router)->delivered.clear();
}

void Network::end(U32 router) {
  if (auto* const speaker = routers_.at(router)->speaker.get()) speaker->shutDown();
  vanish(router);
}

void Network::runFor(Seconds time) {
  Seconds const end = now_ + time;
  while (true) {
    Seconds const packet = underway_.empty() ? Vel::never : underway_.top().arrival;
    Seconds const next = std::min(packet, wheel_->timeMin());
    if (next > end) break;
    now_ = std::max(now_, next);
    if (packet <= now_) {
      Delivery const delivery = underway_.top();
      underway_.pop();
      receive(delivery);
    } else {
      wheel_->expire();
    }
  }
  now_ = end;
}

Sent Network::Router::send(Speaker::Outgoing const& packet) {
  if (network.alsoTo_) network.alsoTo_(packet);
  network.deliver(static_cast<U32>(std::stoul(packet.intf.name().substr(3))), number, packet);
  return Sent::done;
}

void Network::deliver(U32 lan, U32 from, Speaker::Outgoing const& outgoing) {
  Lan& place = lans_[lan];
  Packet sent{lan,
              nameOf(lan),
              outgoing.source,
              outgoing.destination,
              {outgoing.bytes.begin(), outgoing.bytes.end()}};
  IpGenAddr upstream;
  if (Wire::isPimType(sent.bytes, Wire::PimType::joinPrune)) {
    auto decoded = Wire::decodeJoinPrune(sent.bytes, sent.source, sent.destination);
    sent.joinPrune = std::move(std::get<Wire::JoinPrune>(decoded));
    upstream = sent.joinPrune->upstreamNeighbor();
    noteSent(*sent.joinPrune);
  } else {
    ++totals_.hellos;
  }
  auto const packet = std::make_shared<Packet const>(std::move(sent));
  // A PruneEcho is for all that hear it.
  bool const isForOne = !upstream.isZero() && upstream != packet->source;
  if (now_ >= place.cutUntil && happens(faults_.cut)) {
    place.cutUntil = now_ + 20;
    place.cutAt = below(routerCount());
  }
  bool const isCut = now_ < place.cutUntil;
  for (U32 const to : place.routers) {
    if (to == from) continue;
    bool const isUnheard =
        isForOne && upstream != addressOf(lan, to, upstream.af()) && happens(faults_.unheard);
    if (isUnheard || (isCut && (from < place.cutAt) != (to < place.cutAt)) || happens(faults_.loss)) {
      ++totals_.lost;
      continue;
    }
    for (int copies = happens(faults_.duplicate) ? 2 : 1; copies > 0; --copies) {
      Seconds arrival = now_ + random_.between(0, faults_.delay);
      if (faults_.delay > 0 && !faults_.reorder) {
        Seconds& latest = place.latest[{from, to}];
        arrival = latest = std::max(latest, arrival);
      }
      underway_.push({arrival, ++packets_, to, packet});
    }
  }
}

void Network::receive(Delivery const& delivery) {
  Router& router = *routers_[delivery.router];
  if (!router.speaker) return;
  auto const& packet = *delivery.packet;
  auto const verdict = router.speaker->receive(
      {.intf = packet.intf, .source = packet.source, .destination = packet.destination, .ttl = 1},
      packet.bytes);
  if (verdict == Speaker::Verdict::joinPrune) noteDelivered(router, packet);
}

void Network::noteSent(Wire::JoinPrune const& message) {
  ++totals_.joinPrunes;
  for (auto const& group : message.groups())
    for (auto const& join : group.joins()) {
      ++joinsSent_;
      ++joinsSentOf_[routeOf(join, group.group())];
    }
}

U64 Network::joinsSent(Route const& route) const {
  auto const found = joinsSentOf_.find(route);
  return found == joinsSentOf_.end() ? 0 : found->second;
}

void Network::noteDelivered(Router& router, Packet const& packet) {
  auto const& message = *packet.joinPrune;
  auto const* const downstream = router.speaker->downstream(packet.intf, packet.source.af());
  for (auto const& group : message.groups())
    for (auto const& join : group.joins()) {
      Speaker::RouteKind const kind = Speaker::routeKindOf(join.kind);
      if (kind == Speaker::RouteKind::sourceRpt) continue;
      Route const route = kind == Speaker::RouteKind::wildcard ? Route::wildcard(group.group())
                                                               : Route{kind, join.address, group.group()};
      router.delivered[{packet.intf, route}] = {now_, static_cast<Seconds>(message.holdTime())};
      auto const stored = downstream->route(route);
      if (!stored || stored->state != DownstreamState::joined)
        wrongLosses_.push_back("router " + std::to_string(router.number) + " has not taken up " +
                               toText(route) + " at " + std::to_string(now_));
    }
}

void Network::Router::downstreamChanged(Speaker::DownstreamEvent const& event) {
  network.noteLoss(*this, event);
}

void Network::noteLoss(Router const& router, Speaker::DownstreamEvent const& event) {
  bool const hasExpired = event.change == DownstreamChange::expired;
  if (!hasExpired && event.change != DownstreamChange::pruned) return;
  if (hasExpired) ++totals_.expired;
  std::string const what = "router " + std::to_string(router.number) + " on " + event.intf.name() + " has " +
                           std::string(text(event.change)) + " " + toText(event.route) + " at " +
                           std::to_string(now_);
  bool const isPrune = isPruneOfTree(event.route);
  auto const last = router.delivered.find({event.intf.name(), event.route});
  // Timers have the precision of the clock's double.
  if (hasExpired && last != router.delivered.end() && now_ < last->second.first + last->second.second - 1e-6)
    wrongLosses_.push_back(what + ", joined at " + std::to_string(last->second.first));
  if (!areWantedLossesNoted_) return;
  auto const wanted = wantedFrom(static_cast<U32>(std::stoul(event.intf.name().substr(3))), router.number);
  // A source that is pruned while no router has joined the tree is pruned off nothing.
  bool const isWrong = isPrune ? !hasExpired && wanted.contains(Route::wildcard(event.route.group)) &&
                                     !wanted.contains(event.route)
                               : wanted.contains(event.route);
  if (isWrong) wantedLosses_.push_back(what);
}

U32 Network::wantedBy(Wish const& wish) const {
  U32 count = 0;
  for (auto const& router : routers_) {
    auto const found = router->wishes.find(wish);
    count += found != router->wishes.end() && found->lan == wish.lan && found->upstream == wish.upstream;
  }
  return count;
}

std::set<Route> Network::wantedFrom(U32 lan, U32 upstream) const {
  std::set<Route> wanted;
  std::map<IpGenAddr, U32> trees;  // how many routers have joined (*,G) here
  std::map<Route, U32> prunes;     // and how many of them have pruned a source
  for (U32 const router : lans_[lan].routers) {
    if (router == upstream || !isThere(router)) continue;
    auto const& wishes = routers_[router]->wishes;
    std::set<IpGenAddr> joined;
    for (Wish const& wish : wishes) {
      if (isPruneOfTree(wish.route) || wish.lan != lan || wish.upstream != upstream) continue;
      wanted.insert(wish.route);
      if (isTree(wish.route)) joined.insert(wish.route.group);
    }
    for (IpGenAddr const& group : joined) ++trees[group];
    for (Wish const& wish : wishes)
      if (isPruneOfTree(wish.route) && joined.contains(wish.route.group)) ++prunes[wish.route];
  }
  // A source is cut off if all that have joined the tree want that.
  for (auto const& [route, count] : prunes)
    if (count == trees[route.group]) wanted.insert(route);
  return wanted;
}

std::set<Route> Network::storedBy(U32 lan, U32 upstream) const {
  std::set<Route> stored;
  for (AddressFamily const family : families_)
    for (auto const& route : speaker(upstream)->downstream(nameOf(lan), family)->routes()) {
      // A prune that another router is about to override does not count yet.
      if (!isPruneOfTree(route.route) || route.state == DownstreamState::pruned) stored.insert(route.route);
    }
  return stored;
}

std::set<U32> Network::upstreamsOn(U32 lan) const {
  std::set<U32> upstreams;
  for (U32 const router : lans_[lan].routers)
    for (Wish const& wish : routers_[router]->wishes)
      if (wish.lan == lan) upstreams.insert(wish.upstream);
  return upstreams;
}

std::vector<std::string> Network::differences() const {
  std::vector<std::string> found;
  for (U32 lan = 0; lan < lanCount(); ++lan) {
    // Of the others nothing is wanted, and a LAN may have very many of them.
    std::set<U32> const upstreams = upstreamsOn(lan);
    for (U32 const router : lans_[lan].routers) {
      if (!isThere(router)) continue;
      auto const say = [&](char const* what, std::string const& which) {
        found.push_back("router " + std::to_string(router) + " on " + nameOf(lan) + what + which);
      };
      for (AddressFamily const family : families_)
        for (U32 const other : lans_[lan].routers) {
          bool const isKnown =
              speaker(router)->link(nameOf(lan), family)->neighborUp(addressOf(lan, other, family));
          if (other != router && isKnown != isThere(other))
            say(isKnown ? " still knows " : " does not know ", "router " + std::to_string(other));
        }
      auto const wanted = upstreams.contains(router) ? wantedFrom(lan, router) : std::set<Route>();
      auto const stored = storedBy(lan, router);
      for (Route const& route : wanted)
        if (!stored.contains(route)) say(" lacks ", toText(route));
      for (Route const& route : stored) {
        bool const isIdle = isPruneOfTree(route) && !stored.contains(Route::wildcard(route.group));
        if (!isIdle && !wanted.contains(route)) say(" has in excess ", toText(route));
      }
    }
  }
  return found;
}

std::vector<std::string> Network::leftovers() const {
  std::vector<std::string> found;
  for (U32 lan = 0; lan < lanCount(); ++lan)
    for (U32 const router : lans_[lan].routers) {
      if (!isThere(router)) continue;
      auto const stored = storedBy(lan, router);
      for (Route const& route : stored)
        if (isPruneOfTree(route) && !stored.contains(Route::wildcard(route.group)))
          found.push_back("router " + std::to_string(router) + " on " + nameOf(lan) + " still has " +
                          toText(route));
    }
  return found;
}

}  // namespace Routing::Pim::Networks
