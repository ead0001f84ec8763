// SPDX-License-Identifier: Apache-2.0
// The periodic refresh towards one upstream target.
#pragma once

#include "pim/model/Intf.h"
#include "pim/model/PeriodicTimerSm.h"
#include "pim/model/io/PamManager.h"

namespace Routing::Pim {

class JoinPruneNeighborSm;
class JoinPrunePeriodicTimerSm;

/// Makes a machine that is initialized, with a count of 1. Any pointer may be null; see the operations for
/// what they then do. Without an interface or a parent that ends the process when the first periodic route
/// comes: the timer is to be armed then, and there is no interval or no number of routes to arm it by. A loop
/// quantum that is NaN or negative throws Vel::InvalidArgumentException.
VEL_API Vel::Ptr<JoinPrunePeriodicTimerSm> joinPrunePeriodicTimerSmFactory(
    Vel::Ptr<Zanth::TimerWheel> const& timerWheel, JoinPruneNeighborSm* parentSm, Seconds const& loopQuantum,
    Vel::Ptr<Packet::JoinPruneData> const& periodicGroup, Vel::Ptr<Intf const> const& intf,
    Vel::Ptr<IO::PamManager> const& pimPamManager, Vel::Ptr<Packet::JoinPruneMessage> const& txMessage);

/// Refreshes the periodic joins and prunes of one neighbor machine at the interface's Join/Prune interval
/// (RFC 7761, 4.5.4, 4.5.5: t_periodic). The pacing is the base's; this machine knows the interval, the
/// routes and how to send.
///
/// The periodic data is not emptied by sending: the packet manager sends another part of it with each
/// message, and the count of what it reports ends the slice.
class VEL_API JoinPrunePeriodicTimerSm final : public PeriodicTimerSm {
 public:
  /// The base's attribute comes first.
  enum Attribute : Vel::AttributeId {
    intervalId = PeriodicTimerSm::periodicParamsId + 1,
    holdTimeId,
    numberOfMessagesId,
    initializedId,
    parentSmId,
    loopQuantumId,
    periodicGroupId,
    intfId,
    pimPamManagerId,
    txMessageId
  };

  /// Reacts to JoinPrunePeriodicTimerSm: override what you need.
  class NotifieeConst : public PeriodicTimerSm::NotifieeConst {
   public:
    /// The machine watched, or null.
    Vel::Ptr<JoinPrunePeriodicTimerSm const> notifier() const;
    virtual void onInterval() { handleNotification(intervalId); }
    virtual void onHoldTime() { handleNotification(holdTimeId); }
    virtual void onNumberOfMessages() { handleNotification(numberOfMessagesId); }
    virtual void onInitialized() { handleNotification(initializedId); }
  };
  /// The same with a writable notifier.
  class Notifiee : public NotifieeConst {
   public:
    /// The machine watched, or null; writable.
    Vel::Ptr<JoinPrunePeriodicTimerSm> notifier() const;
    /// Watches another machine, or none. The same one again: nothing.
    virtual void notifierIs(Vel::Ptr<JoinPrunePeriodicTimerSm> const& sm) { velNotifierIs(sm.get()); }
    /// A const view cannot become a writable notifier: throws "attempting to modify a const instance".
    void notifierIs(Vel::Ptr<PeriodicTimerSm const> const& sm) final {
      if (sm) Vel::throwConstInstance();
      notifierIs(Vel::Ptr<JoinPrunePeriodicTimerSm>());
    }
    /// Watches none.
    void notifierIs(std::nullptr_t) { notifierIs(Vel::Ptr<JoinPrunePeriodicTimerSm>()); }
    void notifierIs(Vel::Ptr<JoinPrunePeriodicTimerSm> const&) const { Vel::throwConstInstance(); }
    void notifierIs(Vel::Ptr<PeriodicTimerSm const> const&) const { Vel::throwConstInstance(); }
    void notifierIs(std::nullptr_t) const { Vel::throwConstInstance(); }
  };

  /// The interface's Join/Prune interval, in seconds. Without an interface, and for an interval of 0, the
  /// process stops: there is no way to pace what has no period.
  U32 interval() const override;
  /// The interface's hold time, in seconds. Without an interface the process stops.
  U16 holdTime() const override;
  /// The parent's route count. Without a parent the process stops.
  U32 numberOfMessages() const override;
  /// Writes the interface's hold time into the periodic data.
  void doResetHoldTime() override;
  /// Sends, message by message, until the slice is done or the loop quantum has passed.
  void handlePeriodicTimerExpiry() override;
  /// True from the start of a machine that the factory has made.
  bool initialized() const override { return initialized_; }
  void handleInitialized() override;

  /// Sets a cached value, for observers; nothing here reads it. In seconds.
  void intervalIs(U32 interval) override;
  void intervalIs(U32) const { Vel::throwConstInstance(); }
  /// As intervalIs(), in seconds.
  void holdTimeIs(U16 holdTime) override;
  void holdTimeIs(U16) const { Vel::throwConstInstance(); }
  /// As intervalIs(), in routes.
  void numberOfMessagesIs(U32 numberOfMessages) override;
  void numberOfMessagesIs(U32) const { Vel::throwConstInstance(); }
  /// Sets the flag and tells the reactors.
  void initializedIs(bool initialized) override;
  void initializedIs(bool) const { Vel::throwConstInstance(); }

  /// The neighbor machine, or null once it has let go of this one.
  JoinPruneNeighborSm* parentSm() const { return parentSm_; }
  /// Longest time that one expiry may spend sending, in seconds.
  VEL_FIXED(Seconds, loopQuantum);
  /// The data that is refreshed.
  VEL_FIXED(Vel::Ptr<Packet::JoinPruneData>, periodicGroup);
  /// The interface towards the target.
  VEL_FIXED(Vel::Ptr<Intf const>, intf);
  /// Who sends.
  VEL_FIXED(Vel::Ptr<IO::PamManager>, pimPamManager);
  /// The message that is sent through; it carries the report.
  VEL_FIXED(Vel::Ptr<Packet::JoinPruneMessage>, txMessage);

 public:
  Vel::AttributeTable const& attributeTable() const override;

 private:
  friend Vel::Ptr<JoinPrunePeriodicTimerSm> joinPrunePeriodicTimerSmFactory(
      Vel::Ptr<Zanth::TimerWheel> const& timerWheel, JoinPruneNeighborSm* parentSm,
      Seconds const& loopQuantum, Vel::Ptr<Packet::JoinPruneData> const& periodicGroup,
      Vel::Ptr<Intf const> const& intf, Vel::Ptr<IO::PamManager> const& pimPamManager,
      Vel::Ptr<Packet::JoinPruneMessage> const& txMessage);

  JoinPrunePeriodicTimerSm(Vel::Ptr<Zanth::TimerWheel> const& timerWheel, JoinPruneNeighborSm* parentSm,
                           Seconds const& loopQuantum, Vel::Ptr<Packet::JoinPruneData> const& periodicGroup,
                           Vel::Ptr<Intf const> const& intf, Vel::Ptr<IO::PamManager> const& pimPamManager,
                           Vel::Ptr<Packet::JoinPruneMessage> const& txMessage);

  friend class JoinPruneNeighborSm;

  /// The parent lets go: the timer is stopped and nothing is sent any more.
  void handleRetired();

  U32 interval_ = 0;
  U16 holdTime_ = 0;
  U32 numberOfMessages_ = 0;
  bool initialized_ = false;
  JoinPruneNeighborSm* parentSm_;
};

}  // namespace Routing::Pim
