// SPDX-License-Identifier: Apache-2.0
// Random operations.
#pragma once

#include <ostream>
#include <random>

#include "tests/world/Model.h"

namespace Routing::Pim::Worlds {

/// How often what is done, in weights.
struct Profile {
  char const* name;
  U32 surroundings;  // interfaces and neighbors
  U32 data;          // what the agent's route machines do: sources come and go
  U32 unruly;        // what they must not do: filled groups, repeated notifications, data sets replaced
  U32 receive;
  U32 time;
  U32 machines;  // start, drop, attributes
  U32 temper;
  bool ipv6 = false;

  friend void PrintTo(Profile const& profile, std::ostream* os) { *os << profile.name; }
};

inline constexpr Profile profiles[] = {{"Even", 10, 40, 0, 5, 25, 4, 6},
                                       {"Restless", 40, 25, 0, 3, 12, 8, 6},
                                       {"Tempers", 6, 40, 0, 0, 30, 2, 22},
                                       {"Unruly", 8, 30, 12, 2, 25, 6, 8},
                                       {"Receiving", 12, 25, 0, 40, 12, 4, 4},
                                       {"Busy", 4, 45, 0, 2, 45, 2, 10},
                                       {"EvenOnIpv6", 10, 40, 0, 5, 25, 4, 6, true},
                                       {"RestlessAndUnruly", 30, 25, 8, 3, 20, 8, 6},
                                       {"TempersOnIpv6", 6, 40, 0, 0, 30, 2, 22, true},
                                       {"UnrulyTempers", 6, 40, 6, 2, 25, 4, 20}};

class Random {
 public:
  Random(U64 seed, Profile const& profile) : generator_(seed), profile_(profile) {}

  /// The next operation, usually one that can be done. The first ones make a world in which something can
  /// happen.
  Operation operation(Model const& model);

 private:
  U32 below(U32 n) { return static_cast<U32>((generator_() >> 11) % n); }
  bool oneIn(U32 n) { return below(n) == 0; }
  template <std::size_t n, class T>
  T oneOf(T const (&values)[n]) {
    return values[below(n)];
  }

  Operation any(bool nested);
  void surroundings(Operation& o);
  void data(Operation& o);
  void unruly(Operation& o);
  void time(Operation& o);
  void machines(Operation& o, bool nested);
  void temper(Operation& o);

  std::mt19937_64 generator_;
  Profile const& profile_;
  U32 made_ = 0;
};

}  // namespace Routing::Pim::Worlds
