// SPDX-License-Identifier: Apache-2.0
// Everything that is sent to one upstream target.
#pragma once

#include "pim/joinprune/JoinPruneSender.h"
#include "pim/model/Neighbor.h"
#include "pim/model/io/PamManager.h"
#include "runtime/vel/Attribute.h"
#include "runtime/vel/Machine.h"

namespace Routing::Pim {

class JoinPruneMessageSm;
class JoinPruneNeighborSm;
struct JoinPruneNeighborInputs;

/// Makes a working machine with a count of 1. Any pointer may be null: no data, nothing to do; no wheel, no
/// timers; no manager, nothing sent. Without an interface the first periodic route stops the process. The
/// parent is not counted. An override interval that is NaN or negative throws Vel::InvalidArgumentException.
VEL_API Vel::Ptr<JoinPruneNeighborSm> joinPruneNeighborSmFactory(
    JoinPruneMessageSm* parentSm, Dova::IpGenAddr const& neighborAddr, Vel::Ptr<Neighbor const> neighbor,
    Vel::Ptr<Intf const> intf, Vel::Ptr<Packet::JoinPruneData> triggeredGroup,
    Vel::Ptr<Packet::JoinPruneData> overrideGroup, Vel::Ptr<Packet::JoinPruneData> periodicGroup,
    Vel::Ptr<Zanth::TimerWheel> timerWheel, Seconds const& overrideInterval,
    Vel::Ptr<IO::PamManager> pimPamManager, Vel::Ptr<Packet::JoinPruneMessage> txMessage);

/// The transmit machine of one upstream target: a PIM neighbor, or an interface's own address.
///
/// It watches three sets of joins and prunes that others fill, group by group and source by source, and sends
/// them in three ways, with a sender for each (JoinPruneSender.h):
///
///   triggered   what a route change calls for (RFC 7761, 4.5): `triggeredInterval` after the first change
///   override    joins that override a prune on the LAN (RFC 7761, 4.5, t_override): after a random delay
///   periodic    the standing state (RFC 7761, 4.5, t_periodic): every interval, by JoinPrunePeriodicTimerSm
///
/// Triggered and override entries leave their set as they are sent; their disappearance is what tells this
/// machine that they went out. A group that is empty then is removed from its set, and with it the machine's
/// reactor.
///
/// The message machine makes these machines, keeps them by address and retires them. A retired machine that
/// somebody still holds does nothing any more.
class VEL_API JoinPruneNeighborSm final : public Vel::Machine {
 public:
  enum Attribute : Vel::AttributeId {
    parentSmId = Vel::firstAttributeId,
    neighborAddrId,
    neighborId,
    intfId,
    triggeredGroupId,
    overrideGroupId,
    periodicGroupId,
    timerWheelId,
    overrideIntervalId,
    pimPamManagerId,
    txMessageId,
    triggeredTimerId,
    overrideTimerId,
    loopQuantumId,
    triggeredIntervalId,
    joinPrunePeriodicTimerSmId,
    triggeredGroupDataId,
    overrideGroupDataId,
    numPeriodicRoutesId,
    periodicGroupDataId,
    initializedId
  };

  class NotifieeConst : public Vel::ReactorOn<JoinPruneNeighborSm> {
   public:
    virtual void onTriggeredTimer() { handleNotification(triggeredTimerId); }
    virtual void onOverrideTimer() { handleNotification(overrideTimerId); }
    virtual void onLoopQuantum() { handleNotification(loopQuantumId); }
    virtual void onTriggeredInterval() { handleNotification(triggeredIntervalId); }
    virtual void onJoinPrunePeriodicTimerSm() { handleNotification(joinPrunePeriodicTimerSmId); }
    virtual void onTriggeredGroupData(Dova::IpGenAddr) {}
    virtual void onTriggeredGroupDatavelImmediate() {}
    virtual void onTriggeredGroupData() { handleDefault("triggeredGroupData"); }
    virtual void onOverrideGroupData(Dova::IpGenAddr) {}
    virtual void onOverrideGroupDatavelImmediate() {}
    virtual void onOverrideGroupData() { handleDefault("overrideGroupData"); }
    virtual void onNumPeriodicRoutes() { handleNotification(numPeriodicRoutesId); }
    virtual void onPeriodicGroupData(Dova::IpGenAddr) {}
    virtual void onPeriodicGroupDatavelImmediate() {}
    virtual void onPeriodicGroupData() { handleDefault("periodicGroupData"); }
    virtual void onInitialized() { handleNotification(initializedId); }
  };
  using Notifiee = Vel::WritableReactor<NotifieeConst, JoinPruneNeighborSm>;

