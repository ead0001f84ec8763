// SPDX-License-Identifier: Apache-2.0
// The link, the limits and the callbacks of downstream routes.
#include <stdexcept>

#include "runtime/vel/Trace.h"
#include "tests/pim/speaker/DownstreamScene.h"

namespace Routing::Pim::Speaker::Test {
namespace {

class DownstreamEventsTest : public DownstreamScene {};

INSTANTIATE_TEST_SUITE_P(Families, DownstreamEventsTest,
                         testing::Values(AddressFamily::ipv4, AddressFamily::ipv6));

// --- The link --------------------------------------------------------------------------------------

TEST_P(DownstreamEventsTest, AllRoutesEndWithTheirLinkEachWithAnEvent) {
  receive("join (*,G1) R1, join (S1,G1), prune (S2,G1,rpt), prune (S1,G2)");
  receive("prune (S1,G1)");
  take();
  routes->linkDown();
  EXPECT_THAT(take(), testing::UnorderedElementsAre("ended (*,G1) R1 by N1", "ended (S1,G1) by N1",
                                                    "ended (S2,G1,rpt) by N1"));
  EXPECT_EQ(routes->count(), 0u);
  EXPECT_EQ(wheel->timeMin(), Vel::never);
}

TEST_P(DownstreamEventsTest, ANeighborThatIsGoneOrRestartedEndsNoRoute) {
  receive("join (S1,G1)");
  take();
  LinkObserver& observer = *routes;
  observer.neighborRestarted(names.address("N1"));
  neighborsAre({});
  observer.neighborDown(names.address("N1"));
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_EQ(state("(S1,G1)"), "joined until 210");
}

TEST_P(DownstreamEventsTest, TheRoutesAreShownInOrder) {
  receive("join (S2,G2), join (*,G1) R1, prune (S1,G1,rpt), join (S1,G1)", 210, "N2");
  Lines shown;
  for (auto const& route : routes->routes())
    shown.push_back(names.name(route.route) + " " + std::string(text(route.state)) + " " +
                    names.name(route.sender) + (route.rp ? " " + names.name(*route.rp) : ""));
  EXPECT_THAT(shown, ElementsAre("(S1,G1) joined N2", "(*,G1) joined N2 R1", "(S1,G1,rpt) prune-pending N2",
                                 "(S2,G2) joined N2"));
}

TEST_P(DownstreamEventsTest, ARouteThatIsPrunedIsToldOfThoughItsPruneEchoHadNoMemory) {
  receive("join (S1,G1)");
  receive("prune (S1,G1)");
  take();
  onEcho = [] { throw std::bad_alloc(); };
  runUntil(4);
  EXPECT_THAT(take(), ElementsAre("echo (S1,G1)", "pruned (S1,G1) by N1"));
}

// --- Limits ----------------------------------------------------------------------------------------

TEST_P(DownstreamEventsTest, BeyondTheLimitOfTheInterfaceNewRoutesAreRefusedAndOthersRefreshed) {
  routes->limitsAre({.routes = 2});
  receive("join (*,G1) R1, join (S1,G1), join (S2,G1), join (S3,G1), prune (S4,G1,rpt)");
  EXPECT_THAT(take(), ElementsAre("joined (*,G1) R1 by N1", "joined (S1,G1) by N1",
                                  "limit of interface (S2,G1) by N1, left out 0",
                                  "limit of interface (S3,G1) by N1, left out 0",
                                  "limit of interface (S4,G1,rpt) by N1, left out 0"));
  runUntil(10);
  receive("join (S1,G1), prune (*,G1) R1");
  EXPECT_EQ(state("(S1,G1)"), "joined until 220");
  runUntil(13);
  take();
  receive("join (S5,G1)");
  EXPECT_THAT(take(), ElementsAre("joined (S5,G1) by N1"));
  EXPECT_EQ(routes->counters().overLimit, 3u);
}

TEST_P(DownstreamEventsTest, ANeighborsRoutesAreLimitedByThoseThatItsMessagesCreated) {
  routes->limitsAre({.routesOfNeighbor = 1});
  receive("join (S1,G1), join (S2,G1)");
  receive("join (S1,G1), join (S2,G1), join (S3,G1)", 100, "N2");
  EXPECT_THAT(take(), ElementsAre("joined (S1,G1) by N1", "limit of neighbor (S2,G1) by N1, left out 0",
                                  "joined (S2,G1) by N2", "limit of neighbor (S3,G1) by N2, left out 0"));
  EXPECT_EQ(routes->counters().overNeighborLimit, 2u);
  runUntil(100);
  take();
  receive("join (S3,G1)", 100, "N2");
  EXPECT_THAT(take(), ElementsAre("joined (S3,G1) by N2"));
}

TEST_P(DownstreamEventsTest, ARefusedSharedTreeIsToldWithItsRp) {
  routes->limitsAre({.routes = 0});
  receive("join (*,G1) R1");
  EXPECT_THAT(take(), ElementsAre("limit of interface (*,G1) R1 by N1, left out 0"));
}

TEST_P(DownstreamEventsTest, RefusalsAreToldTenTimesASecondWithTheNumberThatWasLeftOut) {
  routes->limitsAre({.routes = 0});
  for (int i = 0; i < 25; ++i) receive("join (S1,G1)");
  EXPECT_THAT(take(), SizeIs(10));
  runUntil(1);
  receive("join (S1,G1)");
  EXPECT_THAT(take(), ElementsAre("limit of interface (S1,G1) by N1, left out 15"));
  EXPECT_EQ(routes->counters().overLimit, 26u);
}

// --- Callbacks -------------------------------------------------------------------------------------

TEST_P(DownstreamEventsTest, AnyCallbackMayDestroyTheRoutes) {
  auto const destroy = [this] { routes = nullptr; };
  auto const anew = [&] {
    onEvent = {}, onLimit = onEcho = link.onFilter = link.onRp = {};
    time = 0;
    routes = std::make_unique<DownstreamRoutes>(link, *this, *this);
  };
  using Change = DownstreamChange;
  for (Change const change :
       {Change::joined, Change::prunePending, Change::pruned, Change::expired, Change::ended}) {
    for (std::string const route : {"(S1,G1)", "(*,G1)", "(S1,G1,rpt)"}) {
      anew();
      onEvent = [&](DownstreamEvent const& event) {
        if (event.change == change && names.name(event.route) == route) destroy();
      };
      bool const isRpt = route == "(S1,G1,rpt)";
      std::string const entry = route + (route == "(*,G1)" ? " R1" : "");
      if (!isRpt) receive("join " + entry + ", join (S2,G1)");
      if (routes) receive("prune " + entry + ", prune (S3,G1,rpt)", change == Change::expired ? 1 : 50);
      if (routes && change == Change::joined && isRpt) receive("join (*,G1) R1, join (S2,G1)");
      if (change == Change::expired && !isRpt) receive("join " + entry);
      if (change == Change::ended) routes->linkDown();
      runUntil(300);
      EXPECT_FALSE(routes) << text(change) << route;
    }
  }
  anew();
  onEcho = destroy;
  receive("join (S1,G1)");
  receive("prune (S1,G1)");
  runUntil(3);
  EXPECT_FALSE(routes);
  anew();
  onLimit = destroy;
  routes->limitsAre({.routes = 0});
  receive("prune (S1,G1,rpt), prune (S2,G1,rpt)");
  EXPECT_FALSE(routes);
  anew();
  link.onFilter = destroy;
  receive("join (S1,G1), join (S2,G2)");
  EXPECT_FALSE(routes);
  anew();
  link.onRp = destroy;
  receive("join (*,G1) R1, join (S2,G2)");
  EXPECT_FALSE(routes);
}

TEST_P(DownstreamEventsTest, AMessageThatComesInsideAnotherOnesCallbackEndsOnlyItsOwnTemporaryStates) {
  receive("prune (S1,G1,rpt), prune (S2,G1,rpt)");
  runUntil(3);
  take();
  onEvent = [this](DownstreamEvent const&) {
    onEvent = {};
    receive("join (*,G1) R1, prune (S3,G1,rpt)", 210, "N2");
  };
  receive("join (*,G1) R1, prune (S1,G1,rpt)");
  EXPECT_THAT(take(), ElementsAre("joined (*,G1) R1 by N1", "prune-pending (S3,G1,rpt) by N2",
                                  "joined (S2,G1,rpt) by N1"));
  EXPECT_EQ(state("(S1,G1,rpt)"), "pruned until 213");
  EXPECT_EQ(state("(S3,G1,rpt)"), "prune-pending until 213, 6");
}

TEST_P(DownstreamEventsTest, TimersThatAreDueInsideAMessageExpireWhenItHasEnded) {
  receive("prune (S1,G1,rpt)");
  take();
  onEvent = [this](DownstreamEvent const&) {
    onEvent = {};
    time = 5;
    wheel->expire();
  };
  receive("join (*,G1) R1, prune (S1,G1,rpt)");
  EXPECT_EQ(state("(S1,G1,rpt)"), "prune-pending until 210, 3");
  runUntil(5);
  EXPECT_THAT(take(), ElementsAre("joined (*,G1) R1 by N1", "pruned (S1,G1,rpt) by N1"));
}

TEST_P(DownstreamEventsTest, ALinkThatGoesDownInsideAMessageEndsTheMessage) {
  receive("prune (S2,G1,rpt)");
  take();
  onEvent = [this](DownstreamEvent const&) {
    onEvent = {};
    routes->linkDown();
  };
  receive("join (*,G1) R1, join (S1,G1), prune (S3,G1,rpt), join (S1,G2)");
  EXPECT_THAT(take(), testing::UnorderedElementsAre("joined (*,G1) R1 by N1", "ended (S2,G1,rpt) by N1",
                                                    "ended (*,G1) R1 by N1"));
  EXPECT_EQ(routes->count(), 0u);
}

TEST_P(DownstreamEventsTest, WhatACallbackThrowsHasNoEffect) {
  Lines traces;
  Vel::traceSinkIs([&](Vel::TraceLine const& line) { traces.push_back(line.text); });
  onEvent = [](DownstreamEvent const&) { throw std::runtime_error("no more"); };
  receive("join (S1,G1), join (S2,G1)");
  runUntil(210);
  onEvent = {};
  link.onFilter = [] { throw 1; };
  receive("join (S1,G1)");
  Vel::traceSinkIs({});
  EXPECT_THAT(take(), SizeIs(4));
  EXPECT_THAT(traces, SizeIs(5));
  EXPECT_EQ(traces.front(), "no more");
  EXPECT_EQ(routes->count(), 0u);
}

TEST_P(DownstreamEventsTest, ACallbackThatJoinsWhatExpiresAgainAndAgainDoesNotHoldUpTheTimers) {
  onEvent = [this](DownstreamEvent const& event) {
    if (event.change != DownstreamChange::joined) receive("join (S1,G1)", 0);
  };
  receive("join (S1,G1)", 0);
  wheel->expire();
  EXPECT_THAT(take(), SizeIs(3));
  routes->linkDown();
  EXPECT_EQ(routes->count(), 1u);
}

}  // namespace
}  // namespace Routing::Pim::Speaker::Test
