#include "runtime/zanth/TimerWheel.h"

#include <algorithm>
#include <chrono>
#include <cmath>

namespace Zanth {

TimerWheel::TimerWheel()
    : TimerWheel([] {
        return std::chrono::duration<Seconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
      }) {}

TimerWheel::TimerWheel(Clock clock) : clock_(std::move(clock)), tick_(tickOf(now())) {}

TimerWheel::~TimerWheel() {
  // Armed timers that do not hold the wheel: they must not point back into it.
  for (Notifiee*& first : slots_)
    while (first) disarm(first);
}

U64 TimerWheel::tickOf(Seconds time) {
  constexpr Seconds ticksPerSecond = 1024;
  if (!(time > 0)) return 0;
  Seconds const ticks = time * ticksPerSecond;
  return ticks >= static_cast<Seconds>(lastTick) ? lastTick : static_cast<U64>(ticks);
}

void TimerWheel::link(Notifiee* timer, U32 slot) {
  Notifiee*& first = slots_[slot];
  timer->slot_ = slot;
  timer->following_ = first;
  timer->fromBefore_ = &first;
  if (first) first->fromBefore_ = &timer->following_;
  first = timer;
  if (slot != dueSlot) occupied_[slot / slotsPerLevel] |= U64{1} << slot % slotsPerLevel;
}

void TimerWheel::insert(Notifiee* timer) {
  U64 const tick = std::max(tickOf(timer->timeMin_), tick_);  // what is late is due in the current slot
  U64 const differing = tick ^ tick_;
  U32 const level = differing == 0 ? 0 : (63 - static_cast<U32>(__builtin_clzll(differing))) / digitBits;
  link(timer, level * slotsPerLevel + (tick >> level * digitBits) % slotsPerLevel);
}

// Later digits differ from tick_ at a higher level, and within a level a later slot has a higher number: the
// lowest level that has timers has the earliest, in its lowest slot.
bool TimerWheel::firstSlot(U32& slot, U64& startTick) const {
  for (U32 level = 0; level < levels; ++level) {
    if (occupied_[level] == 0) continue;
    U64 const digit = static_cast<U64>(__builtin_ctzll(occupied_[level]));
    slot = level * slotsPerLevel + static_cast<U32>(digit);
    U64 const upper = ~U64{0} << digitBits << level * digitBits;
    startTick = (tick_ & upper) | digit << level * digitBits;
    return true;
  }
  return false;
}

Seconds TimerWheel::timeMin() const {
  if (!timeMinKnown_) {
    timeMin_ = Vel::never;
    U32 slot = 0;
    U64 startTick = 0;
    if (firstSlot(slot, startTick))
      for (Notifiee const* timer = slots_[slot]; timer; timer = timer->following_)
        timeMin_ = std::min(timeMin_, timer->timeMin_);
    for (Notifiee const* timer = slots_[dueSlot]; timer; timer = timer->following_)
      timeMin_ = std::min(timeMin_, timer->timeMin_);
    timeMinKnown_ = true;
  }
  return timeMin_;
}

void TimerWheel::Notifiee::unlink() {
  *fromBefore_ = following_;
  if (following_) following_->fromBefore_ = fromBefore_;
  fromBefore_ = nullptr;
  following_ = nullptr;
}

TimerWheel::Notifiee::~Notifiee() { Notifiee::timeMinIs(Vel::never); }

// Off the wheel before the derived parts go.
void TimerWheel::Notifiee::doDetach() noexcept {
  Notifiee::timeMinIs(Vel::never);
  Base::doDetach();
}

void TimerWheel::Notifiee::timeMinIs(Seconds time) {
  if (std::isnan(time)) throw Vel::InvalidArgumentException("a timer cannot be armed for NaN");
  TimerWheel* const wheel = static_cast<TimerWheel*>(velNotifier());
  if (wheel) wheel->disarm(this);
  timeMin_ = time;
  if (wheel && armed()) wheel->arm(this);
}

void TimerWheel::Notifiee::notifierIs(Vel::Ptr<TimerWheel> const& wheel) {
  if (wheel == static_cast<TimerWheel*>(velNotifier())) return;
  Seconds const time = timeMin_;
  timeMinIs(Vel::never);
  Base::notifierIs(wheel);
  timeMinIs(time);
}

void TimerWheel::arm(Notifiee* timer) {
  timer->armedAs_ = ++armings_;
  insert(timer);
  ++armedCount_;
  if (timeMinKnown_) timeMin_ = std::min(timeMin_, timer->timeMin_);
}

void TimerWheel::disarm(Notifiee* timer) {
  if (!timer->fromBefore_) return;
  U32 const slot = timer->slot_;
  timer->unlink();
  --armedCount_;
  if (slot != dueSlot && !slots_[slot]) occupied_[slot / slotsPerLevel] &= ~(U64{1} << slot % slotsPerLevel);
  if (timer->timeMin_ <= timeMin_) timeMinKnown_ = false;
}

// Cuts a list in two, sorts the halves and merges them. Without the heap: no timer may be lost for want of
// memory.
TimerWheel::Notifiee* TimerWheel::sorted(Notifiee* list, U32 count) {
  if (count < 2) {
    if (list) list->following_ = nullptr;
    return list;
  }
  Notifiee* middle = list;
  for (U32 i = 0; i < count / 2; ++i) middle = middle->following_;
  Notifiee* b = sorted(middle, count - count / 2);
  Notifiee* a = sorted(list, count / 2);
  Notifiee* result = nullptr;
  Notifiee** end = &result;
  while (a && b) {
    bool const bFirst = a->timeMin_ != b->timeMin_ ? b->timeMin_ < a->timeMin_ : b->armedAs_ < a->armedAs_;
    Notifiee*& taken = bFirst ? b : a;
    *end = taken;
    end = &taken->following_;
    taken = taken->following_;
  }
  *end = a ? a : b;
  return result;
}

// Moves what is due into the due list, in order.
void TimerWheel::collectDue(Seconds now) {
  U64 const nowTick = std::max(tickOf(now), tick_);
  Notifiee* due = nullptr;
  U32 dueCount = 0;
  U32 slot = 0;
  U64 startTick = 0;
  for (bool current = false; !current && firstSlot(slot, startTick) && startTick <= nowTick;) {
    current = slot < slotsPerLevel && startTick == nowTick;  // its later timers stay in it
    tick_ = std::max(tick_, startTick);
    Notifiee* timer = std::exchange(slots_[slot], nullptr);
    occupied_[slot / slotsPerLevel] &= ~(U64{1} << slot % slotsPerLevel);
    while (timer) {
      Notifiee* const following = timer->following_;
      if (timer->timeMin_ <= now) {
        timer->following_ = due;
        due = timer;
        ++dueCount;
      } else {
        insert(timer);
      }
      timer = following;
    }
  }
  tick_ = nowTick;
  Notifiee** end = &slots_[dueSlot];
  for (Notifiee* timer = sorted(due, dueCount); timer; timer = timer->following_) {
    timer->slot_ = dueSlot;
    timer->fromBefore_ = end;
    *end = timer;
    end = &timer->following_;
  }
}

void TimerWheel::expire() {
  if (expiring_) return;
  Vel::Ptr<TimerWheel> const keep(this);
  Seconds const at = now();
  expiring_ = true;
  collectDue(at);
  while (Notifiee* const first = slots_[dueSlot]) {
    Vel::Ptr<Notifiee> const timer(first);
    disarm(first);
    first->timeMin_ = Vel::never;
    if (!timer->hasNotificationActive() || timer->isZombie()) continue;
    try {
      timer->onTime();
    } catch (...) {
      timer->handleNotificationException();
    }
  }
  expiring_ = false;
}

}  // namespace Zanth
