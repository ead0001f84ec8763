// Pacing of periodic refreshes.
#pragma once

#include <algorithm>

#include "pim/model/RouteKey.h"
#include "runtime/vel/Attribute.h"
#include "runtime/vel/Machine.h"
#include "runtime/zanth/TimerWheel.h"

namespace Routing::Pim {

/// Spreads the refresh of a number of routes over an interval. The derived machine says how long the interval
/// is, how many routes there are, and sends when the timer fires.
///
/// Up to 1,000 routes are refreshed in one slice per interval. More are cut into slices of about 1,000
/// routes, at least 0.1 s apart, so that neither this router nor its neighbor meets a burst. A slice that
/// could not be sent in one go (the expiry has a time quantum) goes on 0.1 s later with what is left of it.
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
    /// Reactors on the base are among those on the derived machine.
    static constexpr bool velMixedTypes = true;
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
    void onTime() override;

   private:
    PeriodicTimerSm* periodicTimerSm_;
  };

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
  Vel::AttributeTable const& attributeTable() const override;

  /// The current slice.
  PeriodicParams periodicParams() const { return periodicParams_; }
  /// Sets it and tells the reactors; an equal one is nothing. Does not touch the timer.
  virtual void periodicParamsIs(PeriodicParams const& params);
  void periodicParamsIs(PeriodicParams const&) const { Vel::throwConstInstance(); }

  /// The timer, or null.
  Vel::Ptr<VelPeriodicTimer> periodicTimer() const { return periodicTimer_; }
  /// Makes the timer on another wheel; none for null. The same wheel: nothing.
  virtual void periodicTimerIs(Vel::Ptr<Zanth::TimerWheel> const& wheel);
  void periodicTimerIs(Vel::Ptr<Zanth::TimerWheel> const&) const { Vel::throwConstInstance(); }
  /// Removes the timer, which is not called any more.
  virtual void periodicTimerDel();
  void periodicTimerDel() const { Vel::throwConstInstance(); }
  /// Makes the timer, in place of the one that there is. REQUIRES: a wheel.
  Vel::Ptr<VelPeriodicTimer> newPeriodicTimer(Vel::Ptr<Zanth::TimerWheel> const& wheel);
  Vel::Ptr<VelPeriodicTimer> newPeriodicTimer(Vel::Ptr<Zanth::TimerWheel> const&) const {
    Vel::throwConstInstance();
  }

  /// Takes the parameters from `interval()` and `numberOfMessages()`; O(1). A running timer is left alone. An
  /// idle one is armed if there are routes: a slice's interval after the previous deadline, or after now if
  /// there was none or that time has gone by. While a slice is being sent, only the parameters are taken.
  void doUpdatePeriodicTimer();

  /// True if a change of the route count would do no more than move the parameters, and nobody hears of that.
  bool velPaceIsSet() const { return (!periodicTimer_ || periodicTimer_->armed()) && !velWatched(); }

  /// Goes on with the slice 0.1 s from now.
  void doReschedulePeriodicTimer();

 protected:
  /// The sending of one expiry: begins with no route done; while it stands, changes of the route count do not
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
  static constexpr U64 wholeSlice = ~U64{0};

  void handleTimer();

  PeriodicParams periodicParams_;
  Vel::Ptr<VelPeriodicTimer> periodicTimer_;
  Seconds deadline_ = -Vel::never;  // when the latest slice was, or is, to begin
  U64 left_ = wholeSlice;           // of a slice that was cut short
  U64 done_ = 0;
  bool sending_ = false;
};

/// "Interval: 60, Routes/Interval: 12"; "null" for null.
VEL_API std::ostream& operator<<(std::ostream& os, PeriodicTimerSm::PeriodicParams const* params);
/// The same form.
VEL_API std::ostream& operator<<(std::ostream& os, PeriodicTimerSm::PeriodicParams const& params);

}  // namespace Routing::Pim
