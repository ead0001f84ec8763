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
      watch.stop(30 * Bench::groupsOfAMessage);
    };
  });
}

template <class Router>
void measureRefreshed(std::string const& name, Vel::U32 size) {
  Bench::prepared(name, [=]() -> Bench::Run {
    auto const refreshed = std::make_shared<Bench::Refreshed<Router>>(size);
    return [=](Bench::Stopwatch& watch) {
      watch.start();
      refreshed->receive();
      watch.stop(refreshed->routes);
      refreshed->pass();
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
  for (Vel::U32 const size : {1'000u, 1'000'000u}) {
    if (!Bench::wanted(size)) continue;
    std::string const what = Bench::sizeText(size) + " downstream routes refreshed";
    measureRefreshed<Bench::SpeakingRouter>("speaker/" + what + "/ours", size);
    measureRefreshed<Bench::DecodingReceiver>("speaker/" + what + "/engine", size);
    if (size == 1'000) {
      Bench::row({.subject = "speaker", .what = what, .reference = "engine", .atMost = 1.5});
    } else {
      // The engine alone stores nothing; a million stored routes are beyond the caches.
      Bench::row({.subject = "speaker", .what = what, .reference = "engine", .atMostAbsolute = 2'000});
    }
  }
  return true;
}();

}  // namespace
