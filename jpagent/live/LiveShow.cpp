// SPDX-License-Identifier: Apache-2.0
// What `show` shows.
#include <map>

#include "jpagent/live/Inside.h"
#include "runtime/vel/Text.h"

namespace Routing::Pim::Jpagent::Live {

namespace {

// To the millisecond: what is left of a time changes all the while.
Json secondsLeft(Seconds time, Seconds now) {
  if (time == Vel::never) return nullptr;
  return std::round(std::max(0.0, time - now) * 1000) / 1000;
}

std::string_view stateOf(Speaker::UpstreamRoute const& route) {
  using enum Speaker::Sending;
  switch (route.sending) {
    case sent:
      return route.route.kind == Speaker::RouteKind::sourceRpt ? "pruned" : "joined";
    case suppressed:
      return "suppressed";
    case notWanted:
    case noInterface:
    case neighborDown:
    case noSharedTree:
      break;
  }
  return "waiting";
}

// Without a fraction if there is none.
Json secondsShown(Seconds seconds) {
  if (seconds == std::floor(seconds)) return static_cast<U64>(seconds);
  return seconds;
}

Json settingsShown(SpeakerInterfaceSettings const& settings) {
  auto const& delay = settings.hello.lanPruneDelay;
  return {{"hello", settings.hello.period},
          {"hello_hold", Speaker::announcedHoldTime(settings.hello)},
          {"hello_delay", settings.hello.triggeredDelay},
          {"interval", secondsShown(settings.joinPruneInterval)},
          {"hold", settings.joinPruneHoldTime},
          {"override", delay.overrideInterval / 1000.0},
          {"propagation", delay.propagationDelay / 1000.0},
          {"priority", settings.hello.drPriority},
          {"tracking", delay.tracking},
          {"neighbors_most", settings.hello.maxNeighbors},
          {"routes_most", settings.downstream.routes},
          {"neighbor_routes_most", settings.downstream.routesOfNeighbor}};
}

}  // namespace

void LiveSpeaker::show(SpeakerSubject subject) {
  lookAtWishes();
  reply_->event.members["result"] = shown(subject);
}

Json LiveSpeaker::shown(SpeakerSubject subject) const {
  switch (subject) {
    case SpeakerSubject::interfaces:
      return interfacesShown();
    case SpeakerSubject::neighbors:
      return neighborsShown();
    case SpeakerSubject::upstream:
      return upstreamShown();
    case SpeakerSubject::downstream:
      return downstreamShown();
    case SpeakerSubject::counters:
      return countersShown();
  }
  return nullptr;
}

// An interface has the values of its first family that is up, beside those of each.
Json LiveSpeaker::interfacesShown() const {
  Json all = Json::array();
  for (auto const& [name, interface] : interfaces_) {
    Json addresses = Json::array(), ofFamilies = Json::array();
    if (interface.kernel)
      for (auto const& address : interface.kernel->addresses) addresses.push_back(toText(address));
    for (auto const family : families)
      if (interface.told[indexOf(family)]) ofFamilies.push_back(familyShown(name, interface, family));
    bool const isUp = !ofFamilies.empty();
    Json row = {{"interface", name},
                {"addresses", std::move(addresses)},
                {"mtu", interface.kernel ? Json(interface.kernel->mtu) : Json(nullptr)},
                {"state", isUp ? "up" : "down"}};
    for (auto const* member : {"dr", "effective_propagation", "effective_override", "suppression"})
      row[member] = isUp ? ofFamilies.front()[member] : Json(nullptr);
    row.update(settingsShown(interface.settings));
    row["families"] = std::move(ofFamilies);
    all.push_back(std::move(row));
  }
  return all;
}

Json LiveSpeaker::familyShown(std::string const& name, Interface const& interface,
                              Dova::AddressFamily family) const {
  auto const* const link = speaker_->link(name, family);
  return {{"address", toText(interface.told[indexOf(family)]->address)},
          {"dr", toText(speaker_->designatedRouter(name, family))},
          {"neighbors", link->neighborCount()},
          {"effective_propagation", link->propagationDelay()},
          {"effective_override", link->overrideInterval()},
          {"suppression", link->suppressionAllowed()}};
}

Json LiveSpeaker::neighborsShown() const {
  Json all = Json::array();
  for (auto const& [intf, info, isDesignatedRouter] : speaker_->neighbors()) {
    Json addresses = Json::array();
    for (auto const& address : info.addresses) addresses.push_back(toText(address));
    all.push_back({{"state", "up"},
                   {"interface", intf.name()},
                   {"address", toText(info.address)},
                   {"hold", info.holdTime},
                   {"generation", orNull(info.generationId)},
                   {"dr_priority", orNull(info.options.drPriority)},
                   {"expires", secondsLeft(info.expires, now_)},
                   {"addresses", std::move(addresses)},
                   {"dr", isDesignatedRouter},
                   {"restarts", info.restarts}});
  }
  return all;
}

Json LiveSpeaker::upstreamShown() const {
  // Many routes have few neighbors.
  struct Via {
    std::string address;
    Json next;
  };
  std::map<std::pair<Dova::IntfId, IpGenAddr>, Via> known;
  auto const viaOf = [&](Speaker::UpstreamNeighbor const& upstream) -> Via const& {
    auto const [place, isNew] = known.try_emplace({upstream.intf, upstream.address});
    if (isNew) {
      auto const* const link = speaker_->link(upstream.intf.name(), upstream.address.af());
      auto const primary = link ? link->neighborOf(upstream.address) : std::nullopt;
      place->second = {toText(primary.value_or(upstream.address)),
                       secondsLeft(speaker_->nextRefresh(upstream), now_)};
    }
    return place->second;
  };
  Json all = Json::array();
  for (auto const& route : speaker_->upstream().routes()) {
    bool const isWild = route.route.kind == Speaker::RouteKind::wildcard;
    Json row = {{"route", toText(route.route)}, {"rp", isWild ? Json(toText(route.rp)) : Json(nullptr)}};
    row["via"] = route.upstream ? Json(viaOf(*route.upstream).address) : Json(nullptr);
    row["interface"] = route.upstream ? Json(route.upstream->intf.name()) : Json(nullptr);
    row["state"] = stateOf(route);
    row["next"] = route.upstream ? viaOf(*route.upstream).next : Json(nullptr);
    all.push_back(std::move(row));
  }
  return all;
}

Json LiveSpeaker::downstreamShown() const {
  Json all = Json::array();
  for (auto const& [intf, route] : speaker_->downstream()) {
    all.push_back({{"interface", intf.name()},
                   {"route", toText(route.route)},
                   {"rp", route.rp ? Json(toText(*route.rp)) : Json(nullptr)},
                   {"state", Speaker::text(route.state)},
                   {"expires", secondsLeft(route.expires, now_)},
                   {"prune_pending", secondsLeft(route.pruneEnds, now_)},
                   {"neighbor", toText(route.sender)}});
  }
  return all;
}

}  // namespace Routing::Pim::Jpagent::Live
