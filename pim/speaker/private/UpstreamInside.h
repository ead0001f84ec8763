// The parts of UpstreamRoutes that its source files share. Not part of the library's interface.
#pragma once

#include "pim/speaker/UpstreamRoutes.h"
#include "pim/speaker/private/UpstreamData.h"

namespace Routing::Pim::Speaker {

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
  }
  Target(Target const&) = delete;

  Slot& slot;
  IpGenAddr const address;
  IpGenAddr
      neighbor;  // the primary address of the neighbor that has that address; of unknown family while down
  U32 joined = 0;
  Ring routes;
  Seconds restarted = -Vel::never;  // when its last restart was acted on
  Vel::Ptr<RestartTimer> timer;     // null until a restart has to wait

  bool isUp() const { return neighbor.af() != AddressFamily::unknown; }
};

/// An interface and address family on which something is wanted, or which has a link.
class UpstreamRoutes::Slot final : public LinkObserver {
 public:
  Slot(UpstreamRoutes& ofRoutes, Dova::IntfId const& ofIntf) : routes(ofRoutes), intf(ofIntf) {}

  void neighborUp(IpGenAddr const& neighbor) override { routes.up(*this, neighbor); }
  // Routes that wait for one of the addresses are joined; those of another neighbor that is up stay with it.
  void neighborAddressesChanged(IpGenAddr const& neighbor) override { routes.up(*this, neighbor); }
  void neighborDown(IpGenAddr const& neighbor) override { routes.down(*this, neighbor); }
  void neighborRestarted(IpGenAddr const& neighbor) override { routes.restarted(*this, neighbor); }
  void joinPruneReceived(ReceivedJoinPrune const& received) override {
    if (!received.isForUs && !targets.empty()) routes.heard(*this, received.message);
  }

  Seconds now() const { return link->wheel()->now(); }

  UpstreamRoutes& routes;
  Dova::IntfId const intf;
  Link* link = nullptr;
  std::unordered_map<IpGenAddr, Target> targets;
  Seconds suppressedUntil = -Vel::never;  // no route is suppressed for longer
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

/// A step for each route towards a target. Routes may come and leave meanwhile; those that were there at the
/// beginning are visited once, unless they leave.
template <class Step>
void UpstreamRoutes::forEachRoute(Target& target, Step const& step) {
  Life::Watch const watch(life_);
  struct Todo : Ring {
    explicit Todo(Life::Watch const& life) : watch(life) {}
    ~Todo() {
      while (!watch.ended() && !alone()) takeFirst();
    }
    Joined& takeFirst() {
      Joined& first = ofTarget(next());
      first.TargetHook::join(first.target->routes);
      return first;
    }
    Life::Watch const& watch;
  } todo(watch);
  todo.takeAll(target.routes);
  while (!todo.alone()) {
    step(todo.takeFirst());
    if (watch.ended()) return;
  }
}

}  // namespace Routing::Pim::Speaker
