// SPDX-License-Identifier: Apache-2.0
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
    if (now >= since_ + 1 || now < since_) {
      since_ = now;
      told_ = 0;
    }
    if (told_ == eventsInASecond) {
      ++leftOut_;
      return false;
    }
    ++told_;
    return true;
  }
  /// How many were left out since this was asked last.
  Vel::U64 takeLeftOut() {
    Vel::U64 const number = leftOut_;
    leftOut_ = 0;
    return number;
  }

 private:
  Vel::Seconds since_ = -Vel::never;
  Vel::U32 told_ = 0;
  Vel::U64 leftOut_ = 0;
};

}  // namespace Routing::Pim::Speaker
