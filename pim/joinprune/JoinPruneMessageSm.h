// SPDX-License-Identifier: Apache-2.0
// The Join/Prune engine: the object that the agent makes.
//
// Which file does what:
//
//   JoinPruneMessageSm.h        the top: follows interfaces and neighbors, takes received messages apart
//   JoinPruneNeighborSm.h       one for each upstream target: what is to be sent to it, and when
//   JoinPrunePeriodicTimerSm.h  one for each of those: the periodic refresh
//   JoinPruneStatus.h           what is to be sent, by target; filled by the agent's route state machines
//   JoinPruneMessageInfo.h      the record of the latest received entry; watched by the agent
//   JoinPruneFilter.h           the policy on received entries
//
// and for the machines alone:
//
//   JoinPruneSender.h           the three ways in which a neighbor machine sends
//   detail/NestedReactor.h      the reactors of a machine: making and unhooking them, and their back pointers
//   private/JoinPruneNeighborLink.h   what this machine and the neighbor machines ask of each other
//   private/JoinPruneMessageTarget.h  what a neighbor machine is made with, and how it is removed
//   private/TransmitStep.h      one message handed to the packet manager
//   private/JoinPruneTrace.h    how the machines trace
//   private/RecordAccess.h      what the status and the record show to the message machine
//
// How they hang together: the agent makes the inputs (interfaces and neighbors in a Status, a
// JoinPruneStatus, two records, a receive channel, a packet manager, a timer wheel) and hands them to
// `joinPruneMessageSmFactory`. From then on everything happens inside the agent's own calls: a change of an
// input, or TimerWheel::expire().
//
//   auto machine = joinPruneMessageSmFactory(status, filter, pimStatus, rpHash, rxJoin, rxPrune, channel,
//                                            manager, wheel);
//   manager->txMessageInfoIs();               // before the first timer fires
//   pimStatus->pimNeighborIs(address, intf);  // the machine for this neighbor exists when this returns
//   auto group = status->triggeredGroup(address)->joinPruneGroupDataIs(groupAddress);
//   group->joinedSourceIs(source);            // sent in 0.1 s
#pragma once

#include "pim/joinprune/JoinPruneFilter.h"
#include "pim/joinprune/JoinPruneNeighborSm.h"
#include "pim/joinprune/JoinPruneStatus.h"
#include "pim/model/RpHashComputeStatus.h"
#include "pim/model/Status.h"

namespace Routing::Pim {

class JoinPruneMessageSm;

/// Makes a working machine with a count of 1. Any argument may be null; what belongs to it is then left out.
VEL_API Vel::Ptr<JoinPruneMessageSm> joinPruneMessageSmFactory(
    Vel::Ptr<JoinPruneStatus> joinPruneStatus, Vel::Ptr<JoinPruneFilter const> joinPruneFilter,
    Vel::Ptr<Status const> pimStatus, Vel::Ptr<RpHashComputeStatus> rpHashComputeStatus,
    Vel::Ptr<JoinPruneMessageInfo> rxJoin, Vel::Ptr<JoinPruneMessageInfo> rxPrune,
    Vel::Ptr<IO::MessageInfo> rxMessageInfo, Vel::Ptr<IO::PamManager> pimPamManager,
    Vel::Ptr<Zanth::TimerWheel> timerWheel);

/// The top-level machine. It keeps one JoinPruneNeighborSm for every upstream target: each PIM neighbor, and
/// each PIM interface's own address. An address has one machine: a neighbor never displaces one that is
/// there, an interface always does.
///
/// A target's three data sets (triggered, override, periodic) are made and removed with its machine. The
/// machine of a neighbor that is removed stays until its periodic data has no groups any more; that of an
/// interface is removed with the interface or its address, whatever is pending.
///
/// When the last reference to it is dropped, it retires its interfaces (with their targets) and all neighbor
/// machines; the neighbors' data sets stay in the status for its successor. It is safe to drop it, or any
/// input, from inside any callback.
class VEL_API JoinPruneMessageSm final : public Vel::Machine {
 public:
  enum Attribute : Vel::AttributeId {
    joinPruneStatusId = Vel::firstAttributeId,
    joinPruneFilterId,
    pimStatusId,
    rpHashComputeStatusId,
    rxJoinId,
    rxPruneId,
    rxMessageInfoId,
    txMessageId,
    pimPamManagerId,
    timerWheelId,
    diagUpJoinCountId,
    joinPruneNeighborSmId,
    pimIntfId,
    initializedId
  };

