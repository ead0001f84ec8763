// SPDX-License-Identifier: Apache-2.0
// What the neighbors on one interface have asked of this router (RFC 7761, 4.5.1 to 4.5.3).
//
//     class Printer final : public DownstreamObserver {
//       void downstreamChanged(DownstreamEvent const& event) override { ... }
//     };
//     DownstreamRoutes downstream(link, printer, upstream);
//     downstream.joinPruneReceived({neighbor, true, message});   // by the receiver of the link
//     if (downstream.route(Route::wildcard(group))) ...          // somebody has joined (*,G)
//
// A (*,G) or (S,G) that is here is wanted by a neighbor until it is pruned or expires. An (S,G,rpt) that is
// here is one that no neighbor wants on the shared tree, once its state is `pruned`.
//
// The expiry timers and prune-pending timers of all routes are in one heap with one timer on the wheel. A
// refresh does not touch the heap. Timers of equal time expire in any order.
#pragma once

#include <limits>
#include <new>
#include <optional>
#include <unordered_map>
#include <vector>

#include "pim/speaker/Link.h"
#include "pim/speaker/Route.h"
#include "pim/speaker/detail/Deadlines.h"
#include "pim/speaker/detail/EventBudget.h"
#include "pim/speaker/detail/Life.h"
#include "pim/speaker/detail/Ring.h"

namespace Routing::Pim::Speaker {

/// The state of a downstream route that is there. The last two are those of an (S,G,rpt) while the rest of a
/// message with a Join(*,G) is processed (RFC 7761, 4.5.3: PruneTmp and Prune-Pending-Tmp).
enum class DownstreamState : U8 { joined, prunePending, pruned, prunedTemporary, prunePendingTemporary };
/// "joined", "prune-pending", "pruned", "pruned-tmp", "prune-pending-tmp".
PIM_SPEAKER_API std::string_view text(DownstreamState state);

/// What became of a downstream route.
enum class DownstreamChange : U8 {
  joined,  ///< Joined, or joined while prune-pending, or with another RP. Of an (S,G,rpt): no longer pruned.
  prunePending,  ///< Pruned, unless somebody overrides it.
  pruned,        ///< The prune took effect. A (*,G) or (S,G) no longer exists.
  expired,       ///< Not refreshed within its hold time; it no longer exists.
  ended          ///< The interface went down or changed its address; it no longer exists.
};
/// "joined", "prune-pending", "pruned", "expired", "ended".
PIM_SPEAKER_API std::string_view text(DownstreamChange change);

/// One change of one route.
struct DownstreamEvent {
  DownstreamChange change;  ///< What happened; the state is what it says already.
  Dova::IntfId intf;        ///< The interface.
  Route route;              ///< The route.
  IpGenAddr sender;  ///< Whose message caused it; of a timer: whose message was the last for the route.
  std::optional<IpGenAddr> rp;  ///< Of a (*,G): the RP that this message names.
};

/// A route that was not taken up because there are as many as are allowed.
struct DownstreamLimitEvent {
  Dova::IntfId intf;            ///< The interface.
  bool ofNeighbor;              ///< Which limit: that of a neighbor, or that of the interface.
  Route route;                  ///< What was refused.
  IpGenAddr sender;             ///< Who asked for it.
  std::optional<IpGenAddr> rp;  ///< Of a (*,G): the RP that the message names.
  U64 leftOut;                  ///< How many such events were left out since the last one that was told.
};

/// Who is told. It may do anything, the destruction of the routes and of itself included. What it throws is
/// traced (handle "Vel", level 1) and has no other effect.
class PIM_SPEAKER_API DownstreamObserver {
 public:
  virtual ~DownstreamObserver() = default;
  /// A route changed.
  virtual void downstreamChanged(DownstreamEvent const&) {}
  /// A route was refused. At most ten times a second for each interface and kind of limit.
  virtual void downstreamLimited(DownstreamLimitEvent const&) {}
};

/// Who sends a PruneEcho (RFC 7761, 4.4.2 and 4.5.1): a prune that is addressed to this router itself.
class PIM_SPEAKER_API PruneEchoes {
 public:
  virtual ~PruneEchoes() = default;
  /// The prune of an (S,G), or of a (*,G) with its RP, is to be sent on the link. May call out.
  virtual void pruneEchoIs(Link& link, Route const& route, IpGenAddr const& rp) = 0;
};

/// How many routes there may be.
struct DownstreamLimits {
  U32 routes = 1'000'000;                                  ///< On the interface.
  U32 routesOfNeighbor = std::numeric_limits<U32>::max();  ///< That one neighbor's messages have created.

