// SPDX-License-Identifier: Apache-2.0
// The refresh of periodic routes, packet manager included, in nanoseconds a route. The floor is a
// straight-line encoder over an array of the same routes, packed into messages of the same size.
//
// The routes are (S,G) joins, one source a group. A round is driven as an agent would do it: the clock is
// moved from one deadline of the wheel to the next until every route has been sent once. The clock is virtual
// and does not advance during a slice, so no slice is cut short.
#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "bench/Bench.h"
#include "bench/Router.h"

namespace {

using Vel::U32;
using Vel::U64;
using Vel::U8;

struct Route {
  U32 group, source;  // in network order
};

// Messages of up to 73 groups (1494 bytes), each encoded into one buffer, checksum included.
U32 floorRound(std::vector<Route> const& routes) {
  constexpr std::size_t perMessage = 73, head = 14, perRoute = 20;
  U8 bytes[head + perMessage * perRoute] = {0x23, 0, 0, 0, 1, 0, 10, 0, 0, 2, 0, 0, 0, 210};
  U32 result = 0;
  for (std::size_t i = 0; i < routes.size();) {
    std::size_t const count = std::min(perMessage, routes.size() - i);
    bytes[2] = bytes[3] = 0;
    bytes[11] = static_cast<U8>(count);
    U8* to = bytes + head;
    for (std::size_t const end = i + count; i < end; ++i, to += perRoute) {
      static constexpr U8 group[] = {1, 0, 0, 32}, counts[] = {0, 1, 0, 0}, source[] = {1, 0, 4, 32};
      std::memcpy(to, group, 4);
      std::memcpy(to + 4, &routes[i].group, 4);
      std::memcpy(to + 8, counts, 4);
      std::memcpy(to + 12, source, 4);
      std::memcpy(to + 16, &routes[i].source, 4);
    }
    U64 sum = 0;
    for (U8 const* from = bytes; from + 4 <= to; from += 4) {
      U32 word;
      std::memcpy(&word, from, 4);
      sum += word;
    }
    while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
    U32 const folded = ~static_cast<U32>(sum);
    std::memcpy(bytes + 2, &folded, 2);
    Bench::keep(bytes);
    result += bytes[2];
  }
  return result;
}

void measure(U32 size) {
  if (!Bench::wanted(size)) return;
  std::string const name = "refresh/" + Bench::sizeText(size);
  U32 const rounds = std::max(1u, 1'000 / size);
  Bench::prepared(name + "/ours", [=]() -> Bench::Run {
    auto const router = std::make_shared<Bench::RefreshingRouter>(size);
    router->round();
    return [=](Bench::Stopwatch& watch) {
      watch.start();
      for (U32 r = 0; r < rounds; ++r) router->round();
      watch.stop(static_cast<double>(rounds) * size);
    };
  });
  Bench::prepared(name + "/floor", [=]() -> Bench::Run {
    auto const routes = std::make_shared<std::vector<Route>>();
    for (U32 i = 0; i < size; ++i) routes->push_back({htonl(0xe1000000u + i), htonl(0x0a090001u)});
    return [=](Bench::Stopwatch& watch) {
      watch.start();
      for (U32 r = 0; r < rounds; ++r) Bench::keep(floorRound(*routes));
      watch.stop(static_cast<double>(rounds) * size);
    };
  });
  Bench::growth("refresh", size, name);
}

bool const registered = [] {
  for (U32 const size : {10u, 100u, 1'000u, 10'000u, 100'000u, 1'000'000u}) measure(size);
  Bench::row({.subject = "refresh", .what = "1k", .reference = "floor", .atMost = 3});
  Bench::row({.subject = "refresh",
              .what = "1M against 1k",
              .reference = "ours at 1k",
              .atMost = 3,
              .ours = "refresh/1M/ours",
              .theirs = "refresh/1k/ours"});
  return true;
}();

}  // namespace
