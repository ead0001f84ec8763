// SPDX-License-Identifier: Apache-2.0
// Networks of speakers: what each router has stored is what is wanted from it, at once while no packet is
// lost, and after a bounded time when faults have ended.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/Thorough.h"
#include "tests/network/Network.h"

namespace Routing::Pim::Networks {
namespace {

using Speaker::InterfaceSettings;
using testing::IsEmpty;

// J/P_Override_Interval with the defaults of RFC 7761, 4.11, and the larger part of it: t_override at most.
constexpr Seconds overrideInterval = 2.5, joinPruneOverrideInterval = 0.5 + overrideInterval;
// Messages are delayed by less than the shortest t_override, so that an override does not overtake its
// prune. What is triggered is sent 0.1 s later.
constexpr Seconds shortDelay = 0.2, atOnce = 0.1 + shortDelay;

// How long it takes until all is well after the last fault: what should not be there expires within the
// longer hold time; a neighbor that was thought to have ended is heard again with its next Hello, and is
// answered within Triggered_Hello_Delay; a join that was not triggered by that is sent within t_periodic;
// and a prune that it overrides has taken effect within J/P_Override_Interval.
constexpr Seconds settledAfter(InterfaceSettings const& settings) {
  Seconds const helloHoldTime = 3.5 * settings.hello.period;
  return std::max<Seconds>(settings.joinPruneHoldTime, helloHoldTime) + settings.hello.period +
         settings.hello.triggeredDelay + settings.joinPruneInterval + joinPruneOverrideInterval;
}

// How long it takes after a router has started while no packet is lost: its first Hello; the answers to
// it; its joins, or those of its neighbors after t_override; and the prunes of sources beside them that no
// router overrides.
Seconds const startedAfter =
    2 * InterfaceSettings{}.hello.triggeredDelay + overrideInterval + joinPruneOverrideInterval + 4 * atOnce;

// Every second router refreshes more often, and is forgotten sooner.
InterfaceSettings mixedSettings(U32 router) {
  InterfaceSettings settings;
  if (router % 2 == 1) {
    settings.joinPruneInterval = 12;
    settings.joinPruneHoldTime = 42;
  }
  return settings;
}
InterfaceSettings defaultSettings(U32) { return {}; }

// Ten routers: a LAN of all, three of some, and three links. Of odd seeds the settings are mixed.
struct TenRouters : Network {
  explicit TenRouters(U64 seed) : Network(seed, seed % 2 == 1 ? mixedSettings : defaultSettings) {
    lanIs({0, 1, 2, 3, 4, 5, 6, 7, 8, 9});
    lanIs({0, 1, 2, 3});
    lanIs({3, 4, 5, 6});
    lanIs({6, 7, 8, 9, 0});
    lanIs({1, 5});
    lanIs({2, 8});
    lanIs({4, 9});
  }

  Wish anyWish(U32 router) {
    U32 lan;
    do lan = below(lanCount());
    while (!routersOf(lan).contains(router));
    auto const& there = routersOf(lan);
    U32 upstream;
    do upstream = *std::next(there.begin(), below(static_cast<U32>(there.size())));
    while (upstream == router);
    return {anyRoute(), lan, upstream};
  }

  Route anyRoute() {
    U32 const g = below(30), s = 1 + below(4);
    bool const isIpv4 = below(2) == 0;
    IpGenAddr const group =
        isIpv4 ? IpGenAddr::ipv4(0xef010100 + g) : IpGenAddr("ff0e::1:" + std::to_string(g));
    IpGenAddr const source =
        isIpv4 ? IpGenAddr::ipv4(0x0a090000 + s) : IpGenAddr("2001:db8::9:" + std::to_string(s));
    switch (below(hasPrunes ? 4 : 3)) {
      case 0:
        return Route::wildcard(group);
      case 3:
        return {Speaker::RouteKind::sourceRpt, source, group};
      default:
        return {Speaker::RouteKind::source, source, group};
    }
  }

  Wish wishOf(U32 router) {
    auto const& wishes = wishesOf(router);
    return *std::next(wishes.begin(), below(static_cast<U32>(wishes.size())));
  }

  // A wish more, one fewer, or one that moves.
  void changeAWish() {
    U32 const router = below(routerCount());
    if (!wishesOf(router).empty() && below(2) == 0)
      leave(router, wishOf(router).route);
    else
      want(router, anyWish(router));
  }

  void fill() {
    for (U32 router = 0; router < routerCount(); ++router)
      while (wishesOf(router).size() < 200) want(router, anyWish(router));
  }

