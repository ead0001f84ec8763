// SPDX-License-Identifier: Apache-2.0
// What a speaker adds to the engine, in nanoseconds a route: beside the engine alone with the same packet
// manager and codec, for an agent that writes the data sets and reads the records itself.
#include "bench/Speaker.h"

#include <memory>
#include <string>

#include "bench/Bench.h"

namespace {

template <class Router>
void measureWanted(std::string const& who) {
  Bench::timed("speaker/joins to bytes/" + who, [](Bench::Stopwatch& watch) {
    Router router;
    watch.start();
    Bench::want(router);
    watch.stop(Bench::wantedRoutes);
  });
}

template <class Router>
void measureReceived(std::string const& who) {
  Bench::prepared("speaker/bytes to state/" + who, []() -> Bench::Run {
    auto const router = std::make_shared<Router>();
    auto const message = Bench::messageToReceive();
    router->receive(message);
    return [=](Bench::Stopwatch& watch) {
      watch.start();
      for (int i = 0; i < 30; ++i) router->receive(message);
      watch.stop(30 * 70);
    };
  });
}

struct EngineAlone : Bench::RefreshingRouter {
  EngineAlone() : RefreshingRouter(0) {}
};

bool const registered = [] {
  measureWanted<Bench::SpeakingRouter>("ours");
  measureWanted<EngineAlone>("engine");
  measureReceived<Bench::SpeakingRouter>("ours");
  measureReceived<Bench::DecodingReceiver>("engine");
  for (auto const* what : {"joins to bytes", "bytes to state"})
    Bench::row({.subject = "speaker", .what = what, .reference = "engine", .atMost = 1.5});
  return true;
}();

}  // namespace
