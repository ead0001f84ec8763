// SPDX-License-Identifier: Apache-2.0
// Joins and Prunes that other routers have sent to our upstream neighbors (RFC 7761, 4.5.4 to 4.5.7).
#include <algorithm>

#include "pim/speaker/private/UpstreamInside.h"

namespace Routing::Pim::Speaker {

using namespace Detail;

namespace {

// Of one's own period (RFC 7761, 4.11: t_suppressed).
constexpr double leastSuppression = 1.1, mostSuppression = 1.4;
// Between two walks over a group because of a Prune(*,G), in seconds.
constexpr Seconds leastWalkInterval = 0.1;

}  // namespace

// A message that was heard, in progress. Each step that writes ends with a call out.
class UpstreamRoutes::Hearing {
 public:
  Hearing(UpstreamRoutes& routes, Slot& slot, Wire::JoinPrune const& message)
      : routes_(routes),
        slot_(slot),
        link_(slot.link),
        watch_(routes.life_),
        slotWatch_(slot.life),
        neighbor_(message.upstreamNeighbor()),
        now_(slot.now()),
        holdTime_(message.holdTime() == Wire::endlessHoldTime ? Vel::never : message.holdTime()) {}
  Hearing(Hearing const&) = delete;
  ~Hearing() {
    if (!watch_.ended()) forgetGroupPrunes();
  }

  void hear(Wire::JoinPrune const& message) {
    for (auto const& group : message.groups()) {
      std::size_t left = group.joins().size();
      for (auto const& source : group.sources()) {
        bool const isJoin = left != 0;
        if (isJoin) --left;
        hear(source, group.group(), isJoin);
        if (ended()) return;
      }
    }
    hearGroupPrunes();
  }

 private:
  bool ended() const { return watch_.ended() || slotWatch_.ended() || slot_.link != link_; }

  void hear(Wire::Source const& source, IpGenAddr const& group, bool isJoin) {
    RouteKey const key(source.address, group);
    switch (routeKindOf(source.kind)) {
      case RouteKind::wildcard:
        if (isJoin) return hearJoin(anySource(group));
        noteGroupPrune(group);
        return override(anySource(group));
      case RouteKind::source:
        if (isJoin) return hearJoin(key);
        override(key);
        if (!ended()) overrideRpt(key);
        return;
      case RouteKind::sourceRpt:
        if (isJoin) return hearRptJoin(key);
        override(key);
        if (!ended()) overrideRpt(key);
        return;
    }
  }

  // Towards the neighbor of the message, or null.
  Joined* find(RouteKey const& key) const {
    Joined* const joined = routes_.find(key);
    return joined && isTowardsNeighbor(*joined) ? joined : nullptr;
  }
  bool isTowardsNeighbor(Joined const& joined) const {
    return &joined.target->slot == &slot_ && joined.target->neighbor == neighbor_;
  }
  Joined* findWildcard(IpGenAddr const& group) const { return find(anySource(group)); }

  // The same join: one's own can wait. The RFC has a Join Timer for each route, which is raised to
  // t_joinsuppress; here a refresh is left out while this is running, see isLeftOut().
  void hearJoin(RouteKey const& key) {
    if (!link_->suppressionAllowed()) return;
    Joined* const joined = find(key);
    if (!joined) return;
    Seconds const suppressed =
        link_->random().between(leastSuppression, mostSuppression) * link_->joinPruneInterval();
    Seconds const wait = std::min(suppressed, holdTime_);
    joined->suppressedUntil = std::max(joined->suppressedUntil, now_ + wait);
    joined->heardUntil = std::max(joined->heardUntil, now_ + holdTime_);
    slot_.suppressedUntil = std::max(slot_.suppressedUntil, joined->suppressedUntil);
    // A join that is pending as an override is sent within the override interval. One that is heard does for
    // it unless it ends earlier.
    if (wait >= link_->overrideInterval()) takeEntry(link_->overriding(neighbor_), joined->route, true);
  }

