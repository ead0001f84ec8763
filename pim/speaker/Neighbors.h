// SPDX-License-Identifier: Apache-2.0
// Hellos and neighbors of one link: one interface and address family (RFC 7761, 4.3).
//
//   Neighbors.h     sends Hellos, keeps the neighbors
//   LanValues.h     what all neighbors come to: effective delays, suppression, the designated router
//   EventBudget.h   a limit on events that a neighbor can cause without end
//   Turns.h         a limit on what a neighbor can have others do without end
//   Timer.h         a timer as a member
//   Life.h          whether an object still exists after it has called out
//
// When a Hello is sent:
//
//   - first after a random part of Triggered_Hello_Delay, then in every Hello_Period
//   - within Triggered_Hello_Delay after a neighbor is new or has restarted; the period stays as it is
//   - at once after a change of what is announced, if one was sent before
//   - before a Join/Prune to a neighbor that is new or has restarted since the last one: sendHelloBefore()
//   - with a hold time of 0 when the link ends
//
// A Hello that the sink wants later, or for which there is no memory, is tried again after 0.1 s.
//
// What a neighbor can have done again and again has a bound: of its restarts, of its changed address lists
// and of its ends three count at once and then so many that 10,000 routes towards it are written in a second,
// but one of each in a Hello_Period. What is in between counts once, later. A neighbor that ends and comes
// again more often so stays up meanwhile, and its next Hello counts as a restart.
#pragma once

#include <array>
#include <map>
#include <unordered_map>
#include <vector>

#include "pim/speaker/LanValues.h"
#include "pim/speaker/Sink.h"
#include "pim/speaker/detail/EventBudget.h"
#include "pim/speaker/detail/Life.h"
#include "pim/speaker/detail/Timer.h"
#include "pim/speaker/detail/Turns.h"
#include "runtime/dova/IntfId.h"

namespace Routing::Pim::Speaker {

using Vel::U16;
using Vel::U32;
using Vel::U64;
using Vel::U8;

/// What a link announces and allows. The defaults are those of RFC 7761, 4.11.
struct HelloSettings {
  Seconds period = 30;            ///< Hello_Period; greater than 0.
  Seconds triggeredDelay = 5;     ///< Triggered_Hello_Delay.
  std::optional<U16> holdTime{};  ///< In seconds, not 0. Without one: 3.5 periods.
  /// Option 2. The T bit is announced; that join suppression is disabled follows from the neighbors' bits
  /// alone.
  Wire::LanPruneDelay lanPruneDelay{};
  U32 drPriority = 1;       ///< Option 19.
  U32 maxNeighbors = 1000;  ///< Others are refused and counted.
  U32 maxAddresses = 256;   ///< Of one neighbor's address list; what follows is left out.

  friend bool operator==(HelloSettings const& a, HelloSettings const& b) = default;
};

/// Throws Vel::RangeException with the name of the setting and its value if it cannot be: "Hello_Period of
/// 0 s".
PIM_SPEAKER_API void requireValid(HelloSettings const& settings);
/// Throws Vel::RangeException if a Hello cannot have these addresses beside its other options: one is not
/// unicast, or they are too many for an IP datagram.
PIM_SPEAKER_API void requireListable(std::vector<IpGenAddr> const& secondaryAddresses);
/// The hold time in Hellos.
PIM_SPEAKER_API U16 announcedHoldTime(HelloSettings const& settings);

/// A neighbor at one moment.
struct NeighborInfo {
  IpGenAddr address;                 ///< The source of its Hellos: its primary address.
  std::vector<IpGenAddr> addresses;  ///< Those of its list that are of the link's family.
  Seconds upSince = 0;               ///< On the wheel's clock.
  Seconds expires = Vel::never;      ///< On the wheel's clock; `Vel::never` with a hold time of 65535.
  U16 holdTime = 0;                  ///< In seconds, the default without option 1.
  LanOptions options;                ///< Options 2 and 19.
  std::optional<U32> generationId;   ///< Option 20.
  U64 restarts = 0;                  ///< How often it sent another generation ID, or ended and came again
                                     ///< before its end counted.
};

/// What a neighbor said of itself in its latest Hello, apart from one with hold time 0.
struct NeighborSaid {
  U16 holdTime = 0;                 ///< In seconds, the default without option 1; 65535 never ends.
  std::optional<U32> generationId;  ///< Option 20.
  std::optional<U32> drPriority;    ///< Option 19.
};

/// Something that happened to a neighbor, for people and logs.
struct NeighborEvent {
  /// What happened.
  enum class Kind : U8 {
    up,                ///< Its first Hello.
    expired,           ///< No Hello within its hold time.
    goodbye,           ///< A Hello with hold time 0.
    linkDown,          ///< The link has ended.
    restarted,         ///< Another generation ID, or a Hello before its end counted.
    changed,           ///< Other options, or other addresses.
    designatedRouter,  ///< Another designated router, which may be this router.
    addressConflict,   ///< It lists an address that another neighbor has listed. The latest counts.
    tooMany,           ///< It is refused: there are as many neighbors as are allowed.
  };

