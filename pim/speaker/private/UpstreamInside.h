// SPDX-License-Identifier: Apache-2.0
// The parts of UpstreamRoutes that its source files share. Not part of the library's interface.
#pragma once

#include "pim/speaker/UpstreamRoutes.h"
#include "pim/speaker/detail/Timer.h"
#include "pim/speaker/private/CallOut.h"
#include "pim/speaker/private/UpstreamData.h"

namespace Routing::Pim::Speaker {

inline RouteKey keyOf(Route const& route) { return {route.source, route.group}; }

/// Expires when a restart of a neighbor, which came soon after another one, is to be acted on.
class UpstreamRoutes::RestartTimer final : public Zanth::TimerWheel::Notifiee {
 public:
  RestartTimer(UpstreamRoutes* routes, Target* target) : routes_(routes), target_(target) {}
  void onTime() override {
    if (routes_) routes_->restart(*target_);
  }
  void retire() {
    routes_ = nullptr;
    notifierIs(nullptr);
  }

 private:
  UpstreamRoutes* routes_;  // Null once this is retired.
  Target* const target_;
};

/// A neighbor, as the routes name it, from which something is wanted.
struct UpstreamRoutes::Target {
  Target(Slot& ofSlot, IpGenAddr const& named) : slot(ofSlot), address(named) {}
  ~Target() {
    if (timer) timer->retire();
    while (!walks.alone()) walks.next().leave();
  }
  Target(Target const&) = delete;

  Slot& slot;
  IpGenAddr const address;
  IpGenAddr
      neighbor;  // the primary address of the neighbor that has that address; of unknown family while down
  U32 joined = 0;
  // All routes towards it, but those that a walk has still to come to. Those for which there was no memory
  // are apart: the data sets may lack something of them.
  Ring routes, unwritten;
  Ring walks;                       // Those in progress.
  Seconds restarted = -Vel::never;  // when its last restart was acted on
  Vel::Ptr<RestartTimer> timer;     // null until a restart has to wait

  /// A walk over the routes, in progress.
  struct Walk : Ring {
    /// Begins.
    Walk(Target& target, bool moves);
    ~Walk() { leave(); }

    Ring routes;          // It has still to come to them.
    bool const isMoving;  // It moves them to another target.
  };

  bool isUp() const { return neighbor.af() != AddressFamily::unknown; }
  /// A route that a walk has still to come to, or null.
  Joined* firstToCome(bool canBeMoving) const {
    for (Ring* one = &walks.next(); one != &walks; one = &one->next()) {
      auto const& walk = static_cast<Walk const&>(*one);
      if (!walk.routes.alone() && (canBeMoving || !walk.isMoving)) return &ofTarget(walk.routes.next());
    }
    return nullptr;
  }
  /// Any route, or null.
  Joined* first(bool canBeMoving) const {
    for (Ring const* const ring : {&routes, &unwritten})
      if (!ring->alone()) return &ofTarget(ring->next());
    return firstToCome(canBeMoving);
  }
  /// Another one, or none. What was to be done about a restart of the previous one is not.
  void neighborIs(IpGenAddr const& present) {
    neighbor = present;
    restarted = -Vel::never;
    if (timer) timer->timeMinIs(Vel::never);
  }
};

/// An interface and address family on which something is wanted, or which has a link.
class UpstreamRoutes::Slot final : public LinkObserver {
 public:
  Slot(UpstreamRoutes& ofRoutes, Dova::IntfId const& ofIntf) : routes(ofRoutes), intf(ofIntf) {}

  /// Before anything that had no memory is tried again, in seconds.
  static constexpr Seconds retryDelay = 1;

  struct Timers {
    Timers(Vel::Ptr<Zanth::TimerWheel> const& wheel, Slot& slot)
        : catchUp(wheel, [&slot] { slot.routes.catchUp(slot); }),
          walks(wheel, [&slot] { slot.routes.overrideAgain(slot); }) {}
    Timer catchUp, walks;
  };

