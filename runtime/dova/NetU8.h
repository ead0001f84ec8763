// SPDX-License-Identifier: Apache-2.0
// Integers in the form that they have on the wire.
#pragma once

#include "runtime/vel/Types.h"

namespace Dova {

/// One byte in network form.
class NetU8 {
 public:
  constexpr NetU8() = default;
  /// From a number.
  constexpr explicit NetU8(Vel::U8 value) : value_(value) {}

  /// The number.
  constexpr Vel::U8 value() const { return value_; }
  /// Sets the number.
  constexpr void valueIs(Vel::U8 value) { value_ = value; }

  friend constexpr bool operator==(NetU8 a, NetU8 b) = default;

 private:
  Vel::U8 value_ = 0;
};

}  // namespace Dova
