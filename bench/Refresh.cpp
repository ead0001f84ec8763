// SPDX-License-Identifier: Apache-2.0
// The refresh of periodic routes, packets included, in nanoseconds a route, beside the plain engine.
//
// The routes are (S,G) joins, one source a group. A round is driven as an agent would do it: the clock is
// moved from one deadline to the next until every route has been sent once. The clock is virtual and does not
// advance during a slice, so no slice is cut short.
#include <algorithm>
#include <memory>

#include "bench/Bench.h"
#include "bench/PlainRouter.h"

namespace {

using Vel::U32;

template <class Router>
Bench::Run rounds(U32 size) {
  auto const router = std::make_shared<Router>(size);
  router->round();
  U32 const count = std::max(1u, 1'000 / size);
  return [=](Bench::Stopwatch& watch) {
    watch.start();
    for (U32 r = 0; r < count; ++r) router->round();
    watch.stop(static_cast<double>(count) * size);
  };
}

void measure(U32 size) {
  if (!Bench::wanted(size)) return;
  std::string const name = "refresh/" + Bench::sizeText(size);
  Bench::inTurns(
      name, [=] { return rounds<Bench::RefreshingRouter>(size); },
      [=] { return rounds<Bench::PlainRouter>(size); });
  Bench::growth("refresh", size, name);
}

bool const registered = [] {
  for (U32 const size : {10u, 100u, 1'000u, 10'000u, 100'000u, 1'000'000u}) measure(size);
  for (auto const& [what, atMost] : {std::pair("1k", 1.2), {"100k", 1.4}, {"1M", 0.9}})
    Bench::row({.subject = "refresh", .what = what, .reference = "plain", .atMost = atMost});
  return true;
}();

}  // namespace
