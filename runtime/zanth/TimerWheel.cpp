#include "runtime/zanth/TimerWheel.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <cmath>

namespace Zanth {

// A process has many. What has only two values is in the reactor's flags.
static_assert(sizeof(void*) != 8 || sizeof(TimerWheel::Notifiee) <= 64);

namespace {

// By itself, so that arming a timer has no registers to save for it.
[[noreturn, gnu::noinline, gnu::cold]] void throwNaN() {
  throw Vel::InvalidArgumentException("a timer cannot be armed for NaN");
}

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
  if (top_ != none) fold(all_, top_);
  // Armed timers that do not hold the wheel: they must not point back into it.
  for (Link* const ring : {&all_, &due_})
    while (!isEmpty(*ring)) unlink(ring->following);
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

// To the end of another ring.
void TimerWheel::moveAll(Link& from, Link& to) {
  if (isEmpty(from)) return;
  to.previous->following = from.following;
  from.following->previous = to.previous;
  from.previous->following = &to;
  to.previous = from.previous;
  clear(from);
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
  made.shift = std::max(static_cast<U32>(std::bit_width(width)), 6u) - 6;
  if (width >> made.shift > ringsOfFan - 3) ++made.shift;  // the first and the last ring are for others
  for (Link* timer = ring.following; timer != &ring;) {
    Link* const following = timer->following;
    U32 const to = made.ringOf(keyOf(static_cast<Notifiee*>(timer)->timeMin_));
    made.use(to);
    append(made.rings[to], timer);
    timer = following;
  }
}

// Collects the timers of a fan into one ring again, and gives the fan back.
void TimerWheel::fold(Link& ring, Vel::U8& fan) const {
  Fan& folded = fans_[fan];
  clear(ring);
  for (; folded.used != 0; folded.used &= folded.used - 1) {
    U32 const i = folded.firstUsed();
    if (folded.fanOf[i] != none) fold(folded.rings[i], folded.fanOf[i]);
    moveAll(folded.rings[i], ring);
  }
  release(std::exchange(fan, none));
}

// Gives up the order of what is far ahead, for want of a fan. The way to the first timer leads through the
// first ring of the topmost fan, which stays.
void TimerWheel::makeRoom() const {
  Fan& top = fans_[top_];
  U64 const later = top.used & (top.used - 1);
  for (U64 rest = later; rest != 0; rest &= rest - 1) {
    U32 const i = static_cast<U32>(__builtin_ctzll(rest));
    if (top.fanOf[i] != none) fold(top.rings[i], top.fanOf[i]);
  }
  if (spare_ != 0) return;
  // All others are in the first ring: its fan becomes the topmost, and what is later comes to its end.
  Vel::U8 const next = top.fanOf[top.firstUsed()];
  Fan& fan = fans_[next];
  U32 const end = ringsOfFan - 1;
  fan.use(end);
  if (fan.fanOf[end] != none) fold(fan.rings[end], fan.fanOf[end]);
  for (U64 rest = later; rest != 0; rest &= rest - 1)
    moveAll(top.rings[__builtin_ctzll(rest)], fan.rings[end]);
  release(std::exchange(top_, next));
}

TimerWheel::First TimerWheel::first() const {
  Link* ring = &all_;
  Vel::U8* fan = &top_;
  bool oneTime = false;
  for (;;) {
    if (*fan != none) {
      Fan& in = fans_[*fan];
      while (in.used != 0 && in.fanOf[in.firstUsed()] == none && isEmpty(in.rings[in.firstUsed()]))
        in.used &= in.used - 1;
      if (in.used == 0) {  // the way begins anew: its ring is empty
        clear(*ring);
        release(std::exchange(*fan, none));
        ring = &all_;
        fan = &top_;
        oneTime = false;
        continue;
      }
      U32 const i = in.firstUsed();
      if (in.fanOf[i] != none && (in.used & (in.used - 1)) == 0) {  // it does nothing but lead to the next
        release(std::exchange(*fan, in.fanOf[i]));
        continue;
      }
      oneTime = in.shift == 0 && i != 0 && i != ringsOfFan - 1;
      ring = &in.rings[i];
      fan = &in.fanOf[i];
      continue;
    }
    if (isEmpty(*ring)) return {};
    Link const* timer = ring->following;
    Seconds time = static_cast<Notifiee const*>(timer)->timeMin_;
    if (oneTime) return {ring, time};
    for (U32 i = 0; i < few && timer != ring; ++i, timer = timer->following)
      time = std::min(time, static_cast<Notifiee const*>(timer)->timeMin_);
    if (timer == ring) return {ring, time};
    if (spare_ == 0) makeRoom();
    split(*ring, *fan);
  }
}

Seconds TimerWheel::timeMin() const {
  if (!earliestKnown_) {
    earliest_ = first().time;
    earliestKnown_ = true;
  }
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
    if (!wheel) return;
    wheel->insert(this);
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
  if (wheel == static_cast<TimerWheel*>(velNotifier())) return;
  Seconds const time = timeMin_;
  timeMinIs(Vel::never);
  Base::notifierIs(wheel);
  timeMinIs(time);
}

// --- Expiry --------------------------------------------------------------------------------------

// Moves what is due out of the rings, in order.
void TimerWheel::collectDue(Seconds now) {
  for (;;) {
    First const next = first();
    earliest_ = next.time;
    earliestKnown_ = true;
    if (!(next.time <= now)) return;
    for (Link* timer = next.ring->following; timer != next.ring;) {
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
  if (at >= earliest_) callDue(at);
}

void TimerWheel::callDue(Seconds at) {
  expiring_ = true;
  collectDue(at);
  while (!isEmpty(due_)) {
    Vel::Ptr<Notifiee> const timer(static_cast<Notifiee*>(due_.following));
    unlink(due_.following);
    --armedCount_;
    timer->timeMin_ = Vel::never;
    if (!timer->hasNotificationActive() || timer->isZombie()) {
      timer->missedIs(true);
      continue;
    }
    try {
      timer->onTime();
    } catch (...) {
      timer->handleNotificationException();
    }
  }
  expiring_ = false;
}

}  // namespace Zanth
