// SPDX-License-Identifier: Apache-2.0
// What it costs to add and remove a route: triggered, from being wanted to being sent, packets included; and
// periodic, from being added to being removed among many that stay. In nanoseconds a route, beside the plain
// engine.
#include <algorithm>
#include <memory>

#include "bench/Bench.h"
#include "bench/PlainRouter.h"

namespace {

using Vel::U32;

void measureTriggered(U32 pending) {
  if (!Bench::wanted(pending)) return;
  std::string const name = "triggered route/" + Bench::sizeText(pending) + " pending";
  int const rounds = static_cast<int>(std::max(1u, 1000 / pending));
  Bench::inTurns(
      name,
      [=]() -> Bench::Run {
        auto const router = std::make_shared<Bench::RefreshingRouter>(0);
        return [=](Bench::Stopwatch& watch) {
          std::size_t const before = router->sent;
          watch.start();
          for (int r = 0; r < rounds; ++r) {
            for (U32 route = 0; route < pending; ++route) router->add(*router->triggered, route);
            router->fireNext();
          }
          watch.stop(static_cast<double>(rounds) * pending);
          if (router->sent - before != static_cast<std::size_t>(rounds) * pending) std::abort();
        };
      },
      [=]() -> Bench::Run {
        auto const router = std::make_shared<Bench::PlainRouter>();
        return [=](Bench::Stopwatch& watch) {
          std::size_t const before = router->sent;
          watch.start();
          for (int r = 0; r < rounds; ++r) {
            for (U32 route = 0; route < pending; ++route) router->add(Plain::Way::triggered, route);
            router->fireNext();
          }
          watch.stop(static_cast<double>(rounds) * pending);
          if (router->sent - before != static_cast<std::size_t>(rounds) * pending) std::abort();
        };
      });
  if (pending >= 10) Bench::growth("triggered", pending, name);
}

// A thousand routes come and go among those that stand.
void measurePeriodic(U32 standing) {
  if (!Bench::wanted(standing)) return;
  constexpr U32 changing = 1000;
  std::string const name = "periodic route/" + Bench::sizeText(standing) + " standing";
  Bench::inTurns(
      name,
      [=]() -> Bench::Run {
        auto const router = std::make_shared<Bench::RefreshingRouter>(standing);
        return [=](Bench::Stopwatch& watch) {
          watch.start();
          for (U32 route = standing; route < standing + changing; ++route)
            router->add(*router->periodic, route);
          for (U32 route = standing; route < standing + changing; ++route)
            router->remove(*router->periodic, route);
          watch.stop(changing);
          if (router->periodic->joinPruneGroupDataCount() != standing) std::abort();
        };
      },
      [=]() -> Bench::Run {
        auto const router = std::make_shared<Bench::PlainRouter>(standing);
        return [=](Bench::Stopwatch& watch) {
          watch.start();
          for (U32 route = standing; route < standing + changing; ++route)
            router->add(Plain::Way::periodic, route);
          for (U32 route = standing; route < standing + changing; ++route)
            router->remove(Plain::Way::periodic, route);
          watch.stop(changing);
          if (router->neighbor.periodic.size() != standing) std::abort();
        };
      });
  Bench::growth("periodic change", standing, name);
}

bool const registered = [] {
  for (U32 const size : {1u, 10u, 100u, 1'000u, 10'000u, 100'000u, 1'000'000u}) measureTriggered(size);
  for (U32 const size : {10u, 100u, 1'000u, 10'000u, 100'000u, 1'000'000u}) measurePeriodic(size);
  for (auto const& [what, atMost] : {std::pair("1k pending", 3.5), {"100k pending", 1.7}})
    Bench::row({.subject = "triggered route", .what = what, .reference = "plain", .atMost = atMost});
  for (auto const& [what, atMost] : {std::pair("1k standing", 3.3), {"1M standing", 2.0}})
    Bench::row({.subject = "periodic route", .what = what, .reference = "plain", .atMost = atMost});
  return true;
}();

}  // namespace
