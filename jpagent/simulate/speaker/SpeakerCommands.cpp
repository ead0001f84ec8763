// SPDX-License-Identifier: Apache-2.0
#include "jpagent/simulate/speaker/SpeakerCommands.h"

#include "jpagent/simulate/Inside.h"

namespace Routing::Pim::Jpagent {

namespace {

// Speaks of the route that a command names, whatever its entry would be.
Speaker::Route named(RouteEntry const& entry) {
  if (isWildcard(entry.kind)) return Speaker::Route::wildcard(entry.group);
  return {Speaker::routeKindOf(entry.kind), entry.source, entry.group};
}

RouteKey keyOf(Speaker::Route const& route) { return {route.source, route.group}; }

Routes each(RouteRange const& range) {
  Routes routes;
  routes.add(range);
  return routes;
}

}  // namespace

// By any address of a neighbor. One that is not there yet is on the interface whose addresses it fits, or on
// the only one.
Speaker::UpstreamNeighbor SpeakerCommands::upstreamOf(SpeakerNeighborName const& name) {
  if (!name.intf.empty()) {
    requireInterface(name.intf);
    return {Dova::IntfId(name.intf), name.address};
  }
  auto const places = this->places();
  std::vector<std::string> up, fitting;
  for (auto const& [intf, addresses] : places) {
    auto const* const link = speaker().link(intf, name.address.af());
    if (link != nullptr && link->neighborOf(name.address)) up.push_back(intf);
    for (auto const& prefix : addresses) {
      if (!prefix.contains(name.address)) continue;
      fitting.push_back(intf);
      break;
    }
  }
  if (up.size() == 1) return {Dova::IntfId(up.front()), name.address};
  if (up.empty() && fitting.size() == 1) return {Dova::IntfId(fitting.front()), name.address};
  if (up.empty() && fitting.empty() && places.size() == 1)
    return {Dova::IntfId(places.front().intf), name.address};
  refuse("{} may be on several interfaces or on none: name it as {}%INTERFACE", toText(name.address),
         toText(name.address));
}

void SpeakerCommands::join(SpeakerJoinCommand const& command) {
  auto const upstream = upstreamOf(command.via);
  auto const move = command.assert ? Speaker::UpstreamMove::assert : Speaker::UpstreamMove::routing;
  auto const rpFor = [&](RouteEntry const& entry) {
    if (!isWildcard(entry.kind)) return IpGenAddr();
    return entry.source == IpGenAddr() ? rpOf(entry.group) : entry.source;
  };
  for (auto const& entry : each(command.routes))
    if (isWildcard(entry.kind) && rpFor(entry) == IpGenAddr())
      refuse("expected \"rp\" and the address of an RP: none is known for {}", toText(entry.group));
  for (auto const& entry : each(command.routes))
    speaker().upstream().joinIs(keyOf(named(entry)), upstream, rpFor(entry), move);
}

void SpeakerCommands::leave(RouteRange const& routes) {
  auto& upstream = speaker().upstream();
  for (auto const& entry : each(routes))
    if (upstream.sending(named(entry)) == Speaker::Sending::notWanted)
      refuse("{} is not wanted", toText(named(entry)));
  for (auto const& entry : each(routes)) upstream.joinDel(keyOf(named(entry)));
}

void SpeakerCommands::prune(RouteRange const& routes) {
  for (auto const& entry : each(routes))
    if (speaker().upstream().pruneIs(keyOf(named(entry)))) ++pruned_;
}

void SpeakerCommands::unprune(RouteRange const& routes) {
  auto& upstream = speaker().upstream();
  for (auto const& entry : each(routes))
    if (upstream.sending(named(entry)) == Speaker::Sending::notWanted)
      refuse("{} is not pruned", toText(named(entry)));
  for (auto const& entry : each(routes))
    if (upstream.pruneDel(keyOf(named(entry)))) --pruned_;
}

}  // namespace Routing::Pim::Jpagent