  friend bool operator==(DownstreamLimits const& a, DownstreamLimits const& b) = default;
};

/// What was ignored, in entries.
struct DownstreamCounters {
  U64 denied = 0;             ///< Of groups that the filter denies.
  U64 wrongRp = 0;            ///< A Join(*,G) with another RP than the group's (RFC 7761, 4.5.1).
  U64 overLimit = 0;          ///< Of a new route, beyond the limit of the interface.
  U64 overNeighborLimit = 0;  ///< Of a new route, beyond the limit of the neighbor.
  U64 noMemory = 0;           ///< Of a new route, for which there was no memory.
};

/// A route as it was when it was asked for.
struct DownstreamRoute {
  Route route;                     ///< The key.
  DownstreamState state;           ///< See there.
  IpGenAddr sender;                ///< The neighbor whose message was the last for it.
  std::optional<IpGenAddr> rp;     ///< Of a (*,G).
  Seconds expires;                 ///< On the wheel's clock; never (infinity) with a hold time of 65535.
  Seconds pruneEnds = Vel::never;  ///< When the prune-pending timer expires; never if it is not armed.
};

/// The downstream routes of one interface and address family.
class PIM_SPEAKER_API DownstreamRoutes final : public LinkObserver {
 public:
  /// On a link; all arguments outlive this. REQUIRES: the link has its wheel.
  DownstreamRoutes(Link& link, DownstreamObserver& observer, PruneEchoes& echoes,
                   DownstreamLimits limits = {});
  ~DownstreamRoutes() override;
  DownstreamRoutes(DownstreamRoutes const&) = delete;

  /// Takes up a message that is for this link; any other is nothing. O(1) for each entry, and for each
  /// (S,G,rpt) that a Join(*,G) ends.
  void joinPruneReceived(ReceivedJoinPrune const& received) override;
  /// Ends all routes, with an event for each.
  void linkDown() override;

  /// How many there are; O(1).
  std::size_t count() const { return routes_.size(); }
  /// One of them, or nothing. O(1).
  std::optional<DownstreamRoute> route(Route const& route) const;
  /// All of them, in ascending order. O(n log n).
  std::vector<DownstreamRoute> routes() const;
  /// What was ignored so far.
  DownstreamCounters const& counters() const { return counters_; }

  /// The limits. Routes that are there stay, whatever the limit.
  DownstreamLimits const& limits() const { return limits_; }
  /// Sets the limits.
  void limitsAre(DownstreamLimits const& limits) { limits_ = limits; }

 private:
  class Timer;
  struct Message;

  // A neighbor that routes refer to.
  struct Sender {
    IpGenAddr address;
    U32 created = 0;  // routes that count against its limit
    U32 uses = 0;     // routes and messages that refer to it
  };
  // An (S,G,rpt) is in the ring of its group, or in that of the message that put it into a temporary state.
  struct Entry : Ring {
    Route const* route = nullptr;
    Sender* creator = nullptr;
    Sender* latest = nullptr;
    IpGenAddr rp;
    DownstreamState state = DownstreamState::joined;
    Seconds expires = 0;
    Seconds pruneEnds = Vel::never;
    std::size_t deadlineIndex = 0;
  };
  // The (S,G,rpt) routes of a group.
  struct RptGroup {
    Ring settled;
    U32 routes = 0;
  };

  Seconds now() const { return wheel_->now(); }
  Entry* find(Route const& route);
  Entry* create(Route const& route, IpGenAddr const& rp, Message& message);
  bool isOverLimit(Route const& route, IpGenAddr const& rp, Message const& message);
  Entry& insert(Route const& route, Message& message);
  void remove(Entry& entry);
  void latestIs(Entry& entry, Sender& sender);
  void release(Sender& sender);
  void restartExpiry(Entry& entry, Seconds expires);
  void startPrunePending(Entry& entry);
  void armTimer();
  void expire();
  void expire(Entry& entry);

  bool receiveGroup(Wire::GroupSet const& group, Message& message);
  void receive(Wire::Source const& source, IpGenAddr const& group, bool join, Message& message);
  void join(Route const& route, IpGenAddr const& rp, Message& message);
  void joinWildcard(Route const& route, IpGenAddr const& rp, Message& message);
  void prune(Route const& route, IpGenAddr const& rp, Message& message);
  void joinRpt(Route const& route, Message& message);
  void pruneRpt(Route const& route, Message& message);
  void endMessage(Message& message);

  DownstreamEvent eventOf(Entry const& entry, DownstreamChange change) const;
  void tell(DownstreamEvent const& event);
  void tell(Entry const& entry, DownstreamChange change) { tell(eventOf(entry, change)); }
  void removeAndTell(Entry& entry, DownstreamChange change);

  // Fixed at construction.
  Link& link_;
  DownstreamObserver& observer_;
  PruneEchoes& echoes_;
  Vel::Ptr<Zanth::TimerWheel> const wheel_;
  Vel::Ptr<Timer> const timer_;

  DownstreamLimits limits_;
  DownstreamCounters counters_;
  EventBudget interfaceEvents_, neighborEvents_;

  std::unordered_map<Route, Entry> routes_;
  std::unordered_map<IpGenAddr, RptGroup> rptGroups_;
  std::unordered_map<IpGenAddr, Sender> senders_;
  Deadlines<Entry> deadlines_;
  U32 receiving_ = 0;  // messages in progress; no timer expires meanwhile
  U32 downs_ = 0;      // how often the link went down: a message in progress ends then
  Life life_;
};

}  // namespace Routing::Pim::Speaker
