// SPDX-License-Identifier: Apache-2.0
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
// This header and its source file are the whole folder.
//
// The wheel has no loop of its own. The agent's loop polls until `timeMin()` and then calls `expire()`:
//
//   poll(fds, count, std::clamp(std::ceil((wheel->timeMin() - wheel->now()) * 1000), 0.0, 60000.0));
//   wheel->expire();
//
// Disarming a timer is O(1); arming and moving one, and asking for the earliest time, are at most O(log n) on
// average, wherever the times lie. None of it needs the heap. Timers fire in the exact order of their times,
// as doubles; those of equal time in the order in which they were armed.
#pragma once

#include <functional>

#include "runtime/vel/Entity.h"

namespace Zanth {

class TimerExpiry;

using Vel::Seconds;
using Vel::U32;
using Vel::U64;

/// All timers on one clock. An agent has one, makes it first, and drives it from its loop.
class VEL_API TimerWheel : public Vel::Entity {
  // A place in a ring of timers; a ring begins and ends with a link of the wheel.
  struct Link {
    Link* previous = nullptr;  // null while in no ring
    Link* following = nullptr;
  };

 public:
  /// The current time, in seconds since some fixed point; it should not go backwards.
  using Clock = std::function<Seconds()>;

  /// A reactor that holds the wheel, without a timer.
  class NotifieeConst : public Vel::ReactorOn<TimerWheel> {};

  /// A timer. It leaves the wheel when it is destroyed or pointed at another wheel.
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
    bool missed() const { return velSpareFlag(); }

    /// Moves to another wheel, or to none, with the time that is set.
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

    void missedIs(bool missed) { velSpareFlagIs(missed); }
    bool canBeCalled() const { return hasNotificationActive() && !isZombie(); }

    Seconds timeMin_ = Vel::never;
  };

  /// On the monotonic clock of the system.
  TimerWheel();
  /// On a clock of the caller's, such as a test's. REQUIRES: one that can be called, for as long as the wheel
  /// lives.
  explicit TimerWheel(Clock clock);

  /// The clock, read now: it moves on during an `expire()`.
  Seconds now() const { return clock_(); }

  /// The earliest time for which a timer is armed; +infinity if none is. O(1) unless the timer that was the
  /// earliest has been called, moved or disarmed; then at most O(log n), counting what arming has put off:
  /// the first call since many timers were armed may look at each of them.
  Seconds timeMin() const;

  /// Calls every timer that is due now. What becomes due or is armed for the past meanwhile waits for the
  /// next call. A timer that is moved, disarmed or destroyed by another's callback is not called. What
  /// `onTime()` throws is handed to that timer's `onNotificationException()`. Called from inside an
  /// `onTime()`, it does nothing.
  void expire();

  /// How many timers are armed.
  U32 armedCount() const { return armedCount_; }

  /// What tells of the timers that are called, those of others included; it is created when it is first asked
  /// for. Until then, and while it has no reactors, it costs nothing but a test for each call.
  Vel::Ptr<TimerExpiry> expiry();
  Vel::Ptr<TimerExpiry> expiry() const { Vel::throwConstInstance(); }

 protected:
  ~TimerWheel() override;

 private:
  // Timers wait in rings, each in the order of arming, and at first in one. When the earliest is asked for,
  // the ring that is first in line is split into rings for ranges of time, and the first of those again,
  // until it has few timers or a single time. A fan takes the place of a ring that was split. So a timer is
  // looked at once for each split on its way to the front, each into at least 31 ranges, and what is far
  // ahead costs nothing.
  //
  // Times are compared as 64-bit numbers in the same order, so that ranges are cut by shifting, whatever the
  // times.
  static constexpr U32 ringsOfFan = 64;
  static constexpr U32 fanCount = 16;
  static constexpr U32 few = 12;  // are looked at one by one
  static constexpr Vel::U8 none = 0xff;

  struct Fan {
    // Of the times that were split; what is earlier or later comes into the first or the last ring.
    U64 least, most;
    // From a time to its ring.
    U32 shift;
    // A bit for each ring that has had timers since it was last looked at. The others are not valid.
    U64 used = 0;
    // The fan in place of a ring, or none.
    Vel::U8 fanOf[ringsOfFan];
    Link rings[ringsOfFan];

    U32 ringOf(U64 key) const;
    U32 firstUsed() const { return static_cast<U32>(__builtin_ctzll(used)); }
    void use(U32 ring);
  };

  static U64 keyOf(Seconds time);
  static bool isEmpty(Link const& ring) { return ring.following == &ring; }
  static void clear(Link& ring) { ring.previous = ring.following = &ring; }
  static void append(Link& ring, Link* timer);
  static void unlink(Link* timer);
  static void moveAll(Link& from, Link& to);
  static void insertSorted(Link& ring, Notifiee* timer);

  void remove(Notifiee* timer);
  void insert(Notifiee* timer);
  Link& ringFor(U64 key);
  Link& firstRing() const;
  void split(Link& ring, Vel::U8& fan) const;
  void fold(Link& ring, Vel::U8& fan) const;
  void makeRoom() const;
  void release(Vel::U8& fan) const;
  void collectDue(Seconds now);

  Clock clock_;
  Vel::Ptr<TimerExpiry> expiry_;  // null until it is asked for
  U32 armedCount_ = 0;
  bool expiring_ = false;
  // No timer in the rings is due before: a loop that comes by for other reasons is done at once. The earliest
  // time itself only while that is known; a timer that was moved or disarmed since may have been the
  // earliest.
  mutable Seconds earliest_ = Vel::never;
  mutable bool earliestKnown_ = true;
  // Asking for the earliest time splits rings, which no caller can notice.
  mutable Vel::U8 top_ = none;  // the fan in place of all_
  mutable Link all_;
  mutable U32 spare_ = (1u << fanCount) - 1;  // a bit for each fan that is not in use
  mutable Fan fans_[fanCount];
  Link due_;  // what the expire() in progress has still to call, in order
};

/// Tells of each timer that a wheel is about to call, whosever it is: for a program that logs what happens.
///
///   class ExpiryLog : public Zanth::TimerExpiry::NotifieeConst {
///     void onTimer() override { std::cout << notifier()->timer()->name() << std::endl; }
///   };
///   auto log = Vel::create<ExpiryLog>();
///   log->notifierIs(wheel->expiry());
///
/// A timer that cannot be called, since its notifications are off, is not told of. A callback may do anything
/// with the timer, too: one that it moves, disarms, switches off or destroys is not called.
class VEL_API TimerExpiry final : public Vel::Entity {
 public:
  enum Attribute : Vel::AttributeId { timerId = Vel::firstAttributeId };

  class NotifieeConst : public Vel::ReactorOn<TimerExpiry> {
   public:
    virtual void onTimer() { handleNotification(timerId); }
  };
  using Notifiee = Vel::WritableReactor<NotifieeConst, TimerExpiry>;

  /// Inside onTimer(), the timer that is about to be called: it is still set to the time for which it was
  /// armed. Null otherwise.
  Vel::Ptr<TimerWheel::Notifiee const> timer() const { return timer_; }

  Vel::AttributeTable const& attributeTable() const override;

 private:
  friend class TimerWheel;

  bool isWatched() const { return velWatched(); }
  void tell(TimerWheel::Notifiee& timer);

  Vel::Ptr<TimerWheel::Notifiee const> timer_;
};

}  // namespace Zanth
