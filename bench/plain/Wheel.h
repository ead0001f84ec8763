// SPDX-License-Identifier: Apache-2.0
// The timers of the plain engine (Engine.h).
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <functional>
#include <limits>
#include <utility>
#include <vector>

#include "runtime/vel/Types.h"

namespace Plain {

/// On a clock that does not run backwards.
using Seconds = double;
inline constexpr Seconds never = std::numeric_limits<Seconds>::infinity();

class Wheel;

/// Calls `action` when its time has come. It outlives its arming.
struct Timer {
  std::function<void()> action;
  Seconds due = never;

 private:
  friend class Wheel;
  Timer *next_ = nullptr, **from_ = nullptr;
};

/// A timer wheel of 64 s in slots of a 64th: arming and stopping are O(1). A timer beyond a turn waits in its
/// slot for the turn that is its own.
class Wheel {
 public:
  Wheel() : slots_(slotCount) {}
  Wheel(Wheel const&) = delete;
  Wheel& operator=(Wheel const&) = delete;

  void arm(Timer& timer, Seconds due) {
    stop(timer);
    Vel::U64 const slot = std::max(tickOf(due), now_) % slotCount;
    Timer*& first = slots_[slot];
    used_[slot / 64] |= Vel::U64{1} << slot % 64;
    timer.due = due;
    timer.next_ = first;
    timer.from_ = &first;
    if (first) first->from_ = &timer.next_;
    first = &timer;
    ++armed_;
    if (due < earliest_) earliest_ = due;
  }
  void stop(Timer& timer) {
    if (!timer.from_) return;
    *timer.from_ = timer.next_;
    if (timer.next_) timer.next_->from_ = timer.from_;
    timer.from_ = nullptr;
    timer.next_ = nullptr;
    if (std::exchange(timer.due, never) <= earliest_) earliestIsKnown_ = false;
    --armed_;
  }

  /// When the earliest timer is due, or never.
  Seconds earliest() const {
    if (!std::exchange(earliestIsKnown_, true)) earliest_ = findEarliest();
    return earliest_;
  }
  /// Calls what is due, in the order of the times, and what that arms for now or before.
  void expire(Seconds now) {
    while (earliest() <= now) {
      due_.clear();
      Vel::U64 const last = tickOf(now);
      Vel::U64 tick = last < now_ + slotCount ? now_ : last - slotCount + 1;
      for (; (tick = nextUsed(tick, last + 1)) <= last; ++tick)
        for (Timer* timer = slots_[tick % slotCount]; timer; timer = timer->next_)
          if (timer->due <= now) due_.push_back(timer);
      now_ = last;
      std::sort(due_.begin(), due_.end(), [](Timer* a, Timer* b) { return a->due < b->due; });
      for (Timer* const timer : due_) {
        if (timer->due > now) continue;
        stop(*timer);
        timer->action();
      }
    }
  }

 private:
  static constexpr Vel::U64 slotCount = 4096;
  static Vel::U64 tickOf(Seconds time) { return time <= 0 ? 0 : static_cast<Vel::U64>(time * 64); }

  Seconds findEarliest() const {
    if (armed_ == 0) return never;
    Seconds least = never;
    Vel::U64 const end = now_ + slotCount;
    for (Vel::U64 tick = now_; (tick = nextUsed(tick, end)) != end; ++tick) {
      for (Timer const* timer = slots_[tick % slotCount]; timer; timer = timer->next_)
        least = std::min(least, timer->due);
      if (least != never && tickOf(least) <= tick) return least;
    }
    return least;
  }

  // The first tick whose slot has a timer, or the end.
  Vel::U64 nextUsed(Vel::U64 tick, Vel::U64 end) const {
    while (tick < end) {
      Vel::U64& bits = used_[tick % slotCount / 64];
      Vel::U64 const ahead = bits >> tick % 64;
      if (ahead == 0) {
        tick = (tick | 63) + 1;
        continue;
      }
      tick += static_cast<Vel::U64>(std::countr_zero(ahead));
      if (tick >= end || slots_[tick % slotCount]) break;
      bits &= ~(Vel::U64{1} << tick % 64);
    }
    return std::min(tick, end);
  }

  std::vector<Timer*> slots_;
  mutable std::array<Vel::U64, slotCount / 64>
      used_{};               // set for each slot with a timer, and for some without
  std::vector<Timer*> due_;  // kept for its memory
  Vel::U64 now_ = 0;         // the tick of the latest expiry
  Vel::U32 armed_ = 0;
  mutable Seconds earliest_ = never;
  mutable bool earliestIsKnown_ = true;
};

}  // namespace Plain
