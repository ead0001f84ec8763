// SPDX-License-Identifier: Apache-2.0
// The cases of what an agent asks of its neighbors.
#include "tests/jpagent/live/FakeLab.h"

namespace Routing::Pim::Jpagent::Live::Test {
namespace {

// t_override is at most that of the usual Hellos, 0.4 s.
constexpr double afterOverride = 1;

Hellos restarted() {
  auto said = FakeLan::usual();
  said.generation = 2;
  return said;
}
Hellos tracking() {
  auto said = FakeLan::usual();
  said.delay = FakeLan::quickDelay(true);
  return said;
}
// B and C are neighbors, and a route is joined at B.
void joined(FakeLan& lan, std::string const& route = "(S,G)") {
  lan.hello('B');
  lan.hello('C');
  lan.say("join " + route + " via B%I");
  lan.sends("B: join " + route);
}

// A route is joined at B, and what C sends to B is answered by one join.
auto overrides(std::string const& route, std::string const& heard) {
  return [=](FakeLan& lan) {
    joined(lan, route);
    lan.send("CB", heard);
    lan.sends("B: join " + route);
    lan.quiet(afterOverride);
  };
}

}  // namespace

std::vector<FakeCase> upstreamCases() {
  return {
      {"A route that is wanted is joined once, and pruned when it is left",
       [](FakeLan& lan) {
         joined(lan);
         lan.quiet(0.5);
         lan.say("join (S,G) via B%I");
         lan.quiet(0.3);
         lan.say("leave (S,G)");
         lan.sends("B: prune (S,G)");
         lan.quiet(0.3);
       }},
      {"A shared tree is joined with its RP",
       [](FakeLan& lan) {
         joined(lan, "(*,G) rp R");
         lan.say("leave (*,G)");
         lan.sends("B: prune (*,G) rp R");
       }},
      {"A join follows when the neighbor comes, after a Hello",
       [](FakeLan& lan) {
         lan.say("join (S,G) via B%I");
         lan.quiet(0.3);
         lan.equal(lan.shown("upstream", "state"), "waiting");
         lan.say("interface I hello-delay 5");
         lan.hello('B');
         lan.equal(lan.next(), "hello");
         lan.equal(lan.next(), "B: join (S,G)");
       }},
      {"Another upstream neighbor has a prune at the old one and a join at the new one",
       [](FakeLan& lan) {
         joined(lan);
         lan.say("join (S,G) via C%I");
         lan.sends("B: prune (S,G)");
         lan.sends("C: join (S,G)");
         lan.quiet(0.3);
       }},
      {"A neighbor that restarts is joined again after a Hello and without a prune",
       [](FakeLan& lan) {
         joined(lan);
         lan.say("interface I hello-delay 5");
         lan.hello('B', restarted());
         auto text = lan.next();
         lan.equal(text, "hello");
         lan.equal(lan.next(), "B: join (S,G)");
         lan.quiet(afterOverride);
       }},
      {"Nothing is sent to a neighbor that has ended, and what is wanted is joined when it returns",
       [](FakeLan& lan) {
         joined(lan);
         lan.hello('B', {.hold = 0});
         lan.quiet(0.5);
         lan.equal(lan.shown("upstream", "state"), "waiting");
         lan.hello('B');
         lan.sends("B: join (S,G)");
       }},
      {"A route that was left while its neighbor was away is not joined",
       [](FakeLan& lan) {
         joined(lan);
         lan.hello('B', {.hold = 0});
         lan.neighbor("up B");
         lan.neighbor("up C");
         lan.neighbor("down B");
         lan.say("leave (S,G)");
         lan.hello('B');
         lan.quiet(0.5);
       }},
      {"A route is refreshed in each interval with the hold time of it",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.say("interface I interval 0.6");
         lan.say("join (S,G) via B%I");
         for (int i = 0; i < 4; ++i) lan.sends("B: join (S,G) hold 2");
       }},
      {"Routes of one neighbor share the messages of a refresh",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.say("interface I interval 1 hold 210");
         lan.say("join (S,G) via B%I");
         lan.sends("B: join (S,G)");
         lan.say("join (S,H) via B%I");
         lan.say("join (T,H) via B%I");
         int messages = 0;
         for (auto text = lan.next(); text.find("(T,H)") == text.npos; text = lan.next()) ++messages;
         lan.between(0, messages, 3);
       }},
      {"A route through another address of a neighbor names the primary one",
       [](FakeLan& lan) {
         auto said = FakeLan::usual();
         said.addresses = {"E"};
         lan.hello('B', said);
         lan.say("join (S,G) via E%I");
         lan.sends("B: join (S,G)");
       }},
      {"An address that is no longer listed has its route pruned and waiting",
       [](FakeLan& lan) {
         auto said = FakeLan::usual();
         said.addresses = {"E"};
         lan.hello('B', said);
         lan.say("join (S,G) via E%I");
         lan.sends("B: join (S,G)");
         lan.hello('B');
         lan.sends("B: prune (S,G)");
         lan.equal(lan.shown("upstream", "state"), "waiting");
       }},
      {"An interface that is down sends nothing, and its routes are joined when it is up",
       [](FakeLan& lan) {
         joined(lan);
         lan.say("interface I down");
         lan.equal(lan.shown("upstream", "state"), "waiting");
         lan.say("interface I up");
         lan.hello('B');
         lan.sends("B: join (S,G)");
       }},