  // --- Nested reactors ---------------------------------------------------------------------------

  /// A reactor of the machine itself.
  template <class Base>
  class Owned : public NestedReactor<Base, JoinPruneNeighborSm> {
   public:
    /// The machine, or null once it has let go; not counted.
    JoinPruneNeighborSm* joinPruneNeighborSm() const { return this->velOwner(); }
    /// Sets the back pointer.
    void joinPruneNeighborSmIs(JoinPruneNeighborSm* sm) { this->velOwnerIs(sm); }
    void joinPruneNeighborSmIs(JoinPruneNeighborSm*) const { Vel::throwConstInstance(); }

   protected:
    using NestedReactor<Base, JoinPruneNeighborSm>::NestedReactor;
  };

  /// A reactor of one of the machine's senders.
  template <class Base, JoinPruneSenderKind kind>
  class OfSender : public Base {
   public:
    /// Watches what it is on, for a machine.
    template <class Notifier>
    OfSender(Vel::Ptr<Notifier> const& notifier, JoinPruneNeighborSm* sm)
        : Base(notifier, senderOf<kind>(sm)) {}
    /// Sets the back pointer.
    void joinPruneNeighborSmIs(JoinPruneNeighborSm* sm) { this->velOwnerIs(senderOf<kind>(sm)); }
    void joinPruneNeighborSmIs(JoinPruneNeighborSm*) const { Vel::throwConstInstance(); }
  };

  /// Holds the timer wheel.
  class VEL_API VelTimerWheel final : public Owned<Zanth::TimerWheel::Notifiee> {
   public:
    /// Holds a wheel.
    VelTimerWheel(Vel::Ptr<Zanth::TimerWheel> const& wheel, JoinPruneNeighborSm* sm) : Owned(sm) {
      notifierIs(wheel);
    }
  };

  /// Holds the packet manager.
  class VEL_API VelPimPamManager final : public Owned<IO::PamManager::Notifiee> {
   public:
    /// Holds a manager.
    VelPimPamManager(Vel::Ptr<IO::PamManager> const& manager, JoinPruneNeighborSm* sm) : Owned(sm) {
      notifierIs(manager);
    }
  };

  /// The timer of the triggered data.
  class VEL_API VelTriggeredTimer final : public OfSender<JoinPruneTimer, JoinPruneSenderKind::triggered> {
    using OfSender::OfSender;
  };
  /// The timer of the override data.
  class VEL_API VelOverrideTimer final : public OfSender<JoinPruneTimer, JoinPruneSenderKind::override> {
    using OfSender::OfSender;
  };
  /// Follows the groups of the triggered data.
  class VEL_API VelTriggeredGroup final
      : public OfSender<JoinPruneDataReactor, JoinPruneSenderKind::triggered> {
    using OfSender::OfSender;
  };
  /// Follows the groups of the override data.
  class VEL_API VelOverrideGroup final
      : public OfSender<JoinPruneDataReactor, JoinPruneSenderKind::override> {
    using OfSender::OfSender;
  };
  /// Follows the groups of the periodic data.
  class VEL_API VelPeriodicGroup final
      : public OfSender<JoinPruneDataReactor, JoinPruneSenderKind::periodic> {
    using OfSender::OfSender;
  };
  /// Follows the sources of one group of the triggered data.
  class VEL_API VelTriggeredGroupData final
      : public OfSender<JoinPruneGroupReactor, JoinPruneSenderKind::triggered> {
    using OfSender::OfSender;
  };
  /// Follows the sources of one group of the override data.
  class VEL_API VelOverrideGroupData final
      : public OfSender<JoinPruneGroupReactor, JoinPruneSenderKind::override> {
    using OfSender::OfSender;
  };
  /// Follows the sources of one group of the periodic data.
  class VEL_API VelPeriodicGroupData final
      : public OfSender<JoinPruneGroupReactor, JoinPruneSenderKind::periodic> {
   public:
    using OfSender::OfSender;

    /// True while the group's (*,G) entry is counted in `numPeriodicRoutes`.
    bool wcSourceSet() const { return wcSourceSet_; }
    /// Sets the flag; no count is moved.
    void wcSourceSetIs(bool set) { wcSourceSet_ = set; }
    void wcSourceSetIs(bool) const { Vel::throwConstInstance(); }

    /// The (S,G) joins as a whole may have changed: a trace, nothing else.
    void handleJoinedSource();
    /// The same for the (S,G) prunes.
    void handlePrunedSource();
    /// The same for the (S,G,rpt) joins.
    void handleJoinedRptSource();
    /// The same for the (S,G,rpt) prunes.
    void handlePrunedRptSource();
    using JoinPruneGroupReactor::handleJoinedRptSource;
    using JoinPruneGroupReactor::handleJoinedSource;
    using JoinPruneGroupReactor::handlePrunedRptSource;
    using JoinPruneGroupReactor::handlePrunedSource;

    void onJoinedSourcevelImmediate() override { handleJoinedSource(); }
    void onPrunedSourcevelImmediate() override { handlePrunedSource(); }
    void onJoinedRptSourcevelImmediate() override { handleJoinedRptSource(); }
    void onPrunedRptSourcevelImmediate() override { handlePrunedRptSource(); }
  };

