// Bytes a route at a million of them: one source a group in triggered data, with the machine's reactors; and one group of
// a million sources. malloc's own share included. The reference is the size of a key and its flags.
#include <algorithm>

#include "bench/Containers.h"
#include "pim/joinprune/JoinPruneMessageSm.h"

namespace {

using namespace Routing::Pim;
using Dova::IpGenAddr;

template <class Fill>
double bytesOf(std::size_t routes, Fill const& fill) {
  double const before = Bench::heapBytes();
  fill();
  return (Bench::heapBytes() - before) / static_cast<double>(routes);
}

double groups(std::size_t routes) {
  double time = 0;
  IpGenAddr const neighbor("10.0.0.2"), source("10.9.0.1");
  auto const wheel = Vel::create<Zanth::TimerWheel>([&time] { return time; });
  auto const pim = Vel::create<Status>();
  auto const status = joinPruneStatusFactory();
  auto const eth0 = Vel::create<Intf>(Dova::IntfId("eth0"));
  pim->pimIntfIs(eth0);
  pim->pimNeighborIs(neighbor, eth0);
  auto const machine =
      joinPruneMessageSmFactory(status, nullptr, pim, nullptr, nullptr, nullptr, nullptr, nullptr, wheel);
  auto const data = status->triggeredGroup(neighbor);
  return bytesOf(routes, [&] {
    for (U32 i = 0; i < routes; ++i)
      data->joinPruneGroupDataIs(IpGenAddr::ipv4(0xe1000000u + i))->joinedSourceIs(source);
  });
}

double sources(std::size_t routes) {
  auto const group = Vel::create<Packet::JoinPruneGroupData>(IpGenAddr("239.1.1.1"));
  return bytesOf(routes, [&] {
    for (U32 i = 0; i < routes; ++i) group->joinedSourceIs(IpGenAddr::ipv4(0x0a000000u + i));
  });
}

bool const registered = [] {
  std::size_t const routes = Bench::wanted(1'000'000) ? 1'000'000 : 1'000;
  Bench::figure("memory/a group with a source/ours", [=] { return groups(routes); });
  Bench::figure("memory/a source of one group/ours", [=] { return sources(routes); });
  for (char const* const what : {"a group with a source", "a source of one group"})
    Bench::figure(std::string("memory/") + what + "/key and flags",
                  [] { return static_cast<double>(sizeof(RouteKey) + sizeof(Packet::SourceFlags)); });
  Bench::row({.subject = "memory",
              .what = "a group with a source",
              .reference = "key and flags",
              .atMostAbsolute = 400,
              .unit = "bytes"});
  Bench::row({.subject = "memory",
              .what = "a source of one group",
              .reference = "key and flags",
              .atMostAbsolute = 48,
              .unit = "bytes"});
  return true;
}();

}  // namespace
