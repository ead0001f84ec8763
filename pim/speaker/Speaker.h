// SPDX-License-Identifier: Apache-2.0
// A PIM speaker without I/O: the one object that an agent makes.
//
//     class Socket final : public Sink { Sent send(Outgoing const& packet) override { ... } } sink;
//     auto wheel = Vel::create<Zanth::TimerWheel>();
//     Speaker speaker(wheel, sink, {.seed = seed});
//     speaker.interfaceIs("eth0", {"10.0.0.1/24", "fe80::1/64"}, {.mtu = 1500});
//     speaker.upstream().joinIs({source, group}, {Dova::IntfId("eth0"), neighbor});  // sent when it is up
//     ...
//     Verdict verdict =
//         speaker.receive({.intf = "eth0", .source = from, .destination = to, .ttl = ttl}, bytes);
//     poll(..., speaker.pollTimeout());
//     speaker.expire();
//
// Its inputs are interfaces, packets that were received, and time; its outputs are packets and events. The
// same inputs give the same outputs, but for the engine's override delay, which is drand48()'s.
//
// Which file of this folder does what:
//
//   Speaker.h           interfaces, the look-up of neighbors, totals
//   Link.h              one interface and family as the classes that keep routes see it
//   Neighbors.h         Hellos and neighbors of a link
//   LanValues.h         what all neighbors of a link come to: effective delays, suppression, the designated
//                       router
//   UpstreamRoutes.h    what this router wants from its upstream neighbors
//   DownstreamRoutes.h  what the neighbors on a link have asked of this router
//   PacketManager.h     from the engine's data sets to packets
//   PacketSinks.h       sinks that keep packets in memory or hand them on
//   Conversion.h        from messages as they are on the wire to the engine's
//   Route.h             the name of a route: (*,G), (S,G) or (S,G,rpt)
//   Sink.h              where packets are sent
//   Verdict.h           what became of a received packet
//   Random.h            random values from a seed
//
// and what no program includes: in detail/ what these headers need, in private/ what is not installed.
//
//   detail/Deadlines.h         the times at which very many objects want to be looked at
//   detail/EventBudget.h       how often an event of one kind is told
//   detail/Life.h              whether an object still exists after it has called out
//   detail/Ring.h              doubly linked rings of objects that are elsewhere
//   detail/Timer.h             a timer as a member of an object
//   detail/Turns.h             how often something costly is done that a neighbor can cause without end
//   private/SpeakerLink.h      one interface and family: its engine, its neighbors, what is sent and received
//   private/MessageComposer.h  one message from a data set, and how much fits it
//   private/MessageStages.h    the order of a group's entries in messages, and a place in it
//   private/PrunesBeside.h     the (S,G,rpt) prunes that are sent along with a (*,G) join
//   private/UpstreamData.h     single entries in the engine's data sets
//   private/UpstreamInside.h   what the source files of UpstreamRoutes share
//   private/CallOut.h          calls of a user's code that must not throw into the speaker
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "pim/joinprune/JoinPruneFilter.h"
#include "pim/model/RpHashComputeStatus.h"
#include "pim/speaker/Link.h"
#include "pim/speaker/Neighbors.h"
#include "pim/speaker/UpstreamRoutes.h"
#include "pim/speaker/Verdict.h"
#include "runtime/dova/IpGenPrefix.h"

