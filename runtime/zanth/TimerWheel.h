// The timer wheel: all timers of a process on one clock.
//
// A timer is a reactor on the wheel. It sets the absolute time at which it wants to be called:
//
//   class Greeter : public Zanth::TimerWheel::Notifiee {
//     void onTime() override { std::puts("a second later"); }
//   };
//   auto wheel = Vel::create<Zanth::TimerWheel>();
//   auto greeter = Vel::create<Greeter>();
//   greeter->notifierIs(wheel);
//   greeter->timeMinIs(wheel->now() + 1.0);
//
// The wheel has no loop of its own. The agent's loop polls until `timeMin()` and then calls `expire()`:
//
//   poll(fds, count, std::clamp(std::ceil((wheel->timeMin() - wheel->now()) * 1000), 0.0, 60000.0));
//   wheel->expire();
//
// Arming, moving and disarming a timer are O(1). Timers fire in the exact order of their times, as doubles;
// those of equal time in the order in which they were armed.
#pragma once

#include <functional>

#include "runtime/vel/Entity.h"

namespace Zanth {

using Vel::Seconds;
using Vel::U32;
using Vel::U64;

/// All timers on one clock. An agent has one, makes it first, and drives it from its loop.
class VEL_API TimerWheel : public Vel::Entity {
  // A place in a ring of timers; a slot of the wheel is the one with which its ring begins and ends.
  struct Link {
    Link* previous = nullptr;  // null while in no ring
    Link* following = nullptr;
  };

 public:
  /// The current time, in seconds since some fixed point; it should not go backwards.
  using Clock = std::function<Seconds()>;

  /// A reactor that holds the wheel, without a timer.
  class NotifieeConst : public Vel::ReactorOn<TimerWheel> {};

  /// A timer. It goes off the wheel when it is destroyed or pointed at another wheel.
  class VEL_API Notifiee : public Vel::WritableReactor<NotifieeConst, TimerWheel>, private Link {
   public:
    /// What makes it a reactor.
    using Base = Vel::WritableReactor<NotifieeConst, TimerWheel>;
    using Base::notifierIs;

    ~Notifiee() override;

    /// When `onTime()` is due; +infinity if the timer is not armed, and inside its own `onTime()`.
    Seconds timeMin() const { return timeMin_; }

    /// Arms the timer for an absolute time on the wheel's clock, or moves it; +infinity disarms it. A time
    /// that has passed is due at the next `expire()`. NaN throws Vel::InvalidArgumentException and changes
    /// nothing. Without a wheel, the time is kept and takes effect on the wheel that the timer is given.
    virtual void timeMinIs(Seconds time);
    void timeMinIs(Seconds) const { Vel::throwConstInstance(); }

    /// True if a finite time is set, the largest finite double included.
    bool armed() const { return timeMin_ <= std::numeric_limits<Seconds>::max(); }

    /// True if the timer expired while it could not be called, and was not armed or disarmed since.
    bool missed() const { return missed_; }

    /// Goes over to another wheel, or to none, with the time that is set.
    void notifierIs(Vel::Ptr<TimerWheel> const& wheel) override;

    /// The time has come. The timer reads as unarmed and may be armed again: a time that is due already waits
    /// for the next `expire()`. Not called on a zombie or while notifications are off; the expiry is lost
    /// then.
    virtual void onTime() {}

   protected:
    /// Takes the timer off the wheel.
    void doDetach() noexcept override;

   private:
    friend class TimerWheel;

    Seconds timeMin_ = Vel::never;
    bool missed_ = false;
  };

  /// On the monotonic clock of the system.
  TimerWheel();
  /// On a clock of the caller's, such as a test's. REQUIRES: one that can be called, for as long as the wheel
  /// lives.
  explicit TimerWheel(Clock clock);

  /// The clock, read now: it moves on during an `expire()`.
  Seconds now() const { return clock_(); }

  /// The earliest time for which a timer is armed; +infinity if none is. Usually O(1); at worst it looks at
  /// the timers that share the earliest slot, and passes slots that have become empty once each.
  Seconds timeMin() const;

  /// Calls every timer that is due now. What becomes due or is armed for the past meanwhile waits for the
  /// next call. A timer that is moved, disarmed or destroyed by another's callback is not called. What
  /// `onTime()` throws goes to that timer's `onNotificationException()`. Called from inside an `onTime()`, it
  /// does nothing.
  void expire();

  /// How many timers are armed.
  U32 armedCount() const { return armedCount_; }

 protected:
  ~TimerWheel() override;

 private:
  // Time is cut into ticks of 1/1024 s. Level 0 has a slot for each of the next 64 ticks, each further level
  // slots 64 times as wide. A timer sits at the level of the highest digit (base 64) in which its tick
  // differs from tick_, so it moves down at most once a level before it is due. Timers of equal time thus share a slot at
  // any time, in the order in which they were armed.
  static constexpr U32 digitBits = 6;
  static constexpr U32 slotsPerLevel = 1 << digitBits;
  static constexpr U32 levels = 10;
  static constexpr U32 dueSlot =
      levels * slotsPerLevel;  // the list of what the expire() in progress will call
  static constexpr U64 lastTick = (U64{1} << (digitBits * levels)) - 1;

  static U64 tickOf(Seconds time);

  static void append(Link& ring, Notifiee* timer);
  void remove(Notifiee* timer);
  void insert(Notifiee* timer);
  void callDue(Seconds now);
  void collectDue(Seconds now);
  static Link* sorted(Link* list, U32 count);
  bool firstSlot(U32& slot, U64& startTick) const;

  Clock clock_;
  U64 tick_ = 0;
  U32 armedCount_ = 0;
  bool expiring_ = false;
  // No timer is due before: a loop that comes by for other reasons is done at once. The earliest time itself only while
  // that is known; what has been called since, or disarmed, may have been the earliest.
  mutable Seconds timeMin_ = Vel::never;
  mutable bool timeMinKnown_ = true;
  // A bit for each slot of a level that has timers, or has had some since it was last looked at: a timer that goes does
  // not look back.
  mutable U64 occupied_[levels] = {};
  Link slots_[levels * slotsPerLevel + 1];
};

}  // namespace Zanth
