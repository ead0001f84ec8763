// Everything that is sent to one upstream target.
#pragma once

#include "pim/joinprune/JoinPrunePeriodicTimerSm.h"
#include "pim/model/Neighbor.h"
#include "pim/model/io/PamManager.h"
#include "runtime/vel/Attribute.h"
#include "runtime/vel/Machine.h"
#include "runtime/zanth/TimerWheel.h"

namespace Routing::Pim {

class JoinPruneMessageSm;
class JoinPruneNeighborSm;

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
/// them in three ways:
///
///   triggered   what a route change calls for (RFC 7761, 4.5): `triggeredInterval` after the first change
///   override    joins that override a prune seen on the LAN (RFC 7761, 4.5, t_override): after a random delay
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

  /// What the nested reactors have in common: the back pointer, null once the machine has let go.
  template <class Base>
  class Owned : public Base {
   public:
    /// The machine, or null once it has let go; not counted.
    JoinPruneNeighborSm* joinPruneNeighborSm() const { return joinPruneNeighborSm_; }
    /// Sets the back pointer.
    void joinPruneNeighborSmIs(JoinPruneNeighborSm* sm) { joinPruneNeighborSm_ = sm; }
    void joinPruneNeighborSmIs(JoinPruneNeighborSm*) const { Vel::throwConstInstance(); }
    /// Clears the back pointer.
    void velOwnerDel() { joinPruneNeighborSm_ = nullptr; }
    void velOwnerDel() const { Vel::throwConstInstance(); }

   protected:
    /// Of a machine, which is not counted.
    explicit Owned(JoinPruneNeighborSm* sm) : joinPruneNeighborSm_(sm) {}

   private:
    JoinPruneNeighborSm* joinPruneNeighborSm_;
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

  // The three ways to send. The handlers of the channels are templates over these; what differs stands in the
  // source file, in one place for each channel.
  struct Triggered;
  struct Override;
  struct Periodic;

  /// The timer of a channel that sends once.
  template <class Channel>
  class VEL_API ChannelTimer : public Owned<Zanth::TimerWheel::Notifiee> {
   public:
    /// On a wheel, not armed.
    ChannelTimer(Vel::Ptr<Zanth::TimerWheel> const& wheel, JoinPruneNeighborSm* sm);
    void onTime() override;
  };

  /// Follows the groups of a data set. Adding a group makes a reactor for it, removing it removes the
  /// reactor.
  template <class Channel>
  class VEL_API ChannelGroup : public Owned<Packet::JoinPruneData::Notifiee> {
   public:
    /// What makes it a reactor.
    using Base = Owned<Packet::JoinPruneData::Notifiee>;
    using Base::notifierIs;
    using Base::onJoinPruneGroupData;

    /// Watches a data set; what is in it is taken up by the machine's start.
    ChannelGroup(Vel::Ptr<Packet::JoinPruneData> const& data, JoinPruneNeighborSm* sm);
    void notifierIs(Vel::Ptr<Packet::JoinPruneData> const& data) override;
    void onJoinPruneGroupData(Dova::IpGenAddr group) override;
    void onJoinPruneGroupDatavelImmediate() override;

    /// The data, or null; not held.
    Packet::JoinPruneData* velData() const {
      return static_cast<Packet::JoinPruneData*>(this->velNotifier());
    }
  };

  /// Follows the sources of one group. Made for a filled group it does nothing until the next change.
  template <class Channel>
  class VEL_API ChannelGroupData : public Owned<Packet::JoinPruneGroupData::Notifiee> {
   public:
    /// What makes it a reactor.
    using Base = Owned<Packet::JoinPruneGroupData::Notifiee>;

    /// Watches a group.
    ChannelGroupData(Vel::Ptr<Packet::JoinPruneGroupData> const& groupData, JoinPruneNeighborSm* sm);

    /// The group under which the machine holds this.
    Dova::IpGenAddr const& velKey() const { return group_; }

