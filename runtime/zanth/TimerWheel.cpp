#include "runtime/zanth/TimerWheel.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>

namespace Zanth {

namespace {

constexpr Seconds ticksPerSecond = 1024;

// By itself, so that arming a timer has no registers to save for it.
[[noreturn, gnu::noinline, gnu::cold]] void throwNaN() {
  throw Vel::InvalidArgumentException("a timer cannot be armed for NaN");
}

}  // namespace

TimerWheel::TimerWheel()
    : TimerWheel([] {
        return std::chrono::duration<Seconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
      }) {}

TimerWheel::TimerWheel(Clock clock) : clock_(std::move(clock)), tick_(tickOf(now())) {
  for (Link& slot : slots_) slot.previous = slot.following = &slot;
}

TimerWheel::~TimerWheel() {
  // Armed timers that do not hold the wheel: they must not point back into it.
  for (Link& slot : slots_)
    while (slot.following != &slot) remove(static_cast<Notifiee*>(slot.following));
}

// What is negative is 0, what is beyond the last tick is as good as the last: the order within a slot is that of the
// times. Two instructions instead of branches.
U64 TimerWheel::tickOf(Seconds time) {
  constexpr Seconds last = 0x0fffffffffffff80;  // the largest double below 2^60
  static_assert(static_cast<U64>(last) <= lastTick);
  Seconds const ticks = time * ticksPerSecond;
  Seconds const notNegative = ticks > 0 ? ticks : 0;
  return static_cast<U64>(static_cast<std::int64_t>(notNegative < last ? notNegative : last));
}

void TimerWheel::append(Link& ring, Notifiee* timer) {
  Link* const link = timer;
  link->previous = ring.previous;
  link->following = &ring;
  ring.previous->following = link;
  ring.previous = link;
}

void TimerWheel::insert(Notifiee* timer) {
  U64 const tick = std::max(tickOf(timer->timeMin_), tick_);  // what is late is due in the current slot
  timeMin_ = std::min(timeMin_, timer->timeMin_);
  U32 const level = (63 - static_cast<U32>(__builtin_clzll((tick ^ tick_) | 1))) / digitBits;
  U32 const digit = (tick >> level * digitBits) % slotsPerLevel;
  append(slots_[level * slotsPerLevel + digit], timer);
  occupied_[level] |= U64{1} << digit;
}

// Later digits differ from tick_ at a higher level, and within a level a later slot has a higher number: the
// lowest level that has timers has the earliest, in its lowest slot.
bool TimerWheel::firstSlot(U32& slot, U64& startTick) const {
  for (U32 level = 0; level < levels; ++level) {
    for (; occupied_[level] != 0; occupied_[level] &= occupied_[level] - 1) {
      U64 const digit = static_cast<U64>(__builtin_ctzll(occupied_[level]));
      slot = level * slotsPerLevel + static_cast<U32>(digit);
      if (slots_[slot].following == &slots_[slot]) continue;
      U64 const upper = ~U64{0} << digitBits << level * digitBits;
      startTick = (tick_ & upper) | digit << level * digitBits;
      return true;
    }
  }
  return false;
}

Seconds TimerWheel::timeMin() const {
  if (!timeMinKnown_) {
    timeMin_ = Vel::never;
    auto const look = [this](Link const& ring) {
      for (Link const* timer = ring.following; timer != &ring; timer = timer->following)
        timeMin_ = std::min(timeMin_, static_cast<Notifiee const*>(timer)->timeMin_);
    };
    U32 slot = 0;
    U64 startTick = 0;
    if (firstSlot(slot, startTick)) look(slots_[slot]);
    look(slots_[dueSlot]);
    timeMinKnown_ = true;
  }
  return timeMin_;
}

TimerWheel::Notifiee::~Notifiee() { Notifiee::timeMinIs(Vel::never); }

// Off the wheel before the derived parts go.
void TimerWheel::Notifiee::doDetach() noexcept {
  Notifiee::timeMinIs(Vel::never);
  Base::doDetach();
}

void TimerWheel::Notifiee::timeMinIs(Seconds time) {
  TimerWheel* const wheel = static_cast<TimerWheel*>(velNotifier());
  if (time <= std::numeric_limits<Seconds>::max()) {
    missed_ = false;
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
  missed_ = false;
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

// The timer has to be armed again, or counted off.
void TimerWheel::remove(Notifiee* timer) {
  Link* const link = timer;
  link->previous->following = link->following;
  link->following->previous = link->previous;
  link->previous = nullptr;
  if (timer->timeMin_ <= timeMin_) timeMinKnown_ = false;
}

// Cuts a list in two, sorts the halves and merges them; of equal timers the first stays the first. Without the heap: no
// timer may be lost for want of memory.
TimerWheel::Link* TimerWheel::sorted(Link* list, U32 count) {
  if (count < 2) {
    if (list) list->following = nullptr;
    return list;
  }
  Link* middle = list;
  for (U32 i = 0; i < count / 2; ++i) middle = middle->following;
  Link* b = sorted(middle, count - count / 2);
  Link* a = sorted(list, count / 2);
  Link* result = nullptr;
  Link** end = &result;
  while (a && b) {
    Link*& taken = static_cast<Notifiee*>(b)->timeMin_ < static_cast<Notifiee*>(a)->timeMin_ ? b : a;
    *end = taken;
    end = &taken->following;
    taken = taken->following;
  }
  *end = a ? a : b;
  return result;
}

// Moves what is due into the due list, in order.
void TimerWheel::collectDue(Seconds now) {
  U64 const nowTick = std::max(tickOf(now), tick_);
  Link* due = nullptr;
  Link** end = &due;
  U32 dueCount = 0;
  U32 slot = 0;
  U64 startTick = 0;
  timeMin_ = Vel::never;
  timeMinKnown_ = false;
  for (bool current = false; !current && firstSlot(slot, startTick) && startTick <= nowTick;) {
    current = slot < slotsPerLevel && startTick == nowTick;  // its later timers stay in it
    tick_ = std::max(tick_, startTick);
    Link& ring = slots_[slot];
    Link* timer = std::exchange(ring.following, &ring);
    ring.previous = &ring;
    occupied_[slot / slotsPerLevel] &= ~(U64{1} << slot % slotsPerLevel);
    while (timer != &ring) {
      Link* const following = timer->following;
      if (static_cast<Notifiee*>(timer)->timeMin_ <= now) {
        *end = timer;
        end = &timer->following;
        ++dueCount;
      } else {
        insert(static_cast<Notifiee*>(timer));
      }
      timer = following;
    }
  }
  *end = nullptr;
  tick_ = nowTick;
  if (firstSlot(slot, startTick))
    timeMin_ = std::min(timeMin_, static_cast<Seconds>(startTick) / ticksPerSecond);
  for (Link* timer = sorted(due, dueCount); timer;) {
    Link* const following = timer->following;
    append(slots_[dueSlot], static_cast<Notifiee*>(timer));
    timer = following;
  }
}

void TimerWheel::expire() {
  if (expiring_) return;
  Vel::MemoryHold const memory(this);  // the clock is somebody's code, too
  Seconds const at = now();
  if (at >= timeMin_) callDue(at);
}

void TimerWheel::callDue(Seconds at) {
  expiring_ = true;
  collectDue(at);
  for (Link& ring = slots_[dueSlot]; ring.following != &ring;) {
    Vel::Ptr<Notifiee> const timer(static_cast<Notifiee*>(ring.following));
    remove(timer.get());
    --armedCount_;
    timer->timeMin_ = Vel::never;
    timer->missed_ = !timer->hasNotificationActive() || timer->isZombie();
    if (timer->missed_) continue;
    try {
      timer->onTime();
    } catch (...) {
      timer->handleNotificationException();
    }
  }
  expiring_ = false;
}

}  // namespace Zanth