  Kind kind;           ///< What happened.
  Dova::IntfId intf;   ///< The interface.
  IpGenAddr neighbor;  ///< The neighbor, or the designated router.
  IpGenAddr other;     ///< addressConflict: the address; designatedRouter: the previous one.
  /// How many of this kind were left out before it. At most 10 a second come for each kind from `restarted`
  /// on. That a neighbor is up or has ended is always told.
  U64 leftOut = 0;
  /// The last that the neighbor said; nothing with `designatedRouter` and `tooMany`.
  NeighborSaid said{};
};

/// "up", "expired", ..., in the order of the enumeration.
inline constexpr std::array<std::string_view, 9> neighborEventNames = {
    "up",      "expired",           "goodbye",          "link down",          "restarted",
    "changed", "designated router", "address conflict", "too many neighbors",
};
static_assert(neighborEventNames.size() == static_cast<std::size_t>(NeighborEvent::Kind::tooMany) + 1);
/// The kind's name.
constexpr std::string_view text(NeighborEvent::Kind kind) {
  return neighborEventNames[static_cast<std::size_t>(kind)];
}

/// What Neighbors tells, and how it sends. Each call may do anything, the destruction of the Neighbors
/// included.
class PIM_SPEAKER_API NeighborsOwner {
 public:
  virtual ~NeighborsOwner() = default;

  /// Sends a Hello from the link's primary address.
  virtual Sent sendHello(Wire::Hello const& hello) = 0;
  /// The effective delays or suppressionAllowed() changed. Comes before onNeighborUp().
  virtual void onLanValues() = 0;
  /// A neighbor is there.
  virtual void onNeighborUp(IpGenAddr const& neighbor) = 0;
  /// A neighbor that was there before has another address list, or one of its addresses leads to it again:
  /// neighborOf() may find others than before, or none. It comes as often as onNeighborRestarted().
  virtual void onNeighborAddresses(IpGenAddr const& /*neighbor*/) {}
  /// A neighbor has ended. Three ends of a neighbor come at once; for more of them see the top of this file.
  virtual void onNeighborDown(IpGenAddr const& neighbor) = 0;
  /// A neighbor sent another generation ID. Three restarts come at once; for more of them see the top of this
  /// file. What is in between is told once, later.
  virtual void onNeighborRestarted(IpGenAddr const& neighbor) = 0;
  /// How many routes are written again when a neighbor with this address ends or restarts; O(1).
  virtual U32 routesTowards(IpGenAddr const& address) const = 0;
  /// For people and logs.
  virtual void onNeighborEvent(NeighborEvent const& event) = 0;
};

/// Totals of a link.
struct HelloCounters {
  U64 sent = 0;              ///< Hellos that were sent, goodbyes and failed ones included.
  U64 received = 0;          ///< Hellos that were taken.
  U64 neighborsRefused = 0;  ///< Hellos of routers beyond the limit on neighbors.
  U64 addressesLeftOut = 0;  ///< Addresses beyond the limit on a neighbor's list.
};

/// The neighbors of a link, from when it comes up until it ends; a link with another primary address is
/// another one.
class PIM_SPEAKER_API Neighbors {
 public:
  /// The owner and the random source must outlive this. Settings that cannot be throw as requireValid(),
  /// addresses as requireListable(). Of the generation ID and the first Hello's time the random source
  /// decides.
  Neighbors(NeighborsOwner& owner, Dova::IntfId const& intf, IpGenAddr const& primaryAddress,
            std::vector<IpGenAddr> secondaryAddresses, HelloSettings const& settings,
            Vel::Ptr<Zanth::TimerWheel> const& wheel, Random& random);
  ~Neighbors();

  /// The link goes down or changes its primary address: sends a Hello with hold time 0; then all neighbors
  /// end, with their events. Only the goodbye
  /// needs memory. Nothing is taken or sent any more. The second time:
  /// nothing, except after an exception.
  void end();

  /// The other addresses of the interface, announced at once if they changed. Throws as requireListable() and
  /// changes nothing then.
  void secondaryAddressesIs(std::vector<IpGenAddr> addresses);
  /// Announced at once if what is announced changed. Throws as requireValid() and changes nothing then.
  void settingsIs(HelloSettings const& settings);
  /// What was set.
  HelloSettings const& settings() const { return settings_; }
  /// The generation ID of this link.
  U32 generationId() const { return generationId_; }

  /// Takes a Hello that has passed all checks. False if it is refused because of the limit on neighbors.
  /// Throws std::bad_alloc; a new neighbor is there then or not, and what was not told is told with its next
  /// Hello.
  bool receive(IpGenAddr const& sender, Wire::Hello const& hello);