    /// An (S,G) join came, which arms the channel's timer or is counted, or went, which means that it was
    /// sent or is no longer wanted. A group that is empty then is removed. Without a machine: nothing.
    void handleJoinedSource(Dova::IpGenAddr const& source);
    /// The same for an (S,G) prune.
    void handlePrunedSource(Dova::IpGenAddr const& source);
    /// The same for an (S,G,rpt) join.
    void handleJoinedRptSource(Dova::IpGenAddr const& source);
    /// The same for an (S,G,rpt) prune.
    void handlePrunedRptSource(Dova::IpGenAddr const& source);
    /// The same for the (*,G) entry.
    void handleWcSource();

    using Base::onJoinedRptSource;
    using Base::onJoinedSource;
    using Base::onPrunedRptSource;
    using Base::onPrunedSource;
    void onJoinedSource(Dova::IpGenAddr source) override { handleJoinedSource(source); }
    void onPrunedSource(Dova::IpGenAddr source) override { handlePrunedSource(source); }
    void onJoinedRptSource(Dova::IpGenAddr source) override { handleJoinedRptSource(source); }
    void onPrunedRptSource(Dova::IpGenAddr source) override { handlePrunedRptSource(source); }
    void onWcSourceData() override { handleWcSource(); }

   private:
    template <class Sources>
    void handleSource(Dova::IpGenAddr const& source);
    void retireGroup(char const* handler, bool traced);

    Dova::IpGenAddr const group_;

   protected:
    bool wcSourceSet_ = false;  ///< Periodic: the (*,G) entry is counted.
  };

  /// The timer of the triggered channel.
  class VEL_API VelTriggeredTimer final : public ChannelTimer<Triggered> {
    using ChannelTimer::ChannelTimer;
  };
  /// The timer of the override channel.
  class VEL_API VelOverrideTimer final : public ChannelTimer<Override> {
    using ChannelTimer::ChannelTimer;
  };
  /// Follows the groups of the triggered data.
  class VEL_API VelTriggeredGroup final : public ChannelGroup<Triggered> {
    using ChannelGroup::ChannelGroup;
  };
  /// Follows the groups of the override data.
  class VEL_API VelOverrideGroup final : public ChannelGroup<Override> {
    using ChannelGroup::ChannelGroup;
  };
  /// Follows the groups of the periodic data.
  class VEL_API VelPeriodicGroup final : public ChannelGroup<Periodic> {
    using ChannelGroup::ChannelGroup;
  };
  /// Follows the sources of one group of the triggered data.
  class VEL_API VelTriggeredGroupData final : public ChannelGroupData<Triggered> {
    using ChannelGroupData::ChannelGroupData;
  };
  /// Follows the sources of one group of the override data.
  class VEL_API VelOverrideGroupData final : public ChannelGroupData<Override> {
    using ChannelGroupData::ChannelGroupData;
  };
  /// Follows the sources of one group of the periodic data.
  class VEL_API VelPeriodicGroupData final : public ChannelGroupData<Periodic> {
   public:
    using ChannelGroupData::ChannelGroupData;

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
    using ChannelGroupData::handleJoinedRptSource;
    using ChannelGroupData::handleJoinedSource;
    using ChannelGroupData::handlePrunedRptSource;
    using ChannelGroupData::handlePrunedSource;

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
  Vel::Ptr<VelTriggeredGroup> const& triggeredGroup() const { return triggeredGroup_; }
  /// On the override data.
  Vel::Ptr<VelOverrideGroup> const& overrideGroup() const { return overrideGroup_; }
  /// On the periodic data.
  Vel::Ptr<VelPeriodicGroup> const& periodicGroup() const { return periodicGroup_; }
  /// On the timer wheel.
  Vel::Ptr<VelTimerWheel> const& timerWheel() const { return timerWheel_; }
  /// On the packet manager.
  Vel::Ptr<VelPimPamManager> const& pimPamManager() const { return pimPamManager_; }

  // --- Attributes that change --------------------------------------------------------------------

