// SPDX-License-Identifier: Apache-2.0
// How far apart the refreshes of a route are when sending takes a part of the interval, or more than all of
// it. scripts/pacing prints the table.
#include <cstdio>

#include "tests/pim/joinprune/World.h"

namespace Routing::Pim {
namespace {

using Report = Packet::JoinPruneMessage::Report;

constexpr U32 routes = 20'000;
constexpr Seconds interval = 60;

// The largest time between two refreshes of one route, in intervals. The load is the part of the interval
// that sending every route once takes; each route is a message, and the clock moves only by sending and by
// waiting.
double worstGap(double load) {
  World w;
  w.neighbor("10.0.0.2", w.intf("eth0", "10.0.0.1/24"));
  w.start();
  std::vector<Seconds> refreshed(routes, -1);
  Seconds worst = 0;
  std::size_t sent = 0;
  w.manager->instead = [&](Report& report) {
    w.manager->reportsBefore.clear();
    w.time += load * interval / routes;
    Seconds& last = refreshed[sent++ % routes];
    if (last >= 0) worst = std::max(worst, w.time - last);
    last = w.time;
    report = {1, 0, 0};
    return true;
  };
  auto const g = group(w.periodic("10.0.0.2"), "239.1.1.1");
  for (U32 i = 1; i <= routes; ++i) g->joinedSourceIs(Dova::IpGenAddr::ipv4(0x0a090000u + i));
  while (sent < 3 * routes) {
    if (w.wheel->timeMin() == Vel::never) return Vel::never;
    w.time = std::max(w.time, w.wheel->timeMin());
    w.wheel->expire();
  }
  return worst / interval;
}

TEST(PacingTest, TheWorstGapGrowsWithTheLoadAndNotInAStep) {
  std::printf("%s\n", "pacing: load in % | worst gap in intervals");
  for (U32 const percent : {10u, 30u, 45u, 50u, 52u, 55u, 61u, 70u, 80u, 90u, 100u, 125u, 150u, 200u, 300u}) {
    double const load = percent / 100.0;
    double const gap = worstGap(load);
    std::printf("pacing: %9u | %.2f\n", percent, gap);
    // A quantum of sending is followed by as long a pause, so from 50 % on a slice fills its time.
    EXPECT_LE(gap, std::max(1.0, 2 * load) + 0.05) << percent << " %";
    EXPECT_GE(gap, std::max(0.9, load)) << percent << " %";
  }
}

}  // namespace
}  // namespace Routing::Pim