  bool hasPrunes = true;  // Whether routers prune sources off shared trees.
};

class NetworkTest : public testing::TestWithParam<U64> {};
INSTANTIATE_TEST_SUITE_P(Seeds, NetworkTest, testing::Range<U64>(1, thorough() ? 31 : 3));

TEST_P(NetworkTest, WhileNoPacketIsLostEachChangeIsStoredAtOnceAndNothingElseIsLost) {
  TenRouters network(GetParam());
  network.faultsAre({.delay = shortDelay});
  network.fill();
  network.runFor(startedAfter);
  EXPECT_THAT(network.differences(), IsEmpty());
  network.wantedLossesAreNoted(true);
  for (int change = 0; change < 25; ++change) {
    network.changeAWish();
    network.runFor(joinPruneOverrideInterval + overrideInterval + 3 * atOnce);
    ASSERT_THAT(network.differences(), IsEmpty()) << "after change " << change;
  }
  // Refreshes alone change nothing.
  network.runFor(settledAfter({}));
  EXPECT_THAT(network.differences(), IsEmpty());
  EXPECT_THAT(network.leftovers(), IsEmpty());
  EXPECT_THAT(network.wantedLosses(), IsEmpty());
}

TEST_P(NetworkTest, ARouterThatRestartsHasItsRoutesAgainWithinTwoTriggeredHellosAndAnOverride) {
  TenRouters network(GetParam());
  network.faultsAre({.delay = shortDelay});
  network.fill();
  network.runFor(startedAfter);
  for (int turn = 0; turn < 4; ++turn) {
    network.restart(network.below(network.routerCount()));
    network.runFor(startedAfter);
    ASSERT_THAT(network.differences(), IsEmpty()) << "after restart " << turn;
    network.runFor(network.random().between(0, 60));
  }
}

TEST_P(NetworkTest, WhatARouterThatVanishesHasAskedForExpiresAndIsThereAgainWhenItIs) {
  TenRouters network(GetParam());
  network.faultsAre({.delay = shortDelay});
  network.fill();
  network.runFor(startedAfter);
  U32 const router = network.below(network.routerCount());
  network.vanish(router);
  network.runFor(InterfaceSettings{}.joinPruneHoldTime + joinPruneOverrideInterval + atOnce);
  EXPECT_THAT(network.differences(), IsEmpty());
  EXPECT_GT(network.totals().expired, 10u);
  network.restart(router);
  network.runFor(startedAfter);
  EXPECT_THAT(network.differences(), IsEmpty());
}

TEST_P(NetworkTest, ARouteThatEndsSinceAPruneWasNotHeardIsJoinedAgainAtOnce) {
  TenRouters network(GetParam());
  network.hasPrunes = false;  // No router is told of a source that is pruned.
  network.fill();
  network.faultsAre({.delay = shortDelay});
  network.runFor(startedAfter);
  network.faultsAre({.unheard = 0.7, .delay = shortDelay});
  network.wantedLossesAreNoted(true);
  for (int change = 0; change < 20; ++change) {
    U32 router;
    Wish wish;
    do {
      router = network.below(network.routerCount());
      wish = network.wishOf(router);
    } while (network.wantedBy(wish) != 2);
    network.leave(router, wish.route);
    network.runFor(joinPruneOverrideInterval + overrideInterval + 3 * atOnce);
    ASSERT_THAT(network.differences(), IsEmpty()) << "after change " << change;
  }
  EXPECT_GT(network.wantedLosses().size(), 5u);
}

TEST_P(NetworkTest, AfterTheFaultsHaveEndedAllThatIsWantedIsStoredAndNothingElse) {
  TenRouters network(GetParam());
  network.fill();
  network.faultsAre({.loss = 0.2, .duplicate = 0.05, .delay = 0.3, .reorder = true, .cut = 0.002});
  for (int moment = 0; moment < 50; ++moment) {
    network.runFor(network.random().between(0, 10));
    switch (network.below(8)) {
      case 0:
        network.restart(network.below(network.routerCount()));
        break;
      case 1:
        network.vanish(network.below(network.routerCount()));
        break;
      default:
        for (U32 n = network.below(20); n > 0; --n) network.changeAWish();
    }
  }
  for (U32 router = 0; router < network.routerCount(); ++router)
    if (!network.isThere(router)) network.restart(router);
  network.faultsAre({});
  network.runFor(settledAfter({}));
  EXPECT_THAT(network.differences(), IsEmpty());
  EXPECT_THAT(network.leftovers(), IsEmpty());
  EXPECT_THAT(network.wrongLosses(), IsEmpty());
  EXPECT_GT(network.totals().lost, 1000u);
}

TEST_P(NetworkTest, ARouteExpiresOnlyIfAllItsRefreshesOfOneHoldTimeWereLostAndIsBackWithTheNextOne) {
  TenRouters network(GetParam());
  network.fill();
  network.runFor(startedAfter);
  network.faultsAre({.loss = 0.6, .delay = 0.2, .reorder = true});
  network.runFor(500);
  EXPECT_THAT(network.wrongLosses(), IsEmpty());
  EXPECT_GT(network.totals().expired, 10u);
  network.faultsAre({});
  network.runFor(settledAfter({}));
  EXPECT_THAT(network.differences(), IsEmpty());
}

// --- How many joins it takes ------------------------------------------------------------------------

// Ten routers on one LAN, of which all but router 0 want the same from that.
struct OneLan : Network {
  explicit OneLan(Settings settings = defaultSettings) : Network(1, std::move(settings)) {
    faultsAre({.delay = 0.1});
    lanIs({0, 1, 2, 3, 4, 5, 6, 7, 8, 9});
  }
  void allWant(Route const& route) {
    for (U32 router = 1; router < routerCount(); ++router) want(router, {route, 0, 0});
  }
  /// How many joins of it are sent in that time.
  U64 joinsWithin(Seconds time, Route const& route) {
    U64 const before = joinsSent(route);
    runFor(time);
    return joinsSent(route) - before;
  }
  static IpGenAddr group(U32 n) { return IpGenAddr::ipv4(0xef010100 + n); }
  static Route source(U32 n) { return {Speaker::RouteKind::source, IpGenAddr("10.9.0.1"), group(n)}; }
  static Route sourceRpt(U32 n) { return {Speaker::RouteKind::sourceRpt, IpGenAddr("10.9.0.1"), group(n)}; }
};

TEST(NetworkOfOneLanTest, ARouteThatNineRoutersWantIsRefreshedByAFewOfThemUnlessSuppressionIsDisabled) {
  auto const joinsInTenPeriods = [](bool isTracked) {
    OneLan network([&](U32) {
      InterfaceSettings settings;
      settings.hello.lanPruneDelay.tracking = isTracked;
      return settings;
    });
    for (U32 n = 0; n < 100; ++n) network.allWant(OneLan::source(n));
    network.runFor(200);
    U64 const before = network.joinsSent();
    network.runFor(600);
    EXPECT_THAT(network.differences(), IsEmpty());
    return network.joinsSent() - before;
  };
  U64 const all = 9 * 10 * 100;
  EXPECT_EQ(joinsInTenPeriods(true), all);
  EXPECT_LT(joinsInTenPeriods(false), all / 3);
}

TEST(NetworkOfOneLanTest, APruneThatEightRoutersOverrideCostsAFewJoins) {
  OneLan network;
  constexpr U32 count = 30;
  for (U32 n = 0; n < count; ++n) {
    network.allWant(OneLan::source(n));
    network.allWant(Route::wildcard(OneLan::group(n)));
  }
  network.runFor(startedAfter);
  U64 joins = 0, rptJoins = 0;
  for (U32 n = 0; n < count; ++n) {
    network.leave(1 + n % 9, OneLan::source(n));
    joins += network.joinsWithin(joinPruneOverrideInterval, OneLan::source(n));
    network.want(1 + n % 9, {OneLan::sourceRpt(n)});
    rptJoins += network.joinsWithin(joinPruneOverrideInterval, OneLan::sourceRpt(n));
  }
  // Refreshes included.
  EXPECT_LT(joins, 4 * count);
  EXPECT_LT(rptJoins, 4 * count);
  EXPECT_GE(joins, count);
  EXPECT_GE(rptJoins, count);
}

TEST(NetworkOfOneLanTest, APruneOfTheSharedTreeOrOfASourceOnItIsOverriddenByThoseWhoWantThatSource) {
  OneLan network;
  network.want(1, {Route::wildcard(OneLan::group(1)), 0, 0});
  network.want(2, {OneLan::source(1), 0, 0});
  network.runFor(startedAfter);
  network.want(1, {OneLan::sourceRpt(1)});
  EXPECT_EQ(network.joinsWithin(joinPruneOverrideInterval, OneLan::source(1)), 1u);
  network.leave(1, Route::wildcard(OneLan::group(1)));
  EXPECT_EQ(network.joinsWithin(joinPruneOverrideInterval, OneLan::source(1)), 1u);
}

// --- Changes of mind, and neighbors of other minds --------------------------------------------------

// A router that has heard a prune joins no sooner than this afterwards.
constexpr Seconds beforeAnOverride = 0.2;

TEST(NetworkOfOneLanTest, AJoinThatIsPendingAsAnOverrideIsNotSentOnceTheRouteIsNoLongerWanted) {
  OneLan network;
  for (U32 n = 0; n < 5; ++n)
    for (U32 router : {1, 2}) network.want(router, {OneLan::source(n), 0, 0});
  network.runFor(startedAfter);
  for (U32 n = 0; n < 5; ++n) {
    network.leave(1, OneLan::source(n));
    network.runFor(beforeAnOverride);
    network.leave(2, OneLan::source(n));
    network.runFor(joinPruneOverrideInterval + overrideInterval + 3 * atOnce);
    EXPECT_THAT(network.differences(), IsEmpty());
  }
}

TEST(NetworkOfOneLanTest, AJoinOfASourceThatIsPendingAsAnOverrideIsNotSentOnceTheSourceIsPruned) {
  OneLan network;
  for (U32 n = 0; n < 5; ++n)
    for (U32 router : {1, 2}) network.want(router, {Route::wildcard(OneLan::group(n)), 0, 0});
  network.runFor(startedAfter);
  for (U32 n = 0; n < 5; ++n) {
    network.want(1, {OneLan::sourceRpt(n)});
    network.runFor(beforeAnOverride);
    network.want(2, {OneLan::sourceRpt(n)});
    network.runFor(joinPruneOverrideInterval + overrideInterval + 3 * atOnce);
    EXPECT_THAT(network.differences(), IsEmpty());
  }
}

TEST(NetworkOfOneLanTest, ARouteOutlivesTheRouterThatRefreshedItMoreOften) {
  OneLan network(mixedSettings);
  for (U32 router : {1, 2}) network.want(router, {OneLan::source(1), 0, 0});
  network.want(2, {OneLan::source(2), 0, 0});
  network.runFor(startedAfter + 300);
  // Router 2 has just refreshed what it alone wants, and does that again in a minute.
  for (int second = 0; second < 60 && network.joinsWithin(1, OneLan::source(2)) == 0;) ++second;
  network.vanish(1);
  network.wantedLossesAreNoted(true);
  network.runFor(120);
  EXPECT_THAT(network.wantedLosses(), IsEmpty());
  EXPECT_THAT(network.differences(), IsEmpty());
}

// Router 1 refreshes so often that router 2 never does, which would have its turn in 25 s.
struct LanWithSuppressedRouter : OneLan {
  LanWithSuppressedRouter() : OneLan(router1IsQuick) {
    for (U32 router : {1, 2}) want(router, {source(1), 0, 0});
    want(2, {source(2), 0, 0});
    runFor(startedAfter + 300);
    for (int second = 0; second < 60 && joinsWithin(1, source(2)) == 0;) ++second;
    runFor(35);
  }
  static InterfaceSettings router1IsQuick(U32 router) {
    InterfaceSettings settings;
    if (router == 1) settings.joinPruneInterval = 2;
    return settings;
  }
};

// Each time one join for what has happened, and one for the next turn.
TEST(NetworkOfOneLanTest, SuppressionEndsWithAPruneThatIsHeard) {
  LanWithSuppressedRouter network;
  network.leave(1, OneLan::source(1));
  EXPECT_EQ(network.joinsWithin(70, OneLan::source(1)), 2u);
}

TEST(NetworkOfOneLanTest, SuppressionEndsWhenTheUpstreamNeighborRestarts) {
  LanWithSuppressedRouter network;
  network.vanish(1);
  network.restart(0);
  EXPECT_EQ(network.joinsWithin(70, OneLan::source(1)), 2u);
}

TEST(NetworkOfOneLanTest, SuppressionEndsWhenTheUpstreamNeighborSaysGoodbyeAndComesBack) {
  LanWithSuppressedRouter network;
  network.vanish(1);
  network.end(0);
  network.runFor(1);
  network.restart(0);
  EXPECT_EQ(network.joinsWithin(70, OneLan::source(1)), 2u);
}

TEST(NetworkOfOneLanTest, ARouterThatSaysGoodbyeIsNoNeighborAtOnce) {
  OneLan network;
  network.runFor(startedAfter);
  network.end(3);
  network.runFor(shortDelay);
  EXPECT_THAT(network.differences(), IsEmpty());
}

TEST(NetworkOfTwoRoutersTest, APruneOfTheOnlyNeighborTakesEffectAtOnce) {
  Network network(1, defaultSettings);
  network.lanIs({0, 1});
  network.want(1, {OneLan::source(1), 0, 0});
  network.runFor(startedAfter);
  EXPECT_THAT(network.differences(), IsEmpty());
  network.leave(1, OneLan::source(1));
  network.runFor(atOnce);
  EXPECT_THAT(network.differences(), IsEmpty());
}

TEST(NetworkOfTenRoutersTest, TheTimeToSettleIs308SecondsWithTheDefaults) {
  EXPECT_EQ(settledAfter({}), 308);
}

}  // namespace
}  // namespace Routing::Pim::Networks