  /// The timer of the triggered channel; null without a wheel.
  Vel::Ptr<VelTriggeredTimer> triggeredTimer() const { return triggeredTimer_; }
  /// The timer of the override channel; null without a wheel.
  Vel::Ptr<VelOverrideTimer> overrideTimer() const { return overrideTimer_; }

  /// The machine of the periodic refresh.
  Vel::Ptr<JoinPrunePeriodicTimerSm> joinPrunePeriodicTimerSm() const { return joinPrunePeriodicTimerSm_; }

  /// Longest time that one expiry may spend sending, in seconds. The periodic machine keeps the value that it
  /// was made with.
  VEL_SECONDS(loopQuantum, LoopQuantum) = 0.1;

  /// Delay from the first triggered change to its message, in seconds; takes effect when the timer is armed
  /// next.
  VEL_SECONDS(triggeredInterval, TriggeredInterval) = 0.1;

  /// The reactors of the groups, by group address.
  VEL_ENTITIES_READ(Dova::IpGenAddr, VelTriggeredGroupData, triggeredGroupData, TriggeredGroupData);
  VEL_ENTITIES_READ(Dova::IpGenAddr, VelOverrideGroupData, overrideGroupData, OverrideGroupData);
  VEL_ENTITIES_READ(Dova::IpGenAddr, VelPeriodicGroupData, periodicGroupData, PeriodicGroupData);

  /// True once `handleInitialized()` has run. While false, expiries do nothing.
  VEL_VALUE(bool, initialized, Initialized)
  = false;

 public:
  /// How many entries the periodic data has, as counted source by source, modulo 2^32.
  U32 numPeriodicRoutes() const { return numPeriodicRoutes_; }
  /// Sets the count. A change updates the periodic timer and is checked; see `validateNumPeriodicRoutes()`.
  void numPeriodicRoutesIs(U32 n);
  void numPeriodicRoutesIs(U32) const { Vel::throwConstInstance(); }
  /// Adds to the count, as numPeriodicRoutesIs(). The new value.
  U32 numPeriodicRoutesInc(U32 n);
  U32 numPeriodicRoutesInc(U32) const { Vel::throwConstInstance(); }
  /// Subtracts from the count, as numPeriodicRoutesIs(); below zero it wraps. The new value.
  U32 numPeriodicRoutesDec(U32 n) { return numPeriodicRoutesInc(0u - n); }
  U32 numPeriodicRoutesDec(U32) const { Vel::throwConstInstance(); }

#define JOIN_PRUNE_GROUP_DATA(foo, Foo)                                                    \
  /** The group's reactor, made or pointed at it; null throws InvalidArgumentException. */ \
  Vel::Ptr<Vel##Foo> foo##Is(Vel::Ptr<Packet::JoinPruneGroupData> const& groupData);       \
  Vel::Ptr<Vel##Foo> foo##Is(Vel::Ptr<Packet::JoinPruneGroupData> const&) const {          \
    Vel::throwConstInstance();                                                             \
  }                                                                                        \
  /** Makes it, silently; one that is there throws RangeException. */                      \
  Vel::Ptr<Vel##Foo> new##Foo(Vel::Ptr<Packet::JoinPruneGroupData> const& groupData);      \
  Vel::Ptr<Vel##Foo> new##Foo(Vel::Ptr<Packet::JoinPruneGroupData> const&) const {         \
    Vel::throwConstInstance();                                                             \
  }                                                                                        \
  /** Unhooks, removes and returns a group's reactor, or null; the route count stays. */   \
  Vel::Ptr<Vel##Foo> foo##Del(Dova::IpGenAddr const& group);                               \
  Vel::Ptr<Vel##Foo> foo##Del(Dova::IpGenAddr const&) const { Vel::throwConstInstance(); } \
  /** The same for the reactor at which an iterator stands. */                             \
  Vel::Ptr<Vel##Foo> foo##Del(Foo##Iterator const& i) { return foo##Del(i.key()); }        \
  Vel::Ptr<Vel##Foo> foo##Del(Foo##Iterator const&) const { Vel::throwConstInstance(); }   \
  /** The same for all that are there now. */                                              \
  void foo##DelAll();                                                                      \
  void foo##DelAll() const { Vel::throwConstInstance(); }
  JOIN_PRUNE_GROUP_DATA(triggeredGroupData, TriggeredGroupData)
  JOIN_PRUNE_GROUP_DATA(overrideGroupData, OverrideGroupData)
  JOIN_PRUNE_GROUP_DATA(periodicGroupData, PeriodicGroupData)
#undef JOIN_PRUNE_GROUP_DATA

