// How often an event of one kind is told.
#pragma once

#include "runtime/vel/Types.h"

namespace Routing::Pim::Speaker {

/// Admits ten events a second, so that who sends a flood of what is refused does not get a flood of events.
/// Those that are left out are counted.
class EventBudget {
 public:
  /// In any second from the first event on.
  static constexpr Vel::U32 eventsInASecond = 10;

  /// Whether the event may be told.
  bool admits(Vel::Seconds now) {
    if (!isOpen(now)) {
      ++leftOut_;
      return false;
    }
    if (isOver(now)) {
      since_ = now;
      told_ = 0;
    }
    ++told_;
    return true;
  }
  /// Whether admits() would be true.
  bool isOpen(Vel::Seconds now) const { return told_ < eventsInASecond || isOver(now); }
  /// When it is open again, if it is not.
  Vel::Seconds opensAt() const { return since_ + 1; }
  /// Counts one that is left out though admits() was not asked.
  void leaveOut() { ++leftOut_; }
  /// How many were left out since this was asked last.
  Vel::U64 takeLeftOut() {
    Vel::U64 const number = leftOut_;
    leftOut_ = 0;
    return number;
  }

 private:
  bool isOver(Vel::Seconds now) const { return now >= since_ + 1 || now < since_; }

  Vel::Seconds since_ = -Vel::never;
  Vel::U32 told_ = 0;
  Vel::U64 leftOut_ = 0;
};

}  // namespace Routing::Pim::Speaker
