// SPDX-License-Identifier: Apache-2.0
// Bytes a route at a million of them: one source a group in triggered data, with the machine's reactors; and
// one group of a million sources. malloc's own share included. The reference is the size of a key and its
// flags.
#include <algorithm>

#include "bench/Containers.h"
#include "bench/Router.h"

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
