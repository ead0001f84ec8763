// SPDX-License-Identifier: Apache-2.0
// What a set of keys keeps for classes that are made of sets. Not part of the library's interface.
#pragma once

namespace Vel::Detail {

/// The only friend of HashSet.
struct SetAccess {
  /// Asks for the memory of the first keys, before a walk.
  template <class Set>
  static void prefetch(Set const& set) {
    set.prefetch();
  }
};

}  // namespace Vel::Detail
