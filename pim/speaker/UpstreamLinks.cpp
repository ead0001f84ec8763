#include <algorithm>
#include <array>

#include "pim/speaker/private/UpstreamInside.h"

namespace Routing::Pim::Speaker {

using namespace Detail;

std::string_view text(Sending sending) {
  static constexpr std::array<std::string_view, 6> names = {"sent",          "not wanted", "no interface",
                                                            "neighbor down", "suppressed", "no shared tree"};
  return names[static_cast<std::size_t>(sending)];
}

// --- Links and neighbors -------------------------------------------------------------------------

LinkObserver& UpstreamRoutes::linkIs(Link& link) {
  auto& place = slots_[{link.intf(), link.family()}];
  if (!place) place = std::make_unique<Slot>(*this, link.intf());
  Slot& slot = *place;
  if (slot.link == &link) return slot;
  slot.link = &link;
  // What is there already.
  Life::Watch const watch(slot.life);
  std::vector<IpGenAddr> neighbors;
  for (auto const& [address, target] : slot.targets)
    if (auto const neighbor = link.neighborOf(address)) neighbors.push_back(*neighbor);
  for (IpGenAddr const& neighbor : neighbors)
    if (!watch.ended() && slot.link == &link) up(slot, neighbor);
  return slot;
}

void UpstreamRoutes::linkDel(Link& link) {
  Slot* const slot = findSlot(link.intf(), link.family());
  if (!slot || slot->link != &link) return;
  ++changes_;
  slot->link = nullptr;
  for (auto& [address, target] : slot->targets) {
    target.neighbor = IpGenAddr();
    if (target.timer) target.timer->timeMinIs(Vel::never);
  }
  if (slot->targets.empty()) slots_.erase(slots_.find({link.intf(), link.family()}));
}

void UpstreamRoutes::up(Slot& slot, IpGenAddr const& neighbor) {
  Life::Watch const watch(slot.life);
  std::vector<IpGenAddr> waiting;
  for (auto const& [address, target] : slot.targets)
    if (!target.isUp() && slot.link->neighborOf(address) == neighbor) waiting.push_back(address);
  std::sort(waiting.begin(), waiting.end());
  for (IpGenAddr const& address : waiting) {
    auto const found = slot.targets.find(address);
    if (found == slot.targets.end() || found->second.isUp()) continue;
    found->second.neighbor = neighbor;
    found->second.restarted = -Vel::never;
    ++changes_;
    forEachRoute(found->second, [this](Joined& joined) {
      joined.suppressedUntil = joined.heardUntil = -Vel::never;
      writeJoin(joined, true);
    });
    if (watch.ended() || !slot.link || !slot.link->neighborUp(neighbor)) return;
  }
}

void UpstreamRoutes::down(Slot& slot, IpGenAddr const& neighbor) {
  bool wasUp = false;
  for (auto& [address, target] : slot.targets) {
    if (!(target.neighbor == neighbor)) continue;
    wasUp = true;
    target.neighbor = IpGenAddr();
    if (target.timer) target.timer->timeMinIs(Vel::never);
  }
  if (!wasUp) return;
  ++changes_;
  // The engine keeps the neighbor's machine until there is nothing to refresh.
  Life::Watch const watch(life_);
  Place const place = placeOf(slot, neighbor);
  // If what is called lets the neighbor come back, the routes towards it have been written by then.
  auto const mayTake = [&](Route const& route) {
    return !isWantedFrom(place, route.kind == RouteKind::wildcard ? anySource(route.group)
                                                                  : RouteKey(route.source, route.group));
  };
  auto const current = [&] { return !watch.ended(); };
  for (auto const& data : {place.triggered, place.overriding, place.periodic})
    if (!drain(data, mayTake, current)) return;
}

void UpstreamRoutes::restarted(Slot& slot, IpGenAddr const& neighbor) {
  Life::Watch const watch(slot.life);
  std::vector<IpGenAddr> affected;
  for (auto const& [address, target] : slot.targets)
    if (target.neighbor == neighbor) affected.push_back(address);
  std::sort(affected.begin(), affected.end());
  for (IpGenAddr const& address : affected) {
    auto const found = slot.targets.find(address);
    if (found == slot.targets.end() || !found->second.isUp()) continue;
    Target& target = found->second;
    // A neighbor that restarts with each Hello is not to cost a walk over its routes each time.
    Seconds const next = target.restarted + slot.link->overrideInterval();
    if (slot.now() >= next) {
      restart(target);
      if (watch.ended() || !slot.link) return;
      continue;
    }
    if (!target.timer) {
      target.timer = Vel::create<RestartTimer>(this, &target);
      target.timer->notifierIs(slot.link->wheel());
    }
    if (!target.timer->armed()) target.timer->timeMinIs(next);
  }
}

// The neighbor has forgotten what it was told: joins after t_override (RFC 7761, 4.5.4 and 4.5.5).
void UpstreamRoutes::restart(Target& target) {
  if (!target.isUp()) return;
  target.restarted = target.slot.now();
  forEachRoute(target, [this](Joined& joined) {
    joined.suppressedUntil = joined.heardUntil = -Vel::never;
    writeJoin(joined, false);
  });
}

// --- Showing -------------------------------------------------------------------------------------

U32 UpstreamRoutes::joinedTowards(UpstreamNeighbor const& upstream) const {
  Target const* const target = findTarget(upstream);
  return target ? target->joined : 0;
}

Sending UpstreamRoutes::sendingOf(Joined const& joined) const {
  Target const& target = *joined.target;
  if (!target.slot.link || target.slot.link->primaryAddress().af() == AddressFamily::unknown)
    return Sending::noInterface;
  if (!target.isUp()) return Sending::neighborDown;
  return isLeftOut(joined) ? Sending::suppressed : Sending::sent;
}

Sending UpstreamRoutes::sending(Route const& route) const {
  if (route.kind != RouteKind::sourceRpt) {
    Joined const* const joined = find(
        route.kind == RouteKind::wildcard ? anySource(route.group) : RouteKey(route.source, route.group));
    return joined ? sendingOf(*joined) : Sending::notWanted;
  }
  auto const group = groups_.find(route.group);
  if (group == groups_.end() || !group->second.prunes.contains(route.source)) return Sending::notWanted;
  return group->second.wildcard ? sendingOf(*group->second.wildcard) : Sending::noSharedTree;
}

std::vector<UpstreamRoute> UpstreamRoutes::routes() const {
  std::vector<UpstreamRoute> all;
  all.reserve(joined_.size());
  auto const upstreamOf = [](Joined const& joined) {
    return UpstreamNeighbor{joined.target->slot.intf, joined.target->address};
  };
  for (auto const& [key, joined] : joined_)
    all.push_back({joined.route, upstreamOf(joined), joined.rp, sendingOf(joined)});
  for (auto const& [address, group] : groups_) {
    for (IpGenAddr const& source : group.prunes) {
      Route const route{RouteKind::sourceRpt, source, address};
      Joined const* const wildcard = group.wildcard;
      all.push_back(
          {route, wildcard ? std::optional(upstreamOf(*wildcard)) : std::nullopt, {}, sending(route)});
    }
  }
  std::sort(all.begin(), all.end(),
            [](UpstreamRoute const& a, UpstreamRoute const& b) { return a.route < b.route; });
  return all;
}

std::vector<UpstreamTarget> UpstreamRoutes::targets() const {
  std::vector<UpstreamTarget> all;
  for (auto const& [key, slot] : slots_)
    for (auto const& [address, target] : slot->targets)
      all.push_back({{slot->intf, address}, target.isUp(), target.joined});
  std::sort(all.begin(), all.end(), [](UpstreamTarget const& a, UpstreamTarget const& b) {
    return std::pair(a.upstream.intf, a.upstream.address) < std::pair(b.upstream.intf, b.upstream.address);
  });
  return all;
}

}  // namespace Routing::Pim::Speaker
