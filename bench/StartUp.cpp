// SPDX-License-Identifier: Apache-2.0
// Starting a machine over 1,000 neighbors with 1,000 periodic routes each (one source a group), in
// milliseconds. The floor fills maps of the same keys, by neighbor and by group, with a count for each group.
#include <absl/container/flat_hash_map.h>

#include <memory>

#include "bench/Bench.h"
#include "bench/Router.h"

namespace {

using Bench::groupOf;
using Bench::neighborOf;
using Dova::IpGenAddr;
using Vel::U32;

constexpr U32 neighbors = 1'000;

struct Hash {
  std::size_t operator()(IpGenAddr const& key) const { return key.order() >> 2; }
};

bool const registered = [] {
  U32 const routes = Bench::wanted(1'000'000) ? 1'000 : 10;
  Bench::prepared("start-up/a machine/ours", [=]() -> Bench::Run {
    auto const router = std::make_shared<Bench::StartingRouter>(neighbors, routes);
    return [=](Bench::Stopwatch& watch) {
      watch.start();
      auto const machine = router->newMachine();
      watch.stop(1e6);  // in milliseconds
      Bench::keep(machine);
    };
  });
  Bench::timed("start-up/a machine/floor", [=](Bench::Stopwatch& watch) {
    using Groups = absl::flat_hash_map<IpGenAddr, U32, Hash>;
    watch.start();
    auto const all = std::make_unique<absl::flat_hash_map<IpGenAddr, Groups, Hash>>();
    for (U32 n = 0; n < neighbors; ++n) {
      Groups& groups = (*all)[neighborOf(n)];
      for (U32 g = 0; g < routes; ++g) groups[groupOf(g)] = 1;
    }
    watch.stop(1e6);
    Bench::keep(all);
  });
  Bench::row({.subject = "start-up", .what = "a machine", .reference = "floor", .atMost = 3, .unit = "ms"});
  return true;
}();

}  // namespace