      // --- What others send to the same neighbor

      {"A prune of another router is overridden within the override interval",
       overrides("(S,G)", "prune (S,G)")},
      {"A source is joined after a prune of it on the shared tree", overrides("(S,G)", "prune (S,G,rpt)")},
      {"A source is joined after a prune of the shared tree", overrides("(S,G)", "prune (*,G) rp R")},
      {"The prune of a shared tree is overridden with its RP", overrides("(*,G) rp R", "prune (*,G) rp R")},
      {"A prune to another router, of another route or of what is not wanted is not overridden",
       [](FakeLan& lan) {
         joined(lan);
         lan.send("BC", "prune (S,G)");
         lan.send("CB", "prune (T,G), prune (S,H)");
         lan.quiet(afterOverride);
       }},
      {"A join of a third router takes the override out",
       [](FakeLan& lan) {
         joined(lan);
         auto said = FakeLan::usual();
         said.delay->overrideInterval = 1500;  // t_override is 0.15 s at least
         lan.hello('D', said);
         lan.send("CB", "prune (S,G)");
         lan.send("DB", "join (S,G)");
         lan.quiet(1.6);
       }},
      {"A join of another router suppresses the refresh",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.hello('C');
         lan.say("interface I interval 0.8 hold 210");
         lan.say("join (S,G) via B%I");
         lan.sends("B: join (S,G)");
         for (int i = 0; i < 4; ++i) {
           lan.send("CB", "join (S,G)");
           lan.quiet(0.4);
         }
         lan.equal(lan.shown("upstream", "state"), "suppressed");
         lan.sends("B: join (S,G)");  // when the others are silent
       }},
      {"A join of another router with a short hold time suppresses nothing",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.hello('C');
         lan.say("interface I interval 1 hold 210");
         lan.say("join (S,G) via B%I");
         lan.sends("B: join (S,G)");
         lan.send("CB", "join (S,G)", 1);
         lan.sends("B: join (S,G)");
       }},
      {"Nothing is suppressed where all neighbors track joins",
       [](FakeLan& lan) {
         lan.hello('B', tracking());
         lan.hello('C', tracking());
         lan.say("interface I interval 1 hold 210");
         lan.say("join (S,G) via B%I");
         lan.sends("B: join (S,G)");
         lan.send("CB", "join (S,G)");
         lan.equal(lan.shown("upstream", "state"), "joined");
         lan.sends("B: join (S,G)");
       }},
      {"The own tracking bit takes no part in suppression",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.hello('C', tracking());
         lan.say("interface I tracking on");
         lan.equal(lan.shown("interfaces", "suppression"), true);
         lan.hello('B', tracking());
         lan.say("interface I tracking off");
         lan.equal(lan.shown("interfaces", "suppression"), false);
       }},
      {"A prune of another router ends suppression",
       [](FakeLan& lan) {
         joined(lan);
         lan.send("CB", "join (S,G)");
         lan.quiet(0.2);
         lan.equal(lan.shown("upstream", "state"), "suppressed");
         lan.send("CB", "prune (S,G)");
         lan.sends("B: join (S,G)");
         lan.equal(lan.shown("upstream", "state"), "joined");
       }},

      // --- Sources that are pruned from the shared tree

      {"The join of a shared tree carries the prunes that were wanted before it",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.say("prune (S,G,rpt)");
         lan.quiet(0.3);
         lan.say("join (*,G) rp R via B%I");
         lan.sends("B: join (*,G) rp R, prune (S,G,rpt)");
       }},
      {"A prune that is wanted beside a joined shared tree is sent, and its end is a Join(S,G,rpt) sent once",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.say("interface I interval 1 hold 210");
         lan.say("join (*,G) rp R via B%I");
         lan.sends("B: join (*,G) rp R");
         lan.say("prune (S,G,rpt)");
         lan.sends("B: prune (S,G,rpt)");
         lan.sends("B: join (*,G) rp R, prune (S,G,rpt)");
         lan.say("unprune (S,G,rpt)");
         lan.sends("B: join (S,G,rpt)");
         lan.sends("B: join (*,G) rp R");
       }},
      {"With the shared tree the prunes end without a message, and go with the next join",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.say("join (*,G) rp R via B%I");
         lan.sends("B: join (*,G) rp R");
         lan.say("prune (S,G,rpt)");
         lan.sends("B: prune (S,G,rpt)");
         lan.say("leave (*,G)");
         lan.sends("B: prune (*,G) rp R");
         lan.quiet(0.3);
         lan.say("unprune (S,G,rpt)");
         lan.say("prune (T,G,rpt)");
         lan.quiet(0.3);
         lan.say("join (*,G) rp R via B%I");
         lan.sends("B: join (*,G) rp R, prune (T,G,rpt)");
       }},
      {"A prune of a source on a joined shared tree is overridden once",
       [](FakeLan& lan) {
         joined(lan, "(*,G) rp R");
         lan.send("CB", "prune (S,G,rpt)");
         lan.sends("B: join (S,G,rpt)");
         lan.quiet(afterOverride);
       }},
      {"A Prune(S,G) is overridden on a joined shared tree as well",
       [](FakeLan& lan) {
         joined(lan, "(*,G) rp R");
         lan.send("CB", "prune (S,G)");
         lan.sends("B: join (S,G,rpt)");
       }},
      {"The prune of a source that is pruned here too is not overridden",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.hello('C');
         lan.say("prune (S,G,rpt)");
         lan.say("join (*,G) rp R via B%I");
         lan.sends("B: join (*,G) rp R, prune (S,G,rpt)");
         lan.send("CB", "prune (S,G,rpt)");
         lan.quiet(afterOverride);
       }},
      {"A Join(S,G,rpt) of a third router takes the override out",
       [](FakeLan& lan) {
         joined(lan, "(*,G) rp R");
         auto said = FakeLan::usual();
         said.delay->overrideInterval = 1500;
         lan.hello('D', said);
         lan.send("CB", "prune (S,G,rpt)");
         lan.send("DB", "join (S,G,rpt)");
         lan.quiet(1.6);
       }},

      // --- Ranges and errors

      {"A range has one reply, one message where it fits, and a prune for what of it is left",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.say("join 2 routes from (S,G) via B%I");
         lan.sends("B: join (S,G), join (S,H)");
         lan.say("leave 2 routes from (S,G)");
         lan.sends("B: prune (S,G), prune (S,H)");
       }},
      {"What is not wanted cannot be left, nor what is not pruned be unpruned",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.error("leave (S,G)");
         lan.error("leave (*,G)");
         lan.error("unprune (S,G,rpt)");
         lan.error("join (*,G) via B%I");
         lan.error("join (S,G) via B%none");
         lan.quiet(0.3);
       }},
  };
}

}  // namespace Routing::Pim::Jpagent::Live::Test
