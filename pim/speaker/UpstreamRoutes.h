// SPDX-License-Identifier: Apache-2.0
// What this router wants from its upstream neighbors (RFC 7761, 4.5.4 to 4.5.7).
//
//     UpstreamRoutes upstream;
//     LinkObserver& observer = upstream.linkIs(link);           // to be told what happens on the link
//     upstream.joinIs({source, group}, {eth0, neighbor});       // sent when that neighbor is up
//     upstream.joinIs(anySource(group), {eth0, neighbor}, rp);  // (*,G)
//     upstream.pruneIs({source, group});                        // (S,G,rpt): beside the (*,G) join
//     upstream.joinIs({source, group}, {eth0, another});        // unicast routing has changed
//     upstream.joinDel({source, group});
//
// It is the only writer of the engine's three data sets: triggered for what changed, override for what
// another router's prune or an upstream neighbor's restart calls for, periodic for what is wanted. Each route
// has one upstream neighbor, on any link; an (S,G,rpt) has that of its (*,G).
//
// A route that names its neighbor by an address in the neighbor's Hellos follows the address: when another
// neighbor has it, as its own or in its Hellos, the route moves as if routing had changed; when none has it,
// the route waits.
//
// A change costs O(1), beside the (S,G,rpt) prunes of a (*,G). What a neighbor's coming, end or restart costs
// is linear in the routes towards it, beside the neighbors that are named. A Prune(*,G) that is heard costs a
// walk over the routes of its group, up to four times in an override interval however often it is repeated.
//
// A wish that is stored is written: what has no memory for it is written a second later, and so on.
//
// The files:
//
//     UpstreamRoutes.h    the interface
//     UpstreamRoutes.cpp  what is wanted
//     UpstreamLinks.cpp   links and neighbors that come and end, and what is shown
//     UpstreamHeard.cpp   Joins and Prunes of other routers: suppression and override
//     UpstreamData.h      single entries in the data sets
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "pim/speaker/DownstreamRoutes.h"
#include "pim/speaker/Link.h"
#include "pim/speaker/PacketManager.h"
#include "pim/speaker/Route.h"
#include "pim/speaker/detail/Life.h"
#include "pim/speaker/detail/Ring.h"

namespace Routing::Pim::Speaker {

/// A neighbor on an interface; neither needs to be there. The address may be any of the neighbor's.
struct UpstreamNeighbor {
  Dova::IntfId intf;  ///< The interface.
  IpGenAddr address;  ///< The neighbor's address, of the route's family.

  friend bool operator==(UpstreamNeighbor const& a, UpstreamNeighbor const& b) = default;
};

/// Why a route has another upstream neighbor.
enum class UpstreamMove : U8 {
  routing,  ///< Unicast routing or the user: a prune to the old one and a join to the new one, at once.
  assert    ///< An Assert was lost or won (RFC 7761, 4.6): a join to the new one after t_override, no prune.
};

/// Whether a route is refreshed, or why it is not.
enum class Sending : U8 {
  sent,          ///< It is.
  notWanted,     ///< It was not asked for.
  noInterface,   ///< There is no such interface, or it is down or has no address of the family.
  neighborDown,  ///< There is no such neighbor.
  suppressed,    ///< Another router's join was heard, and the next refresh comes early enough.
  noSharedTree   ///< An (S,G,rpt) without a (*,G) that is wanted.
};
/// "sent", "not wanted", "no interface", "neighbor down", "suppressed", "no shared tree".
PIM_SPEAKER_API std::string_view text(Sending sending);

/// A wish as it was when it was asked for.
struct UpstreamRoute {
  Route route;  ///< A (*,G) or (S,G) that is joined, an (S,G,rpt) that is pruned.
  std::optional<UpstreamNeighbor> upstream;  ///< Nothing for an (S,G,rpt) without its (*,G).
  IpGenAddr rp;                              ///< Of a (*,G).
  Sending sending;                           ///< Whether it is refreshed.
};

/// How many routes there are towards a neighbor.
struct UpstreamTarget {
  UpstreamNeighbor upstream;  ///< As the routes name it.
  bool isUp;                  ///< Whether it is a neighbor.
  U32 joined;                 ///< (*,G) and (S,G) routes.
};

/// The (*,G) of a group, as a key.
inline RouteKey anySource(IpGenAddr const& group) { return {IpGenAddr::zero(group.af()), group}; }

/// The upstream routes of a speaker. Every change may call out (trace lines); what is called may do anything,
/// the destruction of this object included, and a wish that it changes is as it left it. A change that throws
/// std::bad_alloc has not been made.
class PIM_SPEAKER_API UpstreamRoutes final : public PruneEchoes, public HeardJoins {
 public:
  UpstreamRoutes();
  ~UpstreamRoutes() override;
  UpstreamRoutes(UpstreamRoutes const&) = delete;