  /// Makes the triggered timer on a wheel; the same wheel is nothing, null removes the timer.
  void triggeredTimerIs(Vel::Ptr<Zanth::TimerWheel> const& wheel);
  void triggeredTimerIs(Vel::Ptr<Zanth::TimerWheel> const&) const { Vel::throwConstInstance(); }
  /// Makes the override timer on a wheel; the same wheel is nothing, null removes the timer.
  void overrideTimerIs(Vel::Ptr<Zanth::TimerWheel> const& wheel);
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
  void handleTriggeredGroup(Dova::IpGenAddr const& group);
  /// Arms the override timer if the group has anything to send.
  void handleOverrideGroup(Dova::IpGenAddr const& group);
  /// Counts the routes of the group. If there is no such group, and no other, asks the parent whether this
  /// machine is still needed; a count other than 0 stops the process then.
  void handlePeriodicGroup(Dova::IpGenAddr const& group);
  /// The periodic data as a whole may have changed: a trace, nothing else.
  void handlePeriodicGroup();
  /// Sends triggered data, message by message, until there is none, nothing progresses, or the quantum has
  /// passed; then updates the timer.
  void handleTriggeredTimerExpiry();
  /// The same for override data.
  void handleOverrideTimerExpiry();
  /// Arms the triggered timer if it is idle and there is data, and writes the interface's hold time into the
  /// data. A timer that is armed is not moved.
  void doUpdateTriggeredTimer();
  /// The same for the override timer, after a `randomDelay()`.
  void doUpdateOverrideTimer();

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
  friend class JoinPruneMessageSm;  // which puts a machine into its collection between construction and start
  friend Vel::Ptr<JoinPruneNeighborSm> joinPruneNeighborSmFactory(
      JoinPruneMessageSm* parentSm, Dova::IpGenAddr const& neighborAddr, Vel::Ptr<Neighbor const> neighbor,
      Vel::Ptr<Intf const> intf, Vel::Ptr<Packet::JoinPruneData> triggeredGroup,
      Vel::Ptr<Packet::JoinPruneData> overrideGroup, Vel::Ptr<Packet::JoinPruneData> periodicGroup,
      Vel::Ptr<Zanth::TimerWheel> timerWheel, Seconds const& overrideInterval,
      Vel::Ptr<IO::PamManager> pimPamManager, Vel::Ptr<Packet::JoinPruneMessage> txMessage);

  // Only the factory and the message machine construct, and they start what they have made. An override
  // interval that is NaN or negative throws Vel::InvalidArgumentException.
  static Vel::Ptr<JoinPruneNeighborSm> velConstruct(
      JoinPruneMessageSm* parentSm, Dova::IpGenAddr const& neighborAddr,
      Vel::Ptr<Neighbor const> const& neighbor, Vel::Ptr<Intf const> const& intf,
      Vel::Ptr<Packet::JoinPruneData> const& triggeredGroup,
      Vel::Ptr<Packet::JoinPruneData> const& overrideGroup,
      Vel::Ptr<Packet::JoinPruneData> const& periodicGroup, Vel::Ptr<Zanth::TimerWheel> const& timerWheel,
      Seconds const& overrideInterval, Vel::Ptr<IO::PamManager> const& pimPamManager,
      Vel::Ptr<Packet::JoinPruneMessage> const& txMessage);
  JoinPruneNeighborSm(JoinPruneMessageSm* parentSm, Dova::IpGenAddr const& neighborAddr,
                      Vel::Ptr<Neighbor const> const& neighbor, Vel::Ptr<Intf const> const& intf,
                      Vel::Ptr<Packet::JoinPruneData> const& triggeredGroup,
                      Vel::Ptr<Packet::JoinPruneData> const& overrideGroup,
                      Vel::Ptr<Packet::JoinPruneData> const& periodicGroup,
                      Vel::Ptr<Zanth::TimerWheel> const& timerWheel, Seconds const& overrideInterval,
                      Vel::Ptr<IO::PamManager> const& pimPamManager,
                      Vel::Ptr<Packet::JoinPruneMessage> const& txMessage);

