// SPDX-License-Identifier: Apache-2.0
// Receiving a message: from the decoded groups to the two records that the agent watches, in nanoseconds an
// entry, beside the plain engine.
#include <algorithm>
#include <memory>
#include <string>

#include "bench/Bench.h"
#include "bench/PlainRouter.h"

namespace {

using Bench::Shape;
using Vel::U32;

template <class Receiver>
Bench::Run messages(Shape const& shape, int observers) {
  int const rounds = static_cast<int>(std::max(1u, 2'000 / shape.entries()));
  double const count = rounds * static_cast<double>(shape.entries());
  auto const receiver = std::make_shared<Receiver>(shape, observers);
  return [=](Bench::Stopwatch& watch) {
    watch.start();
    for (int i = 0; i < rounds; ++i) {
      receiver->receive();
      benchmark::ClobberMemory();
    }
    watch.stop(count);
  };
}

std::string measure(Shape const& shape, int observers) {
  std::string const what = shape.name + ", " + std::to_string(observers) + " observers";
  Bench::inTurns(
      "receive/" + what, [=] { return messages<Bench::Receiver>(shape, observers); },
      [=] { return messages<Bench::PlainReceiver>(shape, observers); });
  return what;
}

bool const registered = [] {
  auto const add = [](Shape const& shape, double atMost, double atMostWatched) {
    for (int const observers : {0, 1})
      Bench::row({.subject = "receive",
                  .what = measure(shape, observers),
                  .reference = "plain",
                  .atMost = observers == 0 ? atMost : atMostWatched});
  };
  add({"70 groups of one source", 70, 1, 0, 0, false}, 1.3, 2.4);
  add({"one group of 180", 1, 180, 0, 0, false}, 0.6, 2.0);
  for (U32 const size : {10u, 100u, 1'000u, 10'000u, 100'000u, 1'000'000u})
    if (Bench::wanted(size)) {
      Shape const shape{Bench::sizeText(size) + " groups of one source", size, 1, 0, 0, false};
      Bench::growth("receive", size, "receive/" + measure(shape, 1));
    }
  return true;
}();

}  // namespace