  /// Takes up a link. The observer that is returned is to be told what happens on it; it is valid until
  /// linkDel(). Throws std::bad_alloc, and then the link is not known.
  LinkObserver& linkIs(Link& link);
  /// The link ends. Nothing is sent; the routes stay wanted.
  void linkDel(Link& link);

  /// Wants a (*,G) (the key's source is all zeros or unknown) or an (S,G) from an upstream neighbor. For the
  /// same neighbor and RP again: nothing. Throws Vel::RangeException with the route and the reason if no
  /// message could have it, and changes nothing then. The reason counts for a route that had another upstream
  /// neighbor.
  void joinIs(RouteKey const& route, UpstreamNeighbor const& upstream, IpGenAddr const& rp = {},
              UpstreamMove move = UpstreamMove::routing);
  /// Wants it no longer. False if it was not wanted. A prune for which there is no memory is not sent; the
  /// neighbor forgets the join with its hold time.
  bool joinDel(RouteKey const& route);

  /// Wants a source pruned off the shared tree of its group, as long as that is joined. False if it was
  /// already. Throws as joinIs().
  bool pruneIs(RouteKey const& route);
  /// Wants it no longer. False if it was not wanted.
  bool pruneDel(RouteKey const& route);

  /// Moves all (*,G) and (S,G) routes of a neighbor. How many. After std::bad_alloc some have moved.
  std::size_t moveAll(UpstreamNeighbor const& from, UpstreamNeighbor const& to,
                      UpstreamMove move = UpstreamMove::routing);

  /// How many (*,G) and (S,G) are wanted; O(1).
  std::size_t count() const { return joined_.size(); }
  /// How many of them from this neighbor; O(1).
  U32 joinedTowards(UpstreamNeighbor const& upstream) const;
  /// Whether a route is refreshed; O(1).
  Sending sending(Route const& route) const;
  /// All wishes in ascending order. O(n log n).
  std::vector<UpstreamRoute> routes() const;
  /// All neighbors from which something is wanted, by interface and address.
  std::vector<UpstreamTarget> targets() const;

  void pruneEchoIs(Link& link, Route const& route, IpGenAddr const& rp) override;
  bool anyLeftOut(Dova::IntfId const& intf, IpGenAddr const& upstreamNeighbor) const override;
  bool isLeftOut(Dova::IntfId const& intf, IpGenAddr const& upstreamNeighbor,
                 RouteKey const& route) const override;

 private:
  class Slot;
  class RestartTimer;
  class Writer;
  struct Target;
  struct Group;
  struct TargetHook : Ring {};
  struct GroupHook : Ring {};

  // A (*,G) or (S,G) that is wanted.
  struct Joined : TargetHook, GroupHook {
    Route route;
    Group* group = nullptr;
    Target* target = nullptr;
    IpGenAddr rp;
    U64 version = 0;                        // changes with each wish for it
    Seconds suppressedUntil = -Vel::never;  // as long as this, another router's join keeps it
    Seconds heardUntil = -Vel::never;       // when the upstream neighbor forgets that join
  };

