// SPDX-License-Identifier: Apache-2.0
// A value that changes while 1 or 16 reactors watch it, in nanoseconds a change, against Boost.Signals2.
#include <boost/signals2/signal.hpp>

#include <cstdlib>
#include <memory>
#include <vector>

#include "bench/Bench.h"
#include "pim/joinprune/JoinPruneMessageInfo.h"

namespace {

using Record = Routing::Pim::JoinPruneMessageInfo;
constexpr int rounds = 10'000;

// What a reactor does is unknown to who calls it.
class Watcher final : public Record::NotifieeConst {
 public:
  [[gnu::noipa]] void onHoldTime() override { ++calls; }
  std::size_t calls = 0;
};

struct Signalling {
  void holdTimeIs(double value) {
    if (value == holdTime) return;
    holdTime = value;
    changed();
  }
  double holdTime = 0;
  boost::signals2::signal<void()> changed;
};

// Sets a value that differs each time.
template <class Subject>
void setAgainAndAgain(Subject& subject, Bench::Stopwatch& watch) {
  watch.start();
  for (int i = 0; i < rounds; ++i) subject.holdTimeIs(i);
  watch.stop(rounds);
}

void measure(std::size_t reactors) {
  std::string const name = "changed value/" + std::to_string(reactors) + " reactors";
  Bench::prepared(name + "/ours", [=]() -> Bench::Run {
    auto const record = Routing::Pim::joinPruneMessageInfoFactory();
    std::vector<Vel::Ptr<Watcher>> watchers;
    for (std::size_t i = 0; i < reactors; ++i) {
      watchers.push_back(Vel::create<Watcher>());
      watchers.back()->notifierIs(record);
    }
    return [record, watchers](Bench::Stopwatch& watch) {
      setAgainAndAgain(*record, watch);
      for (auto const& watcher : watchers)
        if (watcher->calls == 0) std::abort();
    };
  });
  Bench::prepared(name + "/Boost.Signals2", [=]() -> Bench::Run {
    auto const subject = std::make_shared<Signalling>();
    auto const calls = std::make_shared<std::size_t>(0);
    for (std::size_t i = 0; i < reactors; ++i) subject->changed.connect([calls] { ++*calls; });
    return [=](Bench::Stopwatch& watch) { setAgainAndAgain(*subject, watch); };
  });
  Bench::row({.subject = "changed value",
              .what = std::to_string(reactors) + " reactors",
              .reference = "Boost.Signals2",
              .atMost = 1});
}

bool const registered = [] {
  measure(1);
  measure(16);
  return true;
}();

}  // namespace