namespace Routing::Pim::Speaker {

class SpeakerLink;

/// A packet that was received, without its PIM message.
struct Incoming {
  std::string_view intf;  ///< The interface's name.
  IpGenAddr source;       ///< Of the IP header.
  IpGenAddr destination;  ///< Of the IP header.
  unsigned ttl = 0;       ///< TTL or hop limit.
};

/// A packet that was not delivered; valid during the call.
struct UndeliveredPacket {
  Incoming const& packet;        ///< Where it came from.
  Verdict verdict;               ///< Why.
  Wire::Refusal const* refusal;  ///< With Verdict::refused: which field. Null otherwise.
  U64 leftOut;                   ///< Of this interface, verdict and reason, since the last one that was told.
};

/// A packet that was not sent and will not be; valid during the call.
struct FailedPacket {
  Outgoing const& packet;   ///< What was to be sent.
  std::string_view reason;  ///< What the sink says, or what it threw; may be empty.
  U64 leftOut;              ///< On this interface, since the last one that was told.
};

/// Who is told of what a speaker does. It may do anything, the speaker's destruction included. What it
/// throws is traced (handle "Vel", level 1) and has no other effect.
class PIM_SPEAKER_API SpeakerObserver {
 public:
  virtual ~SpeakerObserver() = default;
  /// Something happened to a neighbor.
  virtual void neighborChanged(NeighborEvent const&) {}
  /// A Hello was taken, with the options that have no meaning here.
  virtual void helloReceived(Dova::IntfId const&, IpGenAddr const& /*sender*/, Wire::Hello const&) {}
  /// What a neighbor has asked of this router changed.
  virtual void downstreamChanged(DownstreamEvent const&) {}
  /// A neighbor asked for more than is allowed. At most ten times a second for each interface and limit.
  virtual void downstreamLimited(DownstreamLimitEvent const&) {}
  /// A Join/Prune is about to be taken: one for this router, or one that was heard.
  virtual void joinPruneReceived(Dova::IntfId const&, ReceivedJoinPrune const&) {}
  /// A Join/Prune was sent.
  virtual void joinPruneSent(OutgoingPacket const&) {}
  /// A packet was not delivered. At most ten times a second for each interface, verdict and, of a refused
  /// one, reason.
  virtual void packetUndelivered(UndeliveredPacket const&) {}
  /// A packet could not be sent. At most ten times a second for each interface.
  virtual void sendingFailed(FailedPacket const&) {}
};

/// What is the same on all interfaces.
struct SpeakerSettings {
  /// Of all random values. An agent takes it from the system's random source.
  U64 seed = 0;
  /// Groups whose entries are ignored and not sent; null denies nothing.
  Vel::Ptr<JoinPruneFilter const> filter{};
  /// The RP of a group. Empty, or an answer of nothing: the RP that a message names is accepted.
  std::function<std::optional<IpGenAddr>(IpGenAddr const& group)> rp{};
  /// Null for none; must outlive the speaker.
  SpeakerObserver* observer = nullptr;
};

/// What an interface is configured with. The defaults are those of RFC 7761, 4.11.
struct InterfaceSettings {
  U32 mtu = 1500;                  ///< Bytes of a whole IP packet.
  bool pointToPoint = false;       ///< A Join/Prune to the unspecified address is for this router.
  Seconds joinPruneInterval = 60;  ///< t_periodic, in seconds, greater than 0.
  U16 joinPruneHoldTime = 210;     ///< J/P_HoldTime, in seconds.
  HelloSettings hello{};           ///< Hellos and the limit on neighbors.
  DownstreamLimits downstream{};   ///< Of each family.

  friend bool operator==(InterfaceSettings const& a, InterfaceSettings const& b) = default;
};

/// Totals of a speaker since it was made.
struct SpeakerCounters {
  std::array<U64, verdictNames.size()> verdicts{};       ///< Of received packets.
  std::array<U64, Wire::reasonNames.size()> refusals{};  ///< Of those that were refused.
  U64 hellosSent = 0;                                    ///< Goodbyes included, failed ones not.
  U64 joinPrunesSent = 0;                                ///< Join/Prune messages, failed ones not.
  U64 sentLater = 0;                                     ///< How often the sink wanted a packet later.
  U64 sendingFailed = 0;                                 ///< How often it failed.
  std::map<std::string, U64, std::less<>> failures;      ///< The same by the sink's reason, 32 at most.
  U64 overrideIntervalChanges = 0;                       ///< How often an engine was given another one.
  U64 prunesLeftOut = 0;  ///< (S,G,rpt) prunes that had no room in the message of their (*,G) join.

  /// How many packets had this verdict.
  U64 of(Verdict verdict) const { return verdicts[static_cast<std::size_t>(verdict)]; }
  /// How many packets were refused for this reason.
  U64 of(Wire::Reason reason) const { return refusals[static_cast<std::size_t>(reason)]; }
};

/// A neighbor on its interface.
struct NeighborOnInterface {
  Dova::IntfId intf;        ///< The interface.
  NeighborInfo info;        ///< The neighbor.
  bool isDesignatedRouter;  ///< Whether it is the designated router of the LAN.
};

/// A downstream route on its interface.
struct DownstreamOnInterface {
  Dova::IntfId intf;      ///< The interface.
  DownstreamRoute route;  ///< The route.
};

/// The one object. It may be destroyed from inside any callback.
class PIM_SPEAKER_API Speaker {
 public:
  /// The sink must outlive the speaker. REQUIRES: a wheel.
  Speaker(Vel::Ptr<Zanth::TimerWheel> const& wheel, Sink& sink, SpeakerSettings settings = {});
  /// Sends nothing; see shutDown().
  ~Speaker();

  /// Makes an interface or changes it. Of each family the first address is primary (IPv6: the first
  /// link-local one), the others go into Hellos. A family without a primary address is not served. Another
  /// primary address says goodbye from the old one, and all that neighbors asked for there ends. An address
  /// that is not unicast, an empty name, more addresses than a Hello can list and a setting that cannot be
  /// throw Vel::RangeException that names it, and nothing changes. After std::bad_alloc the change is
  /// complete or not; the same call makes it so.
  void interfaceIs(std::string_view name, std::vector<Dova::IpGenPrefix> const& addresses,
                   InterfaceSettings const& settings = {});
  /// The same from texts. One that is no address with or without a mask length throws Vel::RangeException.
  void interfaceIs(std::string_view name, std::initializer_list<std::string_view> addresses,
                   InterfaceSettings const& settings = {});
  /// Removes an interface: says goodbye there, and all of it ends. False if there is none.
  bool interfaceDel(std::string_view name);
  /// Removes all interfaces.
  void shutDown();
  /// Whether there is such an interface.
  bool hasInterface(std::string_view name) const { return interfaces_.contains(name); }

