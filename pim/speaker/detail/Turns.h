// SPDX-License-Identifier: Apache-2.0
// How often something costly is done that a neighbor can cause without end.
#pragma once

#include <algorithm>

#include "runtime/vel/Types.h"

namespace Routing::Pim::Speaker {

/// Turns of one kind: three at once, and then one in each period.
class Turns {
 public:
  /// Before one has to wait.
  static constexpr int atOnce = 3;

  /// Whether there is a turn now; it counts then.
  bool take(Vel::Seconds now, Vel::Seconds period) {
    if (next(period) > now) return false;
    through_ = std::max(through_, now) + period;
    return true;
  }
  /// When there is one; it may be in the past.
  Vel::Seconds next(Vel::Seconds period) const { return through_ - (atOnce - 1) * period; }
  /// Whether this is as if none had been taken.
  bool isFresh(Vel::Seconds now) const { return through_ <= now; }

 private:
  // When those that were taken would be through if there were one in a period.
  Vel::Seconds through_ = -Vel::never;
};

}  // namespace Routing::Pim::Speaker