  class NotifieeConst : public Vel::ReactorOn<JoinPruneMessageSm> {
   public:
    virtual void onTxMessage() { handleNotification(txMessageId); }
    virtual void onDiagUpJoinCount() { handleNotification(diagUpJoinCountId); }
    virtual void onJoinPruneNeighborSm(Dova::IpGenAddr) {}
    virtual void onJoinPruneNeighborSmvelImmediate() {}
    virtual void onJoinPruneNeighborSm() { handleDefault("joinPruneNeighborSm"); }
    virtual void onPimIntf(Dova::IntfId) {}
    virtual void onPimIntfvelImmediate() {}
    virtual void onPimIntf() { handleDefault("pimIntf"); }
    virtual void onInitialized() { handleNotification(initializedId); }
  };
  using Notifiee = Vel::WritableReactor<NotifieeConst, JoinPruneMessageSm>;

  // --- Nested reactors ---------------------------------------------------------------------------

  /// A reactor of the machine.
  template <class Base>
  class Owned : public NestedReactor<Base, JoinPruneMessageSm> {
   public:
    /// The machine, or null once it has let go; not counted.
    JoinPruneMessageSm* joinPruneMessageSm() const { return this->velOwner(); }
    /// Sets the back pointer.
    void joinPruneMessageSmIs(JoinPruneMessageSm* sm) { this->velOwnerIs(sm); }
    void joinPruneMessageSmIs(JoinPruneMessageSm*) const { Vel::throwConstInstance(); }

   protected:
    using NestedReactor<Base, JoinPruneMessageSm>::NestedReactor;
  };

  /// Follows the interfaces and neighbors. Pointed at another Status, it brings the interfaces into line.
  class VEL_API VelPimStatus final : public Owned<Status::NotifieeConst> {
   public:
    /// Watches a status.
    VelPimStatus(Vel::Ptr<Status const> const& status, JoinPruneMessageSm* sm);
    void notifierIs(Vel::Ptr<Status const> const& status) override;
    using Owned::notifierIs;
    using Owned::onPimIntf;
    using Owned::onPimNeighbor;
    void onPimIntf(Dova::IntfId intfId) override;
    void onPimIntfvelImmediate() override;
    void onPimNeighbor(Dova::IpGenAddr address) override;
  };

  /// Follows the receive channel. Pointed at another channel, it takes the message that is there.
  class VEL_API VelRxMessageInfo final : public Owned<IO::MessageInfo::Notifiee> {
   public:
    using Owned::notifierIs;
    /// Watches a channel; takes nothing that is already there.
    VelRxMessageInfo(Vel::Ptr<IO::MessageInfo> const& channel, JoinPruneMessageSm* sm);
    void notifierIs(Vel::Ptr<IO::MessageInfo> const& channel) override;
    void onCount() override;
  };

  /// Holds the packet manager.
  class VEL_API VelPimPamManager final : public Owned<IO::PamManager::Notifiee> {
   public:
    /// Holds a manager.
    VelPimPamManager(Vel::Ptr<IO::PamManager> const& manager, JoinPruneMessageSm* sm) : Owned(sm) {
      notifierIs(manager);
    }
  };

  /// Holds the timer wheel.
  class VEL_API VelTimerWheel final : public Owned<Zanth::TimerWheel::Notifiee> {
   public:
    /// Holds a wheel.
    VelTimerWheel(Vel::Ptr<Zanth::TimerWheel> const& wheel, JoinPruneMessageSm* sm) : Owned(sm) {
      notifierIs(wheel);
    }
  };

  /// Expires a moment after a target could not be made or removed for want of memory.
  class VEL_API VelCatchUpTimer final : public Owned<Zanth::TimerWheel::Notifiee> {
   public:
    /// On a wheel, not armed.
    VelCatchUpTimer(Vel::Ptr<Zanth::TimerWheel> const& wheel, JoinPruneMessageSm* sm) : Owned(sm) {
      notifierIs(wheel);
    }
    void onTime() override;
  };

  /// Follows one interface and keeps the machine of its own address.
  class VEL_API VelPimIntf final : public Owned<Intf::NotifieeConst> {
   public:
    /// Watches an interface and makes the machine of its address.
    VelPimIntf(Vel::Ptr<Intf const> const& intf, JoinPruneMessageSm* sm);

    /// The interface's identifier.
    Dova::IntfId const& velKey() const { return intfId_; }
    /// The address under which the interface's machine was made.
    Dova::IpGenAddr address() const { return address_; }
    /// Sets that address; no machine is moved.
    void addressIs(Dova::IpGenAddr const& address) { address_ = address; }
    void addressIs(Dova::IpGenAddr const&) const { Vel::throwConstInstance(); }