  /// Takes a packet: `bytes` is the whole IP payload, no more. The packet is checked whole before any of it
  /// counts.
  Verdict receive(Incoming const& packet, std::span<U8 const> bytes);
  /// The same of a packet that begins with its IPv4 header, as a raw socket delivers it; bytes behind the
  /// length that the header says are padding. The protocol and the header's checksum are not looked at.
  Verdict receiveIpv4(std::string_view intf, std::span<U8 const> packet);

  /// When expire() is due, on the wheel's clock; +infinity if never.
  Seconds timeMin() const { return wheel_->timeMin(); }
  /// How long a loop may sleep until expire() is due, in milliseconds, as poll(2) takes it: rounded up, and
  /// at most a minute.
  int pollTimeout() const;
  /// Does what is due on the wheel, other users' timers included.
  void expire();

  /// The neighbor that is named by "10.0.0.2" or "fe80::2%eth0", by its primary address or one that it
  /// lists: the interface and the primary address. Throws Vel::RangeException if there is none ("no
  /// neighbor 10.0.0.2"), or if there are several and the interface is not named ("neighbor fe80::2 is on
  /// eth0 and eth1").
  std::pair<Dova::IntfId, IpGenAddr> neighborNamed(std::string_view name) const;
  /// The designated router of an interface and family, which may be this router: its primary address there.
  /// Of unknown family while the link is down or without such an interface.
  IpGenAddr designatedRouter(std::string_view intf, AddressFamily family) const;
  /// When the next refresh towards a neighbor begins, by any of its addresses: on the wheel's clock, and
  /// Vel::never if there is nothing to refresh or no such neighbor. O(1).
  Seconds nextRefresh(UpstreamNeighbor const& upstream) const;
  /// All neighbors, by interface, family and address.
  std::vector<NeighborOnInterface> neighbors() const;
  /// What this router wants from its upstream neighbors; what is written there is sent.
  UpstreamRoutes& upstream() { return *upstream_; }
  /// The same, to be looked at.
  UpstreamRoutes const& upstream() const { return *upstream_; }
  /// What neighbors have asked of this router, by interface, family and route. O(n log n).
  std::vector<DownstreamOnInterface> downstream() const;
  /// That of one interface and family, or null without such an interface. It is there as long as link().
  DownstreamRoutes const* downstream(std::string_view intf, AddressFamily family) const;

  /// Totals.
  SpeakerCounters const& counters() const { return counters_; }

  /// The link of an interface, or null without such an interface. It is there for both families, and until
  /// the interface is removed.
  Link* link(std::string_view intf, AddressFamily family) const;
  /// Has an observer told of a link. It must outlive the link, and is not told of what is there already.
  /// Not to be called from a callback of the same link. Without such a link: nothing and false.
  bool linkObserverAdd(std::string_view intf, AddressFamily family, LinkObserver& observer);
  /// The engine's records of the latest received join and prune, or null while there is no primary address
  /// of the family. They are written only for messages that come while one of the two is watched.
  std::pair<Vel::Ptr<JoinPruneMessageInfo>, Vel::Ptr<JoinPruneMessageInfo>> records(
      std::string_view intf, AddressFamily family) const;

 private:
  friend class SpeakerLink;

  struct Interface {
    std::unique_ptr<SpeakerLink> ipv4, ipv6;
    std::map<std::pair<Verdict, std::optional<Wire::Reason>>, EventBudget> undelivered{};
    EventBudget failures{};
    U64 change = 0;          // Which change of an interface was its latest.
    bool isRemoved = false;  // Ends when the change of a link that is going on is complete.
  };

  SpeakerLink* linkOf(std::string_view intf, AddressFamily family) const;
  Verdict deliver(Incoming const& packet, std::span<U8 const> bytes, std::optional<Wire::Refusal>& refusal);
  void count(Incoming const& packet, Verdict verdict, std::optional<Wire::Refusal> const& refusal);
  Sent send(Wire::PimType type, Dova::IntfId const& intf, IpGenAddr const& source, std::span<U8 const> bytes);
  void countFailure(Outgoing const& packet, std::string_view reason);
  void endIfRemoved(std::string const& name);

  // Fixed at construction.
  Vel::Ptr<Zanth::TimerWheel> const wheel_;
  Sink& sink_;
  SpeakerSettings const settings_;
  Vel::Ptr<RpHashComputeStatus> const rpHash_;

  Random random_;
  SpeakerCounters counters_;
  EventBudget unknownInterfaces_;                   // Of packetUndelivered(); the interfaces have their own.
  U64 changes_ = 0;                                 // Of interfaces.
  std::unique_ptr<UpstreamRoutes> const upstream_;  // ends after the links
  std::map<std::string, Interface, std::less<>> interfaces_;
  Life life_;
};

}  // namespace Routing::Pim::Speaker
