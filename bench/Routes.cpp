// SPDX-License-Identifier: Apache-2.0
// What it costs to add and remove a route: triggered, from being added to being sent by a packet manager that
// does nothing but take it out; and periodic, from being added to being removed among many that stay. In
// nanoseconds a route. The floor inserts the route into an absl::flat_hash_set, erases it, and makes two
// virtual calls.
#include <absl/container/flat_hash_set.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "bench/Bench.h"
#include "bench/Router.h"

namespace {

using Bench::groupOf;
using Dova::IpGenAddr;
using Vel::U32;

// Two virtual calls: one for coming, one for going.
struct Listener {
  virtual ~Listener() = default;
  virtual void came(IpGenAddr const& group) = 0;
  virtual void went(IpGenAddr const& group) = 0;
};
struct Counting final : Listener {
  [[gnu::noipa]] void came(IpGenAddr const&) override { ++count; }
  [[gnu::noipa]] void went(IpGenAddr const&) override { --count; }
  std::size_t count = 0;
};
struct Floor {
  struct Hash {
    std::size_t operator()(IpGenAddr const& key) const { return key.order() >> 2; }
  };
  void add(U32 route) {
    if (routes.insert(groupOf(route)).second) listener->came(groupOf(route));
  }
  void remove(U32 route) {
    if (routes.erase(groupOf(route)) != 0) listener->went(groupOf(route));
  }
  absl::flat_hash_set<IpGenAddr, Hash> routes;
  std::unique_ptr<Listener> const listener = std::make_unique<Counting>();
};

void measureTriggered(U32 pending) {
  if (!Bench::wanted(pending)) return;
  std::string const name = "triggered route/" + Bench::sizeText(pending) + " pending";
  int const rounds = static_cast<int>(std::max(1u, 1000 / pending));
  Bench::prepared(name + "/ours", [=]() -> Bench::Run {
    auto const router = std::make_shared<Bench::TakingRouter>();
    return [=](Bench::Stopwatch& watch) {
      watch.start();
      for (int r = 0; r < rounds; ++r) {
        for (U32 route = 0; route < pending; ++route) router->add(*router->triggered, route);
        router->time += 0.1;
        router->wheel->expire();
      }
      watch.stop(static_cast<double>(rounds) * pending);
      if (router->triggered->joinPruneGroupDataCount() != 0) std::abort();
    };
  });
  Bench::prepared(name + "/floor", [=]() -> Bench::Run {
    auto const floor = std::make_shared<Floor>();
    return [=](Bench::Stopwatch& watch) {
      watch.start();
      for (int r = 0; r < rounds; ++r) {
        for (U32 route = 0; route < pending; ++route) floor->add(route);
        for (U32 route = 0; route < pending; ++route) floor->remove(route);
      }
      watch.stop(static_cast<double>(rounds) * pending);
    };
  });
  if (pending >= 10) Bench::growth("triggered", pending, name);
}

// A thousand routes come and go among those that stand.
void measurePeriodic(U32 standing) {
  if (!Bench::wanted(standing)) return;
  constexpr U32 changing = 1000;
  std::string const name = "periodic route/" + Bench::sizeText(standing) + " standing";
  Bench::prepared(name + "/ours", [=]() -> Bench::Run {
    auto const router = std::make_shared<Bench::TakingRouter>();
    for (U32 route = 0; route < standing; ++route) router->add(*router->periodic, route);
    return [=](Bench::Stopwatch& watch) {
      watch.start();
      for (U32 route = standing; route < standing + changing; ++route) router->add(*router->periodic, route);
      for (U32 route = standing; route < standing + changing; ++route)
        router->remove(*router->periodic, route);
      watch.stop(changing);
      if (router->periodic->joinPruneGroupDataCount() != standing) std::abort();
    };
  });
  Bench::prepared(name + "/floor", [=]() -> Bench::Run {
    auto const floor = std::make_shared<Floor>();
    for (U32 route = 0; route < standing; ++route) floor->add(route);
    return [=](Bench::Stopwatch& watch) {
      watch.start();
      for (U32 route = standing; route < standing + changing; ++route) floor->add(route);
      for (U32 route = standing; route < standing + changing; ++route) floor->remove(route);
      watch.stop(changing);
    };
  });
  Bench::growth("periodic change", standing, name);
}

bool const registered = [] {
  for (U32 const size : {1u, 10u, 100u, 1'000u, 10'000u, 100'000u, 1'000'000u}) measureTriggered(size);
  for (U32 const size : {10u, 100u, 1'000u, 10'000u, 100'000u, 1'000'000u}) measurePeriodic(size);
  for (std::string const what : {"1 pending", "1k pending", "100k pending"})
    Bench::row({.subject = "triggered route", .what = what, .reference = "floor", .atMost = 4});
  Bench::row({.subject = "triggered route",
              .what = "100k against 1",
              .reference = "ours at 1",
              .atMost = 2,
              .ours = "triggered route/100k pending/ours",
              .theirs = "triggered route/1 pending/ours"});
  for (std::string const what : {"1k standing", "1M standing"})
    Bench::row({.subject = "periodic route", .what = what, .reference = "floor", .atMost = 4});
  Bench::row({.subject = "periodic route",
              .what = "1M against 1k",
              .reference = "ours at 1k",
              .atMost = 3,
              .ours = "periodic route/1M standing/ours",
              .theirs = "periodic route/1k standing/ours"});
  return true;
}();

}  // namespace
