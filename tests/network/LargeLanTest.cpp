// SPDX-License-Identifier: Apache-2.0
// One LAN with many routers: what it costs, and how many messages suppression saves.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdio>
#include <ctime>

#include "tests/Thorough.h"
#include "tests/network/Network.h"

namespace Routing::Pim::Networks {
namespace {

using testing::IsEmpty;

constexpr U32 routeCount = 1000, routesOfARouter = 100;

Route routeNumber(U32 n) {
  return {Speaker::RouteKind::source, IpGenAddr("10.9.0.1"), IpGenAddr::ipv4(0xef010100 + n)};
}

struct LanFigures {
  double messages, joins;  // In a second.
};

// Each router but the first wants 100 of 1,000 routes from that one. What they refresh in one period.
LanFigures refreshOn(U32 routers, bool isSuppressed) {
  Speaker::InterfaceSettings settings;
  settings.hello.lanPruneDelay.tracking = !isSuppressed;
  settings.hello.maxNeighbors = routers;
  settings.hello.period = 120;  // Hellos are not what is measured.
  Network network(1, [&](U32) { return settings; }, {Dova::AddressFamily::ipv4});
  std::set<U32> all;
  for (U32 router = 0; router < routers; ++router) all.insert(router);
  network.lanIs(all);
  network.runFor(2 * settings.hello.triggeredDelay);
  // Each begins at another time, so that they do not refresh all at once.
  for (U32 router = 1; router < routers; ++router) {
    while (network.wishesOf(router).size() < routesOfARouter)
      network.want(router, {routeNumber(network.below(routeCount)), 0, 0});
    network.runFor(settings.joinPruneInterval / static_cast<Seconds>(routers));
  }
  if (isSuppressed) network.runFor(settings.joinPruneInterval);  // until few of them refresh a route
  Totals const before = network.totals();
  U64 const joinsBefore = network.joinsSent();
  Seconds const time = settings.joinPruneInterval;
  network.runFor(time);
  EXPECT_THAT(network.differences(), IsEmpty());
  return {static_cast<double>(network.totals().joinPrunes - before.joinPrunes) / time,
          static_cast<double>(network.joinsSent() - joinsBefore) / time};
}

struct Cost {
  double seconds;  // Of the processor, so that nothing depends on what else the machine does.
  double gigabytes;
};

// scripts/plot-lan draws what this prints.
Cost testLanOf(U32 routers) {
  std::clock_t const start = std::clock();
  auto const plain = refreshOn(routers, false), suppressed = refreshOn(routers, true);
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  Cost const cost{static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC,
                  static_cast<double>(usage.ru_maxrss) / 1e6};
  std::printf(
      "lan: %u routers; messages %.2f/s, suppressed %.2f/s; joins %.2f/s, suppressed %.2f/s; %.1f s, "
      "%.2f GB\n",
      routers, plain.messages, suppressed.messages, plain.joins, suppressed.joins, cost.seconds,
      cost.gigabytes);
  std::fflush(stdout);
  EXPECT_NEAR(plain.joins, (routers - 1) * routesOfARouter / 60.0, 0.01 * plain.joins);
  EXPECT_LE(suppressed.messages, plain.messages);
  if (routers >= 100) {
    EXPECT_LT(suppressed.joins, plain.joins / 2);
  }
  return cost;
}

TEST(LargeLanTest, EachRouteIsStoredAndSuppressionSavesMessages) {
  std::vector<U32> sizes = {10, 30};
  if (thorough()) sizes = {10, 30, 100, 300};
  for (U32 const routers : sizes) testLanOf(routers);
}

TEST(LargeLanTest, AThousandRoutersDoSoInTenMinutesAndFourGigabytes) {
  if (!thorough()) GTEST_SKIP() << "takes minutes";
  Cost const cost = testLanOf(1001);
  EXPECT_LT(cost.seconds, 600);
  EXPECT_LT(cost.gigabytes, 4);
}

}  // namespace
}  // namespace Routing::Pim::Networks
