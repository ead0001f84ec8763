// SPDX-License-Identifier: Apache-2.0
// Bytes a route at a million of them: one source a group in triggered data, with the machine's reactors,
// beside the plain engine; and one group of a million sources, beside the size of a key and its flags.
// malloc's own share included.
#include <algorithm>

#include "bench/Containers.h"
#include "bench/PlainRouter.h"

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
  Bench::Router router;
  router.start(nullptr);
  return bytesOf(routes, [&] {
    for (U32 i = 0; i < routes; ++i) router.add(*router.triggered, i);
  });
}

double plainGroups(std::size_t routes) {
  Bench::PlainRouter router;
  return bytesOf(routes, [&] {
    for (U32 i = 0; i < routes; ++i) router.add(Plain::Way::triggered, i);
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
  Bench::figure("memory/a group with a source/plain", [=] { return plainGroups(routes); });
  Bench::figure("memory/a source of one group/key and flags",
                [] { return static_cast<double>(sizeof(RouteKey) + sizeof(Packet::SourceFlags)); });
  for (std::size_t const size : {100u, 1'000u, 10'000u, 100'000u, 1'000'000u}) {
    // The first tables of an engine have room for ten.
    if (!Bench::wanted(size)) continue;
    std::string const name = "memory/" + std::to_string(size) + " groups";
    Bench::figure(name + "/ours", [=] { return groups(size); });
    Bench::figure(name + "/plain", [=] { return plainGroups(size); });
    Bench::growth("memory", size, name);
  }
  Bench::row({.subject = "memory",
              .what = "a group with a source",
              .reference = "plain",
              .atMostAbsolute = 240,
              .unit = "bytes"});
  Bench::row({.subject = "memory",
              .what = "a source of one group",
              .reference = "key and flags",
              .atMostAbsolute = 48,
              .unit = "bytes"});
  return true;
}();

}  // namespace
