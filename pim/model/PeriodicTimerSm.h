// SPDX-License-Identifier: Apache-2.0
// Pacing of periodic refreshes.
#pragma once

#include <algorithm>

#include "pim/model/RouteKey.h"
#include "pim/model/detail/EngineAccess.h"
#include "runtime/vel/Attribute.h"
#include "runtime/vel/Machine.h"
#include "runtime/zanth/TimerWheel.h"

namespace Routing::Pim {

/// Spreads the refresh of a number of routes over an interval. The derived machine says how long the interval
/// is, how many routes there are, and sends when the timer fires.
///
/// Up to 1,000 routes are refreshed in one slice per interval. More are cut into slices of about 1,000
/// routes, at least 0.1 s apart, so that neither this router nor its neighbor meets a burst. A slice that
/// could not be sent in one go (the expiry has a time quantum) continues 0.1 s later with its rest. A
/// slice that took longer than its interval is followed by the next one at once.
class VEL_API PeriodicTimerSm : public Vel::Machine {
 public:
  /// One slice: the time until the next one, and how many routes it refreshes.
  struct VEL_API PeriodicParams {
    Seconds interval = 0;  ///< Until the next slice.
    U32 routes = 0;        ///< How many routes a slice refreshes.

    friend bool operator==(PeriodicParams const& a, PeriodicParams const& b) = default;
  };

  enum Attribute : Vel::AttributeId { periodicParamsId = Vel::firstAttributeId };

  /// Hears of the base's attributes; can be registered with every derived machine.
  class NotifieeConst : public Vel::ReactorOn<PeriodicTimerSm> {
   public:
    virtual void onPeriodicParams() { handleNotification(periodicParamsId); }
  };
  using Notifiee = Vel::WritableReactor<NotifieeConst, PeriodicTimerSm>;

  /// The timer.
  class VEL_API VelPeriodicTimer final : public Zanth::TimerWheel::Notifiee {
   public:
    /// Of a machine, which is not counted.
    explicit VelPeriodicTimer(PeriodicTimerSm* sm) : periodicTimerSm_(sm) {}
    /// The machine, or null once it has let go.
    PeriodicTimerSm* periodicTimerSm() const { return periodicTimerSm_; }
    /// Sets the back pointer.
    void periodicTimerSmIs(PeriodicTimerSm* sm) { periodicTimerSm_ = sm; }
    void periodicTimerSmIs(PeriodicTimerSm*) const { Vel::throwConstInstance(); }
    void onTime() override;

   private:
    PeriodicTimerSm* periodicTimerSm_;
  };

  // The order of the virtual operations is that of their slots, in the derived machines as well. Those that
  // have theirs from Vel::Machine are declared in their place.

  /// The interval, in whole seconds; greater than 0.
  virtual U32 interval() const = 0;
  /// The hold time to advertise, in seconds.
  virtual U16 holdTime() const = 0;
  /// How many routes there are to refresh.
  virtual U32 numberOfMessages() const = 0;
  /// Called before each expiry: the data takes on the current hold time.
  virtual void doResetHoldTime() = 0;
  /// The timer fired. Refreshes at most `routesLeftInSlice()` routes and reports them through
  /// `routesDoneInc`; then calls `doUpdatePeriodicTimer()` if the slice is done and
  /// `doReschedulePeriodicTimer()` if it is not.
  virtual void handlePeriodicTimerExpiry() = 0;
  /// True once `handleInitialized()` has run. While false, expiries send nothing.
  virtual bool initialized() const = 0;
  void handleInitialized() override;
  /// Sets the current slice and tells the reactors; an equal one is nothing. Does not touch the timer. An
  /// interval that is NaN or negative throws Vel::InvalidArgumentException.
  virtual void periodicParamsIs(PeriodicParams const& params);
  void periodicParamsIs(PeriodicParams const&) const { Vel::throwConstInstance(); }
  /// Sets the interval that a derived machine shows to observers, in seconds. By default there is none to
  /// set.
  virtual void intervalIs(U32 interval);
  void intervalIs(U32) const { Vel::throwConstInstance(); }
  /// As intervalIs(), of the hold time, in seconds.
  virtual void holdTimeIs(U16 holdTime);
  void holdTimeIs(U16) const { Vel::throwConstInstance(); }
  /// As intervalIs(), of the number of routes.
  virtual void numberOfMessagesIs(U32 numberOfMessages);
  void numberOfMessagesIs(U32) const { Vel::throwConstInstance(); }
  /// As intervalIs(), of what `initialized()` says.
  virtual void initializedIs(bool initialized);
  void initializedIs(bool) const { Vel::throwConstInstance(); }
  /// Retires or revives the timer. A revived one is brought up to date, as by hasNotificationActiveIs().
  void velDoZombieReactors(bool zombie) override;
  void velDoZombieReactors(bool) const { Vel::throwConstInstance(); }
  /// Removes the timer, which is not called any more.
  virtual void periodicTimerDel();
  void periodicTimerDel() const { Vel::throwConstInstance(); }
  /// Makes the timer on another wheel, as newPeriodicTimer(); none for null. The same wheel: nothing. Where
  /// there was no timer and there are routes, it is armed one slice's interval ahead.
  virtual void periodicTimerIs(Vel::Ptr<Zanth::TimerWheel> const& wheel);
  void periodicTimerIs(Vel::Ptr<Zanth::TimerWheel> const&) const { Vel::throwConstInstance(); }