  // What is wanted of a group; there is one as long as something is.
  struct Group {
    IpGenAddr address;
    Joined* wildcard = nullptr;
    Ring sources;                          // the (S,G) routes
    std::unordered_set<IpGenAddr> prunes;  // the (S,G,rpt) prunes
    bool pruneHeard = false;               // a Prune(*,G) in the message in progress
  };

  // A neighbor that is up, with its data sets; nothing and null for one that is not.
  struct Place {
    Dova::IntfId intf;
    IpGenAddr neighbor;
    Vel::Ptr<Packet::JoinPruneData> triggered, overriding, periodic;
  };

  static Joined& ofTarget(Ring& ring) { return static_cast<Joined&>(static_cast<TargetHook&>(ring)); }
  static Joined& ofGroup(Ring& ring) { return static_cast<Joined&>(static_cast<GroupHook&>(ring)); }

  Joined* find(RouteKey const& route) const;
  Slot* findSlot(Dova::IntfId const& intf, AddressFamily family) const;
  Target* findTarget(UpstreamNeighbor const& upstream) const;
  Joined* findLeftBehind(UpstreamNeighbor const& upstream) const;
  Target& targetIs(UpstreamNeighbor const& upstream);
  void releaseTarget(Target& target);
  Slot& slotIs(Dova::IntfId const& intf, AddressFamily family);
  void releaseSlot(Slot& slot);
  Group& groupIs(IpGenAddr const& group);
  void releaseGroup(IpGenAddr const& group);
  static Place placeOf(Target const& target);
  static Place placeOf(Slot const& slot, IpGenAddr const& neighbor);
  bool isWantedFrom(Place const& place, RouteKey const& key) const;

  void create(RouteKey const& route, UpstreamNeighbor const& upstream, IpGenAddr const& rp);
  // How a route moves: with a prune to the old neighbor, with a join to the new one at once.
  struct Manner {
    bool isPruned, isAtOnce;
  };
  static Manner mannerOf(UpstreamMove because) {
    bool const isRouting = because == UpstreamMove::routing;
    return {isRouting, isRouting};
  }
  void move(Joined& joined, UpstreamNeighbor const& upstream, IpGenAddr const& rp, Manner manner);
  static bool isSettled(Target const& target);
  void rename(Joined& joined, Target& target);
  void writeJoin(Joined& joined, bool isAtOnce);
  void putJoin(Joined& joined, bool isAtOnce);
  void writeLeave(Place const& place, Route const& route, IpGenAddr const& rp, bool isPruned);
  void putLeave(Place const& place, Route const& route, IpGenAddr const& rp, bool isPruned);
  void writePrune(Group& group, IpGenAddr const& source, bool isPruned);
  void putPrune(Group& group, IpGenAddr const& source, bool isPruned);
  template <class Step>
  bool attempt(char const* function, Step const& step);
  void writeLater(RouteKey const& key);
  void catchUp(Slot& slot);

  template <class Step>
  void forEachRoute(Target& target, Ring& routes, Step const& step, bool isMoving = false);
  IpGenAddr ownerOf(Target const& target) const;
  void followAddresses(Slot& slot);
  void follow(Slot& slot, IpGenAddr const& address);
  void down(Slot& slot, IpGenAddr const& neighbor);
  void restarted(Slot& slot, IpGenAddr const& neighbor);
  void restart(Target& target);

  class Hearing;
  void heard(Slot& slot, Wire::JoinPrune const& message);
  bool override(Slot& slot, IpGenAddr const& neighbor, RouteKey const& key);
  void overrideGroup(Slot& slot, IpGenAddr const& neighbor, IpGenAddr const& group, bool isAtOnce);
  void overrideAgain(Slot& slot);
  bool isLeftOut(Joined const& joined) const;
  Sending sendingOf(Joined const& joined) const;

  std::map<std::pair<Dova::IntfId, AddressFamily>, std::unique_ptr<Slot>> slots_;
  std::unordered_map<RouteKey, Joined> joined_;
  std::unordered_map<IpGenAddr, Group> groups_;
  U64 changes_ = 0;  // of wishes and of neighbors
  Life life_;
};

}  // namespace Routing::Pim::Speaker
