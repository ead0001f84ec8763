// Starting a machine over 1,000 neighbors with 1,000 periodic routes each (one source a group), in milliseconds. The floor
// fills maps of the same keys, by neighbor and by group, with a count for each group.
#include <absl/container/flat_hash_map.h>

#include <memory>

#include "bench/Bench.h"
#include "bench/Router.h"

namespace {

using namespace Routing::Pim;
using Bench::groupOf;
using Dova::IpGenAddr;

constexpr U32 neighbors = 1'000;

IpGenAddr neighborOf(U32 i) { return IpGenAddr::ipv4(0x0a000100u + i); }

struct Hash {
  std::size_t operator()(IpGenAddr const& key) const { return key.order() >> 2; }
};

bool const registered = [] {
  U32 const routes = Bench::wanted(1'000'000) ? 1'000 : 10;
  Bench::prepared("start-up/a machine/ours", [=]() -> Bench::Run {
    auto const pim = Vel::create<Status>();
    auto const status = joinPruneStatusFactory();
    auto const eth0 = Vel::create<Intf>(Dova::IntfId("eth0"));
    pim->pimIntfIs(eth0);
    auto const periodic = Vel::create<Packet::JoinPruneStatus>();
    status->periodicGroupStatusIs(periodic);
    for (U32 n = 0; n < neighbors; ++n) {
      pim->pimNeighborIs(neighborOf(n), eth0);
      auto const data = periodic->upJoinPruneIs(neighborOf(n));
      for (U32 g = 0; g < routes; ++g)
        data->joinPruneGroupDataIs(groupOf(g))->joinedSourceIs(IpGenAddr::ipv4(0x0a090001u));
    }
    auto const time = std::make_shared<double>(0);
    auto const wheel = Vel::create<Zanth::TimerWheel>([time] { return *time; });
    return [=](Bench::Stopwatch& watch) {
      watch.start();
      auto const machine =
          joinPruneMessageSmFactory(status, nullptr, pim, nullptr, nullptr, nullptr, nullptr, nullptr, wheel);
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
