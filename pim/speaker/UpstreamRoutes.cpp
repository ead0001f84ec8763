// SPDX-License-Identifier: Apache-2.0
#include "pim/speaker/UpstreamRoutes.h"

#include "pim/speaker/private/UpstreamInside.h"
#include "runtime/vel/Exception.h"

namespace Routing::Pim::Speaker {

using namespace Detail;

namespace {

Route routeOf(RouteKey const& key) {
  return key.source().isZero() ? Route::wildcard(key.group())
                               : Route{RouteKind::source, key.source(), key.group()};
}

// With the unspecified address of the family as the source of a (*,G), whatever the caller has.
RouteKey normal(RouteKey const& key) { return key.source().isZero() ? anySource(key.group()) : key; }

[[noreturn]] void refuse(Route const& route, std::string const& why) {
  throw Vel::RangeException("upstream route " + toText(route) + ": " + why);
}

void refuseUnlessSendable(Route const& route, IpGenAddr const& named, AddressFamily family) {
  auto const what = route.kind == RouteKind::wildcard ? "RP " : "source ";
  if (auto const fault = Wire::groupFault(route.group, family))
    refuse(route, "group: " + std::string(text(*fault)));
  if (auto const fault = Wire::sourceFault(named, family))
    refuse(route, what + toText(named) + ": " + std::string(text(*fault)));
}

}  // namespace

UpstreamRoutes::UpstreamRoutes() = default;
UpstreamRoutes::~UpstreamRoutes() = default;

// --- Wishes --------------------------------------------------------------------------------------

void UpstreamRoutes::joinIs(RouteKey const& wanted, UpstreamNeighbor const& upstream, IpGenAddr const& rp,
                            UpstreamMove because) {
  RouteKey const key = normal(wanted);
  Route const route = routeOf(key);
  bool const isWildcard = route.kind == RouteKind::wildcard;
  if (upstream.intf.name().empty()) refuse(route, "the upstream neighbor has no interface");
  if (auto const fault = Wire::upstreamFault(upstream.address))
    refuse(route, "upstream neighbor " + toText(upstream.address) + ": " + std::string(text(*fault)));
  refuseUnlessSendable(route, isWildcard ? rp : route.source, upstream.address.af());
  IpGenAddr const kept = isWildcard ? rp : IpGenAddr();
  Joined* const joined = find(key);
  if (!joined) return create(key, upstream, kept);
  if (findTarget(upstream) != joined->target) return move(*joined, upstream, kept, mannerOf(because));
  if (joined->rp == kept) return;
  joined->rp = kept;
  joined->version = ++changes_;
  joined->suppressedUntil = joined->heardUntil = -Vel::never;
  writeJoin(*joined, true);
}

void UpstreamRoutes::create(RouteKey const& key, UpstreamNeighbor const& upstream, IpGenAddr const& rp) {
  Target& target = targetIs(upstream);
  Joined* created = nullptr;
  try {
    Group& group = groupIs(key.group());
    created = &joined_[key];
    created->group = &group;
  } catch (...) {  // no memory
    releaseGroup(key.group());
    releaseTarget(target);
    throw;
  }
  created->route = routeOf(key);
  created->target = &target;
  created->rp = rp;
  created->version = ++changes_;
  ++target.joined;
  created->TargetHook::join(target.routes);
  if (created->route.kind == RouteKind::wildcard)
    created->group->wildcard = created;
  else
    created->GroupHook::join(created->group->sources);
  writeJoin(*created, true);
}

bool UpstreamRoutes::joinDel(RouteKey const& wanted) {
  RouteKey const key = normal(wanted);
  Joined* const joined = find(key);
  if (!joined) return false;
  Target& target = *joined->target;
  Place const place = placeOf(target);
  Route const route = joined->route;
  IpGenAddr const rp = joined->rp;
  joined->TargetHook::leave();
  joined->GroupHook::leave();
  if (joined->group->wildcard == joined) joined->group->wildcard = nullptr;
  joined_.erase(joined_.find(key));
  --target.joined;
  releaseTarget(target);
  releaseGroup(key.group());
  ++changes_;
  writeLeave(place, route, rp, true);
  return true;
}

void UpstreamRoutes::move(Joined& joined, UpstreamNeighbor const& upstream, IpGenAddr const& rp,
                          Manner manner) {
  Target& target = targetIs(upstream);
  Target& old = *joined.target;
  bool const isSameNeighbor = &old.slot == &target.slot && old.neighbor == target.neighbor;
  if (isSameNeighbor && rp == joined.rp && isSettled(old)) return rename(joined, target);
  Place const place = placeOf(old);
  Route const route = joined.route;
  IpGenAddr const oldRp = joined.rp;
  joined.TargetHook::join(target.routes);
  joined.target = &target;
  joined.rp = rp;
  joined.version = ++changes_;
  joined.suppressedUntil = joined.heardUntil = -Vel::never;
  ++target.joined;
  --old.joined;
  releaseTarget(old);
  Writer writer(*this, keyOf(route), joined.version);
  writeLeave(place, route, oldRp, manner.isPruned);
  if (writer.current()) writeJoin(joined, manner.isAtOnce);
}

// Whether its neighbor has been told of all routes towards it, or is about to be.
bool UpstreamRoutes::isSettled(Target const& target) {
  return target.isUp() && target.unwritten.alone() && !target.firstToCome(false) &&
         !(target.timer && target.timer->armed());
}

// Another address of the neighbor that has the join: there is nothing to send.
void UpstreamRoutes::rename(Joined& joined, Target& target) {
  Target& old = *joined.target;
  joined.TargetHook::join(target.routes);
  joined.target = &target;
  ++target.joined;
  --old.joined;
  releaseTarget(old);
}

std::size_t UpstreamRoutes::moveAll(UpstreamNeighbor const& from, UpstreamNeighbor const& to,
                                    UpstreamMove because) {
  if (from == to || (!findTarget(from) && !findLeftBehind(from))) return 0;
  if (from.address.af() != to.address.af() || Wire::upstreamFault(to.address) || to.intf.name().empty())
    throw Vel::RangeException("upstream neighbor " + toText(to.address) +
                              ": cannot take over the routes of " + toText(from.address));
  Life::Watch const watch(life_);
  std::size_t moved = 0;
  auto const step = [&](Joined& joined) {
    ++moved;
    move(joined, to, joined.rp, mannerOf(because));
  };
  while (Joined* const joined = findLeftBehind(from)) {
    step(*joined);
    if (watch.ended()) return moved;
  }
  Target* target = findTarget(from);
  for (; target && !target->unwritten.alone(); target = findTarget(from)) {
    step(ofTarget(target->unwritten.next()));
    if (watch.ended()) return moved;
  }
  if (target) forEachRoute(*target, target->routes, step, true);
  return moved;
}

bool UpstreamRoutes::pruneIs(RouteKey const& key) {
  Route const route{RouteKind::sourceRpt, key.source(), key.group()};
  refuseUnlessSendable(route, key.source(), key.group().af());
  Group& group = groupIs(key.group());
  bool isNew = false;
  try {
    isNew = group.prunes.insert(key.source()).second;
  } catch (...) {  // no memory
    releaseGroup(key.group());
    throw;
  }
  if (!isNew) return false;
  ++changes_;
  writePrune(group, key.source(), true);
  return true;
}

bool UpstreamRoutes::pruneDel(RouteKey const& key) {
  auto const found = groups_.find(key.group());
  if (found == groups_.end() || found->second.prunes.erase(key.source()) == 0) return false;
  ++changes_;
  if (found->second.wildcard)
    writePrune(found->second, key.source(), false);
  else
    releaseGroup(key.group());
  return true;
}

// --- Into the data sets --------------------------------------------------------------------------

// A wish for a join: at once, or after t_override.
void UpstreamRoutes::writeJoin(Joined& joined, bool isAtOnce) {
  if (!joined.target->isUp()) return;
  RouteKey const key = keyOf(joined.route);
  if (!attempt("writeJoin", [&] { putJoin(joined, isAtOnce); })) writeLater(key);
}

// Needs no memory.
void UpstreamRoutes::writeLater(RouteKey const& key) {
  Joined* const joined = find(key);
  if (!joined) return;
  joined->TargetHook::join(joined->target->unwritten);
  joined->target->slot.catchUpLater();
}

void UpstreamRoutes::putJoin(Joined& joined, bool isAtOnce) {
  Place const place = placeOf(*joined.target);
  if (!place.periodic) return;
  Route const route = joined.route;
  IpGenAddr const rp = joined.rp;
  Writer writer(*this, keyOf(route), joined.version);
  auto const current = [&] { return writer.current(); };
  if (isAtOnce) {
    takeEntry(place.overriding, route, true);
    if (!current()) return;
  }
  // A (*,G) prune is replaced by the join.
  bool const isPending = !isAtOnce && hasEntry(place.triggered, route, true);
  if (route.kind == RouteKind::source || (!isAtOnce && !isPending)) takeEntry(place.triggered, route, false);
  if (!current()) return;
  if (!isPending && !putEntry(isAtOnce ? place.triggered : place.overriding, route, true, rp, current))
    return;
  if (!putEntry(place.periodic, route, true, rp, current) || route.kind == RouteKind::source) return;
  // The prunes of the group are sent with each (*,G) join from here on.
  Group const& group = *joined.group;
  std::vector<IpGenAddr> const prunes(group.prunes.begin(), group.prunes.end());
  for (IpGenAddr const& source : prunes) {
    auto const isWanted = [&] { return current() && group.prunes.contains(source); };
    if (isWanted())
      putEntry(place.periodic, {RouteKind::sourceRpt, source, route.group}, false, {}, isWanted);
    if (!current()) return;
  }
}

// The end of a join, with or without a prune. The prune is sent even if the join was not: an earlier join may
// be known to the neighbor. Ends early if what is called wants the route from that neighbor again.
void UpstreamRoutes::writeLeave(Place const& place, Route const& route, IpGenAddr const& rp, bool isPruned) {
  attempt("writeLeave", [&] { putLeave(place, route, rp, isPruned); });
}

void UpstreamRoutes::putLeave(Place const& place, Route const& route, IpGenAddr const& rp, bool isPruned) {
  Life::Watch const watch(life_);
  auto const current = [&, key = keyOf(route)] { return !watch.ended() && !isWantedFrom(place, key); };
  for (auto const& data : {place.periodic, place.overriding, place.triggered}) {
    takeEntry(data, route, true);
    if (!current()) return;
    if (route.kind == RouteKind::wildcard && !takeRptEntries(data, route.group, current)) return;
  }
  if (isPruned) putEntry(place.triggered, route, false, rp, current);
}

// An (S,G,rpt) prune that is wanted, or no longer. Stored alone as long as the (*,G) is not joined.
// Without memory its join is written later, which has the prunes of the group.
void UpstreamRoutes::writePrune(Group& group, IpGenAddr const& source, bool isPruned) {
  if (!group.wildcard || !group.wildcard->target->isUp()) return;
  RouteKey const key = keyOf(group.wildcard->route);
  if (!attempt("writePrune", [&] { putPrune(group, source, isPruned); })) writeLater(key);
}

void UpstreamRoutes::putPrune(Group& group, IpGenAddr const& source, bool isPruned) {
  Joined const* const wildcard = group.wildcard;
  Place const place = placeOf(*wildcard->target);
  Route const route{RouteKind::sourceRpt, source, group.address};
  Writer writer(*this, keyOf(wildcard->route), wildcard->version);
  auto const current = [&] { return writer.current() && group.prunes.contains(source) == isPruned; };
  if (isPruned) {
    takeEntry(place.overriding, route, true);
    if (current()) takeEntry(place.triggered, route, true);
    if (current() && putEntry(place.triggered, route, false, {}, current))
      putEntry(place.periodic, route, false, {}, current);
  } else {
    takeEntry(place.periodic, route, false);
    if (current()) takeEntry(place.triggered, route, false);
    if (current()) putEntry(place.triggered, route, true, {}, current);
  }
}

void UpstreamRoutes::pruneEchoIs(Link& link, Route const& route, IpGenAddr const& rp) {
  putEntry(link.triggered(link.primaryAddress()), route, false, rp, [] { return true; });
}

// --- Looking up ----------------------------------------------------------------------------------

UpstreamRoutes::Joined* UpstreamRoutes::find(RouteKey const& route) const {
  auto const found = joined_.find(route);
  return found == joined_.end() ? nullptr : const_cast<Joined*>(&found->second);
}

UpstreamRoutes::Slot* UpstreamRoutes::findSlot(Dova::IntfId const& intf, AddressFamily family) const {
  auto const found = slots_.find({intf, family});
  return found == slots_.end() ? nullptr : found->second.get();
}

UpstreamRoutes::Target* UpstreamRoutes::findTarget(UpstreamNeighbor const& upstream) const {
  Slot* const slot = findSlot(upstream.intf, upstream.address.af());
  if (!slot) return nullptr;
  auto const found = slot->targets.find(upstream.address);
  return found == slot->targets.end() ? nullptr : &found->second;
}

// A route that names this neighbor and is not among the routes of its target: a walk in progress has still to
// come to it. Or null.
UpstreamRoutes::Joined* UpstreamRoutes::findLeftBehind(UpstreamNeighbor const& upstream) const {
  Slot const* const slot = findSlot(upstream.intf, upstream.address.af());
  if (!slot) return nullptr;
  auto const [begin, end] = slot->departing.equal_range(upstream.address);
  for (auto one = begin; one != end; ++one)
    if (Joined* const joined = one->second.first(true)) return joined;
  Target const* const target = findTarget(upstream);
  return target ? target->firstToCome(true) : nullptr;
}

UpstreamRoutes::Slot& UpstreamRoutes::slotIs(Dova::IntfId const& intf, AddressFamily family) {
  if (Slot* const slot = findSlot(intf, family)) return *slot;
  auto made = std::make_unique<Slot>(*this, intf);
  return *slots_.try_emplace({intf, family}, std::move(made)).first->second;
}

// A slot that is not needed ends.
void UpstreamRoutes::releaseSlot(Slot& slot) {
  if (slot.targets.empty() && slot.departing.empty() && !slot.link)
    std::erase_if(slots_, [&](auto const& one) { return one.second.get() == &slot; });
}

UpstreamRoutes::Target& UpstreamRoutes::targetIs(UpstreamNeighbor const& upstream) {
  Slot& slot = slotIs(upstream.intf, upstream.address.af());
  decltype(slot.targets)::iterator place;
  bool isNew = false;
  try {
    std::tie(place, isNew) = slot.targets.try_emplace(upstream.address, slot, upstream.address);
  } catch (...) {  // no memory
    releaseSlot(slot);
    throw;
  }
  Target& target = place->second;
  if (isNew) target.neighbor = ownerOf(target);
  return target;
}

void UpstreamRoutes::releaseTarget(Target& target) {
  if (target.joined != 0) return;
  Slot& slot = target.slot;
  auto const isThat = [&](auto const& one) { return &one.second == &target; };
  auto const found = slot.targets.find(target.address);
  if (found != slot.targets.end() && isThat(*found))
    slot.targets.erase(found);
  else
    std::erase_if(slot.departing, isThat);
  releaseSlot(slot);
}

// The neighbor that has a target's address, of unknown family if there is none. One without data sets is
// about to be told of.
IpGenAddr UpstreamRoutes::ownerOf(Target const& target) const {
  Link const* const link = target.slot.link;
  auto const neighbor = link ? link->neighborOf(target.address) : std::nullopt;
  return neighbor && link->periodic(*neighbor) ? *neighbor : IpGenAddr();
}

UpstreamRoutes::Group& UpstreamRoutes::groupIs(IpGenAddr const& address) {
  Group& group = groups_[address];
  group.address = address;
  return group;
}

void UpstreamRoutes::releaseGroup(IpGenAddr const& address) {
  auto const found = groups_.find(address);
  if (found == groups_.end()) return;
  Group const& group = found->second;
  if (!group.wildcard && group.sources.alone() && group.prunes.empty()) groups_.erase(found);
}

UpstreamRoutes::Place UpstreamRoutes::placeOf(Target const& target) {
  return target.isUp() ? placeOf(target.slot, target.neighbor) : Place{};
}

UpstreamRoutes::Place UpstreamRoutes::placeOf(Slot const& slot, IpGenAddr const& neighbor) {
  Link const& link = *slot.link;
  return {slot.intf, neighbor, link.triggered(neighbor), link.overriding(neighbor), link.periodic(neighbor)};
}

bool UpstreamRoutes::isWantedFrom(Place const& place, RouteKey const& key) const {
  Joined const* const joined = find(key);
  return joined && joined->target->isUp() && joined->target->neighbor == place.neighbor &&
         joined->target->slot.intf == place.intf;
}

}  // namespace Routing::Pim::Speaker