  // The second half of construction, apart because it calls out: a reactor for each group that is there, then
  // handleInitialized(). The owner has put the machine into its collection before, so that what is called can
  // find it, and take it away.
  void velStart();

  // Lets go of everything that could call this machine: timers are disarmed, reactors lose their back
  // pointer, and the parent is forgotten. What the owner does when it removes the machine.
  void velRetire();

  template <class Channel>
  Vel::Ptr<Packet::JoinPruneData> data() const;
  template <class Channel>
  Packet::JoinPruneGroupData const* groupOf(Dova::IpGenAddr const& group) const;
  template <class Channel>
  void reconcile();
  template <class Channel>
  void forward(bool active);
  template <class Channel>
  void timerIs(Vel::Ptr<Zanth::TimerWheel> const& wheel);
  template <class Channel>
  auto newGroupData(Vel::Ptr<Packet::JoinPruneGroupData> const& groupData);
  template <class Channel>
  auto groupDataIs(Vel::Ptr<Packet::JoinPruneGroupData> const& groupData);
  template <class Channel>
  auto groupDataDel(Dova::IpGenAddr const& group);
  template <class Channel>
  void groupDataDelAll();
  template <class Channel>
  void handleGroup(Dova::IpGenAddr const& group);
  void countRoutes();
  void countRoutesAtStart(Packet::JoinPruneData const& periodic);
  void fallBehind();
  void catchUp();
  template <class Channel>
  void retireUnfollowedGroups();
  void bringTimersUpToDate();
  template <class Channel>
  void armIn(Seconds delay);
  U32 countSilently(int difference);
  void tellOfCount(U32 before);
  template <class Channel>
  bool timerRunsQuietly();
  template <class Channel>
  void doUpdateTimer();
  template <class Channel>
  void handleTimerExpiry();
  template <class Channel>
  Seconds now() const;

  JoinPruneMessageSm* parentSm_;
  Dova::IpGenAddr const neighborAddr_;
  Vel::Ptr<Neighbor const> const neighbor_;
  Vel::Ptr<Intf const> const intf_;
  Seconds const overrideInterval_;
  Vel::Ptr<Packet::JoinPruneMessage> const txMessage_;
  Vel::Ptr<VelTriggeredGroup> triggeredGroup_;
  Vel::Ptr<VelOverrideGroup> overrideGroup_;
  Vel::Ptr<VelPeriodicGroup> periodicGroup_;
  Vel::Ptr<VelTimerWheel> timerWheel_;
  Vel::Ptr<VelPimPamManager> pimPamManager_;
  Vel::Ptr<VelTriggeredTimer> triggeredTimer_;
  Vel::Ptr<VelOverrideTimer> overrideTimer_;
  Vel::Ptr<JoinPrunePeriodicTimerSm> joinPrunePeriodicTimerSm_;
  U32 numPeriodicRoutes_ = 0;
  bool behind_ = false;      // a group could not be followed, for want of memory; see catchUp()
  bool catchingUp_ = false;  // catchUp() is running: the count is not right yet
  bool counted_ = false;  // the start-up count is complete; until then no change of a source moves the count
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
