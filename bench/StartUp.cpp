// SPDX-License-Identifier: Apache-2.0
// Starting over 1,000 neighbors with 1,000 periodic routes each (one source a group), in milliseconds. The
// library's machine finds the routes in the data sets, which it is made for. The plain engine is told of each
// from a list, and makes its own tables of them.
#include <memory>

#include "bench/Bench.h"
#include "bench/PlainRouter.h"

namespace {

using Vel::U32;

constexpr U32 neighbors = 1'000;

bool const registered = [] {
  U32 const routes = Bench::wanted(1'000'000) ? 1'000 : 10;
  Bench::inTurns(
      "start-up/1M standing routes",
      [=]() -> Bench::Run {
        auto const router = std::make_shared<Bench::StartingRouter>(neighbors, routes);
        return [=](Bench::Stopwatch& watch) {
          watch.start();
          auto const machine = router->newMachine();
          watch.stop(1e6);  // in milliseconds
          Bench::keep(machine);
        };
      },
      [=]() -> Bench::Run {
        auto const start = std::make_shared<Bench::PlainStart>(neighbors, routes);
        return [=](Bench::Stopwatch& watch) {
          watch.start();
          auto const engine = start->newEngine();
          watch.stop(1e6);
          Bench::keep(engine);
        };
      });
  Bench::row({.subject = "start-up",
              .what = "1M standing routes",
              .reference = "plain",
              .atMost = 0.5,
              .unit = "ms"});
  return true;
}();

}  // namespace
