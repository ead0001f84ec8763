// SPDX-License-Identifier: Apache-2.0
#include "pim/speaker/DownstreamRoutes.h"

#include <algorithm>
#include <array>

#include "pim/speaker/private/CallOut.h"

namespace Routing::Pim::Speaker {

std::string_view text(DownstreamState state) {
  static constexpr std::array<std::string_view, 5> names = {"joined", "prune-pending", "pruned", "pruned-tmp",
                                                            "prune-pending-tmp"};
  return names[static_cast<std::size_t>(state)];
}

std::string_view text(DownstreamChange change) {
  static constexpr std::array<std::string_view, 5> names = {"joined", "prune-pending", "pruned", "expired",
                                                            "ended"};
  return names[static_cast<std::size_t>(change)];
}

class DownstreamRoutes::Timer final : public Zanth::TimerWheel::Notifiee {
 public:
  explicit Timer(DownstreamRoutes* routes) : routes_(routes) {}
  void onTime() override {
    if (routes_) routes_->expire();
  }
  void retire() {
    routes_ = nullptr;
    notifierIs(nullptr);
  }

 private:
  DownstreamRoutes* routes_;  // Null once this is retired.
};

// A message in progress, on the stack of the function that receives it.
struct DownstreamRoutes::Message {
  explicit Message(DownstreamRoutes& routes, IpGenAddr const& from, U16 holdTime)
      : watch(routes.life_),
        sender(routes.senders_[from]),
        downs(routes.downs_),
        expires(holdTime == Wire::endlessHoldTime ? Vel::never : routes.now() + holdTime) {
    sender.address = from;
    ++sender.uses;
  }

