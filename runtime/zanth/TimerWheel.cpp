// SPDX-License-Identifier: Apache-2.0
#include "runtime/zanth/TimerWheel.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <cmath>

#include "runtime/vel/Attribute.h"

namespace Zanth {

// A process has many. What has only two values is in the reactor's flags.
static_assert(sizeof(void*) != 8 || sizeof(TimerWheel::Notifiee) <= 64);

namespace {

// By itself, so that arming a timer has no registers to save for it.
[[noreturn, gnu::noinline, gnu::cold]] void throwNaN() {
  throw Vel::InvalidArgumentException("a timer cannot be armed for NaN");
}

U64 withoutLowestBit(U64 bits) { return bits & (bits - 1); }

}  // namespace

TimerWheel::TimerWheel()
    : TimerWheel([] {
        return std::chrono::duration<Seconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
      }) {}

TimerWheel::TimerWheel(Clock clock) : clock_(std::move(clock)) {
  clear(all_);
  clear(due_);
}

TimerWheel::~TimerWheel() {
  fold(all_, top_);
  // Armed timers that do not hold the wheel: they must not point back into it.
  while (!isEmpty(all_)) unlink(all_.following);
}

// --- Rings ---------------------------------------------------------------------------------------

void TimerWheel::append(Link& ring, Link* timer) {
  timer->previous = ring.previous;
  timer->following = &ring;
  ring.previous->following = timer;
  ring.previous = timer;
}

void TimerWheel::unlink(Link* timer) {
  timer->previous->following = timer->following;
  timer->following->previous = timer->previous;
  timer->previous = nullptr;
}

// To the end of another ring; from an empty one nothing is moved. The first is not valid any more.
void TimerWheel::moveAll(Link& from, Link& to) {
  to.previous->following = from.following;
  from.following->previous = to.previous;
  from.previous->following = &to;
  to.previous = from.previous;
}

// Behind those that are not later.
void TimerWheel::insertSorted(Link& ring, Notifiee* timer) {
  Link* before = ring.previous;
  while (before != &ring && static_cast<Notifiee*>(before)->timeMin_ > timer->timeMin_)
    before = before->previous;
  append(*before->following, timer);
}

// The timer has to be armed again, or counted off.
void TimerWheel::remove(Notifiee* timer) {
  unlink(timer);
  if (timer->timeMin_ <= earliest_) earliestKnown_ = false;
}

void TimerWheel::insert(Notifiee* timer) {
  earliest_ = std::min(earliest_, timer->timeMin_);
  append(top_ == none ? all_ : ringFor(keyOf(timer->timeMin_)), timer);
}

// --- Fans ----------------------------------------------------------------------------------------

U64 TimerWheel::keyOf(Seconds time) {
  constexpr U64 sign = U64{1} << 63;
  U64 const bits = std::bit_cast<U64>(time + 0.0);  // the two zeros are one time
  return bits & sign ? ~bits : bits | sign;
}

U32 TimerWheel::Fan::ringOf(U64 key) const {
  if (key < least) return 0;
  if (key > most) return ringsOfFan - 1;
  return 1 + static_cast<U32>((key - least) >> shift);
}

void TimerWheel::Fan::use(U32 ring) {
  if (used >> ring & 1) return;
  used |= U64{1} << ring;
  fanOf[ring] = none;
  clear(rings[ring]);
}

// REQUIRES: there is a fan for all timers.
TimerWheel::Link& TimerWheel::ringFor(U64 key) {
  for (Vel::U8 at = top_;;) {
    Fan& fan = fans_[at];
    U32 const ring = fan.ringOf(key);
    fan.use(ring);
    if (fan.fanOf[ring] == none) return fan.rings[ring];
    at = fan.fanOf[ring];
  }
}

// Puts a fan in the place of a ring. REQUIRES: there is room.
void TimerWheel::split(Link& ring, Vel::U8& fan) const {
  fan = static_cast<Vel::U8>(__builtin_ctz(spare_));
  spare_ &= spare_ - 1;
  Fan& made = fans_[fan];
  made.used = 0;
  made.least = ~U64{0};
  made.most = 0;
  for (Link const* timer = ring.following; timer != &ring; timer = timer->following) {
    U64 const key = keyOf(static_cast<Notifiee const*>(timer)->timeMin_);
    made.least = std::min(made.least, key);
    made.most = std::max(made.most, key);
  }
  U64 const width = made.most - made.least;
  // The first and the last ring are for other times.
  made.shift = static_cast<U32>(std::bit_width(width / (ringsOfFan - 2)));
  for (Link* timer = ring.following; timer != &ring;) {
    Link* const following = timer->following;
    U32 const to = made.ringOf(keyOf(static_cast<Notifiee*>(timer)->timeMin_));
    made.use(to);
    append(made.rings[to], timer);
    timer = following;
  }
}

void TimerWheel::release(Vel::U8& fan) const {
  spare_ |= 1u << fan;
  fan = none;
}

// Collects the timers of a fan, if there is one, into its ring again.
void TimerWheel::fold(Link& ring, Vel::U8& fan) const {
  if (fan == none) return;
  Fan& folded = fans_[fan];
  clear(ring);
  for (; folded.used != 0; folded.used = withoutLowestBit(folded.used)) {
    U32 const i = folded.firstUsed();
    fold(folded.rings[i], folded.fanOf[i]);
    moveAll(folded.rings[i], ring);
  }
  release(fan);
}

// Gives up the order of what is far ahead, for want of a fan. The way to the first timer leads through the
// first ring of the topmost fan, which stays.
void TimerWheel::makeRoom() const {
  Fan& top = fans_[top_];
  U64 const later = withoutLowestBit(top.used);
  for (U64 rest = later; rest != 0; rest = withoutLowestBit(rest)) {
    U32 const i = static_cast<U32>(__builtin_ctzll(rest));
    fold(top.rings[i], top.fanOf[i]);
  }
  if (spare_ != 0) return;
  // All others are in the first ring: its fan becomes the topmost, and what is later comes to its end.
  Vel::U8 const next = top.fanOf[top.firstUsed()];
  Fan& fan = fans_[next];
  U32 const end = ringsOfFan - 1;
  fan.use(end);
  fold(fan.rings[end], fan.fanOf[end]);
  for (U64 rest = later; rest != 0; rest = withoutLowestBit(rest))
    moveAll(top.rings[__builtin_ctzll(rest)], fan.rings[end]);
  release(top_);
  top_ = next;
}

// The ring that is first in line; it is empty if all are. Makes the earliest time known.
TimerWheel::Link& TimerWheel::firstRing() const {
  Link* ring = &all_;
  Vel::U8* fan = &top_;
  bool oneTime = false;
  for (;;) {
    while (*fan != none) {
      Fan& in = fans_[*fan];
      while (in.used != 0 && in.fanOf[in.firstUsed()] == none && isEmpty(in.rings[in.firstUsed()]))
        in.used = withoutLowestBit(in.used);
      if (in.used == 0) {  // the way begins anew: its ring is empty
        clear(*ring);
        release(*fan);
        ring = &all_;
        fan = &top_;
        continue;
      }
      U32 const i = in.firstUsed();
      if (in.fanOf[i] != none && withoutLowestBit(in.used) == 0) {  // it does nothing but lead to the next
        Vel::U8 const next = in.fanOf[i];
        release(*fan);
        *fan = next;
        continue;
      }
      oneTime = in.shift == 0 && i != 0 && i != ringsOfFan - 1;
      ring = &in.rings[i];
      fan = &in.fanOf[i];
    }
    Seconds time = Vel::never;
    Link const* timer = ring->following;
    for (U32 i = 0; i < few && timer != ring; ++i, timer = timer->following)
      time = std::min(time, static_cast<Notifiee const*>(timer)->timeMin_);
    if (timer == ring || oneTime) {
      earliest_ = time;
      earliestKnown_ = true;
      return *ring;
    }
    if (spare_ == 0) makeRoom();
    split(*ring, *fan);
  }
}

Seconds TimerWheel::timeMin() const {
  if (!earliestKnown_) firstRing();
  return isEmpty(due_) ? earliest_
                       : std::min(earliest_, static_cast<Notifiee const*>(due_.following)->timeMin_);
}

// --- Timers --------------------------------------------------------------------------------------

TimerWheel::Notifiee::~Notifiee() { Notifiee::timeMinIs(Vel::never); }

// Off the wheel before the derived parts go.
void TimerWheel::Notifiee::doDetach() noexcept {
  Notifiee::timeMinIs(Vel::never);
  Base::doDetach();
}

void TimerWheel::Notifiee::timeMinIs(Seconds time) {
  TimerWheel* const wheel = static_cast<TimerWheel*>(velNotifier());
  if (time <= std::numeric_limits<Seconds>::max()) {
    missedIs(false);
    if (previous)
      wheel->remove(this);
    else if (wheel)
      ++wheel->armedCount_;
    timeMin_ = time;
    if (wheel) wheel->insert(this);
    return;
  }
  if (std::isnan(time)) throwNaN();
  missedIs(false);
  if (previous) {
    wheel->remove(this);
    --wheel->armedCount_;
  }
  timeMin_ = time;
}

void TimerWheel::Notifiee::notifierIs(Vel::Ptr<TimerWheel> const& wheel) {
  Vel::Ptr<TimerWheel> const old = notifier();  // dropped last: its end calls out
  if (wheel == old) return;
  if (!armed()) return Base::notifierIs(wheel);
  Seconds const time = timeMin_;
  timeMinIs(Vel::never);
  Base::notifierIs(wheel);
  timeMinIs(time);
}

// --- Expiry --------------------------------------------------------------------------------------

// Moves what is due out of the rings, in order.
void TimerWheel::collectDue(Seconds now) {
  for (;;) {
    Link& ring = firstRing();
    if (earliest_ > now || isEmpty(ring)) return;
    for (Link* timer = ring.following; timer != &ring;) {
      Link* const following = timer->following;
      if (static_cast<Notifiee*>(timer)->timeMin_ <= now) {
        unlink(timer);
        insertSorted(due_, static_cast<Notifiee*>(timer));
      }
      timer = following;
    }
  }
}

void TimerWheel::expire() {
  if (expiring_) return;
  Vel::MemoryHold const memory(this);  // the clock is somebody's code, too
  Seconds const at = now();
  if (at < earliest_) return;
  expiring_ = true;
  collectDue(at);
  while (!isEmpty(due_)) {
    Notifiee& timer = static_cast<Notifiee&>(*due_.following);
    if (expiry_ && expiry_->isWatched() && timer.canBeCalled()) {
      expiry_->tell(timer);
      if (due_.following != &timer) continue;  // it was moved, disarmed or destroyed
    }
    Vel::Ptr<Notifiee> const reference(&timer);
    unlink(&timer);
    --armedCount_;
    timer.timeMin_ = Vel::never;
    if (!timer.canBeCalled()) {
      timer.missedIs(true);
      continue;
    }
    try {
      timer.onTime();
    } catch (...) {
      timer.handleNotificationException();
    }
  }
  expiring_ = false;
}

// --- Telling of expiries -------------------------------------------------------------------------

Vel::Ptr<TimerExpiry> TimerWheel::expiry() {
  if (!expiry_) expiry_ = Vel::create<TimerExpiry>();
  return expiry_;
}

// A reactor may destroy the timer; those that are called after it can look at it all the same.
void TimerExpiry::tell(TimerWheel::Notifiee& timer) {
  Vel::MemoryHold const memory(this);
  timer_ = Vel::Ptr<TimerWheel::Notifiee const>(&timer);
  velDeliver<NotifieeConst, timerId>([](NotifieeConst& r) { r.onTimer(); });
  timer_ = nullptr;
}

Vel::AttributeTable const& TimerExpiry::attributeTable() const {
  using Self = TimerExpiry;
  static Vel::AttributeTable const table{VEL_ROW_FIXED(timer)};
  return table;
}

}  // namespace Zanth