  void override(RouteKey const& key) { routes_.override(slot_, neighbor_, key); }

  // A prune of a source that is wanted on the shared tree: Join(S,G,rpt) after t_override, once.
  void overrideRpt(RouteKey const& key) {
    Joined const* const wildcard = findWildcard(key.group());
    if (!wildcard || wildcard->group->prunes.contains(key.source())) return;
    Route const route{RouteKind::sourceRpt, key.source(), key.group()};
    if (hasEntry(link_->triggered(neighbor_), route, true)) return;
    Writer writer(routes_, anySource(key.group()), wildcard->version);
    putEntry(link_->overriding(neighbor_), route, true, {},
             [&] { return writer.current() && !wildcard->group->prunes.contains(route.source); });
  }

  void hearRptJoin(RouteKey const& key) {
    if (!findWildcard(key.group())) return;
    takeEntry(link_->overriding(neighbor_), {RouteKind::sourceRpt, key.source(), key.group()}, true);
  }

  // A Prune(*,G) calls for the (S,G) joins of the group, too. They are walked once, when the message has
  // ended: a message that repeats the prune again and again costs no more.
  void noteGroupPrune(IpGenAddr const& address) {
    auto const group = routes_.groups_.find(address);
    if (group == routes_.groups_.end() || group->second.pruneHeard) return;
    pruned_.push_back(address);
    group->second.pruneHeard = true;
  }
  void hearGroupPrunes() {
    for (IpGenAddr const& address : pruned_) {
      if (!mayWalk(address)) continue;
      routes_.overrideGroup(slot_, neighbor_, address, false);
      if (ended()) return;
    }
  }
  // Not again soon after another walk: then it waits for overrideAgain().
  bool mayWalk(IpGenAddr const& address) {
    auto const [walked, isFirst] = slot_.groupsWalked.try_emplace({neighbor_, address}, false);
    if (!isFirst) walked->second = true;
    Timer& timer = slot_.timers->walks;
    if (!timer.armed()) timer.armAt(now_ + std::max(link_->overrideInterval() / 2, leastWalkInterval));
    return isFirst;
  }
  void forgetGroupPrunes() {
    for (IpGenAddr const& address : pruned_)
      if (auto const group = routes_.groups_.find(address); group != routes_.groups_.end())
        group->second.pruneHeard = false;
  }

