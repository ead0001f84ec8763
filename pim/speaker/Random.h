// SPDX-License-Identifier: Apache-2.0
// Random values of a speaker.
#pragma once

#include "runtime/vel/Types.h"

namespace Routing::Pim::Speaker {

using Vel::Seconds;
using Vel::U32;
using Vel::U64;

/// A source of random values that gives the same values for the same seed on every platform (SplitMix64). The
/// distributions of the standard library differ between implementations, so they are not used. A speaker has
/// one source for all of its random values.
class Random {
 public:
  /// From a seed; each seed gives another sequence.
  explicit Random(U64 seed) : state_(seed) {}

  /// 64 random bits.
  U64 bits() {
    state_ += 0x9e3779b97f4a7c15;
    U64 z = state_;
    z = (z ^ z >> 30) * 0xbf58476d1ce4e5b9;
    z = (z ^ z >> 27) * 0x94d049bb133111eb;
    return z ^ z >> 31;
  }

  /// 32 random bits.
  U32 bits32() { return static_cast<U32>(bits() >> 32); }

  /// A number of seconds, `least` included, `most` not, unless both are equal.
  Seconds between(Seconds least, Seconds most) {
    return least + (most - least) * (static_cast<double>(bits() >> 11) * 0x1p-53);
  }

 private:
  U64 state_;
};

}  // namespace Routing::Pim::Speaker