  /// Switches the timer's callback on or off. What became due while it was off is due once it is on again.
  void hasNotificationActiveIs(bool active) override;
  void hasNotificationActiveIs(bool) const { Vel::throwConstInstance(); }
  Vel::AttributeTable const& attributeTable() const override;

  /// The current slice.
  PeriodicParams periodicParams() const { return periodicParams_; }

  /// The timer, or null.
  Vel::Ptr<VelPeriodicTimer> periodicTimer() const { return periodicTimer_; }
  /// Makes the timer, in place of the one that there is. If that was armed, so is the new one: for the same
  /// time, or for when the interval with which it was armed has passed on the new wheel, whichever is
  /// earlier. REQUIRES: a wheel.
  Vel::Ptr<VelPeriodicTimer> newPeriodicTimer(Vel::Ptr<Zanth::TimerWheel> const& wheel);
  Vel::Ptr<VelPeriodicTimer> newPeriodicTimer(Vel::Ptr<Zanth::TimerWheel> const&) const {
    Vel::throwConstInstance();
  }

  /// Takes the parameters from `interval()` and `numberOfMessages()`; O(1). While a slice is being sent,
  /// nothing else happens. An idle timer is armed if there are routes, for a slice's interval after the
  /// previous deadline. If that time has passed, it is armed for now at the end of an expiry, so that a
  /// refresh that cannot keep up loses no further time, and otherwise, as without a previous deadline, for a
  /// slice's interval after now. A running timer is left alone, unless its clock was set back behind the
  /// moment at which it was armed: then it waits no longer than the interval with which it was armed.
  void doUpdatePeriodicTimer();

  /// Continues the slice 0.1 s from now.
  void doReschedulePeriodicTimer();

 protected:
  /// The sending of one expiry: begins with no route done; while it exists, changes of the route count do not
  /// arm the timer.
  class Sending {
   public:
    /// Begins.
    explicit Sending(PeriodicTimerSm& sm) : sm_(sm) {
      sm_.sending_ = true;
      sm_.done_ = 0;
    }
    Sending(Sending const&) = delete;
    Sending& operator=(Sending const&) = delete;
    ~Sending() { sm_.sending_ = false; }

   private:
    PeriodicTimerSm& sm_;
  };

  /// Makes the timer if there is a wheel.
  explicit PeriodicTimerSm(Vel::Ptr<Zanth::TimerWheel> const& wheel);
  ~PeriodicTimerSm() override;

  /// The rows with which a derived machine's table begins.
  static Vel::AttributeTable const& baseAttributes();

  void doTeardown() override;
  void velVisitReactors(ReactorVisitor const& visit) override;

  /// How many routes this expiry may refresh: the slice, or what an earlier expiry has left of it.
  U64 routesLeftInSlice() const { return std::min<U64>(periodicParams_.routes, left_); }
  /// Reports what a message has dealt with, the one that ran into the quantum's end included.
  void routesDoneInc(U64 n) { done_ += n; }

 private:
  friend struct EngineAccess<PeriodicTimerSm>;

  static constexpr U64 wholeSlice = ~U64{0};

  void handleTimer();
  void arm(VelPeriodicTimer& timer, Seconds time, Seconds now, Seconds interval);
  void moveToClock(VelPeriodicTimer& timer, Seconds time, Seconds now);
  void followClock(VelPeriodicTimer& timer);
  void bringTimerUpToDate();
  void letGo(Vel::Ptr<VelPeriodicTimer> const& timer);

  PeriodicParams periodicParams_;
  Vel::Ptr<VelPeriodicTimer> periodicTimer_;
  Seconds deadline_ = -Vel::never;  // when the latest slice was, or is, to begin
  Seconds armedAt_ = -Vel::never;   // what the clock read then
  Seconds armedInterval_ = 0;       // the longest time that it may wait from now
  U64 left_ = wholeSlice;           // of a slice that was cut short
  U64 done_ = 0;
  bool sending_ = false;
  bool expiring_ = false;
};

/// "Interval: 60, Routes/Interval: 12"; "null" for null.
VEL_API std::ostream& operator<<(std::ostream& os, PeriodicTimerSm::PeriodicParams const* params);
/// The same form.
VEL_API std::ostream& operator<<(std::ostream& os, PeriodicTimerSm::PeriodicParams const& params);

}  // namespace Routing::Pim