  UpstreamRoutes& routes_;
  Slot& slot_;
  Link* const link_;
  Life::Watch const watch_, slotWatch_;
  IpGenAddr const neighbor_;
  Seconds const now_, holdTime_;
  std::vector<IpGenAddr> pruned_;
};

// Not beside forEachRoute(): where g++ 12 sees that a variable's address is stored, it warns of that, though
// the destructor takes it out again.
UpstreamRoutes::Target::Walk::Walk(Target& target, bool moves) : isMoving(moves) { join(target.walks); }

void UpstreamRoutes::heard(Slot& slot, Wire::JoinPrune const& message) {
  Hearing(*this, slot, message).hear(message);
}

// A prune that would end the join: another one after t_override, unless one is sent earlier. Whether there is
// such a join.
bool UpstreamRoutes::override(Slot& slot, IpGenAddr const& neighbor, RouteKey const& key) {
  Joined* const joined = find(key);
  if (!joined || &joined->target->slot != &slot || joined->target->neighbor != neighbor) return false;
  joined->suppressedUntil = joined->heardUntil = -Vel::never;
  if (hasEntry(slot.link->triggered(neighbor), joined->route, true)) return true;
  Writer writer(*this, key, joined->version);
  Route const route = joined->route;
  IpGenAddr const rp = joined->rp;
  bool const isWritten = attempt("override", [&] {
    putEntry(slot.link->overriding(neighbor), route, true, rp, [&] { return writer.current(); });
  });
  if (!isWritten) writeLater(key);
  return true;
}

// The (S,G) joins of a group towards a neighbor, after t_override or, unless that is pending, at once.
void UpstreamRoutes::overrideGroup(Slot& slot, IpGenAddr const& neighbor, IpGenAddr const& address,
                                   bool isAtOnce) {
  Life::Watch const watch(slot.life);
  Link const* const link = slot.link;
  auto const group = groups_.find(address);
  if (group == groups_.end()) return;
  auto const forEach = [&](auto const& step) {
    Ring& sources = group->second.sources;
    for (Ring* one = &sources.next(); one != &sources; one = &one->next()) {
      Joined& joined = ofGroup(*one);
      if (&joined.target->slot == &slot && joined.target->neighbor == neighbor) step(joined);
    }
  };
  std::vector<RouteKey> keys;
  try {
    forEach([&](Joined& joined) { keys.push_back(keyOf(joined.route)); });
  } catch (std::bad_alloc const&) {
    forEach([&](Joined& joined) { writeLater(keyOf(joined.route)); });
    return;
  }
  for (RouteKey const& key : keys) {
    if (!isAtOnce) {
      override(slot, neighbor, key);
    } else if (Joined* const joined = find(key); joined && joined->target->neighbor == neighbor) {
      joined->suppressedUntil = joined->heardUntil = -Vel::never;
      if (!hasEntry(link->overriding(neighbor), joined->route, true)) writeJoin(*joined, true);
    }
    if (watch.ended() || slot.link != link) return;
  }
}

// Of the groups that were walked because of a Prune(*,G), those for which another one was heard. Their joins
// are sent now: t_override since that prune may have passed by half. A message of a few bytes that is
// repeated so costs up to four walks in an override interval.
void UpstreamRoutes::overrideAgain(Slot& slot) {
  Life::Watch const watch(slot.life);
  Link const* const link = slot.link;
  std::erase_if(slot.groupsWalked, [](auto const& one) { return !one.second; });
  if (slot.groupsWalked.empty()) return;
  slot.timers->walks.armAt(slot.now() + std::max(link->overrideInterval() / 2, leastWalkInterval));
  std::optional<RouteKey> latest;
  for (;;) {
    auto const next = latest ? slot.groupsWalked.upper_bound(*latest) : slot.groupsWalked.begin();
    if (next == slot.groupsWalked.end()) return;
    latest = next->first;
    if (!std::exchange(next->second, false)) continue;
    overrideGroup(slot, latest->source(), latest->group(), true);
    if (watch.ended() || slot.link != link) return;
  }
}

// Of a refresh that is due now. A route is refreshed in slices of the whole, one interval apart, and not by a
// Join Timer of its own. So a join is left out only if the next turn, one interval later, comes before the
// upstream neighbor forgets the join that was heard. That is up to 2.4 periods between two joins, where RFC
// 7761, 4.5.4 has 1.4.
bool UpstreamRoutes::isLeftOut(Joined const& joined) const {
  Link const* const link = joined.target->slot.link;
  if (!link) return false;
  Seconds const now = joined.target->slot.now();
  return now < joined.suppressedUntil &&
         now + link->joinPruneInterval() < joined.heardUntil - link->joinPruneOverrideInterval();
}

bool UpstreamRoutes::anyLeftOut(Dova::IntfId const& intf, IpGenAddr const& upstreamNeighbor) const {
  Slot const* const slot = findSlot(intf, upstreamNeighbor.af());
  return slot && slot->link && slot->now() < slot->suppressedUntil;
}

bool UpstreamRoutes::isLeftOut(Dova::IntfId const& intf, IpGenAddr const& upstreamNeighbor,
                               RouteKey const& route) const {
  Joined const* const joined = find(route);
  return joined && joined->target->neighbor == upstreamNeighbor && joined->target->slot.intf == intf &&
         isLeftOut(*joined);
}

}  // namespace Routing::Pim::Speaker