    /// Another object with the same identifier is another interface: the machine is rebuilt on it. An object
    /// with another identifier throws Vel::InvalidArgumentException.
    void notifierIs(Vel::Ptr<Intf const> const& intf) override;
    using Owned::notifierIs;
    void onUsedAddressWithMask() override;
    /// Kept: the machine is removed on every change of state, also when a retired reactor is revived.
    void velDoZombieReactors(bool zombie) override;
    using Owned::velDoZombieReactors;

    /// The interface is there: makes the machine of its address, in place of one that a neighbor had.
    void handleNew();
    /// The interface was removed: removes the machine of `address()` and its data sets, whatever is pending.
    void handleDel();
    /// The address may have changed. If it has: `handleDel()`, `handleNew()`.
    void handleUsedAddress();
    /// Makes the data sets of an address, and its machine, in place of one that is there.
    void createJoinPruneSm(Dova::IpGenAddr const& address);
    /// Removes the machine of an address, and its data sets.
    void deleteJoinPruneSm(Dova::IpGenAddr const& address);

   private:
    friend class JoinPruneMessageSm;

    bool live() const;
    // True if the machine of the address could not be made for want of memory.
    bool unfinished() const { return unfinished_; }

    Dova::IntfId const intfId_;
    Dova::IpGenAddr address_;
    bool taken_ = false;  // handleNew() came as far as to take the address over
    bool unfinished_ = false;
  };

  // --- Attributes fixed at construction ----------------------------------------------------------

  /// What is to be sent.
  VEL_FIXED(Vel::Ptr<JoinPruneStatus>, joinPruneStatus);
  /// The policy on received entries.
  VEL_FIXED(Vel::Ptr<JoinPruneFilter const>, joinPruneFilter);
  /// The RP hash, against which received (*,G) joins are checked.
  VEL_FIXED(Vel::Ptr<RpHashComputeStatus>, rpHashComputeStatus);
  /// The record of the latest received join.
  VEL_FIXED(Vel::Ptr<JoinPruneMessageInfo>, rxJoin);
  /// The record of the latest received prune.
  VEL_FIXED(Vel::Ptr<JoinPruneMessageInfo>, rxPrune);

  // Reactors on the other constructor arguments; null where the argument was.
  /// On the interfaces and neighbors.
  VEL_FIXED(Vel::Ptr<VelPimStatus>, pimStatus);
  /// On the receive channel.
  VEL_FIXED(Vel::Ptr<VelRxMessageInfo>, rxMessageInfo);
  /// On the packet manager.
  VEL_FIXED(Vel::Ptr<VelPimPamManager>, pimPamManager);
  /// On the timer wheel.
  VEL_FIXED(Vel::Ptr<VelTimerWheel>, timerWheel);

 public:
  // --- Attributes that change --------------------------------------------------------------------

  /// The one outgoing message, shared by all neighbor machines.
  Vel::Ptr<Packet::JoinPruneMessage> txMessage() const { return txMessage_; }
  /// Returns it, made if it is missing.
  Vel::Ptr<Packet::JoinPruneMessage> txMessageIs();
  Vel::Ptr<Packet::JoinPruneMessage> txMessageIs() const { Vel::throwConstInstance(); }
  /// Makes it anew.
  Vel::Ptr<Packet::JoinPruneMessage> newTxMessage();
  Vel::Ptr<Packet::JoinPruneMessage> newTxMessage() const { Vel::throwConstInstance(); }

  /// Whether the neighbor machines check their route counts against their data. Meant for hunting a caller
  /// that breaks the rules: a wrong count stops the process, and each check walks all groups.
  VEL_VALUE(bool, diagUpJoinCount, DiagUpJoinCount, false);

  /// The neighbor machines, by target address.
  VEL_ENTITIES_READ(Dova::IpGenAddr, JoinPruneNeighborSm, joinPruneNeighborSm, JoinPruneNeighborSm);

  /// The interface reactors.
  VEL_ENTITIES_READ(Dova::IntfId, VelPimIntf, pimIntf, PimIntf);

  /// True once `handleInitialized()` has run.
  VEL_VALUE(bool, initialized, Initialized, false);