  void neighborUp(IpGenAddr const&) override {
    told("neighborUp", [this] { routes.followAddresses(*this); });
  }
  void neighborAddressesChanged(IpGenAddr const&) override {
    told("neighborAddressesChanged", [this] { routes.followAddresses(*this); });
  }
  void neighborDown(IpGenAddr const& neighbor) override {
    told("neighborDown", [&] { routes.down(*this, neighbor); });
  }
  void neighborRestarted(IpGenAddr const& neighbor) override {
    Life::Watch const watch(life);
    if (routes.attempt("neighborRestarted", [&] { routes.restarted(*this, neighbor); }) || watch.ended())
      return;
    for (auto& [address, target] : targets)
      if (target.neighbor == neighbor) target.unwritten.takeAll(target.routes);
    catchUpLater();
  }
  void joinPruneReceived(ReceivedJoinPrune const& received) override {
    if (!received.isForUs && !targets.empty() && link->neighborUp(received.message.upstreamNeighbor()))
      routes.heard(*this, received.message);
  }

  /// Does what a change of the link calls for. What has no memory for it is done later.
  template <class Step>
  void told(char const* function, Step const& step) {
    Life::Watch const watch(life);
    if (routes.attempt(function, step) || watch.ended()) return;
    isBehind = true;
    catchUpLater();
  }
  void catchUpLater() {
    if (link && !timers->catchUp.armed()) timers->catchUp.armAt(now() + retryDelay);
  }
  template <class Step>
  void forTargets(Step const& step) {
    for (auto& [address, target] : targets) step(target);
    for (auto& [address, target] : departing) step(target);
  }
  Seconds now() const { return link->wheel()->now(); }

  UpstreamRoutes& routes;
  Dova::IntfId const intf;
  Link* link = nullptr;
  std::optional<Timers> timers;  // There with the link.
  std::unordered_map<IpGenAddr, Target> targets;
  std::unordered_multimap<IpGenAddr, Target> departing;  // Their routes are moving to others of that address.
  bool isBehind = false;                  // A target may have another neighbor than its address has.
  Seconds suppressedUntil = -Vel::never;  // no route is suppressed for longer
  std::map<RouteKey, bool> groupsWalked;  // see UpstreamRoutes::overrideAgain(); by neighbor and group
  Life life;
};

/// A change of the data sets in several steps, each of which calls out: says whether the wish is still the
/// one that is being written.
class UpstreamRoutes::Writer {
 public:
  /// Of a route that is wanted in this version.
  Writer(UpstreamRoutes& routes, RouteKey const& key, U64 version)
      : routes_(routes), watch_(routes.life_), key_(key), version_(version), seen_(routes.changes_) {}

  /// Whether there is a reason to write on. Nothing may be touched if not.
  bool current() {
    if (watch_.ended()) return false;
    if (routes_.changes_ == seen_) return true;
    Joined const* const joined = routes_.find(key_);
    if (!joined || joined->version != version_ || !joined->target->isUp()) return false;
    seen_ = routes_.changes_;
    return true;
  }

 private:
  UpstreamRoutes& routes_;
  Life::Watch const watch_;
  RouteKey const key_;
  U64 const version_;
  U64 seen_;
};

/// Whether a step was completed. What it throws is traced. False if this object has ended, too.
template <class Step>
bool UpstreamRoutes::attempt(char const* function, Step const& step) {
  Life::Watch const watch(life_);
  bool isComplete = false;
  callOut("UpstreamRoutes", function, [&] {
    step();
    isComplete = true;
  });
  return isComplete || watch.ended();
}

/// A step for each route in a ring of a target; it is then among the target's routes. Routes may come and
/// leave meanwhile; those that were there at the beginning are visited once, unless they leave.
template <class Step>
void UpstreamRoutes::forEachRoute(Target& target, Ring& routes, Step const& step, bool isMoving) {
  Life::Watch const watch(life_);
  struct Todo : Target::Walk {
    Todo(Target& of, bool moves, Life::Watch const& life) : Walk(of, moves), watch(life) {}
    ~Todo() {
      // After an exception: the target may have another owner by now, which a walk that moves leaves alone.
      while (!watch.ended() && !routes.alone()) {
        Slot& slot = takeFirst().target->slot;
        slot.isBehind = true;
        slot.catchUpLater();
      }
    }
    Joined& takeFirst() {
      Joined& first = ofTarget(routes.next());
      first.TargetHook::join(first.target->routes);
      return first;
    }
    Life::Watch const& watch;
  } todo(target, isMoving, watch);
  todo.routes.takeAll(routes);
  while (!todo.routes.alone()) {
    step(todo.takeFirst());
    if (watch.ended()) return;
  }
}

}  // namespace Routing::Pim::Speaker
