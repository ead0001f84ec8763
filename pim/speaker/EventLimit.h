// A limit on events that a neighbor can cause without end.
#pragma once

#include <optional>

#include "runtime/vel/Types.h"

namespace Routing::Pim::Speaker {

/// Lets a number of events of one kind through in a second and counts the others.
class EventLimit {
 public:
  static constexpr Vel::U32 perSecond = 10;

  /// Nothing if the event is to be left out, or else how many were left out since the last one that was not.
  /// `now` is in seconds.
  std::optional<Vel::U64> pass(Vel::Seconds now) {
    if (!(now - second_ < 1)) {
      second_ = now;
      passed_ = 0;
    }
    if (passed_ == perSecond) {
      ++leftOut_;
      return std::nullopt;
    }
    ++passed_;
    Vel::U64 const leftOut = leftOut_;
    leftOut_ = 0;
    return leftOut;
  }

 private:
  Vel::Seconds second_ = -Vel::never;  // When the current second began.
  Vel::U32 passed_ = 0;                // In this second.
  Vel::U64 leftOut_ = 0;
};

}  // namespace Routing::Pim::Speaker