  // --- Attributes fixed at construction ----------------------------------------------------------

  /// The machine that owns this one; null without one and after this one was retired.
  JoinPruneMessageSm* parentSm() const { return parentSm_; }
  /// The target's address, the key.
  Dova::IpGenAddr const& neighborAddr() const { return neighborAddr_; }
  /// Null if the target is an interface's own address.
  Vel::Ptr<Neighbor const> const& neighbor() const { return neighbor_; }
  /// The interface towards the target.
  Vel::Ptr<Intf const> const& intf() const { return intf_; }
  /// The upper bound of the override delay, in seconds.
  Seconds overrideInterval() const { return overrideInterval_; }
  /// The message that is sent through; it carries the report.
  Vel::Ptr<Packet::JoinPruneMessage> const& txMessage() const { return txMessage_; }

  // Reactors on the other constructor arguments; null where the argument was.
  /// On the triggered data.
  Vel::Ptr<VelTriggeredGroup> triggeredGroup() const {
    return as<VelTriggeredGroup>(triggered_.dataReactor());
  }
  /// On the override data.
  Vel::Ptr<VelOverrideGroup> overrideGroup() const { return as<VelOverrideGroup>(override_.dataReactor()); }
  /// On the periodic data.
  Vel::Ptr<VelPeriodicGroup> periodicGroup() const { return as<VelPeriodicGroup>(periodic_.dataReactor()); }
  /// On the timer wheel.
  Vel::Ptr<VelTimerWheel> const& timerWheel() const { return timerWheel_; }
  /// On the packet manager.
  Vel::Ptr<VelPimPamManager> const& pimPamManager() const { return pimPamManager_; }

  // --- Attributes that change --------------------------------------------------------------------

  /// The timer of the triggered data; null without a wheel.
  Vel::Ptr<VelTriggeredTimer> triggeredTimer() const { return as<VelTriggeredTimer>(triggered_.timer()); }
  /// The timer of the override data; null without a wheel.
  Vel::Ptr<VelOverrideTimer> overrideTimer() const { return as<VelOverrideTimer>(override_.timer()); }

  /// The machine of the periodic refresh.
  Vel::Ptr<JoinPrunePeriodicTimerSm> joinPrunePeriodicTimerSm() const { return periodic_.timerSm(); }

  /// Longest time that one expiry may spend sending, in seconds. The periodic machine keeps the value that it
  /// was made with.
  VEL_SECONDS(loopQuantum, LoopQuantum, 0.1);

  /// Delay from the first triggered change to its message, in seconds; takes effect when the timer is armed
  /// next.
  VEL_SECONDS(triggeredInterval, TriggeredInterval, 0.1);