  /// Whether a Hello is to be sent before a Join/Prune to this target. For a target that is no neighbor:
  /// whether none was sent yet.
  bool helloDueBefore(IpGenAddr const& target) const;
  /// Sends it if one is due. After `later` the Join/Prune must wait.
  Sent sendHelloBefore(IpGenAddr const& target);

  /// How many neighbors there are; O(1).
  U32 count() const { return static_cast<U32>(entries_.size()); }
  /// Whether there is one with this primary address.
  bool isUp(IpGenAddr const& address) const { return entries_.contains(address); }
  /// The primary address of the neighbor that has this address, or nothing.
  std::optional<IpGenAddr> neighborOf(IpGenAddr const& address) const;
  /// Effective delays and suppression.
  LanValues const& values() const { return values_; }
  /// The designated router, which may be the link's own address.
  IpGenAddr designatedRouter() const { return values_.designatedRouter(); }
  /// All neighbors, by address.
  std::vector<NeighborInfo> snapshot() const;
  /// Totals since construction.
  HelloCounters const& counters() const { return counters_; }

 private:
  struct Entry {
    Entry(IpGenAddr const& address, Vel::Ptr<Zanth::TimerWheel> const& wheel, Neighbors* neighbors);

    NeighborInfo info;
    U64 heardAfter = 0;      // How many Hellos had been sent when it was new or had restarted last.
    bool upIsDue = true;     // It is still to be told that it is up: to those who act on it,
    bool eventIsDue = true;  // and to people.

    Turns restarts, addressLists, ends;
    Seconds restartDue = Vel::never, addressesDue = Vel::never;  // What is still to be told.
    std::optional<NeighborEvent::Kind> endPutOff;                // It counts when `info.expires` comes.

    Timer timer;  // For its expiry, or for what is to be told.
  };
  using Entries = std::unordered_map<IpGenAddr, Entry>;
  using Kind = NeighborEvent::Kind;
  // What others are told of when it changes.
  struct Values {
    Seconds propagationDelay, overrideInterval;
    bool suppressionAllowed;

    friend bool operator==(Values const& a, Values const& b) = default;
  };

  Wire::Hello hello() const;
  Wire::Hello helloWith(HelloSettings const& settings) const;
  Sent send();
  Sent sendAtOnce();
  void answer();
  void arm();
  void helloTimerExpired();
  void entryTimerExpired(Entry& entry);
  void armEntry(Entry& entry);
  Entries::iterator insert(IpGenAddr const& neighbor, LanOptions const& options);
  // What became of an address list.
  struct Listing {
    bool changed = false;
    bool isFound = false;  // By an address by which it was not found before.
    std::optional<IpGenAddr> conflict;
  };
  Listing takeAddresses(Entry& entry, Wire::Hello const& hello);
  void forgetAddresses(Entry const& entry, std::vector<IpGenAddr> const& stay = {});
  Seconds turnInterval(Entry const& entry) const;
  bool takeTurn(Entry const& entry, Turns& turns, Seconds& due);
  void endOrPutOff(Entry& entry, Kind why);
  bool hasRoomForDeparted();
  void remove(Entry& entry, Kind why);
  Values current() const;
  bool tellChanges();
  bool tellUp(IpGenAddr const& neighbor);
  bool tell(Kind kind, IpGenAddr const& neighbor, IpGenAddr const& other = {}, NeighborSaid const& said = {});

  // Fixed at construction.
  NeighborsOwner& owner_;
  Dova::IntfId const intf_;
  IpGenAddr const primaryAddress_;
  Vel::Ptr<Zanth::TimerWheel> const wheel_;
  Random& random_;
  U32 const generationId_;

  HelloSettings settings_;
  std::vector<IpGenAddr> secondaryAddresses_;
  bool ended_ = false;

  // When Hellos are due; the timer is armed for the earlier one, but not before `notBefore_`.
  Seconds periodicDue_;
  Seconds triggeredDue_ = Vel::never;
  Seconds notBefore_ = -Vel::never;
  U64 hellosSent_ = 0;

  Entries entries_;
  std::map<IpGenAddr, IpGenAddr> primaryOf_;  // From the listed addresses.
  std::vector<IpGenAddr> listed_;             // By the Hello at hand; kept for its memory.
  LanValues values_;
  HelloCounters counters_;

  // Turns of neighbors that have ended, as long as they are of importance; no more than neighbors are
  // allowed.
  std::map<IpGenAddr, Turns> departed_;
  Seconds departedFullUntil_ = -Vel::never;

  // What was told.
  std::optional<Values> toldValues_;  // Nothing after an exception.
  IpGenAddr toldRouter_;
  std::array<EventBudget, neighborEventNames.size()> budgets_;

  Timer helloTimer_;
  Life life_;
};

}  // namespace Routing::Pim::Speaker