  Life::Watch watch;
  Sender& sender;
  U32 downs;
  Seconds expires;  // of the routes that it refreshes
  Ring temporary;   // the (S,G,rpt) routes that end with this message, unless it prunes them
};

DownstreamRoutes::DownstreamRoutes(Link& link, DownstreamObserver& observer, PruneEchoes& echoes,
                                   DownstreamLimits limits)
    : link_(link),
      observer_(observer),
      echoes_(echoes),
      wheel_(link.wheel()),
      timer_(Vel::create<Timer>(this)),
      limits_(limits) {
  timer_->notifierIs(wheel_);
}

DownstreamRoutes::~DownstreamRoutes() { timer_->retire(); }

// --- Receiving -----------------------------------------------------------------------------------

void DownstreamRoutes::joinPruneReceived(ReceivedJoinPrune const& received) {
  if (!received.isForUs) return;
  Message message(*this, received.sender, received.message.holdTime());
  ++receiving_;
  // If the filter or the source of RPs throws, what was received before stays, and the rest is lost.
  callOut("DownstreamRoutes", __func__, [&] {
    for (auto const& group : received.message.groups())
      if (!receiveGroup(group, message)) break;
  });
  if (message.watch.ended()) return;
  endMessage(message);
  if (message.watch.ended()) return;
  release(message.sender);
  --receiving_;
  armTimer();
}

// Whether the message continues.
bool DownstreamRoutes::receiveGroup(Wire::GroupSet const& group, Message& message) {
  bool const isDenied = link_.isDenied(group.group());  // calls out
  if (message.watch.ended() || downs_ != message.downs) return false;
  if (isDenied) {
    counters_.denied += group.sources().size();
    return true;
  }
  std::size_t const joins = group.joins().size();
  std::size_t at = 0;
  for (auto const& source : group.sources()) {
    receive(source, group.group(), at++ < joins, message);
    if (message.watch.ended() || downs_ != message.downs) return false;
  }
  return true;
}

void DownstreamRoutes::receive(Wire::Source const& source, IpGenAddr const& group, bool isJoin,
                               Message& message) {
  RouteKind const kind = routeKindOf(source.kind);
  switch (kind) {
    case RouteKind::wildcard: {
      Route const route = Route::wildcard(group);
      return isJoin ? joinWildcard(route, source.address, message) : prune(route, source.address, message);
    }
    case RouteKind::source: {
      Route const route{kind, source.address, group};
      return isJoin ? join(route, {}, message) : prune(route, {}, message);
    }
    case RouteKind::sourceRpt: {
      Route const route{kind, source.address, group};
      return isJoin ? joinRpt(route, message) : pruneRpt(route, message);
    }
  }
}

void DownstreamRoutes::joinWildcard(Route const& route, IpGenAddr const& rp, Message& message) {
  std::optional<IpGenAddr> const known = link_.rp(route.group);  // calls out
  if (message.watch.ended() || downs_ != message.downs) return;
  if (known && known->af() == rp.af() && !(*known == rp)) {
    ++counters_.wrongRp;
    return;
  }
  if (auto const group = rptGroups_.find(route.group); group != rptGroups_.end()) {
    Ring& settled = group->second.settled;
    for (Ring* one = &settled.next(); one != &settled; one = &one->next()) {
      Entry& entry = static_cast<Entry&>(*one);
      entry.state = entry.state == DownstreamState::pruned ? DownstreamState::prunedTemporary
                                                           : DownstreamState::prunePendingTemporary;
    }
    message.temporary.takeAll(settled);
  }
  join(route, rp, message);
}

void DownstreamRoutes::join(Route const& route, IpGenAddr const& rp, Message& message) {
  Entry* entry = find(route);
  bool const isNew = !entry;
  if (isNew && !(entry = create(route, rp, message))) return;
  bool const isChanged = isNew || entry->state == DownstreamState::prunePending || !(entry->rp == rp);
  entry->state = DownstreamState::joined;
  entry->pruneEnds = Vel::never;
  entry->rp = rp;
  latestIs(*entry, message.sender);
  restartExpiry(*entry, message.expires);
  if (isChanged) tell(*entry, DownstreamChange::joined);
}

// A Prune(*,G) counts whatever RP it names (RFC 7761, 4.5.1).
void DownstreamRoutes::prune(Route const& route, IpGenAddr const& rp, Message& message) {
  Entry* const entry = find(route);
  if (!entry || entry->state != DownstreamState::joined) return;
  entry->rp = rp;
  latestIs(*entry, message.sender);
  if (link_.neighborCount() <= 1) return removeAndTell(*entry, DownstreamChange::pruned);
  startPrunePending(*entry);
  tell(*entry, DownstreamChange::prunePending);
}

void DownstreamRoutes::joinRpt(Route const& route, Message& message) {
  Entry* const entry = find(route);
  if (!entry) return;
  if (entry->state != DownstreamState::pruned && entry->state != DownstreamState::prunePending) return;
  latestIs(*entry, message.sender);
  removeAndTell(*entry, DownstreamChange::joined);
}

void DownstreamRoutes::pruneRpt(Route const& route, Message& message) {
  Entry* entry = find(route);
  if (!entry) {
    if (!(entry = create(route, {}, message))) return;
    restartExpiry(*entry, message.expires);
    if (link_.neighborCount() <= 1) {
      entry->state = DownstreamState::pruned;
      return tell(*entry, DownstreamChange::pruned);
    }
    startPrunePending(*entry);
    return tell(*entry, DownstreamChange::prunePending);
  }
  if (entry->state == DownstreamState::prunePending) return;
  if (entry->state == DownstreamState::prunedTemporary) entry->state = DownstreamState::pruned;
  if (entry->state == DownstreamState::prunePendingTemporary) entry->state = DownstreamState::prunePending;
  entry->join(rptGroups_.find(route.group)->second.settled);
  latestIs(*entry, message.sender);
  restartExpiry(*entry, message.expires);
}

void DownstreamRoutes::endMessage(Message& message) {
  while (!message.temporary.alone()) {
    Entry& entry = static_cast<Entry&>(message.temporary.next());
    latestIs(entry, message.sender);
    removeAndTell(entry, DownstreamChange::joined);
    if (message.watch.ended()) return;
  }
}

// --- The routes ----------------------------------------------------------------------------------

DownstreamRoutes::Entry* DownstreamRoutes::find(Route const& route) {
  auto const found = routes_.find(route);
  return found == routes_.end() ? nullptr : &found->second;
}

// The new route, or null if there can be none. Calls out in the second case only.
DownstreamRoutes::Entry* DownstreamRoutes::create(Route const& route, IpGenAddr const& rp, Message& message) {
  if (isOverLimit(route, rp, message)) return nullptr;
  try {
    return &insert(route, message);
  } catch (std::bad_alloc const&) {
    ++counters_.noMemory;
    return nullptr;
  }
}

bool DownstreamRoutes::isOverLimit(Route const& route, IpGenAddr const& rp, Message const& message) {
  bool const ofInterface = routes_.size() >= limits_.routes;
  if (!ofInterface && message.sender.created < limits_.routesOfNeighbor) return false;
  ++(ofInterface ? counters_.overLimit : counters_.overNeighborLimit);
  EventBudget& budget = ofInterface ? interfaceEvents_ : neighborEvents_;
  if (!budget.admits(now())) return true;
  DownstreamLimitEvent event{link_.intf(),           !ofInterface, route,
                             message.sender.address, {},           budget.takeLeftOut()};
  if (route.kind == RouteKind::wildcard) event.rp = rp;
  callOut("DownstreamRoutes", __func__, [&] { observer_.downstreamLimited(event); });
  return true;
}

// Throws std::bad_alloc, and then nothing has changed.
DownstreamRoutes::Entry& DownstreamRoutes::insert(Route const& route, Message& message) {
  deadlines_.reserveOne();
  bool const isRpt = route.kind == RouteKind::sourceRpt;
  RptGroup* const group = isRpt ? &rptGroups_[route.group] : nullptr;
  std::unordered_map<Route, Entry>::iterator place;
  try {
    place = routes_.try_emplace(route).first;
  } catch (...) {
    if (group && group->routes == 0) rptGroups_.erase(route.group);
    throw;
  }
  Entry& entry = place->second;
  entry.route = &place->first;
  if (group) {
    ++group->routes;
    entry.join(group->settled);
  }
  entry.creator = &message.sender;
  ++message.sender.created;
  ++message.sender.uses;
  deadlines_.add(entry, Vel::never);
  return entry;
}

void DownstreamRoutes::remove(Entry& entry) {
  entry.leave();
  deadlines_.remove(entry);
  if (entry.route->kind == RouteKind::sourceRpt) {
    auto const group = rptGroups_.find(entry.route->group);
    if (--group->second.routes == 0) rptGroups_.erase(group);
  }
  --entry.creator->created;
  release(*entry.creator);
  if (entry.latest) release(*entry.latest);
  routes_.erase(routes_.find(*entry.route));
}

void DownstreamRoutes::latestIs(Entry& entry, Sender& sender) {
  if (entry.latest == &sender) return;
  ++sender.uses;
  if (entry.latest) release(*entry.latest);
  entry.latest = &sender;
}

void DownstreamRoutes::release(Sender& sender) {
  if (--sender.uses == 0) senders_.erase(senders_.find(sender.address));
}

// To the larger of what is left and the hold time received (RFC 7761, 4.5.1).
void DownstreamRoutes::restartExpiry(Entry& entry, Seconds expires) {
  entry.expires = std::max(entry.expires, expires);
  // Of a new route. One that is refreshed is looked at when it would have expired, and moved then.
  deadlines_.noLaterThan(entry, entry.expires);
}

void DownstreamRoutes::startPrunePending(Entry& entry) {
  entry.state = DownstreamState::prunePending;
  entry.pruneEnds = now() + link_.joinPruneOverrideInterval();
  deadlines_.noLaterThan(entry, entry.pruneEnds);
}

// --- Time ----------------------------------------------------------------------------------------

void DownstreamRoutes::armTimer() {
  Seconds const earliest = deadlines_.empty() ? Vel::never : deadlines_.first().time;
  if (receiving_ == 0 && timer_->timeMin() != earliest) timer_->timeMinIs(earliest);
}

void DownstreamRoutes::expire() {
  if (receiving_ != 0) return;  // the message arms the timer when it ends
  Life::Watch const watch(life_);
  Seconds const now = this->now();
  // What comes meanwhile and is due already waits for the next expiry.
  for (std::size_t left = deadlines_.size(); left != 0 && !deadlines_.empty(); --left) {
    if (deadlines_.first().time > now) break;
    Entry& entry = *deadlines_.first().element;
    Seconds const due = std::min(entry.expires, entry.pruneEnds);
    if (due > now)
      deadlines_.timeIs(entry, due);
    else
      expire(entry);
    if (watch.ended()) return;
  }
  armTimer();
}

void DownstreamRoutes::expire(Entry& entry) {
  if (entry.expires <= entry.pruneEnds) return removeAndTell(entry, DownstreamChange::expired);
  if (entry.route->kind == RouteKind::sourceRpt) {
    entry.state = DownstreamState::pruned;
    entry.pruneEnds = Vel::never;
    deadlines_.timeIs(entry, entry.expires);
    return tell(entry, DownstreamChange::pruned);
  }
  // There was another neighbor when the prune was received, and it may have lost the prune.
  DownstreamEvent const event = eventOf(entry, DownstreamChange::pruned);
  IpGenAddr const rp = entry.rp;
  remove(entry);
  Life::Watch const watch(life_);
  callOut("DownstreamRoutes", "expire", [&] { echoes_.pruneEchoIs(link_, event.route, rp); });
  if (!watch.ended()) tell(event);
}

void DownstreamRoutes::linkDown() {
  Life::Watch const watch(life_);
  ++downs_;
  // No more than there are now: a callback may make new ones.
  for (std::size_t left = routes_.size(); left != 0 && !deadlines_.empty(); --left) {
    removeAndTell(deadlines_.last(), DownstreamChange::ended);
    if (watch.ended()) return;
  }
  armTimer();
}

// --- Telling and showing -------------------------------------------------------------------------

DownstreamEvent DownstreamRoutes::eventOf(Entry const& entry, DownstreamChange change) const {
  DownstreamEvent event{change, link_.intf(), *entry.route,
                        (entry.latest ? entry.latest : entry.creator)->address, std::nullopt};
  if (entry.route->kind == RouteKind::wildcard) event.rp = entry.rp;
  return event;
}

void DownstreamRoutes::tell(DownstreamEvent const& event) {
  callOut("DownstreamRoutes", __func__, [&] { observer_.downstreamChanged(event); });
}

void DownstreamRoutes::removeAndTell(Entry& entry, DownstreamChange change) {
  DownstreamEvent const event = eventOf(entry, change);
  remove(entry);
  tell(event);
}

std::optional<DownstreamRoute> DownstreamRoutes::route(Route const& route) const {
  auto const found = routes_.find(route);
  if (found == routes_.end()) return std::nullopt;
  Entry const& entry = found->second;
  DownstreamEvent const event = eventOf(entry, DownstreamChange::joined);
  return DownstreamRoute{route, entry.state, event.sender, event.rp, entry.expires, entry.pruneEnds};
}

std::vector<DownstreamRoute> DownstreamRoutes::routes() const {
  std::vector<DownstreamRoute> all;
  all.reserve(routes_.size());
  for (auto const& [key, entry] : routes_) all.push_back(*route(key));
  std::sort(all.begin(), all.end(),
            [](DownstreamRoute const& a, DownstreamRoute const& b) { return a.route < b.route; });
  return all;
}

}  // namespace Routing::Pim::Speaker