  // The reactors of the groups, by group address. Each is there from the moment that the machine takes notice
  // of the group, but made when it is asked for first, which throws std::bad_alloc where there is no memory,
  // and then changes nothing.
#define JOIN_PRUNE_GROUP_DATA(foo, Foo, sender)                                                             \
  VEL_COLLECTION_NOTIFY(Dova::IpGenAddr, foo, Foo)                                                          \
  /** Walks `foo`, and stays valid whatever changes meanwhile. */                                           \
  using Foo##Iterator = JoinPruneGroupReactorIterator<Vel##Foo>;                                            \
  /** The same, for reading. */                                                                             \
  using Foo##IteratorConst = JoinPruneGroupReactorIterator<Vel##Foo const>;                                 \
  /** The reactor of a group, or null. */                                                                   \
  Vel::Ptr<Vel##Foo> foo(Dova::IpGenAddr const& group) { return as<Vel##Foo>(sender.find(group)); }         \
  /** The same, for reading. */                                                                             \
  Vel::Ptr<Vel##Foo const> foo(Dova::IpGenAddr const& group) const {                                        \
    return as<Vel##Foo const>(sender.find(group));                                                          \
  }                                                                                                         \
  /** How many reactors `foo` has; O(1). */                                                                 \
  U32 foo##Count() const { return sender.groupCount(); }                                                    \
  /** At the first reactor of `foo`. */                                                                     \
  Foo##Iterator foo##Iterator() { return {this, sender.groups()}; }                                         \
  /** The same, for reading. */                                                                             \
  Foo##IteratorConst foo##Iterator() const { return {this, sender.groups()}; }                              \
  /** At the first reactor of `foo`, for reading. */                                                        \
  Foo##IteratorConst foo##IteratorConst() const { return {this, sender.groups()}; }                         \
  /** At the first reactor behind a group, which need not be there. */                                      \
  Foo##Iterator foo##IteratorAfter(Dova::IpGenAddr const& group) { return {this, sender.groups(), group}; } \
  /** The same, for reading. */                                                                             \
  Foo##IteratorConst foo##IteratorAfter(Dova::IpGenAddr const& group) const {                               \
    return {this, sender.groups(), group};                                                                  \
  }                                                                                                         \
  /** The group's reactor, made or pointed at it; null throws InvalidArgumentException. */                  \
  Vel::Ptr<Vel##Foo> foo##Is(Vel::Ptr<Packet::JoinPruneGroupData> const& groupData) {                       \
    return as<Vel##Foo>(sender.groupDataIs(groupData));                                                     \
  }                                                                                                         \
  Vel::Ptr<Vel##Foo> foo##Is(Vel::Ptr<Packet::JoinPruneGroupData> const&) const {                           \
    Vel::throwConstInstance();                                                                              \
  }                                                                                                         \
  /** Makes it, silently; one that is there throws RangeException. */                                       \
  Vel::Ptr<Vel##Foo> new##Foo(Vel::Ptr<Packet::JoinPruneGroupData> const& groupData) {                      \
    return as<Vel##Foo>(sender.newGroupData(groupData));                                                    \
  }                                                                                                         \
  Vel::Ptr<Vel##Foo> new##Foo(Vel::Ptr<Packet::JoinPruneGroupData> const&) const {                          \
    Vel::throwConstInstance();                                                                              \
  }                                                                                                         \
  /** Unhooks, removes and returns a group's reactor, or null; the route count stays. */                    \
  Vel::Ptr<Vel##Foo> foo##Del(Dova::IpGenAddr const& group) {                                               \
    return as<Vel##Foo>(sender.groupDataDel(group));                                                        \
  }                                                                                                         \
  Vel::Ptr<Vel##Foo> foo##Del(Dova::IpGenAddr const&) const { Vel::throwConstInstance(); }                  \
  /** The same for the reactor at an iterator's position. */                                                \
  Vel::Ptr<Vel##Foo> foo##Del(Foo##Iterator const& i) { return foo##Del(i.key()); }                         \
  Vel::Ptr<Vel##Foo> foo##Del(Foo##Iterator const&) const { Vel::throwConstInstance(); }                    \
  /** The same for all that are there now. */                                                               \
  void foo##DelAll() { sender.groupDataDelAll(); }                                                          \
  void foo##DelAll() const { Vel::throwConstInstance(); }
  JOIN_PRUNE_GROUP_DATA(triggeredGroupData, TriggeredGroupData, triggered_)
  JOIN_PRUNE_GROUP_DATA(overrideGroupData, OverrideGroupData, override_)
  JOIN_PRUNE_GROUP_DATA(periodicGroupData, PeriodicGroupData, periodic_)
