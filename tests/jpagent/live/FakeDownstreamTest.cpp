// SPDX-License-Identifier: Apache-2.0
// The cases of what neighbors ask of an agent.
#include "tests/jpagent/live/FakeLab.h"

namespace Routing::Pim::Jpagent::Live::Test {
namespace {

// The Hello of a neighbor because of which a prune is pending for two seconds.
Hellos slow() {
  auto said = FakeLan::usual();
  said.delay->overrideInterval = 1900;
  return said;
}
// The number of neighbors is two.
void twoNeighbors(FakeLan& lan) {
  lan.hello('B');
  lan.hello('C');
}
// J/P_Override_Interval of neighbors with usual Hellos, and how late a busy machine may be.
constexpr double pending = 0.5, late = 2;

}  // namespace

std::vector<FakeCase> downstreamCases() {
  return {
      {"A join creates the state of a route and a refresh has no event",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.send("B", "join (S,G)");
         lan.downstream("joined (S,G)");
         lan.send("B", "join (S,G)");
         lan.quiet(0.3);
         lan.equal(lan.shown("downstream", "state"), "joined");
       }},
      {"With a single neighbor a prune takes effect at once and has no PruneEcho",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.send("B", "join (S,G), join (T,H)");
         lan.send("B", "prune (S,G)");
         lan.downstream("joined (S,G)");
         lan.downstream("joined (T,H)");
         lan.downstream("pruned (S,G)");
         lan.quiet(0.8);
       }},
      {"With two neighbors a prune is pending, then takes effect and is echoed with the own hold time",
       [](FakeLan& lan) {
         twoNeighbors(lan);
         lan.say("interface I hold 77");
         lan.send("B", "join (S,G)");
         lan.send("B", "prune (S,G)");
         lan.downstream("joined (S,G)");
         auto const since = lan.downstream("prune-pending (S,G)");
         lan.between(pending, lan.downstream("pruned (S,G)") - since, pending + late);
         lan.sends("A: prune (S,G) hold 77");
       }},
      {"A join of another neighbor overrides a prune",
       [](FakeLan& lan) {
         twoNeighbors(lan);
         lan.send("B", "join (S,G)");
         lan.send("B", "prune (S,G)");
         lan.send("C", "join (S,G)");
         lan.downstream("joined (S,G)");
         lan.downstream("prune-pending (S,G)");
         lan.downstream("joined (S,G)");
         lan.quiet(0.8);
       }},
      {"Another prune does not restart the one that is pending",
       [](FakeLan& lan) {
         twoNeighbors(lan);
         lan.hello('D', slow());
         lan.send("B", "join (S,G)");
         lan.send("B", "prune (S,G)");
         lan.downstream("joined (S,G)");
         auto const since = lan.downstream("prune-pending (S,G)");
         pause(1.2);
         lan.send("C", "prune (S,G)");
         lan.between(2, lan.downstream("pruned (S,G)") - since, 3.1);
       }},
      {"A route that is not refreshed expires with its hold time",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.send("B", "join (S,G)", 1);
         auto const since = lan.downstream("joined (S,G)");
         lan.between(1, lan.downstream("expired (S,G)") - since, 1 + late);
         lan.quiet(0.2);
       }},
      {"A shorter hold time does not shorten what is left",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.send("B", "join (S,G)");
         lan.send("B", "join (S,G)", 1);
         lan.downstream("joined (S,G)");
         lan.quiet(1.3);
         lan.between(150, lan.shown("downstream", "expires"), 210);
       }},
      {"A longer hold time prolongs what is left",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.send("B", "join (S,G)", 1);
         lan.send("B", "join (S,G)", 100);
         lan.downstream("joined (S,G)");
         lan.quiet(1.3);
       }},
      {"A hold time of 65535 never expires",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.send("B", "join (S,G)", 65535);
         lan.downstream("joined (S,G)");
         lan.equal(lan.shown("downstream", "expires"), nullptr);
       }},
      {"A route whose prune is pending expires without a PruneEcho",
       [](FakeLan& lan) {
         twoNeighbors(lan);
         lan.hello('D', slow());
         lan.send("B", "join (S,G)", 1);
         lan.send("B", "prune (S,G)");
         lan.downstream("joined (S,G)");
         lan.downstream("prune-pending (S,G)");
         lan.downstream("expired (S,G)");
         lan.quiet(1.5);
       }},
      {"A prune of what is not there does nothing",
       [](FakeLan& lan) {
         twoNeighbors(lan);
         lan.send("B", "prune (S,G), prune (*,G) rp R");
         lan.quiet(0.8);
         lan.equal(lan.show("downstream").size(), 0u);
       }},
      {"The number of neighbors counts when the prune is received",
       [](FakeLan& lan) {
         twoNeighbors(lan);
         lan.send("B", "join (S,G)");
         lan.send("B", "prune (S,G)");
         lan.hello('C', {.hold = 0});
         lan.downstream("joined (S,G)");
         auto const since = lan.downstream("prune-pending (S,G)");
         lan.between(pending, lan.downstream("pruned (S,G)") - since, pending + late);
         lan.sends("A: prune (S,G)");
       }},
      {"A neighbor that ends or restarts ends no route",
       [](FakeLan& lan) {
         twoNeighbors(lan);
         lan.send("B", "join (S,G)");
         lan.send("C", "join (T,G)");
         lan.downstream("joined (S,G)");
         lan.downstream("joined (T,G)");
         auto again = FakeLan::usual();
         again.generation = 2;
         lan.hello('B', again);
         lan.hello('C', {.hold = 0});
         lan.quiet(0.3);
         lan.equal(lan.show("downstream").size(), 2u);
       }},
      {"Routes end with the interface",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.send("B", "join (S,G)");
         lan.downstream("joined (S,G)");
         lan.say("interface I down");
         lan.downstream("expired (S,G)");
         lan.say("interface I up");
         lan.equal(lan.show("downstream").size(), 0u);
       }},
      {"A message to another router creates no state and is an event",
       [](FakeLan& lan) {
         twoNeighbors(lan);
         lan.send("BC", "join (S,G)");
         lan.equal(lan.event("received")["upstream"], lan.address('C'));
         lan.quiet(0.3);
       }},
      {"A message that is accepted is an event with its entries",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.send("B", "join (S,G), prune (T,G), join (*,H) rp R", 99);
         auto const received = lan.event("received");
         lan.equal(received["hold"], 99);
         lan.equal(received["source"], lan.address('B'));
         lan.equal(received["entries"].size(), 3u);
         lan.equal(received["entries"][1]["kind"], "prune");
         lan.equal(received["entries"][2]["rp"], lan.address('R'));
       }},
      {"Routes of one group do not touch one another",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.send("B", "join (S,G), join (T,G), join (*,G) rp R");
         lan.downstream("joined (S,G)");
         lan.downstream("joined (T,G)");
         lan.downstream("joined (*,G) rp R");
         lan.send("B", "prune (T,G)");
         lan.downstream("pruned (T,G)");
         lan.quiet(0.2);
         lan.equal(lan.show("downstream").size(), 2u);
       }},

      // --- Shared trees, and sources that are pruned from them

      {"The PruneEcho of a shared tree names the RP of the prune",
       [](FakeLan& lan) {
         twoNeighbors(lan);
         lan.send("B", "join (*,G) rp R");
         lan.send("B", "prune (*,G) rp R");
         lan.downstream("joined (*,G) rp R");
         lan.downstream("prune-pending (*,G) rp R");
         lan.downstream("pruned (*,G) rp R");
         lan.sends("A: prune (*,G) rp R");
       }},
      {"A join of the shared tree overrides its prune",
       [](FakeLan& lan) {
         twoNeighbors(lan);
         lan.send("B", "join (*,G) rp R");
         lan.send("B", "prune (*,G) rp R");
         lan.send("C", "join (*,G) rp R");
         lan.downstream("joined (*,G) rp R");
         lan.downstream("prune-pending (*,G) rp R");
         lan.downstream("joined (*,G) rp R");
         lan.quiet(0.8);
       }},
      {"A source is pruned from the shared tree at once with a single neighbor",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.send("B", "join (*,G) rp R, prune (S,G,rpt)");
         lan.downstream("joined (*,G) rp R");
         lan.downstream("pruned (S,G,rpt)");
         lan.quiet(0.3);
       }},
      {"A source is pruned from the shared tree after an interval with two neighbors, without a PruneEcho",
       [](FakeLan& lan) {
         twoNeighbors(lan);
         lan.send("B", "join (*,G) rp R");
         lan.send("B", "prune (S,G,rpt)");
         lan.downstream("joined (*,G) rp R");
         auto const since = lan.downstream("prune-pending (S,G,rpt)");
         lan.between(pending, lan.downstream("pruned (S,G,rpt)") - since, pending + late);
         lan.quiet(0.3);
       }},
      {"A source is pruned also where the shared tree is not joined",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.send("B", "prune (S,G,rpt)");
         lan.downstream("pruned (S,G,rpt)");
         lan.equal(lan.shown("downstream", "state"), "pruned");
       }},
      {"Join(S,G,rpt) ends a prune that is pending or in effect",
       [](FakeLan& lan) {
         twoNeighbors(lan);
         lan.send("B", "prune (S,G,rpt)");
         lan.send("C", "join (S,G,rpt)");
         lan.downstream("prune-pending (S,G,rpt)");
         lan.downstream("joined (S,G,rpt)");
         lan.hello('C', {.hold = 0});
         lan.send("B", "prune (S,G,rpt)");
         lan.downstream("pruned (S,G,rpt)");
         lan.send("B", "join (S,G,rpt)");
         lan.downstream("joined (S,G,rpt)");
         lan.quiet(0.6);
       }},
      {"Join(*,G) without the prune ends it, and with the prune keeps it",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.send("B", "prune (S,G,rpt), prune (T,G,rpt)");
         lan.downstream("pruned (S,G,rpt)");
         lan.downstream("pruned (T,G,rpt)");
         lan.send("B", "join (*,G) rp R, prune (T,G,rpt)");
         lan.downstream("joined (*,G) rp R");
         lan.downstream("joined (S,G,rpt)");
         lan.quiet(0.3);
         lan.equal(lan.show("downstream").size(), 2u);
       }},
      {"A prune that is pending stays pending beside Join(*,G) and its timer is not restarted",
       [](FakeLan& lan) {
         twoNeighbors(lan);
         lan.hello('D', slow());
         lan.send("B", "prune (S,G,rpt)");
         auto const since = lan.downstream("prune-pending (S,G,rpt)");
         pause(1.2);
         lan.send("B", "join (*,G) rp R, prune (S,G,rpt)");
         lan.downstream("joined (*,G) rp R");
         lan.between(2, lan.downstream("pruned (S,G,rpt)") - since, 3.1);
       }},
      {"Join(*,G) without the prune ends one that is pending",
       [](FakeLan& lan) {
         twoNeighbors(lan);
         lan.send("B", "prune (S,G,rpt)");
         lan.send("C", "join (*,G) rp R");
         lan.downstream("prune-pending (S,G,rpt)");
         lan.downstream("joined (*,G) rp R");
         lan.downstream("joined (S,G,rpt)");
         lan.quiet(0.8);
       }},
      {"A pruned source expires with its hold time",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.send("B", "prune (S,G,rpt)", 1);
         auto const since = lan.downstream("pruned (S,G,rpt)");
         lan.between(1, lan.downstream("expired (S,G,rpt)") - since, 1 + late);
       }},
      {"A prune in effect is refreshed",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.send("B", "prune (S,G,rpt)", 1);
         lan.send("B", "prune (S,G,rpt)", 100);
         lan.downstream("pruned (S,G,rpt)");
         lan.quiet(1.3);
       }},
      {"Join(S,G,rpt) of what is not pruned does nothing",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.send("B", "join (S,G,rpt)");
         lan.quiet(0.3);
         lan.equal(lan.show("downstream").size(), 0u);
       }},
      {"The prune of the shared tree leaves the prune of a source to its timer",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.send("B", "join (*,G) rp R, prune (S,G,rpt)");
         lan.send("B", "prune (*,G) rp R");
         lan.downstream("joined (*,G) rp R");
         lan.downstream("pruned (S,G,rpt)");
         lan.downstream("pruned (*,G) rp R");
         lan.quiet(0.3);
         lan.equal(lan.shown("downstream", "route"),
                   "(" + lan.address('S') + "," + lan.address('G') + ",rpt)");
       }},
  };
}

}  // namespace Routing::Pim::Jpagent::Live::Test