 public:
  /// Finds the machine of a target, or makes it. One that is there with other parameters throws the range
  /// exception "Reinstantiating the pointer interface ..." for the first that differs. Null if this machine
  /// is retired.
  Vel::Ptr<JoinPruneNeighborSm> joinPruneNeighborSmIs(
      JoinPruneMessageSm* parentSm, Dova::IpGenAddr const& neighborAddr, Vel::Ptr<Neighbor const> neighbor,
      Vel::Ptr<Intf const> intf, Vel::Ptr<Packet::JoinPruneData> triggeredGroup,
      Vel::Ptr<Packet::JoinPruneData> overrideGroup, Vel::Ptr<Packet::JoinPruneData> periodicGroup,
      Vel::Ptr<Zanth::TimerWheel> timerWheel, double const& overrideInterval,
      Vel::Ptr<IO::PamManager> pimPamManager, Vel::Ptr<Packet::JoinPruneMessage> txMessage);
  /// Makes the machine of a target, puts it in its place and starts it, without notifying the reactors of
  /// this machine. A machine that is there throws the range exception and stays.
  Vel::Ptr<JoinPruneNeighborSm> newJoinPruneNeighborSm(
      JoinPruneMessageSm* parentSm, Dova::IpGenAddr const& neighborAddr, Vel::Ptr<Neighbor const> neighbor,
      Vel::Ptr<Intf const> intf, Vel::Ptr<Packet::JoinPruneData> triggeredGroup,
      Vel::Ptr<Packet::JoinPruneData> overrideGroup, Vel::Ptr<Packet::JoinPruneData> periodicGroup,
      Vel::Ptr<Zanth::TimerWheel> timerWheel, double const& overrideInterval,
      Vel::Ptr<IO::PamManager> pimPamManager, Vel::Ptr<Packet::JoinPruneMessage> txMessage);
  /// Removes and retires the machine of a target; its data sets stay. The removed machine, or null.
  Vel::Ptr<JoinPruneNeighborSm> joinPruneNeighborSmDel(Dova::IpGenAddr const& neighborAddr);
  /// The same for the machine at an iterator's position.
  Vel::Ptr<JoinPruneNeighborSm> joinPruneNeighborSmDel(JoinPruneNeighborSmIterator const& i);
  /// Removes and retires all machines that are there now; their data sets stay.
  void joinPruneNeighborSmDelAll();
  Vel::Ptr<JoinPruneNeighborSm> joinPruneNeighborSmIs(
      JoinPruneMessageSm*, Dova::IpGenAddr const&, Vel::Ptr<Neighbor const>, Vel::Ptr<Intf const>,
      Vel::Ptr<Packet::JoinPruneData>, Vel::Ptr<Packet::JoinPruneData>, Vel::Ptr<Packet::JoinPruneData>,
      Vel::Ptr<Zanth::TimerWheel>, double const&, Vel::Ptr<IO::PamManager>,
      Vel::Ptr<Packet::JoinPruneMessage>) const {
    Vel::throwConstInstance();
  }
  Vel::Ptr<JoinPruneNeighborSm> newJoinPruneNeighborSm(
      JoinPruneMessageSm*, Dova::IpGenAddr const&, Vel::Ptr<Neighbor const>, Vel::Ptr<Intf const>,
      Vel::Ptr<Packet::JoinPruneData>, Vel::Ptr<Packet::JoinPruneData>, Vel::Ptr<Packet::JoinPruneData>,
      Vel::Ptr<Zanth::TimerWheel>, double const&, Vel::Ptr<IO::PamManager>,
      Vel::Ptr<Packet::JoinPruneMessage>) const {
    Vel::throwConstInstance();
  }
  Vel::Ptr<JoinPruneNeighborSm> joinPruneNeighborSmDel(Dova::IpGenAddr const&) const {
    Vel::throwConstInstance();
  }
  Vel::Ptr<JoinPruneNeighborSm> joinPruneNeighborSmDel(JoinPruneNeighborSmIterator const&) const {
    Vel::throwConstInstance();
  }
  void joinPruneNeighborSmDelAll() const { Vel::throwConstInstance(); }

  /// Finds the interface's reactor, points it at `intf` if it watches another object, or makes it. Null
  /// throws the invalid-argument exception "null _pimIntf parameter to mutator for ...".
  Vel::Ptr<VelPimIntf> pimIntfIs(Vel::Ptr<Intf const> const& intf);
  /// Retires and removes an interface's reactor, and with it the machine of its address. The reactor, or
  /// null.
  Vel::Ptr<VelPimIntf> pimIntfDel(Dova::IntfId const& intfId);
  /// The same for the reactor at an iterator's position.
  Vel::Ptr<VelPimIntf> pimIntfDel(PimIntfIterator const& i);
  /// The same for all interfaces that are there now.
  void pimIntfDelAll();
  Vel::Ptr<VelPimIntf> pimIntfIs(Vel::Ptr<Intf const> const&) const { Vel::throwConstInstance(); }
  Vel::Ptr<VelPimIntf> pimIntfDel(Dova::IntfId const&) const { Vel::throwConstInstance(); }
  Vel::Ptr<VelPimIntf> pimIntfDel(PimIntfIterator const&) const { Vel::throwConstInstance(); }
  void pimIntfDelAll() const { Vel::throwConstInstance(); }

