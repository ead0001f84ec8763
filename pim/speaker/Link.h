// SPDX-License-Identifier: Apache-2.0
// One interface and address family of a speaker, as the classes see it that keep its routes.
//
//     Link                  what they ask: the neighbors, the effective delays, the engine's data sets
//     LinkObserver          what they are told: neighbors that come, end and restart, received Join/Prunes
//
// An interface with IPv4 and IPv6 addresses has two links; each has an engine of its own. All addresses of
// a link are of its family.
#pragma once

#include "pim/joinprune/JoinPruneStatus.h"
#include "pim/speaker/Random.h"
#include "pim/wire/PimMessage.h"
#include "runtime/zanth/TimerWheel.h"

namespace Routing::Pim::Speaker {

using Dova::AddressFamily;
using Dova::IpGenAddr;

/// A Join/Prune message that passed all checks: its sender is a neighbor.
struct ReceivedJoinPrune {
  IpGenAddr sender;                ///< The neighbor that sent it: its primary address.
  bool isForUs;                    ///< Its upstream neighbor is this link; otherwise it was heard.
  Wire::JoinPrune const& message;  ///< Valid during the call. Groups that the filter denies are still in it.
};

/// What happens on a link. Each call may do anything, the destruction of the speaker included.
class PIM_SPEAKER_API LinkObserver {
 public:
  virtual ~LinkObserver() = default;

  /// A neighbor is there: the engine has its machine and its three data sets.
  virtual void neighborUp(IpGenAddr const&) {}
  /// A neighbor ended: by a Hello with hold time 0, by its expiry, or by the end of the link. neighborUp() is
  /// false already.
  virtual void neighborDown(IpGenAddr const&) {}
  /// A neighbor that is up has another address list, or one of its addresses leads to it again: neighborOf()
  /// may find others than before, or none.
  virtual void neighborAddressesChanged(IpGenAddr const&) {}
  /// A neighbor that is up sent another generation ID.
  virtual void neighborRestarted(IpGenAddr const&) {}
  /// A Join/Prune was received.
  virtual void joinPruneReceived(ReceivedJoinPrune const&) {}
  /// The link goes down, or its primary address changes: its state ends. Link::primaryAddress() still is
  /// the old one. neighborDown() is called for the neighbors before.
  virtual void linkDown() {}
};

/// One interface and address family. It outlives the route objects that are made on it.
class PIM_SPEAKER_API Link {
 public:
  virtual ~Link() = default;

  /// The interface's name.
  virtual Dova::IntfId const& intf() const = 0;
  /// The family of all its addresses.
  virtual AddressFamily family() const = 0;
  /// The address in the source of its packets; of unknown family while the link is down.
  virtual IpGenAddr primaryAddress() const = 0;
  /// A Join/Prune to the unspecified address is for us on such a link.
  virtual bool isPointToPoint() const = 0;

  /// How many neighbors there are; O(1).
  virtual U32 neighborCount() const = 0;
  /// Whether there is a neighbor with this primary address.
  virtual bool neighborUp(IpGenAddr const& address) const = 0;

  /// The primary address of the neighbor that has this address: its own, or one that it lists in its
  /// Hellos. Nothing if no neighbor has it. For the RPF neighbor, which unicast routing may know by another
  /// address (RFC 7761, 4.3.4).
  virtual std::optional<IpGenAddr> neighborOf(IpGenAddr const& address) const = 0;

  /// Effective_Propagation_Delay, in seconds (RFC 7761, 4.3.3).
  virtual Seconds propagationDelay() const = 0;
  /// Effective_Override_Interval, in seconds (RFC 7761, 4.3.3). The engine may have a smaller one for a
  /// Hello_Period.
  virtual Seconds overrideInterval() const = 0;
  /// J/P_Override_Interval, in seconds: their sum.
  Seconds joinPruneOverrideInterval() const { return propagationDelay() + overrideInterval(); }
  /// Whether joins may be suppressed (RFC 7761, 4.3.3: not Suppression_Enabled(I) if false).
  virtual bool suppressionAllowed() const = 0;

  /// J/P_HoldTime of this link's own messages, in seconds; 65535 never ends.
  virtual Vel::U16 holdTime() const = 0;
  /// t_periodic, in seconds.
  virtual Seconds joinPruneInterval() const = 0;

  /// Whether received entries of a group are to be ignored.
  virtual bool isDenied(IpGenAddr const& group) const = 0;
  /// The RP of a group; nothing if the speaker's user does not know it, and then the RP of a message is
  /// accepted.
  virtual std::optional<IpGenAddr> rp(IpGenAddr const& group) const = 0;

  /// The wheel on which all timers of the speaker are.
  virtual Vel::Ptr<Zanth::TimerWheel> const& wheel() const = 0;
  /// The speaker's source of random values.
  virtual Random& random() const = 0;
  /// The engine's data sets; not null while the link is up.
  virtual Vel::Ptr<JoinPruneStatus> const& dataSets() const = 0;

  /// What is to be sent to a target at once, or null if there is no such target: a neighbor, or the primary
  /// address for a PruneEcho.
  Vel::Ptr<Packet::JoinPruneData> triggered(IpGenAddr const& target) const {
    return dataSets() ? dataSets()->triggeredGroup(target) : nullptr;
  }
  /// What is to be sent within the override interval, or null.
  Vel::Ptr<Packet::JoinPruneData> overriding(IpGenAddr const& target) const {
    return dataSets() ? dataSets()->overrideGroup(target) : nullptr;
  }
  /// What is to be sent in every interval, or null.
  Vel::Ptr<Packet::JoinPruneData> periodic(IpGenAddr const& target) const {
    Vel::Ptr<Packet::JoinPruneStatus> const status = dataSets() ? dataSets()->periodicGroupStatus() : nullptr;
    return status ? status->upJoinPrune(target) : nullptr;
  }
};

}  // namespace Routing::Pim::Speaker
