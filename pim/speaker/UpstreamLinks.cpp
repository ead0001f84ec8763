// SPDX-License-Identifier: Apache-2.0
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
  Slot& slot = slotIs(link.intf(), link.family());
  if (slot.link == &link) return slot;
  try {
    slot.timers.emplace(link.wheel(), slot);
  } catch (...) {  // no memory
    releaseSlot(slot);
    throw;
  }
  slot.link = &link;
  slot.told("linkIs", [&] { followAddresses(slot); });  // What is there already.
  return slot;
}

void UpstreamRoutes::linkDel(Link& link) {
  Slot* const slot = findSlot(link.intf(), link.family());
  if (!slot || slot->link != &link) return;
  ++changes_;
  slot->link = nullptr;
  slot->timers.reset();
  slot->groupsWalked.clear();
  slot->forTargets([](Target& target) { target.neighborIs({}); });
  releaseSlot(*slot);
}

// Targets whose address belongs to another neighbor than it did, or to one at last, or to none.
void UpstreamRoutes::followAddresses(Slot& slot) {
  Life::Watch const watch(slot.life);
  Link const* const link = slot.link;
  std::vector<IpGenAddr> moving;
  for (auto const& [address, target] : slot.targets) {
    IpGenAddr const owner = ownerOf(target);
    if (target.neighbor != owner) moving.push_back(address);
    // The engine had no memory for the neighbor's data sets, say. It makes them later.
    if (owner == IpGenAddr() && link && link->neighborOf(address)) {
      slot.isBehind = true;
      slot.catchUpLater();
    }
  }
  for (auto const& [address, target] : slot.departing) moving.push_back(address);
  std::sort(moving.begin(), moving.end());
  for (IpGenAddr const& address : moving) {
    follow(slot, address);
    if (watch.ended() || slot.link != link) return;
  }
}

void UpstreamRoutes::follow(Slot& slot, IpGenAddr const& address) {
  Life::Watch const watch(slot.life);
  auto const found = slot.targets.find(address);
  if (found != slot.targets.end() && found->second.neighbor != ownerOf(found->second)) {
    Target& target = found->second;
    if (!target.isUp()) {
      target.neighborIs(ownerOf(target));
      ++changes_;
      target.routes.takeAll(target.unwritten);
      forEachRoute(target, target.routes, [this](Joined& joined) {
        joined.suppressedUntil = joined.heardUntil = -Vel::never;
        writeJoin(joined, true);
      });
      return;
    }
    // Another target takes its place. Until the last route has moved there, both exist: a callback may change
    // any of them.
    slot.departing.reserve(slot.departing.size() + 1);  // so that nothing after this needs memory
    auto const departing = slot.departing.insert(slot.targets.extract(found));
    try {
      targetIs({slot.intf, address});
    } catch (...) {
      slot.targets.insert(slot.departing.extract(departing));
      throw;
    }
  }
  // Of several, in any order: each route moves once. What is being moved elsewhere is left alone.
  for (;;) {
    auto const [begin, end] = slot.departing.equal_range(address);
    auto const due = std::find_if(begin, end, [](auto const& one) { return one.second.first(false); });
    if (due == end) break;
    Target const& departing = due->second;
    // One that has ended is told nothing, though this may be told of it later.
    bool const isPruned = departing.isUp() && slot.link && slot.link->neighborUp(departing.neighbor);
    Joined& joined = *departing.first(false);
    move(joined, {slot.intf, address}, joined.rp, {isPruned, true});
    if (watch.ended()) return;
  }
  if (Target* const target = findTarget({slot.intf, address})) releaseTarget(*target);
}

// What had no memory.
void UpstreamRoutes::catchUp(Slot& slot) {
  Life::Watch const watch(slot.life);
  Link const* const link = slot.link;
  slot.told("catchUp", [&] {
    if (std::exchange(slot.isBehind, false)) followAddresses(slot);
    if (watch.ended() || !link || slot.link != link) return;
    std::vector<IpGenAddr> behind;
    for (auto const& [address, target] : slot.targets)
      if (!target.unwritten.alone()) behind.push_back(address);
    std::sort(behind.begin(), behind.end());
    for (IpGenAddr const& address : behind) {
      auto const found = slot.targets.find(address);
      if (found == slot.targets.end()) continue;
      Target& target = found->second;
      forEachRoute(target, target.unwritten, [this](Joined& joined) { writeJoin(joined, true); });
      if (watch.ended() || slot.link != link) return;
    }
  });
}

void UpstreamRoutes::down(Slot& slot, IpGenAddr const& neighbor) {
  bool wasUp = false;
  slot.forTargets([&](Target& target) {
    if (target.neighbor != neighbor) return;
    wasUp = true;
    target.neighborIs({});
  });
  if (!wasUp) return followAddresses(slot);
  ++changes_;
  // The engine keeps the neighbor's machine until there is nothing to refresh.
  Life::Watch const watch(slot.life);
  Place const place = placeOf(slot, neighbor);
  // If what is called lets the neighbor come back, the routes towards it have been written by then. Until
  // something has changed, nothing is wanted from it.
  auto const mayTake = [&, seen = changes_](Route const& route) {
    return changes_ == seen ||
           !isWantedFrom(place, route.kind == RouteKind::wildcard ? anySource(route.group)
                                                                  : RouteKey(route.source, route.group));
  };
  auto const current = [&] { return !watch.ended(); };
  for (auto const& data : {place.triggered, place.overriding, place.periodic})
    if (!drain(data, mayTake, current)) return;
  if (slot.link) followAddresses(slot);  // Another one may list its addresses.
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
  target.routes.takeAll(target.unwritten);
  forEachRoute(target, target.routes, [this](Joined& joined) {
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