  // --- Reactions and steps -----------------------------------------------------------------------

  void handleInitialized() override;
  /// Takes up every neighbor that is listed.
  void handleNeighbor();
  /// Takes up a neighbor that is listed, or lets go of one that is not.
  void handleNeighbor(Dova::IpGenAddr const& address);
  /// Removes a neighbor's machine and data sets, unless the neighbor is listed, the target is an interface's
  /// own address, or there is periodic data that is still to be sent. Called again by the neighbor machine
  /// when its periodic data has run empty.
  void doMaybeDeleteNeighbor(Dova::IpGenAddr const& address);
  /// Takes the channel's message apart, entry by entry, into `rxJoin` and `rxPrune`. If the filter throws,
  /// the group counts as denied; if the RP hash does, the (*,G) join is left out. The first error is thrown
  /// on once the rest of the message is recorded.
  void handleRxMessage();
  /// An interface reactor was retired or revived.
  void vel_handlePimIntf(VelPimIntf* reactor);

  Vel::AttributeTable const& attributeTable() const override;

 protected:
  ~JoinPruneMessageSm() override;
  void doTeardown() override;
  void velVisitReactors(ReactorVisitor const& visit) override;

 private:
  struct Target;
  friend Vel::Ptr<JoinPruneMessageSm> joinPruneMessageSmFactory(
      Vel::Ptr<JoinPruneStatus> joinPruneStatus, Vel::Ptr<JoinPruneFilter const> joinPruneFilter,
      Vel::Ptr<Status const> pimStatus, Vel::Ptr<RpHashComputeStatus> rpHashComputeStatus,
      Vel::Ptr<JoinPruneMessageInfo> rxJoin, Vel::Ptr<JoinPruneMessageInfo> rxPrune,
      Vel::Ptr<IO::MessageInfo> rxMessageInfo, Vel::Ptr<IO::PamManager> pimPamManager,
      Vel::Ptr<Zanth::TimerWheel> timerWheel);

  // Only the factory constructs, and it starts what it has made: the interfaces, then handleInitialized().
  JoinPruneMessageSm(
      Vel::Ptr<JoinPruneStatus> const& joinPruneStatus,
      Vel::Ptr<JoinPruneFilter const> const& joinPruneFilter, Vel::Ptr<Status const> const& pimStatus,
      Vel::Ptr<RpHashComputeStatus> const& rpHashComputeStatus, Vel::Ptr<JoinPruneMessageInfo> const& rxJoin,
      Vel::Ptr<JoinPruneMessageInfo> const& rxPrune, Vel::Ptr<IO::MessageInfo> const& rxMessageInfo,
      Vel::Ptr<IO::PamManager> const& pimPamManager, Vel::Ptr<Zanth::TimerWheel> const& timerWheel);

  void startMachine(JoinPruneNeighborSm& sm);
  Vel::Ptr<JoinPruneNeighborSm> removeJoinPruneNeighborSm(Dova::IpGenAddr const& neighborAddr);
  Vel::Ptr<VelPimIntf> removePimIntf(Dova::IntfId const& intfId);
  void fallBehind() noexcept;
  void catchUp() noexcept;
  void syncPimIntf();
  bool succeeded() const;
  Vel::Ptr<Packet::JoinPruneStatus> periodicStatus() const;
  Vel::Ptr<Neighbor const> listedNeighbor(Dova::IpGenAddr const& address) const;
  template <class Wanted>
  bool openTarget(Target& target, Dova::IpGenAddr const& address, Wanted const& wanted);
  template <class Wanted>
  void closeTarget(Dova::IpGenAddr const& address, Wanted const& wanted);
  void startTarget(Target const& target, Dova::IpGenAddr const& address,
                   Vel::Ptr<Neighbor const> const& neighbor, Vel::Ptr<Intf const> const& intf);

  Vel::Ptr<VelCatchUpTimer> catchUpTimer_;
  Vel::Ptr<Packet::JoinPruneMessage> txMessage_;
  bool behind_ = false;  // a target was not made or not removed for want of memory; see catchUp()
};

/// "JoinPruneMessageSm::".
VEL_API std::ostream& operator<<(std::ostream& os, JoinPruneMessageSm const* sm);

}  // namespace Routing::Pim