#undef JOIN_PRUNE_GROUP_DATA

  /// True once `handleInitialized()` has run. While false, expiries do nothing.
  VEL_VALUE(bool, initialized, Initialized, false);

 public:
  /// How many entries the periodic data has, as counted source by source, modulo 2^32.
  U32 numPeriodicRoutes() const { return periodic_.routes(); }
  /// Sets the count. A change updates the periodic timer and is checked; see `validateNumPeriodicRoutes()`.
  void numPeriodicRoutesIs(U32 n) { periodic_.routesIs(n); }
  void numPeriodicRoutesIs(U32) const { Vel::throwConstInstance(); }
  /// Adds to the count, as numPeriodicRoutesIs(). The new value.
  U32 numPeriodicRoutesInc(U32 n);
  U32 numPeriodicRoutesInc(U32) const { Vel::throwConstInstance(); }
  /// Subtracts from the count, as numPeriodicRoutesIs(); below zero it wraps. The new value.
  U32 numPeriodicRoutesDec(U32 n) { return numPeriodicRoutesInc(0u - n); }
  U32 numPeriodicRoutesDec(U32) const { Vel::throwConstInstance(); }

  /// Makes the triggered timer on a wheel; the same wheel is nothing, null removes the timer.
  void triggeredTimerIs(Vel::Ptr<Zanth::TimerWheel> const& wheel) { triggered_.timerIs(wheel); }
  void triggeredTimerIs(Vel::Ptr<Zanth::TimerWheel> const&) const { Vel::throwConstInstance(); }
  /// Makes the override timer on a wheel; the same wheel is nothing, null removes the timer.
  void overrideTimerIs(Vel::Ptr<Zanth::TimerWheel> const& wheel) { override_.timerIs(wheel); }
  void overrideTimerIs(Vel::Ptr<Zanth::TimerWheel> const&) const { Vel::throwConstInstance(); }

  /// Finds the periodic machine, or makes it.
  Vel::Ptr<JoinPrunePeriodicTimerSm> joinPrunePeriodicTimerSmIs(
      Vel::Ptr<Zanth::TimerWheel> const& timerWheel, JoinPruneNeighborSm* parentSm,
      Seconds const& loopQuantum, Vel::Ptr<Packet::JoinPruneData> const& periodicGroup,
      Vel::Ptr<Intf const> const& intf, Vel::Ptr<IO::PamManager> const& pimPamManager,
      Vel::Ptr<Packet::JoinPruneMessage> const& txMessage);
  Vel::Ptr<JoinPrunePeriodicTimerSm> joinPrunePeriodicTimerSmIs(
      Vel::Ptr<Zanth::TimerWheel> const&, JoinPruneNeighborSm*, Seconds const&,
      Vel::Ptr<Packet::JoinPruneData> const&, Vel::Ptr<Intf const> const&, Vel::Ptr<IO::PamManager> const&,
      Vel::Ptr<Packet::JoinPruneMessage> const&) const {
    Vel::throwConstInstance();
  }
  /// Makes it, silently; one that is there throws RangeException.
  Vel::Ptr<JoinPrunePeriodicTimerSm> newJoinPrunePeriodicTimerSm(
      Vel::Ptr<Zanth::TimerWheel> const& timerWheel, JoinPruneNeighborSm* parentSm,
      Seconds const& loopQuantum, Vel::Ptr<Packet::JoinPruneData> const& periodicGroup,
      Vel::Ptr<Intf const> const& intf, Vel::Ptr<IO::PamManager> const& pimPamManager,
      Vel::Ptr<Packet::JoinPruneMessage> const& txMessage);
  Vel::Ptr<JoinPrunePeriodicTimerSm> newJoinPrunePeriodicTimerSm(
      Vel::Ptr<Zanth::TimerWheel> const&, JoinPruneNeighborSm*, Seconds const&,
      Vel::Ptr<Packet::JoinPruneData> const&, Vel::Ptr<Intf const> const&, Vel::Ptr<IO::PamManager> const&,
      Vel::Ptr<Packet::JoinPruneMessage> const&) const {
    Vel::throwConstInstance();
  }
  /// Retires and removes it.
  void joinPrunePeriodicTimerSmDel();
  void joinPrunePeriodicTimerSmDel() const { Vel::throwConstInstance(); }

  /// The manager's transmit record, made if it is missing. Without a manager it throws "null ValidPtr". The
  /// agent calls this before the first timer fires: the expiries never make the record.
  Vel::Ptr<IO::MessageInfo> txMessageInfoIs();
  Vel::Ptr<IO::MessageInfo> txMessageInfoIs() const { Vel::throwConstInstance(); }

  // --- Reactions and steps -----------------------------------------------------------------------

  void handleInitialized() override;
  /// Arms the triggered timer if the group has anything to send.
  void handleTriggeredGroup(Dova::IpGenAddr const& group) { triggered_.handleGroup(group); }
  /// Arms the override timer if the group has anything to send.
  void handleOverrideGroup(Dova::IpGenAddr const& group) { override_.handleGroup(group); }
  /// Counts the routes of the group. If there is no such group, and no other, asks the parent whether this
  /// machine is still needed; a count other than 0 stops the process then.
  void handlePeriodicGroup(Dova::IpGenAddr const& group);
  /// The periodic data as a whole may have changed: a trace, nothing else.
  void handlePeriodicGroup();
  /// Sends triggered data, message by message, until there is none, nothing progresses, or the quantum has
  /// passed; then updates the timer.
  void handleTriggeredTimerExpiry() { triggered_.handleTimerExpiry(); }
  /// The same for override data.
  void handleOverrideTimerExpiry() { override_.handleTimerExpiry(); }
  /// Arms the triggered timer if it is idle and there is data, and writes the interface's hold time into the
  /// data. A timer that is armed is not moved.
  void doUpdateTriggeredTimer() { triggered_.updateTimer(); }
  /// The same for the override timer, after a `randomDelay()`.
  void doUpdateOverrideTimer() { override_.updateTimer(); }

  /// A group came or went. Kept: passes on the neighbor's address, not the group's.
  void vel_handleTriggeredGroup_joinPruneGroupData(Dova::IpGenAddr const& group);
  /// The same.
  void vel_handleTriggeredGroup_joinPruneGroupData(Vel::Ptr<Packet::JoinPruneGroupData> const& groupData);
  /// The same for override data.
  void vel_handleOverrideGroup_joinPruneGroupData(Dova::IpGenAddr const& group);
  /// The same.
  void vel_handleOverrideGroup_joinPruneGroupData(Vel::Ptr<Packet::JoinPruneGroupData> const& groupData);
  /// The same for periodic data.
  void vel_handlePeriodicGroup_joinPruneGroupData(Dova::IpGenAddr const& group);
  /// The same.
  void vel_handlePeriodicGroup_joinPruneGroupData(Vel::Ptr<Packet::JoinPruneGroupData> const& groupData);

  /// The count changed: updates the periodic timer and checks the count.
  void vel_handleNumPeriodicRoutes();

  /// Sums up the periodic data and stops the process if the count differs. Done after each change of the
  /// count, but only when the parent's `diagUpJoinCount` is on or there is no parent: it costs a walk over
  /// all groups.
  void validateNumPeriodicRoutes();

  void hasNotificationActiveIs(bool active) override;
  void velDoZombieReactors(bool zombie) override;
  using Machine::hasNotificationActiveIs;
  using Machine::velDoZombieReactors;

  Dova::IpGenAddr const& velKey() const { return neighborAddr_; }
  Vel::AttributeTable const& attributeTable() const override;

 protected:
  ~JoinPruneNeighborSm() override;
  void doTeardown() override;
  void velVisitReactors(ReactorVisitor const& visit) override;

 private:
  friend class JoinPruneDataReactor;
  friend class JoinPruneSender;
  friend class JoinPruneTimedSender;
  friend class JoinPrunePeriodicSender;
  friend class JoinPruneNeighborLink;

  explicit JoinPruneNeighborSm(JoinPruneNeighborInputs const& inputs);

  // The second half of construction, apart because it calls out: follows each group that is there, then
  // handleInitialized(). The owner has put the machine into its collection before, so that what is called can
  // find it, and take it away.
  void velStart();

  // Lets go of everything that could call this machine: timers are disarmed, reactors lose their back
  // pointer, and the parent is forgotten. What the owner does when it removes the machine. `held`: somebody
  // else can still look at it.
  void velRetire(bool held);

  // A sender, of the type that its reactors point back to; null for null.
  template <JoinPruneSenderKind kind>
  static auto senderOf(JoinPruneNeighborSm* sm) {
    if constexpr (kind == JoinPruneSenderKind::triggered)
      return sm ? &sm->triggered_ : nullptr;
    else if constexpr (kind == JoinPruneSenderKind::override)
      return sm ? &sm->override_ : nullptr;
    else
      return sm ? &sm->periodic_ : nullptr;
  }
  template <class Visit>
  void forEachSender(Visit const& visit) {
    visit(triggered_);
    visit(override_);
    visit(periodic_);
  }
  // A sender's reactor, as what it is.
  template <class Reactor, class Base>
  static Vel::Ptr<Reactor> as(Vel::Ptr<Base> const& reactor) {
    return as<Reactor>(reactor.get());
  }
  template <class Reactor, class Base>
  static Vel::Ptr<Reactor> as(Base* reactor) {
    return Vel::Ptr<Reactor>(static_cast<Reactor*>(reactor));
  }

  // For the senders.
  Vel::Ptr<JoinPruneGroupReactor> makeGroupReactor(JoinPruneSenderKind kind,
                                                   Vel::Ptr<Packet::JoinPruneGroupData> const& groupData);
  Vel::Ptr<JoinPruneTimer> makeTimer(JoinPruneSenderKind kind, Vel::Ptr<Zanth::TimerWheel> const& wheel);
  void notifyGroupData(JoinPruneSenderKind kind, Dova::IpGenAddr const& group);
  void notifyTimer(JoinPruneSenderKind kind);
  void forwardGroup(JoinPruneSenderKind kind, Dova::IpGenAddr const& group);
  void tellOfCount();

  void bringTimersUpToDate();

  JoinPruneMessageSm* parentSm_;
  Dova::IpGenAddr const neighborAddr_;
  Vel::Ptr<Neighbor const> const neighbor_;
  Vel::Ptr<Intf const> const intf_;
  Seconds const overrideInterval_;
  Vel::Ptr<Packet::JoinPruneMessage> const txMessage_;
  Vel::Ptr<VelTimerWheel> timerWheel_;
  Vel::Ptr<VelPimPamManager> pimPamManager_;
  JoinPruneTimedSender triggered_{*this, JoinPruneSenderKind::triggered};
  JoinPruneTimedSender override_{*this, JoinPruneSenderKind::override};
  JoinPrunePeriodicSender periodic_{*this};
};

/// A delay for t_override: at least a tenth of the interval, below the whole of it, drawn from `drand48()`,
/// which the agent seeds. Kept: values between 0.1 and 0.2 of it are twice as likely as any other band of
/// that width.
VEL_API Seconds randomDelay(Seconds interval);

/// "JoinPruneNeighborSm(eth0::10.0.0.2)::@0x55d0c0de::"; "null" for null.
VEL_API std::ostream& operator<<(std::ostream& os, JoinPruneNeighborSm const* sm);
/// The machine's form, then "Triggered(239.1.1.1)::"; the default address if it watches nothing.
VEL_API std::ostream& operator<<(std::ostream& os, JoinPruneNeighborSm::VelTriggeredGroupData const* reactor);
/// The same with "Override".
VEL_API std::ostream& operator<<(std::ostream& os, JoinPruneNeighborSm::VelOverrideGroupData const* reactor);
/// The same with "Periodic".
VEL_API std::ostream& operator<<(std::ostream& os, JoinPruneNeighborSm::VelPeriodicGroupData const* reactor);

}  // namespace Routing::Pim
